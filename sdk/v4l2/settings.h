// SPDX-License-Identifier: LGPL-2.1-or-later
// Which device the V4L2 camera opens, and how. Read at every camera_init that
// opens the device, from a configuration file and the environment:
//
//   TORVANE_V4L2_CONFIG  a file of "key = value" lines (# starts a comment),
//                        keys device, fps, format and buffers. camera_init
//                        answers 1 when this file is named but missing.
//   TORVANE_V4L2_DEVICE  the device node, e.g. /dev/video2 (default: the
//                        first video capture device, /dev/video0 upwards)
//   TORVANE_V4L2_FPS     frames per second asked of the device (default 30;
//                        0 keeps the device's own rate)
//   TORVANE_V4L2_FORMAT  a device pixel format to prefer, as its four
//                        characters (YUYV, MJPG, GREY, BGR3, ...)
//   TORVANE_V4L2_BUFFERS buffers to stream with (2 to 32, default 4)
//
// The environment wins over the file.
#ifndef KAVREL_SDK_V4L2_SETTINGS_H
#define KAVREL_SDK_V4L2_SETTINGS_H

#include <cstdint>
#include <string>

namespace torvane_v4l2 {

struct Settings {
    std::string strDevice;
    double dFps = 30.0;
    std::uint32_t nFormat = 0; // fourcc; 0: the format that needs the least work
    int nBuffers = 4;
    // The configuration file named in TORVANE_V4L2_CONFIG does not exist.
    bool bConfigMissing = false;
};

// Applies "key = value" lines to cSettings; unknown keys and malformed values
// are ignored.
void applySettingsText(const std::string& strText, Settings& cSettings);

// The settings as the environment (and the file it names) give them now.
Settings settingsFromEnvironment();

// "YUYV" -> V4L2 fourcc; 0 unless exactly four characters.
std::uint32_t fourccFromText(const std::string& strText);

} // namespace torvane_v4l2

#endif
