// SPDX-License-Identifier: LGPL-2.1-or-later
// GlobalFunction's conversions beside the scalar reference and the nearest
// operations of libyuv and OpenCV (single-threaded), on the same buffers.

#include "bench/benchsummary.h"
#include "imaging/convertreference.h"
#include "imaging/framekernels.h"
#include "imaging/globalfunction.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <functional>
#include <random>
#include <vector>

#ifdef KAVREL_BENCH_LIBYUV
#include <libyuv.h>
#endif
#ifdef KAVREL_BENCH_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

using GF = GlobalFunction;
using Buf = std::vector<unsigned char>;

// Source and destination of one run, and room for a two-step conversion's
// intermediate image; the source is noise (or grey noise).
struct Images {
    int w, h;
    Buf src, dst, mid;
    Images(const BenchSize& s, bool bGreyContent)
        : w(s.nWidth), h(s.nHeight), src(4 * static_cast<size_t>(w) * h + 64), dst(src.size()), mid(src.size())
    {
        std::mt19937 rng(42);
        for (size_t i = 0; i < src.size(); i += 3) {
            const unsigned v = rng();
            for (size_t c = 0; c < 3 && i + c < src.size(); ++c)
                src[i + c] = static_cast<unsigned char>(bGreyContent ? v : v >> (8 * c));
        }
    }
};

using Kernel = std::function<void(Images&)>;

void add(const std::string& strCase, const std::string& strImpl, Kernel fn, bool bGrey = false)
{
    for (const BenchSize& size : benchSizes())
        benchmark::RegisterBenchmark(benchName(strCase, strImpl, size).c_str(),
                                     [fn, size, bGrey](benchmark::State& state) {
                                         Images img(size, bGrey);
                                         for (auto _ : state) {
                                             fn(img);
                                             benchmark::ClobberMemory();
                                         }
                                     })
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
}

const char* const kTypeNames[4] = {"Y0UY1V", "Y0VY1U", "VY1UY0", "UY1VY0"};

} // namespace

