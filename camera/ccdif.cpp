// SPDX-License-Identifier: LGPL-2.1-or-later
#include "camera/ccdif.h"

#include "camera/textfields.h"
#include "imaging/globalfunction.h"

CCDIF::CCDSettings::CCDSettings()
    : nHardTriggerSource(0)
    , eTriggerType(TriggerVideo)
    , fWhiteBalanceR(1.0f)
    , fWhiteBalanceG(1.0f)
    , fWhiteBalanceB(1.0f)
    , nBrightness(0)
    , nSharpness(0)
    , nHue(0)
    , nSaturation(0)
    , fGamma(1.0f)
    , nGain(0)
    , nExposure(0)
    , bAutoExposure(false)
{
}

QString CCDIF::CCDSettings::toString()
{
    QString strText;
    strText += QString::asprintf("<HardTriggerSource>%d</HardTriggerSource>", nHardTriggerSource);
    strText += QString::asprintf("<Brightness>%d</Brightness>", nBrightness);
    strText += QString::asprintf("<Sharpness>%d</Sharpness>", nSharpness);
    strText += QString::asprintf("<Hue>%d</Hue>", nHue);
    strText += QString::asprintf("<Saturation>%d</Saturation>", nSaturation);
    strText += QString::asprintf("<Gamma>%.2f</Gamma>", static_cast<double>(fGamma));
    strText += QString::asprintf("<Gain>%d</Gain>", nGain);
    strText += QString::asprintf("<Exposure>%d</Exposure>", nExposure);
    strText += QString::asprintf("<WhiteBalance>%.2f,%.2f,%.2f</WhiteBalance>",
                                 static_cast<double>(fWhiteBalanceR),
                                 static_cast<double>(fWhiteBalanceG),
                                 static_cast<double>(fWhiteBalanceB));
    strText += bAutoExposure ? QStringLiteral("<AutoExposure>true</AutoExposure>")
                             : QStringLiteral("<AutoExposure>false</AutoExposure>");
    switch (eTriggerType) {
    case TriggerHard:
        strText += QStringLiteral("<TriggerType>Hard</TriggerType>");
        break;
    case TriggerSoft:
        strText += QStringLiteral("<TriggerType>soft</TriggerType>");
        break;
    case TriggerVideo:
        strText += QStringLiteral("<TriggerType>Video</TriggerType>");
        break;
    default:
        // A mode we cannot name is left out; a reader keeps its own.
        break;
    }
    return strText;
}

void CCDIF::CCDSettings::fromString(QString text)
{
    const QString strHardTriggerSource = getBody(text, "<HardTriggerSource>", "</HardTriggerSource>");
    const QString strBrightness = getBody(text, "<Brightness>", "</Brightness>");
    const QString strSharpness = getBody(text, "<Sharpness>", "</Sharpness>");
    const QString strHue = getBody(text, "<Hue>", "</Hue>");
    const QString strSaturation = getBody(text, "<Saturation>", "</Saturation>");
    const QString strGamma = getBody(text, "<Gamma>", "</Gamma>");
    const QString strGain = getBody(text, "<Gain>", "</Gain>");
    const QString strExposure = getBody(text, "<Exposure>", "</Exposure>");
    const QString strWhiteBalance = getBody(text, "<WhiteBalance>", "</WhiteBalance>");
    const QString strAutoExposure = getBody(text, "<AutoExposure>", "</AutoExposure>");
    const QString strTriggerType = getBody(text, "<TriggerType>", "</TriggerType>");

    // Missing or malformed numbers read as 0: every numeric field is overwritten.
    nHardTriggerSource = strHardTriggerSource.toInt(nullptr, 10);
    nBrightness = strBrightness.toInt(nullptr, 10);
    nSharpness = strSharpness.toInt(nullptr, 10);
    nHue = strHue.toInt(nullptr, 10);
    nSaturation = strSaturation.toInt(nullptr, 10);
    fGamma = kavrel::readFloat(strGamma);
    nGain = strGain.toInt(nullptr, 10);
    nExposure = strExposure.toInt(nullptr, 10);

    bAutoExposure = QString::compare(strAutoExposure, "true", Qt::CaseInsensitive) == 0;

    // An unknown or missing trigger keyword keeps the mode we had.
    if (QString::compare(strTriggerType, "Hard", Qt::CaseInsensitive) == 0)
        eTriggerType = TriggerHard;
    else if (QString::compare(strTriggerType, "soft", Qt::CaseInsensitive) == 0)
        eTriggerType = TriggerSoft;
    else if (QString::compare(strTriggerType, "Video", Qt::CaseInsensitive) == 0)
        eTriggerType = TriggerVideo;

    // Only a complete triple replaces the white balance.
    QStringRef aWhiteBalance[3];
    if (kavrel::splitExactly(strWhiteBalance, aWhiteBalance)) {
        fWhiteBalanceR = kavrel::readFloat(aWhiteBalance[0]);
        fWhiteBalanceG = kavrel::readFloat(aWhiteBalance[1]);
        fWhiteBalanceB = kavrel::readFloat(aWhiteBalance[2]);
    }
}

QString CCDIF::CCDSettings::getBody(QString text, QString openTag, QString closeTag)
{
    return GlobalFunction::getBody(text, openTag, closeTag);
}

CCDIF::CCDIF()
    : QObject(nullptr)
    , m_nImageNO(0)
    , m_strLastError("")
{
}

CCDIF::~CCDIF()
{
}

QString CCDIF::getLastError()
{
    return m_strLastError;
}

void CCDIF::incImageNO()
{
    QMutexLocker cLocker(&m_cImageNOMutex);
    ++m_nImageNO;
}

void CCDIF::resetImageNO()
{
    m_nImageNO = 0;
}

int CCDIF::getImageNO()
{
    return m_nImageNO;
}
