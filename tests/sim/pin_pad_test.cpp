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

    PinPadBench() { clock.setDeadline(3600); }
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

// Each result's whole path through the engine, the prompts and the offline switch are in the world
// tests (CardPayment, the fault matrix); here the store's spelling and the steered card.
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

// That a cancel ends a sale the world tests see; not that it ends with its operation.
TEST(SimPinPad, ACancelDoesNotOutliveItsOperation) {
    PinPadBench b;
    b.steer("Seconds", "30");
    auto cancel = b.scheduler.createTimer("cancel", 2000, true, [&b] { b.pad.cancelOperation(); });
    b.sale();
    cancel->setEnabled(false);
    b.pad.closeOperation();
    b.steer("Seconds", "0");
    b.sale();
    EXPECT_EQ(b.pad.result(), "approved") << "a cancel does not outlive its operation";
}

}  // namespace
}  // namespace kestrix::sim
