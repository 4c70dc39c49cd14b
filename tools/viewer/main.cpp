// SPDX-License-Identifier: LGPL-2.1-or-later
// kavrel-viewer: shows the Main and the Slaver camera side by side and opens the
// configuration dialog of either through the exported KavrelInterface, as a host
// would. The dialog's result can be adopted with setConfigString... and a
// reconnect, or applied to the running camera with applyNewConfig....

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QLibraryInfo>
#include <QLocale>
#include <QPushButton>
#include <QTimer>
#include <QTranslator>

#include <cstdio>

#include "camerachoice.h"
#include "toolsupport.h"
#include "viewerwindow.h"

namespace {

// Where the dialog's compiled translations may be: the build tree, the install
// prefix next to this program, and the configured install directory.
QStringList translationDirs()
{
    return {QStringLiteral(KAVREL_VIEWER_BUILD_TRANSLATIONS),
            QDir(QCoreApplication::applicationDirPath()).filePath("../share/kavrel/translations"),
            QStringLiteral(KAVREL_VIEWER_INSTALL_TRANSLATIONS)};
}

bool loadTranslation(QTranslator& cTranslator, const QString& strLang)
{
    for (const QString& strDir : translationDirs()) {
        if (cTranslator.load("kavrel_" + strLang, strDir))
            return true;
    }
    return false;
}

QString helpText(const QCommandLineParser& parser)
{
    return parser.helpText() + "\nDefaults:\n  Main camera: " + kavreltool::describeConfig(gszViewerDefaultMain) +
           ".\n  Slaver camera: " + kavreltool::describeConfig(gszViewerDefaultSlaver) + ".\n\n" +
           kavreltool::configSyntaxHelp() + "\n" +
           "Language:\n"
           "  The configuration dialog's own texts are Chinese; they need a CJK font\n"
           "  (fonts-wqy-microhei or fonts-noto-cjk), or every label is an empty box.\n"
           "  Without --lang the dialog is Chinese where the locale's language is\n"
           "  Chinese, and English everywhere else.\n\n" +
           kavreltool::simulatorEnvironmentHelp() +
           "  Without a display, run it under xvfb-run, or with QT_QPA_PLATFORM=offscreen.\n";
}

// --screenshots: grabs the viewer (viewer.png), then opens the Main camera's dialog, opens
// the camera in it, grabs the dialog (config-dialog.png) and closes it with its cancel button.
void scheduleScreenshots(ViewerWindow* pWindow, const QString& strDir)
{
    QTimer::singleShot(2000, pWindow, [pWindow, strDir]() {
        pWindow->grab().save(QDir(strDir).filePath("viewer.png"));
        QTimer::singleShot(500, pWindow, [strDir]() {
            QWidget* pDialog = QApplication::activeModalWidget();
            if (pDialog == nullptr)
                return;
            if (auto* pOpen = pDialog->findChild<QPushButton*>("btnOpenCCD"))
                pOpen->click();
            QTimer::singleShot(1500, pDialog, [pDialog, strDir]() {
                if (QWidget* pFocus = pDialog->focusWidget())
                    pFocus->clearFocus();
                pDialog->grab().save(QDir(strDir).filePath("config-dialog.png"));
                if (auto* pCancel = pDialog->findChild<QPushButton*>("btnCancel"))
                    pCancel->click();
                QTimer::singleShot(0, qApp, &QCoreApplication::quit);
            });
        });
        pWindow->findChild<QPushButton*>("btnConfigureMain")->click();
    });
}

} // namespace

