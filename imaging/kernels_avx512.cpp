// Table lookups with AVX-512 VBMI (compiled with -mavx512bw -mavx512vbmi, only
// called when the processor has both): two 128-byte permutes and a blend
// replace the 31-step AVX2 lookup. The driver's grey uses the byte permutes
// too; everything else is the AVX2 set.

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

// 16 packed 3-byte pixels (48 bytes, read exactly) as 16 dwords
// (byte 0, byte 1, byte 2, byte 1).
inline __m512i load3To4x16(const unsigned char* p, __m512i expand)
{
    return _mm512_permutexvar_epi8(expand, _mm512_maskz_loadu_epi8(0xFFFFFFFFFFFFULL, p));
}

inline __m512i dot3(__m512i px, int c0, int c1, int c2)
{
    const int k = (c0 & 0xFF) | (c1 & 0xFF) << 8 | (c2 & 0xFF) << 16;
    return _mm512_madd_epi16(_mm512_maddubs_epi16(px, _mm512_set1_epi32(k)), _mm512_set1_epi16(1));
}

// Four vectors of 16 dwords (within int16) as 64 bytes in pixel order.
inline __m512i pack64(__m512i a, __m512i b, __m512i c, __m512i d, __m512i order, bool bMask)
{
    const __m512i ab = _mm512_packs_epi32(a, b), cd = _mm512_packs_epi32(c, d);
    return _mm512_permutexvar_epi32(order, bMask ? _mm512_packs_epi16(ab, cd) : _mm512_packus_epi16(ab, cd));
}

// b1 * 0.6 + b2 * 0.25 + b0 * 0.15 in double, truncated: t = 12 b1 + 5 b2 +
// 3 b0 over 20 except for multiples of 20, where grey pixels take their value
// from a table by v and others a bit of the (b1, b2) table (as in the AVX2 set).
void grey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    const Lut greyOfGrey(grey3OfGrey().value);
    const unsigned short* fix = avx2::grey3FixEntries();
    alignas(64) unsigned char expandIdx[64];
    for (int j = 0; j < 16; ++j) {
        expandIdx[4 * j] = static_cast<unsigned char>(3 * j);
        expandIdx[4 * j + 1] = expandIdx[4 * j + 3] = static_cast<unsigned char>(3 * j + 1);
        expandIdx[4 * j + 2] = static_cast<unsigned char>(3 * j + 2);
    }
    const __m512i expand = _mm512_load_si512(expandIdx);
    // After the two in-lane packs, dword 4 i + j holds pixels 16 j + 4 i .. + 3.
    const __m512i order = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    std::size_t i = 0;
    for (; i + 64 <= n; i += 64, pSrc += 192, pDst += 64) {
        __m512i px[4], t[4];
        for (int k = 0; k < 4; ++k) {
            px[k] = load3To4x16(pSrc + 48 * k, expand);
            t[k] = dot3(px[k], 3, 12, 5);
        }
        const __m512i ta = _mm512_packs_epi32(t[0], t[1]), tb = _mm512_packs_epi32(t[2], t[3]);
        const __m512i qa = _mm512_mulhi_epu16(ta, _mm512_set1_epi16(3277));
        const __m512i qb = _mm512_mulhi_epu16(tb, _mm512_set1_epi16(3277));
        __m512i bytes = _mm512_permutexvar_epi32(order, _mm512_packus_epi16(qa, qb));
        const __mmask32 ea = _mm512_cmpeq_epi16_mask(_mm512_mullo_epi16(qa, _mm512_set1_epi16(20)), ta);
        const __mmask32 eb = _mm512_cmpeq_epi16_mask(_mm512_mullo_epi16(qb, _mm512_set1_epi16(20)), tb);
        if ((ea | eb) != 0) {
            // A pixel (b0, b1, b2, b1) is grey when it equals itself rotated
            // by a byte. Grey pixels are always exact, so equal counts mean
            // that the grey ones are the only exact ones.
            __mmask64 grey = 0;
            for (int k = 0; k < 4; ++k)
                grey |= static_cast<__mmask64>(_mm512_cmpeq_epi32_mask(px[k], _mm512_ror_epi32(px[k], 8))) << (16 * k);
            bytes = _mm512_mask_blend_epi8(grey, bytes, greyOfGrey(bytes));
            const int nOther = __builtin_popcount(ea) + __builtin_popcount(eb) - __builtin_popcountll(grey);
            if (nOther > 0) {
                const __mmask64 other = ~grey & _mm512_movepi8_mask(_mm512_permutexvar_epi32(
                                                    order, _mm512_packs_epi16(_mm512_movm_epi16(ea), _mm512_movm_epi16(eb))));
                if (nOther <= 8) {
                    // Few (noise): lane by lane from the table.
                    _mm512_storeu_si512(pDst, bytes);
                    for (unsigned long long mask = other; mask != 0; mask &= mask - 1) {
                        const int j = __builtin_ctzll(mask);
                        const unsigned char* p = pSrc + 3 * j;
                        pDst[j] = static_cast<unsigned char>(pDst[j] - ((fix[p[1] * 256 + p[2]] >> (p[0] / 20)) & 1));
                    }
                    continue;
                }
                __m512i f[4];
                for (int k = 0; k < 4; ++k) {
                    const __m512i key = _mm512_or_si512(_mm512_and_si512(px[k], _mm512_set1_epi32(0xFF00)),
                                                        _mm512_and_si512(_mm512_srli_epi32(px[k], 16), _mm512_set1_epi32(0xFF)));
                    const __m512i b0 = _mm512_and_si512(px[k], _mm512_set1_epi32(0xFF));
                    const __m512i bit = _mm512_srli_epi32(_mm512_madd_epi16(b0, _mm512_set1_epi32(3277)), 16);
                    const __m512i entry = _mm512_i32gather_epi32(key, fix, 2);
                    f[k] = _mm512_and_si512(_mm512_srlv_epi32(entry, bit), _mm512_set1_epi32(1));
                }
                bytes = _mm512_mask_sub_epi8(bytes, other, bytes, pack64(f[0], f[1], f[2], f[3], order, false));
            }
        }
        _mm512_storeu_si512(pDst, bytes);
    }
    avx2::grey3To1(pSrc, pDst, n - i);
}

