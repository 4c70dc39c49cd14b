// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_IMAGING_KERNELS_X86_H
#define KAVREL_IMAGING_KERNELS_X86_H

// AVX2 row kernels, shared with the AVX-512 set. Only call them when the
// processor has AVX2. Internal to the library.

#include <cstddef>

namespace kavrel {
namespace avx2 {

void yuvToBgr(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs);
void yuvToGray(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs);
void bgrToGray(const unsigned char* pSrc, unsigned char* pDst, std::size_t n);
void expand3(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut);
void swapRB(unsigned char* pBuf, std::size_t n);
void lutCopy(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut);
void grey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t n);

// The few exact lanes of a stored block (noise has about one in 20 for the
// driver grey): each byte j set in lanes is lowered by oneLess(pSrc + 3 j),
// 0 or 1 from a table. Cheaper than gathers for a handful of lanes.
template <typename Lanes, typename OneLess>
inline void lowerExactLanes(unsigned char* pDst, const unsigned char* pSrc, Lanes lanes, OneLess oneLess)
{
    for (; lanes != 0; lanes &= lanes - 1) {
        const int j = __builtin_ctzll(lanes);
        pDst[j] = static_cast<unsigned char>(pDst[j] - oneLess(pSrc + 3 * j));
    }
}

} // namespace avx2
} // namespace kavrel

#endif
