// SPDX-License-Identifier: LGPL-2.1-or-later
// AVX2 kernels (this file is compiled with -mavx2 and only called when the
// processor has it).
//
// Exactness: the YUV sums are exact 32-bit integers (multiply-adds of 16-bit
// pairs), below 2^20 in magnitude. The clamped BGR bytes divide them in 16-bit
// integers (see yuvToBgr). For the grey their single-precision values are
// exact, and trunc(x * 0.001f) equals trunc(x / 1000) for |x| < 2^20 (the
// nearest non-integer quotient is 0.001 away, the rounding error is below
// 1e-4). The weighted grey is the exact quotient S / 1000, S = 587 g + 299 r
// + 114 b, except when S is a multiple of 1000, where rounding in double
// precision may land just below the integer: grey pixels (equal channels,
// always such a case) take the answer from a 256-bit set built with the
// reference rule, other such vectors are recomputed in double precision with
// the very same operations. The driver's grey works the same way on its own
// integer (see grey3To1).

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

// Shuffle masks that turn two YUV groups (in each 128-bit lane) into four
// pixels of 16-bit pairs (Y, U) and (Y, V), for multiply-adds.
struct YuvMasks {
    __m256i yu;
    __m256i yv;
};

YuvMasks yuvMasks(int nType)
{
    const unsigned char* pos = scalar::kGroupPos[nType];
    alignas(16) unsigned char yu[16], yv[16];
    for (int k = 0; k < 4; ++k) {
        const int base = 4 * (k / 2), y = base + pos[k % 2 == 0 ? 0 : 2];
        yu[4 * k] = yv[4 * k] = static_cast<unsigned char>(y);
        yu[4 * k + 2] = static_cast<unsigned char>(base + pos[1]);
        yv[4 * k + 2] = static_cast<unsigned char>(base + pos[3]);
        yu[4 * k + 1] = yu[4 * k + 3] = yv[4 * k + 1] = yv[4 * k + 3] = 0x80;
    }
    return {_mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(yu))),
            _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(yv)))};
}

// Two 16-bit coefficients for _mm256_madd_epi16: lo for the even element.
inline __m256i coeffPair(int lo, int hi)
{
    return _mm256_set1_epi32(static_cast<int>((static_cast<unsigned>(static_cast<unsigned short>(hi)) << 16)
                                              | static_cast<unsigned short>(lo)));
}

