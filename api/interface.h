#ifndef KAVREL_API_INTERFACE_H
#define KAVREL_API_INTERFACE_H

#include <QMutex>
#include <QString>

#include "camera/ccdif.h"

// The one text buffer behind every char* result of the API (UTF-8, owned by the
// library, overwritten by the next text result; it grows and is never freed).
extern char* gszConfigString;
extern int gnConfigStringLen;

// Copies str as UTF-8 into gszConfigString, growing it when needed, and returns it.
char* transConfigString(QString str);

// The library's exported entry point, one per process. Every camera operation
// exists twice: Main for the first camera, Slaver for the second.
class KavrelInterface
{
public:
    KavrelInterface();
    ~KavrelInterface();

    static KavrelInterface* getInstance();

    char* getLastError();

    bool IsConnectedMain();
    bool IsConnectedSlaver();
    bool IsStartedMain();
    bool IsStartedSlaver();
    int getCCDFPSMain();
    int getCCDFPSSlaver();

    void setConfigStringMain(char* szConfig);
    void setConfigStringSlaver(char* szConfig);
    char* getConfigStringMain();
    char* getConfigStringSlaver();
    bool parseConfigStrMain(QString strConfig);
    bool parseConfigStrSlaver(QString strConfig);
    bool applyNewConfigMain();
    bool applyNewConfigSlaver();

    bool connectMain();
    bool connectSlaver();
    void disconnectMain();
    void disconnectSlaver();
    bool startMain();
    bool startSlaver();
    void stopMain();
    void stopSlaver();
    bool clickMain();
    bool clickSlaver();

    // Waits up to nTimeout ms for the camera's next frame and lends the library's
    // buffer holding it: width in pixels, bytes per line, height in lines. The
    // buffer stays the caller's (and unchanged) until releaseImage... on the
    // same thread; null when no image came.
    unsigned char* requestImageMain(int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout);
    unsigned char* requestImageSlaver(int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout);
    void releaseImageMain(unsigned char* pImage);
    void releaseImageSlaver(unsigned char* pImage);

    char* showConfigWindowMain(char* szConfig);
    char* showConfigWindowSlaver(char* szConfig);

private:
    friend class KavrelInterfaceTestPeer;

    QString m_strConfigMain;
    QString m_strConfigSlaver;
    QString m_strLastError;

    CCDIF::CCDSettings m_cSettingsMain;
    QString m_strCCDTypeMain;
    int m_nCCDPosMain;
    int m_nPixFmtMain;
    bool m_bUseCUDAMain;
    int m_nRAWMain;
    int m_nROIXMain;
    int m_nROIYMain;
    int m_nROIWidthMain;
    int m_nROIHeightMain;

    CCDIF::CCDSettings m_cSettingsSlaver;
    QString m_strCCDTypeSlaver;
    int m_nCCDPosSlaver;
    int m_nPixFmtSlaver;
    bool m_bUseCUDASlaver;
    int m_nRAWSlaver;
    int m_nROIXSlaver;
    int m_nROIYSlaver;
    int m_nROIWidthSlaver;
    int m_nROIHeightSlaver;

    QMutex m_cImageMutexMain;
    QMutex m_cImageMutexSlaver;
    unsigned char* m_pImageBufMain;
    unsigned char* m_pImageBufSlaver;
    int m_nImageBufSizeMain;
    int m_nImageBufSizeSlaver;

    static KavrelInterface* s_pcThis;
    static QMutex s_cMutex;
};

#endif
