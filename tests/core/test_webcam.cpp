// The camera driver over the simulated SDK: lifecycle and messages, the frame
// transfer into each pixel format with gamma, and settings and region.

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "camera/ccdwebcam.h"
#include "sdk/torvanesim.h"
#include "simlog.h"

namespace {

class WebCam : public ::testing::Test {
protected:
    void SetUp() override
    {
        torvanesim_reset();
        torvanesim_set_frame_rate(0);
    }
    void TearDown() override
    {
        cam.disconnect();
        torvanesim_reset();
    }

    void open(CCDIF::PixelFormat eFormat)
    {
        ASSERT_TRUE(cam.connect(0, eFormat));
        ASSERT_TRUE(cam.start());
    }

    // Delivers one queued frame and returns the current image.
    std::vector<unsigned char> deliver(int w, int h, int bpp, const std::vector<unsigned char>& pixels)
    {
        torvanesim_queue_frame(w, h, bpp, pixels.data());
        EXPECT_TRUE(cam.waitNewImage(100));
        int nWidth = 0, nHeight = 0, nBytesPerLine = 0;
        cam.getImageInfo(&nWidth, &nHeight, &nBytesPerLine);
        std::vector<unsigned char> out(static_cast<size_t>(nBytesPerLine) * nHeight);
        EXPECT_TRUE(cam.copyImage(out.data(), nWidth, nBytesPerLine, nHeight));
        return out;
    }

    CCDIF::CCDSettings withGamma(float g)
    {
        CCDIF::CCDSettings s;
        s.fGamma = g;
        return s;
    }

