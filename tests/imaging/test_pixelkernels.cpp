// SPDX-License-Identifier: LGPL-2.1-or-later
// Every kernel set this processor can run, against the scalar reference on the
// whole input domain: all 2^24 (Y, U, V) and (b, g, r) combinations, every
// byte through every table, row lengths around the vector widths.

#include "imaging/convertkernels.h"
#include "imaging/convertreference.h"
#include "imaging/framekernels.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

using namespace kavrel;

namespace {

std::vector<const PixelKernels*> kernelSets()
{
    const PixelKernels* list[8];
    const std::size_t n = availablePixelKernels(list, 8);
    return std::vector<const PixelKernels*>(list, list + n);
}

// Says at the end of the run which kernel sets the tests covered on this
// machine and why the others were left out, so a missing set is never silent.
class KernelSetReport : public ::testing::Environment {
public:
    void TearDown() override
    {
        KernelSet sets[8];
        const std::size_t n = pixelKernelSets(sets, 8);
        std::string strLine = "kernel sets:";
        for (std::size_t i = 0; i < n && i < 8; ++i) {
            strLine += std::string(i == 0 ? " " : ", ") + sets[i].pKernels->pszName;
            strLine += sets[i].pszSkipped ? std::string(" skipped: ") + sets[i].pszSkipped : std::string(" ran");
        }
        std::printf("%s\n", strLine.c_str());
    }
};
const auto* const g_pKernelSetReport = ::testing::AddGlobalTestEnvironment(new KernelSetReport);

// Reorders type-0 groups (Y0 U Y1 V) into the byte order of nType.
void toType(int nType, const unsigned char* pSrc, unsigned char* pDst, std::size_t nGroups)
{
    const unsigned char* pos = scalar::kGroupPos[nType];
    for (std::size_t i = 0; i < nGroups; ++i)
        for (int c = 0; c < 4; ++c)
            pDst[4 * i + pos[c]] = pSrc[4 * i + c];
}

unsigned char clampByte(int n)
{
    return static_cast<unsigned char>(n < 0 ? 0 : (n > 255 ? 255 : n));
}

size_t firstDiff(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b)
{
    return static_cast<size_t>(std::mismatch(a.begin(), a.end(), b.begin()).first - a.begin());
}

// Every set's weighted grey of pWeighted and driver grey of pDriver (n pixels
// each) against the reference.
void expectGreyKernelsMatch(const unsigned char* pWeighted, const unsigned char* pDriver, std::size_t n)
{
    std::vector<unsigned char> wantW(n), wantD(n), got(n);
    ref::dibToGray(pWeighted, wantW.data(), static_cast<int>(n), 1, 0);
    ref::transferGrey3To1(pDriver, wantD.data(), n, nullptr);
    for (const PixelKernels* k : kernelSets()) {
        k->bgrToGray(pWeighted, got.data(), n);
        EXPECT_EQ(got, wantW) << k->pszName << " weighted, pixel " << firstDiff(got, wantW);
        k->grey3To1(pDriver, got.data(), n);
        EXPECT_EQ(got, wantD) << k->pszName << " driver, pixel " << firstDiff(got, wantD);
    }
}

} // namespace

// One batch per V value: every (U, Y) pair, two lumas per group.
TEST(PixelKernels, YuvToBgrAndGreyMatchReferenceOnAllInputs)
{
    const auto sets = kernelSets();
    const std::size_t nGroups = 256 * 128;
    std::vector<unsigned char> src(4 * nGroups), typed(4 * nGroups);
    std::vector<unsigned char> wantBgr(6 * nGroups), gotBgr(6 * nGroups);
    std::vector<unsigned char> wantGrey(2 * nGroups), gotGrey(2 * nGroups);
    for (int v = 0; v < 256; ++v) {
        for (std::size_t i = 0; i < nGroups; ++i) {
            const int u = static_cast<int>(i >> 7), y = static_cast<int>(i & 127) * 2;
            unsigned char* g = &src[4 * i];
            g[0] = static_cast<unsigned char>(y);
            g[1] = static_cast<unsigned char>(u);
            g[2] = static_cast<unsigned char>(y + 1);
            g[3] = static_cast<unsigned char>(v);
            for (int h = 0; h < 2; ++h) {
                int b, g, r;
                ref::yuvToBgrUnclamped(y + h, u, v, b, g, r);
                unsigned char* px = &wantBgr[6 * i + 3 * h];
                px[0] = clampByte(b);
                px[1] = clampByte(g);
                px[2] = clampByte(r);
                wantGrey[2 * i + h] = clampByte(ref::weightedGrey(b, g, r));
            }
        }
        for (int type = 0; type < 4; ++type) {
            toType(type, src.data(), typed.data(), nGroups);
            for (const PixelKernels* k : sets) {
                // The portable set shares the layout code of all types; one is enough.
                if (k == &scalar::kKernels && type != 0)
                    continue;
                k->yuvToBgr(type, typed.data(), gotBgr.data(), nGroups);
                ASSERT_EQ(gotBgr, wantBgr) << k->pszName << " type " << type << " V " << v
                                           << " byte " << firstDiff(gotBgr, wantBgr);
                k->yuvToGray(type, typed.data(), gotGrey.data(), nGroups);
                ASSERT_EQ(gotGrey, wantGrey) << k->pszName << " type " << type << " V " << v
                                             << " pixel " << firstDiff(gotGrey, wantGrey);
            }
        }
    }
}

