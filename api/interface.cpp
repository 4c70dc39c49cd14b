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

// Which camera a twin is, as kavrel::CameraUse takes it.
const bool kMain = false;
const bool kSlaver = true;

} // namespace

// One camera's side of KavrelInterface: every Main operation and its Slaver
// twin run this code. The fields stay in KavrelInterface, where hosts' builds
// expect them; a twin refers to one camera's share of them (and to the last
// error, which both share). Internal, never exported.
class __attribute__((visibility("hidden"))) KavrelTwin
{
public:
    KavrelTwin(KavrelInterface& cApi, bool bSlaver);

    bool isConnected() const;
    bool isStarted() const;
    int fps() const;

    void setConfigString(const char* szConfig);
    char* configString() const;
    bool parseConfig(const QString& strConfig);
    bool applyNewConfig();

    bool connect();
    void disconnect();
    bool start();
    void stop();
    bool click();
    unsigned char* requestImage(int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout);
    void releaseImage(unsigned char* pImage);

    char* showConfigWindow(const char* szConfig);

private:
    // Looked up anew for every call on the camera (the registry may have been
    // destroyed and made again in between).
    kavrel::CameraUse camera() const { return kavrel::CameraUse(m_bSlaver); }
    // Passes a camera operation's result on; after a failure the camera's own
    // text becomes the last error.
    bool orCameraError(bool bOk);
    void readConfig(const QString& strConfig);
    unsigned char* handOver(int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout);

    const bool m_bSlaver;
    QString& m_strConfig;
    QString& m_strLastError;
    CCDIF::CCDSettings& m_cSettings;
    QString& m_strCCDType;
    int& m_nCCDPos;
    int& m_nPixFmt;
    bool& m_bUseCUDA;
    int& m_nRAW;
    int& m_nROIX;
    int& m_nROIY;
    int& m_nROIWidth;
    int& m_nROIHeight;
    QMutex& m_cImageMutex;
    unsigned char*& m_pImageBuf;
    int& m_nImageBufSize;
};

KavrelTwin::KavrelTwin(KavrelInterface& a, bool bSlaver)
    : m_bSlaver(bSlaver)
    , m_strConfig(bSlaver ? a.m_strConfigSlaver : a.m_strConfigMain)
    , m_strLastError(a.m_strLastError)
    , m_cSettings(bSlaver ? a.m_cSettingsSlaver : a.m_cSettingsMain)
    , m_strCCDType(bSlaver ? a.m_strCCDTypeSlaver : a.m_strCCDTypeMain)
    , m_nCCDPos(bSlaver ? a.m_nCCDPosSlaver : a.m_nCCDPosMain)
    , m_nPixFmt(bSlaver ? a.m_nPixFmtSlaver : a.m_nPixFmtMain)
    , m_bUseCUDA(bSlaver ? a.m_bUseCUDASlaver : a.m_bUseCUDAMain)
    , m_nRAW(bSlaver ? a.m_nRAWSlaver : a.m_nRAWMain)
    , m_nROIX(bSlaver ? a.m_nROIXSlaver : a.m_nROIXMain)
    , m_nROIY(bSlaver ? a.m_nROIYSlaver : a.m_nROIYMain)
    , m_nROIWidth(bSlaver ? a.m_nROIWidthSlaver : a.m_nROIWidthMain)
    , m_nROIHeight(bSlaver ? a.m_nROIHeightSlaver : a.m_nROIHeightMain)
    , m_cImageMutex(bSlaver ? a.m_cImageMutexSlaver : a.m_cImageMutexMain)
    , m_pImageBuf(bSlaver ? a.m_pImageBufSlaver : a.m_pImageBufMain)
    , m_nImageBufSize(bSlaver ? a.m_nImageBufSizeSlaver : a.m_nImageBufSizeMain)
{
}

bool KavrelTwin::orCameraError(bool bOk)
{
    if (!bOk)
        m_strLastError = camera()->getLastError();
    return bOk;
}

