// SPDX-License-Identifier: LGPL-2.1-or-later
// AVX2 kernels (this file is compiled with -mavx2 and only called when the
// processor has it). The arithmetic and why it is exact: kernelconstants.h.

#include "imaging/kernels_x86.h"

#include "imaging/convertreference.h"

#include <immintrin.h>

namespace kavrel {

const x86::GreyOfGrey& x86::greyOfGrey()
{
    static const GreyOfGrey s_table = [] {
        GreyOfGrey t{};
        for (int v = 0; v < 256; ++v) {
            const unsigned char p[3] = {static_cast<unsigned char>(v), static_cast<unsigned char>(v),
                                        static_cast<unsigned char>(v)};
            t.driver[v] = ref::grey3To1(p);
            t.weighted[v] = static_cast<unsigned char>(ref::weightedGrey(v, v, v));
        }
        return t;
    }();
    return s_table;
}

namespace avx2 {

namespace {

inline __m256i set32(unsigned x)
{
    return _mm256_set1_epi32(static_cast<int>(x));
}

inline __m256i bothLanes(const unsigned char* p)
{
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

// A 256-entry byte table as 16 rows of 16 bytes: the low nibble picks the
// entry in every row, then each high bit halves the candidates by a blend.
struct Lut {
    __m256i row[16];
    explicit Lut(const unsigned char* lut)
    {
        for (int j = 0; j < 16; ++j)
            row[j] = bothLanes(lut + 16 * j);
    }
    __m256i operator()(__m256i x) const
    {
        const __m256i lo = _mm256_and_si256(x, _mm256_set1_epi8(0x0F));
        __m256i v[16];
        for (int j = 0; j < 16; ++j)
            v[j] = _mm256_shuffle_epi8(row[j], lo);
        for (int nBit = 4, n = 8; nBit < 8; ++nBit, n /= 2) {
            const __m256i sel = _mm256_slli_epi16(x, 7 - nBit); // bit nBit to each byte's top
            for (int j = 0; j < n; ++j)
                v[j] = _mm256_blendv_epi8(v[2 * j], v[2 * j + 1], sel);
        }
        return v[0];
    }
};

// 8 packed 3-byte pixels as 8 dwords (byte 0, byte 1, byte 2, byte 1). Reads
// exactly the 24 bytes.
inline __m256i load3To4x8(const unsigned char* p)
{
    const __m256i x = _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))),
                                              _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 8)), 1);
    return _mm256_shuffle_epi8(x, _mm256_setr_epi8(0, 1, 2, 1, 3, 4, 5, 4, 6, 7, 8, 7, 9, 10, 11, 10,
                                                   4, 5, 6, 5, 7, 8, 9, 8, 10, 11, 12, 11, 13, 14, 15, 14));
}

// The byte dot product (kc::coeffBytes) of 8 pixels from load3To4x8
// (coefficients within a signed byte, pair sums within 16 bits).
inline __m256i dot3(__m256i px, unsigned nCoeffs)
{
    return _mm256_madd_epi16(_mm256_maddubs_epi16(px, set32(nCoeffs)), _mm256_set1_epi16(1));
}

