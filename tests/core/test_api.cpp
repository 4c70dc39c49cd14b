// SPDX-License-Identifier: LGPL-2.1-or-later
// The exported API: configuration strings, the acquisition operations and the
// image hand-over. The shared text buffer is covered by tests/reliability, the
// configuration window entered from here by tests/dialog.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "api/interface.h"
#include "api/kavrel.h"
#include "camera/ccdwebcam.h"
#include "sdk/torvanesim.h"
#include "simlog.h"

class KavrelInterfaceTestPeer
{
public:
    explicit KavrelInterfaceTestPeer(KavrelInterface& api) : a(api) {}
    // The parsed Main configuration, as one comparable text.
    std::string main() const
    {
        return QString::asprintf("%s pos %d fmt %d raw %d cuda %d roi %d,%d,%d,%d gain %d", qPrintable(a.m_strCCDTypeMain),
                                 a.m_nCCDPosMain, a.m_nPixFmtMain, a.m_nRAWMain, a.m_bUseCUDAMain, a.m_nROIXMain,
                                 a.m_nROIYMain, a.m_nROIWidthMain, a.m_nROIHeightMain, a.m_cSettingsMain.nGain)
            .toStdString();
    }

private:
    KavrelInterface& a;
};

namespace {

std::string text(const char* sz)
{
    return sz ? std::string(sz) : std::string("<null>");
}

void set(KavrelInterface& api, std::string config)
{
    api.setConfigStringMain(config.data());
}

// Parsing is checked on a fresh object; the cameras belong to the registry.
TEST(ConfigString, ParsingRules)
{
    KavrelInterface api;
    KavrelInterfaceTestPeer peer(api);
    const struct {
        const char* config;
        const char* parsed;
    } cases[] = {
        {"<CCDType>Web Cam</CCDType><ccdpos>3</CCDPOS><PixFmt> 5 </PixFmt><RAW>-2</RAW><ROI>16,8,640,480</ROI>"
         "<UseCUDA> 1 </UseCUDA><Settings><Gain>7</Gain></Settings>",
         "Web Cam pos 3 fmt 5 raw -2 cuda 1 roi 16,8,640,480 gain 7"},
        // Of a repeated element only the first counts.
        {"junk<CCDPos>1</CCDPos><CCDPos>2</CCDPos><UseCUDA>true</UseCUDA>", " pos 1 fmt 0 raw 0 cuda 0 roi 16,8,640,480 gain 0"},
        {"<UseCUDA>2</UseCUDA><ROI>64,48</ROI>", " pos 0 fmt 0 raw 0 cuda 0 roi 0,0,64,48 gain 0"},
        // A region of other than two or four values leaves the last one.
        {"<ROI>1,2,3,4,5</ROI>", " pos 0 fmt 0 raw 0 cuda 0 roi 0,0,64,48 gain 0"},
        {"<ROI>a,480</ROI>", " pos 0 fmt 0 raw 0 cuda 0 roi 0,0,0,480 gain 0"},
    };
    for (const auto& c : cases) {
        set(api, c.config);
        EXPECT_EQ(peer.main(), c.parsed) << c.config;
        EXPECT_EQ(text(api.getConfigStringMain()), c.config); // kept verbatim
    }
}

// Tests that drive the registry's cameras through the singleton.
class Api : public ::testing::Test {
protected:
    void SetUp() override { torvanesim_reset(); torvanesim_set_frame_rate(0); }
    void TearDown() override { api->disconnectMain(); api->disconnectSlaver(); torvanesim_reset(); }
    unsigned char* request(int* w = nullptr, int* b = nullptr, int* h = nullptr) { return api->requestImageMain(w, b, h, 500); }

