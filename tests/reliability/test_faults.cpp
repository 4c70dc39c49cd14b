// Fault matrix: every failure the simulated camera can inject, driven through
// the host API. Each case checks the result, the message, the state the
// cameras are left in, and that repeating the case takes no heap for good.

#include <atomic>
#include <chrono>
#include <thread>

#include "apifixture.h"

namespace {

using Faults = ApiFixture;

TEST_F(Faults, CameraInitResults)
{
    const struct {
        int result;
        bool connects;
        const char* message; // the last error afterwards
    } cases[] = {
        {1, false, "Config file is not exist!"},
        {2, false, "Camera has no response!"},
        {3, false, "No camera is exists!"},
        {4, false, "Bad camera parameters!"},
        {5, false, "Partial init failed!"},
        // Codes the SDK does not document count as success; success keeps the old text.
        {6, true, "CCD is not connected."},
        {-1, true, "CCD is not connected."},
        {0, true, "CCD is not connected."},
    };
    setMain(configFor(1, 64, 48));
    for (const auto& c : cases) {
        const std::string what = "camera_init -> " + std::to_string(c.result);
        expectNoHeapGrowth(
            [&] {
                markLastError();
                const int calls = torvanesim_init_calls();
                torvanesim_set_next_init_result(c.result);
                EXPECT_EQ(api->connectMain(), c.connects) << what;
                EXPECT_EQ(torvanesim_init_calls(), calls + 1) << what;
                EXPECT_EQ(text(api->getLastError()), c.message) << what;
                EXPECT_EQ(api->IsConnectedMain(), c.connects) << what;
                EXPECT_FALSE(api->IsStartedMain()) << what;
                EXPECT_EQ(torvanesim_open_count(), c.connects ? 1 : 0) << what;
                // Either way the camera is usable afterwards: a failed open is
                // simply tried again, an open one starts and delivers.
                ASSERT_TRUE(api->connectMain()) << what;
                ASSERT_TRUE(api->startMain()) << what;
                int w, b, h;
                unsigned char* img = api->requestImageMain(&w, &b, &h, 1000);
                ASSERT_NE(img, nullptr) << what;
                EXPECT_EQ(b, 192) << what;
                api->releaseImageMain(img);
                api->disconnectMain();
                EXPECT_EQ(torvanesim_open_count(), 0) << what;
            },
            what);
    }
}

TEST_F(Faults, WindowSizeFailures)
{
    KavrelInterfaceTestPeer peer(*api);
    // startMain does not look at the region's result: the camera starts with
    // the window it had. applyNewConfigMain reports it, and the camera is left
    // stopped with the region as far as it was worked out.
    const struct {
        bool failMax, failSet;
        const char* roi;
        const char* message;
        int w, h; // region members afterwards
    } cases[] = {
        {true, false, "<ROI>16,8,0,20</ROI>", "Get Camera max resolution failed!", 0, 20},
        {true, false, "<ROI>30,-1</ROI>", "Get Camera max resolution failed!", 30, -1},
        {false, true, "<ROI>16,8,33,21</ROI>", "Set Camera resolution failed!", 36, 24},
        {false, true, "<ROI>0,21</ROI>", "Set Camera resolution failed!", 64, 24},
        // Refused by the SDK without any armed failure: larger than the sensor.
        {false, false, "<ROI>2147483647,2147483647</ROI>", "Set Camera resolution failed!", 2147483644, 2147483644},
        {false, false, "<ROI>65,48</ROI>", "Set Camera resolution failed!", 68, 48},
    };
    for (const auto& c : cases) {
        const std::string what = c.roi;
        expectNoHeapGrowth(
            [&] {
                torvanesim_reset();
                torvanesim_set_frame_rate(0);
                torvanesim_set_sensor(64, 48, 3);
                markLastError();
                setMain(std::string("<PixFmt>0</PixFmt>") + c.roi + kPlainSettings);
                ASSERT_TRUE(api->connectMain());
                torvanesim_fail_max_window_size(c.failMax);
                torvanesim_fail_set_window_size(c.failSet);

                EXPECT_TRUE(api->startMain()) << what;
                EXPECT_TRUE(api->IsStartedMain()) << what;
                EXPECT_EQ(camMain()->getLastError(), QString(c.message)) << what;
                EXPECT_EQ(text(api->getLastError()), "CCD is not connected.") << what;
                int w, b, h;
                unsigned char* img = api->requestImageMain(&w, &b, &h, 1000);
                ASSERT_NE(img, nullptr) << what;
                EXPECT_EQ(w, 64) << what; // the old window
                EXPECT_EQ(h, 48) << what;
                api->releaseImageMain(img);

                setMain(std::string("<PixFmt>0</PixFmt>") + c.roi + kPlainSettings);
                EXPECT_FALSE(api->applyNewConfigMain()) << what;
                EXPECT_EQ(camMain()->getLastError(), QString(c.message)) << what;
                EXPECT_FALSE(api->IsStartedMain()) << what;
                EXPECT_TRUE(api->IsConnectedMain()) << what;
                int x = -1, y = -1, rw = 0, rh = 0;
                peer.roiMain(x, y, rw, rh);
                EXPECT_EQ(x, 0) << what;
                EXPECT_EQ(y, 0) << what;
                EXPECT_EQ(rw, c.w) << what;
                EXPECT_EQ(rh, c.h) << what;
                // Stopped: nothing to request, nothing lent.
                EXPECT_EQ(api->requestImageMain(&w, &b, &h, 10), nullptr) << what;
                EXPECT_TRUE(peer.mainFree()) << what;

                // Once the SDK agrees again, a start brings frames back.
                torvanesim_fail_max_window_size(0);
                torvanesim_fail_set_window_size(0);
                setMain(configFor(0, 32, 16));
                ASSERT_TRUE(api->startMain());
                img = api->requestImageMain(&w, &b, &h, 1000);
                ASSERT_NE(img, nullptr) << what;
                EXPECT_EQ(w, 32) << what;
                api->releaseImageMain(img);
                api->disconnectMain();
            },
            what);
    }
}

TEST_F(Faults, NoFrameInTime)
{
    KavrelInterfaceTestPeer peer(*api);
    setMain(configFor(1, 64, 48));
    ASSERT_TRUE(api->connectMain());
    ASSERT_TRUE(api->startMain());
    markLastError();
    ASSERT_TRUE(api->connectMain());
    ASSERT_TRUE(api->startMain());

    const struct {
        int timeout;
        const char* sdkCall; // what the SDK is asked for
    } cases[] = {
        {30, "get_frame_timeout(0,30)"},
        {1, "get_frame_timeout(0,1)"},
        {0, "get_frame_timeout(0,1)"},
        {-1, "get_frame_timeout(0,1)"},
        {-2147483647 - 1, "get_frame_timeout(0,1)"},
    };
    torvanesim_starve_frames(1);
    for (const auto& c : cases) {
        const std::string what = "time-out " + std::to_string(c.timeout);
        expectNoHeapGrowth(
            [&] {
                torvanesim_log_clear();
                int w = 7, b = 7, h = 7;
                EXPECT_EQ(api->requestImageMain(&w, &b, &h, c.timeout), nullptr) << what;
                EXPECT_EQ(w + b + h, 0) << what;
                EXPECT_EQ(text(api->getLastError()), "CCD is not connected.") << what;
                EXPECT_TRUE(peer.mainFree()) << what;
                EXPECT_TRUE(api->IsStartedMain()) << what;
                char entry[64] = {};
                ASSERT_EQ(torvanesim_log_count(), 1) << what;
                torvanesim_log_entry(0, entry, sizeof entry);
                EXPECT_EQ(std::string(entry), c.sdkCall) << what;
            },
            what);
    }
    // Frames flow again as soon as the camera delivers.
    torvanesim_starve_frames(0);
    int w, b, h;
    unsigned char* img = api->requestImageMain(&w, &b, &h, 1000);
    ASSERT_NE(img, nullptr);
    api->releaseImageMain(img);

    // A stopped camera answers at once without asking the SDK.
    api->stopMain();
    torvanesim_log_clear();
    EXPECT_EQ(api->requestImageMain(&w, &b, &h, 100000), nullptr);
    EXPECT_EQ(torvanesim_log_count(), 0);
}

// A frame of another size taken by a second thread between the geometry read
// and the copy: the copy is refused, the outputs keep the geometry that was
// read, nothing is lent, and the next request delivers the new frame whole.
TEST_F(Faults, GeometryChangesBeforeTheCopy)
{
    KavrelInterfaceTestPeer peer(*api);
    const struct {
        int w1, h1, w2, h2;
    } cases[] = {{64, 48, 32, 16}, {64, 48, 64, 47}, {64, 48, 63, 48}, {8, 2, 2, 8}};
    setMain(configFor(1, 64, 48));
    ASSERT_TRUE(api->connectMain());
    ASSERT_TRUE(api->startMain());
    for (const auto& c : cases) {
        const std::string what = std::to_string(c.w1) + "x" + std::to_string(c.h1) + " -> " +
                                 std::to_string(c.w2) + "x" + std::to_string(c.h2);
        expectNoHeapGrowth(
            [&] {
                // Hold an image so that the second thread's request stops at the hand-over.
                int w, b, h;
                unsigned char* held = api->requestImageMain(&w, &b, &h, 1000);
                ASSERT_NE(held, nullptr);

                torvanesim_queue_frame(c.w1, c.h1, 3, nullptr);
                const unsigned int delivered = torvanesim_frames_delivered();
                std::atomic<int> state{0}; // 1 waiting, 2 done
                unsigned char* got = held;
                int gw = 0, gb = 0, gh = 0;
                std::thread second([&] {
                    state = 1;
                    got = api->requestImageMain(&gw, &gb, &gh, 1000);
                    if (got)
                        api->releaseImageMain(got);
                    state = 2;
                });
                const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
                while (torvanesim_frames_delivered() == delivered && std::chrono::steady_clock::now() < deadline)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                // Let it read the geometry and reach the hand-over.
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                EXPECT_EQ(state.load(), 1) << what;

                torvanesim_queue_frame(c.w2, c.h2, 3, nullptr);
                ASSERT_TRUE(camMain()->waitNewImage(1000)) << what;
                api->releaseImageMain(held);
                while (state != 2 && std::chrono::steady_clock::now() < deadline)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                ASSERT_EQ(state.load(), 2) << what << ": request never came back";
                second.join();
                EXPECT_EQ(got, nullptr) << what;
                EXPECT_EQ(gw, c.w1) << what;
                EXPECT_EQ(gb, 3 * c.w1) << what;
                EXPECT_EQ(gh, c.h1) << what;
                EXPECT_TRUE(peer.mainFree()) << what;

                torvanesim_queue_frame(c.w2, c.h2, 3, nullptr);
                unsigned char* img = api->requestImageMain(&w, &b, &h, 1000);
                ASSERT_NE(img, nullptr) << what;
                EXPECT_EQ(w, c.w2) << what;
                EXPECT_EQ(h, c.h2) << what;
                const auto expected = expectedImage(0, c.w2, c.h2, false);
                EXPECT_EQ(0, std::memcmp(img, expected.data(), expected.size())) << what;
                api->releaseImageMain(img);
            },
            what);
    }
}

// Two and four bytes per pixel: the driver cannot convert them. The image
// keeps its geometry and comes out black (a fresh buffer) or as it was (a
// reused one); the next three-byte frame is delivered as usual.
TEST_F(Faults, FramesOfTwoAndFourBytesPerPixel)
{
    const struct {
        int bpp;
        int code; // <PixFmt>
        int bytesPerLine;
    } cases[] = {{2, 1, 48}, {4, 1, 48}, {2, 0, 16}, {4, 0, 16}, {4, 2, 48}};
    for (const auto& c : cases) {
        const std::string what = std::to_string(c.bpp) + " bytes per pixel, code " + std::to_string(c.code);
        expectNoHeapGrowth(
            [&] {
                setMain(configFor(c.code, 64, 48));
                ASSERT_TRUE(api->connectMain());
                ASSERT_TRUE(api->startMain());
                std::vector<unsigned char> odd(16 * 8 * c.bpp, 0x5A);
                for (int round = 0; round < 2; ++round) {
                    torvanesim_queue_frame(16, 8, c.bpp, odd.data());
                    int w, b, h;
                    unsigned char* img = api->requestImageMain(&w, &b, &h, 1000);
                    ASSERT_NE(img, nullptr) << what;
                    EXPECT_EQ(w, 16) << what;
                    EXPECT_EQ(b, c.bytesPerLine) << what;
                    EXPECT_EQ(h, 8) << what;
                    EXPECT_EQ(std::vector<unsigned char>(img, img + b * h), std::vector<unsigned char>(b * h, 0))
                        << what << ", round " << round;
                    api->releaseImageMain(img);
                }
                int w, b, h;
                unsigned char* img = api->requestImageMain(&w, &b, &h, 1000);
                ASSERT_NE(img, nullptr) << what;
                const unsigned int n = torvanesim_frame_number(img, c.code == 0 ? 1 : 3);
                const auto expected = expectedImage(n, 64, 48, c.code == 0);
                ASSERT_EQ(static_cast<size_t>(b * h), expected.size()) << what;
                EXPECT_EQ(0, std::memcmp(img, expected.data(), expected.size())) << what;
                api->releaseImageMain(img);
                api->disconnectMain();
            },
            what);
    }
}

// Main and Slaver share SDK camera 0: both open it, each close counts, and
// one camera's disconnect leaves the other delivering.
TEST_F(Faults, MainAndSlaverOnOneSdkCamera)
{
    KavrelInterfaceTestPeer peer(*api);
    setMain(configFor(1, 64, 48));
    setSlaver(configFor(0, 64, 48));
    expectNoHeapGrowth(
        [&] {
            const int calls = torvanesim_init_calls();
            ASSERT_TRUE(api->connectMain());
            ASSERT_TRUE(api->connectSlaver());
            EXPECT_EQ(torvanesim_init_calls(), calls + 2);
            EXPECT_EQ(torvanesim_open_count(), 2);
            ASSERT_TRUE(api->startMain());
            ASSERT_TRUE(api->startSlaver());

            int w, b, h;
            unsigned char* main = api->requestImageMain(&w, &b, &h, 1000);
            ASSERT_NE(main, nullptr);
            EXPECT_EQ(b, 192);
            unsigned char* slaver = api->requestImageSlaver(&w, &b, &h, 1000);
            ASSERT_NE(slaver, nullptr);
            EXPECT_EQ(b, 64);
            EXPECT_NE(main, slaver);
            // Two frames, one after the other, each whole.
            const unsigned int nMain = torvanesim_frame_number(main, 3);
            const unsigned int nSlaver = torvanesim_frame_number(slaver, 1);
            EXPECT_LT(nMain, nSlaver);
            EXPECT_EQ(0, std::memcmp(main, expectedImage(nMain, 64, 48, false).data(), 64 * 48 * 3));
            EXPECT_EQ(0, std::memcmp(slaver, expectedImage(nSlaver, 64, 48, true).data(), 64 * 48));
            api->releaseImageMain(main);
            api->releaseImageSlaver(slaver);

            api->disconnectMain();
            EXPECT_EQ(torvanesim_open_count(), 1);
            EXPECT_FALSE(api->IsConnectedMain());
            EXPECT_EQ(api->requestImageMain(&w, &b, &h, 10), nullptr);
            EXPECT_TRUE(api->IsStartedSlaver());
            slaver = api->requestImageSlaver(&w, &b, &h, 1000);
            ASSERT_NE(slaver, nullptr);
            api->releaseImageSlaver(slaver);
            api->disconnectSlaver();
            EXPECT_EQ(torvanesim_open_count(), 0);
            EXPECT_TRUE(peer.mainFree());
            EXPECT_TRUE(peer.slaverFree());
        },
        "Main and Slaver");
}

} // namespace
