#include <gtest/gtest.h>
#include <signal.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "engine/journal/books.h"
#include "platform_qt/sqlite_journal.h"
#include "simulated_kiosk.h"

// The engine killed (kill -9) at random points of payments on the kiosk as it runs in the field:
// kestrix-sim in place of the devices, kestrix on its pseudo-terminals. After every restart the
// journal and the simulator's own counts must reconcile to the minor unit, and the host, reading
// the mailbox as the host guide says, must never be led to ask for money a second time.
//
// KSX_KILL_PAYMENTS sets the number of payments (a few in `make test`; run it with 200 or more
// to soak), KSX_KILL_SEED the random seed, KSX_KILL_SCENARIOS a comma-separated choice of
// "accepting", "completing", "change", "card" and "no kill" (all by default).
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
    const test::RunResult state = kiosk.ctl({"state"});
    const QJsonObject s = QJsonDocument::fromJson(QByteArray::fromStdString(state.out)).object();
    const QJsonObject changer = s["changer"].toObject();
    const QJsonObject validator = s["validator"].toObject();
    const QJsonObject dispenser = s["dispenser"].toObject();
    DeviceBooks b;
    const auto coinMinor = [&p](int type) {
        return static_cast<std::int64_t>(p.changer.coinCredits[static_cast<std::size_t>(type)]) *
               Money::kMinorPerUnit / p.changer.scalingFactor;
    };
    for (int t = 0; t < changer["tubes"].toArray().size(); ++t) {
        const int out = changer["paidOut"].toArray()[t].toInt();
        b.in += (changer["tubes"].toArray()[t].toInt() + changer["cashBox"].toArray()[t].toInt() +
                 out) *
                coinMinor(t);
        b.out += out * coinMinor(t);
    }
    for (int t = 0; t < validator["stacked"].toArray().size(); ++t) {
        std::int64_t minor =
            static_cast<std::int64_t>(p.validator.billCredits[static_cast<std::size_t>(t)]) *
            p.validator.scalingFactor * Money::kMinorPerUnit;
        for (int d = 0; d < p.validator.decimalPlaces; ++d) {
            minor /= 10;
        }
        b.in += validator["stacked"].toArray()[t].toInt() * minor;
    }
    b.out += dispenser["billsDelivered"].toInt() * p.dispenser.billValue * Money::kMinorPerUnit;
    const QJsonArray hoppers = s["hoppers"].toObject()["hoppers"].toArray();
    const double hopperValue[2] = {p.hopper1CoinValue, p.hopper2CoinValue};
    for (int h = 0; h < 2 && h < hoppers.size(); ++h) {
        const QJsonObject hopper = hoppers[h].toObject();
        b.out += hopper["coinsPaid"].toInt() *
                 static_cast<std::int64_t>(hopperValue[h] * Money::kMinorPerUnit);
        b.busy = b.busy || hopper["lastDispense"].toObject()["remaining"].toInt() > 0;
    }
    b.busy = b.busy || changer["payoutBusy"].toBool() || changer["coinsPlanned"].toInt() > 0 ||
             dispenser["busy"].toBool();
    return b;
}

// The journal read as ksxctl reads it, summed per payment.
struct JournalBooks {
    Money inserted;
    Money paidOut;
    Money unknown;
    std::map<std::int64_t, books::PaymentBooks> payments;
    std::map<std::int64_t, Money> interrupted;  // what each interrupted payment left to settle
    Money uncreditedOutside;                    // taken in outside any payment
    std::int64_t lastSequence = 0;
    std::vector<JournalRecord> rows;
};

