#include "api/interface.h"

#include <QByteArray>
#include <QStringList>
#include <climits>
#include <cstdint>
#include <cstring>
#include <new>

#include "api/kavrel.h"
#include "camera/ccdwebcam.h"
#include "imaging/globalfunction.h"

char* gszConfigString = new char[1024]();
int gnConfigStringLen = 1024;

KavrelInterface* KavrelInterface::s_pcThis = nullptr;
QMutex KavrelInterface::s_cMutex;

char* transConfigString(QString str)
{
    const QByteArray baText = str.toUtf8();
    const int nNeed = baText.size() + 1;
    if (nNeed >= gnConfigStringLen) {
        int nNewLen = gnConfigStringLen;
        while (nNeed >= nNewLen) {
            const double dNext = nNewLen * 1.5;
            if (dNext >= static_cast<double>(INT_MAX)) {
                nNewLen = INT_MAX;
                break;
            }
            nNewLen = static_cast<int>(dNext);
        }
        char* pNew = new (std::nothrow) char[nNewLen];
        if (!pNew || nNeed > nNewLen) {
            // Out of memory: keep the old buffer and hand out an empty text.
            delete[] pNew;
            gszConfigString[0] = '\0';
            return gszConfigString;
        }
        delete[] gszConfigString;
        gszConfigString = pNew;
        gnConfigStringLen = nNewLen;
    }
    std::memcpy(gszConfigString, baText.constData(), static_cast<std::size_t>(nNeed));
    return gszConfigString;
}

