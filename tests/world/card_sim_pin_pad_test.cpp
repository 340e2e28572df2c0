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

// A card number as a real pin pad reads it (the simulator reads a masked one unless told). It
// must never be kept whole.
constexpr std::string_view kFullCardNumber = "4111111111111111";

TEST(SimulatedPinPad, OutcomesReachTheHostAndTheJournalWithTheCardMasked) {
    struct Row {
        std::string result;
        std::string status;
        std::string credit;
        std::string voucherStart;
        std::string journalled;  // the start of the card result row's detail
    };
    const std::vector<Row> rows = {
        {"approved", "Credit Card Approved", "25", "KESTRIX SIMULATED ACQUIRER",
         "approved, card 411111******1111"},
        {"denied", "Credit Card Denied", "0", "Tarjeta Declinada",
         "denied, card 411111******1111, operation 000001"},
        {"error", "Error: No answer from the authorisation host Código = E101", "0",
         "ERROR DE COMUNICACIÓN", "error: No answer from the authorisation host (code E101)"},
        {"readerror", "Pin Pad Error", "0", "PIN PAD ERROR", "pin pad error: Card read error"},
        // Not a result the engine knows: nothing shown (the host keeps the last prompt), printed
        // or credited.
        {"timeout", "CONNECTING TO HOST...", "0", "", "unknown result \"timeout\""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.result);
        sim::VirtualKiosk k;
        k.configureAllDevices();
        k.store().set(store::kApp, store::section::kPinPadSimulator, "Result", row.result);
        k.store().set(store::kApp, store::section::kPinPadSimulator, "CardNumber", kFullCardNumber);
        ASSERT_TRUE(k.start());
        k.hostWrite(store::mailbox::kDueCC, "25");
        ASSERT_TRUE(k.runUntil([&] { return k.mailbox("DueCC") == "0"; }, 120));
        EXPECT_EQ(k.mailbox("Status"), row.status);
        EXPECT_EQ(k.mailbox("Credit"), row.credit);
        EXPECT_EQ(k.mailbox("ReferenceCC"), "");
        EXPECT_EQ(k.mailbox("DueCC"), "0");

        // The sale's rows: started by the host, its result, its end with the status shown.
        std::vector<JournalRecord> sale;
        for (const JournalRecord& r : k.journal().records()) {
            if (r.paymentId != 0) {
                sale.push_back(r);
            }
            EXPECT_EQ((r.detail + r.raw + r.reference).find(kFullCardNumber), std::string::npos);
        }
        ASSERT_EQ(sale.size(), 3u);
        EXPECT_EQ(sale[0].kind, journal_kind::kPaymentStart);
        EXPECT_EQ(sale[0].detail, "card");
        EXPECT_EQ(sale[0].requester, "host");
        EXPECT_EQ(sale[0].amount, Money::fromUnits(25));
        EXPECT_FALSE(sale[0].reference.empty());
        EXPECT_EQ(sale[1].kind, journal_kind::kCardResult);
        EXPECT_EQ(sale[1].detail.rfind(row.journalled, 0), 0u) << sale[1].detail;
        EXPECT_EQ(sale[2].kind, journal_kind::kPaymentEnd);
        EXPECT_EQ(sale[2].detail, row.status);
        EXPECT_EQ(sale[2].amount.text(), row.credit);
        for (const std::string& line : k.log().lines()) {
            EXPECT_EQ(line.find(kFullCardNumber), std::string::npos) << line;
        }
        for (const auto& entry : k.store().list(store::kApp)) {
            if (entry.section == store::section::kPinPadSimulator) {
                continue;  // the steering value that hands the simulator the number
            }
            EXPECT_EQ(entry.value.find(kFullCardNumber), std::string::npos)
                << entry.section << "/" << entry.key;
        }
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
