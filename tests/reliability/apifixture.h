// SPDX-License-Identifier: LGPL-2.1-or-later
// What the reliability tests share: a look inside KavrelInterface, a fixture
// over the singleton and the simulated camera, and image checks against the
// simulated camera's own rendering.
#ifndef KAVREL_TESTS_APIFIXTURE_H
#define KAVREL_TESTS_APIFIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "api/interface.h"
#include "api/kavrel.h"
#include "camera/ccdwebcam.h"
#include "heapprobe.h"
#include "sdk/torvanesim.h"

class KavrelInterfaceTestPeer
{
public:
    KavrelInterface& a = *KavrelInterface::getInstance();
    int ccdPosAndPixFmtMain() const { return a.m_nCCDPosMain * 100 + a.m_nPixFmtMain; }
    int gainMain() const { return a.m_cSettingsMain.nGain; }
    int bufSizeMain() const { return a.m_nImageBufSizeMain; }
    // True when no image of either camera is lent (the hand-over mutexes are free).
    bool nothingLent() const
    {
        auto isFree = [](QMutex& m) { return m.tryLock() && (m.unlock(), true); };
        return isFree(a.m_cImageMutexMain) && isFree(a.m_cImageMutexSlaver);
    }
};

// <PixFmt> code 1 is BGR, 0 grey; the settings leave the simulated picture as
// rendered unless `settings` (inserted first, so it counts) says otherwise.
inline std::string configFor(int pixFmtCode, int width, int height, const std::string& settings = "")
{
    return "<PixFmt>" + std::to_string(pixFmtCode) + "</PixFmt><ROI>" + std::to_string(width) + "," +
           std::to_string(height) + "</ROI><Settings>" + settings + "<Gamma>1.00</Gamma><Exposure>20000</Exposure></Settings>";
}

inline std::string text(const char* sz) { return sz ? std::string(sz) : std::string("<null>"); }

// True when `img` is all of the simulated frame whose number it carries, as
// the library delivers it from a three-byte sensor (grey: b1*0.6 + b2*0.25 + b0*0.15).
inline bool wholeFrame(const unsigned char* img, int width, int height, bool grey, unsigned int* number = nullptr)
{
    const unsigned int n = torvanesim_frame_number(img, grey ? 1 : 3);
    std::vector<unsigned char> want(static_cast<size_t>(width) * height * 3);
    torvanesim_render_frame(n, width, height, 3, want.data());
    for (size_t i = 0; grey && i < want.size() / 3; ++i) // in place: grey byte i lies at or before pixel i
        want[i] = static_cast<unsigned char>(want[3 * i + 1] * 0.6 + want[3 * i + 2] * 0.25 + want[3 * i] * 0.15);
    if (number)
        *number = n;
    return std::memcmp(img, want.data(), want.size() / (grey ? 3 : 1)) == 0;
}

// Waits for `done` until `deadline`, failing and ending the run instead of
// hanging the suite.
template <typename T>
T within(std::future<T>& done, std::chrono::steady_clock::time_point deadline)
{
    if (done.wait_until(deadline) != std::future_status::ready) {
        ADD_FAILURE() << "no answer in time: a hang";
        std::fflush(nullptr);
        std::_Exit(1);
    }
    return done.get();
}

template <typename T>
T within(std::future<T>& done) { return within(done, std::chrono::steady_clock::now() + std::chrono::seconds(20)); }

// Runs `run` once to settle caches and buffers, then twice more: those runs
// must give back every block they take (bytes may move a little as the
// simulated camera's frame queue re-centres its index, but not by a buffer).
template <typename F>
void expectNoHeapGrowth(F&& run)
{
    run();
    const HeapCount before = heapCount();
    run();
    run();
    const HeapCount after = heapCount();
    EXPECT_EQ(after.liveBlocks, before.liveBlocks);
    EXPECT_LT(std::abs(after.liveBytes - before.liveBytes), 1024);
}

class ApiFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        torvanesim_reset();
        torvanesim_set_frame_rate(0);
        torvanesim_set_sensor(64, 48, 3);
        // A missing <TriggerType> keeps the one parsed before: start each test in video mode.
        std::string video = "<Settings><TriggerType>Video</TriggerType></Settings>";
        api->setConfigStringMain(&video[0]);
        api->setConfigStringSlaver(&video[0]);
    }
    void TearDown() override
    {
        api->disconnectMain();
        api->disconnectSlaver();
        EXPECT_EQ(torvanesim_open_count(), 0);
        torvanesim_reset();
    }
    void setMain(std::string config) { api->setConfigStringMain(&config[0]); }
    bool startMain(const std::string& config) { return setMain(config), api->connectMain() && api->startMain(); }
    CCDWebCam* camMain() { return Kavrel::getInstance()->getInterfaceMain(); }
    unsigned char* request(bool slaver = false, int* w = nullptr, int* b = nullptr, int* h = nullptr, int timeout = 1000)
    {
        return slaver ? api->requestImageSlaver(w, b, h, timeout) : api->requestImageMain(w, b, h, timeout);
    }
    void release(bool slaver, unsigned char* img) { slaver ? api->releaseImageSlaver(img) : api->releaseImageMain(img); }
    // Takes one image and gives it back: true when it was all of one simulated
    // frame of width x height, grey or BGR, with the matching geometry.
    bool takesWhole(bool slaver, bool grey, int width = 64, int height = 48)
    {
        int w = 0, b = 0, h = 0;
        unsigned char* img = request(slaver, &w, &b, &h);
        const bool whole = img && w == width && h == height && b == (grey ? 1 : 3) * width && wholeFrame(img, w, h, grey);
        release(slaver, img);
        return whole;
    }
    // Main BGR and Slaver grey over one SDK window; the frame log is off for long runs.
    bool startBoth()
    {
        torvanesim_log_frames(0);
        setMain(configFor(1, 64, 48));
        std::string slaver = configFor(0, 64, 48); // setConfigString takes a char*
        api->setConfigStringSlaver(&slaver[0]);
        return api->connectMain() && api->connectSlaver() && api->startMain() && api->startSlaver();
    }

    KavrelInterface* api = KavrelInterface::getInstance();
    KavrelInterfaceTestPeer peer;
};

#endif
