// SPDX-License-Identifier: LGPL-2.1-or-later
// Table lookups with AVX-512 VBMI (compiled with -mavx512bw -mavx512dq
// -mavx512vbmi, only called when the processor has all three): two 128-byte
// permutes and a blend replace the 31-step AVX2 lookup. When the processor
// also has VNNI (checked apart, at first use), both greys of 3-byte pixels
// and both YUV conversions use its dot products; everything else is the AVX2
// set.

#include "imaging/convertkernels.h"
#include "imaging/convertreference.h"
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

struct Lut {
    __m512i t[4];
    explicit Lut(const unsigned char* lut)
    {
        for (int j = 0; j < 4; ++j)
            t[j] = _mm512_loadu_si512(lut + 64 * j);
    }
    __m512i operator()(__m512i x) const
    {
        const __m512i low = _mm512_permutex2var_epi8(t[0], x, t[1]);
        const __m512i high = _mm512_permutex2var_epi8(t[2], x, t[3]);
        return _mm512_mask_blend_epi8(_mm512_movepi8_mask(x), low, high);
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
    if (!lut) {
        avx2::expand3(pSrc, pDst, n, nullptr);
        return;
    }
    alignas(64) unsigned char block[1024];
    for (std::size_t i = 0; i < n; i += sizeof block) {
        const std::size_t m = n - i < sizeof block ? n - i : sizeof block;
        lutCopy(pSrc + i, block, m, lut);
        avx2::expand3(block, pDst + 3 * i, m, nullptr);
    }
}

// Driver grey and weighted grey of grey pixels (all three bytes v), by v.
struct Grey3OfGrey {
    alignas(64) unsigned char value[256];
    alignas(64) unsigned char weighted[256];
    Grey3OfGrey()
    {
        for (int v = 0; v < 256; ++v) {
            const unsigned char p[3] = {static_cast<unsigned char>(v), static_cast<unsigned char>(v),
                                        static_cast<unsigned char>(v)};
            value[v] = ref::grey3To1(p);
            weighted[v] = static_cast<unsigned char>(ref::weightedGrey(v, v, v));
        }
    }
};

const Grey3OfGrey& grey3OfGrey()
{
    static const Grey3OfGrey s_table;
    return s_table;
}

// Four vectors of 16 dwords (within int16) as 64 bytes in pixel order.
inline __m512i pack64(__m512i a, __m512i b, __m512i c, __m512i d, __m512i order, bool bMask)
{
    const __m512i ab = _mm512_packs_epi32(a, b), cd = _mm512_packs_epi32(c, d);
    return _mm512_permutexvar_epi32(order, bMask ? _mm512_packs_epi16(ab, cd) : _mm512_packus_epi16(ab, cd));
}

// The driver grey's exact-quotient bits of 64 pixels (b0, b1, b2, b1) from
// the (b1, b2) table, gathered, as bytes in pixel order.
inline __m512i grey3FixBits(const __m512i px[4], const unsigned short* fix, __m512i order)
{
    __m512i f[4];
    for (int k = 0; k < 4; ++k) {
        const __m512i key = _mm512_or_si512(_mm512_and_si512(px[k], _mm512_set1_epi32(0xFF00)),
                                            _mm512_and_si512(_mm512_srli_epi32(px[k], 16), _mm512_set1_epi32(0xFF)));
        const __m512i b0 = _mm512_and_si512(px[k], _mm512_set1_epi32(0xFF));
        const __m512i bit = _mm512_srli_epi32(_mm512_madd_epi16(b0, _mm512_set1_epi32(3277)), 16);
        const __m512i entry = _mm512_i32gather_epi32(key, fix, 2);
        f[k] = _mm512_and_si512(_mm512_srlv_epi32(entry, bit), _mm512_set1_epi32(1));
    }
    return pack64(f[0], f[1], f[2], f[3], order, false);
}

// Grey pixels of a 64-pixel block, (b0, b1, b2, b1) equal to itself rotated
// by a byte, as a mask in pixel order.
inline __mmask64 greyPixels(const __m512i (&px)[4])
{
    __mmask64 grey = 0;
    for (int k = 0; k < 4; ++k)
        grey |= static_cast<__mmask64>(_mm512_cmpeq_epi32_mask(px[k], _mm512_ror_epi32(px[k], 8))) << (16 * k);
    return grey;
}

// Byte permutes for 64 packed 3-byte pixels read as three full 64-byte loads
// (built once: padded images come row by row). Pixel 16 k + j of quarter k,
// as the dword (byte 0, byte 1, byte 2, byte 1), comes from byte 3 (16 k + j)
// on, counted from the first of the two loads its permute reads. Channel c of
// pixel p is byte 3 p + c of the first two loads for p < 42, of the last two
// (from 64) for the others.
struct Block64Tables {
    alignas(64) unsigned char idx[4][64];
    alignas(64) unsigned char chanLo[3][64];
    alignas(64) unsigned char chanHi[3][64];
    Block64Tables() : idx(), chanLo(), chanHi()
    {
        for (int k = 0; k < 4; ++k)
            for (int j = 0; j < 16; ++j) {
                const int base = 3 * (16 * k + j) - (k >= 2 ? 64 : 0);
                idx[k][4 * j] = static_cast<unsigned char>(base);
                idx[k][4 * j + 1] = idx[k][4 * j + 3] = static_cast<unsigned char>(base + 1);
                idx[k][4 * j + 2] = static_cast<unsigned char>(base + 2);
            }
        for (int c = 0; c < 3; ++c)
            for (int p = 0; p < 64; ++p)
                (p < 42 ? chanLo : chanHi)[c][p] = static_cast<unsigned char>(3 * p + c - (p < 42 ? 0 : 64));
    }
};

const Block64Tables& block64Tables()
{
    static const Block64Tables s_tables;
    return s_tables;
}

// Whether every pixel of the block in x0 .. x2 is grey; blue then holds
// their values.
inline bool allGreyBlock(const Block64Tables& tables, __m512i x0, __m512i x1, __m512i x2, __m512i& blue)
{
    __m512i ch[3];
    for (int c = 0; c < 3; ++c)
        ch[c] = _mm512_mask_blend_epi8(~0ULL << 42, _mm512_permutex2var_epi8(x0, _mm512_load_si512(tables.chanLo[c]), x1),
                                       _mm512_permutex2var_epi8(x1, _mm512_load_si512(tables.chanHi[c]), x2));
    blue = ch[0];
    return (_mm512_cmpeq_epi8_mask(ch[0], ch[1]) & _mm512_cmpeq_epi8_mask(ch[1], ch[2])) == ~0ULL;
}

// Weighted grey of 3-byte pixels (b, g, r), as in the AVX2 set: S / 8 =
// P + t / 8 with P = 73 g + 37 r + 14 b and t = 3 g + 3 r + 2 b, over 125 by
// a multiply-high; exact multiples of 1000 from the tables. Each dot product
// is one vpdpbusd (the second one accumulating onto t / 8), and the 192
// source bytes come in as three full loads spread by byte permutes.
__attribute__((target("avx512vnni"))) void bgrToGrayVnni(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    const Lut greyOfGrey(grey3OfGrey().weighted);
    const unsigned char* fix = scalar::weightedFixEntries();
    const Block64Tables& tables = block64Tables();
    const auto& expandIdx = tables.idx;
    // Set after an all-grey block: the next one tries the cheap test first,
    // so grey pictures skip the arithmetic and colour ones never pay for it.
    bool bGreyRun = false;
    const __m512i e0 = _mm512_load_si512(expandIdx[0]), e1 = _mm512_load_si512(expandIdx[1]);
    const __m512i e2 = _mm512_load_si512(expandIdx[2]), e3 = _mm512_sub_epi8(_mm512_load_si512(expandIdx[3]), _mm512_set1_epi8(64));
    const __m512i order = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    const __m512i z = _mm512_setzero_si512();
    const __m512i kP = _mm512_set1_epi32(14 | 73 << 8 | 37 << 16), kT = _mm512_set1_epi32(2 | 3 << 8 | 3 << 16);
    std::size_t i = 0;
    for (; i + 64 <= n; i += 64, pSrc += 192, pDst += 64) {
        const __m512i x0 = _mm512_loadu_si512(pSrc), x1 = _mm512_loadu_si512(pSrc + 64), x2 = _mm512_loadu_si512(pSrc + 128);
        if (bGreyRun) {
            __m512i b;
            if (allGreyBlock(tables, x0, x1, x2, b)) {
                _mm512_storeu_si512(pDst, greyOfGrey(b));
                continue;
            }
            bGreyRun = false;
        }
        __m512i px[4], s8[4], t7[4];
        px[0] = _mm512_permutexvar_epi8(e0, x0);
        px[1] = _mm512_permutex2var_epi8(x0, e1, x1);
        px[2] = _mm512_permutex2var_epi8(x1, e2, x2);
        px[3] = _mm512_permutexvar_epi8(e3, x2);
        for (int k = 0; k < 4; ++k) {
            const __m512i t = _mm512_dpbusd_epi32(z, px[k], kT);
            s8[k] = _mm512_dpbusd_epi32(_mm512_srli_epi32(t, 3), px[k], kP);
            t7[k] = _mm512_and_si512(t, _mm512_set1_epi32(7));
        }
        const __m512i sa = _mm512_packs_epi32(s8[0], s8[1]), sb = _mm512_packs_epi32(s8[2], s8[3]);
        const __m512i m = _mm512_set1_epi16(static_cast<short>(33555));
        const __m512i qa = _mm512_srli_epi16(_mm512_mulhi_epu16(sa, m), 6);
        const __m512i qb = _mm512_srli_epi16(_mm512_mulhi_epu16(sb, m), 6);
        __m512i bytes = _mm512_permutexvar_epi32(order, _mm512_packus_epi16(qa, qb));
        // Kept opaque: GCC would multiply by 125 with four shifts and adds.
        __m512i k125 = _mm512_set1_epi16(125);
        __asm__("" : "+v"(k125));
        const __mmask32 ea = _mm512_mask_cmpeq_epi16_mask(_mm512_cmpeq_epi16_mask(_mm512_packs_epi32(t7[0], t7[1]), z),
                                                          _mm512_mullo_epi16(qa, k125), sa);
        const __mmask32 eb = _mm512_mask_cmpeq_epi16_mask(_mm512_cmpeq_epi16_mask(_mm512_packs_epi32(t7[2], t7[3]), z),
                                                          _mm512_mullo_epi16(qb, k125), sb);
        if ((ea | eb) != 0) {
            const __mmask64 grey = greyPixels(px);
            if (grey == ~0ULL) {
                // All grey (a grey picture): every answer by value.
                _mm512_storeu_si512(pDst, greyOfGrey(bytes));
                bGreyRun = true;
                continue;
            }
            bytes = _mm512_mask_blend_epi8(grey, bytes, greyOfGrey(bytes));
            const int nOther = __builtin_popcount(ea) + __builtin_popcount(eb) - __builtin_popcountll(grey);
            if (nOther > 0) {
                const __mmask64 other = ~grey & _mm512_movepi8_mask(_mm512_permutexvar_epi32(
                                                    order, _mm512_packs_epi16(_mm512_movm_epi16(ea), _mm512_movm_epi16(eb))));
                if (nOther <= 8) {
                    _mm512_storeu_si512(pDst, bytes);
                    avx2::lowerExactLanes(pDst, pSrc, other,
                                          [fix](const unsigned char* p) { return fix[p[1] * 256 + p[2]]; });
                    continue;
                }
                __m512i f[4];
                for (int k = 0; k < 4; ++k) {
                    const __m512i key = _mm512_or_si512(_mm512_and_si512(px[k], _mm512_set1_epi32(0xFF00)),
                                                        _mm512_and_si512(_mm512_srli_epi32(px[k], 16), _mm512_set1_epi32(0xFF)));
                    f[k] = _mm512_and_si512(_mm512_i32gather_epi32(key, fix, 1), _mm512_set1_epi32(0xFF));
                }
                bytes = _mm512_mask_sub_epi8(bytes, other, bytes, pack64(f[0], f[1], f[2], f[3], order, false));
            }
        }
        _mm512_storeu_si512(pDst, bytes);
    }
    avx2::bgrToGray(pSrc, pDst, n - i);
}

// The driver's grey with VNNI: t is one vpdpbusd, the 192 source bytes come
// in as three full loads spread by byte permutes, and, as for the weighted
// grey, an all-grey block makes the next one try the cheap grey test first.
__attribute__((target("avx512vnni"))) void grey3To1Vnni(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    const Lut greyOfGrey(grey3OfGrey().value);
    const unsigned short* fix = scalar::grey3FixEntries();
    const Block64Tables& tables = block64Tables();
    bool bGreyRun = false;
    const __m512i e0 = _mm512_load_si512(tables.idx[0]), e1 = _mm512_load_si512(tables.idx[1]);
    const __m512i e2 = _mm512_load_si512(tables.idx[2]), e3 = _mm512_sub_epi8(_mm512_load_si512(tables.idx[3]), _mm512_set1_epi8(64));
    const __m512i order = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    const __m512i z = _mm512_setzero_si512();
    const __m512i kT = _mm512_set1_epi32(3 | 12 << 8 | 5 << 16);
    std::size_t i = 0;
    for (; i + 64 <= n; i += 64, pSrc += 192, pDst += 64) {
        const __m512i x0 = _mm512_loadu_si512(pSrc), x1 = _mm512_loadu_si512(pSrc + 64), x2 = _mm512_loadu_si512(pSrc + 128);
        if (bGreyRun) {
            __m512i b;
            if (allGreyBlock(tables, x0, x1, x2, b)) {
                _mm512_storeu_si512(pDst, greyOfGrey(b));
                continue;
            }
            bGreyRun = false;
        }
        __m512i px[4], t[4];
        px[0] = _mm512_permutexvar_epi8(e0, x0);
        px[1] = _mm512_permutex2var_epi8(x0, e1, x1);
        px[2] = _mm512_permutex2var_epi8(x1, e2, x2);
        px[3] = _mm512_permutexvar_epi8(e3, x2);
        for (int k = 0; k < 4; ++k)
            t[k] = _mm512_dpbusd_epi32(z, px[k], kT);
        const __m512i ta = _mm512_packs_epi32(t[0], t[1]), tb = _mm512_packs_epi32(t[2], t[3]);
        const __m512i qa = _mm512_mulhi_epu16(ta, _mm512_set1_epi16(3277));
        const __m512i qb = _mm512_mulhi_epu16(tb, _mm512_set1_epi16(3277));
        __m512i bytes = _mm512_permutexvar_epi32(order, _mm512_packus_epi16(qa, qb));
        const __mmask32 ea = _mm512_cmpeq_epi16_mask(_mm512_mullo_epi16(qa, _mm512_set1_epi16(20)), ta);
        const __mmask32 eb = _mm512_cmpeq_epi16_mask(_mm512_mullo_epi16(qb, _mm512_set1_epi16(20)), tb);
        if ((ea | eb) != 0) {
            // Few exact lanes (noise has one in 20): lane by lane from the
            // table, which holds grey pixels too, into a mask.
            auto lowerFew = [&](__mmask64 lanes) {
                unsigned long long lower = 0;
                for (unsigned long long mask = lanes; mask != 0; mask &= mask - 1) {
                    const int j = __builtin_ctzll(mask);
                    const unsigned char* p = pSrc + 3 * j;
                    lower |= static_cast<unsigned long long>((fix[p[1] * 256 + p[2]] >> (p[0] / 20)) & 1) << j;
                }
                return _mm512_mask_sub_epi8(bytes, lower, bytes, _mm512_set1_epi8(1));
            };
            const __mmask64 exact = _mm512_movepi8_mask(_mm512_permutexvar_epi32(
                order, _mm512_packs_epi16(_mm512_movm_epi16(ea), _mm512_movm_epi16(eb))));
            const int nExact = __builtin_popcount(ea) + __builtin_popcount(eb);
            if (nExact <= 8) {
                _mm512_storeu_si512(pDst, lowerFew(exact));
                continue;
            }
            // Many: grey pixels by value, the others by gathered table bits.
            const __mmask64 grey = greyPixels(px);
            if (grey == ~0ULL) {
                _mm512_storeu_si512(pDst, greyOfGrey(bytes));
                bGreyRun = true;
                continue;
            }
            bytes = _mm512_mask_blend_epi8(grey, bytes, greyOfGrey(bytes));
            const int nOther = nExact - __builtin_popcountll(grey);
            if (nOther > 8)
                bytes = _mm512_mask_sub_epi8(bytes, exact & ~grey, bytes, grey3FixBits(px, fix, order));
            else if (nOther > 0)
                bytes = lowerFew(exact & ~grey);
        }
        _mm512_storeu_si512(pDst, bytes);
    }
    avx2::grey3To1(pSrc, pDst, n - i);
}

// VNNI came after VBMI on one line of processors only; that line takes the
// AVX2 kernels for the grey and YUV conversions rather than variants of its
// own that no machine with both would ever run or test.
bool hasVnni()
{
    static const bool s_bVnni = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx512vnni") && __builtin_cpu_supports("bmi2");
    }();
    return s_bVnni;
}

