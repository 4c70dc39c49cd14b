// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_CAMERA_SDKGATE_H
#define KAVREL_CAMERA_SDKGATE_H

#include <utility>

// The one door to the camera SDK for every camera object of the process.
//
// The SDK keeps a frame valid only until its next call, from any thread, and
// every camera object talks to SDK camera 0. So no SDK call may run while a
// frame is fetched or read, and fetches run one at a time. To keep the cameras
// from waiting a whole frame period for each other, a request that arrives
// while another camera's frame is still being fetched in continuous mode takes
// that frame too; each camera then reads it into its own image at the same
// time, and the next SDK call waits until both have.
//
// In triggered mode every frame belongs to one request, so nothing is shared.
// A request of a software-triggered camera enters the SDK only once a trigger
// is pending: a trigger fired on another thread then never waits for a fetch
// that could only end with that very trigger.
namespace kavrel {

struct SdkFrame {
    const unsigned char* pData = nullptr;
    int nWidth = 0;
    int nHeight = 0;
    int nBytesPerPixel = 0;
};

class SdkGate
{
public:
    static SdkGate& instance();

    // Runs one SDK call other than get_frame_timeout once no frame is being
    // fetched or read; calls waiting here go before new fetches.
    template <typename F>
    auto call(F&& fn) -> decltype(fn())
    {
        Call cCall(*this);
        return std::forward<F>(fn)();
    }

    // set_camera_mode and set_camera_trigger, which the gate follows.
    int setMode(int nMode);
    int trigger();

    // Waits up to nTimeoutMs (at least 1) for a frame. With a frame, the caller
    // reads it and then calls endRead(); no SDK call runs in between. Gives up
    // early when *pbStarted turns false while waiting (see wake()).
    bool fetch(int nTimeoutMs, bool bSoftTrigger, const bool* pbStarted, SdkFrame& cFrame);
    void endRead();

    // Lets waiting requests look at their camera's started flag again.
    void wake();

private:
    class Call
    {
    public:
        explicit Call(SdkGate& cGate);
        ~Call();

    private:
        SdkGate& m_cGate;
    };

    SdkGate();
    struct State;
    State* m_pState;
};

} // namespace kavrel

#endif
