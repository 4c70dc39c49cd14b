// SPDX-License-Identifier: LGPL-2.1-or-later
// --camera sim|v4l2 and --device PATH for the tools.
//
// A tool links libKavrel, whose libtorvane.so the loader picks when the
// program starts, before main() runs. So choosing the camera means starting
// again: chooseCamera() finds the folder of the chosen libtorvane.so (the
// installed <libdir>/kavrel/<sim|v4l2> or the build tree's sdk/ and sdk/v4l2),
// puts it first in LD_LIBRARY_PATH and executes the program anew, which is
// what any other host does by hand. --device PATH sets TORVANE_V4L2_DEVICE
// and implies --camera v4l2. Without either option nothing changes.
#ifndef KAVREL_TOOLS_CAMERACHOICE_H
#define KAVREL_TOOLS_CAMERACHOICE_H

#include <QCommandLineOption>
#include <QDir>
#include <QFileInfo>
#include <QList>
#include <QString>
#include <QStringList>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace kavrel_tools {

// For the tool's parser, which must accept (and document) the options.
inline QList<QCommandLineOption> cameraOptions()
{
    return {QCommandLineOption("camera", "Camera SDK: sim (the simulated camera) or v4l2 (a Video4Linux2 device).",
                               "sim|v4l2"),
            QCommandLineOption("device", "Video4Linux2 device of the v4l2 camera (default: the first one).",
                               "path")};
}

// The folder holding the libtorvane.so of the camera `name`, or "".
inline QString cameraFolder(const QString& strName)
{
    char aExe[4096] = {};
    const ssize_t nLength = readlink("/proc/self/exe", aExe, sizeof aExe - 1);
    if (nLength <= 0)
        return QString();
    const QDir cBin = QFileInfo(QString::fromLocal8Bit(aExe, static_cast<int>(nLength))).absoluteDir();
    QStringList cCandidates;
    // Installed: <prefix>/bin next to <prefix>/lib[/<multiarch>]/kavrel/<name>.
    for (const QString& strLib : {QString("lib"), QString("lib64")}) {
        const QDir cLib(cBin.filePath("../" + strLib));
        for (const QString& strArch : cLib.entryList(QDir::Dirs | QDir::NoDotAndDotDot))
            cCandidates << cLib.filePath(strArch + "/kavrel/" + strName);
        cCandidates << cLib.filePath("kavrel/" + strName);
    }
    // Build tree: tools/<tool>/ next to sdk/ (simulated) and sdk/v4l2.
    cCandidates << cBin.filePath(strName == "sim" ? "../../sdk" : "../../sdk/" + strName);
    for (const QString& strDir : cCandidates)
        if (QFileInfo::exists(strDir + "/libtorvane.so"))
            return QDir(strDir).canonicalPath();
    return QString();
}

// Call first in main(), before any Qt application object exists. Returns when
// the chosen SDK is the one loaded; exits with 2 on a bad choice.
inline void chooseCamera(int argc, char** argv)
{
    QString strCamera;
    for (int i = 1; i < argc; ++i) {
        const std::string strArg = argv[i];
        if (strArg == "--")
            break;
        for (const char* szName : {"--camera", "--device"}) {
            std::string strValue;
            const std::size_t nName = std::strlen(szName);
            if (strArg == szName && i + 1 < argc)
                strValue = argv[++i];
            else if (strArg.compare(0, nName + 1, std::string(szName) + "=") == 0)
                strValue = strArg.substr(nName + 1);
            else
                continue;
            if (std::strcmp(szName, "--device") == 0) {
                setenv("TORVANE_V4L2_DEVICE", strValue.c_str(), 1);
                if (strCamera.isEmpty())
                    strCamera = "v4l2";
            } else {
                strCamera = QString::fromStdString(strValue);
            }
        }
    }
    if (strCamera.isEmpty())
        return;
    if (strCamera != "sim" && strCamera != "v4l2") {
        std::fprintf(stderr, "%s: --camera takes sim or v4l2, not %s\n", argv[0], qPrintable(strCamera));
        std::exit(2);
    }
    const QString strFolder = cameraFolder(strCamera);
    if (strFolder.isEmpty()) {
        std::fprintf(stderr, "%s: the %s camera (its libtorvane.so) is not installed\n", argv[0],
                     qPrintable(strCamera));
        std::exit(2);
    }
    const QByteArray cFolder = strFolder.toLocal8Bit();
    const char* szChosen = std::getenv("KAVREL_CAMERA_FOLDER");
    if (szChosen && cFolder == szChosen)
        return; // started again already
    QByteArray cPath = cFolder;
    if (const char* szOld = std::getenv("LD_LIBRARY_PATH"); szOld && *szOld)
        cPath += ":" + QByteArray(szOld);
    setenv("LD_LIBRARY_PATH", cPath.constData(), 1);
    setenv("KAVREL_CAMERA_FOLDER", cFolder.constData(), 1);
    execv("/proc/self/exe", argv);
    std::perror("kavrel: cannot start again with the chosen camera");
    std::exit(2);
}

} // namespace kavrel_tools

#endif
