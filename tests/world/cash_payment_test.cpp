#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "cash_kiosk.h"
#include "engine/formulas.h"
#include "engine/settings/layout.h"

namespace kestrix {
namespace {

using test::CashKiosk;
using test::mdbReplyText;
using test::Till;
namespace mb = store::mailbox;

constexpr double kMoneyEpsilon = 1e-9;

// The books of one payment: the engine credited exactly what the models took in (kept plus the
// change it owed), reported in ChangeDispensed exactly what the models paid out, and never paid
// more than it owed.
void expectBooksBalance(CashKiosk& k, const Till& before, double kept, double owed) {
    const Till after = k.till();
    const double inserted = k.inserted(before, after);
    const double paid = k.paidOut(before, after);
    const double reported = leadingNumber(k.mailbox(mb::kChangeDispensed));
    EXPECT_NEAR(inserted, kept + owed, kMoneyEpsilon) << "credited differs from inserted";
    EXPECT_NEAR(paid, reported, kMoneyEpsilon) << "ChangeDispensed differs from what was paid";
    EXPECT_GE(owed - reported, -kMoneyEpsilon) << "paid more than owed";
}

double simTubesValue(CashKiosk& k) {
    double v = 0;
    for (int type = 0; type < 16; ++type) {
        v += k.kiosk().changer().tubeCount(type) * k.coinValue(type);
    }
    return v;
}

// Index of the first mailbox write of `key` = `value` at or after `from` in the store's write
// log, or -1.
long writeIndex(CashKiosk& k, std::string_view key, std::string_view value, long from = 0) {
    const std::string entry = "Status/" + std::string(key) + "=" + std::string(value);
    const auto& w = k.kiosk().store().writes();
    const auto it = std::find(w.begin() + from, w.end(), entry);
    return it == w.end() ? -1 : it - w.begin();
}

// The validator POLL goes out as two words; answers the second one with the next scripted reply
// that is due, and lets the rest through.
void scriptValidatorPolls(CashKiosk& k, std::deque<std::pair<double, std::string>>& replies) {
    k.mdbTap().answer = [&replies, pending = false](
                            std::string_view bytes,
                            double now) mutable -> std::optional<std::string> {
        const bool due = !replies.empty() && replies.front().first <= now;
        if (bytes == std::string_view("\x33\x01", 2) && due) {
            pending = true;
            return std::string();
        }
        if (bytes == std::string_view("\x33\x00", 2) && pending) {
            pending = false;
            std::string reply = replies.front().second;
            replies.pop_front();
            return reply;
        }
        return std::nullopt;
    };
}

TEST(CashPayment, AnExactPaymentInCoins) {
    CashKiosk k;
    ASSERT_TRUE(k.start());
    k.kiosk().store().clearWrites();
    const Till before = k.till();

    ASSERT_TRUE(k.requestPayment("12.5"));
    // The start's mailbox writes, in order.
    const long error = writeIndex(k, mb::kKsxError, "0");  // after the host's own write of Due
    const long due = writeIndex(k, mb::kDue, "12.5", error);
    const long credit = writeIndex(k, mb::kCredit, "0", error);
    const long change = writeIndex(k, mb::kChangeDispensed, "", error);
    ASSERT_GE(error, 0);
    EXPECT_LT(error, due);
    EXPECT_LT(due, credit);
    EXPECT_LT(credit, change);
    // Acceptance as the console's boxes say (coin types 1-5, every type paid out by hand; bill
    // types 1-5, none held in escrow), the device tabs locked, the button a stop button.
    EXPECT_EQ(k.kiosk().changer().coinEnableMask(), 0x001F);
    EXPECT_EQ(k.kiosk().changer().manualDispenseMask(), 0xFFFF);
    EXPECT_EQ(k.kiosk().validator().billEnableMask(), 0x001F);
    EXPECT_EQ(k.kiosk().validator().escrowEnableMask(), 0x0000);
    EXPECT_EQ(k.engine().state().commandBytes, (std::array<int, 5>{0x00, 0x1F, 0x00, 0x00, 0x53}));
    EXPECT_FALSE(k.console().enabled("SSTab1"));
    EXPECT_EQ(k.console().text("enablePayment"), "Stop Payment...");
    EXPECT_TRUE(k.console().enabled("enablePayment"));
    EXPECT_EQ(k.console().text("dueDisplay"), "Amount Due: $12.50");

    ASSERT_TRUE(k.insertCoin(5));  // 10
    EXPECT_EQ(k.mailbox(mb::kCredit), "10");
    EXPECT_EQ(k.console().text("creditDisplay"), "$10.00");
    ASSERT_TRUE(k.insertCoin(3));  // 2
    ASSERT_TRUE(k.insertCoin(1));  // 0.5
    ASSERT_TRUE(k.runUntilIdle(30));

    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
    EXPECT_EQ(k.mailbox(mb::kDue), "0");
    EXPECT_EQ(k.mailbox(mb::kCredit), "0");
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "");
    EXPECT_NEAR(leadingNumber(k.mailbox(mb::kTubes)), simTubesValue(k), 1e-4);
    EXPECT_EQ(k.console().text("enablePayment"), "Pay");
    EXPECT_TRUE(k.console().enabled("SSTab1"));
    EXPECT_EQ(k.console().text("statusDisplay"), "");
    EXPECT_EQ(k.console().text("creditDisplay"), "$0.00");
    EXPECT_EQ(k.mailboxWrites(mb::kStatus, "Dispensing change..."), 0);
    expectBooksBalance(k, before, 12.5, 0);
}

TEST(CashPayment, ChangeComesFromTheBillDispenserFirstThenTheTubes) {
    // A dispenser of bills of 5: the 7.5 owed on a bill of 20 is one bill and 2.5 in coins.
    sim::KioskProfile fives = sim::defaultProfile();
    fives.dispenser.billValue = 5;
    CashKiosk k(fives);
    k.kiosk().store().set(store::kApp, store::section::kBillDispenser, "BillDispTypeValue", "50");
    ASSERT_TRUE(k.start());
    ASSERT_EQ(k.console().text("bdStatus"), "OK");
    k.console().setText("bDispType", "5");
    const Till before = k.till();
    k.kiosk().store().clearWrites();

    ASSERT_TRUE(k.requestPayment("12.5"));
    ASSERT_TRUE(k.insertBill(1));  // 20
    ASSERT_TRUE(k.runUntilIdle(60));

    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "7.5");
    EXPECT_EQ(k.mailbox(mb::kCredit), "0");
    EXPECT_EQ(k.mailbox(mb::kDue), "0");
    const Till after = k.till();
    EXPECT_EQ(after.billsOut - before.billsOut, 1);
    EXPECT_EQ(after.coinsOut[2] - before.coinsOut[2], 1);  // a 2
    EXPECT_EQ(after.coinsOut[0] - before.coinsOut[0], 1);  // and a 0.5
    EXPECT_EQ(k.mailboxWrites(mb::kStatus, "Dispensing change..."), 2);
    EXPECT_NEAR(leadingNumber(k.mailbox(mb::kTubes)), simTubesValue(k), 1e-4);
    expectBooksBalance(k, before, 12.5, 7.5);

