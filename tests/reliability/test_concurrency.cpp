// SPDX-License-Identifier: LGPL-2.1-or-later
// Host threads requesting, releasing, triggering and reconfiguring both
// cameras at full speed over the one simulated camera.
//
// Every frame carries the simulated camera's frame counter, so each image can
// be checked against the frame it claims to be (one image, one frame: nothing
// torn) and against the frames made before its request began (nothing stale).
// The strict runs hand every frame out in one buffer that the next SDK call
// spoils, the lifetime the SDK documents. KAVREL_SOAK_SECONDS sets how long
// the runs last (default 3 seconds).

#include <QByteArray>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <future>
#include <set>
#include <thread>

#include "apifixture.h"

namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point runEnd()
{
    bool ok = false;
    const double seconds = qgetenv("KAVREL_SOAK_SECONDS").toDouble(&ok);
    return Clock::now() + std::chrono::milliseconds(ok && seconds > 0 ? int(seconds * 1000) : 3000);
}

// Runs every body on its own thread; a hang fails the run instead of stalling the suite.
void runThreads(const std::vector<std::function<void()>>& bodies, Clock::time_point end)
{
    std::vector<std::future<void>> runs;
    for (const auto& body : bodies)
        runs.push_back(std::async(std::launch::async, body));
    for (auto& run : runs)
        within(run, end + std::chrono::seconds(60));
}

class Concurrency : public ApiFixture, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        ApiFixture::SetUp();
        torvanesim_strict_frames(GetParam());
    }
    // Records a failure from any thread (gtest takes them) and stops the run.
    void fail(const std::string& why)
    {
        ADD_FAILURE() << why;
        ++failures;
    }
    std::atomic<long long> failures{0};
};

