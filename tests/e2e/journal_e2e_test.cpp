#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform_qt/sqlite_journal.h"
#include "support/process.h"
#include "support/support.h"

namespace kestrix {
namespace {

namespace jk = journal_kind;

JournalEntry row(std::string_view kind, std::int64_t payment, std::string device,
                 std::int64_t minor, std::string raw = {}, int count = 0, std::string detail = {}) {
    return {kind,  payment, std::move(device), Money::fromMinor(minor),
            count, 0,       std::move(raw),    std::move(detail)};
}

int occurrences(const std::string& text, const std::string& what) {
    int n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++n;
    }
    return n;
}

// What a technician and support read: the rows of one payment, rows since a point, and the
// money per device since the cash box was last emptied.
TEST(KsxctlJournal, RowsByPaymentAndSinceAndTotalsUntilTheCashBoxIsEmptied) {
    const std::string store = test::makeTempDir("ksx-journal") + "/KSX.db";
    {
        qt::SqliteJournal journal(qt::journalPathFor(store), qt::SqliteJournal::Mode::Engine);
        for (const JournalEntry& e : {
                 row(jk::kTubeLevels, 0, "changer", 32000),
                 row(jk::kPaymentStart, 1, "", 1250, "", 0, "cash"),
                 row(jk::kCredit, 1, "changer", 1000, "54"),  // to the tubes
                 row(jk::kCredit, 1, "changer", 500, "43"),   // to the cash box
                 row(jk::kCredit, 1, "validator", 2000, "90"),
                 row(jk::kPayoutConfirmed, 1, "dispenser", 5000, "", 1),
                 row(jk::kUnpaid, 1, "", 250),
                 row(jk::kPaymentStart, 2, "", 500, "", 0, "cash"),
                 row(jk::kCredit, 2, "changer", 200, "52"),
                 row(jk::kPaymentInterrupted, 2, "engine", 200),
             }) {
            journal.append(e);
        }
    }
    const auto ksxctl = [&store](std::vector<std::string> args) {
        args.insert(args.begin(), {"--store", store});
        return test::run(test::ksxctlBinary(), args);
    };

    test::RunResult r = ksxctl({"journal", "--payment", "1", "--json"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(occurrences(r.out, "\"payment\":1,"), 6) << r.out;
    EXPECT_EQ(occurrences(r.out, "\"payment\":2,"), 0);
    EXPECT_NE(r.out.find("\"kind\":\"credit\",\"device\":\"validator\",\"amount\":\"20\","
                         "\"amountMinor\":2000"),
              std::string::npos)
        << r.out;
    r = ksxctl({"journal", "--since", "#8"});
    EXPECT_EQ(occurrences(r.out, "\n"), 3) << r.out;
    EXPECT_NE(r.out.find("payment interrupted device=engine amount=2"), std::string::npos);
    EXPECT_EQ(occurrences(ksxctl({"journal", "--since", "1h"}).out, "\n"), 10);
    EXPECT_EQ(occurrences(ksxctl({"journal", "--since", "2000-01-01 08:00"}).out, "\n"), 10);

    r = ksxctl({"totals"});
    EXPECT_EQ(r.status, 0) << r.err;
    for (const char* line : {
             "Payments: 2 cash, 0 card, 0 change",
             "  changer                             17.00  3 coins: to tubes 12.00, to cash box "
             "5.00",
             "  validator                           20.00  1 bills",
             "  dispenser                           50.00  1 bills",
             "  change not paid                      2.50",
             "  interrupted payments                 2.00",
             "  cash box                            25.00",
             "  tubes                              332.00  read ",
         }) {
        EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
    }
    EXPECT_EQ(ksxctl({"totals", "--emptied"}).status, 0);
    r = ksxctl({"totals", "--json"});
    EXPECT_NE(r.out.find("\"inserted\":\"0\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"tubes\":\"332\""), std::string::npos) << "the tubes are still known";
}

}  // namespace
}  // namespace kestrix
