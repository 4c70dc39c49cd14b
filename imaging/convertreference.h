// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_IMAGING_CONVERTREFERENCE_H
#define KAVREL_IMAGING_CONVERTREFERENCE_H

// Plain scalar forms of every pixel kernel, written straight from the
// arithmetic rules. The fast kernels must agree with these bit for bit; tests
// and benchmarks compare against them. Internal to the library.

#include <cstddef>

namespace kavrel {
namespace ref {

// Row strides of the padded layouts: 3 * width (or width) rounded up to 4 bytes.
inline long dibStride(int nWidth) { return (3L * nWidth + 3) & ~3L; }
inline long grayAlignedStride(int nWidth) { return (static_cast<long>(nWidth) + 3) & ~3L; }

// YUV to BGR of one pixel, unclamped (integer arithmetic, coefficients * 1000,
// division truncating toward zero).
void yuvToBgrUnclamped(int nY, int nU, int nV, int& nB, int& nG, int& nR);
// ((g * 0.587) + (r * 0.299)) + (b * 0.114) in double precision, truncated.
int weightedGrey(int nB, int nG, int nR);
// b1 * 0.6 + b2 * 0.25 + b0 * 0.15 in double precision, in that order, truncated.
unsigned char grey3To1(const unsigned char* pPixel);

// Whole images, same parameters and results as the GlobalFunction operations.
void yuv422ToDib(int nType, const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight);
void yuv422ToGray8(int nType, const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight);
void dibToGray(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight, long nDstStride);
void grayToDib(const unsigned char* pSrc, long nSrcStride, unsigned char* pDst, int nWidth, int nHeight);
void grayRowCopy(const unsigned char* pSrc, long nSrcStride, unsigned char* pDst, long nDstStride, int nWidth, int nHeight);
void exgRB(unsigned char* pBuf, int nWidth, int nHeight);

// The driver's frame path (lut may be null).
void buildGammaTable(float fGamma, unsigned char table[256]);
void transferCopy(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut);
void transferExpand3(const unsigned char* pSrc, unsigned char* pDst, std::size_t nPixels, const unsigned char* lut);
void transferGrey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t nPixels, const unsigned char* lut);

} // namespace ref
} // namespace kavrel

#endif
