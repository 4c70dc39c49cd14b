// SPDX-License-Identifier: LGPL-2.1-or-later
// Returns from main while four threads keep fetching small frames from the
// simulated camera as fast as it makes them, so that some of them are inside
// the camera while the process tears its statics down.

#include "sdk/torvane.h"
#include "sdk/torvanesim.h"

#include <chrono>
#include <thread>

int main()
{
    torvanesim_set_frame_rate(0);
    set_camera_window_size(64, 48, 0);
    for (int i = 0; i < 4; ++i)
        std::thread([] {
            for (int w, h, bpp;;)
                get_frame_timeout(&w, &h, &bpp, 0, 100);
        }).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return 0;
}
