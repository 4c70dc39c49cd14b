// SPDX-License-Identifier: LGPL-2.1-or-later
// The dialog's behaviour over the simulated camera: loading a configuration
// string, OK, Cancel and close, open and close, the region edits, the preview,
// the automatic white balance, and the dialog entered from the API.

#include "dialogtest.h"

#include "dialog/webcamcfgviewform.h"
#include "dialog/webcamconfigdlg.h"

using Dialog = SimTest;

// The widgets that a configuration string fills, and the ones that open and close switch.
#define LOADED {"cmbPixelType", "edtROIWidth", "edtROIHeight", "cmbTriggerMode", "sldWBR", "sldWBG", "sldWBB", \
                "edtGamma", "edtExposure", "edtGain"}
#define SWITCHED {"btnOpenCCD", "btnCloseCCD", "cmbPixelType", "cmbTriggerMode", "btnClick"}, "enabled"

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
        {"<PixFmt>2</PixFmt><ROI>16,8,640,480</ROI>", "0|0|0|0|100|100|100|0.00|0|0"},
        // A negative code leaves no current item; gains beyond the sliders show at the ends.
        {"<PixFmt>-1</PixFmt><Settings><WhiteBalance>3.5,-1,1e30</WhiteBalance></Settings>",
         "-1|0|0|0|200|0|200|0.00|0|0"},
    };
    for (const auto& c : cases) {
        WebCamConfigDlg dlg(QString::fromUtf8(c.first));
        EXPECT_EQ(values(&dlg, LOADED), c.second) << c.first;
        EXPECT_EQ(enabled(&dlg, "grpAWB"), QString(c.second).startsWith("1|")) << c.first;
    }
}

TEST_F(Dialog, OkWritesWhatWasEnteredWithGammaLimited)
{
    // A new dialog reads back what OK wrote; gamma is limited to 0.01 .. 10 and
    // the edit shows the value written.
    for (const auto& c : {std::make_pair("0", "0.01"), {"25", "10.00"}, {"abc", "0.01"}, {"nan", "0.01"}, {" 0.456 ", "0.46"}}) {
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
        EXPECT_EQ(values(&dlg, {"edtGamma"}), c.second);
        WebCamConfigDlg reread(dlg.getConfigString());
        EXPECT_EQ(values(&reread, LOADED), QString("1|320|240|2|125|0|83|%1|1500|7").arg(c.second));
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
            EXPECT_EQ(values(&dlg, SWITCHED), QString("false|true|false|false|") + (nMode == 1 ? "true" : "false"));
            click(&dlg, "btnClick");
            click(&dlg, "btnClick");
            EXPECT_EQ(torvanesim_trigger_calls(), nMode == 1 ? 2 : 0);
            click(&dlg, "btnCloseCCD");
            EXPECT_EQ(torvanesim_open_count(), 0);
            EXPECT_EQ(values(&dlg, SWITCHED), "true|false|true|true|false");
            click(&dlg, "btnOpenCCD"); // left open for the dialog to close when it goes
        }
        EXPECT_EQ(torvanesim_open_count(), 0);
    }
}

TEST_F(Dialog, FailedOpenShowsTheCamerasMessageAndCanBeRetried)
{
    WebCamConfigDlg dlg("");
    dlg.show();
    torvanesim_set_next_init_result(3);
    click(&dlg, "btnOpenCCD");
    EXPECT_EQ(values(&dlg, {"lblLastErr"}), "No camera is exists!");
    EXPECT_EQ(values(&dlg, SWITCHED), "true|false|true|true|true");
    click(&dlg, "btnOpenCCD");
    EXPECT_EQ(torvanesim_open_count(), 1);
    EXPECT_EQ(values(&dlg, SWITCHED), "false|true|false|false|false");
}

