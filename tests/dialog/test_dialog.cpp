// The dialog's behaviour over the simulated camera: loading a configuration
// string, OK, Cancel and close, open and close, the region edits and the
// live preview.

#include "dialogtest.h"

#include "dialog/webcamconfigdlg.h"

using Dialog = SimTest;

// The widgets a configuration string fills, in one line: pixel type, width,
// height, trigger, the R, G, B sliders, gamma, exposure, gain.
static QString widgets(QWidget* p)
{
    QStringList lst{QString::number(child<QComboBox>(p, "cmbPixelType")->currentIndex()), text(p, "edtROIWidth"),
                    text(p, "edtROIHeight"), QString::number(child<QComboBox>(p, "cmbTriggerMode")->currentIndex())};
    for (int n : sliders(p))
        lst << QString::number(n);
    return (lst << text(p, "edtGamma") << text(p, "edtExposure") << text(p, "edtGain")).join('|');
}

// Which of open, close, pixel type, trigger mode and trigger button are enabled.
static QString switches(QWidget* p)
{
    QString str;
    for (const char* sz : {"btnOpenCCD", "btnCloseCCD", "cmbPixelType", "cmbTriggerMode", "btnClick"})
        str += enabled(p, sz) ? '1' : '0';
    return str;
}

TEST_F(Dialog, LoadsTheConfigurationStringIntoTheWidgets)
{
    const std::pair<const char*, const char*> cases[] = {
        // Nothing to load: the layout's texts stay.
        {"", "0|0|0|0|0|0|0|1.0|0|1.0"},
        {"<PixFmt>1</PixFmt><ROI>1280,960</ROI><Settings><Gamma>0.80</Gamma><Gain>12</Gain><Exposure>20000"
         "</Exposure><WhiteBalance>1.20,1.00,1.35</WhiteBalance><TriggerType>soft</TriggerType></Settings>",
         "1|1280|960|1|120|100|135|0.80|20000|12"},
        // Tags ignore case; bodies are taken as they stand.
        {"<pixfmt>1</PIXFMT><roi> 64,48</ROI><settings><TriggerType>HARD</TriggerType></SETTINGS>",
         "1| 64|48|2|100|100|100|0.00|0|0"},
        // Codes beyond the list leave "Gray8"; only the two-value region is taken.
        {"<PixFmt>2</PixFmt><ROI>0,0,640,480</ROI>", "0|0|0|0|100|100|100|0.00|0|0"},
        // A negative code leaves no current item; gains beyond the sliders show at the ends.
        {"<PixFmt>-1</PixFmt><Settings><WhiteBalance>3.5,-1,1e30</WhiteBalance></Settings>",
         "-1|0|0|0|200|0|200|0.00|0|0"},
    };
    for (const auto& c : cases) {
        WebCamConfigDlg dlg(QString::fromUtf8(c.first));
        EXPECT_EQ(widgets(&dlg), c.second) << c.first;
        EXPECT_EQ(enabled(&dlg, "grpAWB"), QString(c.second).startsWith("1|")) << c.first;
    }
}

TEST_F(Dialog, OkWritesWhatWasEnteredWithGammaLimited)
{
    // A new dialog reads back what OK wrote; gamma is limited to 0.01 .. 10 and
    // the edit shows the value written.
    for (const auto& c : {std::make_pair("0", "0.01"), {"25", "10.00"}, {"abc", "0.01"}, {" 0.456 ", "0.46"}}) {
        WebCamConfigDlg dlg("");
        dlg.show();
        child<QComboBox>(&dlg, "cmbPixelType")->setCurrentIndex(1);
        child<QComboBox>(&dlg, "cmbTriggerMode")->setCurrentIndex(2);
        for (const auto& e : {std::make_pair("edtROIWidth", "320"), {"edtROIHeight", "240"},
                              {"edtExposure", "1500"}, {"edtGain", "7"}, {"edtGamma", c.first}})
            type(&dlg, e.first, e.second);
        child<QSlider>(&dlg, "sldWBR")->setValue(125);
        child<QSlider>(&dlg, "sldWBB")->setValue(83);
        click(&dlg, "btnOK");
        EXPECT_EQ(dlg.result(), QDialog::Accepted);
        EXPECT_EQ(text(&dlg, "edtGamma"), c.second);
        EXPECT_TRUE(dlg.getConfigString().startsWith("<PixFmt>1</PixFmt><ROI>320,240</ROI><Settings>"));
        WebCamConfigDlg reread(dlg.getConfigString());
        EXPECT_EQ(widgets(&reread), QString("1|320|240|2|125|0|83|%1|1500|7").arg(c.second));
    }
}

