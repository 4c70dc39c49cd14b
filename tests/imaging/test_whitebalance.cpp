// SPDX-License-Identifier: LGPL-2.1-or-later
// The automatic white balance's measurement on frames of known means: byte
// order and line padding, the brightest-tenth threshold at its boundary,
// means of 0, 32-bit sums, single-precision percentages, and the frames it
// refuses. (The dialog's tests drive the same measurement through a camera.)

#include "imaging/whitebalance.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

using kavrel::ChannelOrder;
using kavrel::WhiteReference;

namespace {

using Pixel = std::vector<unsigned char>; // three bytes, in the frame's order

// A frame of nWidth pixels per line: runs of (count, pixel), row by row, and
// lines padded to nBytesPerLine with 0xEE.
struct TestFrame {
    int nWidth;
    int nHeight;
    int nBytesPerLine;
    std::vector<unsigned char> bytes;
};

TestFrame makeFrame(int nWidth, int nBytesPerLine, const std::vector<std::pair<int, Pixel>>& runs)
{
    std::vector<Pixel> pixels;
    for (const auto& run : runs)
        pixels.insert(pixels.end(), static_cast<std::size_t>(run.first), run.second);
    const int nHeight = static_cast<int>(pixels.size()) / nWidth;
    TestFrame f{nWidth, nHeight, nBytesPerLine,
                std::vector<unsigned char>(static_cast<std::size_t>(nHeight) * nBytesPerLine, 0xEE)};
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        const std::size_t nAt = i / nWidth * nBytesPerLine + i % nWidth * 3;
        for (int c = 0; c < 3; ++c)
            f.bytes[nAt + c] = pixels[i][c];
    }
    return f;
}

// "R|G|B" percentages, or "none".
std::string measure(const TestFrame& f, ChannelOrder eOrder, WhiteReference eReference)
{
    const auto oGains =
        kavrel::measureWhiteBalance(f.bytes.data(), f.nWidth, f.nBytesPerLine, f.nHeight, eOrder, eReference);
    if (!oGains)
        return "none";
    return std::to_string(oGains->nRed) + "|" + std::to_string(oGains->nGreen) + "|" + std::to_string(oGains->nBlue);
}

const auto RGB = ChannelOrder::RGB;
const auto BGR = ChannelOrder::BGR;
const auto Whole = WhiteReference::WholeFrame;
const auto Surface = WhiteReference::WhiteSurface;

} // namespace

TEST(WhiteBalance, ReadsTheChannelsInTheFramesByteOrderAndSkipsLinePadding)
{
    // Means 100, 125, 150 in byte order; the padding (0xEE) would pull every mean up.
    const TestFrame f = makeFrame(5, 20, {{20, {100, 125, 150}}});
    EXPECT_EQ(measure(f, RGB, Whole), "125|100|83");
    EXPECT_EQ(measure(f, BGR, Whole), "83|100|125");
    // Lines exactly three bytes per pixel long.
    EXPECT_EQ(measure(makeFrame(5, 15, {{20, {100, 125, 150}}}), RGB, Whole), "125|100|83");
}

TEST(WhiteBalance, WholeFrameAveragesEveryPixel)
{
    // Means R 40, G 100, B 160 over two colours: red needs 2.50, shown as 2.00.
    EXPECT_EQ(measure(makeFrame(4, 12, {{4, {10, 100, 190}}, {4, {70, 100, 130}}}), RGB, Whole), "200|100|62");
    // A mean of 0 needs an infinite gain (limited to 200); an all-black frame 0 / 0, which gives 0.
    EXPECT_EQ(measure(makeFrame(4, 12, {{8, {100, 50, 0}}}), RGB, Whole), "50|100|200");
    EXPECT_EQ(measure(makeFrame(4, 12, {{8, {0, 0, 0}}}), RGB, Whole), "0|0|0");
}

