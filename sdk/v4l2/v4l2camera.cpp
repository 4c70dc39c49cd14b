// SPDX-License-Identifier: LGPL-2.1-or-later
#include "v4l2camera.h"

#include <libv4l-plugin.h>
#include <libv4lconvert.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace torvane_v4l2 {

namespace {

using Clock = std::chrono::steady_clock;

const int kModeContinuous = 0;
const int kModeTriggered = 1;
const int kCaptureType = V4L2_BUF_TYPE_VIDEO_CAPTURE;

// Device formats we deliver, by the work a frame needs: none, a byte swap,
// a YUV or Bayer conversion, a JPEG decode. libv4lconvert does all but none.
const struct {
    std::uint32_t nFourcc;
    int nCost;
} kFormats[] = {
    {V4L2_PIX_FMT_BGR24, 0},   {V4L2_PIX_FMT_RGB24, 1},
    {V4L2_PIX_FMT_YUYV, 2},    {V4L2_PIX_FMT_UYVY, 2},    {V4L2_PIX_FMT_YVYU, 3},
    {V4L2_PIX_FMT_NV12, 3},    {V4L2_PIX_FMT_YUV420, 3},  {V4L2_PIX_FMT_YVU420, 3},
    {V4L2_PIX_FMT_RGB565, 3},  {V4L2_PIX_FMT_SBGGR8, 4},  {V4L2_PIX_FMT_SGBRG8, 4},
    {V4L2_PIX_FMT_SGRBG8, 4},  {V4L2_PIX_FMT_SRGGB8, 4},  {V4L2_PIX_FMT_MJPEG, 5},
    {V4L2_PIX_FMT_JPEG, 5},
    // Grey only from a device that has no colour format (or when asked for).
    {V4L2_PIX_FMT_GREY, 6},
};

int costOf(std::uint32_t nFourcc)
{
    for (const auto& cKnown : kFormats)
        if (cKnown.nFourcc == nFourcc)
            return cKnown.nCost;
    return -1;
}

bool passedThrough(std::uint32_t nFourcc)
{
    return nFourcc == V4L2_PIX_FMT_BGR24 || nFourcc == V4L2_PIX_FMT_GREY;
}

// libv4lconvert asks the device about its formats through our seam too.
int convertIoctl(void* pPriv, int fd, unsigned long nRequest, void* pArg)
{
    return static_cast<DeviceIo*>(pPriv)->ioctl(fd, nRequest, pArg);
}

void convertClose(void*)
{
}

ssize_t convertRead(void*, int, void*, std::size_t)
{
    errno = ENOSYS;
    return -1;
}

ssize_t convertWrite(void*, int, const void*, std::size_t)
{
    errno = ENOSYS;
    return -1;
}

libv4l_dev_ops convertOps()
{
    libv4l_dev_ops cOps = {};
    cOps.close = convertClose;
    cOps.ioctl = convertIoctl;
    cOps.read = convertRead;
    cOps.write = convertWrite;
    return cOps;
}

const libv4l_dev_ops kConvertOps = convertOps();

// TORVANE_V4L2_DEBUG=1 reports why calls fail on standard error (with the
// system's reason when nError is set).
void trace(const char* szWhat, int nError)
{
    static const bool s_bOn = [] {
        const char* sz = std::getenv("TORVANE_V4L2_DEBUG");
        return sz && *sz && std::strcmp(sz, "0") != 0;
    }();
    if (s_bOn && nError)
        std::fprintf(stderr, "torvane-v4l2: %s: %s\n", szWhat, std::strerror(nError));
    else if (s_bOn)
        std::fprintf(stderr, "torvane-v4l2: %s\n", szWhat);
}

int openErrorCode(int nError)
{
    return nError == EBUSY || nError == EACCES || nError == EPERM ? 2 : 3;
}

} // namespace

V4l2Camera::V4l2Camera(std::unique_ptr<DeviceIo> pIo, std::function<Settings()> fnSettings)
    : m_pIo(std::move(pIo))
    , m_fnSettings(std::move(fnSettings))
{
}

V4l2Camera::~V4l2Camera()
{
    Lock cLock(m_cMutex);
    close();
}

std::string V4l2Camera::devicePath() const
{
    Lock cLock(m_cMutex);
    return m_fd >= 0 ? m_strPath : std::string();
}

int V4l2Camera::xioctl(unsigned long nRequest, void* pArg)
{
    return m_pIo->ioctl(m_fd, nRequest, pArg);
}

