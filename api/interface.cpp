// SPDX-License-Identifier: LGPL-2.1-or-later
#include "api/interface.h"

#include <QByteArray>
#include <QThread>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>

#include "api/camerause.h"
#include "camera/ccdwebcam.h"
#include "camera/textfields.h"
#include "imaging/globalfunction.h"

char* gszConfigString = new char[1024]();
int gnConfigStringLen = 1024;

KavrelInterface* KavrelInterface::s_pcThis = nullptr;
QMutex KavrelInterface::s_cMutex;

namespace {

// Two threads asking for texts at once must not write into a buffer the other
// has just replaced. What a returned pointer shows is still only valid until
// the next text result, whichever thread asks for it.
std::mutex& textBufferMutex()
{
    static std::mutex* s_pMutex = new std::mutex(); // outlives every caller
    return *s_pMutex;
}

// Copies the text and its NUL into the shared buffer, which grows by half again
// as often as needed and never shrinks. Called with the buffer's mutex held.
char* copyToTextBuffer(const QByteArray& baText)
{
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

} // namespace

char* transConfigString(QString str)
{
    QByteArray baText;
    try {
        baText = str.toUtf8();
    } catch (...) {
        // Out of memory: an empty text.
    }
    std::lock_guard<std::mutex> cLock(textBufferMutex());
    return copyToTextBuffer(baText);
}

namespace {

// Every exported operation runs inside one of these: whatever is thrown below
// (allocation failures of Qt's texts) ends as the operation's failure result.
template <typename R, typename F>
R guarded(R failure, F&& fn) noexcept
{
    try {
        return fn();
    } catch (...) {
        return failure;
    }
}

template <typename F>
void guardedVoid(F&& fn) noexcept
{
    try {
        fn();
    } catch (...) {
    }
}

// A text result that failed becomes the empty text in the shared buffer.
char* orEmptyText(char* szText)
{
    return szText ? szText : transConfigString(QString());
}

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

// The most characters a QString holds: Qt allocates at most INT_MAX bytes for
// its header and UTF-16 data. A local 8-bit text decodes to at most as many
// characters as it has bytes, so any text up to this length fits.
const std::size_t kMaxTextLength = (static_cast<std::size_t>(INT_MAX) - 64) / 2;

// False for a text too long to hold; a null pointer is the empty text.
bool decodeLocal8Bit(const char* szText, QString& strText)
{
    if (!szText) {
        strText = QString();
        return true;
    }
    const std::size_t nLen = std::strlen(szText);
    if (nLen > kMaxTextLength)
        return false;
    strText = QString::fromLocal8Bit(szText, static_cast<int>(nLen));
    return true;
}

kavrel::CameraUse cameraMain()
{
    return kavrel::CameraUse(false);
}

kavrel::CameraUse cameraSlaver()
{
    return kavrel::CameraUse(true);
}

// "w,h" is a size at the top left, "x,y,w,h" a whole region; any other body
// keeps the region we had.
void readRegion(const QString& strROI, int (&aRegion)[4])
{
    QStringRef aSize[2];
    QStringRef aFull[4];
    if (kavrel::splitExactly(strROI, aSize)) {
        aRegion[0] = 0;
        aRegion[1] = 0;
        aRegion[2] = aSize[0].toInt(nullptr, 10);
        aRegion[3] = aSize[1].toInt(nullptr, 10);
    } else if (kavrel::splitExactly(strROI, aFull)) {
        for (int i = 0; i < 4; ++i)
            aRegion[i] = aFull[i].toInt(nullptr, 10);
    }
}

// Reads one camera's configuration string into its parsed members, all or
// nothing: everything that can fail works on copies, which are then assigned.
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

    CCDIF::CCDSettings cNewSettings = cSettings;
    cNewSettings.fromString(strSettings);
    int aRegion[4] = {nROIX, nROIY, nROIWidth, nROIHeight};
    readRegion(strROI, aRegion);

