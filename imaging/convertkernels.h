// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_IMAGING_CONVERTKERNELS_H
#define KAVREL_IMAGING_CONVERTKERNELS_H

// Row kernels behind the pixel conversions and the driver's frame path, picked
// once per process for the processor at hand. Internal to the library.

#include <cstddef>

namespace kavrel {

struct PixelKernels {
    const char* pszName;
    // nPairs whole YUV groups (type 0 .. 3) into 2 * nPairs BGR pixels, clamped.
    void (*yuvToBgr)(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs);
    // nPairs whole YUV groups into 2 * nPairs grey bytes (grey of unclamped colour).
    void (*yuvToGray)(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs);
    // Weighted grey of n BGR pixels.
    void (*bgrToGray)(const unsigned char* pSrc, unsigned char* pDst, std::size_t n);
    // Every source byte three times, through lut when it is not null.
    void (*expand3)(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut);
    // Bytes 0 and 2 of n pixels exchanged in place.
    void (*swapRB)(unsigned char* pBuf, std::size_t n);
    // pDst[i] = lut[pSrc[i]]; pSrc may equal pDst.
    void (*lutCopy)(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut);
    // Driver grey of n 3-byte pixels (no table).
    void (*grey3To1)(const unsigned char* pSrc, unsigned char* pDst, std::size_t n);
};

// Processor features the SIMD sets need, as mask bits.
enum CpuFeature : unsigned {
    kCpuAvx2 = 1u << 0,
    kCpuAvx512Vnni = 1u << 1, // AVX-512 BW, DQ, VBMI and VNNI, with BMI2
    kCpuNeon = 1u << 2,
    kAllCpuFeatures = kCpuAvx2 | kCpuAvx512Vnni | kCpuNeon,
};

// A kernel set this build has: the features it needs, and why it cannot run
// here (the first feature the processor lacks, or "masked"), null when it can.
struct KernelSet {
    const PixelKernels* pKernels;
    unsigned nFeatures;
    const char* pszSkipped;
};

// The kernels for this processor (chosen on first use, thread-safe).
const PixelKernels& pixelKernels();
// Every kernel set this build has, best last.
std::size_t pixelKernelSets(KernelSet* pList, std::size_t nMax);
// Every kernel set this build has and this processor can run, best last;
// tests check each of them against the reference.
std::size_t availablePixelKernels(const PixelKernels** ppList, std::size_t nMax);
// For tests and benchmarks (the library never calls it): treat the features
// in nMask as missing and pick the kernels again, which forces a simpler set
// on a processor that could run a better one. 0 undoes it. Not to be called
// while another thread converts.
void maskCpuFeatures(unsigned nMask);

// The expansion through a table: the table pass in blocks that stay in the
// first-level cache, then the plain expansion.
template <typename LutCopy, typename Expand3>
void expandThroughTable(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut,
                        LutCopy lutCopy, Expand3 expand3)
{
    alignas(64) unsigned char block[1024];
    for (std::size_t i = 0; i < n; i += sizeof block) {
        const std::size_t m = n - i < sizeof block ? n - i : sizeof block;
        lutCopy(pSrc + i, block, m, lut);
        expand3(block, pDst + 3 * i, m, nullptr);
    }
}

// Scalar building blocks shared by the SIMD sets for row ends.
namespace scalar {
extern const PixelKernels kKernels;
void yuvPixelBgr(int nY, int nU, int nV, unsigned char* pOut);
unsigned char yuvPixelGray(int nY, int nU, int nV);
void lutCopy(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut);
// Positions of Y0, U, Y1, V in a group for each type.
inline constexpr unsigned char kGroupPos[4][4] = {
    {0, 1, 2, 3},
    {0, 3, 2, 1},
    {3, 2, 1, 0},
    {3, 0, 1, 2},
};
// Where the double-precision rules give one less than the exact quotient
// (built on first use, padded for 4-byte gathers). Weighted grey of bytes:
// entry g * 256 + r is 1 for the one blue value that makes 587 g + 299 r +
// 114 b a multiple of 1000. Driver grey: bit b0 / 20 of entry b1 * 256 + b2,
// for the b0 that make 12 b1 + 5 b2 + 3 b0 a multiple of 20.
const unsigned char* weightedFixEntries();
const unsigned short* grey3FixEntries();
} // namespace scalar

#if defined(__x86_64__) || defined(_M_X64)
namespace avx2 { extern const PixelKernels kKernels; }
namespace avx512 { extern const PixelKernels kKernels; }
#endif
#if defined(__ARM_NEON)
namespace neon { extern const PixelKernels kKernels; }
#endif

} // namespace kavrel

#endif