// ---------------------------------------------------------------------------
// Opening and closing

int V4l2Camera::init(int nCamera)
{
    if (nCamera != 0)
        return 3;
    Lock cLock(m_cMutex);
    releaseHeld();
    if (m_nOpenCount > 0 && usable()) {
        ++m_nOpenCount;
        return 0;
    }
    const int nResult = open();
    if (nResult == 0)
        ++m_nOpenCount;
    else
        trace(("camera_init answers " + std::to_string(nResult)).c_str(), 0);
    return nResult;
}

int V4l2Camera::free(int nCamera)
{
    if (nCamera != 0)
        return -1;
    Lock cLock(m_cMutex);
    releaseHeld();
    if (m_nOpenCount == 0)
        return -1;
    if (--m_nOpenCount == 0) {
        close();
        m_nMode = kModeContinuous;
        m_nPendingTriggers = 0;
    }
    return 0;
}

int V4l2Camera::open()
{
    close();
    m_cSettings = m_fnSettings();
    if (m_cSettings.bConfigMissing)
        return 1;

    // The device named, or the first node that captures.
    std::vector<std::string> cCandidates;
    if (m_cSettings.strDevice.empty())
        cCandidates = m_pIo->videoDevices();
    else
        cCandidates.push_back(m_cSettings.strDevice);
    int nResult = 3;
    for (const std::string& strPath : cCandidates) {
        m_fd = m_pIo->open(strPath);
        if (m_fd < 0) {
            trace(strPath.c_str(), errno);
            // A node we may not open (or that is busy) may be the camera.
            nResult = std::min(nResult, openErrorCode(errno));
            continue;
        }
        v4l2_capability cCap = {};
        if (xioctl(VIDIOC_QUERYCAP, &cCap) == 0) {
            m_nCaps = (cCap.capabilities & V4L2_CAP_DEVICE_CAPS) ? cCap.device_caps : cCap.capabilities;
            if ((m_nCaps & V4L2_CAP_VIDEO_CAPTURE) && (m_nCaps & V4L2_CAP_STREAMING)) {
                m_strPath = strPath;
                nResult = 0;
                break;
            }
        }
        m_pIo->close(m_fd);
        m_fd = -1;
    }
    if (nResult != 0)
        return nResult;

    // Formats we can deliver, cheapest first; a format asked for goes first.
    for (std::uint32_t nIndex = 0;; ++nIndex) {
        v4l2_fmtdesc cDesc = {};
        cDesc.index = nIndex;
        cDesc.type = kCaptureType;
        if (xioctl(VIDIOC_ENUM_FMT, &cDesc) != 0)
            break;
        if (costOf(cDesc.pixelformat) >= 0)
            m_cFormats.push_back(cDesc.pixelformat);
    }
    const auto rank = [this](std::uint32_t nFourcc) {
        return nFourcc == m_cSettings.nFormat ? -1 : costOf(nFourcc);
    };
    std::stable_sort(m_cFormats.begin(), m_cFormats.end(),
                     [&](std::uint32_t a, std::uint32_t b) { return rank(a) < rank(b); });
    if (m_cFormats.empty()) {
        close();
        return 4;
    }
    m_pConvert = v4lconvert_create_with_dev_ops(m_fd, m_pIo.get(), &kConvertOps);
    if (!m_pConvert) {
        close();
        return 5;
    }

    // Keep the size the device has when a format of ours offers it, else the
    // largest size of the cheapest format.
    v4l2_format cCurrent = {};
    cCurrent.type = kCaptureType;
    int nWidth = 0;
    int nHeight = 0;
    if (xioctl(VIDIOC_G_FMT, &cCurrent) == 0) {
        nWidth = static_cast<int>(cCurrent.fmt.pix.width);
        nHeight = static_cast<int>(cCurrent.fmt.pix.height);
    }
    std::uint32_t nChosen = 0;
    for (std::uint32_t nFourcc : m_cFormats)
        if (offersSize(nFourcc, nWidth, nHeight)) {
            nChosen = nFourcc;
            break;
        }
    if (nChosen == 0) {
        nChosen = m_cFormats.front();
        if (!largestSize(nChosen, nWidth, nHeight)) {
            close();
            return 4;
        }
    }
    resetCrop();
    v4l2_format cFormat = {};
    int nError = 0;
    if (!chooseFormat(nChosen, nWidth, nHeight, cFormat, nError)) {
        close();
        return nError == EBUSY ? 2 : 4;
    }
    adopt(cFormat);
    applyFrameRate();
    if (!startStream(nError)) {
        close();
        return nError == EBUSY ? 2 : 5;
    }
    return 0;
}