// Weighted grey of 3-byte pixels (b, g, r), as in the AVX2 set: S / 8 =
// P + t / 8 with P = 73 g + 37 r + 14 b and t = 3 g + 3 r + 2 b, over 125 by
// a multiply-high; exact multiples of 1000 from the tables.
void bgrToGray(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    const Lut greyOfGrey(grey3OfGrey().weighted);
    const unsigned char* fix = avx2::weightedFixEntries();
    alignas(64) unsigned char expandIdx[64];
    for (int j = 0; j < 16; ++j) {
        expandIdx[4 * j] = static_cast<unsigned char>(3 * j);
        expandIdx[4 * j + 1] = expandIdx[4 * j + 3] = static_cast<unsigned char>(3 * j + 1);
        expandIdx[4 * j + 2] = static_cast<unsigned char>(3 * j + 2);
    }
    const __m512i expand = _mm512_load_si512(expandIdx);
    const __m512i order = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    const __m512i z = _mm512_setzero_si512();
    std::size_t i = 0;
    for (; i + 64 <= n; i += 64, pSrc += 192, pDst += 64) {
        __m512i px[4], s8[4], t7[4];
        for (int k = 0; k < 4; ++k) {
            px[k] = load3To4x16(pSrc + 48 * k, expand);
            const __m512i t = dot3(px[k], 2, 3, 3);
            s8[k] = _mm512_add_epi32(dot3(px[k], 14, 73, 37), _mm512_srli_epi32(t, 3));
            t7[k] = _mm512_and_si512(t, _mm512_set1_epi32(7));
        }
        const __m512i sa = _mm512_packs_epi32(s8[0], s8[1]), sb = _mm512_packs_epi32(s8[2], s8[3]);
        const __m512i m = _mm512_set1_epi16(static_cast<short>(33555));
        const __m512i qa = _mm512_srli_epi16(_mm512_mulhi_epu16(sa, m), 6);
        const __m512i qb = _mm512_srli_epi16(_mm512_mulhi_epu16(sb, m), 6);
        __m512i bytes = _mm512_permutexvar_epi32(order, _mm512_packus_epi16(qa, qb));
        const __m512i k125 = _mm512_set1_epi16(125);
        const __mmask32 ea = _mm512_mask_cmpeq_epi16_mask(_mm512_cmpeq_epi16_mask(_mm512_packs_epi32(t7[0], t7[1]), z),
                                                          _mm512_mullo_epi16(qa, k125), sa);
        const __mmask32 eb = _mm512_mask_cmpeq_epi16_mask(_mm512_cmpeq_epi16_mask(_mm512_packs_epi32(t7[2], t7[3]), z),
                                                          _mm512_mullo_epi16(qb, k125), sb);
        if ((ea | eb) != 0) {
            __mmask64 grey = 0;
            for (int k = 0; k < 4; ++k)
                grey |= static_cast<__mmask64>(_mm512_cmpeq_epi32_mask(px[k], _mm512_ror_epi32(px[k], 8))) << (16 * k);
            bytes = _mm512_mask_blend_epi8(grey, bytes, greyOfGrey(bytes));
            const int nOther = __builtin_popcount(ea) + __builtin_popcount(eb) - __builtin_popcountll(grey);
            if (nOther > 0) {
                const __mmask64 other = ~grey & _mm512_movepi8_mask(_mm512_permutexvar_epi32(
                                                    order, _mm512_packs_epi16(_mm512_movm_epi16(ea), _mm512_movm_epi16(eb))));
                if (nOther <= 8) {
                    _mm512_storeu_si512(pDst, bytes);
                    for (unsigned long long mask = other; mask != 0; mask &= mask - 1) {
                        const int j = __builtin_ctzll(mask);
                        const unsigned char* p = pSrc + 3 * j;
                        pDst[j] = static_cast<unsigned char>(pDst[j] - fix[p[1] * 256 + p[2]]);
                    }
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

} // namespace

const PixelKernels kKernels = {
    "avx512vbmi", avx2::yuvToBgr, avx2::yuvToGray, bgrToGray, expand3, avx2::swapRB, lutCopy, grey3To1,
};

} // namespace avx512
} // namespace kavrel