namespace {

// <PixFmt> codes are not the enumeration: 1 and 2, and 4 and 5, are swapped.
CCDIF::PixelFormat pixelFormatOfCode(int nCode)
{
    switch (nCode) {
    case 1: return CCDIF::PixFmtBGR;
    case 2: return CCDIF::PixFmtRGB;
    case 3: return CCDIF::PixFmt3;
    case 4: return CCDIF::PixFmt5;
    case 5: return CCDIF::PixFmt4;
    case 6: return CCDIF::PixFmt6;
    case 7: return CCDIF::PixFmt7;
    default: return CCDIF::PixFmtGray8;
    }
}

QString decodeLocal8Bit(const char* szText)
{
    if (!szText)
        return QString();
    const std::size_t nLen = std::strlen(szText);
    // QString holds at most INT_MAX bytes' worth; longer texts are cut there.
    return QString::fromLocal8Bit(szText, nLen > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(nLen));
}

CCDWebCam* cameraMain()
{
    return Kavrel::getInstance()->getInterfaceMain();
}

CCDWebCam* cameraSlaver()
{
    return Kavrel::getInstance()->getInterfaceSlaver();
}

// Reads one camera's configuration string into its parsed members.
void parseConfig(const QString& strConfig, CCDIF::CCDSettings& cSettings, QString& strCCDType, int& nCCDPos,
                 int& nPixFmt, bool& bUseCUDA, int& nRAW, int& nROIX, int& nROIY, int& nROIWidth,
                 int& nROIHeight)
{
    const QString strCCDType0 = GlobalFunction::getBody(strConfig, "<CCDType>", "</CCDType>");
    const QString strCCDPos = GlobalFunction::getBody(strConfig, "<CCDPos>", "</CCDPos>");
    const QString strPixFmt = GlobalFunction::getBody(strConfig, "<PixFmt>", "</PixFmt>");
    const QString strROI = GlobalFunction::getBody(strConfig, "<ROI>", "</ROI>");
    const QString strRAW = GlobalFunction::getBody(strConfig, "<RAW>", "</RAW>");
    const QString strSettings = GlobalFunction::getBody(strConfig, "<Settings>", "</Settings>");
    const QString strUseCUDA = GlobalFunction::getBody(strConfig, "<UseCUDA>", "</UseCUDA>");

    bUseCUDA = strUseCUDA.toInt(nullptr, 10) == 1;
    cSettings.fromString(strSettings);
    strCCDType = strCCDType0;
    nCCDPos = strCCDPos.toInt(nullptr, 10);
    nPixFmt = strPixFmt.toInt(nullptr, 10);
    nRAW = strRAW.toInt(nullptr, 10);

    // Two values are a size at the top left, four a full region; anything else
    // keeps the region we had.
    const QStringList lstROI = strROI.split(",", Qt::KeepEmptyParts);
    if (lstROI.size() == 2) {
        nROIX = 0;
        nROIY = 0;
        nROIWidth = lstROI.at(0).toInt(nullptr, 10);
        nROIHeight = lstROI.at(1).toInt(nullptr, 10);
    } else if (lstROI.size() == 4) {
        nROIX = lstROI.at(0).toInt(nullptr, 10);
        nROIY = lstROI.at(1).toInt(nullptr, 10);
        nROIWidth = lstROI.at(2).toInt(nullptr, 10);
        nROIHeight = lstROI.at(3).toInt(nullptr, 10);
    }
}

// The hand-over shared by both cameras: wait for the next frame, then copy it
// into the caller-lent buffer under the camera's hand-over mutex, which stays
// locked for the caller when an image is returned.
unsigned char* requestImage(CCDWebCam* (*pfnCamera)(), QMutex& cMutex, unsigned char*& pBuf, int& nBufSize,
                            int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout)
{
    int nWidth = 0;
    int nBytesPerLine = 0;
    int nHeight = 0;
    if (pnWidth)
        *pnWidth = 0;
    if (pnBytesPerLine)
        *pnBytesPerLine = 0;
    if (pnHeight)
        *pnHeight = 0;

    if (!pfnCamera()->waitNewImage(nTimeout))
        return nullptr;
    pfnCamera()->getImageInfo(&nWidth, &nHeight, &nBytesPerLine);
    if (pnWidth)
        *pnWidth = nWidth;
    if (pnBytesPerLine)
        *pnBytesPerLine = nBytesPerLine;
    if (pnHeight)
        *pnHeight = nHeight;
    if (nWidth < 1 || nHeight < 1)
        return nullptr;
    const std::int64_t nSize64 = static_cast<std::int64_t>(nHeight) * nBytesPerLine;
    if (nBytesPerLine < 1 || nSize64 > INT_MAX)
        return nullptr;
    const int nSize = static_cast<int>(nSize64);

    cMutex.lock();
    if (nSize > nBufSize) {
        // The buffer grows to exactly the largest image seen and never shrinks.
        unsigned char* pNew = new (std::nothrow) unsigned char[static_cast<std::size_t>(nSize)];
        if (!pNew) {
            cMutex.unlock();
            return nullptr;
        }
        delete[] pBuf;
        pBuf = pNew;
        nBufSize = nSize;
    }
    if (!pfnCamera()->copyImage(pBuf, nWidth, nBytesPerLine, nHeight)) {
        cMutex.unlock();
        return nullptr;
    }
    return pBuf;
}

void releaseImage(QMutex& cMutex, unsigned char* pImage)
{
    if (!pImage)
        return;
    // A release while nothing is lent is ignored rather than unlocking a free mutex.
    if (cMutex.tryLock()) {
        cMutex.unlock();
        return;
    }
    cMutex.unlock();
}

} // namespace

KavrelInterface::KavrelInterface()
    : m_strConfigMain("")
    , m_strConfigSlaver("")
    , m_nCCDPosMain(0)
    , m_nPixFmtMain(0)
    , m_bUseCUDAMain(false)
    , m_nRAWMain(0)
    , m_nROIXMain(0)
    , m_nROIYMain(0)
    , m_nROIWidthMain(0)
    , m_nROIHeightMain(0)
    , m_nCCDPosSlaver(0)
    , m_nPixFmtSlaver(0)
    , m_bUseCUDASlaver(false)
    , m_nRAWSlaver(0)
    , m_nROIXSlaver(0)
    , m_nROIYSlaver(0)
    , m_nROIWidthSlaver(0)
    , m_nROIHeightSlaver(0)
    , m_pImageBufMain(new unsigned char[0])
    , m_pImageBufSlaver(new unsigned char[0])
    , m_nImageBufSizeMain(0)
    , m_nImageBufSizeSlaver(0)
{
}

KavrelInterface::~KavrelInterface()
{
    delete[] m_pImageBufMain;
    delete[] m_pImageBufSlaver;
}