void bgrToGrayBest(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    (hasVnni() ? bgrToGrayVnni : avx2::bgrToGray)(pSrc, pDst, n);
}

void grey3To1Best(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    (hasVnni() ? grey3To1Vnni : avx2::grey3To1)(pSrc, pDst, n);
}

// The VNNI YUV kernels take 16 groups (32 pixels) from one 64-byte load. The
// even bytes of each group, masked, and the odd ones, shifted down, are two
// word pairs: both lumas and both chromas, in an order that depends on the
// type. The chroma part of each sum comes once per group from vpdpwssd; the
// luma term 1164 Y, the same for all three channels, is added per pixel.
// Lane i of the "first" sums is the pixel of group i's first luma word, of
// the "second" sums the other one.
struct YuvVnniType {
    bool bLumaOdd;   // lumas in bytes 1 and 3
    int nFirst;      // 0: the first luma word is the left pixel, 1: the right
    unsigned kCb, kCg, kCr; // chroma coefficient word pairs
    // Byte permutes: BGR output from the packed channels, grey output.
    alignas(64) unsigned char out[2][64];
    alignas(64) unsigned char grey[64];
};

unsigned wordPair(int lo, int hi)
{
    return static_cast<unsigned>(static_cast<unsigned short>(hi)) << 16 | static_cast<unsigned short>(lo);
}

