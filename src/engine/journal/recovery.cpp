#include "recovery.h"

#include <map>

#include "engine/formulas.h"
#include "engine/settings/layout.h"
#include "engine/setup.h"

namespace kestrix {

namespace jk = journal_kind;
namespace mb = store::mailbox;

namespace recovery {

namespace {

JournalEntry entry(std::string_view kind, std::int64_t paymentId, std::string device,
                   std::string detail) {
    JournalEntry e;
    e.kind = kind;
    e.paymentId = paymentId;
    e.device = std::move(device);
    e.detail = std::move(detail);
    return e;
}

// Whether the host has moved on from the payment that ended last: it blanked "Status" and wrote
// its next request, which it does only once it has read the result. Otherwise the result may
// have gone unread (the engine died just after writing it, or the restart's reset wiped it
// before a slow host looked), and is reported again.
bool hostMovedOn(const MailboxBefore& before) {
    const bool requestPending = leadingNumber(before.due) > 0 || leadingNumber(before.dueCC) > 0 ||
                                leadingNumber(before.change) > 0;
    return before.status.empty() && requestPending;
}

std::string describe(const books::RestartReport& r) {
    return "request " + (r.request.empty() ? std::string("?") : r.request) + " " + r.asked.text() +
           ": " + r.outcome + ", credit " + r.credit.text() + ", paid " + r.paid.text() +
           ", unknown " + r.unknown.text();
}

}  // namespace

Plan plan(const std::vector<JournalRecord>& rows, const MailboxBefore& before) {
    Plan p;
    std::int64_t lastStart = 0;
    std::int64_t lastEnd = 0;
    std::int64_t lastPaymentStart = 0;
    std::int64_t lastPayment = 0;
    std::map<std::int64_t, std::vector<JournalRecord>> byPayment;
    for (const JournalRecord& r : rows) {
        if (r.kind == jk::kEngineStart) {
            lastStart = r.sequence;
        } else if (r.kind == jk::kEngineEnd) {
            lastEnd = r.sequence;
        } else if (r.kind == jk::kPaymentStart && r.sequence > lastPaymentStart) {
            lastPaymentStart = r.sequence;
            lastPayment = r.paymentId;
        }
        if (r.paymentId != 0) {
            byPayment[r.paymentId].push_back(r);
        }
    }
    p.previousRunCrashed = lastStart != 0 && lastEnd < lastStart;

    for (const auto& [id, paymentRows] : byPayment) {
        const books::PaymentBooks b = books::paymentBooks(paymentRows);
        if (b.acknowledged) {
            continue;
        }
        const bool hostAsked = b.requester != "operator";
        if (!b.ended && !b.interrupted) {
            for (const JournalRecord& asked : b.unanswered) {
                JournalEntry unknown = entry(jk::kPayoutUnknown, id, asked.device,
                                             "asked before the engine stopped; never confirmed");
                unknown.amount = asked.amount;
                unknown.count = asked.count;
                unknown.type = asked.type;
                p.rows.push_back(std::move(unknown));
            }
            const books::RestartReport report = books::restartReport(b);
            JournalEntry closed = entry(jk::kPaymentInterrupted, id, "engine", report.detail());
            closed.amount = report.credit;
            closed.requester = b.requester;
            closed.reference = b.reference;
            p.rows.push_back(std::move(closed));
            p.notes.push_back({LogLevel::Warning,
                               "payment " + std::to_string(id) +
                                   " interrupted by the engine's end: " + describe(report) +
                                   (hostAsked ? "" : " (the operator's)"),
                               id});
            if (hostAsked) {
                p.rows.push_back(entry(jk::kRestartReport, id, "engine", report.detail()));
                p.reports.push_back(report);
            }
        } else if (b.reported) {
            p.reports.push_back(books::restartReport(b));
        } else if (b.ended && id == lastPayment && p.previousRunCrashed && hostAsked &&
                   !hostMovedOn(before)) {
            const books::RestartReport report = books::restartReport(b);
            p.rows.push_back(entry(jk::kRestartReport, id, "engine", report.detail()));
            p.reports.push_back(report);
            p.notes.push_back({LogLevel::Notice,
                               "payment " + std::to_string(id) +
                                   " ended just before the engine's end; result reported again: " +
                                   describe(report),
                               id});
        }
    }
    return p;
}

}  // namespace recovery

Recovery::Recovery(Setup& setup) : m_setup(setup) {
    m_timer = setup.platform().scheduler.createTimer("reportTimer", kReportWatchIntervalMs, false,
                                                     [this] { reportTimer_Timer(); });
}

Recovery::~Recovery() = default;

MailboxBefore Recovery::readMailbox() {
    const auto read = [this](std::string_view key) {
        try {
            return m_setup.mailbox(key);
        } catch (const std::exception&) {
            return std::string();
        }
    };
    return {read(mb::kStatus), read(mb::kDue), read(mb::kDueCC), read(mb::kChange)};
}

void Recovery::run(const MailboxBefore& before) {
    Journal& journal = m_setup.platform().journal;
    Log& log = m_setup.platform().log;
    std::vector<JournalRecord> rows;
    try {
        rows = journal.recoveryRows();
    } catch (const std::exception& e) {
        log.error(std::string("journal: unreadable; no recovery: ") + e.what(), {"engine", 0});
    }
    const recovery::Plan plan = recovery::plan(rows, before);

    JournalEntry start;
    start.kind = jk::kEngineStart;
    start.device = "engine";
    start.detail = m_setup.console().text("Setup");
    if (plan.previousRunCrashed) {
        start.detail += "; the previous run ended without its shutdown";
    }
    journal.append(start);
    log.notice(plan.previousRunCrashed
                   ? "engine: started; the previous run ended without its shutdown (a crash, a "
                     "kill or a power cut)"
                   : "engine: started",
               {"engine", 0});
    for (const JournalEntry& row : plan.rows) {
        journal.append(row);
    }
    for (const recovery::Note& note : plan.notes) {
        log.write(note.level, note.message, {"engine", note.paymentId});
    }

    m_reports.assign(plan.reports.begin(), plan.reports.end());
    try {
        if (m_reports.empty()) {
            clearReport();
            return;
        }
        // What a host that waited for this payment reads first.
        const books::RestartReport& first = m_reports.front();
        m_setup.writeMailbox(mb::kStatus, kInterruptedStatus);
        m_setup.writeMailbox(mb::kCredit, first.credit.text());
        m_setup.writeMailbox(mb::kChangeDispensed, first.paid.text());
        publish(first);
    } catch (const std::exception& e) {
        log.error(std::string("store: cannot publish the restart report: ") + e.what(),
                  {"store", 0});
    }
    // Also when publishing failed: the watch publishes again until the host has acknowledged.
    m_timer->setEnabled(!m_reports.empty());
}

void Recovery::publish(const books::RestartReport& r) {
    m_published = false;
    m_setup.writeMailbox(mb::kInterruptedRequest, r.request);
    m_setup.writeMailbox(mb::kInterruptedAmount, r.asked.text());
    m_setup.writeMailbox(mb::kInterruptedOutcome, r.outcome);
    m_setup.writeMailbox(mb::kInterruptedCredit, r.credit.text());
    m_setup.writeMailbox(mb::kInterruptedPaid, r.paid.text());
    m_setup.writeMailbox(mb::kInterruptedUnknown, r.unknown.text());
    // Last: the host reads the others once this names the payment.
    m_setup.writeMailbox(mb::kInterrupted, std::to_string(r.paymentId));
    m_published = true;
}

void Recovery::clearReport() {
    m_setup.writeMailbox(mb::kInterrupted, "");
    for (std::string_view key :
         {mb::kInterruptedRequest, mb::kInterruptedAmount, mb::kInterruptedOutcome,
          mb::kInterruptedCredit, mb::kInterruptedPaid, mb::kInterruptedUnknown}) {
        m_setup.writeMailbox(key, "");
    }
}

void Recovery::reportTimer_Timer() {
    if (m_setup.ended() || m_reports.empty()) {
        m_timer->setEnabled(false);
        return;
    }
    const books::RestartReport& current = m_reports.front();
    const std::string published = std::to_string(current.paymentId);
    try {
        const std::string value = m_setup.mailbox(mb::kInterrupted);
        if (value == published) {
            return;
        }
        if (!m_published || !value.empty()) {
            // Never fully written (the store refused), or overwritten with something that is not
            // the host's acknowledgement: publish again.
            publish(current);
            return;
        }
        JournalEntry ack;
        ack.kind = jk::kReportAcknowledged;
        ack.paymentId = current.paymentId;
        ack.device = "engine";
        ack.detail = "the host cleared \"Interrupted\"";
        m_setup.platform().journal.append(ack);
        m_setup.platform().log.info("payment " + std::to_string(current.paymentId) +
                                        ": restart report acknowledged by the host",
                                    {"engine", current.paymentId});
        m_reports.pop_front();
        if (m_reports.empty()) {
            clearReport();
            m_timer->setEnabled(false);
        } else {
            publish(m_reports.front());
        }
    } catch (const std::exception&) {
        // The store is in trouble: the next tick tries again.
    }
}

}  // namespace kestrix
