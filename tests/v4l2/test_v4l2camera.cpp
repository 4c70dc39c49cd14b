// SPDX-License-Identifier: LGPL-2.1-or-later
// The V4L2 camera against a fake device: what the kernel's virtual camera
// cannot show (controls present and absent, MJPEG, unplugging, error-flagged
// buffers, discrete sizes, triggers) and the failure paths of camera_init.

#include "fakedevice.h"
#include "v4l2camera.h"

#include <QBuffer>
#include <QImage>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>

namespace {

using torvane_v4l2::Settings;
using torvane_v4l2::V4l2Camera;
using Clock = std::chrono::steady_clock;

FakeFormat discrete(std::uint32_t nFourcc, std::vector<std::pair<std::uint32_t, std::uint32_t>> cSizes)
{
    FakeFormat cFormat;
    cFormat.nFourcc = nFourcc;
    cFormat.cSizes = std::move(cSizes);
    return cFormat;
}

long long msSince(Clock::time_point t)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

class V4l2 : public ::testing::Test {
protected:
    void SetUp() override
    {
        auto pDevice = std::make_unique<FakeDevice>();
        dev = pDevice.get();
        dev->cFormats = {discrete(V4L2_PIX_FMT_BGR24, {{640, 480}, {320, 240}})};
        cam = std::make_unique<V4l2Camera>(std::move(pDevice), [this] { return settings; });
    }

    // A frame with the device producing one whenever the camera waits.
    unsigned char* grab(int nTimeoutMs = 1000, unsigned char nFill = 7)
    {
        dev->fnOnPoll = [this, nFill] { dev->produceFill(nFill); };
        unsigned char* p = cam->frame(&w, &h, &bpp, 0, nTimeoutMs);
        dev->fnOnPoll = nullptr;
        return p;
    }