void V4l2Camera::close()
{
    stopStream();
    if (m_pConvert) {
        v4lconvert_destroy(m_pConvert);
        m_pConvert = nullptr;
    }
    if (m_fd >= 0) {
        m_pIo->close(m_fd);
        m_fd = -1;
        ++m_nGeneration;
    }
    m_cFormats.clear();
    m_cFormat = {};
    m_cOut.clear();
    m_cOut.shrink_to_fit();
    m_cTriggered.notify_all();
}

void V4l2Camera::lose()
{
    trace("device lost", errno);
    // The device is gone: keep the open count, so that camera_free still
    // balances, but nothing works until camera_init opens it again.
    close();
}

// ---------------------------------------------------------------------------
// Streaming

bool V4l2Camera::startStream(int& nError)
{
    nError = 0;
    v4l2_requestbuffers cRequest = {};
    cRequest.count = static_cast<std::uint32_t>(m_cSettings.nBuffers);
    cRequest.type = kCaptureType;
    cRequest.memory = V4L2_MEMORY_MMAP;
    if (xioctl(VIDIOC_REQBUFS, &cRequest) != 0) {
        nError = errno;
        return false;
    }
    bool bOk = cRequest.count > 0;
    for (std::uint32_t i = 0; bOk && i < cRequest.count; ++i) {
        v4l2_buffer cBuf = {};
        cBuf.index = i;
        cBuf.type = kCaptureType;
        cBuf.memory = V4L2_MEMORY_MMAP;
        Buffer cBuffer;
        if (xioctl(VIDIOC_QUERYBUF, &cBuf) == 0) {
            cBuffer.nLength = cBuf.length;
            cBuffer.pData = m_pIo->mmap(m_fd, cBuf.length, static_cast<off_t>(cBuf.m.offset));
        }
        bOk = cBuffer.pData != nullptr;
        if (bOk)
            m_cBuffers.push_back(cBuffer);
    }
    for (std::size_t i = 0; bOk && i < m_cBuffers.size(); ++i) {
        v4l2_buffer cBuf = {};
        cBuf.index = static_cast<std::uint32_t>(i);
        cBuf.type = kCaptureType;
        cBuf.memory = V4L2_MEMORY_MMAP;
        bOk = xioctl(VIDIOC_QBUF, &cBuf) == 0;
    }
    int nType = kCaptureType;
    if (bOk)
        bOk = xioctl(VIDIOC_STREAMON, &nType) == 0;
    if (!bOk) {
        nError = errno;
        m_bStreaming = true; // let stopStream undo whatever part was done
        stopStream();
        return false;
    }
    m_bStreaming = true;
    return true;
}

void V4l2Camera::stopStream()
{
    m_nHeld = -1;
    if (!m_bStreaming || m_fd < 0)
        return;
    int nType = kCaptureType;
    xioctl(VIDIOC_STREAMOFF, &nType);
    for (const Buffer& cBuffer : m_cBuffers)
        m_pIo->munmap(cBuffer.pData, cBuffer.nLength);
    m_cBuffers.clear();
    v4l2_requestbuffers cRequest = {};
    cRequest.type = kCaptureType;
    cRequest.memory = V4L2_MEMORY_MMAP;
    xioctl(VIDIOC_REQBUFS, &cRequest);
    m_bStreaming = false;
}

void V4l2Camera::releaseHeld()
{
    if (m_nHeld < 0)
        return;
    v4l2_buffer cBuf = {};
    cBuf.index = static_cast<std::uint32_t>(m_nHeld);
    cBuf.type = kCaptureType;
    cBuf.memory = V4L2_MEMORY_MMAP;
    m_nHeld = -1;
    if (m_fd >= 0 && xioctl(VIDIOC_QBUF, &cBuf) != 0 && errno == ENODEV)
        lose();
}

