#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "sim/pty_kiosk.h"
#include "support/support.h"

namespace kestrix::sim {
namespace {

TEST(PtyKiosk, RunsControlCommandsInProcessAndRefusesASecondSimulatorInItsDirectory) {
    const std::string dir = test::makeTempDir("kestrix-pty");
    PtyKiosk first(dir);
    first.start();
    EXPECT_TRUE(first.command("fault dispenser low on").ok);
    PtyKiosk second(dir);
    EXPECT_THROW(second.start(), std::runtime_error);
    first.stop();
    std::string answer;
    EXPECT_EQ(sendControlCommand(dir, "state", answer), kControlNoSimulator);
    PtyKiosk third(dir);
    EXPECT_NO_THROW(third.start()) << "the directory was left clean";
}

// The control socket moves money in and out of the simulated kiosk, and the links are what the
// engine takes for its serial ports: both live in a directory of the user's alone.
TEST(PtyKiosk, WorksOnlyInAPrivateDirectoryWithAPrivateSocket) {
    const std::string fresh = test::makeTempDir("kestrix-pty") + "/kiosk";
    {
        PtyKiosk kiosk(fresh);
        kiosk.start();
        struct stat st {};
        ASSERT_EQ(::stat(fresh.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0700u) << "a directory it makes is private";
        ASSERT_EQ(::stat(kiosk.path("control").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u) << "the socket is the user's alone";
    }
    struct Row {
        const char* name;
        mode_t mode;
        bool otherOwner;
    };
    for (const Row& row : {Row{"world-writable", 0777, false}, Row{"group-writable", 0770, false},
                           Row{"another user's", 0700, true}}) {
        SCOPED_TRACE(row.name);
        const std::string dir = test::makeTempDir("kestrix-pty") + "/shared";
        ASSERT_EQ(::mkdir(dir.c_str(), 0700), 0);
        ASSERT_EQ(::chmod(dir.c_str(), row.mode), 0);
        if (row.otherOwner) {
            if (::geteuid() != 0) {
                continue;  // only root can give a directory away
            }
            ASSERT_EQ(::chown(dir.c_str(), 65534, 65534), 0);
        }
        PtyKiosk kiosk(dir);
        try {
            kiosk.start();
            ADD_FAILURE() << "started in " << dir;
        } catch (const std::runtime_error& e) {
            EXPECT_NE(std::string(e.what()).find("refused"), std::string::npos) << e.what();
        }
        EXPECT_FALSE(std::filesystem::exists(dir + "/control")) << "nothing is left there";
    }
}

}  // namespace
}  // namespace kestrix::sim
