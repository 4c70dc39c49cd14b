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
#include <mutex>
#include <thread>

#include "apifixture.h"

namespace {

using Clock = std::chrono::steady_clock;
using Concurrency = ApiFixture;

TEST_F(Concurrency, TwoHostsAndAStatusReaderOverOneCamera)
{
    torvanesim_log_frames(0);
    setMain(configFor(1, 64, 48));   // BGR: the frame as the SDK made it
    setSlaver(configFor(0, 64, 48)); // grey: converted from it
    ASSERT_TRUE(api->connectMain() && api->connectSlaver() && api->startMain() && api->startSlaver());

    bool ok = false;
    const double seconds = qgetenv("KAVREL_SOAK_SECONDS").toDouble(&ok);
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(ok && seconds > 0 ? int(seconds * 1000) : 3000);
    std::atomic<long long> images{0}, failures{0};
    std::atomic<int> finished{0};
    std::mutex firstMutex;
    std::string first; // the first failure, for the report
    auto fail = [&](const std::string& why) {
        std::lock_guard<std::mutex> lock(firstMutex);
        if (failures++ == 0)
            first = why;
    };

    auto host = [&](int id) {
        while (Clock::now() < end && failures == 0) {
            for (const bool grey : {false, true}) {
                // Frames are numbered by delivery: all made before this request began are numbered up to `before`.
                const unsigned int before = torvanesim_frames_delivered();
                int w = 0, b = 0, h = 0;
                unsigned char* img = grey ? api->requestImageSlaver(&w, &b, &h, 5000) : requestMain(&w, &b, &h, 5000);
                const std::string who = std::string(grey ? "Slaver" : "Main") + " on host " + std::to_string(id);
                unsigned int n = 0;
                if (!img)
                    fail(who + ": no image");
                else if (w != 64 || h != 48 || b != (grey ? 64 : 192))
                    fail(who + ": geometry " + std::to_string(w) + "," + std::to_string(b) + "," + std::to_string(h));
                else if (!wholeFrame(img, 64, 48, grey, &n))
                    fail(who + ": image is not all of frame " + std::to_string(n));
                else if (n <= before)
                    fail(who + ": stale frame " + std::to_string(n) + ", request began after " + std::to_string(before));
                ++images;
                grey ? api->releaseImageSlaver(img) : api->releaseImageMain(img);
            }
        }
        ++finished;
    };
    auto reader = [&] {
        while (Clock::now() < end && failures == 0)
            if (!(api->IsConnectedMain() && api->IsConnectedSlaver() && api->IsStartedMain() && api->IsStartedSlaver() &&
                  api->getCCDFPSMain() == 0 && api->getCCDFPSSlaver() == 0))
                fail("status queries changed during the run");
        ++finished;
    };

    const unsigned int firstFrame = torvanesim_frames_delivered();
    std::thread t1(host, 1), t2(host, 2), t3(reader);
    // A hang must fail the test, not stall the suite: wait with a bound.
    while (finished < 3 && Clock::now() < end + std::chrono::seconds(60))
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (finished < 3) {
        ADD_FAILURE() << "threads did not finish within 60 s of the end of the run: a hang";
        std::fflush(nullptr);
        std::_Exit(1);
    }
    t1.join();
    t2.join();
    t3.join();
    EXPECT_EQ(failures.load(), 0) << first;
    EXPECT_GT(images.load(), 0);
    EXPECT_TRUE(peer.nothingLent());
    std::printf("concurrency: %lld images checked, %u frames made, %lld failures\n", images.load(),
                torvanesim_frames_delivered() - firstFrame, failures.load());
}

} // namespace
