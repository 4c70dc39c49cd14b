// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_API_KAVREL_H
#define KAVREL_API_KAVREL_H

#include <QMutex>
#include <QObject>

#include "api/kavrelexport.h"

class CCDWebCam;

/// @file
/// The camera registry behind KavrelInterface.

/// The camera registry: owns the Main and the Slaver camera and forwards their
/// image signal. Every API operation looks its camera up here anew.
class KAVREL_EXPORT Kavrel : public QObject
{
    Q_OBJECT
public:
    /// Makes both camera objects; use getInstance().
    Kavrel();
    /// Schedules both camera objects for deletion (deleteLater); does not stop them.
    virtual ~Kavrel();

    /// The registry, made on the first call.
    static Kavrel* getInstance();
    /// Deletes the registry; the next getInstance() makes a new one with two new,
    /// unconnected cameras. Nothing in the library calls it. Refused (nothing
    /// happens) while another thread is inside a camera operation of
    /// KavrelInterface, such as a request waiting for its frame or an open
    /// configuration dialog.
    static void destroyInstance();

    /// The Main camera object.
    CCDWebCam* getInterfaceMain();
    /// The Slaver camera object.
    CCDWebCam* getInterfaceSlaver();
    /// Whether the Main camera object exists.
    bool IsMainCCDReady();
    /// Whether the Slaver camera object exists.
    bool IsSlaverCCDReady();

signals:
    /// A camera driver that announces frames (the webcam driver does not) has a
    /// new Main image: width in pixels, bytes per line, height in lines.
    void NewImageArrivedMain(int nWidth, int nBytesPerLine, int nHeight);
    /// As NewImageArrivedMain(), for the Slaver camera.
    void NewImageArrivedSlaver(int nWidth, int nBytesPerLine, int nHeight);

public slots:
    /// Emits NewImageArrivedMain() with the same values.
    void OnNewImageArrivedMain(int nWidth, int nBytesPerLine, int nHeight);
    /// Emits NewImageArrivedSlaver() with the same values.
    void OnNewImageArrivedSlaver(int nWidth, int nBytesPerLine, int nHeight);

private:
    CCDWebCam* m_pCCDMain;
    CCDWebCam* m_pCCDSlaver;

    static Kavrel* s_pcThis;
    static QMutex s_cMutexForInstance;
};

#endif
