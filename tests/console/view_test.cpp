// The window as a view: what it sends to the engine, what it shows of the engine's fields, and
// how it behaves while the engine is busy elsewhere.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QProgressBar>
#include <QTest>
#include <deque>
#include <memory>

#include "console/console_window.h"
#include "console/indicator_lamp.h"
#include "engine/setup.h"
#include "sim/world/virtual_kiosk.h"
#include "virtual_console.h"

namespace kestrix::console {
namespace {

// A window whose posts are held, as an engine busy with a long exchange holds them, and run on
// demand against a real engine (no devices), whose changes are delivered only when asked.
struct HeldEngine {
    sim::VirtualKiosk kiosk;
    std::deque<std::function<void(ConsoleCommands&)>> posted;
    std::deque<Field> changes;
    std::unique_ptr<ConsoleWindow> window;

    HeldEngine() {
        window = std::make_unique<ConsoleWindow>(
            [this](std::function<void(ConsoleCommands&)> a) { posted.push_back(std::move(a)); });
        kiosk.engine().console().setChangeListener(
            [this](const Field& f) { changes.push_back(f); });
    }
    Console& console() { return kiosk.engine().console(); }
    void engineRuns() {
        while (!posted.empty()) {
            auto action = std::move(posted.front());
            posted.pop_front();
            SetupCommands commands(kiosk.engine());
            action(commands);
        }
    }
    void guiRuns() {
        while (!changes.empty()) {
            window->renderField(changes.front());
            changes.pop_front();
        }
        QCoreApplication::processEvents();
    }
    QLineEdit* edit(const char* name) { return qobject_cast<QLineEdit*>(window->control(name)); }
};

TEST(View, RenderingNeverComesBackAsAnOperatorEdit) {
    HeldEngine e;
    Console& c = e.console();
    c.setText("due", "12.5");
    c.setValue("CoinAcceptorEnabled", 1);
    c.setText("bDispType", "200");
    c.setText("ccPassword", "secret");
    c.setEnabled("enablePayment", false);
    e.guiRuns();
    EXPECT_TRUE(e.posted.empty());
    EXPECT_EQ(e.edit("due")->text(), "12.5");
    EXPECT_TRUE(qobject_cast<QCheckBox*>(e.window->control("CoinAcceptorEnabled"))->isChecked());
    EXPECT_EQ(qobject_cast<QComboBox*>(e.window->control("bDispType"))->currentData(), "200");
    EXPECT_EQ(e.edit("ccPassword")->text(), "secret");
    EXPECT_FALSE(e.window->control("enablePayment")->isEnabled());
}

TEST(View, TypingIsNotOverwrittenByTheEchoOfAnEarlierKeystroke) {
    HeldEngine e;
    QLineEdit* due = e.edit("due");
    QTest::keyClicks(due, "12");
    ASSERT_EQ(e.posted.size(), 2u);
    // The engine takes "1" and "12"; its echoes arrive while the operator types on.
    e.engineRuns();
    QTest::keyClicks(due, ".5");
    e.guiRuns();
    EXPECT_EQ(due->text(), "12.5");
    e.engineRuns();
    e.guiRuns();
    EXPECT_EQ(due->text(), "12.5");
    EXPECT_EQ(e.console().text("due"), "12.5");
    EXPECT_EQ(e.window->pendingEdits(), 0);
}

TEST(View, TheEngineHasTheLastWordOnAControlOnceItHasTakenTheEdit) {
    HeldEngine e;
    auto* box = qobject_cast<QCheckBox*>(e.window->control("CoinAcceptorEnabled"));
    test::clickFace(box);
    EXPECT_TRUE(box->isChecked());
    e.engineRuns();  // the handler runs; say the changer did not answer and was unticked
    e.console().setValue("CoinAcceptorEnabled", 0);
    e.guiRuns();
    EXPECT_FALSE(box->isChecked());
}

TEST(View, TheHiddenFormStaysHidden) {
    HeldEngine e;
    e.window->setPresentable(true);
    ASSERT_TRUE(e.window->isVisible());
    e.console().setVisible("Setup", false);
    e.guiRuns();
    EXPECT_FALSE(e.window->isVisible());
    e.window->setPresentable(true);
    EXPECT_FALSE(e.window->isVisible());
}

TEST(View, TubeCountsAlsoShowAsFillBars) {
    HeldEngine e;
    const std::vector<std::pair<const char*, int>> rows = {
        {"40", 40}, {"0", 0}, {"N/A", 0}, {"250", ConsoleWindow::kTubeCapacityCoins}, {"-3", 0}};
    auto* bar = e.window->findChild<QProgressBar*>("tubeFill2");
    ASSERT_NE(bar, nullptr);
    for (const auto& [text, value] : rows) {
        e.console().setText("tubeCoinQty2", text);
        e.guiRuns();
        EXPECT_EQ(bar->value(), value) << text;
    }
}

TEST(View, EachTrafficEventIsAVisibleBlinkAndABurstKeepsBlinking) {
    HeldEngine e;
    auto* tx = qobject_cast<IndicatorLamp*>(e.window->control("gLEDtx"));
    auto* rx = qobject_cast<IndicatorLamp*>(e.window->control("gLEDrx"));
    ASSERT_NE(tx, nullptr);
    ASSERT_NE(rx, nullptr);
    // Lit until its blink time has passed, not just for one repaint.
    e.window->flashIndicator(Indicator::Tx);
    QCoreApplication::processEvents();
    EXPECT_TRUE(tx->lit());
    EXPECT_FALSE(rx->lit());

    // A read loop reports hundreds of receptions: one blink, and one more for the rest.
    for (int i = 0; i < 300; ++i) {
        e.window->flashIndicator(Indicator::Rx);
    }
    EXPECT_EQ(rx->blinks(), 1);
    EXPECT_TRUE(QTest::qWaitFor([&] { return rx->blinks() == 2; }, 5000));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !rx->lit(); }, 5000));
    QTest::qWait(IndicatorLamp::kOnMs + IndicatorLamp::kGapMs + 50);
    EXPECT_EQ(rx->blinks(), 2);
}

}  // namespace
}  // namespace kestrix::console