// Blue, green and red quotients (sum / 1000 before truncation) of the 8
// pixels of four groups. The sums 1164 (Y - 16) + 2018 (U - 128) etc. come
// from multiply-adds of (Y, U) and (Y, V) pairs plus a constant, exact in 32
// bits.
inline void yuvQuotients8(__m128i groups, const YuvMasks& m, __m256& b, __m256& g, __m256& r)
{
    const __m256i x = _mm256_permute4x64_epi64(_mm256_castsi128_si256(groups), 0x50);
    const __m256i yu = _mm256_shuffle_epi8(x, m.yu);
    const __m256i yv = _mm256_shuffle_epi8(x, m.yv);
    const __m256i sb = _mm256_add_epi32(_mm256_madd_epi16(yu, coeffPair(1164, 2018)),
                                        _mm256_set1_epi32(-1164 * 16 - 2018 * 128));
    const __m256i sg = _mm256_add_epi32(_mm256_add_epi32(_mm256_madd_epi16(yu, coeffPair(1164, -380)),
                                                         _mm256_madd_epi16(yv, coeffPair(0, -813))),
                                        _mm256_set1_epi32(-1164 * 16 + 813 * 128 + 380 * 128));
    const __m256i sr = _mm256_add_epi32(_mm256_madd_epi16(yv, coeffPair(1164, 1159)),
                                        _mm256_set1_epi32(-1164 * 16 - 1159 * 128));
    const __m256 k = _mm256_set1_ps(0.001f);
    b = _mm256_mul_ps(_mm256_cvtepi32_ps(sb), k);
    g = _mm256_mul_ps(_mm256_cvtepi32_ps(sg), k);
    r = _mm256_mul_ps(_mm256_cvtepi32_ps(sr), k);
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

// Bit v of a 256-bit set for 32 byte lanes v, as 1 or 0: the byte v >> 3 and
// the mask 1 << (v & 7) both come from byte shuffles.
struct ByteBitSet {
    __m256i lo, hi;
    explicit ByteBitSet(const unsigned char* bits)
        : lo(_mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(bits)))),
          hi(_mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(bits + 16))))
    {
    }
    __m256i operator()(__m256i v) const
    {
        const __m256i idx = _mm256_and_si256(_mm256_srli_epi16(v, 3), _mm256_set1_epi8(0x1F));
        // Bit 4 of the index moves to bit 7 of its byte to pick the upper half.
        const __m256i byte = _mm256_blendv_epi8(_mm256_shuffle_epi8(lo, idx), _mm256_shuffle_epi8(hi, idx),
                                                _mm256_slli_epi16(idx, 3));
        const __m256i bit = _mm256_shuffle_epi8(
            _mm256_setr_epi8(1, 2, 4, 8, 16, 32, 64, -128, 1, 2, 4, 8, 16, 32, 64, -128,
                             1, 2, 4, 8, 16, 32, 64, -128, 1, 2, 4, 8, 16, 32, 64, -128),
            _mm256_and_si256(v, _mm256_set1_epi8(7)));
        return _mm256_min_epu8(_mm256_and_si256(byte, bit), _mm256_set1_epi8(1));
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

// c0 * b0 + c1 * b1 + c2 * b2 of 8 pixels from load3To4x8 (coefficients
// within a signed byte, pair sums within 16 bits).
inline __m256i dot3(__m256i px, int c0, int c1, int c2)
{
    const int k = (c0 & 0xFF) | (c1 & 0xFF) << 8 | (c2 & 0xFF) << 16;
    return _mm256_madd_epi16(_mm256_maddubs_epi16(px, _mm256_set1_epi32(k)), _mm256_set1_epi16(1));
}

// (b0 - b1) + 512 (b2 - b1) of pixels from load3To4x8: zero exactly for grey
// pixels, and it stays non-zero through saturating packs.
inline __m256i greyness(__m256i px)
{
    return _mm256_madd_epi16(_mm256_maddubs_epi16(px, _mm256_set1_epi32(static_cast<int>(0xFF01FF01u))),
                             _mm256_set1_epi32(512 << 16 | 1));
}

// Four vectors of 8 dwords (values or masks within int16) as 32 bytes in
// pixel order; values saturate to 0 .. 255, masks stay 0 / -1.
inline __m256i pack32Pixels(__m256i a, __m256i b, __m256i c, __m256i d, bool bMask)
{
    const __m256i ab = _mm256_packs_epi32(a, b), cd = _mm256_packs_epi32(c, d);
    const __m256i bytes = bMask ? _mm256_packs_epi16(ab, cd) : _mm256_packus_epi16(ab, cd);
    return _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

// Key (byte 1) * 256 + byte 2 of pixels from load3To4x8.
inline __m256i key12(__m256i px)
{
    return _mm256_or_si256(_mm256_and_si256(px, _mm256_set1_epi32(0xFF00)),
                           _mm256_and_si256(_mm256_srli_epi32(px, 16), _mm256_set1_epi32(0xFF)));
}

// Grey pixels are always exact. When they are the block's only exact ones
// (ea, eb: the exact words of its two halves), the bit set answers them all,
// q being the value itself: bytes are lowered and the answer is true.
inline bool lowerGreyOnly(__m256i& bytes, __m256i ea, __m256i eb, const __m256i (&px)[4], __m256i order,
                          const ByteBitSet& equalFix)
{
    const __m256i z = _mm256_setzero_si256();
    const __m256i ga = _mm256_cmpeq_epi16(_mm256_packs_epi32(greyness(px[0]), greyness(px[1])), z);
    const __m256i gb = _mm256_cmpeq_epi16(_mm256_packs_epi32(greyness(px[2]), greyness(px[3])), z);
    if (!_mm256_testc_si256(ga, ea) || !_mm256_testc_si256(gb, eb))
        return false;
    const __m256i grey = _mm256_permutevar8x32_epi32(_mm256_packs_epi16(ga, gb), order);
    bytes = _mm256_sub_epi8(bytes, _mm256_and_si256(equalFix(bytes), grey));
    return true;
}

// What the BGR kernel needs to know of a type: 8 groups in one 32-byte load
// split into luma and chroma word pairs (even bytes masked, odd ones shifted
// down), chroma coefficients in the order of the chroma words, and the byte
// shuffles that interleave the packed channels.
struct YuvBgrType {
    bool bLumaOdd;
    __m256i kCb, kCg, kCr;
    // Output bytes 0 .. 15 (a) and 16 .. 23 (b) of each lane's 8 pixels, from
    // the blue-green pack and from the red one.
    __m256i aBg, aR, bBg, bR;
};

YuvBgrType makeYuvBgrType(int nType)
{
    const unsigned char* pos = scalar::kGroupPos[nType];
    const bool bVFirst = pos[3] < pos[1];
    const int nFirst = pos[0] < pos[2] ? 0 : 1;
    auto chroma = [&](int u, int v) { return bVFirst ? coeffPair(v, u) : coeffPair(u, v); };
    // After the packs, the lane's first pixels of groups m = 0 .. 3 are at
    // byte m and the second ones at m + 4: blue, green 8 bytes on, red in
    // the red pack. Output bytes 24 .. 31 are unused.
    alignas(16) unsigned char bg[32], r[32];
    for (int i = 0; i < 32; ++i) {
        const int p = i / 3, c = i % 3;
        const int at = p / 2 + (p % 2 == nFirst ? 0 : 4);
        bg[i] = i >= 24 || c == 2 ? 0x80 : static_cast<unsigned char>(at + 8 * c);
        r[i] = i < 24 && c == 2 ? static_cast<unsigned char>(at) : 0x80;
    }
    auto lanes = [](const unsigned char* m) {
        return _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(m)));
    };
    return {pos[0] % 2 == 1, chroma(2018, 0), chroma(-380, -813), chroma(0, 1159),
            lanes(bg), lanes(r), lanes(bg + 16), lanes(r + 16)};
}

