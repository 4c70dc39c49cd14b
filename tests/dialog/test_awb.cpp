// Automatic white balance on known frames, in whole-image and white-surface
// mode, and the cases in which it must leave everything alone.

#include "dialogtest.h"

#include "dialog/webcamconfigdlg.h"

using AutoWhiteBalance = SimTest;

// A 20 x 10 frame in the camera's byte order (B, G, R for "BGR"): the first
// nFirst pixels one colour, the rest another.
static std::vector<unsigned char> frame(std::vector<unsigned char> first, int nFirst = 200,
                                        std::vector<unsigned char> rest = {})
{
    std::vector<unsigned char> v;
    for (int i = 0; i < 200; ++i)
        v.insert(v.end(), i < nFirst ? first.begin() : rest.begin(), i < nFirst ? first.end() : rest.end());
    return v;
}

TEST_F(AutoWhiteBalance, SetsTheSlidersToTheGainsThatEqualiseTheChannels)
{
    // Opened in video mode with the gains 1.20, 1.00, 1.35 and no gamma change of the frames.
    const QString strColour = "<PixFmt>1</PixFmt><Settings><Gamma>1.00</Gamma><WhiteBalance>1.20,1.00,1.35"
                              "</WhiteBalance><TriggerType>Video</TriggerType></Settings>";
    const std::vector<int> vBefore{120, 100, 135};
    const struct {
        const char* szWhat;
        QString strConfig;
        std::vector<unsigned char> vFrame;
        bool bWhitePlane;
        std::vector<int> vExpected;
    } cases[] = {
        // Means R 100, G 125, B 150: 83.33 is truncated.
        {"whole frame", strColour, frame({150, 125, 100}), false, {125, 100, 83}},
        // R 40, G 100, B 160: 2.5 is shown as 2.00.
        {"gain above the slider", strColour, frame({160, 100, 40}), false, {200, 100, 62}},
        // A channel at 0 needs an infinite gain; an all-black frame none at all.
        {"no blue", strColour, frame({0, 50, 100}), false, {50, 100, 200}},
        {"black", strColour, frame({0, 0, 0}), false, {0, 0, 0}},
        // Means over two colours: R 125, G 100, B 87.5.
        {"mixed frame", strColour, frame({50, 100, 200}, 50, {100, 100, 100}), false, {83, 104, 119}},
        // White surface: only the 10 of 200 pixels at brightness 600 are above the
        // level (300) at which the brightest tenth is crossed.
        {"brightest tenth", strColour, frame({150, 200, 250}, 10, {100, 100, 100}), true, {80, 100, 133}},
        // All pixels at one brightness, or more than a tenth saturated: nothing is taken.
        {"uniform surface", strColour, frame({150, 125, 100}), true, {0, 0, 0}},
        {"saturated surface", strColour, frame({255, 255, 255}, 60, {40, 50, 60}), true, {0, 0, 0}},
        // Nothing is measured or changed in triggered modes (no frame would come),
        // on a grey camera, or without an open camera.
        {"software trigger", QString(strColour).replace("Video", "soft"), frame({150, 125, 100}), false, vBefore},
        {"hardware trigger", QString(strColour).replace("Video", "Hard"), frame({150, 125, 100}), false, vBefore},
        {"grey", QString(strColour).replace("<PixFmt>1", "<PixFmt>0"), frame({150, 125, 100}), false, vBefore},
        {"not opened", "", frame({150, 125, 100}), false, vBefore},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szWhat);
        WebCamConfigDlg dlg(c.strConfig.isEmpty() ? strColour : c.strConfig);
        dlg.show();
        if (!c.strConfig.isEmpty())
            click(&dlg, "btnOpenCCD");
        child<QCheckBox>(&dlg, "chkWhitePlane")->setChecked(c.bWhitePlane);
        // Three frames are fetched and the last one is measured.
        const unsigned int nDelivered = torvanesim_frames_delivered();
        for (const auto& v : {frame({1, 2, 3}), frame({1, 2, 3}), c.vFrame})
            torvanesim_queue_frame(20, 10, 3, v.data());
        // The slot itself refuses where the button is out of reach.
        if (enabled(&dlg, "btnAutoWB"))
            click(&dlg, "btnAutoWB");
        else
            ASSERT_TRUE(QMetaObject::invokeMethod(&dlg, "on_btnAutoWB_clicked"));
        EXPECT_EQ(sliders(&dlg), c.vExpected);
        EXPECT_EQ(torvanesim_frames_delivered() - nDelivered, c.vExpected == vBefore ? 0u : 3u);
    }
}
