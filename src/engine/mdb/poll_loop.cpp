// The poll tick of a running cash payment: one poll of the coin changer and one of the bill
// validator, the credit for every coin deposited and bill stacked, and the payment's completion.

#include "../bounds.h"
#include "../errors.h"
#include "../formulas.h"
#include "../settings/layout.h"
#include "../setup.h"
#include "cash_payment.h"
#include "link.h"
#include "tubes.h"
#include "uses.h"

namespace kestrix {

namespace {

// "CCD" validators want their POLL paced differently and an extra acknowledgement.
constexpr std::string_view kCcdManufacturer = "CCD";
constexpr double kValidatorPaceSeconds = 0.1;
constexpr double kMessageSeconds = 1.0;
constexpr double kSecondsPerDay = 86400.0;

}  // namespace

void CashPayment::pollTimer_Timer() {
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    m_talkingToChanger = true;
    m_setup.storeWriter().retry();
    const bool ok = trapped([&] {
        st.pollTimedOut = false;
        st.bvNeedsInit = false;
        bool ended = false;
        if (c.checked("CoinAcceptorEnabled")) {
            const Poll p = pollChanger(mdb::payment_use::kTickChangerPoll);
            if (p == Poll::Unreadable && ++m_unreadablePolls >= bounds::kUnreadablePolls) {
                m_setup.log().error("coin changer: its replies cannot be read; payment ended",
                                    {"changer", st.paymentId});
                st.pollTimedOut = true;
            } else if (p != Poll::Unreadable) {
                m_unreadablePolls = 0;
            }
            if (p == Poll::Silent) {
                m_setup.log().error("coin changer: no answer to POLL; payment ended",
                                    {"changer", st.paymentId});
                st.pollTimedOut = true;
            }
            ended = st.pollTimedOut;
        }
        if (!ended && c.checked("billValidatorEnabled")) {
            m_talkingToChanger = false;
            const ValidatorTick v = pollValidatorInTick();
            if (v == ValidatorTick::GaveWayToCancel) {
                return;  // the monitor stops the payment on its next tick
            }
            ended = v == ValidatorTick::Failed;
        }
        if (!ended) {
            c.setText("dueDisplay", "Amount Due: " + st.amountDue.currency());
            m_setup.writeMailbox(store::mailbox::kDue, st.amountDue.text());
            setStatus("Insert Coins or Bills...");
            if (st.amountDue > st.creditAmount) {
                return;
            }
        }
        completePayment();
    });
    if (!ok) {
        // A run-time error in the tick (in practice the MDB port has gone): the payment ends as a
        // device failure of the device being talked to, with the credit left published, and the
        // next start initialises the equipment again.
        if (m_talkingToChanger) {
            st.pollTimedOut = true;
        } else {
            st.bvNeedsInit = true;
        }
        m_setup.writeMailbox(store::mailbox::kKsxError, "1");
        abandonPayment(m_talkingToChanger ? "Error: Coin Acceptor" : "Error: Bill Validator");
    }
}

CashPayment::Poll CashPayment::pollChanger(const mdb::LinkUse& use) {
    using namespace mdb;
    MdbLink& link = m_setup.link();
    const Exchange ex = link.exchange(Command::whole(mdb::frames::changerPoll()), use);
    if (!ex.answered) {
        return Poll::Silent;
    }
    const std::optional<std::vector<std::uint8_t>> data = ex.reply.message();
    if (!data) {
        // Garbage or a wrong check byte: not acknowledged, so the changer sends it again.
        m_setup.log().debug("coin changer: unreadable POLL reply \"" +
                            ex.reply.text().substr(0, 60) + "\"");
        return Poll::Unreadable;
    }
    // A bare acknowledgement ("nothing to report") is not acknowledged.
    if (!data->empty()) {
        link.sendAck();
    }
    m_setup.console().BlinkTx();
    const std::vector<ChangerEvent> events = changerEvents(*data);
    creditChanger(events);
    return active(events) ? Poll::Active : Poll::Quiet;
}

void CashPayment::creditChanger(const std::vector<mdb::ChangerEvent>& events) {
    EngineState& st = m_setup.state();
    bool credited = false;
    for (const mdb::ChangerEvent& e : events) {
        if (e.kind != mdb::ChangerEvent::Kind::CoinDeposited) {
            if (e.kind == mdb::ChangerEvent::Kind::ManualPayout) {
                m_setup.log().notice("coin changer: " + std::to_string(e.count) +
                                         " coins of type " + std::to_string(e.coinType) +
                                         " paid out by hand",
                                     {"changer", st.paymentId});
            }
            continue;
        }
        const Money value = st.coinValue[static_cast<std::size_t>(e.coinType)];
        if (st.amountDue.isZero() || !value.positive()) {
            // Money taken in with no payment to credit it to, or of a type without a value: the
            // journal explains it.
            m_setup.journal({.kind = journal_kind::kUncredited,
                             .device = "changer",
                             .amount = value,
                             .type = e.coinType,
                             .raw = e.raw,
                             .detail = "coin outside a payment or of unknown value"});
            m_setup.log().warning("coin changer: coin of type " + std::to_string(e.coinType) +
                                      " not credited (no payment, or no value)",
                                  {"changer", st.paymentId});
            continue;
        }
        m_setup.journal({.kind = journal_kind::kCredit,
                         .device = "changer",
                         .amount = value,
                         .type = e.coinType,
                         .raw = e.raw});
        st.creditAmount += value;
        credited = true;
    }
    if (credited) {
        publishCredit();
    }
}

void CashPayment::publishCredit() {
    EngineState& st = m_setup.state();
    m_setup.console().setText("creditDisplay", st.creditAmount.currency());
    m_setup.writeMailbox(store::mailbox::kCredit, st.creditAmount.text());
}

CashPayment::ValidatorTick CashPayment::pollValidatorInTick() {
    using namespace mdb;
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();
    const bool ccd = c.text("bvManufacturer") == kCcdManufacturer;

    Reply reply;
    int ccdMisses = 0;
    for (;;) {
        m_setup.pause(kValidatorPaceSeconds);
        link.write(commands::validatorPoll());
        if (!ccd) {
            m_setup.pause(kValidatorPaceSeconds);
        }
        reply = link.collect(payment_use::kTickValidatorPoll.limit);
        if (reply.answered()) {
            break;
        }
        if (ccd && ++ccdMisses < bounds::kCcdPollAttempts && !m_setup.interrupted()) {
            continue;  // "CCD" validators are simply polled again
        }
        m_setup.log().warning("bill validator: no answer to POLL; recovering it",
                              {"validator", st.paymentId});
        bvRecovery();
        if (st.bvNeedsInit) {
            if (cancelRequested()) {
                // Recovery gave way to a cancel: the monitor stops the payment (and the next
                // start initialises the validator).
                return ValidatorTick::GaveWayToCancel;
            }
            m_setup.log().error("bill validator: recovery failed; payment ended",
                                {"validator", st.paymentId});
            return ValidatorTick::Failed;
        }
        // The validator is back and its POLL was taken by the recovery; this tick reports
        // nothing more.
        return ValidatorTick::Ok;
    }
    c.BlinkTx();

    const std::optional<std::vector<std::uint8_t>> data = reply.message();
    // Unreadable: not acknowledged, so the validator sends it again. Empty: nothing to report.
    if (data && !data->empty()) {
        if (ccd) {
            link.sendAck();
            c.BlinkTx();
        }
        creditValidator(validatorEvents(*data));
        link.sendAck();
        c.BlinkTx();
    }
    return ValidatorTick::Ok;
}

CashPayment::Poll CashPayment::pollValidator(const mdb::LinkUse& use) {
    using namespace mdb;
    MdbLink& link = m_setup.link();
    const Exchange ex = link.exchange(commands::validatorPoll(), use);
    if (!ex.answered) {
        return Poll::Silent;
    }
    const std::optional<std::vector<std::uint8_t>> data = ex.reply.message();
    if (!data) {
        return Poll::Unreadable;
    }
    if (!data->empty()) {
        link.sendAck();
    }
    const std::vector<ValidatorEvent> events = validatorEvents(*data);
    creditValidator(events);
    return active(events) ? Poll::Active : Poll::Quiet;
}

void CashPayment::creditValidator(const std::vector<mdb::ValidatorEvent>& events) {
    EngineState& st = m_setup.state();
    Clock& clock = m_setup.platform().clock;
    bool credited = false;
    for (const mdb::ValidatorEvent& e : events) {
        if (e.kind != mdb::ValidatorEvent::Kind::BillStacked) {
            continue;
        }
        const Money value = st.billValue[static_cast<std::size_t>(e.billType)];
        const double now = clock.secondsSinceMidnight();
        double since = kBillRepeatGuardSeconds + 1;
        if (st.lastBillTime) {
            since = now - *st.lastBillTime;
            if (since < 0) {
                since += kSecondsPerDay;  // midnight has passed since the last bill
            }
        }
        // The same bill reported twice within the guard time is credited once; only the
        // payment's own last bill counts, so an earlier payment's (or yesterday's) never hides
        // a genuine one.
        const bool repeat = since <= kBillRepeatGuardSeconds;
        if (repeat || st.amountDue.isZero() || !value.positive()) {
            m_setup.journal({.kind = journal_kind::kUncredited,
                             .device = "validator",
                             .amount = value,
                             .type = e.billType,
                             .raw = e.raw,
                             .detail = repeat ? "stacked report within the repeat guard"
                                              : "bill outside a payment or of unknown value"});
            m_setup.log().warning("bill validator: stacked bill of type " +
                                      std::to_string(e.billType) + " not credited (" +
                                      (repeat ? "reported again within " : "no payment, ") +
                                      (repeat ? "2 s)" : "or no value)"),
                                  {"validator", st.paymentId});
            continue;
        }
        m_setup.journal({.kind = journal_kind::kCredit,
                         .device = "validator",
                         .amount = value,
                         .type = e.billType,
                         .raw = e.raw});
        st.creditAmount += value;
        st.lastBillTime = now;
        credited = true;
    }
    if (credited) {
        publishCredit();
    }
}

void CashPayment::completePayment() {
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();

    pollTimer().setEnabled(false);
    // A coin or bill that arrives while the payment completes is credited (and paid back as
    // change) instead of being dropped by the resets.
    settleAcceptance();
    // A device that failed in the payment (or while settling) decides the status; one that
    // misses its reset from here on is only initialised again at the next start.
    const bool changerFailed = st.pollTimedOut;
    const bool validatorFailed = st.bvNeedsInit;

    if (c.checked("billValidatorEnabled") && !validatorFailed && m_setup.link().isOpen()) {
        m_talkingToChanger = false;
        // Here "CCD" validators get the extra pause, the other way round from the tick.
        resetValidator(mdb::payment_use::kEndValidatorReset,
                       c.text("bvManufacturer") == kCcdManufacturer);
    }
    // A port that has gone is told as a port error (KSX_Error) when the payment ends; there is
    // nothing to reset through it.
    if (c.checked("CoinAcceptorEnabled") && !changerFailed && m_setup.link().isOpen()) {
        m_talkingToChanger = true;
        resetChangerAndReadTubes();
    }

    // No change after a changer failure in the payment: the changer cannot be trusted to pay.
    Money change;
    Money owed;
    if (!changerFailed && st.creditAmount > st.amountDue) {
        owed = st.creditAmount - st.amountDue;
        change = DispenseChange(owed);
    }

    st.amountDue = Money();
    m_setup.writeMailbox(store::mailbox::kDue, st.amountDue.text());
    c.setText("enablePayment", std::string(caption::kPay));
    c.setText("dueDisplay", "");

    if (!validatorFailed && !changerFailed) {
        endPaymentRecord("Payment Completed", change, owed - change - m_lastUnknown);
        st.creditAmount = Money();
        c.setText("creditDisplay", "$0.00");
        m_setup.writeMailbox(store::mailbox::kCredit, st.creditAmount.text());
        setStatus("Payment Completed");
    } else {
        // The credit stays published so that the host sees what was inserted.
        const std::string_view status =
            changerFailed ? "Error: Coin Acceptor" : "Error: Bill Validator";
        endPaymentRecord(status, change, owed - change - m_lastUnknown);
        setStatus(status);
    }
    if (!m_setup.interrupted()) {
        m_setup.pause(kMessageSeconds);
    }
    c.setText("statusDisplay", "");
    c.setEnabled("SSTab1", true);
}

}  // namespace kestrix
