#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/settings/layout.h"
#include "support/kiosk.h"

namespace kestrix {
namespace {

// Kiosk(false): an empty store, so every device disabled; enough for the load, Save and the
// monitor's request handling.
using test::Kiosk;

// The log's errors and warnings (an engine start also logs notices of its own).
std::vector<std::string> complaintsIn(const sim::RecordingLog& log) {
    std::vector<std::string> out;
    for (const std::string& line : log.lines()) {
        if (line.rfind("<3>", 0) == 0 || line.rfind("<4>", 0) == 0) {
            out.push_back(line);
        }
    }
    return out;
}

// A kiosk's configuration with every device switched off, each other value unlike its default.
std::string configured(const store::DeviceSetting& s) {
    const bool typeFlag = s.key.find("Type") != std::string::npos;
    return s.kind == store::SettingKind::Text   ? "kiosk7"
           : s.kind == store::SettingKind::Flag ? (typeFlag ? "1" : "0")
                                                : "4";
}
void configure(Kiosk& e) {
    for (const store::DeviceSetting& s : store::deviceSettings()) {
        e.set(s.section, s.key, configured(s));
    }
}

TEST(Load, AnUnreadableValueAloneTakesItsDefaultAndTheTechnicianIsTold) {
    struct Row {
        const char* section;
        const char* key;
        const char* value;  // nullptr: the key is missing
        const char* told;
    };
    const std::vector<Row> rows = {
        {"CoinAcceptor", "CAE", "yes", "CoinAcceptor/CAE held \"yes\""},
        {"CoinAcceptor", "CoinType3_Enabled", nullptr,
         "CoinAcceptor/CoinType3_Enabled was missing"},
        {"Settings", "COM", "ttyUSB0", "Settings/COM held \"ttyUSB0\""},
        {"BillValidator", "BillType3_Value", "twelve", "BillValidator/BillType3_Value held"},
        {"Hoppers", "HE", "7", "Hoppers/HE held \"7\""},
    };
    for (const Row& row : rows) {
        Kiosk e(false);
        configure(e);
        row.value != nullptr ? e.set(row.section, row.key, row.value)
                             : e.store().erase(store::kApp, row.section, row.key);
        ASSERT_TRUE(e.engine().startUp());

        const store::DeviceSetting& bad = store::setting(row.key);
        for (const store::DeviceSetting& s : store::deviceSettings()) {
            EXPECT_EQ(e.setting(s.section, s.key), &s == &bad ? s.defaultValue : configured(s))
                << row.key << ": " << s.key;
        }
        ASSERT_EQ(e.messageBox().shown().size(), 1u) << row.key;
        EXPECT_NE(e.messageBox().shown()[0].text.find(row.told), std::string::npos)
            << e.messageBox().shown()[0].text;
        const std::vector<std::string> complaints = complaintsIn(e.log());
        ASSERT_EQ(complaints.size(), 1u) << row.key;
        EXPECT_EQ(complaints[0].rfind("<3>settings: " + std::string(row.told), 0), 0u)
            << complaints[0];
        EXPECT_EQ(e.console().text("ccUser"), "kiosk7") << "the pin pad account is kept";
    }
}

TEST(Load, APortNotSetYetReadsAsNoneWithoutComplaint) {
    Kiosk e(false);
    configure(e);
    e.store().erase(store::kApp, "Settings", "COM1");
    e.set("Settings", "COM2", "");
    ASSERT_TRUE(e.engine().startUp());
    EXPECT_EQ(e.console().text("comPorts"), "4");
    EXPECT_EQ(e.console().text("comPorts1"), "0");
    EXPECT_EQ(e.console().text("comPorts2"), "0");
    EXPECT_EQ(e.console().text("bDispType"), "4") << "the rest is kept";
    EXPECT_TRUE(e.messageBox().shown().empty());
    EXPECT_TRUE(complaintsIn(e.log()).empty());
}

// (What Save writes is the console's test; here: the devices are left as they run.)
TEST(Save, WritesTheEditedSettingsWithoutReinitialising) {
    Kiosk e;
    ASSERT_TRUE(e.start());
    e.engine().operatorEdit("bt9_value", "500", 0);
    const int opens = e.mdbPort().opens() + e.dispenserPort().opens() + e.hoppersPort().opens();
    e.engine().operatorClick("Save");
    EXPECT_EQ(e.setting("BillValidator", "BillType9_Value"), "500");
    EXPECT_EQ(e.mdbPort().opens() + e.dispenserPort().opens() + e.hoppersPort().opens(), opens);
}

TEST(Handlers, BeforeTheLoadDeviceBoxesSwitchTheirButtonsButReinitialiseNothing) {
    Kiosk e(false);
    e.engine().operatorEdit("billDispenserEnabled", "", 1);
    EXPECT_TRUE(e.console().enabled("bdDispenseBills"));
    e.engine().operatorEdit("hoppersEnabled", "", 1);
    EXPECT_TRUE(e.console().enabled("hDispenseCoins"));
    EXPECT_EQ(e.setting("Status", "KSX_Error"), "<missing>");
}

TEST(Monitor, PublishesItsHeartbeatEveryFewSeconds) {
    Kiosk e(false);
    ASSERT_TRUE(e.engine().startUp());
    const std::string first = e.mailbox("Engine");
    EXPECT_EQ(first, "2026-11-22 09:00:00") << "written at the load already";
    e.scheduler().runFor(Setup::kHeartbeatSeconds - 1);
    EXPECT_EQ(e.mailbox("Engine"), first) << "not rewritten at every tick";
    e.scheduler().runFor(1.5);
    EXPECT_EQ(e.mailbox("Engine"), "2026-11-22 09:00:05");
    e.set("Status", "Exit", "1");
    e.scheduler().runFor(Setup::kHeartbeatSeconds + 1);
    EXPECT_EQ(e.mailbox("Engine"), "2026-11-22 09:00:05") << "an ended engine's heartbeat stops";
}

TEST(Monitor, ACancelWithNothingRunningIsDiscarded) {
    for (const char* cancel : {"1", "2", "0", "anything"}) {
        Kiosk e(false);
        ASSERT_TRUE(e.engine().startUp());
        e.set("Status", "Cancel", cancel);
        e.scheduler().runFor(0.6);
        EXPECT_EQ(e.mailbox("Cancel"), "") << cancel;
        EXPECT_EQ(e.engine().state().cancelKeepsCredit, 0);
    }
}

TEST(Monitor, HidesTheConsoleOnlyForAnExactTrailingHideSwitch) {
    struct Row {
        const char* commandLine;
        bool hidden;
    };
    for (const Row& r : {Row{"/hide", true}, Row{"--store x /hide", true}, Row{"/HIDE", false},
                         Row{"/hide ", false}, Row{"", false}}) {
        Kiosk e(false);
        e.instance().setCommandLine(r.commandLine);
        ASSERT_TRUE(e.engine().startUp());
        e.scheduler().runFor(0.4);
        EXPECT_TRUE(e.console().field("Setup").visible) << "hidden before the first tick";
        e.scheduler().runFor(0.2);
        EXPECT_EQ(!e.console().field("Setup").visible, r.hidden) << r.commandLine;
    }
}

TEST(Monitor, AHostPayoutRunsWithChangeForcedOnAndPutsTheBoxBack) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    k.engine().operatorEdit("changeEnabled", "", 0);
    const test::Till before = k.till();
    k.hostWrite(store::mailbox::kChange, "5");
    ASSERT_TRUE(k.runUntil([&] { return k.mailbox(store::mailbox::kChange).empty(); }, 120));
    EXPECT_EQ(k.mailbox(store::mailbox::kStatus), "Change dispensed");
    EXPECT_EQ(k.console().text("statusDisplay"), "");
    EXPECT_FALSE(k.console().checked("changeEnabled")) << "the operator's choice is restored";
    EXPECT_EQ(k.mailbox(store::mailbox::kChangeDispensed), "5");
    EXPECT_NEAR(k.paidOut(before, k.till()), 5, 1e-9);
}

}  // namespace
}  // namespace kestrix