TEST_F(Dialog, OpenShowsTheRegionAndSettingsTheCameraSettledOn)
{
    torvanesim_set_sensor(1280, 960, 3);
    // Text that is no number is the maximum, widths round up to multiples of 4; a refused size
    // shows 0 and the camera's message, and the open goes on. With no settings
    // loaded the camera keeps its own (exposure 20000); Apply sends the edits and
    // shows what the camera holds (gamma limited there).
    const char* const cases[][3] = {{"641", "479", "644|480||20000|10.00"}, {"abc", "64", "1280|64||20000|10.00"},
                                    {"640", "480", "0|0|Set Camera resolution failed!|20000|10.00"}};
    for (const auto& c : cases) {
        torvanesim_fail_set_window_size(QString(c[2]).contains("failed!"));
        WebCamConfigDlg dlg("");
        dlg.show();
        type(&dlg, "edtROIWidth", c[0]);
        type(&dlg, "edtROIHeight", c[1]);
        click(&dlg, "btnOpenCCD");
        type(&dlg, "edtGamma", "50");
        click(&dlg, "btnApply");
        EXPECT_EQ(values(&dlg, {"edtROIWidth", "edtROIHeight", "lblLastErr", "edtExposure", "edtGamma"}), c[2]) << c[0];
    }
}

// Exposure, gain and mode the SDK refuses: Apply goes through and the edits
// show what the camera really kept; once the SDK takes them, they stick.
TEST_F(Dialog, ApplyShowsWhatTheCameraKeptWhenTheSdkRefuses)
{
    WebCamConfigDlg dlg("");
    dlg.show();
    click(&dlg, "btnOpenCCD");
    for (const int refuse : {1, 0}) {
        torvanesim_fail_set_exposure(refuse);
        torvanesim_fail_set_gain(refuse);
        torvanesim_fail_set_mode(refuse);
        type(&dlg, "edtExposure", "1500");
        type(&dlg, "edtGain", "7");
        click(&dlg, "btnApply");
        EXPECT_EQ(values(&dlg, {"edtExposure", "edtGain", "lblLastErr"}), refuse ? "20000|0|" : "1500|7|");
    }
}

// A frame of nPixels pixels in the camera's byte order (B, G, R for "BGR"): the
// first nFirst pixels one colour, the rest another.
static std::vector<unsigned char> frame(int nPixels, std::vector<unsigned char> first, int nFirst = INT_MAX,
                                        std::vector<unsigned char> rest = {})
{
    std::vector<unsigned char> v;
    for (int i = 0; i < nPixels; ++i)
        v.insert(v.end(), i < nFirst ? first.begin() : rest.begin(), i < nFirst ? first.end() : rest.end());
    return v;
}

TEST_F(Dialog, PreviewPaintsTheCamerasFrames)
{
    WebCamConfigDlg dlg("<PixFmt>1</PixFmt><Settings><Gamma>1.00</Gamma></Settings>");
    dlg.show();
    QWidget* pView = child(&dlg, "WebCamCfgViewForm");
    const auto pixel = [pView](int x, int y) { return pView->grab().toImage().pixelColor(x, y); };
    const QColor cWhite(Qt::white);

    // Unscaled, frames of changing size (the hand-over buffer grows, then is
    // reused) show at their own size in the top-left corner, one poll tick each.
    // Bytes are in the camera's order: "BGR" shows w, 20, 10 as red 10, green 20, blue w.
    click(&dlg, "rbInit");
    click(&dlg, "btnOpenCCD");
    for (int w : {20, 60, 8, 64}) {
        const int h = w * 3 / 4;
        torvanesim_queue_frame(w, h, 3, frame(w * h, {static_cast<unsigned char>(w), 20, 10}).data());
        QTimerEvent cTick(0);
        QCoreApplication::sendEvent(&dlg, &cTick);
        EXPECT_EQ(pixel(w - 1, h - 1), QColor(10, 20, w)) << w;
        EXPECT_EQ(pixel(w, h - 1), cWhite);
        EXPECT_EQ(pixel(w - 1, h), cWhite);
    }
    // Scaled, the frame covers the whole view.
    click(&dlg, "rbScaled");
    EXPECT_EQ(pixel(pView->width() - 1, pView->height() - 1), QColor(10, 20, 64));

    // The 200 ms poll fetches frames while the camera is open, and stops when it closes.
    for (bool bOpen : {true, false}) {
        const unsigned int nDelivered = torvanesim_frames_delivered();
        QTest::qWait(450);
        EXPECT_EQ(torvanesim_frames_delivered() > nDelivered, bOpen);
        click(&dlg, "btnCloseCCD");
    }
}

