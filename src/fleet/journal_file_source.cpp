#include "journal_file_source.h"

#include <sqlite3.h>

#include <filesystem>

#include "engine/platform/journal.h"

namespace kestrix::fleet {

namespace {

constexpr int kBusyTimeoutMs = 1000;

// The journal's table and columns, in JournalRow's order.
constexpr const char* kColumns =
    "seq, time_ms, payment, kind, device, amount_minor, count, type, raw, detail, requester, "
    "reference";

std::string text(sqlite3_stmt* st, int column) {
    const unsigned char* t = sqlite3_column_text(st, column);
    return t == nullptr ? std::string() : reinterpret_cast<const char*>(t);
}

}  // namespace

JournalFileSource::JournalFileSource(std::string path) : m_path(std::move(path)) {}

JournalFileSource::~JournalFileSource() {
    close();
}

void JournalFileSource::close() {
    if (m_db != nullptr) {
        sqlite3_close_v2(m_db);
        m_db = nullptr;
    }
}

JournalFileSource::Open JournalFileSource::open() {
    if (m_db != nullptr) {
        return Open::Ready;
    }
    std::error_code ec;
    if (!std::filesystem::exists(m_path, ec)) {
        return Open::Missing;
    }
    if (sqlite3_open_v2(m_path.c_str(), &m_db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
        close();
        return Open::Failed;
    }
    sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
    return Open::Ready;
}

std::vector<JournalRow> JournalFileSource::query(const char* sql, std::int64_t a, std::int64_t b) {
    std::vector<JournalRow> rows;
    if (open() != Open::Ready) {
        return rows;
    }
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(m_db, sql, -1, &st, nullptr) != SQLITE_OK) {
        // The table is not there yet (a journal being created), or the file is not a journal:
        // open it afresh next time.
        sqlite3_finalize(st);
        close();
        return rows;
    }
    // Statements without parameters ignore the bindings.
    sqlite3_bind_int64(st, 1, a);
    sqlite3_bind_int64(st, 2, b);
    while (sqlite3_step(st) == SQLITE_ROW) {
        JournalRow r;
        r.sequence = sqlite3_column_int64(st, 0);
        r.wallTimeMs = sqlite3_column_int64(st, 1);
        r.paymentId = sqlite3_column_int64(st, 2);
        r.kind = text(st, 3);
        r.device = text(st, 4);
        r.amount = Money::fromMinor(sqlite3_column_int64(st, 5));
        r.count = sqlite3_column_int(st, 6);
        r.type = sqlite3_column_int(st, 7);
        r.raw = text(st, 8);
        r.detail = text(st, 9);
        r.requester = text(st, 10);
        r.reference = text(st, 11);
        rows.push_back(std::move(r));
    }
    sqlite3_finalize(st);
    return rows;
}

std::vector<JournalRow> JournalFileSource::rowsAfter(std::int64_t sequence, std::size_t limit) {
    static const std::string sql =
        std::string("SELECT ") + kColumns + " FROM journal WHERE seq > ?1 ORDER BY seq LIMIT ?2";
    return query(sql.c_str(), sequence, static_cast<std::int64_t>(limit));
}

std::int64_t JournalFileSource::lastSequence() {
    switch (open()) {
        case Open::Missing:
            return 0;
        case Open::Failed:
            return -1;
        case Open::Ready:
            break;
    }
    sqlite3_stmt* st = nullptr;
    std::int64_t last = -1;
    if (sqlite3_prepare_v2(m_db, "SELECT coalesce(max(seq), 0) FROM journal", -1, &st, nullptr) ==
            SQLITE_OK &&
        sqlite3_step(st) == SQLITE_ROW) {
        last = sqlite3_column_int64(st, 0);
    }
    sqlite3_finalize(st);
    if (last < 0) {
        close();
    }
    return last;
}

std::vector<JournalRow> JournalFileSource::latestFaultRows() {
    // Each device's latest fault and latest recovery, in sequence order: a recovery after the
    // fault marks it recovered.
    static const std::string sql =
        std::string("SELECT ") + kColumns +
        " FROM journal WHERE seq IN (SELECT max(seq) FROM journal WHERE kind = '" +
        std::string(journal_kind::kDeviceFault) +
        "' GROUP BY device UNION SELECT max(seq) FROM journal WHERE kind = '" +
        std::string(journal_kind::kDeviceRecovered) + "' GROUP BY device) ORDER BY seq";
    return query(sql.c_str(), 0, 0);
}

}  // namespace kestrix::fleet
