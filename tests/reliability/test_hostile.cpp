// Hostile input: frames and regions whose byte counts leave the int range,
// conversions asked for impossible strides, and texts that are huge, broken,
// deeply repeated or full of numbers beyond int.

#include <QString>
#include <QTextCodec>

#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <cmath>

#include "apifixture.h"
#include "imaging/globalfunction.h"

namespace {

using HostileFrames = ApiFixture;

// A frame too large for the API's int geometry is refused: the request answers
// null, nothing is lent, no buffer is allocated for it, and the next good frame
// comes through whole.
TEST_F(HostileFrames, RefusedAndTheNextGoodFrameComesThrough)
{
    KavrelInterfaceTestPeer peer(*api);
    const struct {
        int w, h, bpp;
        int code; // <PixFmt>
    } cases[] = {
        {70000, 70000, 3, 1},
        {70000, 70000, 3, 0},
        {40000, 40000, 3, 0},      // the grey image would fit, the frame itself does not
        {46341, 46341, 1, 0},      // 2147488281 bytes: just beyond
        {INT_MAX, 1, 3, 1},
        {1, INT_MAX, 3, 1},
        {INT_MAX, INT_MAX, INT_MAX, 1},
        {16, 16, INT_MAX, 0},      // absurd bytes per pixel
        {-64, 48, 3, 1},
        {64, -48, 3, 1},
        {0, 48, 3, 1},
        {64, 0, 3, 1},
    };
    for (const auto& c : cases) {
        const std::string what = std::to_string(c.w) + "x" + std::to_string(c.h) + "x" + std::to_string(c.bpp) +
                                 " code " + std::to_string(c.code);
        expectNoHeapGrowth(
            [&] {
                setMain(configFor(c.code, 64, 48));
                ASSERT_TRUE(api->connectMain());
                ASSERT_TRUE(api->startMain());
                const int capacity = peer.bufSizeMain();
                torvanesim_queue_frame(c.w, c.h, c.bpp, nullptr);
                int w, b, h;
                EXPECT_EQ(api->requestImageMain(&w, &b, &h, 1000), nullptr) << what;
                EXPECT_TRUE(peer.mainFree()) << what;
                EXPECT_LE(peer.bufSizeMain(), std::max(capacity, 64 * 48 * 3)) << what;

                unsigned char* img = api->requestImageMain(&w, &b, &h, 1000);
                ASSERT_NE(img, nullptr) << what;
                const bool grey = c.code == 0;
                EXPECT_EQ(w, 64) << what;
                EXPECT_EQ(b, grey ? 64 : 192) << what;
                EXPECT_EQ(h, 48) << what;
                const unsigned int n = torvanesim_frame_number(img, grey ? 1 : 3);
                const auto expected = expectedImage(n, 64, 48, grey);
                EXPECT_EQ(0, std::memcmp(img, expected.data(), expected.size())) << what;
                api->releaseImageMain(img);
                api->disconnectMain();
            },
            what);
    }
}

// The sensor itself reports a window whose frames cannot be handed over: every
// such frame is refused until a region that fits is applied.
TEST_F(HostileFrames, HugeSensorWindow)
{
    torvanesim_set_sensor(70000, 70000, 3);
    setMain(configFor(1, 0, 0));
    ASSERT_TRUE(api->connectMain());
    ASSERT_TRUE(api->startMain());
    int w, b, h;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(api->requestImageMain(&w, &b, &h, 1000), nullptr);
    EXPECT_EQ(w, 0); // refused before any geometry was taken
    setMain(configFor(1, 64, 48));
    ASSERT_TRUE(api->applyNewConfigMain());
    unsigned char* img = api->requestImageMain(&w, &b, &h, 1000);
    ASSERT_NE(img, nullptr);
    EXPECT_EQ(b, 192);
    const unsigned int n = torvanesim_frame_number(img, 3);
    EXPECT_EQ(0, std::memcmp(img, expectedImage(n, 64, 48, false).data(), 64 * 48 * 3));
    api->releaseImageMain(img);
}

// ---------------------------------------------------------------------------
// Conversions asked for images whose strides or sizes leave the int range must
// write nothing and read nothing. The buffers are small and end right at a
// page that may not be touched, so any access past them stops the test.

class GuardedBuffer
{
public:
    explicit GuardedBuffer(size_t size)
        : m_size(size)
    {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        m_mapped = ((size + page - 1) / page + 1) * page;
        void* p = mmap(nullptr, m_mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        m_base = p == MAP_FAILED ? nullptr : static_cast<unsigned char*>(p);
        if (m_base) {
            mprotect(m_base + m_mapped - page, page, PROT_NONE);
            m_data = m_base + m_mapped - page - size;
            std::memset(m_data, 0xA5, size);
        }
    }
    ~GuardedBuffer()
    {
        if (m_base)
            munmap(m_base, m_mapped);
    }
    unsigned char* data() { return m_data; }
    bool untouched() const
    {
        for (size_t i = 0; i < m_size; ++i)
            if (m_data[i] != 0xA5)
                return false;
        return true;
    }

private:
    size_t m_size;
    size_t m_mapped = 0;
    unsigned char* m_base = nullptr;
    unsigned char* m_data = nullptr;
};

// Note for the imaging work in progress: these sizes must be rejected before
// the first row is touched; a conversion that walks them writes past the guard.
TEST(HostileConversions, OverflowingSizesWriteNothing)
{
    const struct {
        int w, h;
    } sizes[] = {
        {INT_MAX, 1},            // every stride beyond int
        {INT_MAX / 2, 2},        // DIB stride beyond int
        {INT_MAX / 3 + 1, 1},    // 3 * width just beyond int
        {1, INT_MAX},            // rows: the DIB image is 4 * INT_MAX bytes
        {65536, 65536},          // strides fine, image sizes beyond int
        {46341, 46341},          // grey image just beyond int
        {INT_MIN, 5},
        {5, INT_MIN},
    };
    using Fn = void (*)(const unsigned char*, unsigned char*, int, int);
    const struct {
        const char* name;
        Fn fn;
    } ops[] = {
        {"DIB_To_Gray8", GlobalFunction::PixelFormat_DIB_To_Gray8},
        {"DIB_To_Gray8Aligned", GlobalFunction::PixelFormat_DIB_To_Gray8Aligned},
        {"Gray8_To_DIB", GlobalFunction::PixelFormat_Gray8_To_DIB},
        {"Gray8Aligned_To_DIB", GlobalFunction::PixelFormat_Gray8Aligned_To_DIB},
        {"Gray8_To_Gray8Aligned", GlobalFunction::PixelFormat_Gray8_To_Gray8Aligned},
        {"Gray8Aligned_To_Gray8", GlobalFunction::PixelFormat_Gray8Aligned_To_Gray8},
    };
    for (const auto& s : sizes) {
        const std::string size = std::to_string(s.w) + "x" + std::to_string(s.h);
        for (const auto& op : ops) {
            GuardedBuffer src(64), dst(64);
            ASSERT_NE(src.data(), nullptr);
            op.fn(src.data(), dst.data(), s.w, s.h);
            EXPECT_TRUE(dst.untouched()) << op.name << " " << size;
        }
        for (int type = 0; type < 4; ++type) {
            GuardedBuffer src(64), dst(64);
            const auto eType = static_cast<GlobalFunction::YUV422_Type>(type);
            GlobalFunction::PixelFormat_YUV422Packed_To_DIB(eType, src.data(), dst.data(), s.w, s.h);
            EXPECT_TRUE(dst.untouched()) << "YUV422Packed_To_DIB " << size;
            GlobalFunction::PixelFormat_YUV422Packed_To_Gray8(eType, src.data(), dst.data(), s.w, s.h);
            EXPECT_TRUE(dst.untouched()) << "YUV422Packed_To_Gray8 " << size;
        }
        GuardedBuffer buf(64);
        GlobalFunction::Exg_RB(buf.data(), s.w, s.h);
        EXPECT_TRUE(buf.untouched()) << "Exg_RB " << size;
    }
}

// ---------------------------------------------------------------------------
// Texts

using HostileText = ApiFixture;

std::string repeat(const std::string& piece, size_t times)
{
    std::string s;
    s.reserve(piece.size() * times);
    for (size_t i = 0; i < times; ++i)
        s += piece;
    return s;
}

TEST_F(HostileText, HugeTextsParseAndComeBackWhole)
{
    KavrelInterfaceTestPeer peer(*api);
    const struct {
        std::string text;
        int ccdPos, pixFmt, gain;
    } cases[] = {
        // 4 MB of junk before the elements, 4 MB after.
        {std::string(4 << 20, 'x') + "<CCDPos>3</CCDPos><PixFmt>1</PixFmt><Settings><Gain>9</Gain></Settings>" +
             std::string(4 << 20, 'y'),
         3, 1, 9},
        // 100000 repeats: only the first element counts.
        {repeat("<CCDPos>2</CCDPos><PixFmt>5</PixFmt>", 100000), 2, 5, 0},
        // 50000 nested <Settings>: the body runs to the first close tag.
        {repeat("<Settings>", 50000) + "<Gain>7</Gain>" + repeat("</Settings>", 50000), 0, 0, 7},
        // Open tags only, 1 MB of them: no element at all.
        {repeat("<CCDPos>", 150000), 0, 0, 0},
        // Close tags before open tags, many times over.
        {repeat("</CCDPos><CCDPos>4", 60000), 0, 0, 0},
        // Numbers beyond int read as 0; the largest int is kept.
        {"<CCDPos>2147483648</CCDPos><PixFmt>-2147483649</PixFmt><Settings><Gain>2147483647</Gain></Settings>", 0, 0,
         INT_MAX},
        {"<CCDPos>" + std::string(100000, '9') + "</CCDPos><Settings><Gain>-2147483648</Gain></Settings>", 0, 0,
         INT_MIN},
    };
    for (const auto& c : cases) {
        const std::string what = c.text.substr(0, 60) + "... (" + std::to_string(c.text.size()) + " bytes)";
        setMain(c.text);
        EXPECT_EQ(peer.ccdPosMain(), c.ccdPos) << what;
        EXPECT_EQ(peer.pixFmtMain(), c.pixFmt) << what;
        EXPECT_EQ(peer.settingsMain().nGain, c.gain) << what;
        const char* back = api->getConfigStringMain();
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(std::strlen(back), c.text.size()) << what;
        EXPECT_TRUE(std::strcmp(back, c.text.c_str()) == 0) << what;
        EXPECT_GT(gnConfigStringLen, static_cast<int>(c.text.size())) << what;
    }
    // Connecting with any of them works as with a small one.
    ASSERT_TRUE(api->connectMain());
    ASSERT_TRUE(api->startMain());
}

TEST_F(HostileText, BrokenEncodingsAndNullPointers)
{
    KavrelInterfaceTestPeer peer(*api);
    // Invalid UTF-8 under a UTF-8 locale: decoded with replacement characters,
    // handed back as valid UTF-8; the elements around it still count.
    std::string broken = "\xff\xfe<PixFmt>1</PixFmt>\xc3<CCDPos>\xe2\x82</CCDPos>\xed\xa0\x80<RAW>1</RAW>\xf4\x90\x80\x80";
    setMain(broken);
    EXPECT_EQ(peer.pixFmtMain(), 1);
    EXPECT_EQ(peer.ccdPosMain(), 0);
    const std::string back = text(api->getConfigStringMain());
    const QString decoded = QString::fromUtf8(back.data(), static_cast<int>(back.size()));
    EXPECT_EQ(decoded.toUtf8().toStdString(), back); // well-formed UTF-8
    EXPECT_NE(back.find("<PixFmt>1</PixFmt>"), std::string::npos);

    // Every byte value under a local 8-bit code page comes back as UTF-8.
    QTextCodec* saved = QTextCodec::codecForLocale();
    for (const char* codec : {"ISO-8859-1", "Windows-1252", "KOI8-R", "GB18030"}) {
        QTextCodec* c = QTextCodec::codecForName(codec);
        if (!c)
            continue;
        QTextCodec::setCodecForLocale(c);
        std::string all;
        for (int i = 1; i < 256; ++i)
            all += static_cast<char>(i);
        all += "    <PixFmt>2</PixFmt>"; // spaces: a stray lead byte may take one with it
        setMain(all);
        EXPECT_EQ(peer.pixFmtMain(), 2) << codec;
        const std::string out = text(api->getConfigStringMain());
        EXPECT_EQ(QString::fromUtf8(out.data(), static_cast<int>(out.size())).toUtf8().toStdString(), out) << codec;
    }
    QTextCodec::setCodecForLocale(saved);

    // Null pointers: stored as the null text; connect refuses with its message.
    api->setConfigStringMain(nullptr);
    api->setConfigStringSlaver(nullptr);
    EXPECT_EQ(text(api->getConfigStringMain()), "");
    EXPECT_EQ(text(api->getConfigStringSlaver()), "");
    EXPECT_FALSE(api->connectMain());
    EXPECT_FALSE(api->connectSlaver());
    EXPECT_EQ(text(api->getLastError()), "No config string is set.");
    api->releaseImageMain(nullptr);
    EXPECT_TRUE(peer.mainFree());
}

TEST(HostileSettingsText, ValuesAtAndBeyondTheirRanges)
{
    // Numbers follow Qt's conversions: beyond float they become infinite,
    // "inf" and "nan" are read as such; integers beyond int read as 0.
    const struct {
        const char* text;
        int gain;
        float gamma;     // NaN: expect NaN
        float wbR;       // white balance R afterwards (record starts at 1.0)
    } cases[] = {
        {"<Gain>2147483647</Gain><Gamma>3.4e38</Gamma>", INT_MAX, 3.4e38f, 1.0f},
        {"<Gain>2147483648</Gain><Gamma>1e39</Gamma>", 0, INFINITY, 1.0f},
        {"<Gain>-2147483648</Gain><Gamma>-1e39</Gamma>", INT_MIN, -INFINITY, 1.0f},
        {"<Gain>+12</Gain><Gamma>inf</Gamma>", 12, INFINITY, 1.0f},
        {"<Gain>1e3</Gain><Gamma>nan</Gamma>", 0, NAN, 1.0f},
        {"<WhiteBalance>nan,inf,-inf</WhiteBalance>", 0, 0.0f, NAN},
        {"<WhiteBalance>1e39,1,1</WhiteBalance>", 0, 0.0f, INFINITY},
    };
    for (const auto& c : cases) {
        CCDIF::CCDSettings s;
        s.fromString(c.text);
        EXPECT_EQ(s.nGain, c.gain) << c.text;
        if (std::isnan(c.gamma))
            EXPECT_TRUE(std::isnan(s.fGamma)) << c.text;
        else
            EXPECT_EQ(s.fGamma, c.gamma) << c.text;
        if (std::isnan(c.wbR))
            EXPECT_TRUE(std::isnan(s.fWhiteBalanceR)) << c.text;
        else
            EXPECT_EQ(s.fWhiteBalanceR, c.wbR) << c.text;
        // Whatever was read, it can be written and read again.
        CCDIF::CCDSettings again;
        again.fromString(s.toString());
        EXPECT_EQ(again.toString(), s.toString()) << c.text;
    }

    // A white balance with a million parts, and one megabyte of spaces around a number.
    CCDIF::CCDSettings s;
    s.fromString("<WhiteBalance>" + QString(1 << 20, ',') + "</WhiteBalance><Gain>" + QString(1 << 20, ' ') + "5" +
                 QString(1 << 20, ' ') + "</Gain>");
    EXPECT_EQ(s.fWhiteBalanceR, 1.0f);
    EXPECT_EQ(s.nGain, 5);
}

// Gamma values that are no numbers reach the camera as the clamp leaves them:
// infinity becomes 10, NaN passes the clamp and then changes no pixel.
TEST_F(HostileText, GammaBeyondNumbersStillDeliversFrames)
{
    const struct {
        const char* gamma;
        bool untouched;
    } cases[] = {{"nan", true}, {"inf", false}, {"-inf", false}, {"1e39", false}};
    for (const auto& c : cases) {
        setMain(std::string("<PixFmt>1</PixFmt><ROI>64,48</ROI><Settings><Exposure>20000</Exposure><Gamma>") +
                c.gamma + "</Gamma></Settings>");
        ASSERT_TRUE(api->connectMain());
        ASSERT_TRUE(api->startMain());
        CCDIF::CCDSettings s;
        ASSERT_TRUE(camMain()->getCurSettings(&s));
        if (!c.untouched) {
            EXPECT_GE(s.fGamma, 0.01f) << c.gamma;
            EXPECT_LE(s.fGamma, 10.0f) << c.gamma;
        }
        torvanesim_queue_frame(64, 48, 3, nullptr);
        int w, b, h;
        unsigned char* img = api->requestImageMain(&w, &b, &h, 1000);
        ASSERT_NE(img, nullptr) << c.gamma;
        const auto plain = expectedImage(0, 64, 48, false);
        EXPECT_EQ(std::memcmp(img, plain.data(), plain.size()) == 0, c.untouched) << c.gamma;
        api->releaseImageMain(img);
        api->disconnectMain();
    }
}

// The shared text buffer grows by half again each time, keeps every byte of
// texts of many megabytes, and never shrinks.
TEST(HostileSharedText, GrowsForTextsOfManyMegabytes)
{
    int last = gnConfigStringLen;
    for (int mb : {1, 3, 8, 24}) {
        const int n = mb << 20;
        QString big(n, QChar('a' + mb % 26));
        big[n - 1] = QChar(0x20AC); // three bytes in UTF-8 at the very end
        const char* out = transConfigString(big);
        ASSERT_EQ(out, gszConfigString);
        const size_t len = std::strlen(out);
        ASSERT_EQ(len, static_cast<size_t>(n) + 2) << mb << " MB";
        EXPECT_EQ(out[0], 'a' + mb % 26);
        EXPECT_EQ(std::string(out + n - 1), "\xe2\x82\xac");
        EXPECT_GT(gnConfigStringLen, n + 2);
        EXPECT_GE(gnConfigStringLen, last);
        // Growth is by factors of 1.5 from where it stood, so never more than 1.5 times the need.
        if (gnConfigStringLen != last) {
            EXPECT_LE(gnConfigStringLen, static_cast<int>((n + 3) * 1.5) + 1);
        }
        last = gnConfigStringLen;
    }
    EXPECT_EQ(text(transConfigString(QString())), "");
    EXPECT_EQ(gnConfigStringLen, last);
}

} // namespace
