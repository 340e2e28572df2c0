#include <gtest/gtest.h>

#include <chrono>
#include <iostream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform_qt/sqlite_store.h"
#include "sim/seed.h"
#include "support/process.h"
#include "support/support.h"

namespace kestrix {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The whole kiosk as it runs in the field, with the simulator in place of the devices: the
// engine program, kestrix-sim on its pseudo-terminals, and the host's side through ksxctl.
struct Kiosk {
    std::string dir = test::makeTempDir("ksx-cash");
    std::string simDir = dir + "/sim";
    std::string store = dir + "/KSX.db";
    test::ChildProcess sim{test::kestrixSimBinary(), {"--dir", simDir}};

    Kiosk() {
        EXPECT_TRUE(
            test::eventually([this] { return sim.out().find("ready") != std::string::npos; }, 10s))
            << sim.err();
        qt::SqliteStore s(store);
        sim::seedSimulatedKioskSettings(s, sim::PortNumbers{});
        sim::seedSimulatedPortPaths(s, sim::PortNumbers{}, simDir);
    }
    std::string get(const std::string& key) {
        std::string v =
            test::run(test::ksxctlBinary(), {"--store", store, "get", "Status", key}).out;
        if (!v.empty() && v.back() == '\n') {
            v.pop_back();
        }
        return v;
    }
    void set(const std::string& key, const std::string& value) {
        EXPECT_EQ(
            test::run(test::ksxctlBinary(), {"--store", store, "set", "Status", key, value}).status,
            0);
    }
    test::RunResult ctl(const std::vector<std::string>& command) {
        std::vector<std::string> args{"ctl", simDir};
        args.insert(args.end(), command.begin(), command.end());
        return test::run(test::kestrixSimBinary(), args);
    }
    // Watches the mailbox directly (every few milliseconds, so the times measured are the
    // engine's, not those of starting a ksxctl process).
    bool waitFor(const std::string& key, const std::string& value,
                 std::chrono::milliseconds timeout) {
        qt::SqliteStore s(store);
        const Clock::time_point end = Clock::now() + timeout;
        while (Clock::now() < end) {
            if (s.get("KSX", "Status", key, "") == value) {
                return true;
            }
            std::this_thread::sleep_for(5ms);
        }
        return false;
    }
};

// Counts from the simulator's state dump: "tubes":[39,40,...] and "coinCredits":[1,2,...].
std::vector<int> jsonInts(const std::string& json, const std::string& key) {
    std::vector<int> values;
    const std::regex re("\"" + key + "\":\\[([0-9,]*)\\]");
    std::smatch m;
    if (std::regex_search(json, m, re)) {
        std::stringstream list(m[1].str());
        std::string item;
        while (std::getline(list, item, ',')) {
            values.push_back(std::stoi(item));
        }
    }
    return values;
}

TEST(CashPaymentEndToEnd, TheHostAsksTheCustomerPaysInCoinsAndABillAndGetsTheChange) {
    Kiosk kiosk;
    test::ChildProcess engine(test::kestrixBinary(), {"--headless", "--store", kiosk.store});
    ASSERT_TRUE(kiosk.waitFor("Tubes", "320", 60s)) << engine.err();
    // The tubes are published half-way through the initialisation; the bill validator's part
    // (four exchanges with half-second waits) follows before the monitor runs.
    std::this_thread::sleep_for(3s);

    const Clock::time_point asked = Clock::now();
    kiosk.set("Due", "12.5");
    ASSERT_TRUE(kiosk.waitFor("Status", "Insert Coins or Bills...", 30s)) << engine.err();
    const Clock::time_point ready = Clock::now();

    // 2 + 0.5 in coins, then a bill of 20: 22.5 against 12.5, so 10 of change.
    ASSERT_EQ(kiosk.ctl({"coin", "3"}).status, 0);
    ASSERT_TRUE(kiosk.waitFor("Credit", "2", 30s)) << engine.err();
    ASSERT_EQ(kiosk.ctl({"coin", "1"}).status, 0);
    ASSERT_TRUE(kiosk.waitFor("Credit", "2.5", 30s)) << engine.err();
    ASSERT_EQ(kiosk.ctl({"bill", "1"}).status, 0);
    const Clock::time_point lastInsert = Clock::now();
    ASSERT_TRUE(kiosk.waitFor("Status", "Payment Completed", 60s)) << engine.err();
    const Clock::time_point completed = Clock::now();

    EXPECT_EQ(kiosk.get("Due"), "0");
    EXPECT_EQ(kiosk.get("Credit"), "0");
    EXPECT_EQ(kiosk.get("ChangeDispensed"), "10");
    EXPECT_EQ(kiosk.get("KSX_Error"), "0");

    // The tubes the engine publishes are the simulator's.
    const test::RunResult state = kiosk.ctl({"state"});
    ASSERT_EQ(state.status, 0);
    const std::vector<int> tubes = jsonInts(state.out, "tubes");
    const std::vector<int> credits = jsonInts(state.out, "coinCredits");
    ASSERT_FALSE(tubes.empty()) << state.out;
    double value = 0;
    for (std::size_t i = 0; i < tubes.size() && i < credits.size(); ++i) {
        value += tubes[i] * credits[i] / 2.0;  // the default changer's scaling factor
    }
    std::ostringstream expected;
    expected << value;
    EXPECT_EQ(kiosk.get("Tubes"), expected.str());
    const std::vector<int> paidOut = jsonInts(state.out, "paidOut");
    ASSERT_GE(paidOut.size(), 5U);
    EXPECT_EQ(paidOut[4], 1) << "the change is one coin of 10 (console coin type 5)";

    const auto seconds = [](Clock::duration d) { return std::chrono::duration<double>(d).count(); };
    std::ostringstream timing;
    timing << "start " << seconds(ready - asked) << " s, completion "
           << seconds(completed - lastInsert) << " s, whole payment " << seconds(completed - asked)
           << " s";
    RecordProperty("timing", timing.str());
    std::cout << timing.str() << "\n";

    kiosk.set("Exit", "1");
    const std::optional<int> status = engine.wait(60s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(*status, 0) << engine.err();
}

}  // namespace
}  // namespace kestrix
