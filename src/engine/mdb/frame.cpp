#include "frame.h"

namespace kestrix::mdb {

std::string word(std::uint8_t data, std::uint8_t mode) {
    std::string w;
    w += static_cast<char>(data);
    w += static_cast<char>(mode);
    return w;
}

std::uint8_t checkByte(std::span<const std::uint8_t> bytes) {
    unsigned sum = 0;
    for (std::uint8_t b : bytes) {
        sum += b;
    }
    return static_cast<std::uint8_t>(sum & 0xFFu);
}

std::string frame(std::uint8_t command, std::span<const std::uint8_t> data) {
    std::string f = word(command, kModeAddress);
    unsigned sum = command;
    for (std::uint8_t b : data) {
        f += word(b, kModeData);
        sum += b;
    }
    f += word(static_cast<std::uint8_t>(sum & 0xFFu), kModeData);
    return f;
}

Command Command::whole(std::string frameBytes) {
    Command c;
    c.m_writes.push_back({std::move(frameBytes), std::nullopt});
    return c;
}

Command Command::words(std::string_view frameBytes) {
    Command c;
    for (std::size_t i = 0; i < frameBytes.size(); i += 2) {
        c.m_writes.push_back({std::string(frameBytes.substr(i, 2)), std::nullopt});
    }
    return c;
}

Command Command::wordByWord(std::uint8_t command, std::vector<std::uint8_t> data) {
    return words(frame(command, data));
}

Command& Command::pauseAfter(std::size_t index, double seconds) {
    if (index < m_writes.size()) {
        m_writes[index].pauseAfterSeconds = seconds;
    }
    return *this;
}

std::string Command::bytes() const {
    std::string all;
    for (const Write& w : m_writes) {
        all += w.bytes;
    }
    return all;
}

namespace frames {
const std::string& changerReset() {
    static const std::string f = frame(0x08);
    return f;
}
const std::string& changerSetup() {
    static const std::string f = frame(0x09);
    return f;
}
const std::string& changerPoll() {
    static const std::string f = frame(0x0B);
    return f;
}
const std::string& validatorReset() {
    static const std::string f = frame(0x30);
    return f;
}
const std::string& validatorPoll() {
    static const std::string f = frame(0x33);
    return f;
}
const std::string& ack() {
    static const std::string f = word(0x00, kModeData);
    return f;
}
}  // namespace frames

namespace commands {
Command changerTubeStatus() {
    return Command::wordByWord(0x0A);
}
Command changerIdentification() {
    return Command::wordByWord(0x0F, {0x00});
}
Command validatorReset() {
    return Command::wordByWord(0x30);
}
Command validatorSetup() {
    return Command::wordByWord(0x31);
}
Command validatorPoll() {
    return Command::wordByWord(0x33);
}
Command validatorIdentification() {
    return Command::wordByWord(0x37, {0x00});
}
}  // namespace commands

}  // namespace kestrix::mdb
