// SPDX-License-Identifier: LGPL-2.1-or-later
// What the tools add around the library: partial configurations completed from
// their defaults, warnings about settings that give no picture, the image
// format of a lent buffer, and the dialog's language.

#include <gtest/gtest.h>

#include <QImage>
#include <QLocale>

#include <climits>

#include "api/interface.h"
#include "sdk/torvanesim.h"
#include "toolsupport.h"
#include "viewerwindow.h"

using namespace kavreltool;

namespace {

const QString kDefaults = "<CCDPos>0</CCDPos><PixFmt>1</PixFmt><ROI>640,480</ROI>"
                          "<Settings><Gamma>1.00</Gamma><Gain>8</Gain><Exposure>20000</Exposure>"
                          "<TriggerType>Video</TriggerType></Settings><UseCUDA>0</UseCUDA>";

QString settingsOf(const QString& strConfig)
{
    const int nOpen = strConfig.indexOf("<Settings>", 0, Qt::CaseInsensitive);
    const int nClose = strConfig.indexOf("</Settings>", 0, Qt::CaseInsensitive);
    return nOpen >= 0 && nClose > nOpen ? strConfig.mid(nOpen + 10, nClose - nOpen - 10) : QString();
}

} // namespace

TEST(MergeConfig, FillsWhatTheUserLeftOutAndKeepsWhatTheUserWrote)
{
    // Only top-level elements: the whole default <Settings> comes along.
    const QString strMerged = mergeConfig(kDefaults, "<pixfmt>0</pixfmt><ROI>320,240</ROI>");
    EXPECT_TRUE(strMerged.startsWith("<pixfmt>0</pixfmt><ROI>320,240</ROI>")) << qPrintable(strMerged);
    EXPECT_EQ(strMerged.count("PixFmt", Qt::CaseInsensitive), 2) << "one open and one close tag, the user's";
    EXPECT_EQ(settingsOf(strMerged), settingsOf(kDefaults));
    EXPECT_TRUE(strMerged.contains("<CCDPos>0</CCDPos>"));
    EXPECT_TRUE(strMerged.contains("<UseCUDA>0</UseCUDA>"));

    // A partial <Settings>: the user's settings win, each missing one is added inside it.
    const QString strSettings = settingsOf(mergeConfig(kDefaults, "<Settings><GAMMA>0.50</GAMMA></Settings>"));
    EXPECT_TRUE(strSettings.startsWith("<GAMMA>0.50</GAMMA>")) << qPrintable(strSettings);
    EXPECT_EQ(strSettings.count("<Gamma>", Qt::CaseInsensitive), 1);
    EXPECT_TRUE(strSettings.contains("<Exposure>20000</Exposure>"));
    EXPECT_TRUE(strSettings.contains("<Gain>8</Gain>"));

    // Nothing given is the default; a complete string stays as it is.
    EXPECT_EQ(settingsOf(mergeConfig(kDefaults, "")), settingsOf(kDefaults));
    EXPECT_EQ(mergeConfig(kDefaults, kDefaults), kDefaults);
}

TEST(MergeConfig, AnEmptyElementStaysAndIsWarnedAbout)
{
    // The library reads the first <Exposure>: a default behind an empty one would not count.
    const QString strMerged = mergeConfig(kDefaults, "<Settings><Exposure></Exposure></Settings>");
    EXPECT_EQ(strMerged.count("<Exposure>", Qt::CaseInsensitive), 1) << qPrintable(strMerged);
    const QStringList cWarnings = pictureWarnings(strMerged);
    ASSERT_EQ(cWarnings.size(), 1) << qPrintable(cWarnings.join('\n'));
    EXPECT_TRUE(cWarnings[0].contains("black")) << qPrintable(cWarnings[0]);
}