bool KavrelTwin::isConnected() const
{
    return guarded(false, [this] { return camera()->IsConnected(); });
}

bool KavrelTwin::isStarted() const
{
    return guarded(false, [this] { return camera()->IsStarted(); });
}

int KavrelTwin::fps() const
{
    return guarded(0, [this] { return camera()->getFPS(); });
}

// ---------------------------------------------------------------------------
// Configuration strings

// Decodes a configuration string and, when it parses, stores it.
void KavrelTwin::setConfigString(const char* szConfig)
{
    guardedVoid([&] {
        QString strConfig;
        if (!decodeLocal8Bit(szConfig, strConfig)) {
            m_strLastError = "Config string is too long.";
            return;
        }
        if (parseConfig(strConfig))
            m_strConfig = strConfig;
    });
}

char* KavrelTwin::configString() const
{
    return transConfigString(m_strConfig);
}

// True once parsed; false only when memory ran out, with nothing changed.
bool KavrelTwin::parseConfig(const QString& strConfig)
{
    return guarded(false, [&] {
        readConfig(strConfig);
        return true;
    });
}

// All or nothing: everything that can fail works on copies, which are then
// assigned.
void KavrelTwin::readConfig(const QString& strConfig)
{
    const QString strCCDType = GlobalFunction::getBody(strConfig, "<CCDType>", "</CCDType>");
    const QString strCCDPos = GlobalFunction::getBody(strConfig, "<CCDPos>", "</CCDPos>");
    const QString strPixFmt = GlobalFunction::getBody(strConfig, "<PixFmt>", "</PixFmt>");
    const QString strROI = GlobalFunction::getBody(strConfig, "<ROI>", "</ROI>");
    const QString strRAW = GlobalFunction::getBody(strConfig, "<RAW>", "</RAW>");
    const QString strSettings = GlobalFunction::getBody(strConfig, "<Settings>", "</Settings>");
    const QString strUseCUDA = GlobalFunction::getBody(strConfig, "<UseCUDA>", "</UseCUDA>");

    CCDIF::CCDSettings cNewSettings = m_cSettings;
    cNewSettings.fromString(strSettings);
    int aRegion[4] = {m_nROIX, m_nROIY, m_nROIWidth, m_nROIHeight};
    readRegion(strROI, aRegion);

    m_bUseCUDA = strUseCUDA.toInt(nullptr, 10) == 1;
    m_cSettings = cNewSettings;
    m_strCCDType = strCCDType;
    m_nCCDPos = strCCDPos.toInt(nullptr, 10);
    m_nPixFmt = strPixFmt.toInt(nullptr, 10);
    m_nRAW = strRAW.toInt(nullptr, 10);
    m_nROIX = aRegion[0];
    m_nROIY = aRegion[1];
    m_nROIWidth = aRegion[2];
    m_nROIHeight = aRegion[3];
}

bool KavrelTwin::applyNewConfig()
{
    return guarded(false, [&] {
        if (!camera()->IsStarted())
            return false;
        camera()->useCUDA(m_bUseCUDA);
        camera()->applyNewSettings(m_cSettings);
        return camera()->setROI(m_nROIX, m_nROIY, m_nROIWidth, m_nROIHeight);
    });
}

// ---------------------------------------------------------------------------
// Acquisition

bool KavrelTwin::connect()
{
    return guarded(false, [&] {
        if (m_strConfig.length() == 0) {
            m_strLastError = "No config string is set.";
            return false;
        }
        if (camera()->IsConnected())
            return true;
        camera()->useCUDA(m_bUseCUDA);
        const bool bConnected = camera()->connect(m_nCCDPos, pixelFormatOfCode(m_nPixFmt));
        return orCameraError(bConnected);
    });
}

void KavrelTwin::disconnect()
{
    guardedVoid([this] {
        if (camera()->IsConnected())
            camera()->disconnect();
    });
}