// Gives every completed buffer back to the driver. 0 when the queue is empty
// now, -1 when the device is gone or the stream broke (then stopped).
int V4l2Camera::drain()
{
    for (;;) {
        v4l2_buffer cBuf = {};
        cBuf.type = kCaptureType;
        cBuf.memory = V4L2_MEMORY_MMAP;
        if (xioctl(VIDIOC_DQBUF, &cBuf) != 0) {
            if (errno == EAGAIN)
                return 0;
            if (errno == ENODEV)
                lose();
            else
                stopStream();
            return -1;
        }
        if (xioctl(VIDIOC_QBUF, &cBuf) != 0) {
            if (errno == ENODEV)
                lose();
            else
                stopStream();
            return -1;
        }
    }
}

unsigned char* V4l2Camera::frame(int* pnWidth, int* pnHeight, int* pnBytesPerPixel, int nCamera, int nTimeoutMs)
{
    Lock cLock(m_cMutex);
    releaseHeld();
    if (nCamera != 0 || !usable())
        return nullptr;
    const Clock::time_point tDeadline = Clock::now() + std::chrono::milliseconds(std::max(0, nTimeoutMs));
    int nError = 0;
    if (!m_bStreaming && !startStream(nError))
        return nullptr;

    if (m_nMode == kModeTriggered) {
        // No hardware trigger exists: only a software trigger makes a frame.
        const unsigned long nGeneration = m_nGeneration;
        m_cTriggered.wait_until(cLock, tDeadline, [&] {
            return m_nPendingTriggers > 0 || m_nGeneration != nGeneration || m_nMode != kModeTriggered;
        });
        if (m_nPendingTriggers == 0 || m_nGeneration != nGeneration || m_nMode != kModeTriggered)
            return nullptr;
        // Others ran meanwhile: their frame is over, and the stream may have
        // been restarted (or failed to).
        releaseHeld();
        if (!usable() || (!m_bStreaming && !startStream(nError)))
            return nullptr;
    } else if (drain() != 0) {
        return nullptr;
    }

    bool bPollError = false;
    for (;;) {
        v4l2_buffer cBuf = {};
        cBuf.type = kCaptureType;
        cBuf.memory = V4L2_MEMORY_MMAP;
        if (xioctl(VIDIOC_DQBUF, &cBuf) != 0) {
            if (errno == ENODEV) {
                lose();
                return nullptr;
            }
            if (errno != EAGAIN || bPollError) {
                trace("dequeueing a frame", errno);
                stopStream(); // started again by the next request
                return nullptr;
            }
            const auto nLeft = std::chrono::ceil<std::chrono::milliseconds>(tDeadline - Clock::now()).count();
            if (nLeft <= 0)
                return nullptr;
            const int nEvents = m_pIo->poll(m_fd, static_cast<int>(std::min<long long>(nLeft, INT_MAX)));
            if (nEvents == 0 || (nEvents < 0 && errno != EINTR))
                return nullptr;
            // An error without a frame: the next DQBUF says why (gone, or the
            // stream broke), or the stream is restarted.
            bPollError = nEvents > 0 && !(nEvents & POLLIN) && (nEvents & (POLLERR | POLLHUP | POLLNVAL));
            continue;
        }
        bPollError = false;
        unsigned char* pFrame = nullptr;
        if (!(cBuf.flags & V4L2_BUF_FLAG_ERROR) && cBuf.bytesused > 0 && cBuf.index < m_cBuffers.size())
            pFrame = deliver(cBuf);
        if (!pFrame) {
            if (xioctl(VIDIOC_QBUF, &cBuf) != 0 && errno == ENODEV) {
                lose();
                return nullptr;
            }
            continue;
        }
        m_nHeld = static_cast<int>(cBuf.index);
        if (m_nMode == kModeTriggered)
            --m_nPendingTriggers;
        if (pnWidth)
            *pnWidth = static_cast<int>(m_cFormat.fmt.pix.width);
        if (pnHeight)
            *pnHeight = static_cast<int>(m_cFormat.fmt.pix.height);
        if (pnBytesPerPixel)
            *pnBytesPerPixel = m_nOutBytesPerPixel;
        return pFrame;
    }
}

