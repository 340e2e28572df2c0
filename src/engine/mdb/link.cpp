#include "link.h"

#include "../errors.h"
#include "../formulas.h"
#include "../setup.h"

namespace kestrix {

MdbLink::MdbLink(Setup& setup) : m_setup(setup) {}

void MdbLink::open() {
    SerialPort& port = m_setup.platform().mdbPort;
    if (port.isOpen()) {
        port.close();
    }
    // The port list holds the port number as text; junk there is a run-time error that the
    // caller's trap reports as a port error.
    const int portNumber = strictInt(m_setup.console().text("comPorts"));
    port.open(portNumber, kLineSettings);
}

bool MdbLink::isOpen() const {
    return m_setup.platform().mdbPort.isOpen();
}

void MdbLink::write(const mdb::Command& command) {
    SerialPort& port = m_setup.platform().mdbPort;
    for (const mdb::Command::Write& w : command.writes()) {
        port.write(w.bytes);
        if (w.pauseAfterSeconds) {
            m_setup.pause(*w.pauseAfterSeconds);
        }
    }
}

mdb::Reply MdbLink::collect(mdb::ReadLimit limit) {
    SerialPort& port = m_setup.platform().mdbPort;
    Console& console = m_setup.console();
    mdb::Reply reply;
    for (;;) {
        reply.append(port.read());
        console.BlinkRx();
        ++reply.m_reads;
        // Past termination's deadline no wait goes on, whatever its limit.
        if ((limit.bounded() && reply.m_reads > limit.completeBy) || m_setup.pastDeadline()) {
            reply.m_limitEnded = true;
            return reply;
        }
        if (reply.complete()) {
            return reply;
        }
    }
}

bool MdbLink::acknowledge(const mdb::Reply& reply) {
    if (!reply.endsComplete()) {
        return false;
    }
    m_setup.platform().mdbPort.write(mdb::frames::ack());
    m_setup.console().BlinkTx();
    return true;
}

void MdbLink::sendAck() {
    m_setup.platform().mdbPort.write(mdb::frames::ack());
}

void MdbLink::settle(double seconds) {
    m_setup.pause(seconds);
}

mdb::Exchange MdbLink::exchange(const mdb::Command& command, const mdb::LinkUse& use,
                                const std::function<bool(const mdb::Reply&)>& accept) {
    mdb::Exchange ex;
    for (;;) {
        write(command);
        ++ex.attempts;
        if (use.waitBeforeReadSeconds > 0) {
            m_setup.pause(use.waitBeforeReadSeconds);
        }
        m_setup.console().BlinkTx();
        ex.reply = collect(use.limit);
        if (ex.reply.answered() && (!accept || accept(ex.reply))) {
            ex.answered = true;
            return ex;
        }
        if (use.ackAfterUnanswered) {
            sendAck();
        }
        if (ex.attempts >= use.attempts || m_setup.pastDeadline()) {
            return ex;
        }
        if (use.pauseBeforeResendSeconds > 0) {
            m_setup.pause(use.pauseBeforeResendSeconds);
        }
    }
}

void MdbLink::shutDownDevices() {
    Console& console = m_setup.console();
    if (console.checked("CoinAcceptorEnabled")) {
        const mdb::Exchange ex =
            exchange(mdb::Command::whole(mdb::frames::changerReset()), mdb::use::kExitChangerReset);
        acknowledge(ex.reply);
        console.BlinkTx();
        settle();
    }
    if (console.checked("billValidatorEnabled")) {
        const mdb::Exchange reset = exchange(mdb::Command::whole(mdb::frames::validatorReset()),
                                             mdb::use::kExitValidatorReset);
        if (!reset.answered) {
            return;  // a validator that does not answer its reset will not answer its POLL
        }
        acknowledge(reset.reply);
        console.BlinkTx();
        settle();
        const mdb::Exchange poll = exchange(mdb::Command::whole(mdb::frames::validatorPoll()),
                                            mdb::use::kExitValidatorPoll);
        acknowledge(poll.reply);
        console.BlinkTx();
        settle();
    }
}

}  // namespace kestrix