bool KavrelTwin::start()
{
    return guarded(false, [&] {
        if (!camera()->IsConnected()) {
            m_strLastError = "CCD is not connected.";
            return false;
        }
        camera()->applyNewSettings(m_cSettings);
        camera()->setROI(m_nROIX, m_nROIY, m_nROIWidth, m_nROIHeight);
        const bool bStarted = camera()->start();
        return orCameraError(bStarted);
    });
}

void KavrelTwin::stop()
{
    guardedVoid([this] { camera()->stop(); });
}

bool KavrelTwin::click()
{
    return guarded(false, [&] {
        const bool bClicked = camera()->click();
        return orCameraError(bClicked);
    });
}

// Wait for the next frame, then copy it into the buffer under the camera's
// hand-over mutex, which stays locked for the caller when an image is lent.
// Called with the camera's request lock held.
unsigned char* KavrelTwin::handOver(int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout)
{
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

    HandOverGuard& cGuard = handOverGuard(m_bSlaver);
    m_cImageMutex.lock();
    cGuard.hHolder.store(QThread::currentThreadId());
    bool bLent = false;
    try {
        if (nSize > m_nImageBufSize) {
            // The buffer grows to exactly the largest image seen and never shrinks.
            unsigned char* pNew = new (std::nothrow) unsigned char[static_cast<std::size_t>(nSize)];
            if (pNew) {
                delete[] m_pImageBuf;
                m_pImageBuf = pNew;
                m_nImageBufSize = nSize;
            }
        }
        bLent = nSize <= m_nImageBufSize && camera()->copyImage(m_pImageBuf, nWidth, nBytesPerLine, nHeight);
    } catch (...) {
        bLent = false;
    }
    if (!bLent) {
        cGuard.hHolder.store(nullptr);
        m_cImageMutex.unlock();
        return nullptr;
    }
    return m_pImageBuf;
}

unsigned char* KavrelTwin::requestImage(int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout)
{
    if (pnWidth)
        *pnWidth = 0;
    if (pnBytesPerLine)
        *pnBytesPerLine = 0;
    if (pnHeight)
        *pnHeight = 0;
    HandOverGuard& cGuard = handOverGuard(m_bSlaver);
    // This thread holds the camera's image already: waiting would be for ever.
    if (cGuard.hHolder.load() == QThread::currentThreadId())
        return nullptr;
    // Another request of this camera is under way: wait for it within the time-out.
    if (!cGuard.cRequestMutex.tryLock(nTimeout < 1 ? 1 : nTimeout))
        return nullptr;
    unsigned char* pImage = nullptr;
    try {
        pImage = handOver(pnWidth, pnBytesPerLine, pnHeight, nTimeout);
    } catch (...) {
        pImage = nullptr;
    }
    cGuard.cRequestMutex.unlock();
    return pImage;
}

// Only the thread holding the camera's image ends the hold; a release from any
// other thread, or a second one, changes nothing.
void KavrelTwin::releaseImage(unsigned char* pImage)
{
    HandOverGuard& cGuard = handOverGuard(m_bSlaver);
    if (!pImage || cGuard.hHolder.load() != QThread::currentThreadId())
        return;
    cGuard.hHolder.store(nullptr);
    m_cImageMutex.unlock();
}

// ---------------------------------------------------------------------------
// Configuration window

char* KavrelTwin::showConfigWindow(const char* szConfig)
{
    return orEmptyText(guarded(static_cast<char*>(nullptr), [&] {
        // The camera stays in use, so the registry stays, while the dialog runs.
        const kavrel::CameraUse cCamera = camera();
        const bool bWasStarted = cCamera->IsStarted();
        cCamera->disconnect();
        QString strConfig;
        decodeLocal8Bit(szConfig, strConfig);
        char* szResult = transConfigString(cCamera->showConfigWindow(strConfig));
        // The restart uses the stored configuration, not the dialog's result.
        if (bWasStarted && connect())
            start();
        return szResult;
    }));
}

