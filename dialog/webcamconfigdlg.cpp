// SPDX-License-Identifier: LGPL-2.1-or-later
#include "dialog/webcamconfigdlg.h"

#include "ui_webcamconfigdlg.h"

#include "camera/ccdwebcam.h"
#include "camera/textfields.h"
#include "dialog/webcamcfgviewform.h"
#include "imaging/globalfunction.h"
#include "imaging/whitebalance.h"

#include <QMutexLocker>
#include <QStringList>
#include <QTimerEvent>

#include <cstddef>
#include <memory>

namespace {

// Slider positions are gains in percent.
int factorToSlider(float fFactor)
{
    return kavrel::gainToPercent(fFactor);
}

float sliderToFactor(int nPosition)
{
    return static_cast<float>(nPosition) / 100.0f;
}

// Combo index 0 "video", 1 "software", 2 "hardware"; no current item is video.
CCDIF::TriggerType triggerFromIndex(int nIndex)
{
    switch (nIndex) {
    case 1:
        return CCDIF::TriggerSoft;
    case 2:
        return CCDIF::TriggerHard;
    default:
        return CCDIF::TriggerVideo;
    }
}

CCDIF::PixelFormat pixelFormatFromIndex(int nIndex)
{
    return nIndex == 1 ? CCDIF::PixFmtBGR : CCDIF::PixFmtGray8;
}

// Shows white balance, gamma, exposure and gain of a record in their widgets
// (R, G, B sliders in this order; each slider change reaches the camera).
void showSettings(Ui_WebCamConfigDlg* ui, const CCDIF::CCDSettings& cSettings)
{
    ui->sldWBR->setValue(factorToSlider(cSettings.fWhiteBalanceR));
    ui->sldWBG->setValue(factorToSlider(cSettings.fWhiteBalanceG));
    ui->sldWBB->setValue(factorToSlider(cSettings.fWhiteBalanceB));
    ui->edtGamma->setText(QString::asprintf("%.2f", static_cast<double>(cSettings.fGamma)));
    ui->edtExposure->setText(QString::asprintf("%d", cSettings.nExposure));
    ui->edtGain->setText(QString::asprintf("%d", cSettings.nGain));
}

// Takes the white balance from the sliders (position / 100).
void readWhiteBalance(Ui_WebCamConfigDlg* ui, CCDIF::CCDSettings& cSettings)
{
    cSettings.fWhiteBalanceR = sliderToFactor(ui->sldWBR->value());
    cSettings.fWhiteBalanceG = sliderToFactor(ui->sldWBG->value());
    cSettings.fWhiteBalanceB = sliderToFactor(ui->sldWBB->value());
}

// Takes white balance, gamma (not limited), exposure and gain from their widgets.
void readSettings(Ui_WebCamConfigDlg* ui, CCDIF::CCDSettings& cSettings)
{
    readWhiteBalance(ui, cSettings);
    cSettings.fGamma = kavrel::readFloat(ui->edtGamma->text());
    cSettings.nExposure = ui->edtExposure->text().toInt(nullptr, 10);
    cSettings.nGain = ui->edtGain->text().toInt(nullptr, 10);
}

// The combo index is the <PixFmt> code; only "BGR" (1) carries colour.
const int gnColourPixelTypeIndex = 1;

} // namespace

WebCamConfigDlg::WebCamConfigDlg(QString strConfig, QWidget* parent)
    : QDialog(parent, Qt::WindowFlags()),
      m_nTimerID(-1),
      ui(new Ui_WebCamConfigDlg),
      m_pViewForm(nullptr),
      m_pCCD(nullptr),
      m_bOpened(false),
      m_bSettingsLoaded(false)
{
    ui->setupUi(this);
    m_strConfig = strConfig;

    // The grid layout reparents the preview to the dialog.
    m_pViewForm = new WebCamCfgViewForm(nullptr);
    ui->layView->addWidget(m_pViewForm);

    m_pCCD = nullptr;
    m_bOpened = false;
    ui->grpAWB->setEnabled(false);
    m_bSettingsLoaded = false;

    // The slots are connected already; the slider slots stay idle while no
    // camera object exists.
    parseConfigStr();
    m_nTimerID = -1;
}

WebCamConfigDlg::~WebCamConfigDlg()
{
    if (m_nTimerID >= 0) {
        killTimer(m_nTimerID);
        m_nTimerID = -1;
    }
    if (m_pCCD != nullptr) {
        on_btnCloseCCD_clicked();
        delete m_pCCD;
        m_pCCD = nullptr;
    }
    delete ui;
    ui = nullptr;
}

