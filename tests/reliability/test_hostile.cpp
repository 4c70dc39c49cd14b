// SPDX-License-Identifier: LGPL-2.1-or-later
// Hostile input: frames whose byte counts leave the int range, conversions
// asked for impossible sizes, and texts that are huge, broken, deeply
// repeated, cut by a NUL or full of numbers beyond their types.

#include <QByteArray>
#include <QString>
#include <QTextCodec>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <functional>

#include "apifixture.h"
#include "imaging/globalfunction.h"

namespace {

using Hostile = ApiFixture;

// A frame too large for the API's int geometry is refused: the request answers
// null, nothing is lent, no buffer is allocated for it, and the next good frame
// comes through whole.
TEST_F(Hostile, FramesBeyondIntAreRefusedAndTheNextGoodOneComesThrough)
{
    const struct { int w, h, bpp, code; } cases[] = {
        {70000, 70000, 3, 1}, {40000, 40000, 3, 0}, // the grey image would fit, the frame does not
        {46341, 46341, 1, 0}, {INT_MAX, 1, 3, 1},   {1, INT_MAX, 3, 1},
        {16, 16, INT_MAX, 0}, {-64, 48, 3, 1},      {64, 0, 3, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h) + "x" + std::to_string(c.bpp));
        expectNoHeapGrowth([&] {
            ASSERT_TRUE(startMain(configFor(c.code, 64, 48)));
            torvanesim_queue_frame(c.w, c.h, c.bpp, nullptr);
            EXPECT_EQ(request(), nullptr);
            EXPECT_TRUE(peer.nothingLent());
            EXPECT_LE(peer.bufSizeMain(), 64 * 48 * 3);
            EXPECT_TRUE(takesWhole(false, c.code == 0));
            api->disconnectMain();
        });
    }
}

// Every GlobalFunction conversion from src into dst, as op(width, height).
std::vector<std::function<void(int, int)>> conversions(const unsigned char* src, unsigned char* dst)
{
    using G = GlobalFunction;
    std::vector<std::function<void(int, int)>> ops;
    for (auto f : {G::PixelFormat_DIB_To_Gray8, G::PixelFormat_DIB_To_Gray8Aligned, G::PixelFormat_Gray8_To_DIB,
                   G::PixelFormat_Gray8Aligned_To_DIB, G::PixelFormat_Gray8_To_Gray8Aligned, G::PixelFormat_Gray8Aligned_To_Gray8})
        ops.push_back([=](int w, int h) { f(src, dst, w, h); });
    for (int t = 0; t < 4; ++t) {
        ops.push_back([=](int w, int h) { G::PixelFormat_YUV422Packed_To_DIB(G::YUV422_Type(t), src, dst, w, h); });
        ops.push_back([=](int w, int h) { G::PixelFormat_YUV422Packed_To_Gray8(G::YUV422_Type(t), src, dst, w, h); });
    }
    return ops;
}

