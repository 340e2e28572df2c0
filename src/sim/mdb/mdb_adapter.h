#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "sim/frame_log.h"
#include "sim/link_device.h"
#include "sim/mdb/mdb_peripheral.h"
#include "sim/sim_device.h"

namespace kestrix::sim {

// The serial "MDB Interface" adapter in front of the bus.
//
// From the host it takes each bus word as two raw bytes, data then mode (01h on the address
// word, 00h otherwise); a lone 00 00 is the host's ACK, AA 00 a RET, FF 00 a NAK. Words may come
// in one write or one by one with pauses between them: the adapter assembles a command by the
// length its peripheral gives for it and only then puts it on the bus. A new address word drops
// an unfinished command, and so does a second of silence in the middle of one. A byte that
// cannot be a mode byte (neither 00 nor 01), or a first byte left alone for 50 ms, makes the
// adapter pair the bytes afresh, so line noise does not shift every later word.
//
// To the host it reports every word a peripheral sends as five text characters: two lower-case
// hex digits of the data byte, two of the mode byte, a blank ("0b00 0b01 "). A peripheral that
// does not answer produces nothing.
//
// Fault switches:
//   garbage  junk text between the reported words
class MdbAdapter : public LinkDevice, public SimDevice {
public:
    MdbAdapter();

    // Puts a peripheral on the bus. The adapter does not own it.
    void attach(MdbPeripheral* peripheral);

    void receive(std::string_view bytes, double now) override;
    std::string transmit(double now) override;
    // Peripherals speak only when addressed, so only answers already queued come out.
    double nextOutputAt(double now) const override;
    void powerCycle(double now) override;
    nlohmann::ordered_json state() const override;

    // The raw traffic on the serial link to the host.
    const FrameLog& linkLog() const { return m_linkLog; }

    // Response time of a peripheral, and the bus time of one 11-bit byte at 9600 baud.
    static constexpr double kResponseSeconds = 0.002;
    static constexpr double kBusByteSeconds = 11.0 / 9600.0;
    // An unfinished command is dropped after this much silence.
    static constexpr double kWordTimeoutSeconds = 1.0;
    // A block on the bus is at most 36 bytes with its check byte.
    static constexpr std::size_t kMaxBlockBytes = 36;
    static constexpr double kHalfWordTimeoutSeconds = 0.05;

private:
    void word(std::uint8_t data, bool mode, double now);
    void frameComplete(double now);
    void sendAnswer(MdbPeripheral& p, const MdbAnswer& answer, double now);
    void emitWords(const std::vector<std::pair<std::uint8_t, bool>>& words, double now);
    MdbPeripheral* peripheralFor(std::uint8_t addressByte) const;

    std::vector<MdbPeripheral*> m_peripherals;
    std::optional<std::uint8_t> m_pendingData;  // first byte of a word, waiting for its mode
    double m_pendingAt = 0;
    Bytes m_frame;
    double m_lastWordAt = 0;
    MdbPeripheral* m_lastTalker = nullptr;
    std::vector<std::pair<std::uint8_t, bool>> m_lastAnswerWords;  // for RET
    struct Out {
        double due;
        std::string text;
    };
    std::deque<Out> m_out;
    FrameLog m_linkLog;
};

}  // namespace kestrix::sim
