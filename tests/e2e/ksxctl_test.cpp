#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform_qt/sqlite_store.h"
#include "support/process.h"
#include "support/support.h"

namespace kestrix {
namespace {

using namespace std::chrono_literals;

test::RunResult ksxctl(const std::vector<std::string>& args,
                       const std::vector<std::string>& env = {}) {
    return test::run(test::ksxctlBinary(), args, env, 60s);
}

// A store with no engine, or with the test playing the engine's part of the mailbox.
struct Mailbox {
    std::string store = test::makeTempDir("ksx-ctl") + "/KSX.db";
    qt::SqliteStore s{store};

    // `reset`: the mailbox as the engine's load leaves it; otherwise the store stays empty.
    explicit Mailbox(bool reset = true) {
        if (!reset) {
            return;
        }
        for (const char* key : {"Due", "DueCC", "Credit", "Tubes", "KSX_Error"}) {
            set(key, "0");
        }
        for (const char* key : {"Change", "Cancel", "Exit", "Status", "ChangeDispensed"}) {
            set(key, "");
        }
    }
    std::string get(const std::string& key) { return s.get("KSX", "Status", key, ""); }
    void set(const std::string& key, const std::string& value) {
        s.set("KSX", "Status", key, value);
    }
    std::vector<std::string> withStore(std::vector<std::string> args) const {
        args.insert(args.begin(), {"--store", store});
        return args;
    }
    test::RunResult ksxctl(const std::vector<std::string>& args) {
        return kestrix::ksxctl(withStore(args));
    }
};

TEST(Ksxctl, AValueSetByOneProcessIsReadAtOnceByAnotherAndByTheEngine) {
    Mailbox box(false);  // its store open all along, as the engine's store is
    const std::string& path = box.store;

    EXPECT_EQ(box.ksxctl({"set", "Status", "Due", "12.5"}).status, 0);
    EXPECT_EQ(box.ksxctl({"get", "Status", "Due"}).out, "12.5\n");
    EXPECT_EQ(box.get("Due"), "12.5");

    box.set("Credit", "20");
    EXPECT_EQ(ksxctl({"get", "Status", "Credit"}, {"KSX_STORE=" + path}).out, "20\n")
        << "KSX_STORE is honoured";

    // Values that start with "-", carry quotes or spaces, and sections with spaces.
    EXPECT_EQ(ksxctl({"--store=" + path, "set", "Pin Pad", "User", "-o'neil \"x\""}).status, 0);
    EXPECT_EQ(box.s.get("KSX", "Pin Pad", "User"), "-o'neil \"x\"");

    EXPECT_EQ(box.ksxctl({"--app", "OTHER", "get", "Status", "Due"}).out, "\n");
    EXPECT_EQ(box.ksxctl({"dump"}).out,
              "Pin Pad/User=-o'neil \"x\"\nStatus/Credit=20\nStatus/Due=12.5\n");
    EXPECT_EQ(box.ksxctl({"dump", "Status"}).out, "Status/Credit=20\nStatus/Due=12.5\n");
}

TEST(Ksxctl, WatchPrintsEachChangeWithATimeStampUntilInterrupted) {
    Mailbox box(false);
    box.set("Due", "0");
    test::ChildProcess watch(test::ksxctlBinary(), box.withStore({"watch", "Status"}));
    const auto printed = [&](const std::string& text) {
        return test::eventually([&] { return watch.out().find(text) != std::string::npos; }, 10s);
    };
    ASSERT_TRUE(printed("watching"));
    box.set("Due", "42");
    box.s.set("KSX", "Settings", "COM", "3");  // another section: not shown
    ASSERT_TRUE(printed("Status/Due=42\n")) << watch.out();
    watch.signal(SIGINT);
    EXPECT_EQ(watch.wait(10s), std::optional<int>(0));
    const std::string out = watch.out();
    EXPECT_EQ(out.find("COM"), std::string::npos);
    // "2026-11-22 09:30:15.123 Status/Due=42"
    const std::size_t line = out.find("Status/Due=42");
    ASSERT_GE(line, 24u);
    EXPECT_EQ(out[line - 1], ' ');
    EXPECT_EQ(out[line - 5], '.');
}

TEST(Ksxctl, BadArgumentsAreUsageErrorsOfOneLineAndWriteNothing) {
    Mailbox box;
    box.set("Status", "Payment Completed");
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"frobnicate"},
        {"get", "Status"},
        {"set", "Status", "Due"},
        {"dump", "a", "b"},
        {"--store"},
        {"--app=", "get", "Status", "Due"},
        {"--bogus", "get", "Status", "Due"},
        {"pay"},
        {"pay", "-5"},  // which amounts pass is the unit tests' business
        {"pay", "5", "6"},
        {"pay", "5", "--bogus"},
        {"pay", "5", "--timeout"},
        {"pay", "5", "--timeout", "0"},
        {"pay", "5", "--timeout=soon"},
        {"change"},
        {"change", "0.0"},
        {"change", "5", "--card"},
        {"cancel", "--now"},
        {"exit", "1"},
    };
    for (const auto& args : bad) {
        const test::RunResult r = ksxctl(args, {"KSX_STORE=" + box.store});
        EXPECT_EQ(r.status, 2) << testing::PrintToString(args) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_EQ(r.err.rfind("ksxctl: ", 0), 0u) << r.err;
    }
    EXPECT_EQ(box.get("Due"), "0");
    EXPECT_EQ(box.get("Change"), "");
    EXPECT_EQ(box.get("Cancel"), "");
    EXPECT_EQ(box.get("Status"), "Payment Completed") << "a refused command blanks nothing";

