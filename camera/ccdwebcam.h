// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_CAMERA_CCDWEBCAM_H
#define KAVREL_CAMERA_CCDWEBCAM_H

#include "api/kavrelexport.h"
#include "camera/ccdif.h"

// The camera driver over the vendor SDK (libtorvane.so). Every SDK call names
// camera 0; the SDK keeps its own state, the driver keeps no handle.
// Acquisition is pulled: waitNewImage takes the next frame, getImageInfo and
// copyImage hand it out.
class KAVREL_EXPORT CCDWebCam : public CCDIF
{
    Q_OBJECT
public:
    CCDWebCam();
    virtual ~CCDWebCam();

    // Hosts link against it (and getCCDFPSMain/Slaver): no rate is measured, always 0.
    int getFPS() override;
    bool connect(int nCCDNum, PixelFormat ePixelFormat) override;
    bool start() override;
    void stop() override;
    bool IsConnected() override;
    bool IsStarted() override;
    void disconnect() override;
    bool applyNewSettings(CCDSettings cSettings) override;
    bool getCurSettings(CCDSettings* pSettings) override;
    bool click() override;
    void getImageInfo(int* pnWidth, int* pnHeight, int* pnBytesPerLine) override;
    bool waitNewImage(int nTimeout) override;
    bool copyImage(unsigned char* pBuf, int nWidth, int nBytesPerLine, int nHeight) override;
    QString showConfigWindow(QString strConfig) override;

    // Hosts link against it, and <UseCUDA> arrives here: stored, never read.
    void useCUDA(bool bUse);
    PixelFormat getPixelFormat();
    // Hosts link against it: always 1, whatever camera number was connected.
    int getCCDNum();
    bool setROI(int& nX, int& nY, int& nWidth, int& nHeight);
    bool getROI(int& nX, int& nY, int& nWidth, int& nHeight);
    void modifyGamma(float fValue);
    void modifyWhiteBalanceR(float fValue);
    void modifyWhiteBalanceG(float fValue);
    void modifyWhiteBalanceB(float fValue);

protected:
    QMutex m_cImageMutex;
    unsigned char* m_pImageBuf;
    int m_nWidth;
    int m_nBytesPerLine;
    int m_nHeight;
    bool m_bUseCUDA;
    PixelFormat m_ePixelFormat;
    CCDSettings m_cSettings;
    bool m_bConnected;
    bool m_bStarted;
};

#endif
