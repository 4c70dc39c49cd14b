// The dialog entered from the API (showConfigWindowMain / Slaver), with a timer
// acting on the modal dialog.

#include "dialogtest.h"

namespace {

using Entry = SimTest;

QByteArray gConfig = "<CCDPos>0</CCDPos><PixFmt>1</PixFmt><ROI>32,24</ROI>"
                     "<Settings><Gamma>1.00</Gamma><Exposure>500</Exposure></Settings>";

TEST_F(Entry, OkReturnsTheDialogsStringAndRestartsARunningCamera)
{
    KavrelInterface* api = KavrelInterface::getInstance();
    api->setConfigStringMain(gConfig.data());
    ASSERT_TRUE(api->connectMain());
    ASSERT_TRUE(api->startMain());

    bool bOpenWhileShown = false;
    whenModal([&](QDialog* pDlg) {
        // The registry's camera is closed while the dialog has the device.
        bOpenWhileShown = api->IsConnectedMain();
        click(pDlg, "btnOpenCCD");
        type(pDlg, "edtGain", "3");
        click(pDlg, "btnOK");
    });
    const char* szResult = api->showConfigWindowMain(gConfig.data());
    ASSERT_NE(szResult, nullptr);
    const QString strResult = QString::fromUtf8(szResult);
    EXPECT_FALSE(bOpenWhileShown);
    // Opened with 32 x 24 the camera kept that size.
    EXPECT_TRUE(strResult.startsWith("<PixFmt>1</PixFmt><ROI>32,24</ROI><Settings>")) << qPrintable(strResult);
    EXPECT_TRUE(strResult.contains("<Gain>3</Gain>"));
    EXPECT_TRUE(api->IsStartedMain());
    // The stored configuration is the host's, not the dialog's.
    EXPECT_STREQ(api->getConfigStringMain(), gConfig.constData());
    // Registry camera reopened, dialog camera closed.
    EXPECT_EQ(torvanesim_open_count(), 1);
}

TEST_F(Entry, CancelAndCloseOnTheSlaverCamera)
{
    KavrelInterface* api = KavrelInterface::getInstance();
    api->setConfigStringSlaver(gConfig.data());
    ASSERT_TRUE(api->connectSlaver());

    whenModal([](QDialog* pDlg) { click(pDlg, "btnCancel"); });
    const char* szCancelled = api->showConfigWindowSlaver(gConfig.data());
    ASSERT_NE(szCancelled, nullptr);
    EXPECT_STREQ(szCancelled, "");
    // Connected but not started before: closed afterwards.
    EXPECT_FALSE(api->IsConnectedSlaver());

    whenModal([](QDialog* pDlg) { pDlg->close(); });
    EXPECT_STREQ(api->showConfigWindowSlaver(gConfig.data()), gConfig.constData());
    EXPECT_EQ(torvanesim_open_count(), 0);
}

} // namespace