QString WebCamConfigDlg::getConfigString()
{
    return m_strConfig;
}

bool WebCamConfigDlg::createConfigStr()
{
    m_strConfig = "";

    CCDIF::CCDSettings cSettings;
    readWhiteBalance(ui, cSettings);

    // Gamma is the one value limited here; the edit shows what was written.
    float fGamma = kavrel::readFloat(ui->edtGamma->text());
    if (static_cast<double>(fGamma) < 0.01)
        fGamma = 0.01f;
    else if (fGamma > 10.0)
        fGamma = 10.0f;
    ui->edtGamma->setText(QString::asprintf("%.2f", fGamma));
    cSettings.fGamma = fGamma;

    cSettings.nExposure = ui->edtExposure->text().toInt(nullptr, 10);
    cSettings.nGain = ui->edtGain->text().toInt(nullptr, 10);
    cSettings.eTriggerType = triggerFromIndex(ui->cmbTriggerMode->currentIndex());

    m_strConfig += QString::asprintf("<PixFmt>%d</PixFmt>", ui->cmbPixelType->currentIndex());
    m_strConfig += QString::asprintf("<ROI>%d,%d</ROI>", ui->edtROIWidth->text().toInt(nullptr, 10),
                                     ui->edtROIHeight->text().toInt(nullptr, 10));
    m_strConfig += "<Settings>";
    m_strConfig += cSettings.toString();
    m_strConfig += "</Settings>";
    return true;
}

void WebCamConfigDlg::parseConfigStr()
{
    if (m_strConfig.isEmpty())
        return;

    const QString strPixFmt = GlobalFunction::getBody(m_strConfig, "<PixFmt>", "</PixFmt>");
    const QString strROI = GlobalFunction::getBody(m_strConfig, "<ROI>", "</ROI>");
    const QString strSettings = GlobalFunction::getBody(m_strConfig, "<Settings>", "</Settings>");

    // A negative code reaches the combo unchanged and leaves it without a current item.
    const int nPixFmt = strPixFmt.toInt(nullptr, 10);
    if (nPixFmt < ui->cmbPixelType->count())
        ui->cmbPixelType->setCurrentIndex(nPixFmt);

    // The dialog writes the two-value region only; other forms are not taken.
    const QStringList lstROI = strROI.split(",", Qt::KeepEmptyParts, Qt::CaseSensitive);
    if (lstROI.size() == 2) {
        ui->edtROIWidth->setText(lstROI.at(0));
        ui->edtROIHeight->setText(lstROI.at(1));
    }

    CCDIF::CCDSettings cSettings;
    cSettings.fromString(strSettings);
    switch (cSettings.eTriggerType) {
    case CCDIF::TriggerVideo:
        ui->cmbTriggerMode->setCurrentIndex(0);
        break;
    case CCDIF::TriggerSoft:
        ui->cmbTriggerMode->setCurrentIndex(1);
        break;
    case CCDIF::TriggerHard:
        ui->cmbTriggerMode->setCurrentIndex(2);
        break;
    default:
        break;
    }
    showSettings(ui, cSettings);

    m_bSettingsLoaded = true;
}

void WebCamConfigDlg::refreshParam()
{
    if (m_pCCD == nullptr)
        return;
    CCDIF::CCDSettings cSettings;
    if (!m_pCCD->getCurSettings(&cSettings))
        return;

    showSettings(ui, cSettings);
}

void WebCamConfigDlg::timerEvent(QTimerEvent*)
{
    if (m_pCCD == nullptr)
        return;
    if (!m_pCCD->waitNewImage(100))
        return;

    int nWidth = 0;
    int nHeight = 0;
    int nBytesPerLine = 0;
    m_pCCD->getImageInfo(&nWidth, &nHeight, &nBytesPerLine);
    if (nWidth < 0 || nHeight < 0 || nBytesPerLine < 0)
        return;

    bool bCopied = false;
    {
        QMutexLocker cLocker(&m_pViewForm->m_cImageMutex);
        // The hand-over buffer grows when a frame needs more bytes and is kept otherwise.
        const std::size_t nOld = static_cast<std::size_t>(m_pViewForm->m_nHeight) *
                                 static_cast<std::size_t>(m_pViewForm->m_nBytesPerLine);
        const std::size_t nNew = static_cast<std::size_t>(nHeight) * static_cast<std::size_t>(nBytesPerLine);
        if (nOld < nNew) {
            delete[] m_pViewForm->m_pImageBuf;
            m_pViewForm->m_pImageBuf = new unsigned char[nNew];
        }
        m_pViewForm->m_nWidth = nWidth;
        m_pViewForm->m_nHeight = nHeight;
        m_pViewForm->m_nBytesPerLine = nBytesPerLine;
        if (m_pViewForm->m_pImageBuf != nullptr)
            bCopied = m_pCCD->copyImage(m_pViewForm->m_pImageBuf, nWidth, nBytesPerLine, nHeight);
    }
    if (bCopied)
        m_pViewForm->update();
}

