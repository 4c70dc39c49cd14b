// AVX2 kernels (this file is compiled with -mavx2 and only called when the
// processor has it).
//
// Exactness: the YUV arithmetic runs in single precision on integers below
// 2^24, so every product and sum is exact, and trunc(x * 0.001f) equals
// trunc(x / 1000) for |x| < 2^20 (the nearest non-integer quotient is 0.001
// away, the rounding error is below 1e-4). The weighted grey is the exact
// quotient S / 1000, S = 587 g + 299 r + 114 b, except when S is a multiple of
// 1000, where rounding in double precision may land just below the integer:
// grey pixels (equal channels, always such a case) take the answer from a
// 256-bit set built with the reference rule, other such vectors are recomputed
// in double precision with the very same operations. The driver's grey works
// the same way on its own integer (see grey3To1).

#include "imaging/kernels_x86.h"

#include "imaging/convertkernels.h"
#include "imaging/convertreference.h"

#include <immintrin.h>

namespace kavrel {
namespace avx2 {

namespace {

// Grey pixels (all channels v) always hit the exact-quotient case, and the
// answer then depends on v alone: bit v of these sets says that the
// double-precision rule gives v - 1 rather than v. Built with the very same
// expressions as the reference.
struct EqualChannelFix {
    alignas(32) unsigned char weighted[32];
    alignas(32) unsigned char grey3[32];
    EqualChannelFix() : weighted(), grey3()
    {
        for (int v = 0; v < 256; ++v) {
            const unsigned char p[3] = {static_cast<unsigned char>(v), static_cast<unsigned char>(v),
                                        static_cast<unsigned char>(v)};
            if (ref::weightedGrey(v, v, v) != v)
                weighted[v >> 3] |= static_cast<unsigned char>(1 << (v & 7));
            if (ref::grey3To1(p) != v)
                grey3[v >> 3] |= static_cast<unsigned char>(1 << (v & 7));
        }
    }
};

const EqualChannelFix& equalChannelFix()
{
    static const EqualChannelFix s_fix;
    return s_fix;
}

// Masks that gather Y (pixel order) and U, V (repeated for both pixels of a
// pair) from four YUV groups.
struct YuvMasks {
    __m128i yu;
    __m128i v;
};

YuvMasks yuvMasks(int nType)
{
    const unsigned char* pos = scalar::kGroupPos[nType];
    alignas(16) unsigned char yu[16], v[16];
    for (int i = 0; i < 4; ++i) {
        yu[2 * i] = static_cast<unsigned char>(4 * i + pos[0]);
        yu[2 * i + 1] = static_cast<unsigned char>(4 * i + pos[2]);
        yu[8 + 2 * i] = yu[8 + 2 * i + 1] = static_cast<unsigned char>(4 * i + pos[1]);
        v[2 * i] = v[2 * i + 1] = static_cast<unsigned char>(4 * i + pos[3]);
        v[8 + 2 * i] = v[8 + 2 * i + 1] = 0x80;
    }
    return {_mm_load_si128(reinterpret_cast<const __m128i*>(yu)), _mm_load_si128(reinterpret_cast<const __m128i*>(v))};
}

// Blue, green and red (truncated, unclamped) of the 8 pixels of four groups.
inline void yuvToBgr8(__m128i groups, const YuvMasks& m, __m256i& b, __m256i& g, __m256i& r)
{
    const __m128i yu = _mm_shuffle_epi8(groups, m.yu);
    const __m128i vv = _mm_shuffle_epi8(groups, m.v);
    const __m256i y32 = _mm256_sub_epi32(_mm256_cvtepu8_epi32(yu), _mm256_set1_epi32(16));
    const __m256i u32 = _mm256_sub_epi32(_mm256_cvtepu8_epi32(_mm_srli_si128(yu, 8)), _mm256_set1_epi32(128));
    const __m256i v32 = _mm256_sub_epi32(_mm256_cvtepu8_epi32(vv), _mm256_set1_epi32(128));
    const __m256 fy = _mm256_mul_ps(_mm256_cvtepi32_ps(y32), _mm256_set1_ps(1164.0f));
    const __m256 fu = _mm256_cvtepi32_ps(u32);
    const __m256 fv = _mm256_cvtepi32_ps(v32);
    const __m256 k = _mm256_set1_ps(0.001f);
    const __m256 xb = _mm256_add_ps(fy, _mm256_mul_ps(fu, _mm256_set1_ps(2018.0f)));
    const __m256 xg = _mm256_sub_ps(_mm256_sub_ps(fy, _mm256_mul_ps(fv, _mm256_set1_ps(813.0f))),
                                    _mm256_mul_ps(fu, _mm256_set1_ps(380.0f)));
    const __m256 xr = _mm256_add_ps(fy, _mm256_mul_ps(fv, _mm256_set1_ps(1159.0f)));
    b = _mm256_cvttps_epi32(_mm256_mul_ps(xb, k));
    g = _mm256_cvttps_epi32(_mm256_mul_ps(xg, k));
    r = _mm256_cvttps_epi32(_mm256_mul_ps(xr, k));
}

// Clamped B, G, R of 8 pixels as two lanes of 12 interleaved bytes (+4 spare).
inline __m256i packBgr8(__m256i b, __m256i g, __m256i r)
{
    const __m256i bg = _mm256_packs_epi32(b, g);
    const __m256i rr = _mm256_packs_epi32(r, r);
    const __m256i bytes = _mm256_packus_epi16(bg, rr);
    const __m256i order = _mm256_setr_epi8(0, 4, 8, 1, 5, 9, 2, 6, 10, 3, 7, 11, -1, -1, -1, -1,
                                           0, 4, 8, 1, 5, 9, 2, 6, 10, 3, 7, 11, -1, -1, -1, -1);
    return _mm256_shuffle_epi8(bytes, order);
}

// Weighted grey of 8 pixels given as integer B, G, R (possibly outside
// 0 .. 255): exact quotient, with the double-precision rule where it matters.
inline __m256i weightedGrey8(__m256i b, __m256i g, __m256i r)
{
    const __m256 s = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(g), _mm256_set1_ps(587.0f)),
                                                 _mm256_mul_ps(_mm256_cvtepi32_ps(r), _mm256_set1_ps(299.0f))),
                                   _mm256_mul_ps(_mm256_cvtepi32_ps(b), _mm256_set1_ps(114.0f)));
    const __m256i q = _mm256_cvttps_epi32(_mm256_mul_ps(s, _mm256_set1_ps(0.001f)));
    // Exact multiples of 1000 with a quotient in 1 .. 255; others come out
    // the same either way (or clamp to the same byte).
    const __m256 exact = _mm256_cmp_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(q), _mm256_set1_ps(1000.0f)), s, _CMP_EQ_OQ);
    const __m256i inRange = _mm256_and_si256(_mm256_cmpgt_epi32(q, _mm256_setzero_si256()),
                                             _mm256_cmpgt_epi32(_mm256_set1_epi32(256), q));
    const __m256i cand = _mm256_and_si256(_mm256_castps_si256(exact), inRange);
    if (_mm256_testz_si256(cand, cand))
        return q;
    // Equal channels (U = V = 128 makes them so): q is their value and the
    // answer comes from the bit set; anything else takes the double rule.
    const __m256i equal = _mm256_and_si256(_mm256_cmpeq_epi32(b, g), _mm256_cmpeq_epi32(g, r));
    if (_mm256_testc_si256(equal, cand)) {
        const __m256i set = _mm256_load_si256(reinterpret_cast<const __m256i*>(equalChannelFix().weighted));
        const __m256i word = _mm256_permutevar8x32_epi32(set, _mm256_srli_epi32(q, 5));
        const __m256i bit = _mm256_and_si256(_mm256_srlv_epi32(word, _mm256_and_si256(q, _mm256_set1_epi32(31))),
                                             _mm256_set1_epi32(1));
        return _mm256_sub_epi32(q, _mm256_and_si256(bit, cand));
    }
    const __m256d c587 = _mm256_set1_pd(0.587), c299 = _mm256_set1_pd(0.299), c114 = _mm256_set1_pd(0.114);
    auto half = [&](__m128i b4, __m128i g4, __m128i r4) {
        const __m256d d = _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(g4), c587),
                                                      _mm256_mul_pd(_mm256_cvtepi32_pd(r4), c299)),
                                        _mm256_mul_pd(_mm256_cvtepi32_pd(b4), c114));
        return _mm256_cvttpd_epi32(d);
    };
    const __m128i lo = half(_mm256_castsi256_si128(b), _mm256_castsi256_si128(g), _mm256_castsi256_si128(r));
    const __m128i hi = half(_mm256_extracti128_si256(b, 1), _mm256_extracti128_si256(g, 1), _mm256_extracti128_si256(r, 1));
    return _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
}