    bUseCUDA = strUseCUDA.toInt(nullptr, 10) == 1;
    cSettings = cNewSettings;
    strCCDType = strCCDType0;
    nCCDPos = strCCDPos.toInt(nullptr, 10);
    nPixFmt = strPixFmt.toInt(nullptr, 10);
    nRAW = strRAW.toInt(nullptr, 10);
    nROIX = aRegion[0];
    nROIY = aRegion[1];
    nROIWidth = aRegion[2];
    nROIHeight = aRegion[3];
}

// Decodes a configuration string and, when it parses, stores it.
template <typename Parse>
void storeConfig(const char* szConfig, QString& strStored, QString& strLastError, Parse parse)
{
    QString strConfig;
    if (!decodeLocal8Bit(szConfig, strConfig)) {
        strLastError = "Config string is too long.";
        return;
    }
    if (parse(strConfig))
        strStored = strConfig;
}


// Who holds each camera's hand-over, and the lock that lets one request of a
// camera at a time go from waiting for its frame to copying it, so that every
// request lends the very frame it waited for. Both live here rather than in
// the class, whose layout hosts were built against.
struct HandOverGuard {
    std::atomic<Qt::HANDLE> hHolder{nullptr};
    QMutex cRequestMutex;
};

HandOverGuard& handOverGuard(bool bSlaver)
{
    static HandOverGuard* s_aGuards = new HandOverGuard[2]; // outlives every caller
    return s_aGuards[bSlaver ? 1 : 0];
}

// The hand-over of either camera: wait for the next frame, then copy it into
// the buffer under the camera's hand-over mutex, which stays locked for the
// caller when an image is lent. Called with the camera's request lock held.
unsigned char* handOver(bool bSlaver, QMutex& cMutex, unsigned char*& pBuf, int& nBufSize, int* pnWidth,
                        int* pnBytesPerLine, int* pnHeight, int nTimeout)
{
    auto camera = [bSlaver] { return kavrel::CameraUse(bSlaver); };
    if (!camera()->waitNewImage(nTimeout))
        return nullptr;
    int nWidth = 0;
    int nBytesPerLine = 0;
    int nHeight = 0;
    camera()->getImageInfo(&nWidth, &nHeight, &nBytesPerLine);
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

    HandOverGuard& cGuard = handOverGuard(bSlaver);
    cMutex.lock();
    cGuard.hHolder.store(QThread::currentThreadId());
    bool bLent = false;
    try {
        if (nSize > nBufSize) {
            // The buffer grows to exactly the largest image seen and never shrinks.
            unsigned char* pNew = new (std::nothrow) unsigned char[static_cast<std::size_t>(nSize)];
            if (pNew) {
                delete[] pBuf;
                pBuf = pNew;
                nBufSize = nSize;
            }
        }
        bLent = nSize <= nBufSize && camera()->copyImage(pBuf, nWidth, nBytesPerLine, nHeight);
    } catch (...) {
        bLent = false;
    }
    if (!bLent) {
        cGuard.hHolder.store(nullptr);
        cMutex.unlock();
        return nullptr;
    }
    return pBuf;
}

unsigned char* requestImage(bool bSlaver, QMutex& cMutex, unsigned char*& pBuf, int& nBufSize, int* pnWidth,
                            int* pnBytesPerLine, int* pnHeight, int nTimeout)
{
    if (pnWidth)
        *pnWidth = 0;
    if (pnBytesPerLine)
        *pnBytesPerLine = 0;
    if (pnHeight)
        *pnHeight = 0;
    HandOverGuard& cGuard = handOverGuard(bSlaver);
    // This thread holds the camera's image already: waiting would be for ever.
    if (cGuard.hHolder.load() == QThread::currentThreadId())
        return nullptr;
    // Another request of this camera is under way: wait for it within the time-out.
    if (!cGuard.cRequestMutex.tryLock(nTimeout < 1 ? 1 : nTimeout))
        return nullptr;
    unsigned char* pImage = nullptr;
    try {
        pImage = handOver(bSlaver, cMutex, pBuf, nBufSize, pnWidth, pnBytesPerLine, pnHeight, nTimeout);
    } catch (...) {
        pImage = nullptr;
    }
    cGuard.cRequestMutex.unlock();
    return pImage;
}

// Only the thread holding the camera's image ends the hold; a release from any
// other thread, or a second one, changes nothing.
void releaseImage(bool bSlaver, QMutex& cMutex, unsigned char* pImage)
{
    HandOverGuard& cGuard = handOverGuard(bSlaver);
    if (!pImage || cGuard.hHolder.load() != QThread::currentThreadId())
        return;
    cGuard.hHolder.store(nullptr);
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
    return guarded(false, [] { return cameraMain()->IsConnected(); });
}

bool KavrelInterface::IsConnectedSlaver()
{
    return guarded(false, [] { return cameraSlaver()->IsConnected(); });
}

bool KavrelInterface::IsStartedMain()
{
    return guarded(false, [] { return cameraMain()->IsStarted(); });
}

bool KavrelInterface::IsStartedSlaver()
{
    return guarded(false, [] { return cameraSlaver()->IsStarted(); });
}

int KavrelInterface::getCCDFPSMain()
{
    return guarded(0, [] { return cameraMain()->getFPS(); });
}

int KavrelInterface::getCCDFPSSlaver()
{
    return guarded(0, [] { return cameraSlaver()->getFPS(); });
}

// ---------------------------------------------------------------------------
// Configuration strings

void KavrelInterface::setConfigStringMain(char* szConfig)
{
    guardedVoid([&] {
        storeConfig(szConfig, m_strConfigMain, m_strLastError,
                    [this](const QString& strConfig) { return parseConfigStrMain(strConfig); });
    });
}

void KavrelInterface::setConfigStringSlaver(char* szConfig)
{
    guardedVoid([&] {
        storeConfig(szConfig, m_strConfigSlaver, m_strLastError,
                    [this](const QString& strConfig) { return parseConfigStrSlaver(strConfig); });
    });
}

char* KavrelInterface::getConfigStringMain()
{
    return transConfigString(m_strConfigMain);
}

char* KavrelInterface::getConfigStringSlaver()
{
    return transConfigString(m_strConfigSlaver);
}

// True once parsed; false only when memory ran out, with nothing changed.
bool KavrelInterface::parseConfigStrMain(QString strConfig)
{
    return guarded(false, [&] {
        parseConfig(strConfig, m_cSettingsMain, m_strCCDTypeMain, m_nCCDPosMain, m_nPixFmtMain, m_bUseCUDAMain,
                    m_nRAWMain, m_nROIXMain, m_nROIYMain, m_nROIWidthMain, m_nROIHeightMain);
        return true;
    });
}

bool KavrelInterface::parseConfigStrSlaver(QString strConfig)
{
    return guarded(false, [&] {
        parseConfig(strConfig, m_cSettingsSlaver, m_strCCDTypeSlaver, m_nCCDPosSlaver, m_nPixFmtSlaver,
                    m_bUseCUDASlaver, m_nRAWSlaver, m_nROIXSlaver, m_nROIYSlaver, m_nROIWidthSlaver,
                    m_nROIHeightSlaver);
        return true;
    });
}

bool KavrelInterface::applyNewConfigMain()
{
    return guarded(false, [&] {
        if (!cameraMain()->IsStarted())
            return false;
        cameraMain()->useCUDA(m_bUseCUDAMain);
        cameraMain()->applyNewSettings(m_cSettingsMain);
        return cameraMain()->setROI(m_nROIXMain, m_nROIYMain, m_nROIWidthMain, m_nROIHeightMain);
    });
}

bool KavrelInterface::applyNewConfigSlaver()
{
    return guarded(false, [&] {
        if (!cameraSlaver()->IsStarted())
            return false;
        cameraSlaver()->useCUDA(m_bUseCUDASlaver);
        cameraSlaver()->applyNewSettings(m_cSettingsSlaver);
        return cameraSlaver()->setROI(m_nROIXSlaver, m_nROIYSlaver, m_nROIWidthSlaver, m_nROIHeightSlaver);
    });
}

// ---------------------------------------------------------------------------
// Acquisition

bool KavrelInterface::connectMain()
{
    return guarded(false, [&] {
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
    });
}

bool KavrelInterface::connectSlaver()
{
    return guarded(false, [&] {
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
    });
}

void KavrelInterface::disconnectMain()
{
    guardedVoid([] {
        if (cameraMain()->IsConnected())
            cameraMain()->disconnect();
    });
}

void KavrelInterface::disconnectSlaver()
{
    guardedVoid([] {
        if (cameraSlaver()->IsConnected())
            cameraSlaver()->disconnect();
    });
}

bool KavrelInterface::startMain()
{
    return guarded(false, [&] {
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
    });
}

bool KavrelInterface::startSlaver()
{
    return guarded(false, [&] {
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
    });
}

void KavrelInterface::stopMain()
{
    guardedVoid([] { cameraMain()->stop(); });
}

void KavrelInterface::stopSlaver()
{
    guardedVoid([] { cameraSlaver()->stop(); });
}

bool KavrelInterface::clickMain()
{
    return guarded(false, [&] {
        if (cameraMain()->click())
            return true;
        m_strLastError = cameraMain()->getLastError();
        return false;
    });
}

bool KavrelInterface::clickSlaver()
{
    return guarded(false, [&] {
        if (cameraSlaver()->click())
            return true;
        m_strLastError = cameraSlaver()->getLastError();
        return false;
    });
}

unsigned char* KavrelInterface::requestImageMain(int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout)
{
    return requestImage(false, m_cImageMutexMain, m_pImageBufMain, m_nImageBufSizeMain, pnWidth, pnBytesPerLine,
                        pnHeight, nTimeout);
}

unsigned char* KavrelInterface::requestImageSlaver(int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout)
{
    return requestImage(true, m_cImageMutexSlaver, m_pImageBufSlaver, m_nImageBufSizeSlaver, pnWidth,
                        pnBytesPerLine, pnHeight, nTimeout);
}

void KavrelInterface::releaseImageMain(unsigned char* pImage)
{
    releaseImage(false, m_cImageMutexMain, pImage);
}

void KavrelInterface::releaseImageSlaver(unsigned char* pImage)
{
    releaseImage(true, m_cImageMutexSlaver, pImage);
}

// ---------------------------------------------------------------------------
// Configuration window

char* KavrelInterface::showConfigWindowMain(char* szConfig)
{
    return orEmptyText(guarded(static_cast<char*>(nullptr), [&] {
        // The camera stays in use, so the registry stays, while the dialog runs.
        kavrel::CameraUse cCamera(false);
        const bool bWasStarted = cCamera->IsStarted();
        cCamera->disconnect();
        QString strConfig;
        decodeLocal8Bit(szConfig, strConfig);
        char* szResult = transConfigString(cCamera->showConfigWindow(strConfig));
        // The restart uses the stored configuration, not the dialog's result.
        if (bWasStarted && connectMain())
            startMain();
        return szResult;
    }));
}

char* KavrelInterface::showConfigWindowSlaver(char* szConfig)
{
    return orEmptyText(guarded(static_cast<char*>(nullptr), [&] {
        kavrel::CameraUse cCamera(true);
        const bool bWasStarted = cCamera->IsStarted();
        cCamera->disconnect();
        QString strConfig;
        decodeLocal8Bit(szConfig, strConfig);
        char* szResult = transConfigString(cCamera->showConfigWindow(strConfig));
        if (bWasStarted && connectSlaver())
            startSlaver();
        return szResult;
    }));
}
