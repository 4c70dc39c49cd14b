// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_IMAGING_KERNELS_X86_H
#define KAVREL_IMAGING_KERNELS_X86_H

// What the AVX2 and AVX-512 sets share: the AVX2 row kernels (the AVX-512
// set hands them its row ends), the YUV layouts and the exact-lane fix-ups.
// Only call the kernels when the processor has AVX2. Internal to the library.

#include "imaging/convertkernels.h"
#include "imaging/kernelconstants.h"

#include <cstddef>

namespace kavrel {
namespace x86 {

// A YUV type as the SIMD kernels see it: a load split into its even bytes
// (masked) and odd bytes (shifted down) gives, per group, two 16-bit luma
// words and two chroma words. A multiply-add of the chroma words with a
// coefficient pair gives a group's chroma term of one channel; the luma term
// is added per pixel.
struct YuvLayout {
    bool bLumaOdd;       // the lumas are bytes 1 and 3 of a group
    int nFirst;          // 0: the first luma word is the left pixel, 1: the right one
    unsigned kCb, kCg, kCr; // chroma coefficient word pairs (low word first)
};

inline unsigned wordPair(int lo, int hi)
{
    return static_cast<unsigned>(static_cast<unsigned short>(hi)) << 16 | static_cast<unsigned short>(lo);
}

inline YuvLayout yuvLayout(int nType)
{
    const unsigned char* pos = scalar::kGroupPos[nType];
    const bool bVFirst = pos[3] < pos[1];
    auto chroma = [&](int u, int v) { return bVFirst ? wordPair(v, u) : wordPair(u, v); };
    return {pos[0] % 2 == 1, pos[0] < pos[2] ? 0 : 1, chroma(kc::kBlueU, 0), chroma(kc::kGreenU, kc::kGreenV),
            chroma(0, kc::kRedV)};
}

// The few exact lanes of a stored block of 3-byte pixels: each byte j set in
// lanes is lowered by oneLess(pSrc + 3 j), 0 or 1 from a table.
template <typename Lanes, typename OneLess>
inline void lowerExactLanes(unsigned char* pDst, const unsigned char* pSrc, Lanes lanes, OneLess oneLess)
{
    for (; lanes != 0; lanes &= lanes - 1) {
        const int j = __builtin_ctzll(lanes);
        pDst[j] = static_cast<unsigned char>(pDst[j] - oneLess(pSrc + 3 * j));
    }
}

// The weighted grey by the reference rule for the pixels set in lanes (bit j:
// pixel j of the groups at pSrc), where the exact quotient may be one too high.
template <typename Lanes>
inline void redoYuvGreyLanes(int nType, const unsigned char* pSrc, unsigned char* pDst, Lanes lanes)
{
    const unsigned char* pos = scalar::kGroupPos[nType];
    for (; lanes != 0; lanes &= lanes - 1) {
        const int j = __builtin_ctzll(lanes);
        const unsigned char* g = pSrc + 2 * (j & ~1);
        pDst[j] = scalar::yuvPixelGray(g[pos[j % 2 == 0 ? 0 : 2]], g[pos[1]], g[pos[3]]);
    }
}

// Driver grey and weighted grey of grey pixels (all three bytes v), by v,
// built with the reference rules.
struct GreyOfGrey {
    alignas(64) unsigned char driver[256];
    alignas(64) unsigned char weighted[256];
};
const GreyOfGrey& greyOfGrey();

} // namespace x86

namespace avx2 {
void yuvToBgr(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs);
void yuvToGray(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs);
void bgrToGray(const unsigned char* pSrc, unsigned char* pDst, std::size_t n);
void expand3(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut);
void swapRB(unsigned char* pBuf, std::size_t n);
void grey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t n);
} // namespace avx2

} // namespace kavrel

#endif
