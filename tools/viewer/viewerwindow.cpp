// SPDX-License-Identifier: LGPL-2.1-or-later
#include "viewerwindow.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTextOption>
#include <QVBoxLayout>

#include "api/interface.h"
#include "toolsupport.h"
#include "twincamera.h"

// Both cameras of the simulated SDK share one sensor window, so both defaults
// ask for the same image size: Main in colour, Slaver in grey.
const char* const gszViewerDefaultMain =
    "<CCDType>WebCam</CCDType><CCDPos>0</CCDPos><PixFmt>1</PixFmt><ROI>640,480</ROI><RAW>0</RAW>"
    "<Settings><HardTriggerSource>0</HardTriggerSource><Brightness>0</Brightness><Sharpness>0</Sharpness>"
    "<Hue>0</Hue><Saturation>0</Saturation><Gamma>1.00</Gamma><Gain>8</Gain><Exposure>20000</Exposure>"
    "<WhiteBalance>1.20,1.00,1.35</WhiteBalance><AutoExposure>false</AutoExposure>"
    "<TriggerType>Video</TriggerType></Settings><UseCUDA>0</UseCUDA>";

const char* const gszViewerDefaultSlaver =
    "<CCDType>WebCam</CCDType><CCDPos>0</CCDPos><PixFmt>0</PixFmt><ROI>640,480</ROI><RAW>0</RAW>"
    "<Settings><HardTriggerSource>0</HardTriggerSource><Brightness>0</Brightness><Sharpness>0</Sharpness>"
    "<Hue>0</Hue><Saturation>0</Saturation><Gamma>0.80</Gamma><Gain>4</Gain><Exposure>15000</Exposure>"
    "<WhiteBalance>1.00,1.00,1.00</WhiteBalance><AutoExposure>false</AutoExposure>"
    "<TriggerType>Video</TriggerType></Settings><UseCUDA>0</UseCUDA>";

namespace {

// The API takes char* in the local 8-bit encoding; keep the bytes alive for the call.
QByteArray local8(const QString& str)
{
    return str.toLocal8Bit();
}

} // namespace

FrameView::FrameView(QWidget* parent) : QWidget(parent)
{
    setMinimumSize(320, 240);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
}

void FrameView::setImage(const QImage& cImage)
{
    m_cImage = cImage;
    update();
}

void FrameView::paintEvent(QPaintEvent*)
{
    QPainter cPainter(this);
    cPainter.fillRect(rect(), Qt::black);
    if (m_cImage.isNull())
        return;
    const QSize cSize = m_cImage.size().scaled(size(), Qt::KeepAspectRatio);
    const QRect cTarget(QPoint((width() - cSize.width()) / 2, (height() - cSize.height()) / 2), cSize);
    cPainter.drawImage(cTarget, m_cImage);
}

