#pragma once

#include <functional>
#include <string_view>

#include "frame.h"
#include "reply.h"
#include "uses.h"

// The MDB interface adapter link (MSComm1): commands out (frame.h), replies in (reply.h), each
// exchange waited for as its use's row says (uses.h).
//
// How a routine talks to a peripheral (the payment routines included):
//
//   1. Pick the use's row in uses.h: wait, read limit, attempts, what an unanswered attempt does.
//   2. Send the command and collect its reply in one call:
//          Exchange ex = link.exchange(mdb::commands::validatorPoll(), mdb::use::kValidatorPoll);
//      `exchange` writes the command (in one write or word by word, with any pauses the command
//      carries), waits the row's wait, flashes the transmit indicator, collects the reply within
//      the row's read limit and, when that runs out, sends ACK (if the row says so),
//      pauses the row's resend pause and sends again, up to the row's attempts. `ex.answered`
//      tells whether a reply was taken.
//      An optional acceptance test makes a complete reply count as unanswered (the BILL TYPE
//      wait refuses a reply that begins with "ff":  link.exchange(cmd, row, mdb::notNak)).
//   3. Acknowledge as the use requires: `link.acknowledge(reply)` sends ACK only when the
//      reply ends in "01 " (the usual rule, the peripheral's bare "0001 " included);
//      `link.sendAck()` sends it without a test; the poll tick and the payout watch skip the
//      acknowledgement of a bare "0001 " themselves (`reply.isBareAck()`).
//   4. `link.settle()` (0.1 s) after an acknowledged exchange, where the routine does.
//   5. Read the reply's bytes by position: `reply.number(k)`, `reply.hex(k)`, `reply.character(k)`.
//
// Routines with their own loop shape (a poll that keeps reading after a recovery, a tube status
// asked again until it is longer than an acknowledgement) use the pieces directly:
// `write`, `collect`, `acknowledge`, `sendAck`, `settle`.
//
// Nothing here yields to the event loop: a read takes what has arrived (waiting at most the
// port's read quantum) and a pause blocks, so an exchange runs to its end before any tick or
// click. A port error (a port that is not open, a cable pulled mid-way) is thrown out of every
// operation to the calling routine's trap; an unlimited wait therefore ends on a vanished port.

namespace kestrix {

class Clock;
class Console;
class SerialPort;

namespace mdb {

// The result of `MdbLink::exchange`.
struct Exchange {
    Reply reply;  // the last attempt's reply (unfinished when not answered)
    bool answered = false;
    long long attempts = 0;  // sends made
};

}  // namespace mdb

// The MDB interface adapter link on MSComm1.
class MdbLink {
public:
    static constexpr std::string_view kLineSettings = "9600,N,8,1";

    // `indicators` flashes the console's transmit and receive lights; past `pastDeadline` (the
    // engine's termination bound) no wait goes on.
    MdbLink(SerialPort& port, Clock& clock, Console& indicators,
            std::function<bool()> pastDeadline);

    // Opens MSComm1 on the port named by `portText` (closing it first if open). The text must be
    // a whole number: anything else is a run-time error, as is a port that cannot be opened.
    void open(std::string_view portText);
    bool isOpen() const;

    // Writes the command (with its pauses), without the indicator.
    void write(const mdb::Command& command);
    // Collects a reply: reads, appending each read and flashing the receive indicator, until the
    // text holds "01 " or the limit ends the wait (then `reply.answered()` is false). The reply
    // starts empty; bytes that arrive after it was taken as complete stay in the port for the next
    // exchange.
    mdb::Reply collect(mdb::ReadLimit limit);

    // ACK and the transmit indicator, only when the reply ends in "01 ". True when sent.
    bool acknowledge(const mdb::Reply& reply);
    // ACK without a test (no indicator: callers flash it where they do).
    void sendAck();
    void settle(double seconds = mdb::kSettleSeconds);

    // One command with its use's wait, read limit and attempts (see the top of this file).
    // `accept`, when given, must also hold for a complete reply to count as answered.
    mdb::Exchange exchange(const mdb::Command& command, const mdb::LinkUse& use,
                           const std::function<bool(const mdb::Reply&)>& accept = {});

    // The MDB part of Exit: resets the changer, then resets the validator and takes its first
    // poll, each device only when it is enabled.
    void shutDownDevices(bool changer, bool validator);

private:
    SerialPort& m_port;
    Clock& m_clock;
    Console& m_indicators;
    std::function<bool()> m_pastDeadline;
};

}  // namespace kestrix
