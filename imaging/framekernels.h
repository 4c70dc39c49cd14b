// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_IMAGING_FRAMEKERNELS_H
#define KAVREL_IMAGING_FRAMEKERNELS_H

// The driver's frame path: one pass from the SDK frame into the current image,
// with the gamma table applied in the same pass. Internal to the library.

#include <cstddef>

namespace kavrel {

// Whether a gamma value changes pixels at all: |g - 1| in single precision,
// compared with 0.01 in double precision.
bool gammaActive(float fGamma);

// Entry i is pow(i / 255, g) * 255 truncated; i / 255 in single precision,
// the power and the product in double precision.
void buildGammaTable(float fGamma, unsigned char table[256]);

// lut may be null (no gamma). Source and destination never overlap.
// Copies n bytes unchanged.
void transferCopy(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut);
// Writes every source byte three times in a row (grey into a 3-byte format).
void transferExpand3(const unsigned char* pSrc, unsigned char* pDst, std::size_t nPixels, const unsigned char* lut);
// One byte per 3-byte pixel: b1 * 0.6 + b2 * 0.25 + b0 * 0.15 in double precision,
// in that order, truncated.
void transferGrey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t nPixels, const unsigned char* lut);
// Applies the table to n bytes in place.
void applyTable(unsigned char* pBuf, std::size_t n, const unsigned char* lut);

} // namespace kavrel

#endif
