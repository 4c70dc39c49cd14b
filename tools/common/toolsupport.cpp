// SPDX-License-Identifier: LGPL-2.1-or-later
#include "toolsupport.h"

#include <QtGlobal>

#include <iterator>

#include <cmath>

#include "imaging/globalfunction.h"

namespace kavreltool {

namespace {

const char* const kTopLevelTags[] = {"CCDType", "CCDPos", "PixFmt", "ROI", "RAW", "UseCUDA"};
const char* const kSettingsTags[] = {"HardTriggerSource", "Brightness", "Sharpness", "Hue", "Saturation", "Gamma",
                                     "Gain", "Exposure", "WhiteBalance", "AutoExposure", "TriggerType"};

QString openTag(const QString& strName)
{
    return "<" + strName + ">";
}

QString closeTag(const QString& strName)
{
    return "</" + strName + ">";
}

// Where the library finds the element: the first open and the first close tag,
// both searched from the start, ignoring case. False when it finds none.
bool findElement(const QString& strText, const QString& strName, int* pnOpen = nullptr, int* pnClose = nullptr)
{
    const int nOpen = strText.indexOf(openTag(strName), 0, Qt::CaseInsensitive);
    const int nClose = strText.indexOf(closeTag(strName), 0, Qt::CaseInsensitive);
    if (nOpen < 0 || nClose <= nOpen)
        return false;
    if (pnOpen)
        *pnOpen = nOpen;
    if (pnClose)
        *pnClose = nClose;
    return true;
}

QString body(const QString& strText, const QString& strName)
{
    return GlobalFunction::getBody(strText, openTag(strName), closeTag(strName));
}

// The elements of names that strTarget lacks, as strSource writes them.
QString missingElements(const QString& strSource, const QString& strTarget, const char* const* ppNames, int nNames)
{
    QString strMissing;
    for (int i = 0; i < nNames; ++i) {
        const QString strName = QString::fromLatin1(ppNames[i]);
        if (!findElement(strTarget, strName) && findElement(strSource, strName))
            strMissing += openTag(strName) + body(strSource, strName) + closeTag(strName);
    }
    return strMissing;
}

} // namespace

QString mergeConfig(const QString& strDefaults, const QString& strUser)
{
    QString strResult = strUser;
    const QString strDefaultSettings = body(strDefaults, "Settings");
    int nOpen = 0;
    int nClose = 0;
    if (findElement(strResult, "Settings", &nOpen, &nClose)) {
        const int nBodyStart = nOpen + openTag("Settings").size();
        const QString strUserSettings = strResult.mid(nBodyStart, nClose - nBodyStart);
        strResult.insert(nClose, missingElements(strDefaultSettings, strUserSettings, kSettingsTags,
                                                 int(std::size(kSettingsTags))));
    } else if (findElement(strDefaults, "Settings")) {
        strResult += openTag("Settings") + strDefaultSettings + closeTag("Settings");
    }
    strResult += missingElements(strDefaults, strUser, kTopLevelTags, int(std::size(kTopLevelTags)));
    return strResult;
}

QString ConfigOptions::config(const QCommandLineParser& parser, bool bSlaver, const QString& strDefault) const
{
    const QCommandLineOption& cOption = bSlaver ? cSlaver : cMain;
    const QString strGiven = parser.isSet(cOption) ? parser.value(cOption) : strDefault;
    return parser.isSet(cAsGiven) ? strGiven : mergeConfig(strDefault, strGiven);
}

QStringList pictureWarnings(const QString& strConfig)
{
    QStringList cWarnings;
    const QString strSettings = body(strConfig, "Settings");
    const bool bAutoExposure = body(strSettings, "AutoExposure").compare("true", Qt::CaseInsensitive) == 0;
    const int nExposure = body(strSettings, "Exposure").toInt();
    if (!bAutoExposure && nExposure <= 0)
        cWarnings << QString("exposure %1 microseconds gives black frames; set <Exposure> in <Settings>, "
                             "for example <Exposure>20000</Exposure>")
                         .arg(nExposure);
    const float fGamma = body(strSettings, "Gamma").toFloat();
    if (!std::isnan(fGamma)) {
        if (fGamma < 0.1f)
            cWarnings << QString("gamma %1 gives a washed-out, nearly white picture (below 0.01 counts as 0.01); "
                                 "set <Gamma> in <Settings>, for example <Gamma>1.00</Gamma>")
                             .arg(double(fGamma));
        else if (fGamma > 5.0f)
            cWarnings << QString("gamma %1 gives a nearly black picture (above 10 counts as 10); "
                                 "<Gamma>1.00</Gamma> leaves the pixels as they are")
                             .arg(double(fGamma));
    }
    return cWarnings;
}

QString triggerType(const QString& strConfig)
{
    const QString strType = body(body(strConfig, "Settings"), "TriggerType");
    for (const char* szKeyword : {"Hard", "soft", "Video"}) {
        if (strType.compare(QLatin1String(szKeyword), Qt::CaseInsensitive) == 0)
            return QString::fromLatin1(szKeyword);
    }
    return "Video";
}

bool isColourImage(int nWidth, int nBytesPerLine)
{
    return nWidth > 0 && qint64(nBytesPerLine) >= 3 * qint64(nWidth);
}

QString defaultDialogLanguage(const QLocale& cLocale)
{
    return cLocale.language() == QLocale::Chinese ? "zh" : "en";
}

QString describeConfig(const QString& strConfig)
{
    QStringList cParts;
    const QString strSettings = body(strConfig, "Settings");
    for (const char* szName : {"CCDPos", "PixFmt", "ROI"}) {
        if (findElement(strConfig, szName))
            cParts << QString("%1 %2").arg(QLatin1String(szName), body(strConfig, szName));
    }
    for (const char* szName : {"Exposure", "Gain", "Gamma", "WhiteBalance", "AutoExposure", "TriggerType"}) {
        if (findElement(strSettings, szName))
            cParts << QString("%1 %2").arg(QLatin1String(szName), body(strSettings, szName));
    }
    return cParts.join(", ");
}

QString configSyntaxHelp()
{
    return "Configuration strings:\n"
           "  A run of tagged elements in any order; tags are compared ignoring case,\n"
           "  and of a repeated element the first counts. What --main or --slaver leaves\n"
           "  out is taken from the default (--as-given: use the text as it is;\n"
           "  --print-config shows the strings the cameras get).\n"
           "    <CCDPos>n</CCDPos>        camera number\n"
           "    <PixFmt>n</PixFmt>        0 grey (8 bit), 1 BGR, 2 RGB (24 bit)\n"
           "    <ROI>w,h</ROI>            image size in pixels; 0 is the sensor's maximum\n"
           "    <Settings>...</Settings>  <Exposure> in microseconds, <Gain>, <Gamma>\n"
           "                              (0.01 to 10; 1.00 changes nothing),\n"
           "                              <WhiteBalance>r,g,b</WhiteBalance> (0.1 to 2),\n"
           "                              <TriggerType> Video, soft or Hard\n"
           "  A setting left out of a string that is used as given reads as 0: no\n"
           "  <Exposure> gives black frames, no <Gamma> a washed-out picture.\n";
}

QString simulatorEnvironmentHelp()
{
    return "Environment:\n"
           "  The simulated camera (package kavrel-camera-sim; used while it is\n"
           "  installed) reads:\n"
           "    TORVANE_SIM_SENSOR  sensor size WIDTHxHEIGHT (default 1280x960)\n"
           "    TORVANE_SIM_BPP     bytes per pixel of its frames, 1 or 3 (default 3)\n"
           "    TORVANE_SIM_FPS     frames per second in video mode, 0 for a frame on\n"
           "                        every request (default 30)\n"
           "  LD_LIBRARY_PATH=/usr/lib makes the tools use the vendor's libtorvane.so\n"
           "  while the simulated camera is installed.\n"
           "  The V4L2 camera (--camera v4l2) reads TORVANE_V4L2_DEVICE, _FPS, _FORMAT,\n"
           "  _BUFFERS, _CONFIG and _DEBUG; see its documentation.\n";
}

} // namespace kavreltool
