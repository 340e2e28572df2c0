#include <gtest/gtest.h>

#include <chrono>
#include <iostream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "simulated_kiosk.h"

namespace kestrix {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Counts from the simulator's state dump: "tubes":[39,40,...] and "coinCredits":[1,2,...].
std::vector<int> jsonInts(const std::string& json, const std::string& key) {
    std::vector<int> values;
    std::smatch m;
    if (std::regex_search(json, m, std::regex("\"" + key + "\":\\[([0-9,]*)\\]"))) {
        std::stringstream list(m[1].str());
        std::string item;
        while (std::getline(list, item, ',')) {
            values.push_back(std::stoi(item));
        }
    }
    return values;
}

// The whole kiosk as it runs in the field, with kestrix-sim in place of the devices: the host
// asks through ksxctl and the customer's coins and bill go in through `kestrix-sim ctl`.
TEST(CashPaymentEndToEnd, TheHostAsksTheCustomerPaysInCoinsAndABillAndGetsTheChange) {
    test::SimulatedKiosk kiosk(test::SimulatedKiosk::Devices::OnPtys);
    ASSERT_TRUE(kiosk.start());
    const auto waitFor = [&](const std::string& key, const std::string& value) {
        return test::eventually([&] { return kiosk.get("Status", key) == value; }, 60s);
    };

    const Clock::time_point asked = Clock::now();
    ASSERT_EQ(kiosk.ksxctl({"set", "Status", "Due", "12.5"}).status, 0);
    ASSERT_TRUE(waitFor("Status", "Insert Coins or Bills...")) << kiosk.engine().err();
    const Clock::time_point ready = Clock::now();

    // 2 + 0.5 in coins, then a bill of 20: 22.5 against 12.5, so 10 of change.
    ASSERT_EQ(kiosk.ctl({"coin", "3"}).status, 0);
    ASSERT_TRUE(waitFor("Credit", "2")) << kiosk.engine().err();
    ASSERT_EQ(kiosk.ctl({"coin", "1"}).status, 0);
    ASSERT_TRUE(waitFor("Credit", "2.5")) << kiosk.engine().err();
    ASSERT_EQ(kiosk.ctl({"bill", "1"}).status, 0);
    const Clock::time_point lastInsert = Clock::now();
    ASSERT_TRUE(waitFor("Status", "Payment Completed")) << kiosk.engine().err();
    const Clock::time_point completed = Clock::now();

    for (const auto& [key, value] :
         {std::pair{"Due", "0"}, {"Credit", "0"}, {"ChangeDispensed", "10"}, {"KSX_Error", "0"}}) {
        EXPECT_EQ(kiosk.ksxctl({"get", "Status", key}).out, std::string(value) + "\n") << key;
    }

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
    EXPECT_EQ(kiosk.get("Status", "Tubes"), expected.str());
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
}

}  // namespace
}  // namespace kestrix
