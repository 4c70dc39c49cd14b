// kavrel-grab: a small host program. It drives the Main and the Slaver camera
// through the exported KavrelInterface only, as any host would, grabs frames,
// writes the first and the last of each camera as PNG files and prints what it
// did.

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QImage>
#include <QTextStream>

#include <cstdio>

#include "api/interface.h"
#include "tools/common/camerachoice.h"

namespace {

const char* const kDefaultMain =
    "<CCDType>WebCam</CCDType><CCDPos>0</CCDPos><PixFmt>1</PixFmt><ROI>0,0,1280,960</ROI><RAW>0</RAW>"
    "<Settings><HardTriggerSource>0</HardTriggerSource><Brightness>0</Brightness><Sharpness>0</Sharpness>"
    "<Hue>0</Hue><Saturation>0</Saturation><Gamma>1.00</Gamma><Gain>8</Gain><Exposure>20000</Exposure>"
    "<WhiteBalance>1.20,1.00,1.35</WhiteBalance><AutoExposure>false</AutoExposure>"
    "<TriggerType>Video</TriggerType></Settings><UseCUDA>0</UseCUDA>";

const char* const kDefaultSlaver =
    "<CCDType>WebCam</CCDType><CCDPos>0</CCDPos><PixFmt>0</PixFmt><ROI>640,480</ROI><RAW>0</RAW>"
    "<Settings><Gamma>0.80</Gamma><Gain>4</Gain><Exposure>15000</Exposure>"
    "<TriggerType>Video</TriggerType></Settings><UseCUDA>0</UseCUDA>";

struct Camera {
    const char* name;
    void (KavrelInterface::*setConfig)(char*);
    bool (KavrelInterface::*connect)();
    bool (KavrelInterface::*start)();
    void (KavrelInterface::*stop)();
    void (KavrelInterface::*disconnect)();
    bool (KavrelInterface::*click)();
    unsigned char* (KavrelInterface::*request)(int*, int*, int*, int);
    void (KavrelInterface::*release)(unsigned char*);
};

const Camera kMain = {"Main", &KavrelInterface::setConfigStringMain, &KavrelInterface::connectMain,
                      &KavrelInterface::startMain, &KavrelInterface::stopMain, &KavrelInterface::disconnectMain,
                      &KavrelInterface::clickMain, &KavrelInterface::requestImageMain,
                      &KavrelInterface::releaseImageMain};
const Camera kSlaver = {"Slaver", &KavrelInterface::setConfigStringSlaver, &KavrelInterface::connectSlaver,
                        &KavrelInterface::startSlaver, &KavrelInterface::stopSlaver,
                        &KavrelInterface::disconnectSlaver, &KavrelInterface::clickSlaver,
                        &KavrelInterface::requestImageSlaver, &KavrelInterface::releaseImageSlaver};

QImage toImage(const unsigned char* pImage, int nWidth, int nBytesPerLine, int nHeight)
{
    const QImage::Format eFormat = nBytesPerLine >= 3 * nWidth ? QImage::Format_BGR888 : QImage::Format_Grayscale8;
    // Deep copy: the buffer goes back to the library right after.
    return QImage(pImage, nWidth, nHeight, nBytesPerLine, eFormat).copy();
}

bool grab(QTextStream& out, const Camera& cam, QByteArray config, int nFrames, int nTimeout, bool bTrigger,
          const QString& strOutDir)
{
    KavrelInterface* api = KavrelInterface::getInstance();
    (api->*cam.setConfig)(config.data());
    if (!(api->*cam.connect)() || !(api->*cam.start)()) {
        out << cam.name << ": " << api->getLastError() << "\n";
        (api->*cam.disconnect)();
        return false;
    }

    int nGot = 0;
    int nWidth = 0;
    int nBytesPerLine = 0;
    int nHeight = 0;
    QImage cFirst;
    QImage cLast;
    qint64 nRequestNs = 0;
    QElapsedTimer cTotal;
    cTotal.start();
    for (int i = 0; i < nFrames; ++i) {
        if (bTrigger && !(api->*cam.click)()) {
            out << cam.name << ": trigger failed: " << api->getLastError() << "\n";
            break;
        }
        QElapsedTimer cRequest;
        cRequest.start();
        unsigned char* pImage = (api->*cam.request)(&nWidth, &nBytesPerLine, &nHeight, nTimeout);
        nRequestNs += cRequest.nsecsElapsed();
        if (!pImage)
            continue;
        ++nGot;
        if (nGot == 1)
            cFirst = toImage(pImage, nWidth, nBytesPerLine, nHeight);
        else if (i == nFrames - 1)
            cLast = toImage(pImage, nWidth, nBytesPerLine, nHeight);
        (api->*cam.release)(pImage);
    }
    const double dSeconds = cTotal.nsecsElapsed() / 1e9;
    (api->*cam.stop)();
    (api->*cam.disconnect)();

    const char* szFormat = nBytesPerLine >= 3 * nWidth ? "24-bit colour (3 bytes per pixel)" : "8-bit grey";
    out << cam.name << ": " << nGot << " of " << nFrames << " frames, " << nWidth << " x " << nHeight << ", "
        << nBytesPerLine << " bytes per line, " << szFormat << "\n";
    out << QString::asprintf("%s: %.1f frames per second, %.3f ms per request\n", cam.name,
                             dSeconds > 0 ? nGot / dSeconds : 0.0, nFrames ? nRequestNs / 1e6 / nFrames : 0.0);
    for (const auto& [cImage, strWhich] : {std::pair<QImage, QString>(cFirst, "first"), {cLast, "last"}}) {
        if (cImage.isNull())
            continue;
        const QString strFile = QDir(strOutDir).filePath(QString("%1-%2.png").arg(QString(cam.name).toLower(), strWhich));
        if (cImage.save(strFile))
            out << cam.name << ": wrote " << strFile << "\n";
        else
            out << cam.name << ": could not write " << strFile << "\n";
    }
    return nGot > 0;
}

} // namespace