TEST(PictureWarnings, NameSettingsThatGiveNoPicture)
{
    EXPECT_TRUE(pictureWarnings(kDefaults).isEmpty());
    EXPECT_TRUE(pictureWarnings(gszViewerDefaultMain).isEmpty());
    EXPECT_TRUE(pictureWarnings(gszViewerDefaultSlaver).isEmpty());

    // No <Settings> at all: exposure 0 (black) and gamma 0 (washed out).
    const QStringList cBare = pictureWarnings("<PixFmt>1</PixFmt><ROI>640,480</ROI>");
    ASSERT_EQ(cBare.size(), 2) << qPrintable(cBare.join('\n'));
    EXPECT_TRUE(cBare[0].contains("Exposure") && cBare[0].contains("black")) << qPrintable(cBare[0]);
    EXPECT_TRUE(cBare[1].contains("Gamma") && cBare[1].contains("washed-out")) << qPrintable(cBare[1]);

    // Read as the library reads them: malformed numbers are 0, tags ignore case.
    EXPECT_EQ(pictureWarnings("<Settings><exposure>2e4</exposure><Gamma>1</Gamma></Settings>").size(), 1);
    EXPECT_TRUE(pictureWarnings("<Settings><EXPOSURE> 20000 </EXPOSURE><Gamma>1</Gamma></Settings>").isEmpty());
    // Automatic exposure sets the exposure itself; a large gamma darkens.
    EXPECT_TRUE(pictureWarnings("<Settings><AutoExposure>TRUE</AutoExposure><Gamma>1</Gamma></Settings>").isEmpty());
    const QStringList cDark = pictureWarnings("<Settings><Exposure>100</Exposure><Gamma>20</Gamma></Settings>");
    ASSERT_EQ(cDark.size(), 1);
    EXPECT_TRUE(cDark[0].contains("black")) << qPrintable(cDark[0]);
    EXPECT_TRUE(pictureWarnings("<Settings><Exposure>100</Exposure><Gamma>nan</Gamma></Settings>").isEmpty())
        << "a NaN gamma leaves the pixels unchanged";
}

TEST(TriggerType, ReadsTheSettingsKeywordIgnoringCase)
{
    EXPECT_EQ(triggerType("<Settings><TriggerType>SOFT</TriggerType></Settings>"), "soft");
    EXPECT_EQ(triggerType("<Settings><TriggerType>hard</TriggerType></Settings>"), "Hard");
    EXPECT_EQ(triggerType("<Settings><TriggerType>Hard </TriggerType></Settings>"), "Video");
    EXPECT_EQ(triggerType("<TriggerType>soft</TriggerType>"), "Video") << "outside <Settings> it does not count";
}

TEST(ImageFormat, ColourOrGreyWithoutOverflow)
{
    EXPECT_TRUE(isColourImage(640, 1920));
    EXPECT_TRUE(isColourImage(638, 1916));
    EXPECT_FALSE(isColourImage(640, 640));
    EXPECT_FALSE(isColourImage(0, 0));
    // 3 x width beyond int: still grey, as wide as the int range allows.
    EXPECT_FALSE(isColourImage(715827883, 715827884));
    EXPECT_FALSE(isColourImage(INT_MAX, INT_MAX));
    EXPECT_TRUE(isColourImage(715827882, INT_MAX - 1));
}

TEST(DialogLanguage, EnglishUnlessTheLocaleIsChinese)
{
    EXPECT_EQ(defaultDialogLanguage(QLocale::c()), "en");
    EXPECT_EQ(defaultDialogLanguage(QLocale("de_DE")), "en");
    EXPECT_EQ(defaultDialogLanguage(QLocale("en_US")), "en");
    EXPECT_EQ(defaultDialogLanguage(QLocale("zh_CN")), "zh");
    EXPECT_EQ(defaultDialogLanguage(QLocale("zh_TW")), "zh");
}

// The partial configuration that the viewer's help and the README show gives
// a picture once merged, where the string alone gives black frames.
TEST(MergeConfig, PartialConfigurationGivesAPictureOnTheSimulatedCamera)
{
    torvanesim_reset();
    torvanesim_set_sensor(1280, 960, 3);
    torvanesim_set_frame_rate(0);
    KavrelInterface* api = KavrelInterface::getInstance();
    const QString strPartial = "<PixFmt>1</PixFmt><ROI>320,240</ROI>";
    auto meanOfFrame = [&](const QString& strConfig) {
        QByteArray cConfig = strConfig.toLocal8Bit();
        api->setConfigStringMain(cConfig.data());
        double dMean = -1;
        if (api->connectMain() && api->startMain()) {
            int nWidth = 0;
            int nBytesPerLine = 0;
            int nHeight = 0;
            if (unsigned char* pImage = api->requestImageMain(&nWidth, &nBytesPerLine, &nHeight, 1000)) {
                qint64 nSum = 0;
                for (int y = 0; y < nHeight; ++y)
                    for (int x = 0; x < 3 * nWidth; ++x)
                        nSum += pImage[qint64(y) * nBytesPerLine + x];
                dMean = double(nSum) / (3.0 * nWidth * nHeight);
                api->releaseImageMain(pImage);
            }
        }
        api->disconnectMain();
        return dMean;
    };
    EXPECT_LT(meanOfFrame(strPartial), 1.0) << "as given: exposure 0, black";
    const double dMerged = meanOfFrame(mergeConfig(gszViewerDefaultMain, strPartial));
    EXPECT_GT(dMerged, 20.0);
    EXPECT_LT(dMerged, 235.0);
    torvanesim_reset();
}
