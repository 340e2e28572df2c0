#include "sqlite_journal.h"

#include <sqlite3.h>

#include <chrono>
#include <filesystem>
#include <system_error>

#include "engine/platform/settings_store.h"

#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "sqlite_statement.h"

namespace kestrix::qt {

namespace {

using sqlite::bindText;
using sqlite::columnText;
using sqlite::Reset;

constexpr std::int64_t kMsPerDay = 24LL * 3600 * 1000;
// Old rows go in batches, so that a long backlog never holds the write lock for long.
constexpr int kPruneBatch = 5000;

const char* const kColumns =
    "seq, time_ms, payment, kind, device, amount_minor, count, type, raw, detail, requester, "
    "reference";

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

struct Finalize {
    sqlite3_stmt* stmt;
    ~Finalize() { sqlite3_finalize(stmt); }
};

bool addsPending(std::string_view kind) {
    return kind == journal_kind::kPaymentStart || kind == journal_kind::kRestartReport;
}

bool dropsPending(std::string_view kind) {
    return kind == journal_kind::kPaymentEnd || kind == journal_kind::kPaymentInterrupted ||
           kind == journal_kind::kReportAcknowledged;
}

// Creates the file readable by its owner only before SQLite opens it: SQLite gives its WAL and
// shared-memory files the database's permissions.
void createPrivately(const std::string& path) {
    const std::filesystem::path dir = std::filesystem::path(path).parent_path();
    std::error_code ec;
    if (!dir.empty() && !std::filesystem::exists(dir, ec)) {
        std::filesystem::create_directories(dir, ec);
        if (ec) {
            throw StoreError("journal " + path + ": cannot create " + dir.string() + ": " +
                             ec.message());
        }
        std::filesystem::permissions(dir, std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::replace, ec);
    }
#ifndef _WIN32
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0) {
        throw StoreError("journal " + path + ": cannot create: " +
                         std::error_code(errno, std::generic_category()).message());
    }
    ::close(fd);
#endif
}

}  // namespace

std::string journalPathFor(const std::string& storePath) {
    const std::filesystem::path store(storePath);
    std::filesystem::path name = store.stem();
    name += "-journal";
    name += store.extension();
    return (store.parent_path() / name).string();
}

SqliteJournal::SqliteJournal(std::string path, Mode mode, Log& log, int keepDays)
    : m_path(std::move(path)), m_log(log), m_keepDays(keepDays > 0 ? keepDays : kDefaultKeepDays) {
    if (m_path.empty()) {
        throw StoreError("journal: empty path");
    }
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX;
    if (mode == Mode::Engine) {
        createPrivately(m_path);
        flags |= SQLITE_OPEN_CREATE;
    } else if (!std::filesystem::exists(m_path)) {
        throw StoreError("journal " + m_path +
                         ": no journal here (the engine creates it when it starts)");
    }
    const int rc = sqlite3_open_v2(m_path.c_str(), &m_db, flags, nullptr);
    if (rc != SQLITE_OK) {
        const std::string message = m_db != nullptr ? sqlite3_errmsg(m_db) : sqlite3_errstr(rc);
        sqlite3_close(m_db);
        m_db = nullptr;
        throw StoreError("journal " + m_path + ": " + message);
    }
    try {
        sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
        // Freed pages go back to the file system as old rows are pruned, so the file stays
        // bounded (takes effect when the file is new).
        exec("PRAGMA auto_vacuum=INCREMENTAL");
        exec("PRAGMA journal_mode=WAL");
        // Every commit reaches the disk before it returns: a row the host was shown survives a
        // power cut.
        exec("PRAGMA synchronous=FULL");
        if (mode == Mode::Engine) {
            exec(
                "CREATE TABLE IF NOT EXISTS journal("
                "seq INTEGER PRIMARY KEY AUTOINCREMENT, time_ms INTEGER NOT NULL, "
                "payment INTEGER NOT NULL DEFAULT 0, kind TEXT NOT NULL, "
                "device TEXT NOT NULL DEFAULT '', amount_minor INTEGER NOT NULL DEFAULT 0, "
                "count INTEGER NOT NULL DEFAULT 0, type INTEGER NOT NULL DEFAULT 0, "
                "raw TEXT NOT NULL DEFAULT '', detail TEXT NOT NULL DEFAULT '', "
                "requester TEXT NOT NULL DEFAULT '', reference TEXT NOT NULL DEFAULT '');"
                "CREATE INDEX IF NOT EXISTS journal_time ON journal(time_ms);"
                "CREATE INDEX IF NOT EXISTS journal_payment ON journal(payment);"
                "CREATE INDEX IF NOT EXISTS journal_kind ON journal(kind, seq);"
                "CREATE TABLE IF NOT EXISTS pending(payment INTEGER PRIMARY KEY);"
                "CREATE TABLE IF NOT EXISTS counters(name TEXT PRIMARY KEY, "
                "value INTEGER NOT NULL);"
                "INSERT OR IGNORE INTO counters SELECT 'payment', COALESCE(MAX(payment), 0) "
                "FROM journal;"
                "PRAGMA user_version=1");
        }
        m_insert = prepare(
            "INSERT INTO journal(time_ms, payment, kind, device, amount_minor, count, type, raw, "
            "detail, requester, reference) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)");
        m_addPending = prepare("INSERT OR IGNORE INTO pending(payment) VALUES(?1)");
        m_dropPending = prepare("DELETE FROM pending WHERE payment = ?1");
        m_nextPayment =
            prepare("UPDATE counters SET value = value + 1 WHERE name = 'payment' RETURNING value");
        if (mode == Mode::Engine) {
            pruneLocked(nowMs());
        }
    } catch (const std::exception&) {
        closeAll();
        throw;
    }
}

