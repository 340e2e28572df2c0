// The console's controls: one widget for each of the engine's fields, on the tab and in the frame
// where a technician looks for it.
#include <gtest/gtest.h>

#include <QGroupBox>
#include <QLineEdit>
#include <QTabWidget>
#include <vector>

#include "console/console_window.h"
#include "engine/console_commands.h"

namespace kestrix::console {
namespace {

// The layout is the window's own: no engine takes its posts.
void noEngine(std::function<void(ConsoleCommands&)>) {}

TEST(Layout, EveryFieldHasOneWidgetNamedAfterIt) {
    const ConsoleWindow window(noEngine);
    const Console console;
    for (const Field& f : console.fields()) {
        ASSERT_NE(window.control(QString::fromStdString(f.name)), nullptr) << f.name;
        EXPECT_EQ(window.findChildren<QWidget*>(QString::fromStdString(f.name)).size(),
                  f.kind == FieldKind::Form ? 0 : 1)
            << f.name;
    }
}

TEST(Layout, SixTabsInOrderWithTheirFrames) {
    const ConsoleWindow window(noEngine);
    auto* tabs = qobject_cast<QTabWidget*>(window.control("SSTab1"));
    ASSERT_NE(tabs, nullptr);
    const std::vector<std::pair<QString, QStringList>> expected = {
        {"General Settings",
         {"MDB Interface Configuration", "Bill Dispenser Configuration",
          "Hoppers Interface Configuration"}},
        {"Coin Acceptor",
         {"Coin Acceptor Settings", "Change Management", "Coin Types Enabled/Disabled"}},
        {"Bill Validator", {"Bill Validator Settings", "Bill Types Enabled/Disabled"}},
        {"Bill Dispenser", {"Bill Dispenser Settings", "Bill Dispenser Functions"}},
        {"Hoppers", {"Hopper No. 1", "Hopper No. 2", "Hoppers Functions"}},
        {"Credit Card",
         {"Pin Pad Settings", "Business Parameters", "Test Pin Pad", "Vaucher Printer"}},
    };
    ASSERT_EQ(tabs->count(), 6);
    for (int i = 0; i < 6; ++i) {
        const auto& [caption, frames] = expected[static_cast<std::size_t>(i)];
        EXPECT_EQ(tabs->tabText(i), caption);
        QStringList titles;
        for (const QGroupBox* box : tabs->widget(i)->findChildren<QGroupBox*>()) {
            titles << box->title();
        }
        EXPECT_EQ(titles, frames) << caption.toStdString();
    }
}

// The password is not shown to whoever stands by; device answers are shown, not typed.
TEST(Layout, ThePasswordIsHiddenAndDeviceAnswersAreReadOnly) {
    const ConsoleWindow window(noEngine);
    const auto edit = [&](const char* name) {
        return qobject_cast<QLineEdit*>(window.control(name));
    };
    EXPECT_EQ(edit("ccPassword")->echoMode(), QLineEdit::Password);
    EXPECT_TRUE(edit("caSerialNumber")->isReadOnly());
    EXPECT_FALSE(edit("bt3_Value")->isReadOnly());
    EXPECT_FALSE(edit("due")->isReadOnly());
}

}  // namespace
}  // namespace kestrix::console
