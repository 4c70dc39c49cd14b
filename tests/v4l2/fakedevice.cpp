// SPDX-License-Identifier: LGPL-2.1-or-later
#include "fakedevice.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace {

const std::uint32_t kOffsetStep = 1u << 20;

int fail(int nError)
{
    errno = nError;
    return -1;
}

} // namespace

std::uint32_t FakeDevice::bytesPerPixel(std::uint32_t nFourcc)
{
    switch (nFourcc) {
    case V4L2_PIX_FMT_BGR24:
    case V4L2_PIX_FMT_RGB24:
        return 3;
    case V4L2_PIX_FMT_YUYV:
    case V4L2_PIX_FMT_UYVY:
        return 2;
    case V4L2_PIX_FMT_GREY:
        return 1;
    default:
        return 0; // compressed
    }
}

const FakeFormat* FakeDevice::find(std::uint32_t nFourcc) const
{
    for (const FakeFormat& cFormat : cFormats)
        if (cFormat.nFourcc == nFourcc)
            return &cFormat;
    return nullptr;
}

std::pair<std::uint32_t, std::uint32_t> FakeDevice::fullSize() const
{
    const FakeFormat& cFormat = cFormats.front();
    if (cFormat.bStepwise)
        return {cFormat.cSteps.max_width, cFormat.cSteps.max_height};
    return cFormat.cSizes.front();
}

// What a driver makes of a format asked for: a format it has, a size it has.
void FakeDevice::adjust(v4l2_pix_format& cPix) const
{
    const FakeFormat* pFormat = find(cPix.pixelformat);
    if (!pFormat)
        pFormat = &cFormats.front();
    cPix.pixelformat = pFormat->nFourcc;
    if (pFormat->bStepwise) {
        const v4l2_frmsize_stepwise& s = pFormat->cSteps;
        cPix.width = std::clamp(cPix.width, s.min_width, s.max_width);
        cPix.height = std::clamp(cPix.height, s.min_height, s.max_height);
        cPix.width -= (cPix.width - s.min_width) % std::max(1u, s.step_width);
        cPix.height -= (cPix.height - s.min_height) % std::max(1u, s.step_height);
    } else if (std::find(pFormat->cSizes.begin(), pFormat->cSizes.end(), std::make_pair(cPix.width, cPix.height)) ==
               pFormat->cSizes.end()) {
        cPix.width = pFormat->cSizes.front().first;
        cPix.height = pFormat->cSizes.front().second;
    }
    cPix.field = V4L2_FIELD_NONE;
    const std::uint32_t nBpp = bytesPerPixel(cPix.pixelformat);
    cPix.bytesperline = nBpp ? cPix.width * nBpp + nPadding : 0;
    cPix.sizeimage = nBpp ? cPix.bytesperline * cPix.height : cPix.width * cPix.height * 2;
}

bool FakeDevice::produce(const std::vector<unsigned char>& cBytes, std::uint32_t nFlags)
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    if (m_cQueued.empty() || !m_bStreaming || m_bUnplugged)
        return false;
    const int nIndex = m_cQueued.front();
    m_cQueued.pop_front();
    Buffer& cBuf = m_cBuffers[static_cast<std::size_t>(nIndex)];
    const std::size_t n = std::min(cBytes.size(), cBuf.cMem.size());
    std::copy(cBytes.begin(), cBytes.begin() + static_cast<std::ptrdiff_t>(n), cBuf.cMem.begin());
    cBuf.nBytesUsed = static_cast<std::uint32_t>(n);
    cBuf.nFlags = nFlags;
    cBuf.nSequence = m_nSequence++;
    cBuf.eState = State::Done;
    m_cDone.push_back(nIndex);
    return true;
}

bool FakeDevice::produceFill(unsigned char nFill, std::uint32_t nFlags)
{
    std::size_t nSize = 0;
    {
        std::lock_guard<std::mutex> cLock(m_cMutex);
        nSize = m_cPix.sizeimage;
    }
    return produce(std::vector<unsigned char>(nSize, nFill), nFlags);
}

