// SPDX-License-Identifier: LGPL-2.1-or-later
// The camera driver over the simulated SDK: lifecycle, the frame transfer into
// each pixel format with gamma, and settings and region. Injected SDK failures
// (init results, window sizes, time-outs, odd pixel sizes) are in the fault
// matrix in tests/reliability.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "camera/ccdwebcam.h"
#include "sdk/torvanesim.h"
#include "simlog.h"

namespace {

using Bytes = std::vector<unsigned char>;

class WebCam : public ::testing::Test {
protected:
    void SetUp() override { torvanesim_reset(); torvanesim_set_frame_rate(0); }
    void TearDown() override { cam.disconnect(); torvanesim_reset(); }
    void open(CCDIF::PixelFormat eFormat) { ASSERT_TRUE(cam.connect(0, eFormat) && cam.start()); }
    // Delivers one queued frame and returns the current image.
    Bytes deliver(int w, int h, int bpp, const Bytes& pixels)
    {
        torvanesim_queue_frame(w, h, bpp, pixels.data());
        EXPECT_TRUE(cam.waitNewImage(100));
        int nWidth = 0, nHeight = 0, nBytesPerLine = 0;
        cam.getImageInfo(&nWidth, &nHeight, &nBytesPerLine);
        Bytes out(static_cast<size_t>(nBytesPerLine) * nHeight);
        EXPECT_TRUE(cam.copyImage(out.data(), nWidth, nBytesPerLine, nHeight));
        return out;
    }
    void setGamma(float g) { settings.fGamma = g; ASSERT_TRUE(cam.applyNewSettings(settings)); }
    // A request of up to 3 s while another thread calls fnOther 100 ms into
    // it: its result, and whether it came in well under its time-out.
    std::pair<bool, bool> requestWhile(const std::function<void()>& fnOther)
    {
        using namespace std::chrono;
        const auto start = steady_clock::now();
        std::thread other([&] {
            std::this_thread::sleep_for(milliseconds(100));
            fnOther();
        });
        const bool bGot = cam.waitNewImage(3000);
        other.join();
        return {bGot, steady_clock::now() - start < milliseconds(2000)};
    }

