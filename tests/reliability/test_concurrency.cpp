// Two host threads request and release Main and Slaver images at full speed
// from the one simulated camera while a third reads the status queries.
//
// Every frame carries the simulated camera's frame counter, so each image can
// be checked against the frame it claims to be (one image, one frame: nothing
// torn) and against the frames delivered before its request began (nothing
// stale). The run lasts KAVREL_SOAK_SECONDS seconds (default 3).

#include <QByteArray>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "apifixture.h"

namespace {

using Clock = std::chrono::steady_clock;

double soakSeconds()
{
    const QByteArray value = qgetenv("KAVREL_SOAK_SECONDS");
    bool ok = false;
    const double seconds = value.toDouble(&ok);
    return ok && seconds > 0 ? seconds : 3.0;
}

struct Tally {
    std::atomic<long long> images{0};
    std::atomic<long long> queries{0};
    std::atomic<long long> failures{0};
    std::mutex firstMutex;
    std::string first; // the first failure, for the report

    void fail(const std::string& why)
    {
        if (failures++ == 0) {
            std::lock_guard<std::mutex> lock(firstMutex);
            first = why;
        }
    }
};

using Concurrency = ApiFixture;

TEST_F(Concurrency, TwoHostsAndAStatusReaderOverOneCamera)
{
    constexpr int kWidth = 64, kHeight = 48;
    torvanesim_log_frames(0);
    setMain(configFor(1, kWidth, kHeight));   // BGR: the frame as the SDK made it
    setSlaver(configFor(0, kWidth, kHeight)); // grey: converted from it
    ASSERT_TRUE(api->connectMain());
    ASSERT_TRUE(api->connectSlaver());
    ASSERT_TRUE(api->startMain());
    ASSERT_TRUE(api->startSlaver());

    const double seconds = soakSeconds();
    const Clock::time_point started = Clock::now();
    const Clock::time_point end = started + std::chrono::duration_cast<Clock::duration>(
                                                std::chrono::duration<double>(seconds));
    Tally tally;
    std::atomic<int> finished{0};

    auto host = [&](int id) {
        std::vector<unsigned char> expected;
        std::vector<unsigned char> bgr(kWidth * kHeight * 3);
        while (Clock::now() < end && tally.failures == 0) {
            for (int cam = 0; cam < 2; ++cam) {
                const bool grey = cam == 1;
                // Frames are numbered by delivery: all that were made before
                // this request began are numbered up to `before`.
                const unsigned int before = torvanesim_frames_delivered();
                int w = 0, b = 0, h = 0;
                unsigned char* img = grey ? api->requestImageSlaver(&w, &b, &h, 5000)
                                          : api->requestImageMain(&w, &b, &h, 5000);
                const std::string who = std::string(grey ? "Slaver" : "Main") + " on host " + std::to_string(id);
                if (!img) {
                    tally.fail(who + ": no image");
                    continue;
                }
                if (w != kWidth || h != kHeight || b != (grey ? kWidth : 3 * kWidth)) {
                    tally.fail(who + ": geometry " + std::to_string(w) + "," + std::to_string(b) + "," +
                               std::to_string(h));
                } else {
                    const unsigned int n = torvanesim_frame_number(img, grey ? 1 : 3);
                    if (n <= before)
                        tally.fail(who + ": stale frame " + std::to_string(n) + ", request began after " +
                                   std::to_string(before));
                    torvanesim_render_frame(n, kWidth, kHeight, 3, bgr.data());
                    expected = grey ? greyOf(bgr) : bgr;
                    if (std::memcmp(img, expected.data(), expected.size()) != 0)
                        tally.fail(who + ": image is not all of frame " + std::to_string(n));
                }
                ++tally.images;
                grey ? api->releaseImageSlaver(img) : api->releaseImageMain(img);
            }
        }
        ++finished;
    };
    auto reader = [&] {
        while (Clock::now() < end && tally.failures == 0) {
            const bool ok = api->IsConnectedMain() && api->IsConnectedSlaver() && api->IsStartedMain() &&
                            api->IsStartedSlaver() && api->getCCDFPSMain() == 0 && api->getCCDFPSSlaver() == 0;
            if (!ok)
                tally.fail("status queries changed during the run");
            tally.queries += 6;
        }
        ++finished;
    };

    const unsigned int firstFrame = torvanesim_frames_delivered();
    std::thread t1(host, 1), t2(host, 2), t3(reader);
    // A hang must fail the test, not stall the suite: wait with a bound.
    const Clock::time_point giveUp = end + std::chrono::seconds(60);
    while (finished < 3 && Clock::now() < giveUp)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (finished < 3) {
        ADD_FAILURE() << "threads did not finish within 60 s of the end of the run: a hang";
        std::fflush(nullptr);
        std::_Exit(1);
    }
    t1.join();
    t2.join();
    t3.join();
    const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
    const unsigned int frames = torvanesim_frames_delivered() - firstFrame;

    EXPECT_EQ(tally.failures.load(), 0) << tally.first;
    EXPECT_GT(tally.images.load(), 0);
    EXPECT_TRUE(KavrelInterfaceTestPeer(*api).mainFree());
    EXPECT_TRUE(KavrelInterfaceTestPeer(*api).slaverFree());
    RecordProperty("images", std::to_string(tally.images.load()));
    RecordProperty("frames", std::to_string(frames));
    RecordProperty("status_queries", std::to_string(tally.queries.load()));
    std::printf("concurrency: %.1f s, %lld images checked, %u frames made, %lld status queries, %lld failures\n",
                elapsed, tally.images.load(), frames, tally.queries.load(), tally.failures.load());
}

} // namespace
