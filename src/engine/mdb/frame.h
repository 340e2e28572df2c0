#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// MDB commands as the serial adapter takes them. The engine is the MDB bus master but talks to
// the bus through the adapter: every bus word goes out as two raw bytes, the data byte and the
// mode byte (01h on the address word, 00h otherwise).
namespace kestrix::mdb {

inline constexpr std::uint8_t kModeAddress = 0x01;  // mode byte of a command's first word
inline constexpr std::uint8_t kModeData = 0x00;     // mode byte of every other word

// One bus word as the adapter takes it: data byte, then mode byte.
std::string word(std::uint8_t data, std::uint8_t mode);

// The low eight bits of the sum of the bytes: the check byte of a command (command byte plus
// data bytes).
std::uint8_t checkByte(std::span<const std::uint8_t> bytes);

// The whole frame of a command: address word, one word per data byte, check word.
std::string frame(std::uint8_t command, std::span<const std::uint8_t> data = {});

// A command as it goes on the wire: one or more writes, each optionally followed by a pause.
// The adapter treats a frame written at once and one written word by word alike.
class Command {
public:
    struct Write {
        std::string bytes;
        std::optional<double> pauseAfterSeconds;  // a Pause after this write, when set
    };

    // The frame in one write.
    static Command whole(std::string frameBytes);
    // The address word, each data word and the check word as separate writes.
    static Command wordByWord(std::uint8_t command, std::vector<std::uint8_t> data = {});
    // Already-built words as separate writes (two bytes each; a trailing odd byte is its own
    // write).
    static Command words(std::string_view frameBytes);

    // Pause `seconds` after write number `index` (from 0). Ignored past the last write.
    Command& pauseAfter(std::size_t index, double seconds);

    const std::vector<Write>& writes() const { return m_writes; }
    // Every byte of the command, in order.
    std::string bytes() const;

private:
    std::vector<Write> m_writes;
};

// Frames sent in one write.
namespace frames {
const std::string& changerReset();    // 08 01 08 00
const std::string& changerSetup();    // 09 01 09 00
const std::string& changerPoll();     // 0B 01 0B 00
const std::string& validatorReset();  // 30 01 30 00
const std::string& validatorPoll();   // 33 01 33 00
// The master's ACK is a lone data word: no address word, no check word.
const std::string& ack();  // 00 00
}  // namespace frames

// Commands sent word by word.
namespace commands {
Command changerTubeStatus();        // 0A/01 0A/00
Command changerIdentification();    // 0F/01 00/00 0F/00
Command validatorReset();           // 30/01 30/00
Command validatorSetup();           // 31/01 31/00
Command validatorPoll();            // 33/01 33/00
Command validatorIdentification();  // 37/01 00/00 37/00
}  // namespace commands

}  // namespace kestrix::mdb
