// The exported API: the shared text buffer, configuration strings, the
// acquisition operations and the image hand-over across threads.

#include <gtest/gtest.h>

#include <QApplication>
#include <QPointer>
#include <QSignalSpy>
#include <QTimer>
#include <QWidget>
#include <QTextCodec>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "api/interface.h"
#include "api/kavrel.h"
#include "camera/ccdwebcam.h"
#include "sdk/torvanesim.h"
#include "simlog.h"

class KavrelInterfaceTestPeer
{
public:
    explicit KavrelInterfaceTestPeer(KavrelInterface& api)
        : a(api)
    {
    }
    int pixFmt() const { return a.m_nPixFmtMain; }
    int ccdPos() const { return a.m_nCCDPosMain; }
    int raw() const { return a.m_nRAWMain; }
    bool cuda() const { return a.m_bUseCUDAMain; }
    QString ccdType() const { return a.m_strCCDTypeMain; }
    const CCDIF::CCDSettings& settings() const { return a.m_cSettingsMain; }
    void roi(int& x, int& y, int& w, int& h) const
    {
        x = a.m_nROIXMain;
        y = a.m_nROIYMain;
        w = a.m_nROIWidthMain;
        h = a.m_nROIHeightMain;
    }
    int bufSizeMain() const { return a.m_nImageBufSizeMain; }
    int bufSizeSlaver() const { return a.m_nImageBufSizeSlaver; }

private:
    KavrelInterface& a;
};

