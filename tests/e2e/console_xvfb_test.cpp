// The kestrix program with its console on a virtual X display: the window comes up on the
// simulated kiosk, the engine initialises the devices, and the host's Exit ends it
// (scripts/check-console-xvfb does the looking; this runs it on the freshly built programs).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "support/process.h"

namespace kestrix::test {
namespace {

constexpr int kToolsMissing = 77;

TEST(ConsoleOnX, ComesUpOnTheSimulatedKioskInitialisesAndEndsOnTheHostsExit) {
    const RunResult r = run("/bin/bash",
                            {std::string(KESTRIX_SOURCE_DIR) + "/scripts/check-console-xvfb",
                             kestrixBinary(), ksxctlBinary()},
                            {}, std::chrono::seconds(120));
    if (r.status == kToolsMissing) {
        GTEST_SKIP() << r.err;
    }
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("window up after"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace kestrix::test