// Built once: the VNNI kernel hands every row end here.
const YuvBgrType& yuvBgrType(int nType)
{
    static const YuvBgrType s_types[4] = {makeYuvBgrType(0), makeYuvBgrType(1), makeYuvBgrType(2),
                                          makeYuvBgrType(3)};
    return s_types[nType];
}

} // namespace

// The quotient as in the AVX-512 VNNI kernel: sums as quarters plus one,
// t + 1 = floor(s / 4) + 1 (1164 = 4 * 291, so only the per-group chroma part
// is shifted), saturated to 16 bits by the pack, and (w * 33554 >> 16) >> 7
// is the clamped s / 1000.
void yuvToBgr(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    const YuvBgrType& t = yuvBgrType(nType);
    const __m256i kY1 = coeffPair(291, 0), kY2 = coeffPair(0, 291);
    const __m256i cB = _mm256_set1_epi32(-1164 * 16 - 2018 * 128 + 4);
    const __m256i cG = _mm256_set1_epi32(-1164 * 16 + 813 * 128 + 380 * 128 + 4);
    const __m256i cR = _mm256_set1_epi32(-1164 * 16 - 1159 * 128 + 4);
    const __m256i m250 = _mm256_set1_epi16(static_cast<short>(33554));
    auto quot = [&](__m256i c, __m256i y1, __m256i y2) {
        const __m256i w = _mm256_packus_epi32(_mm256_add_epi32(c, y1), _mm256_add_epi32(c, y2));
        return _mm256_srli_epi16(_mm256_mulhi_epu16(w, m250), 7);
    };
    std::size_t i = 0;
    for (; i + 8 <= nPairs; i += 8, pSrc += 32, pDst += 48) {
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pSrc));
        const __m256i even = _mm256_and_si256(x, _mm256_set1_epi16(0xFF)), odd = _mm256_srli_epi16(x, 8);
        const __m256i luma = t.bLumaOdd ? odd : even, chroma = t.bLumaOdd ? even : odd;
        const __m256i y1 = _mm256_madd_epi16(luma, kY1), y2 = _mm256_madd_epi16(luma, kY2);
        const __m256i cb = _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(chroma, t.kCb), cB), 2);
        const __m256i cg = _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(chroma, t.kCg), cG), 2);
        const __m256i cr = _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(chroma, t.kCr), cR), 2);
        const __m256i bg = _mm256_packus_epi16(quot(cb, y1, y2), quot(cg, y1, y2));
        const __m256i r = quot(cr, y1, y2);
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

