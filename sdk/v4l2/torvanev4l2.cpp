// SPDX-License-Identifier: LGPL-2.1-or-later
// libtorvane.so over Video4Linux2: the camera SDK's C functions, each
// forwarding to one process-wide V4l2Camera (see v4l2camera.h).

// Only the SDK's functions are exported; the rest of the library is hidden.
#pragma GCC visibility push(default)
#include "torvane.h"
#pragma GCC visibility pop

#include "v4l2camera.h"

namespace {

torvane_v4l2::V4l2Camera& camera()
{
    // Never destroyed: hosts may still call the SDK while statics go away.
    static auto* s_pCamera =
        new torvane_v4l2::V4l2Camera(torvane_v4l2::systemIo(), torvane_v4l2::settingsFromEnvironment);
    return *s_pCamera;
}

} // namespace

int camera_init(int camera_, int)
{
    return camera().init(camera_);
}

int camera_free(int camera_)
{
    return camera().free(camera_);
}

int set_camera_mode(int mode, int camera_)
{
    return camera().setMode(mode, camera_);
}

int set_camera_trigger(int camera_)
{
    return camera().trigger(camera_);
}

int set_camera_exposure(int exposure, int camera_)
{
    return camera().setExposure(exposure, camera_);
}

int get_camera_exposure(int* exposure, int camera_)
{
    return camera().getExposure(exposure, camera_);
}

int set_camera_gain(int gain, int camera_)
{
    return camera().setGain(gain, camera_);
}

int get_camera_gain(int* gain, int camera_)
{
    return camera().getGain(gain, camera_);
}

int set_camera_window_size(int width, int height, int camera_)
{
    return camera().setWindowSize(width, height, camera_);
}

int get_camera_window_size(int* width, int* height, int camera_)
{
    return camera().getWindowSize(width, height, camera_);
}

int get_camera_max_window_size(int* width, int* height, int camera_)
{
    return camera().getMaxWindowSize(width, height, camera_);
}

unsigned char* get_frame_timeout(int* width, int* height, int* bytesPerPixel, int camera_, int timeoutMs)
{
    return camera().frame(width, height, bytesPerPixel, camera_, timeoutMs);
}