// One batch per first byte: every (second, third) pair.
TEST(PixelKernels, WeightedGreyAndDriverGreyMatchReferenceOnAllInputs)
{
    const auto sets = kernelSets();
    const std::size_t n = 65536;
    std::vector<unsigned char> src(3 * n), wantW(n), wantD(n), got(n);
    for (int b = 0; b < 256; ++b) {
        for (std::size_t i = 0; i < n; ++i) {
            unsigned char* p = &src[3 * i];
            p[0] = static_cast<unsigned char>(b);
            p[1] = static_cast<unsigned char>(i >> 8);
            p[2] = static_cast<unsigned char>(i);
            wantW[i] = static_cast<unsigned char>(ref::weightedGrey(p[0], p[1], p[2]));
            wantD[i] = ref::grey3To1(p);
        }
        for (const PixelKernels* k : sets) {
            k->bgrToGray(src.data(), got.data(), n);
            ASSERT_EQ(got, wantW) << k->pszName << " b " << b << " pixel " << firstDiff(got, wantW);
            k->grey3To1(src.data(), got.data(), n);
            ASSERT_EQ(got, wantD) << k->pszName << " b0 " << b << " pixel " << firstDiff(got, wantD);
        }
    }
}

// In a grey picture every pixel is an exact quotient, which sends whole
// blocks down the double-precision path rather than single lanes.
TEST(PixelKernels, GreyPicturesAndColourRunsMatchReference)
{
    // Runs of grey pixels (which take shortcuts) broken by runs of colour at
    // offsets that are not multiples of any vector width.
    const std::size_t n = 4096;
    std::vector<unsigned char> src(3 * n);
    unsigned state = 12345;
    for (std::size_t i = 0; i < n; ++i) {
        const bool colour = (i / 97) % 3 == 2;
        for (int c = 0; c < 3; ++c) {
            state = state * 1103515245u + 12345u;
            src[3 * i + c] = colour ? static_cast<unsigned char>(state >> 16) : static_cast<unsigned char>(i * 5 / 4);
        }
    }
    expectGreyKernelsMatch(src.data(), src.data(), n);
}

