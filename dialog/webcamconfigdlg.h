// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_DIALOG_WEBCAMCONFIGDLG_H
#define KAVREL_DIALOG_WEBCAMCONFIGDLG_H

#include <QDialog>
#include <QString>

#include "api/kavrelexport.h"

class Ui_WebCamConfigDlg;
class WebCamCfgViewForm;
class CCDWebCam;
class QTimerEvent;

// Modal configuration dialog for one camera. It drives a camera object of its
// own, shows it live, and on OK answers a new configuration string.
class KAVREL_EXPORT WebCamConfigDlg : public QDialog
{
    Q_OBJECT
public:
    explicit WebCamConfigDlg(QString strConfig, QWidget* parent = nullptr);
    virtual ~WebCamConfigDlg();

    QString getConfigString();
    bool createConfigStr();
    void parseConfigStr();
    void refreshParam();

protected:
    void timerEvent(QTimerEvent* event) override;

private slots:
    void on_btnOpenCCD_clicked();
    void on_btnCloseCCD_clicked();
    void on_btnClick_clicked();
    void on_btnApply_clicked();
    void on_btnOK_clicked();
    void on_btnCancel_clicked();
    void on_sldWBR_valueChanged(int value);
    void on_sldWBG_valueChanged(int value);
    void on_sldWBB_valueChanged(int value);
    void on_btnAutoWB_clicked();
    void on_rbInit_clicked();
    void on_rbScaled_clicked();
    void on_cmbPixelType_currentIndexChanged(int index);

private:
    int m_nTimerID;
    QString m_strConfig;
    Ui_WebCamConfigDlg* ui;
    WebCamCfgViewForm* m_pViewForm;
    CCDWebCam* m_pCCD;
    bool m_bOpened;
    bool m_bSettingsLoaded;
};

#endif
