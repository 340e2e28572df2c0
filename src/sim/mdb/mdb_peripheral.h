#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "sim/frame_log.h"
#include "sim/sim_device.h"

namespace kestrix::sim {

using Bytes = std::vector<std::uint8_t>;

// MDB check byte: the sum of the bytes modulo 256.
std::uint8_t mdbCheck(const Bytes& bytes, std::size_t count);
inline std::uint8_t mdbCheck(const Bytes& bytes) {
    return mdbCheck(bytes, bytes.size());
}

// What a peripheral puts on the bus in answer to a command.
struct MdbAnswer {
    enum class Kind { Silent, Ack, Nak, Data };
    Kind kind = Kind::Silent;
    Bytes data;  // Data only; the adapter adds the check byte and the mode bit

    static MdbAnswer silent() { return {}; }
    static MdbAnswer ack() { return {Kind::Ack, {}}; }
    static MdbAnswer nak() { return {Kind::Nak, {}}; }
    static MdbAnswer withData(Bytes bytes) { return {Kind::Data, std::move(bytes)}; }
};

// A peripheral on the MDB bus behind the interface adapter. Owns the POLL event queue with the
// bus rule that reported data stays queued until the master acknowledges it: a reply that is
// not acknowledged (NAK, silence, or the next command) is sent again on the next POLL.
class MdbPeripheral : public SimDevice {
public:
    using SimDevice::SimDevice;

    // Upper five bits of the address byte: 08h changer, 30h validator.
    virtual std::uint8_t address() const = 0;
    // The whole length (address byte to check byte) of the command whose first bytes are
    // `start` (at least the address byte), or 0 while more bytes are needed to tell.
    virtual std::size_t frameLength(const Bytes& start) const = 0;
    // A complete command with a correct check byte.
    virtual MdbAnswer command(const Bytes& frame, double now) = 0;
    // Lets time-driven work (coins in flight, payouts) catch up to `now`.
    virtual void advance(double now) = 0;
    // The command's name for the traffic log ("POLL", "COIN TYPE").
    virtual std::string commandName(const Bytes& frame) const = 0;

    // The master acknowledged what this peripheral sent last.
    void acknowledged();

    FrameLog& busLog() { return m_busLog; }
    const FrameLog& busLog() const { return m_busLog; }
    // Events waiting to be reported, oldest first.
    std::size_t pendingEvents() const { return m_events.size(); }

protected:
    void queueEvent(Bytes event) { m_events.push_back(std::move(event)); }
    void clearEvents();
    // A POLL answer: the queued events that fit in one block, then `status` bytes (reported on
    // every POLL while the condition lasts). ACK when there is nothing at all.
    MdbAnswer pollAnswer(const Bytes& status);
    // A data answer that is not a POLL: acknowledging it must not drop queued events.
    MdbAnswer dataAnswer(Bytes data);

    FrameLog m_busLog;

private:
    std::deque<Bytes> m_events;
    std::size_t m_eventsAwaitingAck = 0;
};

}  // namespace kestrix::sim
