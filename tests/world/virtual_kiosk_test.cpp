#include <gtest/gtest.h>

#include "engine/settings/layout.h"
#include "sim/world/virtual_kiosk.h"

namespace kestrix::sim {
namespace {

// The whole simulated kiosk with the engine: equipment initialisation finds every device, and
// a cash payment with a bill runs to completion with its change.
TEST(VirtualKiosk, TheEngineFindsEveryDeviceAndTakesACashPayment) {
    VirtualKiosk k;
    k.configureAllDevices();
    ASSERT_TRUE(k.start());
    k.runFor(2);
    EXPECT_TRUE(k.messageBox().shown().empty()) << k.messageBox().shown().front().text;
    EXPECT_EQ(k.mailbox(store::mailbox::kBDStatus), "OK");
    EXPECT_EQ(k.mailbox(store::mailbox::kBDCassette), "OK");
    EXPECT_EQ(k.mailbox(store::mailbox::kTubes), "320");
    EXPECT_EQ(k.mailbox(store::mailbox::kKsxError), "0");

    k.hostWrite(store::mailbox::kDue, "12.5");
    ASSERT_TRUE(k.runUntil(
        [&] { return k.mailbox(store::mailbox::kStatus) == "Insert Coins or Bills..."; }, 30));
    EXPECT_EQ(k.changer().coinEnableMask(), 0x001F);
    EXPECT_EQ(k.validator().billEnableMask(), 0x001F);
    ASSERT_TRUE(k.insertCoin(2).ok);  // 1
    ASSERT_TRUE(k.runUntil([&] { return k.mailbox(store::mailbox::kCredit) == "1"; }, 10));
    ASSERT_TRUE(k.insertBill(1).ok);  // 20
    ASSERT_TRUE(
        k.runUntil([&] { return k.mailbox(store::mailbox::kStatus) == "Payment Completed"; }, 120));
    EXPECT_EQ(k.mailbox(store::mailbox::kChangeDispensed), "8.5");
    EXPECT_EQ(k.validator().stackedCount(0), 1);
    EXPECT_EQ(k.changer().coinEnableMask(), 0) << "acceptance stopped";
    EXPECT_FALSE(k.insertCoin(1).ok);
}

TEST(VirtualKiosk, ControlCommandsReachTheModelsAndTheStateDumpShowsThem) {
    VirtualKiosk k;
    EXPECT_TRUE(k.control("tube 3 12").ok);
    EXPECT_EQ(k.changer().tubeCount(2), 12);
    EXPECT_FALSE(k.control("coin 1").ok) << "nothing enabled before the engine runs";
    EXPECT_FALSE(k.control("coin").ok);
    EXPECT_TRUE(k.control("fault pinpad offline on").ok);
    const std::string state = k.stateJson();
    for (const char* key : {"\"tubes\":[40,40,12,20,10]", "\"billsLeft\":100", "\"coinsLeft\":200",
                            "\"offline\"", "\"frames\":["}) {
        EXPECT_NE(state.find(key), std::string::npos) << key << "\n" << state;
    }
}

}  // namespace
}  // namespace kestrix::sim
