// The console on the real engine thread (EngineHost with its SQLite store and Qt timers), as
// the kestrix program runs it: no simulator, so every device is disabled and nothing waits on a
// port.
#include <gtest/gtest.h>

#include <QApplication>
#include <QLineEdit>
#include <QLockFile>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <QTimer>
#include <atomic>

#include "console/console_app.h"
#include "console/indicator_lamp.h"
#include "engine/setup.h"
#include "platform_qt/engine_host.h"
#include "platform_qt/lock_file_instance.h"
#include "platform_qt/sqlite_store.h"
#include "support/support.h"
#include "virtual_console.h"

namespace kestrix::console {
namespace {

constexpr int kWaitMs = 20000;
constexpr double kEngineBusySeconds = 3;

// Runs the GUI's events until the console quits the application; its exit code (99: it did not).
int runUntilQuit(ConsoleApp& console) {
    int code = 99;
    const QMetaObject::Connection c = QObject::connect(&console, &ConsoleApp::finished,
                                                       [&code](int exitCode) { code = exitCode; });
    static_cast<void>(QTest::qWaitFor([&code] { return code != 99; }, kWaitMs));
    QObject::disconnect(c);
    return code;
}

QMessageBox* openMessage() {
    for (QWidget* w : QApplication::topLevelWidgets()) {
        if (auto* box = qobject_cast<QMessageBox*>(w); box != nullptr && box->isVisible()) {
            return box;
        }
    }
    return nullptr;
}

TEST(RealEngine, TheConsoleRendersTheEngineThreadPostsToItAndQuitsWhenItHasEnded) {
    const std::string store = kestrix::test::makeTempDir("ksx-console") + "/KSX.db";
    ConsoleApp console(nullptr);
    qt::EngineOptions options;
    options.storePath = store;
    qt::EngineHost engine(options, console.messageBox());
    console.attach(engine);
    engine.start();
    ConsoleWindow* window = console.window();
    ASSERT_NE(window, nullptr);
    // Shown with the engine's state after its load: an empty store shows the default set.
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->isVisible(); }, kWaitMs));
    ASSERT_TRUE(QTest::qWaitFor([&] { return test::shownText(window->control("ccURL")) == "N/A"; },
                                kWaitMs));
    EXPECT_EQ(window->windowTitle(), "Kestrix V5.0.0");

    // A long wait on the engine thread (a device that does not answer) leaves the window live:
    // the link lamp lights and goes out again, and an edit and a click on Save wait their turn.
    std::atomic<bool> engineBusy{true};
    engine.post([&engineBusy](kestrix::Setup& setup) {
        setup.console().BlinkTx();
        setup.pause(kEngineBusySeconds);
        engineBusy = false;
    });
    auto* lamp = qobject_cast<IndicatorLamp*>(window->control("gLEDtx"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return lamp->lit(); }, kWaitMs));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !lamp->lit(); }, kWaitMs));
    auto* user = qobject_cast<QLineEdit*>(window->control("ccUser"));
    user->selectAll();
    QTest::keyClicks(user, "tech2");
    QTest::mouseClick(qobject_cast<QPushButton*>(window->control("Save")), Qt::LeftButton);
    EXPECT_TRUE(engineBusy) << "the engine's wait ended before the window had done all that";
    EXPECT_EQ(user->text(), "tech2");
    qt::SqliteStore reader(store);
    ASSERT_TRUE(QTest::qWaitFor([&] { return reader.get("KSX", "Pin Pad", "User", "") == "tech2"; },
                                kWaitMs));
    EXPECT_FALSE(engineBusy);

    // Closing the window is the engine's Exit; the console quits once the engine has ended.
    window->close();
    EXPECT_TRUE(window->isVisible()) << "the window stays until the engine has ended";
    EXPECT_EQ(runUntilQuit(console), 0);
    EXPECT_FALSE(window->isVisible());
    EXPECT_EQ(engine.wait(), 0);
    EXPECT_EQ(reader.get("KSX", "Pin Pad", "On Line", ""), "No");
}

TEST(RealEngine, ARefusedStartShowsItsMessageAndQuitsOnlyOnceTheOperatorHasReadIt) {
    const std::string store = kestrix::test::makeTempDir("ksx-console") + "/KSX.db";
    // Another engine holds the store.
    QLockFile other(QString::fromStdString(qt::LockFileInstance::lockPathFor(store)));
    ASSERT_TRUE(other.tryLock(0));

    ConsoleApp console(nullptr);
    qt::EngineOptions options;
    options.storePath = store;
    qt::EngineHost engine(options, console.messageBox());
    console.attach(engine);
    engine.start();
    ASSERT_TRUE(QTest::qWaitFor([] { return openMessage() != nullptr; }, kWaitMs));
    QMessageBox* box = openMessage();
    EXPECT_EQ(box->text(), "Another version of this program is already running");
    EXPECT_EQ(box->windowTitle(), "Unable to start");
    EXPECT_EQ(engine.wait(), 1);
    // The engine has ended, but the message stays until the operator has read it.
    QTest::qWait(ConsoleApp::kShowWindowAfterMs + 200);
    EXPECT_NE(openMessage(), nullptr);
    EXPECT_FALSE(console.window()->isVisible());

    QTimer::singleShot(0, [] { openMessage()->button(QMessageBox::Ok)->click(); });
    EXPECT_EQ(runUntilQuit(console), 1);
}

}  // namespace
}  // namespace kestrix::console