// 8 int32 clamped to bytes, stored to p.
inline void storeBytes8(unsigned char* p, __m256i v)
{
    const __m256i w = _mm256_packs_epi32(v, v);
    const __m256i bytes = _mm256_packus_epi16(w, w);
    const __m128i out = _mm_unpacklo_epi32(_mm256_castsi256_si128(bytes), _mm256_extracti128_si256(bytes, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(p), out);
}

// Channels 0, 1, 2 of 8 packed 3-byte pixels, 8 bytes each (low half).
inline void load3x8Bytes(const unsigned char* p, __m128i& x0, __m128i& x1, __m128i& x2)
{
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i b = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p + 16));
    x0 = _mm_or_si128(_mm_shuffle_epi8(a, _mm_setr_epi8(0, 3, 6, 9, 12, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1)),
                                    _mm_shuffle_epi8(b, _mm_setr_epi8(-1, -1, -1, -1, -1, -1, 2, 5, -1, -1, -1, -1, -1, -1, -1, -1)));
    x1 = _mm_or_si128(_mm_shuffle_epi8(a, _mm_setr_epi8(1, 4, 7, 10, 13, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1)),
                                    _mm_shuffle_epi8(b, _mm_setr_epi8(-1, -1, -1, -1, -1, 0, 3, 6, -1, -1, -1, -1, -1, -1, -1, -1)));
    x2 = _mm_or_si128(_mm_shuffle_epi8(a, _mm_setr_epi8(2, 5, 8, 11, 14, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1)),
                                    _mm_shuffle_epi8(b, _mm_setr_epi8(-1, -1, -1, -1, -1, 1, 4, 7, -1, -1, -1, -1, -1, -1, -1, -1)));
}

