// SPDX-License-Identifier: LGPL-2.1-or-later
#include "imaging/framekernels.h"

#include "imaging/convertkernels.h"
#include "imaging/convertreference.h"

#include <cmath>
#include <cstring>

namespace kavrel {

bool gammaActive(float fGamma)
{
    const float fDiff = std::fabs(fGamma - 1.0f);
    return static_cast<double>(fDiff) > 0.01;
}

void buildGammaTable(float fGamma, unsigned char table[256])
{
    ref::buildGammaTable(fGamma, table);
}

void transferCopy(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut)
{
    if (lut)
        pixelKernels().lutCopy(pSrc, pDst, n, lut);
    else
        std::memcpy(pDst, pSrc, n);
}

void transferExpand3(const unsigned char* pSrc, unsigned char* pDst, std::size_t nPixels, const unsigned char* lut)
{
    pixelKernels().expand3(pSrc, pDst, nPixels, lut);
}

void transferGrey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t nPixels, const unsigned char* lut)
{
    const PixelKernels& k = pixelKernels();
    if (!lut) {
        k.grey3To1(pSrc, pDst, nPixels);
        return;
    }
    // The table goes over each block while it is still in the first-level cache.
    const std::size_t kBlock = 4096;
    for (std::size_t i = 0; i < nPixels; i += kBlock) {
        const std::size_t n = nPixels - i < kBlock ? nPixels - i : kBlock;
        k.grey3To1(pSrc + 3 * i, pDst + i, n);
        k.lutCopy(pDst + i, pDst + i, n, lut);
    }
}

void applyTable(unsigned char* pBuf, std::size_t n, const unsigned char* lut)
{
    pixelKernels().lutCopy(pBuf, pBuf, n, lut);
}

} // namespace kavrel
