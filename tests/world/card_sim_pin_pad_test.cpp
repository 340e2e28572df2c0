#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/settings/layout.h"
#include "sim/world/virtual_kiosk.h"

// The card payment against the simulated pin pad that kestrix --simulate and kestrix-sim ship:
// the engine and the model must agree on the calls, the texts and the timing.
namespace kestrix {
namespace {

TEST(SimulatedPinPad, OutcomesReachTheHost) {
    struct Row {
        std::string result;
        std::string status;
        std::string credit;
        std::string voucherStart;
    };
    const std::vector<Row> rows = {
        {"approved", "Credit Card Approved", "25", "KESTRIX SIMULATED ACQUIRER"},
        {"denied", "Credit Card Denied", "0", "Tarjeta Declinada"},
        {"error", "Error: No answer from the authorisation host Código = E101", "0",
         "ERROR DE COMUNICACIÓN"},
        {"readerror", "Pin Pad Error", "0", "PIN PAD ERROR"},
        // Not a result the engine knows: nothing shown (the host keeps the last prompt), printed
        // or credited.
        {"timeout", "CONNECTING TO HOST...", "0", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.result);
        sim::VirtualKiosk k;
        k.configureAllDevices();
        k.store().set(store::kApp, store::section::kPinPadSimulator, "Result", row.result);
        ASSERT_TRUE(k.start());
        k.hostWrite(store::mailbox::kDueCC, "25");
        ASSERT_TRUE(k.runUntil([&] { return k.mailbox("DueCC") == "0"; }, 120));
        EXPECT_EQ(k.mailbox("Status"), row.status);
        EXPECT_EQ(k.mailbox("Credit"), row.credit);
        EXPECT_EQ(k.mailbox("ReferenceCC"), "");
        EXPECT_EQ(k.mailbox("DueCC"), "0");
        if (row.voucherStart.empty()) {
            EXPECT_TRUE(k.printer().documents().empty());
            continue;
        }
        ASSERT_EQ(k.printer().documents().size(), 1u);
        const std::string& first = k.printer().documents()[0].front().text;
        EXPECT_EQ(first.rfind(row.voucherStart, 0), 0u) << first;
        EXPECT_EQ(first.find('@'), std::string::npos);
    }
}

}  // namespace
}  // namespace kestrix
