#include <gtest/gtest.h>

#include <QApplication>

int main(int argc, char** argv)
{
    // Widgets need an application; the offscreen platform needs no display.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