    KavrelInterface* api = KavrelInterface::getInstance();
};

TEST_F(Api, ConnectStartClickMessages)
{
    set(*api, "");
    EXPECT_FALSE(api->connectMain());
    EXPECT_EQ(text(api->getLastError()), "No config string is set.");
    EXPECT_FALSE(api->startMain());
    EXPECT_EQ(text(api->getLastError()), "CCD is not connected.");

    set(*api, "<ROI>0,0,1280,960</ROI><Settings><Gain>8</Gain><Exposure>20000</Exposure></Settings>");
    EXPECT_TRUE(api->connectMain());
    EXPECT_EQ(text(api->getLastError()), "CCD is not connected."); // never cleared by success
    EXPECT_FALSE(api->clickMain());
    EXPECT_EQ(text(api->getLastError()), "Camera is not started!");
    int w = 1, b = 1, h = 1;
    EXPECT_EQ(request(&w, &b, &h), nullptr); // stopped: nothing to request, all outputs 0
    EXPECT_EQ((std::vector<int>{w, b, h}), (std::vector<int>{0, 0, 0}));

    torvanesim_log_clear();
    ASSERT_TRUE(api->startMain());
    // The settings and the region reach the SDK before start returns, in any order.
    EXPECT_EQ(simLogSorted(), (std::vector<std::string>{"set_camera_exposure(20000,0)", "set_camera_gain(8,0)",
                                                        "set_camera_mode(0,0)", "set_camera_window_size(1280,960,0)"}));
    EXPECT_TRUE(api->clickMain());
}

TEST_F(Api, PixelFormatCodes)
{
    // Codes 1 and 2, and 4 and 5, are swapped against the enumeration; unknown codes are grey.
    const std::pair<const char*, CCDIF::PixelFormat> cases[] = {
        {"1", CCDIF::PixFmtBGR}, {"2", CCDIF::PixFmtRGB},     {"3", CCDIF::PixFmt3},     {"4", CCDIF::PixFmt5},
        {"5", CCDIF::PixFmt4},   {"7", CCDIF::PixFmt7},       {"8", CCDIF::PixFmtGray8}, {"x", CCDIF::PixFmtGray8}};
    CCDWebCam* cam = Kavrel::getInstance()->getInterfaceMain();
    for (const auto& c : cases) {
        set(*api, std::string("<pixfmt>") + c.first + "</PIXFMT>");
        ASSERT_TRUE(api->connectMain());
        EXPECT_EQ(cam->getPixelFormat(), c.second) << c.first;
        api->disconnectMain();
    }
    ASSERT_TRUE(api->connectMain());
    set(*api, "<PixFmt>1</PixFmt>"); // a connected camera keeps its format
    EXPECT_TRUE(api->connectMain());
    EXPECT_EQ(cam->getPixelFormat(), CCDIF::PixFmtGray8);
}

TEST_F(Api, RequestGrowsTheBufferAndNeverShrinksIt)
{
    set(*api, "<PixFmt>1</PixFmt><ROI>640,480</ROI>");
    ASSERT_TRUE(api->connectMain() && api->startMain());
    int w, b, h;
    unsigned char* img = request(&w, &b, &h);
    ASSERT_NE(img, nullptr);
    EXPECT_EQ((std::vector<int>{w, b, h}), (std::vector<int>{640, 1920, 480}));
    api->releaseImageMain(img);
    api->releaseImageMain(img); // nothing lent: ignored

    api->disconnectMain();
    set(*api, "<PixFmt>0</PixFmt><ROI>320,240</ROI>");
    ASSERT_TRUE(api->connectMain() && api->startMain());
    unsigned char* small = request(&w, &b, &h);
    EXPECT_EQ(small, img);
    EXPECT_EQ(b, 320);
    api->releaseImageMain(small);
}

// Main and Slaver share their code; each must still work on its own
// configuration string, settings, region, pixel format and buffer.
TEST_F(Api, EachCameraUsesItsOwnConfigurationAndBuffer)
{
    set(*api, "<PixFmt>1</PixFmt><ROI>64,48</ROI><Settings><Gain>3</Gain></Settings>");
    std::string slaver = "<PixFmt>0</PixFmt><ROI>32,16</ROI><Settings><Gain>5</Gain></Settings>";
    api->setConfigStringSlaver(&slaver[0]);
    EXPECT_EQ(text(api->getConfigStringSlaver()), slaver);

    int w = 0, b = 0, h = 0;
    torvanesim_log_clear();
    ASSERT_TRUE(api->connectMain() && api->startMain());
    EXPECT_EQ(simLogCount("set_camera_gain(3,0)"), 1);
    EXPECT_EQ(simLogCount("set_camera_window_size(64,48,0)"), 1);
    unsigned char* mainImage = request(&w, &b, &h);
    ASSERT_NE(mainImage, nullptr);
    EXPECT_EQ((std::vector<int>{w, b, h}), (std::vector<int>{64, 192, 48}));
    api->releaseImageMain(mainImage);

    torvanesim_log_clear();
    ASSERT_TRUE(api->connectSlaver() && api->startSlaver());
    EXPECT_EQ(simLogCount("set_camera_gain(5,0)"), 1);
    EXPECT_EQ(simLogCount("set_camera_window_size(32,16,0)"), 1);
    unsigned char* slaverImage = api->requestImageSlaver(&w, &b, &h, 500);
    ASSERT_NE(slaverImage, nullptr);
    EXPECT_EQ((std::vector<int>{w, b, h}), (std::vector<int>{32, 32, 16}));
    EXPECT_NE(slaverImage, mainImage);
    api->releaseImageSlaver(slaverImage);

    slaver = "<PixFmt>0</PixFmt><ROI>32,16</ROI><Settings><Gain>6</Gain></Settings>";
    api->setConfigStringSlaver(&slaver[0]);
    torvanesim_log_clear();
    EXPECT_TRUE(api->applyNewConfigSlaver());
    EXPECT_EQ(simLogCount("set_camera_gain(6,0)"), 1);

    // An empty Slaver string stops the Slaver alone from connecting.
    api->disconnectSlaver();
    api->setConfigStringSlaver(nullptr);
    EXPECT_FALSE(api->connectSlaver());
    EXPECT_EQ(text(api->getLastError()), "No config string is set.");
    EXPECT_TRUE(api->IsConnectedMain());
    EXPECT_NE(text(api->getConfigStringMain()), "");
}

TEST_F(Api, ApplyNewConfigReachesAStartedCamera)
{
    set(*api, "<PixFmt>1</PixFmt><ROI>640,480</ROI>");
    ASSERT_TRUE(api->connectMain());
    EXPECT_FALSE(api->applyNewConfigMain()); // connected but stopped: nothing happens
    ASSERT_TRUE(api->startMain());
    set(*api, "<PixFmt>0</PixFmt><ROI>101,99</ROI><Settings><Gain>3</Gain></Settings>");
    torvanesim_log_clear();
    EXPECT_TRUE(api->applyNewConfigMain());
    EXPECT_EQ(simLogCount("set_camera_gain(3,0)"), 1);
    EXPECT_EQ(simLogCount("set_camera_window_size(104,100,0)"), 1);
    int w, b;
    unsigned char* img = request(&w, &b);
    EXPECT_EQ(w, 104);
    EXPECT_EQ(b, 312); // the format stays until the next connect
    api->releaseImageMain(img);
}

} // namespace
