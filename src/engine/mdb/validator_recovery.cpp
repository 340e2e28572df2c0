// Bill validator recovery: brings the validator back in the middle of a payment without a full
// equipment initialisation.

#include "../errors.h"
#include "../setup.h"
#include "cash_payment.h"
#include "link.h"

namespace kestrix {

namespace {

// One send of a recovery row's command (its read limit, its wait, its ACK when unanswered).
mdb::LinkUse once(const mdb::LinkUse& use) {
    mdb::LinkUse single = use;
    single.attempts = 1;
    return single;
}

}  // namespace

void CashPayment::bvRecovery() {
    using namespace mdb;
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();
    // Each stage has its own attempts; between two attempts a cancel from the host (or the
    // engine's termination) ends the recovery, so a validator that stays silent never holds
    // the customer's payment for minutes against their will.
    const auto stage = [&](const Command& command, const LinkUse& use,
                           const std::function<bool(const Reply&)>& accept = {}) {
        for (int attempt = 0; attempt < use.attempts; ++attempt) {
            if (cancelRequested()) {
                return Exchange{};
            }
            Exchange ex = link.exchange(command, once(use), accept);
            if (ex.answered) {
                return ex;
            }
        }
        return Exchange{};
    };
    const bool back = trapped([&] {
        // Before its RESET, the validator is POLLed: one that comes back may still hold the
        // report of a bill it stacked just before it fell silent, and a RESET would drop it.
        const Exchange first = stage(commands::validatorPoll(), use::kRecoveryReset);
        if (!first.answered) {
            st.bvNeedsInit = true;
            return;
        }
        if (const std::optional<std::vector<std::uint8_t>> data = first.reply.message()) {
            if (!data->empty()) {
                link.sendAck();
                creditValidator(validatorEvents(*data));
            }
        }
        link.settle();

        const Exchange reset = stage(commands::validatorReset(), use::kRecoveryReset);
        if (!reset.answered) {
            st.bvNeedsInit = true;
            return;
        }
        link.acknowledge(reset.reply);
        c.BlinkTx();
        link.settle();

        // The first poll collects the validator's "I was reset" report.
        const Exchange poll = stage(commands::validatorPoll(), use::kRecoveryPoll);
        if (!poll.answered) {
            st.bvNeedsInit = true;
            return;
        }
        link.sendAck();
        c.BlinkTx();
        link.settle();

        // Three bursts: zero-second pauses after the first and third data bytes.
        Command billType = Command::words(loadBillTypes());
        billType.pauseAfter(1, 0).pauseAfter(3, 0);
        // A reply that begins with "ff" is the validator's NAK: not an answer.
        const Exchange enabled = stage(billType, use::kRecoveryBillType, mdb::notNak);
        if (!enabled.answered) {
            st.bvNeedsInit = true;
            return;
        }
        link.acknowledge(enabled.reply);
        c.BlinkTx();
    });
    if (!back) {
        // A port that has gone or an unreadable bill type setting: the validator is not back.
        st.bvNeedsInit = true;
    }
    if (st.bvNeedsInit) {
        m_setup.journal({.kind = journal_kind::kDeviceFault,
                         .device = "validator",
                         .detail = "recovery failed"});
    } else {
        m_setup.journal({.kind = journal_kind::kDeviceRecovered,
                         .device = "validator",
                         .detail = "recovered in a payment"});
        m_setup.log().notice("bill validator: back after recovery", {"validator", st.paymentId});
    }
}

}  // namespace kestrix
