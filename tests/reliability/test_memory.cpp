// SPDX-License-Identifier: LGPL-2.1-or-later
// Memory: handing images over allocates nothing once the buffers have their
// size, and whole connect/start/stop/disconnect cycles of Main and Slaver, who
// share one SDK camera, give back all they take.

#include "apifixture.h"

namespace {

using Memory = ApiFixture;

TEST_F(Memory, SteadyRequestAndReleaseAllocateNothing)
{
    ASSERT_TRUE(startBoth());
    ASSERT_TRUE(takesWhole(false, false) && takesWhole(true, true)); // buffers take their size here
    int failures = 0;
    const HeapCount before = heapCount();
    for (int i = 0; i < 4000; ++i) { // checking the pixels would allocate
        unsigned char* img = request(i % 2);
        failures += img == nullptr;
        release(i % 2, img);
    }
    const HeapCount after = heapCount();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(after.allocations - before.allocations, 0) << "allocations in 4000 hand-overs";
    EXPECT_EQ(after.liveBytes, before.liveBytes);
}

TEST_F(Memory, ThousandsOfLifecyclesLeaveTheHeapWhereItStarted)
{
    auto cycle = [&](int n) {
        int failures = 0;
        for (int i = 0; i < n; ++i) {
            failures += !startBoth() + (torvanesim_open_count() != 2) + !api->clickMain();
            failures += !takesWhole(false, false) + !takesWhole(true, true);
            // One camera's disconnect leaves the other delivering.
            api->stopMain();
            api->disconnectMain();
            failures += (torvanesim_open_count() != 1) + !takesWhole(true, true);
            api->stopSlaver();
            failures += api->clickSlaver(); // stopped: refused with a message
            api->disconnectSlaver();
        }
        return failures;
    };
    ASSERT_EQ(cycle(20), 0);
    const HeapCount before = heapCount();
    EXPECT_EQ(cycle(3000), 0);
    const HeapCount after = heapCount();
    EXPECT_EQ(after.liveBlocks, before.liveBlocks);
    EXPECT_EQ(after.liveBytes, before.liveBytes);
}

} // namespace