    // The default dispenser holds bills of 50: 7.5 is too little for it and all comes in coins.
    CashKiosk d;
    ASSERT_TRUE(d.start());
    const Till b2 = d.till();
    ASSERT_TRUE(d.requestPayment("12.5"));
    ASSERT_TRUE(d.insertBill(1));
    ASSERT_TRUE(d.runUntilIdle(60));
    EXPECT_EQ(d.mailbox(mb::kChangeDispensed), "7.5");
    EXPECT_EQ(d.till().billsOut, b2.billsOut);
    expectBooksBalance(d, b2, 12.5, 7.5);
}

TEST(CashPayment, ChangeThatEmptiesTheTubesFallsThroughToTheHoppers) {
    CashKiosk k;
    for (int type = 1; type <= 5; ++type) {
        k.kiosk().models().setTube(type, type == 1 ? 3 : 0);  // 1.5 in the tubes
    }
    ASSERT_TRUE(k.start());
    ASSERT_EQ(k.mailbox(mb::kTubes), "1.5");
    const Till before = k.till();

    ASSERT_TRUE(k.requestPayment("12.5"));
    ASSERT_TRUE(k.insertBill(2));  // 50: 37.5 owed, too little for the dispenser's 50s
    ASSERT_TRUE(k.runUntilIdle(120));

    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "37.5");
    const Till after = k.till();
    EXPECT_EQ(after.coinsOut[0] - before.coinsOut[0], 3);  // the tubes' 1.5
    EXPECT_EQ(after.hopper2Out - before.hopper2Out, 7);    // 35 in 5s
    EXPECT_EQ(after.hopper1Out - before.hopper1Out, 1);    // and a 1
    EXPECT_EQ(k.mailbox(mb::kTubes), "0");
    EXPECT_EQ(k.console().text("hDispensed"), "36");
    expectBooksBalance(k, before, 12.5, 37.5);
}

