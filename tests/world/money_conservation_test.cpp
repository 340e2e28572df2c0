#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/kiosk.h"

namespace kestrix {
namespace {

using test::Kiosk;
using test::Till;
namespace mb = store::mailbox;

// What may go wrong in a payment, how often it is picked, and the fault switched on for the whole
// payment (none: it strikes at a moment of the payment, or is no device's).
struct Trouble {
    std::string name;
    int weight;
    std::string fault;
};
const Trouble kTroubles[] = {
    {"none", 28, ""},
    {"cancel", 6, ""},
    {"cancel keep", 3, ""},
    {"cancel in payout", 4, ""},
    {"coin at cancel", 5, ""},
    {"coin at completion", 6, ""},
    {"validator flaky", 3, "validator flaky"},
    {"validator drops out", 3, ""},
    {"changer drops out", 2, ""},
    {"changer silent in payout", 2, ""},
    {"changer busy in payout", 2, ""},
    {"payout jam", 2, "changer payout-jam"},
    {"cassette removed", 1, "changer cassette-removed"},
    {"adapter garbage", 2, "adapter garbage"},
    {"dispenser empty", 2, ""},
    {"dispenser error", 1, "dispenser error"},
    {"dispenser shifted", 2, "dispenser shifted"},
    {"dispenser slow", 2, "dispenser slow"},
    {"dispenser silent", 1, "dispenser silent"},
    {"hopper empty", 3, ""},
    {"hopper jam", 2, "hopper2 jam"},
    {"hopper silent", 1, "hopper2 silent"},
    {"store trouble", 5, ""},
    {"tubes low", 6, ""},
    {"tube top-up", 4, ""},
};

void allFaultsOff(sim::VirtualKiosk& v) {
    for (const std::string& device : v.models().deviceNames()) {
        std::istringstream faults(v.control("faults " + device).text);
        for (std::string fault, state; faults >> fault >> state;) {
            EXPECT_TRUE(v.control("fault " + device + " " + fault + " off").ok);
        }
    }
}

int paymentCount() {
    const char* n = std::getenv("KESTRIX_CONSERVATION_PAYMENTS");
    return n != nullptr ? std::max(1, std::atoi(n)) : 10000;
}

// For every payment, against the simulators' own counters and the engine's journal: every coin
// and bill taken in was credited; what left the kiosk is what ChangeDispensed reports (or, where
// a device fell silent mid-payout, at most that plus what the journal records as unknown); no
// payment paid back more than it owed; and the journal's rows sum to the same money, what was
// owed and not paid back included (a refund that pays too little is recorded, never silent).
TEST(MoneyConservation, RandomPaymentsWithFaultsInEveryWindowBalance) {
    std::mt19937 rng(20261122);
    std::vector<int> weights;
    for (const Trouble& t : kTroubles) {
        weights.push_back(t.weight);
    }
    std::discrete_distribution<std::size_t> pick(weights.begin(), weights.end());
    const auto chance = [&rng](int lo, int hi) {
        return std::uniform_int_distribution<int>(lo, hi)(rng);
    };
    Kiosk k;
    ASSERT_TRUE(k.start());
    std::map<std::string, int> outcomes;
    int failures = 0;
    const int payments = paymentCount();

    for (int i = 0; i < payments && failures < 5; ++i) {
        const Trouble& picked = kTroubles[pick(rng)];
        const std::string& trouble = picked.name;
        k.clock().setDeadline(k.now() + 3600);  // a wait for ever fails the payment
        allFaultsOff(k);
        k.store().setWritesRefused(false);
        for (int type = 1; type <= 5; ++type) {
            k.models().setTube(type, trouble == "tubes low" ? chance(0, 2) : 30);
        }
        if (trouble == "tube top-up") {
            k.models().setTube(chance(1, 5), chance(0, 100));
        }
        k.hopper1().setCoins(200);
        k.hopper2().setCoins(trouble == "hopper empty" ? chance(0, 3) : 200);
        k.dispenser().setBills(trouble == "dispenser empty" ? 0 : 100);
        k.validator().setFlakyMisses(1);
        for (FieldName box :
             std::initializer_list<FieldName>{"CoinAcceptorEnabled", "billValidatorEnabled"}) {
            if (!k.console().checked(box)) {
                k.engine().operatorEdit(std::string(box.str()), "", 1);  // the technician's fix
            }
        }
        if (!picked.fault.empty()) {
            EXPECT_TRUE(k.control("fault " + picked.fault + " on").ok) << picked.fault;
        }
        // Faults that strike when the changer is asked to pay out.
        k.onPayout([&k, &trouble, &chance](int) {
            if (trouble == "cancel in payout") {
                k.hostWrite(mb::kCancel, "1");
            } else if (trouble == "changer silent in payout") {
                k.control("fault changer silent on");
                k.mdbTap().at(k.now() + chance(0, 10),
                              [&k] { k.control("fault changer silent off"); });
            } else if (trouble == "changer busy in payout") {
                k.control("fault changer busy-forever on");
            }
        });
        if (trouble == "store trouble") {
            const double from = k.now() + chance(0, 60) / 10.0;
            const double seconds = chance(1, 20);
            k.mdbTap().at(from, [&k] { k.store().setWritesRefused(true); });
            k.mdbTap().at(from + seconds, [&k] { k.store().setWritesRefused(false); });
        }

        const Till before = k.till();
        const std::size_t journalFrom = k.journal().rows().size();
        const double due = 0.5 * chance(1, 300);
        std::ostringstream what;
        what << "payment " << i << " (" << trouble << "), due " << due;
        if (trouble == "cassette removed") {
            // The start finds the coin cassette out and has the monitor cancel at once.
            k.hostWrite(mb::kDue, numberText(due));
            k.runUntil([&k] { return k.paymentRunning(); }, 30);
        } else if (!k.requestPayment(numberText(due))) {
            ADD_FAILURE() << what.str() << ": did not start";
            ++failures;
            continue;
        }
        const bool validatorTrouble = trouble.starts_with("validator");
        const bool cancels = trouble == "cancel" || trouble == "cancel keep";
        const int cancelAfter = chance(0, 4);
        int n = 0;
        for (; k.paymentRunning() && n < 60 && !(cancels && n == cancelAfter); ++n) {
            if (trouble == "validator drops out" && n == 1) {
                k.control("fault validator silent on");
                k.mdbTap().at(k.now() + chance(1, 6),
                              [&k] { k.control("fault validator silent off"); });
            }
            if (trouble == "coin at cancel" && n == 2) {
                k.kiosk().insertCoin(chance(1, 5));
                k.runFor(chance(0, 3) / 10.0);
                k.hostWrite(mb::kCancel, "1");
                break;
            }
            if (trouble == "coin at completion" && due - k.credit() <= 10) {
                // The completing money goes in with another coin right behind it.
                const double at = k.now() + 0.8 + chance(0, 8) / 10.0;
                k.mdbTap().at(at, [&k, type = chance(1, 5)] { k.kiosk().insertCoin(type); });
                k.kiosk().insertBill(chance(1, 2));
                k.runFor(2);
                continue;
            }
            if (!validatorTrouble && chance(0, 3) == 0) {
                k.insertBill(chance(1, 3));
            } else {
                k.insertCoin(chance(1, 5));
            }
            if (trouble == "changer drops out" && n == 1) {
                k.control("fault changer silent on");
                break;
            }
            k.runFor(chance(1, 15) / 10.0);
        }
        if (cancels && k.paymentRunning()) {
            k.hostWrite(mb::kCancel, trouble == "cancel keep" ? "2" : "1");
        }
        if (!k.runUntilIdle(3000)) {
            ADD_FAILURE() << what.str() << ": did not end";
            ++failures;
            continue;
        }
        k.store().setWritesRefused(false);
        k.runUntil([&k] { return !k.engine().storeWriter().troubled(); }, 30);

        const Till after = k.till();
        const std::string status = k.mailbox(mb::kStatus);
        const double reported = leadingNumber(k.mailbox(mb::kChangeDispensed));
        const double credited = k.journalSum(journalFrom, journal_kind::kCredit);
        const double uncredited = k.journalSum(journalFrom, journal_kind::kUncredited);
        const double confirmed = k.journalSum(journalFrom, journal_kind::kPayoutConfirmed);
        const double uncertain = k.journalSum(journalFrom, journal_kind::kPayoutUnknown);
        const double recordedUnpaid = k.journalSum(journalFrom, journal_kind::kUnpaid);
        double owed = 0;  // an error of the changer pays nothing back: the host settles the credit
        if (status == "Payment Completed" || status == "Error: Bill Validator") {
            owed = std::max(0.0, credited - due);
        } else if (status == "Transaction Cancelled") {
            owed = trouble == "cancel keep" ? 0 : credited;
        } else if (status != "Error: Coin Acceptor") {
            ADD_FAILURE() << what.str() << ": ended with \"" << status << "\"";
            ++failures;
            continue;
        }
        ++outcomes[status];
        const double got = k.inserted(before, after);
        const double out = k.paidOut(before, after);
        if (std::abs(got - credited) > 1e-6 || uncredited > 1e-6 || out < reported - 1e-6 ||
            out > reported + uncertain + 1e-6 || out > owed + 1e-6 ||
            std::abs(confirmed - reported) > 1e-6 ||
            std::abs(owed - confirmed - uncertain - recordedUnpaid) > 1e-6) {
            ADD_FAILURE() << what.str() << ", " << status << ": inserted " << got << ", credited "
                          << credited << " (uncredited " << uncredited << "), owed " << owed
                          << ", paid " << out << ", ChangeDispensed " << reported
                          << ", journal paid " << confirmed << ", unknown " << uncertain
                          << " and unpaid " << recordedUnpaid;
            ++failures;
        }
    }
    EXPECT_GT(outcomes["Payment Completed"], payments / 2);
    EXPECT_GT(outcomes["Transaction Cancelled"], payments / 20);
}

}  // namespace
}  // namespace kestrix