const YuvVnniType* yuvVnniTypes()
{
    static const struct Table {
        YuvVnniType type[4];
        Table() : type()
        {
            for (int n = 0; n < 4; ++n) {
                const unsigned char* pos = scalar::kGroupPos[n];
                YuvVnniType& t = type[n];
                t.bLumaOdd = pos[0] % 2 == 1;
                t.nFirst = pos[0] < pos[2] ? 0 : 1;
                const bool bVFirst = pos[3] < pos[1];
                auto chroma = [&](int u, int v) { return bVFirst ? wordPair(v, u) : wordPair(u, v); };
                t.kCb = chroma(2018, 0);
                t.kCg = chroma(-380, -813);
                t.kCr = chroma(0, 1159);
                // After the packs, lane L holds, for groups 4 L + m, the first
                // pixels at byte 16 L + m and the second ones at + 4: B, and G
                // 8 bytes on, in the first vector. R stays in 16-bit words in
                // the second (from 64), the same pixel at twice the offset.
                for (int p = 0; p < 32; ++p) {
                    const int j = p / 2;
                    const int at = 16 * (j / 4) + j % 4 + (p % 2 == t.nFirst ? 0 : 4);
                    const int idx[3] = {at, at + 8, 64 + 16 * (at / 16) + 2 * (at % 16)};
                    for (int c = 0; c < 3; ++c)
                        t.out[(3 * p + c) / 64][(3 * p + c) % 64] = static_cast<unsigned char>(idx[c]);
                    t.grey[p] = static_cast<unsigned char>(at);
                }
            }
        }
    } s_table;
    return s_table.type;
}

