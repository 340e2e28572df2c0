// The kestrix program with its console on a virtual X display: the window comes up on the
// simulated kiosk, the engine initialises the devices, and the host's Exit ends it
// (scripts/check-console-xvfb does the looking; this runs it on the freshly built programs).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/process.h"

namespace kestrix::test {
namespace {

constexpr int kToolsMissing = 77;

RunResult check(const std::vector<std::string>& options) {
    std::vector<std::string> args = {std::string(KESTRIX_SOURCE_DIR) +
                                     "/scripts/check-console-xvfb"};
    args.insert(args.end(), options.begin(), options.end());
    args.push_back(kestrixBinary());
    args.push_back(ksxctlBinary());
    return run("/bin/bash", args, {}, std::chrono::seconds(120));
}

TEST(ConsoleOnX, ComesUpOnTheSimulatedKioskInitialisesAndEndsOnTheHostsExit) {
    const RunResult r = check({});
    if (r.status == kToolsMissing) {
        GTEST_SKIP() << r.err;
    }
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("window up after"), std::string::npos) << r.out;
}

TEST(ConsoleOnX, StartedWithHideNoWindowComesUpAndTheEngineWorksAllTheSame) {
    const RunResult r = check({"--hide"});
    if (r.status == kToolsMissing) {
        GTEST_SKIP() << r.err;
    }
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("no window while initialised"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace kestrix::test
