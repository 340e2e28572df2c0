// The poll tick of a running cash payment: one poll of the coin changer and one of the bill
// validator, the credit for every coin deposited and bill stacked, and the payment's completion.

#include "../formulas.h"
#include "../settings/layout.h"
#include "../setup.h"
#include "cash_payment.h"
#include "cash_payment_bytes.h"
#include "link.h"
#include "payment_uses.h"

namespace kestrix {

namespace {

// "CCD" validators want their POLL paced differently and an extra acknowledgement.
constexpr std::string_view kCcdManufacturer = "CCD";
constexpr double kValidatorPaceSeconds = 0.1;
// The changer's "I was reset" status byte alone.
constexpr std::string_view kChangerResetStatus = "0b00 0b01 ";
// A validator reply of at most this many characters holds a single status byte.
constexpr std::size_t kStatusReplyMaxChars = 10;
// A tube status reply is longer than a bare acknowledgement ("0001 ").
constexpr std::size_t kAckOnlyMaxChars = 6;
constexpr std::string_view kBareAck = "0001 ";
constexpr double kMessageSeconds = 1.0;

}  // namespace

void CashPayment::pollTimer_Timer() {
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    m_talkingToChanger = true;
    try {
        st.pollTimedOut = false;
        st.bvNeedsInit = false;
        bool ended = false;
        if (c.checked("CoinAcceptorEnabled")) {
            ended = !pollChanger();
        }
        if (!ended && c.checked("billValidatorEnabled")) {
            m_talkingToChanger = false;
            ended = !pollValidator();
        }
        if (!ended) {
            c.setText("dueDisplay", "Amount Due: " + currencyText(st.amountDue));
            m_setup.writeMailbox(store::mailbox::kDue, numberText(st.amountDue));
            setStatus("Insert Coins or Bills...");
            if (st.amountDue - st.creditAmount > 0) {
                return;
            }
        }
        completePayment();
    } catch (const std::exception&) {
        // A run-time error in the tick (in practice the MDB port has gone): the payment ends as a
        // device failure of the device being talked to, with the credit left published, and the
        // next start initialises the equipment again.
        if (m_talkingToChanger) {
            st.pollTimedOut = true;
        } else {
            st.bvNeedsInit = true;
        }
        abandonPayment(m_talkingToChanger ? "Error: Coin Acceptor" : "Error: Bill Validator");
    }
}

bool CashPayment::pollChanger() {
    using namespace mdb;
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();

    link.send(link.frames().caPollFrame);
    const Reply reply = link.collect(payment_use::kTickChangerPoll.limit);
    if (!reply.answered()) {
        st.pollTimedOut = true;
        return false;
    }
    // A bare acknowledgement ("nothing to report") is not acknowledged here.
    if (reply.endsComplete() && !reply.isBareAck()) {
        link.sendAck();
    }
    c.BlinkTx();

    if (reply.text() == kChangerResetStatus || reply.isBareAck()) {
        return true;
    }
    // Only the first event of a reply is looked at; the rest (coins paid out by hand, status
    // bytes, a second event) are left alone.
    if (const std::optional<int> type = payment::depositedCoinType(reply)) {
        st.creditAmount += st.coinValue[static_cast<std::size_t>(*type)];
        c.setText("creditDisplay", currencyText(st.creditAmount));
        m_setup.writeMailbox(store::mailbox::kCredit, numberText(st.creditAmount));
    }
    return true;
}

bool CashPayment::pollValidator() {
    using namespace mdb;
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();
    const bool ccd = c.text("bvManufacturer") == kCcdManufacturer;

    Reply reply;
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
        if (ccd) {
            continue;  // "CCD" validators are simply polled again
        }
        bvRecovery();
        if (st.bvNeedsInit) {
            return false;
        }
        // The validator is back, but the POLL that went unanswered never will be: it has been
        // reset since. Reading on would only run recovery after recovery; what is read is the
        // recovery's last answer, a bare acknowledgement, so this poll reports nothing and the
        // next tick polls afresh (and a validator that misses replies now and then cannot hold
        // the tick for ever).
        reply = Reply();
        break;
    }
    c.BlinkTx();