// The same as 8 int32 each.
inline void load3x8(const unsigned char* p, __m256i& c0, __m256i& c1, __m256i& c2)
{
    __m128i x0, x1, x2;
    load3x8Bytes(p, x0, x1, x2);
    c0 = _mm256_cvtepu8_epi32(x0);
    c1 = _mm256_cvtepu8_epi32(x1);
    c2 = _mm256_cvtepu8_epi32(x2);
}

// A 256-entry byte table as 16 rows of 16 bytes, each in both lanes.
struct Lut {
    __m256i row[16];
    explicit Lut(const unsigned char* lut)
    {
        for (int j = 0; j < 16; ++j)
            row[j] = _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(lut + 16 * j)));
    }
    // Low nibble picks the entry in all 16 rows, then the four high bits
    // choose among them, one blend level per bit.
    __m256i operator()(__m256i x) const
    {
        const __m256i lo = _mm256_and_si256(x, _mm256_set1_epi8(0x0F));
        const __m256i m4 = _mm256_slli_epi16(x, 3);
        __m256i l1[8];
        for (int j = 0; j < 8; ++j)
            l1[j] = _mm256_blendv_epi8(_mm256_shuffle_epi8(row[2 * j], lo), _mm256_shuffle_epi8(row[2 * j + 1], lo), m4);
        const __m256i m5 = _mm256_slli_epi16(x, 2);
        __m256i l2[4];
        for (int j = 0; j < 4; ++j)
            l2[j] = _mm256_blendv_epi8(l1[2 * j], l1[2 * j + 1], m5);
        const __m256i m6 = _mm256_slli_epi16(x, 1);
        const __m256i l3a = _mm256_blendv_epi8(l2[0], l2[1], m6);
        const __m256i l3b = _mm256_blendv_epi8(l2[2], l2[3], m6);
        return _mm256_blendv_epi8(l3a, l3b, x);
    }
};

