// The simulated camera is what every other test stands on, so its pacing,
// triggers, window sizes, queued frames and frame numbers are checked here.

#include "sdk/torvane.h"
#include "sdk/torvanesim.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Frame {
    unsigned char *data = nullptr;
    int width = 0, height = 0, bpp = 0;
    size_t bytes() const { return static_cast<size_t>(width) * height * bpp; }
    unsigned int number() const { return torvanesim_frame_number(data, bpp); }
};

Frame grab(int timeoutMs)
{
    Frame f;
    f.data = get_frame_timeout(&f.width, &f.height, &f.bpp, 0, timeoutMs);
    return f;
}

double msSince(Clock::time_point t)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}

std::string logEntry(int i)
{
    char buf[128];
    return torvanesim_log_entry(i, buf, sizeof buf) < 0 ? std::string("<none>") : std::string(buf);
}

class Sdk : public ::testing::Test {
protected:
    void SetUp() override { clearEnvironmentAndReset(); }
    void TearDown() override { clearEnvironmentAndReset(); }
    static void clearEnvironmentAndReset()
    {
        unsetenv("TORVANE_SIM_SENSOR");
        unsetenv("TORVANE_SIM_BPP");
        unsetenv("TORVANE_SIM_FPS");
        torvanesim_reset();
    }
};

TEST_F(Sdk, InitResultIsArmedForOneCallAndOpenCountFollowsSuccess)
{
    struct Case { int armed; bool opens; };
    for (const Case c : {Case{0, true}, Case{1, false}, Case{5, false}, Case{6, true}, Case{-1, true}}) {
        SCOPED_TRACE(c.armed);
        torvanesim_reset();
        torvanesim_set_next_init_result(c.armed);
        EXPECT_EQ(camera_init(0, 0), c.armed);
        EXPECT_EQ(camera_init(0, 0), 0); // a second user of the same camera
        EXPECT_EQ(torvanesim_init_calls(), 2);
        EXPECT_EQ(torvanesim_open_count(), c.opens ? 2 : 1);
    }
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(camera_free(0), 0);
    EXPECT_EQ(torvanesim_open_count(), 0);
}

TEST_F(Sdk, FrameNumberSurvivesCopiesAndGreyConversion)
{
    // 4 x 3 puts the eight code pixels across two lines.
    for (const int width : {4, 16}) {
        for (const int bpp : {1, 3}) {
            for (const unsigned int n : {1u, 9u, 16u, 123456789u, 0xFFFFFFFFu}) {
                SCOPED_TRACE(testing::Message() << width << " " << bpp << " " << n);
                std::vector<unsigned char> frame(static_cast<size_t>(width) * 3 * bpp);
                torvanesim_render_frame(n, width, 3, bpp, frame.data());
                EXPECT_EQ(torvanesim_frame_number(frame.data(), bpp), n);
                if (bpp == 3) {
                    // The library's grey conversion may move a byte down by one.
                    unsigned char grey[8];
                    for (int i = 0; i < 8; ++i) {
                        const unsigned char *p = &frame[i * 3];
                        grey[i] = static_cast<unsigned char>(p[1] * 0.6 + p[2] * 0.25 + p[0] * 0.15);
                    }
                    EXPECT_EQ(torvanesim_frame_number(grey, 1), n);
                }
            }
        }
    }
}

TEST_F(Sdk, DeliveredFrameEqualsRenderedOneAndMoves)
{
    torvanesim_set_frame_rate(0);
    ASSERT_EQ(set_camera_window_size(320, 240, 0), 0);
    const Frame f = grab(100);
    ASSERT_NE(f.data, nullptr);
    EXPECT_EQ(f.width, 320);
    EXPECT_EQ(f.height, 240);
    EXPECT_EQ(f.bpp, 3);
    EXPECT_EQ(f.number(), 1u);
    std::vector<unsigned char> first(f.data, f.data + f.bytes());
    std::vector<unsigned char> want(f.bytes());
    torvanesim_render_frame(1, 320, 240, 3, want.data());
    EXPECT_EQ(first, want);

    int colourful = 0;
    for (size_t i = 0; i < first.size(); i += 3)
        colourful += first[i] != first[i + 1] || first[i + 1] != first[i + 2];
    EXPECT_GT(colourful, 320 * 240 / 4);

    const Frame g = grab(100);
    ASSERT_NE(g.data, nullptr);
    EXPECT_EQ(g.number(), 2u);
    // The whole picture moves, not only the counter: compare a line far below it.
    EXPECT_NE(std::memcmp(g.data + 200 * 320 * 3, first.data() + 200 * 320 * 3, 320 * 3), 0);
}

