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

#include "tools/common/camerachoice.h"
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
        const bool bLoaded = strLang.isEmpty() ? cTranslator.load(QLocale(), "kavrel", "_", strDir)
                                               : cTranslator.load("kavrel_" + strLang, strDir);
        if (bLoaded)
            return true;
    }
    return false;
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
    parser.setApplicationDescription("Shows both cameras live and opens their configuration dialogs.");
    parser.addHelpOption();
    QCommandLineOption optMain("main", "Configuration string of the Main camera.", "config", gszViewerDefaultMain);
    QCommandLineOption optSlaver("slaver", "Configuration string of the Slaver camera.", "config",
                                 gszViewerDefaultSlaver);
    QCommandLineOption optLang("lang",
                               "Language of the configuration dialog: a translation such as \"en\", or \"zh\" "
                               "for the dialog's own texts. Default: the system locale.",
                               "code");
    QCommandLineOption optScreenshots("screenshots", "Write viewer.png and config-dialog.png into <dir>, then quit.",
                                      "dir");
    parser.addOptions({optMain, optSlaver, optLang, optScreenshots});
    parser.addOptions(kavrel_tools::cameraOptions());

    // Help needs no display: answer it with a core application alone.
    for (int i = 1; i < argc; ++i) {
        const QByteArray cArg(argv[i]);
        if (cArg == "-h" || cArg == "--help" || cArg == "--help-all" || cArg == "-?") {
            QCoreApplication cCore(argc, argv);
            QCoreApplication::setApplicationName("kavrel-viewer");
            parser.process(cCore);   // prints the help and exits
        }
    }

    QApplication app(argc, argv);
    QCoreApplication::setApplicationName("kavrel-viewer");
    parser.process(app);

    QTranslator cTranslator;
    const QString strLang = parser.value(optLang);
    if (strLang != "zh") {
        if (loadTranslation(cTranslator, strLang))
            QCoreApplication::installTranslator(&cTranslator);
        else if (!strLang.isEmpty())
            std::fprintf(stderr, "kavrel-viewer: no translation \"%s\"; the dialog keeps its own texts\n",
                         qPrintable(strLang));
    }

    ViewerWindow cWindow(parser.value(optMain).toLocal8Bit(), parser.value(optSlaver).toLocal8Bit());
    cWindow.show();
    cWindow.startAll();

    if (parser.isSet(optScreenshots)) {
        const QString strDir = parser.value(optScreenshots);
        QDir().mkpath(strDir);
        scheduleScreenshots(&cWindow, strDir);
    }
    return app.exec();
}
