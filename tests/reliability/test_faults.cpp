// SPDX-License-Identifier: LGPL-2.1-or-later
// Fault matrix: every failure the simulated camera can inject, driven through
// the host API. Each case checks the result, the message and the state the
// camera is left in; that the camera delivers whole frames again once the SDK
// behaves; and that repeating the case takes no heap for good.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <thread>

#include "apifixture.h"

namespace {

using Faults = ApiFixture;

enum Point { Init, MaxWindow, SetWindow, NoFrame, OddPixels };

TEST_F(Faults, Matrix)
{
    // arg: camera_init's result (Init), the time-out (NoFrame) or bytes per pixel (OddPixels);
    // message: the camera's last error afterwards (null: unchanged).
    const struct { Point point; int arg; const char *roi, *message; } cases[] = {
        {Init, 1, "64,48", "Config file is not exist!"}, {Init, 2, "64,48", "Camera has no response!"},
        {Init, 3, "64,48", "No camera is exists!"},      {Init, 4, "64,48", "Bad camera parameters!"},
        {Init, 5, "64,48", "Partial init failed!"},
        {Init, 6, "64,48", nullptr}, {Init, -1, "64,48", nullptr}, // codes the SDK does not document count as success
        {MaxWindow, 0, "16,8,0,20", "Get Camera max resolution failed!"}, {MaxWindow, 0, "30,-1", "Get Camera max resolution failed!"},
        {SetWindow, 1, "16,8,33,21", "Set Camera resolution failed!"},    {SetWindow, 0, "65,48", "Set Camera resolution failed!"},
        {SetWindow, 0, "2147483647,2147483647", "Set Camera resolution failed!"}, // larger than the sensor
        {NoFrame, 30, "64,48", nullptr}, {NoFrame, INT_MIN, "64,48", nullptr},
        {NoFrame, 0, "64,48", nullptr}, // the SDK is asked to wait at least 1 ms
        {OddPixels, 2, "64,48", nullptr}, {OddPixels, 4, "64,48", nullptr}, // the driver cannot convert these: a black image
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.point) + " " + std::to_string(c.arg) + " " + c.roi);
        const bool opens = c.point != Init || !c.message, window = c.point == MaxWindow || c.point == SetWindow;
        const bool delivers = c.point == Init || c.point == OddPixels;
        expectNoHeapGrowth([&] {
            // Messages no operation below may overwrite, unless it fails.
            setMain("");
            ASSERT_FALSE(api->connectMain() || camMain()->start());
            setMain(std::string("<PixFmt>1</PixFmt><ROI>") + c.roi + "</ROI>");
            torvanesim_set_next_init_result(c.point == Init ? c.arg : 0);
            ASSERT_EQ(api->connectMain(), opens);
            EXPECT_EQ(torvanesim_open_count(), opens ? 1 : 0);
            if (opens) {
                torvanesim_fail_max_window_size(c.point == MaxWindow);
                torvanesim_fail_set_window_size(c.point == SetWindow && c.arg);
                torvanesim_starve_frames(c.point == NoFrame);
                // startMain does not look at the region's result: the camera
                // starts with the window it had; applyNewConfigMain reports it.
                ASSERT_TRUE(api->startMain());
                EXPECT_EQ(api->applyNewConfigMain(), !window);
                EXPECT_EQ(api->IsStartedMain(), !window);
                EXPECT_EQ(text(api->getLastError()), "No config string is set.");
                const std::vector<unsigned char> odd(16 * 8 * 4, 0x5A);
                torvanesim_queue_frame(16, 8, c.point == OddPixels ? c.arg : 3, odd.data());
                torvanesim_log_clear();
                int w = 7, b = 7, h = 7;
                unsigned char* img = request(false, &w, &b, &h, c.point == NoFrame ? c.arg : 1000);
                char log[64] = {};
                torvanesim_log_entry(0, log, sizeof log);
                ASSERT_EQ(img != nullptr, delivers);
                const std::vector<int> want = delivers ? std::vector<int>{16, 48, 8} : std::vector<int>{0, 0, 0};
                EXPECT_EQ((std::vector<int>{w, b, h}), want);
                EXPECT_TRUE(c.point != OddPixels || std::all_of(img, img + 48 * 8, [](int v) { return v == 0; }));
                EXPECT_TRUE(c.point != NoFrame || log == "get_frame_timeout(0," + std::to_string(std::max(c.arg, 1)) + ")") << log;
                api->releaseImageMain(img);
                EXPECT_TRUE(peer.nothingLent());
            }
            EXPECT_EQ(camMain()->getLastError(), QString(c.message ? c.message : "Camera is not connected!"));
            // Once the SDK behaves again, whole frames come back.
            api->disconnectMain();
            SetUp();
            EXPECT_TRUE(startMain(configFor(0, 32, 16)) && api->applyNewConfigMain() && takesWhole(false, true, 32, 16));
            api->disconnectMain();
            EXPECT_EQ(torvanesim_open_count(), 0);
        });
    }
}

