#include "request_tracker.h"

#include <cmath>

#include "engine/formulas.h"
#include "engine/settings/layout.h"

namespace ksxctl {

namespace {

namespace mailbox = kestrix::store::mailbox;
using kestrix::leadingNumber;

// Money in the mailbox is decimal text of a double: two amounts that print the same to the cent
// are the same amount.
constexpr double kCent = 0.005;

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

constexpr std::string_view kInterruptedStatus = "Payment Interrupted";

bool cashResult(std::string_view status) {
    return status == "Payment Completed" || status == "Transaction Cancelled" ||
           startsWith(status, "Error: ");
}

}  // namespace

MailboxReading readMailbox(kestrix::SettingsStore& store, std::string_view app) {
    const std::string_view box = kestrix::store::section::kStatus;
    MailboxReading r;
    r.status = store.get(app, box, mailbox::kStatus, "");
    r.credit = store.get(app, box, mailbox::kCredit, "");
    r.due = store.get(app, box, mailbox::kDue, "");
    r.dueCC = store.get(app, box, mailbox::kDueCC, "");
    r.change = store.get(app, box, mailbox::kChange, "");
    r.changeDispensed = store.get(app, box, mailbox::kChangeDispensed, "");
    r.tubes = store.get(app, box, mailbox::kTubes, "");
    r.referenceCC = store.get(app, box, mailbox::kReferenceCC, "");
    r.ksxError = store.get(app, box, mailbox::kKsxError, "");
    r.interrupted = store.get(app, box, mailbox::kInterrupted, "");
    r.interruptedRequest = store.get(app, box, mailbox::kInterruptedRequest, "");
    r.interruptedAmount = store.get(app, box, mailbox::kInterruptedAmount, "");
    r.interruptedOutcome = store.get(app, box, mailbox::kInterruptedOutcome, "");
    r.interruptedCredit = store.get(app, box, mailbox::kInterruptedCredit, "");
    r.interruptedPaid = store.get(app, box, mailbox::kInterruptedPaid, "");
    r.interruptedUnknown = store.get(app, box, mailbox::kInterruptedUnknown, "");
    return r;
}

bool validAmount(std::string_view text) {
    constexpr int kMaxDigits = 15;  // what a double carries exactly
    int digits = 0;
    int fractionDigits = -1;  // -1: no point yet
    for (const char c : text) {
        if (c == '.') {
            if (fractionDigits >= 0) {
                return false;
            }
            fractionDigits = 0;
        } else if (c >= '0' && c <= '9') {
            ++digits;
            if (fractionDigits >= 0) {
                ++fractionDigits;
            }
        } else {
            return false;
        }
    }
    if (digits == 0 || digits > kMaxDigits || fractionDigits == 0) {
        return false;
    }
    return leadingNumber(text) > 0;
}

std::string_view requestKey(RequestKind kind) {
    switch (kind) {
        case RequestKind::Cash:
            return mailbox::kDue;
        case RequestKind::Card:
            return mailbox::kDueCC;
        case RequestKind::Change:
            return mailbox::kChange;
    }
    return {};
}

std::string_view withdrawnValue(RequestKind kind) {
    return kind == RequestKind::Change ? "" : "0";
}

std::string pendingRequest(const MailboxReading& reading) {
    if (leadingNumber(reading.due) > 0) {
        return std::string(mailbox::kDue);
    }
    if (leadingNumber(reading.dueCC) > 0) {
        return std::string(mailbox::kDueCC);
    }
    if (leadingNumber(reading.change) > 0) {
        return std::string(mailbox::kChange);
    }
    return {};
}

Outcome RequestTracker::observe(const MailboxReading& r, double seconds) {
    m_reason.clear();
    // A restarted engine gives every request key back (its mailbox reset) and puts the outcome
    // of the payment it was serving into its restart report.
    const std::string_view key = m_kind == RequestKind::Change ? r.change
                                 : m_kind == RequestKind::Card ? r.dueCC
                                                               : r.due;
    if (r.status == kInterruptedStatus && !(leadingNumber(key) > 0)) {
        m_taken = true;
        m_restarted = true;
        m_reason = "the engine restarted while serving the request";
        if (!r.interrupted.empty()) {
            m_reason += "; its restart report (payment " + r.interrupted +
                        "): " + r.interruptedRequest + " " + r.interruptedAmount + " " +
                        r.interruptedOutcome + ", credit " + r.interruptedCredit + ", paid " +
                        r.interruptedPaid + ", unknown " + r.interruptedUnknown +
                        "; once settled: ksxctl set Status Interrupted \"\"";
        }
        return Outcome::Failed;
    }
    switch (m_kind) {
        case RequestKind::Cash: {
            const bool givenBack = !(leadingNumber(r.due) > 0);
            m_taken = m_taken || givenBack || !r.status.empty();
            if (!givenBack) {
                // The payment's poll writes "Due" again on every tick, so a "0" seen once and then
                // overwritten was not the end.
                m_givenBackAt = -1;
                return Outcome::Pending;
            }
            // "Due" = "0" comes just before the final status: wait for it.
            if (r.status == "Payment Completed") {
                return Outcome::Succeeded;
            }
            if (cashResult(r.status)) {
                m_reason = r.status;
                return Outcome::Failed;
            }
            return giveUpAfterGrace(seconds, r, "the cash payment");
        }
        case RequestKind::Card: {
            const bool givenBack = !(leadingNumber(r.dueCC) > 0);
            m_taken = m_taken || givenBack || !r.status.empty() || !r.referenceCC.empty();
            if (!givenBack) {
                return Outcome::Pending;
            }
            // "DueCC" = "0" is the attempt's last write. The start copies the console's status
            // line into "Status", which after an earlier card payment still shows its result;
            // only a credit of the amount charged makes an approval this attempt's own.
            if (r.status == "Credit Card Approved" &&
                std::fabs(leadingNumber(r.credit) - m_amount) < kCent) {
                return Outcome::Succeeded;
            }
            if (r.status.empty() || r.status == "Credit Card Approved") {
                m_reason = "the card payment ended without a result";
            } else {
                m_reason = r.status;
            }
            return Outcome::Failed;
        }
        case RequestKind::Change: {
            const bool givenBack = !(leadingNumber(r.change) > 0);
            m_taken = m_taken || givenBack || !r.status.empty();
            if (!givenBack) {
                return Outcome::Pending;
            }
            if (r.status == "Change dispensed") {
                const double paid = leadingNumber(r.changeDispensed);
                if (paid + kCent >= m_amount) {
                    return Outcome::Succeeded;
                }
                m_reason = "change short: " + kestrix::numberText(paid) + " of " +
                           kestrix::numberText(m_amount) + " paid";
                return Outcome::Failed;
            }
            return giveUpAfterGrace(seconds, r, "the payout");
        }
    }
    return Outcome::Pending;
}

Outcome RequestTracker::giveUpAfterGrace(double seconds, const MailboxReading& r,
                                         std::string_view what) {
    if (m_givenBackAt < 0) {
        m_givenBackAt = seconds;
    }
    if (seconds - m_givenBackAt < kResultGraceSeconds) {
        return Outcome::Pending;
    }
    m_reason = std::string(what) + " ended without a result";
    if (r.ksxError == "1") {
        m_reason += " (KSX_Error is 1)";
    }
    return Outcome::Failed;
}

}  // namespace ksxctl