// Bit v of a 256-bit set for 16 byte lanes v, as 1 or 0: the byte v >> 3 and
// the mask 1 << (v & 7) both come from byte shuffles.
struct ByteBitSet {
    __m128i lo, hi;
    explicit ByteBitSet(const unsigned char* bits)
        : lo(_mm_load_si128(reinterpret_cast<const __m128i*>(bits))),
          hi(_mm_load_si128(reinterpret_cast<const __m128i*>(bits + 16)))
    {
    }
    __m128i operator()(__m128i v) const
    {
        const __m128i idx = _mm_and_si128(_mm_srli_epi16(v, 3), _mm_set1_epi8(0x1F));
        // Bit 4 of the index moves to bit 7 of its byte to pick the upper half.
        const __m128i byte = _mm_blendv_epi8(_mm_shuffle_epi8(lo, idx), _mm_shuffle_epi8(hi, idx), _mm_slli_epi16(idx, 3));
        const __m128i bit = _mm_shuffle_epi8(_mm_setr_epi8(1, 2, 4, 8, 16, 32, 64, -128, 1, 2, 4, 8, 16, 32, 64, -128),
                                             _mm_and_si128(v, _mm_set1_epi8(7)));
        return _mm_min_epu8(_mm_and_si128(byte, bit), _mm_set1_epi8(1));
    }
};

// 16 x 16-bit lanes as 16 bytes: masks (signed saturation keeps -1) and
// values 0 .. 255 (unsigned saturation).
inline __m128i packMask16(__m256i m)
{
    return _mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_packs_epi16(m, m), 0x08));
}
inline __m128i packBytes16(__m256i v)
{
    return _mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_packus_epi16(v, v), 0x08));
}

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

} // namespace

void yuvToBgr(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    const YuvMasks m = yuvMasks(nType);
    std::size_t i = 0;
    for (; i + 8 <= nPairs; i += 8, pSrc += 32, pDst += 48) {
        __m256i b, g, r;
        yuvToBgr8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pSrc)), m, b, g, r);
        const __m256i qa = packBgr8(b, g, r);
        yuvToBgr8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pSrc + 16)), m, b, g, r);
        const __m256i qb = packBgr8(b, g, r);
        // Squeeze the 4 spare bytes out of each lane: 48 bytes in 32 + 16.
        const __m256i a = _mm256_permutevar8x32_epi32(qa, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7));
        const __m256i bLow = _mm256_permutevar8x32_epi32(qb, _mm256_setr_epi32(0, 0, 0, 0, 0, 0, 0, 1));
        const __m256i bHigh = _mm256_permutevar8x32_epi32(qb, _mm256_setr_epi32(2, 4, 5, 6, 6, 6, 6, 6));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst), _mm256_blend_epi32(a, bLow, 0xC0));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pDst + 32), _mm256_castsi256_si128(bHigh));
    }
    scalar::kKernels.yuvToBgr(nType, pSrc, pDst, nPairs - i);
}

void yuvToGray(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    const YuvMasks m = yuvMasks(nType);
    std::size_t i = 0;
    for (; i + 4 <= nPairs; i += 4, pSrc += 16, pDst += 8) {
        __m256i b, g, r;
        yuvToBgr8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pSrc)), m, b, g, r);
        storeBytes8(pDst, weightedGrey8(b, g, r));
    }
    scalar::kKernels.yuvToGray(nType, pSrc, pDst, nPairs - i);
}

