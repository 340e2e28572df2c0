#include "fakes.h"

#include <algorithm>
#include <set>

namespace kestrix::sim {

void RecordingPrinter::select(const std::string& name) {
    if (std::find(m_installed.begin(), m_installed.end(), name) != m_installed.end()) {
        m_current = name;
    }
}

std::vector<JournalRecord> MemoryJournal::records() const {
    std::vector<JournalRecord> out;
    std::int64_t sequence = 0;
    for (const JournalEntry& e : m_rows) {
        JournalRecord r;
        r.sequence = ++sequence;
        r.paymentId = e.paymentId;
        r.kind = std::string(e.kind);
        r.device = e.device;
        r.amount = e.amount;
        r.count = e.count;
        r.type = e.type;
        r.raw = e.raw;
        r.detail = e.detail;
        r.requester = e.requester;
        r.reference = e.reference;
        out.push_back(std::move(r));
    }
    return out;
}

std::vector<JournalRecord> MemoryJournal::recoveryRows() {
    namespace jk = journal_kind;
    const std::vector<JournalRecord> all = records();
    // The payments a restart must look at, kept the way the SQLite journal keeps them.
    std::set<std::int64_t> pending;
    std::int64_t lastPayment = 0;
    std::int64_t lastStart = 0;
    std::int64_t lastEnd = 0;
    for (const JournalRecord& r : all) {
        if (r.kind == jk::kPaymentStart || r.kind == jk::kRestartReport) {
            pending.insert(r.paymentId);
        } else if (r.kind == jk::kPaymentEnd || r.kind == jk::kPaymentInterrupted ||
                   r.kind == jk::kReportAcknowledged) {
            pending.erase(r.paymentId);
        }
        if (r.kind == jk::kPaymentStart) {
            lastPayment = r.paymentId;
        } else if (r.kind == jk::kEngineStart) {
            lastStart = r.sequence;
        } else if (r.kind == jk::kEngineEnd) {
            lastEnd = r.sequence;
        }
    }
    std::vector<JournalRecord> out;
    for (const JournalRecord& r : all) {
        if ((r.paymentId != 0 && (pending.count(r.paymentId) != 0 || r.paymentId == lastPayment)) ||
            r.sequence == lastStart || r.sequence == lastEnd) {
            out.push_back(r);
        }
    }
    return out;
}

}  // namespace kestrix::sim