TEST_F(Sdk, ReusedFramesOnlyGetANewNumberUntilTheSettingsChange)
{
    torvanesim_set_frame_rate(0);
    ASSERT_EQ(set_camera_window_size(160, 120, 0), 0);
    torvanesim_reuse_frames(1);
    const size_t nBytes = 160 * 120 * 3, nCode = 8 * 3;
    std::vector<unsigned char> first, want(nBytes);
    {
        const Frame f = grab(100);
        ASSERT_EQ(f.bytes(), nBytes);
        first.assign(f.data, f.data + nBytes);
        torvanesim_render_frame(1, 160, 120, 3, want.data());
        EXPECT_EQ(first, want);
    }
    const Frame g = grab(100);
    ASSERT_EQ(g.bytes(), nBytes);
    EXPECT_EQ(g.number(), 2u);
    EXPECT_EQ(std::memcmp(g.data + nCode, first.data() + nCode, nBytes - nCode), 0);

    // A queued frame takes the thread's buffer; the next generated one is drawn afresh.
    std::vector<unsigned char> queued(nBytes, 7);
    torvanesim_queue_frame(160, 120, 3, queued.data());
    EXPECT_EQ(std::memcmp(grab(100).data, queued.data(), nBytes), 0);
    const Frame h = grab(100);
    torvanesim_render_frame(3, 160, 120, 3, want.data());
    EXPECT_EQ(std::memcmp(h.data, want.data(), nBytes), 0);

    // Other exposure: redrawn.
    ASSERT_EQ(set_camera_exposure(10000, 0), 0);
    const Frame k = grab(100);
    torvanesim_render_frame(4, 160, 120, 3, want.data());
    EXPECT_EQ(std::memcmp(k.data, want.data(), nBytes), 0);

    // Reset switches reuse off: every frame drawn again.
    torvanesim_reset();
    torvanesim_set_frame_rate(0);
    ASSERT_EQ(set_camera_window_size(160, 120, 0), 0);
    grab(100);
    const Frame m = grab(100);
    torvanesim_render_frame(2, 160, 120, 3, want.data());
    EXPECT_EQ(std::memcmp(m.data, want.data(), nBytes), 0);
}

TEST_F(Sdk, BrightnessFollowsExposureAndGain)
{
    auto sum = [](int exposure, int gain) {
        set_camera_exposure(exposure, 0);
        set_camera_gain(gain, 0);
        std::vector<unsigned char> frame(160 * 120 * 3);
        torvanesim_render_frame(7, 160, 120, 3, frame.data());
        return std::accumulate(frame.begin(), frame.end(), 0LL);
    };
    const long long dark = sum(0, 0), low = sum(10000, 0), normal = sum(20000, 0), high = sum(40000, 0);
    EXPECT_LT(dark, low / 4); // only the counter stays lit
    EXPECT_LT(low, normal);
    EXPECT_LT(normal, high);
    EXPECT_EQ(sum(20000, 16), high);
    int exposure = 0, gain = 0;
    EXPECT_EQ(get_camera_exposure(&exposure, 0), 0);
    EXPECT_EQ(get_camera_gain(&gain, 0), 0);
    EXPECT_EQ(exposure, 20000);
    EXPECT_EQ(gain, 16);
}

TEST_F(Sdk, ContinuousModeIsPacedWithoutBacklog)
{
    ASSERT_EQ(set_camera_window_size(64, 48, 0), 0);
    // Frame k is due k / fps after the rate is set; the timeline starts between before and after.
    const Clock::time_point before = Clock::now();
    torvanesim_set_frame_rate(50);
    const Clock::time_point after = Clock::now();
    unsigned int last = 0;
    for (int i = 0; i < 5; ++i) {
        const Frame f = grab(2000);
        ASSERT_NE(f.data, nullptr);
        EXPECT_GT(f.number(), last);
        EXPECT_GE(msSince(before), f.number() * 20.0) << "frame " << f.number() << " came early";
        last = f.number();
    }

    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const double calledAfterBefore = msSince(before), calledAfterAfter = msSince(after);
    const Frame f = grab(2000);
    ASSERT_NE(f.data, nullptr);
    // Exactly the next frame due after the call: no old one, none skipped.
    EXPECT_GT(f.number(), static_cast<unsigned int>(calledAfterAfter / 20.0));
    EXPECT_LE(f.number(), static_cast<unsigned int>(calledAfterBefore / 20.0) + 1);
    last = f.number(); // f.data is only good until this thread's next call

    torvanesim_set_frame_rate(1);
    const Clock::time_point t = Clock::now();
    EXPECT_EQ(grab(60).data, nullptr);
    EXPECT_GE(msSince(t), 60.0);
    EXPECT_LT(msSince(t), 900.0);

    torvanesim_set_frame_rate(0); // a frame on every call, numbers go on
    const unsigned int n = grab(0).number();
    EXPECT_GT(n, last);
    EXPECT_EQ(grab(0).number(), n + 1);
}