// Conversions asked for images whose strides or sizes leave the int range, or
// are empty or negative, must write nothing, and read nothing past the small buffers they are given:
// 64 bytes each, ending right at a page that may not be touched.
TEST(HostileConversions, OverflowingSizesWriteNothing)
{
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    auto* base = static_cast<unsigned char*>(mmap(nullptr, 4 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_TRUE(base != MAP_FAILED && !mprotect(base + page, page, PROT_NONE) && !mprotect(base + 3 * page, page, PROT_NONE));
    unsigned char *src = base + page - 64, *dst = base + 3 * page - 64;
    auto ops = conversions(src, dst);
    ops.push_back([=](int w, int h) { GlobalFunction::Exg_RB(dst, w, h); });
    const int sizes[][2] = {{INT_MAX, 1}, {INT_MAX / 3 + 1, 1}, {1, INT_MAX}, {65536, 65536}, {46341, 46341}, {INT_MIN, 5}, {5, INT_MIN},
                            {0, 4}, {4, 0}, {-4, -4}};
    for (const auto& s : sizes)
        for (size_t i = 0; i < ops.size(); ++i) {
            std::memset(dst, 0xA5, 64);
            ops[i](s[0], s[1]);
            EXPECT_TRUE(std::all_of(dst, dst + 64, [](unsigned char v) { return v == 0xA5; }))
                << "conversion " << i << " at " << s[0] << "x" << s[1];
        }
    munmap(base, 4 * page);
}

// A null source or destination with a valid size reads and writes nothing.
TEST(HostileConversions, NullBuffersAreLeftAlone)
{
    unsigned char buf[8 * 4 * 4];
    std::memset(buf, 0x5A, sizeof buf);
    for (unsigned char* a : {static_cast<unsigned char*>(nullptr), buf})
        for (unsigned char* b : {static_cast<unsigned char*>(nullptr), buf}) {
            if (!(a && b))
                for (const auto& op : conversions(a, b))
                    op(8, 4);
        }
    GlobalFunction::Exg_RB(nullptr, 8, 4);
    EXPECT_TRUE(std::all_of(buf, buf + sizeof buf, [](unsigned char v) { return v == 0x5A; }));
}

std::string repeat(const char* piece, int times) { return QByteArray(piece).repeated(times).toStdString(); }

// Every text comes back whole (up to a NUL) as well-formed UTF-8, and parses as
// the first well-formed element says; numbers beyond int read as 0.
TEST_F(Hostile, TextsHugeBrokenNestedCutOrOutOfRange)
{
    const struct { std::string text; int ccdPos, pixFmt, gain; } cases[] = {
        {std::string(4 << 20, 'x') + "<CCDPos>3</CCDPos><PixFmt>1</PixFmt><Settings><Gain>9</Gain></Settings>" +
             std::string(4 << 20, 'y'), 3, 1, 9},
        {repeat("<CCDPos>2</CCDPos><PixFmt>5</PixFmt>", 100000), 2, 5, 0},
        {repeat("<Settings>", 50000) + "<Gain>7</Gain>" + repeat("</Settings>", 50000), 0, 0, 7}, // nested
        {repeat("<CCDPos>", 150000) + repeat("</CCDPos><CCDPos>4", 60000), 0, 0, 0},
        {"\xff\xfe<PixFmt>1</PixFmt>\xc3<CCDPos>\xe2\x82</CCDPos>\xed\xa0\x80<RAW>1</RAW>\xf4\x90\x80\x80", 0, 1, 0},
        {std::string("<PixFmt>1</PixFmt>\0<CCDPos>3</CCDPos>", 37), 0, 1, 0}, // a host text ends at its NUL
        {"<CCDPos>2147483648</CCDPos><PixFmt>-2147483649</PixFmt><Settings><Gain>2147483647</Gain></Settings>", 0, 0, INT_MAX},
        {"<CCDPos>" + std::string(100000, '9') + "</CCDPos><Settings><Gain>-2147483648</Gain></Settings>", 0, 0, INT_MIN},
        {"<Settings><Gain>" + std::string(1 << 20, ' ') + "5" + std::string(1 << 20, ' ') + "</Gain></Settings>", 0, 0, 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 40) + "... (" + std::to_string(c.text.size()) + " bytes)");
        setMain(c.text);
        EXPECT_EQ(peer.ccdPosAndPixFmtMain(), c.ccdPos * 100 + c.pixFmt);
        EXPECT_EQ(peer.gainMain(), c.gain);
        const std::string back = text(api->getConfigStringMain());
        // Decoded as local 8-bit (UTF-8 here), handed back well-formed.
        EXPECT_EQ(back, QString::fromUtf8(c.text.c_str()).toUtf8().toStdString());
        EXPECT_EQ(QString::fromUtf8(back.c_str()).toUtf8().toStdString(), back);
    }
    // Under a local 8-bit code page every byte comes back as UTF-8.
    QTextCodec* saved = QTextCodec::codecForLocale();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO-8859-1"));
    setMain("<CCDType>caf\xe9</CCDType>");
    EXPECT_EQ(text(api->getConfigStringMain()), "<CCDType>caf\xc3\xa9</CCDType>");
    QTextCodec::setCodecForLocale(saved);
    ASSERT_TRUE(api->connectMain() && api->startMain());
}

// Gamma values that are no numbers: "nan" reads as 0 like any malformed
// number, so it and the other extremes act as the clamped values they become.
TEST_F(Hostile, GammaBeyondNumbersActsAsItsClampedValue)
{
    auto image = [&](const char* gamma) {
        EXPECT_TRUE(startMain(configFor(1, 64, 48, std::string("<Gamma>") + gamma + "</Gamma>")));
        torvanesim_queue_frame(64, 48, 3, nullptr);
        unsigned char* img = request();
        std::vector<unsigned char> pixels(img ? img : nullptr, img ? img + 64 * 48 * 3 : nullptr);
        api->releaseImageMain(img);
        api->disconnectMain();
        return pixels;
    };
    const char* pairs[][2] = {{"nan", "0"}, {"-nan", "0.01"}, {"inf", "10"}, {"-1e39", "0.01"}};
    for (const auto& p : pairs) {
        const std::vector<unsigned char> got = image(p[0]);
        EXPECT_FALSE(got.empty()) << p[0];
        EXPECT_EQ(got, image(p[1])) << p[0] << " should act as " << p[1];
    }
}

// A text longer than a QString can hold is refused before anything is
// allocated for it: the stored string and its parsed values stay.
TEST_F(Hostile, ConfigTooLongToHoldIsRefused)
{
    const size_t size = (size_t(1) << 30) + (size_t(1) << 27); // 1.125 GiB
    void* big = mmap(nullptr, size + 1, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (big == MAP_FAILED)
        GTEST_SKIP() << "no address space for a 1.125 GiB text here";
    setMain("<CCDPos>2</CCDPos><PixFmt>1</PixFmt>");
    std::memset(big, 'x', size);
    std::memcpy(big, "<CCDPos>5</CCDPos>", 18);
    api->setConfigStringMain(static_cast<char*>(big));
    munmap(big, size + 1);
    EXPECT_EQ(peer.ccdPosAndPixFmtMain(), 201);
    EXPECT_EQ(text(api->getConfigStringMain()), "<CCDPos>2</CCDPos><PixFmt>1</PixFmt>");
    EXPECT_EQ(text(api->getLastError()), "Config string is too long.");
}

// Comma lists are counted, not split: a million commas in <ROI> or
// <WhiteBalance> cost a handful of allocations and keep the values we had.
TEST_F(Hostile, MillionsOfCommasAreNeverSplit)
{
    setMain(configFor(1, 64, 48, "<WhiteBalance>1.5,1.25,0.5</WhiteBalance>"));
    const std::string commas(1 << 20, ',');
    std::string config = "<ROI>1" + commas + "2</ROI><Settings><WhiteBalance>" + commas + "</WhiteBalance></Settings>";
    const HeapCount before = heapCount();
    setMain(config);
    EXPECT_LT(heapCount().allocations - before.allocations, 100);
    ASSERT_TRUE(api->connectMain() && api->startMain());
    int w = 0, b = 0, h = 0;
    unsigned char* img = request(false, &w, &b, &h);
    EXPECT_EQ(std::vector<int>({w, h}), std::vector<int>({64, 48})) << "the region stays";
    api->releaseImageMain(img);
    CCDIF::CCDSettings settings;
    ASSERT_TRUE(camMain()->getCurSettings(&settings));
    EXPECT_EQ(std::vector<float>({settings.fWhiteBalanceR, settings.fWhiteBalanceG, settings.fWhiteBalanceB}),
              std::vector<float>({1.5f, 1.25f, 0.5f}));
}

// When memory runs out inside an operation nothing is thrown to the host: the
// operation fails, and a configuration that could not be read leaves the
// stored string and its parsed values as they were.
TEST_F(Hostile, OutOfMemoryThrowsNothingAndChangesNothing)
{
    if (!heapCanFail())
        GTEST_SKIP() << "the sanitizers' allocators cannot be made to fail";
    setMain(configFor(1, 64, 48, "<Gain>3</Gain>"));
    const std::string huge = std::string(4 << 20, ' ') + "<CCDPos>7</CCDPos><Settings><Gain>9</Gain></Settings>";
    const QString hugeText(4 << 20, 'x');
    failAllocationsFrom(1 << 20);
    api->setConfigStringMain(const_cast<char*>(huge.c_str()));
    const std::string emptyResult = text(transConfigString(hugeText));
    failAllocationsFrom(0);
    EXPECT_EQ(emptyResult, "");
    EXPECT_EQ(peer.ccdPosAndPixFmtMain(), 1);
    EXPECT_EQ(peer.gainMain(), 3);
    EXPECT_EQ(text(api->getConfigStringMain()), configFor(1, 64, 48, "<Gain>3</Gain>"));

    // A frame whose hand-over buffer cannot be had is not lent.
    setMain(configFor(1, 640, 480));
    torvanesim_set_sensor(640, 480, 3);
    ASSERT_TRUE(api->connectMain() && api->startMain());
    failAllocationsFrom(640 * 480);
    EXPECT_EQ(request(), nullptr);
    failAllocationsFrom(0);
    EXPECT_TRUE(peer.nothingLent());
    EXPECT_TRUE(takesWhole(false, false, 640, 480));
}

} // namespace