    Settings settings;
    FakeDevice* dev = nullptr;
    std::unique_ptr<V4l2Camera> cam;
    int w = 0, h = 0, bpp = 0;
};

// ---------------------------------------------------------------------------
// Opening

TEST_F(V4l2, InitAnswersEachFailureAndLeavesNothingOpen)
{
    struct Case {
        const char* szWhat;
        std::function<void(FakeDevice&, Settings&)> fnSetup;
        int nExpected;
    };
    const Case aCases[] = {
        {"no device at all", [](FakeDevice& d, Settings&) { d.cNodes.clear(); }, 3},
        {"named device missing", [](FakeDevice&, Settings& s) { s.strDevice = "/dev/video9"; }, 3},
        {"output-only device", [](FakeDevice& d, Settings&) { d.cCaptureNodes.clear(); }, 3},
        {"busy", [](FakeDevice& d, Settings&) { d.nOpenErrno = EBUSY; }, 2},
        {"not permitted", [](FakeDevice& d, Settings& s) { d.nOpenErrno = EACCES; s.strDevice = "/dev/video0"; }, 2},
        {"no format we deliver", [](FakeDevice& d, Settings&) { d.cFormats = {discrete(V4L2_PIX_FMT_H264, {{640, 480}})}; }, 4},
        {"buffers busy", [](FakeDevice& d, Settings&) { d.nReqbufsErrno = EBUSY; }, 2},
        {"no buffer memory", [](FakeDevice& d, Settings&) { d.nReqbufsErrno = ENOMEM; }, 5},
        {"configuration file missing", [](FakeDevice&, Settings& s) { s.bConfigMissing = true; }, 1},
    };
    for (const Case& c : aCases) {
        SetUp();
        settings = Settings();
        c.fnSetup(*dev, settings);
        EXPECT_EQ(cam->init(0), c.nExpected) << c.szWhat;
        EXPECT_EQ(dev->openFds(), 0) << c.szWhat;
        EXPECT_EQ(dev->mappings(), 0) << c.szWhat;
        EXPECT_EQ(cam->frame(&w, &h, &bpp, 0, 10), nullptr) << c.szWhat;
        EXPECT_EQ(cam->free(0), -1) << c.szWhat;
    }
    EXPECT_EQ(cam->init(1), 3); // only camera 0 exists
}

TEST_F(V4l2, OpensTheFirstCaptureDeviceAndCountsInits)
{
    dev->cNodes = {"/dev/video0", "/dev/video1"};
    dev->cCaptureNodes = {"/dev/video1"};
    ASSERT_EQ(cam->init(0), 0);
    EXPECT_EQ(cam->devicePath(), "/dev/video1");
    EXPECT_EQ(cam->init(0), 0); // both camera objects open camera 0
    EXPECT_EQ(dev->openFds(), 1);
    EXPECT_EQ(cam->free(0), 0);
    EXPECT_NE(grab(), nullptr);
    EXPECT_EQ(cam->free(0), 0);
    EXPECT_EQ(dev->openFds(), 0);
    EXPECT_EQ(dev->mappings(), 0);
    EXPECT_EQ(cam->frame(&w, &h, &bpp, 0, 10), nullptr);
    EXPECT_EQ(cam->free(0), -1);
}

TEST(V4l2Settings, FileAndValues)
{
    Settings s;
    torvane_v4l2::applySettingsText("# a webcam\n device = /dev/video2 \nfps=12.5\nformat = MJPG\nbuffers=99\n"
                                    "bogus = 1\nfps = fast\n",
                                    s);
    EXPECT_EQ(s.strDevice, "/dev/video2");
    EXPECT_DOUBLE_EQ(s.dFps, 12.5);
    EXPECT_EQ(s.nFormat, V4L2_PIX_FMT_MJPEG);
    EXPECT_EQ(s.nBuffers, 32);
    EXPECT_EQ(torvane_v4l2::fourccFromText("YUV"), 0u);

    setenv("TORVANE_V4L2_CONFIG", "/nonexistent/kavrel-v4l2.conf", 1);
    EXPECT_TRUE(torvane_v4l2::settingsFromEnvironment().bConfigMissing);
    unsetenv("TORVANE_V4L2_CONFIG");
    setenv("TORVANE_V4L2_DEVICE", "/dev/video5", 1);
    EXPECT_EQ(torvane_v4l2::settingsFromEnvironment().strDevice, "/dev/video5");
    unsetenv("TORVANE_V4L2_DEVICE");
}

// ---------------------------------------------------------------------------
// Formats

TEST_F(V4l2, BgrPassesThroughUncopiedAndHoldsItsBufferUntilTheNextCall)
{
    dev->cFormats = {discrete(V4L2_PIX_FMT_YUYV, {{640, 480}}), discrete(V4L2_PIX_FMT_BGR24, {{640, 480}})};
    ASSERT_EQ(cam->init(0), 0);
    unsigned char* p = grab(1000, 42);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(dev->format().pixelformat, V4L2_PIX_FMT_BGR24);
    EXPECT_TRUE(dev->contains(p));
    EXPECT_EQ(w, 640);
    EXPECT_EQ(h, 480);
    EXPECT_EQ(bpp, 3);
    EXPECT_EQ(p[0], 42);
    EXPECT_EQ(dev->buffersWithUser(), 1);
    int nWidth = 0, nHeight = 0;
    cam->getWindowSize(&nWidth, &nHeight, 0); // any call gives the buffer back
    EXPECT_EQ(dev->buffersWithUser(), 0);
}

TEST_F(V4l2, ConvertsYuyvToBgr)
{
    dev->cFormats = {discrete(V4L2_PIX_FMT_YUYV, {{64, 48}})};
    ASSERT_EQ(cam->init(0), 0);
    // Limited-range red: Y 81, U 90, V 240.
    std::vector<unsigned char> cFrame;
    for (int i = 0; i < 64 * 48 / 2; ++i)
        cFrame.insert(cFrame.end(), {81, 90, 81, 240});
    dev->fnOnPoll = [&] { dev->produce(cFrame); };
    unsigned char* p = cam->frame(&w, &h, &bpp, 0, 1000);
    ASSERT_NE(p, nullptr);
    EXPECT_FALSE(dev->contains(p));
    EXPECT_EQ(bpp, 3);
    for (int i = 0; i < 3; ++i)
        EXPECT_NEAR(p[i], i == 2 ? 255 : 0, 16) << i;
}

TEST_F(V4l2, DecodesMjpegAndSkipsFramesThatDoNotDecode)
{
    dev->cFormats = {discrete(V4L2_PIX_FMT_MJPEG, {{64, 48}})};
    ASSERT_EQ(cam->init(0), 0);
    QImage cImage(64, 48, QImage::Format_RGB888);
    cImage.fill(QColor(255, 0, 0));
    for (int y = 0; y < 48; ++y)
        for (int x = 32; x < 64; ++x)
            cImage.setPixelColor(x, y, QColor(0, 0, 255));
    QByteArray cJpeg;
    QBuffer cBuffer(&cJpeg);
    cBuffer.open(QIODevice::WriteOnly);
    ASSERT_TRUE(cImage.save(&cBuffer, "JPG", 95));
    const std::vector<unsigned char> cGood(cJpeg.begin(), cJpeg.end());
    const std::vector<unsigned char> cBroken(cGood.begin(), cGood.begin() + 20);

    int nProduced = 0;
    dev->fnOnPoll = [&] { dev->produce(nProduced++ == 0 ? cBroken : cGood); };
    unsigned char* p = cam->frame(&w, &h, &bpp, 0, 1000);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(nProduced, 2);
    EXPECT_EQ(w, 64);
    EXPECT_EQ(bpp, 3);
    const unsigned char* pLeft = p + (24 * 64 + 8) * 3; // red, in BGR order
    const unsigned char* pRight = p + (24 * 64 + 56) * 3; // blue
    EXPECT_TRUE(pLeft[2] > 230 && pLeft[0] < 24 && pRight[0] > 230 && pRight[2] < 24);
}

TEST_F(V4l2, GreyOnlyFromGreyDevicesOrWhenAskedFor)
{
    dev->cFormats = {discrete(V4L2_PIX_FMT_GREY, {{64, 48}}), discrete(V4L2_PIX_FMT_YUYV, {{64, 48}})};
    ASSERT_EQ(cam->init(0), 0);
    ASSERT_NE(grab(), nullptr);
    EXPECT_EQ(bpp, 3);
    cam->free(0);

    settings.nFormat = V4L2_PIX_FMT_GREY;
    ASSERT_EQ(cam->init(0), 0);
    unsigned char* p = grab(1000, 99);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(bpp, 1);
    EXPECT_EQ(p[64 * 48 - 1], 99);
}

TEST_F(V4l2, PaddedLinesArePacked)
{
    dev->nPadding = 16;
    dev->cFormats = {discrete(V4L2_PIX_FMT_BGR24, {{8, 4}})};
    ASSERT_EQ(cam->init(0), 0);
    std::vector<unsigned char> cFrame(4 * (8 * 3 + 16), 0xEE);
    for (int y = 0; y < 4; ++y)
        for (int i = 0; i < 8 * 3; ++i)
            cFrame[static_cast<size_t>(y * 40 + i)] = static_cast<unsigned char>(y);
    dev->fnOnPoll = [&] { dev->produce(cFrame); };
    unsigned char* p = cam->frame(&w, &h, &bpp, 0, 1000);
    ASSERT_NE(p, nullptr);
    for (int y = 0; y < 4; ++y)
        for (int i = 0; i < 8 * 3; ++i)
            ASSERT_EQ(p[y * 24 + i], y) << y << "," << i;
}

// ---------------------------------------------------------------------------
// Window size

TEST_F(V4l2, WindowSizesTheDeviceOffersExactly)
{
    dev->cFormats = {discrete(V4L2_PIX_FMT_BGR24, {{640, 480}, {1280, 720}}),
                     discrete(V4L2_PIX_FMT_MJPEG, {{640, 480}, {1280, 720}, {1920, 1080}})};
    ASSERT_EQ(cam->init(0), 0);
    int nWidth = 0, nHeight = 0;
    ASSERT_EQ(cam->getMaxWindowSize(&nWidth, &nHeight, 0), 0);
    EXPECT_EQ(nWidth, 1920);
    EXPECT_EQ(nHeight, 1080);

    EXPECT_EQ(cam->setWindowSize(1280, 720, 0), 0);
    EXPECT_EQ(dev->format().pixelformat, V4L2_PIX_FMT_BGR24); // the cheapest with that size
    ASSERT_NE(grab(), nullptr);
    EXPECT_EQ(w, 1280);
    EXPECT_EQ(h, 720);
    EXPECT_EQ(cam->setWindowSize(1920, 1080, 0), 0);
    EXPECT_EQ(dev->format().pixelformat, V4L2_PIX_FMT_MJPEG);

    // A size it lacks: refused, nothing changes.
    EXPECT_NE(cam->setWindowSize(800, 600, 0), 0);
    cam->getWindowSize(&nWidth, &nHeight, 0);
    EXPECT_EQ(nWidth, 1920);
    EXPECT_EQ(nHeight, 1080);
}

TEST_F(V4l2, StepwiseSizesAndSizesOnlyTryFormatKnows)
{
    FakeFormat cFormat;
    cFormat.nFourcc = V4L2_PIX_FMT_BGR24;
    cFormat.bStepwise = true;
    cFormat.cSteps = {16, 1024, 8, 16, 768, 8};
    dev->cFormats = {cFormat};
    for (const bool bEnum : {true, false}) {
        dev->bEnumFrameSizes = bEnum;
        ASSERT_EQ(cam->init(0), 0);
        int nWidth = 0, nHeight = 0;
        cam->getMaxWindowSize(&nWidth, &nHeight, 0);
        EXPECT_EQ(nWidth, 1024) << bEnum;
        EXPECT_EQ(nHeight, 768) << bEnum;
        EXPECT_EQ(cam->setWindowSize(648, 488, 0), 0) << bEnum;
        EXPECT_NE(cam->setWindowSize(650, 480, 0), 0) << bEnum;
        EXPECT_NE(cam->setWindowSize(2048, 480, 0), 0) << bEnum;
        cam->getWindowSize(&nWidth, &nHeight, 0);
        EXPECT_EQ(nWidth, 648) << bEnum;
        cam->free(0);
    }
}

TEST_F(V4l2, CropsWhereNoFormatHasTheSize)
{
    dev->bCrop = true;
    dev->cFormats = {discrete(V4L2_PIX_FMT_BGR24, {{640, 480}})};
    ASSERT_EQ(cam->init(0), 0);
    EXPECT_EQ(cam->setWindowSize(320, 240, 0), 0);
    ASSERT_NE(grab(), nullptr);
    EXPECT_EQ(w, 320);
    EXPECT_EQ(h, 240);
    EXPECT_NE(cam->setWindowSize(800, 600, 0), 0); // beyond the sensor
    EXPECT_EQ(cam->setWindowSize(640, 480, 0), 0);
    ASSERT_NE(grab(), nullptr);
    EXPECT_EQ(w, 640);
}

// ---------------------------------------------------------------------------
// Exposure and gain

TEST_F(V4l2, ExposureAndGainSwitchToManualAndUseTheDeviceUnits)
{
    dev->cControls[V4L2_CID_EXPOSURE_AUTO] = {0, 3, 1, V4L2_EXPOSURE_APERTURE_PRIORITY};
    dev->cControls[V4L2_CID_EXPOSURE_ABSOLUTE] = {3, 2047, 1, 156};
    dev->cControls[V4L2_CID_AUTOGAIN] = {0, 1, 1, 1};
    dev->cControls[V4L2_CID_GAIN] = {0, 100, 4, 0};
    ASSERT_EQ(cam->init(0), 0);

    EXPECT_EQ(cam->setExposure(20000, 0), 0);
    EXPECT_EQ(dev->cControls[V4L2_CID_EXPOSURE_AUTO].nValue, V4L2_EXPOSURE_MANUAL);
    EXPECT_EQ(dev->cControls[V4L2_CID_EXPOSURE_ABSOLUTE].nValue, 200); // 100 microsecond units
    int n = 0;
    EXPECT_EQ(cam->getExposure(&n, 0), 0);
    EXPECT_EQ(n, 20000);
    EXPECT_EQ(cam->setExposure(1000000000, 0), 0); // clamped to the device's range
    cam->getExposure(&n, 0);
    EXPECT_EQ(n, 204700);

    EXPECT_EQ(cam->setGain(42, 0), 0);
    EXPECT_EQ(dev->cControls[V4L2_CID_AUTOGAIN].nValue, 0);
    EXPECT_EQ(cam->getGain(&n, 0), 0);
    EXPECT_EQ(n, 44); // the device's step
    EXPECT_EQ(cam->setGain(-5, 0), 0);
    cam->getGain(&n, 0);
    EXPECT_EQ(n, 0);
}

TEST_F(V4l2, MissingControlsFailAndChangeNothing)
{
    dev->cControls[V4L2_CID_EXPOSURE_AUTO] = {0, 3, 1, V4L2_EXPOSURE_APERTURE_PRIORITY};
    dev->cControls[V4L2_CID_AUTOGAIN] = {0, 1, 1, 1};
    ASSERT_EQ(cam->init(0), 0);
    EXPECT_NE(cam->setExposure(20000, 0), 0);
    EXPECT_NE(cam->setGain(8, 0), 0);
    EXPECT_EQ(dev->cControls[V4L2_CID_EXPOSURE_AUTO].nValue, V4L2_EXPOSURE_APERTURE_PRIORITY);
    EXPECT_EQ(dev->cControls[V4L2_CID_AUTOGAIN].nValue, 1);
    int n = 1234;
    EXPECT_NE(cam->getExposure(&n, 0), 0);
    EXPECT_NE(cam->getGain(&n, 0), 0);
    EXPECT_EQ(n, 1234);
}

// ---------------------------------------------------------------------------
// Frames

TEST_F(V4l2, NeverHandsOutFramesCompletedBeforeTheCall)
{
    ASSERT_EQ(cam->init(0), 0);
    ASSERT_TRUE(dev->produceFill(1));
    ASSERT_TRUE(dev->produceFill(2));
    unsigned char* p = grab(1000, 3);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[0], 3);
    EXPECT_EQ(dev->buffersWithUser(), 1); // the backlog went back to the driver
}

