// SPDX-License-Identifier: LGPL-2.1-or-later
#include "dialog/webcamcfgviewform.h"

#include <QCoreApplication>
#include <QImage>
#include <QMetaObject>
#include <QPainter>
#include <QPalette>
#include <QRectF>

#include <cstddef>
#include <cstring>
#include <memory>

WebCamCfgViewForm::WebCamCfgViewForm(QWidget* parent)
    : QWidget(parent, Qt::WindowFlags())
{
    if (objectName().isEmpty())
        setObjectName(QString::fromUtf8("WebCamCfgViewForm"));
    resize(665, 503);
    setAutoFillBackground(true);
    setStyleSheet(QString());
    setWindowTitle(QCoreApplication::translate("WebCamCfgViewForm", "Form", nullptr));
    QMetaObject::connectSlotsByName(this);

    // Where no frame is drawn the view shows plain white.
    QPalette cPalette = palette();
    cPalette.setBrush(QPalette::All, QPalette::Window, QBrush(Qt::white, Qt::SolidPattern));
    setPalette(cPalette);

    m_pImageBuf = nullptr;
    m_nWidth = 0;
    m_nHeight = 0;
    m_nBytesPerLine = 0;
    // Outside the known pixel types: nothing is drawn until the dialog sets one.
    m_nPixType = -1;
    m_bScaled = true;
}

WebCamCfgViewForm::~WebCamCfgViewForm()
{
    // The dialog allocates the hand-over buffer but never frees it.
    delete[] m_pImageBuf;
    m_pImageBuf = nullptr;
}

void WebCamCfgViewForm::setScaled(bool bScaled)
{
    m_bScaled = bScaled;
}

void WebCamCfgViewForm::setPixType(int nPixType)
{
    m_nPixType = nPixType;
}

void WebCamCfgViewForm::paintEvent(QPaintEvent*)
{
    // The geometry is read before the lock: its only writer, the dialog's timer,
    // runs on this same GUI thread.
    const int nWidth = m_nWidth;
    const int nHeight = m_nHeight;
    const int nBytesPerLine = m_nBytesPerLine;
    const int nPixType = m_nPixType;

    if (nWidth < 1 || nHeight < 1)
        return;
    if (static_cast<unsigned int>(nPixType) > 7u)
        return;

    const bool bGrey = (nPixType == 0 || nPixType == 3);
    const bool bRGBOrder = (nPixType == 2 || nPixType == 5 || nPixType == 7);
    // Colour rows must hold 3 * width bytes rounded up to a multiple of 4.
    const long long llLeast = bGrey ? static_cast<long long>(nWidth)
                                    : ((static_cast<long long>(nWidth) + 1) * 3) & ~3LL;
    if (nBytesPerLine < llLeast)
        return;

    const std::size_t nBytes = static_cast<std::size_t>(nBytesPerLine) * static_cast<std::size_t>(nHeight);
    std::unique_ptr<unsigned char[]> pCopy(new unsigned char[nBytes]);

    // Hold the lock only for one block copy; conversion and drawing run on the copy.
    {
        QMutexLocker cLocker(&m_cImageMutex);
        if (m_pImageBuf == nullptr)
            return;
        std::memcpy(pCopy.get(), m_pImageBuf, nBytes);
    }

    QImage cImage(nWidth, nHeight, QImage::Format_RGB888);
    if (cImage.isNull())
        return;
    for (int y = 0; y < nHeight; ++y) {
        const unsigned char* pSrc = pCopy.get() + static_cast<std::size_t>(y) * nBytesPerLine;
        unsigned char* pDst = cImage.bits() + static_cast<std::size_t>(y) * cImage.bytesPerLine();
        for (int x = 0; x < nWidth; ++x) {
            if (bGrey) {
                const unsigned char v = pSrc[x];
                pDst[3 * x] = v;
                pDst[3 * x + 1] = v;
                pDst[3 * x + 2] = v;
            } else {
                const unsigned char* p = pSrc + 3 * x;
                pDst[3 * x] = bRGBOrder ? p[0] : p[2];
                pDst[3 * x + 1] = p[1];
                pDst[3 * x + 2] = bRGBOrder ? p[2] : p[0];
            }
        }
    }
    pCopy.reset();

    if (width() < 1 || height() < 1)
        return;

    QPainter cPainter(this);
    const QRectF cSource(0, 0, nWidth, nHeight);
    const QRectF cTarget = m_bScaled ? QRectF(0, 0, width(), height()) : cSource;
    cPainter.drawImage(cTarget, cImage, cSource, Qt::ImageConversionFlags());
}

void WebCamCfgViewForm::resizeEvent(QResizeEvent*)
{
    // Nothing to lay out: every repaint fits the frame to the current size.
}