void bgrToGray(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    // From bytes, S = 587 g + 299 r + 114 b = 8 P + t with P = 73 g + 37 r +
    // 14 b and t = 3 g + 3 r + 2 b, so S / 8 = P + t / 8 fits 16 bits and
    // S / 1000 = (S / 8) / 125, a multiply-high. Where S is a multiple of
    // 1000, double rounding may give one less: a table keyed by (g, r) says so.
    // Grey pixels (equal channels) take their answer from a bit set instead.
    const unsigned char* fix = greyFixTable().fix;
    const ByteBitSet equalFix(equalChannelFix().weighted);
    std::size_t i = 0;
    for (; i + 16 <= n; i += 16, pSrc += 48, pDst += 16) {
        __m128i a0, a1, a2, c0, c1, c2;
        load3x8Bytes(pSrc, a0, a1, a2);
        load3x8Bytes(pSrc + 24, c0, c1, c2);
        const __m128i xb = _mm_unpacklo_epi64(a0, c0), xg = _mm_unpacklo_epi64(a1, c1), xr = _mm_unpacklo_epi64(a2, c2);
        const __m256i b = _mm256_cvtepu8_epi16(xb);
        const __m256i g = _mm256_cvtepu8_epi16(xg);
        const __m256i r = _mm256_cvtepu8_epi16(xr);
        const __m256i p = _mm256_add_epi16(_mm256_add_epi16(_mm256_mullo_epi16(g, _mm256_set1_epi16(73)),
                                                            _mm256_mullo_epi16(r, _mm256_set1_epi16(37))),
                                           _mm256_mullo_epi16(b, _mm256_set1_epi16(14)));
        const __m256i gr = _mm256_add_epi16(g, r);
        const __m256i t = _mm256_add_epi16(_mm256_add_epi16(_mm256_add_epi16(gr, gr), gr), _mm256_add_epi16(b, b));
        const __m256i s8 = _mm256_add_epi16(p, _mm256_srli_epi16(t, 3));
        __m256i q = _mm256_srli_epi16(_mm256_mulhi_epu16(s8, _mm256_set1_epi16(static_cast<short>(33555))), 6);
        const __m256i exact = _mm256_and_si256(
            _mm256_cmpeq_epi16(_mm256_and_si256(t, _mm256_set1_epi16(7)), _mm256_setzero_si256()),
            _mm256_cmpeq_epi16(_mm256_mullo_epi16(q, _mm256_set1_epi16(125)), s8));
        if (!_mm256_testz_si256(exact, exact)) {
            const __m128i exact8 = packMask16(exact);
            const __m128i equal8 = _mm_and_si128(_mm_cmpeq_epi8(xb, xg), _mm_cmpeq_epi8(xg, xr));
            if (_mm_testc_si128(equal8, exact8)) {
                const __m128i bytes = packBytes16(q);
                _mm_storeu_si128(reinterpret_cast<__m128i*>(pDst),
                                 _mm_sub_epi8(bytes, _mm_and_si128(equalFix(xg), exact8)));
                continue;
            }
            const __m256i key = _mm256_or_si256(_mm256_slli_epi16(g, 8), r);
            const __m256i lo = _mm256_i32gather_epi32(reinterpret_cast<const int*>(fix),
                                                      _mm256_cvtepu16_epi32(_mm256_castsi256_si128(key)), 1);
            const __m256i hi = _mm256_i32gather_epi32(reinterpret_cast<const int*>(fix),
                                                      _mm256_cvtepu16_epi32(_mm256_extracti128_si256(key, 1)), 1);
            const __m256i ff = _mm256_set1_epi32(0xFF);
            const __m256i f = _mm256_permute4x64_epi64(
                _mm256_packus_epi32(_mm256_and_si256(lo, ff), _mm256_and_si256(hi, ff)), 0xD8);
            q = _mm256_sub_epi16(q, _mm256_and_si256(f, exact));
        }
        const __m256i bytes = _mm256_packus_epi16(q, q);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pDst),
                         _mm256_castsi256_si128(_mm256_permute4x64_epi64(bytes, 0x08)));
    }
    scalar::kKernels.bgrToGray(pSrc, pDst, n - i);
}

