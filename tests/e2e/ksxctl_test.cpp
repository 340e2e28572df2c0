#include <gtest/gtest.h>
#include <signal.h>

#include <QLockFile>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "engine/settings/layout.h"
#include "platform_qt/engine_lock.h"
#include "platform_qt/sqlite_store.h"
#include "support/process.h"
#include "support/support.h"

namespace kestrix {
namespace {

using namespace std::chrono_literals;
using Values = std::vector<std::pair<std::string, std::string>>;  // "Section/Key", value

// A store with the test playing the engine's part of the mailbox: it holds the engine's lock, so
// ksxctl takes it for a running engine.
struct Mailbox {
    std::string store = test::makeTempDir("ksx-ctl") + "/KSX.db";
    qt::SqliteStore s{store};
    QLockFile engine{QString::fromStdString(qt::engineLockPath(store))};

    // The mailbox as the engine's load leaves it.
    Mailbox() {
        EXPECT_TRUE(engine.tryLock(0));
        for (const store::MailboxValue& v : store::mailboxReset()) {
            s.set("KSX", "Status", v.key, v.value);
        }
    }
    std::string get(const std::string& key) { return s.get("KSX", "Status", key, ""); }
    void set(const std::string& key, const std::string& value) {
        s.set("KSX", "Status", key, value);
    }
    // "Section/Key"
    std::string at(const std::string& name) {
        const std::size_t slash = name.find('/');
        return s.get("KSX", name.substr(0, slash), name.substr(slash + 1), "<missing>");
    }
    std::vector<std::string> withStore(std::vector<std::string> args) const {
        args.insert(args.begin(), {"--store", store});
        return args;
    }
    std::vector<std::string> everything() {
        std::vector<std::string> all;
        for (const auto& e : s.list("KSX")) {
            all.push_back(e.section + "/" + e.key + "=" + e.value);
        }
        return all;
    }
};

// Each command run once on a mailbox of its own, named by KSX_STORE, after an earlier payment's
// "Payment Completed", with the engine's lock held unless the row says otherwise. A refusal (status
// 2, 3, 6 or 7) writes nothing; a usage or store error is one line.
TEST(Ksxctl, CommandsExitStatusMessageAndWhatTheyWrite) {
    const std::string dir = test::makeTempDir("ksx-ctl");
    const std::string missing = dir + "/config/kestrix/KSX.db";

    struct Row {
        std::vector<std::string> args;
        int status;
        std::string says;  // in its output or error output
        Values after = {};
        Values before = {};
        bool engineRuns = true;  // the engine's lock held
    };
    std::vector<Row> rows = {
        // The engine's sections are checked against its layout unless forced.
        {{"set", "CoinAcceptor", "CAE", "yes"}, 2, "CoinAcceptor/CAE is a flag, 0 or 1"},
        {{"set", "CoinAcceptor", "CAF", "1"}, 2, "its keys are: CAE, ChangeEnabled,"},
        {{"set", "Settings", "COM", "ttyUSB0"}, 2, "port number"},
        {{"set", "BillValidator", "BillType3_Value", "12,5"}, 2, "is a number"},
        {{"set", "Hoppers", "DispenseMode", "fast"}, 2, "serial, zeros8, noencrypt8"},
        {{"set", "Pin Pad", "Library", "simulted"}, 2, "com, simulated"},
        {{"set", "coinacceptor", "cae", "1"}, 0, "", {{"CoinAcceptor/CAE", "1"}}},
        {{"set", "Settings", "COM", ""}, 0, "", {{"Settings/COM", ""}}},
        {{"set", "Hoppers", "h1Address", "3"}, 0, "", {{"Hoppers/h1Address", "3"}}},
        {{"set", "Status", "Anything", "at all"}, 0, "", {{"Status/Anything", "at all"}}},
        {{"set", "Ports", "1", "/dev/ttyUSB0"}, 0, "", {{"Ports/1", "/dev/ttyUSB0"}}},
        {{"set", "--force", "CoinAcceptor", "CAF", "yes"}, 0, "", {{"CoinAcceptor/CAF", "yes"}}},
        // A store that is not there is neither created nor taken for an empty one.
        {{"--store=" + missing, "get", "Status", "Due"}, 3, "store " + missing + " does not"},
        {{"--store", missing, "dump"}, 3, "settings store " + missing + " does not exist"},
        {{"--store", missing, "watch", "Status"}, 3, "settings store " + missing + " does not"},
        {{"--store", dir + "/KSX.db", "journal"}, 3, "no journal"},
        {{"--store", dir, "get", "Status", "Due"}, 3, dir},
        // A request pending or running makes the next one wait (which one: the unit tests).
        {{"pay", "3", "--card"}, 6, "Due", {}, {{"Status/Due", "12.5"}}},
        // No engine (a crashed one's lock: the program's tests): stopped at once, nothing written.
        {{"pay", "5", "--json"}, 7, "\"outcome\":\"no-engine\"", {}, {}, false},
        // An engine that takes nothing: the request is withdrawn at the time-out, and cancelled
        // in case an engine took it at that very moment.
        {{"pay", "5", "--timeout", "0.5"},
         5,
         "no engine took",
         {{"Status/Due", "0"}, {"Status/Cancel", "1"}}},
        {{"pay", "5", "--card", "--timeout=0.5"}, 5, "", {{"Status/DueCC", "0"}}},
        {{"change", "2.5", "--timeout", "0.5"}, 5, "", {{"Status/Change", ""}}},
        {{"cancel"}, 0, "", {{"Status/Cancel", "1"}}},
        {{"cancel", "--keep"}, 0, "", {{"Status/Cancel", "2"}}},
        {{"exit"}, 0, "", {{"Status/Exit", "1"}}},
        // Values and sections as the host gives them; the mailbox's open connection (the
        // engine's) sees a value written by ksxctl at once.
        {{"get", "Status", "Credit"}, 0, "20\n", {}, {{"Status/Credit", "20"}}},
        {{"set", "Pin Pad", "User", "-o'neil \"x\""}, 0, "", {{"Pin Pad/User", "-o'neil \"x\""}}},
        {{"--app", "OTHER", "set", "Status", "Due", "7"}, 0, "", {{"Status/Due", "0"}}},
        {{"dump"}, 0, "Pin Pad/Z=y\nStatus/BDCassette=\n", {}, {{"Pin Pad/Z", "y"}}},
        {{"dump", "Pin Pad"},
         0,
         "Pin Pad/User=x\nPin Pad/Z=y\n",
         {},
         {{"Pin Pad/Z", "y"}, {"Pin Pad/User", "x"}}},
    };
    // Usage errors, command lines between "|"; which amounts pass is the unit tests' business.
    std::istringstream usageErrors(
        "|frobnicate|get Status|set Status Due|dump a b|--store|--app= get Status Due|"
        "--bogus get Status Due|pay|pay -5|pay 5 6|pay 5 --bogus|pay 5 --timeout|"
        "pay 5 --timeout 0|pay 5 --timeout=soon|change|change 0.0|change 5 --card|cancel --now|"
        "exit 1|journal --since yesterday|journal --payment x|totals --payment 1");
    for (std::string line; std::getline(usageErrors, line, '|');) {
        std::istringstream words(line);
        rows.push_back({{std::istream_iterator<std::string>(words), {}}, 2, ""});
    }
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.args));
        Mailbox box;
        box.set("Status", "Payment Completed");
        for (const auto& [name, value] : row.before) {
            box.s.set("KSX", name.substr(0, name.find('/')), name.substr(name.find('/') + 1),
                      value);
        }
        if (!row.engineRuns) {
            box.engine.unlock();
        }
        const std::vector<std::string> before = box.everything();
        const test::RunResult r =
            test::run(test::ksxctlBinary(), row.args, {"KSX_STORE=" + box.store}, 60s);
        EXPECT_EQ(r.status, row.status) << r.out << r.err;
        EXPECT_NE((r.out + r.err).find(row.says), std::string::npos) << r.out << r.err;
        if (row.status == 2 || row.status == 3) {
            EXPECT_EQ(r.err.rfind("ksxctl: ", 0), 0u) << r.err;
            EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        }
        if (row.status == 2 || row.status == 3 || row.status == 6 || row.status == 7) {
            EXPECT_EQ(box.everything(), before);
        }
        for (const auto& [name, value] : row.after) {
            EXPECT_EQ(box.at(name), value) << name;
        }
    }
    EXPECT_FALSE(std::filesystem::exists(dir + "/config"));
}