TEST_F(V4l2, SkipsErrorFlaggedAndEmptyBuffers)
{
    ASSERT_EQ(cam->init(0), 0);
    int nProduced = 0;
    dev->fnOnPoll = [&] {
        ++nProduced;
        if (nProduced == 1)
            dev->produceFill(1, V4L2_BUF_FLAG_ERROR);
        else if (nProduced == 2)
            dev->produce({});
        else
            dev->produceFill(3);
    };
    unsigned char* p = cam->frame(&w, &h, &bpp, 0, 1000);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[0], 3);
}

TEST_F(V4l2, UnpluggedDeviceAnswersAtOnceAndFailsUntilOpenedAgain)
{
    ASSERT_EQ(cam->init(0), 0);
    ASSERT_NE(grab(), nullptr);
    dev->unplug();
    const auto t = Clock::now();
    EXPECT_EQ(cam->frame(&w, &h, &bpp, 0, 5000), nullptr);
    EXPECT_LT(msSince(t), 1000);
    EXPECT_EQ(dev->openFds(), 0);
    EXPECT_EQ(dev->mappings(), 0);
    int n = 0;
    EXPECT_NE(cam->getWindowSize(&n, &n, 0), 0);
    EXPECT_NE(cam->setWindowSize(320, 240, 0), 0);
    EXPECT_NE(cam->setMode(1, 0), 0);
    EXPECT_NE(cam->trigger(0), 0);
    EXPECT_EQ(cam->frame(&w, &h, &bpp, 0, 10), nullptr);
    EXPECT_EQ(cam->init(0), 3); // still gone
    EXPECT_EQ(cam->free(0), 0);

    dev->replug();
    ASSERT_EQ(cam->init(0), 0);
    EXPECT_NE(grab(), nullptr);
}

