// A hostile host on the real store and engine: a request of 10 MB, NUL bytes, and a request
// rewritten every few milliseconds by a process of its own.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "simulated_kiosk.h"

namespace kestrix {
namespace {

using namespace std::chrono_literals;
using test::eventually;
using test::SimulatedKiosk;

TEST(HostileHostEndToEnd, HugeNulAndRapidlyRewrittenRequestsStartOnlyWhatWasAsked) {
    SimulatedKiosk kiosk;
    ASSERT_TRUE(kiosk.start());
    const auto status = [&] { return kiosk.get("Status", "Status"); };
    kiosk.set("Status", "Status", "");

    // Neither 10 MB of digits nor a NUL in front of an amount is a request.
    for (const std::string& value : {std::string(10 << 20, '9'), std::string(1, '\0') + "5"}) {
        kiosk.set("Status", "Due", value);
        kiosk.set("Status", "Change", value);
        std::this_thread::sleep_for(1500ms);
        EXPECT_EQ(status(), "");
        EXPECT_EQ(kiosk.get("Status", "Due"), value) << "left as it is";
        EXPECT_EQ(kiosk.get("Status", "Change"), value) << "left as it is";
    }
    kiosk.set("Status", "Change", "");

    // A host process rewriting "Due" every 2 ms, two amounts among its noise: one payment, of
    // one of them.
    std::atomic<bool> stop = false;
    std::thread host([&] {
        qt::SqliteStore s(kiosk.store);
        const std::vector<std::string> values = {"abc", "0", "5",  std::string(1, '\0') + "7",
                                                 "7",   "",  "-1", "0x10"};
        for (std::size_t i = 0; !stop; ++i) {
            s.set("KSX", "Status", "Due", values[i % values.size()]);
            std::this_thread::sleep_for(2ms);
        }
    });
    const bool started = eventually([&] { return status() == "Insert Coins or Bills..."; }, 30s);
    std::this_thread::sleep_for(2s);  // the rewrites go on while the payment runs
    stop = true;
    host.join();
    ASSERT_TRUE(started) << kiosk.engine().err();
    std::this_thread::sleep_for(1s);  // the engine writes its own "Due" at every poll
    const std::string due = kiosk.get("Status", "Due");
    ASSERT_TRUE(due == "5" || due == "7") << due;
    ASSERT_EQ(kiosk.ctl({"coin", "5"}).status, 0);  // 10
    ASSERT_TRUE(eventually([&] { return status() == "Payment Completed"; }, 30s));
    EXPECT_EQ(kiosk.get("Status", "ChangeDispensed"), due == "5" ? "5" : "3");
    EXPECT_TRUE(kiosk.engine().running()) << kiosk.engine().err();
}

}  // namespace
}  // namespace kestrix
