#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/platform/journal.h"
#include "engine/platform/log.h"

struct sqlite3;
struct sqlite3_stmt;

namespace kestrix::qt {

// The journal's file, beside the store: "KSX.db" -> "KSX-journal.db" in the same directory.
std::string journalPathFor(const std::string& storePath);

// Which rows a tool reads.
struct JournalQuery {
    std::int64_t afterSequence = 0;  // rows after this sequence number
    std::int64_t sinceMs = 0;        // rows at or after this wall time (0: any)
    std::int64_t paymentId = 0;      // only this payment's rows (0: every row)
};

// The money journal as an SQLite database of its own, one table:
//
//   journal(seq INTEGER PRIMARY KEY AUTOINCREMENT, time_ms, payment, kind, device, amount_minor,
//           count, type, raw, detail, requester, reference)
//
// seq is monotonic and never reused (AUTOINCREMENT), time_ms the wall time in milliseconds since
// 1970 UTC, amount_minor the amount in minor units. Beside it, `pending` holds the payments a
// restart must look at (started and not ended, or reported to the host and not acknowledged) and
// `counters` the last payment id handed out.
//
// Every append is one transaction in WAL mode with synchronous=FULL: it is on disk when append()
// returns, so a power cut loses no row the mailbox has shown. Rows older than the retention
// (400 days unless told otherwise) are deleted at start-up and once a day, except those of
// pending payments. One connection guarded by a mutex.
class SqliteJournal : public Journal {
public:
    static constexpr int kDefaultKeepDays = 400;
    static constexpr int kBusyTimeoutMs = 5000;

    enum class Mode {
        Engine,  // creates the file (0600) and its directory (0700) when missing, and prunes
        Tool,    // opens an existing journal (ksxctl); throws StoreError when there is none
    };

    // Throws StoreError. A write that fails later is reported to `log` (once until writes
    // succeed again) and append() returns 0.
    SqliteJournal(std::string path, Mode mode, Log& log = nullLog(),
                  int keepDays = kDefaultKeepDays);
    ~SqliteJournal() override;
    SqliteJournal(const SqliteJournal&) = delete;
    SqliteJournal& operator=(const SqliteJournal&) = delete;

    std::int64_t append(const JournalEntry& entry) override;
    std::int64_t newPaymentId() override;
    std::vector<JournalRecord> recoveryRows() override;

    // For tools. Throw StoreError.
    std::vector<JournalRecord> rows(const JournalQuery& query);
    // The last row of `kind` with a sequence below `beforeSequence` (0: any).
    std::optional<JournalRecord> last(std::string_view kind, std::int64_t beforeSequence = 0);
    // The sequence of the last row (0: none).
    std::int64_t lastSequence();
    // Deletes the rows older than the retention at `nowMs`, but not those of pending payments;
    // returns how many went.
    std::int64_t prune(std::int64_t nowMs);

    const std::string& path() const { return m_path; }
    int keepDays() const { return m_keepDays; }

private:
    [[noreturn]] void fail(const std::string& what) const;
    void exec(const char* sql);
    sqlite3_stmt* prepare(const char* sql);
    std::vector<JournalRecord> select(sqlite3_stmt* stmt);
    std::int64_t pruneLocked(std::int64_t nowMs);
    void closeAll();

    std::string m_path;
    Log& m_log;
    int m_keepDays;
    sqlite3* m_db = nullptr;
    sqlite3_stmt* m_insert = nullptr;
    sqlite3_stmt* m_addPending = nullptr;
    sqlite3_stmt* m_dropPending = nullptr;
    sqlite3_stmt* m_nextPayment = nullptr;
    bool m_failing = false;          // the last write failed (logged once)
    std::int64_t m_nextPruneMs = 0;  // when append() prunes next
    std::mutex m_mutex;
};

}  // namespace kestrix::qt
