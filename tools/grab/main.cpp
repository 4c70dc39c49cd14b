// SPDX-License-Identifier: LGPL-2.1-or-later
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
#include <utility>

#include "api/interface.h"
#include "camerachoice.h"
#include "toolsupport.h"
#include "twincamera.h"

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

QImage toImage(const unsigned char* pImage, int nWidth, int nBytesPerLine, int nHeight)
{
    const QImage::Format eFormat =
        kavreltool::isColourImage(nWidth, nBytesPerLine) ? QImage::Format_BGR888 : QImage::Format_Grayscale8;
    // Deep copy: the buffer goes back to the library right after.
    return QImage(pImage, nWidth, nHeight, nBytesPerLine, eFormat).copy();
}

// Why requests may come back empty, as far as the configuration tells.
void explainMissingFrames(QTextStream& out, const char* szName, const QString& strConfig, bool bTrigger)
{
    const QString strTrigger = kavreltool::triggerType(strConfig);
    if (strTrigger == "soft" && !bTrigger)
        out << szName << ": the camera is in software-trigger mode (<TriggerType>soft</TriggerType>): it makes a "
            << "frame only when triggered; add --trigger\n";
    else if (strTrigger == "Hard")
        out << szName << ": the camera is in hardware-trigger mode (<TriggerType>Hard</TriggerType>): it makes a "
            << "frame only on a trigger at its input\n";
    else
        out << szName << ": a longer --timeout may help if the camera is slow to deliver\n";
}

bool grab(QTextStream& out, const kavreltool::TwinCamera& cam, QByteArray config, int nFrames, int nTimeout,
          bool bTrigger, const QString& strOutDir)
{
    KavrelInterface* api = KavrelInterface::getInstance();
    (api->*cam.setConfig)(config.data());
    if (!(api->*cam.connect)() || !(api->*cam.start)()) {
        out << cam.name << ": " << api->getLastError() << "\n";
        (api->*cam.disconnect)();
        return false;
    }

    int nGot = 0;
    int nRequests = 0;
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
        ++nRequests;
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

    if (nGot == 0 && nRequests == 0)
        return false;   // the trigger failed, and said so
    if (nGot == 0) {
        out << cam.name << ": 0 of " << nFrames << " frames: no frame came within the time-out of " << nTimeout
            << " ms\n";
        explainMissingFrames(out, cam.name, QString::fromLocal8Bit(config), bTrigger);
        return false;
    }
    const char* szFormat = kavreltool::isColourImage(nWidth, nBytesPerLine) ? "24-bit colour (3 bytes per pixel)"
                                                                            : "8-bit grey";
    out << cam.name << ": " << nGot << " of " << nFrames << " frames, " << nWidth << " x " << nHeight << ", "
        << nBytesPerLine << " bytes per line, " << szFormat << "\n";
    if (nGot < nRequests) {
        out << cam.name << ": " << (nRequests - nGot) << " requests got no frame within the time-out of " << nTimeout
            << " ms\n";
        explainMissingFrames(out, cam.name, QString::fromLocal8Bit(config), bTrigger);
    }
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

// Help texts with the defaults, the configuration syntax and the environment:
// what QCommandLineParser prints, then what it has no place for.
QString helpText(const QCommandLineParser& parser)
{
    return parser.helpText() + "\nDefaults:\n  Main camera: " + kavreltool::describeConfig(kDefaultMain) +
           ".\n  Slaver camera: " + kavreltool::describeConfig(kDefaultSlaver) + ".\n\n" +
           kavreltool::configSyntaxHelp() + "\n" + kavreltool::simulatorEnvironmentHelp() +
           "\nExit status: 0 when both cameras delivered frames, 1 when one did not, 2 for a usage error.\n";
}

int usageError(const QString& strMessage)
{
    std::fprintf(stderr, "kavrel-grab: %s (try --help)\n", qPrintable(strMessage));
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    kavrel_tools::chooseCamera(argc, argv);
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("kavrel-grab");
    QCoreApplication::setApplicationVersion(KAVREL_VERSION);

    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Grabs frames from the Main and the Slaver camera through libKavrel, as a host program would,\n"
        "and writes the first and the last frame of each as PNG files.");
    const QCommandLineOption optHelp({"h", "help"}, "Show this help and exit.");
    const QCommandLineOption optVersion("version", "Show the version and exit.");
    const QCommandLineOption optFrames({"n", "frames"}, "Frames to grab per camera (default 30).", "count", "30");
    const QCommandLineOption optOut({"o", "output"}, "Directory for the PNG files (default: the current one).", "dir",
                                    ".");
    const QCommandLineOption optTimeout("timeout", "Time-out of one request in milliseconds (default 1000).", "ms",
                                        "1000");
    const kavreltool::ConfigOptions cConfigOptions;
    const QCommandLineOption optTrigger("trigger",
                                        "Fire a software trigger before each request (needed in software-trigger "
                                        "mode).");
    parser.addOptions({optHelp, optVersion, optFrames, optOut, optTimeout});
    parser.addOptions(cConfigOptions.all());
    parser.addOption(optTrigger);
    parser.addOptions(kavrel_tools::cameraOptions());
    if (!parser.parse(QCoreApplication::arguments()))
        return usageError(parser.errorText());
    if (parser.isSet(optHelp)) {
        std::fputs(qPrintable(helpText(parser)), stdout);
        return 0;
    }
    if (parser.isSet(optVersion)) {
        std::printf("kavrel-grab %s\n", KAVREL_VERSION);
        return 0;
    }
    if (!parser.positionalArguments().isEmpty())
        return usageError("unexpected argument " + parser.positionalArguments().first());

    bool bOk = false;
    const int nFrames = parser.value(optFrames).toInt(&bOk);
    if (!bOk || nFrames < 1)
        return usageError("--frames needs a whole number of at least 1, not \"" + parser.value(optFrames) + "\"");
    const int nTimeout = parser.value(optTimeout).toInt(&bOk);
    if (!bOk || nTimeout < 0)
        return usageError("--timeout needs a whole number of milliseconds, 0 or more, not \"" +
                          parser.value(optTimeout) + "\"");
    const QString strOutDir = parser.value(optOut);
    if (!QDir().mkpath(strOutDir)) {
        std::fprintf(stderr, "kavrel-grab: cannot create %s\n", qPrintable(strOutDir));
        return 2;
    }

    QTextStream out(stdout);
    bool bAllGood = true;
    for (const auto& [pCam, szDefault] : {std::make_pair(&kavreltool::kMainCamera, kDefaultMain),
                                          std::make_pair(&kavreltool::kSlaverCamera, kDefaultSlaver)}) {
        const QString strConfig =
            cConfigOptions.config(parser, pCam == &kavreltool::kSlaverCamera, QString::fromLatin1(szDefault));
        if (parser.isSet(cConfigOptions.cPrint)) {
            out << pCam->name << ": " << strConfig << "\n";
            continue;
        }
        for (const QString& strWarning : kavreltool::pictureWarnings(strConfig))
            out << pCam->name << ": warning: " << strWarning << "\n";
        if (!grab(out, *pCam, strConfig.toLocal8Bit(), nFrames, nTimeout, parser.isSet(optTrigger), strOutDir))
            bAllGood = false;
    }
    out.flush();
    return bAllGood ? 0 : 1;
}