// Two vectors of 16 words (values or masks) as 32 bytes in pixel order, from
// the words of four load3To4x8 vectors packed pairwise.
inline __m256i packPixels(__m256i a, __m256i b, bool bMask)
{
    return _mm256_permutevar8x32_epi32(bMask ? _mm256_packs_epi16(a, b) : _mm256_packus_epi16(a, b),
                                       _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

// Both greys of 3-byte pixels, 32 per pass: quotients(a, b, e) gives the
// exact quotients of two vectors of pixels as words, and in e the lanes where
// the rule may give one less. Few such lanes (noise) are fixed one by one
// from a table; with more, grey pixels (a grey picture) are first answered
// by value.
template <typename Quotients, typename OneLess>
void greyOf3(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* greyValues,
             Quotients quotients, OneLess oneLess, void (*tail)(const unsigned char*, unsigned char*, std::size_t))
{
    const Lut greyOfGrey(greyValues);
    std::size_t i = 0;
    for (; i + 32 <= n; i += 32, pSrc += 96, pDst += 32) {
        __m256i px[4];
        for (int k = 0; k < 4; ++k)
            px[k] = load3To4x8(pSrc + 24 * k);
        __m256i q[2], e[2];
        for (int h = 0; h < 2; ++h)
            q[h] = quotients(px[2 * h], px[2 * h + 1], e[h]);
        __m256i bytes = packPixels(q[0], q[1], false);
        const __m256i exact = packPixels(e[0], e[1], true);
        unsigned lanes = static_cast<unsigned>(_mm256_movemask_epi8(exact));
        if (__builtin_popcount(lanes) > kc::kFewExactLanes) {
            // (b0 - b1) + 512 (b2 - b1) is zero exactly for grey pixels.
            __m256i g[4];
            for (int k = 0; k < 4; ++k)
                g[k] = _mm256_madd_epi16(_mm256_maddubs_epi16(px[k], set32(0xFF01FF01u)), set32(512 << 16 | 1));
            const __m256i z = _mm256_setzero_si256();
            const __m256i grey = packPixels(_mm256_cmpeq_epi16(_mm256_packs_epi32(g[0], g[1]), z),
                                            _mm256_cmpeq_epi16(_mm256_packs_epi32(g[2], g[3]), z), true);
            bytes = _mm256_blendv_epi8(bytes, greyOfGrey(bytes), grey);
            lanes &= ~static_cast<unsigned>(_mm256_movemask_epi8(grey));
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst), bytes);
        x86::lowerExactLanes(pDst, pSrc, lanes, oneLess);
    }
    tail(pSrc, pDst, n - i);
}

// The sums of 8 groups, blue, green and red of their first and second pixels
// (see x86::YuvLayout). With nShift 2 every sum is floor(s / 4) instead of s
// (1164 = 4 * 291, so only the chroma part needs the shift); nBias is added
// to every sum.
class YuvSums {
public:
    YuvSums(const x86::YuvLayout& l, int nShift, int nBias)
        : m_bLumaOdd(l.bLumaOdd), m_nShift(nShift), m_kC{set32(l.kCb), set32(l.kCg), set32(l.kCr)},
          m_kY1(set32(x86::wordPair(kc::kLuma >> nShift, 0))), m_kY2(set32(x86::wordPair(0, kc::kLuma >> nShift))),
          m_base{_mm256_set1_epi32(kc::kBlueBase + (nBias << nShift)), _mm256_set1_epi32(kc::kGreenBase + (nBias << nShift)),
                 _mm256_set1_epi32(kc::kRedBase + (nBias << nShift))}
    {
    }
    void operator()(const unsigned char* pSrc, __m256i s[6]) const
    {
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pSrc));
        const __m256i even = _mm256_and_si256(x, _mm256_set1_epi16(0xFF)), odd = _mm256_srli_epi16(x, 8);
        const __m256i luma = m_bLumaOdd ? odd : even, chroma = m_bLumaOdd ? even : odd;
        const __m256i y1 = _mm256_madd_epi16(luma, m_kY1), y2 = _mm256_madd_epi16(luma, m_kY2);
        for (int k = 0; k < 3; ++k) {
            const __m256i c = _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(chroma, m_kC[k]), m_base[k]), m_nShift);
            s[k] = _mm256_add_epi32(c, y1);
            s[k + 3] = _mm256_add_epi32(c, y2);
        }
    }

private:
    bool m_bLumaOdd;
    int m_nShift;
    __m256i m_kC[3], m_kY1, m_kY2, m_base[3];
};

// 8 dwords of the first and 8 of the second pixels of 8 groups (values or
// masks within int16) as 16 bytes in pixel order.
inline __m128i pixels16(__m256i first, __m256i second, int nFirst, bool bMask)
{
    const __m256i l = nFirst == 0 ? first : second, r = nFirst == 0 ? second : first;
    const __m256i w = _mm256_packs_epi32(_mm256_unpacklo_epi32(l, r), _mm256_unpackhi_epi32(l, r));
    const __m256i b = bMask ? _mm256_packs_epi16(w, w) : _mm256_packus_epi16(w, w);
    return _mm256_castsi256_si128(_mm256_permute4x64_epi64(b, 0x08));
}