CameraPanel::CameraPanel(Which eWhich, const QByteArray& cConfig, QWidget* parent)
    : QGroupBox(parent),
      m_eWhich(eWhich),
      m_pApi(KavrelInterface::getInstance()),
      m_bInDialog(false),
      m_nFramesShown(0),
      m_nFramesThisSecond(0),
      m_dFps(0.0)
{
    const QString strName = name();
    setObjectName("panel" + strName);
    setTitle(strName + " camera");

    m_pView = new FrameView(this);
    m_pView->setObjectName("view" + strName);
    m_pStatus = new QLabel(this);
    m_pStatus->setObjectName("lblStatus" + strName);
    m_pStatus->setTextInteractionFlags(Qt::TextSelectableByMouse);

    auto* pConfigure = new QPushButton("Configure...", this);
    pConfigure->setObjectName("btnConfigure" + strName);
    pConfigure->setToolTip(QString("Opens the configuration dialog (showConfigWindow%1)").arg(strName));
    m_pRun = new QPushButton(this);
    m_pRun->setObjectName("btnRun" + strName);
    m_pTrigger = new QPushButton("Trigger", this);
    m_pTrigger->setObjectName("btnTrigger" + strName);
    m_pTrigger->setToolTip("Software trigger (only acts in software trigger mode)");
    auto* pAdopt = new QPushButton("Set && reconnect", this);
    pAdopt->setObjectName("btnAdopt" + strName);
    pAdopt->setToolTip(QString("setConfigString%1 with the text below, then reconnect and start").arg(strName));
    auto* pApply = new QPushButton("Apply to running", this);
    pApply->setObjectName("btnApply" + strName);
    pApply->setToolTip(QString("setConfigString%1 with the text below, then applyNewConfig%1 "
                               "(settings and size; the pixel format needs a reconnect)").arg(strName));

    m_pConfig = new QPlainTextEdit(QString::fromLocal8Bit(cConfig), this);
    m_pConfig->setObjectName("edtConfig" + strName);
    m_pConfig->setMaximumHeight(90);
    m_pConfig->setWordWrapMode(QTextOption::WrapAnywhere);
    m_pConfig->setToolTip("Configuration string; the dialog's result lands here on OK");

    auto* pButtons = new QHBoxLayout;
    pButtons->addWidget(pConfigure);
    pButtons->addWidget(m_pRun);
    pButtons->addWidget(m_pTrigger);
    pButtons->addStretch(1);
    pButtons->addWidget(pAdopt);
    pButtons->addWidget(pApply);

    auto* pLayout = new QVBoxLayout(this);
    pLayout->addWidget(m_pView, 1);
    pLayout->addWidget(m_pStatus);
    pLayout->addLayout(pButtons);
    pLayout->addWidget(m_pConfig);

    QObject::connect(pConfigure, &QPushButton::clicked, this, &CameraPanel::configure);
    QObject::connect(m_pRun, &QPushButton::clicked, this, &CameraPanel::toggleRun);
    QObject::connect(m_pTrigger, &QPushButton::clicked, this, &CameraPanel::trigger);
    QObject::connect(pAdopt, &QPushButton::clicked, this, &CameraPanel::adopt);
    QObject::connect(pApply, &QPushButton::clicked, this, &CameraPanel::apply);

    setStatus("not connected");
    updateButtons();
}

const kavreltool::TwinCamera& CameraPanel::twin() const
{
    return m_eWhich == Main ? kavreltool::kMainCamera : kavreltool::kSlaverCamera;
}

QString CameraPanel::name() const
{
    return twin().name;
}

bool CameraPanel::isStarted() const
{
    return (m_pApi->*twin().isStarted)();
}

QString CameraPanel::configText() const
{
    return m_pConfig->toPlainText();
}

QString CameraPanel::status() const
{
    return m_pStatus->text();
}

void CameraPanel::setStatus(const QString& strStatus)
{
    m_pStatus->setText(name() + ": " + strStatus);
}

void CameraPanel::updateButtons()
{
    const bool bStarted = isStarted();
    m_pRun->setText(bStarted ? "Stop" : "Start");
    m_pTrigger->setEnabled(bStarted);
}

bool CameraPanel::startCamera()
{
    QByteArray cConfig = local8(configText());
    const kavreltool::TwinCamera& cam = twin();
    (m_pApi->*cam.setConfig)(cConfig.data());
    (m_pApi->*cam.disconnect)();
    const bool bOk = (m_pApi->*cam.connect)() && (m_pApi->*cam.start)();
    // Settings that give no picture are the library's designed behaviour; say so
    // rather than show black or white panels without a word.
    const QStringList cWarnings = kavreltool::pictureWarnings(configText());
    if (!bOk)
        setStatus(QString("failed: %1").arg(QString::fromUtf8(m_pApi->getLastError())));
    else
        setStatus(cWarnings.isEmpty() ? QString("started") : "started; warning: " + cWarnings.join("; "));
    m_nFramesThisSecond = 0;
    m_dFps = 0.0;
    m_cFpsClock.start();
    updateButtons();
    return bOk;
}

void CameraPanel::stopCamera()
{
    (m_pApi->*twin().stop)();
    (m_pApi->*twin().disconnect)();
    setStatus("stopped");
    updateButtons();
}

