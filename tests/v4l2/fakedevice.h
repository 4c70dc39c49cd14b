// SPDX-License-Identifier: LGPL-2.1-or-later
// A fake V4L2 capture device behind the V4L2 camera's DeviceIo seam: the few
// ioctls the camera uses, with mmap buffers in memory. Tests configure it,
// then make frames complete with produce() (directly, or from onPoll while
// the camera waits), flag them as errors, or unplug the device.
#ifndef KAVREL_TESTS_V4L2_FAKEDEVICE_H
#define KAVREL_TESTS_V4L2_FAKEDEVICE_H

#include <linux/videodev2.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
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
    int nOpenErrno = 0;      // open() fails with it
    int nReqbufsErrno = 0;   // REQBUFS with buffers fails with it
    std::vector<FakeFormat> cFormats;
    std::map<std::uint32_t, FakeControl> cControls;
    bool bEnumFrameSizes = true;
    std::uint32_t nPadding = 0; // bytes after each line of uncompressed formats
    bool bCrop = false;         // crops (without scaling) within the first size

    // --- test controls -------------------------------------------------------
    // Completes the next queued buffer with these bytes (or the byte nFill
    // throughout); false when the driver has no buffer queued.
    bool produce(const std::vector<unsigned char>& cBytes, std::uint32_t nFlags = 0);
    bool produceFill(unsigned char nFill, std::uint32_t nFlags = 0);
    // Called whenever the camera polls and no frame is waiting.
    std::function<void()> fnOnPoll;
    void unplug();
    void replug();

    // --- observations --------------------------------------------------------
    int openFds() const;
    int mappings() const;
    int buffersWithUser() const;
    int calls(unsigned long nRequest) const;
    v4l2_pix_format format() const;
    std::string lastOpened() const;
    bool contains(const unsigned char* p) const; // lies in a mapped buffer
    static std::uint32_t bytesPerPixel(std::uint32_t nFourcc);

    // --- DeviceIo ------------------------------------------------------------
    int open(const std::string& strPath) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long nRequest, void* pArg) override;
    void* mmap(int fd, std::size_t nLength, off_t nOffset) override;
    int munmap(void* pAddr, std::size_t nLength) override;
    int poll(int fd, int nTimeoutMs) override;
    std::vector<std::string> videoDevices() override { return cNodes; }

private:
    enum class State { Idle, Queued, Done, User };
    struct Buffer {
        std::vector<unsigned char> cMem;
        State eState = State::Idle;
        std::uint32_t nBytesUsed = 0;
        std::uint32_t nFlags = 0;
        std::uint32_t nSequence = 0;
    };

    int doIoctl(unsigned long nRequest, void* pArg);
    const FakeFormat* find(std::uint32_t nFourcc) const;
    void adjust(v4l2_pix_format& cPix) const;
    std::pair<std::uint32_t, std::uint32_t> fullSize() const;

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
    std::uint32_t m_nSequence = 0;
    std::map<unsigned long, int> m_cCalls;
};

#endif
