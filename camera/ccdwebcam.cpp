// SPDX-License-Identifier: LGPL-2.1-or-later
#include "camera/ccdwebcam.h"

#include <QApplication>
#include <climits>
#include <cstdint>
#include <cstring>
#include <new>

#include "camera/sdkgate.h"
#include "dialog/webcamconfigdlg.h"
#include "imaging/framekernels.h"
#include "torvane.h"

namespace {

// The driver always talks to SDK camera 0, whatever number the caller gave.
const int kCamera = 0;

// NaN takes the low bound, as the text "nan" reads as 0 like any other
// malformed number.
float clampValue(float fValue, double dLow, double dHigh)
{
    if (!(static_cast<double>(fValue) >= dLow))
        return static_cast<float>(dLow);
    if (static_cast<double>(fValue) > dHigh)
        return static_cast<float>(dHigh);
    return fValue;
}

float clampGamma(float fValue)
{
    return clampValue(fValue, 0.01, 10.0);
}

float clampWhiteBalance(float fValue)
{
    return clampValue(fValue, 0.1, 2.0);
}

// Rounds a region side up to a multiple of 4. Sides so large that rounding up
// would leave the int range become the largest multiple of 4 that fits; the
// SDK then refuses them.
int roundUpTo4(int nValue)
{
    const std::int64_t nRounded = (static_cast<std::int64_t>(nValue) + 3) & ~static_cast<std::int64_t>(3);
    return nRounded > INT_MAX ? (INT_MAX & ~3) : static_cast<int>(nRounded);
}

// Fields that requests on other threads read while the host changes them
// (started flag, gamma, trigger type, pixel format) are read and written as
// atomics; they stay plain members, where hosts expect them.
template <typename T>
T loadShared(const T& field)
{
    T value;
    __atomic_load(&field, &value, __ATOMIC_SEQ_CST);
    return value;
}

template <typename T>
void storeShared(T& field, T value)
{
    __atomic_store(&field, &value, __ATOMIC_SEQ_CST);
}

kavrel::SdkGate& sdk()
{
    return kavrel::SdkGate::instance();
}

} // namespace

CCDWebCam::CCDWebCam()
    : m_pImageBuf(nullptr)
    , m_nWidth(0)
    , m_nBytesPerLine(0)
    , m_nHeight(0)
    , m_bUseCUDA(false)
    , m_ePixelFormat(PixFmtGray8)
    , m_bConnected(false)
    , m_bStarted(false)
{
}

CCDWebCam::~CCDWebCam()
{
    CCDWebCam::disconnect();
    delete[] m_pImageBuf;
}

int CCDWebCam::getFPS()
{
    return 0;
}

bool CCDWebCam::connect(int nCCDNum, PixelFormat ePixelFormat)
{
    Q_UNUSED(nCCDNum);
    if (m_bConnected) {
        storeShared(m_ePixelFormat, ePixelFormat);
        return true;
    }
    switch (sdk().call([] { return camera_init(kCamera, 0); })) {
    case 1:
        m_strLastError = "Config file is not exist!";
        return false;
    case 2:
        m_strLastError = "Camera has no response!";
        return false;
    case 3:
        m_strLastError = "No camera is exists!";
        return false;
    case 4:
        m_strLastError = "Bad camera parameters!";
        return false;
    case 5:
        m_strLastError = "Partial init failed!";
        return false;
    default:
        // 0 and every code the SDK does not document count as success.
        break;
    }
    m_bConnected = true;
    storeShared(m_ePixelFormat, ePixelFormat);
    return true;
}

bool CCDWebCam::start()
{
    if (!m_bConnected) {
        m_strLastError = "Camera is not connected!";
        return false;
    }
    storeShared(m_bStarted, true);
    return true;
}

void CCDWebCam::stop()
{
    storeShared(m_bStarted, false);
    // Requests still waiting for a trigger or for their turn give up now.
    sdk().wake();
}

bool CCDWebCam::IsConnected()
{
    return m_bConnected;
}

bool CCDWebCam::IsStarted()
{
    return loadShared(m_bStarted);
}

void CCDWebCam::disconnect()
{
    if (!m_bConnected)
        return;
    stop();
    sdk().call([] { return camera_free(kCamera); });
    m_bConnected = false;
}

bool CCDWebCam::click()
{
    if (!loadShared(m_bStarted)) {
        m_strLastError = "Camera is not started!";
        return false;
    }
    if (loadShared(m_cSettings.eTriggerType) == TriggerSoft)
        sdk().trigger();
    return true;
}

void CCDWebCam::useCUDA(bool bUse)
{
    m_bUseCUDA = bUse;
}

CCDIF::PixelFormat CCDWebCam::getPixelFormat()
{
    return loadShared(m_ePixelFormat);
}

int CCDWebCam::getCCDNum()
{
    return 1;
}

// ---------------------------------------------------------------------------
// Frames

