// SPDX-License-Identifier: LGPL-2.1-or-later
// Shared helpers of the dialog tests: a clean simulated camera per test, and
// widgets found, read, clicked and typed into by object name.
#ifndef KAVREL_TESTS_DIALOG_DIALOGTEST_H
#define KAVREL_TESTS_DIALOG_DIALOGTEST_H

#include <gtest/gtest.h>

#include <QtTest>
#include <QtWidgets>

#include "api/interface.h"
#include "sdk/torvanesim.h"

// Both registry cameras closed, and a fresh simulated camera that hands out a
// frame on every request.
class SimTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        TearDown();
        torvanesim_set_sensor(64, 48, 3);
        torvanesim_set_frame_rate(0);
    }
    void TearDown() override
    {
        KavrelInterface::getInstance()->disconnectMain();
        KavrelInterface::getInstance()->disconnectSlaver();
        torvanesim_reset();
    }
};

template <class T = QWidget>
T* child(QObject* pParent, const char* szName)
{
    T* p = pParent->findChild<T*>(QString::fromLatin1(szName));
    if (p == nullptr)
        qFatal("no widget %s", szName); // a broken test setup, not a result
    return p;
}

inline void click(QWidget* p, const char* sz) { QTest::mouseClick(child<QAbstractButton>(p, sz), Qt::LeftButton); }
inline bool enabled(QWidget* p, const char* sz) { return child(p, sz)->isEnabled(); }

inline void type(QWidget* p, const char* sz, const QString& str)
{
    child<QLineEdit>(p, sz)->clear();
    QTest::keyClicks(child<QLineEdit>(p, sz), str);
}

// The named widgets' values in one line: a combo box's index, a slider's
// position, a button's, an edit's or a label's text; or the given property.
inline QString values(QWidget* p, std::initializer_list<const char*> lstNames, const char* szProperty = nullptr)
{
    QStringList lst;
    for (const char* sz : lstNames) {
        const char* szValue = sz[0] == 'c' ? "currentIndex" : sz[0] == 's' ? "value" : "text";
        lst << child(p, sz)->property(szProperty ? szProperty : szValue).toString();
    }
    return lst.join('|');
}

// Runs the event loop until fnDone answers true, for at least five seconds
// (generous, so that sanitizer runs stay green).
inline bool waitFor(const std::function<bool()>& fnDone)
{
    for (int i = 0; i < 500 && !fnDone(); ++i)
        QTest::qWait(10);
    return fnDone();
}

// Runs fnAction on the modal dialog once it shows, from inside its event loop.
inline void whenModal(std::function<void(QDialog*)> fnAction)
{
    auto* pTimer = new QTimer(qApp);
    QObject::connect(pTimer, &QTimer::timeout, [pTimer, fnAction] {
        if (auto* pDlg = qobject_cast<QDialog*>(QApplication::activeModalWidget())) {
            pTimer->stop();
            pTimer->deleteLater();
            fnAction(pDlg);
        }
    });
    pTimer->start(20);
}

#endif