    const std::string dir = test::makeTempDir("ksx-ctl");
    for (const std::string& unusable : {std::string("/dev/null/KSX.db"), dir}) {
        const test::RunResult r = ksxctl({"--store", unusable, "get", "Status", "Due"});
        EXPECT_EQ(r.status, 3) << unusable;
        EXPECT_NE(r.err.find(unusable), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
    const test::RunResult help = ksxctl({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* word : {"get", "set", "dump", "watch", "pay", "--store", "KSX_STORE"}) {
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
    }
}

TEST(Ksxctl, ARequestPendingOrRunningMakesTheNextOneWait) {
    Mailbox box;
    struct Row {
        const char* pendingKey;
        const char* pendingValue;
        std::vector<std::string> command;
    };
    const std::vector<Row> rows = {
        {"Due", "12.5", {"pay", "3", "--card"}},
        {"DueCC", "25", {"change", "2"}},
        {"Change", "7.5", {"pay", "1"}},
    };
    for (const Row& row : rows) {
        box.set(row.pendingKey, row.pendingValue);
        box.set("Status", "Insert Coins or Bills...");
        const test::RunResult r = box.ksxctl(row.command);
        EXPECT_EQ(r.status, 6) << row.pendingKey << ' ' << r.err;
        EXPECT_NE(r.err.find(row.pendingKey), std::string::npos) << r.err;
        EXPECT_EQ(box.get(row.pendingKey), row.pendingValue) << "the running request is untouched";
        EXPECT_EQ(box.get("Status"), "Insert Coins or Bills...");
        box.set(row.pendingKey, std::string(row.pendingKey) == "Change" ? "" : "0");
    }
}

TEST(Ksxctl, WithNoEngineTheRequestIsWithdrawnAtTheTimeOut) {
    Mailbox box;
    box.set("Status", "Payment Completed");  // an earlier payment's, not this one's
    const test::RunResult cash = box.ksxctl({"pay", "5", "--timeout", "0.5"});
    EXPECT_EQ(cash.status, 5) << cash.out << cash.err;
    EXPECT_NE(cash.err.find("no engine took the request"), std::string::npos) << cash.err;
    EXPECT_NE(cash.out.find("Status=\n"), std::string::npos) << cash.out;
    EXPECT_EQ(box.get("Due"), "0");
    EXPECT_EQ(box.get("Cancel"), "1") << "in case an engine took it at that very moment";

    box.set("Cancel", "");
    const test::RunResult card = box.ksxctl({"pay", "5", "--card", "--timeout=0.5"});
    EXPECT_EQ(card.status, 5) << card.out << card.err;
    EXPECT_EQ(box.get("DueCC"), "0") << "withdrawn once no engine answered the cancel either";

    const test::RunResult change = box.ksxctl({"change", "2.5", "--timeout", "0.5"});
    EXPECT_EQ(change.status, 5) << change.err;
    EXPECT_EQ(box.get("Change"), "");
}

TEST(Ksxctl, OnATerminalTheProgressLineIsRewrittenInPlace) {
    Mailbox box;
    // script(1) gives pay a terminal for its standard output.
    const test::RunResult r =
        test::run("/usr/bin/script",
                  {"-qec", test::ksxctlBinary() + " --store " + box.store + " pay 5 --timeout 0.2",
                   "/dev/null"},
                  {}, 30s);
    EXPECT_EQ(r.status, 5) << r.out << r.err;
    EXPECT_NE(r.out.find("\rwaiting for the engine... | credit 0 | due 5\x1b[K"), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("Status="), std::string::npos)
        << "the results start on a line of their own";
}

TEST(Ksxctl, CancelAndExitWriteTheirRequests) {
    Mailbox box;
    EXPECT_EQ(box.ksxctl({"cancel"}).status, 0);
    EXPECT_EQ(box.get("Cancel"), "1");
    EXPECT_EQ(box.ksxctl({"cancel", "--keep"}).status, 0);
    EXPECT_EQ(box.get("Cancel"), "2");
    EXPECT_EQ(box.ksxctl({"exit"}).status, 0);
    EXPECT_EQ(box.get("Exit"), "1");
}

// The test writes what the engine writes, in its order, and pay follows it.
TEST(Ksxctl, PayPrintsEachChangeOnceAndTheResults) {
    Mailbox box;
    box.set("Status", "Payment Completed");
    box.set("Credit", "25");
    test::ChildProcess pay(test::ksxctlBinary(), box.withStore({"pay", "12.5"}));
    ASSERT_TRUE(test::eventually([&] { return box.get("Due") == "12.5"; }, 10s));
    EXPECT_EQ(box.get("Status"), "") << "blanked before the request";

    box.set("Credit", "0");
    box.set("Status", "Credit Card Approved");  // the console's line, copied at the start
    box.set("Status", "Insert Coins or Bills...");
    std::this_thread::sleep_for(300ms);
    box.set("Credit", "20");
    std::this_thread::sleep_for(300ms);
    box.set("Status", "Dispensing change...");
    box.set("ChangeDispensed", "7.5");
    box.set("Due", "0");
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(pay.running()) << "\"Due\" = \"0\" alone is not the end";
    box.set("Credit", "0");
    box.set("Status", "Payment Completed");

    EXPECT_EQ(pay.wait(10s), std::optional<int>(0)) << pay.err();
    const std::string out = pay.out();
    EXPECT_NE(out.find("Insert Coins or Bills... | credit 0 | due 12.5\n"), std::string::npos)
        << out;
    const std::string results =
        "Status=Payment Completed\nCredit=0\nDue=0\nChangeDispensed=7.5\nTubes=0\nKSX_Error=0\n";
    ASSERT_GE(out.size(), results.size());
    EXPECT_EQ(out.substr(out.size() - results.size()), results);
    // Lines are printed on change only: 100 ms reads over 300 ms waits print each state once.
    const std::string coinIn = "Insert Coins or Bills... | credit 20 | due 12.5\n";
    EXPECT_NE(out.find(coinIn), std::string::npos) << out;
    EXPECT_EQ(out.find(coinIn), out.rfind(coinIn)) << out;
}

TEST(Ksxctl, InterruptCancelsTheRunningPayment) {
    Mailbox box;
    test::ChildProcess pay(test::ksxctlBinary(), box.withStore({"pay", "40"}));
    ASSERT_TRUE(test::eventually([&] { return box.get("Due") == "40"; }, 10s));
    box.set("Status", "Insert Coins or Bills...");
    box.set("Credit", "10");
    std::this_thread::sleep_for(300ms);
    pay.signal(SIGINT);
    ASSERT_TRUE(test::eventually([&] { return box.get("Cancel") == "1"; }, 10s));
    EXPECT_TRUE(pay.running()) << "pay waits for the engine to confirm the cancel";
    box.set("Due", "0");
    box.set("Credit", "0");
    box.set("Status", "Transaction Cancelled");
    box.set("Cancel", "");
    EXPECT_EQ(pay.wait(10s), std::optional<int>(4)) << pay.err();
    EXPECT_NE(pay.out().find("Status=Transaction Cancelled\n"), std::string::npos);
}

}  // namespace
}  // namespace kestrix
