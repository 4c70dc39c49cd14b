// SPDX-License-Identifier: LGPL-2.1-or-later
#include "camera/sdkgate.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "torvane.h"

namespace kavrel {

namespace {

using Clock = std::chrono::steady_clock;

// The driver always talks to SDK camera 0.
const int kCamera = 0;
const int kModeContinuous = 0;
const int kModeTriggered = 1;

} // namespace

struct SdkGate::State {
    std::mutex m;
    std::condition_variable cv;

    // A fetch runs from its leader's decision to fetch until it publishes what
    // get_frame_timeout gave; its frame is read until nReaders drops to 0.
    bool bFetching = false;
    bool bShareable = false;
    // Set the moment get_frame_timeout returns, without the lock: a request
    // arriving after that must not take this frame, which may be older than it.
    std::atomic<bool> bReturned{false};
    unsigned long long nFetchId = 0;
    unsigned long long nPublishedId = 0;
    SdkFrame cResult;
    int nFollowers = 0;
    int nReaders = 0;

    bool bCalling = false;
    int nWaitingCalls = 0;

    // What the SDK was last told: its mode and the software triggers not yet
    // answered with a frame.
    int nMode = kModeContinuous;
    int nPendingTriggers = 0;

    bool idle() const { return !bFetching && nReaders == 0 && !bCalling; }
};

SdkGate::SdkGate()
    : m_pState(new State())
{
}

SdkGate& SdkGate::instance()
{
    // Never destroyed: cameras may be torn down after the library's statics.
    static SdkGate* s_pGate = new SdkGate();
    return *s_pGate;
}

SdkGate::Call::Call(SdkGate& cGate)
    : m_cGate(cGate)
{
    State& s = *m_cGate.m_pState;
    std::unique_lock<std::mutex> lock(s.m);
    ++s.nWaitingCalls;
    s.cv.wait(lock, [&] { return s.idle(); });
    --s.nWaitingCalls;
    s.bCalling = true;
}

SdkGate::Call::~Call()
{
    State& s = *m_cGate.m_pState;
    std::lock_guard<std::mutex> lock(s.m);
    s.bCalling = false;
    s.cv.notify_all();
}

int SdkGate::setMode(int nMode)
{
    Call cCall(*this);
    const int nResult = set_camera_mode(nMode, kCamera);
    State& s = *m_pState;
    std::lock_guard<std::mutex> lock(s.m);
    if (nResult == 0 && (nMode == kModeContinuous || nMode == kModeTriggered) && nMode != s.nMode) {
        s.nMode = nMode;
        s.nPendingTriggers = 0; // the SDK drops triggers when its mode changes
    }
    return nResult;
}

int SdkGate::trigger()
{
    Call cCall(*this);
    const int nResult = set_camera_trigger(kCamera);
    State& s = *m_pState;
    std::lock_guard<std::mutex> lock(s.m);
    if (nResult == 0 && s.nMode == kModeTriggered)
        ++s.nPendingTriggers;
    return nResult;
}

bool SdkGate::fetch(int nTimeoutMs, bool bSoftTrigger, const bool* pbStarted, SdkFrame& cFrame)
{
    State& s = *m_pState;
    const Clock::time_point tDeadline = Clock::now() + std::chrono::milliseconds(std::max(1, nTimeoutMs));
    const auto started = [&] { return !pbStarted || __atomic_load_n(pbStarted, __ATOMIC_SEQ_CST); };

    std::unique_lock<std::mutex> lock(s.m);
    for (;;) {
        if (!started())
            return false;
        if (s.bFetching && s.bShareable && !s.bReturned.load(std::memory_order_acquire)) {
            const unsigned long long nId = s.nFetchId;
            ++s.nFollowers;
            if (!s.cv.wait_until(lock, tDeadline, [&] { return s.nPublishedId >= nId; })) {
                --s.nFollowers;
                return false;
            }
            // A published frame counts us among its readers, which keeps the
            // gate shut, so the result cannot have been replaced meanwhile.
            if (s.nPublishedId == nId && s.cResult.pData) {
                cFrame = s.cResult;
                return true;
            }
            continue; // that fetch came back empty: try again on our own
        }
        const bool bNeedTrigger = bSoftTrigger && s.nMode == kModeTriggered;
        if (s.idle() && s.nWaitingCalls == 0 && (!bNeedTrigger || s.nPendingTriggers > 0))
            break;
        if (s.cv.wait_until(lock, tDeadline) == std::cv_status::timeout)
            return false;
    }

    // This request fetches: for itself and, in continuous mode, for every
    // request that joins before the SDK answers.
    s.bFetching = true;
    s.bShareable = s.nMode == kModeContinuous;
    s.bReturned.store(false, std::memory_order_relaxed);
    const unsigned long long nId = ++s.nFetchId;
    s.nFollowers = 0;
    const auto tLeft = std::chrono::ceil<std::chrono::milliseconds>(tDeadline - Clock::now()).count();
    const int nWait = static_cast<int>(std::max<long long>(1, tLeft));
    lock.unlock();

    SdkFrame cGot;
    cGot.pData = get_frame_timeout(&cGot.nWidth, &cGot.nHeight, &cGot.nBytesPerPixel, kCamera, nWait);
    s.bReturned.store(true, std::memory_order_release);

    lock.lock();
    if (!cGot.pData)
        cGot = SdkFrame();
    s.bFetching = false;
    s.cResult = cGot;
    s.nPublishedId = nId;
    if (cGot.pData) {
        s.nReaders = 1 + s.nFollowers;
        if (!s.bShareable && s.nPendingTriggers > 0)
            --s.nPendingTriggers;
    }
    s.nFollowers = 0;
    s.cv.notify_all();
    cFrame = cGot;
    return cGot.pData != nullptr;
}

void SdkGate::endRead()
{
    State& s = *m_pState;
    std::lock_guard<std::mutex> lock(s.m);
    if (s.nReaders > 0 && --s.nReaders == 0)
        s.cv.notify_all();
}

void SdkGate::wake()
{
    State& s = *m_pState;
    std::lock_guard<std::mutex> lock(s.m);
    s.cv.notify_all();
}

} // namespace kavrel