// Output byte shuffles of yuvToBgr for one type: after the packs, the lane's
// first pixels of groups m = 0 .. 3 are at byte m and the second ones at
// m + 4, blue, green 8 bytes on, red in the red pack. a: output bytes 0 .. 15
// of the lane's 8 pixels, b: 16 .. 23.
struct BgrShuffles {
    __m256i aBg, aR, bBg, bR;
    explicit BgrShuffles(int nFirst)
    {
        alignas(16) unsigned char bg[32], r[32];
        for (int i = 0; i < 32; ++i) {
            const int p = i / 3, c = i % 3;
            const int at = p / 2 + (p % 2 == nFirst ? 0 : 4);
            bg[i] = i >= 24 || c == 2 ? 0x80 : static_cast<unsigned char>(at + 8 * c);
            r[i] = i < 24 && c == 2 ? static_cast<unsigned char>(at) : 0x80;
        }
        aBg = bothLanes(bg), aR = bothLanes(r), bBg = bothLanes(bg + 16), bR = bothLanes(r + 16);
    }
};

} // namespace

// Clamped colour from quarter sums w = floor(s / 4) + 1 (kernelconstants.h).
void yuvToBgr(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    const x86::YuvLayout l = x86::yuvLayout(nType);
    const YuvSums sums(l, 2, 1);
    const BgrShuffles t(l.nFirst);
    const __m256i div250 = _mm256_set1_epi16(static_cast<short>(kc::kDiv250Mul));
    auto quot = [&](__m256i a, __m256i b) {
        return _mm256_srli_epi16(_mm256_mulhi_epu16(_mm256_packus_epi32(a, b), div250), kc::kDiv250Shift);
    };
    std::size_t i = 0;
    for (; i + 8 <= nPairs; i += 8, pSrc += 32, pDst += 48) {
        __m256i s[6];
        sums(pSrc, s);
        const __m256i bg = _mm256_packus_epi16(quot(s[0], s[3]), quot(s[1], s[4]));
        const __m256i r = quot(s[2], s[5]);
        const __m256i rr = _mm256_packus_epi16(r, r);
        // Per lane, 24 bytes: a = 0 .. 15, b = 16 .. 23. Rows: a0 b0 a1 b1.
        const __m256i a = _mm256_or_si256(_mm256_shuffle_epi8(bg, t.aBg), _mm256_shuffle_epi8(rr, t.aR));
        const __m256i b = _mm256_or_si256(_mm256_shuffle_epi8(bg, t.bBg), _mm256_shuffle_epi8(rr, t.bR));
        const __m256i lo = _mm256_blend_epi32(_mm256_permutevar8x32_epi32(a, _mm256_setr_epi32(0, 1, 2, 3, 0, 0, 4, 5)),
                                              _mm256_permutevar8x32_epi32(b, _mm256_setr_epi32(0, 0, 0, 0, 0, 1, 0, 0)),
                                              0x30);
        const __m256i hi = _mm256_permutevar8x32_epi32(_mm256_blend_epi32(a, b, 0x30),
                                                       _mm256_setr_epi32(6, 7, 4, 5, 4, 5, 4, 5));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst), lo);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pDst + 32), _mm256_castsi256_si128(hi));
    }
    scalar::kKernels.yuvToBgr(nType, pSrc, pDst, nPairs - i);
}

