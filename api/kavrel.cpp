// SPDX-License-Identifier: LGPL-2.1-or-later
#include "api/kavrel.h"

#include <atomic>

#include "api/camerause.h"
#include "camera/ccdwebcam.h"

namespace {

// API calls under way on a camera of the registry. Counted before the lookup,
// which waits for the registry's mutex: destroyInstance, holding that mutex,
// either sees the call and refuses, or the call finds the next registry.
std::atomic<int> g_nCameraUses{0};

} // namespace

namespace kavrel {

CameraUse::CameraUse(bool bSlaver)
{
    g_nCameraUses.fetch_add(1);
    try {
        Kavrel* pRegistry = Kavrel::getInstance();
        m_pCamera = bSlaver ? pRegistry->getInterfaceSlaver() : pRegistry->getInterfaceMain();
    } catch (...) {
        g_nCameraUses.fetch_sub(1);
        throw;
    }
}

CameraUse::~CameraUse()
{
    g_nCameraUses.fetch_sub(1);
}

} // namespace kavrel

Kavrel* Kavrel::s_pcThis = nullptr;
QMutex Kavrel::s_cMutexForInstance;

Kavrel::Kavrel()
    : QObject(nullptr)
    , m_pCCDMain(new CCDWebCam())
    , m_pCCDSlaver(new CCDWebCam())
{
    QObject::connect(m_pCCDMain, &CCDIF::NewImageArrived, this, &Kavrel::OnNewImageArrivedMain);
    QObject::connect(m_pCCDSlaver, &CCDIF::NewImageArrived, this, &Kavrel::OnNewImageArrivedSlaver);
}

Kavrel::~Kavrel()
{
    // Deferred: a host may still be inside a call on the camera's thread.
    m_pCCDMain->deleteLater();
    m_pCCDSlaver->deleteLater();
}

Kavrel* Kavrel::getInstance()
{
    QMutexLocker cLocker(&s_cMutexForInstance);
    if (!s_pcThis)
        s_pcThis = new Kavrel();
    return s_pcThis;
}

void Kavrel::destroyInstance()
{
    QMutexLocker cLocker(&s_cMutexForInstance);
    // A camera still in use by another thread stays: refused, nothing changes.
    if (s_pcThis && g_nCameraUses.load() == 0) {
        delete s_pcThis;
        s_pcThis = nullptr;
    }
}

CCDWebCam* Kavrel::getInterfaceMain()
{
    return m_pCCDMain;
}

CCDWebCam* Kavrel::getInterfaceSlaver()
{
    return m_pCCDSlaver;
}

bool Kavrel::IsMainCCDReady()
{
    return m_pCCDMain != nullptr;
}

bool Kavrel::IsSlaverCCDReady()
{
    return m_pCCDSlaver != nullptr;
}

void Kavrel::OnNewImageArrivedMain(int nWidth, int nBytesPerLine, int nHeight)
{
    emit NewImageArrivedMain(nWidth, nBytesPerLine, nHeight);
}

void Kavrel::OnNewImageArrivedSlaver(int nWidth, int nBytesPerLine, int nHeight)
{
    emit NewImageArrivedSlaver(nWidth, nBytesPerLine, nHeight);
}
