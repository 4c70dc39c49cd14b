// The viewer program's window, driven through its buttons: both cameras live,
// the dialog for a panel, and adopting its result.

#include "dialogtest.h"

#include "viewerwindow.h"

using Viewer = SimTest;

TEST_F(Viewer, ShowsBothCamerasConfiguresAPanelAndAdoptsTheResult)
{
    KavrelInterface* api = KavrelInterface::getInstance();
    torvanesim_set_sensor(1280, 960, 3);
    ViewerWindow window(gszViewerDefaultMain, gszViewerDefaultSlaver);
    window.show();
    window.startAll();
    CameraPanel* pMain = window.panel(CameraPanel::Main);
    CameraPanel* pSlaver = window.panel(CameraPanel::Slaver);
    EXPECT_TRUE(waitFor([&] { return pMain->framesShown() > 2 && pSlaver->framesShown() > 2; }));
    EXPECT_EQ(pMain->view()->image().format(), QImage::Format_BGR888);

    whenModal([](QDialog* pDlg) {
        child<QComboBox>(pDlg, "cmbPixelType")->setCurrentIndex(0);
        type(pDlg, "edtROIWidth", "320");
        type(pDlg, "edtROIHeight", "240");
        click(pDlg, "btnOK");
    });
    click(&window, "btnConfigureMain");
    const QString strResult = pMain->configText();
    EXPECT_TRUE(strResult.startsWith("<PixFmt>0</PixFmt><ROI>320,240</ROI>")) << qPrintable(strResult);
    // Not adopted yet: the library restarted the camera with the old configuration.
    EXPECT_TRUE(api->IsStartedMain());
    EXPECT_STREQ(api->getConfigStringMain(), gszViewerDefaultMain);

    click(&window, "btnAdoptMain");
    EXPECT_EQ(QString::fromUtf8(api->getConfigStringMain()), strResult);
    const int nShown = pMain->framesShown();
    EXPECT_TRUE(waitFor([&] { return pMain->framesShown() > nShown; }));
    EXPECT_EQ(pMain->view()->image().format(), QImage::Format_Grayscale8);
}