TEST(CashPayment, AHostCancelGivesTheMoneyBackOrKeepsIt) {
    struct Row {
        const char* cancel;
        const char* changeDispensed;
        double kept;
        double owed;
    };
    for (const Row& r : {Row{"1", "30", 0, 30}, Row{"2", "", 30, 0}}) {
        SCOPED_TRACE(r.cancel);
        CashKiosk k;
        ASSERT_TRUE(k.start());
        const Till before = k.till();
        ASSERT_TRUE(k.requestPayment("50"));
        ASSERT_TRUE(k.insertCoin(5));  // 10
        ASSERT_TRUE(k.insertBill(1));  // 20
        ASSERT_EQ(k.mailbox(mb::kCredit), "30");
        k.hostWrite(mb::kCancel, r.cancel);
        ASSERT_TRUE(k.runUntilIdle(60));

        EXPECT_EQ(k.mailbox(mb::kStatus), "Transaction Cancelled");
        EXPECT_EQ(k.mailbox(mb::kCredit), "0");
        EXPECT_EQ(k.mailbox(mb::kDue), "0");
        EXPECT_EQ(k.mailbox(mb::kCancel), "");
        EXPECT_EQ(k.mailbox(mb::kChangeDispensed), r.changeDispensed);
        EXPECT_NEAR(leadingNumber(k.mailbox(mb::kTubes)), simTubesValue(k), 1e-4);
        EXPECT_EQ(k.console().text("enablePayment"), "Pay");
        EXPECT_TRUE(k.console().enabled("SSTab1"));
        // Acceptance is off: a coin now is not taken.
        EXPECT_FALSE(k.kiosk().insertCoin(5).ok);
        expectBooksBalance(k, before, r.kept, r.owed);
    }
}

TEST(CashPayment, ARemovedCoinCassetteCancelsThePaymentAndHidesTheTubes) {
    CashKiosk k;
    ASSERT_TRUE(k.start());
    k.kiosk().control("fault changer cassette-removed on");
    k.kiosk().store().clearWrites();
    const Till before = k.till();

    k.hostWrite(mb::kDue, "12.5");
    ASSERT_TRUE(k.runUntilIdle(30));

    EXPECT_EQ(k.mailboxWrites(mb::kCancel, "1"), 1);  // the start asks the monitor to cancel
    EXPECT_EQ(k.mailbox(mb::kStatus), "Transaction Cancelled");
    EXPECT_EQ(k.mailbox(mb::kCancel), "");
    EXPECT_EQ(k.mailbox(mb::kTubes), "0");
    EXPECT_EQ(k.console().text("tubesAmount"), "0");
    for (int slot = 1; slot <= 5; ++slot) {
        EXPECT_EQ(k.kiosk().store().get(store::kApp, store::section::kCoinAcceptor,
                                        store::key::tubeCoinQty(slot)),
                  "0");
    }
    EXPECT_FALSE(k.engine().state().tubesUsable);
    expectBooksBalance(k, before, 0, 0);

    // Change asked for meanwhile skips the tubes and comes from the hoppers.
    k.hostWrite(mb::kChange, "6");
    ASSERT_TRUE(k.runUntil([&] { return k.mailbox(mb::kChange).empty(); }, 60));
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "6");
    EXPECT_EQ(k.till().coinsOut, before.coinsOut);
}