void FakeDevice::unplug()
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    m_bUnplugged = true;
}

void FakeDevice::replug()
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    m_bUnplugged = false;
    m_bStreaming = false;
    m_cBuffers.clear();
    m_cQueued.clear();
    m_cDone.clear();
}

int FakeDevice::openFds() const
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    return static_cast<int>(m_cOpen.size());
}

int FakeDevice::mappings() const
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    return m_nMappings;
}

int FakeDevice::buffersWithUser() const
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    return static_cast<int>(std::count_if(m_cBuffers.begin(), m_cBuffers.end(),
                                          [](const Buffer& b) { return b.eState == State::User; }));
}

int FakeDevice::calls(unsigned long nRequest) const
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    const auto it = m_cCalls.find(nRequest);
    return it == m_cCalls.end() ? 0 : it->second;
}

v4l2_pix_format FakeDevice::format() const
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    return m_cPix;
}

std::string FakeDevice::lastOpened() const
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    return m_strLastOpened;
}

bool FakeDevice::contains(const unsigned char* p) const
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    for (const Buffer& cBuf : m_cBuffers)
        if (p >= cBuf.cMem.data() && p < cBuf.cMem.data() + cBuf.cMem.size())
            return true;
    return false;
}

int FakeDevice::open(const std::string& strPath)
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    if (m_bUnplugged || std::find(cNodes.begin(), cNodes.end(), strPath) == cNodes.end())
        return fail(ENOENT);
    if (nOpenErrno)
        return fail(nOpenErrno);
    if (!m_bFormatSet && !cFormats.empty()) {
        m_cPix.pixelformat = cFormats.front().nFourcc;
        m_cPix.width = fullSize().first;
        m_cPix.height = fullSize().second;
        adjust(m_cPix);
        m_cCrop = {0, 0, m_cPix.width, m_cPix.height};
        m_bFormatSet = true;
    }
    m_strLastOpened = strPath;
    m_cOpen[m_nNextFd] = strPath;
    return m_nNextFd++;
}

int FakeDevice::close(int fd)
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    if (!m_cOpen.erase(fd))
        return fail(EBADF);
    if (m_cOpen.empty()) { // the last close stops streaming and frees the buffers
        m_bStreaming = false;
        m_cBuffers.clear();
        m_cQueued.clear();
        m_cDone.clear();
    }
    return 0;
}

void* FakeDevice::mmap(int, std::size_t nLength, off_t nOffset)
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    const std::size_t nIndex = static_cast<std::size_t>(nOffset) / kOffsetStep;
    if (m_bUnplugged || nIndex >= m_cBuffers.size() || nLength > m_cBuffers[nIndex].cMem.size()) {
        errno = EINVAL;
        return nullptr;
    }
    ++m_nMappings;
    return m_cBuffers[nIndex].cMem.data();
}

int FakeDevice::munmap(void*, std::size_t)
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    --m_nMappings;
    return 0;
}

int FakeDevice::poll(int, int nTimeoutMs)
{
    for (int nRound = 0; nRound < 2; ++nRound) {
        {
            std::lock_guard<std::mutex> cLock(m_cMutex);
            if (m_bUnplugged)
                return POLLERR | POLLHUP;
            if (!m_bStreaming)
                return POLLERR;
            if (!m_cDone.empty())
                return POLLIN;
        }
        if (nRound == 0 && fnOnPoll)
            fnOnPoll();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(nTimeoutMs));
    return 0;
}

int FakeDevice::ioctl(int fd, unsigned long nRequest, void* pArg)
{
    std::lock_guard<std::mutex> cLock(m_cMutex);
    ++m_cCalls[nRequest];
    if (!m_cOpen.count(fd))
        return fail(EBADF);
    if (m_bUnplugged)
        return fail(ENODEV);
    return doIoctl(nRequest, pArg);
}

