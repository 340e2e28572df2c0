// The kestrix program with its console on a virtual X display: the window comes up on the
// simulated kiosk, the engine initialises the devices, and the host's Exit ends it
// (scripts/check-console-xvfb does the looking; this runs it on the freshly built programs).
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "support/process.h"

namespace kestrix::test {
namespace {

constexpr int kToolsMissing = 77;

TEST(ConsoleOnX, ComesUpInitialisesAndEndsOnTheHostsExitWithAndWithoutHide) {
    // /hide: no window comes up, and the engine works all the same.
    const std::pair<std::vector<std::string>, const char*> runs[] = {
        {{}, "window up after"}, {{"--hide"}, "no window while initialised"}};
    for (const auto& [options, shown] : runs) {
        std::vector<std::string> args = {std::string(KESTRIX_SOURCE_DIR) +
                                         "/scripts/check-console-xvfb"};
        args.insert(args.end(), options.begin(), options.end());
        args.insert(args.end(), {kestrixBinary(), ksxctlBinary()});
        const RunResult r = run("/bin/bash", args, {}, std::chrono::seconds(120));
        if (r.status == kToolsMissing) {
            GTEST_SKIP() << r.err;
        }
        EXPECT_EQ(r.status, 0) << r.out << r.err;
        EXPECT_NE(r.out.find(shown), std::string::npos) << r.out;
    }
}

}  // namespace
}  // namespace kestrix::test