TEST_F(Dialog, CancelAnswersEmptyAndClosingAnswersTheInput)
{
    const QString strInput = "<PixFmt>1</PixFmt><ROI>640,480</ROI><CCDPos>0</CCDPos>";
    for (bool bCancel : {true, false}) {
        WebCamConfigDlg dlg(strInput);
        dlg.show();
        type(&dlg, "edtGain", "9");
        bCancel ? click(&dlg, "btnCancel") : (void)dlg.close();
        EXPECT_EQ(dlg.result(), QDialog::Rejected);
        EXPECT_EQ(dlg.getConfigString(), bCancel ? QString() : strInput);
    }
}

TEST_F(Dialog, OpenAndCloseSwitchTheControlsAndTheTrigger)
{
    for (int nMode : {0, 1, 2}) {
        torvanesim_reset();
        {
            WebCamConfigDlg dlg("");
            dlg.show();
            child<QComboBox>(&dlg, "cmbTriggerMode")->setCurrentIndex(nMode);
            click(&dlg, "btnOpenCCD");
            EXPECT_EQ(torvanesim_open_count(), 1);
            // The trigger button only in software trigger mode, one trigger per press.
            EXPECT_EQ(switches(&dlg), nMode == 1 ? "01001" : "01000") << nMode;
            click(&dlg, "btnClick");
            click(&dlg, "btnClick");
            EXPECT_EQ(torvanesim_trigger_calls(), nMode == 1 ? 2 : 0);
            click(&dlg, "btnCloseCCD");
            EXPECT_EQ(torvanesim_open_count(), 0);
            EXPECT_EQ(switches(&dlg), "10110");
            click(&dlg, "btnOpenCCD"); // left open for the dialog to close when it goes
        }
        EXPECT_EQ(torvanesim_open_count(), 0);
        EXPECT_EQ(torvanesim_init_calls(), 2);
    }
}

TEST_F(Dialog, FailedOpenShowsTheCamerasMessageAndCanBeRetried)
{
    WebCamConfigDlg dlg("");
    dlg.show();
    torvanesim_set_next_init_result(3);
    click(&dlg, "btnOpenCCD");
    EXPECT_EQ(text(&dlg, "lblLastErr"), "No camera is exists!");
    EXPECT_EQ(switches(&dlg), "10111");
    click(&dlg, "btnOpenCCD");
    EXPECT_EQ(torvanesim_open_count(), 1);
    EXPECT_EQ(switches(&dlg), "01000");
}

