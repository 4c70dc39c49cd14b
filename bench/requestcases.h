// SPDX-License-Identifier: LGPL-2.1-or-later
// The image request cases both benchmarks time, and the configuration that
// makes each: a host's request as the driver sees it, frames from the
// simulated camera, video mode.
#pragma once

#include <cstddef>
#include <cstdio>

namespace kavrelbench {

struct RequestCase {
    const char* pszName;
    int nPixFmt;      // <PixFmt> code: 0 grey, 1 BGR
    int nFrameBytes;  // bytes per pixel of the sensor
    const char* pszGamma;
};

inline constexpr RequestCase kRequestCases[] = {
    {"Request BGR gamma 1.0 (3-byte frames)", 1, 3, "1.00"},
    {"Request BGR gamma 0.5 (3-byte frames)", 1, 3, "0.50"},
    {"Request grey (3-byte frames)", 0, 3, "1.00"},
    {"Request grey (1-byte frames)", 0, 1, "1.00"},
    {"Request BGR (1-byte frames)", 1, 1, "1.00"},
};

inline void formatRequestConfig(char* pszOut, std::size_t nSize, const RequestCase& c)
{
    std::snprintf(pszOut, nSize,
                  "<PixFmt>%d</PixFmt><ROI>0,0</ROI><Settings><Gamma>%s</Gamma><TriggerType>Video</TriggerType></Settings>",
                  c.nPixFmt, c.pszGamma);
}

} // namespace kavrelbench
