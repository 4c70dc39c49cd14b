// Memory: handing images over allocates nothing once the buffers have their
// size, and whole connect/start/stop/disconnect cycles give back all they take.

#include "apifixture.h"

namespace {

using Memory = ApiFixture;

TEST_F(Memory, SteadyRequestAndReleaseAllocateNothing)
{
    torvanesim_log_frames(0);
    setMain(configFor(1, 64, 48));
    setSlaver(configFor(0, 64, 48));
    ASSERT_TRUE(api->connectMain());
    ASSERT_TRUE(api->connectSlaver());
    ASSERT_TRUE(api->startMain());
    ASSERT_TRUE(api->startSlaver());

    auto cycle = [&](int n) {
        int failures = 0;
        for (int i = 0; i < n; ++i) {
            int w, b, h;
            unsigned char* img = api->requestImageMain(&w, &b, &h, 1000);
            failures += img == nullptr;
            api->releaseImageMain(img);
            img = api->requestImageSlaver(&w, &b, &h, 1000);
            failures += img == nullptr;
            api->releaseImageSlaver(img);
            failures += !api->IsStartedMain() + !api->IsStartedSlaver();
        }
        return failures;
    };
    ASSERT_EQ(cycle(10), 0); // buffers take their size here
    const HeapCount before = heapCount();
    const int failures = cycle(2000);
    const HeapCount after = heapCount();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(after.allocations - before.allocations, 0) << "allocations in 4000 hand-overs";
    EXPECT_EQ(after.liveBytes, before.liveBytes);
}

TEST_F(Memory, ThousandsOfLifecyclesLeaveTheHeapWhereItStarted)
{
    torvanesim_log_frames(0);
    setMain(configFor(1, 64, 48));
    setSlaver(configFor(0, 32, 16));
    auto cycle = [&](int n) {
        int failures = 0;
        for (int i = 0; i < n; ++i) {
            failures += !api->connectMain() + !api->connectSlaver();
            failures += !api->startMain() + !api->startSlaver();
            failures += !api->clickMain();
            int w, b, h;
            unsigned char* img = api->requestImageMain(&w, &b, &h, 1000);
            failures += img == nullptr;
            api->releaseImageMain(img);
            img = api->requestImageSlaver(&w, &b, &h, 1000);
            failures += img == nullptr;
            api->releaseImageSlaver(img);
            api->stopMain();
            api->stopSlaver();
            failures += api->clickSlaver(); // stopped: refused with a message
            api->disconnectMain();
            api->disconnectSlaver();
        }
        return failures;
    };
    ASSERT_EQ(cycle(20), 0);
    const HeapCount before = heapCount();
    const int failures = cycle(3000);
    const HeapCount after = heapCount();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(after.liveBlocks, before.liveBlocks);
    EXPECT_EQ(after.liveBytes, before.liveBytes);
    EXPECT_EQ(torvanesim_open_count(), 0);
}

} // namespace
