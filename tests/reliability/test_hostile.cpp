// Hostile input: frames whose byte counts leave the int range, conversions
// asked for impossible sizes, and texts that are huge, broken, deeply
// repeated, cut by a NUL or full of numbers beyond their types.

#include <QString>
#include <QTextCodec>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

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
        const std::string what = std::to_string(c.w) + "x" + std::to_string(c.h) + "x" + std::to_string(c.bpp);
        expectNoHeapGrowth(
            [&] {
                setMain(configFor(c.code, 64, 48));
                ASSERT_TRUE(api->connectMain() && api->startMain());
                torvanesim_queue_frame(c.w, c.h, c.bpp, nullptr);
                EXPECT_EQ(requestMain(), nullptr) << what;
                EXPECT_TRUE(peer.nothingLent()) << what;
                EXPECT_LE(peer.bufSizeMain(), 64 * 48 * 3) << what;
                int w, b, h;
                unsigned char* img = requestMain(&w, &b, &h);
                ASSERT_NE(img, nullptr) << what;
                EXPECT_EQ(w * 100000 + b * 100 + h, 64 * 100000 + (c.code ? 192 : 64) * 100 + 48) << what;
                EXPECT_TRUE(wholeFrame(img, 64, 48, c.code == 0)) << what;
                api->releaseImageMain(img);
                api->disconnectMain();
            },
            what);
    }
}

// A buffer that ends right at a page that may not be touched.
class GuardedBuffer
{
public:
    GuardedBuffer()
    {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        m_base = static_cast<unsigned char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(m_base + page, page, PROT_NONE);
        m_data = m_base + page - 64;
        std::memset(m_data, 0xA5, 64);
    }
    ~GuardedBuffer() { munmap(m_base, 2 * static_cast<size_t>(sysconf(_SC_PAGESIZE))); }
    unsigned char* data() { return m_data; }
    bool untouched() const { return std::all_of(m_data, m_data + 64, [](unsigned char v) { return v == 0xA5; }); }

private:
    unsigned char* m_base;
    unsigned char* m_data;
};

// Conversions asked for images whose strides or sizes leave the int range
// must write nothing, and read nothing past the small buffers they are given.
TEST(HostileConversions, OverflowingSizesWriteNothing)
{
    const struct { int w, h; } sizes[] = {
        {INT_MAX, 1}, {INT_MAX / 3 + 1, 1}, {1, INT_MAX}, {65536, 65536}, {46341, 46341}, {INT_MIN, 5}, {5, INT_MIN},
    };
    using Fn = void (*)(const unsigned char*, unsigned char*, int, int);
    const Fn ops[] = {GlobalFunction::PixelFormat_DIB_To_Gray8,         GlobalFunction::PixelFormat_DIB_To_Gray8Aligned,
                      GlobalFunction::PixelFormat_Gray8_To_DIB,         GlobalFunction::PixelFormat_Gray8Aligned_To_DIB,
                      GlobalFunction::PixelFormat_Gray8_To_Gray8Aligned, GlobalFunction::PixelFormat_Gray8Aligned_To_Gray8};
    for (const auto& s : sizes) {
        const std::string size = std::to_string(s.w) + "x" + std::to_string(s.h);
        for (size_t i = 0; i < sizeof ops / sizeof ops[0]; ++i) {
            GuardedBuffer src, dst;
            ops[i](src.data(), dst.data(), s.w, s.h);
            EXPECT_TRUE(dst.untouched()) << "conversion " << i << " " << size;
        }
        for (int type = 0; type < 4; ++type) {
            GuardedBuffer src, dst;
            const auto eType = static_cast<GlobalFunction::YUV422_Type>(type);
            GlobalFunction::PixelFormat_YUV422Packed_To_DIB(eType, src.data(), dst.data(), s.w, s.h);
            GlobalFunction::PixelFormat_YUV422Packed_To_Gray8(eType, src.data(), dst.data(), s.w, s.h);
            EXPECT_TRUE(dst.untouched()) << "YUV422 " << type << " " << size;
        }
        GuardedBuffer buf;
        GlobalFunction::Exg_RB(buf.data(), s.w, s.h);
        EXPECT_TRUE(buf.untouched()) << "Exg_RB " << size;
    }
}

