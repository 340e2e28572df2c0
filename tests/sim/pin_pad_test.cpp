#include <gtest/gtest.h>

#include <vector>

#include "engine/settings/layout.h"
#include "sim/pinpad/sim_pin_pad.h"
#include "sim/world/memory_store.h"
#include "sim/world/virtual_time.h"

namespace kestrix::sim {
namespace {

struct PinPadBench {
    VirtualClock clock;
    VirtualScheduler scheduler{clock};
    MemoryStore store;
    SimPinPad pad{clock, scheduler, store};
    std::vector<std::string> seen;  // display messages as a 200 ms watch saw them
    std::unique_ptr<Timer> watch;

    PinPadBench() {
        clock.setDeadline(3600);
        watch = scheduler.createTimer("ccTimer", 200, true, [this] {
            const std::string m = pad.displayMessage();
            if (seen.empty() || seen.back() != m) {
                seen.push_back(m);
            }
        });
    }
    void steer(std::string_view key, std::string_view value) {
        store.set(store::kApp, store::section::kPinPadSimulator, key, value);
    }
    std::string sale() {
        SaleRequest r;
        r.company = "0001";
        r.branch = "0002";
        r.reference = "001A2B3C4D5E_261122090000";
        r.currency = "MXN";
        return pad.runSale(r);
    }
};

TEST(SimPinPad, ReadsACardAndRunsAnApprovedSaleWhileTheEnginesTimersRun) {
    PinPadBench b;
    b.pad.setAmount("12.5");
    const double start = b.clock.elapsed();
    EXPECT_EQ(b.pad.readCard(), "");
    EXPECT_EQ(b.pad.cardNumber(), "************1111");
    EXPECT_FALSE(b.pad.cardHolder().empty());
    const std::string voucher = b.sale();
    EXPECT_EQ(b.pad.result(), "approved");
    EXPECT_NEAR(b.clock.elapsed() - start, 1.5 + 4.0, 0.3);
    for (const char* marker : {" @cnb ", " @cnn ", " @lnn ", " @br ", " @b"}) {
        EXPECT_NE(voucher.find(marker), std::string::npos) << marker;
    }
    EXPECT_NE(voucher.find("12.5"), std::string::npos);
    EXPECT_NE(voucher.find("001A2B3C4D5E_261122090000"), std::string::npos);
    const std::vector<std::string> expected{"INSERT OR SWIPE CARD", "READING CARD...", "ENTER PIN",
                                            "PROCESSING...", "CONNECTING TO HOST..."};
    EXPECT_EQ(std::vector<std::string>(b.seen.begin(), b.seen.begin() + 5), expected);
    b.pad.closeOperation();
    EXPECT_EQ(b.pad.displayMessage(), SimPinPad::kIdleMessage);
}

// Each result's whole path through the engine is in the world tests (SimulatedPinPad); here the
// store's spelling and the steered card.
TEST(SimPinPad, TheStoreSteersTheResultAndTheCard) {
    PinPadBench b;
    b.steer("Result", "Approved ");
    b.steer("Seconds", "1");
    EXPECT_EQ(b.pad.readCard(), "");
    EXPECT_FALSE(b.sale().empty());
    EXPECT_EQ(b.pad.result(), "approved");
    b.steer("Result", "readerror");
    const std::string error = b.pad.readCard();
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(b.pad.errorDetails().error, error);
    EXPECT_FALSE(b.pad.errorDetails().code.empty());

    PinPadBench custom;
    custom.steer("CardNumber", "************4242");
    custom.steer("CardHolder", "PEREZ/ANA");
    custom.pad.readCard();
    EXPECT_EQ(custom.pad.cardNumber(), "************4242");
    EXPECT_EQ(custom.pad.cardHolder(), "PEREZ/ANA");
}

TEST(SimPinPad, ACancelEndsARunningSaleSoonWithoutApproval) {
    PinPadBench b;
    b.steer("Seconds", "30");
    auto cancel = b.scheduler.createTimer("cancel", 2000, true, [&b] { b.pad.cancelOperation(); });
    const double start = b.clock.elapsed();
    b.sale();
    EXPECT_LT(b.clock.elapsed() - start, 2.5);
    EXPECT_EQ(b.pad.result(), "denied");
    EXPECT_FALSE(b.pad.declineCause().empty());
    cancel->setEnabled(false);
    b.pad.closeOperation();
    b.steer("Seconds", "0");
    b.sale();
    EXPECT_EQ(b.pad.result(), "approved") << "a cancel does not outlive its operation";
}

TEST(SimPinPad, OfflinePadFailsTheCardRead) {
    PinPadBench b;
    ASSERT_TRUE(b.pad.setFault("offline", true));
    EXPECT_FALSE(b.pad.identify().online);
    EXPECT_FALSE(b.pad.readCard().empty());
    b.pad.setFault("offline", false);
    const PinPadIdentity id = b.pad.identify();
    EXPECT_TRUE(id.online);
    EXPECT_FALSE(id.serialNumber.empty());
}

}  // namespace
}  // namespace kestrix::sim