int main(int argc, char** argv)
{
    kavrel_tools::chooseCamera(argc, argv);
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("kavrel-grab");

    QCommandLineParser parser;
    parser.setApplicationDescription("Grabs frames from the Main and the Slaver camera and writes them as PNG files.");
    parser.addHelpOption();
    QCommandLineOption optFrames({"n", "frames"}, "Frames to grab per camera.", "count", "30");
    QCommandLineOption optOut({"o", "output"}, "Directory for the PNG files.", "dir", ".");
    QCommandLineOption optTimeout("timeout", "Time-out of one request in milliseconds.", "ms", "1000");
    QCommandLineOption optMain("main", "Configuration string of the Main camera.", "config", kDefaultMain);
    QCommandLineOption optSlaver("slaver", "Configuration string of the Slaver camera.", "config", kDefaultSlaver);
    QCommandLineOption optTrigger("trigger", "Fire a software trigger before each request.");
    parser.addOptions({optFrames, optOut, optTimeout, optMain, optSlaver, optTrigger});
    parser.addOptions(kavrel_tools::cameraOptions());
    parser.process(app);

    bool bOk = false;
    const int nFrames = parser.value(optFrames).toInt(&bOk);
    if (!bOk || nFrames < 1) {
        std::fprintf(stderr, "kavrel-grab: --frames needs a positive number\n");
        return 2;
    }
    const int nTimeout = parser.value(optTimeout).toInt();
    const QString strOutDir = parser.value(optOut);
    if (!QDir().mkpath(strOutDir)) {
        std::fprintf(stderr, "kavrel-grab: cannot create %s\n", qPrintable(strOutDir));
        return 2;
    }

    QTextStream out(stdout);
    const bool bMain = grab(out, kMain, parser.value(optMain).toLocal8Bit(), nFrames, nTimeout,
                            parser.isSet(optTrigger), strOutDir);
    const bool bSlaver = grab(out, kSlaver, parser.value(optSlaver).toLocal8Bit(), nFrames, nTimeout,
                              parser.isSet(optTrigger), strOutDir);
    out.flush();
    return bMain && bSlaver ? 0 : 1;
}
