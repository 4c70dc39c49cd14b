// SPDX-License-Identifier: LGPL-2.1-or-later
// GlobalFunction's conversions: the image walk (strides, padding left alone,
// pairs split across rows, odd sizes, degenerate sizes) against the scalar
// reference, and the worked values that pin the reference to the rules.

#include "imaging/convertkernels.h"
#include "imaging/convertreference.h"
#include "imaging/globalfunction.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <random>
#include <vector>

using kavrel::ref::dibStride;
using kavrel::ref::grayAlignedStride;
using Buf = std::vector<unsigned char>;

namespace {

Buf randomBytes(std::size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    Buf b(n);
    for (auto& e : b)
        e = static_cast<unsigned char>(rng());
    return b;
}

// Runs both forms on destinations pre-filled with the same noise (and a guard
// zone), so that any write to padding or beyond shows up as a difference.
void expectSame(std::size_t nDst, const std::function<void(unsigned char*)>& fnFast,
                const std::function<void(unsigned char*)>& fnRef)
{
    Buf got = randomBytes(nDst + 32, static_cast<unsigned>(nDst)), want = got;
    fnFast(got.data());
    fnRef(want.data());
    EXPECT_EQ(got, want);
}

std::array<unsigned char, 3> yuvPixelToDib(int y, int u, int v)
{
    const unsigned char src[4] = {static_cast<unsigned char>(y), static_cast<unsigned char>(u),
                                  static_cast<unsigned char>(y), static_cast<unsigned char>(v)};
    unsigned char dst[8] = {};
    GlobalFunction::PixelFormat_YUV422Packed_To_DIB(GlobalFunction::YUV422_Y0UY1V, src, dst, 2, 1);
    return {dst[0], dst[1], dst[2]};
}

int yuvPixelToGray(int y, int u, int v)
{
    const unsigned char src[4] = {static_cast<unsigned char>(y), static_cast<unsigned char>(u),
                                  static_cast<unsigned char>(y), static_cast<unsigned char>(v)};
    unsigned char dst[2] = {};
    GlobalFunction::PixelFormat_YUV422Packed_To_Gray8(GlobalFunction::YUV422_Y0UY1V, src, dst, 2, 1);
    return dst[0];
}

} // namespace

TEST(Conversions, EveryOperationMatchesReferenceOnAllShapes)
{
    using GF = GlobalFunction;
    for (int h = 1; h <= 3; ++h)
        for (int w = 1; w <= 80; ++w) {
            SCOPED_TRACE("width " + std::to_string(w) + " height " + std::to_string(h));
            const std::size_t nDib = dibStride(w) * h, nAligned = grayAlignedStride(w) * h;
            const std::size_t nGray = static_cast<std::size_t>(w) * h;
            const Buf src = randomBytes(nDib + nAligned + 2 * nGray + 4, w * 31 + h);
            const unsigned char* s = src.data();
            for (int t = 0; t < 4; ++t) {
                const auto type = static_cast<GF::YUV422_Type>(t);
                expectSame(nDib, [&](unsigned char* d) { GF::PixelFormat_YUV422Packed_To_DIB(type, s, d, w, h); },
                           [&](unsigned char* d) { kavrel::ref::yuv422ToDib(t, s, d, w, h); });
                expectSame(nGray, [&](unsigned char* d) { GF::PixelFormat_YUV422Packed_To_Gray8(type, s, d, w, h); },
                           [&](unsigned char* d) { kavrel::ref::yuv422ToGray8(t, s, d, w, h); });
            }
            expectSame(nGray, [&](unsigned char* d) { GF::PixelFormat_DIB_To_Gray8(s, d, w, h); },
                       [&](unsigned char* d) { kavrel::ref::dibToGray(s, d, w, h, w); });
            expectSame(nAligned, [&](unsigned char* d) { GF::PixelFormat_DIB_To_Gray8Aligned(s, d, w, h); },
                       [&](unsigned char* d) { kavrel::ref::dibToGray(s, d, w, h, grayAlignedStride(w)); });
            expectSame(nDib, [&](unsigned char* d) { GF::PixelFormat_Gray8_To_DIB(s, d, w, h); },
                       [&](unsigned char* d) { kavrel::ref::grayToDib(s, w, d, w, h); });
            expectSame(nDib, [&](unsigned char* d) { GF::PixelFormat_Gray8Aligned_To_DIB(s, d, w, h); },
                       [&](unsigned char* d) { kavrel::ref::grayToDib(s, grayAlignedStride(w), d, w, h); });
            expectSame(nAligned, [&](unsigned char* d) { GF::PixelFormat_Gray8_To_Gray8Aligned(s, d, w, h); },
                       [&](unsigned char* d) { kavrel::ref::grayRowCopy(s, w, d, grayAlignedStride(w), w, h); });
            expectSame(nGray, [&](unsigned char* d) { GF::PixelFormat_Gray8Aligned_To_Gray8(s, d, w, h); },
                       [&](unsigned char* d) { kavrel::ref::grayRowCopy(s, grayAlignedStride(w), d, w, w, h); });
            expectSame(nDib, [&](unsigned char* d) { std::copy(s, s + nDib, d); GF::Exg_RB(d, w, h); },
                       [&](unsigned char* d) { std::copy(s, s + nDib, d); kavrel::ref::exgRB(d, w, h); });
        }
}

