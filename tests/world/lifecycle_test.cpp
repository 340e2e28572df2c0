#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/bounds.h"
#include "engine/journal/recovery.h"
#include "engine/settings/layout.h"
#include "support/kiosk.h"

namespace kestrix {
namespace {

// Kiosk(false): an empty store, so every device disabled; enough for the load, Save and the
// monitor's request handling.
using test::Kiosk;
namespace jk = journal_kind;
namespace mb = store::mailbox;

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
    k.hostWrite(mb::kChange, "5");
    ASSERT_TRUE(k.runUntil([&] { return k.mailbox(mb::kChange).empty(); }, 120));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Change dispensed");
    EXPECT_EQ(k.console().text("statusDisplay"), "");
    EXPECT_FALSE(k.console().checked("changeEnabled")) << "the operator's choice is restored";
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "5");
    EXPECT_NEAR(k.paidOut(before, k.till()), 5, 1e-9);
}

// A termination request while the changer falls silent paying change from its tubes: the engine
// still ends within its bound (the process's watchdog would otherwise end it mid-payout).
TEST(Termination, EndsWithinItsBoundWhenTheChangerFallsSilentMidPayout) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    double t0 = 0;
    k.mdbTap().onWrite = [&](std::string_view) {
        if (t0 == 0 && k.mailbox(mb::kStatus) == "Dispensing change...") {
            t0 = k.now() + 1;  // a coin or two into the payout
            k.mdbTap().at(t0, [&] {
                k.control("fault changer silent on");
                k.engine().requestTermination();
            });
        }
    };
    k.hostWrite(mb::kChange, "45");
    ASSERT_TRUE(k.runUntil([&] { return k.engine().ended(); }, 60));
    EXPECT_GT(t0, 0);
    // The exchanges under way at the deadline end within a second.
    EXPECT_LT(k.now() - t0, bounds::kTerminationSeconds + 1);
}

// --- A restart after a crash: the journal the last run left is closed, the host reads the
// outcome and acknowledges it, and the request is not served again.

JournalEntry row(std::string_view kind, std::int64_t payment, std::string device = {},
                 std::int64_t minor = 0, std::string detail = {}, std::string requester = {}) {
    JournalEntry e;
    e.kind = kind;
    e.paymentId = payment;
    e.device = std::move(device);
    e.amount = Money::fromMinor(minor);
    e.detail = std::move(detail);
    e.requester = std::move(requester);
    return e;
}

TEST(Restart, ReportsEachInterruptedPaymentUntilTheHostAcknowledgesIt) {
    sim::VirtualKiosk k;
    k.configureAllDevices();
    sim::MemoryJournal& j = k.journal();
    // The last run: a host's change of 200 paid in full, then killed; before it, a cash
    // payment of 12.50 killed while it paid 7.50 of change from the tubes.
    for (const JournalEntry& e :
         {row(jk::kEngineStart, 0, "engine"), row(jk::kPaymentStart, 1, "", 1250, "cash", "host"),
          row(jk::kCredit, 1, "validator", 2000), row(jk::kPayoutAsked, 1, "tubes", 750),
          row(jk::kPaymentStart, 2, "", 20000, "change", "host"),
          row(jk::kPayoutAsked, 2, "dispenser", 20000),
          row(jk::kPayoutConfirmed, 2, "dispenser", 20000)}) {
        j.append(e);
    }
    const std::size_t before = j.rows().size();
    k.hostWrite(mb::kChange, "200");  // the request the host had written
    ASSERT_TRUE(k.start());

    std::vector<std::string> appended;
    for (std::size_t i = before; i < j.rows().size(); ++i) {
        appended.emplace_back(j.rows()[i].kind);
    }
    EXPECT_EQ(appended,
              (std::vector<std::string>{"engine start", "payout unknown", "payment interrupted",
                                        "restart report", "payment interrupted", "restart report",
                                        "tube levels"}));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Interrupted");
    EXPECT_EQ(k.mailbox(mb::kChange), "") << "the request is not served again";
    const auto report = [&k] {
        return k.mailbox(mb::kInterrupted) + " " + k.mailbox(mb::kInterruptedRequest) + " " +
               k.mailbox(mb::kInterruptedAmount) + " " + k.mailbox(mb::kInterruptedOutcome) +
               " credit " + k.mailbox(mb::kInterruptedCredit) + " paid " +
               k.mailbox(mb::kInterruptedPaid) + " unknown " + k.mailbox(mb::kInterruptedUnknown);
    };
    EXPECT_EQ(report(), "1 Due 12.5 unknown credit 20 paid 0 unknown 7.5");
    EXPECT_EQ(k.mailbox(mb::kCredit), "20");

    k.runFor(5);
    EXPECT_EQ(k.mailbox(mb::kInterrupted), "1") << "published until acknowledged";
    k.hostWrite(mb::kInterrupted, "");
    k.runFor(1);
    EXPECT_EQ(report(), "2 Change 200 paid credit 0 paid 200 unknown 0");
    k.hostWrite(mb::kInterrupted, "");
    k.runFor(1);
    EXPECT_EQ(report(), "    credit  paid  unknown ") << "every report key cleared";
    EXPECT_EQ(j.rows().back().kind, jk::kReportAcknowledged);

    const auto& log = k.log().lines();
    EXPECT_EQ(std::count_if(log.begin(), log.end(),
                            [](const std::string& l) {
                                return l.rfind("<4>payment ", 0) == 0 &&
                                       l.find(" interrupted by the engine's end") !=
                                           std::string::npos;
                            }),
              2);
}

}  // namespace
}  // namespace kestrix