void WebCamConfigDlg::on_btnOpenCCD_clicked()
{
    if (m_bOpened)
        return;

    m_pViewForm->setScaled(ui->rbScaled->isChecked());
    m_pViewForm->setPixType(ui->cmbPixelType->currentIndex());

    const CCDIF::PixelFormat ePixelFormat = pixelFormatFromIndex(ui->cmbPixelType->currentIndex());
    const CCDIF::TriggerType eTriggerType = triggerFromIndex(ui->cmbTriggerMode->currentIndex());

    // A camera object made here is kept for later opens, also after a failure.
    if (m_pCCD == nullptr)
        m_pCCD = new CCDWebCam();

    if (!m_pCCD->connect(0, ePixelFormat)) {
        ui->lblLastErr->setText(m_pCCD->getLastError());
        return;
    }

    int nX = 0;
    int nY = 0;
    int nWidth = ui->edtROIWidth->text().toInt(nullptr, 10);
    int nHeight = ui->edtROIHeight->text().toInt(nullptr, 10);
    if (m_pCCD->setROI(nX, nY, nWidth, nHeight)) {
        ui->edtROIWidth->setText(QString::asprintf("%d", nWidth));
        ui->edtROIHeight->setText(QString::asprintf("%d", nHeight));
    } else {
        ui->edtROIWidth->setText("0");
        ui->edtROIHeight->setText("0");
        ui->lblLastErr->setText(m_pCCD->getLastError());
    }

    CCDIF::CCDSettings cSettings;
    if (m_bSettingsLoaded) {
        readSettings(ui, cSettings);
    } else {
        // Without a loaded configuration the camera keeps what it has.
        m_pCCD->getCurSettings(&cSettings);
    }
    cSettings.eTriggerType = eTriggerType;
    m_pCCD->applyNewSettings(cSettings);

    if (!m_pCCD->start()) {
        m_pCCD->disconnect();
        ui->lblLastErr->setText(m_pCCD->getLastError());
        return;
    }

    ui->btnClick->setEnabled(eTriggerType == CCDIF::TriggerSoft);
    m_bOpened = true;
    ui->cmbPixelType->setEnabled(false);
    ui->cmbTriggerMode->setEnabled(false);
    ui->btnOpenCCD->setEnabled(false);
    ui->btnCloseCCD->setEnabled(true);

    refreshParam();

    m_nTimerID = startTimer(200, Qt::CoarseTimer);
}

void WebCamConfigDlg::on_btnCloseCCD_clicked()
{
    if (!m_bOpened || m_pCCD == nullptr)
        return;

    if (m_nTimerID >= 0) {
        killTimer(m_nTimerID);
        m_nTimerID = -1;
    }
    m_pCCD->disconnect();

    m_bOpened = false;
    ui->cmbPixelType->setEnabled(true);
    ui->cmbTriggerMode->setEnabled(true);
    ui->btnOpenCCD->setEnabled(true);
    ui->btnCloseCCD->setEnabled(false);
    ui->btnClick->setEnabled(false);
}

void WebCamConfigDlg::on_btnClick_clicked()
{
    if (m_bOpened && m_pCCD != nullptr)
        m_pCCD->click();
}

void WebCamConfigDlg::on_btnApply_clicked()
{
    if (m_pCCD == nullptr)
        return;

    CCDIF::CCDSettings cSettings;
    cSettings.eTriggerType = triggerFromIndex(ui->cmbTriggerMode->currentIndex());
    readSettings(ui, cSettings);

    m_pCCD->applyNewSettings(cSettings);
    refreshParam();
}

void WebCamConfigDlg::on_btnOK_clicked()
{
    if (createConfigStr())
        accept();
}