namespace {

const char* const kFullConfig =
    "<CCDType>WebCam</CCDType><CCDPos>0</CCDPos><PixFmt>1</PixFmt><ROI>0,0,1280,960</ROI><RAW>0</RAW>"
    "<Settings><HardTriggerSource>0</HardTriggerSource><Brightness>0</Brightness><Sharpness>0</Sharpness>"
    "<Hue>0</Hue><Saturation>0</Saturation><Gamma>1.00</Gamma><Gain>8</Gain><Exposure>20000</Exposure>"
    "<WhiteBalance>1.20,1.00,1.35</WhiteBalance><AutoExposure>false</AutoExposure>"
    "<TriggerType>Video</TriggerType></Settings><UseCUDA>0</UseCUDA>";

std::string text(const char* sz)
{
    return sz ? std::string(sz) : std::string("<null>");
}

void set(KavrelInterface& api, const std::string& config)
{
    std::string copy = config;
    api.setConfigStringMain(copy.data());
}

// Parsing is checked on fresh objects; the cameras belong to the registry.
TEST(ConfigString, ParsesEveryElement)
{
    KavrelInterface api;
    KavrelInterfaceTestPeer peer(api);
    set(api, "<CCDType>Web Cam</CCDType><ccdpos>3</CCDPOS><PixFmt> 5 </PixFmt><RAW>-2</RAW>"
             "<ROI>16,8,640,480</ROI><UseCUDA> 1 </UseCUDA><Settings><Gain>7</Gain><TriggerType>soft</TriggerType></Settings>");
    EXPECT_EQ(peer.ccdType(), QString("Web Cam"));
    EXPECT_EQ(peer.ccdPos(), 3);
    EXPECT_EQ(peer.pixFmt(), 5);
    EXPECT_EQ(peer.raw(), -2);
    EXPECT_TRUE(peer.cuda());
    EXPECT_EQ(peer.settings().nGain, 7);
    EXPECT_EQ(peer.settings().eTriggerType, CCDIF::TriggerSoft);
    int x, y, w, h;
    peer.roi(x, y, w, h);
    EXPECT_EQ(x, 16);
    EXPECT_EQ(y, 8);
    EXPECT_EQ(w, 640);
    EXPECT_EQ(h, 480);

    // Of a repeated element only the first counts; unknown text is kept verbatim.
    set(api, "junk<CCDPos>1</CCDPos><CCDPos>2</CCDPos><Other>x</Other>");
    EXPECT_EQ(peer.ccdPos(), 1);
    EXPECT_EQ(text(api.getConfigStringMain()), "junk<CCDPos>1</CCDPos><CCDPos>2</CCDPos><Other>x</Other>");
    EXPECT_EQ(peer.pixFmt(), 0);
    EXPECT_FALSE(peer.cuda());
    EXPECT_EQ(peer.ccdType(), QString(""));
    EXPECT_EQ(peer.settings().fGamma, 0.0f); // settings read from an empty text
    EXPECT_EQ(peer.settings().eTriggerType, CCDIF::TriggerSoft); // ... which keeps the trigger
}

TEST(ConfigString, CudaAndRegionRules)
{
    KavrelInterface api;
    KavrelInterfaceTestPeer peer(api);
    for (const char* on : {"<UseCUDA>1</UseCUDA>", "<usecuda> 1 </usecuda>"}) {
        set(api, on);
        EXPECT_TRUE(peer.cuda()) << on;
    }
    for (const char* off : {"<UseCUDA>true</UseCUDA>", "<UseCUDA>2</UseCUDA>", "<UseCUDA></UseCUDA>"}) {
        set(api, off);
        EXPECT_FALSE(peer.cuda()) << off;
    }

    const struct {
        const char* roi;
        int x, y, w, h;
    } cases[] = {
        {"<ROI>640,480</ROI>", 0, 0, 640, 480},
        {"<ROI>640,480,1</ROI>", 0, 0, 640, 480}, // three values: unchanged
        {"<ROI></ROI>", 0, 0, 640, 480},
        {"", 0, 0, 640, 480},
        {"<ROI>1,2,3,4,5</ROI>", 0, 0, 640, 480},
        {"<ROI>,480</ROI>", 0, 0, 0, 480},
        {"<ROI>16,8,64,48</ROI>", 16, 8, 64, 48},
        {"<ROI>a,b</ROI>", 0, 0, 0, 0},
    };
    for (const auto& c : cases) {
        set(api, c.roi);
        int x, y, w, h;
        peer.roi(x, y, w, h);
        EXPECT_EQ(x, c.x) << c.roi;
        EXPECT_EQ(y, c.y) << c.roi;
        EXPECT_EQ(w, c.w) << c.roi;
        EXPECT_EQ(h, c.h) << c.roi;
    }
}

TEST(TextBuffer, SharedGrowingUtf8)
{
    KavrelInterface api;
    // Every text result is the one shared buffer.
    set(api, "abc");
    char* first = api.getConfigStringMain();
    char* second = api.getLastError();
    EXPECT_EQ(first, second);
    EXPECT_EQ(text(second), "");

    // 1022 bytes fit the initial 1024; 1023 plus the NUL equals it and grows it.
    const int before = gnConfigStringLen;
    ASSERT_GE(before, 1024);
    if (before == 1024) {
        transConfigString(QString(1022, 'x'));
        EXPECT_EQ(gnConfigStringLen, 1024);
        transConfigString(QString(1023, 'x'));
        EXPECT_EQ(gnConfigStringLen, 1536);
    }
    const std::string big(100000, 'y');
    set(api, big);
    EXPECT_EQ(text(api.getConfigStringMain()), big);
    EXPECT_GT(gnConfigStringLen, 100000);
    const int grown = gnConfigStringLen;
    EXPECT_EQ(text(transConfigString("short")), "short");
    EXPECT_EQ(gnConfigStringLen, grown); // never shrinks

    // Local 8-bit in, UTF-8 out, whatever the local encoding.
    QTextCodec* saved = QTextCodec::codecForLocale();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO-8859-1"));
    std::string latin1 = "<CCDType>caf\xe9</CCDType>";
    api.setConfigStringMain(latin1.data());
    EXPECT_EQ(text(api.getConfigStringMain()), "<CCDType>caf\xc3\xa9</CCDType>");
    QTextCodec::setCodecForLocale(saved);

    api.setConfigStringMain(nullptr);
    EXPECT_EQ(text(api.getConfigStringMain()), "");
}

// Tests that drive the registry's cameras through the singleton.
class Api : public ::testing::Test {
protected:
    void SetUp() override
    {
        torvanesim_reset();
        torvanesim_set_frame_rate(0);
        torvanesim_set_sensor(1280, 960, 3);
        api = KavrelInterface::getInstance();
    }
    void TearDown() override
    {
        api->disconnectMain();
        api->disconnectSlaver();
        torvanesim_reset();
    }
    void setMain(const std::string& config) { set(*api, config); }
    void setSlaver(const std::string& config)
    {
        std::string copy = config;
        api->setConfigStringSlaver(copy.data());
    }

