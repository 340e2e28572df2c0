#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "simulated_kiosk.h"

namespace kestrix {
namespace {

using namespace std::chrono_literals;
using test::SimulatedKiosk;

TEST(KestrixProgram, StartsOnTheSimulatedKioskRefusesASecondCopyAndExitsOnRequest) {
    SimulatedKiosk kiosk(SimulatedKiosk::Devices::OnPtys);
    kiosk.set("Status", "Due", "9");  // a request left over from before the start
    ASSERT_TRUE(kiosk.start());

    // The load reset the mailbox and the initialisation published the devices' state.
    EXPECT_EQ(kiosk.get("Status", "Due"), "0");
    EXPECT_EQ(kiosk.get("Status", "KSX_Error"), "0");
    EXPECT_EQ(kiosk.get("Status", "BDCassette"), "OK");
    EXPECT_EQ(kiosk.get("Status", "BDDispensed"), "0");
    EXPECT_TRUE(test::eventually([&] { return kiosk.get("Status", "Tubes") == "320"; }, 30s));
    // The changer's tube slots (coin value, count), exported in the device settings.
    const char* const slots[][2] = {
        {"0.5", "40"}, {"1", "40"}, {"2", "30"}, {"5", "20"}, {"10", "10"}};
    for (int i = 0; i < 5; ++i) {
        const std::string n = std::to_string(i + 1);
        EXPECT_EQ(kiosk.get("CoinAcceptor", "tubeCoinType" + n), slots[i][0]) << n;
        EXPECT_EQ(kiosk.get("CoinAcceptor", "tubeCoinQty" + n), slots[i][1]) << n;
    }

    const test::RunResult second = test::run(
        test::kestrixBinary(), {"--headless", "--store", kiosk.store}, kiosk.environment(), 20s);
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.err.find("Another version of this program is already running"),
              std::string::npos)
        << second.err;
    EXPECT_TRUE(kiosk.engine().running()) << "the first engine must be left alone";

    EXPECT_EQ(kiosk.ksxctl({"set", "Status", "Exit", "1"}).status, 0);
    const std::optional<int> status = kiosk.engine().wait(60s);
    ASSERT_TRUE(status.has_value()) << "the engine did not end on Exit";
    EXPECT_EQ(*status, 0) << kiosk.engine().err();
    EXPECT_EQ(kiosk.ksxctl({"get", "Status", "Exit"}).out, "1\n")
        << "Exit is left for the next start to clear";
    EXPECT_EQ(kiosk.get("Pin Pad", "On Line"), "No");
}

TEST(KestrixProgram, TerminationSignalRunsExitWithinItsBoundWhateverTheChangerDoes) {
    SimulatedKiosk kiosk(SimulatedKiosk::Devices::OnPtys);
    ASSERT_TRUE(kiosk.start());
    // Change from the tubes (less than a bill), and the changer falls silent while it pays.
    kiosk.set("Status", "Change", "45");
    ASSERT_TRUE(test::eventually(
        [&] { return kiosk.get("Status", "Status") == "Dispensing change..."; }, 30s));
    EXPECT_EQ(kiosk.ctl({"fault", "changer", "silent", "on"}).status, 0);
    const auto signalled = std::chrono::steady_clock::now();
    kiosk.engine().signal(SIGTERM);
    const std::optional<int> status = kiosk.engine().wait(30s);
    const auto took = std::chrono::steady_clock::now() - signalled;
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(*status, 0) << kiosk.engine().err();
    EXPECT_LT(took, 10s);
    EXPECT_EQ(kiosk.get("Pin Pad", "On Line"), "No");
}

// Starts that cannot work until someone acts end at once with a message saying what to do; a
// store refused ends with status 4, which the service unit does not restart on.
TEST(KestrixProgram, RefusesAStoreOrSimulatorDirectoryThatIsNotPrivate) {
    struct Row {
        const char* name;
        mode_t mode;
        bool damagedStore;
        bool simulate;
        int status;
        const char* says;
    };
    const Row rows[] = {
        {"store where all can write", 01777, false, false, 4, "can be written by other users"},
        {"damaged store", 0700, true, false, 4, "is damaged"},
        {"simulator where all can write", 0777, false, true, 3, "refused: other users can write"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string own = test::makeTempDir("ksx-refused");
        const std::string shared = own + "/shared";
        ASSERT_EQ(::mkdir(shared.c_str(), 0700), 0);
        ASSERT_EQ(::chmod(shared.c_str(), row.mode), 0);
        const std::string store = (row.simulate ? own : shared) + "/KSX.db";
        if (row.damagedStore) {
            std::FILE* f = std::fopen(store.c_str(), "w");
            std::fputs("not a database, whatever the host wrote here instead", f);
            std::fclose(f);
        }
        std::vector<std::string> args = {"--headless", "--store", store};
        if (row.simulate) {
            args.push_back("--simulate");
        }
        const test::RunResult r = test::run(test::kestrixBinary(), args, {"KSX_SIM_DIR=" + shared});
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_NE(r.err.find(row.says), std::string::npos) << r.err;
    }
}

TEST(KestrixProgram, VersionAndHelp) {
    EXPECT_EQ(test::run(test::kestrixBinary(), {"--version"}).out, "kestrix 5.0.0\n");
    EXPECT_NE(test::run(test::kestrixBinary(), {"--help"}).out.find("--headless"),
              std::string::npos);
    EXPECT_EQ(test::run(test::kestrixBinary(), {"--bogus"}).status, 2);
}

}  // namespace
}  // namespace kestrix