    CCDWebCam cam;
    CCDIF::CCDSettings settings;
};

TEST_F(WebCam, LifecycleAndMessages)
{
    EXPECT_FALSE(cam.start());
    EXPECT_EQ(cam.getLastError(), QString("Camera is not connected!"));

    EXPECT_TRUE(cam.connect(0, CCDIF::PixFmtGray8));
    torvanesim_log_clear();
    EXPECT_FALSE(cam.waitNewImage(100));
    EXPECT_EQ(torvanesim_log_count(), 0); // not started: the SDK is not asked
    EXPECT_FALSE(cam.click());
    EXPECT_EQ(cam.getLastError(), QString("Camera is not started!"));
    EXPECT_TRUE(cam.connect(0, CCDIF::PixFmtBGR)); // already open: only the format changes
    EXPECT_EQ(simLogCount("camera_init"), 0);
    EXPECT_EQ(cam.getPixelFormat(), CCDIF::PixFmtBGR);
    EXPECT_EQ(cam.getLastError(), QString("Camera is not started!")); // a success clears nothing

    EXPECT_TRUE(cam.start());
    cam.disconnect();
    cam.disconnect();
    EXPECT_FALSE(cam.IsStarted());
    EXPECT_EQ(simLogCount("camera_free"), 1);
    EXPECT_EQ(torvanesim_open_count(), 0);
}

// A click triggers only in software mode. Software triggers that no request
// answered are gone after a change of mode, as in the SDK: a request then
// waits for a new one, which another thread can send while it waits.
TEST_F(WebCam, ClickTriggersInSoftwareModeAndModeChangeDropsUnansweredTriggers)
{
    open(CCDIF::PixFmtGray8);
    for (auto mode : {CCDIF::TriggerSoft, CCDIF::TriggerHard, CCDIF::TriggerVideo, CCDIF::TriggerSoft}) {
        settings.eTriggerType = mode;
        ASSERT_TRUE(cam.applyNewSettings(settings));
        const int before = torvanesim_trigger_calls();
        ASSERT_TRUE(cam.click());
        EXPECT_EQ(torvanesim_trigger_calls() - before, mode == CCDIF::TriggerSoft ? 1 : 0) << mode;
    }
    EXPECT_TRUE(cam.waitNewImage(100)); // the last click's frame
    EXPECT_EQ(requestWhile([&] { cam.click(); }), std::make_pair(true, true));
}

// A request waiting for a software trigger gives up as soon as another
// thread stops the camera, not at its time-out.
TEST_F(WebCam, StopEndsAWaitingRequestAtOnce)
{
    open(CCDIF::PixFmtGray8);
    settings.eTriggerType = CCDIF::TriggerSoft;
    ASSERT_TRUE(cam.applyNewSettings(settings));
    EXPECT_EQ(requestWhile([&] { cam.stop(); }), std::make_pair(false, true));
}

TEST_F(WebCam, TransferIntoEachFormat)
{
    // Three-byte frame into grey: b1*0.6 + b2*0.25 + b0*0.15, truncated.
    open(CCDIF::PixFmtGray8);
    EXPECT_EQ(deliver(4, 1, 3, {23, 23, 23, 60, 60, 60, 255, 255, 255, 10, 20, 30}), (Bytes{22, 60, 255, 21}));
    EXPECT_EQ(deliver(3, 1, 1, {0, 128, 255}), (Bytes{0, 128, 255}));
    // Into colour: a grey byte three times; colour bytes keep their order.
    ASSERT_TRUE(cam.connect(0, CCDIF::PixFmtRGB));
    EXPECT_EQ(deliver(2, 2, 1, {1, 2, 3, 4}), (Bytes{1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4}));
    EXPECT_EQ(deliver(1, 2, 3, {9, 8, 7, 6, 5, 4}), (Bytes{9, 8, 7, 6, 5, 4}));
}

TEST_F(WebCam, GammaTable)
{
    open(CCDIF::PixFmtGray8);
    const Bytes ramp = {0, 1, 64, 128, 200, 255};
    for (float g : {0.99f, 1.01f}) { // close enough to 1: nothing changes
        setGamma(g);
        EXPECT_EQ(deliver(6, 1, 1, ramp), ramp) << g;
    }
    // Worked values of 255 * (i / 255) ^ gamma, truncated; gammas beyond the
    // limits act as the limits.
    const Bytes bytes = {0, 1, 2, 16, 64, 128, 200, 254, 255};
    const struct {
        float gamma;
        Bytes out;
    } worked[] = {
        {0.001f, {0, 241, 242, 248, 251, 253, 254, 254, 255}},
        {0.5f, {0, 15, 22, 63, 127, 180, 225, 254, 255}},
        {1.0105f, {0, 0, 1, 15, 63, 127, 199, 253, 255}}, // just past 1.01: it counts
        {2.2f, {0, 0, 0, 0, 12, 55, 149, 252, 255}},
        {25.0f, {0, 0, 0, 0, 0, 0, 22, 245, 255}},
    };
    for (const auto& w : worked) {
        setGamma(w.gamma);
        EXPECT_EQ(deliver(9, 1, 1, bytes), w.out) << w.gamma;
    }
    // Gamma applies after the grey conversion, and to every channel of colour.
    setGamma(0.5f);
    EXPECT_EQ(deliver(1, 1, 3, {64, 64, 64}), (Bytes{127}));
    ASSERT_TRUE(cam.connect(0, CCDIF::PixFmtBGR));
    EXPECT_EQ(deliver(1, 1, 3, {1, 64, 255}), (Bytes{15, 127, 255}));
    EXPECT_EQ(deliver(2, 1, 1, {64, 255}), (Bytes{127, 127, 127, 255, 255, 255}));
}

TEST_F(WebCam, CopyNeedsTheExactGeometry)
{
    open(CCDIF::PixFmtBGR);
    deliver(4, 2, 3, Bytes(24, 7));
    Bytes out(64);
    EXPECT_TRUE(cam.copyImage(out.data(), 4, 12, 2));
    EXPECT_FALSE(cam.copyImage(out.data(), 4, 12, 1));
    EXPECT_FALSE(cam.copyImage(out.data(), 3, 12, 2));
    EXPECT_FALSE(cam.copyImage(out.data(), 4, 13, 2));
    deliver(2, 2, 3, Bytes(12, 9)); // a new size replaces the old
    EXPECT_FALSE(cam.copyImage(out.data(), 4, 12, 2));
}

TEST_F(WebCam, SettingsAreClampedAndSent)
{
    ASSERT_TRUE(cam.connect(0, CCDIF::PixFmtBGR));
    CCDIF::CCDSettings& s = settings;
    s.fGamma = 0.0f;
    s.fWhiteBalanceR = 3.0f;
    s.fWhiteBalanceG = 0.05f;
    s.nExposure = 20000;
    s.nGain = 12;
    s.eTriggerType = CCDIF::TriggerHard;
    torvanesim_log_clear();
    ASSERT_TRUE(cam.applyNewSettings(s));
    EXPECT_EQ(simLogSorted(), (std::vector<std::string>{"set_camera_exposure(20000,0)", "set_camera_gain(12,0)",
                                                        "set_camera_mode(1,0)"}));
    CCDIF::CCDSettings r;
    ASSERT_TRUE(cam.getCurSettings(&r));
    EXPECT_EQ((std::vector<float>{r.fGamma, r.fWhiteBalanceR, r.fWhiteBalanceG}), (std::vector<float>{0.01f, 2.0f, 0.1f}));

    // Each correction on its own, limited like the rest.
    cam.modifyWhiteBalanceR(0.5f);
    cam.modifyWhiteBalanceG(1.5f);
    cam.modifyWhiteBalanceB(5.0f);
    cam.modifyGamma(20.0f);
    ASSERT_TRUE(cam.getCurSettings(&r));
    EXPECT_EQ((std::vector<float>{r.fWhiteBalanceR, r.fWhiteBalanceG, r.fWhiteBalanceB, r.fGamma}),
              (std::vector<float>{0.5f, 1.5f, 2.0f, 10.0f}));

    s.eTriggerType = static_cast<CCDIF::TriggerType>(3); // no mode for an unknown trigger (3 is within the type)
    torvanesim_log_clear();
    ASSERT_TRUE(cam.applyNewSettings(s));
    EXPECT_EQ(simLogCount("set_camera_mode"), 0);
}

TEST_F(WebCam, RegionIsRoundedUpAndZeroMeansMaximum)
{
    torvanesim_set_sensor(1280, 960, 3);
    const struct { int w, h, expectW, expectH; bool asksMax, ok; } cases[] = {
        {0, 0, 1280, 960, true, true},
        {641, 479, 644, 480, false, true},
        {-5, 480, 1280, 480, true, true},
        {4, 4, 4, 4, false, true},
        // Rounding up must not overflow; the SDK refuses the size and acquisition stays stopped.
        {641, 2147483647, 644, 2147483644, false, false},
    };
    for (const auto& c : cases) {
        open(CCDIF::PixFmtBGR);
        int x = 16, y = 8, w = c.w, h = c.h;
        torvanesim_log_clear();
        EXPECT_EQ(cam.setROI(x, y, w, h), c.ok) << c.w << "x" << c.h;
        EXPECT_EQ(x, 0);
        EXPECT_EQ(y, 0);
        EXPECT_EQ(std::make_pair(w, h), std::make_pair(c.expectW, c.expectH));
        EXPECT_EQ(simLogCount("get_camera_max_window_size"), c.asksMax ? 1 : 0);
        EXPECT_EQ(cam.IsStarted(), c.ok); // stopped for the change, started again
        ASSERT_TRUE(cam.getROI(x, y, w, h));
        // Refused: the old window stays.
        EXPECT_EQ(std::make_pair(w, h), c.ok ? std::make_pair(c.expectW, c.expectH) : std::make_pair(4, 4));
    }
}

} // namespace
