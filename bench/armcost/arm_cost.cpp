// SPDX-License-Identifier: LGPL-2.1-or-later
// What the pixel work costs, region by region, for counting under qemu-arm
// with the insncount plugin (scripts/arm-cost.sh) or for timing on a device.
//
// Every region runs one operation a few times on noisy frames (random bytes:
// camera frames are noisy, and a flat test pattern takes fast paths that real
// frames do not) after one untimed run that builds first-use tables and faults
// the buffers in. kavrel_cost_begin() and kavrel_cost_end() bracket a region;
// the plugin counts the guest instructions between them. Per region the
// program prints one line: case, implementation, size, runs, milliseconds per
// run (wall clock: meaningful on a device only, not under emulation).
//
// Implementations: "kavrel" (GlobalFunction, or the image request path on the
// simulated camera), "libyuv" and "opencv" (their nearest operation, when
// built in), "memcpy x2" (the floor: a copy of the input's bytes and a copy of
// the output's bytes).
//
// Debian's armhf libyuv and OpenCV are built for the baseline (VFPv3-D16, no
// NEON rows at all), so their portable code is what both builds compare with.

#include "api/interface.h"
#include "imaging/globalfunction.h"
#include "sdk/torvanesim.h"
#include "bench/requestcases.h"

#ifdef KAVREL_ARMCOST_LIBYUV
#include <libyuv.h>
#endif
#ifdef KAVREL_ARMCOST_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

// Markers: the plugin recognises their entry points. Different bodies keep
// the linker from folding them into one function.
volatile int gnCostMarker;
extern "C" __attribute__((noinline)) void kavrel_cost_begin() { gnCostMarker = 1; }
extern "C" __attribute__((noinline)) void kavrel_cost_end() { gnCostMarker = 2; }

namespace {

using GF = GlobalFunction;

constexpr int kRuns = 2;            // runs per region (counts are per run)
constexpr uint32_t kNoiseSeed = 0x4B415652u;

struct Size {
    int w;
    int h;
};
const Size kSizes[] = {{640, 480}, {1280, 960}};

// xorshift32: the same noise on every machine and in every build.
void fillNoise(std::vector<unsigned char>& v, uint32_t seed)
{
    uint32_t x = seed;
    for (unsigned char& b : v) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        b = static_cast<unsigned char>(x >> 24);
    }
}

void region(const std::string& strCase, const char* pszImpl, const Size& s, const std::function<void()>& fn)
{
    fn();
    const auto t0 = std::chrono::steady_clock::now();
    kavrel_cost_begin();
    for (int r = 0; r < kRuns; ++r)
        fn();
    kavrel_cost_end();
    const auto t1 = std::chrono::steady_clock::now();
    const double ms = std::chrono::duration<double, std::milli>(t1 - t0).count() / kRuns;
    std::printf("%s\t%s\t%dx%d\t%d\t%.4f\n", strCase.c_str(), pszImpl, s.w, s.h, kRuns, ms);
    std::fflush(stdout);
}

struct Buffers {
    std::vector<unsigned char> src, mid, dst;
    explicit Buffers(const Size& s)
        : src(static_cast<size_t>(s.w) * s.h * 4 + 64), mid(src.size()), dst(src.size())
    {
        fillNoise(src, kNoiseSeed);
    }
};