// Grey pixels beside other exact quotients in the same vector: the grey lanes
// take the table's answer, the others the double rule or their own table, per
// lane or per vector depending on how many there are.
TEST(PixelKernels, GreyLanesMixedWithOtherExactQuotients)
{
    std::mt19937 rng(11);
    const std::size_t n = 16 * 4096;
    std::vector<unsigned char> srcW(3 * n), srcD(3 * n), want(n), got(n);
    for (std::size_t v = 0; v < n / 16; ++v) {
        const unsigned nGrey = rng() % 17, nExact = rng() % 17;
        for (std::size_t j = 0; j < 16; ++j) {
            unsigned char* w = &srcW[3 * (16 * v + j)];
            unsigned char* d = &srcD[3 * (16 * v + j)];
            const unsigned kind = rng() % 16;
            const int x = static_cast<int>(rng() % 256), y = static_cast<int>(rng() % 256);
            if (kind < nGrey) {
                w[0] = w[1] = w[2] = d[0] = d[1] = d[2] = static_cast<unsigned char>(x);
                continue;
            }
            w[1] = static_cast<unsigned char>(x); // g
            w[2] = static_cast<unsigned char>(y); // r
            w[0] = static_cast<unsigned char>(rng());
            d[1] = static_cast<unsigned char>(x);
            d[2] = static_cast<unsigned char>(y);
            d[0] = static_cast<unsigned char>(rng());
            if (kind < nGrey + nExact) {
                // 114 b = -(587 g + 299 r) mod 1000, when solvable in 0 .. 255.
                const int c = (1000 - (587 * x + 299 * y) % 1000) % 1000;
                if (c % 2 == 0 && (c / 2 * 193) % 500 < 256)
                    w[0] = static_cast<unsigned char>((c / 2 * 193) % 500);
                // 3 b0 = -(12 b1 + 5 b2) mod 20; 7 is 3's inverse mod 20.
                d[0] = static_cast<unsigned char>((20 - (12 * x + 5 * y) % 20) % 20 * 7 % 20 + 20 * (rng() % 12));
            }
        }
    }
    // The same for YUV to grey: groups of grey pixels (U = V = 128), groups
    // whose colour has an exact weighted sum, and noise, in random order.
    std::vector<std::array<unsigned char, 3>> exactYuv;
    for (int y = 0; y < 256 && exactYuv.size() < 4096; y += 3)
        for (int u = 0; u < 256; u += 5)
            for (int v = 0; v < 256; ++v) {
                int b, g, r;
                ref::yuvToBgrUnclamped(y, u, v, b, g, r);
                const int w = 587 * g + 299 * r + 114 * b;
                if (w % 1000 == 0 && w >= 1000 && w <= 255000 && !(b == g && g == r))
                    exactYuv.push_back({static_cast<unsigned char>(y), static_cast<unsigned char>(u),
                                        static_cast<unsigned char>(v)});
            }
    ASSERT_FALSE(exactYuv.empty());
    std::vector<unsigned char> yuv(4 * n / 2), typed(yuv.size());
    for (std::size_t i = 0; i < n / 2; ++i) {
        unsigned char* grp = &yuv[4 * i];
        const unsigned kind = rng() % 3;
        const auto& e = exactYuv[rng() % exactYuv.size()];
        grp[0] = kind == 1 ? e[0] : static_cast<unsigned char>(rng());
        grp[2] = kind == 1 ? e[0] : static_cast<unsigned char>(rng());
        grp[1] = kind == 0 ? 128 : kind == 1 ? e[1] : static_cast<unsigned char>(rng());
        grp[3] = kind == 0 ? 128 : kind == 1 ? e[2] : static_cast<unsigned char>(rng());
    }
    for (int type = 0; type < 4; ++type) {
        toType(type, yuv.data(), typed.data(), n / 2);
        scalar::kKernels.yuvToGray(type, typed.data(), want.data(), n / 2);
        for (const PixelKernels* k : kernelSets()) {
            k->yuvToGray(type, typed.data(), got.data(), n / 2);
            EXPECT_EQ(got, want) << k->pszName << " type " << type << " pixel " << firstDiff(got, want);
        }
    }
    expectGreyKernelsMatch(srcW.data(), srcD.data(), n);
}

// Short rows of every length around the vector widths, at odd offsets, with
// guard bytes behind them that must stay untouched.
TEST(PixelKernels, RowKernelsHandleEveryLengthAndWriteNothingBeyond)
{
    std::mt19937 rng(7);
    std::vector<unsigned char> lut(256);
    for (auto& e : lut)
        e = static_cast<unsigned char>(rng());
    std::vector<unsigned char> src(4 * 200 + 1);
    for (auto& e : src)
        e = static_cast<unsigned char>(rng());
    const unsigned char* s = src.data() + 1;
    const std::size_t kGuard = 64;
    for (const PixelKernels* k : kernelSets()) {
        for (std::size_t n = 0; n <= 150; ++n) {
            SCOPED_TRACE(std::string(k->pszName) + " length " + std::to_string(n));
            auto run = [&](std::size_t nOut, auto fnGot, auto fnWant) {
                std::vector<unsigned char> got(nOut + kGuard + 1, 0xA5), want(nOut + kGuard + 1, 0xA5);
                fnGot(got.data() + 1);
                fnWant(want.data() + 1);
                EXPECT_EQ(got, want);
            };
            for (int type = 0; type < 4; ++type) {
                run(6 * n, [&](unsigned char* d) { k->yuvToBgr(type, s, d, n); },
                    [&](unsigned char* d) { scalar::kKernels.yuvToBgr(type, s, d, n); });
                run(2 * n, [&](unsigned char* d) { k->yuvToGray(type, s, d, n); },
                    [&](unsigned char* d) { scalar::kKernels.yuvToGray(type, s, d, n); });
            }
            run(n, [&](unsigned char* d) { k->bgrToGray(s, d, n); },
                [&](unsigned char* d) { ref::dibToGray(s, d, static_cast<int>(n), 1, 0); });
            run(n, [&](unsigned char* d) { k->grey3To1(s, d, n); },
                [&](unsigned char* d) { ref::transferGrey3To1(s, d, n, nullptr); });
            for (const unsigned char* table : {static_cast<const unsigned char*>(nullptr), static_cast<const unsigned char*>(lut.data())}) {
                run(3 * n, [&](unsigned char* d) { k->expand3(s, d, n, table); },
                    [&](unsigned char* d) { ref::transferExpand3(s, d, n, table); });
            }
            run(n, [&](unsigned char* d) { k->lutCopy(s, d, n, lut.data()); },
                [&](unsigned char* d) { ref::transferCopy(s, d, n, lut.data()); });
            run(3 * n, [&](unsigned char* d) { std::memcpy(d, s, 3 * n); k->swapRB(d, n); },
                [&](unsigned char* d) { std::memcpy(d, s, 3 * n); ref::exgRB(d, static_cast<int>(n), 1); });
        }
    }
}

