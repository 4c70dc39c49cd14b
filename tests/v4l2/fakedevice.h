// SPDX-License-Identifier: LGPL-2.1-or-later
// A fake V4L2 capture device behind the V4L2 camera's DeviceIo seam: only the
// ioctls the camera's tests exercise, with mmap buffers in memory. Tests
// configure it, then make frames complete with produce() (directly, or from
// fnOnPoll while the camera waits), flag them as errors, or unplug it.
#ifndef KAVREL_TESTS_V4L2_FAKEDEVICE_H
#define KAVREL_TESTS_V4L2_FAKEDEVICE_H

#include <linux/videodev2.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "deviceio.h"

struct FakeFormat {
    std::uint32_t nFourcc = 0;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> cSizes; // discrete sizes
    bool bStepwise = false;
    v4l2_frmsize_stepwise cSteps = {};
};

struct FakeControl {
    std::int32_t nMin = 0;
    std::int32_t nMax = 0;
    std::int32_t nStep = 1;
    std::int32_t nValue = 0;
};

class FakeDevice : public torvane_v4l2::DeviceIo
{
public:
    // --- configuration -------------------------------------------------------
    std::vector<std::string> cNodes = {"/dev/video0"};
    std::vector<std::string> cCaptureNodes = {"/dev/video0"}; // the others only output
    int nOpenErrno = 0;    // open() fails with it
    int nReqbufsErrno = 0; // REQBUFS with buffers fails with it
    std::vector<FakeFormat> cFormats;
    std::map<std::uint32_t, FakeControl> cControls;
    bool bEnumFrameSizes = true;
    std::uint32_t nPadding = 0; // bytes after each line of uncompressed formats
    bool bCrop = false;         // crops (without scaling) within the first size
    // Called whenever the camera polls and no frame is waiting.
    std::function<void()> fnOnPoll;

    // Completes the next queued buffer with these bytes; false when the
    // driver has no buffer queued.
    bool produce(const std::vector<unsigned char>& cBytes, std::uint32_t nFlags = 0)
    {
        std::lock_guard<std::mutex> cLock(m_cMutex);
        if (m_cQueued.empty() || !m_bStreaming || m_bUnplugged)
            return false;
        const int nIndex = m_cQueued.front();
        m_cQueued.pop_front();
        Buffer& cBuf = m_cBuffers[static_cast<std::size_t>(nIndex)];
        const std::size_t n = std::min(cBytes.size(), cBuf.cMem.size());
        std::copy_n(cBytes.begin(), n, cBuf.cMem.begin());
        cBuf.nBytesUsed = static_cast<std::uint32_t>(n);
        cBuf.nFlags = nFlags;
        cBuf.eState = State::Done;
        m_cDone.push_back(nIndex);
        return true;
    }
    bool produceFill(unsigned char nFill, std::uint32_t nFlags = 0)
    {
        return produce(std::vector<unsigned char>(format().sizeimage, nFill), nFlags);
    }
    void unplug() { locked([&] { m_bUnplugged = true; }); }
    void replug()
    {
        locked([&] {
            m_bUnplugged = false;
            stopAndFree();
        });
    }

    // --- observations --------------------------------------------------------
    int openFds() const { return locked([&] { return static_cast<int>(m_cOpen.size()); }); }
    int mappings() const { return locked([&] { return m_nMappings; }); }
    v4l2_pix_format format() const { return locked([&] { return m_cPix; }); }
    int buffersWithUser() const
    {
        return locked([&] {
            return static_cast<int>(std::count_if(m_cBuffers.begin(), m_cBuffers.end(),
                                                  [](const Buffer& b) { return b.eState == State::User; }));
        });
    }
    bool contains(const unsigned char* p) const // lies in a mapped buffer
    {
        return locked([&] {
            return std::any_of(m_cBuffers.begin(), m_cBuffers.end(), [p](const Buffer& b) {
                return p >= b.cMem.data() && p < b.cMem.data() + b.cMem.size();
            });
        });
    }