// Weighted grey of unclamped colour in single precision on exact integers:
// each channel's trunc(s * 0.001f) is s / 1000 truncated, and so is
// trunc(W * 0.001f) with W = 587 g + 299 r + 114 b below 2^20. Where W is a
// multiple of 1000 (quotients 1 .. 255; elsewhere one less clamps to the
// same byte) grey pixels take the answer by value, the others by the rule.
void yuvToGray(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    const x86::YuvLayout l = x86::yuvLayout(nType);
    const YuvSums sums(l, 0, 0);
    const Lut greyOfGrey(x86::greyOfGrey().weighted);
    const int kTrunc = _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC;
    const __m256 milli = _mm256_set1_ps(0.001f);
    auto quotient = [&](__m256i x) { return _mm256_round_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(x), milli), kTrunc); };
    // Quotients of 8 pixels from their channel sums; exact and equal as masks.
    auto grey8 = [&](const __m256i* s, __m256i& exact, __m256i& equal) {
        const __m256 b = quotient(s[0]), g = quotient(s[1]), r = quotient(s[2]);
        const __m256 w = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(g, _mm256_set1_ps(587.0f)),
                                                     _mm256_mul_ps(r, _mm256_set1_ps(299.0f))),
                                       _mm256_mul_ps(b, _mm256_set1_ps(114.0f)));
        const __m256 q = _mm256_round_ps(_mm256_mul_ps(w, milli), kTrunc);
        exact = _mm256_castps_si256(_mm256_and_ps(_mm256_cmp_ps(_mm256_mul_ps(q, _mm256_set1_ps(1000.0f)), w, _CMP_EQ_OQ),
                                                  _mm256_and_ps(_mm256_cmp_ps(q, _mm256_set1_ps(1.0f), _CMP_GE_OQ),
                                                                _mm256_cmp_ps(q, _mm256_set1_ps(255.0f), _CMP_LE_OQ))));
        equal = _mm256_castps_si256(_mm256_and_ps(_mm256_cmp_ps(b, g, _CMP_EQ_OQ), _mm256_cmp_ps(g, r, _CMP_EQ_OQ)));
        return _mm256_cvttps_epi32(q);
    };
    std::size_t i = 0;
    for (; i + 16 <= nPairs; i += 16, pSrc += 64, pDst += 32) {
        __m128i bytes[2], exact[2], equal[2];
        for (int h = 0; h < 2; ++h) {
            __m256i s[6], e[2], g[2];
            sums(pSrc + 32 * h, s);
            const __m256i q1 = grey8(s, e[0], g[0]), q2 = grey8(s + 3, e[1], g[1]);
            bytes[h] = pixels16(q1, q2, l.nFirst, false);
            exact[h] = pixels16(e[0], e[1], l.nFirst, true);
            equal[h] = pixels16(g[0], g[1], l.nFirst, true);
        }
        __m256i out = _mm256_set_m128i(bytes[1], bytes[0]);
        const __m256i ex = _mm256_set_m128i(exact[1], exact[0]);
        if (!_mm256_testz_si256(ex, ex)) {
            const __m256i eq = _mm256_and_si256(_mm256_set_m128i(equal[1], equal[0]), ex);
            out = _mm256_blendv_epi8(out, greyOfGrey(out), eq);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst), out);
            x86::redoYuvGreyLanes(nType, pSrc, pDst, static_cast<unsigned>(_mm256_movemask_epi8(_mm256_andnot_si256(eq, ex))));
            continue;
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst), out);
    }
    scalar::kKernels.yuvToGray(nType, pSrc, pDst, nPairs - i);
}

// Weighted grey of bytes: S / 8 = P + t / 8 over 125 by a multiply-high;
// exact where t % 8 == 0 and S / 8 == 125 q (kernelconstants.h).
void bgrToGray(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    const unsigned char* fix = scalar::weightedFixEntries();
    // 125 q (q < 256) by a byte multiply-add: GCC turns a multiply by the
    // constant into four shifts and adds.
    const __m256i div125 = _mm256_set1_epi16(static_cast<short>(kc::kDiv125Mul)), k125 = _mm256_set1_epi16(125);
    auto quotients = [&](__m256i a, __m256i b, __m256i& e) {
        const __m256i ta = dot3(a, kc::kTBytes), tb = dot3(b, kc::kTBytes);
        const __m256i s8 = _mm256_packs_epi32(_mm256_add_epi32(dot3(a, kc::kPBytes), _mm256_srli_epi32(ta, 3)),
                                              _mm256_add_epi32(dot3(b, kc::kPBytes), _mm256_srli_epi32(tb, 3)));
        const __m256i q = _mm256_srli_epi16(_mm256_mulhi_epu16(s8, div125), kc::kDiv125Shift);
        const __m256i t7 = _mm256_and_si256(_mm256_packs_epi32(ta, tb), _mm256_set1_epi16(7));
        e = _mm256_and_si256(_mm256_cmpeq_epi16(_mm256_maddubs_epi16(q, k125), s8), _mm256_cmpeq_epi16(t7, _mm256_setzero_si256()));
        return q;
    };
    greyOf3(pSrc, pDst, n, x86::greyOfGrey().weighted, quotients,
            [fix](const unsigned char* p) { return fix[p[1] * 256 + p[2]]; }, scalar::kKernels.bgrToGray);
}

