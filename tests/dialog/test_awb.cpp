// Automatic white balance on known frames, in whole-image and white-surface
// mode, and the cases in which it must leave everything alone.

#include "dialogtest.h"

#include <QCheckBox>
#include <QMetaObject>

#include "dialog/webcamconfigdlg.h"

namespace {

using AutoWhiteBalance = SimTest;

// Pixels in the camera's byte order (B, G, R for "BGR").
struct Px {
    unsigned char b0, b1, b2;
};

// A 20 x 10 frame: the first nFirst pixels one colour, the rest another.
std::vector<unsigned char> frame(Px first, int nFirst, Px rest)
{
    std::vector<unsigned char> v;
    for (int i = 0; i < 200; ++i) {
        const Px& p = i < nFirst ? first : rest;
        v.insert(v.end(), {p.b0, p.b1, p.b2});
    }
    return v;
}

// The colour configuration the dialog is opened with: video mode, gains 1.20,
// 1.00, 1.35 on the sliders, no gamma change of the frames.
const char* const kColour =
    "<PixFmt>1</PixFmt><Settings><Gamma>1.00</Gamma><WhiteBalance>1.20,1.00,1.35</WhiteBalance>"
    "<TriggerType>Video</TriggerType></Settings>";

std::vector<int> balance(WebCamConfigDlg& dlg, const std::vector<unsigned char>& measured, bool bWhitePlane)
{
    child<QCheckBox>(&dlg, "chkWhitePlane")->setChecked(bWhitePlane);
    // Three frames are fetched and the last one is measured.
    const std::vector<unsigned char> decoy = frame({1, 2, 3}, 0, {1, 2, 3});
    torvanesim_queue_frame(20, 10, 3, decoy.data());
    torvanesim_queue_frame(20, 10, 3, decoy.data());
    torvanesim_queue_frame(20, 10, 3, measured.data());
    click(&dlg, "btnAutoWB");
    return sliders(&dlg);
}

TEST_F(AutoWhiteBalance, SetsTheSlidersToTheGainsThatEqualiseTheChannels)
{
    const struct {
        const char* szWhat;
        std::vector<unsigned char> vFrame;
        bool bWhitePlane;
        std::vector<int> vExpected;
    } cases[] = {
        // Means R 100, G 125, B 150; red is byte 2.
        {"whole frame", frame({150, 125, 100}, 0, {150, 125, 100}), false, {125, 100, 83}},
        {"neutral frame", frame({80, 80, 80}, 0, {80, 80, 80}), false, {100, 100, 100}},
        // R 40, G 100, B 160: 2.5 is shown as 2.00.
        {"gain above the slider", frame({160, 100, 40}, 0, {160, 100, 40}), false, {200, 100, 62}},
        // A channel at 0 needs an infinite gain; an all-black frame none at all.
        {"no blue", frame({0, 50, 100}, 0, {0, 50, 100}), false, {50, 100, 200}},
        {"black", frame({0, 0, 0}, 0, {0, 0, 0}), false, {0, 0, 0}},
        // Means over two colours: R 125, G 100, B 87.5.
        {"mixed frame", frame({50, 100, 200}, 50, {100, 100, 100}), false, {83, 104, 119}},
        // White surface: 10 of 200 pixels at brightness 600 (R 250, G 200, B 150), the rest at 300.
        {"brightest tenth", frame({150, 200, 250}, 10, {100, 100, 100}), true, {80, 100, 133}},
        // The same frame measured as a whole.
        {"brightest tenth, whole", frame({150, 200, 250}, 10, {100, 100, 100}), false, {97, 100, 102}},
        // The level at which the tenth is crossed is left out: 10 pixels at 700 are taken,
        // the 20 at 600 are not (R 200, G 250, B 250 -> 116, 93, 93).
        {"threshold excluded",
         [] {
             std::vector<unsigned char> v = frame({250, 250, 200}, 10, {200, 200, 200});
             for (int i = 30; i < 200; ++i)
                 v[3 * i] = v[3 * i + 1] = v[3 * i + 2] = 50;
             return v;
         }(),
         true, {116, 93, 93}},
        // All pixels share one brightness (or more than a tenth are saturated): nothing is taken.
        {"uniform surface", frame({150, 125, 100}, 0, {150, 125, 100}), true, {0, 0, 0}},
        {"saturated surface", frame({255, 255, 255}, 60, {40, 50, 60}), true, {0, 0, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szWhat);
        {
            WebCamConfigDlg dlg(kColour);
            dlg.show();
            click(&dlg, "btnOpenCCD");
            ASSERT_TRUE(enabled(&dlg, "btnAutoWB"));
            EXPECT_EQ(balance(dlg, c.vFrame, c.bWhitePlane), c.vExpected);
            EXPECT_EQ(torvanesim_frames_delivered(), 3u);
        }
        torvanesim_reset();
        torvanesim_set_frame_rate(0);
    }
}

TEST_F(AutoWhiteBalance, ResultGoesIntoTheConfigurationString)
{
    WebCamConfigDlg dlg(kColour);
    dlg.show();
    click(&dlg, "btnOpenCCD");
    balance(dlg, frame({150, 125, 100}, 0, {150, 125, 100}), false);
    click(&dlg, "btnOK");
    EXPECT_TRUE(dlg.getConfigString().contains("<WhiteBalance>1.25,1.00,0.83</WhiteBalance>"));
}

TEST_F(AutoWhiteBalance, LeavesEverythingAloneWhereItCannotMeasure)
{
    const std::vector<unsigned char> measured = frame({150, 125, 100}, 0, {150, 125, 100});
    const std::vector<int> vBefore{120, 100, 135};

    // Triggered modes: no frame would come without a trigger.
    for (const char* szMode : {"soft", "Hard"}) {
        SCOPED_TRACE(szMode);
        WebCamConfigDlg dlg(QString(kColour).replace("Video", szMode));
        dlg.show();
        click(&dlg, "btnOpenCCD");
        EXPECT_EQ(balance(dlg, measured, false), vBefore);
        EXPECT_EQ(torvanesim_frames_delivered(), 0u);
    }
    {
        // Colour selected but the camera never opened.
        WebCamConfigDlg dlg(kColour);
        dlg.show();
        EXPECT_EQ(balance(dlg, measured, false), vBefore);
    }
    {
        // A grey camera: the group is out of reach, and the slot itself refuses too.
        WebCamConfigDlg dlg(QString(kColour).replace("<PixFmt>1", "<PixFmt>0"));
        dlg.show();
        click(&dlg, "btnOpenCCD");
        EXPECT_FALSE(enabled(&dlg, "btnAutoWB"));
        ASSERT_TRUE(QMetaObject::invokeMethod(&dlg, "on_btnAutoWB_clicked"));
        EXPECT_EQ(sliders(&dlg), vBefore);
        EXPECT_EQ(torvanesim_frames_delivered(), 0u);
    }
}

} // namespace
