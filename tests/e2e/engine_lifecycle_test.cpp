#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform_qt/engine_lock.h"
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

    // A second engine on the same store, reached through a link, on a simulated kiosk of its
    // own: refused before it starts its simulator or touches the store.
    const std::string link = kiosk.dir + "/link";
    std::filesystem::create_directory_symlink(kiosk.dir, link);
    const std::string otherSim = kiosk.dir + "/other-sim";
    std::vector<std::string> env = kiosk.environment();
    env.push_back("KSX_SIM_DIR=" + otherSim);
    const std::string ports = kiosk.get("Ports", "1");
    const test::RunResult second = test::run(
        test::kestrixBinary(), {"--headless", "--simulate", "--store", link + "/KSX.db"}, env, 20s);
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.err.find("Another version of this program is already running"),
              std::string::npos)
        << second.err;
    std::string enginePid;
    std::getline(std::ifstream(qt::engineLockPath(kiosk.store)), enginePid);
    EXPECT_NE(second.err.find("the store " + link +
                              "/KSX.db is in use by the engine with "
                              "process id " +
                              enginePid),
              std::string::npos)
        << second.err;
    EXPECT_FALSE(std::filesystem::exists(otherSim)) << "no simulator was started";
    EXPECT_EQ(kiosk.get("Ports", "1"), ports) << "the running engine's ports are left alone";
    EXPECT_EQ(kiosk.get("Status", "KSX_Error"), "0");
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

TEST(KestrixProgram, AfterAKillTheHostNoticesAtOnceAndARestartedEngineOpensEveryLine) {
    SimulatedKiosk kiosk(SimulatedKiosk::Devices::OnPtys);
    ASSERT_TRUE(kiosk.start());
    kiosk.engine().signal(SIGKILL);
    ASSERT_TRUE(kiosk.engine().wait(10s).has_value());
    EXPECT_EQ(kiosk.get("Pin Pad", "On Line"), "Yes") << "what a crash leaves behind";

    const test::RunResult pay = kiosk.ksxctl({"pay", "5"});
    EXPECT_EQ(pay.status, 7) << pay.err;
    EXPECT_EQ(kiosk.get("Status", "Due"), "0");

    // The dispenser line runs with even parity; the dead engine's settings of the line must not
    // keep the next engine from opening it.
    kiosk.set("Status", "BDStatus", "");
    kiosk.set("Status", "Tubes", "0");
    ASSERT_TRUE(kiosk.start());
    EXPECT_EQ(kiosk.get("Status", "BDStatus"), "OK");
    EXPECT_EQ(kiosk.get("Status", "KSX_Error"), "0") << kiosk.engine().err();
}

// ksxctl's are in its own tests.
TEST(Programs, VersionHelpAndUsageErrorsOfOneLine) {
    const std::string sim = test::makeTempDir("ksx-usage") + "/sim";
    test::ChildProcess simulator(test::kestrixSimBinary(), {"--dir", sim});
    ASSERT_TRUE(test::eventually([&] { return simulator.out() == "ready\n"; }, 10s));
    struct Program {
        std::string binary;
        std::string name;
        std::vector<std::vector<std::string>> misuses;
    };
    const std::vector<Program> programs = {
        {test::kestrixBinary(), "kestrix", {{"--bogus"}, {"--store"}, {"--headless", "-x"}}},
        {test::kestrixSimBinary(),
         "kestrix-sim",
         {{},
          {"--bogus"},
          {"--dir"},
          {"--dir", sim, "--profile", "nosuch"},
          {"ctl"},
          {"ctl", sim},
          {"ctl", sim, "bogus"},
          {"ctl", sim, "coin"}}},
    };
    for (const Program& p : programs) {
        EXPECT_EQ(test::run(p.binary, {"--version"}).out, p.name + " 5.0.0\n");
        const test::RunResult help = test::run(p.binary, {"--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_NE(help.out.find("Usage: " + p.name), std::string::npos) << help.out;
        for (const std::vector<std::string>& args : p.misuses) {
            const test::RunResult r = test::run(p.binary, args, {"QT_QPA_PLATFORM=offscreen"});
            EXPECT_EQ(r.status, 2) << p.name << ' ' << testing::PrintToString(args) << r.err;
            EXPECT_EQ(r.err.rfind(p.name + ": ", 0), 0u) << r.err;
            EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        }
    }
    EXPECT_EQ(test::run(test::kestrixSimBinary(), {"ctl", sim, "coin", "1"}).status, 1)
        << "the changer, with no engine, hands the coin back";
    simulator.signal(SIGTERM);
    EXPECT_EQ(simulator.wait(10s), std::optional<int>(0));
}

}  // namespace
}  // namespace kestrix
