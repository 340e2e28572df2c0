#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/platform/journal.h"
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

// A library that hands over the whole card number (the simulated one does what it is told) gets
// it neither onto the voucher nor onto the console, the store, the log or the journal.
TEST(SimulatedPinPad, AWholeCardNumberLeavesTheEngineMasked) {
    const std::string full = "4111111111111111";
    sim::VirtualKiosk k;
    k.configureAllDevices();
    k.store().set(store::kApp, store::section::kPinPadSimulator, "CardNumber", full);
    ASSERT_TRUE(k.start());
    k.hostWrite(store::mailbox::kDueCC, "25");
    ASSERT_TRUE(k.runUntil([&] { return k.mailbox("DueCC") == "0"; }, 120));
    ASSERT_EQ(k.mailbox("Status"), "Credit Card Approved");

    EXPECT_EQ(k.engine().console().text("ccNumTarjeta"), "411111******1111");
    ASSERT_EQ(k.printer().documents().size(), 1u);
    std::string everything;
    for (const auto& line : k.printer().documents()[0]) {
        everything += line.text + "\n";
    }
    EXPECT_NE(everything.find("411111******1111"), std::string::npos) << everything;
    for (const Field& f : k.engine().console().fields()) {
        everything += f.text + "\n";
    }
    for (const auto& e : k.store().list(store::kApp)) {
        if (e.section != store::section::kPinPadSimulator) {
            everything += e.value + "\n";
        }
    }
    for (const std::string& line : k.log().lines()) {
        everything += line + "\n";
    }
    for (const JournalEntry& row : k.journal().rows()) {
        everything += row.detail + "\n";
    }
    EXPECT_EQ(everything.find(full), std::string::npos) << everything;
}

}  // namespace
}  // namespace kestrix