    Clock& clock = m_setup.platform().clock;
    if (st.lastBillTime > clock.secondsSinceMidnight()) {
        st.lastBillTime = clock.secondsSinceMidnight();  // midnight has passed
    }

    const std::optional<int> stacked = payment::stackedBillType(reply);
    // A single status byte. (A lone "bill stacked" event with its check byte is as short, but it
    // is money and is read as the data it is.)
    if (reply.size() <= kStatusReplyMaxChars && !stacked) {
        if (reply.endsComplete() && !reply.isBareAck()) {
            link.sendAck();
        }
        return true;
    }
    if (ccd) {
        link.sendAck();
        c.BlinkTx();
    }
    const double now = clock.secondsSinceMidnight();
    // The same bill reported twice within the guard time is credited once.
    if (stacked && now - st.lastBillTime > kBillRepeatGuardSeconds) {
        st.creditAmount += st.billValue[static_cast<std::size_t>(*stacked)];
        st.lastBillTime = now;
    }
    c.setText("creditDisplay", currencyText(st.creditAmount));
    m_setup.writeMailbox(store::mailbox::kCredit, numberText(st.creditAmount));
    link.sendAck();
    c.BlinkTx();
    return true;
}

void CashPayment::completePayment() {
    using namespace mdb;
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();

    m_setup.pollTimer().setEnabled(false);

    if (c.checked("billValidatorEnabled")) {
        m_talkingToChanger = false;
        // Here "CCD" validators get the extra pause, the other way round from the tick.
        if (c.text("bvManufacturer") == kCcdManufacturer) {
            m_setup.pause(kValidatorPaceSeconds);
        }
        const Exchange reset =
            link.exchange(commands::validatorReset(), payment_use::kEndValidatorReset);
        // After three unanswered RESETs the validator is left as it is: a POLL without a read
        // limit would wait for it for ever.
        if (reset.answered) {
            link.acknowledge(reset.reply);
            link.settle();
            link.exchange(commands::validatorPoll(), payment_use::kEndValidatorPoll);
            link.sendAck();
            link.settle();
        }
    }

    if (c.checked("CoinAcceptorEnabled") && !st.pollTimedOut) {
        m_talkingToChanger = true;
        const Exchange reset = link.exchange(Command::whole(link.frames().caResetFrame),
                                             payment_use::kEndChangerReset);
        link.acknowledge(reset.reply);
        Reply tubes;
        do {
            m_setup.pause(kSettleSeconds);
            st.tubesValue = 0;
            const Exchange ex =
                link.exchange(commands::changerTubeStatus(), payment_use::kEndTubeStatus);
            tubes = ex.reply;
            if (!ex.answered) {
                break;  // the acknowledgement has been sent; the counts are read from what came
            }
            link.acknowledge(tubes);
        } while (tubes.size() <= kAckOnlyMaxChars);
        if (tubes.startsWith(kBareAck)) {
            tubes = Reply(tubes.text().substr(kBareAck.size()));
        }
        takeTubeStatus(tubes);
    }

    // No change after a changer time-out: the changer cannot be trusted to pay.
    if (!st.pollTimedOut && st.creditAmount - st.amountDue > 0) {
        double change = st.creditAmount - st.amountDue;
        DispenseChange(change);
    }

    st.amountDue = 0;
    m_setup.writeMailbox(store::mailbox::kDue, numberText(st.amountDue));
    c.setText("enablePayment", "Pay");
    c.setText("dueDisplay", "");

    if (!st.bvNeedsInit && !st.pollTimedOut) {
        st.creditAmount = 0;
        c.setText("creditDisplay", "$0.00");
        m_setup.writeMailbox(store::mailbox::kCredit, numberText(st.creditAmount));
        setStatus("Payment Completed");
    } else {
        // The credit stays published so that the host sees what was inserted.
        setStatus(st.pollTimedOut ? "Error: Coin Acceptor" : "Error: Bill Validator");
    }
    m_setup.pause(kMessageSeconds);
    c.setText("statusDisplay", "");
    c.setEnabled("SSTab1", true);
}

}  // namespace kestrix