SqliteJournal::~SqliteJournal() {
    closeAll();
}

void SqliteJournal::closeAll() {
    for (sqlite3_stmt** stmt : {&m_insert, &m_addPending, &m_dropPending, &m_nextPayment}) {
        sqlite3_finalize(*stmt);
        *stmt = nullptr;
    }
    sqlite3_close(m_db);
    m_db = nullptr;
}

void SqliteJournal::fail(const std::string& what) const {
    throw StoreError("journal " + m_path + ": " + what + ": " + sqlite3_errmsg(m_db));
}

void SqliteJournal::exec(const char* sql) {
    char* error = nullptr;
    if (sqlite3_exec(m_db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
        std::string message = error != nullptr ? error : sqlite3_errmsg(m_db);
        sqlite3_free(error);
        throw StoreError("journal " + m_path + ": " + message);
    }
}

sqlite3_stmt* SqliteJournal::prepare(const char* sql) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(m_db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) {
        fail("cannot prepare a query");
    }
    return stmt;
}

std::int64_t SqliteJournal::append(const JournalEntry& e) {
    std::lock_guard lock(m_mutex);
    const std::int64_t now = nowMs();
    try {
        const bool pendingChange =
            e.paymentId != 0 && (addsPending(e.kind) || dropsPending(e.kind));
        if (pendingChange) {
            exec("BEGIN IMMEDIATE");
        }
        try {
            Reset reset{m_insert};
            sqlite3_bind_int64(m_insert, 1, now);
            sqlite3_bind_int64(m_insert, 2, e.paymentId);
            bindText(m_insert, 3, e.kind);
            bindText(m_insert, 4, e.device);
            sqlite3_bind_int64(m_insert, 5, e.amount.minor());
            sqlite3_bind_int(m_insert, 6, e.count);
            sqlite3_bind_int(m_insert, 7, e.type);
            bindText(m_insert, 8, e.raw);
            bindText(m_insert, 9, e.detail);
            bindText(m_insert, 10, e.requester);
            bindText(m_insert, 11, e.reference);
            if (sqlite3_step(m_insert) != SQLITE_DONE) {
                fail("cannot append a \"" + std::string(e.kind) + "\" row");
            }
            if (pendingChange) {
                sqlite3_stmt* stmt = addsPending(e.kind) ? m_addPending : m_dropPending;
                Reset resetPending{stmt};
                sqlite3_bind_int64(stmt, 1, e.paymentId);
                if (sqlite3_step(stmt) != SQLITE_DONE) {
                    fail("cannot note the payment as pending");
                }
                exec("COMMIT");
            }
        } catch (...) {
            if (pendingChange) {
                sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
            }
            throw;
        }
        const std::int64_t sequence = sqlite3_last_insert_rowid(m_db);
        if (m_failing) {
            m_failing = false;
            m_log.notice("journal: writes again", {"journal", e.paymentId});
        }
        if (now >= m_nextPruneMs) {
            pruneLocked(now);
        }
        return sequence;
    } catch (const std::exception& error) {
        if (!m_failing) {
            m_failing = true;
            m_log.error(std::string("journal: write failed: ") + error.what(),
                        {"journal", e.paymentId});
        }
        return 0;
    }
}

std::int64_t SqliteJournal::newPaymentId() {
    std::lock_guard lock(m_mutex);
    Reset reset{m_nextPayment};
    if (sqlite3_step(m_nextPayment) == SQLITE_ROW) {
        const std::int64_t id = sqlite3_column_int64(m_nextPayment, 0);
        sqlite3_step(m_nextPayment);  // runs the statement to its end, so it commits
        return id;
    }
    // The journal cannot count: an id from the clock is still new, and far above any id counted.
    if (!m_failing) {
        m_failing = true;
        m_log.error(std::string("journal: cannot hand out a payment id: ") + sqlite3_errmsg(m_db),
                    {"journal", 0});
    }
    return nowMs();
}

