// Two host threads request and release Main and Slaver images at full speed
// from the one simulated camera while a third reads the status queries.
//
// Every frame carries the simulated camera's frame counter, so each image can
// be checked against the frame it claims to be (one image, one frame: nothing
// torn) and against the frames delivered before its request began (nothing
// stale). The run lasts KAVREL_SOAK_SECONDS seconds (default 3).

#include <QByteArray>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>

#include "apifixture.h"

namespace {

using Clock = std::chrono::steady_clock;
using Concurrency = ApiFixture;

TEST_F(Concurrency, TwoHostsAndAStatusReaderOverOneCamera)
{
    ASSERT_TRUE(startBoth()); // Main BGR: the frame as the SDK made it; Slaver grey: converted from it
    bool ok = false;
    const double seconds = qgetenv("KAVREL_SOAK_SECONDS").toDouble(&ok);
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(ok && seconds > 0 ? int(seconds * 1000) : 3000);
    std::atomic<long long> images{0}, failures{0};
    auto fail = [&](const std::string& why) {
        ADD_FAILURE() << why; // gtest takes failures from any thread
        ++failures;
    };
    auto host = [&](int id) {
        while (Clock::now() < end && failures == 0)
            for (const bool grey : {false, true}) {
                // Frames are numbered by delivery: all made before this request began are numbered up to `before`.
                const unsigned int before = torvanesim_frames_delivered();
                int w = 0, b = 0, h = 0;
                unsigned int n = 0;
                unsigned char* img = request(grey, &w, &b, &h, 5000);
                const std::string who = std::string(grey ? "Slaver" : "Main") + " on host " + std::to_string(id) + ": ";
                if (!img || w != 64 || h != 48 || b != (grey ? 64 : 192))
                    fail(who + (img ? "geometry " : "no image ") + std::to_string(w) + "," + std::to_string(b) + "," + std::to_string(h));
                else if (!wholeFrame(img, 64, 48, grey, &n))
                    fail(who + "image is not all of frame " + std::to_string(n));
                else if (n <= before)
                    fail(who + "stale frame " + std::to_string(n) + ", request began after " + std::to_string(before));
                ++images;
                release(grey, img);
            }
    };
    auto reader = [&] {
        while (Clock::now() < end && failures == 0)
            if (!(api->IsConnectedMain() && api->IsConnectedSlaver() && api->IsStartedMain() && api->IsStartedSlaver() &&
                  api->getCCDFPSMain() == 0 && api->getCCDFPSSlaver() == 0))
                fail("status queries changed during the run");
    };

    const unsigned int firstFrame = torvanesim_frames_delivered();
    std::future<void> runs[] = {std::async(std::launch::async, host, 1), std::async(std::launch::async, host, 2),
                                std::async(std::launch::async, reader)};
    // A hang must fail the test, not stall the suite: wait with a bound.
    for (auto& run : runs)
        if (run.wait_until(end + std::chrono::seconds(60)) != std::future_status::ready) {
            ADD_FAILURE() << "threads did not finish within 60 s of the end of the run: a hang";
            std::fflush(nullptr);
            std::_Exit(1);
        }
    EXPECT_GT(images.load(), 0);
    EXPECT_TRUE(peer.nothingLent());
    std::printf("concurrency: %lld images checked, %u frames made, %lld failures\n", images.load(),
                torvanesim_frames_delivered() - firstFrame, failures.load());
}

} // namespace