std::string repeat(const std::string& piece, size_t times)
{
    std::string s;
    for (size_t i = 0; i < times; ++i)
        s += piece;
    return s;
}

// Every text comes back whole (up to a NUL) as well-formed UTF-8, and parses as
// the first well-formed element says; numbers beyond int read as 0.
TEST_F(Hostile, TextsHugeBrokenNestedCutOrOutOfRange)
{
    const struct {
        std::string text;
        int ccdPos, pixFmt, gain;
    } cases[] = {
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
        const std::string what = c.text.substr(0, 40) + "... (" + std::to_string(c.text.size()) + " bytes)";
        setMain(c.text);
        EXPECT_EQ(peer.ccdPosMain() * 100 + peer.pixFmtMain(), c.ccdPos * 100 + c.pixFmt) << what;
        EXPECT_EQ(peer.settingsMain().nGain, c.gain) << what;
        const std::string back = text(api->getConfigStringMain());
        // Decoded as local 8-bit (UTF-8 here), handed back well-formed.
        EXPECT_EQ(back, QString::fromUtf8(c.text.c_str()).toUtf8().toStdString()) << what;
        EXPECT_EQ(QString::fromUtf8(back.c_str()).toUtf8().toStdString(), back) << what;
    }
    // Under a local 8-bit code page every byte comes back as UTF-8.
    QTextCodec* saved = QTextCodec::codecForLocale();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO-8859-1"));
    setMain("<CCDType>caf\xe9</CCDType>");
    EXPECT_EQ(text(api->getConfigStringMain()), "<CCDType>caf\xc3\xa9</CCDType>");
    QTextCodec::setCodecForLocale(saved);
    ASSERT_TRUE(api->connectMain() && api->startMain());
}

// Gamma values that are no numbers reach the camera as the clamp leaves them:
// infinity becomes 10, NaN passes the clamp and then changes no pixel.
TEST_F(Hostile, GammaBeyondNumbersStillDeliversFrames)
{
    for (const char* gamma : {"nan", "inf", "-1e39"}) {
        setMain(std::string("<PixFmt>1</PixFmt><ROI>64,48</ROI><Settings><Exposure>20000</Exposure><Gamma>") + gamma +
                "</Gamma></Settings>");
        ASSERT_TRUE(api->connectMain() && api->startMain());
        torvanesim_queue_frame(64, 48, 3, nullptr);
        unsigned char* img = requestMain();
        ASSERT_NE(img, nullptr) << gamma;
        EXPECT_EQ(wholeFrame(img, 64, 48, false), gamma[0] == 'n') << gamma;
        api->releaseImageMain(img);
        api->disconnectMain();
    }
}

// The one shared text buffer grows by half again each time it is too small
// (1023 bytes and the NUL fill the first 1024), keeps every byte of texts of
// many megabytes, and never shrinks.
TEST(HostileSharedText, GrowsForTextsOfManyMegabytes)
{
    if (gnConfigStringLen == 1024) {
        transConfigString(QString(1023, 'x'));
        EXPECT_EQ(gnConfigStringLen, 1536);
    }
    int last = gnConfigStringLen;
    for (int mb : {1, 3, 8, 24}) {
        const int n = mb << 20;
        QString big(n, QChar('a' + mb));
        big[n - 1] = QChar(0x20AC); // three bytes in UTF-8 at the very end
        const char* out = transConfigString(big);
        ASSERT_EQ(out, gszConfigString);
        ASSERT_EQ(std::strlen(out), static_cast<size_t>(n) + 2) << mb << " MB";
        EXPECT_EQ(out[0], 'a' + mb);
        EXPECT_EQ(std::string(out + n - 1), "\xe2\x82\xac");
        EXPECT_GE(gnConfigStringLen, last);
        EXPECT_LE(gnConfigStringLen, std::max(last, static_cast<int>((n + 3) * 1.5) + 1));
        last = gnConfigStringLen;
    }
    EXPECT_EQ(text(transConfigString(QString())), "");
    EXPECT_EQ(gnConfigStringLen, last);
}

} // namespace