// Weighted grey (unclamped) of the 8 pixels of four groups, all in single
// precision on exact integers: S = 587 g + 299 r + 114 b stays below 2^20, so
// trunc(S * 0.001f) is S / 1000 truncated. Exact multiples of 1000 go to the
// double-precision rule (grey pixels by their value through the bit set).
inline __m256i yuvGrey8(__m128i groups, const YuvMasks& m, const __m256i& equalSet)
{
    __m256 b, g, r;
    yuvQuotients8(groups, m, b, g, r);
    const int trunc = _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC;
    b = _mm256_round_ps(b, trunc);
    g = _mm256_round_ps(g, trunc);
    r = _mm256_round_ps(r, trunc);
    const __m256 s = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(g, _mm256_set1_ps(587.0f)),
                                                 _mm256_mul_ps(r, _mm256_set1_ps(299.0f))),
                                   _mm256_mul_ps(b, _mm256_set1_ps(114.0f)));
    const __m256 qf = _mm256_round_ps(_mm256_mul_ps(s, _mm256_set1_ps(0.001f)), trunc);
    const __m256i q = _mm256_cvttps_epi32(qf);
    // Exact multiples of 1000 with a quotient in 1 .. 255; others come out
    // the same either way (or clamp to the same byte).
    const __m256 cand = _mm256_and_ps(_mm256_cmp_ps(_mm256_mul_ps(qf, _mm256_set1_ps(1000.0f)), s, _CMP_EQ_OQ),
                                      _mm256_and_ps(_mm256_cmp_ps(qf, _mm256_set1_ps(1.0f), _CMP_GE_OQ),
                                                    _mm256_cmp_ps(qf, _mm256_set1_ps(255.0f), _CMP_LE_OQ)));
    if (_mm256_testz_ps(cand, cand))
        return q;
    const __m256 equal = _mm256_and_ps(_mm256_cmp_ps(b, g, _CMP_EQ_OQ), _mm256_cmp_ps(g, r, _CMP_EQ_OQ));
    if (_mm256_testc_ps(equal, cand)) {
        const __m256i word = _mm256_permutevar8x32_epi32(equalSet, _mm256_srli_epi32(q, 5));
        const __m256i bit = _mm256_and_si256(_mm256_srlv_epi32(word, _mm256_and_si256(q, _mm256_set1_epi32(31))),
                                             _mm256_set1_epi32(1));
        return _mm256_sub_epi32(q, _mm256_and_si256(bit, _mm256_castps_si256(cand)));
    }
    return weightedGrey8(_mm256_cvttps_epi32(b), _mm256_cvttps_epi32(g), _mm256_cvttps_epi32(r));
}