JournalBooks journalBooks(const std::string& path) {
    JournalBooks j;
    qt::SqliteJournal journal(path, qt::SqliteJournal::Mode::Tool);
    j.rows = journal.rows({});
    std::map<std::int64_t, std::vector<JournalRecord>> byPayment;
    for (const JournalRecord& r : j.rows) {
        j.lastSequence = r.sequence;
        if (r.kind == jk::kCredit || r.kind == jk::kUncredited) {
            j.inserted += r.amount;
            if (r.paymentId == 0) {
                j.uncreditedOutside += r.amount;
            }
        } else if (r.kind == jk::kPayoutConfirmed) {
            j.paidOut += r.amount;
        } else if (r.kind == jk::kPayoutUnknown) {
            j.unknown += r.amount;
        } else if (r.kind == jk::kPaymentInterrupted) {
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

struct Report {
    std::int64_t id = 0;
    std::string request, outcome;
    Money credit, paid, unknown;
};

TEST(KillNine, JournalAndDeviceBooksReconcileAfterEveryRestart) {
    const int payments = envInt("KSX_KILL_PAYMENTS", 4);
    const unsigned seed = static_cast<unsigned>(envInt("KSX_KILL_SEED", 20261123));
    std::mt19937 rng(seed);
    const auto uniform = [&rng](int lo, int hi) {
        return std::uniform_int_distribution<int>(lo, hi)(rng);
    };
    const auto pause = [](int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); };

    test::SimulatedKiosk kiosk(test::SimulatedKiosk::Devices::OnPtys);
    ASSERT_TRUE(kiosk.start());
    const std::string journalPath = qt::journalPathFor(kiosk.store);
    const DeviceBooks start = deviceBooks(kiosk);
    std::map<std::string, int> tally;
    std::ostringstream history;

    std::vector<std::string> scenarios;
    {
        const char* chosen = std::getenv("KSX_KILL_SCENARIOS");
        std::stringstream list(chosen != nullptr && *chosen != '\0'
                                   ? chosen
                                   : "accepting,completing,change,card,no kill");
        for (std::string s; std::getline(list, s, ',');) {
            scenarios.push_back(s);
        }
    }
    for (int n = 0; n < payments && !HasFailure(); ++n) {
        const std::string scenario =
            scenarios[static_cast<std::size_t>(uniform(0, static_cast<int>(scenarios.size()) - 1))];
        const std::string request = scenario == "change" ? "Change"
                                    : scenario == "card" ? "DueCC"
                                                         : "Due";
        const Money asked = Money::fromMinor(50 * uniform(1, scenario == "change" ? 240 : 120));
        const std::int64_t requestSeq = journalBooks(journalPath).lastSequence;
        std::ostringstream what;
        what << "payment " << n << " (" << scenario << ", " << request << " " << asked.text()
             << ")";
        SCOPED_TRACE(what.str());

        kiosk.set("Status", "Status", "");
        kiosk.set("Status", request, asked.text());
        bool kill = scenario != "no kill";
        if (request == "Due") {
            ASSERT_TRUE(test::eventually(
                [&] { return kiosk.get("Status", "Status") == "Insert Coins or Bills..."; }, 30s))
                << kiosk.engine().err();
            // The customer's money, each piece credited before the next (so that no coin is in
            // flight at the kill: what the changer has not yet reported cannot be journalled).
            const int stopAfter = scenario == "accepting" ? uniform(0, 3) : 1000;
            for (int pieces = 0; pieces < 60 && pieces < stopAfter; ++pieces) {
                const Money credit = Money::parse(kiosk.get("Status", "Credit")).value_or(Money());
                if (credit >= asked || kiosk.get("Status", "Due") == "0") {
                    break;
                }
                const int pick = uniform(0, 5);
                const std::vector<std::string> piece =
                    pick == 0 ? std::vector<std::string>{"bill", "1"}
                              : std::vector<std::string>{"coin", pick < 3 ? "3" : "5"};
                if (kiosk.ctl(piece).status != 0) {
                    break;  // acceptance is already off
                }
                test::eventually([&] { return kiosk.get("Status", "Credit") != credit.text(); },
                                 5s);
            }
            if (scenario == "completing") {
                pause(uniform(0, 4000));
            }
        } else if (kill && uniform(0, 4) != 0) {
            // Mostly while the payout or the sale runs; now and then as the request is taken.
            test::eventually(
                [&] {
                    return request == "Change"
                               ? kiosk.get("Status", "Status") == "Dispensing change..." ||
                                     kiosk.get("Status", "Change").empty()
                               : !kiosk.get("Status", "ReferenceCC").empty();
                },
                10s);
            pause(uniform(0, request == "Change" ? 6000 : 3000));
        } else {
            pause(uniform(0, 1000));
        }
        if (!kill) {
            ASSERT_TRUE(test::eventually(
                [&] { return finalStatus(request, kiosk.get("Status", "Status")); }, 120s))
                << kiosk.engine().err();
        } else {
            kiosk.engine().signal(SIGKILL);
            ASSERT_TRUE(kiosk.engine().wait(10s));
        }
        // The mailbox as the dead engine left it: what the host can have read, and what the
        // restart's recovery reads.
        const std::string key = kiosk.get("Status", request);
        const bool keyGivenBack = key == "0" || key.empty();
        const bool resultShown =
            keyGivenBack && finalStatus(request, kiosk.get("Status", "Status"));
        // Payouts the devices run on their own finish before the books are read.
        test::eventually([&] { return !deviceBooks(kiosk).busy; }, 30s);

        std::vector<Report> reports;
        if (kill) {
            kiosk.set("Pin Pad", "On Line", "");  // so that start() waits for the new engine
            // A dispenser killed in the middle of a frame may answer the next set-up with an
            // error; the kiosk then pays change from its other sources.
            if (!kiosk.start(false)) {
                const std::optional<int> status = kiosk.engine().wait(1s);
                FAIL() << "the engine did not come back: "
                       << (status ? "exit status " + std::to_string(*status) : "still running")
                       << "\n"
                       << kiosk.ksxctl({"journal", "--since", "#" + std::to_string(requestSeq + 1)})
                              .out;
            }
            pause(1500);  // the bill validator is initialised last, after the tubes are read
            // The host reads each restart report and acknowledges it.
            for (int r = 0; r < 10 && !kiosk.get("Status", "Interrupted").empty(); ++r) {
                Report rep;
                const std::string id = kiosk.get("Status", "Interrupted");
                rep.id = std::stoll(id);
                rep.request = kiosk.get("Status", "InterruptedRequest");
                rep.outcome = kiosk.get("Status", "InterruptedOutcome");
                rep.credit =
                    Money::parse(kiosk.get("Status", "InterruptedCredit")).value_or(Money());
                rep.paid = Money::parse(kiosk.get("Status", "InterruptedPaid")).value_or(Money());
                rep.unknown =
                    Money::parse(kiosk.get("Status", "InterruptedUnknown")).value_or(Money());
                reports.push_back(rep);
                kiosk.set("Status", "Interrupted", "");
                ASSERT_TRUE(test::eventually(
                    [&] { return kiosk.get("Status", "Interrupted") != id; }, 10s));
                if (kiosk.get("Status", "Interrupted").empty()) {
                    break;
                }
            }
        }

        const JournalBooks j = journalBooks(journalPath);
        const DeviceBooks d = deviceBooks(kiosk);
        // Every coin and bill the devices took is in the journal.
        EXPECT_EQ(d.in - start.in, j.inserted.minor()) << "taken in by the devices vs journalled";
        // What left the kiosk is what the devices confirmed, plus at most what nobody knows.
        const std::int64_t paidByDevices = d.out - start.out;
        EXPECT_GE(paidByDevices, j.paidOut.minor());
        EXPECT_LE(paidByDevices, (j.paidOut + j.unknown).minor());

        // The request the host wrote: its outcome shown before the kill, or reported after the
        // restart, or never started (and so safe to ask again).
        std::vector<std::int64_t> started;
        for (const JournalRecord& r : j.rows) {
            if (r.sequence > requestSeq && r.kind == jk::kPaymentStart) {
                started.push_back(r.paymentId);
            }
        }
        const Report* mine = nullptr;
        for (const Report& rep : reports) {
            for (std::int64_t id : started) {
                mine = rep.id == id ? &rep : mine;
            }
        }
        std::string outcome = resultShown ? "result shown" : "not started";
        if (kill) {
            EXPECT_TRUE(mine != nullptr || started.empty())
                << "the payment started but the host is told nothing: it would ask again";
        }
        if (mine != nullptr) {
            outcome = "reported " + mine->outcome;
            EXPECT_EQ(mine->request, request);
            const books::PaymentBooks& b = j.payments.at(mine->id);
            EXPECT_EQ(mine->paid, b.paidOut);
            EXPECT_EQ(mine->unknown, b.unknown);
        }
        if (std::getenv("KSX_KILL_DEBUG") != nullptr) {
            std::cout
                << kiosk.ksxctl({"journal", "--since", "#" + std::to_string(requestSeq + 1)}).out
                << kiosk.engine().err() << std::endl;
        }
        ++tally[scenario + ": " + outcome];
        history << what.str() << ": " << outcome << "\n";
    }

    // Each cash payment kept exactly what it should; the rest was paid back or is recorded as
    // owed: inserted = kept + paid back + owed.
    const JournalBooks j = journalBooks(journalPath);
    Money inserted = j.uncreditedOutside;
    Money kept;
    Money paidBack;
    Money owed = j.uncreditedOutside;
    for (const auto& [id, b] : j.payments) {
        if (b.request != "Due") {
            continue;
        }
        SCOPED_TRACE("payment " + std::to_string(id) + " ended \"" + b.endStatus + "\"");
        inserted += b.inserted;
        paidBack += b.paidOut;
        if (b.interrupted) {
            EXPECT_EQ(j.interrupted.at(id), b.inserted - b.paidOut);
            owed += j.interrupted.at(id);
            continue;
        }
        ASSERT_TRUE(b.ended);
        const Money keptHere = b.inserted - b.paidOut - b.unpaid;
        if (b.endStatus == "Payment Completed" && b.unknown.isZero()) {
            EXPECT_EQ(keptHere, b.asked);
        }
        kept += keptHere;
        owed += b.unpaid;
    }
    EXPECT_EQ(inserted, kept + paidBack + owed);
    std::ostringstream summary;
    for (const auto& [what, count] : tally) {
        summary << what << ": " << count << "; ";
    }
    summary << "inserted " << inserted.text() << " = kept " << kept.text() << " + paid back "
            << paidBack.text() << " + owed " << owed.text() << " (seed " << seed << ")";
    RecordProperty("summary", summary.str());
    std::cout << history.str() << summary.str() << "\n";
}

}  // namespace
}  // namespace kestrix
