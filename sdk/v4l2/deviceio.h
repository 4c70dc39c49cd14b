// SPDX-License-Identifier: LGPL-2.1-or-later
// The thin seam between the V4L2 camera and the kernel: every system call the
// camera makes on a video device goes through a DeviceIo. The real one
// (systemIo) calls the kernel; tests put a fake device behind it.
#ifndef KAVREL_SDK_V4L2_DEVICEIO_H
#define KAVREL_SDK_V4L2_DEVICEIO_H

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace torvane_v4l2 {

class DeviceIo
{
public:
    virtual ~DeviceIo() = default;

    // Opens a device node read-write and non-blocking; -1 with errno set.
    virtual int open(const std::string& strPath) = 0;
    virtual int close(int fd) = 0;
    // ioctl(2); -1 with errno set. Interrupted calls are retried.
    virtual int ioctl(int fd, unsigned long nRequest, void* pArg) = 0;
    // Maps a buffer shared, read-write; nullptr with errno set.
    virtual void* mmap(int fd, std::size_t nLength, off_t nOffset) = 0;
    virtual int munmap(void* pAddr, std::size_t nLength) = 0;
    // Waits up to nTimeoutMs for the device to be readable. Returns the
    // events (POLLIN, POLLERR, ...), 0 on time-out, -1 with errno set.
    virtual int poll(int fd, int nTimeoutMs) = 0;
    // Candidate device nodes, in the order the first capture device is looked
    // for (/dev/video0, /dev/video1, ...).
    virtual std::vector<std::string> videoDevices() = 0;
};

std::unique_ptr<DeviceIo> systemIo();

} // namespace torvane_v4l2

#endif
