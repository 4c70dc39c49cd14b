// SPDX-License-Identifier: LGPL-2.1-or-later
// The viewer program's window, driven through its buttons: both cameras live,
// the dialog for a panel, and adopting its result.

#include "dialogtest.h"

#include "viewerwindow.h"

using Viewer = SimTest;

TEST_F(Viewer, ShowsBothCamerasConfiguresAPanelAndAdoptsTheResult)
{
    torvanesim_set_sensor(1280, 960, 3);
    ViewerWindow window(gszViewerDefaultMain, gszViewerDefaultSlaver);
    window.show();
    window.startAll();
    CameraPanel* pMain = window.panel(CameraPanel::Main);
    EXPECT_TRUE(waitFor([&] { return pMain->framesShown() > 2 && window.panel(CameraPanel::Slaver)->framesShown(); }));

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
    EXPECT_TRUE(KavrelInterface::getInstance()->IsStartedMain());
    EXPECT_STREQ(KavrelInterface::getInstance()->getConfigStringMain(), gszViewerDefaultMain);

    click(&window, "btnAdoptMain");
    EXPECT_EQ(QString::fromUtf8(KavrelInterface::getInstance()->getConfigStringMain()), strResult);
    const int nShown = pMain->framesShown();
    EXPECT_TRUE(waitFor([&] { return pMain->framesShown() > nShown; }));
    EXPECT_EQ(pMain->view()->image().format(), QImage::Format_Grayscale8);
}
