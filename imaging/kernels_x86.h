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

// Driver grey, exact quotients: entry b1 * 256 + b2, bit b0 / 20 says the
// double-precision rule gives one less (65536 entries plus padding for 4-byte
// gathers; built on first use).
const unsigned short* grey3FixEntries();
// Weighted grey, exact quotients: entry g * 256 + r is 1 when the one blue
// value that makes 587 g + 299 r + 114 b a multiple of 1000 gets one less
// (bytes, padded for 4-byte gathers).
const unsigned char* weightedFixEntries();

} // namespace avx2
} // namespace kavrel

#endif
