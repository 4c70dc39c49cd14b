// SPDX-License-Identifier: LGPL-2.1-or-later
// The dialog as built from its Designer file: initial states, and the
// generated retranslation with the English translation shipped with it.

#include "dialogtest.h"

#include "dialog/webcamconfigdlg.h"
#include "ui_webcamconfigdlg.h"

TEST(Layout, StatesAfterConstruction)
{
    WebCamConfigDlg dlg("");
    // No camera is open yet: one can be opened, none closed.
    EXPECT_TRUE(enabled(&dlg, "btnOpenCCD"));
    EXPECT_FALSE(enabled(&dlg, "btnCloseCCD"));
    // The white-balance controls go with their group, which only a colour pixel type enables.
    for (int nType : {0, 1, 0}) {
        child<QComboBox>(&dlg, "cmbPixelType")->setCurrentIndex(nType);
        for (const char* sz : {"btnAutoWB", "sldWBR", "chkWhitePlane"})
            EXPECT_EQ(enabled(&dlg, sz), nType == 1) << sz << " " << nType;
    }
    EXPECT_TRUE(child<QRadioButton>(&dlg, "rbScaled")->isChecked());
    // The preview sits in the dialog below the three groups and takes the rest of the height.
    dlg.show();
    EXPECT_GT(child(&dlg, "WebCamCfgViewForm")->height(), 300);
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
    EXPECT_EQ(ui.cmbTriggerMode->currentIndex(), 0); // the lists were cleared and refilled
    // English texts; the initial edit texts are values that the dialog reads, not translated.
    EXPECT_EQ(values(&named, {"cmbTriggerMode", "btnOpenCCD", "edtGamma"}), "0|Open|1.0");
    EXPECT_EQ(ui.cmbTriggerMode->itemText(1), "Software");
}