int main(int argc, char** argv)
{
    kavrel_tools::chooseCamera(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Shows the Main and the Slaver camera live through libKavrel and opens their configuration dialogs,\n"
        "as a host program would.");
    const QCommandLineOption optHelp({"h", "help"}, "Show this help and exit.");
    const QCommandLineOption optVersion("version", "Show the version and exit.");
    const kavreltool::ConfigOptions cConfigOptions;
    const QCommandLineOption optLang("lang",
                                     "Language of the configuration dialog: \"en\" (English), or \"zh\" for its "
                                     "own Chinese texts. Default: zh where the locale is Chinese, else en.",
                                     "code");
    const QCommandLineOption optScreenshots("screenshots", "Write viewer.png and config-dialog.png into <dir>, then quit.",
                                            "dir");
    parser.addOptions({optHelp, optVersion});
    parser.addOptions(cConfigOptions.all());
    parser.addOptions({optLang, optScreenshots});
    parser.addOptions(kavrel_tools::cameraOptions());

    const char* const aszDefaults[2] = {gszViewerDefaultMain, gszViewerDefaultSlaver};
    auto effectiveConfig = [&](int i) {
        return cConfigOptions.config(parser, i == 1, QString::fromLatin1(aszDefaults[i]));
    };

    // Help, version and --print-config need no display: answer them with a
    // core application alone. (Everything else waits for QApplication, which
    // takes its own options such as -platform out of the arguments first.)
    for (int i = 1; i < argc; ++i) {
        const QByteArray cArg(argv[i]);
        if (cArg == "-h" || cArg == "--help" || cArg == "--version" || cArg == "--print-config") {
            QCoreApplication cCore(argc, argv);
            const bool bParsed = parser.parse(QCoreApplication::arguments());
            if (cArg == "--version") {
                std::printf("kavrel-viewer %s\n", KAVREL_VERSION);
            } else if (cArg == "--print-config" && bParsed) {
                std::printf("Main: %s\nSlaver: %s\n", qPrintable(effectiveConfig(0)), qPrintable(effectiveConfig(1)));
            } else if (cArg == "--print-config") {
                std::fprintf(stderr, "kavrel-viewer: %s (try --help)\n", qPrintable(parser.errorText()));
                return 2;
            } else {
                std::fputs(qPrintable(helpText(parser)), stdout);
            }
            return 0;
        }
    }

    QApplication app(argc, argv);
    QCoreApplication::setApplicationName("kavrel-viewer");
    QCoreApplication::setApplicationVersion(KAVREL_VERSION);
    if (!parser.parse(QCoreApplication::arguments())) {
        std::fprintf(stderr, "kavrel-viewer: %s (try --help)\n", qPrintable(parser.errorText()));
        return 2;
    }
    if (!parser.positionalArguments().isEmpty()) {
        std::fprintf(stderr, "kavrel-viewer: unexpected argument %s (try --help)\n",
                     qPrintable(parser.positionalArguments().first()));
        return 2;
    }

    QTranslator cTranslator;
    const QString strLang =
        parser.isSet(optLang) ? parser.value(optLang) : kavreltool::defaultDialogLanguage(QLocale());
    if (strLang != "zh") {
        if (loadTranslation(cTranslator, strLang))
            QCoreApplication::installTranslator(&cTranslator);
        else
            std::fprintf(stderr, "kavrel-viewer: no translation \"%s\"; the dialog keeps its own (Chinese) texts\n",
                         qPrintable(strLang));
    }

    QByteArray aConfigs[2];
    for (int i = 0; i < 2; ++i) {
        const QString strConfig = effectiveConfig(i);
        for (const QString& strWarning : kavreltool::pictureWarnings(strConfig))
            std::fprintf(stderr, "kavrel-viewer: %s: warning: %s\n", i == 0 ? "Main" : "Slaver",
                         qPrintable(strWarning));
        aConfigs[i] = strConfig.toLocal8Bit();
    }

    ViewerWindow cWindow(aConfigs[0], aConfigs[1]);
    cWindow.show();
    cWindow.startAll();

    if (parser.isSet(optScreenshots)) {
        const QString strDir = parser.value(optScreenshots);
        QDir().mkpath(strDir);
        scheduleScreenshots(&cWindow, strDir);
    }
    return app.exec();
}
