// The dialog entered from the API (showConfigWindowMain / Slaver), with a timer
// acting on the modal dialog.

#include "dialogtest.h"

using Entry = SimTest;

TEST_F(Entry, AnswersTheDialogsResultAndRestoresTheCamera)
{
    QByteArray cConfig = "<CCDPos>0</CCDPos><PixFmt>1</PixFmt><ROI>32,24</ROI>"
                         "<Settings><Gamma>1.00</Gamma><Exposure>500</Exposure></Settings>";
    char* szConfig = cConfig.data();
    KavrelInterface* api = KavrelInterface::getInstance();
    api->setConfigStringMain(szConfig);
    ASSERT_TRUE(api->connectMain() && api->startMain());
    bool bOpenWhileShown = true;
    whenModal([&](QDialog* pDlg) {
        // The registry's camera is closed while the dialog has the device.
        bOpenWhileShown = api->IsConnectedMain();
        click(pDlg, "btnOpenCCD");
        type(pDlg, "edtGain", "3");
        click(pDlg, "btnOK");
    });
    const QString strResult = QString::fromUtf8(api->showConfigWindowMain(szConfig));
    EXPECT_FALSE(bOpenWhileShown);
    EXPECT_TRUE(strResult.startsWith("<PixFmt>1</PixFmt><ROI>32,24</ROI><Settings>")) << qPrintable(strResult);
    EXPECT_TRUE(strResult.contains("<Gain>3</Gain>"));
    // The running camera is back with the host's configuration; the dialog's camera is closed.
    EXPECT_TRUE(api->IsStartedMain());
    EXPECT_STREQ(api->getConfigStringMain(), szConfig);
    EXPECT_EQ(torvanesim_open_count(), 1);

    // Cancel answers "", closing answers the input. A camera that was connected
    // but not started is closed afterwards.
    api->setConfigStringSlaver(szConfig);
    ASSERT_TRUE(api->connectSlaver());
    whenModal([](QDialog* pDlg) { click(pDlg, "btnCancel"); });
    EXPECT_STREQ(api->showConfigWindowSlaver(szConfig), "");
    EXPECT_FALSE(api->IsConnectedSlaver());
    whenModal([](QDialog* pDlg) { pDlg->close(); });
    EXPECT_STREQ(api->showConfigWindowSlaver(szConfig), szConfig);
    EXPECT_EQ(torvanesim_open_count(), 1);
}