// Driver grey: t / 20 by a multiply-high, exact where 20 q == t.
void grey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    const unsigned short* fix = scalar::grey3FixEntries();
    const __m256i div20 = _mm256_set1_epi16(static_cast<short>(kc::kDiv20Mul)), k20 = _mm256_set1_epi16(20);
    auto quotients = [&](__m256i a, __m256i b, __m256i& e) {
        const __m256i t = _mm256_packs_epi32(dot3(a, kc::kDBytes), dot3(b, kc::kDBytes));
        const __m256i q = _mm256_mulhi_epu16(t, div20);
        e = _mm256_cmpeq_epi16(_mm256_mullo_epi16(q, k20), t);
        return q;
    };
    greyOf3(pSrc, pDst, n, x86::greyOfGrey().driver, quotients,
            [fix](const unsigned char* p) { return (fix[p[1] * 256 + p[2]] >> (p[0] / 20)) & 1; },
            scalar::kKernels.grey3To1);
}

void lutCopy(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut);

void expand3(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut)
{
    if (lut)
        return expandThroughTable(pSrc, pDst, n, lut, lutCopy, expand3);
    const __m256i m01 = _mm256_setr_epi8(0, 0, 0, 1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4, 5,
                                         5, 5, 6, 6, 6, 7, 7, 7, 8, 8, 8, 9, 9, 9, 10, 10);
    const __m128i m2 = _mm_setr_epi8(10, 11, 11, 11, 12, 12, 12, 13, 13, 13, 14, 14, 14, 15, 15, 15);
    std::size_t i = 0;
    for (; i + 16 <= n; i += 16, pSrc += 16, pDst += 48) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pSrc));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst), _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(x), m01));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pDst + 32), _mm_shuffle_epi8(x, m2));
    }
    scalar::kKernels.expand3(pSrc, pDst, n - i, nullptr);
}

void swapRB(unsigned char* pBuf, std::size_t n)
{
    // 16 pixels in three 16-byte registers; pixels 5 and 10 straddle two of
    // them, so their outer bytes come from the neighbouring register. All loads
    // of a block happen before its stores and never overlap earlier stores.
    const __m128i mA = _mm_setr_epi8(2, 1, 0, 5, 4, 3, 8, 7, 6, 11, 10, 9, 14, 13, 12, -1);
    const __m128i mAfromB = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 1);
    const __m128i mB = _mm_setr_epi8(0, -1, 4, 3, 2, 7, 6, 5, 10, 9, 8, 13, 12, 11, -1, 15);
    const __m128i mBfromA = _mm_setr_epi8(-1, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i mBfromC = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, -1);
    const __m128i mC = _mm_setr_epi8(-1, 3, 2, 1, 6, 5, 4, 9, 8, 7, 12, 11, 10, 15, 14, 13);
    const __m128i mCfromB = _mm_setr_epi8(14, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    std::size_t i = 0;
    for (; i + 16 <= n; i += 16, pBuf += 48) {
        __m128i* p = reinterpret_cast<__m128i*>(pBuf);
        const __m128i a = _mm_loadu_si128(p), b = _mm_loadu_si128(p + 1), c = _mm_loadu_si128(p + 2);
        _mm_storeu_si128(p, _mm_or_si128(_mm_shuffle_epi8(a, mA), _mm_shuffle_epi8(b, mAfromB)));
        _mm_storeu_si128(p + 1, _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(b, mB), _mm_shuffle_epi8(a, mBfromA)),
                                             _mm_shuffle_epi8(c, mBfromC)));
        _mm_storeu_si128(p + 2, _mm_or_si128(_mm_shuffle_epi8(c, mC), _mm_shuffle_epi8(b, mCfromB)));
    }
    scalar::kKernels.swapRB(pBuf, n - i);
}

void lutCopy(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut)
{
    const Lut table(lut);
    std::size_t i = 0;
    for (; i + 32 <= n; i += 32)
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst + i),
                            table(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(pSrc + i))));
    scalar::kKernels.lutCopy(pSrc + i, pDst + i, n - i, lut);
}

const PixelKernels kKernels = {
    "avx2", yuvToBgr, yuvToGray, bgrToGray, expand3, swapRB, lutCopy, grey3To1,
};

} // namespace avx2
} // namespace kavrel