std::vector<JournalRecord> SqliteJournal::select(sqlite3_stmt* stmt) {
    std::vector<JournalRecord> out;
    for (;;) {
        const int rc = sqlite3_step(stmt);
        if (rc == SQLITE_DONE) {
            return out;
        }
        if (rc != SQLITE_ROW) {
            fail("cannot read the rows");
        }
        JournalRecord r;
        r.sequence = sqlite3_column_int64(stmt, 0);
        r.wallTimeMs = sqlite3_column_int64(stmt, 1);
        r.paymentId = sqlite3_column_int64(stmt, 2);
        r.kind = columnText(stmt, 3);
        r.device = columnText(stmt, 4);
        r.amount = Money::fromMinor(sqlite3_column_int64(stmt, 5));
        r.count = sqlite3_column_int(stmt, 6);
        r.type = sqlite3_column_int(stmt, 7);
        r.raw = columnText(stmt, 8);
        r.detail = columnText(stmt, 9);
        r.requester = columnText(stmt, 10);
        r.reference = columnText(stmt, 11);
        out.push_back(std::move(r));
    }
}

std::vector<JournalRecord> SqliteJournal::recoveryRows() {
    std::lock_guard lock(m_mutex);
    const std::string sql =
        std::string("SELECT ") + kColumns +
        " FROM journal WHERE payment IN (SELECT payment FROM pending) "
        "OR payment = (SELECT payment FROM journal WHERE kind = 'payment start' "
        "ORDER BY seq DESC LIMIT 1) "
        "OR seq = (SELECT MAX(seq) FROM journal WHERE kind = 'engine start') "
        "OR seq = (SELECT MAX(seq) FROM journal WHERE kind = 'engine end') "
        "ORDER BY seq";
    sqlite3_stmt* stmt = prepare(sql.c_str());
    Finalize finalize{stmt};
    return select(stmt);
}

std::vector<JournalRecord> SqliteJournal::rows(const JournalQuery& q) {
    std::lock_guard lock(m_mutex);
    std::string sql = std::string("SELECT ") + kColumns + " FROM journal WHERE seq > ?1";
    if (q.sinceMs != 0) {
        sql += " AND time_ms >= ?2";
    }
    if (q.paymentId != 0) {
        sql += " AND payment = ?3";
    }
    sql += " ORDER BY seq";
    sqlite3_stmt* stmt = prepare(sql.c_str());
    Finalize finalize{stmt};
    sqlite3_bind_int64(stmt, 1, q.afterSequence);
    if (q.sinceMs != 0) {
        sqlite3_bind_int64(stmt, 2, q.sinceMs);
    }
    if (q.paymentId != 0) {
        sqlite3_bind_int64(stmt, 3, q.paymentId);
    }
    return select(stmt);
}

std::optional<JournalRecord> SqliteJournal::last(std::string_view kind,
                                                 std::int64_t beforeSequence) {
    std::lock_guard lock(m_mutex);
    const std::string sql = std::string("SELECT ") + kColumns +
                            " FROM journal WHERE kind = ?1 AND seq < ?2 ORDER BY seq DESC LIMIT 1";
    sqlite3_stmt* stmt = prepare(sql.c_str());
    Finalize finalize{stmt};
    bindText(stmt, 1, kind);
    sqlite3_bind_int64(stmt, 2, beforeSequence > 0 ? beforeSequence : INT64_MAX);
    std::vector<JournalRecord> found = select(stmt);
    if (found.empty()) {
        return std::nullopt;
    }
    return found.front();
}

std::int64_t SqliteJournal::lastSequence() {
    std::lock_guard lock(m_mutex);
    sqlite3_stmt* stmt = prepare("SELECT COALESCE(MAX(seq), 0) FROM journal");
    Finalize finalize{stmt};
    if (sqlite3_step(stmt) != SQLITE_ROW) {
        fail("cannot read the last row");
    }
    return sqlite3_column_int64(stmt, 0);
}

std::int64_t SqliteJournal::prune(std::int64_t now) {
    std::lock_guard lock(m_mutex);
    return pruneLocked(now);
}

std::int64_t SqliteJournal::pruneLocked(std::int64_t now) {
    m_nextPruneMs = now + kMsPerDay;
    const std::int64_t cutoff = now - m_keepDays * kMsPerDay;
    sqlite3_stmt* stmt = prepare(
        "DELETE FROM journal WHERE seq IN (SELECT seq FROM journal WHERE time_ms < ?1 AND "
        "payment NOT IN (SELECT payment FROM pending) ORDER BY seq LIMIT ?2)");
    Finalize finalize{stmt};
    std::int64_t removed = 0;
    for (;;) {
        Reset reset{stmt};
        sqlite3_bind_int64(stmt, 1, cutoff);
        sqlite3_bind_int(stmt, 2, kPruneBatch);
        if (sqlite3_step(stmt) != SQLITE_DONE) {
            fail("cannot remove old rows");
        }
        const int n = sqlite3_changes(m_db);
        removed += n;
        if (n < kPruneBatch) {
            break;
        }
    }
    if (removed > 0) {
        exec("PRAGMA incremental_vacuum");
    }
    return removed;
}

}  // namespace kestrix::qt