TEST(CashPayment, AChangerThatFallsSilentEndsThePaymentWithItsCreditKept) {
    CashKiosk k;
    ASSERT_TRUE(k.start());
    const Till before = k.till();
    ASSERT_TRUE(k.requestPayment("50"));
    ASSERT_TRUE(k.insertCoin(5));  // 10
    k.kiosk().control("fault changer silent on");
    ASSERT_TRUE(k.runUntilIdle(30));

    EXPECT_EQ(k.mailbox(mb::kStatus), "Error: Coin Acceptor");
    EXPECT_EQ(k.mailbox(mb::kCredit), "10");  // what the customer put in, for the host to see
    EXPECT_EQ(k.mailbox(mb::kDue), "0");
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "");
    EXPECT_TRUE(k.engine().state().pollTimedOut);
    EXPECT_EQ(k.console().text("enablePayment"), "Pay");
    expectBooksBalance(k, before, 10, 0);

    // The next start initialises the equipment first: the changer is found absent and the
    // payment runs on bills alone; its change skips the tubes, whose count is unknown now.
    const Till second = k.till();
    ASSERT_TRUE(k.requestPayment("5"));
    ASSERT_EQ(k.kiosk().messageBox().shown().size(), 1U);
    EXPECT_EQ(k.kiosk().messageBox().shown()[0].text, "Check Coin Acceptor Connection!");
    EXPECT_FALSE(k.console().checked("CoinAcceptorEnabled"));
    ASSERT_TRUE(k.insertBill(1));  // 20
    ASSERT_TRUE(k.runUntilIdle(60));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "15");
    EXPECT_EQ(k.till().hopper2Out - second.hopper2Out, 3);
    expectBooksBalance(k, second, 5, 15);
}

TEST(CashPayment, AValidatorThatFallsSilentIsRecoveredAndThePaymentGoesOn) {
    CashKiosk k;
    ASSERT_TRUE(k.start());
    const Till before = k.till();
    ASSERT_TRUE(k.requestPayment("50"));
    int resets = 0;
    k.mdbTap().onWrite = [&resets](std::string_view bytes, double) {
        resets += bytes == std::string_view("\x30\x01", 2) ? 1 : 0;
    };
    const double t0 = k.now();
    k.kiosk().control("fault validator silent on");
    k.mdbTap().at(t0 + 4.0, [&] { k.kiosk().control("fault validator silent off"); });
    k.runFor(10);
    EXPECT_GE(resets, 2);  // recovery reset it until it answered
    EXPECT_TRUE(k.paymentRunning());
    EXPECT_EQ(k.mailbox(mb::kStatus), "Insert Coins or Bills...");
    // The bill types were enabled again from the store.
    EXPECT_EQ(k.kiosk().validator().billEnableMask(), 0x001F);

    ASSERT_TRUE(k.insertBill(2));  // 50
    ASSERT_TRUE(k.runUntilIdle(60));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
    EXPECT_TRUE(k.kiosk().messageBox().shown().empty());
    expectBooksBalance(k, before, 50, 0);
}

