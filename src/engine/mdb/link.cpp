#include "link.h"

#include "../console.h"
#include "../errors.h"
#include "../formulas.h"
#include "../platform/clock.h"
#include "../platform/serial_port.h"

namespace kestrix {

MdbLink::MdbLink(SerialPort& port, Clock& clock, Console& indicators,
                 std::function<bool()> pastDeadline)
    : m_port(port),
      m_clock(clock),
      m_indicators(indicators),
      m_pastDeadline(std::move(pastDeadline)) {}

void MdbLink::open(std::string_view portText) {
    if (m_port.isOpen()) {
        m_port.close();
    }
    // The port list holds the port number as text; junk there is a run-time error that the
    // caller's trap reports as a port error.
    m_port.open(strictInt(portText), kLineSettings);
}

bool MdbLink::isOpen() const {
    return m_port.isOpen();
}

void MdbLink::write(const mdb::Command& command) {
    for (const mdb::Command::Write& w : command.writes()) {
        m_port.write(w.bytes);
        if (w.pauseAfterSeconds) {
            Pause(m_clock, *w.pauseAfterSeconds);
        }
    }
}

mdb::Reply MdbLink::collect(mdb::ReadLimit limit) {
    mdb::Reply reply;
    for (;;) {
        reply.append(m_port.read());
        m_indicators.BlinkRx();
        ++reply.m_reads;
        // Past termination's deadline no wait goes on, whatever its limit.
        if ((limit.bounded() && reply.m_reads > limit.completeBy) || m_pastDeadline()) {
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
    m_port.write(mdb::frames::ack());
    m_indicators.BlinkTx();
    return true;
}

void MdbLink::sendAck() {
    m_port.write(mdb::frames::ack());
}

void MdbLink::settle(double seconds) {
    Pause(m_clock, seconds);
}

mdb::Exchange MdbLink::exchange(const mdb::Command& command, const mdb::LinkUse& use,
                                const std::function<bool(const mdb::Reply&)>& accept) {
    mdb::Exchange ex;
    for (;;) {
        write(command);
        ++ex.attempts;
        if (use.waitBeforeReadSeconds > 0) {
            Pause(m_clock, use.waitBeforeReadSeconds);
        }
        m_indicators.BlinkTx();
        ex.reply = collect(use.limit);
        if (ex.reply.answered() && (!accept || accept(ex.reply))) {
            ex.answered = true;
            return ex;
        }
        if (use.ackAfterUnanswered) {
            sendAck();
        }
        if (ex.attempts >= use.attempts || m_pastDeadline()) {
            return ex;
        }
        if (use.pauseBeforeResendSeconds > 0) {
            Pause(m_clock, use.pauseBeforeResendSeconds);
        }
    }
}

void MdbLink::shutDownDevices(bool changer, bool validator) {
    if (changer) {
        const mdb::Exchange ex =
            exchange(mdb::Command::whole(mdb::frames::changerReset()), mdb::use::kExitChangerReset);
        acknowledge(ex.reply);
        m_indicators.BlinkTx();
        settle();
    }
    if (validator) {
        const mdb::Exchange reset = exchange(mdb::Command::whole(mdb::frames::validatorReset()),
                                             mdb::use::kExitValidatorReset);
        if (!reset.answered) {
            return;  // a validator that does not answer its reset will not answer its POLL
        }
        acknowledge(reset.reply);
        m_indicators.BlinkTx();
        settle();
        const mdb::Exchange poll = exchange(mdb::Command::whole(mdb::frames::validatorPoll()),
                                            mdb::use::kExitValidatorPoll);
        acknowledge(poll.reply);
        m_indicators.BlinkTx();
        settle();
    }
}

}  // namespace kestrix
