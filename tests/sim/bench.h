#pragma once

// Helpers that drive device models the way a host does on the wire, with an explicit clock.

#include <cstdint>
#include <string>
#include <vector>

#include "sim/link_device.h"
#include "support/hex.h"

namespace kestrix::sim::test {

using ByteList = std::vector<std::uint8_t>;

inline std::string raw(const ByteList& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

inline ByteList bytesOf(const std::string& s) {
    return ByteList(s.begin(), s.end());
}

// A host at the other end of one link, with its own time.
struct Host {
    LinkDevice& device;
    double now = 100.0;

    void write(const ByteList& bytes) { device.receive(raw(bytes), now); }
    // Lets `seconds` pass and takes everything the device sent meanwhile.
    std::string wait(double seconds) {
        now += seconds;
        return device.transmit(now);
    }
    std::string exchange(const ByteList& bytes, double seconds = 0.1) {
        write(bytes);
        return wait(seconds);
    }
};

// The MDB words of a command: the address word with mode 01, the data and the check byte
// with mode 00.
inline ByteList mdbWords(const ByteList& command) {
    ByteList out;
    unsigned sum = 0;
    for (std::size_t i = 0; i < command.size(); ++i) {
        out.push_back(command[i]);
        out.push_back(i == 0 ? 1 : 0);
        sum += command[i];
    }
    out.push_back(static_cast<std::uint8_t>(sum & 0xFF));
    out.push_back(0);
    return out;
}

inline const ByteList kMdbAck{0x00, 0x00};

// The data bytes of an adapter's reply text ("0b00 0b01 " -> 0B 0B); empty on malformed text.
inline ByteList replyBytes(const std::string& text) {
    ByteList out;
    if (text.size() % 5 != 0) {
        return {};
    }
    for (std::size_t i = 0; i < text.size(); i += 5) {
        out.push_back(static_cast<std::uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    }
    return out;
}

// "10 05 10 02" -> bytes.
inline ByteList hex(const std::string& text) {
    return bytesOf(kestrix::test::fromHex(text));
}

}  // namespace kestrix::sim::test
