#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "support/kiosk.h"

namespace kestrix {
namespace {

using test::expectBooksBalance;
using test::Kiosk;
using test::mdbReply;
using test::Till;
namespace mb = store::mailbox;

// (What the console shows during a payment is the console's test.)
TEST(CashPayment, AnExactPaymentInCoins) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    const Till before = k.till();
    k.store().clearWrites();
    ASSERT_TRUE(k.requestPayment("12.5"));
    EXPECT_EQ(k.mailboxWrites(mb::kKsxError, "0"), 1);
    EXPECT_EQ(k.mailboxWrites(mb::kChangeDispensed, ""), 1);
    // Coin types 1-5 (every type paid out by hand), bill types 1-5.
    EXPECT_EQ(k.changer().coinEnableMask(), 0x001F);
    EXPECT_EQ(k.changer().manualDispenseMask(), 0xFFFF);
    EXPECT_EQ(k.validator().billEnableMask(), 0x001F);

    ASSERT_TRUE(k.insertCoin(5));  // 10
    ASSERT_TRUE(k.insertCoin(3));  // 2
    ASSERT_TRUE(k.insertCoin(1));  // 0.5
    ASSERT_TRUE(k.runUntilIdle(30));

    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "");
    EXPECT_NEAR(leadingNumber(k.mailbox(mb::kTubes)), k.tubesValue(), 1e-4);
    EXPECT_EQ(k.console().text("statusDisplay"), "");
    expectBooksBalance(k, before, 12.5, 0);
}

TEST(CashPayment, ChangeComesFromTheBillDispenserThenTheTubesThenTheHoppers) {
    struct Row {
        const char* name;
        int dispenserBill;  // the bill value the payout believes the dispenser holds
        int tubeCoins;      // coins of 0.5 in the tubes (others empty), or -1 as stocked
        int bill;           // console bill type inserted against 12.5
        const char* change;
        int billsOut, halvesOut, twosOut, fivesFromHopper, onesFromHopper;
        bool changerSilent = false;  // from the start: its tubes are never asked
    };
    const Row rows[] = {
        {"7.5: one bill of 5 and 2.5 in coins", 5, -1, 1, "7.5", 1, 1, 1, 0, 0},
        {"7.5: too little for bills of 50", 50, -1, 1, "7.5", 0, 1, 1, 0, 0},
        {"37.5: the tubes hold 1.5, the hoppers pay 36", 50, 3, 2, "37.5", 0, 3, 0, 7, 1},
        {"7.5 without the changer: the hoppers pay 7", 50, -1, 1, "7", 0, 0, 0, 1, 2, true},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        sim::KioskProfile profile = sim::defaultProfile();
        profile.dispenser.billValue = r.dispenserBill;
        Kiosk k(profile);
        // The dispenser is set up for its 50s; the console then says what the bills are worth.
        k.set(store::section::kBillDispenser, "BillDispTypeValue", "50");
        if (r.changerSilent) {
            k.control("fault changer silent on");
        }
        for (int type = 1; type <= 5 && r.tubeCoins >= 0; ++type) {
            k.models().setTube(type, type == 1 ? r.tubeCoins : 0);
        }
        ASSERT_TRUE(k.start());
        k.console().setText("bDispType", std::to_string(r.dispenserBill));
        const Till before = k.till();
        k.store().clearWrites();
        ASSERT_TRUE(k.requestPayment("12.5"));
        ASSERT_TRUE(k.insertBill(r.bill));
        ASSERT_TRUE(k.runUntilIdle(120));

        EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
        EXPECT_EQ(k.mailbox(mb::kChangeDispensed), r.change);
        const Till after = k.till();
        EXPECT_EQ(after.billsOut - before.billsOut, r.billsOut);
        EXPECT_EQ(after.coinsOut[0] - before.coinsOut[0], r.halvesOut);
        EXPECT_EQ(after.coinsOut[2] - before.coinsOut[2], r.twosOut);
        EXPECT_EQ(after.hopper2Out - before.hopper2Out, r.fivesFromHopper);
        EXPECT_EQ(after.hopper1Out - before.hopper1Out, r.onesFromHopper);
        EXPECT_NEAR(leadingNumber(k.mailbox(mb::kTubes)), r.changerSilent ? 0 : k.tubesValue(),
                    1e-4);
        EXPECT_GE(k.mailboxWrites(mb::kStatus, "Dispensing change..."), 1);
        expectBooksBalance(k, before, 12.5, k.billValue(r.bill - 1) - 12.5);
    }
}