// ---------------------------------------------------------------------------
// Trigger mode

TEST_F(V4l2, TriggeredModeGivesOneFrameAfterEachTrigger)
{
    ASSERT_EQ(cam->init(0), 0);
    ASSERT_EQ(cam->setMode(1, 0), 0);
    // No trigger: the device streams, but no frame comes out within the time-out.
    const auto t = Clock::now();
    EXPECT_EQ(grab(60), nullptr);
    EXPECT_GE(msSince(t), 50);
    EXPECT_LT(msSince(t), 2000);

    ASSERT_TRUE(dev->produceFill(1)); // completed before the trigger
    ASSERT_EQ(cam->trigger(0), 0);
    ASSERT_EQ(cam->trigger(0), 0);
    unsigned char* p = grab(1000, 2);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[0], 2);
    EXPECT_NE(grab(1000, 3), nullptr);
    EXPECT_EQ(grab(30), nullptr); // two triggers, two frames

    // Changing the mode drops pending triggers; continuous mode ignores them.
    ASSERT_EQ(cam->trigger(0), 0);
    ASSERT_EQ(cam->setMode(0, 0), 0);
    ASSERT_EQ(cam->setMode(1, 0), 0);
    EXPECT_EQ(grab(30), nullptr);
    EXPECT_NE(cam->setMode(2, 0), 0);
}

TEST_F(V4l2, TriggerFromAnotherThreadWakesAWaitingRequest)
{
    ASSERT_EQ(cam->init(0), 0);
    ASSERT_EQ(cam->setMode(1, 0), 0);
    dev->fnOnPoll = [this] { dev->produceFill(5); };
    const auto t = Clock::now();
    auto cWaiting = std::async(std::launch::async, [this] { return cam->frame(&w, &h, &bpp, 0, 5000) != nullptr; });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(cam->trigger(0), 0);
    EXPECT_TRUE(cWaiting.get());
    EXPECT_LT(msSince(t), 4000);
}

} // namespace