KavrelInterface* KavrelInterface::getInstance()
{
    // Published with release and read with acquire: a thread that sees the
    // pointer also sees the finished object.
    KavrelInterface* pcThis = __atomic_load_n(&s_pcThis, __ATOMIC_ACQUIRE);
    if (pcThis)
        return pcThis;
    QMutexLocker cLocker(&s_cMutex);
    pcThis = __atomic_load_n(&s_pcThis, __ATOMIC_RELAXED);
    if (!pcThis) {
        pcThis = new KavrelInterface();
        __atomic_store_n(&s_pcThis, pcThis, __ATOMIC_RELEASE);
    }
    return pcThis;
}

char* KavrelInterface::getLastError()
{
    return transConfigString(m_strLastError);
}

bool KavrelInterface::IsConnectedMain()
{
    return cameraMain()->IsConnected();
}

bool KavrelInterface::IsConnectedSlaver()
{
    return cameraSlaver()->IsConnected();
}

bool KavrelInterface::IsStartedMain()
{
    return cameraMain()->IsStarted();
}

bool KavrelInterface::IsStartedSlaver()
{
    return cameraSlaver()->IsStarted();
}

int KavrelInterface::getCCDFPSMain()
{
    return cameraMain()->getFPS();
}

int KavrelInterface::getCCDFPSSlaver()
{
    return cameraSlaver()->getFPS();
}

// ---------------------------------------------------------------------------
// Configuration strings

void KavrelInterface::setConfigStringMain(char* szConfig)
{
    const QString strConfig = decodeLocal8Bit(szConfig);
    if (parseConfigStrMain(strConfig))
        m_strConfigMain = strConfig;
}

void KavrelInterface::setConfigStringSlaver(char* szConfig)
{
    const QString strConfig = decodeLocal8Bit(szConfig);
    if (parseConfigStrSlaver(strConfig))
        m_strConfigSlaver = strConfig;
}

char* KavrelInterface::getConfigStringMain()
{
    return transConfigString(m_strConfigMain);
}

char* KavrelInterface::getConfigStringSlaver()
{
    return transConfigString(m_strConfigSlaver);
}

bool KavrelInterface::parseConfigStrMain(QString strConfig)
{
    parseConfig(strConfig, m_cSettingsMain, m_strCCDTypeMain, m_nCCDPosMain, m_nPixFmtMain, m_bUseCUDAMain,
                m_nRAWMain, m_nROIXMain, m_nROIYMain, m_nROIWidthMain, m_nROIHeightMain);
    return true;
}

bool KavrelInterface::parseConfigStrSlaver(QString strConfig)
{
    parseConfig(strConfig, m_cSettingsSlaver, m_strCCDTypeSlaver, m_nCCDPosSlaver, m_nPixFmtSlaver,
                m_bUseCUDASlaver, m_nRAWSlaver, m_nROIXSlaver, m_nROIYSlaver, m_nROIWidthSlaver,
                m_nROIHeightSlaver);
    return true;
}

bool KavrelInterface::applyNewConfigMain()
{
    if (!cameraMain()->IsStarted())
        return false;
    cameraMain()->useCUDA(m_bUseCUDAMain);
    cameraMain()->applyNewSettings(m_cSettingsMain);
    return cameraMain()->setROI(m_nROIXMain, m_nROIYMain, m_nROIWidthMain, m_nROIHeightMain);
}

bool KavrelInterface::applyNewConfigSlaver()
{
    if (!cameraSlaver()->IsStarted())
        return false;
    cameraSlaver()->useCUDA(m_bUseCUDASlaver);
    cameraSlaver()->applyNewSettings(m_cSettingsSlaver);
    return cameraSlaver()->setROI(m_nROIXSlaver, m_nROIYSlaver, m_nROIWidthSlaver, m_nROIHeightSlaver);
}

// ---------------------------------------------------------------------------
// Acquisition

bool KavrelInterface::connectMain()
{
    if (m_strConfigMain.length() == 0) {
        m_strLastError = "No config string is set.";
        return false;
    }
    if (cameraMain()->IsConnected())
        return true;
    cameraMain()->useCUDA(m_bUseCUDAMain);
    if (cameraMain()->connect(m_nCCDPosMain, pixelFormatOfCode(m_nPixFmtMain)))
        return true;
    m_strLastError = cameraMain()->getLastError();
    return false;
}

