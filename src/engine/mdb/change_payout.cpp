// The change payout: the bill dispenser first, then the coin changer's tubes, then the hoppers,
// each paying what it can and passing the rest on. What counts as paid is what each device
// reports it paid; no device is asked for more than is still owed.

#include <algorithm>
#include <cmath>

#include "../bounds.h"
#include "../dispenser/bill_dispenser.h"
#include "../errors.h"
#include "../formulas.h"
#include "../hoppers/hoppers.h"
#include "../settings/layout.h"
#include "../setup.h"
#include "cash_payment.h"
#include "cash_payment_bytes.h"
#include "link.h"
#include "tubes.h"
#include "uses.h"

namespace kestrix {

namespace {

constexpr std::uint8_t kExpansionCommand = 0x0F;
constexpr std::uint8_t kPayoutSubCommand = 0x02;
constexpr std::uint8_t kPayoutStatusSubCommand = 0x03;
// The payout's check byte is 0Fh + 02h + the amount.
constexpr int kPayoutCheckBase = kExpansionCommand + kPayoutSubCommand;
constexpr double kPayoutPaceSeconds = 0.1;
constexpr std::string_view kDispensing = "Dispensing change...";

// A money value shown on the console ("50", "0.5") as money; zero when it is not one.
Money moneyOf(const std::string& text) {
    return Money::fromDouble(leadingNumber(text)).value_or(Money());
}

}  // namespace

bool CashPayment::changerUsable() const {
    const EngineState& st = m_setup.state();
    return m_setup.console().checked("CoinAcceptorEnabled") && !st.pollTimedOut &&
           !st.changerFailed && st.tubesUsable;
}

Money CashPayment::DispenseChange(Money amount) {
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    Money owed = amount;
    Money total;
    // Asked of a device that gave no account of it: it may have left the kiosk, so it is neither
    // paid again nor reported as paid; the journal records it as unknown.
    Money unknown;
    m_setup.writeMailbox(store::mailbox::kChangeDispensed, "");
    const bool changeOn = c.checked("changeEnabled");
    const bool ok = trapped([&] {
        const Money billValue = moneyOf(c.text("bDispType"));
        if (changeOn && c.checked("billDispenserEnabled") && billValue.positive() &&
            owed >= billValue && c.text("bdStatus") == "OK" && !m_setup.pastDeadline()) {
            setStatus(kDispensing);
            const auto count = static_cast<int>(std::min<std::int64_t>(
                owed.wholeTimes(billValue), BillDispenser::kMaxBillsPerDispense));
            m_setup.journal({.kind = journal_kind::kPayoutAsked,
                             .device = "dispenser",
                             .amount = billValue * count,
                             .count = count});
            const BillDispenser::Delivery d = m_setup.dispenser().dispense(count);
            const Money paid = billValue * d.delivered;
            m_setup.journal({.kind = journal_kind::kPayoutConfirmed,
                             .device = "dispenser",
                             .amount = paid,
                             .count = d.delivered});
            owed -= paid;
            total += paid;
            if (d.unknown) {
                // The bill may have left: it is not paid again from another source.
                m_setup.journal({.kind = journal_kind::kPayoutUnknown,
                                 .device = "dispenser",
                                 .amount = billValue,
                                 .count = 1,
                                 .detail = "no complete answer to a dispense"});
                owed -= std::min(owed, billValue);
                unknown += billValue;
            }
        }

        if (changeOn && owed.positive() && changerUsable()) {
            setStatus(kDispensing);
            Money uncertain;
            const Money paid = payFromTubes(owed, uncertain);
            owed -= paid + std::min(owed - paid, uncertain);
            total += paid;
            unknown += uncertain;
        }

        const Money h1 = moneyOf(c.text("h1CoinValue"));
        const Money h2 = moneyOf(c.text("h2CoinValue"));
        const auto payable = [&owed](Money coin) { return coin.positive() && owed >= coin; };
        if (changeOn && c.checked("hoppersEnabled") && (payable(h1) || payable(h2)) &&
            !m_setup.pastDeadline()) {
            setStatus(kDispensing);
            c.setText("hToDispense", owed.text());
            m_setup.journal(
                {.kind = journal_kind::kPayoutAsked, .device = "hoppers", .amount = owed});
            const Money paid = std::min(m_setup.hoppers().dispense(owed), owed);
            m_setup.journal(
                {.kind = journal_kind::kPayoutConfirmed, .device = "hoppers", .amount = paid});
            owed -= paid;
            total += paid;
        }
    });
    if (!ok) {
        // A source that failed half-way (a port gone) pays nothing more; what was paid until then
        // is still reported below, so the host knows what left the kiosk.
        m_setup.log().error("change payout broken off by a device error", {"", st.paymentId});
    }
    m_lastUnknown = unknown;
    if (owed.positive()) {
        m_setup.journal({.kind = journal_kind::kUnpaid, .amount = owed, .detail = "change"});
        m_setup.log().warning(
            "change: " + owed.text() + " of " + amount.text() + " could not be paid",
            {"", st.paymentId});
    }
    m_setup.writeMailbox(store::mailbox::kChangeDispensed, total.text());
    return total;
}

void CashPayment::payChange(Money amount, std::string_view requester) {
    beginPaymentRecord("change", amount, requester);
    const Money paid = DispenseChange(amount);
    endPaymentRecord("Change dispensed", paid, amount - paid - m_lastUnknown);
}

// --- The tubes -----------------------------------------------------------------------------------

Money CashPayment::payFromTubes(Money owed, Money& unknown) {
    using namespace mdb;
    Money paid;
    const auto scaling =
        static_cast<std::int64_t>(leadingNumber(m_setup.console().text("caScalingFactor")));
    if (scaling <= 0) {
        return paid;
    }
    while (owed.positive() && !m_setup.pastDeadline()) {
        // The tubes as they are right now: a technician may have filled or emptied one since
        // the last reading. A link that has gone ends the tubes' part; what they paid until
        // then stays counted, and the rest passes on to the hoppers.
        std::optional<TubeCounts> before;
        if (!trapped([&] { before = readTubeStatus(m_setup, payment_use::kTubeStatus); }) ||
            !before) {
            m_setup.state().changerFailed = true;
            break;
        }
        publishTubes(m_setup, *before);
        const Money share = std::min(owed, tubeMoney(m_setup, *before));
        // Coin units of the share: money x scaling factor, whole units only.
        const std::int64_t units =
            std::min<std::int64_t>(share.minor() * scaling / Money::kMinorPerUnit, kMaxPayoutUnits);
        if (units <= 0) {
            break;  // less than one coin unit: nothing the changer can pay
        }
        const TubePayout p = payOnce(static_cast<int>(units), *before);
        paid += p.paid;
        owed -= p.paid;
        if (!p.known) {
            unknown += p.asked;
            break;
        }
        if (p.changerFailed) {
            m_setup.state().changerFailed = true;
            break;
        }
        if (p.paid < p.asked) {
            break;  // the changer paid what it could
        }
    }
    return paid;
}

CashPayment::TubePayout CashPayment::payOnce(int units, const mdb::TubeCounts& before) {
    using namespace mdb;
    EngineState& st = m_setup.state();
    const auto scaling =
        static_cast<std::int64_t>(leadingNumber(m_setup.console().text("caScalingFactor")));
    TubePayout p;
    p.asked = Money::fromMinor(units * Money::kMinorPerUnit / scaling);
    m_setup.journal({.kind = journal_kind::kPayoutAsked, .device = "tubes", .amount = p.asked});

    // What left the tubes: the changer's own account of the payout where it gives one, else
    // what each coin type's tube lost (never what one gained: a tube filled meanwhile does not
    // hide a coin paid from another). Never more than was asked. A link that goes during the
    // payout leaves neither: what was asked is then unknown, as with a changer fallen silent.
    Watch watch = Watch::Silent;
    std::optional<TubeCounts> reported;
    std::optional<TubeCounts> after;
    trapped([&] {
        watch = payOutFromTubes(units);
        reported = payoutStatus();
        after = readTubeStatus(m_setup, payment_use::kTubeStatus);
    });
    if (reported) {
        p.paid = tubeMoney(m_setup, *reported);
    } else if (after) {
        TubeCounts lost{};
        for (std::size_t k = 1; k < lost.size(); ++k) {
            lost[k] = std::max(0, before[k] - (*after)[k]);
        }
        p.paid = tubeMoney(m_setup, lost);
    } else {
        p.known = false;
    }
    if (p.paid > p.asked) {
        m_setup.log().warning("coin changer: reports " + p.paid.text() + " paid for " +
                                  p.asked.text() + " asked; counted as " + p.asked.text(),
                              {"changer", st.paymentId});
        p.paid = p.asked;
    }
    if (after) {
        publishTubes(m_setup, *after);
    }
    m_setup.journal({.kind = journal_kind::kPayoutConfirmed, .device = "tubes", .amount = p.paid});
    if (!p.known) {
        m_setup.journal({.kind = journal_kind::kPayoutUnknown,
                         .device = "tubes",
                         .amount = p.asked,
                         .detail = "the changer gave no account of its payout"});
    }
    if (watch == Watch::Silent || watch == Watch::TooLong) {
        p.changerFailed = true;
        const std::string what = watch == Watch::Silent ? "stopped answering during a payout"
                                                        : "still busy past its payout bound";
        m_setup.log().error("coin changer: " + what + "; not used for change until initialised",
                            {"changer", st.paymentId});
        m_setup.journal({.kind = journal_kind::kDeviceFault, .device = "changer", .detail = what});
    }
    return p;
}

CashPayment::Watch CashPayment::payOutFromTubes(int units) {
    using namespace mdb;
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();
    const std::uint8_t amount = payment::wireByte(units);
    const std::string words = word(kExpansionCommand, kModeAddress) +
                              word(kPayoutSubCommand, kModeData) + word(amount, kModeData) +
                              word(payment::wireByte(kPayoutCheckBase + units), kModeData);
    Command payout = Command::words(words);
    payout.pauseAfter(1, kPayoutPaceSeconds).pauseAfter(3, kPayoutPaceSeconds);
    const Exchange ex = link.exchange(payout, payment_use::kPayout);
    if (!ex.answered) {
        return Watch::Silent;
    }
    link.acknowledge(ex.reply);

    // The bound on the watch: time for as many coins as the payout can need (one per unit of
    // the smallest coin in the tubes) and a start.
    const auto scaling = leadingNumber(m_setup.console().text("caScalingFactor"));
    double smallest = 0;
    for (std::size_t k = 1; k < st.coinValue.size(); ++k) {
        const double credit = st.coinValue[k].toDouble() * scaling;
        if (st.tubeCount[k] > 0 && credit >= 1 && (smallest == 0 || credit < smallest)) {
            smallest = credit;
        }
    }
    const double coins = smallest > 0 ? std::ceil(units / smallest) : units;
    m_watchStartedAt = m_setup.elapsed();
    m_watchBoundSeconds = bounds::kPayoutWatchBaseSeconds + bounds::kPayoutSecondsPerCoin * coins;
    m_watchSilentPolls = 0;
    m_watchOutcome = Watch::Done;

    // The changer pays at its own pace; changeTimer watches it while the console goes on.
    st.payoutBusy = true;
    changeTimer().setEnabled(true);
    m_setup.yieldUntil([this, &st] {
        if (st.payoutBusy && m_setup.pastDeadline()) {
            endWatch(Watch::Interrupted);
        }
        return !st.payoutBusy;
    });
    return m_watchOutcome;
}

void CashPayment::endWatch(Watch outcome) {
    m_watchOutcome = outcome;
    m_setup.state().payoutBusy = false;
    changeTimer().setEnabled(false);
}

void CashPayment::changeTimer_Timer() {
    using namespace mdb;
    MdbLink& link = m_setup.link();
    if (!m_setup.state().payoutBusy) {
        changeTimer().setEnabled(false);
        return;
    }
    const bool ok = trapped([&] {
        const Exchange ex = link.exchange(Command::whole(mdb::frames::changerPoll()),
                                          payment_use::kPayoutWatchPoll);
        if (!ex.answered) {
            if (++m_watchSilentPolls >= bounds::kPayoutWatchSilentPolls) {
                endWatch(Watch::Silent);
            }
            return;
        }
        m_watchSilentPolls = 0;
        if (ex.reply.isBareAck()) {
            endWatch(Watch::Done);  // nothing to report: the payout has finished
            return;
        }
        // Still busy (or reporting something else): keep waiting. Acceptance is off while the
        // changer pays, so a coin reported now belongs to no payment: the journal keeps it.
        if (const std::optional<std::vector<std::uint8_t>> data = ex.reply.message()) {
            link.acknowledge(ex.reply);
            for (const ChangerEvent& e : changerEvents(*data)) {
                if (e.kind == ChangerEvent::Kind::CoinDeposited) {
                    m_setup.journal(
                        {.kind = journal_kind::kUncredited,
                         .device = "changer",
                         .amount = m_setup.state().coinValue[static_cast<std::size_t>(e.coinType)],
                         .type = e.coinType,
                         .raw = e.raw,
                         .detail = "coin during a payout"});
                }
            }
        }
        if (m_setup.elapsed() - m_watchStartedAt > m_watchBoundSeconds) {
            endWatch(Watch::TooLong);
        }
    });
    if (!ok) {
        // The link has gone: nothing more can be learnt from the changer, and the payout's wait
        // must not last for ever.
        endWatch(Watch::Silent);
    }
}

std::optional<mdb::TubeCounts> CashPayment::payoutStatus() {
    using namespace mdb;
    MdbLink& link = m_setup.link();
    std::optional<TubeCounts> counts;
    trapped([&] {
        const Exchange ex =
            link.exchange(Command::wordByWord(kExpansionCommand, {kPayoutStatusSubCommand}),
                          payment_use::kPayoutStatus);
        if (!ex.answered) {
            return;
        }
        const std::optional<std::vector<std::uint8_t>> data = ex.reply.message();
        // A bare acknowledgement means the changer is still paying (or keeps no account).
        if (!data || data->empty()) {
            return;
        }
        link.acknowledge(ex.reply);
        TubeCounts paid{};
        for (std::size_t k = 1; k < paid.size(); ++k) {
            paid[k] = k - 1 < data->size() ? (*data)[k - 1] : 0;
        }
        counts = paid;
    });
    return counts;
}

}  // namespace kestrix
