// SPDX-License-Identifier: LGPL-2.1-or-later
// What kavrel-grab and kavrel-viewer share: default configurations merged under
// the user's, warnings about settings that give no picture, the image format
// of a lent buffer, the dialog's language and the common help texts.
#ifndef KAVREL_TOOLS_COMMON_TOOLSUPPORT_H
#define KAVREL_TOOLS_COMMON_TOOLSUPPORT_H

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QList>
#include <QLocale>
#include <QString>
#include <QStringList>

namespace kavreltool {

// The user's configuration string with every element it lacks taken from
// defaults: top-level elements (<PixFmt>, <ROI>, ...) and, inside <Settings>,
// each setting (<Exposure>, <Gamma>, ...). An element the user wrote stays as
// written, even with an empty body: the library reads the first occurrence of
// a tag, so a default added behind it would not count (pictureWarnings tells).
QString mergeConfig(const QString& strDefaults, const QString& strUser);

// --main, --slaver, --as-given and --print-config, which both tools take alike.
struct ConfigOptions {
    QCommandLineOption cMain{"main", "Configuration string of the Main camera, over the default below.", "config"};
    QCommandLineOption cSlaver{"slaver", "Configuration string of the Slaver camera, over the default below.",
                               "config"};
    QCommandLineOption cAsGiven{"as-given",
                                "Use --main and --slaver as they are, without the defaults of what they leave out."};
    QCommandLineOption cPrint{"print-config", "Print the configuration strings the cameras get, then exit."};

    QList<QCommandLineOption> all() const { return {cMain, cSlaver, cAsGiven, cPrint}; }
    // The Main (or Slaver) camera's configuration: its option's text, else
    // the default, merged over the default unless --as-given.
    QString config(const QCommandLineParser& parser, bool bSlaver, const QString& strDefault) const;
};

// Settings of config that give no usable picture, read as the library reads
// them, one English sentence each; empty when the picture should be fine.
QStringList pictureWarnings(const QString& strConfig);

// The trigger mode the library takes from config: "Video", "soft" or "Hard"
// (the library's own default, video, when the element is missing or unknown).
QString triggerType(const QString& strConfig);

// Whether a lent image of this geometry holds 3-byte pixels (24-bit colour)
// rather than 1-byte grey. Computed in 64 bits: 3 x width overflows int.
bool isColourImage(int nWidth, int nBytesPerLine);

// The dialog's language for a locale: "zh" (its own texts) where the locale's
// language is Chinese, else "en".
QString defaultDialogLanguage(const QLocale& cLocale);

// A configuration in words for help texts: "PixFmt 1, ROI 640,480, Exposure
// 20000, ..." (the elements that say what the picture is; no long words, so
// that manual pages can fill their lines).
QString describeConfig(const QString& strConfig);

// Help text shared by both tools: the configuration string's syntax and the
// simulated camera's environment.
QString configSyntaxHelp();
QString simulatorEnvironmentHelp();

} // namespace kavreltool

#endif