void registerConversionBenchmarks()
{
    for (int t = 0; t < 4; ++t) {
        const auto type = static_cast<GF::YUV422_Type>(t);
        const std::string toDib = std::string("YUV422_To_DIB ") + kTypeNames[t];
        const std::string toGrey = std::string("YUV422_To_Gray8 ") + kTypeNames[t];
        add(toDib, "kavrel", [type](Images& i) { GF::PixelFormat_YUV422Packed_To_DIB(type, i.src.data(), i.dst.data(), i.w, i.h); });
        add(toGrey, "kavrel", [type](Images& i) { GF::PixelFormat_YUV422Packed_To_Gray8(type, i.src.data(), i.dst.data(), i.w, i.h); });
        if (t == 0) {
            add(toDib, "reference", [t](Images& i) { kavrel::ref::yuv422ToDib(t, i.src.data(), i.dst.data(), i.w, i.h); });
            add(toGrey, "reference", [t](Images& i) { kavrel::ref::yuv422ToGray8(t, i.src.data(), i.dst.data(), i.w, i.h); });
        }
#ifdef KAVREL_BENCH_OPENCV
        // Same component positions (types 2 and 3 have the lumas swapped,
        // which costs nothing); the grey codes only extract luma.
        const int cvDib[4] = {cv::COLOR_YUV2BGR_YUY2, cv::COLOR_YUV2BGR_YVYU, cv::COLOR_YUV2BGR_UYVY, cv::COLOR_YUV2BGR_UYVY};
        const int cvGrey[4] = {cv::COLOR_YUV2GRAY_YUY2, cv::COLOR_YUV2GRAY_YVYU, cv::COLOR_YUV2GRAY_UYVY, cv::COLOR_YUV2GRAY_UYVY};
        const int nDib = cvDib[t], nGrey = cvGrey[t];
        add(toDib, "opencv", [nDib](Images& i) {
            cv::Mat s(i.h, i.w, CV_8UC2, i.src.data()), d(i.h, i.w, CV_8UC3, i.dst.data());
            cv::cvtColor(s, d, nDib);
        });
        add(toGrey, "opencv", [nGrey](Images& i) {
            cv::Mat s(i.h, i.w, CV_8UC2, i.src.data()), d(i.h, i.w, CV_8UC1, i.dst.data());
            cv::cvtColor(s, d, nGrey);
        });
#endif
#ifdef KAVREL_BENCH_LIBYUV
        // No 24-bit output from packed 4:2:2 there: the 32-bit one is nearest.
        if (t == 0 || t == 3) {
            const bool bYuy2 = t == 0;
            add(toDib, "libyuv", [bYuy2](Images& i) {
                (bYuy2 ? libyuv::YUY2ToARGB : libyuv::UYVYToARGB)(i.src.data(), 2 * i.w, i.dst.data(), 4 * i.w, i.w, i.h);
            });
            add(toGrey, "libyuv", [bYuy2](Images& i) {
                (bYuy2 ? libyuv::YUY2ToY : libyuv::UYVYToY)(i.src.data(), 2 * i.w, i.dst.data(), i.w, i.w, i.h);
            });
        }
#endif
    }

    // The libraries' one-call "YUV to grey" above only copies the luma. Their
    // nearest computing equivalent, colour first and then its weighted grey
    // (full-range 0.299 / 0.587 / 0.114 in both), stands beside it.
    const std::string viaColour = "YUV422_To_Gray8 Y0UY1V (libraries: colour, then grey)";
    add(viaColour, "kavrel", [](Images& i) { GF::PixelFormat_YUV422Packed_To_Gray8(GF::YUV422_Y0UY1V, i.src.data(), i.dst.data(), i.w, i.h); });
#ifdef KAVREL_BENCH_OPENCV
    add(viaColour, "opencv", [](Images& i) {
        cv::Mat s(i.h, i.w, CV_8UC2, i.src.data()), m(i.h, i.w, CV_8UC3, i.mid.data()), d(i.h, i.w, CV_8UC1, i.dst.data());
        cv::cvtColor(s, m, cv::COLOR_YUV2BGR_YUY2);
        cv::cvtColor(m, d, cv::COLOR_BGR2GRAY);
    });
#endif
#ifdef KAVREL_BENCH_LIBYUV
    add(viaColour, "libyuv", [](Images& i) {
        libyuv::YUY2ToARGB(i.src.data(), 2 * i.w, i.mid.data(), 4 * i.w, i.w, i.h);
        libyuv::ARGBToJ400(i.mid.data(), 4 * i.w, i.dst.data(), i.w, i.w, i.h);
    });
#endif

    for (bool bGrey : {false, true}) {
        const std::string c = bGrey ? "DIB_To_Gray8 (grey content)" : "DIB_To_Gray8";
        add(c, "kavrel", [](Images& i) { GF::PixelFormat_DIB_To_Gray8(i.src.data(), i.dst.data(), i.w, i.h); }, bGrey);
        add(c, "reference", [](Images& i) { kavrel::ref::dibToGray(i.src.data(), i.dst.data(), i.w, i.h, i.w); }, bGrey);
#ifdef KAVREL_BENCH_OPENCV
        add(c, "opencv", [](Images& i) {
            cv::Mat s(i.h, i.w, CV_8UC3, i.src.data()), d(i.h, i.w, CV_8UC1, i.dst.data());
            cv::cvtColor(s, d, cv::COLOR_BGR2GRAY);
        }, bGrey);
#endif
#ifdef KAVREL_BENCH_LIBYUV
        add(c, "libyuv", [](Images& i) { libyuv::RGB24ToJ400(i.src.data(), 3 * i.w, i.dst.data(), i.w, i.w, i.h); }, bGrey);
#endif
    }
    add("DIB_To_Gray8Aligned", "kavrel", [](Images& i) { GF::PixelFormat_DIB_To_Gray8Aligned(i.src.data(), i.dst.data(), i.w, i.h); });
    add("DIB_To_Gray8Aligned", "reference", [](Images& i) {
        kavrel::ref::dibToGray(i.src.data(), i.dst.data(), i.w, i.h, kavrel::ref::grayAlignedStride(i.w));
    });

    add("Gray8_To_DIB", "kavrel", [](Images& i) { GF::PixelFormat_Gray8_To_DIB(i.src.data(), i.dst.data(), i.w, i.h); });
    add("Gray8_To_DIB", "reference", [](Images& i) { kavrel::ref::grayToDib(i.src.data(), i.w, i.dst.data(), i.w, i.h); });
    add("Gray8Aligned_To_DIB", "kavrel", [](Images& i) { GF::PixelFormat_Gray8Aligned_To_DIB(i.src.data(), i.dst.data(), i.w, i.h); });
#ifdef KAVREL_BENCH_OPENCV
    add("Gray8_To_DIB", "opencv", [](Images& i) {
        cv::Mat s(i.h, i.w, CV_8UC1, i.src.data()), d(i.h, i.w, CV_8UC3, i.dst.data());
        cv::cvtColor(s, d, cv::COLOR_GRAY2BGR);
    });
#endif
#ifdef KAVREL_BENCH_LIBYUV
    // Nearest there: grey to 32-bit.
    add("Gray8_To_DIB", "libyuv", [](Images& i) { libyuv::J400ToARGB(i.src.data(), i.w, i.dst.data(), 4 * i.w, i.w, i.h); });
#endif

    add("Gray8_To_Gray8Aligned", "kavrel", [](Images& i) { GF::PixelFormat_Gray8_To_Gray8Aligned(i.src.data(), i.dst.data(), i.w, i.h); });
    add("Gray8Aligned_To_Gray8", "kavrel", [](Images& i) { GF::PixelFormat_Gray8Aligned_To_Gray8(i.src.data(), i.dst.data(), i.w, i.h); });
    add("Gray8_To_Gray8Aligned", "memcpy", [](Images& i) { std::memcpy(i.dst.data(), i.src.data(), static_cast<size_t>(i.w) * i.h); });
#ifdef KAVREL_BENCH_OPENCV
    add("Gray8_To_Gray8Aligned", "opencv", [](Images& i) {
        cv::Mat s(i.h, i.w, CV_8UC1, i.src.data()), d(i.h, i.w, CV_8UC1, i.dst.data());
        s.copyTo(d);
    });
#endif
#ifdef KAVREL_BENCH_LIBYUV
    add("Gray8_To_Gray8Aligned", "libyuv", [](Images& i) { libyuv::CopyPlane(i.src.data(), i.w, i.dst.data(), i.w, i.w, i.h); });
#endif

    // The driver's frame pass on noise (the request path's own cases use the
    // simulated camera's picture, half of it grey), beside the two copies the
    // request path needs: the frame's bytes and the image's bytes.
    const std::string grey3 = "Frame grey from 3-byte pixels (noise)", expand = "Frame 1-to-3 expansion (noise)";
    add(grey3, "kavrel", [](Images& i) { kavrel::transferGrey3To1(i.src.data(), i.dst.data(), static_cast<size_t>(i.w) * i.h, nullptr); });
    add(grey3, "memcpy x2", [](Images& i) {
        const size_t n = static_cast<size_t>(i.w) * i.h;
        std::memcpy(i.mid.data(), i.src.data(), 3 * n);
        std::memcpy(i.dst.data(), i.mid.data(), n);
    });
    add(expand, "kavrel", [](Images& i) { kavrel::transferExpand3(i.src.data(), i.dst.data(), static_cast<size_t>(i.w) * i.h, nullptr); });
    add(expand, "memcpy x2", [](Images& i) {
        const size_t n = static_cast<size_t>(i.w) * i.h;
        std::memcpy(i.mid.data(), i.src.data(), n);
        std::memcpy(i.dst.data(), i.mid.data(), 3 * n);
    });

    // Ours works in place; the others write a second buffer.
    add("Exg_RB", "kavrel", [](Images& i) { GF::Exg_RB(i.src.data(), i.w, i.h); });
    add("Exg_RB", "reference", [](Images& i) { kavrel::ref::exgRB(i.src.data(), i.w, i.h); });
#ifdef KAVREL_BENCH_OPENCV
    add("Exg_RB", "opencv", [](Images& i) {
        cv::Mat s(i.h, i.w, CV_8UC3, i.src.data()), d(i.h, i.w, CV_8UC3, i.dst.data());
        cv::cvtColor(s, d, cv::COLOR_BGR2RGB);
    });
#endif
#ifdef KAVREL_BENCH_LIBYUV
    add("Exg_RB", "libyuv", [](Images& i) { libyuv::RAWToRGB24(i.src.data(), 3 * i.w, i.dst.data(), 3 * i.w, i.w, i.h); });
#endif
}