// ---------------------------------------------------------------------------
// KavrelInterface

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

// The twins: each operation of one camera is its twin's, on that camera's fields.

bool KavrelInterface::IsConnectedMain() { return KavrelTwin(*this, kMain).isConnected(); }
bool KavrelInterface::IsConnectedSlaver() { return KavrelTwin(*this, kSlaver).isConnected(); }
bool KavrelInterface::IsStartedMain() { return KavrelTwin(*this, kMain).isStarted(); }
bool KavrelInterface::IsStartedSlaver() { return KavrelTwin(*this, kSlaver).isStarted(); }
int KavrelInterface::getCCDFPSMain() { return KavrelTwin(*this, kMain).fps(); }
int KavrelInterface::getCCDFPSSlaver() { return KavrelTwin(*this, kSlaver).fps(); }

void KavrelInterface::setConfigStringMain(char* szConfig) { KavrelTwin(*this, kMain).setConfigString(szConfig); }
void KavrelInterface::setConfigStringSlaver(char* szConfig) { KavrelTwin(*this, kSlaver).setConfigString(szConfig); }
char* KavrelInterface::getConfigStringMain() { return KavrelTwin(*this, kMain).configString(); }
char* KavrelInterface::getConfigStringSlaver() { return KavrelTwin(*this, kSlaver).configString(); }
bool KavrelInterface::parseConfigStrMain(QString strConfig)
{
    return KavrelTwin(*this, kMain).parseConfig(strConfig);
}
bool KavrelInterface::parseConfigStrSlaver(QString strConfig)
{
    return KavrelTwin(*this, kSlaver).parseConfig(strConfig);
}
bool KavrelInterface::applyNewConfigMain() { return KavrelTwin(*this, kMain).applyNewConfig(); }
bool KavrelInterface::applyNewConfigSlaver() { return KavrelTwin(*this, kSlaver).applyNewConfig(); }

bool KavrelInterface::connectMain() { return KavrelTwin(*this, kMain).connect(); }
bool KavrelInterface::connectSlaver() { return KavrelTwin(*this, kSlaver).connect(); }
void KavrelInterface::disconnectMain() { KavrelTwin(*this, kMain).disconnect(); }
void KavrelInterface::disconnectSlaver() { KavrelTwin(*this, kSlaver).disconnect(); }
bool KavrelInterface::startMain() { return KavrelTwin(*this, kMain).start(); }
bool KavrelInterface::startSlaver() { return KavrelTwin(*this, kSlaver).start(); }
void KavrelInterface::stopMain() { KavrelTwin(*this, kMain).stop(); }
void KavrelInterface::stopSlaver() { KavrelTwin(*this, kSlaver).stop(); }
bool KavrelInterface::clickMain() { return KavrelTwin(*this, kMain).click(); }
bool KavrelInterface::clickSlaver() { return KavrelTwin(*this, kSlaver).click(); }

unsigned char* KavrelInterface::requestImageMain(int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout)
{
    return KavrelTwin(*this, kMain).requestImage(pnWidth, pnBytesPerLine, pnHeight, nTimeout);
}

unsigned char* KavrelInterface::requestImageSlaver(int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout)
{
    return KavrelTwin(*this, kSlaver).requestImage(pnWidth, pnBytesPerLine, pnHeight, nTimeout);
}

void KavrelInterface::releaseImageMain(unsigned char* pImage) { KavrelTwin(*this, kMain).releaseImage(pImage); }
void KavrelInterface::releaseImageSlaver(unsigned char* pImage) { KavrelTwin(*this, kSlaver).releaseImage(pImage); }

char* KavrelInterface::showConfigWindowMain(char* szConfig)
{
    return KavrelTwin(*this, kMain).showConfigWindow(szConfig);
}

char* KavrelInterface::showConfigWindowSlaver(char* szConfig)
{
    return KavrelTwin(*this, kSlaver).showConfigWindow(szConfig);
}