// The frame in buffer cBuf as packed BGR or grey, or nullptr when it cannot be
// had (short or undecodable).
unsigned char* V4l2Camera::deliver(const v4l2_buffer& cBuf)
{
    const v4l2_pix_format& cPix = m_cFormat.fmt.pix;
    const std::size_t nWidth = cPix.width;
    const std::size_t nHeight = cPix.height;
    unsigned char* pSource = static_cast<unsigned char*>(m_cBuffers[cBuf.index].pData);
    const std::size_t nUsed = std::min<std::size_t>(cBuf.bytesused, m_cBuffers[cBuf.index].nLength);
    if (nWidth == 0 || nHeight == 0)
        return nullptr;

    if (passedThrough(cPix.pixelformat)) {
        const std::size_t nLine = nWidth * static_cast<std::size_t>(m_nOutBytesPerPixel);
        const std::size_t nStride = std::max<std::size_t>(cPix.bytesperline, nLine);
        if (nUsed < nStride * (nHeight - 1) + nLine)
            return nullptr;
        if (nStride == nLine)
            return pSource; // as the device wrote it, until the buffer goes back
        for (std::size_t y = 0; y < nHeight; ++y)
            std::memcpy(m_cOut.data() + y * nLine, pSource + y * nStride, nLine);
        return m_cOut.data();
    }

    v4l2_format cDest = m_cFormat;
    cDest.fmt.pix.pixelformat = V4L2_PIX_FMT_BGR24;
    cDest.fmt.pix.bytesperline = static_cast<std::uint32_t>(nWidth * 3);
    cDest.fmt.pix.sizeimage = static_cast<std::uint32_t>(m_cOut.size());
    const int nWritten = v4lconvert_convert(m_pConvert, &m_cFormat, &cDest, pSource, static_cast<int>(nUsed),
                                            m_cOut.data(), static_cast<int>(m_cOut.size()));
    if (nWritten < 0 || static_cast<std::size_t>(nWritten) < m_cOut.size())
        return nullptr;
    return m_cOut.data();
}

// ---------------------------------------------------------------------------
// Formats and window size

bool V4l2Camera::chooseFormat(std::uint32_t nFourcc, int nWidth, int nHeight, v4l2_format& cFormat, int& nError)
{
    nError = 0;
    cFormat = {};
    cFormat.type = kCaptureType;
    cFormat.fmt.pix.width = static_cast<std::uint32_t>(nWidth);
    cFormat.fmt.pix.height = static_cast<std::uint32_t>(nHeight);
    cFormat.fmt.pix.pixelformat = nFourcc;
    cFormat.fmt.pix.field = V4L2_FIELD_NONE;
    if (xioctl(VIDIOC_S_FMT, &cFormat) != 0) {
        nError = errno;
        return false;
    }
    return cFormat.fmt.pix.pixelformat == nFourcc && cFormat.fmt.pix.width == static_cast<std::uint32_t>(nWidth) &&
           cFormat.fmt.pix.height == static_cast<std::uint32_t>(nHeight);
}

void V4l2Camera::adopt(const v4l2_format& cFormat)
{
    m_cFormat = cFormat;
    m_nOutBytesPerPixel = cFormat.fmt.pix.pixelformat == V4L2_PIX_FMT_GREY ? 1 : 3;
    const std::size_t nBytes = static_cast<std::size_t>(cFormat.fmt.pix.width) * cFormat.fmt.pix.height *
                               static_cast<std::size_t>(m_nOutBytesPerPixel);
    m_cOut.assign(nBytes, 0);
}

void V4l2Camera::applyFrameRate()
{
    if (!(m_cSettings.dFps > 0.0))
        return;
    v4l2_streamparm cParm = {};
    cParm.type = kCaptureType;
    if (xioctl(VIDIOC_G_PARM, &cParm) != 0 || !(cParm.parm.capture.capability & V4L2_CAP_TIMEPERFRAME))
        return;
    cParm.parm.capture.timeperframe.numerator = 1000;
    cParm.parm.capture.timeperframe.denominator = static_cast<std::uint32_t>(std::lround(m_cSettings.dFps * 1000.0));
    xioctl(VIDIOC_S_PARM, &cParm); // the driver picks the nearest rate it has
}

