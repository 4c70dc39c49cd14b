// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_IMAGING_KERNELCONSTANTS_H
#define KAVREL_IMAGING_KERNELCONSTANTS_H

// Every constant the fast kernels use to reach the reference rules' exact
// results, derived once, with the reason it is exact. Where the reason is a
// finite check it is done here at compile time. Internal to the library.

namespace kavrel {
namespace kc {

// ---- YUV to BGR: s = 1164 (Y - 16) + c_u (U - 128) + c_v (V - 128) per
// channel, colour = s / 1000 truncated. The sums stay within +-2^20.
constexpr int kLuma = 1164, kBlueU = 2018, kGreenU = -380, kGreenV = -813, kRedV = 1159;
constexpr int kBlueBase = -kLuma * 16 - kBlueU * 128;
constexpr int kGreenBase = -kLuma * 16 - kGreenU * 128 - kGreenV * 128;
constexpr int kRedBase = -kLuma * 16 - kRedV * 128;

// Clamped colour: only 0 .. 255 survives the clamp, so the byte is 0 for s < 0
// and floor(s / 4) / 250 otherwise. 1164 = 4 * 291, so the quarter shifts only
// the chroma part, once per pair of pixels. The kernels form w = floor(s / 4)
// + 1 (kQuarterBias, added before the shift) and pack it to 16 bits with
// unsigned saturation: every negative s becomes 0, and w is exact up to 65535.
constexpr int kLumaQuarter = kLuma / 4;
static_assert(kLuma % 4 == 0, "the luma term must divide by 4 exactly");
constexpr int kQuarterBias = 4;
// (w * kDiv250Mul) >> (16 + kDiv250Shift) is (w - 1) / 250 for 1 <= w <= 64000
// (so t / 250 for t = w - 1), 0 for w = 0, and at least 255 above 64000.
constexpr unsigned kDiv250Mul = 33554, kDiv250Shift = 7;
constexpr bool div250Holds()
{
    for (unsigned w = 0; w < 65536; ++w) {
        const unsigned q = (w * kDiv250Mul) >> (16 + kDiv250Shift);
        if (w == 0 ? q != 0 : w <= 64000 ? q != (w - 1) / 250 : q < 255)
            return false;
    }
    return true;
}
static_assert(div250Holds(), "the multiply-high does not divide by 250");

// ---- Weighted grey of bytes: S = 587 g + 299 r + 114 b, grey = S / 1000
// except where S is a multiple of 1000 (see below). S = 8 P + t with
// P = 73 g + 37 r + 14 b and t = 3 g + 3 r + 2 b, both byte dot products, so
// S / 8 = P + t / 8 <= 31875 fits 16 bits, and S / 1000 = (S / 8) / 125.
constexpr int kPg = 73, kPr = 37, kPb = 14, kTg = 3, kTr = 3, kTb = 2;
static_assert(8 * kPg + kTg == 587 && 8 * kPr + kTr == 299 && 8 * kPb + kTb == 114, "S = 8 P + t");
// Byte dot products of a pixel (byte 0, byte 1, byte 2, byte 1) as dwords:
// the coefficient bytes (b, g, r, 0).
constexpr unsigned coeffBytes(int c0, int c1, int c2)
{
    return static_cast<unsigned>(c0 & 0xFF) | static_cast<unsigned>(c1 & 0xFF) << 8 | static_cast<unsigned>(c2 & 0xFF) << 16;
}
constexpr unsigned kPBytes = coeffBytes(kPb, kPg, kPr), kTBytes = coeffBytes(kTb, kTg, kTr);
// S is a multiple of 1000 exactly when t % 8 == 0 and S / 8 == 125 q.
constexpr unsigned kDiv125Mul = 33555, kDiv125Shift = 6;
constexpr bool div125Holds()
{
    for (unsigned s = 0; s <= 31875; ++s)
        if (((s * kDiv125Mul) >> (16 + kDiv125Shift)) != s / 125)
            return false;
    return true;
}
static_assert(div125Holds(), "the multiply-high does not divide by 125");

// ---- Driver grey: 20 (b1 * 0.6 + b2 * 0.25 + b0 * 0.15) = t = 12 b1 + 5 b2
// + 3 b0, an integer <= 5100. Unless t is a multiple of 20 the truncated
// result is t / 20 whatever the rounding; multiples may give one less.
constexpr int kD0 = 3, kD1 = 12, kD2 = 5;
constexpr unsigned kDBytes = coeffBytes(kD0, kD1, kD2);
// (x * kDiv20Mul) >> 16 is x / 20 for every x up to 16383 (t, and b0 when a
// table entry holds one bit per b0 / 20).
constexpr unsigned kDiv20Mul = 3277;
constexpr bool div20Holds()
{
    for (unsigned x = 0; x < 16384; ++x)
        if (((x * kDiv20Mul) >> 16) != x / 20)
            return false;
    return true;
}
static_assert(div20Holds(), "the multiply-high does not divide by 20");

// ---- Quotient and exactness from one 32 x 32 -> 64-bit multiply (the portable
// kernels; one instruction on ARM). With m = ceil(2^32 / d) = (2^32 + e) / d and
// x = q d + r, x m = q 2^32 + (e q + r m). While e q + (d - 1) m < 2^32 the
// high word is q, and the low word e q + r m is below m exactly when r = 0.
struct HighWordDivisor {
    unsigned long long d, m, xMax;
    constexpr unsigned long long excess() const { return m * d - (1ull << 32); }
    constexpr bool holds() const
    {
        return m * d >= (1ull << 32) && excess() * (xMax / d) + (d - 1) * m < (1ull << 32) &&
               excess() * (xMax / d) < m;
    }
};
constexpr HighWordDivisor kWeightedDiv{1000, 4294968, 255000}; // S <= 1000 * 255
constexpr HighWordDivisor kDriverDiv{20, 214748365, 5100};     // t <= 20 * 255
static_assert(kWeightedDiv.holds() && kDriverDiv.holds(), "the high word does not divide");

// ---- YUV to grey without conversions or rounding instructions (AVX-512):
// an integer sum started at kFloatZero + offset reads, as a float, 2^23 +
// offset + sum while that stays in [2^23, 2^24), where the unit in the last
// place is 1. A multiply-add rounded down onto a constant in the same kind of
// binade leaves the floor of the product in the low bits of the pattern.
constexpr int kFloatZero = 0x4B000000; // bits of 2^23
constexpr double kTwo23 = 8388608.0;

// Channels: sum s (|s| < 2^20) started at kFloatZero + kChannelOffset, times
// kChannelScale (m, the float just above 0.001f) plus kChannelBase, rounded
// down, is 1.5 * 2^23 + floor(s * m + d), d the rest the constants leave.
// m exceeds 0.001 by e, and -1000 e < d < 0: so for s > 0 the floor is s / 1000
// truncated (an exact multiple gains 1000 k e + d > 0, the others lose less
// than 1 / 1000 - 2^20 e), and for s <= 0 it is one less. The pattern's low
// word is that floor, its high word kChannelHigh, or kChannelHigh - 1 exactly
// when s <= 0, which makes up the one; so a word pair (w, -w) multiplies the
// truncated quotient by w, less w * kChannelHigh.
constexpr int kChannelOffset = 3812390;
constexpr float kChannelScale = 0x1.0624ep-10f;
constexpr float kChannelBase = 12570711.0f;
constexpr int kChannelHigh = 0x4B40; // high word of 1.5 * 2^23
constexpr double kChannelRest = kChannelBase + (kTwo23 + kChannelOffset) * double(kChannelScale) - 1.5 * kTwo23;
constexpr double kChannelExcess = double(kChannelScale) - 0.001;
static_assert(0.001f < kChannelScale && kChannelExcess > 0, "m must exceed 0.001");
static_assert(kChannelRest < 0 && kChannelRest > -1000 * kChannelExcess, "d out of range");
static_assert((1 << 20) * kChannelExcess < 0.0005, "the excess must not reach the next quotient");

// Grey: W = 587 g + 299 r + 114 b of the truncated channels (-300000 < W <
// 2^20) started at kFloatZero + kGreyOffset + 1000 kChannelHigh (the last
// term puts back what the word pairs took), reads as 2^23 + kGreyOffset + W.
// Times 0.001f plus kGreyBase = 12288 - 300 - 2^23 * 0.001f (exact), rounded
// down: 12288 + W * 0.001f + 300000 (0.001f - 0.001), in [8192, 16384) with
// ten fraction bits. The integer part is W / 1000 truncated (below 0 it
// clamps to the same byte 0); the fraction bits are 0 exactly when W is a
// multiple of 1000, since any other W leaves at least 0.001 > 1 / 1024.
// Shifting the pattern right by 10 and adding kGreyQuotientBias gives the
// quotient.
constexpr int kGreyOffset = 300000;
constexpr float kGreyBase = 3599.3916015625f;
static_assert(kGreyBase == float(12288 - kGreyOffset / 1000) - float(kTwo23) * 0.001f, "grey base");
constexpr int kGreyStart = kFloatZero + kGreyOffset + 1000 * kChannelHigh;
constexpr int kGreyFractionMask = 1023;
constexpr int kGreyQuotientBias = -(0x46400000 >> 10); // bits of 12288
static_assert((double(1 << 20) + kGreyOffset) * (double(0.001f) - 0.001) < 1.0 / 1024, "exact W must keep a zero fraction");

// ---- Exact cases: the double-precision rules give one less than the exact
// quotient only where the division is exact. Below these counts of such
// lanes per vector (noise has about one pixel in 20 for the driver grey),
// fixing them one by one from a table beats any vector path.
constexpr int kFewExactLanes = 8;

} // namespace kc
} // namespace kavrel

#endif