// Degenerate and overflowing sizes are in tests/reliability (hostile input).
TEST(Conversions, UnknownYuvTypesWriteNothing)
{
    using GF = GlobalFunction;
    const Buf src = randomBytes(64, 1);
    const unsigned char* s = src.data();
    Buf dst(64, 0x5A);
    GF::PixelFormat_YUV422Packed_To_DIB(static_cast<GF::YUV422_Type>(4), s, dst.data(), 4, 2);
    GF::PixelFormat_YUV422Packed_To_Gray8(static_cast<GF::YUV422_Type>(-1), s, dst.data(), 4, 2);
    EXPECT_EQ(dst, Buf(64, 0x5A));
}

TEST(Conversions, WorkedValues)
{
    using Px = std::array<unsigned char, 3>;
    EXPECT_EQ(yuvPixelToDib(16, 128, 128), (Px{0, 0, 0}));
    EXPECT_EQ(yuvPixelToDib(235, 128, 128), (Px{254, 254, 254}));
    EXPECT_EQ(yuvPixelToDib(128, 128, 128), (Px{130, 130, 130}));
    EXPECT_EQ(yuvPixelToDib(81, 90, 240), (Px{0, 0, 205}));
    EXPECT_EQ(yuvPixelToDib(41, 240, 110), (Px{255, 1, 8}));
    EXPECT_EQ(yuvPixelToDib(255, 128, 128), (Px{255, 255, 255}));
    EXPECT_EQ(yuvPixelToGray(128, 0, 255), 112); // from unclamped colour, not 120
    EXPECT_EQ(yuvPixelToGray(235, 128, 128), 253);
    EXPECT_EQ(yuvPixelToGray(0, 128, 128), 0);
    EXPECT_EQ(yuvPixelToGray(255, 128, 128), 255);

    const unsigned char dib[] = {255, 255, 255, 0, 0, 255, 0, 255, 0, 255, 0, 0, 128, 128, 128, 254, 254, 254};
    const Buf want = {255, 76, 149, 29, 127, 253};
    Buf grey(6);
    GlobalFunction::PixelFormat_DIB_To_Gray8(dib, grey.data(), 6, 1);
    EXPECT_EQ(grey, want);
}

// A list shorter than the kernel sets is filled to its end and no further; the
// count is of all the sets.
TEST(KernelSets, ShortListsAreFilledToTheirEndOnly)
{
    const kavrel::PixelKernels* all[8] = {};
    const std::size_t n = kavrel::availablePixelKernels(all, 8);
    ASSERT_GE(n, 1u);
    const kavrel::PixelKernels untouched = {};
    for (std::size_t nMax : {0, 1}) {
        const kavrel::PixelKernels* list[2] = {&untouched, &untouched};
        EXPECT_EQ(kavrel::availablePixelKernels(list, nMax), n);
        EXPECT_EQ(list[0], nMax == 0 ? &untouched : all[0]) << nMax;
        EXPECT_EQ(list[1], &untouched) << nMax;
    }
}
