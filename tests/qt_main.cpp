// Qt tests need an application object: a QApplication where widgets are tested, else a
// QGuiApplication (the printer lays out fonts). It runs on the offscreen platform unless told
// otherwise, so no display is needed.
#include <gtest/gtest.h>

#ifdef KESTRIX_TEST_WIDGETS
#include <QApplication>
using TestApplication = QApplication;
#else
#include <QGuiApplication>
using TestApplication = QGuiApplication;
#endif

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    TestApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