void yuvToGray(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    const YuvMasks m = yuvMasks(nType);
    const __m256i equalSet = _mm256_load_si256(reinterpret_cast<const __m256i*>(equalChannelFix().weighted));
    std::size_t i = 0;
    for (; i + 8 <= nPairs; i += 8, pSrc += 32, pDst += 16) {
        const __m256i qa = yuvGrey8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pSrc)), m, equalSet);
        const __m256i qb = yuvGrey8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pSrc + 16)), m, equalSet);
        const __m256i w = _mm256_packs_epi32(qa, qb);
        const __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_packus_epi16(w, w), _mm256_setr_epi32(0, 4, 1, 5, 0, 4, 1, 5));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pDst), _mm256_castsi256_si128(bytes));
    }
    scalar::kKernels.yuvToGray(nType, pSrc, pDst, nPairs - i);
}

void bgrToGray(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    // From bytes, S = 587 g + 299 r + 114 b = 8 P + t with P = 73 g + 37 r +
    // 14 b and t = 3 g + 3 r + 2 b (both byte multiply-adds), so S / 8 =
    // P + t / 8 fits 16 bits and S / 1000 = (S / 8) / 125, a multiply-high.
    // Where S is a multiple of 1000, double rounding may give one less: grey
    // pixels look it up by value in a bit set, others by (g, r) in a table.
    const unsigned char* fix = scalar::weightedFixEntries();
    const ByteBitSet equalFix(equalChannelFix().weighted);
    std::size_t i = 0;
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    const __m256i z = _mm256_setzero_si256();
    for (; i + 32 <= n; i += 32, pSrc += 96, pDst += 32) {
        __m256i px[4], s8[4], t7[4];
        for (int k = 0; k < 4; ++k) {
            px[k] = load3To4x8(pSrc + 24 * k);
            const __m256i t = dot3(px[k], 2, 3, 3);
            s8[k] = _mm256_add_epi32(dot3(px[k], 14, 73, 37), _mm256_srli_epi32(t, 3));
            t7[k] = _mm256_and_si256(t, _mm256_set1_epi32(7));
        }
        const __m256i sa = _mm256_packs_epi32(s8[0], s8[1]), sb = _mm256_packs_epi32(s8[2], s8[3]);
        const __m256i m = _mm256_set1_epi16(static_cast<short>(33555));
        const __m256i qa = _mm256_srli_epi16(_mm256_mulhi_epu16(sa, m), 6);
        const __m256i qb = _mm256_srli_epi16(_mm256_mulhi_epu16(sb, m), 6);
        __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_packus_epi16(qa, qb), order);
        const __m256i k125 = _mm256_set1_epi16(125);
        const __m256i ea = _mm256_and_si256(_mm256_cmpeq_epi16(_mm256_mullo_epi16(qa, k125), sa),
                                            _mm256_cmpeq_epi16(_mm256_packs_epi32(t7[0], t7[1]), z));
        const __m256i eb = _mm256_and_si256(_mm256_cmpeq_epi16(_mm256_mullo_epi16(qb, k125), sb),
                                            _mm256_cmpeq_epi16(_mm256_packs_epi32(t7[2], t7[3]), z));
        if (!_mm256_testz_si256(_mm256_or_si256(ea, eb), _mm256_or_si256(ea, eb))) {
            if (!lowerGreyOnly(bytes, ea, eb, px, order, equalFix)) {
                const __m256i exact = _mm256_permutevar8x32_epi32(_mm256_packs_epi16(ea, eb), order);
                const unsigned other = static_cast<unsigned>(_mm256_movemask_epi8(exact));
                if (__builtin_popcount(other) <= 4) {
                    // Few (noise): lane by lane from the table.
                    _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst), bytes);
                    lowerExactLanes(pDst, pSrc, other, [fix](const unsigned char* p) { return fix[p[1] * 256 + p[2]]; });
                    continue;
                }
                __m256i f[4];
                for (int k = 0; k < 4; ++k)
                    f[k] = _mm256_and_si256(_mm256_i32gather_epi32(reinterpret_cast<const int*>(fix), key12(px[k]), 1),
                                            _mm256_set1_epi32(0xFF));
                bytes = _mm256_sub_epi8(bytes, _mm256_and_si256(pack32Pixels(f[0], f[1], f[2], f[3], false), exact));
            }
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst), bytes);
    }
    scalar::kKernels.bgrToGray(pSrc, pDst, n - i);
}