// A frame of another size taken by a second thread between the geometry read
// and the copy: the copy is refused, the outputs keep the geometry that was
// read, nothing is lent, and that thread's next request delivers the new frame
// whole.
TEST_F(Faults, GeometryChangesBeforeTheCopy)
{
    const struct { int w1, h1, w2, h2; } cases[] = {{64, 48, 64, 47}, {8, 2, 2, 8}};
    ASSERT_TRUE(startMain(configFor(1, 64, 48)));
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.w1) + "x" + std::to_string(c.h1) + " -> " + std::to_string(c.w2) + "x" + std::to_string(c.h2));
        expectNoHeapGrowth([&] {
            // Holding an image stops the second thread's request at the hand-over.
            unsigned char* held = request();
            ASSERT_NE(held, nullptr);
            torvanesim_queue_frame(c.w1, c.h1, 3, nullptr);
            const unsigned int delivered = torvanesim_frames_delivered();
            std::atomic<int> state{0}; // 1 waiting, 2 refused, 3 next frame queued
            unsigned char* got = held;
            int gw = 0, gb = 0, gh = 0;
            bool nextWhole = false;
            std::thread second([&] {
                state = 1;
                got = request(false, &gw, &gb, &gh);
                api->releaseImageMain(got);
                state = 2;
                while (state != 3)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                nextWhole = takesWhole(false, false, c.w2, c.h2);
            });
            while (torvanesim_frames_delivered() == delivered)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            std::this_thread::sleep_for(std::chrono::milliseconds(50)); // to read the geometry and wait
            EXPECT_EQ(state.load(), 1) << "a lent image must hold up the next request";
            torvanesim_queue_frame(c.w2, c.h2, 3, nullptr);
            ASSERT_TRUE(camMain()->waitNewImage(1000));
            api->releaseImageMain(held);
            while (state != 2)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            EXPECT_EQ(got, nullptr);
            EXPECT_EQ(std::vector<int>({gw, gb, gh}), std::vector<int>({c.w1, 3 * c.w1, c.h1}));
            EXPECT_TRUE(peer.nothingLent());

            torvanesim_queue_frame(c.w2, c.h2, 3, nullptr);
            state = 3;
            second.join();
            EXPECT_TRUE(nextWhole);
        });
    }
}

// Exposure, gain and mode the SDK refuses are not the driver's failures: the
// camera starts and delivers, reading back gives what the SDK kept, and a
// software-triggered camera whose mode change was refused still gets frames
// (the SDK stayed continuous) until the SDK takes the mode.
TEST_F(Faults, RefusedExposureGainAndModeLeaveTheCameraWorking)
{
    torvanesim_fail_set_exposure(1);
    torvanesim_fail_set_gain(1);
    torvanesim_fail_set_mode(1);
    ASSERT_TRUE(startMain(configFor(1, 64, 48, "<Exposure>5000</Exposure><Gain>5</Gain><TriggerType>soft</TriggerType>")));
    CCDIF::CCDSettings settings;
    ASSERT_TRUE(camMain()->getCurSettings(&settings));
    EXPECT_EQ(std::vector<int>({settings.nExposure, settings.nGain, settings.eTriggerType}),
              std::vector<int>({20000, 0, CCDIF::TriggerSoft}));
    EXPECT_TRUE(takesWhole(false, false));
    torvanesim_fail_set_mode(0);
    ASSERT_TRUE(api->applyNewConfigMain());
    EXPECT_EQ(request(false, nullptr, nullptr, nullptr, 50), nullptr) << "triggered now: no frame without a trigger";
    EXPECT_TRUE(api->clickMain());
    EXPECT_TRUE(takesWhole(false, false));
}

// A frame of 2 or 4 bytes per pixel is not transferred, but gamma still runs
// over what the image holds: the last frame's pixels, corrected once more.
TEST_F(Faults, GammaStillRunsOverAFrameThatIsNotTransferred)
{
    ASSERT_TRUE(startMain(configFor(1, 16, 8, "<Gamma>2.0</Gamma>")));
    const std::vector<unsigned char> grey(16 * 8 * 3, 128);
    torvanesim_queue_frame(16, 8, 3, grey.data());
    const int expected[] = {64, 16, 1}; // 255 * (v / 255)^2, truncated, applied again for each frame
    for (const int bpp : {3, 2, 4}) {
        if (bpp != 3)
            torvanesim_queue_frame(16, 8, bpp, nullptr);
        unsigned char* img = request();
        ASSERT_NE(img, nullptr) << bpp;
        const int want = expected[bpp == 3 ? 0 : bpp / 2];
        EXPECT_TRUE(std::all_of(img, img + 16 * 8 * 3, [&](int v) { return v == want; })) << bpp << " bytes per pixel";
        api->releaseImageMain(img);
    }
}

} // namespace
