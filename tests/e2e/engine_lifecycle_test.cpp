#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform_qt/engine_lock.h"
#include "simulated_kiosk.h"

namespace kestrix {
namespace {

using namespace std::chrono_literals;
using test::SimulatedKiosk;

TEST(KestrixProgram, StartsOnTheSimulatedKioskRefusesASecondCopyAndExitsOnRequest) {
    SimulatedKiosk kiosk(SimulatedKiosk::Devices::OnPtys);
    ASSERT_TRUE(kiosk.start());

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
    std::string pid;
    std::getline(std::ifstream(qt::engineLockPath(kiosk.store)), pid);
    const std::string inUse =
        "the store " + link + "/KSX.db is in use by the engine with process id ";
    EXPECT_NE(second.err.find(inUse + pid), std::string::npos) << second.err;
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
}

// Misuse is a usage error of one line (status 2). Starts that cannot work until someone acts
// end at once saying what to do; a store refused ends with status 4, which the service unit does
// not restart on.
TEST(Programs, VersionHelpUsageErrorsAndRefusedStarts) {
    const std::string own = test::makeTempDir("ksx-usage");
    const std::string sim = own + "/sim";
    test::ChildProcess simulator(test::kestrixSimBinary(), {"--dir", sim});
    ASSERT_TRUE(test::eventually([&] { return simulator.out() == "ready\n"; }, 10s));
    for (const auto& [binary, name] : {std::pair{test::kestrixBinary(), "kestrix"},
                                       {test::kestrixSimBinary(), "kestrix-sim"},
                                       {test::ksxctlBinary(), "ksxctl"}}) {
        EXPECT_EQ(test::run(binary, {"--version"}).out, std::string(name) + " 5.0.0\n");
        const test::RunResult help = test::run(binary, {"--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_NE(help.out.find(std::string("Usage: ") + name), std::string::npos) << help.out;
    }

    const std::string shared = own + "/shared";  // a directory all can write
    const std::string damaged = own + "/damaged.db";
    ASSERT_EQ(::mkdir(shared.c_str(), 0700), 0);
    ASSERT_EQ(::chmod(shared.c_str(), 01777), 0);
    std::ofstream(damaged) << "not a database, whatever the host wrote here instead";
    struct Row {
        std::string binary;
        std::vector<std::string> args;
        int status;
        std::string says;
    };
    const std::string k = test::kestrixBinary();
    const std::string s = test::kestrixSimBinary();
    const std::vector<Row> rows = {
        {k, {"--bogus"}, 2, "kestrix: "},
        {s, {}, 2, "kestrix-sim: "},
        {s, {"--bogus"}, 2, "kestrix-sim: "},
        {s, {"--dir", sim, "--profile", "nosuch"}, 2, "kestrix-sim: "},
        {s, {"ctl", sim}, 2, "kestrix-sim: "},
        {s, {"ctl", sim, "coin"}, 2, "kestrix-sim: "},
        {s, {"ctl", sim, "coin", "1"}, 1, ""},  // the changer, with no engine, hands it back
        {k, {"--headless", "--store", shared + "/KSX.db"}, 4, "can be written by other users"},
        {k, {"--headless", "--store", damaged}, 4, "is damaged"},
        {k, {"--headless", "--simulate", "--store", own + "/KSX.db"}, 3, "other users can write"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.args));
        const test::RunResult r =
            test::run(row.binary, row.args, {"KSX_SIM_DIR=" + shared, "QT_QPA_PLATFORM=offscreen"});
        EXPECT_EQ(r.status, row.status) << r.err;
        if (row.status == 2) {
            EXPECT_EQ(r.err.rfind(row.says, 0), 0u) << r.err;
            EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        } else {
            EXPECT_NE(r.err.find(row.says), std::string::npos) << r.err;
        }
    }
    simulator.signal(SIGTERM);
    EXPECT_EQ(simulator.wait(10s), std::optional<int>(0));
}

}  // namespace
}  // namespace kestrix
