// SPDX-License-Identifier: LGPL-2.1-or-later
// The live preview redraws itself: each frame the dialog's poll copies is
// painted without anything else asking for a repaint.

#include "dialogtest.h"

#include "dialog/webcamconfigdlg.h"

namespace {

class PaintCounter : public QObject {
public:
    int nPaints = 0;

protected:
    bool eventFilter(QObject*, QEvent* pEvent) override
    {
        nPaints += pEvent->type() == QEvent::Paint;
        return false;
    }
};

} // namespace

using Dialog = SimTest;

TEST_F(Dialog, PreviewRepaintsItselfForNewFrames)
{
    WebCamConfigDlg dlg("<PixFmt>1</PixFmt>");
    dlg.show();
    QWidget* pView = child(&dlg, "WebCamCfgViewForm");
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&dlg));
    PaintCounter cCounter;
    pView->installEventFilter(&cCounter);
    click(&dlg, "btnOpenCCD");
    cCounter.nPaints = 0;
    // The poll runs every 200 ms and the simulated camera always has a frame.
    EXPECT_TRUE(waitFor([&] { return cCounter.nPaints >= 2; })) << cCounter.nPaints << " repaints";
    click(&dlg, "btnCloseCCD");
}