TEST(CashPayment, AValidatorThatStaysSilentEndsThePaymentAndIsInitialisedAtTheNextStart) {
    CashKiosk k;
    ASSERT_TRUE(k.start());
    const Till before = k.till();
    ASSERT_TRUE(k.requestPayment("50"));
    ASSERT_TRUE(k.insertCoin(4));  // 5
    k.kiosk().control("fault validator silent on");
    const double t0 = k.now();
    ASSERT_TRUE(k.runUntilIdle(600));
    // Three hundred and one resets, each with its half-second wait, before recovery gives up.
    EXPECT_GT(k.now() - t0, 150.0);
    EXPECT_EQ(k.mailbox(mb::kStatus), "Error: Bill Validator");
    EXPECT_EQ(k.mailbox(mb::kCredit), "5");
    EXPECT_EQ(k.mailbox(mb::kDue), "0");
    EXPECT_TRUE(k.engine().state().bvNeedsInit);
    expectBooksBalance(k, before, 5, 0);

    k.hostWrite(mb::kDue, "1");
    ASSERT_TRUE(k.runUntil([&] { return !k.kiosk().messageBox().shown().empty(); }, 600));
    EXPECT_EQ(k.kiosk().messageBox().shown()[0].text, "Check Bill Validator Connection!");
    EXPECT_FALSE(k.console().checked("billValidatorEnabled"));
    ASSERT_TRUE(k.runUntil([&] { return k.paymentRunning(); }, 30));
    ASSERT_TRUE(k.insertCoin(2));  // 1: coins still work
    ASSERT_TRUE(k.runUntilIdle(30));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
}

TEST(CashPayment, OnlyTheFirstByteOfAChangerReplyIsACoin) {
    struct Row {
        std::vector<int> bytes;  // the changer's data bytes (the check byte is added)
        double credited;
    };
    const Row rows[] = {
        {{0x40, 0x00}, 0.5},      // type 1 to the cash box
        {{0x41, 0x29}, 1},        // type 2 to its tube
        {{0x52, 0x1E}, 2},        // routing 01, MDB type 2: console type 3
        {{0x60, 0x00}, 0},        // routing 10: not a deposit
        {{0x70, 0x00}, 0},        // rejected
        {{0x0B}, 0},              // the changer was reset
        {{0x41, 0x29, 0x0B}, 1},  // a deposit and then a status: the deposit counts
        {{0x0B, 0x41, 0x29}, 0},  // a status first: the deposit behind it is not read
        {{0x02}, 0},              // payout busy
    };
    CashKiosk k;
    ASSERT_TRUE(k.start());
    ASSERT_TRUE(k.requestPayment("100"));
    std::deque<std::string> replies;
    k.mdbTap().answer = [&replies](std::string_view bytes, double) -> std::optional<std::string> {
        if (bytes == std::string_view("\x0B\x01\x0B\x00", 4) && !replies.empty()) {
            std::string r = replies.front();
            replies.pop_front();
            return r;
        }
        return std::nullopt;
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(mdbReplyText(r.bytes));
        const double before = k.engine().state().creditAmount;
        replies.push_back(mdbReplyText(r.bytes));
        ASSERT_TRUE(k.runUntil([&] { return replies.empty(); }, 5));
        k.runFor(0.5);
        EXPECT_NEAR(k.engine().state().creditAmount - before, r.credited, kMoneyEpsilon);
    }
}

TEST(CashPayment, ABillReportedTwiceWithinTwoSecondsIsCreditedOnce) {
    CashKiosk k;
    ASSERT_TRUE(k.start());
    ASSERT_TRUE(k.requestPayment("500"));
    const double t0 = k.now();
    const std::string stacked = mdbReplyText({0x80});  // "8000 8001 ": type 1, 20
    std::deque<std::pair<double, std::string>> replies{
        {t0, stacked},
        {t0 + 1.5, stacked},                     // the same bill again: not credited
        {t0 + 4.0, stacked},                     // a new bill
        {t0 + 6.5, mdbReplyText({0x09})},        // a status byte alone: nothing
        {t0 + 9.0, mdbReplyText({0x81, 0x09})},  // type 2, 50, with a status behind it
    };
    scriptValidatorPolls(k, replies);
    std::vector<double> credits;
    for (double at : {t0 + 1.0, t0 + 3.5, t0 + 6.0, t0 + 8.5, t0 + 11.0}) {
        k.runUntil([&] { return k.now() >= at; }, 20);
        credits.push_back(k.engine().state().creditAmount);
    }
    EXPECT_EQ(credits, (std::vector<double>{20, 20, 40, 40, 90}));
    EXPECT_TRUE(replies.empty());
}

