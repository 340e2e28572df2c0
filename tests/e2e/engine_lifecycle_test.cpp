#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>

#include "platform_qt/sqlite_store.h"
#include "sim/seed.h"
#include "support/process.h"
#include "support/support.h"

namespace kestrix {
namespace {

using namespace std::chrono_literals;

// kestrix-sim on its ptys and a store configured for it, as an integrator would set them up.
struct SimulatedKiosk {
    std::string dir = test::makeTempDir("ksx-e2e");
    std::string simDir = dir + "/sim";
    std::string store = dir + "/KSX.db";
    test::ChildProcess sim{test::kestrixSimBinary(), {"--dir", simDir}};

    SimulatedKiosk() {
        EXPECT_TRUE(
            test::eventually([this] { return sim.out().find("ready") != std::string::npos; }, 10s))
            << sim.err();
        qt::SqliteStore s(store);
        sim::seedSimulatedKioskSettings(s, sim::PortNumbers{});
        sim::seedSimulatedPortPaths(s, sim::PortNumbers{}, simDir);
        s.set("KSX", "Status", "Due", "9");  // a request left over from before the start
    }
    std::string get(const std::string& key) {
        return test::run(test::ksxctlBinary(), {"--store", store, "get", "Status", key}).out;
    }
};

TEST(KestrixProgram, StartsOnTheSimulatedKioskRefusesASecondCopyAndExitsOnRequest) {
    SimulatedKiosk kiosk;
    test::ChildProcess engine(test::kestrixBinary(), {"--headless", "--store", kiosk.store});

    // The load reset the mailbox and the initialisation published the devices' state.
    ASSERT_TRUE(test::eventually([&] { return kiosk.get("BDStatus") == "OK\n"; }, 30s))
        << engine.err();
    EXPECT_EQ(kiosk.get("Due"), "0\n");
    EXPECT_EQ(kiosk.get("KSX_Error"), "0\n");
    EXPECT_EQ(kiosk.get("BDCassette"), "OK\n");
    EXPECT_EQ(kiosk.get("BDDispensed"), "0\n");
    EXPECT_TRUE(test::eventually([&] { return kiosk.get("Tubes") == "320\n"; }, 30s));
    // The changer's tube slots and counts, exported in the device settings.
    const char* const slots[][3] = {{"1", "0.5", "40"},
                                    {"2", "1", "40"},
                                    {"3", "2", "30"},
                                    {"4", "5", "20"},
                                    {"5", "10", "10"}};
    for (const auto& slot : slots) {
        const auto setting = [&](const std::string& key) {
            return test::run(test::ksxctlBinary(),
                             {"--store", kiosk.store, "get", "CoinAcceptor", key + slot[0]})
                .out;
        };
        EXPECT_EQ(setting("tubeCoinType"), std::string(slot[1]) + "\n") << slot[0];
        EXPECT_EQ(setting("tubeCoinQty"), std::string(slot[2]) + "\n") << slot[0];
    }

    const test::RunResult second =
        test::run(test::kestrixBinary(), {"--headless", "--store", kiosk.store}, {}, 20s);
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.err.find("Another version of this program is already running"),
              std::string::npos)
        << second.err;
    EXPECT_TRUE(engine.running()) << "the first engine must be left alone";

    EXPECT_EQ(
        test::run(test::ksxctlBinary(), {"--store", kiosk.store, "set", "Status", "Exit", "1"})
            .status,
        0);
    const std::optional<int> status = engine.wait(60s);
    ASSERT_TRUE(status.has_value()) << "the engine did not end on Exit";
    EXPECT_EQ(*status, 0) << engine.err();
    EXPECT_EQ(kiosk.get("Exit"), "1\n") << "Exit is left for the next start to clear";
    EXPECT_EQ(
        test::run(test::ksxctlBinary(), {"--store", kiosk.store, "get", "Pin Pad", "On Line"}).out,
        "No\n");
}

TEST(KestrixProgram, TerminationSignalRunsExit) {
    SimulatedKiosk kiosk;
    test::ChildProcess engine(test::kestrixBinary(), {"--headless", "--store", kiosk.store});
    ASSERT_TRUE(test::eventually([&] { return kiosk.get("BDStatus") == "OK\n"; }, 30s));
    engine.signal(SIGTERM);
    const std::optional<int> status = engine.wait(60s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(*status, 0);
    EXPECT_EQ(
        test::run(test::ksxctlBinary(), {"--store", kiosk.store, "get", "Pin Pad", "On Line"}).out,
        "No\n");
}

TEST(KestrixProgram, VersionAndHelp) {
    const test::RunResult version = test::run(test::kestrixBinary(), {"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "kestrix 5.0.0\n");
    const test::RunResult help = test::run(test::kestrixBinary(), {"--help"});
    EXPECT_NE(help.out.find("--headless"), std::string::npos);
    EXPECT_EQ(test::run(test::kestrixBinary(), {"--bogus"}).status, 2);
}

}  // namespace
}  // namespace kestrix
