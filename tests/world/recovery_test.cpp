#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/journal/recovery.h"
#include "engine/settings/layout.h"
#include "sim/world/virtual_kiosk.h"

// A restart after a crash on the simulated kiosk: the journal the last run left is closed, the
// host reads the outcome and acknowledges it, and no device pays anything.
namespace kestrix {
namespace {

namespace jk = journal_kind;
namespace mb = store::mailbox;

JournalEntry row(std::string_view kind, std::int64_t payment, std::string device = {},
                 std::int64_t minor = 0, std::string detail = {}, std::string requester = {}) {
    JournalEntry e;
    e.kind = kind;
    e.paymentId = payment;
    e.device = std::move(device);
    e.amount = Money::fromMinor(minor);
    e.detail = std::move(detail);
    e.requester = std::move(requester);
    return e;
}

std::vector<std::string> kindsFrom(const sim::MemoryJournal& journal, std::size_t first) {
    std::vector<std::string> out;
    for (std::size_t i = first; i < journal.rows().size(); ++i) {
        out.emplace_back(journal.rows()[i].kind);
    }
    return out;
}

TEST(Restart, ReportsEachInterruptedPaymentUntilTheHostAcknowledgesIt) {
    sim::VirtualKiosk k;
    k.configureAllDevices();
    sim::MemoryJournal& j = k.journal();
    // The last run: a host's change of 200 paid in full, then killed; before it, a cash
    // payment of 12.50 killed while it paid 7.50 of change from the tubes.
    for (const JournalEntry& e :
         {row(jk::kEngineStart, 0, "engine"), row(jk::kPaymentStart, 1, "", 1250, "cash", "host"),
          row(jk::kCredit, 1, "validator", 2000), row(jk::kPayoutAsked, 1, "tubes", 750),
          row(jk::kPaymentStart, 2, "", 20000, "change", "host"),
          row(jk::kPayoutAsked, 2, "dispenser", 20000),
          row(jk::kPayoutConfirmed, 2, "dispenser", 20000)}) {
        j.append(e);
    }
    const std::size_t before = j.rows().size();
    k.hostWrite(mb::kChange, "200");  // the request the host had written
    ASSERT_TRUE(k.start());

    EXPECT_EQ(kindsFrom(j, before),
              (std::vector<std::string>{"engine start", "payout unknown", "payment interrupted",
                                        "restart report", "payment interrupted", "restart report",
                                        "tube levels"}));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Interrupted");
    EXPECT_EQ(k.mailbox(mb::kChange), "") << "the request is not served again";
    const auto report = [&k] {
        return k.mailbox(mb::kInterrupted) + " " + k.mailbox(mb::kInterruptedRequest) + " " +
               k.mailbox(mb::kInterruptedAmount) + " " + k.mailbox(mb::kInterruptedOutcome) +
               " credit " + k.mailbox(mb::kInterruptedCredit) + " paid " +
               k.mailbox(mb::kInterruptedPaid) + " unknown " + k.mailbox(mb::kInterruptedUnknown);
    };
    EXPECT_EQ(report(), "1 Due 12.5 unknown credit 20 paid 0 unknown 7.5");
    EXPECT_EQ(k.mailbox(mb::kCredit), "20");

    k.runFor(5);
    EXPECT_EQ(k.mailbox(mb::kInterrupted), "1") << "published until acknowledged";
    k.hostWrite(mb::kInterrupted, "");
    k.runFor(1);
    EXPECT_EQ(report(), "2 Change 200 paid credit 0 paid 200 unknown 0");
    k.hostWrite(mb::kInterrupted, "");
    k.runFor(1);
    EXPECT_EQ(report(), "    credit  paid  unknown ") << "every report key cleared";
    EXPECT_EQ(j.rows().back().kind, jk::kReportAcknowledged);

    // Nothing was paid out for either payment.
    k.models().catchUp();
    EXPECT_EQ(k.dispenser().billsDelivered(), 0);
    for (int type = 0; type < 16; ++type) {
        EXPECT_EQ(k.changer().paidOutCount(type), 0);
    }
    const auto& log = k.log().lines();
    EXPECT_EQ(std::count_if(log.begin(), log.end(),
                            [](const std::string& l) {
                                return l.rfind("<4>payment ", 0) == 0 &&
                                       l.find(" interrupted by the engine's end") !=
                                           std::string::npos;
                            }),
              2);
}

}  // namespace
}  // namespace kestrix