TEST_F(Sdk, TriggeredModeGivesOneFramePerTrigger)
{
    ASSERT_EQ(set_camera_mode(1, 0), 0);
    EXPECT_EQ(set_camera_mode(2, 0), -1);
    EXPECT_EQ(grab(30).data, nullptr);
    EXPECT_EQ(set_camera_trigger(0), 0);
    EXPECT_EQ(set_camera_trigger(0), 0);
    const unsigned int n = grab(30).number();
    EXPECT_EQ(grab(30).number(), n + 1);
    EXPECT_EQ(grab(30).data, nullptr);
    EXPECT_EQ(torvanesim_trigger_calls(), 2);

    // A trigger from another thread wakes a waiting caller.
    std::thread trigger([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        set_camera_trigger(0);
    });
    const Frame f = grab(5000);
    trigger.join();
    EXPECT_EQ(f.number(), n + 2);

    // Triggers fired in video mode are not kept for later.
    ASSERT_EQ(set_camera_mode(0, 0), 0);
    set_camera_trigger(0);
    ASSERT_EQ(set_camera_mode(1, 0), 0);
    EXPECT_EQ(grab(10).data, nullptr);
}

TEST_F(Sdk, WindowSizes)
{
    torvanesim_set_frame_rate(0);
    struct Case { int width, height, result; };
    const Case cases[] = {{640, 480, 0}, {1, 1, 0},     {1280, 960, 0}, {1281, 960, -1},
                          {1280, 961, -1}, {0, 480, -1}, {640, -4, -1}};
    int expectW = 1280, expectH = 960;
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.width << "x" << c.height);
        EXPECT_EQ(set_camera_window_size(c.width, c.height, 0), c.result);
        if (c.result == 0) {
            expectW = c.width;
            expectH = c.height;
        }
        int w = 0, h = 0;
        ASSERT_EQ(get_camera_window_size(&w, &h, 0), 0);
        EXPECT_EQ(w, expectW);
        EXPECT_EQ(h, expectH);
        const Frame f = grab(100);
        EXPECT_EQ(f.width, expectW);
        EXPECT_EQ(f.height, expectH);
    }

    int w = 0, h = 0;
    torvanesim_fail_set_window_size(1);
    EXPECT_EQ(set_camera_window_size(64, 64, 0), -1);
    torvanesim_fail_max_window_size(1);
    EXPECT_EQ(get_camera_max_window_size(&w, &h, 0), -1);
    torvanesim_fail_max_window_size(0);
    torvanesim_fail_set_window_size(0);
    EXPECT_EQ(get_camera_max_window_size(nullptr, &h, 0), -1);
    EXPECT_EQ(get_frame_timeout(nullptr, &w, &h, 0, 1), nullptr);

    torvanesim_set_sensor(64, 48, 1); // resets the window too
    ASSERT_EQ(get_camera_max_window_size(&w, &h, 0), 0);
    EXPECT_EQ(w, 64);
    EXPECT_EQ(h, 48);
    const Frame f = grab(100);
    EXPECT_EQ(f.width, 64);
    EXPECT_EQ(f.height, 48);
    EXPECT_EQ(f.bpp, 1);
}

