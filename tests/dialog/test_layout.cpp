// The dialog as built from its Designer file: names, states and texts, the
// generated retranslation, and the English translation shipped with it.

#include "dialogtest.h"

#include <QCheckBox>
#include <QGroupBox>
#include <QRadioButton>
#include <QTranslator>

#include "dialog/webcamconfigdlg.h"
#include "ui_webcamconfigdlg.h"

namespace {

using Layout = SimTest;

TEST_F(Layout, StatesAfterConstruction)
{
    WebCamConfigDlg dlg("");
    EXPECT_EQ(dlg.objectName(), "WebCamConfigDlg");
    EXPECT_EQ(dlg.windowTitle(), "WebCam");
    EXPECT_EQ(dlg.size(), QSize(650, 700));
    EXPECT_EQ(dlg.minimumSize(), QSize(650, 700));
    EXPECT_EQ(dlg.font().pointSize(), 8);

    for (const char* szOn : {"btnClick", "btnOpenCCD", "btnApply", "btnOK", "btnCancel", "cmbPixelType",
                             "cmbTriggerMode", "edtGamma", "rbInit", "rbScaled"})
        EXPECT_TRUE(enabled(&dlg, szOn)) << szOn;
    for (const char* szOff : {"btnCloseCCD", "grpAWB"})
        EXPECT_FALSE(enabled(&dlg, szOff)) << szOff;
    // The whole white-balance group goes with its box.
    for (const char* szIn : {"sldWBR", "sldWBG", "sldWBB", "btnAutoWB", "chkWhitePlane"}) {
        EXPECT_FALSE(enabled(&dlg, szIn)) << szIn;
        EXPECT_EQ(child<QWidget>(&dlg, szIn)->parent(), child<QGroupBox>(&dlg, "grpAWB")) << szIn;
    }

    EXPECT_TRUE(child<QRadioButton>(&dlg, "rbScaled")->isChecked());
    EXPECT_FALSE(child<QRadioButton>(&dlg, "rbInit")->isChecked());
    EXPECT_FALSE(child<QCheckBox>(&dlg, "chkWhitePlane")->isChecked());
    EXPECT_EQ(child<QComboBox>(&dlg, "cmbTriggerMode")->currentText(), u8"视频模式");
    EXPECT_EQ(child<QComboBox>(&dlg, "cmbPixelType")->currentText(), "Gray8");
    EXPECT_EQ(child<QAbstractButton>(&dlg, "btnOK")->text(), u8"确 定");
    EXPECT_EQ(child<QAbstractButton>(&dlg, "btnCancel")->text(), u8"退 出");
    EXPECT_EQ(child<QGroupBox>(&dlg, "groupBox")->title(), u8"CCD基本设置");
    EXPECT_EQ(text(&dlg, "lblLastErr"), "");
    EXPECT_EQ(text(&dlg, "edtGamma"), "1.0");
    EXPECT_EQ(text(&dlg, "edtGain"), "1.0");
    EXPECT_EQ(sliders(&dlg), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(child<QSlider>(&dlg, "sldWBR")->maximum(), 200);
    EXPECT_EQ(child<QWidget>(&dlg, "btnOpenCCD")->geometry(), QRect(512, 20, 40, 27));
    EXPECT_EQ(child<QWidget>(&dlg, "groupBox_3")->maximumHeight(), 130);

    // The preview sits in the grid below the three groups and takes the rest.
    QWidget* pView = child<QWidget>(&dlg, "WebCamCfgViewForm");
    EXPECT_EQ(pView->parent(), &dlg);
    dlg.show();
    EXPECT_GT(pView->height(), 300);
}

TEST(GeneratedLayout, KeepsAGivenObjectNameAndRetranslatesWithoutDuplicatingItems)
{
    QDialog named;
    named.setObjectName("host");
    Ui_WebCamConfigDlg ui;
    ui.setupUi(&named);
    EXPECT_EQ(named.objectName(), "host");
    EXPECT_EQ(ui.cmbPixelType->currentIndex(), 0);

    ui.cmbTriggerMode->setCurrentIndex(2);
    ui.retranslateUi(&named);
    ui.retranslateUi(&named);
    EXPECT_EQ(ui.cmbTriggerMode->count(), 3);
    EXPECT_EQ(ui.cmbPixelType->count(), 2);
    EXPECT_EQ(ui.cmbTriggerMode->itemText(2), u8"硬触发");
    EXPECT_EQ(ui.cmbTriggerMode->currentIndex(), 0); // the lists were cleared and refilled

    QDialog unnamed;
    Ui_WebCamConfigDlg ui2;
    ui2.setupUi(&unnamed);
    EXPECT_EQ(unnamed.objectName(), "WebCamConfigDlg");
}

TEST_F(Layout, EnglishTranslationReplacesTheTexts)
{
    QTranslator cEnglish;
    ASSERT_TRUE(cEnglish.load("kavrel_en", KAVREL_TEST_TRANSLATIONS_DIR));
    QCoreApplication::installTranslator(&cEnglish);
    {
        WebCamConfigDlg dlg("");
        EXPECT_EQ(child<QAbstractButton>(&dlg, "btnOpenCCD")->text(), "Open");
        EXPECT_EQ(child<QAbstractButton>(&dlg, "btnOK")->text(), "OK");
        EXPECT_EQ(child<QGroupBox>(&dlg, "grpAWB")->title(), "White balance");
        EXPECT_EQ(child<QComboBox>(&dlg, "cmbTriggerMode")->itemText(1), "Software");
        // Initial texts that are values stay values: the dialog still reads them.
        EXPECT_EQ(text(&dlg, "edtGamma"), "1.0");
        EXPECT_EQ(text(&dlg, "edtROIWidth"), "0");
    }
    QCoreApplication::removeTranslator(&cEnglish);
    WebCamConfigDlg dlg("");
    EXPECT_EQ(child<QAbstractButton>(&dlg, "btnOpenCCD")->text(), u8"开启");
}

} // namespace