// Every byte value through tables of several shapes, by every kernel set and
// by the driver's entry points (which fuse the table into the transfer).
TEST(PixelKernels, EveryByteThroughEveryTable)
{
    std::vector<std::vector<unsigned char>> tables;
    for (float g : {0.5f, 2.0f, 0.25f, 1.5f, 0.0f, -1.0f}) {
        tables.emplace_back(256);
        ref::buildGammaTable(g, tables.back().data());
    }
    tables.emplace_back(256);
    for (int i = 0; i < 256; ++i)
        tables.back()[i] = static_cast<unsigned char>(255 - i);
    const std::size_t n = 3 * 256 + 7;
    std::vector<unsigned char> src(3 * n), want(3 * n), got(3 * n);
    for (std::size_t i = 0; i < src.size(); ++i)
        src[i] = static_cast<unsigned char>(i * 7 + i / 256);
    for (const auto& t : tables) {
        for (const PixelKernels* k : kernelSets()) {
            ref::transferCopy(src.data(), want.data(), 3 * n, t.data());
            k->lutCopy(src.data(), got.data(), 3 * n, t.data());
            EXPECT_EQ(got, want) << k->pszName;
            got = src;
            k->lutCopy(got.data(), got.data(), 3 * n, t.data());
            EXPECT_EQ(got, want) << k->pszName << " in place";
        }
        transferCopy(src.data(), got.data(), 3 * n, t.data());
        EXPECT_EQ(got, want);
        applyTable((got = src).data(), 3 * n, t.data());
        EXPECT_EQ(got, want);
        ref::transferExpand3(src.data(), want.data(), n, t.data());
        transferExpand3(src.data(), got.data(), n, t.data());
        EXPECT_EQ(got, want);
        std::fill(got.begin(), got.end(), 0);
        std::fill(want.begin(), want.end(), 0);
        ref::transferGrey3To1(src.data(), want.data(), n, t.data());
        transferGrey3To1(src.data(), got.data(), n, t.data());
        EXPECT_EQ(got, want);
    }
}

// Masking processor features forces each set the machine can run into the
// dispatch, and the driver's entry points (which block the table pass over the
// grey) then run on it; unmasked, the best set is back.
TEST(PixelKernels, MaskedFeaturesForceEachSetIntoTheDriverPath)
{
    KernelSet sets[8];
    const std::size_t nSets = pixelKernelSets(sets, 8);
    ASSERT_LE(nSets, 8u);
    const PixelKernels* pBest = &pixelKernels();
    const std::size_t n = 3 * 4096 + 45;
    std::vector<unsigned char> src(3 * n), want(3 * n), got(3 * n), table(256);
    std::mt19937 rng(5);
    for (auto& b : src)
        b = static_cast<unsigned char>(rng());
    ref::buildGammaTable(0.5f, table.data());
    for (std::size_t i = 0; i < nSets; ++i) {
        if (sets[i].pszSkipped)
            continue;
        maskCpuFeatures(kAllCpuFeatures & ~sets[i].nFeatures);
        EXPECT_STREQ(pixelKernels().pszName, sets[i].pKernels->pszName);
        for (const unsigned char* lut : {static_cast<const unsigned char*>(nullptr), static_cast<const unsigned char*>(table.data())}) {
            ref::transferGrey3To1(src.data(), want.data(), n, lut);
            transferGrey3To1(src.data(), got.data(), n, lut);
            EXPECT_EQ(0, std::memcmp(got.data(), want.data(), n)) << sets[i].pKernels->pszName;
            ref::transferExpand3(src.data(), want.data(), n, lut);
            transferExpand3(src.data(), got.data(), n, lut);
            EXPECT_EQ(got, want) << sets[i].pKernels->pszName;
        }
    }
    maskCpuFeatures(kAllCpuFeatures);
    EXPECT_STREQ(pixelKernels().pszName, "scalar");
    maskCpuFeatures(0);
    EXPECT_EQ(&pixelKernels(), pBest);
}

