#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "cctalk.h"

namespace kestrix {

class SerialPort;

// One ccTalk exchange at a time over the hoppers interface. The interface is a single wire: with
// echo on, every byte the engine sends comes back first and is checked and skipped before the
// reply is looked for.
class CcTalkLink {
public:
    enum class Outcome {
        Reply,    // a valid frame from the addressed hopper
        NoEcho,   // the sent bytes never came back: cable or interface dead
        BadEcho,  // they came back altered: the line is corrupt
        NoReply,  // echo fine, but no valid reply (silent hopper, garbage, bad checksum)
    };
    struct Result {
        Outcome outcome = Outcome::NoReply;
        cctalk::Frame frame;
        bool ok() const { return outcome == Outcome::Reply; }
    };

    // Reads that return nothing before the exchange gives up. One read waits at most one read
    // quantum, so this is about 0.2 s of silence: hoppers answer within 10-25 ms.
    static constexpr int kIdleReadLimit = 100;
    // Reads of any kind: a line that streams noise must not hold the engine for ever.
    static constexpr int kTotalReadLimit = 1000;

    CcTalkLink(SerialPort& port, bool echo) : m_port(port), m_echo(echo) {}

    // Sends one frame (in one write, since a gap inside a frame resets the hopper's receiver) and
    // collects the reply. Port failures (a vanished port) propagate as PortError.
    Result exchange(std::uint8_t address, std::uint8_t header, std::string_view data = {});

private:
    SerialPort& m_port;
    bool m_echo;
};

}  // namespace kestrix
