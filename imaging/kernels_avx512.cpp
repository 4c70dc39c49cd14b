// SPDX-License-Identifier: LGPL-2.1-or-later
// AVX-512 kernels (compiled with BW, DQ, VBMI, VNNI and BMI2, and only called
// when the processor has all of them): table lookups by two 128-byte
// permutes, the greys of 3-byte pixels and both YUV conversions by VNNI dot
// products. Row ends go to the AVX2 set. Why the arithmetic is exact:
// kernelconstants.h.

#include "imaging/kernels_x86.h"

// GCC 12's AVX-512 intrinsics start some results from _mm512_undefined_epi32(),
// which -Wmaybe-uninitialized reports after inlining: a false alarm.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

namespace kavrel {
namespace avx512 {

namespace {

inline __m512i set32(unsigned x)
{
    return _mm512_set1_epi32(static_cast<int>(x));
}

struct Lut {
    __m512i t[4];
    explicit Lut(const unsigned char* lut)
    {
        for (int j = 0; j < 4; ++j)
            t[j] = _mm512_loadu_si512(lut + 64 * j);
    }
    __m512i operator()(__m512i x) const
    {
        return _mm512_mask_blend_epi8(_mm512_movepi8_mask(x), _mm512_permutex2var_epi8(t[0], x, t[1]),
                                      _mm512_permutex2var_epi8(t[2], x, t[3]));
    }
};

void lutCopy(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut)
{
    const Lut table(lut);
    std::size_t i = 0;
    for (; i + 64 <= n; i += 64)
        _mm512_storeu_si512(pDst + i, table(_mm512_loadu_si512(pSrc + i)));
    if (i < n) {
        const __mmask64 m = ~0ULL >> (64 - (n - i));
        _mm512_mask_storeu_epi8(pDst + i, m, table(_mm512_maskz_loadu_epi8(m, pSrc + i)));
    }
}

void expand3(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut)
{
    if (!lut)
        return avx2::expand3(pSrc, pDst, n, nullptr);
    expandThroughTable(pSrc, pDst, n, lut, lutCopy, avx2::expand3);
}

// Byte permutes for 64 packed 3-byte pixels read as three 64-byte loads.
// spread[k]: pixel 16 k + j as the dword (byte 0, byte 1, byte 2, byte 1),
// from the load pair (k / 2, k / 2 + 1) counted from byte 64 (k / 2).
// channel[c]: channel c of pixel p, byte 3 p + c of the first two loads for
// p < 42, of the last two (from 64) for the others.
struct Block64 {
    alignas(64) unsigned char spread[4][64];
    alignas(64) unsigned char channel[3][2][64];
    Block64() : spread(), channel()
    {
        for (int k = 0; k < 4; ++k)
            for (int j = 0; j < 64; ++j)
                spread[k][j] = static_cast<unsigned char>(3 * (16 * k + j / 4) + (j % 4 == 3 ? 1 : j % 4) - 64 * (k / 2));
        for (int c = 0; c < 3; ++c)
            for (int p = 0; p < 64; ++p)
                channel[c][p < 42 ? 0 : 1][p] = static_cast<unsigned char>(3 * p + c - (p < 42 ? 0 : 64));
    }
};

const Block64& block64()
{
    static const Block64 s_tables;
    return s_tables;
}

// Two vectors of 32 words from four of the block's dword vectors packed
// pairwise, as 64 bytes in pixel order, and their lane masks likewise.
inline __m512i packOrder()
{
    return _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
}

inline __m512i pack64(__m512i a, __m512i b)
{
    return _mm512_permutexvar_epi32(packOrder(), _mm512_packus_epi16(a, b));
}

inline __mmask64 packMask(__mmask32 a, __mmask32 b)
{
    return _mm512_movepi8_mask(_mm512_permutexvar_epi32(packOrder(), _mm512_packs_epi16(_mm512_movm_epi16(a), _mm512_movm_epi16(b))));
}

// Both greys of 3-byte pixels, 64 per pass: quotients(a, b, e) gives the
// exact quotients of two vectors of pixels as words, and in e the lanes where
// the rule may give one less.
// Few such lanes (noise) are fixed one by one from a table; with more, grey
// pixels are answered by value. After an all-grey block the next one first
// tries the cheap all-grey test, so grey pictures skip the arithmetic and
// colour ones never pay for the test.
template <typename Quotients, typename OneLess>
void greyOf3(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* greyValues,
             Quotients quotients, OneLess oneLess, void (*tail)(const unsigned char*, unsigned char*, std::size_t))
{
    const Lut greyOfGrey(greyValues);
    const Block64& b = block64();
    __m512i spread[4];
    for (int k = 0; k < 4; ++k)
        spread[k] = _mm512_load_si512(b.spread[k]);
    bool bGreyRun = false;
    std::size_t i = 0;
    for (; i + 64 <= n; i += 64, pSrc += 192, pDst += 64) {
        const __m512i x[3] = {_mm512_loadu_si512(pSrc), _mm512_loadu_si512(pSrc + 64), _mm512_loadu_si512(pSrc + 128)};
        if (bGreyRun) {
            __m512i ch[3];
            for (int c = 0; c < 3; ++c)
                ch[c] = _mm512_mask_blend_epi8(~0ULL << 42, _mm512_permutex2var_epi8(x[0], _mm512_load_si512(b.channel[c][0]), x[1]),
                                               _mm512_permutex2var_epi8(x[1], _mm512_load_si512(b.channel[c][1]), x[2]));
            if ((_mm512_cmpeq_epi8_mask(ch[0], ch[1]) & _mm512_cmpeq_epi8_mask(ch[1], ch[2])) == ~0ULL) {
                _mm512_storeu_si512(pDst, greyOfGrey(ch[0]));
                continue;
            }
            bGreyRun = false;
        }
        const __m512i px[4] = {_mm512_permutexvar_epi8(spread[0], x[0]), _mm512_permutex2var_epi8(x[0], spread[1], x[1]),
                               _mm512_permutex2var_epi8(x[1], spread[2], x[2]), _mm512_permutexvar_epi8(spread[3], x[2])};
        __m512i q[2];
        __mmask32 e[2];
        for (int h = 0; h < 2; ++h)
            q[h] = quotients(px[2 * h], px[2 * h + 1], e[h]);
        __m512i bytes = pack64(q[0], q[1]);
        __mmask64 exact = (e[0] | e[1]) != 0 ? packMask(e[0], e[1]) : 0;
        if (__builtin_popcountll(exact) > kc::kFewExactLanes) {
            // Grey pixels: (b0, b1, b2, b1) equal to itself rotated by a byte.
            __mmask64 grey = 0;
            for (int k = 0; k < 4; ++k)
                grey |= static_cast<__mmask64>(_mm512_cmpeq_epi32_mask(px[k], _mm512_ror_epi32(px[k], 8))) << (16 * k);
            bytes = _mm512_mask_blend_epi8(grey, bytes, greyOfGrey(bytes));
            exact &= ~grey;
            bGreyRun = grey == ~0ULL;
        }
        _mm512_storeu_si512(pDst, bytes);
        x86::lowerExactLanes(pDst, pSrc, exact, oneLess);
    }
    tail(pSrc, pDst, n - i);
}

// Weighted grey of bytes as in the AVX2 set, each dot product one vpdpbusd
// (P accumulating onto t / 8).
void bgrToGray(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    const unsigned char* fix = scalar::weightedFixEntries();
    const __m512i kP = set32(kc::kPBytes), kT = set32(kc::kTBytes);
    const __m512i div125 = _mm512_set1_epi16(static_cast<short>(kc::kDiv125Mul)), k125 = _mm512_set1_epi16(125);
    // 125 q (q < 256) by a byte multiply-add: GCC turns a multiply by the
    // constant into four shifts and adds.
    auto quotients = [&](__m512i a, __m512i b, __mmask32& e) {
        const __m512i z = _mm512_setzero_si512(), ta = _mm512_dpbusd_epi32(z, a, kT), tb = _mm512_dpbusd_epi32(z, b, kT);
        const __m512i s8 = _mm512_packs_epi32(_mm512_dpbusd_epi32(_mm512_srli_epi32(ta, 3), a, kP),
                                              _mm512_dpbusd_epi32(_mm512_srli_epi32(tb, 3), b, kP));
        const __m512i q = _mm512_srli_epi16(_mm512_mulhi_epu16(s8, div125), kc::kDiv125Shift);
        e = _mm512_mask_cmpeq_epi16_mask(_mm512_testn_epi16_mask(_mm512_packs_epi32(ta, tb), _mm512_set1_epi16(7)),
                                         _mm512_maddubs_epi16(q, k125), s8);
        return q;
    };
    greyOf3(pSrc, pDst, n, x86::greyOfGrey().weighted, quotients,
            [fix](const unsigned char* p) { return fix[p[1] * 256 + p[2]]; }, avx2::bgrToGray);
}

// The driver's grey, t one vpdpbusd.
void grey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    const unsigned short* fix = scalar::grey3FixEntries();
    const __m512i kT = set32(kc::kDBytes);
    const __m512i div20 = _mm512_set1_epi16(static_cast<short>(kc::kDiv20Mul)), k20 = _mm512_set1_epi16(20);
    auto quotients = [&](__m512i a, __m512i b, __mmask32& e) {
        const __m512i z = _mm512_setzero_si512();
        const __m512i t = _mm512_packs_epi32(_mm512_dpbusd_epi32(z, a, kT), _mm512_dpbusd_epi32(z, b, kT));
        const __m512i q = _mm512_mulhi_epu16(t, div20);
        e = _mm512_cmpeq_epi16_mask(_mm512_mullo_epi16(q, k20), t);
        return q;
    };
    greyOf3(pSrc, pDst, n, x86::greyOfGrey().driver, quotients,
            [fix](const unsigned char* p) { return (fix[p[1] * 256 + p[2]] >> (p[0] / 20)) & 1; }, avx2::grey3To1);
}

// The YUV kernels take 16 groups (32 pixels) from one 64-byte load, lane i of
// the "first" sums being the pixel of group i's first luma word. Byte
// permutes per type: BGR output from the packed channels, grey output.
struct YuvPermutes {
    alignas(64) unsigned char out[2][64];
    alignas(64) unsigned char grey[64];
};

const YuvPermutes& yuvPermutes(int nType)
{
    static const struct Table {
        YuvPermutes type[4];
        Table() : type()
        {
            for (int n = 0; n < 4; ++n) {
                // After the packs, lane L holds, for groups 4 L + m, the first
                // pixels at byte 16 L + m and the second ones at + 4: B, and G
                // 8 bytes on, in the first vector. R stays in 16-bit words in
                // the second (from 64), the same pixel at twice the offset.
                const int nFirst = x86::yuvLayout(n).nFirst;
                for (int p = 0; p < 32; ++p) {
                    const int j = p / 2, at = 16 * (j / 4) + j % 4 + (p % 2 == nFirst ? 0 : 4);
                    const int idx[3] = {at, at + 8, 64 + 16 * (at / 16) + 2 * (at % 16)};
                    for (int c = 0; c < 3; ++c)
                        type[n].out[(3 * p + c) / 64][(3 * p + c) % 64] = static_cast<unsigned char>(idx[c]);
                    type[n].grey[p] = static_cast<unsigned char>(at);
                }
            }
        }
    } s_table;
    return s_table.type[nType];
}

// The sums of 16 groups as in the AVX2 set, chroma and luma terms by vpdpwssd.
class YuvSums {
public:
    YuvSums(const x86::YuvLayout& l, int nShift, int nBias)
        : m_bLumaOdd(l.bLumaOdd), m_nShift(nShift), m_kC{set32(l.kCb), set32(l.kCg), set32(l.kCr)},
          m_kY1(set32(x86::wordPair(kc::kLuma >> nShift, 0))), m_kY2(set32(x86::wordPair(0, kc::kLuma >> nShift))),
          m_base{_mm512_set1_epi32(kc::kBlueBase + (nBias << nShift)), _mm512_set1_epi32(kc::kGreenBase + (nBias << nShift)),
                 _mm512_set1_epi32(kc::kRedBase + (nBias << nShift))}
    {
    }
    // s[0] .. s[5]: blue, green, red of the first pixels, then of the second.
    void operator()(const unsigned char* pSrc, __m512i s[6]) const
    {
        const __m512i x = _mm512_loadu_si512(pSrc);
        const __m512i even = _mm512_and_si512(x, _mm512_set1_epi16(0xFF)), odd = _mm512_srli_epi16(x, 8);
        const __m512i luma = m_bLumaOdd ? odd : even, chroma = m_bLumaOdd ? even : odd;
        for (int k = 0; k < 3; ++k) {
            const __m512i c = _mm512_srai_epi32(_mm512_dpwssd_epi32(m_base[k], chroma, m_kC[k]), m_nShift);
            s[k] = _mm512_dpwssd_epi32(c, luma, m_kY1);
            s[k + 3] = _mm512_dpwssd_epi32(c, luma, m_kY2);
        }
    }

private:
    bool m_bLumaOdd;
    int m_nShift;
    __m512i m_kC[3], m_kY1, m_kY2, m_base[3];
};

// Pixel-order bit mask from the lane masks of the first and second sums.
inline unsigned pixelMask(unsigned first, unsigned second, int nFirst)
{
    const unsigned a = _pdep_u32(first, 0x55555555u), b = _pdep_u32(second, 0x55555555u);
    return nFirst == 0 ? (a | b << 1) : (a << 1 | b);
}

// Clamped colour from quarter sums w = floor(s / 4) + 1 (kernelconstants.h).
void yuvToBgr(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    const YuvSums sums(x86::yuvLayout(nType), 2, 1);
    const __m512i out0 = _mm512_load_si512(yuvPermutes(nType).out[0]), out1 = _mm512_load_si512(yuvPermutes(nType).out[1]);
    const __m512i div250 = _mm512_set1_epi16(static_cast<short>(kc::kDiv250Mul));
    auto quot = [&](__m512i a, __m512i b) {
        return _mm512_srli_epi16(_mm512_mulhi_epu16(_mm512_packus_epi32(a, b), div250), kc::kDiv250Shift);
    };
    std::size_t i = 0;
    for (; i + 16 <= nPairs; i += 16, pSrc += 64, pDst += 96) {
        __m512i s[6];
        sums(pSrc, s);
        const __m512i b = quot(s[0], s[3]), g = quot(s[1], s[4]), r = quot(s[2], s[5]);
        const __m512i p0 = _mm512_packus_epi16(b, g), p1 = _mm512_min_epu16(r, _mm512_set1_epi16(255));
        _mm512_storeu_si512(pDst, _mm512_permutex2var_epi8(p0, out0, p1));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst + 64), _mm512_castsi512_si256(_mm512_permutex2var_epi8(p0, out1, p1)));
    }
    avx2::yuvToBgr(nType, pSrc, pDst, nPairs - i);
}

