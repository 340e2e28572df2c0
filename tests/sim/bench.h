#pragma once

// The device models of one kiosk driven the way the engine drives them on their lines, with an
// explicit clock.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "engine/mdb/frame.h"
#include "sim/kiosk_models.h"
#include "support/hex.h"

namespace kestrix::sim::test {

using ByteList = std::vector<std::uint8_t>;

inline ByteList bytesOf(const std::string& s) {
    return ByteList(s.begin(), s.end());
}

// "10 05 10 02" -> bytes.
inline ByteList hex(const std::string& text) {
    return bytesOf(kestrix::test::fromHex(text));
}

struct Bench {
    double now = 100.0;
    KioskModels models;

    explicit Bench(const KioskProfile& profile = defaultProfile())
        : models(profile, [this] { return now; }) {}

    void write(LinkDevice& d, const ByteList& bytes) {
        d.receive(std::string(bytes.begin(), bytes.end()), now);
    }
    // Lets `seconds` pass and takes everything the device sent meanwhile.
    std::string wait(LinkDevice& d, double seconds) {
        now += seconds;
        return d.transmit(now);
    }
    std::string exchange(LinkDevice& d, const ByteList& bytes, double seconds = 0.1) {
        write(d, bytes);
        return wait(d, seconds);
    }
    // An MDB command (command byte, data) in the engine's words; a complete reply is
    // acknowledged, as the engine does, unless `ack` is false.
    std::string mdb(const ByteList& command, bool ack = true) {
        const std::string frame = kestrix::mdb::frame(command[0], std::span(command).subspan(1));
        const std::string reply = exchange(models.mdbLink(), bytesOf(frame));
        if (ack && reply.ends_with("01 ")) {
            this->ack();
        }
        return reply;
    }
    void ack() { exchange(models.mdbLink(), {0x00, 0x00}, 0.01); }
};

}  // namespace kestrix::sim::test
