// SPDX-License-Identifier: LGPL-2.1-or-later
// A host program run against the kernel's virtual camera (vivid) inside a
// virtual machine, with the V4L2 libtorvane.so picked by LD_LIBRARY_PATH. It
// drives the cameras through KavrelInterface only, as any host would, and
// checks what comes out against vivid's 75% colour bar pattern.
//
// Usage: vivid_host LABEL GOLDEN_FILE [--unplug]
//   LABEL names the device format in use (the golden checksums differ per
//   format); GOLDEN_FILE holds "key checksum" lines; --unplug checks vivid's
//   simulated disconnect instead, which takes the device away. Prints one "ok"/"not ok" line per check and
//   exits non-zero when any failed.

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QMap>
#include <QString>

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "api/interface.h"

namespace {

int g_nFailed = 0;
QString g_strLabel;
QMap<QString, QString> g_cGolden;

void check(bool bOk, const QString& strWhat)
{
    std::printf("%s - %s: %s\n", bOk ? "ok" : "not ok", qPrintable(g_strLabel), qPrintable(strWhat));
    std::fflush(stdout);
    if (!bOk)
        ++g_nFailed;
}

const char* device()
{
    const char* sz = std::getenv("TORVANE_V4L2_DEVICE");
    return sz && *sz ? sz : "/dev/video0";
}

// Sets a vivid control found by its name (vivid's own controls have no fixed
// ids in the uapi headers).
bool setControlByName(const char* szName, int nValue)
{
    const int fd = ::open(device(), O_RDWR);
    if (fd < 0)
        return false;
    bool bDone = false;
    v4l2_queryctrl cQuery = {};
    cQuery.id = V4L2_CTRL_FLAG_NEXT_CTRL;
    while (!bDone && ioctl(fd, VIDIOC_QUERYCTRL, &cQuery) == 0) {
        if (std::strcmp(reinterpret_cast<const char*>(cQuery.name), szName) == 0) {
            v4l2_control cControl = {cQuery.id, nValue};
            bDone = ioctl(fd, VIDIOC_S_CTRL, &cControl) == 0;
            break;
        }
        cQuery.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
    }
    ::close(fd);
    return bDone;
}

QByteArray config(int nPixFmt, int nWidth, int nHeight, const char* szTrigger)
{
    return QString("<CCDType>WebCam</CCDType><CCDPos>0</CCDPos><PixFmt>%1</PixFmt><ROI>0,0,%2,%3</ROI>"
                   "<RAW>0</RAW><Settings><Gamma>1.00</Gamma><Gain>0</Gain><Exposure>20000</Exposure>"
                   "<TriggerType>%4</TriggerType></Settings><UseCUDA>0</UseCUDA>")
        .arg(nPixFmt)
        .arg(nWidth)
        .arg(nHeight)
        .arg(szTrigger)
        .toLatin1();
}

struct Image {
    int nWidth = 0;
    int nBytesPerLine = 0;
    int nHeight = 0;
    std::vector<unsigned char> cBytes;
    bool valid() const { return !cBytes.empty(); }
    // FNV-1a over the pixels.
    quint64 checksum() const
    {
        quint64 h = 1469598103934665603ULL;
        for (unsigned char c : cBytes)
            h = (h ^ c) * 1099511628211ULL;
        return h;
    }
    const unsigned char* at(int x, int y) const
    {
        return cBytes.data() + static_cast<size_t>(y) * nBytesPerLine + x * (nBytesPerLine / nWidth);
    }
};

KavrelInterface* api()
{
    return KavrelInterface::getInstance();
}

Image grabMain(int nTimeout)
{
    Image cImage;
    unsigned char* p = api()->requestImageMain(&cImage.nWidth, &cImage.nBytesPerLine, &cImage.nHeight, nTimeout);
    if (p) {
        cImage.cBytes.assign(p, p + static_cast<size_t>(cImage.nBytesPerLine) * cImage.nHeight);
        api()->releaseImageMain(p);
    }
    return cImage;
}

Image grabSlaver(int nTimeout)
{
    Image cImage;
    unsigned char* p = api()->requestImageSlaver(&cImage.nWidth, &cImage.nBytesPerLine, &cImage.nHeight, nTimeout);
    if (p) {
        cImage.cBytes.assign(p, p + static_cast<size_t>(cImage.nBytesPerLine) * cImage.nHeight);
        api()->releaseImageSlaver(p);
    }
    return cImage;
}

// The eight bars of vivid's default pattern, left to right, in BGR at 75%.
const int kBars[8][3] = {{191, 191, 191}, {0, 191, 191}, {191, 191, 0}, {0, 191, 0},
                         {191, 0, 191},   {0, 0, 191},   {191, 0, 0},   {0, 0, 0}};

bool near(int a, int b)
{
    return std::abs(a - b) <= 32;
}

// Colour frames: each bar's middle has its colour. Grey frames: the bars'
// greys fall from white to black in this order.
bool barsLookRight(const Image& cImage, QString& strWhy)
{
    const int y = cImage.nHeight / 2;
    // A grey device's frames reach a colour host as grey in all three bytes.
    const int nChannels = g_strLabel == "GREY" ? 1 : cImage.nBytesPerLine / cImage.nWidth;
    int nLastGrey = 256;
    for (int i = 0; i < 8; ++i) {
        const int x = (2 * i + 1) * cImage.nWidth / 16;
        const unsigned char* p = cImage.at(x, y);
        if (nChannels == 3) {
            if (!near(p[0], kBars[i][0]) || !near(p[1], kBars[i][1]) || !near(p[2], kBars[i][2])) {
                strWhy = QString("bar %1 is %2,%3,%4").arg(i).arg(p[0]).arg(p[1]).arg(p[2]);
                return false;
            }
        } else {
            if (p[0] >= nLastGrey) {
                strWhy = QString("bar %1 grey %2 not below %3").arg(i).arg(p[0]).arg(nLastGrey);
                return false;
            }
            nLastGrey = p[0];
        }
    }
    return true;
}

void checkPicture(const Image& cFirst, const Image& cSecond, const QString& strKey)
{
    QString strWhy;
    const bool bBars = cFirst.valid() && barsLookRight(cFirst, strWhy);
    check(bBars, strKey + ": colour bars " + strWhy);
    check(cSecond.valid() && cFirst.checksum() == cSecond.checksum(), strKey + ": consecutive frames identical");
    const QString strSum = QString::number(cFirst.checksum(), 16);
    std::printf("checksum %s-%s %s\n", qPrintable(g_strLabel), qPrintable(strKey), qPrintable(strSum));
    const QString strGolden = g_cGolden.value(g_strLabel + "-" + strKey);
    check(strGolden == strSum, strKey + ": checksum " + strSum + " is the golden " +
                                   (strGolden.isEmpty() ? QString("(none recorded)") : strGolden));
}

void colourAtSeveralSizes()
{
    QByteArray c = config(1, 640, 480, "Video");
    api()->setConfigStringMain(c.data());
    check(api()->connectMain() && api()->startMain(), "connect and start Main: " + QString(api()->getLastError()));
    for (const auto& cSize : {std::pair<int, int>(640, 480), {320, 180}, {1280, 720}}) {
        c = config(1, cSize.first, cSize.second, "Video");
        api()->setConfigStringMain(c.data());
        check(api()->applyNewConfigMain(), QString("window %1x%2 applied").arg(cSize.first).arg(cSize.second));
        const Image cFirst = grabMain(5000);
        const Image cSecond = grabMain(5000);
        check(cFirst.nWidth == cSize.first && cFirst.nHeight == cSize.second &&
                  cFirst.nBytesPerLine == 3 * cSize.first,
              QString("BGR frame is %1x%2, %3 bytes per line").arg(cFirst.nWidth).arg(cFirst.nHeight).arg(
                  cFirst.nBytesPerLine));
        checkPicture(cFirst, cSecond, QString("bgr-%1x%2").arg(cSize.first).arg(cSize.second));
    }
    // A size the webcam does not offer is refused; frames keep their size.
    c = config(1, 800, 600, "Video");
    api()->setConfigStringMain(c.data());
    check(!api()->applyNewConfigMain(), "window 800x600 refused");
    check(api()->startMain(), "started again after the refusal"); // a failed resize leaves it stopped
    const Image cAfter = grabMain(5000);
    check(cAfter.nWidth == 1280 && cAfter.nHeight == 720, "frames keep 1280x720 after the refusal");
    api()->stopMain();
    api()->disconnectMain();
}

void greyOnSlaver()
{
    QByteArray c = config(0, 640, 360, "Video");
    api()->setConfigStringSlaver(c.data());
    check(api()->connectSlaver() && api()->startSlaver(), "connect and start Slaver");
    const Image cFirst = grabSlaver(5000);
    const Image cSecond = grabSlaver(5000);
    check(cFirst.nWidth == 640 && cFirst.nHeight == 360 && cFirst.nBytesPerLine == 640, "grey frame is 640x360");
    checkPicture(cFirst, cSecond, "grey-640x360");
    api()->stopSlaver();
    api()->disconnectSlaver();
}

void timeoutsAndTriggers()
{
    // Hardware trigger: V4L2 has none, so no frame comes, after the time-out.
    QByteArray c = config(1, 320, 180, "Hard");
    api()->setConfigStringMain(c.data());
    check(api()->connectMain() && api()->startMain(), "connect and start Main, hardware trigger");
    QElapsedTimer t;
    t.start();
    Image cNone = grabMain(400);
    qint64 nMs = t.elapsed();
    check(!cNone.valid() && nMs >= 350 && nMs < 5000,
          QString("no frame without a trigger, after %1 ms of 400").arg(nMs));

    // Software trigger: one frame per click, none without.
    c = config(1, 320, 180, "Soft");
    api()->setConfigStringMain(c.data());
    check(api()->applyNewConfigMain(), "software trigger applied");
    int nGot = 0;
    for (int i = 0; i < 3; ++i) {
        api()->clickMain();
        nGot += grabMain(5000).valid() ? 1 : 0;
    }
    check(nGot == 3, QString("%1 frames for 3 triggers").arg(nGot));
    t.restart();
    cNone = grabMain(300);
    nMs = t.elapsed();
    check(!cNone.valid() && nMs >= 250, QString("no frame without a click, after %1 ms of 300").arg(nMs));
    api()->stopMain();
    api()->disconnectMain();
}

void unplug()
{
    QByteArray c = config(1, 320, 180, "Video");
    api()->setConfigStringMain(c.data());
    check(api()->connectMain() && api()->startMain(), "connect and start Main before the unplug");
    check(grabMain(5000).valid(), "a frame before the unplug");
    check(setControlByName("Disconnect", 0), "vivid disconnected");
    QElapsedTimer t;
    t.start();
    const bool bNone = !grabMain(5000).valid();
    const qint64 nMs = t.elapsed();
    check(bNone && nMs < 2500, QString("no frame after the unplug, after %1 ms (time-out 5000)").arg(nMs));
    check(!grabMain(1000).valid(), "still none");
    api()->stopMain();
    api()->disconnectMain();
    // Until the camera is opened again; then it either is gone for good, or
    // (vivid keeps its node) works again.
    if (api()->connectMain()) {
        check(api()->startMain() && grabMain(5000).valid(), "opened again, frames come again");
        api()->stopMain();
        api()->disconnectMain();
    } else {
        check(true, QString("opening again fails: ") + api()->getLastError());
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 3) {
        std::fprintf(stderr, "usage: vivid_host LABEL GOLDEN_FILE [--unplug]\n");
        return 2;
    }
    g_strLabel = argv[1];
    QFile cGolden(argv[2]);
    if (cGolden.open(QIODevice::ReadOnly)) {
        for (const QByteArray& cLine : cGolden.readAll().split('\n')) {
            const QList<QByteArray> cParts = cLine.simplified().split(' ');
            if (cParts.size() == 2 && !cLine.startsWith('#'))
                g_cGolden.insert(cParts[0], cParts[1]);
        }
    }

    // Controls keep their values between opens: the on-screen text off makes
    // consecutive frames identical.
    check(setControlByName("OSD Text Mode", 2), "vivid on-screen text off");
    if (argc > 3 && std::strcmp(argv[3], "--unplug") == 0) {
        unplug();
    } else {
        colourAtSeveralSizes();
        greyOnSlaver();
        timeoutsAndTriggers();
    }
    std::printf("%s: %d failed\n", qPrintable(g_strLabel), g_nFailed);
    return g_nFailed == 0 ? 0 : 1;
}
