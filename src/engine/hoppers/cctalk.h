#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// ccTalk framing for the coin hoppers: [destination][data length][source][header][data][checksum],
// where the 8-bit sum of every byte of the frame, the checksum included, is zero. Bytes travel
// in std::string, one char per byte, as on every serial link of the engine.
namespace kestrix::cctalk {

inline constexpr std::uint8_t kHostAddress = 1;
inline constexpr std::size_t kMinFrameSize = 5;  // a frame without data

namespace header {
inline constexpr std::uint8_t kAck = 0;
inline constexpr std::uint8_t kResetDevice = 1;
inline constexpr std::uint8_t kNak = 5;
inline constexpr std::uint8_t kRequestCipherKey = 160;
inline constexpr std::uint8_t kTestHopper = 163;
inline constexpr std::uint8_t kEnableHopper = 164;
inline constexpr std::uint8_t kHopperStatus = 166;
inline constexpr std::uint8_t kDispenseHopperCoins = 167;
inline constexpr std::uint8_t kEmergencyStop = 172;
inline constexpr std::uint8_t kSerialNumber = 242;
inline constexpr std::uint8_t kProductCode = 244;
}  // namespace header

// The data byte of header 164 that enables a hopper; any other value disables it.
inline constexpr std::uint8_t kEnableCode = 0xA5;

// Register 1 of the test hopper reply (header 163).
namespace testFlag {
inline constexpr std::uint8_t kMaxCurrentExceeded = 0x01;
inline constexpr std::uint8_t kPayoutTimeout = 0x02;  // the hopper ran dry (or a coin stuck)
inline constexpr std::uint8_t kMotorReversed = 0x04;
inline constexpr std::uint8_t kOptoBlockedInPayout = 0x20;
inline constexpr std::uint8_t kPowerUp = 0x40;
inline constexpr std::uint8_t kPayoutDisabled = 0x80;
// Faults that stop the hopper paying until it is reset.
inline constexpr std::uint8_t kNeedsReset =
    kMaxCurrentExceeded | kPayoutTimeout | kMotorReversed | kOptoBlockedInPayout | kPowerUp;
}  // namespace testFlag

struct Frame {
    std::uint8_t destination = 0;
    std::uint8_t source = 0;
    std::uint8_t header = 0;
    std::string data;

    std::uint8_t byte(std::size_t i) const {
        return i < data.size() ? static_cast<std::uint8_t>(data[i]) : std::uint8_t{0};
    }
    bool isAck() const { return header == header::kAck && data.empty(); }
    bool isNak() const { return header == header::kNak; }
};

// The checksum byte that makes the 8-bit sum of `bytes` plus itself zero.
std::uint8_t checksum(std::string_view bytes);

// The whole frame, checksum included. Data longer than 255 bytes cannot be framed and throws
// std::length_error.
std::string buildFrame(std::uint8_t destination, std::uint8_t header, std::string_view data = {},
                       std::uint8_t source = kHostAddress);

// Exactly one frame: the length must match its data count and the checksum must hold.
std::optional<Frame> parseFrame(std::string_view bytes);

// The first valid frame in `bytes` addressed to `destination` from `source`, skipping any noise
// before it. `end` is the offset just past it.
struct Found {
    Frame frame;
    std::size_t end = 0;
};
std::optional<Found> findFrame(std::string_view bytes, std::uint8_t destination,
                               std::uint8_t source);

// Readable "03 00 01 A3 59" form of raw bytes, for messages and tests.
std::string hex(std::string_view bytes);

}  // namespace kestrix::cctalk
