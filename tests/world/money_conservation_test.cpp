#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <random>
#include <sstream>
#include <string>

#include "cash_kiosk.h"
#include "engine/formulas.h"
#include "engine/settings/layout.h"

namespace kestrix {
namespace {

using test::CashKiosk;
using test::Till;
namespace mb = store::mailbox;

constexpr double kMoneyEpsilon = 1e-6;

// What can go wrong during one payment.
enum class Trouble {
    None,
    CancelRefund,        // the host cancels: the money goes back
    CancelKeep,          // the host cancels with "2": the money is kept
    CancelDuringPayout,  // the host cancels while the change is being paid
    ValidatorFlaky,      // the validator misses replies all along
    ValidatorDropsOut,   // the validator falls silent for a few seconds (recovery)
    ChangerDropsOut,     // the changer falls silent after a coin (the payment ends in error)
    HopperEmpty,         // the 5s hopper has run dry
    HopperJam,           // the 5s hopper jams
    DispenserEmpty,      // the bill cassette is empty
    PayoutJam,           // a coin wedges in the changer's payout
    TubesLow,            // the tubes hold little
};

const char* name(Trouble t) {
    switch (t) {
        case Trouble::None:
            return "none";
        case Trouble::CancelRefund:
            return "cancel 1";
        case Trouble::CancelKeep:
            return "cancel 2";
        case Trouble::CancelDuringPayout:
            return "cancel during payout";
        case Trouble::ValidatorFlaky:
            return "validator flaky";
        case Trouble::ValidatorDropsOut:
            return "validator drops out";
        case Trouble::ChangerDropsOut:
            return "changer drops out";
        case Trouble::HopperEmpty:
            return "hopper empty";
        case Trouble::HopperJam:
            return "hopper jam";
        case Trouble::DispenserEmpty:
            return "dispenser empty";
        case Trouble::PayoutJam:
            return "payout jam";
        case Trouble::TubesLow:
            return "tubes low";
    }
    return "?";
}

Trouble pick(std::mt19937& rng) {
    // Weights: mostly plain payments, every kind of trouble now and then.
    static const std::pair<Trouble, int> kWeights[] = {
        {Trouble::None, 40},           {Trouble::CancelRefund, 8},
        {Trouble::CancelKeep, 5},      {Trouble::CancelDuringPayout, 6},
        {Trouble::ValidatorFlaky, 5},  {Trouble::ValidatorDropsOut, 4},
        {Trouble::ChangerDropsOut, 3}, {Trouble::HopperEmpty, 6},
        {Trouble::HopperJam, 3},       {Trouble::DispenserEmpty, 5},
        {Trouble::PayoutJam, 3},       {Trouble::TubesLow, 12},
    };
    int total = 0;
    for (const auto& [t, w] : kWeights) {
        total += w;
    }
    int r = std::uniform_int_distribution<int>(0, total - 1)(rng);
    for (const auto& [t, w] : kWeights) {
        if (r < w) {
            return t;
        }
        r -= w;
    }
    return Trouble::None;
}

void restock(CashKiosk& k) {
    const std::array<int, 5> tubes{40, 40, 30, 20, 10};
    for (int type = 1; type <= 5; ++type) {
        k.kiosk().models().setTube(type, tubes[static_cast<std::size_t>(type - 1)]);
    }
    k.kiosk().hopper1().setCoins(200);
    k.kiosk().hopper2().setCoins(200);
    k.kiosk().dispenser().setBills(100);
}

// For every payment: the engine credited exactly what the models took in, reported in
// ChangeDispensed exactly what the models paid out, and paid no more than it owed; so what came
// in equals what was kept, plus what was paid back, plus what the engine reports it could not
// pay.
TEST(MoneyConservation, AThousandRandomPaymentsBalance) {
    std::mt19937 rng(20261122);
    CashKiosk k;
    ASSERT_TRUE(k.start());

    std::map<std::string, int> outcomes;
    double totalIn = 0, totalKept = 0, totalPaid = 0, totalUnpaid = 0;
    int failures = 0;
    constexpr int kPayments = 1000;

    for (int i = 0; i < kPayments && failures < 5; ++i) {
        const Trouble trouble = pick(rng);
        // Each payment has an hour of virtual time: a wait that would last for ever fails it.
        k.kiosk().clock().setDeadline(k.now() + 3600);
        restock(k);
        // Faults of the last payment are over; a changer found absent is switched on again.
        for (const char* off :
             {"fault validator flaky off", "fault validator silent off", "fault changer silent off",
              "fault hopper2 jam off", "fault changer payout-jam off"}) {
            k.kiosk().control(off);
        }
        if (!k.console().checked("CoinAcceptorEnabled")) {
            k.engine().operatorEdit("CoinAcceptorEnabled", "", 1);
        }
        k.mdbTap().onWrite = nullptr;
        switch (trouble) {
            case Trouble::ValidatorFlaky:
                // Every other command unanswered: each miss costs a recovery.
                k.kiosk().validator().setFlakyMisses(1);
                k.kiosk().control("fault validator flaky on");
                break;
            case Trouble::HopperEmpty:
                k.kiosk().hopper2().setCoins(std::uniform_int_distribution<int>(0, 3)(rng));
                break;
            case Trouble::HopperJam:
                k.kiosk().control("fault hopper2 jam on");
                break;
            case Trouble::DispenserEmpty:
                k.kiosk().dispenser().setBills(0);
                break;
            case Trouble::PayoutJam:
                k.kiosk().control("fault changer payout-jam on");
                break;
            case Trouble::TubesLow:
                for (int type = 1; type <= 5; ++type) {
                    k.kiosk().models().setTube(type, std::uniform_int_distribution<int>(0, 2)(rng));
                }
                break;
            case Trouble::CancelDuringPayout: {
                bool lastWasExpansion = false;
                k.mdbTap().onWrite = [&k, lastWasExpansion](std::string_view bytes,
                                                            double) mutable {
                    if (lastWasExpansion && bytes == std::string_view("\x02\x00", 2)) {
                        k.hostWrite(mb::kCancel, "1");
                    }
                    lastWasExpansion = bytes == std::string_view("\x0F\x01", 2);
                };
                break;
            }
            default:
                break;
        }

        const Till before = k.till();
        k.kiosk().store().clearWrites();
        const double due = 0.5 * std::uniform_int_distribution<int>(1, 300)(rng);
        std::ostringstream what;
        what << "payment " << i << " (" << name(trouble) << "), due " << due;
        if (!k.requestPayment(numberText(due))) {
            ADD_FAILURE() << what.str() << ": did not start";
            ++failures;
            continue;
        }

        // The customer pays, coin by coin and bill by bill, a little more than due at times.
        const bool cancels = trouble == Trouble::CancelRefund || trouble == Trouble::CancelKeep;
        const int cancelAfter = std::uniform_int_distribution<int>(0, 4)(rng);
        for (int inserts = 0; k.paymentRunning() && inserts < 60; ++inserts) {
            if (cancels && inserts == cancelAfter) {
                break;
            }
            if (trouble == Trouble::ValidatorDropsOut && inserts == 1) {
                k.kiosk().control("fault validator silent on");
                k.mdbTap().at(k.now() + std::uniform_real_distribution<double>(1, 6)(rng),
                              [&k] { k.kiosk().control("fault validator silent off"); });
            }
            // A validator that is being recovered is reset, and a reset drops the report of a
            // bill stacked just before it: a validator whose link fails takes no bills.
            const bool validatorTrouble =
                trouble == Trouble::ValidatorFlaky || trouble == Trouble::ValidatorDropsOut;
            const bool bill =
                !validatorTrouble && std::uniform_int_distribution<int>(0, 3)(rng) == 0;
            if (validatorTrouble && due - k.credit() <= 10) {
                // The payment is about to complete, and completion waits for the validator's
                // POLL without a read limit: a validator that drops that one would hold the
                // kiosk for good. Its trouble ends here.
                k.kiosk().control("fault validator flaky off");
                k.kiosk().control("fault validator silent off");
            }
            if (bill) {
                k.insertBill(std::uniform_int_distribution<int>(1, 3)(rng));
            } else {
                k.insertCoin(std::uniform_int_distribution<int>(1, 5)(rng));
            }
            if (trouble == Trouble::ChangerDropsOut && inserts == 1) {
                k.kiosk().control("fault changer silent on");
                break;
            }
            k.runFor(std::uniform_real_distribution<double>(0.1, 1.5)(rng));
        }
        if (cancels && k.paymentRunning()) {
            k.hostWrite(mb::kCancel, trouble == Trouble::CancelKeep ? "2" : "1");
        }
        if (!k.runUntilIdle(3600)) {
            ADD_FAILURE() << what.str() << ": did not end";
            ++failures;
            continue;
        }
        k.runFor(1);

        const Till after = k.till();
        const std::string status = k.mailbox(mb::kStatus);
        const double inserted = k.inserted(before, after);
        const double paid = k.paidOut(before, after);
        const double credited = k.publishedCredit();
        const double reported = leadingNumber(k.mailbox(mb::kChangeDispensed));
        double owed = 0;
        if (status == "Payment Completed" || status == "Error: Bill Validator") {
            owed = std::max(0.0, credited - due);
        } else if (status == "Transaction Cancelled") {
            // A host cancel "2" keeps the money; every other stop pays it back.
            owed = trouble == Trouble::CancelKeep ? 0 : credited;
        } else if (status != "Error: Coin Acceptor") {
            ADD_FAILURE() << what.str() << ": ended with status \"" << status << "\"";
            ++failures;
            continue;
        }
        ++outcomes[status];
        const double kept = credited - owed;
        const double unpaid = owed - reported;
        const bool balanced = std::abs(inserted - credited) < kMoneyEpsilon &&
                              std::abs(paid - reported) < kMoneyEpsilon &&
                              unpaid > -kMoneyEpsilon &&
                              std::abs(inserted - (kept + paid + unpaid)) < kMoneyEpsilon;
        if (!balanced) {
            ADD_FAILURE() << what.str() << ", status " << status << ": inserted " << inserted
                          << ", credited " << credited << ", owed " << owed << ", paid " << paid
                          << ", ChangeDispensed " << reported;
            ++failures;
        }
        totalIn += inserted;
        totalKept += kept;
        totalPaid += paid;
        totalUnpaid += unpaid;
    }
    EXPECT_NEAR(totalIn, totalKept + totalPaid + totalUnpaid, 1e-3);
    // Every way a payment can end was reached.
    EXPECT_GT(outcomes["Payment Completed"], 500);
    EXPECT_GT(outcomes["Transaction Cancelled"], 50);
    EXPECT_GT(outcomes["Error: Coin Acceptor"], 5);
    std::ostringstream summary;
    for (const auto& [status, n] : outcomes) {
        summary << status << ": " << n << "; ";
    }
    summary << "in " << totalIn << ", kept " << totalKept << ", paid back " << totalPaid
            << ", not paid " << totalUnpaid << ", virtual hours " << k.now() / 3600;
    RecordProperty("summary", summary.str());
    std::cout << summary.str() << "\n";
}

}  // namespace
}  // namespace kestrix
