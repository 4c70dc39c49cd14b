// SPDX-License-Identifier: LGPL-2.1-or-later
// NEON kernels, compiled in when the target has NEON (__ARM_NEON). Clamped
// YUV colour and the greys of bytes are exact integer quotients in 16-bit
// lanes; YUV to grey truncates its unclamped channels in single precision
// (integers below 2^24, truncating conversion, as the x86 sets do) and forms
// the weighted sum and its quotient in 32-bit integers. 32-bit NEON has no double
// precision, so the few grey values that double rounding decides (exact
// quotients) are looked up: for the driver's grey pixels from a 256-bit set
// in vectors (VTBL), otherwise lane by lane (NEON has no gather) from the
// tables of the exact cases for bytes, and for YUV's unclamped colour from
// the same tables where it is bytes and by the scalar rule elsewhere.

#if defined(__ARM_NEON)

#include "imaging/convertkernels.h"
#include "imaging/convertreference.h"

#include <arm_neon.h>
#include <cstdint>

namespace kavrel {
namespace neon {

namespace {

// The weighted grey of grey pixels (all channels v), by v: a grey YUV
// picture hits the exact-quotient case on every pixel, and a table look-up is
// far cheaper than the double-precision rule on VFP.
struct WeightedOfGrey {
    unsigned char value[256];
    WeightedOfGrey()
    {
        for (int v = 0; v < 256; ++v)
            value[v] = static_cast<unsigned char>(ref::weightedGrey(v, v, v));
    }
};

const unsigned char* weightedOfGrey()
{
    static const WeightedOfGrey s_table;
    return s_table.value;
}

// Grey pixels (all channels v) hit the exact-quotient case on every pixel
// and the answer then depends on v alone: bit v of this set (byte v >> 3,
// bit v & 7) says the driver's double-precision rule gives v - 1 rather
// than v. 32 bytes, the size of a four-register VTBL.
struct EqualChannelFix {
    uint8x8x4_t grey3;
    EqualChannelFix() : grey3()
    {
        unsigned char bits[32] = {};
        for (int v = 0; v < 256; ++v) {
            const unsigned char p[3] = {static_cast<unsigned char>(v), static_cast<unsigned char>(v),
                                        static_cast<unsigned char>(v)};
            if (ref::grey3To1(p) != v)
                bits[v >> 3] |= static_cast<unsigned char>(1 << (v & 7));
        }
        for (int k = 0; k < 4; ++k)
            grey3.val[k] = vld1_u8(bits + 8 * k);
    }
};

const EqualChannelFix& equalChannelFix()
{
    static const EqualChannelFix s_fix;
    return s_fix;
}

// Bit v of the 256-bit set for each of the 16 byte lanes v: 0 or 1.
inline uint8x16_t bitOfValue(const uint8x8x4_t& set, uint8x16_t v)
{
    const uint8x16_t byteOf = vcombine_u8(vtbl4_u8(set, vshr_n_u8(vget_low_u8(v), 3)),
                                          vtbl4_u8(set, vshr_n_u8(vget_high_u8(v), 3)));
    // A negative shift count shifts right.
    const int8x16_t down = vnegq_s8(vreinterpretq_s8_u8(vandq_u8(v, vdupq_n_u8(7))));
    return vandq_u8(vshlq_u8(byteOf, down), vdupq_n_u8(1));
}

inline bool anyLane(uint8x8_t m)
{
    const uint32x2_t w = vreinterpret_u32_u8(m);
    return (vget_lane_u32(w, 0) | vget_lane_u32(w, 1)) != 0;
}

// Bit j set for every lane j of m that is all ones.
inline unsigned laneBits8(uint8x8_t m)
{
    const uint8x8_t weights = {1, 2, 4, 8, 16, 32, 64, 128};
    uint8x8_t s = vand_u8(m, weights);
    s = vpadd_u8(s, s);
    s = vpadd_u8(s, s);
    s = vpadd_u8(s, s);
    return vget_lane_u8(s, 0);
}

inline uint8x16_t laneWeights()
{
    return uint8x16_t{1, 2, 4, 8, 16, 32, 64, 128, 1, 2, 4, 8, 16, 32, 64, 128};
}

inline unsigned laneBits(uint8x16_t m, uint8x16_t weights = laneWeights())
{
    const uint8x16_t w = vandq_u8(m, weights);
    uint8x8_t s = vpadd_u8(vget_low_u8(w), vget_high_u8(w));
    s = vpadd_u8(s, s);
    s = vpadd_u8(s, s);
    return vget_lane_u16(vreinterpret_u16_u8(s), 0);
}

// t / 20 = (t >> 2) / 5 for t >= 0, and for u = t >> 2 <= 1275 (t at most
// 20 * 255) (2 u 6554) >> 16 = u * 13108 / 65536 is u / 5: 13108 = 65540 / 5
// overshoots by u * 4 / (5 * 65536) < 0.016, less than the 1/5 left above
// the largest remainder.
constexpr int16_t kFifthOfQuarter = 6554;

inline float32x4_t toFloat(int16x4_t v)
{
    return vcvtq_f32_s32(vmovl_s16(v));
}

// Coefficients by lane, so that they stay in a few registers rather than
// one register each.
struct YuvGreyConstants {
    float32x4_t f;  // 1164, 2018, -813, 380
    float32x2_t f2; // 1159, 0.001
    int32x4_t w;    // 587, 299, 114, 2147484
    int32x2_t w2;   // 1000, unused
};

inline int32x4_t div1000(float32x4_t x, const YuvGreyConstants& k)
{
    return vcvtq_s32_f32(vmulq_lane_f32(x, k.f2, 1));
}

// The exact lanes of weightedGrey4, out of line so that the vector path
// does not spill for them: grey pixels (q is their value) and other byte
// colours by the tables, colour outside the bytes by the rule.
__attribute__((noinline)) int32x4_t exactLanes(int32x4_t b, int32x4_t g, int32x4_t r, int32x4_t q, uint32x4_t exact)
{
    int32_t ab[4], ag[4], ar[4], aq[4];
    uint32_t ae[4];
    vst1q_s32(ab, b);
    vst1q_s32(ag, g);
    vst1q_s32(ar, r);
    vst1q_s32(aq, q);
    vst1q_u32(ae, exact);
    const unsigned char* ofGrey = weightedOfGrey();
    const unsigned char* fix = scalar::weightedFixEntries();
    for (int i = 0; i < 4; ++i) {
        if (!ae[i])
            continue;
        if (ab[i] == ag[i] && ag[i] == ar[i])
            aq[i] = ofGrey[aq[i]];
        else if ((static_cast<uint32_t>(ab[i]) | static_cast<uint32_t>(ag[i]) | static_cast<uint32_t>(ar[i])) <= 255)
            aq[i] -= fix[ag[i] * 256 + ar[i]];
        else
            aq[i] = ref::weightedGrey(ab[i], ag[i], ar[i]);
    }
    return vld1q_s32(aq);
}

// Weighted grey of 4 pixels of unclamped colour. W = 587 g + 299 r + 114 b
// is exact in 32 bits, and (2 W 2147484 >> 32) is W / 1000 rounded down for
// every W below 256000 (above, it is at least 256; below 0, negative; both
// clamp alike). Exact quotients in 1 .. 255 follow the double rule.
inline int32x4_t weightedGrey4(int32x4_t b, int32x4_t g, int32x4_t r, const YuvGreyConstants& k)
{
    const int32x2_t lo = vget_low_s32(k.w), hi = vget_high_s32(k.w);
    const int32x4_t w = vmlaq_lane_s32(vmlaq_lane_s32(vmulq_lane_s32(g, lo, 0), r, lo, 1), b, hi, 0);
    const int32x4_t q = vqdmulhq_lane_s32(w, hi, 1);
    const uint32x4_t exact = vandq_u32(vceqq_s32(vmlsq_lane_s32(w, q, k.w2, 0), vdupq_n_s32(0)),
                                       vcltq_u32(vreinterpretq_u32_s32(vsubq_s32(q, vdupq_n_s32(1))),
                                                 vdupq_n_u32(255)));
    const uint32x2_t any = vorr_u32(vget_low_u32(exact), vget_high_u32(exact));
    if ((vget_lane_u32(any, 0) | vget_lane_u32(any, 1)) == 0)
        return q;
    return exactLanes(b, g, r, q, exact);
}

// YUV to clamped BGR in integers: only 0 .. 255 survives the clamp, and
// for s >= 0, s / 1000 = (s >> 3) / 125. With 8 added to every sum, w =
// (s >> 3) + 1 narrowed with signed saturation, (2 w 16777 >> 16) >> 6 is
// (s >> 3) / 125 for s below 256000, at least 255 above and negative for
// negative sums, so the saturating narrow to bytes clamps it.
// The YUV kernels take the type as a template argument so that the four
// byte positions name registers of the load, not an indexed copy in memory.
template <int nType>
void yuvToBgrOf(const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    constexpr const unsigned char* pos = scalar::kGroupPos[nType];
    const int32x4_t base = vdupq_n_s32(-1164 * 16 + 8);
    // Coefficients by lane, so that they stay in two registers.
    const int16x4_t kc = {2018, -380, -813, 1159}, ky = {1164, 16777, 0, 0};
    auto channel = [&](const int32x4_t c[2], int16x8_t y) {
        const int16x8_t w = vcombine_s16(vqshrn_n_s32(vmlal_lane_s16(c[0], vget_low_s16(y), ky, 0), 3),
                                         vqshrn_n_s32(vmlal_lane_s16(c[1], vget_high_s16(y), ky, 0), 3));
        return vqshrun_n_s16(vqdmulhq_lane_s16(w, ky, 1), 6);
    };
    std::size_t i = 0;
    for (; i + 8 <= nPairs; i += 8, pSrc += 32, pDst += 48) {
        const uint8x8x4_t g = vld4_u8(pSrc);
        const int16x8_t u = vreinterpretq_s16_u16(vsubl_u8(g.val[pos[1]], vdup_n_u8(128)));
        const int16x8_t v = vreinterpretq_s16_u16(vsubl_u8(g.val[pos[3]], vdup_n_u8(128)));
        int32x4_t cb[2], cg[2], cr[2];
        for (int h = 0; h < 2; ++h) {
            const int16x4_t uh = h ? vget_high_s16(u) : vget_low_s16(u);
            const int16x4_t vh = h ? vget_high_s16(v) : vget_low_s16(v);
            cb[h] = vmlal_lane_s16(base, uh, kc, 0);
            cg[h] = vmlal_lane_s16(vmlal_lane_s16(base, uh, kc, 1), vh, kc, 2);
            cr[h] = vmlal_lane_s16(base, vh, kc, 3);
        }
        const int16x8_t y0 = vreinterpretq_s16_u16(vmovl_u8(g.val[pos[0]]));
        const int16x8_t y1 = vreinterpretq_s16_u16(vmovl_u8(g.val[pos[2]]));
        const uint8x8x2_t bz = vzip_u8(channel(cb, y0), channel(cb, y1));
        const uint8x8x2_t gz = vzip_u8(channel(cg, y0), channel(cg, y1));
        const uint8x8x2_t rz = vzip_u8(channel(cr, y0), channel(cr, y1));
        uint8x16x3_t out;
        out.val[0] = vcombine_u8(bz.val[0], bz.val[1]);
        out.val[1] = vcombine_u8(gz.val[0], gz.val[1]);
        out.val[2] = vcombine_u8(rz.val[0], rz.val[1]);
        vst3q_u8(pDst, out);
    }
    scalar::kKernels.yuvToBgr(nType, pSrc, pDst, nPairs - i);
}

void yuvToBgr(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    static constexpr void (*s_fn[4])(const unsigned char*, unsigned char*, std::size_t) = {
        yuvToBgrOf<0>, yuvToBgrOf<1>, yuvToBgrOf<2>, yuvToBgrOf<3>};
    s_fn[nType](pSrc, pDst, nPairs);
}

// Grey of 4 pixels with lumas y (less 16) and the chroma terms cb, cg, cr of
// their pairs, saturated to 16 bits.
inline int16x4_t greyOf4(int16x4_t y, float32x4_t cb, float32x4_t cg, float32x4_t cr, const YuvGreyConstants& k)
{
    const float32x4_t fy = vmulq_lane_f32(toFloat(y), vget_low_f32(k.f), 0);
    return vqmovn_s32(weightedGrey4(div1000(vaddq_f32(fy, cb), k), div1000(vaddq_f32(fy, cg), k),
                                    div1000(vaddq_f32(fy, cr), k), k));
}

// Four pairs at a time, both lumas per chroma: few enough live vectors that
// the chroma terms and the constants stay in the 16 q registers.
template <int nType>
void yuvToGrayOf(const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    constexpr const unsigned char* pos = scalar::kGroupPos[nType];
    const YuvGreyConstants k = {{1164.0f, 2018.0f, -813.0f, 380.0f}, {1159.0f, 0.001f}, {587, 299, 114, 2147484}, {1000, 0}};
    std::size_t i = 0;
    for (; i + 8 <= nPairs; i += 8, pSrc += 32, pDst += 16) {
        const uint8x8x4_t g = vld4_u8(pSrc);
        const int16x8_t u = vreinterpretq_s16_u16(vsubl_u8(g.val[pos[1]], vdup_n_u8(128)));
        const int16x8_t v = vreinterpretq_s16_u16(vsubl_u8(g.val[pos[3]], vdup_n_u8(128)));
        const int16x8_t y0 = vreinterpretq_s16_u16(vsubl_u8(g.val[pos[0]], vdup_n_u8(16)));
        const int16x8_t y1 = vreinterpretq_s16_u16(vsubl_u8(g.val[pos[2]], vdup_n_u8(16)));
        int16x4_t left[2], right[2];
        for (int h = 0; h < 2; ++h) {
            const float32x4_t fu = toFloat(h ? vget_high_s16(u) : vget_low_s16(u));
            const float32x4_t fv = toFloat(h ? vget_high_s16(v) : vget_low_s16(v));
            const float32x2_t flo = vget_low_f32(k.f), fhi = vget_high_f32(k.f);
            const float32x4_t cb = vmulq_lane_f32(fu, flo, 1);
            const float32x4_t cg = vsubq_f32(vmulq_lane_f32(fv, fhi, 0), vmulq_lane_f32(fu, fhi, 1));
            const float32x4_t cr = vmulq_lane_f32(fv, k.f2, 0);
            left[h] = greyOf4(h ? vget_high_s16(y0) : vget_low_s16(y0), cb, cg, cr, k);
            right[h] = greyOf4(h ? vget_high_s16(y1) : vget_low_s16(y1), cb, cg, cr, k);
        }
        const uint8x8x2_t z = vzip_u8(vqmovun_s16(vcombine_s16(left[0], left[1])),
                                      vqmovun_s16(vcombine_s16(right[0], right[1])));
        vst1q_u8(pDst, vcombine_u8(z.val[0], z.val[1]));
    }
    scalar::kKernels.yuvToGray(nType, pSrc, pDst, nPairs - i);
}

void yuvToGray(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nPairs)
{
    static constexpr void (*s_fn[4])(const unsigned char*, unsigned char*, std::size_t) = {
        yuvToGrayOf<0>, yuvToGrayOf<1>, yuvToGrayOf<2>, yuvToGrayOf<3>};
    s_fn[nType](pSrc, pDst, nPairs);
}

void bgrToGray(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    // From bytes S = 587 g + 299 r + 114 b = 8 P + t with P = 73 g + 37 r +
    // 14 b and t = 3 g + 3 r + 2 b, both byte multiply-adds in 16 bits, so
    // w = S / 8 + 1 = P + 1 + (t >> 3) is below 32768, and (2 w 16777 >> 16)
    // >> 6 is S / 1000 (true for every such w). Where S is a multiple of 1000
    // the double-precision rule may give one less: the (g, r) table says so.
    const unsigned char* fix = scalar::weightedFixEntries();
    std::size_t i = 0;
    for (; i + 8 <= n; i += 8, pSrc += 24, pDst += 8) {
        const uint8x8x3_t p = vld3_u8(pSrc);
        uint16x8_t w = vmlal_u8(vdupq_n_u16(1), p.val[1], vdup_n_u8(73));
        w = vmlal_u8(w, p.val[2], vdup_n_u8(37));
        w = vmlal_u8(w, p.val[0], vdup_n_u8(14));
        uint16x8_t t = vmull_u8(p.val[1], vdup_n_u8(3));
        t = vmlal_u8(t, p.val[2], vdup_n_u8(3));
        t = vmlal_u8(t, p.val[0], vdup_n_u8(2));
        w = vsraq_n_u16(w, t, 3);
        const uint16x8_t q = vshrq_n_u16(vreinterpretq_u16_s16(vqdmulhq_n_s16(vreinterpretq_s16_u16(w), 16777)), 6);
        vst1_u8(pDst, vmovn_u16(q));
        // Exact: t a multiple of 8 and w - 1 = 125 q.
        const uint16x8_t exact = vbicq_u16(vceqq_u16(vmlaq_n_u16(vdupq_n_u16(1), q, 125), w),
                                           vtstq_u16(t, vdupq_n_u16(7)));
        const uint8x8_t e8 = vmovn_u16(exact);
        if (anyLane(e8))
            for (unsigned m = laneBits8(e8); m != 0; m &= m - 1) {
                const int j = __builtin_ctz(m);
                const unsigned char* px = pSrc + 3 * j;
                pDst[j] = static_cast<unsigned char>(pDst[j] - fix[px[1] * 256 + px[2]]);
            }
    }
    scalar::kKernels.bgrToGray(pSrc, pDst, n - i);
}

void grey3To1(const unsigned char* pSrc, unsigned char* pDst, std::size_t n)
{
    // t = 20 * (b1 * 0.6 + b2 * 0.25 + b0 * 0.15) = 12 b1 + 5 b2 + 3 b0 is an
    // integer; when t is not a multiple of 20 the truncated result is t / 20
    // whatever the rounding. Multiples (one pixel in 20, every grey pixel)
    // may come out one less: lane by lane from the (b1, b2) table (about
    // 1.4 lanes in the half of the vectors that have any, on noise; NEON has
    // no gather), and grey pixels, when many lanes are exact, by value from a
    // 256-bit set in vectors.
    const uint8x8x4_t greyFix = equalChannelFix().grey3;
    const unsigned short* fix = scalar::grey3FixEntries();
    // A vector operand rather than a scalar lane: the compiler would move the
    // lane into place on every turn.
    int16x8_t fifth = vdupq_n_s16(kFifthOfQuarter);
    uint8x16_t weights = laneWeights();
    asm("" : "+w"(fifth), "+w"(weights));
    std::size_t i = 0;
    for (; i + 16 <= n; i += 16, pSrc += 48, pDst += 16) {
        const uint8x16x3_t p = vld3q_u8(pSrc);
        uint16x8_t q16[2], e16[2];
        for (int h = 0; h < 2; ++h) {
            const uint8x8_t b0 = h ? vget_high_u8(p.val[0]) : vget_low_u8(p.val[0]);
            const uint8x8_t b1 = h ? vget_high_u8(p.val[1]) : vget_low_u8(p.val[1]);
            const uint8x8_t b2 = h ? vget_high_u8(p.val[2]) : vget_low_u8(p.val[2]);
            uint16x8_t t = vmull_u8(b1, vdup_n_u8(12));
            t = vmlal_u8(t, b2, vdup_n_u8(5));
            t = vmlal_u8(t, b0, vdup_n_u8(3));
            q16[h] = vreinterpretq_u16_s16(vqdmulhq_s16(vreinterpretq_s16_u16(vshrq_n_u16(t, 2)), fifth));
            e16[h] = vceqq_u16(vmulq_n_u16(q16[h], 20), t);
        }
        // The low bytes of both halves in one register each (one VUZP rather
        // than two narrows and the moves to pair them).
        uint8x16_t bytes = vuzpq_u8(vreinterpretq_u8_u16(q16[0]), vreinterpretq_u8_u16(q16[1])).val[0];
        const uint8x16_t exact = vuzpq_u8(vreinterpretq_u8_u16(e16[0]), vreinterpretq_u8_u16(e16[1])).val[0];
        if (anyLane(vorr_u8(vget_low_u8(exact), vget_high_u8(exact)))) {
            unsigned m = laneBits(exact, weights);
            // The table answers grey pixels too; only a vector with three or
            // more exact lanes (every one, in a grey picture; rare on noise)
            // is worth answering its grey pixels in the vector.
            const unsigned rest = m & (m - 1);
            if ((rest & (rest - 1)) != 0) {
                // Loaded again: keeping the pixels live through the common
                // path costs register moves on every turn.
                const uint8x16x3_t g = vld3q_u8(pSrc);
                const uint8x16_t grey = vandq_u8(exact, vandq_u8(vceqq_u8(g.val[0], g.val[1]), vceqq_u8(g.val[1], g.val[2])));
                bytes = vsubq_u8(bytes, vandq_u8(grey, bitOfValue(greyFix, bytes)));
                m = laneBits(vbicq_u8(exact, grey), weights);
            }
            vst1q_u8(pDst, bytes);
            for (; m != 0; m &= m - 1) {
                const int j = __builtin_ctz(m);
                const unsigned char* px = pSrc + 3 * j;
                pDst[j] = static_cast<unsigned char>(pDst[j] - ((fix[px[1] * 256 + px[2]] >> (px[0] / 20)) & 1));
            }
            continue;
        }
        vst1q_u8(pDst, bytes);
    }
    scalar::kKernels.grey3To1(pSrc, pDst, n - i);
}

#if defined(__arm__)
// pDst[i] = lut[pSrc[i]] for 32 bytes a turn. The table is eight 32-byte
// pieces, each the register list of a four-register VTBL/VTBX: a piece
// answers the lanes whose value lies in its 32 entries, VTBX leaves a lane
// alone when its index is 32 or more, and the index, lowered by 32 per piece
// with wrap-around, lies in 0 .. 31 for exactly one piece. Pieces 0 .. 3 stay
// in d0-d15 and 4 .. 7 are reloaded into d16-d19 each turn (the data, the
// indices and the results take the other registers). Written out in
// assembly because the compiler spills the table in the loop (2.5
// instructions a byte against 1.7).
void lutCopy(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut)
{
    std::size_t nTurns = n / 32;
    if (nTurns != 0) {
        const unsigned char* pIn = pSrc;
        unsigned char* pOut = pDst;
        const unsigned char* pLow = lut;
        asm volatile(
            "vld1.8 {d0-d3}, [%[low]]!\n\t"
            "vld1.8 {d4-d7}, [%[low]]!\n\t"
            "vld1.8 {d8-d11}, [%[low]]!\n\t"
            "vld1.8 {d12-d15}, [%[low]]\n\t"
            "vmov.i8 q10, #32\n"
            "1:\n\t"
            "vld1.8 {d24-d27}, [%[in]]!\n\t"
            "vtbl.8 d28, {d0-d3}, d24\n\t"
            "vtbl.8 d29, {d0-d3}, d25\n\t"
            "vtbl.8 d30, {d0-d3}, d26\n\t"
            "vtbl.8 d31, {d0-d3}, d27\n\t"
#define KAVREL_LUT_PIECE(list)                                                                                          \
    "vsub.i8 q12, q12, q10\n\t"                                                                                         \
    "vsub.i8 q13, q13, q10\n\t"                                                                                         \
    "vtbx.8 d28, {" list "}, d24\n\t"                                                                                   \
    "vtbx.8 d29, {" list "}, d25\n\t"                                                                                   \
    "vtbx.8 d30, {" list "}, d26\n\t"                                                                                   \
    "vtbx.8 d31, {" list "}, d27\n\t"
            KAVREL_LUT_PIECE("d4-d7")
            KAVREL_LUT_PIECE("d8-d11")
            KAVREL_LUT_PIECE("d12-d15")
            "vld1.8 {d16-d19}, [%[p4]]\n\t"
            KAVREL_LUT_PIECE("d16-d19")
            "vld1.8 {d16-d19}, [%[p5]]\n\t"
            KAVREL_LUT_PIECE("d16-d19")
            "vld1.8 {d16-d19}, [%[p6]]\n\t"
            KAVREL_LUT_PIECE("d16-d19")
            "vld1.8 {d16-d19}, [%[p7]]\n\t"
            KAVREL_LUT_PIECE("d16-d19")
#undef KAVREL_LUT_PIECE
            "vst1.8 {d28-d31}, [%[out]]!\n\t"
            "subs %[turns], %[turns], #1\n\t"
            "bne 1b\n\t"
            : [in] "+r"(pIn), [out] "+r"(pOut), [low] "+r"(pLow), [turns] "+r"(nTurns)
            : [p4] "r"(lut + 128), [p5] "r"(lut + 160), [p6] "r"(lut + 192), [p7] "r"(lut + 224)
            : "cc", "memory", "d0", "d1", "d2", "d3", "d4", "d5", "d6", "d7", "d8", "d9", "d10", "d11", "d12",
              "d13", "d14", "d15", "d16", "d17", "d18", "d19", "d20", "d21", "d24", "d25", "d26", "d27", "d28",
              "d29", "d30", "d31");
    }
    const std::size_t nDone = n & ~std::size_t{31};
    scalar::lutCopy(pSrc + nDone, pDst + nDone, n - nDone, lut);
}
#else
constexpr auto lutCopy = scalar::lutCopy;
#endif

void expand3(const unsigned char* pSrc, unsigned char* pDst, std::size_t n, const unsigned char* lut)
{
    if (lut) {
        expandThroughTable(pSrc, pDst, n, lut, lutCopy, expand3);
        return;
    }
    std::size_t i = 0;
    // 32 pixels a turn: the loop's own count is a fifth of its work.
    for (; i + 32 <= n; i += 32, pSrc += 32, pDst += 96) {
        const uint8x16_t a = vld1q_u8(pSrc), b = vld1q_u8(pSrc + 16);
        vst3q_u8(pDst, uint8x16x3_t{{a, a, a}});
        vst3q_u8(pDst + 48, uint8x16x3_t{{b, b, b}});
    }
    scalar::kKernels.expand3(pSrc, pDst, n - i, nullptr);
}

void swapRB(unsigned char* pBuf, std::size_t n)
{
    std::size_t i = 0;
    for (; i + 16 <= n; i += 16, pBuf += 48) {
        uint8x16x3_t p = vld3q_u8(pBuf);
        const uint8x16_t t = p.val[0];
        p.val[0] = p.val[2];
        p.val[2] = t;
        vst3q_u8(pBuf, p);
    }
    scalar::kKernels.swapRB(pBuf, n - i);
}

} // namespace

const PixelKernels kKernels = {
    "neon", yuvToBgr, yuvToGray, bgrToGray, expand3, swapRB, lutCopy, grey3To1,
};

} // namespace neon
} // namespace kavrel

#endif