void grey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    // t = 20 * (b1 * 0.6 + b2 * 0.25 + b0 * 0.15) = 12 b1 + 5 b2 + 3 b0 is an
    // integer; unless it is a multiple of 20 the truncated result is t / 20
    // whatever the rounding. Multiples (one pixel in 20, every pixel of a grey
    // picture) take the double-precision rule: lane by lane when few, the
    // whole block when many.
    const __m256d c06 = _mm256_set1_pd(0.6), c025 = _mm256_set1_pd(0.25), c015 = _mm256_set1_pd(0.15);
    auto exact4 = [&](__m128i b0, __m128i b1, __m128i b2) {
        __m256d d = _mm256_mul_pd(_mm256_cvtepi32_pd(b1), c06);
        d = _mm256_add_pd(d, _mm256_mul_pd(_mm256_cvtepi32_pd(b2), c025));
        d = _mm256_add_pd(d, _mm256_mul_pd(_mm256_cvtepi32_pd(b0), c015));
        return _mm256_cvttpd_epi32(d);
    };
    auto rule8 = [&](const unsigned char* s, unsigned char* d) {
        __m256i b0, b1, b2;
        load3x8(s, b0, b1, b2);
        const __m128i lo = exact4(_mm256_castsi256_si128(b0), _mm256_castsi256_si128(b1), _mm256_castsi256_si128(b2));
        const __m128i hi = exact4(_mm256_extracti128_si256(b0, 1), _mm256_extracti128_si256(b1, 1), _mm256_extracti128_si256(b2, 1));
        const __m128i w = _mm_packs_epi32(lo, hi);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(d), _mm_packus_epi16(w, w));
    };
    const ByteBitSet equalFix(equalChannelFix().grey3);
    std::size_t i = 0;
    for (; i + 16 <= n; i += 16, pSrc += 48, pDst += 16) {
        __m128i a0, a1, a2, c0, c1, c2;
        load3x8Bytes(pSrc, a0, a1, a2);
        load3x8Bytes(pSrc + 24, c0, c1, c2);
        const __m128i x0 = _mm_unpacklo_epi64(a0, c0), x1 = _mm_unpacklo_epi64(a1, c1), x2 = _mm_unpacklo_epi64(a2, c2);
        const __m256i b0 = _mm256_cvtepu8_epi16(x0);
        const __m256i b1 = _mm256_cvtepu8_epi16(x1);
        const __m256i b2 = _mm256_cvtepu8_epi16(x2);
        const __m256i t = _mm256_add_epi16(_mm256_add_epi16(_mm256_mullo_epi16(b1, _mm256_set1_epi16(12)),
                                                            _mm256_mullo_epi16(b2, _mm256_set1_epi16(5))),
                                           _mm256_mullo_epi16(b0, _mm256_set1_epi16(3)));
        // t / 20 for t < 16384: (t * 3277) >> 16.
        const __m256i q = _mm256_mulhi_epu16(t, _mm256_set1_epi16(3277));
        __m128i bytes = packBytes16(q);
        const __m256i exact = _mm256_cmpeq_epi16(_mm256_mullo_epi16(q, _mm256_set1_epi16(20)), t);
        if (_mm256_testz_si256(exact, exact)) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(pDst), bytes);
            continue;
        }
        // Equal channels: the answer from the bit set; the other exact lanes
        // by the double rule.
        const __m128i exact8 = packMask16(exact);
        const __m128i equal8 = _mm_and_si128(_mm_cmpeq_epi8(x0, x1), _mm_cmpeq_epi8(x1, x2));
        bytes = _mm_sub_epi8(bytes, _mm_and_si128(equalFix(x1), _mm_and_si128(exact8, equal8)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pDst), bytes);
        unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(_mm_andnot_si128(equal8, exact8)));
        if (mask == 0)
            continue;
        if (__builtin_popcount(mask) > 4) {
            rule8(pSrc, pDst);
            rule8(pSrc + 24, pDst + 8);
            continue;
        }
        for (; mask != 0; mask &= mask - 1) {
            const int j = __builtin_ctz(mask);
            pDst[j] = ref::grey3To1(pSrc + 3 * j);
        }
    }
    scalar::kKernels.grey3To1(pSrc, pDst, n - i);
}

void expand3(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut)
{
    const __m256i m01 = _mm256_setr_epi8(0, 0, 0, 1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4, 5,
                                         5, 5, 6, 6, 6, 7, 7, 7, 8, 8, 8, 9, 9, 9, 10, 10);
    const __m128i m2 = _mm_setr_epi8(10, 11, 11, 11, 12, 12, 12, 13, 13, 13, 14, 14, 14, 15, 15, 15);
    auto put16 = [&](__m128i x, unsigned char* d) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d), _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(x), m01));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 32), _mm_shuffle_epi8(x, m2));
    };
    std::size_t i = 0;
    if (lut) {
        const Lut table(lut);
        for (; i + 32 <= n; i += 32, pSrc += 32, pDst += 96) {
            const __m256i x = table(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(pSrc)));
            put16(_mm256_castsi256_si128(x), pDst);
            put16(_mm256_extracti128_si256(x, 1), pDst + 48);
        }
    } else {
        for (; i + 16 <= n; i += 16, pSrc += 16, pDst += 48)
            put16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pSrc)), pDst);
    }
    scalar::kKernels.expand3(pSrc, pDst, n - i, lut);
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
