#pragma once

#include <string>
#include <string_view>

#include "engine/platform/settings_store.h"

// How a host tells, from the mailbox alone, that a request it wrote has been served.
//
// The engine leaves its last results in the mailbox, so a result seen right after a request may
// belong to an earlier one ("Payment Completed" stays in "Status" until the next payment writes
// over it). The tracker therefore waits for the engine to give back the request key the host
// wrote: it writes "Due" = "0" at the end of a cash payment, "DueCC" = "0" at the end of a card
// attempt and "Change" = "" after a payout, each after its other results. Only the engine writes
// those values once the host has made its request, so the results read after them are the
// request's own. Before writing a request the host blanks "Status" (the engine never reads it),
// so that a result text seen later was written after the request.
namespace ksxctl {

enum class RequestKind { Cash, Card, Change };

enum class Outcome { Pending, Succeeded, Failed };

// The mailbox keys a host follows, read afresh.
struct MailboxReading {
    std::string status;
    std::string credit;
    std::string due;
    std::string dueCC;
    std::string change;
    std::string changeDispensed;
    std::string tubes;
    std::string referenceCC;
    std::string ksxError;
    // A restarted engine's report of the payment it was serving.
    std::string interrupted;
    std::string interruptedRequest;
    std::string interruptedAmount;
    std::string interruptedOutcome;
    std::string interruptedCredit;
    std::string interruptedPaid;
    std::string interruptedUnknown;
};

MailboxReading readMailbox(kestrix::SettingsStore& store, std::string_view app);

// A host amount: plain decimal text ("12", "12.5", "0.50"), greater than 0, at most 15 digits.
bool validAmount(std::string_view text);

// The request key of a kind ("Due", "DueCC", "Change") and the value that withdraws it.
std::string_view requestKey(RequestKind kind);
std::string_view withdrawnValue(RequestKind kind);

// The request that is pending or being served ("Due", "DueCC" or "Change"), or empty when the
// mailbox is free for a new one. A second request written on top of a running one would be
// wiped by the running one's end.
std::string pendingRequest(const MailboxReading& reading);

class RequestTracker {
public:
    // After a request key has been given back, how long the result text may take to follow
    // before the request counts as ended without one (an engine restart resets the mailbox).
    static constexpr double kResultGraceSeconds = 2.0;

    RequestTracker(RequestKind kind, double amount) : m_kind(kind), m_amount(amount) {}

    // One fresh reading, `seconds` after the request was written.
    Outcome observe(const MailboxReading& reading, double seconds);

    // Whether the engine has shown any sign of having taken the request.
    bool taken() const { return m_taken; }
    // The engine restarted while it served the request: the outcome is its restart report (the
    // reason says what it reports). Asking again could pay twice.
    bool restarted() const { return m_restarted; }
    // Why the request failed (a status text or an explanation); empty while pending.
    const std::string& reason() const { return m_reason; }

private:
    Outcome giveUpAfterGrace(double seconds, const MailboxReading& reading, std::string_view what);

    RequestKind m_kind;
    double m_amount;
    bool m_taken = false;
    bool m_restarted = false;
    double m_givenBackAt = -1;
    std::string m_reason;
};

}  // namespace ksxctl
