// SPDX-License-Identifier: LGPL-2.1-or-later
#include "fakedevice.h"

// Any other request fails with ENOTTY, as a driver without it would answer.
int FakeDevice::doIoctl(unsigned long nRequest, void* pArg)
{
    switch (nRequest) {
    case VIDIOC_QUERYCAP: {
        auto* p = static_cast<v4l2_capability*>(pArg);
        *p = {};
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
        if (!pFormat || p->index >= (pFormat->bStepwise ? 1 : pFormat->cSizes.size()))
            return fail(EINVAL);
        p->type = pFormat->bStepwise ? V4L2_FRMSIZE_TYPE_STEPWISE : V4L2_FRMSIZE_TYPE_DISCRETE;
        if (pFormat->bStepwise)
            p->stepwise = pFormat->cSteps;
        else
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
            p->r = p->target == V4L2_SEL_TGT_CROP ? m_cCrop : v4l2_rect{0, 0, cFull.first, cFull.second};
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
        setLayout(m_cPix);
        return 0;
    }
    case VIDIOC_REQBUFS: {
        auto* p = static_cast<v4l2_requestbuffers*>(pArg);
        if (p->memory != V4L2_MEMORY_MMAP || m_bStreaming)
            return fail(EINVAL);
        if (p->count > 0 && nReqbufsErrno)
            return fail(nReqbufsErrno);
        stopAndFree();
        m_cBuffers.assign(p->count, Buffer());
        for (Buffer& cBuf : m_cBuffers)
            cBuf.cMem.assign(m_cPix.sizeimage, 0);
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
        if (p->index >= m_cBuffers.size() || m_cBuffers[p->index].eState == State::Queued ||
            m_cBuffers[p->index].eState == State::Done)
            return fail(EINVAL);
        m_cBuffers[p->index].eState = State::Queued;
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