void WebCamConfigDlg::on_btnCancel_clicked()
{
    m_strConfig = "";
    reject();
}

void WebCamConfigDlg::on_sldWBR_valueChanged(int value)
{
    if (m_pCCD != nullptr)
        m_pCCD->modifyWhiteBalanceR(sliderToFactor(value));
}

void WebCamConfigDlg::on_sldWBG_valueChanged(int value)
{
    if (m_pCCD != nullptr)
        m_pCCD->modifyWhiteBalanceG(sliderToFactor(value));
}

void WebCamConfigDlg::on_sldWBB_valueChanged(int value)
{
    if (m_pCCD != nullptr)
        m_pCCD->modifyWhiteBalanceB(sliderToFactor(value));
}

void WebCamConfigDlg::on_btnAutoWB_clicked()
{
    if (m_pCCD == nullptr)
        return;

    const CCDIF::PixelFormat ePixelFormat = m_pCCD->getPixelFormat();
    if (ePixelFormat == CCDIF::PixFmtGray8 || ePixelFormat == CCDIF::PixFmt3 ||
        static_cast<int>(ePixelFormat) > 7 || static_cast<int>(ePixelFormat) < 0)
        return;

    CCDIF::CCDSettings cSettings;
    if (!m_pCCD->getCurSettings(&cSettings))
        return;
    // Triggered modes would wait for triggers that nobody sends.
    if (cSettings.eTriggerType != CCDIF::TriggerVideo)
        return;

    // Measure with neutral gains.
    cSettings.fWhiteBalanceR = 1.0f;
    cSettings.fWhiteBalanceG = 1.0f;
    cSettings.fWhiteBalanceB = 1.0f;
    m_pCCD->applyNewSettings(cSettings);

    // The first frames may still have been taken before the neutral gains; the
    // third one is measured.
    m_pCCD->waitNewImage(1000);
    m_pCCD->waitNewImage(1000);
    m_pCCD->waitNewImage(1000);

    const kavrel::WhiteReference eReference =
        ui->chkWhitePlane->isChecked() ? kavrel::WhiteReference::WhiteSurface : kavrel::WhiteReference::WholeFrame;

    int nWidth = 0;
    int nHeight = 0;
    int nBytesPerLine = 0;
    m_pCCD->getImageInfo(&nWidth, &nHeight, &nBytesPerLine);
    if (nWidth <= 0 || nHeight <= 0)
        return;
    if (nBytesPerLine < 0)
        nBytesPerLine = 0;

    const std::size_t nBytes = static_cast<std::size_t>(nHeight) * static_cast<std::size_t>(nBytesPerLine);
    std::unique_ptr<unsigned char[]> pFrame(new unsigned char[nBytes > 0 ? nBytes : 1]);
    const bool bCopied = m_pCCD->copyImage(pFrame.get(), nWidth, nBytesPerLine, nHeight);

    // Formats 4 to 7 pass the checks above but are not measured.
    if (bCopied && (ePixelFormat == CCDIF::PixFmtRGB || ePixelFormat == CCDIF::PixFmtBGR)) {
        const kavrel::ChannelOrder eOrder =
            ePixelFormat == CCDIF::PixFmtRGB ? kavrel::ChannelOrder::RGB : kavrel::ChannelOrder::BGR;
        if (const auto oGains =
                kavrel::measureWhiteBalance(pFrame.get(), nWidth, nBytesPerLine, nHeight, eOrder, eReference)) {
            // Each slider hands its gain to the camera at once.
            ui->sldWBR->setValue(oGains->nRed);
            ui->sldWBG->setValue(oGains->nGreen);
            ui->sldWBB->setValue(oGains->nBlue);
        }
    }

    pFrame.reset();

    // Never leave the camera at the measuring gains.
    readWhiteBalance(ui, cSettings);
    m_pCCD->applyNewSettings(cSettings);
}

void WebCamConfigDlg::on_rbInit_clicked()
{
    m_pViewForm->setScaled(ui->rbScaled->isChecked());
}

void WebCamConfigDlg::on_rbScaled_clicked()
{
    m_pViewForm->setScaled(ui->rbScaled->isChecked());
}

void WebCamConfigDlg::on_cmbPixelType_currentIndexChanged(int index)
{
    if (index == 0)
        ui->edtGamma->setEnabled(true);
    // White balance only means something for a colour pixel type.
    ui->grpAWB->setEnabled(index == gnColourPixelTypeIndex);
}