void CCDWebCam::getImageInfo(int* pnWidth, int* pnHeight, int* pnBytesPerLine)
{
    // Taken briefly so that a frame of another size arriving on another thread
    // is read either whole or not at all; copyImage checks the geometry again.
    QMutexLocker cLocker(&m_cImageMutex);
    if (pnWidth)
        *pnWidth = m_nWidth;
    if (pnHeight)
        *pnHeight = m_nHeight;
    if (pnBytesPerLine)
        *pnBytesPerLine = m_nBytesPerLine;
}

bool CCDWebCam::waitNewImage(int nTimeout)
{
    if (!loadShared(m_bStarted))
        return false;
    const int nWait = nTimeout < 1 ? 1 : nTimeout;
    kavrel::SdkFrame cFrame;
    const bool bSoftTrigger = loadShared(m_cSettings.eTriggerType) == TriggerSoft;
    if (!sdk().fetch(nWait, bSoftTrigger, &m_bStarted, cFrame))
        return false;
    // The frame is the SDK's until its next call, which waits for this read.
    struct ReadEnd {
        ~ReadEnd() { sdk().endRead(); }
    } cReadEnd;
    const unsigned char* pFrame = cFrame.pData;
    const int w = cFrame.nWidth;
    const int h = cFrame.nHeight;
    const int c = cFrame.nBytesPerPixel;

    // A frame whose image would not fit the int geometry of the API (or makes no
    // sense) is refused; the current image stays as it was.
    if (w < 0 || h < 0)
        return false;
    const std::int64_t nSrcLine = static_cast<std::int64_t>(w) * c;
    // The frame's own byte count must fit as well: its data is read in full.
    if (nSrcLine > INT_MAX || nSrcLine * h > INT_MAX)
        return false;
    const bool bGrey = loadShared(m_ePixelFormat) == PixFmtGray8;
    const std::int64_t nDstLine64 = bGrey ? w : 3 * static_cast<std::int64_t>(w);
    const std::int64_t nDstSize64 = nDstLine64 * h;
    if (nDstLine64 > INT_MAX || nDstSize64 > INT_MAX)
        return false;
    const int nDstLine = static_cast<int>(nDstLine64);

    // The table is built outside the lock; gamma is read once per frame.
    const float fGamma = loadShared(m_cSettings.fGamma);
    unsigned char aGammaTable[256];
    const unsigned char* pTable = nullptr;
    if (kavrel::gammaActive(fGamma)) {
        kavrel::buildGammaTable(fGamma, aGammaTable);
        pTable = aGammaTable;
    }

    QMutexLocker cLocker(&m_cImageMutex);
    if (w != m_nWidth || h != m_nHeight || nDstLine != m_nBytesPerLine || !m_pImageBuf) {
        // Zero-filled, so that frames we cannot transfer stay black.
        unsigned char* pNew = new (std::nothrow) unsigned char[static_cast<std::size_t>(nDstSize64)]();
        if (!pNew)
            return false;
        delete[] m_pImageBuf;
        m_pImageBuf = pNew;
        m_nWidth = w;
        m_nHeight = h;
        m_nBytesPerLine = nDstLine;
    }

    const std::size_t nPixels = static_cast<std::size_t>(w) * static_cast<std::size_t>(h);
    const std::size_t nBytes = static_cast<std::size_t>(nDstSize64);
    if (nSrcLine == nDstLine) {
        kavrel::transferCopy(pFrame, m_pImageBuf, nBytes, pTable);
    } else if (nSrcLine == m_nWidth && nDstLine == 3 * nSrcLine) {
        kavrel::transferExpand3(pFrame, m_pImageBuf, nPixels, pTable);
    } else if (nSrcLine == 3 * static_cast<std::int64_t>(m_nWidth) && nDstLine == m_nWidth) {
        kavrel::transferGrey3To1(pFrame, m_pImageBuf, nPixels, pTable);
    } else if (pTable) {
        // Nothing transferred, but gamma still runs over what the buffer holds.
        kavrel::applyTable(m_pImageBuf, nBytes, pTable);
    }
    return true;
}

bool CCDWebCam::copyImage(unsigned char* pBuf, int nWidth, int nBytesPerLine, int nHeight)
{
    QMutexLocker cLocker(&m_cImageMutex);
    if (nWidth != m_nWidth || nHeight != m_nHeight || nBytesPerLine != m_nBytesPerLine)
        return false;
    const std::size_t nBytes = static_cast<std::size_t>(m_nBytesPerLine) * static_cast<std::size_t>(m_nHeight);
    if (nBytes == 0)
        return true;
    if (!pBuf || !m_pImageBuf)
        return false;
    std::memcpy(pBuf, m_pImageBuf, nBytes);
    return true;
}

// ---------------------------------------------------------------------------
// Settings, region and corrections

