#pragma once

// What a start-up does with the journal of the run before it: a payment left unfinished by a
// crash (kill, power cut) is closed as interrupted, with what the customer is owed; payouts asked
// and never confirmed are recorded as unknown; nothing is paid out. The host is told the outcome
// of the payment the engine was serving through the mailbox's "Interrupted" keys, and
// acknowledges it by clearing "Interrupted".

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "engine/journal/books.h"
#include "engine/platform/journal.h"
#include "engine/platform/log.h"
#include "engine/platform/scheduler.h"

namespace kestrix {

class Setup;

// The mailbox as the last run left it, read before the start-up resets it.
struct MailboxBefore {
    std::string status;
    std::string due;
    std::string dueCC;
    std::string change;
};

namespace recovery {

struct Note {
    LogLevel level;
    std::string message;
    std::int64_t paymentId;
};

struct Plan {
    bool previousRunCrashed = false;            // the last run has no "engine end" row
    std::vector<JournalEntry> rows;             // to append, in this order
    std::vector<books::RestartReport> reports;  // for the host, oldest first
    std::vector<Note> notes;                    // for the log
};

// Decides from the journal's recovery rows (Journal::recoveryRows) and the mailbox the last run
// left. A payment is reported to the host when the host asked for it and it is unfinished, or was
// reported before and not acknowledged, or it is the last payment of a run that crashed and the
// host had not yet gone on to its next request (it may not have read the result).
Plan plan(const std::vector<JournalRecord>& rows, const MailboxBefore& before);

}  // namespace recovery

class Recovery {
public:
    explicit Recovery(Setup& setup);
    ~Recovery();
    Recovery(const Recovery&) = delete;
    Recovery& operator=(const Recovery&) = delete;

    // The mailbox before the start-up's reset. Unreadable keys read as "".
    MailboxBefore readMailbox();
    // After the reset: the "engine start" row, the recovery rows, and the first report in the
    // mailbox ("Status" = "Payment Interrupted" with its "Credit" and "ChangeDispensed").
    void run(const MailboxBefore& before);
    // Watches "Interrupted": cleared by the host, the report is acknowledged and the next one
    // (if any) is published.
    void reportTimer_Timer();

    static constexpr std::string_view kInterruptedStatus = "Payment Interrupted";
    static constexpr int kReportWatchIntervalMs = 500;

private:
    void publish(const books::RestartReport& report);
    void clearReport();

    Setup& m_setup;
    std::unique_ptr<Timer> m_timer;
    std::deque<books::RestartReport> m_reports;
    bool m_published = false;  // the front report is wholly in the mailbox
};

}  // namespace kestrix
