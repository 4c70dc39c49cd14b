// SPDX-License-Identifier: LGPL-2.1-or-later
// The camera SDK over Video4Linux2: one device, SDK camera 0.
//
// Each method is the SDK call of the same meaning (see sdk/torvane.h); the
// C functions of libtorvane.so forward to one process-wide instance.
//
// - camera_init opens the device, picks its pixel format and starts mmap
//   streaming; it counts, and the last camera_free closes the device.
//   Answers: 1 the named configuration file is missing, 2 busy or not
//   permitted, 3 no such device or it cannot capture, 4 no format we can
//   deliver, 5 stream setup failed. A failure leaves no descriptor or mapping.
// - Frames come out as BGR (3 bytes per pixel), or grey (1 byte) from a grey
//   device. The device format is the one that needs the least work at the
//   window size: BGR24 or GREY as they are, then RGB24, the packed and planar
//   YUV formats, Bayer, and MJPEG/JPEG, converted with libv4lconvert.
// - get_frame_timeout never hands out a frame completed before the call began
//   (or, in triggered mode, before the trigger): frames that queued up are
//   given back to the driver. Error-flagged and undecodable frames are
//   skipped. The frame stays valid until the next call of this SDK; its V4L2
//   buffer goes back to the driver then.
// - Triggered mode (1): one frame per set_camera_trigger. V4L2 has no hardware
//   trigger, so without a software trigger get_frame_timeout waits out its
//   time-out and answers null; the device streams on meanwhile.
// - An unplugged device (ENODEV) answers null at once, is closed, and every
//   later call fails until camera_init opens it again.
// All methods are thread-safe: calls run one at a time, except that a
// triggered-mode request waiting for its trigger lets other calls in.
#ifndef KAVREL_SDK_V4L2_V4L2CAMERA_H
#define KAVREL_SDK_V4L2_V4L2CAMERA_H

#include <linux/videodev2.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "deviceio.h"
#include "settings.h"

struct v4lconvert_data;

namespace torvane_v4l2 {

class V4l2Camera
{
public:
    V4l2Camera(std::unique_ptr<DeviceIo> pIo, std::function<Settings()> fnSettings);
    ~V4l2Camera();
    V4l2Camera(const V4l2Camera&) = delete;
    V4l2Camera& operator=(const V4l2Camera&) = delete;

    int init(int nCamera);
    int free(int nCamera);
    int setMode(int nMode, int nCamera);
    int trigger(int nCamera);
    int setExposure(int nMicroseconds, int nCamera);
    int getExposure(int* pnMicroseconds, int nCamera);
    int setGain(int nGain, int nCamera);
    int getGain(int* pnGain, int nCamera);
    int setWindowSize(int nWidth, int nHeight, int nCamera);
    int getWindowSize(int* pnWidth, int* pnHeight, int nCamera);
    int getMaxWindowSize(int* pnWidth, int* pnHeight, int nCamera);
    unsigned char* frame(int* pnWidth, int* pnHeight, int* pnBytesPerPixel, int nCamera, int nTimeoutMs);

    // The device node in use ("" while closed).
    std::string devicePath() const;

private:
    struct Buffer {
        void* pData = nullptr;
        std::size_t nLength = 0;
    };
    using Lock = std::unique_lock<std::mutex>;

    bool usable() const { return m_fd >= 0; }
    void releaseHeld();
    int open();
    void close();
    void lose();
    bool startStream(int& nError);
    void stopStream();
    int drain();
    bool chooseFormat(std::uint32_t nFourcc, int nWidth, int nHeight, v4l2_format& cFormat, int& nError);
    void adopt(const v4l2_format& cFormat);
    void applyFrameRate();
    std::vector<std::uint32_t> formatsByCost() const;
    bool offersSize(std::uint32_t nFourcc, int nWidth, int nHeight);
    bool largestSize(std::uint32_t nFourcc, int& nWidth, int& nHeight);
    bool cropTo(int nWidth, int nHeight);
    void resetCrop();
    int setControl(std::uint32_t nId, std::uint32_t nAutoId, std::int32_t nAutoManual, long long nValue);
    int getControl(std::uint32_t nId, std::int32_t& nValue);
    unsigned char* deliver(const v4l2_buffer& cBuf);
    int xioctl(unsigned long nRequest, void* pArg);

    std::unique_ptr<DeviceIo> m_pIo;
    std::function<Settings()> m_fnSettings;

    mutable std::mutex m_cMutex;
    std::condition_variable m_cTriggered;

    int m_nOpenCount = 0;
    int m_fd = -1;
    std::string m_strPath;
    Settings m_cSettings;
    std::uint32_t m_nCaps = 0;
    v4lconvert_data* m_pConvert = nullptr;
    std::vector<std::uint32_t> m_cFormats; // deliverable device formats, cheapest first

    v4l2_format m_cFormat = {};
    int m_nOutBytesPerPixel = 3;
    std::vector<Buffer> m_cBuffers;
    bool m_bStreaming = false;
    int m_nHeld = -1;
    std::vector<unsigned char> m_cOut;

    int m_nMode = 0;
    int m_nPendingTriggers = 0;
    unsigned long m_nGeneration = 0; // grows whenever the device is closed
};

} // namespace torvane_v4l2

#endif