TEST(CashPayment, ARemovedCoinCassetteCancelsThePaymentAndHidesTheTubes) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    k.control("fault changer cassette-removed on");
    k.store().clearWrites();
    k.hostWrite(mb::kDue, "12.5");
    ASSERT_TRUE(k.runUntilIdle(30));

    EXPECT_EQ(k.mailboxWrites(mb::kCancel, "1"), 1);  // the start asks the monitor to cancel
    EXPECT_EQ(k.mailbox(mb::kStatus), "Transaction Cancelled");
    EXPECT_EQ(k.mailbox(mb::kTubes), "0");
    EXPECT_EQ(k.console().text("tubesAmount"), "0");
    EXPECT_EQ(k.setting(store::section::kCoinAcceptor, "tubeCoinQty1"), "0");

    // Change asked for meanwhile skips the tubes and comes from the hoppers.
    const Till before = k.till();
    k.hostWrite(mb::kChange, "6");
    ASSERT_TRUE(k.runUntil([&] { return k.mailbox(mb::kChange).empty(); }, 60));
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "6");
    EXPECT_EQ(k.till().coinsOut, before.coinsOut);
}

TEST(CashPayment, ASilentValidatorIsRecoveredOrEndsThePaymentWhenItStaysSilent) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    Till before = k.till();
    ASSERT_TRUE(k.requestPayment("50"));
    int resets = 0;
    k.mdbTap().onWrite = [&resets](std::string_view b) { resets += b == "\x30\x01" ? 1 : 0; };
    k.control("fault validator silent on");
    k.mdbTap().at(k.now() + 4, [&] { k.control("fault validator silent off"); });
    k.runFor(10);
    // Recovery POLLs the silent validator (a RESET would drop what it still holds) and resets it
    // once it answers.
    EXPECT_EQ(resets, 1);
    EXPECT_EQ(k.mailbox(mb::kStatus), "Insert Coins or Bills...");
    EXPECT_EQ(k.validator().billEnableMask(), 0x001F);  // enabled again from the store
    ASSERT_TRUE(k.insertBill(2));                       // 50
    ASSERT_TRUE(k.runUntilIdle(60));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
    expectBooksBalance(k, before, 50, 0);

    before = k.till();
    ASSERT_TRUE(k.requestPayment("50"));
    ASSERT_TRUE(k.insertCoin(4));  // 5
    k.control("fault validator silent on");
    const double t0 = k.now();
    const auto reads = k.mdbPort().reads();
    ASSERT_TRUE(k.runUntilIdle(600));
    EXPECT_GT(k.now() - t0, 150.0);  // 301 tries, each with its half-second wait...
    EXPECT_GE(k.mdbPort().reads() - reads, 301 * 50);  // ... and its 50 reads
    EXPECT_EQ(k.mailbox(mb::kStatus), "Error: Bill Validator");
    EXPECT_EQ(k.mailbox(mb::kCredit), "5");
    expectBooksBalance(k, before, 5, 0);
    // The next start initialises the equipment: the validator is found absent.
    k.hostWrite(mb::kDue, "1");
    ASSERT_TRUE(k.runUntil([&] { return k.paymentRunning(); }, 600));
    EXPECT_EQ(k.messageBox().shown().at(0).text, "Check Bill Validator Connection!");
}

