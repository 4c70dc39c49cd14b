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

std::string firstLogEntry()
{
    char entry[64] = {};
    torvanesim_log_entry(0, entry, sizeof entry);
    return entry;
}

TEST_F(Faults, Matrix)
{
    const struct {
        Point point;
        int arg; // Init: camera_init's result; NoFrame: the time-out; OddPixels: bytes per pixel
        const char* roi;
        const char* message; // the camera's last error afterwards; null: unchanged
    } cases[] = {
        {Init, 1, "64,48", "Config file is not exist!"},
        {Init, 2, "64,48", "Camera has no response!"},
        {Init, 3, "64,48", "No camera is exists!"},
        {Init, 4, "64,48", "Bad camera parameters!"},
        {Init, 5, "64,48", "Partial init failed!"},
        {Init, 6, "64,48", nullptr}, // codes the SDK does not document count as success
        {Init, -1, "64,48", nullptr},
        {MaxWindow, 0, "16,8,0,20", "Get Camera max resolution failed!"},
        {MaxWindow, 0, "30,-1", "Get Camera max resolution failed!"},
        {SetWindow, 1, "16,8,33,21", "Set Camera resolution failed!"},
        {SetWindow, 0, "2147483647,2147483647", "Set Camera resolution failed!"}, // larger than the sensor
        {SetWindow, 0, "65,48", "Set Camera resolution failed!"},
        {NoFrame, 30, "64,48", nullptr},
        {NoFrame, 0, "64,48", nullptr}, // the SDK is asked to wait at least 1 ms
        {NoFrame, INT_MIN, "64,48", nullptr},
        {OddPixels, 2, "64,48", nullptr}, // the driver cannot convert these: a black image
        {OddPixels, 4, "64,48", nullptr},
    };
    for (const auto& c : cases) {
        const std::string what = std::to_string(c.point) + " " + std::to_string(c.arg) + " " + c.roi;
        expectNoHeapGrowth(
            [&] {
                // Messages no operation below may overwrite, unless it fails.
                setMain("");
                ASSERT_FALSE(api->connectMain());
                ASSERT_FALSE(camMain()->start());
                setMain(std::string("<PixFmt>1</PixFmt><ROI>") + c.roi + "</ROI>");
                torvanesim_set_next_init_result(c.point == Init ? c.arg : 0);
                const bool opens = c.point != Init || !c.message;
                ASSERT_EQ(api->connectMain(), opens) << what;
                EXPECT_EQ(torvanesim_open_count(), opens ? 1 : 0) << what;
                if (opens) {
                    torvanesim_fail_max_window_size(c.point == MaxWindow);
                    torvanesim_fail_set_window_size(c.point == SetWindow && c.arg);
                    torvanesim_starve_frames(c.point == NoFrame);
                    // startMain does not look at the region's result: the camera
                    // starts with the window it had; applyNewConfigMain reports it.
                    ASSERT_TRUE(api->startMain()) << what;
                    EXPECT_EQ(api->applyNewConfigMain(), c.point != MaxWindow && c.point != SetWindow) << what;
                    EXPECT_EQ(api->IsStartedMain(), c.point != MaxWindow && c.point != SetWindow) << what;
                    EXPECT_EQ(text(api->getLastError()), "No config string is set.") << what;
                    std::vector<unsigned char> odd(16 * 8 * 4, 0x5A);
                    torvanesim_queue_frame(16, 8, c.point == OddPixels ? c.arg : 3, odd.data());
                    torvanesim_log_clear();
                    int w = 7, b = 7, h = 7;
                    unsigned char* img = requestMain(&w, &b, &h, c.point == NoFrame ? c.arg : 1000);
                    const bool delivers = c.point == Init || c.point == OddPixels;
                    ASSERT_EQ(img != nullptr, delivers) << what;
                    EXPECT_EQ(w + b + h, delivers ? 16 + 48 + 8 : 0) << what;
                    EXPECT_TRUE(c.point != OddPixels || std::all_of(img, img + 48 * 8, [](int v) { return v == 0; })) << what;
                    EXPECT_TRUE(c.point != NoFrame || firstLogEntry() == "get_frame_timeout(0," + std::to_string(std::max(c.arg, 1)) + ")")
                        << what << ": " << firstLogEntry();
                    api->releaseImageMain(img);
                    EXPECT_TRUE(peer.nothingLent()) << what;
                }
                EXPECT_EQ(camMain()->getLastError(), QString(c.message ? c.message : "Camera is not connected!")) << what;

                // Once the SDK behaves again, whole frames come back.
                api->disconnectMain();
                SetUp();
                setMain(configFor(0, 32, 16));
                ASSERT_TRUE(api->connectMain() && api->startMain() && api->applyNewConfigMain()) << what;
                unsigned char* img = requestMain();
                ASSERT_NE(img, nullptr) << what;
                EXPECT_TRUE(wholeFrame(img, 32, 16, true)) << what;
                api->releaseImageMain(img);
                api->disconnectMain();
                EXPECT_EQ(torvanesim_open_count(), 0) << what;
            },
            what);
    }
}

// A frame of another size taken by a second thread between the geometry read
// and the copy: the copy is refused, the outputs keep the geometry that was
// read, nothing is lent, and the next request delivers the new frame whole.
TEST_F(Faults, GeometryChangesBeforeTheCopy)
{
    const struct { int w1, h1, w2, h2; } cases[] = {{64, 48, 64, 47}, {8, 2, 2, 8}};
    setMain(configFor(1, 64, 48));
    ASSERT_TRUE(api->connectMain() && api->startMain());
    for (const auto& c : cases) {
        const std::string what = std::to_string(c.w1) + "x" + std::to_string(c.h1) + " -> " +
                                 std::to_string(c.w2) + "x" + std::to_string(c.h2);
        expectNoHeapGrowth(
            [&] {
                // Holding an image stops the second thread's request at the hand-over.
                unsigned char* held = requestMain();
                ASSERT_NE(held, nullptr);
                torvanesim_queue_frame(c.w1, c.h1, 3, nullptr);
                const unsigned int delivered = torvanesim_frames_delivered();
                std::atomic<int> state{0}; // 1 waiting, 2 done
                unsigned char* got = held;
                int gw = 0, gb = 0, gh = 0;
                std::thread second([&] {
                    state = 1;
                    got = requestMain(&gw, &gb, &gh);
                    api->releaseImageMain(got);
                    state = 2;
                });
                while (torvanesim_frames_delivered() == delivered)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                std::this_thread::sleep_for(std::chrono::milliseconds(50)); // to read the geometry and wait
                EXPECT_EQ(state.load(), 1) << what << ": a lent image must hold up the next request";
                torvanesim_queue_frame(c.w2, c.h2, 3, nullptr);
                ASSERT_TRUE(camMain()->waitNewImage(1000)) << what;
                api->releaseImageMain(held);
                second.join();
                EXPECT_EQ(got, nullptr) << what;
                EXPECT_EQ(std::vector<int>({gw, gb, gh}), std::vector<int>({c.w1, 3 * c.w1, c.h1})) << what;
                EXPECT_TRUE(peer.nothingLent()) << what;

                torvanesim_queue_frame(c.w2, c.h2, 3, nullptr);
                int w, h;
                unsigned char* img = requestMain(&w, nullptr, &h);
                ASSERT_NE(img, nullptr) << what;
                EXPECT_EQ(w * 1000 + h, c.w2 * 1000 + c.h2) << what;
                EXPECT_TRUE(wholeFrame(img, c.w2, c.h2, false)) << what;
                api->releaseImageMain(img);
            },
            what);
    }
}

} // namespace
