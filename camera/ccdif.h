// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_CAMERA_CCDIF_H
#define KAVREL_CAMERA_CCDIF_H

#include <QMutex>
#include <QObject>
#include <QString>

#include "api/kavrelexport.h"

// The abstract camera. Holds what every camera has (an image number and the
// text of the last failure) and declares the camera operations. Failures are
// told by results; the reason is only ever read with getLastError().
class KAVREL_EXPORT CCDIF : public QObject
{
    Q_OBJECT
public:
    // Both enumerations are stored as 32-bit integers; the fixed underlying type
    // makes every int a valid value, since hosts may hand over codes the
    // library has no name for.
    enum PixelFormat : int {
        PixFmtGray8 = 0,
        PixFmtRGB = 1,
        PixFmtBGR = 2,
        PixFmt3 = 3,
        PixFmt4 = 4,
        PixFmt5 = 5,
        PixFmt6 = 6,
        PixFmt7 = 7
    };

    enum TriggerType : int {
        TriggerSoft = 0,
        TriggerHard = 1,
        TriggerVideo = 2
    };

    // One camera's settings; a plain value record, freely copied. Its text form
    // is a flat run of tagged elements (<Gain>12</Gain>...).
    struct CCDSettings {
        CCDSettings();
        QString toString();
        void fromString(QString text);
        QString getBody(QString text, QString openTag, QString closeTag);

        int nHardTriggerSource;
        TriggerType eTriggerType;
        float fWhiteBalanceR;
        float fWhiteBalanceG;
        float fWhiteBalanceB;
        int nBrightness;
        int nSharpness;
        int nHue;
        int nSaturation;
        float fGamma;
        int nGain;
        int nExposure;
        bool bAutoExposure;
    };

    CCDIF();
    virtual ~CCDIF();

    QString getLastError();
    void incImageNO();

    virtual void resetImageNO();
    virtual int getImageNO();
    virtual int getFPS() = 0;
    virtual bool connect(int nCCDNum, PixelFormat ePixelFormat) = 0;
    virtual bool start() = 0;
    virtual void stop() = 0;
    virtual bool IsConnected() = 0;
    virtual bool IsStarted() = 0;
    virtual void disconnect() = 0;
    virtual bool applyNewSettings(CCDSettings cSettings) = 0;
    virtual bool getCurSettings(CCDSettings* pSettings) = 0;
    virtual bool click() = 0;
    virtual void getImageInfo(int* pnWidth, int* pnHeight, int* pnBytesPerLine) = 0;
    virtual bool waitNewImage(int nTimeout) = 0;
    virtual bool copyImage(unsigned char* pBuf, int nWidth, int nBytesPerLine, int nHeight) = 0;
    virtual QString showConfigWindow(QString strConfig) = 0;

signals:
    // Hosts link against it (the registry forwards it to NewImageArrivedMain
    // and ...Slaver); the webcam driver never emits it: frames are pulled.
    void NewImageArrived(int nWidth, int nBytesPerLine, int nHeight);

protected:
    QMutex m_cImageNOMutex;
    int m_nImageNO;
    QString m_strLastError;
};

#endif