bool V4l2Camera::offersSize(std::uint32_t nFourcc, int nWidth, int nHeight)
{
    if (nWidth <= 0 || nHeight <= 0)
        return false;
    const auto w = static_cast<std::uint32_t>(nWidth);
    const auto h = static_cast<std::uint32_t>(nHeight);
    v4l2_frmsizeenum cSize = {};
    cSize.pixel_format = nFourcc;
    if (xioctl(VIDIOC_ENUM_FRAMESIZES, &cSize) != 0) {
        // No list: ask the driver what it would make of the size.
        v4l2_format cTry = {};
        cTry.type = kCaptureType;
        cTry.fmt.pix.width = w;
        cTry.fmt.pix.height = h;
        cTry.fmt.pix.pixelformat = nFourcc;
        cTry.fmt.pix.field = V4L2_FIELD_NONE;
        return xioctl(VIDIOC_TRY_FMT, &cTry) == 0 && cTry.fmt.pix.pixelformat == nFourcc &&
               cTry.fmt.pix.width == w && cTry.fmt.pix.height == h;
    }
    if (cSize.type != V4L2_FRMSIZE_TYPE_DISCRETE) {
        const v4l2_frmsize_stepwise& s = cSize.stepwise;
        const std::uint32_t nStepW = std::max<std::uint32_t>(1, s.step_width);
        const std::uint32_t nStepH = std::max<std::uint32_t>(1, s.step_height);
        return w >= s.min_width && w <= s.max_width && h >= s.min_height && h <= s.max_height &&
               (w - s.min_width) % nStepW == 0 && (h - s.min_height) % nStepH == 0;
    }
    do {
        if (cSize.type == V4L2_FRMSIZE_TYPE_DISCRETE && cSize.discrete.width == w && cSize.discrete.height == h)
            return true;
        ++cSize.index;
    } while (xioctl(VIDIOC_ENUM_FRAMESIZES, &cSize) == 0);
    return false;
}

bool V4l2Camera::largestSize(std::uint32_t nFourcc, int& nWidth, int& nHeight)
{
    v4l2_frmsizeenum cSize = {};
    cSize.pixel_format = nFourcc;
    std::uint64_t nBestArea = 0;
    if (xioctl(VIDIOC_ENUM_FRAMESIZES, &cSize) != 0) {
        v4l2_format cTry = {};
        cTry.type = kCaptureType;
        cTry.fmt.pix.width = 65535;
        cTry.fmt.pix.height = 65535;
        cTry.fmt.pix.pixelformat = nFourcc;
        cTry.fmt.pix.field = V4L2_FIELD_NONE;
        if (xioctl(VIDIOC_TRY_FMT, &cTry) != 0 || cTry.fmt.pix.pixelformat != nFourcc)
            return false;
        nWidth = static_cast<int>(cTry.fmt.pix.width);
        nHeight = static_cast<int>(cTry.fmt.pix.height);
        return nWidth > 0 && nHeight > 0;
    }
    do {
        std::uint32_t w = cSize.discrete.width;
        std::uint32_t h = cSize.discrete.height;
        if (cSize.type != V4L2_FRMSIZE_TYPE_DISCRETE) {
            w = cSize.stepwise.max_width;
            h = cSize.stepwise.max_height;
        }
        const std::uint64_t nArea = static_cast<std::uint64_t>(w) * h;
        if (nArea > nBestArea && w <= INT_MAX && h <= INT_MAX) {
            nBestArea = nArea;
            nWidth = static_cast<int>(w);
            nHeight = static_cast<int>(h);
        }
        if (cSize.type != V4L2_FRMSIZE_TYPE_DISCRETE)
            break;
        ++cSize.index;
    } while (xioctl(VIDIOC_ENUM_FRAMESIZES, &cSize) == 0);
    return nBestArea > 0;
}

// A device that crops without scaling delivers the crop rectangle's size.
bool V4l2Camera::cropTo(int nWidth, int nHeight)
{
    v4l2_selection cBounds = {};
    cBounds.type = kCaptureType;
    cBounds.target = V4L2_SEL_TGT_CROP_BOUNDS;
    if (xioctl(VIDIOC_G_SELECTION, &cBounds) != 0 || static_cast<std::uint32_t>(nWidth) > cBounds.r.width ||
        static_cast<std::uint32_t>(nHeight) > cBounds.r.height)
        return false;
    v4l2_selection cCrop = {};
    cCrop.type = kCaptureType;
    cCrop.target = V4L2_SEL_TGT_CROP;
    cCrop.r = {cBounds.r.left, cBounds.r.top, static_cast<std::uint32_t>(nWidth),
               static_cast<std::uint32_t>(nHeight)};
    v4l2_format cFormat = {};
    cFormat.type = kCaptureType;
    if (xioctl(VIDIOC_S_SELECTION, &cCrop) == 0 && xioctl(VIDIOC_G_FMT, &cFormat) == 0 &&
        cFormat.fmt.pix.width == static_cast<std::uint32_t>(nWidth) &&
        cFormat.fmt.pix.height == static_cast<std::uint32_t>(nHeight) && costOf(cFormat.fmt.pix.pixelformat) >= 0) {
        adopt(cFormat);
        return true;
    }
    resetCrop();
    return false;
}