// Four hosts take turns on Main (BGR: the frame as the SDK made it) and Slaver
// (grey: converted from it) while a fifth thread reads the status queries.
// Frames are numbered as they are made; a request may get the frame that was
// being fetched when it began (Main and Slaver share one fetch), never an
// older one, and each camera's images carry ever newer frames.
TEST_P(Concurrency, FourHostsTwoCamerasAndAStatusReader)
{
    ASSERT_TRUE(startBoth());
    const Clock::time_point end = runEnd();
    std::atomic<long long> images{0};
    std::atomic<unsigned int> last[2] = {{0}, {0}};
    auto host = [&](int id) {
        for (int turn = id; Clock::now() < end && failures == 0; ++turn) {
            const bool grey = turn % 2;
            const unsigned int before = torvanesim_frames_delivered();
            int w = 0, b = 0, h = 0;
            unsigned int n = 0;
            unsigned char* img = request(grey, &w, &b, &h, 5000);
            const std::string who = std::string(grey ? "Slaver" : "Main") + " on host " + std::to_string(id) + ": ";
            if (!img || w != 64 || h != 48 || b != (grey ? 64 : 192))
                fail(who + (img ? "geometry " : "no image ") + std::to_string(w) + "," + std::to_string(b) + "," + std::to_string(h));
            else if (!wholeFrame(img, 64, 48, grey, &n))
                fail(who + "image is not all of frame " + std::to_string(n));
            else if (n < before)
                fail(who + "stale frame " + std::to_string(n) + ", request began at " + std::to_string(before));
            else if (n <= last[grey])
                fail(who + "frame " + std::to_string(n) + " after frame " + std::to_string(last[grey].load()));
            last[grey] = n; // under the hand-over: this camera's images come one at a time
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
    runThreads({[&] { host(1); }, [&] { host(2); }, [&] { host(3); }, [&] { host(4); }, reader}, end);
    EXPECT_GT(images.load(), 0);
    EXPECT_TRUE(peer.nothingLent());
    std::printf("concurrency (%s frames): %lld images checked, %u frames made, %lld failures\n",
                GetParam() ? "strict" : "per-thread", images.load(), torvanesim_frames_delivered() - firstFrame,
                failures.load());
}

// Software trigger with two hosts on one camera, each triggering before its
// request: one trigger, one frame, to one caller; none lost, none twice.
TEST_P(Concurrency, TwoHostsTriggeringOneCamera)
{
    setMain(configFor(1, 64, 48, "<TriggerType>soft</TriggerType>"));
    ASSERT_TRUE(api->connectMain() && api->startMain());
    torvanesim_log_frames(0);
    const int perHost = 300;
    std::mutex seenMutex;
    std::set<unsigned int> seen;
    auto host = [&] {
        for (int i = 0; i < perHost && failures == 0; ++i) {
            unsigned int n = 0;
            if (!api->clickMain())
                fail("trigger refused: " + text(api->getLastError()));
            unsigned char* img = request(false, nullptr, nullptr, nullptr, 5000);
            if (!img || !wholeFrame(img, 64, 48, false, &n))
                fail(img ? "image is not all of frame " + std::to_string(n) : std::string("no image for a trigger"));
            release(false, img);
            std::lock_guard<std::mutex> lock(seenMutex);
            if (img && !seen.insert(n).second)
                fail("frame " + std::to_string(n) + " handed out twice");
        }
    };
    runThreads({host, host}, Clock::now() + std::chrono::seconds(30));
    EXPECT_EQ(seen.size(), 2u * perHost);
    EXPECT_EQ(torvanesim_trigger_calls(), 2 * perHost);
}

// Main and Slaver wait on the one SDK camera at once, in software trigger
// mode: each trigger makes one frame for one of them, never one for both, even
// a frame that takes the SDK a while to make.
TEST_P(Concurrency, TriggeredMainAndSlaverNeverShareAFrame)
{
    torvanesim_set_sensor(1280, 960, 3);
    const std::string config = configFor(1, 1280, 960, "<TriggerType>soft</TriggerType>");
    setMain(config);
    std::string slaver = config; // setConfigString takes a char*
    api->setConfigStringSlaver(&slaver[0]);
    ASSERT_TRUE(api->connectMain() && api->connectSlaver() && api->startMain() && api->startSlaver());
    torvanesim_log_frames(0);
    for (int round = 0; round < 20 && failures == 0; ++round) {
        unsigned int numbers[2] = {};
        auto host = [&](bool slaver) {
            unsigned char* img = request(slaver, nullptr, nullptr, nullptr, 5000);
            if (!img)
                return fail("no image for a trigger");
            numbers[slaver] = torvanesim_frame_number(img, 3);
            release(slaver, img);
        };
        ASSERT_TRUE(api->clickMain() && api->clickSlaver());
        runThreads({[&] { host(false); }, [&] { host(true); }}, Clock::now() + std::chrono::seconds(10));
        EXPECT_NE(numbers[0], numbers[1]) << "round " << round;
    }
}

// Requests keep running while another thread stops, starts and reconfigures
// the camera (gamma and trigger type change under them). Requests in the gaps
// answer null; every image that comes is whole. ThreadSanitizer watches the
// flags and settings both threads touch.
TEST_P(Concurrency, RequestsWhileTheCameraIsReconfigured)
{
    ASSERT_TRUE(startMain(configFor(1, 64, 48)));
    torvanesim_log_frames(0);
    const Clock::time_point end = Clock::now() + std::chrono::seconds(1);
    std::atomic<long long> images{0};
    auto requester = [&] {
        while (Clock::now() < end && failures == 0) {
            unsigned char* img = request(false, nullptr, nullptr, nullptr, 100);
            if (img && !wholeFrame(img, 64, 48, false))
                fail("torn image while reconfiguring");
            images += img != nullptr;
            release(false, img);
        }
    };
    auto reconfigurer = [&] {
        for (int i = 0; Clock::now() < end && failures == 0; ++i) {
            // Both gammas leave the pixels as they are; in Hard mode no frame comes.
            setMain(configFor(1, 64, 48, std::string("<Gamma>") + (i % 2 ? "1.005" : "1.00") + "</Gamma><TriggerType>" +
                                             (i % 3 ? "Video" : "Hard") + "</TriggerType>"));
            api->applyNewConfigMain();
            api->stopMain();
            api->startMain();
        }
    };
    runThreads({requester, reconfigurer}, end);
    EXPECT_GT(images.load(), 0);
}

INSTANTIATE_TEST_SUITE_P(Frames, Concurrency, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "Strict" : "PerThread"; });

} // namespace
