// The dialog as built from its Designer file: initial states, and the
// generated retranslation with the English translation shipped with it.

#include "dialogtest.h"

#include "dialog/webcamconfigdlg.h"
#include "ui_webcamconfigdlg.h"

using Layout = SimTest;

TEST_F(Layout, StatesAfterConstruction)
{
    WebCamConfigDlg dlg("");
    for (const char* szOn : {"btnClick", "btnOpenCCD", "btnApply", "btnOK", "btnCancel", "cmbPixelType",
                             "cmbTriggerMode", "edtGamma", "rbInit", "rbScaled"})
        EXPECT_TRUE(enabled(&dlg, szOn)) << szOn;
    // The white-balance controls go with their group, which only a colour pixel type enables.
    for (const char* szOff : {"btnCloseCCD", "grpAWB", "sldWBR", "sldWBB", "btnAutoWB", "chkWhitePlane"})
        EXPECT_FALSE(enabled(&dlg, szOff)) << szOff;
    for (int nType : {1, 0}) {
        child<QComboBox>(&dlg, "cmbPixelType")->setCurrentIndex(nType);
        EXPECT_EQ(enabled(&dlg, "btnAutoWB"), nType == 1);
    }
    EXPECT_TRUE(child<QRadioButton>(&dlg, "rbScaled")->isChecked());
    EXPECT_EQ(child<QComboBox>(&dlg, "cmbTriggerMode")->currentText(), u8"视频模式");
    // The preview sits in the dialog below the three groups and takes the rest of the height.
    dlg.show();
    EXPECT_GT(child<QWidget>(&dlg, "WebCamCfgViewForm")->height(), 300);
}

TEST(GeneratedLayout, KeepsAGivenNameAndRetranslatesWithoutDuplicatingItems)
{
    QDialog named;
    named.setObjectName("host");
    Ui_WebCamConfigDlg ui;
    ui.setupUi(&named);
    EXPECT_EQ(named.objectName(), "host");
    ui.cmbTriggerMode->setCurrentIndex(2);
    QTranslator cEnglish;
    ASSERT_TRUE(cEnglish.load("kavrel_en", KAVREL_TEST_TRANSLATIONS_DIR));
    QCoreApplication::installTranslator(&cEnglish);
    ui.retranslateUi(&named);
    ui.retranslateUi(&named);
    QCoreApplication::removeTranslator(&cEnglish);
    EXPECT_EQ(ui.cmbTriggerMode->count(), 3);
    EXPECT_EQ(ui.cmbPixelType->count(), 2);
    EXPECT_EQ(ui.cmbTriggerMode->itemText(1), "Software");
    EXPECT_EQ(ui.cmbTriggerMode->currentIndex(), 0); // the lists were cleared and refilled
    EXPECT_EQ(ui.btnOpenCCD->text(), "Open");
    // The dialog reads its initial edit texts as numbers: they are not translated.
    EXPECT_EQ(ui.edtGamma->text(), "1.0");
}
