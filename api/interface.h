// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_API_INTERFACE_H
#define KAVREL_API_INTERFACE_H

#include <QMutex>
#include <QString>

#include "api/kavrelexport.h"
#include "camera/ccdif.h"

/// @file
/// The exported interface of libKavrel: KavrelInterface and the shared text buffer.

/// The one text buffer behind every char* result of the API (UTF-8, owned by the
/// library, overwritten by the next text result; it grows and is never freed).
extern KAVREL_EXPORT char* gszConfigString;
/// The capacity of gszConfigString in bytes (1024 at first; it only grows).
extern KAVREL_EXPORT int gnConfigStringLen;

/// Copies str as UTF-8 into gszConfigString, growing it when needed, and returns it.
KAVREL_EXPORT char* transConfigString(QString str);

/// The library's exported entry point, one per process. Every camera operation
/// exists twice: Main for the first camera, Slaver for the second.
///
/// Usual order for one camera: setConfigStringMain(), connectMain(), startMain(),
/// then requestImageMain() and releaseImageMain() as often as wanted (with
/// clickMain() before each request in software-trigger mode), stopMain(),
/// disconnectMain(). Failures never throw: operations answer false or null and,
/// where they say so, leave an English text for getLastError(). Configuration,
/// connect, start, stop, click and disconnect of one camera and all text results
/// need the host to serialise them; image requests may come from any thread.
class KAVREL_EXPORT KavrelInterface
{
public:
    /// Use getInstance(); the library never destroys the instance.
    KavrelInterface();
    /// Frees both image buffers.
    ~KavrelInterface();

    /// The one instance, made on the first call (thread-safe).
    static KavrelInterface* getInstance();

    /// The text of the most recent failure of any operation, either camera, in the
    /// shared text buffer (copy it); empty before any failure. A later success does
    /// not clear it.
    char* getLastError();

    /// Whether the Main camera is connected.
    bool IsConnectedMain();
    /// Whether the Slaver camera is connected.
    bool IsConnectedSlaver();
    /// Whether the Main camera is started (acquiring).
    bool IsStartedMain();
    /// Whether the Slaver camera is started (acquiring).
    bool IsStartedSlaver();
    /// The Main camera's frame rate as its driver reports it (0 with the webcam driver).
    int getCCDFPSMain();
    /// The Slaver camera's frame rate as its driver reports it (0 with the webcam driver).
    int getCCDFPSSlaver();

    /// Stores the Main camera's configuration string (local 8-bit encoding; null
    /// counts as empty) and parses it. Every text is accepted: a missing or
    /// unreadable element reads as 0, so a string without `<Settings>` gives
    /// exposure 0 (black frames) and gamma 0 (taken as 0.01). The camera is not
    /// touched: the string reaches it at the next connectMain(), startMain() or
    /// applyNewConfigMain().
    void setConfigStringMain(char* szConfig);
    /// As setConfigStringMain(), for the Slaver camera.
    void setConfigStringSlaver(char* szConfig);
    /// The stored Main configuration string as UTF-8, in the shared text buffer.
    char* getConfigStringMain();
    /// The stored Slaver configuration string as UTF-8, in the shared text buffer.
    char* getConfigStringSlaver();
    /// Reads strConfig into the Main camera's parsed configuration without storing
    /// the text; always true.
    bool parseConfigStrMain(QString strConfig);
    /// As parseConfigStrMain(), for the Slaver camera.
    bool parseConfigStrSlaver(QString strConfig);
    /// Hands the parsed CUDA flag, settings and image size to the started Main
    /// camera. False when the camera is not started, or when it refuses the size:
    /// then acquisition is left stopped and getLastError() does not change (the
    /// reason stays in the camera object). The pixel format needs a reconnect.
    bool applyNewConfigMain();
    /// As applyNewConfigMain(), for the Slaver camera.
    bool applyNewConfigSlaver();

    /// Opens the Main camera with the stored camera number, pixel format and CUDA
    /// flag. True when connected, also when it already was (a changed pixel format
    /// then needs disconnectMain() first). False with "No config string is set."
    /// or the camera's own text in getLastError().
    bool connectMain();
    /// As connectMain(), for the Slaver camera.
    bool connectSlaver();
    /// Closes the Main camera if it is connected; reports nothing.
    void disconnectMain();
    /// Closes the Slaver camera if it is connected; reports nothing.
    void disconnectSlaver();
    /// Applies the stored settings and image size to the connected Main camera and
    /// starts acquisition. A refused size is not an error here: the camera starts
    /// with the window it had. False with "CCD is not connected." or the camera's
    /// own text in getLastError().
    bool startMain();
    /// As startMain(), for the Slaver camera.
    bool startSlaver();
    /// Stops acquisition of the Main camera; requests then answer null.
    void stopMain();
    /// Stops acquisition of the Slaver camera; requests then answer null.
    void stopSlaver();
    /// Fires a software trigger on the Main camera (acts in software-trigger
    /// mode). False, with the camera's text in getLastError(), when the camera
    /// refuses it, for example when it is not started.
    bool clickMain();
    /// As clickMain(), for the Slaver camera.
    bool clickSlaver();

    /// Waits up to nTimeout ms for the camera's next frame and lends the library's
    /// buffer holding it: width in pixels, bytes per line, height in lines. The
    /// buffer stays the caller's (and unchanged) until releaseImage... on the
    /// same thread; null when no image came.
    ///
    /// The image is height lines of bytesPerLine bytes without gaps: 3 bytes per
    /// pixel in the 24-bit formats, 1 in grey. A null result sets no text in
    /// getLastError() (no frame in time, camera not started, or a frame of
    /// another size arrived meanwhile). A second request for the same camera from
    /// another thread waits for the release; the two cameras never wait for each
    /// other.
    unsigned char* requestImageMain(int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout);
    /// As requestImageMain(), for the Slaver camera.
    unsigned char* requestImageSlaver(int* pnWidth, int* pnBytesPerLine, int* pnHeight, int nTimeout);
    /// Gives back the image of the last successful requestImageMain(): call it once
    /// per image, on the thread that requested it. Null does nothing.
    void releaseImageMain(unsigned char* pImage);
    /// As releaseImageMain(), for the Slaver camera.
    void releaseImageSlaver(unsigned char* pImage);

    /// Opens the Main camera's configuration dialog, started from szConfig (local
    /// 8-bit encoding), and blocks until the operator closes it. Call it from the
    /// GUI thread with a QApplication in existence. Returns, in the shared text
    /// buffer, the dialog's configuration string after OK, an empty text after
    /// cancel, szConfig when closed otherwise. The camera is disconnected for the
    /// dialog; one that was started is reconnected and restarted afterwards with
    /// the stored configuration, not the dialog's result (adopt that with
    /// setConfigStringMain() and a reconnect, or applyNewConfigMain()).
    char* showConfigWindowMain(char* szConfig);
    /// As showConfigWindowMain(), for the Slaver camera.
    char* showConfigWindowSlaver(char* szConfig);

private:
    friend class KavrelInterfaceTestPeer;
    // Main and Slaver share one implementation, each on its own fields below.
    friend class KavrelTwin;

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
