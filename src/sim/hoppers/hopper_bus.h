#pragma once

#include <deque>
#include <memory>
#include <string>

#include "sim/frame_log.h"
#include "sim/hoppers/hopper.h"
#include "sim/link_device.h"

namespace kestrix::sim {

// The hoppers interface: one ccTalk wire with two hoppers (addresses 3 and 4 by default).
//
// It is a single-wire bus, so every byte the host sends comes back to it first (the echo),
// unless the interface is one that does not echo (setEcho(false)) or a hopper's `no-echo`
// fault is on. A frame is [destination][N][source][header][N data][checksum]; a gap over 50 ms
// inside a frame resets the receiver. A frame with a bad checksum, for nobody, or with a header
// the hopper does not support gets no reply. Replies come about 15 ms after the frame.
class HopperBus : public LinkDevice {
public:
    HopperBus(const HopperProfile& first, const HopperProfile& second, bool echo = true);

    void receive(std::string_view bytes, double now) override;
    std::string transmit(double now) override;
    // Hoppers answer only when addressed: only queued replies and echoes come out.
    double nextOutputAt(double now) const override;
    // Lets the hoppers' payouts catch up to `now`.
    void advance(double now);

    // Hopper 1 or 2.
    Hopper& hopper(int number);
    const Hopper& hopper(int number) const;
    void setEcho(bool echo) { m_echo = echo; }
    // Whether the bus echoes right now.
    bool echoing() const;
    const FrameLog& log() const { return m_log; }
    nlohmann::ordered_json state() const;

    static constexpr double kReplySeconds = 0.015;
    static constexpr double kInterByteTimeoutSeconds = 0.050;

private:
    void frameReceived(double now);
    Hopper* hopperAt(int address);

    std::unique_ptr<Hopper> m_hoppers[2];
    bool m_echo;
    Bytes m_frame;
    double m_lastByteAt = -1;
    struct Out {
        double due;
        std::string bytes;
    };
    std::deque<Out> m_out;
    FrameLog m_log;
};

}  // namespace kestrix::sim
