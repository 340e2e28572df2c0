// Bill validator recovery: brings the validator back in the middle of a payment without a full
// equipment initialisation.

#include "../setup.h"
#include "cash_payment.h"
#include "cash_payment_bytes.h"
#include "link.h"

namespace kestrix {

namespace {
constexpr std::uint8_t kBillTypeCommand = 0x34;
}

void CashPayment::bvRecovery() {
    using namespace mdb;
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();
    try {
        const Exchange reset = link.exchange(commands::validatorReset(), use::kRecoveryReset);
        if (!reset.answered) {
            st.bvNeedsInit = true;
            return;
        }
        link.acknowledge(reset.reply);
        c.BlinkTx();
        link.settle();

        // The first poll collects the validator's "I was reset" report.
        const Exchange poll = link.exchange(commands::validatorPoll(), use::kRecoveryPoll);
        if (!poll.answered) {
            st.bvNeedsInit = true;
            return;
        }
        link.sendAck();
        c.BlinkTx();
        link.settle();

        loadBillTypes();
        const auto& b = st.commandBytes;
        const int data[4] = {b[0], b[1], b[2], b[3]};
        // Three bursts: zero-second pauses after the first and third data bytes.
        Command billType = Command::words(payment::commandWords(kBillTypeCommand, data, b[4]));
        billType.pauseAfter(1, 0).pauseAfter(3, 0);
        // A reply that begins with "ff" is the validator's NAK: not an answer.
        const Exchange enabled = link.exchange(billType, use::kRecoveryBillType, mdb::notNak);
        if (!enabled.answered) {
            st.bvNeedsInit = true;
            return;
        }
        link.acknowledge(enabled.reply);
        c.BlinkTx();
    } catch (const std::exception&) {
        // A port that has gone or an unreadable bill type setting: the validator is not back.
        st.bvNeedsInit = true;
    }
}

}  // namespace kestrix