TEST_F(Dialog, OpenShowsTheRegionAndSettingsTheCameraSettledOn)
{
    torvanesim_set_sensor(1280, 960, 3);
    // 0 or less is the maximum, widths round up to multiples of 4; a refused size
    // shows 0 and the camera's message, and the open goes on.
    const char* const cases[][4] = {{"0", "0", "1280|960", ""}, {"641", "479", "644|480", ""},
                                    {"-5", "480", "1280|480", ""}, {"abc", "64", "1280|64", ""},
                                    {"640", "480", "0|0", "Set Camera resolution failed!"}};
    for (const auto& c : cases) {
        torvanesim_fail_set_window_size(*c[3] != 0);
        WebCamConfigDlg dlg("");
        dlg.show();
        type(&dlg, "edtROIWidth", c[0]);
        type(&dlg, "edtROIHeight", c[1]);
        click(&dlg, "btnOpenCCD");
        EXPECT_EQ(text(&dlg, "edtROIWidth") + "|" + text(&dlg, "edtROIHeight"), c[2]) << c[0];
        EXPECT_EQ(text(&dlg, "lblLastErr"), c[3]);
        EXPECT_TRUE(enabled(&dlg, "btnCloseCCD"));
    }
    torvanesim_fail_set_window_size(0);

    // Loaded settings reach the camera; without any it keeps its own. Apply sends
    // the edits and shows what the camera holds (gamma limited there).
    {
        WebCamConfigDlg loaded("<Settings><Exposure>1234</Exposure><Gamma>1.00</Gamma></Settings>");
        loaded.show();
        click(&loaded, "btnOpenCCD");
    }
    WebCamConfigDlg dlg("");
    dlg.show();
    click(&dlg, "btnOpenCCD");
    EXPECT_EQ(text(&dlg, "edtExposure"), "1234");
    type(&dlg, "edtGamma", "50");
    click(&dlg, "btnApply");
    EXPECT_EQ(text(&dlg, "edtGamma"), "10.00");
}

TEST_F(Dialog, PreviewPaintsTheCamerasFrames)
{
    WebCamConfigDlg dlg("<PixFmt>1</PixFmt><Settings><Gamma>1.00</Gamma></Settings>");
    dlg.show();
    QWidget* pView = child<QWidget>(&dlg, "WebCamCfgViewForm");
    const auto pixel = [pView](int x, int y) { return pView->grab().toImage().pixelColor(x, y); };
    const QColor cWhite(Qt::white);
    EXPECT_EQ(pixel(5, 5), cWhite);

    // Unscaled, frames of changing size (the hand-over buffer grows, then is
    // reused) show at their own size in the top-left corner, one poll tick each.
    // Bytes are in the camera's order: "BGR" shows w, 20, 10 as red 10, green 20, blue w.
    QTest::mouseClick(child<QAbstractButton>(&dlg, "rbInit"), Qt::LeftButton);
    click(&dlg, "btnOpenCCD");
    for (int w : {20, 60, 8, 64}) {
        const int h = w * 3 / 4;
        std::vector<unsigned char> frame;
        for (int i = 0; i < w * h; ++i)
            frame.insert(frame.end(), {static_cast<unsigned char>(w), 20, 10});
        torvanesim_queue_frame(w, h, 3, frame.data());
        QTimerEvent cTick(0);
        QCoreApplication::sendEvent(&dlg, &cTick);
        EXPECT_EQ(pixel(w - 1, h - 1), QColor(10, 20, w)) << w;
        EXPECT_EQ(pixel(w, h - 1), cWhite);
        EXPECT_EQ(pixel(w - 1, h), cWhite);
    }

    // Scaled, the 200 ms poll brings the next frames in over the whole view.
    QTest::mouseClick(child<QAbstractButton>(&dlg, "rbScaled"), Qt::LeftButton);
    const std::vector<unsigned char> frame(64 * 48 * 3, 90);
    for (int i = 0; i < 100; ++i)
        torvanesim_queue_frame(64, 48, 3, frame.data());
    const QPoint cLast(pView->width() - 1, pView->height() - 1);
    EXPECT_TRUE(waitFor([&] { return pixel(0, 0) == QColor(90, 90, 90) && pixel(cLast.x(), cLast.y()) == QColor(90, 90, 90); }));

    // Closed, the poll stops.
    click(&dlg, "btnCloseCCD");
    const unsigned int nDelivered = torvanesim_frames_delivered();
    QTest::qWait(450);
    EXPECT_EQ(torvanesim_frames_delivered(), nDelivered);
}