TEST(CashPayment, EveryEventOfAChangerReplyIsRead) {
    const std::pair<std::vector<int>, double> rows[] = {
        {{0x40, 0x00}, 0.5},                  // type 1 to the cash box
        {{0x41, 0x29}, 1},                    // type 2 to its tube
        {{0x52, 0x1E}, 2},                    // routing 01, MDB type 2: console type 3
        {{0x60, 0x00}, 0},                    // routing 10: not a deposit
        {{0x70, 0x00}, 0},                    // rejected
        {{0x0B}, 0},                          // the changer was reset
        {{0x41, 0x29, 0x0B}, 1},              // a deposit, then a status
        {{0x0B, 0x41, 0x29}, 1},              // the reset report in front of a coin
        {{0x41, 0x29, 0x52, 0x1F, 0x02}, 3},  // two coins and "payout busy"
        {{0x91, 0x1E, 0x40, 0x00}, 0.5},      // coins paid by hand, then a deposit
    };
    Kiosk k;
    ASSERT_TRUE(k.start());
    ASSERT_TRUE(k.requestPayment("100"));
    std::deque<std::string> replies;
    k.mdbTap().answer = [&replies](std::string_view b, double) -> std::optional<std::string> {
        if (b != std::string_view("\x0B\x01\x0B\x00", 4) || replies.empty()) {
            return std::nullopt;
        }
        const std::string r = replies.front();
        replies.pop_front();
        return r;
    };
    for (const auto& [bytes, credited] : rows) {
        SCOPED_TRACE(mdbReply(bytes));
        const double before = k.engine().state().creditAmount.toDouble();
        replies.push_back(mdbReply(bytes));
        ASSERT_TRUE(k.runUntil([&] { return replies.empty(); }, 5));
        k.runFor(0.5);
        EXPECT_DOUBLE_EQ(k.engine().state().creditAmount.toDouble() - before, credited);
    }
}

// Answers the validator's POLL (two words) with the scripted replies as they fall due.
void scriptValidatorPolls(Kiosk& k, std::deque<std::pair<double, std::string>>& replies) {
    k.mdbTap().answer = [&replies, pending = false](
                            std::string_view b, double now) mutable -> std::optional<std::string> {
        if (b == "\x33\x01" && !replies.empty() && replies.front().first <= now) {
            pending = true;
            return std::string();
        }
        if (b != std::string_view("\x33\x00", 2) || !pending) {
            return std::nullopt;
        }
        pending = false;
        const std::string r = replies.front().second;
        replies.pop_front();
        return r;
    };
}

TEST(CashPayment, ABillReportedTwiceWithinTwoSecondsIsCreditedOnce) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    ASSERT_TRUE(k.requestPayment("500"));
    const double t0 = k.now();
    const std::string stacked = mdbReply({0x80});  // "8000 8001 ": type 1, 20
    std::deque<std::pair<double, std::string>> replies{
        {t0, stacked},
        {t0 + 1.5, stacked},                 // the same bill again: not credited
        {t0 + 4.0, stacked},                 // a new bill
        {t0 + 6.5, mdbReply({0x09})},        // a status byte alone
        {t0 + 9.0, mdbReply({0x81, 0x09})},  // type 2 (50) with a status behind it
    };
    scriptValidatorPolls(k, replies);
    std::vector<double> credits;
    for (double at : {1.0, 3.5, 6.0, 8.5, 11.0}) {
        k.runUntil([&] { return k.now() >= t0 + at; }, 20);
        credits.push_back(k.engine().state().creditAmount.toDouble());
    }
    EXPECT_EQ(credits, (std::vector<double>{20, 20, 40, 40, 90}));

    // Across midnight the guard counts the time that really passed: a genuine bill 2.5 s after
    // one stacked just before midnight is credited.
    k.clock().setDeadline(-1);
    k.clock().advance(86397 - k.clock().secondsSinceMidnight());
    const double m = k.now() + 3;  // midnight
    replies = {{m - 1.5, stacked}, {m + 1, stacked}};
    k.runUntil([&] { return replies.empty(); }, 30);
    k.runFor(1);
    EXPECT_EQ(k.engine().state().creditAmount.text(), "130");
}

