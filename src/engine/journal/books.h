#pragma once

// The money of the journal's rows, summed: one payment's books (what a restart settles and
// reports), and a kiosk's totals over a stretch of rows (what a technician prints when emptying
// the cash box). Pure functions of rows, shared by the engine, ksxctl and the tests.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "engine/money.h"
#include "engine/platform/journal.h"

namespace kestrix::books {

// One payment as its rows tell it.
struct PaymentBooks {
    std::int64_t paymentId = 0;
    std::string request;    // the mailbox request of its kind: "Due", "DueCC", "Change"
    std::string requester;  // "host" or "operator"
    std::string reference;
    Money asked;     // the due, or the change asked
    Money inserted;  // coins and bills taken in, credited or not
    Money paidOut;   // payouts the devices confirmed
    Money unknown;   // payouts asked whose outcome nobody knows: the most they can have paid
    Money unpaid;    // owed to the customer because no source could pay
    std::optional<bool> cardApproved;  // a card sale's result, when one was recorded
    Money cardAmount;                  // the amount of an approved sale
    bool started = false;
    bool ended = false;
    bool interrupted = false;
    bool reported = false;
    bool acknowledged = false;
    std::string endStatus;  // the final status text of the "payment end" row
    // Payouts asked that no confirmation or "payout unknown" row answers.
    std::vector<JournalRecord> unanswered;
    std::int64_t lastSequence = 0;
};

// The books of one payment from its rows, in sequence order. A payout asked is answered by the
// next "payout confirmed" or "payout unknown" of the same device.
PaymentBooks paymentBooks(const std::vector<JournalRecord>& rows);

// What a restarted engine tells the host about a payment it was serving (mailbox keys
// "Interrupted", "InterruptedRequest", ...).
struct RestartReport {
    std::int64_t paymentId = 0;
    std::string request;  // "Due", "DueCC", "Change"
    Money asked;
    // "paid": the due was covered (cash), the card approved, or the change paid in full;
    // "partly paid": some of it; "not paid": none of it; "unknown": a payout's outcome (or a
    // card sale's) is not known, so neither is the request's.
    std::string outcome;
    Money credit;   // the customer's money taken and not given back (card: the amount approved)
    Money paid;     // paid out, as the devices confirmed it
    Money unknown;  // paid out perhaps, beyond `paid`, without a confirmation
    // "request=Due asked=12.5 outcome=paid credit=20 paid=0 unknown=7.5"
    std::string detail() const;
};

RestartReport restartReport(const PaymentBooks& books);

// The status texts that end a payment in "Status" from its end row's detail (the text before
// any "; ").
std::string endStatusOf(const std::string& detail);

// Where a coin went by its credit row: "tubes", "cash box", or "" when the row does not tell. The
// row's detail says so when the engine wrote it; else the changer's event byte (the first byte of
// `raw`): 01yyxxxx, yy = 00 cash box, 01 tubes.
std::string coinRouting(const JournalRecord& credit);

// The kiosk's money over a stretch of rows.
struct DeviceMoney {
    Money in;
    Money out;
    int coinsOrBillsIn = 0;
    int coinsOrBillsOut = 0;
};

struct Totals {
    std::int64_t fromSequence = 0;  // first row counted (0: none)
    std::int64_t toSequence = 0;    // last row counted
    std::int64_t fromTimeMs = 0;
    std::int64_t toTimeMs = 0;
    std::map<std::string, DeviceMoney>
        devices;           // "changer", "validator", "tubes", "dispenser", ...
    Money toTubes;         // coins routed to the tubes
    Money coinsToCashBox;  // coins routed to the cash box
    Money billsToCashBox;  // bills stacked
    Money notCredited;     // taken in without credit (also in `devices`)
    Money unpaid;          // change no source could pay
    Money interrupted;     // what interrupted payments left the host to settle
    Money unknown;         // payouts of unknown outcome (the most they may have paid)
    Money cardApproved;
    int cashPayments = 0;
    int cardPayments = 0;
    int changePayments = 0;
    // The last tube reading at or before the end, and the tube money since it.
    std::optional<JournalRecord> tubeReading;
    Money tubesInSinceReading;
    Money tubesOutSinceReading;
    // The last dispenser refill at or before the end, the bills paid since, the cassette state
    // the refill read.
    std::optional<JournalRecord> refill;
    int billsSinceRefill = 0;

    Money inserted() const;
    Money cashBox() const { return coinsToCashBox + billsToCashBox; }
    Money paidOut() const;
    // The tubes as the engine last knew them: the reading, plus coins routed there, less coins
    // paid from them since.
    std::optional<Money> tubesHeld() const;
};

// Sums `rows` (sequence order) from the first row after `afterSequence`. Rows before it are
// looked at only for the last tube reading and refill.
Totals totals(const std::vector<JournalRecord>& rows, std::int64_t afterSequence);

}  // namespace kestrix::books
