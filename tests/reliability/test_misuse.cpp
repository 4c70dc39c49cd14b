// SPDX-License-Identifier: LGPL-2.1-or-later
// Mistakes real hosts make: releasing twice or from the wrong thread,
// requesting again before releasing, destroying the registry under a waiting
// request, asking for texts on two threads at once. Each is harmless or
// refused; none hangs, tears an image or touches freed memory.

#include <QCoreApplication>
#include <QEvent>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "apifixture.h"

namespace {

using Misuse = ApiFixture;
using namespace std::chrono_literals;

// Thread B waits for Main while this thread holds it; this thread releases
// (B gets its image), then releases again and releases B's pointer: neither
// touches B's hold. A third thread's request waits until B releases, so B's
// image never changes under it.
TEST_F(Misuse, SecondAndForeignReleasesLeaveAnotherThreadsImageAlone)
{
    ASSERT_TRUE(startMain(configFor(1, 64, 48)));
    unsigned char* held = request();
    ASSERT_NE(held, nullptr);
    std::promise<unsigned char*> bGot;
    std::promise<void> bMayRelease;
    std::atomic<bool> bImageKept{false};
    auto b = std::async(std::launch::async, [&] {
        unsigned char* img = request();
        const std::vector<unsigned char> copy(img, img + 64 * 48 * 3);
        bGot.set_value(img);
        bMayRelease.get_future().wait();
        bImageKept = std::equal(copy.begin(), copy.end(), img) && wholeFrame(img, 64, 48, false);
        api->releaseImageMain(img);
    });
    std::this_thread::sleep_for(50ms);
    api->releaseImageMain(held);
    auto bGotFuture = bGot.get_future();
    unsigned char* bImage = within(bGotFuture);
    ASSERT_NE(bImage, nullptr);
    api->releaseImageMain(held);   // a second release
    api->releaseImageMain(bImage); // not this thread's image
    auto c = std::async(std::launch::async, [&] {
        unsigned char* img = request();
        const bool whole = img && wholeFrame(img, 64, 48, false);
        api->releaseImageMain(img);
        return whole;
    });
    EXPECT_EQ(c.wait_for(200ms), std::future_status::timeout) << "a third request got in while B held its image";
    bMayRelease.set_value();
    within(b);
    EXPECT_TRUE(bImageKept);
    EXPECT_TRUE(within(c));
    EXPECT_TRUE(peer.nothingLent());
}

// A second request of the same camera from the thread that holds its image
// answers null at once, whatever its time-out; the held image stays lent and
// valid, and the other camera is not affected.
TEST_F(Misuse, RequestWhileHoldingAnswersNullAtOnce)
{
    ASSERT_TRUE(startBoth());
    // On a thread of its own, so that a hang fails the test instead of the suite.
    auto run = std::async(std::launch::async, [&] {
        unsigned char* held = request();
        EXPECT_NE(held, nullptr);
        int w = 9;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(request(false, &w, nullptr, nullptr, 5000), nullptr);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
        EXPECT_EQ(w, 0);
        EXPECT_FALSE(peer.nothingLent());
        EXPECT_TRUE(held && wholeFrame(held, 64, 48, false));
        EXPECT_TRUE(takesWhole(true, true)); // Slaver on the same thread
        api->releaseImageMain(held);
        EXPECT_TRUE(peer.nothingLent());
        EXPECT_TRUE(takesWhole(false, false));
        return true;
    });
    within(run);
}

// destroyInstance is refused while a request is waiting for its frame, even
// when the event loop then runs; once nothing is under way it goes through.
TEST_F(Misuse, DestroyingTheRegistryUnderAWaitingRequestIsRefused)
{
    setMain(configFor(1, 64, 48, "<TriggerType>soft</TriggerType>"));
    ASSERT_TRUE(api->connectMain() && api->startMain());
    std::atomic<bool> asked{false};
    auto waiting = std::async(std::launch::async, [&] {
        asked = true;
        unsigned char* img = request(false, nullptr, nullptr, nullptr, 5000);
        const bool whole = img && wholeFrame(img, 64, 48, false);
        api->releaseImageMain(img);
        return whole;
    });
    while (!asked)
        std::this_thread::yield();
    std::this_thread::sleep_for(100ms); // into the wait for a trigger
    Kavrel* registry = Kavrel::getInstance();
    Kavrel::destroyInstance();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(Kavrel::getInstance(), registry);
    EXPECT_TRUE(api->clickMain());
    EXPECT_TRUE(within(waiting));
    Kavrel::destroyInstance();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_FALSE(api->IsConnectedMain()) << "a new registry with new cameras";
    EXPECT_EQ(torvanesim_open_count(), 0) << "the old cameras closed the SDK camera as they went";
}

// Text results asked for on two threads at once: the buffer may grow under one
// of them, but the library never writes into memory it has just freed
// (AddressSanitizer watches).
TEST_F(Misuse, TextResultsOnTwoThreadsAtOnce)
{
    std::atomic<bool> stop{false};
    auto grower = std::async(std::launch::async, [&] {
        for (int kb = 1; kb <= 4096 && !stop; kb *= 2) {
            std::string config = "<CCDType>" + std::string(kb << 10, 'g') + "</CCDType>";
            api->setConfigStringSlaver(&config[0]);
            for (int i = 0; i < 20; ++i)
                api->getConfigStringSlaver();
        }
    });
    while (grower.wait_for(0ms) != std::future_status::ready)
        api->getLastError();
    stop = true;
    grower.get();
    const std::string back = text(api->getConfigStringSlaver());
    EXPECT_EQ(back.size(), (4096u << 10) + 19);
}

} // namespace