void conversions(const Size& s)
{
    Buffers b(s);
    const int w = s.w, h = s.h;
    unsigned char* const src = b.src.data();
    unsigned char* const dst = b.dst.data();
    const size_t px = static_cast<size_t>(w) * h;
    auto floor = [&](const std::string& c, size_t inBytes, size_t outBytes) {
        region(c, "memcpy x2", s, [&, inBytes, outBytes] {
            std::memcpy(b.mid.data(), src, inBytes);
            std::memcpy(dst, b.mid.data(), outBytes);
        });
    };

    const char* const typeNames[4] = {"Y0UY1V", "Y0VY1U", "VY1UY0", "UY1VY0"};
    for (int t = 0; t < 4; ++t) {
        const auto type = static_cast<GF::YUV422_Type>(t);
        const std::string toDib = std::string("YUV422_To_DIB ") + typeNames[t];
        const std::string toGrey = std::string("YUV422_To_Gray8 ") + typeNames[t];
        region(toDib, "kavrel", s, [&] { GF::PixelFormat_YUV422Packed_To_DIB(type, src, dst, w, h); });
#ifdef KAVREL_ARMCOST_OPENCV
        const int cvDib[4] = {cv::COLOR_YUV2BGR_YUY2, cv::COLOR_YUV2BGR_YVYU, cv::COLOR_YUV2BGR_UYVY, cv::COLOR_YUV2BGR_UYVY};
        region(toDib, "opencv", s, [&] {
            cv::Mat ms(h, w, CV_8UC2, src), md(h, w, CV_8UC3, dst);
            cv::cvtColor(ms, md, cvDib[t]);
        });
#endif
#ifdef KAVREL_ARMCOST_LIBYUV
        // No 24-bit output from packed 4:2:2 there: the 32-bit one is nearest.
        if (t == 0 || t == 3)
            region(toDib, "libyuv", s, [&] {
                (t == 0 ? libyuv::YUY2ToARGB : libyuv::UYVYToARGB)(src, 2 * w, dst, 4 * w, w, h);
            });
#endif
        if (t == 0)
            floor(toDib, 2 * px, 3 * px);

        region(toGrey, "kavrel", s, [&] { GF::PixelFormat_YUV422Packed_To_Gray8(type, src, dst, w, h); });
        if (t == 0) {
            // The libraries' one-call grey only copies the luma; their nearest
            // computing equivalent is colour first, then its weighted grey.
#ifdef KAVREL_ARMCOST_OPENCV
            region(toGrey, "opencv", s, [&] {
                cv::Mat ms(h, w, CV_8UC2, src), mm(h, w, CV_8UC3, b.mid.data()), md(h, w, CV_8UC1, dst);
                cv::cvtColor(ms, mm, cv::COLOR_YUV2BGR_YUY2);
                cv::cvtColor(mm, md, cv::COLOR_BGR2GRAY);
            });
#endif
#ifdef KAVREL_ARMCOST_LIBYUV
            region(toGrey, "libyuv", s, [&] {
                libyuv::YUY2ToARGB(src, 2 * w, b.mid.data(), 4 * w, w, h);
                libyuv::ARGBToJ400(b.mid.data(), 4 * w, dst, w, w, h);
            });
#endif
            floor(toGrey, 2 * px, px);
        }
    }

    region("DIB_To_Gray8", "kavrel", s, [&] { GF::PixelFormat_DIB_To_Gray8(src, dst, w, h); });
#ifdef KAVREL_ARMCOST_OPENCV
    region("DIB_To_Gray8", "opencv", s, [&] {
        cv::Mat ms(h, w, CV_8UC3, src), md(h, w, CV_8UC1, dst);
        cv::cvtColor(ms, md, cv::COLOR_BGR2GRAY);
    });
#endif
#ifdef KAVREL_ARMCOST_LIBYUV
    region("DIB_To_Gray8", "libyuv", s, [&] { libyuv::RGB24ToJ400(src, 3 * w, dst, w, w, h); });
#endif
    floor("DIB_To_Gray8", 3 * px, px);
    region("DIB_To_Gray8Aligned", "kavrel", s, [&] { GF::PixelFormat_DIB_To_Gray8Aligned(src, dst, w, h); });

    region("Gray8_To_DIB", "kavrel", s, [&] { GF::PixelFormat_Gray8_To_DIB(src, dst, w, h); });
#ifdef KAVREL_ARMCOST_OPENCV
    region("Gray8_To_DIB", "opencv", s, [&] {
        cv::Mat ms(h, w, CV_8UC1, src), md(h, w, CV_8UC3, dst);
        cv::cvtColor(ms, md, cv::COLOR_GRAY2BGR);
    });
#endif
#ifdef KAVREL_ARMCOST_LIBYUV
    region("Gray8_To_DIB", "libyuv", s, [&] { libyuv::J400ToARGB(src, w, dst, 4 * w, w, h); });
#endif
    floor("Gray8_To_DIB", px, 3 * px);
    region("Gray8Aligned_To_DIB", "kavrel", s, [&] { GF::PixelFormat_Gray8Aligned_To_DIB(src, dst, w, h); });

    region("Gray8_To_Gray8Aligned", "kavrel", s, [&] { GF::PixelFormat_Gray8_To_Gray8Aligned(src, dst, w, h); });
    region("Gray8Aligned_To_Gray8", "kavrel", s, [&] { GF::PixelFormat_Gray8Aligned_To_Gray8(src, dst, w, h); });
#ifdef KAVREL_ARMCOST_OPENCV
    region("Gray8_To_Gray8Aligned", "opencv", s, [&] {
        cv::Mat ms(h, w, CV_8UC1, src), md(h, w, CV_8UC1, dst);
        ms.copyTo(md);
    });
#endif
#ifdef KAVREL_ARMCOST_LIBYUV
    region("Gray8_To_Gray8Aligned", "libyuv", s, [&] { libyuv::CopyPlane(src, w, dst, w, w, h); });
#endif
    floor("Gray8_To_Gray8Aligned", px, px);

    // Ours swaps in place; the others write a second buffer.
    region("Exg_RB", "kavrel", s, [&] { GF::Exg_RB(src, w, h); });
#ifdef KAVREL_ARMCOST_OPENCV
    region("Exg_RB", "opencv", s, [&] {
        cv::Mat ms(h, w, CV_8UC3, src), md(h, w, CV_8UC3, dst);
        cv::cvtColor(ms, md, cv::COLOR_BGR2RGB);
    });
#endif
#ifdef KAVREL_ARMCOST_LIBYUV
    region("Exg_RB", "libyuv", s, [&] { libyuv::RAWToRGB24(src, 3 * w, dst, 3 * w, w, h); });
#endif
    floor("Exg_RB", 3 * px, 3 * px);
}

using kavrelbench::RequestCase;

