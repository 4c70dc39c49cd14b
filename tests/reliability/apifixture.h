// What the reliability tests share: a look inside KavrelInterface, a fixture
// over the singleton and the simulated camera, and image checks against the
// simulated camera's own rendering.
#ifndef KAVREL_TESTS_APIFIXTURE_H
#define KAVREL_TESTS_APIFIXTURE_H

#include <gtest/gtest.h>

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
    explicit KavrelInterfaceTestPeer(KavrelInterface& api) : a(api) {}
    const CCDIF::CCDSettings& settingsMain() const { return a.m_cSettingsMain; }
    int ccdPosMain() const { return a.m_nCCDPosMain; }
    int pixFmtMain() const { return a.m_nPixFmtMain; }
    int bufSizeMain() const { return a.m_nImageBufSizeMain; }
    // True when no image of either camera is lent (the hand-over mutexes are free).
    bool nothingLent() const
    {
        const bool bFree = a.m_cImageMutexMain.tryLock() && (a.m_cImageMutexMain.unlock(), true);
        return bFree && a.m_cImageMutexSlaver.tryLock() && (a.m_cImageMutexSlaver.unlock(), true);
    }

private:
    KavrelInterface& a;
};

// <PixFmt> code 1 is BGR, 0 grey; the settings leave the simulated picture as rendered.
inline std::string configFor(int pixFmtCode, int width, int height)
{
    return "<PixFmt>" + std::to_string(pixFmtCode) + "</PixFmt><ROI>" + std::to_string(width) + "," +
           std::to_string(height) + "</ROI><Settings><Gamma>1.00</Gamma><Exposure>20000</Exposure></Settings>";
}

inline std::string text(const char* sz) { return sz ? std::string(sz) : std::string("<null>"); }

// True when `img` is all of the simulated frame whose number it carries, as
// the library delivers it from a three-byte sensor (grey: b1*0.6 + b2*0.25 + b0*0.15).
inline bool wholeFrame(const unsigned char* img, int width, int height, bool grey, unsigned int* number = nullptr)
{
    const unsigned int n = torvanesim_frame_number(img, grey ? 1 : 3);
    std::vector<unsigned char> bgr(static_cast<size_t>(width) * height * 3), want;
    torvanesim_render_frame(n, width, height, 3, bgr.data());
    for (size_t i = 0; grey && i < bgr.size(); i += 3)
        want.push_back(static_cast<unsigned char>(bgr[i + 1] * 0.6 + bgr[i + 2] * 0.25 + bgr[i] * 0.15));
    if (number)
        *number = n;
    return std::memcmp(img, grey ? want.data() : bgr.data(), grey ? want.size() : bgr.size()) == 0;
}

// Runs `run` once to settle caches and buffers, then twice more: those runs
// must give back every block they take (bytes may move a little as the
// simulated camera's frame queue re-centres its index, but not by a buffer).
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
    void SetUp() override { torvanesim_reset(); torvanesim_set_frame_rate(0); torvanesim_set_sensor(64, 48, 3); }
    void TearDown() override
    {
        api->disconnectMain();
        api->disconnectSlaver();
        EXPECT_EQ(torvanesim_open_count(), 0);
        torvanesim_reset();
    }
    void setMain(std::string config) { api->setConfigStringMain(&config[0]); }
    void setSlaver(std::string config) { api->setConfigStringSlaver(&config[0]); }
    CCDWebCam* camMain() { return Kavrel::getInstance()->getInterfaceMain(); }
    unsigned char* requestMain(int* w = nullptr, int* b = nullptr, int* h = nullptr, int timeout = 1000)
    {
        return api->requestImageMain(w, b, h, timeout);
    }

    KavrelInterface* api = KavrelInterface::getInstance();
    KavrelInterfaceTestPeer peer{*api};
};

#endif
