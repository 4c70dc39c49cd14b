// SPDX-License-Identifier: LGPL-2.1-or-later
#ifndef KAVREL_DIALOG_WEBCAMCFGVIEWFORM_H
#define KAVREL_DIALOG_WEBCAMCFGVIEWFORM_H

#include <QMutex>
#include <QWidget>

#include "api/kavrelexport.h"

class QPaintEvent;
class QResizeEvent;

// Live preview of the configuration dialog. The dialog hands frames over through
// the public frame fields while it holds m_cImageMutex; the view only paints.
class KAVREL_EXPORT WebCamCfgViewForm : public QWidget
{
    Q_OBJECT
public:
    explicit WebCamCfgViewForm(QWidget* parent = nullptr);
    virtual ~WebCamCfgViewForm();

    void setScaled(bool bScaled);
    void setPixType(int nPixType);

    QMutex m_cImageMutex;
    unsigned char* m_pImageBuf;
    int m_nWidth;
    int m_nHeight;
    int m_nBytesPerLine;

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    int m_nPixType;
    bool m_bScaled;
};

#endif
