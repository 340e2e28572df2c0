#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QLockFile>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform_qt/engine_lock.h"
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

// A store with the test playing the engine's part of the mailbox: it holds the engine's lock, so
// ksxctl takes it for a running engine.
struct Mailbox {
    std::string store = test::makeTempDir("ksx-ctl") + "/KSX.db";
    qt::SqliteStore s{store};
    QLockFile engine{QString::fromStdString(qt::engineLockPath(store))};

    // `reset`: the mailbox as the engine's load leaves it; otherwise the store stays empty.
    explicit Mailbox(bool reset = true) {
        EXPECT_TRUE(engine.tryLock(0));
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

TEST(Ksxctl, SetChecksTheEnginesSectionsAgainstItsLayoutUnlessForced) {
    Mailbox box(false);
    struct Row {
        std::vector<std::string> args;
        int status;
        std::string said;  // in the one-line message of a refusal
    };
    const std::vector<Row> rows = {
        {{"set", "CoinAcceptor", "CAE", "yes"}, 2, "CoinAcceptor/CAE is a flag, 0 or 1"},
        {{"set", "CoinAcceptor", "CAF", "1"}, 2, "its keys are: CAE, ChangeEnabled,"},
        {{"set", "Settings", "COM", "ttyUSB0"}, 2, "port number"},
        {{"set", "BillValidator", "BillType3_Value", "12,5"}, 2, "is a number"},
        {{"set", "Hoppers", "DispenseMode", "fast"}, 2, "serial, zeros8, noencrypt8"},
        {{"set", "Pin Pad", "Library", "simulted"}, 2, "com, simulated"},
        {{"set", "coinacceptor", "cae", "1"}, 0, ""},
        {{"set", "Settings", "COM", ""}, 0, ""},
        {{"set", "Hoppers", "h1Address", "3"}, 0, ""},
        {{"set", "Status", "Anything", "at all"}, 0, ""},
        {{"set", "Ports", "1", "/dev/ttyUSB0"}, 0, ""},
        {{"set", "--force", "CoinAcceptor", "CAF", "yes"}, 0, ""},
    };
    for (const Row& row : rows) {
        const test::RunResult r = box.ksxctl(row.args);
        EXPECT_EQ(r.status, row.status) << testing::PrintToString(row.args) << r.err;
        if (row.status != 0) {
            EXPECT_NE(r.err.find(row.said), std::string::npos) << r.err;
            EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
            EXPECT_EQ(box.s.get("KSX", row.args[1], row.args[2], "<missing>"), "<missing>");
        }
    }
    EXPECT_EQ(box.s.get("KSX", "CoinAcceptor", "CAF"), "yes");
}

TEST(Ksxctl, LookingAtAStoreThatIsNotThereNeitherCreatesItNorSucceeds) {
    const std::string dir = test::makeTempDir("ksx-ctl");
    const std::string store = dir + "/config/kestrix/KSX.db";
    for (const std::vector<std::string>& look :
         {std::vector<std::string>{"get", "Status", "Due"}, {"dump"}, {"watch", "Status"}}) {
        std::vector<std::string> args = {"--store", store};
        args.insert(args.end(), look.begin(), look.end());
        const test::RunResult r = ksxctl(args);
        EXPECT_EQ(r.status, 3) << look[0];
        EXPECT_EQ(r.err, "ksxctl: settings store " + store + " does not exist\n");
        EXPECT_FALSE(std::filesystem::exists(dir + "/config")) << look[0];
    }
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
        {"set", "Status", "Due"},
        {"set", "CoinAcceptor", "CAE", "yes"},
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
    EXPECT_EQ(ksxctl({"--version"}).out, "ksxctl 5.0.0\n");
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

TEST(Ksxctl, WithAnEngineThatTakesNothingTheRequestIsWithdrawnAtTheTimeOut) {
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

// A process that has ended: its id, as a crashed engine's lock file still names it.
long endedProcess() {
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    return child;
}

TEST(Ksxctl, PayStopsAtOnceWhenNoEngineRunsOrTheEngineDies) {
    Mailbox box;
    box.engine.unlock();
    const std::string lockPath = qt::engineLockPath(box.store);
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    const std::vector<std::string> lockFiles = {
        "",                                                            // none at all
        std::to_string(endedProcess()) + "\nkestrix\n" + host + "\n",  // a crashed engine's
    };
    for (const std::string& lock : lockFiles) {
        if (!lock.empty()) {
            std::ofstream(lockPath) << lock;
        }
        const auto start = std::chrono::steady_clock::now();
        const test::RunResult r = box.ksxctl({"pay", "5", "--json"});
        EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
        EXPECT_EQ(r.status, 7) << r.err;
        EXPECT_NE(r.err.find("no engine runs on the store " + box.store), std::string::npos)
            << r.err;
        EXPECT_NE(r.out.find("\"outcome\":\"no-engine\""), std::string::npos) << r.out;
        EXPECT_EQ(box.get("Due"), "0") << "nothing is written";
    }

    // An engine that dies while a request waits.
    std::filesystem::remove(lockPath);
    ASSERT_TRUE(box.engine.tryLock(0));
    test::ChildProcess pay(test::ksxctlBinary(), box.withStore({"pay", "12.5"}));
    ASSERT_TRUE(test::eventually([&] { return box.get("Due") == "12.5"; }, 10s));
    box.engine.unlock();
    EXPECT_EQ(pay.wait(5s), std::optional<int>(7)) << pay.err();
    EXPECT_NE(pay.err().find("the engine serving the store has stopped"), std::string::npos);
    EXPECT_EQ(box.get("Due"), "0") << "a request no engine took is withdrawn";
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
    // The results on standard output, the progress on standard error.
    EXPECT_EQ(pay.out(),
              "Status=Payment Completed\nCredit=0\nDue=0\nChangeDispensed=7.5\nTubes=0\n"
              "KSX_Error=0\n");
    const std::string progress = pay.err();
    EXPECT_EQ(progress.rfind("waiting for the engine... | credit 0 | due 12.5\n", 0), 0u)
        << "the previous payment's credit is not this one's:\n"
        << progress;
    EXPECT_NE(progress.find("Insert Coins or Bills... | credit 0 | due 12.5\n"), std::string::npos)
        << progress;
    // Lines are printed on change only: 100 ms reads over 300 ms waits print each state once.
    const std::string coinIn = "Insert Coins or Bills... | credit 20 | due 12.5\n";
    EXPECT_NE(progress.find(coinIn), std::string::npos) << progress;
    EXPECT_EQ(progress.find(coinIn), progress.rfind(coinIn)) << progress;
}

TEST(Ksxctl, InterruptCancelsTheRunningPayment) {
    Mailbox box;
    test::ChildProcess pay(test::ksxctlBinary(), box.withStore({"pay", "40", "--json"}));
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
    EXPECT_EQ(pay.out(),
              "{\"outcome\":\"failed\",\"exitStatus\":4,\"request\":\"Due\",\"amount\":\"40\","
              "\"results\":{\"Status\":\"Transaction Cancelled\",\"Credit\":\"0\",\"Due\":\"0\","
              "\"ChangeDispensed\":\"\",\"Tubes\":\"0\",\"KSX_Error\":\"0\"}}\n");
}

}  // namespace
}  // namespace kestrix
