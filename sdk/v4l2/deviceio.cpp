// SPDX-License-Identifier: LGPL-2.1-or-later
#include "deviceio.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace torvane_v4l2 {

namespace {

class SystemIo : public DeviceIo
{
public:
    int open(const std::string& strPath) override
    {
        return ::open(strPath.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    }

    int close(int fd) override { return ::close(fd); }

    int ioctl(int fd, unsigned long nRequest, void* pArg) override
    {
        int nResult;
        do
            nResult = ::ioctl(fd, nRequest, pArg);
        while (nResult == -1 && errno == EINTR);
        return nResult;
    }

    void* mmap(int fd, std::size_t nLength, off_t nOffset) override
    {
        void* p = ::mmap(nullptr, nLength, PROT_READ | PROT_WRITE, MAP_SHARED, fd, nOffset);
        return p == MAP_FAILED ? nullptr : p;
    }

    int munmap(void* pAddr, std::size_t nLength) override { return ::munmap(pAddr, nLength); }

    int poll(int fd, int nTimeoutMs) override
    {
        pollfd cPoll = {fd, POLLIN, 0};
        const int nResult = ::poll(&cPoll, 1, nTimeoutMs);
        if (nResult <= 0)
            return nResult;
        return cPoll.revents;
    }

    std::vector<std::string> videoDevices() override
    {
        // /dev/videoN by number, so that video10 comes after video2.
        std::vector<std::pair<long, std::string>> cFound;
        if (DIR* pDir = opendir("/dev")) {
            while (dirent* pEntry = readdir(pDir)) {
                const char* szName = pEntry->d_name;
                if (std::strncmp(szName, "video", 5) != 0 || szName[5] == '\0')
                    continue;
                char* pEnd = nullptr;
                const long nNumber = std::strtol(szName + 5, &pEnd, 10);
                if (*pEnd == '\0')
                    cFound.emplace_back(nNumber, std::string("/dev/") + szName);
            }
            closedir(pDir);
        }
        std::sort(cFound.begin(), cFound.end());
        std::vector<std::string> cPaths;
        for (auto& cEntry : cFound)
            cPaths.push_back(std::move(cEntry.second));
        return cPaths;
    }
};

} // namespace

std::unique_ptr<DeviceIo> systemIo()
{
    return std::make_unique<SystemIo>();
}

} // namespace torvane_v4l2