TEST(WhiteBalance, WhiteSurfaceTakesOnlyPixelsAboveTheLevelWhereATenthIsPassed)
{
    const Pixel bright = {250, 200, 150}; // brightness 600
    const Pixel grey = {100, 100, 100};   // 300
    // 20 of 200 bright pixels is exactly a tenth, not more: the threshold falls
    // to 300 and the bright pixels alone make the means.
    EXPECT_EQ(measure(makeFrame(10, 30, {{180, grey}, {20, bright}}), RGB, Surface), "80|100|133");
    // 21 pass the tenth at 600 itself: nothing is brighter, nothing is taken.
    EXPECT_EQ(measure(makeFrame(10, 30, {{179, grey}, {21, bright}}), RGB, Surface), "0|0|0");
    // Two levels above the threshold both count: means R 160, G 130, B 100.
    EXPECT_EQ(measure(makeFrame(10, 30, {{5, {190, 160, 130}}, {5, {130, 100, 70}}, {190, {10, 10, 10}}}), RGB,
                      Surface),
              "81|100|130");
    // The whole frame of the same pixels is a different reference.
    EXPECT_EQ(measure(makeFrame(10, 30, {{180, grey}, {20, bright}}), RGB, Whole), "95|100|104");
    // Brightness adds the bytes whatever their order.
    EXPECT_EQ(measure(makeFrame(10, 30, {{180, grey}, {20, bright}}), BGR, Surface), "133|100|80");
}

TEST(WhiteBalance, ChannelSumsWrapAt32Bits)
{
    // 4112 x 4097 pixels: 255 per pixel adds up to 2^32 + 983024, which wraps
    // to a red mean near 0 (red 200) instead of 255 (red 66).
    const int nWidth = 4112;
    const int nHeight = 4097;
    std::vector<unsigned char> bytes(static_cast<std::size_t>(nWidth) * nHeight * 3);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        bytes[i] = 255;
        bytes[i + 1] = 128;
        bytes[i + 2] = 128;
    }
    const auto oGains = kavrel::measureWhiteBalance(bytes.data(), nWidth, nWidth * 3, nHeight, RGB, Whole);
    ASSERT_TRUE(oGains.has_value());
    EXPECT_EQ(oGains->nRed, 200);
    EXPECT_EQ(oGains->nGreen, 66);
    EXPECT_EQ(oGains->nBlue, 66);
}

TEST(WhiteBalance, RefusesFramesWithoutWholePixels)
{
    const TestFrame f = makeFrame(4, 12, {{8, {100, 125, 150}}});
    // No frame, no pixels, grey lines (one byte a pixel), lines a byte short, and
    // 3 x width beyond int: still a width too large for its lines.
    const struct { const unsigned char* bytes; int w, bpl, h; } cases[] = {
        {nullptr, 4, 12, 2}, {f.bytes.data(), 0, 12, 2}, {f.bytes.data(), 4, 12, 0}, {f.bytes.data(), -4, 12, 2},
        {f.bytes.data(), 4, 4, 2}, {f.bytes.data(), 4, 11, 2}, {f.bytes.data(), INT_MAX / 2, INT_MAX, 1}};
    for (const auto& c : cases)
        for (const auto eReference : {Whole, Surface})
            EXPECT_FALSE(kavrel::measureWhiteBalance(c.bytes, c.w, c.bpl, c.h, RGB, eReference).has_value()) << c.w << " " << c.bpl;
}

TEST(WhiteBalance, GainToPercentTruncatesInSinglePrecisionAndSaturates)
{
    EXPECT_EQ(kavrel::gainToPercent(1.25f), 125);
    EXPECT_EQ(kavrel::gainToPercent(0.8333333f), 83);
    EXPECT_EQ(kavrel::gainToPercent(-0.5f), -50);
    // 0.29f * 100 is 28.99999917 exactly, 29 in single precision.
    EXPECT_EQ(kavrel::gainToPercent(0.29f), 29);
    const float fInf = std::numeric_limits<float>::infinity();
    EXPECT_EQ(kavrel::gainToPercent(fInf), INT_MAX);
    EXPECT_EQ(kavrel::gainToPercent(3e7f), INT_MAX);
    EXPECT_EQ(kavrel::gainToPercent(-fInf), INT_MIN);
    EXPECT_EQ(kavrel::gainToPercent(std::nanf("")), 0);
}