TEST(CashPayment, ACancelArrivingWhileChangeIsPaidPaysNothingTwice) {
    for (const bool completed : {true, false}) {
        SCOPED_TRACE(completed ? "completed payment" : "cancelled payment");
        Kiosk k;
        ASSERT_TRUE(k.start());
        const Till before = k.till();
        k.store().clearWrites();
        std::vector<int> payouts;
        k.onPayout([&](int units) {
            payouts.push_back(units);
            k.hostWrite(mb::kCancel, "1");
        });
        ASSERT_TRUE(k.requestPayment(completed ? "12.5" : "50"));
        ASSERT_TRUE(k.insertBill(1));  // 20
        if (!completed) {
            k.hostWrite(mb::kCancel, "1");
        }
        ASSERT_TRUE(k.runUntilIdle(60));
        EXPECT_EQ(payouts.size(), 1U);
        EXPECT_EQ(k.mailboxWrites(mb::kStatus, "Transaction Cancelled"), completed ? 0 : 1);
        EXPECT_EQ(k.mailbox(mb::kCancel), "");
        EXPECT_EQ(k.mailbox(mb::kChangeDispensed), completed ? "7.5" : "20");
        expectBooksBalance(k, before, completed ? 12.5 : 0, completed ? 7.5 : 20);
    }
}

TEST(CashPayment, ATubePayoutIsAskedForInCommandsOfAtMost200Units) {
    Kiosk k;
    k.set(store::section::kBillDispenser, "BDE", "0");
    ASSERT_TRUE(k.start());
    std::vector<int> amounts;
    k.onPayout([&amounts](int units) { amounts.push_back(units); });
    const Till before = k.till();
    k.hostWrite(mb::kChange, "150");  // 300 units at a scaling factor of 2
    ASSERT_TRUE(k.runUntil([&] { return k.mailbox(mb::kChange).empty(); }, 600));
    EXPECT_EQ(amounts, (std::vector<int>{200, 100}));
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "150");
    EXPECT_NEAR(k.paidOut(before, k.till()), 150, 1e-9);
}

TEST(CashPayment, RunTimeErrorsEndThePaymentAndLeaveNothingAccepting) {
    // (The MDB port vanishing mid-payment is the fault matrix's.)
    Kiosk k;
    ASSERT_TRUE(k.start());
    // The validator does not answer BILL TYPE after the coin types were enabled: the payment
    // does not start, and the changer is settled and reset so that it takes no coin.
    k.control("fault validator silent on");
    k.hostWrite(mb::kDue, "12.5");
    k.runFor(15);
    EXPECT_EQ(k.mailbox(mb::kStatus), "Error: Bill Validator");
    EXPECT_EQ(k.mailbox(mb::kDue), "0");  // not taken up again and again
    EXPECT_FALSE(k.paymentRunning());
    EXPECT_TRUE(k.console().enabled("enablePayment"));
    EXPECT_EQ(k.changer().coinEnableMask(), 0);
    EXPECT_FALSE(k.kiosk().insertCoin(5).ok);
    k.control("fault validator silent off");
    // A bill type flag missing from the store: the box as the console loaded it decides.
    k.store().erase(store::kApp, store::section::kBillValidator, "BillType7_Enabled");
    const Till before = k.till();
    ASSERT_TRUE(k.requestPayment("12.5"));
    EXPECT_EQ(k.mailbox(mb::kKsxError), "0");
    ASSERT_TRUE(k.insertBill(1));
    ASSERT_TRUE(k.runUntilIdle(60));
    expectBooksBalance(k, before, 12.5, 7.5);

    // The port goes while the validator is being recovered: still a port error for the host.
    ASSERT_TRUE(k.requestPayment("50"));
    k.control("fault validator silent on");
    k.mdbTap().at(k.now() + 3, [&k] { k.mdbPort().unplug(); });
    ASSERT_TRUE(k.runUntilIdle(60));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Error: Bill Validator");
    EXPECT_EQ(k.mailbox(mb::kKsxError), "1");
}

}  // namespace
}  // namespace kestrix
