// SPDX-License-Identifier: LGPL-2.1-or-later
// Test programs that need a Qt application (widgets run on the offscreen
// platform, which needs no display).
#include <QApplication>
#include <QTextCodec>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    // Texts from the host are decoded as local 8-bit: make that a known codec.
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