void CameraPanel::poll(int nTimeoutMs)
{
    // While the dialog runs the device is the dialog's.
    if (m_bInDialog)
        return;
    if (!isStarted())
        return;

    int nWidth = 0;
    int nBytesPerLine = 0;
    int nHeight = 0;
    unsigned char* pImage = (m_pApi->*twin().request)(&nWidth, &nBytesPerLine, &nHeight, nTimeoutMs);
    if (pImage == nullptr)
        return;
    // Colour frames come in B, G, R order; copy before the buffer goes back.
    const QImage::Format eFormat =
        kavreltool::isColourImage(nWidth, nBytesPerLine) ? QImage::Format_BGR888 : QImage::Format_Grayscale8;
    const QImage cImage = QImage(pImage, nWidth, nHeight, nBytesPerLine, eFormat).copy();
    (m_pApi->*twin().release)(pImage);

    m_pView->setImage(cImage);
    ++m_nFramesShown;
    ++m_nFramesThisSecond;
    if (!m_cFpsClock.isValid())
        m_cFpsClock.start();
    if (m_cFpsClock.elapsed() >= 1000) {
        m_dFps = m_nFramesThisSecond * 1000.0 / m_cFpsClock.restart();
        m_nFramesThisSecond = 0;
    }
    setStatus(QString::asprintf("running, %d x %d, %s, %.1f frames/s", nWidth, nHeight,
                                eFormat == QImage::Format_BGR888 ? "colour" : "grey", m_dFps));
}

void CameraPanel::configure()
{
    QByteArray cConfig = local8(configText());
    m_bInDialog = true;
    emit dialogOpened();
    // Modal: returns when the operator closes the dialog. A running camera is
    // restarted by the library with its stored configuration, not the result.
    const char* szResult = (m_pApi->*twin().showConfigWindow)(cConfig.data());
    // The result lives in the library's shared text buffer: copy it at once.
    const QString strResult = QString::fromUtf8(szResult ? szResult : "");
    m_bInDialog = false;
    emit dialogClosed();

    if (strResult.isEmpty()) {
        setStatus("dialog cancelled; configuration unchanged");
    } else {
        m_pConfig->setPlainText(strResult);
        setStatus("dialog result below: \"Set & reconnect\" or \"Apply to running\" adopts it");
    }
    updateButtons();
}

void CameraPanel::adopt()
{
    if (startCamera())
        setStatus("configuration adopted and camera restarted");
}

void CameraPanel::apply()
{
    QByteArray cConfig = local8(configText());
    (m_pApi->*twin().setConfig)(cConfig.data());
    const bool bOk = (m_pApi->*twin().applyNewConfig)();
    setStatus(bOk ? QString("configuration applied to the running camera")
                  : QString("not applied (the camera must be started): %1")
                        .arg(QString::fromUtf8(m_pApi->getLastError())));
}

void CameraPanel::toggleRun()
{
    if (isStarted())
        stopCamera();
    else
        startCamera();
}

void CameraPanel::trigger()
{
    const bool bOk = (m_pApi->*twin().click)();
    if (!bOk)
        setStatus(QString("trigger failed: %1").arg(QString::fromUtf8(m_pApi->getLastError())));
}

ViewerWindow::ViewerWindow(const QByteArray& cMainConfig, const QByteArray& cSlaverConfig, QWidget* parent)
    : QWidget(parent)
{
    setObjectName("ViewerWindow");
    setWindowTitle("Kavrel viewer");
    m_pMain = new CameraPanel(CameraPanel::Main, cMainConfig, this);
    m_pSlaver = new CameraPanel(CameraPanel::Slaver, cSlaverConfig, this);
    auto* pLayout = new QHBoxLayout(this);
    pLayout->addWidget(m_pMain);
    pLayout->addWidget(m_pSlaver);
    resize(1280, 640);

    // The library starts no thread: frames are pulled here, on the GUI thread,
    // with short waits so that the window stays responsive.
    m_cPoll.setInterval(30);
    QObject::connect(&m_cPoll, &QTimer::timeout, this, [this]() {
        m_pMain->poll(10);
        m_pSlaver->poll(10);
    });
    m_cPoll.start();
}

void ViewerWindow::startAll()
{
    m_pMain->startCamera();
    m_pSlaver->startCamera();
}
