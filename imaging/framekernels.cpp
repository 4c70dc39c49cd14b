#include "imaging/framekernels.h"

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
    for (int i = 0; i < 256; ++i) {
        const float fBase = static_cast<float>(i) / 255.0f;
        const double dValue = std::pow(static_cast<double>(fBase), static_cast<double>(fGamma)) * 255.0;
        table[i] = static_cast<unsigned char>(static_cast<int>(dValue));
    }
}

void transferCopy(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut)
{
    if (!lut) {
        std::memcpy(pDst, pSrc, n);
        return;
    }
    for (std::size_t i = 0; i < n; ++i)
        pDst[i] = lut[pSrc[i]];
}

void transferExpand3(const unsigned char* pSrc, unsigned char* pDst, std::size_t nPixels, const unsigned char* lut)
{
    for (std::size_t i = 0; i < nPixels; ++i) {
        const unsigned char v = lut ? lut[pSrc[i]] : pSrc[i];
        pDst[3 * i] = v;
        pDst[3 * i + 1] = v;
        pDst[3 * i + 2] = v;
    }
}

void transferGrey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t nPixels, const unsigned char* lut)
{
    for (std::size_t i = 0; i < nPixels; ++i) {
        const unsigned char* p = pSrc + 3 * i;
        double d = p[1] * 0.6;
        d += p[2] * 0.25;
        d += p[0] * 0.15;
        const unsigned char v = static_cast<unsigned char>(static_cast<int>(d));
        pDst[i] = lut ? lut[v] : v;
    }
}

void applyTable(unsigned char* pBuf, std::size_t n, const unsigned char* lut)
{
    for (std::size_t i = 0; i < n; ++i)
        pBuf[i] = lut[pBuf[i]];
}

} // namespace kavrel
