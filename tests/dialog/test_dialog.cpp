// The dialog's behaviour over the simulated camera: loading a configuration
// string, building one on OK, Cancel and close, open and close, the region
// edits, triggers and the live preview.

#include "dialogtest.h"

#include <QRadioButton>
#include <QTimerEvent>

#include "dialog/webcamconfigdlg.h"

namespace {

using Dialog = SimTest;

struct Loaded {
    const char* szConfig;
    int nPixelType;
    const char* szWidth;
    const char* szHeight;
    int nTrigger;
    std::vector<int> vSliders;
    const char* szGamma;
    const char* szExposure;
    const char* szGain;
};

TEST_F(Dialog, LoadsTheConfigurationStringIntoTheWidgets)
{
    const Loaded cases[] = {
        // Nothing to load: the layout defaults stay.
        {"", 0, "0", "0", 0, {0, 0, 0}, "1.0", "0", "1.0"},
        // No <Settings>: the record read from an empty text.
        {"<ROI>640,480</ROI>", 0, "640", "480", 0, {100, 100, 100}, "0.00", "0", "0"},
        // Only the two-value region is taken.
        {"<ROI>0,0,640,480</ROI>", 0, "0", "0", 0, {100, 100, 100}, "0.00", "0", "0"},
        {"<PixFmt>1</PixFmt><ROI>1280,960</ROI><Settings><Gamma>0.80</Gamma><Gain>12</Gain>"
         "<Exposure>20000</Exposure><WhiteBalance>1.20,1.00,1.35</WhiteBalance>"
         "<TriggerType>soft</TriggerType></Settings>",
         1, "1280", "960", 1, {120, 100, 135}, "0.80", "20000", "12"},
        // Tags ignore case; bodies are taken as they stand.
        {"<pixfmt>1</PIXFMT><roi> 64,48</ROI><settings><TriggerType>HARD</TriggerType></SETTINGS>", 1, " 64",
         "48", 2, {100, 100, 100}, "0.00", "0", "0"},
        // Codes beyond the list leave "Gray8"; a negative one leaves no current item.
        {"<PixFmt>2</PixFmt>", 0, "0", "0", 0, {100, 100, 100}, "0.00", "0", "0"},
        {"<PixFmt>-1</PixFmt>", -1, "0", "0", 0, {100, 100, 100}, "0.00", "0", "0"},
        // Gains beyond the sliders are shown at the ends.
        {"<Settings><WhiteBalance>3.5,-1,1e30</WhiteBalance></Settings>", 0, "0", "0", 0, {200, 0, 200}, "0.00",
         "0", "0"},
    };
    for (const Loaded& c : cases) {
        SCOPED_TRACE(c.szConfig);
        WebCamConfigDlg dlg(QString::fromUtf8(c.szConfig));
        EXPECT_EQ(child<QComboBox>(&dlg, "cmbPixelType")->currentIndex(), c.nPixelType);
        EXPECT_EQ(text(&dlg, "edtROIWidth"), c.szWidth);
        EXPECT_EQ(text(&dlg, "edtROIHeight"), c.szHeight);
        EXPECT_EQ(child<QComboBox>(&dlg, "cmbTriggerMode")->currentIndex(), c.nTrigger);
        EXPECT_EQ(sliders(&dlg), c.vSliders);
        EXPECT_EQ(text(&dlg, "edtGamma"), c.szGamma);
        EXPECT_EQ(text(&dlg, "edtExposure"), c.szExposure);
        EXPECT_EQ(text(&dlg, "edtGain"), c.szGain);
        // White balance is reachable exactly for the colour pixel type.
        EXPECT_EQ(enabled(&dlg, "grpAWB"), c.nPixelType == 1);
    }
}

TEST_F(Dialog, OkBuildsTheConfigurationStringFromTheWidgets)
{
    WebCamConfigDlg dlg("");
    dlg.show();
    click(&dlg, "btnOK");
    EXPECT_EQ(dlg.result(), QDialog::Accepted);
    EXPECT_EQ(dlg.getConfigString(),
              "<PixFmt>0</PixFmt><ROI>0,0</ROI><Settings><HardTriggerSource>0</HardTriggerSource>"
              "<Brightness>0</Brightness><Sharpness>0</Sharpness><Hue>0</Hue><Saturation>0</Saturation>"
              "<Gamma>1.00</Gamma><Gain>0</Gain><Exposure>0</Exposure><WhiteBalance>0.00,0.00,0.00</WhiteBalance>"
              "<AutoExposure>false</AutoExposure><TriggerType>Video</TriggerType></Settings>");

    // What an operator enters survives the round trip through a new dialog.
    WebCamConfigDlg edited("");
    edited.show();
    child<QComboBox>(&edited, "cmbPixelType")->setCurrentIndex(1);
    child<QComboBox>(&edited, "cmbTriggerMode")->setCurrentIndex(2);
    type(&edited, "edtROIWidth", "320");
    type(&edited, "edtROIHeight", "240");
    type(&edited, "edtExposure", "1500");
    type(&edited, "edtGain", "7");
    type(&edited, "edtGamma", "2.5");
    child<QSlider>(&edited, "sldWBR")->setValue(125);
    child<QSlider>(&edited, "sldWBG")->setValue(100);
    child<QSlider>(&edited, "sldWBB")->setValue(83);
    click(&edited, "btnOK");
    const QString strResult = edited.getConfigString();
    EXPECT_TRUE(strResult.startsWith("<PixFmt>1</PixFmt><ROI>320,240</ROI><Settings>")) << qPrintable(strResult);
    for (const char* szPart : {"<Gamma>2.50</Gamma>", "<Gain>7</Gain>", "<Exposure>1500</Exposure>",
                               "<WhiteBalance>1.25,1.00,0.83</WhiteBalance>", "<TriggerType>Hard</TriggerType>"})
        EXPECT_TRUE(strResult.contains(szPart)) << szPart;

    WebCamConfigDlg reread(strResult);
    EXPECT_EQ(child<QComboBox>(&reread, "cmbPixelType")->currentIndex(), 1);
    EXPECT_EQ(child<QComboBox>(&reread, "cmbTriggerMode")->currentIndex(), 2);
    EXPECT_EQ(sliders(&reread), (std::vector<int>{125, 100, 83}));
    EXPECT_EQ(text(&reread, "edtROIWidth"), "320");
}

TEST_F(Dialog, OkLimitsGammaAndShowsTheValueWritten)
{
    const struct {
        const char* szTyped;
        const char* szWritten;
    } cases[] = {{"0", "0.01"}, {"25", "10.00"}, {"abc", "0.01"}, {"", "0.01"}, {" 0.456 ", "0.46"}, {"10", "10.00"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szTyped);
        WebCamConfigDlg dlg("");
        dlg.show();
        type(&dlg, "edtGamma", c.szTyped);
        click(&dlg, "btnOK");
        EXPECT_TRUE(dlg.getConfigString().contains(QString("<Gamma>%1</Gamma>").arg(c.szWritten)));
        EXPECT_EQ(text(&dlg, "edtGamma"), c.szWritten);
    }
}

TEST_F(Dialog, CancelAnswersEmptyAndClosingAnswersTheInput)
{
    const QString strInput = "<PixFmt>1</PixFmt><ROI>640,480</ROI><CCDPos>0</CCDPos>";
    {
        WebCamConfigDlg dlg(strInput);
        dlg.show();
        type(&dlg, "edtGain", "9");
        click(&dlg, "btnCancel");
        EXPECT_EQ(dlg.result(), QDialog::Rejected);
        EXPECT_TRUE(dlg.getConfigString().isEmpty());
    }
    for (bool bEscape : {false, true}) {
        WebCamConfigDlg dlg(strInput);
        dlg.show();
        type(&dlg, "edtGain", "9");
        if (bEscape)
            QTest::keyClick(&dlg, Qt::Key_Escape);
        else
            dlg.close();
        EXPECT_FALSE(dlg.isVisible());
        EXPECT_EQ(dlg.getConfigString(), strInput);
    }
}

TEST_F(Dialog, OpenAndCloseSwitchTheControls)
{
    WebCamConfigDlg dlg("");
    dlg.show();
    click(&dlg, "btnOpenCCD");
    EXPECT_EQ(torvanesim_open_count(), 1);
    EXPECT_EQ(text(&dlg, "lblLastErr"), "");
    for (const char* szOff : {"btnOpenCCD", "cmbPixelType", "cmbTriggerMode", "btnClick"})
        EXPECT_FALSE(enabled(&dlg, szOff)) << szOff;
    for (const char* szOn : {"btnCloseCCD", "btnApply", "btnOK", "btnCancel", "edtGamma", "rbInit"})
        EXPECT_TRUE(enabled(&dlg, szOn)) << szOn;

    // Pressing the disabled open button again does nothing.
    click(&dlg, "btnOpenCCD");
    EXPECT_EQ(torvanesim_init_calls(), 1);

    click(&dlg, "btnCloseCCD");
    EXPECT_EQ(torvanesim_open_count(), 0);
    for (const char* szOn : {"btnOpenCCD", "cmbPixelType", "cmbTriggerMode"})
        EXPECT_TRUE(enabled(&dlg, szOn)) << szOn;
    for (const char* szOff : {"btnCloseCCD", "btnClick"})
        EXPECT_FALSE(enabled(&dlg, szOff)) << szOff;

    // Open again, and leave it open: the dialog closes the camera when it goes.
    click(&dlg, "btnOpenCCD");
    EXPECT_EQ(torvanesim_open_count(), 1);
    EXPECT_EQ(torvanesim_init_calls(), 2);
}

TEST_F(Dialog, DestroyingAnOpenDialogClosesTheCamera)
{
    {
        WebCamConfigDlg dlg("");
        dlg.show();
        click(&dlg, "btnOpenCCD");
        ASSERT_EQ(torvanesim_open_count(), 1);
    }
    EXPECT_EQ(torvanesim_open_count(), 0);
}

TEST_F(Dialog, FailedOpenShowsTheCamerasMessageAndCanBeRetried)
{
    WebCamConfigDlg dlg("");
    dlg.show();
    torvanesim_set_next_init_result(3);
    click(&dlg, "btnOpenCCD");
    EXPECT_EQ(text(&dlg, "lblLastErr"), "No camera is exists!");
    EXPECT_TRUE(enabled(&dlg, "btnOpenCCD"));
    EXPECT_FALSE(enabled(&dlg, "btnCloseCCD"));
    EXPECT_EQ(torvanesim_open_count(), 0);

    click(&dlg, "btnOpenCCD");
    EXPECT_EQ(torvanesim_open_count(), 1);
    EXPECT_TRUE(enabled(&dlg, "btnCloseCCD"));
    // Nothing clears an old message.
    EXPECT_EQ(text(&dlg, "lblLastErr"), "No camera is exists!");
}

TEST_F(Dialog, RegionEditsShowTheSizeTheCameraSettledOn)
{
    torvanesim_set_sensor(1280, 960, 3);
    const struct {
        const char* szWidth;
        const char* szHeight;
        const char* szGotWidth;
        const char* szGotHeight;
    } cases[] = {{"0", "0", "1280", "960"}, {"641", "479", "644", "480"}, {"-5", "480", "1280", "480"},
                 {"abc", "64", "1280", "64"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szWidth);
        WebCamConfigDlg dlg("");
        dlg.show();
        type(&dlg, "edtROIWidth", c.szWidth);
        type(&dlg, "edtROIHeight", c.szHeight);
        click(&dlg, "btnOpenCCD");
        EXPECT_EQ(text(&dlg, "edtROIWidth"), c.szGotWidth);
        EXPECT_EQ(text(&dlg, "edtROIHeight"), c.szGotHeight);
    }

    // A size the camera refuses: both edits go to "0", the message shows, and the open goes on.
    torvanesim_fail_set_window_size(1);
    WebCamConfigDlg dlg("");
    dlg.show();
    type(&dlg, "edtROIWidth", "640");
    click(&dlg, "btnOpenCCD");
    EXPECT_EQ(text(&dlg, "edtROIWidth"), "0");
    EXPECT_EQ(text(&dlg, "edtROIHeight"), "0");
    EXPECT_EQ(text(&dlg, "lblLastErr"), "Set Camera resolution failed!");
    EXPECT_TRUE(enabled(&dlg, "btnCloseCCD"));
}

TEST_F(Dialog, OpenSendsTheLoadedSettingsOrKeepsTheCamerasOwn)
{
    {
        WebCamConfigDlg dlg("<Settings><Exposure>1234</Exposure><Gain>5</Gain><Gamma>1.00</Gamma></Settings>");
        dlg.show();
        click(&dlg, "btnOpenCCD");
        // The camera's read-back settings come back into the edits.
        EXPECT_EQ(text(&dlg, "edtExposure"), "1234");
        EXPECT_EQ(text(&dlg, "edtGain"), "5");
        EXPECT_EQ(text(&dlg, "edtGamma"), "1.00");
        // The sliders at 1.00 reach the camera and come back unchanged.
        EXPECT_EQ(sliders(&dlg), (std::vector<int>{100, 100, 100}));
    }
    {
        // Nothing loaded: the camera keeps its own settings, here the exposure
        // that the first dialog left in it.
        WebCamConfigDlg dlg("");
        dlg.show();
        click(&dlg, "btnOpenCCD");
        EXPECT_EQ(text(&dlg, "edtExposure"), "1234");
        EXPECT_EQ(text(&dlg, "edtGamma"), "1.00");
        EXPECT_EQ(sliders(&dlg), (std::vector<int>{100, 100, 100}));

        // Apply sends the edits and shows what the camera holds (gamma limited there).
        type(&dlg, "edtExposure", "777");
        type(&dlg, "edtGamma", "50");
        click(&dlg, "btnApply");
        EXPECT_EQ(text(&dlg, "edtExposure"), "777");
        EXPECT_EQ(text(&dlg, "edtGamma"), "10.00");
    }
}

TEST_F(Dialog, TriggerButtonFiresOneSoftwareTriggerPerPressInSoftwareModeOnly)
{
    const struct {
        int nMode;
        bool bEnabled;
    } cases[] = {{0, false}, {1, true}, {2, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.nMode);
        torvanesim_reset();
        WebCamConfigDlg dlg("");
        dlg.show();
        child<QComboBox>(&dlg, "cmbTriggerMode")->setCurrentIndex(c.nMode);
        click(&dlg, "btnOpenCCD");
        EXPECT_EQ(enabled(&dlg, "btnClick"), c.bEnabled);
        click(&dlg, "btnClick");
        click(&dlg, "btnClick");
        EXPECT_EQ(torvanesim_trigger_calls(), c.bEnabled ? 2 : 0);
    }
}

TEST_F(Dialog, PreviewShowsTheCameraLiveAndHonoursTheScaling)
{
    // Bytes 10, 20, 30 in the camera's order: "BGR" shows red 30, green 20, blue 10.
    const std::vector<unsigned char> frame = uniformFrame(64, 48, 10, 20, 30);
    WebCamConfigDlg dlg("<PixFmt>1</PixFmt><Settings><Gamma>1.00</Gamma></Settings>");
    dlg.show();
    const QColor cWhite(Qt::white);
    EXPECT_EQ(previewPicture(&dlg).pixelColor(5, 5), cWhite);

    click(&dlg, "btnOpenCCD");
    for (int i = 0; i < 100; ++i)
        torvanesim_queue_frame(64, 48, 3, frame.data());
    // The 200 ms poll brings the frames in without anything else happening.
    const QColor cFrame(30, 20, 10);
    EXPECT_TRUE(waitFor([&] { return previewPicture(&dlg).pixelColor(1, 1) == cFrame; }));
    QImage cPicture = previewPicture(&dlg);
    EXPECT_EQ(cPicture.pixelColor(cPicture.width() - 2, cPicture.height() - 2), cFrame);

    // "原始": the frame at its own size in the top-left corner, white around it.
    QTest::mouseClick(child<QRadioButton>(&dlg, "rbInit"), Qt::LeftButton);
    EXPECT_TRUE(child<QRadioButton>(&dlg, "rbInit")->isChecked());
    cPicture = previewPicture(&dlg);
    EXPECT_EQ(cPicture.pixelColor(63, 47), cFrame);
    EXPECT_EQ(cPicture.pixelColor(64, 47), cWhite);
    EXPECT_EQ(cPicture.pixelColor(63, 48), cWhite);

    // Closed, the poll stops: queued frames stay in the camera.
    click(&dlg, "btnCloseCCD");
    const unsigned int nDelivered = torvanesim_frames_delivered();
    QTest::qWait(450);
    EXPECT_EQ(torvanesim_frames_delivered(), nDelivered);
}

// One tick of the preview poll, without waiting for the timer.
void tick(QDialog& dlg)
{
    QTimerEvent cTick(0);
    QCoreApplication::sendEvent(&dlg, &cTick);
}

TEST_F(Dialog, PreviewFollowsFramesOfChangingSize)
{
    WebCamConfigDlg dlg("");
    dlg.show();
    child<QRadioButton>(&dlg, "rbInit")->click();
    click(&dlg, "btnOpenCCD");
    // Grey pixel type: one byte per pixel, shown as three equal bytes. Each
    // frame needs a larger hand-over buffer than the one before.
    const struct {
        int nWidth;
        int nHeight;
        unsigned char nGrey;
    } frames[] = {{20, 10, 90}, {60, 40, 200}, {8, 4, 30}, {64, 48, 140}};
    for (const auto& f : frames) {
        SCOPED_TRACE(f.nWidth);
        const std::vector<unsigned char> bytes(static_cast<size_t>(f.nWidth) * f.nHeight, f.nGrey);
        torvanesim_queue_frame(f.nWidth, f.nHeight, 1, bytes.data());
        tick(dlg);
        const QImage cPicture = previewPicture(&dlg);
        EXPECT_EQ(cPicture.pixelColor(f.nWidth - 1, f.nHeight - 1), QColor(f.nGrey, f.nGrey, f.nGrey));
        EXPECT_EQ(cPicture.pixelColor(f.nWidth, f.nHeight - 1), QColor(Qt::white));
        EXPECT_EQ(cPicture.pixelColor(f.nWidth - 1, f.nHeight), QColor(Qt::white));
    }
}

TEST_F(Dialog, WhiteBalanceGroupFollowsThePixelType)
{
    WebCamConfigDlg dlg("");
    QComboBox* pType = child<QComboBox>(&dlg, "cmbPixelType");
    pType->setCurrentIndex(1);
    EXPECT_TRUE(enabled(&dlg, "grpAWB"));
    EXPECT_TRUE(enabled(&dlg, "btnAutoWB"));
    pType->setCurrentIndex(0);
    EXPECT_FALSE(enabled(&dlg, "grpAWB"));
    EXPECT_TRUE(enabled(&dlg, "edtGamma"));
}

} // namespace