TEST(CashPayment, TheBillGuardIsNotStuckAfterMidnight) {
    CashKiosk k;
    k.kiosk().clock().setDeadline(-1);
    ASSERT_TRUE(k.start());
    // To 23:59:50.
    k.kiosk().clock().advance(86390 - k.kiosk().clock().secondsSinceMidnight());
    ASSERT_TRUE(k.requestPayment("500"));
    const double t0 = k.now();
    const double toMidnight = 86400 - k.kiosk().clock().secondsSinceMidnight();
    const std::string stacked = mdbReplyText({0x80});
    std::deque<std::pair<double, std::string>> replies{
        {t0 + toMidnight - 3, stacked},  // at 23:59:57
        {t0 + toMidnight + 3,
         stacked},  // at 00:00:03: the guard restarted at midnight's first poll
    };
    scriptValidatorPolls(k, replies);
    k.runUntil([&] { return replies.empty(); }, 30);
    k.runFor(1);
    EXPECT_EQ(k.engine().state().creditAmount, 40);
    EXPECT_LT(k.kiosk().clock().secondsSinceMidnight(), 60);
}

TEST(CashPayment, ACancelArrivingWhileChangeIsPaidPaysNothingTwice) {
    // The payment has completed and its change is being paid when the host cancels.
    CashKiosk k;
    ASSERT_TRUE(k.start());
    const Till before = k.till();
    k.kiosk().store().clearWrites();
    ASSERT_TRUE(k.requestPayment("12.5"));
    bool lastWasExpansion = false;
    int payouts = 0;
    k.mdbTap().onWrite = [&](std::string_view bytes, double) {
        if (lastWasExpansion && bytes == std::string_view("\x02\x00", 2)) {
            if (++payouts == 1) {
                k.hostWrite(mb::kCancel, "1");
            }
        }
        lastWasExpansion = bytes == std::string_view("\x0F\x01", 2);
    };
    ASSERT_TRUE(k.insertBill(1));  // 20
    ASSERT_TRUE(k.runUntilIdle(60));
    EXPECT_EQ(payouts, 1);
    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
    EXPECT_EQ(k.mailboxWrites(mb::kStatus, "Transaction Cancelled"), 0);
    EXPECT_EQ(k.mailbox(mb::kCancel), "");
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "7.5");
    expectBooksBalance(k, before, 12.5, 7.5);

    // A cancel that pays the money back, and a second cancel during that refund.
    const Till second = k.till();
    k.kiosk().store().clearWrites();
    payouts = 0;
    ASSERT_TRUE(k.requestPayment("50"));
    ASSERT_TRUE(k.insertBill(1));  // 20
    k.hostWrite(mb::kCancel, "1");
    ASSERT_TRUE(k.runUntilIdle(60));
    EXPECT_EQ(payouts, 1);
    EXPECT_EQ(k.mailboxWrites(mb::kStatus, "Transaction Cancelled"), 1);
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "20");
    EXPECT_EQ(k.mailbox(mb::kCancel), "");
    expectBooksBalance(k, second, 0, 20);
}