// The sums of 16 groups, blue, green and red of their first and second
// pixels: the chroma part once per group (with the constant terms), then the
// luma term of each pixel added to it. With bQuarter every sum is floor(s /
// 4) instead of s: the luma coefficient 1164 is 4 * 291, so only the chroma
// part needs the shift. nBias is added to every sum.
class YuvSums {
public:
    YuvSums(const YuvVnniType& t, bool bQuarter, int nBias)
        : m_bLumaOdd(t.bLumaOdd), m_nShift(bQuarter ? 2 : 0), m_kCb(_mm512_set1_epi32(static_cast<int>(t.kCb))),
          m_kCg(_mm512_set1_epi32(static_cast<int>(t.kCg))), m_kCr(_mm512_set1_epi32(static_cast<int>(t.kCr))),
          m_kY1(_mm512_set1_epi32(static_cast<int>(wordPair(1164 >> m_nShift, 0)))),
          m_kY2(_mm512_set1_epi32(static_cast<int>(wordPair(0, 1164 >> m_nShift)))),
          m_cB(_mm512_set1_epi32(-1164 * 16 - 2018 * 128 + (nBias << m_nShift))),
          m_cG(_mm512_set1_epi32(-1164 * 16 + 813 * 128 + 380 * 128 + (nBias << m_nShift))),
          m_cR(_mm512_set1_epi32(-1164 * 16 - 1159 * 128 + (nBias << m_nShift)))
    {
    }
    // s[0] .. s[5]: blue, green, red of the first pixels, then of the second.
    __attribute__((target("avx512vnni"), always_inline)) void operator()(const unsigned char* pSrc,
                                                                        __m512i s[6]) const
    {
        const __m512i x = _mm512_loadu_si512(pSrc);
        const __m512i even = _mm512_and_si512(x, _mm512_set1_epi16(0xFF)), odd = _mm512_srli_epi16(x, 8);
        const __m512i luma = m_bLumaOdd ? odd : even, chroma = m_bLumaOdd ? even : odd;
        const __m512i c[3] = {_mm512_dpwssd_epi32(m_cB, chroma, m_kCb), _mm512_dpwssd_epi32(m_cG, chroma, m_kCg),
                              _mm512_dpwssd_epi32(m_cR, chroma, m_kCr)};
        for (int k = 0; k < 3; ++k) {
            const __m512i ck = m_nShift != 0 ? _mm512_srai_epi32(c[k], 2) : c[k];
            s[k] = _mm512_dpwssd_epi32(ck, luma, m_kY1);
            s[k + 3] = _mm512_dpwssd_epi32(ck, luma, m_kY2);
        }
    }

private:
    bool m_bLumaOdd;
    int m_nShift;
    __m512i m_kCb, m_kCg, m_kCr, m_kY1, m_kY2, m_cB, m_cG, m_cR;
};

