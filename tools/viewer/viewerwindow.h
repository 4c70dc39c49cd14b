// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_TOOLS_VIEWER_VIEWERWINDOW_H
#define KAVREL_TOOLS_VIEWER_VIEWERWINDOW_H

#include <QByteArray>
#include <QElapsedTimer>
#include <QGroupBox>
#include <QImage>
#include <QTimer>
#include <QWidget>

class KavrelInterface;
namespace kavreltool {
struct TwinCamera;
}
class QLabel;
class QPlainTextEdit;
class QPushButton;

// Shows the newest frame of one camera, scaled to fit with its aspect ratio kept.
class FrameView : public QWidget
{
    Q_OBJECT
public:
    explicit FrameView(QWidget* parent = nullptr);
    void setImage(const QImage& cImage);
    QImage image() const { return m_cImage; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QImage m_cImage;
};

// One camera of the viewer: its picture, its state, its configuration string and
// the buttons that drive it through the library's exported interface only.
class CameraPanel : public QGroupBox
{
    Q_OBJECT
public:
    enum Which { Main, Slaver };

    CameraPanel(Which eWhich, const QByteArray& cConfig, QWidget* parent = nullptr);

    // (Re)connects and starts the camera with the text of the configuration edit.
    bool startCamera();
    void stopCamera();
    // Takes at most one frame when the camera runs; waits up to nTimeoutMs.
    void poll(int nTimeoutMs);

    FrameView* view() const { return m_pView; }
    QString configText() const;
    QString status() const;
    int framesShown() const { return m_nFramesShown; }

signals:
    void dialogOpened();
    void dialogClosed();

private slots:
    void configure();
    void adopt();
    void apply();
    void toggleRun();
    void trigger();

private:
    // The Main or the Slaver set of the library's operations.
    const kavreltool::TwinCamera& twin() const;
    QString name() const;
    bool isStarted() const;
    void setStatus(const QString& strStatus);
    void updateButtons();

    Which m_eWhich;
    KavrelInterface* m_pApi;
    FrameView* m_pView;
    QLabel* m_pStatus;
    QPlainTextEdit* m_pConfig;
    QPushButton* m_pRun;
    QPushButton* m_pTrigger;
    bool m_bInDialog;
    int m_nFramesShown;
    int m_nFramesThisSecond;
    double m_dFps;
    QElapsedTimer m_cFpsClock;
};

// The viewer's main window: both cameras side by side, polled on one timer.
class ViewerWindow : public QWidget
{
    Q_OBJECT
public:
    ViewerWindow(const QByteArray& cMainConfig, const QByteArray& cSlaverConfig, QWidget* parent = nullptr);

    CameraPanel* panel(CameraPanel::Which eWhich) const { return eWhich == CameraPanel::Main ? m_pMain : m_pSlaver; }
    void startAll();

private:
    CameraPanel* m_pMain;
    CameraPanel* m_pSlaver;
    QTimer m_cPoll;
};

extern const char* const gszViewerDefaultMain;
extern const char* const gszViewerDefaultSlaver;

#endif
