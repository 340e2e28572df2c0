#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "engine/journal/books.h"
#include "platform_qt/sqlite_journal.h"
#include "simulated_kiosk.h"

// The engine killed (kill -9) at random points of payments on the kiosk as it runs in the field:
// kestrix-sim in place of the devices, kestrix on its pseudo-terminals. After every restart the
// journal and the simulator's own counts must reconcile to the minor unit.
//
// First a kill while idle: the host notices at once, and the next engine finds every device, the
// dispenser on its even-parity line included. A termination signal ends the last engine (its
// bound with a device falling silent: the world's tests).
//
// KSX_KILL_PAYMENTS sets the number of payments (a few in `make test`; run it with 200 or more
// to soak), KSX_KILL_SEED the random seed.
namespace kestrix {
namespace {

using namespace std::chrono_literals;
namespace jk = journal_kind;

int envInt(const char* name, int fallback) {
    const char* v = std::getenv(name);
    return v != nullptr && *v != '\0' ? std::atoi(v) : fallback;
}

// Money in and out as the simulated devices count it, in minor units.
struct DeviceBooks {
    std::int64_t in = 0;
    std::int64_t out = 0;
    bool busy = false;  // a device is still paying out on its own
};

DeviceBooks deviceBooks(test::SimulatedKiosk& kiosk) {
    const sim::KioskProfile& p = sim::defaultProfile();
    const nlohmann::json s = kiosk.deviceState();
    const nlohmann::json& changer = s["changer"];
    const nlohmann::json& dispenser = s["dispenser"];
    DeviceBooks b;
    for (std::size_t t = 0; t < changer["tubes"].size(); ++t) {
        const std::int64_t minor =
            std::int64_t{p.changer.coinCredits[t]} * Money::kMinorPerUnit / p.changer.scalingFactor;
        const int paid = changer["paidOut"][t];
        b.in += (changer["tubes"][t].get<int>() + changer["cashBox"][t].get<int>() + paid) * minor;
        b.out += paid * minor;
    }
    for (std::size_t t = 0; t < s["validator"]["stacked"].size(); ++t) {
        std::int64_t minor = std::int64_t{p.validator.billCredits[t]} * p.validator.scalingFactor *
                             Money::kMinorPerUnit;
        for (int d = 0; d < p.validator.decimalPlaces; ++d) {
            minor /= 10;
        }
        b.in += s["validator"]["stacked"][t].get<int>() * minor;
    }
    b.out += dispenser["billsDelivered"].get<int>() * p.dispenser.billValue * Money::kMinorPerUnit;
    const double hopperValue[2] = {p.hopper1CoinValue, p.hopper2CoinValue};
    for (std::size_t h = 0; h < 2 && h < s["hoppers"]["hoppers"].size(); ++h) {
        const nlohmann::json& hopper = s["hoppers"]["hoppers"][h];
        b.out += hopper["coinsPaid"].get<int>() *
                 static_cast<std::int64_t>(hopperValue[h] * Money::kMinorPerUnit);
        b.busy = b.busy || hopper["lastDispense"]["remaining"].get<int>() > 0;
    }
    b.busy = b.busy || changer["payoutBusy"].get<bool>() ||
             changer["coinsPlanned"].get<int>() > 0 || dispenser["busy"].get<bool>();
    return b;
}

// The journal read as ksxctl reads it: its totals and each payment's books.
struct JournalBooks {
    std::vector<JournalRecord> rows;
    books::Totals totals;
    std::map<std::int64_t, books::PaymentBooks> payments;
    std::map<std::int64_t, Money> interrupted;  // what each interrupted payment left to settle
    std::int64_t lastSequence() const { return rows.empty() ? 0 : rows.back().sequence; }
};

JournalBooks journalBooks(const std::string& path) {
    JournalBooks j;
    j.rows = qt::SqliteJournal(path, qt::SqliteJournal::Mode::Tool).rows({});
    j.totals = books::totals(j.rows, 0);
    std::map<std::int64_t, std::vector<JournalRecord>> byPayment;
    for (const JournalRecord& r : j.rows) {
        if (r.kind == jk::kPaymentInterrupted) {
            j.interrupted[r.paymentId] = r.amount;
        }
        if (r.paymentId != 0) {
            byPayment[r.paymentId].push_back(r);
        }
    }
    for (const auto& [id, rows] : byPayment) {
        j.payments[id] = books::paymentBooks(rows);
    }
    return j;
}

bool finalStatus(const std::string& request, const std::string& status) {
    if (request == "Due") {
        return status == "Payment Completed" || status == "Transaction Cancelled" ||
               status.rfind("Error: ", 0) == 0;
    }
    if (request == "Change") {
        return status == "Change dispensed";
    }
    return status == "Credit Card Approved" || status == "Credit Card Denied" ||
           status == "Pin Pad Error" || status.rfind("Error: ", 0) == 0;
}

TEST(KillNine, JournalAndDeviceBooksReconcileAfterEveryRestart) {
    const int payments = envInt("KSX_KILL_PAYMENTS", 4);
    const unsigned seed = static_cast<unsigned>(envInt("KSX_KILL_SEED", 20261123));
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    const auto uniform = [&rng](int lo, int hi) {
        return std::uniform_int_distribution<int>(lo, hi)(rng);
    };
    const auto pause = [](int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); };
    const auto money = [](const std::string& text) { return Money::parse(text).value_or(Money()); };

