// Memory: handing images over allocates nothing once the buffers have their
// size, and whole connect/start/stop/disconnect cycles of Main and Slaver, who
// share one SDK camera, give back all they take.

#include "apifixture.h"

namespace {

class Memory : public ApiFixture {
protected:
    void SetUp() override
    {
        ApiFixture::SetUp();
        torvanesim_log_frames(0);
        setMain(configFor(1, 64, 48));
        setSlaver(configFor(0, 64, 48)); // one SDK window for both
    }
    // Hands one image of each camera over and back; returns the failures.
    // Checking the pixels allocates, so the steady state test leaves it out.
    int handOver(bool check = true)
    {
        unsigned char* img = requestMain();
        int failures = img == nullptr || (check && !wholeFrame(img, 64, 48, false));
        api->releaseImageMain(img);
        img = api->requestImageSlaver(nullptr, nullptr, nullptr, 1000);
        failures += img == nullptr || (check && !wholeFrame(img, 64, 48, true));
        api->releaseImageSlaver(img);
        return failures;
    }
};

TEST_F(Memory, SteadyRequestAndReleaseAllocateNothing)
{
    ASSERT_TRUE(api->connectMain() && api->connectSlaver() && api->startMain() && api->startSlaver());
    ASSERT_EQ(handOver() + handOver(), 0); // buffers take their size here
    int failures = 0;
    const HeapCount before = heapCount();
    for (int i = 0; i < 2000; ++i)
        failures += handOver(false);
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
            failures += !api->connectMain() + !api->connectSlaver() + !api->startMain() + !api->startSlaver();
            failures += (torvanesim_open_count() != 2) + !api->clickMain() + handOver();
            // One camera's disconnect leaves the other delivering.
            api->stopMain();
            api->disconnectMain();
            unsigned char* img = api->requestImageSlaver(nullptr, nullptr, nullptr, 1000);
            failures += img == nullptr || torvanesim_open_count() != 1;
            api->releaseImageSlaver(img);
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