bool CCDWebCam::applyNewSettings(CCDSettings cSettings)
{
    if (!m_bConnected) {
        m_strLastError = "Camera is not connected!";
        return false;
    }
    // Field by field: requests may read gamma and the trigger type meanwhile.
    m_cSettings.nHardTriggerSource = cSettings.nHardTriggerSource;
    storeShared(m_cSettings.eTriggerType, cSettings.eTriggerType);
    m_cSettings.fWhiteBalanceR = clampWhiteBalance(cSettings.fWhiteBalanceR);
    m_cSettings.fWhiteBalanceG = clampWhiteBalance(cSettings.fWhiteBalanceG);
    m_cSettings.fWhiteBalanceB = clampWhiteBalance(cSettings.fWhiteBalanceB);
    m_cSettings.nBrightness = cSettings.nBrightness;
    m_cSettings.nSharpness = cSettings.nSharpness;
    m_cSettings.nHue = cSettings.nHue;
    m_cSettings.nSaturation = cSettings.nSaturation;
    storeShared(m_cSettings.fGamma, clampGamma(cSettings.fGamma));
    m_cSettings.nGain = cSettings.nGain;
    m_cSettings.nExposure = cSettings.nExposure;
    m_cSettings.bAutoExposure = cSettings.bAutoExposure;

    sdk().call([&] { return set_camera_exposure(m_cSettings.nExposure, kCamera); });
    switch (cSettings.eTriggerType) {
    case TriggerSoft:
    case TriggerHard:
        sdk().setMode(1);
        break;
    case TriggerVideo:
        sdk().setMode(0);
        break;
    default:
        break;
    }
    sdk().call([&] { return set_camera_gain(m_cSettings.nGain, kCamera); });
    return true;
}

bool CCDWebCam::getCurSettings(CCDSettings* pSettings)
{
    if (!m_bConnected) {
        m_strLastError = "Camera is not connected!";
        return false;
    }
    storeShared(m_cSettings.fGamma, clampGamma(loadShared(m_cSettings.fGamma)));
    m_cSettings.fWhiteBalanceR = clampWhiteBalance(m_cSettings.fWhiteBalanceR);
    m_cSettings.fWhiteBalanceG = clampWhiteBalance(m_cSettings.fWhiteBalanceG);
    m_cSettings.fWhiteBalanceB = clampWhiteBalance(m_cSettings.fWhiteBalanceB);
    sdk().call([&] { return get_camera_exposure(&m_cSettings.nExposure, kCamera); });
    sdk().call([&] { return get_camera_gain(&m_cSettings.nGain, kCamera); });
    if (pSettings)
        *pSettings = m_cSettings;
    return true;
}

bool CCDWebCam::setROI(int& nX, int& nY, int& nWidth, int& nHeight)
{
    if (!m_bConnected) {
        m_strLastError = "Camera is not connected!";
        return false;
    }
    const bool bWasStarted = loadShared(m_bStarted);
    if (bWasStarted)
        stop();

    // The window always starts at the sensor's top left corner.
    nX = 0;
    nY = 0;
    if (nWidth < 1 || nHeight < 1) {
        int nMaxWidth = 0;
        int nMaxHeight = 0;
        if (sdk().call([&] { return get_camera_max_window_size(&nMaxWidth, &nMaxHeight, kCamera); }) != 0) {
            m_strLastError = "Get Camera max resolution failed!";
            return false;
        }
        if (nWidth < 1)
            nWidth = nMaxWidth;
        if (nHeight < 1)
            nHeight = nMaxHeight;
    }
    nWidth = roundUpTo4(nWidth);
    nHeight = roundUpTo4(nHeight);
    if (sdk().call([&] { return set_camera_window_size(nWidth, nHeight, kCamera); }) != 0) {
        m_strLastError = "Set Camera resolution failed!";
        return false;
    }
    if (bWasStarted)
        start();
    return true;
}

bool CCDWebCam::getROI(int& nX, int& nY, int& nWidth, int& nHeight)
{
    if (!m_bConnected) {
        m_strLastError = "Camera is not connected!";
        return false;
    }
    nX = 0;
    nY = 0;
    sdk().call([&] { return get_camera_window_size(&nWidth, &nHeight, kCamera); });
    return true;
}

void CCDWebCam::modifyGamma(float fValue)
{
    storeShared(m_cSettings.fGamma, clampGamma(fValue));
}

void CCDWebCam::modifyWhiteBalanceR(float fValue)
{
    m_cSettings.fWhiteBalanceR = clampWhiteBalance(fValue);
}

void CCDWebCam::modifyWhiteBalanceG(float fValue)
{
    m_cSettings.fWhiteBalanceG = clampWhiteBalance(fValue);
}

void CCDWebCam::modifyWhiteBalanceB(float fValue)
{
    m_cSettings.fWhiteBalanceB = clampWhiteBalance(fValue);
}

// ---------------------------------------------------------------------------
// Configuration window

QString CCDWebCam::showConfigWindow(QString strConfig)
{
    // Widgets need a QApplication; a headless host gets its text back as if the
    // window had been closed without OK.
    if (!qobject_cast<QApplication*>(QCoreApplication::instance()))
        return strConfig;
    WebCamConfigDlg cDlg(strConfig, nullptr);
    cDlg.exec();
    return cDlg.getConfigString();
}