// Hands a frame of 4 rows to a preview as the dialog does and returns what the
// view paints, stretched over its 665 x 503 pixels. Row y's pixels have the
// bytes 10 + y, 20 + y, 30 + y (grey: 10 + y); the padding after them is 0xEE.
static QImage paint(WebCamCfgViewForm& view, int nPixType, int nWidth, int nBytesPerLine)
{
    const int nBpp = (nPixType == 0 || nPixType == 3) ? 1 : 3;
    view.m_pImageBuf = new unsigned char[4 * nBytesPerLine];
    for (int i = 0; i < 4 * nBytesPerLine; ++i) {
        const int x = i % nBytesPerLine;
        view.m_pImageBuf[i] = x < nWidth * nBpp ? 10 * (x % nBpp + 1) + i / nBytesPerLine : 0xEE;
    }
    view.m_nWidth = nWidth;
    view.m_nHeight = 4;
    view.m_nBytesPerLine = nBytesPerLine;
    view.setPixType(nPixType);
    return view.grab().toImage();
}

TEST(Preview, PaintsEachPixelTypeAtTheRowStrideOrNothing)
{
    const QColor cWhite(Qt::white);
    // Pixel types, width, bytes per line, row 0's colour (row 3 shows each channel 3 higher).
    const std::tuple<std::vector<int>, int, int, QColor> cases[] = {
        {{0, 3}, 5, 5, QColor(10, 10, 10)}, {{1, 4, 6}, 5, 16, QColor(30, 20, 10)},
        {{2, 5, 7}, 5, 16, QColor(10, 20, 30)}, {{1}, 4, 12, QColor(30, 20, 10)},
        // Colour rows need 3 * width rounded up to 4, grey rows the width; unknown
        // pixel types and no frame paint nothing.
        {{1}, 5, 15, cWhite}, {{0}, 5, 4, cWhite}, {{8, -1}, 5, 16, cWhite}, {{1}, 0, 16, cWhite},
    };
    for (const auto& c : cases) {
        for (int nPixType : std::get<0>(c)) {
            SCOPED_TRACE(::testing::Message() << nPixType << " " << std::get<1>(c) << " " << std::get<2>(c));
            WebCamCfgViewForm view;
            const QImage cPicture = paint(view, nPixType, std::get<1>(c), std::get<2>(c));
            const QColor cTop = std::get<3>(c);
            const QColor cBottom = cTop == cWhite ? cWhite : QColor(cTop.red() + 3, cTop.green() + 3, cTop.blue() + 3);
            // The last row from its first to its last pixel, read at the row stride.
            EXPECT_EQ(cPicture.pixelColor(0, 0), cTop);
            EXPECT_EQ(cPicture.pixelColor(0, 502), cBottom);
            EXPECT_EQ(cPicture.pixelColor(664, 502), cBottom);
        }
    }
}

