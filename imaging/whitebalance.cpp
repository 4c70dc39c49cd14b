// SPDX-License-Identifier: LGPL-2.1-or-later
#include "imaging/whitebalance.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace kavrel {

namespace {

const int kMaxBrightness = 3 * 255;
// The white surface is the brightest tenth of the frame at most.
const double kWhiteSurfaceShare = 0.1;
const float kPercent = 100.0f;
// 2^31: the first float above INT_MAX; its negation is INT_MIN exactly.
const float kIntRange = 2147483648.0f;
const int kMaxGainPercent = 200;

struct Frame {
    const unsigned char* pBytes;
    int nWidth;
    int nBytesPerLine;
    int nHeight;
    int nRed;  // byte of red in a pixel; green is byte 1
    int nBlue; // byte of blue

    // Calls fn(pixel) for every pixel, row by row.
    template <typename F>
    void forEachPixel(F&& fn) const
    {
        for (int y = 0; y < nHeight; ++y) {
            const unsigned char* pRow = pBytes + static_cast<std::size_t>(y) * static_cast<std::size_t>(nBytesPerLine);
            for (int x = 0; x < nWidth; ++x)
                fn(pRow + 3 * static_cast<std::size_t>(x));
        }
    }

    float pixelCount() const { return static_cast<float>(static_cast<long long>(nWidth) * nHeight); }
};

int brightness(const unsigned char* pPixel)
{
    return pPixel[0] + pPixel[1] + pPixel[2];
}

// Sums wrap like the 32-bit counters they are.
struct Means {
    std::uint32_t nSumR = 0;
    std::uint32_t nSumG = 0;
    std::uint32_t nSumB = 0;

    void add(const Frame& cFrame, const unsigned char* pPixel)
    {
        nSumR += pPixel[cFrame.nRed];
        nSumG += pPixel[1];
        nSumB += pPixel[cFrame.nBlue];
    }

    WhiteBalanceGains gains(float fCount) const
    {
        const float fMeanR = static_cast<float>(nSumR) / fCount;
        const float fMeanG = static_cast<float>(nSumG) / fCount;
        const float fMeanB = static_cast<float>(nSumB) / fCount;
        const float fAvg = (fMeanR + fMeanG + fMeanB) / 3.0f;
        auto percent = [fAvg](float fMean) { return std::clamp(gainToPercent(fAvg / fMean), 0, kMaxGainPercent); };
        return {percent(fMeanR), percent(fMeanG), percent(fMeanB)};
    }
};

WhiteBalanceGains wholeFrame(const Frame& cFrame)
{
    Means cMeans;
    cFrame.forEachPixel([&](const unsigned char* p) { cMeans.add(cFrame, p); });
    return cMeans.gains(cFrame.pixelCount());
}

// The brightness level at which the running count, from the brightest level
// down, first exceeds a tenth of the frame; 0 when it never does.
int whiteSurfaceThreshold(const Frame& cFrame)
{
    std::array<long long, kMaxBrightness + 1> aHistogram{};
    cFrame.forEachPixel([&](const unsigned char* p) { ++aHistogram[static_cast<std::size_t>(brightness(p))]; });
    const double dTarget = static_cast<double>(static_cast<long long>(cFrame.nWidth) * cFrame.nHeight) *
                           kWhiteSurfaceShare;
    long long nTotal = 0;
    for (int nLevel = kMaxBrightness; nLevel >= 0; --nLevel) {
        nTotal += aHistogram[static_cast<std::size_t>(nLevel)];
        if (static_cast<double>(nTotal) > dTarget)
            return nLevel;
    }
    return 0;
}

WhiteBalanceGains whiteSurface(const Frame& cFrame)
{
    const int nThreshold = whiteSurfaceThreshold(cFrame);
    Means cMeans;
    std::uint32_t nCount = 0;
    cFrame.forEachPixel([&](const unsigned char* p) {
        if (brightness(p) > nThreshold) {
            ++nCount;
            cMeans.add(cFrame, p);
        }
    });
    return cMeans.gains(static_cast<float>(nCount));
}

} // namespace

int gainToPercent(float fGain)
{
    const float fPercent = fGain * kPercent;
    if (std::isnan(fPercent))
        return 0;
    if (fPercent >= kIntRange)
        return INT_MAX;
    if (fPercent <= -kIntRange)
        return INT_MIN;
    return static_cast<int>(fPercent);
}

std::optional<WhiteBalanceGains> measureWhiteBalance(const unsigned char* pFrame, int nWidth, int nBytesPerLine,
                                                     int nHeight, ChannelOrder eOrder, WhiteReference eReference)
{
    if (!pFrame || nWidth < 1 || nHeight < 1 || 3LL * nWidth > nBytesPerLine)
        return std::nullopt;
    const int nRed = eOrder == ChannelOrder::RGB ? 0 : 2;
    const Frame cFrame{pFrame, nWidth, nBytesPerLine, nHeight, nRed, 2 - nRed};
    return eReference == WhiteReference::WholeFrame ? wholeFrame(cFrame) : whiteSurface(cFrame);
}

} // namespace kavrel
