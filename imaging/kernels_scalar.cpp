// SPDX-License-Identifier: LGPL-2.1-or-later
// Portable kernels: the baseline on every processor (SSE2 code on x86-64, VFP
// on ARM without NEON) and the row ends of the SIMD sets.

#include "imaging/convertkernels.h"
#include "imaging/convertreference.h"
#include "imaging/kernelconstants.h"

#include <cstdint>
#include <cstring>

namespace kavrel {
namespace scalar {

namespace {

inline unsigned char clampByte(int n)
{
    return static_cast<unsigned char>(n < 0 ? 0 : (n > 255 ? 255 : n));
}

// The rules in integers, inline: the per-pixel call into the reference and
// its double arithmetic dominated the VFP-only build. Where double rounding
// can decide (exact quotients) the tables or the reference answer.
// Chroma terms of a pair, shared by its two pixels.
struct Chroma {
    int b, g, r;
};

inline Chroma chromaOf(int nU, int nV)
{
    const int d = nU - 128, e = nV - 128;
    return {2018 * d, -813 * e - 380 * d, 1159 * e};
}

// Unclamped colour, as ref::yuvToBgrUnclamped (C division truncates toward zero).
inline void bgrOf(int nY, const Chroma& c, int& b, int& g, int& r)
{
    const int y = 1164 * (nY - 16);
    b = (y + c.b) / 1000;
    g = (y + c.g) / 1000;
    r = (y + c.r) / 1000;
}

inline void storeBgr(int nY, const Chroma& c, unsigned char* pOut)
{
    int b, g, r;
    bgrOf(nY, c, b, g, r);
    pOut[0] = clampByte(b);
    pOut[1] = clampByte(g);
    pOut[2] = clampByte(r);
}

// The exact cases of the greys of bytes, out of line and cold, so that the
// compiler keeps a branch around them rather than predicating a table load
// into every pixel.
__attribute__((noinline, cold)) unsigned exactWeighted(unsigned q, unsigned g, unsigned r, const unsigned char* fix)
{
    return q - fix[g * 256 + r];
}

// One byte from each 3-byte pixel, four pixels a turn so that they share the
// loop's counting.
template <typename Grey>
inline void eachPixel3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, Grey grey)
{
    for (const unsigned char* const pEnd = pSrc + 3 * (n & ~std::size_t{3}); pSrc != pEnd; pSrc += 12, pDst += 4) {
        pDst[0] = static_cast<unsigned char>(grey(pSrc));
        pDst[1] = static_cast<unsigned char>(grey(pSrc + 3));
        pDst[2] = static_cast<unsigned char>(grey(pSrc + 6));
        pDst[3] = static_cast<unsigned char>(grey(pSrc + 9));
    }
    for (n &= 3; n != 0; --n, pSrc += 3)
        *pDst++ = static_cast<unsigned char>(grey(pSrc));
}

// Weighted grey of bytes: S = 587 g + 299 r + 114 b, the rule's sum times
// 1000, is exact in integers, so S / 1000 unless S is a multiple of 1000,
// where the double rule may come out one less: fix says so for (g, r) (b is
// then the one value that makes S such a multiple).
inline int greyOfBytes(unsigned b, unsigned g, unsigned r, const unsigned char* fix)
{
    const unsigned s = 587 * g + 299 * r + 114 * b;
    const std::uint64_t p = std::uint64_t{s} * kc::kWeightedDiv.m;
    const unsigned q = static_cast<unsigned>(p >> 32);
    return static_cast<int>(static_cast<std::uint32_t>(p) < kc::kWeightedDiv.m ? exactWeighted(q, g, r, fix) : q);
}

// Clamped grey of unclamped colour. Off an exact quotient the double rule's
// error (far below 1e-9) cannot cross an integer, so it truncates W / 1000
// toward zero like C. Exact quotients at or below 0 or above 255 clamp alike
// either way; in between the table answers for bytes, the rule for the rest.
inline unsigned char clampedGrey(int b, int g, int r, const unsigned char* fix)
{
    const int w = 587 * g + 299 * r + 114 * b;
    const int q = w / 1000;
    if (w != 1000 * q || q <= 0 || q > 255)
        return clampByte(q);
    if ((static_cast<unsigned>(b) | static_cast<unsigned>(g) | static_cast<unsigned>(r)) <= 255)
        return static_cast<unsigned char>(q - fix[g * 256 + r]);
    return clampByte(ref::weightedGrey(b, g, r));
}

inline unsigned char storeGrey(int nY, const Chroma& c, const unsigned char* fix)
{
    int b, g, r;
    bgrOf(nY, c, b, g, r);
    return clampedGrey(b, g, r, fix);
}

} // namespace

void yuvPixelBgr(int nY, int nU, int nV, unsigned char* pOut)
{
    storeBgr(nY, chromaOf(nU, nV), pOut);
}

unsigned char yuvPixelGray(int nY, int nU, int nV)
{
    return storeGrey(nY, chromaOf(nU, nV), weightedFixEntries());
}

namespace {

void yuvToBgr(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    const unsigned char* pos = kGroupPos[nType];
    for (std::size_t i = 0; i < nPairs; ++i, pSrc += 4, pDst += 6) {
        const Chroma c = chromaOf(pSrc[pos[1]], pSrc[pos[3]]);
        storeBgr(pSrc[pos[0]], c, pDst);
        storeBgr(pSrc[pos[2]], c, pDst + 3);
    }
}

void yuvToGray(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    const unsigned char* pos = kGroupPos[nType];
    const unsigned char* fix = weightedFixEntries();
    for (std::size_t i = 0; i < nPairs; ++i, pSrc += 4, pDst += 2) {
        const Chroma c = chromaOf(pSrc[pos[1]], pSrc[pos[3]]);
        pDst[0] = storeGrey(pSrc[pos[0]], c, fix);
        pDst[1] = storeGrey(pSrc[pos[2]], c, fix);
    }
}

void bgrToGray(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    const unsigned char* fix = weightedFixEntries();
    eachPixel3To1(pSrc, pDst, n, [fix](const unsigned char* p) { return greyOfBytes(p[0], p[1], p[2], fix); });
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
    // Eight bytes a turn, as two words: the byte loads and table loads of a
    // word do not wait on each other, and a word is read before it is
    // written, so pSrc may equal pDst. The shifts put each byte back where
    // it was read on either byte order.
    auto word = [lut](const unsigned char* p) {
        return std::uint32_t{lut[p[0]]} | std::uint32_t{lut[p[1]]} << 8 | std::uint32_t{lut[p[2]]} << 16 |
               std::uint32_t{lut[p[3]]} << 24;
    };
    for (const unsigned char* const pEnd = pSrc + (n & ~std::size_t{7}); pSrc != pEnd; pSrc += 8, pDst += 8) {
        const std::uint32_t a = word(pSrc), b = word(pSrc + 4);
        std::memcpy(pDst, &a, 4);
        std::memcpy(pDst + 4, &b, 4);
    }
    for (n &= 7; n != 0; --n)
        *pDst++ = lut[*pSrc++];
}

namespace {

// For each (g, r): 1 when the weighted grey of the one blue value b that makes
// 587 g + 299 r + 114 b a multiple of 1000 comes out one below the exact
// quotient in double precision, else 0. Padded for 4-byte gathers.
struct GreyFixTable {
    unsigned char fix[65536 + 3];
    GreyFixTable() : fix()
    {
        for (int g = 0; g < 256; ++g)
            for (int r = 0; r < 256; ++r) {
                // 114 b = -(587 g + 299 r) mod 1000 needs an even right side; then
                // 57 b = c / 2 mod 500, and 193 is 57's inverse mod 500.
                const int c = (1000 - (587 * g + 299 * r) % 1000) % 1000;
                if (c % 2 != 0)
                    continue;
                const int b = (c / 2 * 193) % 500;
                if (b > 255)
                    continue;
                const int s = 587 * g + 299 * r + 114 * b;
                fix[g * 256 + r] = static_cast<unsigned char>(s / 1000 - ref::weightedGrey(b, g, r));
            }
    }
};

const GreyFixTable& greyFixTable()
{
    static const GreyFixTable s_table;
    return s_table;
}

// The same for the driver's grey: t = 12 b1 + 5 b2 + 3 b0 is a multiple of 20
// for the b0 = c + 20 k (k = 0 .. 12) with c fixed by (b1, b2); bit k of the
// entry for (b1, b2) is 1 when the double-precision rule gives t / 20 - 1 there.
// Padded for 4-byte gathers.
struct Grey3FixTable {
    unsigned short fix[65536 + 1];
    Grey3FixTable() : fix()
    {
        for (int b1 = 0; b1 < 256; ++b1)
            for (int b2 = 0; b2 < 256; ++b2) {
                // 3 b0 = -(12 b1 + 5 b2) mod 20, and 7 is 3's inverse mod 20.
                const int c = (20 - (12 * b1 + 5 * b2) % 20) % 20 * 7 % 20;
                for (int k = 0; c + 20 * k < 256; ++k) {
                    const unsigned char p[3] = {static_cast<unsigned char>(c + 20 * k), static_cast<unsigned char>(b1),
                                                static_cast<unsigned char>(b2)};
                    if (ref::grey3To1(p) != (3 * p[0] + 12 * b1 + 5 * b2) / 20)
                        fix[b1 * 256 + b2] |= static_cast<unsigned short>(1u << k);
                }
            }
    }
};

const Grey3FixTable& grey3FixTable()
{
    static const Grey3FixTable s_table;
    return s_table;
}

} // namespace

const unsigned char* weightedFixEntries()
{
    return greyFixTable().fix;
}

const unsigned short* grey3FixEntries()
{
    return grey3FixTable().fix;
}

namespace {

#if defined(__arm__)
// The driver grey's exact cases, out of line for the same reason as exactWeighted.
__attribute__((noinline, cold)) unsigned exactDriver(unsigned q, const unsigned char* p, const unsigned short* fix)
{
    return q - ((fix[p[1] * 256 + p[2]] >> ((p[0] * kc::kDiv20Mul) >> 16)) & 1);
}
#endif

void grey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
#if defined(__arm__)
    // t = 12 b1 + 5 b2 + 3 b0 is 20 times the rule's sum, exact in integers;
    // only its multiples of 20 (one pixel in 20) can come out one less. On
    // VFP this beats the rule's double arithmetic; on x86-64 SSE2 it does not.
    const unsigned short* fix = grey3FixEntries();
    eachPixel3To1(pSrc, pDst, n, [fix](const unsigned char* p) {
        const unsigned t = 12u * p[1] + 5u * p[2] + 3u * p[0];
        const std::uint64_t m = std::uint64_t{t} * kc::kDriverDiv.m;
        const unsigned q = static_cast<unsigned>(m >> 32);
        return static_cast<std::uint32_t>(m) < kc::kDriverDiv.m ? exactDriver(q, p, fix) : q;
    });
#else
    for (std::size_t i = 0; i < n; ++i, pSrc += 3)
        pDst[i] = ref::grey3To1(pSrc);
#endif
}

} // namespace

const PixelKernels kKernels = {
    "scalar", yuvToBgr, yuvToGray, bgrToGray, expand3, swapRB, lutCopy, grey3To1,
};

} // namespace scalar
} // namespace kavrel
