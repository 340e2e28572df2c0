#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/journal/books.h"
#include "engine/journal/recovery.h"

namespace kestrix {
namespace {

namespace jk = journal_kind;

// Journal rows as the engine writes them, numbered in order.
class Rows {
public:
    Rows& add(std::string_view kind, std::int64_t payment, std::string device = {},
              std::int64_t minor = 0, std::string detail = {}, std::string requester = {},
              std::string raw = {}) {
        JournalRecord r;
        r.sequence = static_cast<std::int64_t>(m_rows.size()) + 1;
        r.kind = std::string(kind);
        r.paymentId = payment;
        r.device = std::move(device);
        r.amount = Money::fromMinor(minor);
        r.detail = std::move(detail);
        r.requester = std::move(requester);
        r.raw = std::move(raw);
        m_rows.push_back(std::move(r));
        return *this;
    }
    // A run of the engine (one that died unless an engine end row follows) and a payment in it.
    static Rows payment(std::int64_t id, std::string device, std::int64_t minor, std::string kind,
                        std::string requester = "host") {
        Rows r;
        r.add(jk::kEngineStart, 0, "engine");
        r.add(jk::kPaymentStart, id, std::move(device), minor, std::move(kind),
              std::move(requester));
        return r;
    }
    const std::vector<JournalRecord>& rows() const { return m_rows; }

private:
    std::vector<JournalRecord> m_rows;
};

// The rows' kinds; an unknown payout with its device, amount and payment.
std::vector<std::string> kinds(const std::vector<JournalEntry>& rows) {
    std::vector<std::string> out;
    for (const JournalEntry& e : rows) {
        out.push_back(e.kind != jk::kPayoutUnknown
                          ? std::string(e.kind)
                          : std::string(e.kind) + " " + e.device + " " + e.amount.text() + " #" +
                                std::to_string(e.paymentId));
    }
    return out;
}

// The restart's decisions: what is closed, what is recorded unknown, what the host is told.
TEST(Recovery, ClosesUnfinishedPaymentsAndReportsWhatTheHostAsked) {
    struct Case {
        const char* name;
        Rows rows;
        std::vector<std::string> appended = {};
        std::string report = {};  // the first report's detail, "" for none
        MailboxBefore before = {"", "0", "0", ""};
    };
    const std::vector<Case> cases = {
        {"a cash payment dies while accepting: its credit is owed",
         Rows::payment(7, "", 1250, "cash")
             .add(jk::kCredit, 7, "changer", 500, "", "", "54")
             .add(jk::kCredit, 7, "validator", 2000),
         {"payment interrupted", "restart report"},
         "request=Due asked=12.5 outcome=paid credit=25 paid=0 unknown=0",
         {"Insert Coins or Bills...", "12.5", "0", ""}},
        {"change partly paid, the rest never asked",
         Rows::payment(10, "", 20000, "change")
             .add(jk::kPayoutAsked, 10, "tubes", 20000)
             .add(jk::kPayoutConfirmed, 10, "tubes", 12000),
         {"payment interrupted", "restart report"},
         "request=Change asked=200 outcome=partly paid credit=0 paid=120 unknown=0",
         {"Dispensing change...", "0", "0", "200"}},
        {"a card sale without a result: nobody knows whether the card was charged",
         Rows::payment(11, "pinpad", 2500, "card"),
         {"payment interrupted", "restart report"},
         "request=DueCC asked=25 outcome=unknown credit=0 paid=0 unknown=0",
         {"PROCESSING...", "0", "25", ""}},
        {"an approved sale the host never saw end",
         Rows::payment(12, "pinpad", 2500, "card")
             .add(jk::kCardResult, 12, "pinpad", 2500, "approved, card 411111******1111"),
         {"payment interrupted", "restart report"},
         "request=DueCC asked=25 outcome=paid credit=25 paid=0 unknown=0",
         {"Credit Card Approved", "0", "25", ""}},
        {"a payout asked and never confirmed is unknown, with its device and amount",
         Rows::payment(3, "", 1000, "change").add(jk::kPayoutAsked, 3, "hopper2", 300),
         {"payout unknown hopper2 3 #3", "payment interrupted", "restart report"},
         "request=Change asked=10 outcome=unknown credit=0 paid=0 unknown=3"},
        {"the operator's own payment is closed but not put before the host",
         Rows::payment(13, "", 500, "cash", "operator").add(jk::kCredit, 13, "changer", 100),
         {"payment interrupted"},
         ""},
        {"ended, but the engine died before the mailbox showed the result",
         Rows::payment(14, "", 20000, "change")
             .add(jk::kPayoutAsked, 14, "tubes", 20000)
             .add(jk::kPayoutConfirmed, 14, "tubes", 20000)
             .add(jk::kPaymentEnd, 14, "engine", 0, "Change dispensed"),
         {"restart report"},
         "request=Change asked=200 outcome=paid credit=0 paid=200 unknown=0",
         {"Dispensing change...", "0", "0", "200"}},
        {"ended and shown, but the reset may wipe it before the host reads it",
         Rows::payment(15, "", 500, "cash")
             .add(jk::kCredit, 15, "changer", 500)
             .add(jk::kPaymentEnd, 15, "engine", 500, "Payment Completed; change 0; unpaid 0"),
         {"restart report"},
         "request=Due asked=5 outcome=paid credit=5 paid=0 unknown=0",
         {"Payment Completed", "0", "0", ""}},
        {"ended, and the host has blanked Status for its next request",
         Rows::payment(16, "", 500, "cash")
             .add(jk::kPaymentEnd, 16, "engine", 0, "Transaction Cancelled"),
         {},
         "",
         {"", "5", "0", ""}},
        {"a card's end before the mailbox showed it",
         Rows::payment(17, "pinpad", 2500, "card")
             .add(jk::kCardResult, 17, "pinpad", 2500, "denied, card 411111******1111")
             .add(jk::kPaymentEnd, 17, "pinpad", 0, "Credit Card Denied"),
         {"restart report"},
         "request=DueCC asked=25 outcome=not paid credit=0 paid=0 unknown=0",
         {"PROCESSING...", "0", "25", ""}},
        {"after a clean shutdown an ended payment is never reported",
         Rows::payment(18, "", 500, "change")
             .add(jk::kPaymentEnd, 18, "engine", 0, "Dispensing change...")
             .add(jk::kEngineEnd, 0, "engine")},
        {"a report not yet acknowledged is published again, nothing appended",
         Rows::payment(19, "", 20000, "change")
             .add(jk::kPayoutAsked, 19, "tubes", 20000)
             .add(jk::kPaymentInterrupted, 19, "engine")
             .add(jk::kPayoutUnknown, 19, "tubes", 20000)
             .add(jk::kRestartReport, 19, "engine")
             .add(jk::kEngineEnd, 0, "engine"),
         {},
         "request=Change asked=200 outcome=unknown credit=0 paid=0 unknown=200"},
        {"an acknowledged report is over", Rows::payment(20, "", 500, "cash")
                                               .add(jk::kPaymentInterrupted, 20, "engine")
                                               .add(jk::kRestartReport, 20, "engine")
                                               .add(jk::kReportAcknowledged, 20, "engine")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const recovery::Plan plan = recovery::plan(c.rows.rows(), c.before);
        EXPECT_EQ(kinds(plan.rows), c.appended);
        ASSERT_EQ(plan.reports.empty(), c.report.empty());
        if (!c.report.empty()) {
            EXPECT_EQ(plan.reports.front().detail(), c.report);
        }
        for (const JournalEntry& row : plan.rows) {
            if (row.kind == jk::kPaymentInterrupted) {
                // What the host must settle is the report's credit, in the row's own amount.
                EXPECT_EQ(row.amount,
                          books::restartReport(books::paymentBooks(c.rows.rows())).credit);
            }
        }
    }
}

TEST(Totals, MoneyPerDeviceWithRoutingTubesAndCassette) {
    Rows r;
    r.add(jk::kTubeLevels, 0, "changer", 32000, "0.5x40 1x40 2x30 5x20 10x10")
        .add(jk::kRefill, 0, "dispenser", 0, "cassette OK, status OK")
        .add(jk::kPayoutConfirmed, 1, "dispenser", 5000)  // before the chosen point
        .add(jk::kPaymentStart, 2, "", 1250, "cash", "host")
        .add(jk::kCredit, 2, "changer", 1000, "", "", "54")  // routed to the tubes
        .add(jk::kCredit, 2, "changer", 500, "", "", "43")   // to the cash box
        .add(jk::kCredit, 2, "validator", 2000)
        .add(jk::kUncredited, 2, "validator", 2000)
        .add(jk::kPayoutConfirmed, 2, "tubes", 750)
        .add(jk::kPayoutConfirmed, 2, "dispenser", 5000)
        .add(jk::kUnpaid, 2, "", 250)
        .add(jk::kPaymentEnd, 2, "", 3500, "Payment Completed")
        .add(jk::kPaymentStart, 3, "pinpad", 2500, "card", "host")
        .add(jk::kCardResult, 3, "pinpad", 2500, "approved, card ************1111")
        .add(jk::kPaymentInterrupted, 4, "engine", 1500)
        .add(jk::kPayoutUnknown, 4, "hopper1", 300);
    std::vector<JournalRecord> rows = r.rows();
    rows[9].count = 1;  // one bill of 50
    rows[2].count = 1;
    const books::Totals t = books::totals(rows, 3);
    EXPECT_EQ(t.fromSequence, 4);
    EXPECT_EQ(t.inserted(), Money::fromUnits(55));
    EXPECT_EQ(t.notCredited, Money::fromUnits(20));
    EXPECT_EQ(t.toTubes, Money::fromUnits(10));
    EXPECT_EQ(t.coinsToCashBox, Money::fromUnits(5));
    EXPECT_EQ(t.cashBox(), Money::fromUnits(45));
    EXPECT_EQ(t.paidOut(), Money::fromMinor(5750));
    EXPECT_EQ(t.devices.at("dispenser").coinsOrBillsOut, 1);
    EXPECT_EQ(t.unpaid, Money::fromMinor(250));
    EXPECT_EQ(t.interrupted, Money::fromUnits(15));
    EXPECT_EQ(t.unknown, Money::fromUnits(3));
    EXPECT_EQ(t.cardApproved, Money::fromUnits(25));
    EXPECT_EQ(t.cashPayments, 1);
    EXPECT_EQ(t.cardPayments, 1);
    // 320 read, 10 routed in, 7.50 paid from them.
    EXPECT_EQ(t.tubesHeld(), Money::fromMinor(32250));
    EXPECT_EQ(t.billsSinceRefill, 2);
}

}  // namespace
}  // namespace kestrix
