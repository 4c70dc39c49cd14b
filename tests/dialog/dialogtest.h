// Shared helpers of the dialog tests: a clean simulated camera per test, widget
// lookup by object name, clicks and typing, and the preview's picture.
#ifndef KAVREL_TESTS_DIALOG_DIALOGTEST_H
#define KAVREL_TESTS_DIALOG_DIALOGTEST_H

#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QApplication>
#include <QColor>
#include <QComboBox>
#include <QDialog>
#include <QElapsedTimer>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QSlider>
#include <QTest>

#include <QTimer>

#include <cstdlib>
#include <memory>
#include <functional>
#include <vector>

#include "api/interface.h"
#include "sdk/torvanesim.h"

// Every test starts from a closed registry camera and a freshly reset simulated
// camera that hands out a frame on every request.
class SimTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        KavrelInterface* api = KavrelInterface::getInstance();
        api->disconnectMain();
        api->disconnectSlaver();
        torvanesim_reset();
        torvanesim_set_sensor(64, 48, 3);
        torvanesim_set_frame_rate(0);
    }
    void TearDown() override
    {
        KavrelInterface* api = KavrelInterface::getInstance();
        api->disconnectMain();
        api->disconnectSlaver();
        torvanesim_reset();
    }
};

// A missing widget is a broken test setup, not a result.
template <class T>
T* child(QObject* pParent, const char* szName)
{
    T* p = pParent->findChild<T*>(QString::fromLatin1(szName));
    if (p == nullptr) {
        ADD_FAILURE() << "no widget " << szName;
        std::abort();
    }
    return p;
}

inline void click(QWidget* pDlg, const char* szButton)
{
    QTest::mouseClick(child<QAbstractButton>(pDlg, szButton), Qt::LeftButton);
}

inline void type(QWidget* pDlg, const char* szEdit, const QString& strText)
{
    QLineEdit* pEdit = child<QLineEdit>(pDlg, szEdit);
    pEdit->selectAll();
    if (strText.isEmpty())
        QTest::keyClick(pEdit, Qt::Key_Delete);
    else
        QTest::keyClicks(pEdit, strText);
}

inline QString text(QWidget* pDlg, const char* szEdit)
{
    if (auto* pLabel = pDlg->findChild<QLabel*>(QString::fromLatin1(szEdit)))
        return pLabel->text();
    return child<QLineEdit>(pDlg, szEdit)->text();
}

inline bool enabled(QWidget* pDlg, const char* szName)
{
    return child<QWidget>(pDlg, szName)->isEnabled();
}

inline std::vector<int> sliders(QWidget* pDlg)
{
    return {child<QSlider>(pDlg, "sldWBR")->value(), child<QSlider>(pDlg, "sldWBG")->value(),
            child<QSlider>(pDlg, "sldWBB")->value()};
}

// Runs the event loop until fnDone answers true or nTimeoutMs pass; answers
// whether it did. Generous time-outs keep slow (sanitizer, emulated) runs green.
inline bool waitFor(std::function<bool()> fnDone, int nTimeoutMs = 5000)
{
    QElapsedTimer cClock;
    cClock.start();
    while (!fnDone()) {
        if (cClock.elapsed() > nTimeoutMs)
            return false;
        QTest::qWait(10);
    }
    return true;
}

// A frame of one colour, bytes in the camera's order.
inline std::vector<unsigned char> uniformFrame(int w, int h, unsigned char b0, unsigned char b1, unsigned char b2)
{
    std::vector<unsigned char> v(static_cast<size_t>(w) * h * 3);
    for (size_t i = 0; i < v.size(); i += 3) {
        v[i] = b0;
        v[i + 1] = b1;
        v[i + 2] = b2;
    }
    return v;
}

// The preview as it paints (background included).
inline QImage previewPicture(QWidget* pDlg)
{
    return child<QWidget>(pDlg, "WebCamCfgViewForm")->grab().toImage().convertToFormat(QImage::Format_RGB32);
}

// Runs fnAction on the application-modal dialog once it shows, from inside its
// event loop. Gives up (and fails) after five seconds without a dialog.
inline void whenModal(std::function<void(QDialog*)> fnAction)
{
    auto* pTimer = new QTimer;
    auto nTicks = std::make_shared<int>(0);
    QObject::connect(pTimer, &QTimer::timeout, [pTimer, nTicks, fnAction]() {
        auto* pDlg = qobject_cast<QDialog*>(QApplication::activeModalWidget());
        if (pDlg != nullptr && pDlg->isVisible()) {
            pTimer->stop();
            pTimer->deleteLater();
            fnAction(pDlg);
        } else if (++*nTicks > 250) {
            pTimer->stop();
            pTimer->deleteLater();
            ADD_FAILURE() << "no modal dialog appeared";
        }
    });
    pTimer->start(20);
}

#endif
