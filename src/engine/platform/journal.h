#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "../money.h"

namespace kestrix {

// What a journal row records. The texts are the row's `kind` column, as tools and the fleet
// publisher read them.
namespace journal_kind {
inline constexpr std::string_view kEngineStart = "engine start";
inline constexpr std::string_view kEngineEnd = "engine end";
// A payment begins: detail "cash", "card" or "change" (a host or operator payout), `amount` the
// due (or the change asked), `requester` who asked.
inline constexpr std::string_view kPaymentStart = "payment start";
// A coin or bill taken in and credited: device "changer" or "validator", `type` the console
// type (1..16), `amount` its value, `raw` the device's event byte as hex text.
inline constexpr std::string_view kCredit = "credit";
// Money taken in that the engine saw but could not credit (for example a bill reported twice
// within the guard time): recorded so the books still explain it.
inline constexpr std::string_view kUncredited = "uncredited";
// A payout asked of a device: device "dispenser" (count = bills), "tubes", "hoppers"; `amount`
// the money asked (the totals and the restart's unknown payouts count it).
inline constexpr std::string_view kPayoutAsked = "payout asked";
// What the device reports it paid for the last payout asked of it.
inline constexpr std::string_view kPayoutConfirmed = "payout confirmed";
// A payout asked whose outcome nobody knows (the engine died, the device fell silent before it
// reported): `amount` is the most it can have paid.
inline constexpr std::string_view kPayoutUnknown = "payout unknown";
// Money owed to the customer that no source could pay.
inline constexpr std::string_view kUnpaid = "unpaid";
// A card sale's result: detail "approved", "denied", "error", "pin pad error" or the library's
// text, with the reference and the card number masked (first 6 and last 4 digits at most).
inline constexpr std::string_view kCardResult = "card result";
// A payment ends: detail the final status text exactly as written to "Status", optionally
// followed by "; " and fields of its own ("Payment Completed; change 7.5; unpaid 0"); `amount`
// the credit.
inline constexpr std::string_view kPaymentEnd = "payment end";
// A payment the engine found unfinished at start-up (it died in the middle): `amount` what the
// host must settle, detail the restart report's fields ("request=Due asked=12.5 outcome=paid
// credit=20 paid=0 unknown=7.5").
inline constexpr std::string_view kPaymentInterrupted = "payment interrupted";
// A payment whose outcome a restarted engine put before the host (the mailbox's "Interrupted"
// keys): an interrupted one, or the last one that ended before the engine died, whose result
// the host may not have read. Detail as for "payment interrupted".
inline constexpr std::string_view kRestartReport = "restart report";
// The host has read the restart report of the payment (it cleared "Interrupted").
inline constexpr std::string_view kReportAcknowledged = "report acknowledged";
// What the changer's tubes held when last read: `amount` their money, detail the count per coin
// value ("0.5x40 1x40 2x30 5x20 10x10").
inline constexpr std::string_view kTubeLevels = "tube levels";
// A technician emptied the cash box (ksxctl totals --emptied): totals start again from here.
inline constexpr std::string_view kCashBoxEmptied = "cash box emptied";
inline constexpr std::string_view kDeviceFault = "device fault";
inline constexpr std::string_view kDeviceRecovered = "device recovered";
// The operator's own dispenses and refills from the console.
inline constexpr std::string_view kOperatorDispense = "operator dispense";
inline constexpr std::string_view kRefill = "refill";
// The settings store refused a write, or accepted it again.
inline constexpr std::string_view kStoreTrouble = "store trouble";
}  // namespace journal_kind

// One row of the money journal. Every field but `kind` may stay empty or zero.
// (Every member has an initialiser, so a row can name only the fields it needs.)
struct JournalEntry {
    std::string_view kind{};
    std::int64_t paymentId = 0;  // 0: not part of a payment
    std::string device{};        // "changer", "validator", "dispenser", "tubes", "hoppers",
                                 // "pinpad", "engine", "store"
    Money amount{};
    int count = 0;
    int type = 0;
    std::string raw{};        // the device's own report, as hex text
    std::string detail{};     // outcome, status text, masked card number, fault
    std::string requester{};  // "host" or "operator" (payment start)
    std::string reference{};  // the transaction reference (card payments)
};

// A row as read back from the journal.
struct JournalRecord {
    std::int64_t sequence = 0;
    std::int64_t wallTimeMs = 0;  // milliseconds since 1970-01-01 UTC
    std::int64_t paymentId = 0;
    std::string kind;
    std::string device;
    Money amount;
    int count = 0;
    int type = 0;
    std::string raw;
    std::string detail;
    std::string requester;
    std::string reference;
};

// The append-only record of every money movement. An append is durable before it returns, and
// the engine appends before the mailbox shows the effect, so that after a crash the journal
// knows at least as much as the host was told.
class Journal {
public:
    virtual ~Journal() = default;
    // Appends the row and returns its sequence number (monotonic, never reused). A journal that
    // cannot write returns 0; the engine goes on (the failure is logged by the journal).
    virtual std::int64_t append(const JournalEntry& entry) = 0;
    // A payment id never handed out before, also across restarts.
    virtual std::int64_t newPaymentId() = 0;
    // What a restart looks at, in sequence order: every row of each payment that has neither
    // ended nor had its restart report acknowledged, every row of the last payment started, and
    // the last "engine start" and "engine end" rows. A journal that keeps nothing has nothing.
    virtual std::vector<JournalRecord> recoveryRows() { return {}; }
};

// A journal that keeps nothing, for engines run without one.
class NullJournal : public Journal {
public:
    std::int64_t append(const JournalEntry&) override { return 0; }
    std::int64_t newPaymentId() override { return ++m_lastId; }

private:
    std::atomic<std::int64_t> m_lastId = 0;
};

// The journal of engines given none.
inline Journal& nullJournal() {
    static NullJournal journal;
    return journal;
}

}  // namespace kestrix
