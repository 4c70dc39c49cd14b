// SPDX-License-Identifier: LGPL-2.1-or-later
// The settings text and the tag search that every reader of tagged text uses.
// Hostile texts (huge, broken, numbers beyond their types) are in tests/reliability.

#include <gtest/gtest.h>

#include "camera/ccdif.h"
#include "imaging/globalfunction.h"

namespace {

TEST(TagSearch, FirstElementIgnoringCase)
{
    const char* const cases[][2] = {
        {"x<gain> 1 </GAIN><Gain>2</Gain>", " 1 "}, // first element, body untrimmed
        {"</Gain>3<Gain>4</Gain>", ""},             // first close tag before first open tag
        {"<Gain>3", ""},
        {"a long text</Gain>", ""},                   // no open tag at all
    };
    for (const auto& c : cases)
        EXPECT_EQ(GlobalFunction::getBody(c[0], "<Gain>", "</Gain>"), QString(c[1])) << c[0];
    QString text = "a<x></X>c<X>d</X>";
    EXPECT_EQ(GlobalFunction::getAndRemoveBody(text, "<X>", "</X>"), QString(""));
    EXPECT_EQ(text, QString("ac<X>d</X>")); // the whole first element goes
}

TEST(SettingsText, WritesEveryFieldInOrderAndReadsItBack)
{
    CCDIF::CCDSettings s;
    s.nHardTriggerSource = 1;
    s.eTriggerType = CCDIF::TriggerHard;
    s.fGamma = 0.456f;
    s.nGain = 12;
    s.nExposure = -1;
    s.nBrightness = -3;
    s.fWhiteBalanceG = 1.999f;
    s.bAutoExposure = true;
    const QString text = s.toString();
    EXPECT_EQ(text, QString("<HardTriggerSource>1</HardTriggerSource><Brightness>-3</Brightness><Sharpness>0</Sharpness>"
                            "<Hue>0</Hue><Saturation>0</Saturation><Gamma>0.46</Gamma><Gain>12</Gain>"
                            "<Exposure>-1</Exposure><WhiteBalance>1.00,2.00,1.00</WhiteBalance>"
                            "<AutoExposure>true</AutoExposure><TriggerType>Hard</TriggerType>"));
    CCDIF::CCDSettings r;
    r.fromString(text);
    EXPECT_EQ(r.toString(), text);
    s.eTriggerType = static_cast<CCDIF::TriggerType>(3); // a mode without a name (3 is within the type) is left out
    EXPECT_FALSE(s.toString().contains("TriggerType"));
}

// Absent or unreadable elements read as zero, except the trigger mode and the
// white balance, which the reader keeps.
TEST(SettingsText, ReadingRules)
{
    const struct {
        const char* text;
        int gain;
        bool autoExposure;
        CCDIF::TriggerType trigger;
        float wbR;
    } cases[] = {
        {"<Gain> 12 </Gain>", 12, false, CCDIF::TriggerSoft, 1.5f},
        {"<Gain>12.5</Gain><AutoExposure>True</AutoExposure>", 0, true, CCDIF::TriggerSoft, 1.5f},
        {"<Gain>0x10</Gain><AutoExposure>1</AutoExposure>", 0, false, CCDIF::TriggerSoft, 1.5f},
        {"<TriggerType>HARD</TriggerType>", 0, false, CCDIF::TriggerHard, 1.5f},
        {"<TriggerType>Video </TriggerType>", 0, false, CCDIF::TriggerSoft, 1.5f},
        {"<WhiteBalance>1.2,0.9</WhiteBalance>", 0, false, CCDIF::TriggerSoft, 1.5f}, // needs three parts
        {"<WhiteBalance>1.2,,0.9</WhiteBalance>", 0, false, CCDIF::TriggerSoft, 1.2f},
    };
    for (const auto& c : cases) {
        CCDIF::CCDSettings s;
        s.nGain = 5;
        s.bAutoExposure = true;
        s.eTriggerType = CCDIF::TriggerSoft;
        s.fWhiteBalanceR = 1.5f;
        s.fromString(c.text);
        EXPECT_EQ(s.nGain, c.gain) << c.text;
        EXPECT_EQ(s.bAutoExposure, c.autoExposure) << c.text;
        EXPECT_EQ(s.eTriggerType, c.trigger) << c.text;
        EXPECT_EQ(s.fWhiteBalanceR, c.wbR) << c.text;
    }
}

} // namespace