void V4l2Camera::resetCrop()
{
    v4l2_selection cSel = {};
    cSel.type = kCaptureType;
    cSel.target = V4L2_SEL_TGT_CROP_DEFAULT;
    if (xioctl(VIDIOC_G_SELECTION, &cSel) != 0)
        return;
    cSel.target = V4L2_SEL_TGT_CROP;
    xioctl(VIDIOC_S_SELECTION, &cSel);
}

int V4l2Camera::setWindowSize(int nWidth, int nHeight, int nCamera)
{
    Lock cLock(m_cMutex);
    releaseHeld();
    if (nCamera != 0 || !usable() || nWidth <= 0 || nHeight <= 0)
        return -1;
    // Asked again for the size it has (the driver re-sends it at every start):
    // keep streaming.
    if (static_cast<std::uint32_t>(nWidth) == m_cFormat.fmt.pix.width &&
        static_cast<std::uint32_t>(nHeight) == m_cFormat.fmt.pix.height)
        return 0;

    std::uint32_t nTarget = 0;
    for (std::uint32_t nFourcc : m_cFormats)
        if (offersSize(nFourcc, nWidth, nHeight)) {
            nTarget = nFourcc;
            break;
        }
    v4l2_selection cBounds = {};
    cBounds.type = kCaptureType;
    cBounds.target = V4L2_SEL_TGT_CROP_BOUNDS;
    if (nTarget == 0 && xioctl(VIDIOC_G_SELECTION, &cBounds) != 0)
        return -1; // neither a format nor a crop gives that size: nothing changes

    const v4l2_format cOld = m_cFormat;
    stopStream();
    bool bOk = false;
    int nError = 0;
    v4l2_format cFormat = {};
    if (nTarget != 0) {
        resetCrop();
        bOk = chooseFormat(nTarget, nWidth, nHeight, cFormat, nError);
        if (bOk)
            adopt(cFormat);
    } else {
        bOk = cropTo(nWidth, nHeight);
    }
    if (!bOk) {
        resetCrop();
        chooseFormat(cOld.fmt.pix.pixelformat, static_cast<int>(cOld.fmt.pix.width),
                     static_cast<int>(cOld.fmt.pix.height), cFormat, nError);
        v4l2_format cNow = {};
        cNow.type = kCaptureType;
        adopt(xioctl(VIDIOC_G_FMT, &cNow) == 0 && costOf(cNow.fmt.pix.pixelformat) >= 0 ? cNow : cOld);
    }
    applyFrameRate();
    if (!startStream(nError) && nError == ENODEV)
        lose();
    return bOk && m_bStreaming ? 0 : -1;
}

int V4l2Camera::getWindowSize(int* pnWidth, int* pnHeight, int nCamera)
{
    Lock cLock(m_cMutex);
    releaseHeld();
    if (nCamera != 0 || !usable())
        return -1;
    if (pnWidth)
        *pnWidth = static_cast<int>(m_cFormat.fmt.pix.width);
    if (pnHeight)
        *pnHeight = static_cast<int>(m_cFormat.fmt.pix.height);
    return 0;
}

int V4l2Camera::getMaxWindowSize(int* pnWidth, int* pnHeight, int nCamera)
{
    Lock cLock(m_cMutex);
    releaseHeld();
    if (nCamera != 0 || !usable())
        return -1;
    std::uint64_t nBestArea = 0;
    int nBestWidth = 0;
    int nBestHeight = 0;
    for (std::uint32_t nFourcc : m_cFormats) {
        int w = 0;
        int h = 0;
        if (largestSize(nFourcc, w, h) && static_cast<std::uint64_t>(w) * static_cast<std::uint64_t>(h) > nBestArea) {
            nBestArea = static_cast<std::uint64_t>(w) * static_cast<std::uint64_t>(h);
            nBestWidth = w;
            nBestHeight = h;
        }
    }
    if (nBestArea == 0)
        return -1;
    if (pnWidth)
        *pnWidth = nBestWidth;
    if (pnHeight)
        *pnHeight = nBestHeight;
    return 0;
}

// ---------------------------------------------------------------------------
// Mode and trigger

