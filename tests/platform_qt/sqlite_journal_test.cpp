#include <gtest/gtest.h>

#include <sys/stat.h>

#include <chrono>
#include <string>
#include <vector>

#include "engine/platform/settings_store.h"
#include "platform_qt/sqlite_journal.h"
#include "platform_qt/stderr_log.h"
#include "sim/world/fakes.h"
#include "support/support.h"

namespace kestrix::qt {
namespace {

namespace jk = journal_kind;
using namespace std::chrono_literals;

JournalEntry row(std::string_view kind, std::int64_t payment = 0, std::int64_t minor = 0,
                 std::string detail = {}) {
    return {
        .kind = kind, .paymentId = payment, .amount = Money::fromMinor(minor), .detail = detail};
}

std::vector<std::string> describe(const std::vector<JournalRecord>& rows) {
    std::vector<std::string> out;
    for (const JournalRecord& r : rows) {
        out.push_back(std::to_string(r.paymentId) + " " + r.kind);
    }
    return out;
}

TEST(SqliteJournal, FileBesideTheStorePrivateAndRowsKeptAcrossRestarts) {
    EXPECT_EQ(journalPathFor("/home/kiosk/.config/kestrix/KSX.db"),
              "/home/kiosk/.config/kestrix/KSX-journal.db");
    const std::string path = journalPathFor(test::makeTempDir("ksx-journal") + "/new/KSX.db");
    EXPECT_THROW(SqliteJournal(path, SqliteJournal::Mode::Tool), StoreError)
        << "a tool never creates a journal";
    std::int64_t firstId = 0;
    {
        SqliteJournal journal(path, SqliteJournal::Mode::Engine);
        firstId = journal.newPaymentId();
        JournalEntry credit = row(jk::kCredit, firstId, 1050, "tubes");
        credit.type = 3;
        EXPECT_EQ(journal.append(row(jk::kEngineStart)), 1);
        EXPECT_EQ(journal.append(credit), 2);
    }
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    SqliteJournal reopened(path, SqliteJournal::Mode::Engine);
    EXPECT_GT(reopened.newPaymentId(), firstId) << "ids are never handed out twice";
    EXPECT_EQ(reopened.append(row(jk::kEngineEnd)), 3);
    const std::vector<JournalRecord> rows = SqliteJournal(path, SqliteJournal::Mode::Tool).rows({});
    ASSERT_EQ(rows.size(), 3u);
    // The other fields are read back by ksxctl's journal and totals.
    EXPECT_EQ(rows[1].type, 3);
    EXPECT_EQ(rows[1].detail, "tubes");
    EXPECT_EQ(reopened.last(jk::kEngineStart)->sequence, 1);
    EXPECT_FALSE(reopened.last(jk::kEngineStart, 1));
}

// What a restart reads is exactly what the recovery needs, and old rows go except those.
TEST(SqliteJournal, RecoveryRowsAndRetentionFollowThePendingPayments) {
    const std::string path = test::makeTempDir("ksx-journal") + "/KSX-journal.db";
    SqliteJournal journal(path, SqliteJournal::Mode::Engine, nullLog(), 30);
    sim::MemoryJournal memory;  // the virtual world's journal must read back the same
    const std::vector<JournalEntry> script = {
        row(jk::kEngineStart),
        row(jk::kPaymentStart, 1),
        row(jk::kPaymentEnd, 1),
        row(jk::kPaymentStart, 2),
        row(jk::kCredit, 2, 500),
        row(jk::kPaymentStart, 3),
        row(jk::kPaymentInterrupted, 3),
        row(jk::kRestartReport, 3),
        row(jk::kPaymentStart, 4),
        row(jk::kPaymentInterrupted, 4),
        row(jk::kPaymentStart, 5),
        row(jk::kPaymentEnd, 5),
        row(jk::kEngineEnd),
        row(jk::kEngineStart),
        row(jk::kTubeLevels, 0, 100),
    };
    for (const JournalEntry& e : script) {
        journal.append(e);
        memory.append(e);
    }
    const std::vector<std::string> expected = {
        "2 payment start",       "2 credit",         "3 payment start",
        "3 payment interrupted", "3 restart report", "5 payment start",
        "5 payment end",         "0 engine end",     "0 engine start"};
    EXPECT_EQ(describe(journal.recoveryRows()), expected);
    EXPECT_EQ(describe(memory.recoveryRows()), expected);

    const auto msIn = [](std::chrono::hours h) {
        return (std::chrono::system_clock::now() + h).time_since_epoch() / 1ms;
    };
    EXPECT_EQ(journal.prune(msIn(29 * 24h)), 0);
    EXPECT_EQ(journal.prune(msIn(31 * 24h)), 10) << "all but payments 2 and 3";
    EXPECT_EQ(describe(journal.rows({})),
              (std::vector<std::string>{"2 payment start", "2 credit", "3 payment start",
                                        "3 payment interrupted", "3 restart report"}));
    journal.append(row(jk::kReportAcknowledged, 3));
    EXPECT_EQ(journal.append(row(jk::kEngineEnd)), 17) << "sequence numbers are never reused";
}

TEST(StderrLog, SyslogPrefixFieldsOneLineAndNoCardNumber) {
    EXPECT_EQ(StderrLog::format(LogLevel::Error, "changer fault: no answer", {"changer", 0}),
              "<3>changer fault: no answer device=changer");
    EXPECT_EQ(StderrLog::format(LogLevel::Info, "Paid\nback 5 \n", {"", 42}),
              "<6>Paid back 5 payment=42");
    EXPECT_EQ(StderrLog::format(LogLevel::Warning, "card 4111111111111111, ref 260314090000", {}),
              "<4>card 411111******1111, ref 260314090000");
    EXPECT_EQ(parseLogLevel("warning"), LogLevel::Warning);
    EXPECT_EQ(parseLogLevel("7"), LogLevel::Debug);
    EXPECT_FALSE(parseLogLevel("loud"));

    const std::string file = test::makeTempDir("ksx-log") + "/err";
    std::FILE* out = std::fopen(file.c_str(), "w");
    ASSERT_NE(out, nullptr);
    StderrLog log(LogLevel::Notice, out);
    log.info("per poll");
    log.notice("engine started");
    std::fclose(out);
    EXPECT_EQ(test::readFile(file), "<5>engine started\n");
}

}  // namespace
}  // namespace kestrix::qt
