// SPDX-License-Identifier: LGPL-2.1-or-later
// The simulated camera is what every other test stands on: only the behaviour
// those tests rely on is checked here.

#include "sdk/torvane.h"
#include "sdk/torvanesim.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int w, h, bpp; // of the last frame grabbed

unsigned char* grab(int timeoutMs)
{
    return get_frame_timeout(&w, &h, &bpp, 0, timeoutMs);
}

class Sdk : public ::testing::Test {
protected:
    void SetUp() override { torvanesim_reset(); }
};

TEST_F(Sdk, ContinuousModeIsPacedWithoutBacklog)
{
    // Frame k is due k * 20 ms after the rate is set; a caller gets the next one due.
    auto msSince = [](Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); };
    const Clock::time_point before = Clock::now();
    torvanesim_set_frame_rate(50);
    const Clock::time_point after = Clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const double callAfterAfter = msSince(after);
    const unsigned int n = torvanesim_frame_number(grab(2000), 3);
    EXPECT_GE(n * 20.0, callAfterAfter); // no old frame kept back
    EXPECT_LE(n * 20.0, msSince(before) + 20.0); // none skipped
    const unsigned int next = torvanesim_frame_number(grab(2000), 3);
    EXPECT_GE(msSince(before), next * 20.0) << "frame " << next << " after " << n << " came early";
}

// The request benchmark reuses frames: only the number may change, and a
// queued frame or another exposure must bring a freshly drawn one.
TEST_F(Sdk, ReusedFramesOnlyChangeTheirNumber)
{
    torvanesim_set_frame_rate(0);
    ASSERT_EQ(set_camera_window_size(160, 120, 0), 0);
    torvanesim_reuse_frames(1);
    const size_t nBytes = 160 * 120 * 3, nCode = 8 * 3;
    const unsigned char* p = grab(100);
    const std::vector<unsigned char> first(p, p + nBytes);
    p = grab(100);
    EXPECT_EQ(torvanesim_frame_number(p, 3), torvanesim_frame_number(first.data(), 3) + 1);
    EXPECT_EQ(std::memcmp(p + nCode, first.data() + nCode, nBytes - nCode), 0);

    const std::vector<unsigned char> queued(nBytes, 7);
    torvanesim_queue_frame(160, 120, 3, queued.data());
    EXPECT_EQ(std::memcmp(grab(100), queued.data(), nBytes), 0);
    std::vector<unsigned char> want(nBytes);
    for (int i = 0; i < 2; ++i) { // after the queued frame, then after a new exposure
        p = grab(100);
        torvanesim_render_frame(torvanesim_frame_number(p, 3), 160, 120, 3, want.data());
        EXPECT_EQ(std::memcmp(p, want.data(), nBytes), 0) << i;
        ASSERT_EQ(set_camera_exposure(10000, 0), 0);
    }
}

// The strict mode keeps a frame exactly as long as the SDK promises: one
// buffer for all, spoiled by the next SDK call from any thread.
TEST_F(Sdk, StrictFramesLastUntilTheNextCallFromAnyThread)
{
    torvanesim_set_frame_rate(0);
    torvanesim_strict_frames(1);
    const unsigned char* first = grab(100);
    const unsigned int n = torvanesim_frame_number(first, 3);
    EXPECT_EQ(grab(100), first) << "one buffer for all frames";
    EXPECT_EQ(torvanesim_frame_number(first, 3), n + 1);
    std::thread([] { int gain = 0; get_camera_gain(&gain, 0); }).join();
    EXPECT_EQ(torvanesim_frame_number(first, 3), 0xAAAAAAAAu) << "spoiled by another thread's call";

    torvanesim_strict_frames(0);
    const unsigned char* own = grab(100);
    const unsigned int m = torvanesim_frame_number(own, 3);
    std::thread([] { grab(100); }).join();
    EXPECT_EQ(torvanesim_frame_number(own, 3), m) << "per-thread frames outlive other threads' calls";
}

// A host may return from main while its threads are still fetching frames:
// the simulated camera's state and picture cache outlive them
// (AddressSanitizer reports any read of freed memory in the child).
TEST(SdkExit, ReturningFromMainWhileThreadsFetchFrames)
{
    const std::string command = std::string(KAVREL_EXIT_RACE_PROGRAM) + " >/dev/null 2>&1";
    for (int run = 0; run < 20; ++run)
        ASSERT_EQ(std::system(command.c_str()), 0) << "run " << run;
}

} // namespace
