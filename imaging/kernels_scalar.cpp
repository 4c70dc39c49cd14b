// Portable kernels: the baseline on every processor (SSE2 code on x86-64, VFP
// on ARM without NEON) and the row ends of the SIMD sets.

#include "imaging/convertkernels.h"
#include "imaging/convertreference.h"

#include <cstring>

namespace kavrel {
namespace scalar {

const unsigned char kGroupPos[4][4] = {
    {0, 1, 2, 3},
    {0, 3, 2, 1},
    {3, 2, 1, 0},
    {3, 0, 1, 2},
};

namespace {

inline unsigned char clampByte(int n)
{
    return static_cast<unsigned char>(n < 0 ? 0 : (n > 255 ? 255 : n));
}

} // namespace

void yuvPixelBgr(int nY, int nU, int nV, unsigned char* pOut)
{
    int b, g, r;
    ref::yuvToBgrUnclamped(nY, nU, nV, b, g, r);
    pOut[0] = clampByte(b);
    pOut[1] = clampByte(g);
    pOut[2] = clampByte(r);
}

unsigned char yuvPixelGray(int nY, int nU, int nV)
{
    int b, g, r;
    ref::yuvToBgrUnclamped(nY, nU, nV, b, g, r);
    return clampByte(ref::weightedGrey(b, g, r));
}

namespace {

void yuvToBgr(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    const unsigned char* pos = kGroupPos[nType];
    for (std::size_t i = 0; i < nPairs; ++i, pSrc += 4, pDst += 6) {
        const int u = pSrc[pos[1]], v = pSrc[pos[3]];
        yuvPixelBgr(pSrc[pos[0]], u, v, pDst);
        yuvPixelBgr(pSrc[pos[2]], u, v, pDst + 3);
    }
}

void yuvToGray(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    const unsigned char* pos = kGroupPos[nType];
    for (std::size_t i = 0; i < nPairs; ++i, pSrc += 4, pDst += 2) {
        const int u = pSrc[pos[1]], v = pSrc[pos[3]];
        pDst[0] = yuvPixelGray(pSrc[pos[0]], u, v);
        pDst[1] = yuvPixelGray(pSrc[pos[2]], u, v);
    }
}

void bgrToGray(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i, pSrc += 3)
        pDst[i] = static_cast<unsigned char>(ref::weightedGrey(pSrc[0], pSrc[1], pSrc[2]));
}

void expand3(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut)
{
    if (lut) {
        for (std::size_t i = 0; i < n; ++i, pDst += 3)
            pDst[0] = pDst[1] = pDst[2] = lut[pSrc[i]];
    } else {
        for (std::size_t i = 0; i < n; ++i, pDst += 3)
            pDst[0] = pDst[1] = pDst[2] = pSrc[i];
    }
}

void swapRB(unsigned char* pBuf, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i, pBuf += 3) {
        const unsigned char t = pBuf[0];
        pBuf[0] = pBuf[2];
        pBuf[2] = t;
    }
}

} // namespace

void lutCopy(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut)
{
    std::size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const unsigned char a = lut[pSrc[i]], b = lut[pSrc[i + 1]];
        const unsigned char c = lut[pSrc[i + 2]], d = lut[pSrc[i + 3]];
        pDst[i] = a;
        pDst[i + 1] = b;
        pDst[i + 2] = c;
        pDst[i + 3] = d;
    }
    for (; i < n; ++i)
        pDst[i] = lut[pSrc[i]];
}

namespace {

void grey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i, pSrc += 3)
        pDst[i] = ref::grey3To1(pSrc);
}

} // namespace

const PixelKernels kKernels = {
    "scalar", yuvToBgr, yuvToGray, bgrToGray, expand3, swapRB, lutCopy, grey3To1,
};

} // namespace scalar
} // namespace kavrel
