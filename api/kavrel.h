#ifndef KAVREL_API_KAVREL_H
#define KAVREL_API_KAVREL_H

#include <QMutex>
#include <QObject>

class CCDWebCam;

// The camera registry: owns the Main and the Slaver camera and forwards their
// image signal. Every API operation looks its camera up here anew.
class Kavrel : public QObject
{
    Q_OBJECT
public:
    Kavrel();
    virtual ~Kavrel();

    static Kavrel* getInstance();
    // Deletes the registry; the next lookup makes a new one with two new,
    // unconnected cameras. Refused (nothing happens) while another thread is
    // inside a camera operation of KavrelInterface, such as a request waiting
    // for its frame or an open configuration dialog.
    static void destroyInstance();

    CCDWebCam* getInterfaceMain();
    CCDWebCam* getInterfaceSlaver();
    bool IsMainCCDReady();
    bool IsSlaverCCDReady();

signals:
    void NewImageArrivedMain(int nWidth, int nBytesPerLine, int nHeight);
    void NewImageArrivedSlaver(int nWidth, int nBytesPerLine, int nHeight);

public slots:
    void OnNewImageArrivedMain(int nWidth, int nBytesPerLine, int nHeight);
    void OnNewImageArrivedSlaver(int nWidth, int nBytesPerLine, int nHeight);

private:
    CCDWebCam* m_pCCDMain;
    CCDWebCam* m_pCCDSlaver;

    static Kavrel* s_pcThis;
    static QMutex s_cMutexForInstance;
};

#endif