// Pixel-order bit mask from the lane masks of the first and second sums.
__attribute__((target("bmi2"))) inline unsigned pixelMask(unsigned first, unsigned second, int nFirst)
{
    const unsigned a = _pdep_u32(first, 0x55555555u), b = _pdep_u32(second, 0x55555555u);
    return nFirst == 0 ? (a | b << 1) : (a << 1 | b);
}

// YUV to clamped BGR. Only 0 .. 255 survives the clamp, so for a sum s the
// byte is 0 when s < 0 and s / 1000 = t / 250 otherwise, t = floor(s / 4).
// The sums come as t + 1: its unsigned saturating pack is 0 for every
// negative sum and exact for every t below 64000 (above, 65535 still means
// more than 255), and for every 16-bit w = t + 1, (w * 33554 >> 16) >> 7 is
// t / 250 when t < 64000 and at least 255 otherwise.
// So no 32-bit shift is left per pixel, only a multiply-high and a 16-bit one.
__attribute__((target("avx512vnni,bmi2"))) void yuvToBgrVnni(int nType, const unsigned char* pSrc,
                                                           unsigned char* pDst, std::size_t nPairs)
{
    const YuvVnniType& t = yuvVnniTypes()[nType];
    const __m512i out0 = _mm512_load_si512(t.out[0]), out1 = _mm512_load_si512(t.out[1]);
    const YuvSums sums(t, true, 1);
    const __m512i m250 = _mm512_set1_epi16(static_cast<short>(33554));
    auto quot = [&](__m512i a, __m512i b) {
        return _mm512_srli_epi16(_mm512_mulhi_epu16(_mm512_packus_epi32(a, b), m250), 7);
    };
    std::size_t i = 0;
    for (; i + 16 <= nPairs; i += 16, pSrc += 64, pDst += 96) {
        __m512i s[6];
        sums(pSrc, s);
        const __m512i b = quot(s[0], s[3]), g = quot(s[1], s[4]), r = quot(s[2], s[5]);
        const __m512i p0 = _mm512_packus_epi16(b, g), p1 = _mm512_min_epu16(r, _mm512_set1_epi16(255));
        _mm512_storeu_si512(pDst, _mm512_permutex2var_epi8(p0, out0, p1));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst + 64),
                            _mm512_castsi512_si256(_mm512_permutex2var_epi8(p0, out1, p1)));
    }
    avx2::yuvToBgr(nType, pSrc, pDst, nPairs - i);
}

