#include "request_tracker.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ksxctl {
namespace {

// One reading of the mailbox at a moment after the request was written.
struct Step {
    double seconds;
    MailboxReading reading;
    Outcome expected;
};

struct Scenario {
    const char* name;
    RequestKind kind;
    double amount;
    std::vector<Step> steps;
    std::string reason;  // of the last step
};

MailboxReading cash(std::string due, std::string status, std::string credit = "0",
                    std::string ksxError = "0") {
    MailboxReading r;
    r.due = std::move(due);
    r.status = std::move(status);
    r.credit = std::move(credit);
    r.ksxError = std::move(ksxError);
    return r;
}

MailboxReading card(std::string dueCC, std::string status, std::string credit = "0",
                    std::string reference = "") {
    MailboxReading r;
    r.dueCC = std::move(dueCC);
    r.status = std::move(status);
    r.credit = std::move(credit);
    r.referenceCC = std::move(reference);
    return r;
}

MailboxReading payout(std::string change, std::string status, std::string dispensed = "") {
    MailboxReading r;
    r.change = std::move(change);
    r.status = std::move(status);
    r.changeDispensed = std::move(dispensed);
    return r;
}

MailboxReading restarted(MailboxReading r) {
    r.interrupted = "42";
    r.interruptedRequest = "Change";
    r.interruptedAmount = "200";
    r.interruptedOutcome = "partly paid";
    r.interruptedCredit = "0";
    r.interruptedPaid = "120";
    r.interruptedUnknown = "0";
    return r;
}

constexpr Outcome P = Outcome::Pending;
constexpr Outcome S = Outcome::Succeeded;
constexpr Outcome F = Outcome::Failed;
const char* const kInsert = "Insert Coins or Bills...";

const std::vector<Scenario>& scenarios() {
    static const std::vector<Scenario> all = {
        {"cash completed; \"Due\" = \"0\" shortly before the final status",
         RequestKind::Cash,
         12.5,
         {{0.1, cash("12.5", ""), P},
          {0.6, cash("12.5", kInsert), P},
          {3.0, cash("12.5", kInsert, "20"), P},
          {5.0, cash("0", kInsert, "20"), P},
          {5.1, cash("0", "Payment Completed"), S}},
         ""},
        {"cash start copies a card's error line into Status: not this payment's result",
         RequestKind::Cash,
         5,
         {{0.5, cash("5", "Error: TIMEOUT Código = 05"), P},
          {0.7, cash("5", kInsert), P},
          {2.0, cash("0", "Transaction Cancelled"), F}},
         "Transaction Cancelled"},
        {"cash device failure",
         RequestKind::Cash,
         5,
         {{1, cash("5", kInsert, "2"), P}, {2, cash("0", "Error: Coin Acceptor", "2"), F}},
         "Error: Coin Acceptor"},
        {"cash broken off by a port error: no status follows \"Due\" = \"0\"",
         RequestKind::Cash,
         5,
         {{1, cash("5", kInsert), P},
          {2, cash("0", kInsert, "0", "1"), P},
          {3.9, cash("0", kInsert, "0", "1"), P},
          {4.1, cash("0", kInsert, "0", "1"), F}},
         "the cash payment ended without a result (KSX_Error is 1)"},
        {"a \"Due\" = \"0\" that the poll writes over is not the end; the grace starts again",
         RequestKind::Cash,
         5,
         {{1, cash("0", kInsert), P},
          {2.5, cash("5", kInsert), P},
          {3.5, cash("0", kInsert), P},
          {5.0, cash("0", kInsert), P},
          {5.6, cash("0", kInsert), F}},
         "the cash payment ended without a result"},
        {"an engine restart while paying out: the restart report is the outcome",
         RequestKind::Change,
         200,
         {{1, payout("200", "Dispensing change..."), P},
          {9, restarted(payout("", "Payment Interrupted")), F}},
         "the engine restarted while serving the request; its restart report (payment 42): "
         "Change 200 partly paid, credit 0, paid 120, unknown 0; once settled: ksxctl set "
         "Status Interrupted \"\""},

        {"card approved for the amount charged",
         RequestKind::Card,
         25,
         {{0.1, card("25", ""), P},
          {0.9, card("25", "", "0", "001A2B3C4D5E_250314093015"), P},
          {1.2, card("25", "INSERTE TARJETA", "0", "001A2B3C4D5E_250314093015"), P},
          {4.0, card("25", "Credit Card Approved", "25"), P},
          {4.0, card("0", "Credit Card Approved", "25"), S}},
         ""},
        {"card start copies the earlier approval into Status; the attempt gives no result",
         RequestKind::Card,
         25,
         {{0.8, card("25", "Credit Card Approved", "25"), P},
          {0.9, card("25", "Credit Card Approved", "0"), P},
          {1.0, card("0", "Credit Card Approved", "0"), F}},
         "the card payment ended without a result"},
        {"card request dropped (pin pad disabled): nothing written but \"DueCC\"",
         RequestKind::Card,
         25,
         {{0.5, card("25", ""), P}, {0.8, card("0", ""), F}},
         "the card payment ended without a result"},
        {"card denied",
         RequestKind::Card,
         25,
         {{1, card("25", "PROCESANDO"), P}, {3, card("0", "Credit Card Denied"), F}},
         "Credit Card Denied"},

        {"payout in full; a stale \"Change dispensed\" before it is not taken for it",
         RequestKind::Change,
         7.5,
         {{0.1, payout("7.5", "Change dispensed", "3"), P},
          {0.6, payout("7.5", "Dispensing change...", ""), P},
          {3.0, payout("", "Dispensing change...", "7.5"), P},
          {3.1, payout("", "Change dispensed", "7.5"), S}},
         ""},
        {"payout short",
         RequestKind::Change,
         7.5,
         {{1, payout("7.5", "Dispensing change..."), P},
          {2, payout("", "Change dispensed", "5"), F}},
         "change short: 5 of 7.5 paid"},
    };
    return all;
}

TEST(RequestTracker, FollowsEachRequestToItsOwnResult) {
    for (const Scenario& s : scenarios()) {
        SCOPED_TRACE(s.name);
        RequestTracker tracker(s.kind, s.amount);
        for (std::size_t i = 0; i < s.steps.size(); ++i) {
            EXPECT_EQ(tracker.observe(s.steps[i].reading, s.steps[i].seconds), s.steps[i].expected)
                << "step " << i;
        }
        EXPECT_EQ(tracker.reason(), s.reason);
    }
}

TEST(RequestTracker, TakenOnlyOnceTheEngineHasWritten) {
    RequestTracker cashTracker(RequestKind::Cash, 5);
    cashTracker.observe(cash("5", ""), 0.2);
    EXPECT_FALSE(cashTracker.taken());
    cashTracker.observe(cash("5", kInsert), 0.7);
    EXPECT_TRUE(cashTracker.taken());

    RequestTracker cardTracker(RequestKind::Card, 5);
    cardTracker.observe(card("5", ""), 0.2);
    EXPECT_FALSE(cardTracker.taken());
    cardTracker.observe(card("5", "", "0", "AABBCCDDEEFF_250101000000"), 0.7);
    EXPECT_TRUE(cardTracker.taken()) << "the reference is written before any status";
}

TEST(HostAmounts, OnlyPlainPositiveDecimals) {
    for (const char* good : {"12", "12.5", "0.5", "0.01", "007", "999999999999999"}) {
        EXPECT_TRUE(validAmount(good)) << good;
    }
    for (const char* bad : {"", "0", "0.0", "-5", "+5", "1e3", "12.", ".", "abc", "1.2.3", " 5",
                            "5 ", "5,5", "1234567890123456", "nan", "inf", "0x10"}) {
        EXPECT_FALSE(validAmount(bad)) << '"' << bad << '"';
    }
}

TEST(HostAmounts, PendingRequestsBlockANewOne) {
    MailboxReading r;
    EXPECT_EQ(pendingRequest(r), "");
    r.due = "0";
    r.dueCC = "abc";  // not a request: the engine reads it as 0
    r.change = "";
    EXPECT_EQ(pendingRequest(r), "");
    r.change = "3";
    EXPECT_EQ(pendingRequest(r), "Change");
    r.dueCC = "25";
    EXPECT_EQ(pendingRequest(r), "DueCC");
    r.due = "12.5";
    EXPECT_EQ(pendingRequest(r), "Due");
}

}  // namespace
}  // namespace ksxctl
