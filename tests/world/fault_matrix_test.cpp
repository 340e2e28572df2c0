// The fault matrix: every fault switch of every simulated device, and each serial port pulled,
// struck once in every phase of a payment. Each cell checks that the engine ends the payment
// within the bound its documented waits allow, that the books balance against the models' own
// counters, that the host reads a final status (and "KSX_Error" "1" when a port went), and that
// the engine serves the next payment once the technician has put things right.

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "engine/bounds.h"
#include "engine/hoppers/hoppers.h"
#include "engine/mdb/link.h"
#include "support/kiosk.h"

namespace kestrix {
namespace {

using test::Kiosk;
using test::Till;
namespace mb = store::mailbox;

enum class Phase { Start, Accepting, Completing, Dispenser, Tubes, Hoppers, Cancel, Card };
const char* const kPhaseNames[] = {"start", "accepting", "completing", "dispenser",
                                   "tubes", "hoppers",   "cancel",     "card sale"};

// A row of the table: a fault switch of a device model, or a serial port pulled out.
struct Row {
    std::string name;
    std::string device;  // whose waits bound the cell
    std::function<void(sim::VirtualKiosk&, bool on)> set;
};

std::vector<Row> tableRows() {
    std::vector<Row> rows{{"none", "", [](sim::VirtualKiosk&, bool) {}}};
    sim::VirtualKiosk k;
    for (const std::string& device : k.models().deviceNames()) {
        std::istringstream faults(k.control("faults " + device).text);
        for (std::string fault, state; faults >> fault >> state;) {
            const std::string command = "fault " + device + " " + fault;
            rows.push_back({device + " " + fault, device, [command](sim::VirtualKiosk& v, bool on) {
                                EXPECT_TRUE(v.control(command + (on ? " on" : " off")).ok);
                            }});
        }
    }
    const auto port = [](sim::VirtualSerialPort& (sim::VirtualKiosk::*which)()) {
        return [which](sim::VirtualKiosk& v, bool on) {
            on ? (v.*which)().unplug() : (v.*which)().plugIn();
        };
    };
    rows.push_back({"MDB port", "MDB port", port(&sim::VirtualKiosk::mdbPort)});
    rows.push_back({"dispenser port", "dispenser port", port(&sim::VirtualKiosk::dispenserPort)});
    rows.push_back({"hoppers port", "hoppers port", port(&sim::VirtualKiosk::hoppersPort)});
    return rows;
}

// How much longer than the same phase without a fault a device's failure may make a payment: the
// sum of the documented bounds it can run into (bounds.h and the link's use tables), rounded up.
double budgetSeconds(const std::string& device) {
    // A command a device is trusted to answer: kDeviceAttempts sends of 200 reads of 2 ms.
    constexpr double kTrusted = mdb::kDeviceAttempts * 200 * SerialPort::kReadQuantumMs / 1000.0;
    if (device == "changer" || device == "adapter") {
        // Settling, a payout watch of the few coins this payout needs, and a trusted command at
        // each step that meets the changer (start, settle, reset, tube status, payout, status).
        return bounds::kSettleMaxSeconds + bounds::kPayoutWatchBaseSeconds +
               bounds::kPayoutSecondsPerCoin * 10 + 6 * kTrusted + bounds::kUnreadablePolls * 0.6;
    }
    if (device == "validator") {
        // One recovery stage of kValidatorAttempts sends, each with its 0.5 s wait and 49 reads,
        // then settling and the trusted commands around it.
        return mdb::kValidatorAttempts * (0.5 + 0.1) + bounds::kSettleMaxSeconds + 3 * kTrusted;
    }
    if (device == "dispenser") {
        // Each bill's answer within kDispenseAnswerRounds rounds of about 1.4 s (two bills).
        return 2 * (bounds::kDispenseAnswerRounds * 1.4 + 2.2);
    }
    if (device == "hopper1" || device == "hopper2") {
        // A hopper's payout watch: its status polls that may go unanswered or show no progress,
        // each with its pause and read limit, and the stop after them.
        return (Hoppers::kLostStatusPolls + Hoppers::kStallPolls) *
                   (Hoppers::kStatusPollSeconds + 0.2) +
               10;
    }
    return 10;  // a pulled port fails at once; the pin pad answers at once
}

bool finalCash(const std::string& s) {
    return s == "Payment Completed" || s == "Transaction Cancelled" ||
           s == "Error: Coin Acceptor" || s == "Error: Bill Validator";
}
bool finalCard(const std::string& s) {
    return s == "Credit Card Approved" || s == "Credit Card Denied" || s == "Pin Pad Error" ||
           (s.starts_with("Error: ") && s.find(" Código = ") != std::string::npos);
}

// The cash scenario asks 11 and gets a coin of 2, then a bill of 100: change of 91 takes a bill
// of 50 from the dispenser, 5 from the tubes (which hold little) and 36 from the hoppers (7 coins
// of 5, one of 1). The cancel asks 200, gets 2, 20 and 100, and pays the 122 back from the same
// three sources. The card sale asks 25.
// Returns the seconds from the fault to the final status.
double runCell(const Row& row, Phase phase) {
    Kiosk k;
    sim::VirtualKiosk& v = k.kiosk();
    for (const auto& [type, count] : {std::pair{1, 2}, {2, 0}, {3, 1}, {4, 0}, {5, 0}}) {
        v.models().setTube(type, count);
    }
    EXPECT_TRUE(k.start());
    double struckAt = -1;
    const auto strike = [&] {
        if (struckAt < 0) {
            struckAt = k.now();
            row.set(v, true);
        }
    };
    // Where the payout phases begin: the engine's first command to each source.
    if (phase == Phase::Completing) {
        k.mdbTap().onWrite = [&](std::string_view) {
            const EngineState& st = k.engine().state();
            if (st.amountDue.positive() && st.creditAmount >= st.amountDue) {
                strike();
            }
        };
    } else if (phase == Phase::Tubes) {
        k.onPayout([&](int) { strike(); });
    } else if (phase == Phase::Dispenser) {
        v.dispenserPort().setWriteListener([&](std::string_view b) {
            if (b == std::string_view("\x10\x05\x10\x02\x00\x19", 6)) {
                strike();
            }
        });
    } else if (phase == Phase::Hoppers) {
        v.hoppersPort().setWriteListener([&](std::string_view) { strike(); });
    }

    const Till before = k.till();
    const std::size_t journalFrom = v.journal().rows().size();
    v.clock().setDeadline(k.now() + 3600);  // a wait without end fails the cell
    const double due = phase == Phase::Cancel ? 200 : phase == Phase::Card ? 25 : 11;
    try {
        if (phase == Phase::Card) {
            strike();
            k.hostWrite(mb::kDueCC, "25");
            EXPECT_TRUE(k.runUntil([&] { return k.mailbox(mb::kDueCC) == "0"; }, 1200));
            k.runFor(1);
        } else {
            if (phase == Phase::Start) {
                strike();
            }
            k.hostWrite(mb::kDue, numberText(due));
            k.runUntil(
                [&] {
                    return k.mailbox(mb::kStatus) == "Insert Coins or Bills..." ||
                           k.mailbox(mb::kDue) == "0";
                },
                1200);
            if (k.paymentRunning()) {
                k.insertCoin(3);
            }
            if (phase == Phase::Accepting) {
                strike();
            }
            if (phase == Phase::Cancel) {
                for (int bill : {1, 3}) {
                    if (k.paymentRunning()) {
                        k.insertBill(bill);
                    }
                }
                strike();
                k.hostWrite(mb::kCancel, "1");
            } else if (k.paymentRunning()) {
                v.insertBill(3);
            }
            EXPECT_TRUE(k.runUntil(
                [&] {
                    return !k.paymentRunning() && !k.engine().payoutWaiting() &&
                           finalCash(k.mailbox(mb::kStatus));
                },
                2400));
        }
    } catch (const sim::VirtualDeadline&) {
        ADD_FAILURE() << "a wait without end";
        return 0;
    }
    EXPECT_GE(struckAt, 0) << "the phase was never reached";
    const double seconds = k.now() - struckAt;
    const std::string status = k.mailbox(mb::kStatus);
    const std::string ksxError = k.mailbox(mb::kKsxError);
    const bool portGone =
        !v.mdbPort().isOpen() || !v.dispenserPort().isOpen() || !v.hoppersPort().isOpen();
    EXPECT_EQ(ksxError, portGone ? "1" : "0") << "KSX_Error tells whether a port went";
    EXPECT_FALSE(k.engine().ended());

    const double credited = k.journalSum(journalFrom, journal_kind::kCredit);
    const double reported = leadingNumber(k.mailbox(mb::kChangeDispensed));
    const double unknown = k.journalSum(journalFrom, journal_kind::kPayoutUnknown);
    double owed = 0;
    if (phase == Phase::Card) {
        EXPECT_TRUE(finalCard(status)) << status;
        EXPECT_EQ(k.mailbox(mb::kCredit), status == "Credit Card Approved" ? "25" : "0");
    } else if (status == "Transaction Cancelled") {
        owed = credited;
        EXPECT_EQ(k.mailbox(mb::kCredit), "0");
    } else if (status == "Payment Completed") {
        owed = credited - due;
        EXPECT_EQ(k.mailbox(mb::kCredit), "0");
    } else {
        EXPECT_TRUE(finalCash(status)) << status;
        // A payment a device broke off leaves its credit published for the host to settle. The
        // change is paid only when the changer is still trusted, the link works and the due was
        // covered: then "ChangeDispensed" holds what was paid.
        EXPECT_NEAR(leadingNumber(k.mailbox(mb::kCredit)), credited, 1e-9);
        owed = status == "Error: Bill Validator" && !k.mailbox(mb::kChangeDispensed).empty()
                   ? std::max(0.0, credited - due)
                   : 0;
    }
    // The hoppers pay whatever the sources before them leave: only their own trouble leaves
    // change unpaid.
    if (!row.device.starts_with("hopper")) {
        EXPECT_LE(owed - reported - unknown, 1e-9)
            << "change left unpaid that the hoppers could pay";
    }
    const std::size_t nextFrom = v.journal().rows().size();

    // The technician puts things right (a changer with its cassette back counts its tubes
    // again); the host, once its cancel has been taken, asks for the next payment.
    row.set(v, false);
    k.mdbTap().onWrite = nullptr;
    const Till after = k.till();
    const double out = k.paidOut(before, after);
    EXPECT_GE(out, reported - 1e-9) << "ChangeDispensed more than left the kiosk";
    EXPECT_LE(out, reported + unknown + 1e-9) << "money left without an account";
    EXPECT_LE(out, owed + 1e-9) << "paid more than owed";
    EXPECT_NEAR(k.journalSum(journalFrom, journal_kind::kPayoutConfirmed), reported, 1e-9);
    EXPECT_TRUE(k.runUntil([&] { return k.mailbox(mb::kCancel).empty(); }, 10));
    k.hostWrite(mb::kStatus, "");
    EXPECT_TRUE(k.requestPayment("5")) << "the next payment does not start";
    EXPECT_TRUE(k.insertCoin(4));
    EXPECT_TRUE(k.runUntilIdle(120));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed") << "the next payment";
    EXPECT_EQ(k.mailbox(mb::kKsxError), "0") << "the next payment";
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "") << "the next payment";
    // Money a device took in while the engine could not hear it is recorded when it is heard
    // again (before the reset that starts the next payment).
    EXPECT_NEAR(k.inserted(before, k.till()),
                credited + k.journalSum(nextFrom, journal_kind::kCredit) +
                    k.journalSum(journalFrom, journal_kind::kUncredited),
                1e-9)
        << "money taken in and neither credited nor recorded";
    return seconds;
}

TEST(FaultMatrix, EveryFaultInEveryPhaseEndsWithinItsBoundWithTheBooksBalanced) {
    std::vector<double> unfaulted;  // the "none" row comes first
    for (const Row& row : tableRows()) {
        for (std::size_t i = 0; i < std::size(kPhaseNames); ++i) {
            SCOPED_TRACE(row.name + " in phase " + kPhaseNames[i]);
            const double seconds = runCell(row, static_cast<Phase>(i));
            if (unfaulted.size() <= i) {
                unfaulted.push_back(seconds);
            }
            EXPECT_LE(seconds, unfaulted[i] + budgetSeconds(row.device)) << "waited past the bound";
        }
    }
}

}  // namespace
}  // namespace kestrix