// The library's whole request: the SDK hands over a queued noisy frame (a
// pointer swap in the simulated camera), the driver's transfer pass (copy,
// expansion or grey, with gamma) and the copy into the hand-over buffer.
void request(const RequestCase& c, const Size& s)
{
    const size_t nFrame = static_cast<size_t>(s.w) * s.h * c.nFrameBytes;
    const size_t nImage = static_cast<size_t>(s.w) * s.h * (c.nPixFmt == 0 ? 1 : 3);
    std::vector<unsigned char> frame(nFrame);
    fillNoise(frame, kNoiseSeed);

    torvanesim_reset();
    torvanesim_set_sensor(s.w, s.h, c.nFrameBytes);
    torvanesim_set_frame_rate(0);
    torvanesim_log_frames(0);
    char szConfig[256];
    kavrelbench::formatRequestConfig(szConfig, sizeof szConfig, c);
    KavrelInterface* api = KavrelInterface::getInstance();
    api->setConfigStringMain(szConfig);
    if (!api->connectMain() || !api->startMain()) {
        std::fprintf(stderr, "kavrel_arm_cost: %s: %s\n", c.pszName, api->getLastError());
        std::exit(1);
    }
    // One frame per request, the untimed first one included.
    for (int i = 0; i <= kRuns; ++i)
        torvanesim_queue_frame(s.w, s.h, c.nFrameBytes, frame.data());
    region(c.pszName, "kavrel", s, [&] {
        int w = 0, bpl = 0, h = 0;
        unsigned char* p = api->requestImageMain(&w, &bpl, &h, 1000);
        if (!p || w != s.w || h != s.h) {
            std::fprintf(stderr, "kavrel_arm_cost: %s: no image\n", c.pszName);
            std::exit(1);
        }
        api->releaseImageMain(p);
    });
    api->stopMain();
    api->disconnectMain();

    // The peers' nearest transfer pass, then the same hand-over copy.
    // The floor's first copy moves the whole frame, which may exceed the image,
    // and libyuv's grey to colour writes 32-bit pixels.
    const size_t nWork = std::max({nFrame, nImage, static_cast<size_t>(s.w) * s.h * 4});
    std::vector<unsigned char> image(nWork + 64), host(nImage + 64);
    unsigned char* const src = frame.data();
    unsigned char* const img = image.data();
    const int w = s.w, h = s.h;
    auto handOver = [&] { std::memcpy(host.data(), img, nImage); };
    const bool bGrey = c.nPixFmt == 0, b3 = c.nFrameBytes == 3, bGamma = std::strcmp(c.pszGamma, "1.00") != 0;
    (void)w, (void)h, (void)bGrey, (void)b3, (void)bGamma;  // used by the peers only
#ifdef KAVREL_ARMCOST_OPENCV
    {
        std::vector<unsigned char> table(256);
        for (int i = 0; i < 256; ++i)
            table[i] = static_cast<unsigned char>(i ^ 0x5A);  // the cost does not depend on the values
        region(c.pszName, "opencv", s, [&] {
            cv::Mat ms(h, w, b3 ? CV_8UC3 : CV_8UC1, src), md(h, w, bGrey ? CV_8UC1 : CV_8UC3, img);
            if (b3 && bGrey)
                cv::cvtColor(ms, md, cv::COLOR_BGR2GRAY);
            else if (!b3 && !bGrey)
                cv::cvtColor(ms, md, cv::COLOR_GRAY2BGR);
            else if (bGamma)
                cv::LUT(ms, cv::Mat(1, 256, CV_8UC1, table.data()), md);
            else
                ms.copyTo(md);
            handOver();
        });
    }
#endif
#ifdef KAVREL_ARMCOST_LIBYUV
    // No byte table for 24-bit pixels there: no gamma case.
    if (!bGamma)
        region(c.pszName, "libyuv", s, [&] {
            if (b3 && bGrey)
                libyuv::RGB24ToJ400(src, 3 * w, img, w, w, h);
            else if (!b3 && !bGrey)
                libyuv::J400ToARGB(src, w, img, 4 * w, w, h);  // 32-bit: nearest there
            else
                libyuv::CopyPlane(src, w * c.nFrameBytes, img, w * c.nFrameBytes, w * c.nFrameBytes, h);
            handOver();
        });
#endif
    region(c.pszName, "memcpy x2", s, [&] {
        std::memcpy(img, src, nFrame);
        handOver();
    });
}

} // namespace

// A loop of known length, so that the script can check the counting itself:
// 2 * kCalibrationTurns instructions per run, plus the call around it.
constexpr int kCalibrationTurns = 100000;

__attribute__((noinline)) void calibrationLoop()
{
#if defined(__arm__)
    int n = kCalibrationTurns;
    asm volatile("1: subs %0, %0, #1\n\tbne 1b" : "+r"(n) : : "cc");
#endif
}

int main()
{
#ifdef KAVREL_ARMCOST_OPENCV
    cv::setNumThreads(0);  // single-threaded, like ours
#endif
    region("calibration", "loop", Size{kCalibrationTurns, 1}, calibrationLoop);
    for (const Size& s : kSizes) {
        conversions(s);
        for (const RequestCase& c : kavrelbench::kRequestCases)
            request(c, s);
    }
    return 0;
}