// Weighted grey of unclamped colour without a rounding or conversion
// instruction: channel quotients and the grey from multiply-adds rounded down
// onto sums that read as floats (kernelconstants.h). Where W is a multiple of
// 1000, grey pixels (equal channels, so equal bit patterns) take the answer
// by value, any other pixel (about one in a thousand) is redone by the rule.
void yuvToGray(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    const x86::YuvLayout l = x86::yuvLayout(nType);
    const YuvSums sums(l, 0, kc::kFloatZero + kc::kChannelOffset);
    // Loaded only where needed: the loop has no registers to spare for it.
    const unsigned char* greyOfGrey = x86::greyOfGrey().weighted;
    const int kDown = _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC;
    std::size_t i = 0;
    while (i + 16 <= nPairs) {
        __m512i order = _mm512_load_si512(yuvPermutes(nType).grey), start = _mm512_set1_epi32(kc::kGreyStart);
        __m512i wB = set32(x86::wordPair(114, -114)), wG = set32(x86::wordPair(587, -587)), wR = set32(x86::wordPair(299, -299));
        __m512 channelScale = _mm512_set1_ps(kc::kChannelScale), channelBase = _mm512_set1_ps(kc::kChannelBase);
        __m512 milli = _mm512_set1_ps(0.001f), greyBase = _mm512_set1_ps(kc::kGreyBase);
        __m512i fraction = _mm512_set1_epi32(kc::kGreyFractionMask), bias = _mm512_set1_epi32(kc::kGreyQuotientBias);
        // Opaque, so that GCC keeps them in registers instead of building them
        // again in every pass (without, the kernel takes a quarter longer).
        __asm__("" : "+v"(order), "+v"(start), "+v"(wB), "+v"(wG), "+v"(wR), "+v"(fraction), "+v"(bias));
        __asm__("" : "+v"(channelScale), "+v"(channelBase), "+v"(milli), "+v"(greyBase));
        const __m512i weight[3] = {wB, wG, wR};
        // Pixels to redo by the rule wait in a short list, so that the loop
        // calls nothing: a call would cost every vector register it holds.
        struct {
            std::size_t nPair;
            unsigned nLanes;
        } pending[16];
        int nPending = 0;
        for (; i + 16 <= nPairs && nPending < 16; i += 16) {
            __m512i s[6], y[6], q[2];
            __mmask16 exact[2];
            sums(pSrc + 4 * i, s);
            for (int h = 0; h < 2; ++h) {
                __m512i w = start;
                for (int c = 0; c < 3; ++c) {
                    y[3 * h + c] = _mm512_castps_si512(
                        _mm512_fmadd_round_ps(_mm512_castsi512_ps(s[3 * h + c]), channelScale, channelBase, kDown));
                    w = _mm512_dpwssd_epi32(w, y[3 * h + c], weight[c]);
                }
                const __m512i z = _mm512_castps_si512(_mm512_fmadd_round_ps(_mm512_castsi512_ps(w), milli, greyBase, kDown));
                q[h] = _mm512_add_epi32(_mm512_srli_epi32(z, 10), bias);
                exact[h] = _mm512_testn_epi32_mask(z, fraction);
            }
            const __m512i words = _mm512_packs_epi32(q[0], q[1]);
            __m512i bytes = _mm512_permutexvar_epi8(order, _mm512_packus_epi16(words, words));
            // Exact quotients are rare on camera frames: their range and grey
            // tests stay out of the common path.
            if ((exact[0] | exact[1]) != 0) {
                __mmask16 grey[2], other[2];
                for (int h = 0; h < 2; ++h) {
                    // Only quotients 1 .. 255 matter: elsewhere one less clamps to the same byte.
                    const __mmask16 m = _mm512_mask_cmple_epi32_mask(
                        _mm512_mask_cmpge_epi32_mask(exact[h], q[h], _mm512_set1_epi32(1)), q[h], _mm512_set1_epi32(255));
                    grey[h] = _mm512_mask_cmpeq_epi32_mask(_mm512_mask_cmpeq_epi32_mask(m, y[3 * h], y[3 * h + 1]),
                                                           y[3 * h + 1], y[3 * h + 2]);
                    other[h] = m & ~grey[h];
                }
                bytes = _mm512_mask_blend_epi8(pixelMask(grey[0], grey[1], l.nFirst), bytes, Lut(greyOfGrey)(bytes));
                if (const unsigned m = pixelMask(other[0], other[1], l.nFirst))
                    pending[nPending++] = {i, m};
            }
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst + 2 * i), _mm512_castsi512_si256(bytes));
        }
        for (int k = 0; k < nPending; ++k)
            x86::redoYuvGreyLanes(nType, pSrc + 4 * pending[k].nPair, pDst + 2 * pending[k].nPair, pending[k].nLanes);
    }
    avx2::yuvToGray(nType, pSrc + 4 * i, pDst + 2 * i, nPairs - i);
}

} // namespace

const PixelKernels kKernels = {
    "avx512-vnni", yuvToBgr, yuvToGray, bgrToGray, expand3, avx2::swapRB, lutCopy, grey3To1,
};

} // namespace avx512
} // namespace kavrel
