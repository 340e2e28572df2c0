#include <gtest/gtest.h>

#include "engine/settings/layout.h"
#include "sim/world/virtual_kiosk.h"

namespace kestrix::sim {
namespace {

struct PinPadBench : VirtualKiosk {
    void steer(std::string_view key, std::string_view value) {
        store().set(store::kApp, store::section::kPinPadSimulator, key, value);
    }
    std::string sale() {
        SaleRequest r;
        r.company = "0001";
        r.branch = "0002";
        r.reference = "001A2B3C4D5E_261122090000";
        r.currency = "MXN";
        return pinPad().runSale(r);
    }
};

// Each result's whole path through the engine, the prompts and the offline switch are in the world
// tests (CardPayment, the fault matrix); here the store's spelling and the steered card.
TEST(SimPinPad, TheStoreSteersTheResultAndTheCard) {
    PinPadBench b;
    b.steer("Result", "Approved ");
    b.steer("Seconds", "1");
    EXPECT_EQ(b.pinPad().readCard(), "");
    EXPECT_FALSE(b.sale().empty());
    EXPECT_EQ(b.pinPad().result(), "approved");
    b.steer("Result", "readerror");
    const std::string error = b.pinPad().readCard();
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(b.pinPad().errorDetails().error, error);
    EXPECT_FALSE(b.pinPad().errorDetails().code.empty());

    PinPadBench custom;
    custom.steer("CardNumber", "************4242");
    custom.steer("CardHolder", "PEREZ/ANA");
    custom.pinPad().readCard();
    EXPECT_EQ(custom.pinPad().cardNumber(), "************4242");
    EXPECT_EQ(custom.pinPad().cardHolder(), "PEREZ/ANA");
}

// That a cancel ends a sale the world tests see; not that it ends with its operation.
TEST(SimPinPad, ACancelDoesNotOutliveItsOperation) {
    PinPadBench b;
    b.steer("Seconds", "30");
    auto cancel =
        b.scheduler().createTimer("cancel", 2000, true, [&b] { b.pinPad().cancelOperation(); });
    b.sale();
    cancel->setEnabled(false);
    b.pinPad().closeOperation();
    b.steer("Seconds", "0");
    b.sale();
    EXPECT_EQ(b.pinPad().result(), "approved") << "a cancel does not outlive its operation";
}

}  // namespace
}  // namespace kestrix::sim
