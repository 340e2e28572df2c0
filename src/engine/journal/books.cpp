#include "books.h"

#include <deque>

#include "../formulas.h"

namespace kestrix::books {

namespace jk = journal_kind;

namespace {

std::string requestOf(const std::string& detail) {
    if (detail == "cash") {
        return "Due";
    }
    if (detail == "card") {
        return "DueCC";
    }
    if (detail == "change") {
        return "Change";
    }
    return {};
}

// What a device reports it paid, in a payment or for the operator's own dispense (which is
// journalled as asked, "operator dispense", then confirmed like any payout).
bool isPaidOut(const std::string& kind) {
    return kind == jk::kPayoutConfirmed;
}

}  // namespace

PaymentBooks paymentBooks(const std::vector<JournalRecord>& rows) {
    PaymentBooks b;
    std::map<std::string, std::deque<const JournalRecord*>> asked;
    for (const JournalRecord& r : rows) {
        b.paymentId = r.paymentId;
        b.lastSequence = r.sequence;
        const std::string& k = r.kind;
        if (k == jk::kPaymentStart) {
            b.started = true;
            b.request = requestOf(r.detail);
            b.requester = r.requester;
            b.reference = r.reference;
            b.asked = r.amount;
        } else if (k == jk::kCredit || k == jk::kUncredited) {
            b.inserted += r.amount;
        } else if (k == jk::kPayoutAsked) {
            asked[r.device].push_back(&r);
        } else if (k == jk::kPayoutConfirmed || k == jk::kPayoutUnknown) {
            std::deque<const JournalRecord*>& open = asked[r.device];
            if (!open.empty()) {
                open.pop_front();
            }
            (k == jk::kPayoutConfirmed ? b.paidOut : b.unknown) += r.amount;
        } else if (k == jk::kUnpaid) {
            b.unpaid += r.amount;
        } else if (k == jk::kCardResult) {
            const bool approved = r.detail.rfind("approved", 0) == 0;
            b.cardApproved = approved;
            b.cardAmount = approved ? r.amount : Money();
            if (!r.reference.empty()) {
                b.reference = r.reference;
            }
        } else if (k == jk::kPaymentEnd) {
            b.ended = true;
            b.endStatus = endStatusOf(r.detail);
        } else if (k == jk::kPaymentInterrupted) {
            b.interrupted = true;
        } else if (k == jk::kRestartReport) {
            b.reported = true;
        } else if (k == jk::kReportAcknowledged) {
            b.acknowledged = true;
        }
    }
    for (const auto& [device, open] : asked) {
        for (const JournalRecord* r : open) {
            b.unanswered.push_back(*r);
            b.unknown += r->amount;
        }
    }
    return b;
}

std::string RestartReport::detail() const {
    return "request=" + (request.empty() ? std::string("?") : request) + " asked=" + asked.text() +
           " outcome=" + outcome + " credit=" + credit.text() + " paid=" + paid.text() +
           " unknown=" + unknown.text();
}

RestartReport restartReport(const PaymentBooks& b) {
    RestartReport r;
    r.paymentId = b.paymentId;
    r.request = b.request;
    r.asked = b.asked;
    r.paid = b.paidOut;
    r.unknown = b.unknown;
    const auto byShare = [&r](Money got) {
        if (got >= r.asked && r.asked.positive()) {
            return "paid";
        }
        return got.positive() ? "partly paid" : "not paid";
    };
    if (b.request == "DueCC") {
        r.credit = b.cardApproved.value_or(false) ? b.cardAmount : Money();
        r.outcome = !b.cardApproved ? "unknown" : (*b.cardApproved ? "paid" : "not paid");
        if (!b.cardApproved && b.ended) {
            // The sale ended without a result the engine knows: nothing was credited.
            r.outcome = "not paid";
        }
    } else if (b.request == "Change") {
        r.outcome = b.unknown.positive() ? "unknown" : byShare(b.paidOut);
    } else {
        r.credit = b.inserted - b.paidOut;
        r.outcome = b.unknown.positive() ? "unknown" : byShare(r.credit);
    }
    return r;
}

std::string endStatusOf(const std::string& detail) {
    const std::size_t cut = detail.find("; ");
    return cut == std::string::npos ? detail : detail.substr(0, cut);
}

std::string coinRouting(const JournalRecord& credit) {
    if (credit.detail == "tubes" || credit.detail == "cash box") {
        return credit.detail;
    }
    if (credit.raw.size() < 2) {
        return {};
    }
    const int hi = hexDigit(credit.raw[0]);
    const int lo = hexDigit(credit.raw[1]);
    if (hi < 0 || lo < 0) {
        return {};
    }
    const int event = hi * 16 + lo;
    if ((event & 0xC0) != 0x40) {
        return {};  // not a coin deposited event
    }
    switch ((event >> 4) & 0x03) {
        case 0:
            return "cash box";
        case 1:
            return "tubes";
        default:
            return {};
    }
}

Money Totals::inserted() const {
    Money m;
    for (const auto& [device, money] : devices) {
        m += money.in;
    }
    return m;
}

Money Totals::paidOut() const {
    Money m;
    for (const auto& [device, money] : devices) {
        m += money.out;
    }
    return m;
}

std::optional<Money> Totals::tubesHeld() const {
    if (!tubeReading) {
        return std::nullopt;
    }
    return tubeReading->amount + tubesInSinceReading - tubesOutSinceReading;
}

Totals totals(const std::vector<JournalRecord>& rows, std::int64_t afterSequence) {
    Totals t;
    for (const JournalRecord& r : rows) {
        const std::string& k = r.kind;
        const bool counted = r.sequence > afterSequence;
        // The state the engine last knew comes from anywhere before the end.
        if (k == jk::kTubeLevels) {
            t.tubeReading = r;
            t.tubesInSinceReading = Money();
            t.tubesOutSinceReading = Money();
        } else if (k == jk::kRefill && r.device == "dispenser") {
            t.refill = r;
            t.billsSinceRefill = 0;
        } else if (k == jk::kCredit && r.device == "changer" && coinRouting(r) == "tubes") {
            t.tubesInSinceReading += r.amount;
        } else if (isPaidOut(k) && r.device == "tubes") {
            t.tubesOutSinceReading += r.amount;
        } else if (isPaidOut(k) && r.device == "dispenser") {
            t.billsSinceRefill += r.count;
        }
        if (!counted) {
            continue;
        }
        if (t.fromSequence == 0) {
            t.fromSequence = r.sequence;
            t.fromTimeMs = r.wallTimeMs;
        }
        t.toSequence = r.sequence;
        t.toTimeMs = r.wallTimeMs;
        if (k == jk::kCredit || k == jk::kUncredited) {
            DeviceMoney& d = t.devices[r.device];
            d.in += r.amount;
            d.coinsOrBillsIn += 1;
            if (k == jk::kUncredited) {
                t.notCredited += r.amount;
            }
            if (r.device == "changer") {
                const std::string routing = coinRouting(r);
                if (routing == "tubes") {
                    t.toTubes += r.amount;
                } else if (routing == "cash box") {
                    t.coinsToCashBox += r.amount;
                }
            } else {
                t.billsToCashBox += r.amount;  // a bill taken in is stacked
            }
        } else if (isPaidOut(k)) {
            DeviceMoney& d = t.devices[r.device];
            d.out += r.amount;
            d.coinsOrBillsOut += r.count;
        } else if (k == jk::kPayoutUnknown) {
            t.unknown += r.amount;
        } else if (k == jk::kUnpaid) {
            t.unpaid += r.amount;
        } else if (k == jk::kPaymentInterrupted) {
            t.interrupted += r.amount;
        } else if (k == jk::kCardResult && r.detail.rfind("approved", 0) == 0) {
            t.cardApproved += r.amount;
        } else if (k == jk::kPaymentStart) {
            const std::string request = requestOf(r.detail);
            t.cashPayments += request == "Due";
            t.cardPayments += request == "DueCC";
            t.changePayments += request == "Change";
        }
    }
    return t;
}

}  // namespace kestrix::books