void grey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    // t = 20 * (b1 * 0.6 + b2 * 0.25 + b0 * 0.15) = 12 b1 + 5 b2 + 3 b0 is an
    // integer; unless it is a multiple of 20 the truncated result is t / 20
    // whatever the rounding. For multiples (one pixel in 20, every pixel of a
    // grey picture) grey pixels look the answer up by value in a bit set, the
    // others by (b1, b2, b0 / 20) in a table.
    const ByteBitSet equalFix(equalChannelFix().grey3);
    const unsigned short* fix = scalar::grey3FixEntries();
    std::size_t i = 0;
    for (; i + 32 <= n; i += 32, pSrc += 96, pDst += 32) {
        __m256i px[4], t[4];
        for (int k = 0; k < 4; ++k) {
            px[k] = load3To4x8(pSrc + 24 * k);
            t[k] = dot3(px[k], 3, 12, 5);
        }
        // t / 20 for t < 16384: (t * 3277) >> 16.
        const __m256i ta = _mm256_packs_epi32(t[0], t[1]), tb = _mm256_packs_epi32(t[2], t[3]);
        const __m256i qa = _mm256_mulhi_epu16(ta, _mm256_set1_epi16(3277));
        const __m256i qb = _mm256_mulhi_epu16(tb, _mm256_set1_epi16(3277));
        const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
        __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_packus_epi16(qa, qb), order);
        const __m256i ea = _mm256_cmpeq_epi16(_mm256_mullo_epi16(qa, _mm256_set1_epi16(20)), ta);
        const __m256i eb = _mm256_cmpeq_epi16(_mm256_mullo_epi16(qb, _mm256_set1_epi16(20)), tb);
        if (!_mm256_testz_si256(_mm256_or_si256(ea, eb), _mm256_or_si256(ea, eb))) {
            const __m256i exact = _mm256_permutevar8x32_epi32(_mm256_packs_epi16(ea, eb), order);
            const unsigned lanes = static_cast<unsigned>(_mm256_movemask_epi8(exact));
            if (__builtin_popcount(lanes) <= 4) {
                // Few (noise has one in 20): lane by lane from the table,
                // which holds grey pixels too.
                _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst), bytes);
                lowerExactLanes(pDst, pSrc, lanes,
                                [fix](const unsigned char* p) { return (fix[p[1] * 256 + p[2]] >> (p[0] / 20)) & 1; });
                continue;
            }
            if (!lowerGreyOnly(bytes, ea, eb, px, order, equalFix)) {
                __m256i f[4];
                for (int k = 0; k < 4; ++k) {
                    // b0 / 20 = (b0 * 3277) >> 16 picks the bit.
                    const __m256i b0 = _mm256_and_si256(px[k], _mm256_set1_epi32(0xFF));
                    const __m256i bit = _mm256_srli_epi32(_mm256_madd_epi16(b0, _mm256_set1_epi32(3277)), 16);
                    const __m256i entry = _mm256_i32gather_epi32(reinterpret_cast<const int*>(fix), key12(px[k]), 2);
                    f[k] = _mm256_and_si256(_mm256_srlv_epi32(entry, bit), _mm256_set1_epi32(1));
                }
                bytes = _mm256_sub_epi8(bytes, _mm256_and_si256(pack32Pixels(f[0], f[1], f[2], f[3], false), exact));
            }
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(pDst), bytes);
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