    CCDWebCam cam;
};

TEST_F(WebCam, NewCameraIsEmpty)
{
    EXPECT_EQ(cam.getImageNO(), 0);
    EXPECT_EQ(cam.getLastError(), QString(""));
    int w = -1, h = -1, b = -1;
    cam.getImageInfo(&w, &h, &b);
    EXPECT_EQ(w + h + b, 0);
    EXPECT_EQ(cam.getFPS(), 0);
    EXPECT_EQ(cam.getCCDNum(), 1);
    EXPECT_EQ(cam.getPixelFormat(), CCDIF::PixFmtGray8);
    cam.incImageNO();
    cam.incImageNO();
    EXPECT_EQ(cam.getImageNO(), 2);
    cam.resetImageNO();
    EXPECT_EQ(cam.getImageNO(), 0);
}

TEST_F(WebCam, InitResultsAndTheirMessages)
{
    const struct {
        int result;
        const char* message; // null: success
    } cases[] = {
        {1, "Config file is not exist!"}, {2, "Camera has no response!"}, {3, "No camera is exists!"},
        {4, "Bad camera parameters!"},    {5, "Partial init failed!"},    {0, nullptr},
        {6, nullptr},                     {-1, nullptr},
    };
    for (const auto& c : cases) {
        CCDWebCam one;
        torvanesim_set_next_init_result(c.result);
        EXPECT_EQ(one.connect(7, CCDIF::PixFmtBGR), c.message == nullptr) << c.result;
        EXPECT_EQ(one.IsConnected(), c.message == nullptr);
        EXPECT_EQ(one.getLastError(), QString(c.message ? c.message : "")) << c.result;
        EXPECT_EQ(one.getCCDNum(), 1);
    }
    EXPECT_EQ(torvanesim_open_count(), 0); // every object freed what it opened
}

TEST_F(WebCam, LifecycleMessagesPersistAcrossSuccess)
{
    EXPECT_FALSE(cam.start());
    EXPECT_EQ(cam.getLastError(), QString("Camera is not connected!"));
    EXPECT_FALSE(cam.click());
    EXPECT_EQ(cam.getLastError(), QString("Camera is not started!"));
    EXPECT_FALSE(cam.applyNewSettings(CCDIF::CCDSettings()));
    EXPECT_FALSE(cam.getCurSettings(nullptr));
    int x = 5, y = 5, w = 64, h = 48;
    EXPECT_FALSE(cam.setROI(x, y, w, h));
    EXPECT_FALSE(cam.getROI(x, y, w, h));
    EXPECT_EQ(x + y + w + h, 5 + 5 + 64 + 48);
    EXPECT_EQ(cam.getLastError(), QString("Camera is not connected!"));

    EXPECT_TRUE(cam.connect(0, CCDIF::PixFmtGray8));
    EXPECT_EQ(cam.getLastError(), QString("Camera is not connected!")); // a success clears nothing
    torvanesim_log_clear();
    EXPECT_TRUE(cam.connect(0, CCDIF::PixFmtBGR)); // already open: only the format changes
    EXPECT_EQ(simLogCount("camera_init"), 0);
    EXPECT_EQ(cam.getPixelFormat(), CCDIF::PixFmtBGR);

    EXPECT_TRUE(cam.start());
    cam.disconnect();
    EXPECT_FALSE(cam.IsConnected());
    EXPECT_FALSE(cam.IsStarted());
    EXPECT_EQ(simLogCount("camera_free"), 1);
    cam.disconnect();
    EXPECT_EQ(simLogCount("camera_free"), 1);
    EXPECT_FALSE(cam.start());
}

TEST_F(WebCam, ClickTriggersOnlyInSoftwareMode)
{
    open(CCDIF::PixFmtGray8);
    CCDIF::CCDSettings s;
    for (auto mode : {CCDIF::TriggerVideo, CCDIF::TriggerHard, CCDIF::TriggerSoft}) {
        s.eTriggerType = mode;
        ASSERT_TRUE(cam.applyNewSettings(s));
        const int before = torvanesim_trigger_calls();
        EXPECT_TRUE(cam.click());
        EXPECT_EQ(torvanesim_trigger_calls() - before, mode == CCDIF::TriggerSoft ? 1 : 0);
    }
}

TEST_F(WebCam, WaitNeedsStartAndPassesTimeoutOfAtLeastOne)
{
    ASSERT_TRUE(cam.connect(0, CCDIF::PixFmtGray8));
    torvanesim_log_clear();
    EXPECT_FALSE(cam.waitNewImage(100));
    EXPECT_EQ(torvanesim_log_count(), 0);
    ASSERT_TRUE(cam.start());
    torvanesim_starve_frames(1);
    for (int timeout : {0, -5, 7}) {
        torvanesim_log_clear();
        EXPECT_FALSE(cam.waitNewImage(timeout));
        EXPECT_EQ(simLog().at(0), std::string("get_frame_timeout(0,") + std::to_string(timeout < 1 ? 1 : timeout) + ")");
    }
}

TEST_F(WebCam, TransferIntoEachFormat)
{
    // Three-byte frame into grey: b1*0.6 + b2*0.25 + b0*0.15, truncated.
    open(CCDIF::PixFmtGray8);
    auto grey = deliver(4, 1, 3, {23, 23, 23, 60, 60, 60, 255, 255, 255, 10, 20, 30});
    EXPECT_EQ(grey, (std::vector<unsigned char>{22, 60, 255, 21}));

    // One-byte frame into colour: each byte three times; no reordering of colour bytes.
    ASSERT_TRUE(cam.connect(0, CCDIF::PixFmtRGB));
    auto rgb = deliver(2, 2, 1, {1, 2, 3, 4});
    EXPECT_EQ(rgb, (std::vector<unsigned char>{1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4}));
    auto same = deliver(1, 2, 3, {9, 8, 7, 6, 5, 4});
    EXPECT_EQ(same, (std::vector<unsigned char>{9, 8, 7, 6, 5, 4}));

    // Grey into grey is copied as it is.
    ASSERT_TRUE(cam.connect(0, CCDIF::PixFmtGray8));
    EXPECT_EQ(deliver(3, 1, 1, {0, 128, 255}), (std::vector<unsigned char>{0, 128, 255}));
}

TEST_F(WebCam, OtherBytesPerPixelUpdateGeometryButTransferNothing)
{
    open(CCDIF::PixFmtBGR);
    torvanesim_queue_frame(2, 1, 2, std::vector<unsigned char>{1, 2, 3, 4}.data());
    EXPECT_TRUE(cam.waitNewImage(10));
    int w, h, b;
    cam.getImageInfo(&w, &h, &b);
    EXPECT_EQ(w, 2);
    EXPECT_EQ(b, 6);
    std::vector<unsigned char> out(6, 0xAA);
    ASSERT_TRUE(cam.copyImage(out.data(), 2, 6, 1));
    EXPECT_EQ(out, std::vector<unsigned char>(6, 0)); // a fresh buffer is black
}

TEST_F(WebCam, GammaTable)
{
    open(CCDIF::PixFmtGray8);
    const std::vector<unsigned char> ramp = {0, 1, 64, 128, 200, 255};
    const struct {
        float gamma;
        std::vector<unsigned char> expected;
    } cases[] = {
        {1.01f, ramp},
        {0.99f, ramp},
        {2.0f, {0, 0, 16, 64, 156, 255}},
        {0.5f, {0, 15, 127, 180, 225, 255}},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(cam.applyNewSettings(withGamma(c.gamma)));
        EXPECT_EQ(deliver(6, 1, 1, ramp), c.expected) << c.gamma;
    }

    // Every byte value through the table, against the formula computed here.
    for (float g : {0.01f, 0.3f, 0.7f, 1.5f, 3.3f, 10.0f}) {
        ASSERT_TRUE(cam.applyNewSettings(withGamma(g)));
        std::vector<unsigned char> all(256);
        for (int i = 0; i < 256; ++i)
            all[i] = static_cast<unsigned char>(i);
        auto out = deliver(256, 1, 1, all);
        for (int i = 0; i < 256; ++i) {
            const float base = static_cast<float>(i) / 255.0f;
            const int expected = static_cast<int>(std::pow(static_cast<double>(base), static_cast<double>(g)) * 255.0);
            ASSERT_EQ(out[i], expected) << "gamma " << g << " byte " << i;
        }
    }

    // Gamma applies after the grey conversion, and to every channel of colour.
    ASSERT_TRUE(cam.applyNewSettings(withGamma(0.5f)));
    EXPECT_EQ(deliver(1, 1, 3, {64, 64, 64}), (std::vector<unsigned char>{127}));
    ASSERT_TRUE(cam.connect(0, CCDIF::PixFmtBGR));
    EXPECT_EQ(deliver(1, 1, 3, {1, 64, 255}), (std::vector<unsigned char>{15, 127, 255}));
}

TEST_F(WebCam, CopyNeedsTheExactGeometry)
{
    open(CCDIF::PixFmtBGR);
    deliver(4, 2, 3, std::vector<unsigned char>(24, 7));
    std::vector<unsigned char> out(64);
    EXPECT_TRUE(cam.copyImage(out.data(), 4, 12, 2));
    EXPECT_FALSE(cam.copyImage(out.data(), 4, 12, 1));
    EXPECT_FALSE(cam.copyImage(out.data(), 3, 12, 2));
    EXPECT_FALSE(cam.copyImage(out.data(), 4, 13, 2));

    deliver(2, 2, 3, std::vector<unsigned char>(12, 9)); // a new size replaces the old
    EXPECT_FALSE(cam.copyImage(out.data(), 4, 12, 2));
    EXPECT_TRUE(cam.copyImage(out.data(), 2, 6, 2));
}

TEST_F(WebCam, SettingsAreClampedAndSent)
{
    ASSERT_TRUE(cam.connect(0, CCDIF::PixFmtBGR));
    CCDIF::CCDSettings s;
    s.fGamma = 0.0f;
    s.fWhiteBalanceR = 3.0f;
    s.fWhiteBalanceG = 0.05f;
    s.fWhiteBalanceB = 1.5f;
    s.nExposure = 20000;
    s.nGain = 12;
    s.eTriggerType = CCDIF::TriggerHard;
    s.nHue = 4;
    torvanesim_log_clear();
    ASSERT_TRUE(cam.applyNewSettings(s));
    EXPECT_EQ(simLog(), (std::vector<std::string>{"set_camera_exposure(20000,0)", "set_camera_mode(1,0)",
                                                  "set_camera_gain(12,0)"}));
    CCDIF::CCDSettings r;
    ASSERT_TRUE(cam.getCurSettings(&r));
    EXPECT_EQ(r.fGamma, 0.01f);
    EXPECT_EQ(r.fWhiteBalanceR, 2.0f);
    EXPECT_EQ(r.fWhiteBalanceG, 0.1f);
    EXPECT_EQ(r.fWhiteBalanceB, 1.5f);
    EXPECT_EQ(r.nExposure, 20000); // read back from the SDK
    EXPECT_EQ(r.nGain, 12);
    EXPECT_EQ(r.nHue, 4);

    s.eTriggerType = static_cast<CCDIF::TriggerType>(9); // no mode for an unknown trigger
    torvanesim_log_clear();
    ASSERT_TRUE(cam.applyNewSettings(s));
    EXPECT_EQ(simLogCount("set_camera_mode"), 0);
    EXPECT_EQ(simLogCount("set_camera_gain"), 1);

    torvanesim_log_clear();
    EXPECT_TRUE(cam.getCurSettings(nullptr));
    EXPECT_EQ(simLogCount("get_camera_exposure"), 1);

    cam.modifyGamma(25.0f);
    cam.modifyWhiteBalanceG(3.0f);
    cam.modifyWhiteBalanceB(0.05f);
    cam.modifyWhiteBalanceR(0.5f);
    ASSERT_TRUE(cam.getCurSettings(&r));
    EXPECT_EQ(r.fGamma, 10.0f);
    EXPECT_EQ(r.fWhiteBalanceG, 2.0f);
    EXPECT_EQ(r.fWhiteBalanceB, 0.1f);
    EXPECT_EQ(r.fWhiteBalanceR, 0.5f);
}

TEST_F(WebCam, RegionIsRoundedUpAndZeroMeansMaximum)
{
    torvanesim_set_sensor(1280, 960, 3);
    open(CCDIF::PixFmtBGR);
    const struct {
        int w, h, expectW, expectH;
        bool asksMax;
    } cases[] = {
        {0, 0, 1280, 960, true},
        {641, 479, 644, 480, false},
        {-5, 480, 1280, 480, true},
        {640, 0, 640, 960, true},
        {4, 4, 4, 4, false},
    };
    for (const auto& c : cases) {
        int x = 16, y = 8, w = c.w, h = c.h;
        torvanesim_log_clear();
        ASSERT_TRUE(cam.setROI(x, y, w, h)) << c.w << "x" << c.h;
        EXPECT_EQ(x, 0);
        EXPECT_EQ(y, 0);
        EXPECT_EQ(w, c.expectW);
        EXPECT_EQ(h, c.expectH);
        EXPECT_EQ(simLogCount("get_camera_max_window_size"), c.asksMax ? 1 : 0);
        EXPECT_TRUE(cam.IsStarted()); // stopped for the change, started again
        int gx = 1, gy = 1, gw = 0, gh = 0;
        ASSERT_TRUE(cam.getROI(gx, gy, gw, gh));
        EXPECT_EQ(gx + gy, 0);
        EXPECT_EQ(gw, c.expectW);
        EXPECT_EQ(gh, c.expectH);
    }
}

TEST_F(WebCam, RegionFailuresLeaveAcquisitionStopped)
{
    open(CCDIF::PixFmtBGR);
    torvanesim_fail_max_window_size(1);
    int x = 3, y = 3, w = 0, h = 100;
    EXPECT_FALSE(cam.setROI(x, y, w, h));
    EXPECT_EQ(cam.getLastError(), QString("Get Camera max resolution failed!"));
    EXPECT_FALSE(cam.IsStarted());
    EXPECT_EQ(x + y, 0);
    torvanesim_fail_max_window_size(0);

    ASSERT_TRUE(cam.start());
    torvanesim_fail_set_window_size(1);
    w = 641;
    h = 2147483647; // rounding up must not overflow
    EXPECT_FALSE(cam.setROI(x, y, w, h));
    EXPECT_EQ(cam.getLastError(), QString("Set Camera resolution failed!"));
    EXPECT_FALSE(cam.IsStarted());
    EXPECT_EQ(w, 644);
    EXPECT_EQ(h % 4, 0);
    EXPECT_GT(h, 0);
}

} // namespace
