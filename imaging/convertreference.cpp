// SPDX-License-Identifier: LGPL-2.1-or-later
#include "imaging/convertreference.h"

#include <cmath>
#include <cstring>

namespace kavrel {
namespace ref {

namespace {

// Byte positions of Y0, U, Y1, V inside a four-byte group, per YUV422_Type.
const int kGroupPos[4][4] = {
    {0, 1, 2, 3}, // Y0 U Y1 V
    {0, 3, 2, 1}, // Y0 V Y1 U
    {3, 2, 1, 0}, // V Y1 U Y0
    {3, 0, 1, 2}, // U Y1 V Y0
};

unsigned char clampByte(int n)
{
    return static_cast<unsigned char>(n < 0 ? 0 : (n > 255 ? 255 : n));
}

// Walks the pixel pairs of a YUV image and hands every pixel with its
// destination index (0 .. width * height - 1) to fn. Only whole pairs are
// converted; an odd last pixel is left alone.
template <typename Fn>
void forEachYuvPixel(int nType, const unsigned char* pSrc, int nWidth, int nHeight, Fn fn)
{
    if (nType < 0 || nType > 3 || nWidth < 1 || nHeight < 1)
        return;
    const int* pos = kGroupPos[nType];
    const long nPairs = static_cast<long>(nWidth) * nHeight / 2;
    for (long i = 0; i < nPairs; ++i) {
        const unsigned char* g = pSrc + 4 * i;
        fn(2 * i, g[pos[0]], g[pos[1]], g[pos[3]]);
        fn(2 * i + 1, g[pos[2]], g[pos[1]], g[pos[3]]);
    }
}

} // namespace

void yuvToBgrUnclamped(int nY, int nU, int nV, int& nB, int& nG, int& nR)
{
    const int c = 1164 * (nY - 16);
    const int d = nU - 128;
    const int e = nV - 128;
    nB = (c + 2018 * d) / 1000;
    nG = (c - 813 * e - 380 * d) / 1000;
    nR = (c + 1159 * e) / 1000;
}

int weightedGrey(int nB, int nG, int nR)
{
    const double dGrey = ((nG * 0.587) + (nR * 0.299)) + (nB * 0.114);
    return static_cast<int>(dGrey);
}

unsigned char grey3To1(const unsigned char* p)
{
    double d = p[1] * 0.6;
    d += p[2] * 0.25;
    d += p[0] * 0.15;
    return static_cast<unsigned char>(static_cast<int>(d));
}

void yuv422ToDib(int nType, const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight)
{
    const long nStride = dibStride(nWidth);
    forEachYuvPixel(nType, pSrc, nWidth, nHeight, [&](long nPixel, int y, int u, int v) {
        int b, g, r;
        yuvToBgrUnclamped(y, u, v, b, g, r);
        unsigned char* p = pDst + (nPixel / nWidth) * nStride + 3 * (nPixel % nWidth);
        p[0] = clampByte(b);
        p[1] = clampByte(g);
        p[2] = clampByte(r);
    });
}

void yuv422ToGray8(int nType, const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight)
{
    forEachYuvPixel(nType, pSrc, nWidth, nHeight, [&](long nPixel, int y, int u, int v) {
        int b, g, r;
        yuvToBgrUnclamped(y, u, v, b, g, r);
        pDst[nPixel] = clampByte(weightedGrey(b, g, r));
    });
}

void dibToGray(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight, long nDstStride)
{
    const long nStride = dibStride(nWidth);
    for (int y = 0; y < nHeight; ++y)
        for (int x = 0; x < nWidth; ++x) {
            const unsigned char* p = pSrc + y * nStride + 3 * x;
            pDst[y * nDstStride + x] = static_cast<unsigned char>(weightedGrey(p[0], p[1], p[2]));
        }
}

void grayToDib(const unsigned char* pSrc, long nSrcStride, unsigned char* pDst, int nWidth, int nHeight)
{
    const long nStride = dibStride(nWidth);
    for (int y = 0; y < nHeight; ++y)
        for (int x = 0; x < nWidth; ++x) {
            unsigned char* p = pDst + y * nStride + 3 * x;
            p[0] = p[1] = p[2] = pSrc[y * nSrcStride + x];
        }
}

void grayRowCopy(const unsigned char* pSrc, long nSrcStride, unsigned char* pDst, long nDstStride, int nWidth, int nHeight)
{
    if (nWidth < 1)
        return;
    for (int y = 0; y < nHeight; ++y)
        std::memcpy(pDst + y * nDstStride, pSrc + y * nSrcStride, static_cast<std::size_t>(nWidth));
}

void exgRB(unsigned char* pBuf, int nWidth, int nHeight)
{
    const long nStride = dibStride(nWidth);
    for (int y = 0; y < nHeight; ++y)
        for (int x = 0; x < nWidth; ++x) {
            unsigned char* p = pBuf + y * nStride + 3 * x;
            const unsigned char t = p[0];
            p[0] = p[2];
            p[2] = t;
        }
}

void buildGammaTable(float fGamma, unsigned char table[256])
{
    for (int i = 0; i < 256; ++i) {
        const float fBase = static_cast<float>(i) / 255.0f;
        const double dValue = std::pow(static_cast<double>(fBase), static_cast<double>(fGamma)) * 255.0;
        // Only gammas <= 0 (or NaN) leave 0 .. 255, pow(0, g) being 1 or
        // infinite there: clamp instead of converting an out-of-range double.
        table[i] = !(dValue < 255.0) ? 255 : static_cast<unsigned char>(static_cast<int>(dValue));
    }
}

void transferCopy(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut)
{
    for (std::size_t i = 0; i < n; ++i)
        pDst[i] = lut ? lut[pSrc[i]] : pSrc[i];
}

void transferExpand3(const unsigned char* pSrc, unsigned char* pDst, std::size_t nPixels, const unsigned char* lut)
{
    for (std::size_t i = 0; i < nPixels; ++i) {
        const unsigned char v = lut ? lut[pSrc[i]] : pSrc[i];
        pDst[3 * i] = pDst[3 * i + 1] = pDst[3 * i + 2] = v;
    }
}

void transferGrey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t nPixels, const unsigned char* lut)
{
    for (std::size_t i = 0; i < nPixels; ++i) {
        const unsigned char v = grey3To1(pSrc + 3 * i);
        pDst[i] = lut ? lut[v] : v;
    }
}

} // namespace ref
} // namespace kavrel