bool KavrelInterface::connectSlaver()
{
    if (m_strConfigSlaver.length() == 0) {
        m_strLastError = "No config string is set.";
        return false;
    }
    if (cameraSlaver()->IsConnected())
        return true;
    cameraSlaver()->useCUDA(m_bUseCUDASlaver);
    if (cameraSlaver()->connect(m_nCCDPosSlaver, pixelFormatOfCode(m_nPixFmtSlaver)))
        return true;
    m_strLastError = cameraSlaver()->getLastError();
    return false;
}

void KavrelInterface::disconnectMain()
{
    if (cameraMain()->IsConnected())
        cameraMain()->disconnect();
}

void KavrelInterface::disconnectSlaver()
{
    if (cameraSlaver()->IsConnected())
        cameraSlaver()->disconnect();
}

bool KavrelInterface::startMain()
{
    if (!cameraMain()->IsConnected()) {
        m_strLastError = "CCD is not connected.";
        return false;
    }
    cameraMain()->applyNewSettings(m_cSettingsMain);
    cameraMain()->setROI(m_nROIXMain, m_nROIYMain, m_nROIWidthMain, m_nROIHeightMain);
    if (cameraMain()->start())
        return true;
    m_strLastError = cameraMain()->getLastError();
    return false;
}

bool KavrelInterface::startSlaver()
{
    if (!cameraSlaver()->IsConnected()) {
        m_strLastError = "CCD is not connected.";
        return false;
    }
    cameraSlaver()->applyNewSettings(m_cSettingsSlaver);
    cameraSlaver()->setROI(m_nROIXSlaver, m_nROIYSlaver, m_nROIWidthSlaver, m_nROIHeightSlaver);
    if (cameraSlaver()->start())
        return true;
    m_strLastError = cameraSlaver()->getLastError();
    return false;
}

void KavrelInterface::stopMain()
{
    cameraMain()->stop();
}

void KavrelInterface::stopSlaver()
{
    cameraSlaver()->stop();
}

bool KavrelInterface::clickMain()
{
    if (cameraMain()->click())
        return true;
    m_strLastError = cameraMain()->getLastError();
    return false;
}

bool KavrelInterface::clickSlaver()
{
    if (cameraSlaver()->click())
        return true;
    m_strLastError = cameraSlaver()->getLastError();
    return false;
}

unsigned char* KavrelInterface::requestImageMain(int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout)
{
    return requestImage(cameraMain, m_cImageMutexMain, m_pImageBufMain, m_nImageBufSizeMain, pnWidth,
                        pnBytesPerLine, pnHeight, nTimeout);
}

unsigned char* KavrelInterface::requestImageSlaver(int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout)
{
    return requestImage(cameraSlaver, m_cImageMutexSlaver, m_pImageBufSlaver, m_nImageBufSizeSlaver, pnWidth,
                        pnBytesPerLine, pnHeight, nTimeout);
}

void KavrelInterface::releaseImageMain(unsigned char* pImage)
{
    releaseImage(m_cImageMutexMain, pImage);
}

void KavrelInterface::releaseImageSlaver(unsigned char* pImage)
{
    releaseImage(m_cImageMutexSlaver, pImage);
}

// ---------------------------------------------------------------------------
// Configuration window

char* KavrelInterface::showConfigWindowMain(char* szConfig)
{
    const bool bWasStarted = cameraMain()->IsStarted();
    cameraMain()->disconnect();
    const QString strResult = cameraMain()->showConfigWindow(decodeLocal8Bit(szConfig));
    char* szResult = transConfigString(strResult);
    // The restart uses the stored configuration, not the dialog's result.
    if (bWasStarted && connectMain())
        startMain();
    return szResult;
}

char* KavrelInterface::showConfigWindowSlaver(char* szConfig)
{
    const bool bWasStarted = cameraSlaver()->IsStarted();
    cameraSlaver()->disconnect();
    const QString strResult = cameraSlaver()->showConfigWindow(decodeLocal8Bit(szConfig));
    char* szResult = transConfigString(strResult);
    if (bWasStarted && connectSlaver())
        startSlaver();
    return szResult;
}
