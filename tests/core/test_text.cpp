// The settings text and the tag search that every reader of tagged text uses.

#include <gtest/gtest.h>

#include "camera/ccdif.h"
#include "imaging/globalfunction.h"

namespace {

const char* const kDefaultText =
    "<HardTriggerSource>0</HardTriggerSource><Brightness>0</Brightness><Sharpness>0</Sharpness><Hue>0</Hue>"
    "<Saturation>0</Saturation><Gamma>1.00</Gamma><Gain>0</Gain><Exposure>0</Exposure>"
    "<WhiteBalance>1.00,1.00,1.00</WhiteBalance><AutoExposure>false</AutoExposure><TriggerType>Video</TriggerType>";

TEST(TagSearch, FindsFirstElementIgnoringCase)
{
    struct Case {
        const char* text;
        const char* expected;
    } cases[] = {
        {"<Gain>12</Gain>", "12"},
        {"<gain>7</GAIN>", "7"},
        {"x<Gain> 1 </Gain>y", " 1 "},              // body untrimmed
        {"<Gain>1</Gain><Gain>2</Gain>", "1"},        // first element counts
        {"<Gain></Gain>", ""},
        {"</Gain>3<Gain>4</Gain>", ""},               // first close tag before first open tag
        {"<Gain>3", ""},
        {"3</Gain>", ""},
        {"", ""},
    };
    for (const Case& c : cases)
        EXPECT_EQ(GlobalFunction::getBody(c.text, "<Gain>", "</Gain>"), QString(c.expected)) << c.text;
    CCDIF::CCDSettings s;
    EXPECT_EQ(s.getBody("<a>b</a>", "<A>", "</A>"), QString("b"));
}

TEST(TagSearch, GetAndRemoveCutsTheWholeElement)
{
    QString text = "a<X>b</X>c";
    EXPECT_EQ(GlobalFunction::getAndRemoveBody(text, "<X>", "</X>"), QString("b"));
    EXPECT_EQ(text, QString("ac"));

    text = "a<x></X>c<X>d</X>";
    EXPECT_EQ(GlobalFunction::getAndRemoveBody(text, "<X>", "</X>"), QString(""));
    EXPECT_EQ(text, QString("ac<X>d</X>"));

    for (const char* unchanged : {"abc", "</X>a<X>", "<X>open"}) {
        text = unchanged;
        EXPECT_EQ(GlobalFunction::getAndRemoveBody(text, "<X>", "</X>"), QString(""));
        EXPECT_EQ(text, QString(unchanged));
    }
}

TEST(SettingsText, WritesEveryFieldInOrder)
{
    CCDIF::CCDSettings s;
    EXPECT_EQ(s.toString(), QString(kDefaultText));

    s.nHardTriggerSource = 1;
    s.eTriggerType = CCDIF::TriggerHard;
    s.fGamma = 0.8f;
    s.nGain = 12;
    s.nExposure = 20000;
    s.fWhiteBalanceR = 1.25f;
    s.fWhiteBalanceB = 1.53f;
    s.bAutoExposure = true;
    EXPECT_EQ(s.toString(),
              QString("<HardTriggerSource>1</HardTriggerSource><Brightness>0</Brightness><Sharpness>0</Sharpness>"
                      "<Hue>0</Hue><Saturation>0</Saturation><Gamma>0.80</Gamma><Gain>12</Gain>"
                      "<Exposure>20000</Exposure><WhiteBalance>1.25,1.00,1.53</WhiteBalance>"
                      "<AutoExposure>true</AutoExposure><TriggerType>Hard</TriggerType>"));

    s.eTriggerType = CCDIF::TriggerSoft;
    s.nBrightness = -3;
    EXPECT_TRUE(s.toString().contains("<Brightness>-3</Brightness>"));
    EXPECT_TRUE(s.toString().endsWith("<TriggerType>soft</TriggerType>"));

    // A mode without a name is left out, and a reader keeps its own mode.
    s.eTriggerType = static_cast<CCDIF::TriggerType>(7);
    EXPECT_FALSE(s.toString().contains("TriggerType"));
    CCDIF::CCDSettings r;
    r.eTriggerType = CCDIF::TriggerSoft;
    r.fromString(s.toString());
    EXPECT_EQ(r.eTriggerType, CCDIF::TriggerSoft);
}

TEST(SettingsText, ReadsEmptyTextAsZerosButKeepsTriggerAndWhiteBalance)
{
    CCDIF::CCDSettings s;
    s.nGain = 5;
    s.nExposure = 9;
    s.nBrightness = 3;
    s.bAutoExposure = true;
    s.eTriggerType = CCDIF::TriggerSoft;
    s.fWhiteBalanceR = 1.5f;
    s.fromString("");
    EXPECT_EQ(s.nGain, 0);
    EXPECT_EQ(s.nExposure, 0);
    EXPECT_EQ(s.nBrightness, 0);
    EXPECT_EQ(s.fGamma, 0.0f);
    EXPECT_FALSE(s.bAutoExposure);
    EXPECT_EQ(s.eTriggerType, CCDIF::TriggerSoft);
    EXPECT_EQ(s.fWhiteBalanceR, 1.5f);
    EXPECT_EQ(s.fWhiteBalanceG, 1.0f);
}

TEST(SettingsText, ReadingRules)
{
    struct Case {
        const char* text;
        int gain;
        bool autoExposure;
        CCDIF::TriggerType trigger; // reader starts at TriggerVideo
    } cases[] = {
        {"<gain>7</GAIN>", 7, false, CCDIF::TriggerVideo},
        {"<Gain> 12 </Gain>", 12, false, CCDIF::TriggerVideo},
        {"<Gain>12.5</Gain>", 0, false, CCDIF::TriggerVideo},
        {"<Gain>0x10</Gain>", 0, false, CCDIF::TriggerVideo},
        {"<Gain>99999999999</Gain>", 0, false, CCDIF::TriggerVideo},
        {"<Gain>-2147483648</Gain>", -2147483647 - 1, false, CCDIF::TriggerVideo},
        {"<AutoExposure>True</AutoExposure>", 0, true, CCDIF::TriggerVideo},
        {"<AutoExposure>1</AutoExposure>", 0, false, CCDIF::TriggerVideo},
        {"<AutoExposure> true</AutoExposure>", 0, false, CCDIF::TriggerVideo},
        {"<TriggerType>HARD</TriggerType>", 0, false, CCDIF::TriggerHard},
        {"<TriggerType>Soft</TriggerType>", 0, false, CCDIF::TriggerSoft},
        {"<TriggerType>Hard </TriggerType>", 0, false, CCDIF::TriggerVideo},
    };
    for (const Case& c : cases) {
        CCDIF::CCDSettings s;
        s.fromString(c.text);
        EXPECT_EQ(s.nGain, c.gain) << c.text;
        EXPECT_EQ(s.bAutoExposure, c.autoExposure) << c.text;
        EXPECT_EQ(s.eTriggerType, c.trigger) << c.text;
    }
}

TEST(SettingsText, WhiteBalanceNeedsExactlyThreeParts)
{
    CCDIF::CCDSettings s;
    s.fromString("<WhiteBalance>1.2,0.9</WhiteBalance>");
    EXPECT_EQ(s.fWhiteBalanceR, 1.0f);
    s.fromString("<WhiteBalance>1.2,0.9,1.1,1.0</WhiteBalance>");
    EXPECT_EQ(s.fWhiteBalanceR, 1.0f);
    s.fromString("<WhiteBalance>1.2,,0.9</WhiteBalance>");
    EXPECT_EQ(s.fWhiteBalanceR, 1.2f);
    EXPECT_EQ(s.fWhiteBalanceG, 0.0f);
    EXPECT_EQ(s.fWhiteBalanceB, 0.9f);
}

TEST(SettingsText, RoundTripKeepsTwoDecimals)
{
    CCDIF::CCDSettings s;
    s.fGamma = 0.456f;
    s.nExposure = -1;
    s.nHue = 2147483647;
    s.eTriggerType = CCDIF::TriggerSoft;
    s.bAutoExposure = true;
    s.fWhiteBalanceG = 1.999f;
    const QString text = s.toString();
    EXPECT_TRUE(text.contains("<Gamma>0.46</Gamma>"));
    EXPECT_TRUE(text.contains("<WhiteBalance>1.00,2.00,1.00</WhiteBalance>"));

    CCDIF::CCDSettings r;
    r.fromString(text);
    EXPECT_EQ(r.fGamma, 0.46f);
    EXPECT_EQ(r.nExposure, -1);
    EXPECT_EQ(r.nHue, 2147483647);
    EXPECT_EQ(r.eTriggerType, CCDIF::TriggerSoft);
    EXPECT_TRUE(r.bAutoExposure);
    EXPECT_EQ(r.toString(), text);
}

} // namespace
