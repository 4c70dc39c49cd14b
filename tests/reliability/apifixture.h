// What the reliability tests share: a look inside KavrelInterface, a fixture
// over the singleton and the simulated camera, and image checks against the
// simulated camera's own rendering.
#ifndef KAVREL_TESTS_APIFIXTURE_H
#define KAVREL_TESTS_APIFIXTURE_H

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QEvent>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "api/interface.h"
#include "api/kavrel.h"
#include "camera/ccdwebcam.h"
#include "heapprobe.h"
#include "sdk/torvanesim.h"

class KavrelInterfaceTestPeer
{
public:
    explicit KavrelInterfaceTestPeer(KavrelInterface& api)
        : a(api)
    {
    }
    void roiMain(int& x, int& y, int& w, int& h) const
    {
        x = a.m_nROIXMain;
        y = a.m_nROIYMain;
        w = a.m_nROIWidthMain;
        h = a.m_nROIHeightMain;
    }
    const CCDIF::CCDSettings& settingsMain() const { return a.m_cSettingsMain; }
    int ccdPosMain() const { return a.m_nCCDPosMain; }
    int pixFmtMain() const { return a.m_nPixFmtMain; }
    int bufSizeMain() const { return a.m_nImageBufSizeMain; }
    // True when no Main image is lent (the hand-over mutex is free).
    bool mainFree() const
    {
        if (!a.m_cImageMutexMain.tryLock())
            return false;
        a.m_cImageMutexMain.unlock();
        return true;
    }
    bool slaverFree() const
    {
        if (!a.m_cImageMutexSlaver.tryLock())
            return false;
        a.m_cImageMutexSlaver.unlock();
        return true;
    }

private:
    KavrelInterface& a;
};

// Settings that leave the simulated picture as rendered: gamma 1, exposure
// 20000, gain 0.
constexpr const char* kPlainSettings =
    "<Settings><Gamma>1.00</Gamma><Exposure>20000</Exposure><Gain>0</Gain></Settings>";

inline std::string configFor(int pixFmtCode, int width, int height)
{
    return "<PixFmt>" + std::to_string(pixFmtCode) + "</PixFmt><ROI>" + std::to_string(width) + "," +
           std::to_string(height) + "</ROI>" + kPlainSettings;
}

inline std::string text(const char* sz)
{
    return sz ? std::string(sz) : std::string("<null>");
}

// The grey conversion of three-byte frames: b1*0.6 + b2*0.25 + b0*0.15, truncated.
inline std::vector<unsigned char> greyOf(const std::vector<unsigned char>& bgr)
{
    std::vector<unsigned char> grey(bgr.size() / 3);
    for (size_t i = 0; i < grey.size(); ++i) {
        const unsigned char* p = &bgr[3 * i];
        double v = p[1] * 0.6;
        v += p[2] * 0.25;
        v += p[0] * 0.15;
        grey[i] = static_cast<unsigned char>(v);
    }
    return grey;
}

// The simulated frame `number` as the library delivers it from a three-byte
// sensor: unchanged for colour formats, converted for grey.
inline std::vector<unsigned char> expectedImage(unsigned int number, int width, int height, bool grey)
{
    std::vector<unsigned char> bgr(static_cast<size_t>(width) * height * 3);
    torvanesim_render_frame(number, width, height, 3, bgr.data());
    return grey ? greyOf(bgr) : bgr;
}

// Runs `run` once to settle caches and buffers, then twice more: the second and
// third runs must give back every block they take. Bytes may move a little
// (the simulated camera's frame queue re-centres its index now and then), but
// not by a buffer's worth.
template <typename F>
void expectNoHeapGrowth(F&& run, const std::string& what)
{
    run();
    const HeapCount before = heapCount();
    run();
    run();
    const HeapCount after = heapCount();
    EXPECT_EQ(after.liveBlocks, before.liveBlocks) << what;
    EXPECT_LT(std::abs(after.liveBytes - before.liveBytes), 1024) << what;
}

class ApiFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        torvanesim_reset();
        torvanesim_set_frame_rate(0);
        torvanesim_set_sensor(64, 48, 3);
        api = KavrelInterface::getInstance();
    }
    void TearDown() override
    {
        api->disconnectMain();
        api->disconnectSlaver();
        EXPECT_EQ(torvanesim_open_count(), 0);
        torvanesim_reset();
    }
    void setMain(const std::string& config)
    {
        std::string copy = config;
        api->setConfigStringMain(copy.data());
    }
    void setSlaver(const std::string& config)
    {
        std::string copy = config;
        api->setConfigStringSlaver(copy.data());
    }
    CCDWebCam* camMain() { return Kavrel::getInstance()->getInterfaceMain(); }
    CCDWebCam* camSlaver() { return Kavrel::getInstance()->getInterfaceSlaver(); }
    // Leaves "CCD is not connected." as the last error, so that a test can see
    // whether a later operation wrote one.
    void markLastError()
    {
        api->disconnectMain();
        EXPECT_FALSE(api->startMain());
        ASSERT_EQ(text(api->getLastError()), "CCD is not connected.");
    }

    KavrelInterface* api = nullptr;
};

#endif