TEST(Ksxctl, WatchPrintsEachChangeWithATimeStampUntilInterrupted) {
    Mailbox box;
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

TEST(Ksxctl, PayStopsWhenTheEngineDiesWhileARequestWaits) {
    Mailbox box;
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

// The test writes what the engine writes, in its order: pay shows each state once, and an
// interrupt cancels the payment, then waits for the engine to confirm it.
TEST(Ksxctl, PayPrintsEachChangeOnceAndAnInterruptCancelsThePayment) {
    Mailbox box;
    box.set("Status", "Payment Completed");
    box.set("Credit", "25");
    test::ChildProcess pay(test::ksxctlBinary(), box.withStore({"pay", "12.5", "--json"}));
    ASSERT_TRUE(test::eventually([&] { return box.get("Due") == "12.5"; }, 10s));
    EXPECT_EQ(box.get("Status"), "") << "blanked before the request";

    box.set("Credit", "0");
    box.set("Status", "Credit Card Approved");  // the console's line, copied at the start
    box.set("Status", "Insert Coins or Bills...");
    std::this_thread::sleep_for(300ms);
    box.set("Credit", "20");
    std::this_thread::sleep_for(300ms);
    pay.signal(SIGINT);
    ASSERT_TRUE(test::eventually([&] { return box.get("Cancel") == "1"; }, 10s));
    EXPECT_TRUE(pay.running()) << "pay waits for the engine to confirm the cancel";
    box.set("Status", "Dispensing change...");
    box.set("ChangeDispensed", "20");
    box.set("Due", "0");
    box.set("Credit", "0");
    box.set("Status", "Transaction Cancelled");
    box.set("Cancel", "");

    EXPECT_EQ(pay.wait(10s), std::optional<int>(4)) << pay.err();
    // The results on standard output, the progress on standard error.
    EXPECT_EQ(pay.out(),
              "{\"outcome\":\"failed\",\"exitStatus\":4,\"request\":\"Due\",\"amount\":\"12.5\","
              "\"results\":{\"Status\":\"Transaction Cancelled\",\"Credit\":\"0\",\"Due\":\"0\","
              "\"ChangeDispensed\":\"20\",\"Tubes\":\"0\",\"KSX_Error\":\"0\"}}\n");
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

}  // namespace
}  // namespace kestrix