// YUV to grey of the unclamped colour, without a rounding or conversion
// instruction: integer sums are started at 0x4B000000 plus an offset, which
// makes their bit patterns the floats 2^23 + offset + sum (exact while below
// 2^24), and a multiply-add rounded down onto a constant leaves the integer
// part of the product in the low bits of the result's bit pattern.
//
// Channels: a channel's sum s, started at 0x4B000000 + 3812390, reads as
// the float F = 2^23 + 3812390 + s. With m = 0.001000000164f (the float just
// above 0.001f), F * m + 12570711 rounded down is 1.5 * 2^23 + floor(s * m +
// d), where d = -1.0e-7 is what the constant leaves of (2^23 + 3812390) * m.
// Since m exceeds 0.001 by e = 1.6e-10 and -1000 e < d < 0, floor(s * m + d)
// is s / 1000 truncated for s > 0 and one less for s <= 0 (even an exact
// negative multiple lands just below its quotient). The low word of the
// result's bits is that floor; the high word is 0x4B40, or 0x4B3F exactly
// when s <= 0. So with word pairs (w, -w) one vpdpwssd per channel adds w
// times the truncated quotient to W = 587 g + 299 r + 114 b, less w *
// 0x4B40, which the sum's starting value puts back.
//
// Grey: the sum starts at 0x4B000000 + 300000 as well, so its bits are the
// float 2^23 + 300000 + W (W > -300000). Times 0.001f plus 12288 - 300 -
// 2^23 * 0.001f (both constants exact in single precision), rounded down,
// that is 12288 + W * 0.001f + 0.0000142 with ten fraction bits (units of
// 1 / 1024): the bits are 0x46400000 + the floor of 1024 times the rest. The
// integer part is W / 1000 truncated (below 0 it clamps to the same 0), and
// for W >= 0 the fraction bits are all 0 exactly where W is a multiple of
// 1000, where the double-precision rule may give one less. Grey pixels
// (equal channels, so equal bit patterns) take that answer from a table by
// value; any other such pixel (about one in a thousand) is redone by the
// rule after the run of blocks, so that the loop itself calls nothing and
// keeps its constants in registers.
__attribute__((target("avx512vnni,bmi2"))) void yuvToGrayVnni(int nType, const unsigned char* pSrc,
                                                            unsigned char* pDst, std::size_t nPairs)
{
    const YuvVnniType& t = yuvVnniTypes()[nType];
    const unsigned char* pos = scalar::kGroupPos[nType];
    const int kDown = _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC;
    std::size_t i = 0;
    while (i + 16 <= nPairs) {
        const YuvSums sums(t, false, 0x4B000000 + 3812390);
        const Lut greyOfGrey(grey3OfGrey().weighted);
        __m512i order = _mm512_load_si512(t.grey), wB = _mm512_set1_epi32(static_cast<int>(wordPair(114, -114)));
        __m512i wG = _mm512_set1_epi32(static_cast<int>(wordPair(587, -587))), wR = _mm512_set1_epi32(static_cast<int>(wordPair(299, -299)));
        __m512i w0 = _mm512_set1_epi32(0x4B000000 + 300000 + 1000 * 0x4B40), fraction = _mm512_set1_epi32(1023);
        __m512i quotient = _mm512_set1_epi32(-(0x46400000 >> 10));
        __m512 milli = _mm512_set1_ps(0.001f), greyBase = _mm512_set1_ps(3599.3916015625f);
        __m512 channelScale = _mm512_set1_ps(0x1.0624ep-10f), channelBase = _mm512_set1_ps(12570711.0f);
        // Opaque, so that GCC keeps them in registers instead of building them
        // again in every pass.
        __asm__("" : "+v"(order), "+v"(wB), "+v"(wG), "+v"(wR), "+v"(w0), "+v"(fraction), "+v"(quotient));
        __asm__("" : "+v"(milli), "+v"(greyBase), "+v"(channelScale), "+v"(channelBase));
        auto channel = [&](__m512i s) {
            return _mm512_castps_si512(_mm512_fmadd_round_ps(_mm512_castsi512_ps(s), channelScale, channelBase, kDown));
        };
        // Pixels still to be redone by the rule: a block's first pair and the
        // bit mask of its pixels.
        struct Pending {
            std::size_t firstPair;
            unsigned lanes;
        } pending[16];
        int nPending = 0;
        for (; i + 16 <= nPairs && nPending < 16; i += 16) {
            __m512i s[6];
            sums(pSrc + 4 * i, s);
            __m512i y[6], q[2];
            __mmask16 exact[2];
            for (int h = 0; h < 2; ++h) {
                for (int c = 0; c < 3; ++c)
                    y[3 * h + c] = channel(s[3 * h + c]);
                const __m512i w = _mm512_dpwssd_epi32(
                    _mm512_dpwssd_epi32(_mm512_dpwssd_epi32(w0, y[3 * h + 1], wG), y[3 * h + 2], wR), y[3 * h], wB);
                const __m512i z = _mm512_castps_si512(_mm512_fmadd_round_ps(_mm512_castsi512_ps(w), milli, greyBase, kDown));
                exact[h] = _mm512_testn_epi32_mask(z, fraction);
                q[h] = _mm512_add_epi32(_mm512_srli_epi32(z, 10), quotient);
            }
            const __m512i words = _mm512_packs_epi32(q[0], q[1]);
            __m512i bytes = _mm512_permutexvar_epi8(order, _mm512_packus_epi16(words, words));
            if ((exact[0] | exact[1]) != 0) {
                // Only quotients 1 .. 255 matter: elsewhere one less clamps to the same byte.
                __mmask16 grey[2], other[2];
                for (int h = 0; h < 2; ++h) {
                    const __mmask16 m = _mm512_mask_cmple_epi32_mask(
                        _mm512_mask_cmpge_epi32_mask(exact[h], q[h], _mm512_set1_epi32(1)), q[h], _mm512_set1_epi32(255));
                    grey[h] = _mm512_mask_cmpeq_epi32_mask(_mm512_mask_cmpeq_epi32_mask(m, y[3 * h], y[3 * h + 1]),
                                                           y[3 * h + 1], y[3 * h + 2]);
                    other[h] = m & ~grey[h];
                }
                bytes = _mm512_mask_blend_epi8(pixelMask(grey[0], grey[1], t.nFirst), bytes, greyOfGrey(bytes));
                if (const unsigned m = pixelMask(other[0], other[1], t.nFirst))
                    pending[nPending++] = {i, m};
            }
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst + 2 * i), _mm512_castsi512_si256(bytes));
        }
        for (int k = 0; k < nPending; ++k)
            for (unsigned m = pending[k].lanes; m != 0; m &= m - 1) {
                const std::size_t p = 2 * pending[k].firstPair + static_cast<std::size_t>(__builtin_ctz(m));
                const unsigned char* g = pSrc + 2 * (p & ~std::size_t(1));
                pDst[p] = scalar::yuvPixelGray(g[pos[p % 2 == 0 ? 0 : 2]], g[pos[1]], g[pos[3]]);
            }
    }
    avx2::yuvToGray(nType, pSrc + 4 * i, pDst + 2 * i, nPairs - i);
}

void yuvToBgrBest(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    (hasVnni() ? yuvToBgrVnni : avx2::yuvToBgr)(nType, pSrc, pDst, nPairs);
}

void yuvToGrayBest(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    (hasVnni() ? yuvToGrayVnni : avx2::yuvToGray)(nType, pSrc, pDst, nPairs);
}

} // namespace

const PixelKernels kKernels = {
    "avx512-vnni", yuvToBgrBest, yuvToGrayBest, bgrToGrayBest, expand3, avx2::swapRB, lutCopy, grey3To1Best,
};

} // namespace avx512
} // namespace kavrel