TEST_F(Dialog, AutoWhiteBalanceSetsTheGainsThatEqualiseTheChannels)
{
    // Opened in video mode with the gains 1.20, 1.00, 1.35 and no gamma change of the frames.
    const QString strColour = "<PixFmt>1</PixFmt><Settings><Gamma>1.00</Gamma><WhiteBalance>1.20,1.00,1.35"
                              "</WhiteBalance><TriggerType>Video</TriggerType></Settings>";
    // Configuration (empty: the colour one, never opened), white surface, the measured frame, the sliders.
    const std::tuple<QString, bool, std::vector<unsigned char>, const char*> cases[] = {
        // The measurement's rules are in tests/imaging; here the frame reaches it.
        {strColour, false, frame(200, {150, 125, 100}), "125|100|83"},
        // White surface: only the 10 of 200 pixels at brightness 600 are above the
        // level (300) at which the brightest tenth is crossed.
        {strColour, true, frame(200, {150, 200, 250}, 10, {100, 100, 100}), "80|100|133"},
        // Nothing is measured or changed in triggered modes (no frame would come),
        // on a grey camera, or without an open camera.
        {QString(strColour).replace("Video", "soft"), false, frame(200, {150, 125, 100}), "120|100|135"},
        {QString(strColour).replace("<PixFmt>1", "<PixFmt>0"), false, frame(200, {150, 125, 100}), "120|100|135"},
        {"", false, frame(200, {150, 125, 100}), "120|100|135"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::get<3>(c));
        WebCamConfigDlg dlg(std::get<0>(c).isEmpty() ? strColour : std::get<0>(c));
        dlg.show();
        if (!std::get<0>(c).isEmpty())
            click(&dlg, "btnOpenCCD");
        child<QCheckBox>(&dlg, "chkWhitePlane")->setChecked(std::get<1>(c));
        // Three frames are fetched and the last one is measured.
        const unsigned int nDelivered = torvanesim_frames_delivered();
        for (const auto& v : {frame(200, {1, 2, 3}), frame(200, {1, 2, 3}), std::get<2>(c)})
            torvanesim_queue_frame(20, 10, 3, v.data());
        // The slot itself refuses also where the button is out of reach.
        emit child<QAbstractButton>(&dlg, "btnAutoWB")->clicked();
        EXPECT_EQ(values(&dlg, {"sldWBR", "sldWBG", "sldWBB"}), std::get<3>(c));
        EXPECT_EQ(torvanesim_frames_delivered() - nDelivered, strcmp(std::get<3>(c), "120|100|135") ? 3u : 0u);
    }
}

TEST_F(Dialog, EnteredFromTheApiAnswersItsResultAndRestoresTheCamera)
{
    QByteArray cConfig = "<CCDPos>0</CCDPos><PixFmt>1</PixFmt><ROI>32,24</ROI>"
                         "<Settings><Gamma>1.00</Gamma><Exposure>500</Exposure></Settings>";
    KavrelInterface* api = KavrelInterface::getInstance();
    api->setConfigStringMain(cConfig.data());
    ASSERT_TRUE(api->connectMain() && api->startMain());
    bool bOpenWhileShown = true;
    whenModal([&](QDialog* pDlg) {
        bOpenWhileShown = api->IsConnectedMain(); // the dialog has the device to itself
        click(pDlg, "btnOpenCCD");
        type(pDlg, "edtGain", "3");
        click(pDlg, "btnOK");
    });
    const QString strResult = QString::fromUtf8(api->showConfigWindowMain(cConfig.data()));
    EXPECT_FALSE(bOpenWhileShown);
    EXPECT_TRUE(strResult.startsWith("<PixFmt>1</PixFmt><ROI>32,24</ROI>") && strResult.contains("<Gain>3</Gain>"))
        << qPrintable(strResult);
    // The running camera is back with the host's configuration.
    EXPECT_TRUE(api->IsStartedMain());
    EXPECT_STREQ(api->getConfigStringMain(), cConfig.data());

    // Cancel answers "". A camera that was connected but not started is closed afterwards.
    api->setConfigStringSlaver(cConfig.data());
    ASSERT_TRUE(api->connectSlaver());
    whenModal([](QDialog* pDlg) { click(pDlg, "btnCancel"); });
    EXPECT_STREQ(api->showConfigWindowSlaver(cConfig.data()), "");
    EXPECT_FALSE(api->IsConnectedSlaver());
    EXPECT_EQ(torvanesim_open_count(), 1); // the main camera only, the dialogs' cameras are closed
}