    KavrelInterface* api = nullptr;
};

TEST_F(Api, RegistryAndStatus)
{
    Kavrel* reg = Kavrel::getInstance();
    EXPECT_TRUE(reg->IsMainCCDReady());
    EXPECT_TRUE(reg->IsSlaverCCDReady());
    EXPECT_NE(reg->getInterfaceMain(), reg->getInterfaceSlaver());
    EXPECT_EQ(api->getCCDFPSMain(), 0);
    EXPECT_EQ(api->getCCDFPSSlaver(), 0);

    QSignalSpy spyMain(reg, &Kavrel::NewImageArrivedMain);
    QSignalSpy spySlaver(reg, &Kavrel::NewImageArrivedSlaver);
    reg->OnNewImageArrivedSlaver(640, 1920, 480);
    ASSERT_EQ(spySlaver.count(), 1);
    EXPECT_EQ(spySlaver.at(0).at(0).toInt(), 640);
    EXPECT_EQ(spySlaver.at(0).at(1).toInt(), 1920);
    EXPECT_EQ(spySlaver.at(0).at(2).toInt(), 480);
    EXPECT_EQ(spyMain.count(), 0);

    // A new registry brings new, unconnected cameras; the stored configuration survives.
    setMain(kFullConfig);
    ASSERT_TRUE(api->connectMain());
    QPointer<CCDWebCam> old = reg->getInterfaceMain();
    old->disconnect();
    Kavrel::destroyInstance();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(old.isNull());
    EXPECT_FALSE(api->IsConnectedMain());
    EXPECT_TRUE(api->connectMain());
}

TEST_F(Api, ConnectStartClickMessages)
{
    setMain("");
    EXPECT_FALSE(api->connectMain());
    EXPECT_EQ(text(api->getLastError()), "No config string is set.");
    api->setConfigStringMain(nullptr);
    EXPECT_FALSE(api->connectMain());

    EXPECT_FALSE(api->startMain());
    EXPECT_EQ(text(api->getLastError()), "CCD is not connected.");

    setMain(kFullConfig);
    torvanesim_set_next_init_result(2);
    EXPECT_FALSE(api->connectMain());
    EXPECT_EQ(text(api->getLastError()), "Camera has no response!");
    EXPECT_FALSE(api->IsConnectedMain());

    EXPECT_TRUE(api->connectMain());
    EXPECT_EQ(text(api->getLastError()), "Camera has no response!"); // never cleared by success
    EXPECT_FALSE(api->clickMain());
    EXPECT_EQ(text(api->getLastError()), "Camera is not started!");

    // Stopped camera: nothing to request, all outputs 0.
    int w = 1, b = 1, h = 1;
    EXPECT_EQ(api->requestImageMain(&w, &b, &h, 100), nullptr);
    EXPECT_EQ(w + b + h, 0);
    EXPECT_FALSE(api->applyNewConfigMain());

    torvanesim_log_clear();
    ASSERT_TRUE(api->startMain());
    EXPECT_TRUE(api->IsStartedMain());
    // Settings, then the region, then start; the SDK sees them in that order.
    const auto log = simLog();
    ASSERT_GE(log.size(), 4u);
    EXPECT_EQ(log[0], "set_camera_exposure(20000,0)");
    EXPECT_EQ(log[1], "set_camera_mode(0,0)");
    EXPECT_EQ(log[2], "set_camera_gain(8,0)");
    EXPECT_EQ(simLogCount("set_camera_window_size(1280,960,0)"), 1);
    EXPECT_TRUE(api->clickMain());

    api->stopMain();
    EXPECT_FALSE(api->IsStartedMain());
    EXPECT_TRUE(api->IsConnectedMain());
    api->disconnectMain();
    api->disconnectMain();
    api->stopMain();
    EXPECT_FALSE(api->IsConnectedMain());
}

TEST_F(Api, PixelFormatCodesAndReconnect)
{
    torvanesim_set_sensor(8, 4, 3);
    const struct {
        const char* code;
        int bytesPerLine;
    } cases[] = {{"1", 24}, {"2", 24}, {"3", 24}, {"4", 24}, {"7", 24}, {"0", 8}, {"8", 8}, {"-1", 8}, {"x", 8}};
    for (const auto& c : cases) {
        setMain(std::string("<pixfmt>") + c.code + "</PIXFMT><ROI>0,0</ROI>");
        ASSERT_TRUE(api->connectMain());
        ASSERT_TRUE(api->startMain());
        int w, b, h;
        unsigned char* img = api->requestImageMain(&w, &b, &h, 200);
        ASSERT_NE(img, nullptr) << c.code;
        EXPECT_EQ(b, c.bytesPerLine) << c.code;
        api->releaseImageMain(img);
        api->disconnectMain();
    }
    const CCDWebCam* cam = Kavrel::getInstance()->getInterfaceMain();
    setMain("<PixFmt>2</PixFmt>");
    ASSERT_TRUE(api->connectMain());
    EXPECT_EQ(const_cast<CCDWebCam*>(cam)->getPixelFormat(), CCDIF::PixFmtRGB);
    setMain("<PixFmt>1</PixFmt>"); // a connected camera keeps its format
    EXPECT_TRUE(api->connectMain());
    EXPECT_EQ(const_cast<CCDWebCam*>(cam)->getPixelFormat(), CCDIF::PixFmtRGB);
}

TEST_F(Api, RequestGrowsTheBufferAndNeverShrinksIt)
{
    KavrelInterfaceTestPeer peer(*api);
    setMain("<PixFmt>1</PixFmt><ROI>640,480</ROI>");
    ASSERT_TRUE(api->connectMain());
    ASSERT_TRUE(api->startMain());
    int w, b, h;
    unsigned char* img = api->requestImageMain(&w, &b, &h, 500);
    ASSERT_NE(img, nullptr);
    EXPECT_EQ(w, 640);
    EXPECT_EQ(b, 1920);
    EXPECT_EQ(h, 480);
    EXPECT_GE(peer.bufSizeMain(), 921600);
    const int capacity = peer.bufSizeMain();
    api->releaseImageMain(img);
    api->releaseImageMain(img); // nothing lent: ignored

    api->disconnectMain();
    setMain("<PixFmt>0</PixFmt><ROI>320,240</ROI>");
    ASSERT_TRUE(api->connectMain());
    ASSERT_TRUE(api->startMain());
    unsigned char* small = api->requestImageMain(&w, &b, &h, 500);
    ASSERT_NE(small, nullptr);
    EXPECT_EQ(small, img);
    EXPECT_EQ(w, 320);
    EXPECT_EQ(b, 320);
    EXPECT_EQ(h, 240);
    EXPECT_EQ(peer.bufSizeMain(), capacity);
    api->releaseImageMain(small);

    // Null outputs are tolerated.
    unsigned char* again = api->requestImageMain(nullptr, nullptr, nullptr, 500);
    ASSERT_NE(again, nullptr);
    api->releaseImageMain(again);
}

TEST_F(Api, ImagesCarryOneWholeFrame)
{
    torvanesim_set_sensor(64, 48, 3);
    setMain("<PixFmt>1</PixFmt><ROI>0,0</ROI><Settings><Gamma>1.00</Gamma></Settings>");
    ASSERT_TRUE(api->connectMain());
    ASSERT_TRUE(api->startMain());
    std::vector<unsigned char> expected(64 * 48 * 3);
    unsigned int last = 0;
    for (int i = 0; i < 5; ++i) {
        int w, b, h;
        unsigned char* img = api->requestImageMain(&w, &b, &h, 200);
        ASSERT_NE(img, nullptr);
        const unsigned int n = torvanesim_frame_number(img, 3);
        EXPECT_GT(n, last);
        last = n;
        torvanesim_render_frame(n, 64, 48, 3, expected.data());
        EXPECT_EQ(0, std::memcmp(img, expected.data(), expected.size()));
        api->releaseImageMain(img);
    }
}

TEST_F(Api, HandOverBlocksUntilRelease)
{
    setMain("<PixFmt>0</PixFmt><ROI>64,48</ROI>");
    setSlaver("<PixFmt>0</PixFmt><ROI>32,16</ROI>");
    ASSERT_TRUE(api->connectMain());
    ASSERT_TRUE(api->startMain());
    ASSERT_TRUE(api->connectSlaver());
    ASSERT_TRUE(api->startSlaver());

    int w, b, h;
    unsigned char* held = api->requestImageMain(&w, &b, &h, 200);
    ASSERT_NE(held, nullptr);

    // The other camera is not held up by the lent Main image.
    unsigned char* other = api->requestImageSlaver(&w, &b, &h, 200);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(w, 32);
    api->releaseImageSlaver(other);

    api->releaseImageMain(nullptr); // does nothing: still lent
    std::atomic<bool> got{false};
    std::thread second([&] {
        int w2, b2, h2;
        unsigned char* img = api->requestImageMain(&w2, &b2, &h2, 200);
        got = img != nullptr;
        if (img)
            api->releaseImageMain(img);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(got.load()); // waits for our release
    api->releaseImageMain(held);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!got && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(got.load());
    second.join();
}

TEST_F(Api, ApplyNewConfigReachesAStartedCamera)
{
    setMain("<PixFmt>1</PixFmt><ROI>640,480</ROI>");
    ASSERT_TRUE(api->connectMain());
    EXPECT_FALSE(api->applyNewConfigMain()); // connected but stopped: nothing happens
    ASSERT_TRUE(api->startMain());
    setMain("<PixFmt>0</PixFmt><ROI>101,99</ROI><Settings><Gain>3</Gain></Settings>");
    torvanesim_log_clear();
    EXPECT_TRUE(api->applyNewConfigMain());
    EXPECT_EQ(simLogCount("set_camera_gain(3,0)"), 1);
    EXPECT_EQ(simLogCount("set_camera_window_size(104,100,0)"), 1);
    int w, b, h;
    unsigned char* img = api->requestImageMain(&w, &b, &h, 200);
    ASSERT_NE(img, nullptr);
    EXPECT_EQ(w, 104);
    EXPECT_EQ(b, 312); // the format stays until the next connect
    api->releaseImageMain(img);

    torvanesim_fail_set_window_size(1);
    EXPECT_FALSE(api->applyNewConfigMain());
    EXPECT_EQ(Kavrel::getInstance()->getInterfaceMain()->getLastError(), QString("Set Camera resolution failed!"));
}

TEST_F(Api, ConfigWindowRestartsAStartedCamera)
{
    // Without a GUI application the window cannot open: the text comes back as
    // given. With one, the dialog's own tests cover the window itself; here the
    // restart logic around it is what matters, so the dialog is closed at once.
    setMain(kFullConfig);
    ASSERT_TRUE(api->connectMain());
    ASSERT_TRUE(api->startMain());
    QTimer::singleShot(0, [] {
        if (QWidget* w = QApplication::activeModalWidget())
            w->close();
    });
    std::string input = "<PixFmt>0</PixFmt>";
    char* result = api->showConfigWindowMain(input.data());
    ASSERT_NE(result, nullptr);
    EXPECT_TRUE(api->IsStartedMain());

    api->stopMain(); // connected, not started: disconnected afterwards
    QTimer::singleShot(0, [] {
        if (QWidget* w = QApplication::activeModalWidget())
            w->close();
    });
    api->showConfigWindowMain(input.data());
    EXPECT_FALSE(api->IsConnectedMain());

    ASSERT_TRUE(api->connectMain());
    ASSERT_TRUE(api->startMain());
    setMain("");
    QTimer::singleShot(0, [] {
        if (QWidget* w = QApplication::activeModalWidget())
            w->close();
    });
    api->showConfigWindowMain(nullptr);
    EXPECT_FALSE(api->IsConnectedMain());
    EXPECT_EQ(text(api->getLastError()), "No config string is set.");
}

} // namespace
