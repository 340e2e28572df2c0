#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "engine/settings/layout.h"
#include "simulated_kiosk.h"

namespace kestrix {
namespace {

using namespace std::chrono_literals;

// A fenced block of the guide marked "example=NAME" after its language.
struct Example {
    std::string language;
    std::string name;
    std::string code;
};

std::vector<Example> examplesOf(const std::string& markdown) {
    static const std::regex opening(R"((^|\n)```(\w+) +example=([\w-]+)[ \t]*\n)");
    std::vector<Example> examples;
    for (std::sregex_iterator m(markdown.begin(), markdown.end(), opening), end; m != end; ++m) {
        const std::size_t code = static_cast<std::size_t>(m->position() + m->length());
        const std::size_t closing = markdown.find("\n```", code - 1);
        EXPECT_NE(closing, std::string::npos) << "an example block is not closed";
        examples.push_back({(*m)[2], (*m)[3], markdown.substr(code, closing + 1 - code)});
    }
    return examples;
}

const std::string kGuide = std::string(KESTRIX_SOURCE_DIR) + "/docs/host-integration.md";

// What each runnable example must print on the simulated kiosk, where the customer inserts
// 10.00 coins until a cash payment is covered and the pin pad approves.
const std::map<std::string, std::vector<std::string>> kExpectedOutput = {
    {"cash", {"Status=Payment Completed\n", "ChangeDispensed=7.5\n", "paid: yes\n"}},
    {"card", {"approved: credit 25\n"}},
    {"cancel", {"pay exited with status 4\n", "Status=Transaction Cancelled\n"}},
    {"change", {"Status=Change dispensed\n", "ChangeDispensed=7.5\n"}},
    {"raw", {"Payment Completed; change 5\n"}},
    {"restart",
     {"payment 99: Change 200 partly paid, credit 0, paid 120, unknown 0\n",
      "nothing left to settle\n"}},
    {"heartbeat", {"engine alive\n"}},
    {"python",
     {"cash: Payment Completed; received 20, change 7.5\n",
      "card: Credit Card Approved; approved: True\n"}},
};

TEST(HostGuide, ShellAndPythonExamplesRunOnTheSimulatedKiosk) {
    test::SimulatedKiosk kiosk;
    ASSERT_TRUE(kiosk.start());
    kiosk.startCustomer();
    int cardApprovals = 0;
    std::set<std::string> run;
    for (const Example& e : examplesOf(test::readFile(kGuide))) {
        if (e.language != "sh" && e.language != "python") {
            continue;  // the Windows examples
        }
        SCOPED_TRACE("example " + e.name);
        ASSERT_EQ(kExpectedOutput.count(e.name), 1u) << "an example no test knows";
        EXPECT_TRUE(run.insert(e.name).second) << "two examples of that name";
        const std::string file =
            kiosk.dir + "/" + e.name + (e.language == "python" ? ".py" : ".sh");
        std::ofstream(file) << e.code;
        if (e.name == "restart") {
            // A restart report as a restarted engine writes it, under the engine's own key names.
            namespace mb = store::mailbox;
            for (const auto& [key, value] : {std::pair{mb::kInterruptedRequest, "Change"},
                                             {mb::kInterruptedAmount, "200"},
                                             {mb::kInterruptedOutcome, "partly paid"},
                                             {mb::kInterruptedCredit, "0"},
                                             {mb::kInterruptedPaid, "120"},
                                             {mb::kInterruptedUnknown, "0"},
                                             {mb::kInterrupted, "99"}}) {
                kiosk.set("Status", std::string(key), value);
            }
        }
        test::RunResult r;
        if (e.language == "python") {
            r = test::run("/usr/bin/env", {"python3", file}, kiosk.environment(), 180s);
        } else {
            // In a directory of its own, as a user would paste it; -e stops at the first failure.
            r = test::run("/bin/bash", {"-c", "cd \"$0\" && exec bash -e \"$1\"", kiosk.dir, file},
                          kiosk.environment(), 180s);
        }
        EXPECT_EQ(r.status, 0) << r.out << r.err;
        for (const std::string& line : kExpectedOutput.at(e.name)) {
            EXPECT_NE(r.out.find(line), std::string::npos) << "missing \"" << line << "\" in:\n"
                                                           << r.out << r.err;
        }
        cardApprovals += static_cast<int>(e.name == "card" || e.name == "python");
        // Each example leaves the mailbox free for the next.
        EXPECT_TRUE(test::eventually(
            [&] {
                return kiosk.get("Status", "Due") == "0" && kiosk.get("Status", "DueCC") == "0" &&
                       kiosk.get("Status", "Change").empty();
            },
            10s));
    }
    kiosk.stopCustomer();
    EXPECT_EQ(run.size(), kExpectedOutput.size()) << "an example is missing from the guide";
    // The headless engine prints a voucher after it has written the payment's result.
    EXPECT_TRUE(test::eventually(
        [&] { return kiosk.voucherFiles().size() >= static_cast<std::size_t>(cardApprovals); },
        10s));
    EXPECT_EQ(kiosk.voucherFiles().size(), static_cast<std::size_t>(cardApprovals))
        << "one voucher per card payment";
    EXPECT_EQ(kiosk.get("Status", "KSX_Error"), "0");
}

}  // namespace
}  // namespace kestrix
