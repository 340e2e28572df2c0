// The Qt adapters need an application object: a QGuiApplication, because the printer lays out
// fonts. It runs on the offscreen platform unless told otherwise, so no display is needed.
#include <gtest/gtest.h>

#include <QGuiApplication>

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QGuiApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