int V4l2Camera::setMode(int nMode, int nCamera)
{
    Lock cLock(m_cMutex);
    releaseHeld();
    if (nCamera != 0 || !usable() || (nMode != kModeContinuous && nMode != kModeTriggered))
        return -1;
    if (nMode != m_nMode) {
        m_nMode = nMode;
        m_nPendingTriggers = 0; // triggers do not outlive the mode they were fired in
        m_cTriggered.notify_all();
    }
    return 0;
}

int V4l2Camera::trigger(int nCamera)
{
    Lock cLock(m_cMutex);
    releaseHeld();
    if (nCamera != 0 || !usable())
        return -1;
    if (m_nMode != kModeTriggered)
        return 0; // nothing to trigger in continuous mode
    int nError = 0;
    if (!m_bStreaming && !startStream(nError))
        return -1;
    // Frames completed so far are older than this trigger.
    if (drain() != 0)
        return -1;
    ++m_nPendingTriggers;
    m_cTriggered.notify_all();
    return 0;
}

// ---------------------------------------------------------------------------
// Exposure and gain

int V4l2Camera::setControl(std::uint32_t nId, std::uint32_t nAutoId, std::int32_t nAutoManual, long long nValue)
{
    v4l2_queryctrl cQuery = {};
    cQuery.id = nId;
    if (xioctl(VIDIOC_QUERYCTRL, &cQuery) != 0 || (cQuery.flags & V4L2_CTRL_FLAG_DISABLED))
        return -1;
    // Manual mode first, or the value would be ignored (or refused).
    v4l2_queryctrl cAutoQuery = {};
    cAutoQuery.id = nAutoId;
    if (xioctl(VIDIOC_QUERYCTRL, &cAutoQuery) == 0 && !(cAutoQuery.flags & V4L2_CTRL_FLAG_DISABLED)) {
        v4l2_control cAuto = {nAutoId, 0};
        if (xioctl(VIDIOC_G_CTRL, &cAuto) != 0 || cAuto.value != nAutoManual) {
            cAuto.value = nAutoManual;
            xioctl(VIDIOC_S_CTRL, &cAuto);
        }
    }
    const long long nMin = cQuery.minimum;
    const long long nMax = cQuery.maximum;
    const long long nStep = std::max(1, cQuery.step);
    long long nSet = std::clamp(nValue, nMin, nMax);
    nSet = std::min(nMax, nMin + (nSet - nMin + nStep / 2) / nStep * nStep);
    v4l2_control cControl = {nId, static_cast<std::int32_t>(nSet)};
    return xioctl(VIDIOC_S_CTRL, &cControl) == 0 ? 0 : -1;
}

int V4l2Camera::getControl(std::uint32_t nId, std::int32_t& nValue)
{
    v4l2_control cControl = {nId, 0};
    if (xioctl(VIDIOC_G_CTRL, &cControl) != 0)
        return -1;
    nValue = cControl.value;
    return 0;
}

int V4l2Camera::setExposure(int nMicroseconds, int nCamera)
{
    Lock cLock(m_cMutex);
    releaseHeld();
    if (nCamera != 0 || !usable())
        return -1;
    // V4L2's absolute exposure counts 100 microsecond units.
    const long long nUnits = (static_cast<long long>(nMicroseconds) + 50) / 100;
    return setControl(V4L2_CID_EXPOSURE_ABSOLUTE, V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_MANUAL, nUnits);
}

int V4l2Camera::getExposure(int* pnMicroseconds, int nCamera)
{
    Lock cLock(m_cMutex);
    releaseHeld();
    std::int32_t nUnits = 0;
    if (nCamera != 0 || !usable() || getControl(V4L2_CID_EXPOSURE_ABSOLUTE, nUnits) != 0)
        return -1;
    if (pnMicroseconds)
        *pnMicroseconds = static_cast<int>(std::clamp<long long>(nUnits * 100LL, INT_MIN, INT_MAX));
    return 0;
}

int V4l2Camera::setGain(int nGain, int nCamera)
{
    Lock cLock(m_cMutex);
    releaseHeld();
    if (nCamera != 0 || !usable())
        return -1;
    return setControl(V4L2_CID_GAIN, V4L2_CID_AUTOGAIN, 0, nGain);
}

int V4l2Camera::getGain(int* pnGain, int nCamera)
{
    Lock cLock(m_cMutex);
    releaseHeld();
    std::int32_t nValue = 0;
    if (nCamera != 0 || !usable() || getControl(V4L2_CID_GAIN, nValue) != 0)
        return -1;
    if (pnGain)
        *pnGain = nValue;
    return 0;
}

} // namespace torvane_v4l2