    // --- DeviceIo ------------------------------------------------------------
    int open(const std::string& strPath) override
    {
        std::lock_guard<std::mutex> cLock(m_cMutex);
        if (m_bUnplugged || std::find(cNodes.begin(), cNodes.end(), strPath) == cNodes.end())
            return fail(ENOENT);
        if (nOpenErrno)
            return fail(nOpenErrno);
        if (!m_bFormatSet && !cFormats.empty()) {
            m_cPix.pixelformat = cFormats.front().nFourcc;
            std::tie(m_cPix.width, m_cPix.height) = fullSize();
            adjust(m_cPix);
            m_cCrop = {0, 0, m_cPix.width, m_cPix.height};
            m_bFormatSet = true;
        }
        m_strLastOpened = strPath;
        m_cOpen[m_nNextFd] = strPath;
        return m_nNextFd++;
    }
    int close(int fd) override
    {
        std::lock_guard<std::mutex> cLock(m_cMutex);
        if (!m_cOpen.erase(fd))
            return fail(EBADF);
        if (m_cOpen.empty()) // the last close stops streaming and frees the buffers
            stopAndFree();
        return 0;
    }
    void* mmap(int, std::size_t nLength, off_t nOffset) override
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
    int munmap(void*, std::size_t) override
    {
        locked([&] { --m_nMappings; });
        return 0;
    }
    int poll(int, int nTimeoutMs) override
    {
        for (int nRound = 0; nRound < 2; ++nRound) {
            const int nEvents = locked([&] {
                return m_bUnplugged ? POLLERR | POLLHUP : !m_bStreaming ? POLLERR : m_cDone.empty() ? 0 : POLLIN;
            });
            if (nEvents)
                return nEvents;
            if (nRound == 0 && fnOnPoll)
                fnOnPoll();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(nTimeoutMs));
        return 0;
    }
    int ioctl(int fd, unsigned long nRequest, void* pArg) override
    {
        std::lock_guard<std::mutex> cLock(m_cMutex);
        if (!m_cOpen.count(fd))
            return fail(EBADF);
        if (m_bUnplugged)
            return fail(ENODEV);
        return doIoctl(nRequest, pArg);
    }
    std::vector<std::string> videoDevices() override { return cNodes; }

private:
    static constexpr std::uint32_t kOffsetStep = 1u << 20;
    enum class State { Idle, Queued, Done, User };
    struct Buffer {
        std::vector<unsigned char> cMem;
        State eState = State::Idle;
        std::uint32_t nBytesUsed = 0;
        std::uint32_t nFlags = 0;
    };

    static int fail(int nError)
    {
        errno = nError;
        return -1;
    }
    template <typename F> std::invoke_result_t<F&> locked(F fn) const
    {
        std::lock_guard<std::mutex> cLock(m_cMutex);
        return fn();
    }
    static std::uint32_t bytesPerPixel(std::uint32_t nFourcc)
    {
        switch (nFourcc) {
        case V4L2_PIX_FMT_BGR24: return 3;
        case V4L2_PIX_FMT_YUYV: return 2;
        case V4L2_PIX_FMT_GREY: return 1;
        default: return 0; // compressed
        }
    }
    const FakeFormat* find(std::uint32_t nFourcc) const
    {
        const auto it = std::find_if(cFormats.begin(), cFormats.end(),
                                     [nFourcc](const FakeFormat& f) { return f.nFourcc == nFourcc; });
        return it == cFormats.end() ? nullptr : &*it;
    }
    std::pair<std::uint32_t, std::uint32_t> fullSize() const
    {
        const FakeFormat& cFormat = cFormats.front();
        return cFormat.bStepwise ? std::make_pair(cFormat.cSteps.max_width, cFormat.cSteps.max_height)
                                 : cFormat.cSizes.front();
    }
    void setLayout(v4l2_pix_format& cPix) const
    {
        const std::uint32_t nBpp = bytesPerPixel(cPix.pixelformat);
        cPix.field = V4L2_FIELD_NONE;
        cPix.bytesperline = nBpp ? cPix.width * nBpp + nPadding : 0;
        cPix.sizeimage = nBpp ? cPix.bytesperline * cPix.height : cPix.width * cPix.height * 2;
    }
    // What a driver makes of a format asked for: a format it has, a size it has.
    void adjust(v4l2_pix_format& cPix) const
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
        } else if (std::find(pFormat->cSizes.begin(), pFormat->cSizes.end(),
                             std::make_pair(cPix.width, cPix.height)) == pFormat->cSizes.end()) {
            std::tie(cPix.width, cPix.height) = pFormat->cSizes.front();
        }
        setLayout(cPix);
    }
    void stopAndFree()
    {
        m_bStreaming = false;
        m_cBuffers.clear();
        m_cQueued.clear();
        m_cDone.clear();
    }
    int doIoctl(unsigned long nRequest, void* pArg);

    mutable std::mutex m_cMutex;
    std::map<int, std::string> m_cOpen;
    int m_nNextFd = 100;
    int m_nMappings = 0;
    std::string m_strLastOpened;
    bool m_bUnplugged = false;
    bool m_bStreaming = false;
    bool m_bFormatSet = false;
    v4l2_pix_format m_cPix = {};
    v4l2_rect m_cCrop = {};
    std::vector<Buffer> m_cBuffers;
    std::deque<int> m_cQueued;
    std::deque<int> m_cDone;
};

#endif
