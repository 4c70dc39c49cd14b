// The viewer program's window: both cameras live, the dialog per camera, and
// adopting its result, driven through its buttons.

#include "dialogtest.h"

#include <memory>

#include "viewerwindow.h"

namespace {

// The viewer's panels, found by object name as an operator would use them.
struct Viewer : SimTest {
    void SetUp() override
    {
        SimTest::SetUp();
        torvanesim_set_sensor(1280, 960, 3);
        pWindow = std::make_unique<ViewerWindow>(gszViewerDefaultMain, gszViewerDefaultSlaver);
        pWindow->show();
        pWindow->startAll();
    }
    void TearDown() override
    {
        pWindow.reset();
        SimTest::TearDown();
    }
    std::unique_ptr<ViewerWindow> pWindow;
};

TEST_F(Viewer, ShowsBothCamerasLive)
{
    KavrelInterface* api = KavrelInterface::getInstance();
    EXPECT_TRUE(api->IsStartedMain());
    EXPECT_TRUE(api->IsStartedSlaver());
    CameraPanel* pMain = pWindow->panel(CameraPanel::Main);
    CameraPanel* pSlaver = pWindow->panel(CameraPanel::Slaver);
    EXPECT_TRUE(waitFor([&] { return pMain->framesShown() > 2 && pSlaver->framesShown() > 2; }));
    EXPECT_EQ(pMain->view()->image().size(), QSize(640, 480));
    EXPECT_EQ(pMain->view()->image().format(), QImage::Format_BGR888);
    EXPECT_EQ(pSlaver->view()->image().format(), QImage::Format_Grayscale8);
    EXPECT_TRUE(pMain->status().contains("running, 640 x 480, colour")) << qPrintable(pMain->status());

    // Stop and start again from the panel's button.
    click(pWindow.get(), "btnRunSlaver");
    EXPECT_FALSE(api->IsStartedSlaver());
    click(pWindow.get(), "btnRunSlaver");
    EXPECT_TRUE(api->IsStartedSlaver());
}

TEST_F(Viewer, AdoptsTheDialogsResultBySettingAndReconnecting)
{
    KavrelInterface* api = KavrelInterface::getInstance();
    whenModal([](QDialog* pDlg) {
        child<QComboBox>(pDlg, "cmbPixelType")->setCurrentIndex(0);
        type(pDlg, "edtROIWidth", "320");
        type(pDlg, "edtROIHeight", "240");
        click(pDlg, "btnOK");
    });
    click(pWindow.get(), "btnConfigureMain");
    CameraPanel* pMain = pWindow->panel(CameraPanel::Main);
    const QString strResult = pMain->configText();
    EXPECT_TRUE(strResult.startsWith("<PixFmt>0</PixFmt><ROI>320,240</ROI>")) << qPrintable(strResult);
    // The library restarted the camera with the old configuration.
    EXPECT_TRUE(api->IsStartedMain());
    EXPECT_STREQ(api->getConfigStringMain(), gszViewerDefaultMain);

    click(pWindow.get(), "btnAdoptMain");
    EXPECT_EQ(QString::fromUtf8(api->getConfigStringMain()), strResult);
    EXPECT_TRUE(api->IsStartedMain());
    const int nShown = pMain->framesShown();
    EXPECT_TRUE(waitFor([&] { return pMain->framesShown() > nShown; }));
    EXPECT_EQ(pMain->view()->image().format(), QImage::Format_Grayscale8);
}

TEST_F(Viewer, CancelKeepsTheTextAndApplyNeedsARunningCamera)
{
    KavrelInterface* api = KavrelInterface::getInstance();
    CameraPanel* pSlaver = pWindow->panel(CameraPanel::Slaver);
    whenModal([](QDialog* pDlg) { click(pDlg, "btnCancel"); });
    click(pWindow.get(), "btnConfigureSlaver");
    EXPECT_EQ(pSlaver->configText(), QString::fromLatin1(gszViewerDefaultSlaver));
    EXPECT_TRUE(pSlaver->status().contains("cancelled"));

    click(pWindow.get(), "btnApplySlaver");
    EXPECT_TRUE(pSlaver->status().contains("applied")) << qPrintable(pSlaver->status());
    click(pWindow.get(), "btnRunSlaver");
    ASSERT_FALSE(api->IsStartedSlaver());
    click(pWindow.get(), "btnApplySlaver");
    EXPECT_TRUE(pSlaver->status().contains("not applied")) << qPrintable(pSlaver->status());
}

} // namespace