TEST(CashPayment, ATubePayoutIsAskedForInCommandsOfAtMost200Units) {
    CashKiosk k;
    // No bill dispenser, so that the tubes pay it all.
    k.kiosk().store().set(store::kApp, store::section::kBillDispenser, "BDE", "0");
    ASSERT_TRUE(k.start());
    std::vector<int> amounts;
    bool lastWasPayout = false;
    bool lastWasExpansion = false;
    k.mdbTap().onWrite = [&](std::string_view bytes, double) {
        if (lastWasPayout && bytes.size() == 2) {
            amounts.push_back(static_cast<unsigned char>(bytes[0]));
        }
        lastWasPayout = lastWasExpansion && bytes == std::string_view("\x02\x00", 2);
        lastWasExpansion = bytes == std::string_view("\x0F\x01", 2);
    };
    const Till before = k.till();
    k.hostWrite(mb::kChange, "150");  // 300 units at a scaling factor of 2
    ASSERT_TRUE(k.runUntil([&] { return k.mailbox(mb::kChange).empty(); }, 600));
    EXPECT_EQ(amounts, (std::vector<int>{200, 100}));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Change dispensed");
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "150");
    EXPECT_NEAR(k.paidOut(before, k.till()), 150, kMoneyEpsilon);
}

TEST(CashPayment, AVanishedMdbPortEndsThePaymentAndTheNextStartOpensItAgain) {
    CashKiosk k;
    ASSERT_TRUE(k.start());
    const Till before = k.till();
    ASSERT_TRUE(k.requestPayment("50"));
    ASSERT_TRUE(k.insertCoin(5));  // 10
    k.kiosk().mdbPort().unplug();
    ASSERT_TRUE(k.runUntilIdle(30));

    EXPECT_EQ(k.mailbox(mb::kStatus), "Error: Coin Acceptor");
    EXPECT_EQ(k.mailbox(mb::kCredit), "10");
    EXPECT_EQ(k.mailbox(mb::kDue), "0");
    EXPECT_EQ(k.console().text("enablePayment"), "Pay");
    EXPECT_TRUE(k.console().enabled("enablePayment"));
    EXPECT_TRUE(k.console().enabled("SSTab1"));
    EXPECT_FALSE(k.kiosk().mdbPort().isOpen());
    expectBooksBalance(k, before, 10, 0);

    k.kiosk().mdbPort().plugIn();
    const Till second = k.till();
    ASSERT_TRUE(k.requestPayment("5"));
    EXPECT_TRUE(k.kiosk().mdbPort().isOpen());
    ASSERT_TRUE(k.insertCoin(4));  // 5
    ASSERT_TRUE(k.runUntilIdle(30));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
    expectBooksBalance(k, second, 5, 0);
}

TEST(CashPayment, AStartBrokenOffByAnErrorRaisesKsxErrorAndLeavesNothingAccepting) {
    CashKiosk k;
    ASSERT_TRUE(k.start());
    // A bill type flag the start reads from the store is missing: a run-time error after the
    // coin types were already enabled.
    k.kiosk().store().erase(store::kApp, store::section::kBillValidator, "BillType7_Enabled");
    k.hostWrite(mb::kDue, "12.5");
    k.runFor(5);

    EXPECT_EQ(k.mailbox(mb::kKsxError), "1");
    EXPECT_EQ(k.mailbox(mb::kDue), "0");  // the request is not taken up again and again
    EXPECT_FALSE(k.paymentRunning());
    EXPECT_EQ(k.engine().state().amountDue, 0);
    EXPECT_TRUE(k.console().enabled("enablePayment"));
    EXPECT_TRUE(k.console().enabled("SSTab1"));
    EXPECT_EQ(k.kiosk().changer().coinEnableMask(), 0);  // reset again: no coin is taken
    EXPECT_FALSE(k.kiosk().insertCoin(5).ok);

    k.kiosk().store().set(store::kApp, store::section::kBillValidator, "BillType7_Enabled", "0");
    const Till before = k.till();
    ASSERT_TRUE(k.requestPayment("12.5"));
    EXPECT_EQ(k.mailbox(mb::kKsxError), "0");
    ASSERT_TRUE(k.insertBill(1));
    ASSERT_TRUE(k.runUntilIdle(60));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
    expectBooksBalance(k, before, 12.5, 7.5);
}

}  // namespace
}  // namespace kestrix
