// The console on the simulated kiosk in virtual time: what the operator does on the window
// reaches the engine's handlers, and what they do shows on the window.
#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>

#include "console/simulator_panel.h"
#include "engine/settings/layout.h"
#include "virtual_console.h"

namespace kestrix::console {
namespace {

using test::click;
using test::VirtualConsole;

void pick(VirtualConsole& c, const char* list, const QString& value) {
    auto* box = c.widget<QComboBox>(list);
    const int i = box->findData(value);
    ASSERT_GE(i, 0) << list << " " << value.toStdString();
    box->setCurrentIndex(i);
    emit box->activated(i);
}

QString line(VirtualConsole& c, const char* name) {
    return c.window->findChild<QLabel*>(name)->text();
}

std::string stored(VirtualConsole& c, std::string_view section, std::string_view key) {
    return c.kiosk.store().get(store::kApp, section, key, "<missing>");
}

TEST(OnTheKiosk, SaveWritesTheStoreFromWhatTheWidgetsHold) {
    VirtualConsole c;
    ASSERT_TRUE(c.start());
    c.run(1);
    click(c, "ct2_Enabled");
    QLineEdit* user = c.widget<QLineEdit>("ccUser");
    user->selectAll();
    QTest::keyClicks(user, "technician");
    pick(c, "h2CoinValue", "10");
    c.run(1);
    // Edits are the console's state until saved.
    EXPECT_EQ(stored(c, store::section::kCoinAcceptor, "CoinType2_Enabled"), "1");
    EXPECT_NE(stored(c, store::section::kPinPad, "User"), "technician");

    click(c, "Save");
    c.run(1);
    EXPECT_EQ(stored(c, store::section::kCoinAcceptor, "CoinType2_Enabled"), "0");
    EXPECT_EQ(stored(c, store::section::kCoinAcceptor, "CoinType1_Enabled"), "1");
    EXPECT_EQ(stored(c, store::section::kPinPad, "User"), "technician");
    EXPECT_EQ(stored(c, store::section::kHoppers, "h2CoinValue"), "10");
    EXPECT_EQ(c.window->pendingEdits(), 0);
}

TEST(OnTheKiosk, DeviceBoxesAndPortListsReinitialiseThroughTheEngine) {
    VirtualConsole c;
    ASSERT_TRUE(c.start());
    c.run(1);
    ASSERT_EQ(c.shown("caFeatureLevel"), "03");
    EXPECT_TRUE(line(c, "coinAcceptorStatus").startsWith("Initialised"))
        << line(c, "coinAcceptorStatus").toStdString();

    click(c, "CoinAcceptorEnabled");
    ASSERT_TRUE(c.runUntil([&] { return c.shown("caFeatureLevel") == "N/A"; }, 60));
    EXPECT_EQ(line(c, "coinAcceptorStatus"), "Disabled.");
    click(c, "CoinAcceptorEnabled");
    ASSERT_TRUE(c.runUntil([&] { return c.shown("caFeatureLevel") == "03"; }, 60));

    // Nothing answers at port 5: the engine reports a port error, and the console says so.
    pick(c, "comPorts", "5");
    ASSERT_TRUE(c.runUntil([&] { return line(c, "mdbLinkStatus").startsWith("Port error"); }, 60));
    EXPECT_TRUE(line(c, "coinAcceptorStatus").startsWith("Port error"));
    pick(c, "comPorts", "1");
    ASSERT_TRUE(
        c.runUntil([&] { return line(c, "coinAcceptorStatus").startsWith("Initialised"); }, 60));
    EXPECT_TRUE(line(c, "mdbLinkStatus").startsWith("In use by the coin acceptor"));
}

TEST(OnTheKiosk, ACashPaymentByHandCompletesAndTheDisplaysShowIt) {
    VirtualConsole c;
    ASSERT_TRUE(c.start());
    c.run(1);
    SimulatorLink link;
    link.command = [&c](const std::string& command) { return c.kiosk.control(command); };
    link.profile = c.kiosk.models().profile();
    SimulatorPanel panel(link);

    // The technician watches the coin acceptor's tab; the payment must not take it away.
    auto* tabs = c.widget<QTabWidget>("SSTab1");
    tabs->setCurrentIndex(1);
    QTest::keyClicks(c.widget<QLineEdit>("due"), "1.5");
    click(c, "enablePayment");
    ASSERT_TRUE(c.runUntil([&] { return c.shown("enablePayment") == "Stop Payment..."; }, 60));
    EXPECT_FALSE(tabs->isEnabled());
    EXPECT_EQ(tabs->currentIndex(), 1);

    // A coin of 2 from the simulator's side of the desk.
    QTest::mouseClick(panel.findChild<QPushButton*>("simCoin3"), Qt::LeftButton);
    ASSERT_TRUE(c.runUntil([&] { return c.showed("statusDisplay", "Payment Completed"); }, 120))
        << c.kiosk.stateJson();
    ASSERT_TRUE(c.runUntil([&] { return tabs->isEnabled(); }, 30));
    EXPECT_EQ(tabs->currentIndex(), 1);

    EXPECT_TRUE(c.showed("dueDisplay", "Amount Due: $1.50"));
    EXPECT_TRUE(c.showed("creditDisplay", "$2.00"));
    EXPECT_TRUE(c.showed("statusDisplay", "Insert Coins or Bills..."));
    EXPECT_EQ(c.shown("creditDisplay"), "$0.00");
    EXPECT_EQ(c.shown("enablePayment"), "Pay");
    EXPECT_EQ(c.kiosk.mailbox("ChangeDispensed"), "0.5");
}

}  // namespace
}  // namespace kestrix::console