    test::SimulatedKiosk kiosk(test::SimulatedKiosk::Devices::OnPtys);
    ASSERT_TRUE(kiosk.start());
    const auto status = [&kiosk](const std::string& key) { return kiosk.get("Status", key); };
    const auto killEngine = [&kiosk] {
        kiosk.engine().signal(SIGKILL);
        return kiosk.engine().wait(10s).has_value();
    };
    // A dispenser killed in the middle of a frame may answer the next set-up with an error; the
    // kiosk then pays change from its other sources.
    const auto restart = [&kiosk](bool dispenserOk) {
        kiosk.set("Pin Pad", "On Line", "");  // so that start() waits for the new engine
        kiosk.set("Status", "BDStatus", "");
        return kiosk.start(dispenserOk);
    };
    ASSERT_TRUE(killEngine());
    EXPECT_EQ(kiosk.ksxctl({"pay", "5"}).status, 7) << "the host notices at once";
    ASSERT_TRUE(restart(true));
    EXPECT_EQ(status("KSX_Error"), "0") << kiosk.engine().err();
    const std::string journalPath = qt::journalPathFor(kiosk.store);
    const DeviceBooks start = deviceBooks(kiosk);
    const std::vector<std::string> scenarios = {"accepting", "completing", "change", "card",
                                                "no kill"};
    for (int n = 0; n < payments && !HasFailure(); ++n) {
        const std::string scenario = scenarios[static_cast<std::size_t>(uniform(0, 4))];
        const std::string request = scenario == "change" ? "Change"
                                    : scenario == "card" ? "DueCC"
                                                         : "Due";
        const Money asked = Money::fromMinor(50 * uniform(1, scenario == "change" ? 240 : 120));
        const std::int64_t requestSeq = journalBooks(journalPath).lastSequence();
        SCOPED_TRACE("payment " + std::to_string(n) + " (" + scenario + ", " + request + " " +
                     asked.text() + ")");

        kiosk.set("Status", "Status", "");
        kiosk.set("Status", request, asked.text());
        const bool kill = scenario != "no kill";
        if (request == "Due") {
            ASSERT_TRUE(kiosk.statusBecomes("Insert Coins or Bills...")) << kiosk.engine().err();
            // The customer's money, each piece credited before the next (so that no coin is in
            // flight at the kill: what the changer has not yet reported cannot be journalled).
            const int stopAfter = scenario == "accepting" ? uniform(0, 3) : 1000;
            for (int pieces = 0; pieces < 60 && pieces < stopAfter; ++pieces) {
                const Money credit = money(status("Credit"));
                if (credit >= asked || status("Due") == "0") {
                    break;
                }
                const int pick = uniform(0, 5);
                const std::vector<std::string> piece =
                    pick == 0 ? std::vector<std::string>{"bill", "1"}
                              : std::vector<std::string>{"coin", pick < 3 ? "3" : "5"};
                if (kiosk.ctl(piece).status != 0) {
                    break;  // acceptance is already off
                }
                test::eventually([&] { return status("Credit") != credit.text(); }, 5s);
            }
            if (scenario == "completing") {
                pause(uniform(0, 4000));
            }
        } else if (kill && uniform(0, 4) != 0) {
            // Mostly while the payout or the sale runs; now and then as the request is taken.
            test::eventually(
                [&] {
                    return request == "Change" ? status("Status") == "Dispensing change..." ||
                                                     status("Change").empty()
                                               : !status("ReferenceCC").empty();
                },
                10s);
            pause(uniform(0, request == "Change" ? 6000 : 3000));
        } else {
            pause(uniform(0, 1000));
        }
        if (!kill) {
            ASSERT_TRUE(
                test::eventually([&] { return finalStatus(request, status("Status")); }, 120s))
                << kiosk.engine().err();
        } else {
            ASSERT_TRUE(killEngine());
        }
        // Payouts the devices run on their own finish before the books are read.
        test::eventually([&] { return !deviceBooks(kiosk).busy; }, 30s);

        if (kill) {
            ASSERT_TRUE(restart(false))
                << kiosk.ksxctl({"journal", "--since", "#" + std::to_string(requestSeq + 1)}).out;
            pause(1500);  // the bill validator is initialised last, after the tubes are read
            // The host acknowledges each restart report (their contents: the recovery's tests).
            for (int r = 0; r < 10 && !status("Interrupted").empty(); ++r) {
                const std::string id = status("Interrupted");
                kiosk.set("Status", "Interrupted", "");
                ASSERT_TRUE(test::eventually([&] { return status("Interrupted") != id; }, 10s));
            }
        }

        const JournalBooks j = journalBooks(journalPath);
        const DeviceBooks d = deviceBooks(kiosk);
        // Every coin and bill the devices took is in the journal.
        EXPECT_EQ(d.in - start.in, j.totals.inserted().minor())
            << "taken in by the devices vs journalled";
        // What left the kiosk is what the devices confirmed, plus at most what nobody knows.
        const std::int64_t paidByDevices = d.out - start.out;
        EXPECT_GE(paidByDevices, j.totals.paidOut().minor());
        EXPECT_LE(paidByDevices, (j.totals.paidOut() + j.totals.unknown).minor());
    }

    // Each cash payment kept exactly what it should; the rest was paid back or is recorded as
    // owed.
    const JournalBooks j = journalBooks(journalPath);
    for (const auto& [id, b] : j.payments) {
        if (b.request != "Due") {
            continue;
        }
        SCOPED_TRACE("payment " + std::to_string(id) + " ended \"" + b.endStatus + "\"");
        if (b.interrupted) {
            EXPECT_EQ(j.interrupted.at(id), b.inserted - b.paidOut);
            continue;
        }
        ASSERT_TRUE(b.ended);
        if (b.endStatus == "Payment Completed" && b.unknown.isZero()) {
            EXPECT_EQ(b.inserted - b.paidOut - b.unpaid, b.asked);
        }
    }
    kiosk.engine().signal(SIGTERM);
    EXPECT_EQ(kiosk.engine().wait(30s), std::optional<int>(0)) << kiosk.engine().err();
}

}  // namespace
}  // namespace kestrix