TEST_F(Sdk, QueuedFramesComeFirstInAnyMode)
{
    torvanesim_set_frame_rate(1); // no generated frame within the time-outs below
    const unsigned char data[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    torvanesim_queue_frame(4, 2, 2, data);
    torvanesim_queue_frame(16, 12, 3, nullptr);
    torvanesim_queue_frame(70000, 70000, 3, nullptr); // byte count beyond int: described only

    Frame f = grab(10);
    ASSERT_NE(f.data, nullptr);
    EXPECT_EQ(f.width * 100 + f.height * 10 + f.bpp, 4 * 100 + 2 * 10 + 2);
    EXPECT_EQ(std::memcmp(f.data, data, sizeof data), 0);
    f = grab(10);
    ASSERT_NE(f.data, nullptr);
    EXPECT_EQ(f.bytes(), 16u * 12 * 3);
    EXPECT_EQ(f.number(), 0u); // pattern frames queued without data carry number 0
    f = grab(10);
    EXPECT_NE(f.data, nullptr);
    EXPECT_EQ(f.width, 70000);
    EXPECT_EQ(f.height, 70000);
    EXPECT_EQ(f.bpp, 3);
    EXPECT_EQ(grab(10).data, nullptr);

    ASSERT_EQ(set_camera_mode(1, 0), 0);
    torvanesim_queue_frame(8, 8, 1, nullptr);
    EXPECT_NE(grab(10).data, nullptr);
    EXPECT_EQ(torvanesim_frames_delivered(), 4u);
}

TEST_F(Sdk, StarvedCameraAnswersNullWithinFiftyMilliseconds)
{
    torvanesim_set_frame_rate(0);
    torvanesim_queue_frame(8, 8, 1, nullptr);
    torvanesim_starve_frames(1);
    const Clock::time_point t = Clock::now();
    EXPECT_EQ(grab(5000).data, nullptr);
    EXPECT_GE(msSince(t), 50.0);
    EXPECT_LT(msSince(t), 2000.0);
    torvanesim_starve_frames(0);
    EXPECT_EQ(grab(10).bpp, 1); // the queued frame is still there
}

TEST_F(Sdk, LogRecordsCallsAndStaysBounded)
{
    torvanesim_set_frame_rate(0);
    int value = 0;
    camera_init(0, 0);
    set_camera_exposure(20000, 0);
    get_camera_exposure(&value, 0);
    set_camera_window_size(640, 480, 0);
    grab(100);
    ASSERT_EQ(torvanesim_log_count(), 5);
    EXPECT_EQ(logEntry(0), "camera_init(0,0)");
    EXPECT_EQ(logEntry(1), "set_camera_exposure(20000,0)");
    EXPECT_EQ(logEntry(2), "get_camera_exposure(0)");
    EXPECT_EQ(logEntry(3), "set_camera_window_size(640,480,0)");
    EXPECT_EQ(logEntry(4), "get_frame_timeout(0,100)");
    EXPECT_EQ(logEntry(5), "<none>");
    char cut[5];
    EXPECT_EQ(torvanesim_log_entry(0, cut, sizeof cut), 16);
    EXPECT_STREQ(cut, "came");

    torvanesim_log_frames(0);
    grab(100);
    EXPECT_EQ(torvanesim_log_count(), 5);

    torvanesim_log_clear();
    for (int i = 0; i < 10005; ++i)
        set_camera_gain(i, 0);
    EXPECT_EQ(torvanesim_log_count(), 10000);
    EXPECT_EQ(logEntry(0), "set_camera_gain(5,0)");
    EXPECT_EQ(logEntry(9999), "set_camera_gain(10004,0)");
}

TEST_F(Sdk, EnvironmentSetsSensorDepthAndRate)
{
    setenv("TORVANE_SIM_SENSOR", "640x480", 1);
    setenv("TORVANE_SIM_BPP", "1", 1);
    setenv("TORVANE_SIM_FPS", "0", 1);
    torvanesim_reset();
    const Frame f = grab(0); // rate 0: no waiting at all
    EXPECT_EQ(f.width * 10000 + f.height * 10 + f.bpp, 640 * 10000 + 480 * 10 + 1);

    setenv("TORVANE_SIM_SENSOR", "640", 1); // malformed values fall back to the defaults
    setenv("TORVANE_SIM_BPP", "2", 1);
    torvanesim_reset();
    int w = 0, h = 0;
    ASSERT_EQ(get_camera_max_window_size(&w, &h, 0), 0);
    EXPECT_EQ(w, 1280);
    EXPECT_EQ(h, 960);
    EXPECT_EQ(grab(0).bpp, 3);
}

TEST_F(Sdk, TwoUsersAtOnceKeepTheirOwnFrames)
{
    ASSERT_EQ(set_camera_window_size(160, 120, 0), 0);
    torvanesim_set_frame_rate(0); // every call a new frame, so the two users' frames differ
    std::atomic<int> ready{0};
    int bad[2] = {0, 0};
    auto user = [&ready](int *badFrames) {
        std::vector<unsigned char> want(160 * 120 * 3);
        ++ready;
        while (ready < 2) {
        }
        for (int i = 0; i < 100; ++i) {
            const Frame f = grab(2000);
            if (!f.data || f.bytes() != want.size()) {
                ++*badFrames;
                continue;
            }
            // Reading takes a while; the other user's frames must not land here meanwhile.
            const unsigned int number = f.number();
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            torvanesim_render_frame(number, 160, 120, 3, want.data());
            *badFrames += std::memcmp(f.data, want.data(), want.size()) != 0;
        }
    };
    std::thread a(user, &bad[0]), b(user, &bad[1]);
    a.join();
    b.join();
    EXPECT_EQ(bad[0], 0);
    EXPECT_EQ(bad[1], 0);
    EXPECT_EQ(torvanesim_frames_delivered(), 200u);
}

} // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