int FakeDevice::doIoctl(unsigned long nRequest, void* pArg)
{
    switch (nRequest) {
    case VIDIOC_QUERYCAP: {
        auto* p = static_cast<v4l2_capability*>(pArg);
        *p = {};
        std::strcpy(reinterpret_cast<char*>(p->driver), "fake");
        const bool bCapture = std::find(cCaptureNodes.begin(), cCaptureNodes.end(), m_strLastOpened) !=
                              cCaptureNodes.end();
        p->device_caps = (bCapture ? V4L2_CAP_VIDEO_CAPTURE : V4L2_CAP_VIDEO_OUTPUT) | V4L2_CAP_STREAMING;
        p->capabilities = p->device_caps | V4L2_CAP_DEVICE_CAPS;
        return 0;
    }
    case VIDIOC_ENUM_FMT: {
        auto* p = static_cast<v4l2_fmtdesc*>(pArg);
        if (p->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || p->index >= cFormats.size())
            return fail(EINVAL);
        p->pixelformat = cFormats[p->index].nFourcc;
        p->flags = bytesPerPixel(p->pixelformat) ? 0 : V4L2_FMT_FLAG_COMPRESSED;
        return 0;
    }
    case VIDIOC_ENUM_FRAMESIZES: {
        auto* p = static_cast<v4l2_frmsizeenum*>(pArg);
        const FakeFormat* pFormat = find(p->pixel_format);
        if (!bEnumFrameSizes)
            return fail(ENOTTY);
        if (!pFormat)
            return fail(EINVAL);
        if (pFormat->bStepwise) {
            if (p->index > 0)
                return fail(EINVAL);
            p->type = V4L2_FRMSIZE_TYPE_STEPWISE;
            p->stepwise = pFormat->cSteps;
            return 0;
        }
        if (p->index >= pFormat->cSizes.size())
            return fail(EINVAL);
        p->type = V4L2_FRMSIZE_TYPE_DISCRETE;
        p->discrete = {pFormat->cSizes[p->index].first, pFormat->cSizes[p->index].second};
        return 0;
    }
    case VIDIOC_G_FMT:
    case VIDIOC_S_FMT:
    case VIDIOC_TRY_FMT: {
        auto* p = static_cast<v4l2_format*>(pArg);
        if (p->type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
            return fail(EINVAL);
        if (nRequest == VIDIOC_G_FMT) {
            p->fmt.pix = m_cPix;
            return 0;
        }
        if (nRequest == VIDIOC_S_FMT && !m_cBuffers.empty())
            return fail(EBUSY);
        adjust(p->fmt.pix);
        if (nRequest == VIDIOC_S_FMT) {
            m_cPix = p->fmt.pix;
            m_cCrop = {0, 0, m_cPix.width, m_cPix.height};
        }
        return 0;
    }
    case VIDIOC_G_SELECTION:
    case VIDIOC_S_SELECTION: {
        auto* p = static_cast<v4l2_selection*>(pArg);
        if (!bCrop)
            return fail(ENOTTY);
        const auto cFull = fullSize();
        if (nRequest == VIDIOC_G_SELECTION) {
            if (p->target == V4L2_SEL_TGT_CROP)
                p->r = m_cCrop;
            else
                p->r = {0, 0, cFull.first, cFull.second};
            return 0;
        }
        if (p->target != V4L2_SEL_TGT_CROP || !m_cBuffers.empty())
            return fail(EINVAL);
        p->r.width = std::min(p->r.width, cFull.first);
        p->r.height = std::min(p->r.height, cFull.second);
        m_cCrop = p->r;
        // No scaler: the frame is the crop rectangle.
        m_cPix.width = m_cCrop.width;
        m_cPix.height = m_cCrop.height;
        const std::uint32_t nBpp = bytesPerPixel(m_cPix.pixelformat);
        m_cPix.bytesperline = nBpp ? m_cPix.width * nBpp + nPadding : 0;
        m_cPix.sizeimage = nBpp ? m_cPix.bytesperline * m_cPix.height : m_cPix.width * m_cPix.height * 2;
        return 0;
    }
    case VIDIOC_G_PARM:
    case VIDIOC_S_PARM: {
        auto* p = static_cast<v4l2_streamparm*>(pArg);
        p->parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
        return 0;
    }
    case VIDIOC_REQBUFS: {
        auto* p = static_cast<v4l2_requestbuffers*>(pArg);
        if (p->memory != V4L2_MEMORY_MMAP || m_bStreaming)
            return fail(EINVAL);
        if (p->count > 0 && nReqbufsErrno)
            return fail(nReqbufsErrno);
        m_cBuffers.assign(p->count, Buffer());
        for (Buffer& cBuf : m_cBuffers)
            cBuf.cMem.assign(m_cPix.sizeimage, 0);
        m_cQueued.clear();
        m_cDone.clear();
        return 0;
    }
    case VIDIOC_QUERYBUF: {
        auto* p = static_cast<v4l2_buffer*>(pArg);
        if (p->index >= m_cBuffers.size())
            return fail(EINVAL);
        p->length = static_cast<std::uint32_t>(m_cBuffers[p->index].cMem.size());
        p->m.offset = p->index * kOffsetStep;
        return 0;
    }
    case VIDIOC_QBUF: {
        auto* p = static_cast<v4l2_buffer*>(pArg);
        if (p->index >= m_cBuffers.size())
            return fail(EINVAL);
        Buffer& cBuf = m_cBuffers[p->index];
        if (cBuf.eState == State::Queued || cBuf.eState == State::Done)
            return fail(EINVAL);
        cBuf.eState = State::Queued;
        m_cQueued.push_back(static_cast<int>(p->index));
        return 0;
    }
    case VIDIOC_DQBUF: {
        auto* p = static_cast<v4l2_buffer*>(pArg);
        if (!m_bStreaming)
            return fail(EINVAL);
        if (m_cDone.empty())
            return fail(EAGAIN);
        const int nIndex = m_cDone.front();
        m_cDone.pop_front();
        Buffer& cBuf = m_cBuffers[static_cast<std::size_t>(nIndex)];
        cBuf.eState = State::User;
        p->index = static_cast<std::uint32_t>(nIndex);
        p->bytesused = cBuf.nBytesUsed;
        p->flags = cBuf.nFlags;
        p->sequence = cBuf.nSequence;
        return 0;
    }
    case VIDIOC_STREAMON:
        if (m_cBuffers.empty())
            return fail(EINVAL);
        m_bStreaming = true;
        return 0;
    case VIDIOC_STREAMOFF:
        m_bStreaming = false;
        for (Buffer& cBuf : m_cBuffers)
            cBuf.eState = State::Idle;
        m_cQueued.clear();
        m_cDone.clear();
        return 0;
    case VIDIOC_QUERYCTRL: {
        auto* p = static_cast<v4l2_queryctrl*>(pArg);
        const auto it = cControls.find(p->id);
        if (it == cControls.end())
            return fail(EINVAL);
        p->type = V4L2_CTRL_TYPE_INTEGER;
        p->minimum = it->second.nMin;
        p->maximum = it->second.nMax;
        p->step = it->second.nStep;
        p->flags = 0;
        return 0;
    }
    case VIDIOC_G_CTRL:
    case VIDIOC_S_CTRL: {
        auto* p = static_cast<v4l2_control*>(pArg);
        const auto it = cControls.find(p->id);
        if (it == cControls.end())
            return fail(EINVAL);
        if (nRequest == VIDIOC_G_CTRL)
            p->value = it->second.nValue;
        else if (p->value < it->second.nMin || p->value > it->second.nMax)
            return fail(ERANGE);
        else
            it->second.nValue = p->value;
        return 0;
    }
    default:
        return fail(ENOTTY);
    }
}
