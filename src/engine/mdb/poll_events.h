#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

// What the coin changer and the bill validator report in a POLL reply. A reply may carry several
// events ("changer was reset" followed by a coin, a coin followed by "payout busy"): every one
// of them is read, so none is acknowledged unseen.
namespace kestrix::mdb {

struct ChangerEvent {
    enum class Kind {
        CoinDeposited,  // 01yyxxxx zz: routing yy 00 cash box or 01 tube: money taken in
        CoinReturned,   // 01yyxxxx zz with routing 10 or 11: the coin went back to the customer
        ManualPayout,   // 1yyyxxxx zz: yyy coins of type xxxx paid out by hand at the changer
        Slugs,          // 001xxxxx: xxxxx slugs since the last report
        Status,         // a single status byte (01..0D and the unknown ones)
    };
    Kind kind = Kind::Status;
    int coinType = 0;  // console coin type (1..16) for coin events
    int count = 0;     // coins paid by hand, or slugs
    std::uint8_t byte = 0;
    std::string raw;  // the event's bytes, as lower-case hex text
};

// Changer status bytes that mean "still working, more may come".
inline constexpr std::uint8_t kChangerPayoutBusy = 0x02;
inline constexpr std::uint8_t kChangerBusy = 0x0A;
inline constexpr std::uint8_t kChangerWasReset = 0x0B;

struct ValidatorEvent {
    enum class Kind {
        BillStacked,       // 1000xxxx: the bill is in the cash box: money taken in
        BillRouted,        // 1yyyxxxx, yyy != 000: escrowed, returned, recycled, rejected
        DisabledAttempts,  // 010xxxxx: bills offered while acceptance was off
        Status,            // a single status byte
    };
    Kind kind = Kind::Status;
    int billType = 0;  // console bill type (1..16) for routing events
    int count = 0;     // attempts
    std::uint8_t byte = 0;
    std::string raw;
};

inline constexpr std::uint8_t kValidatorBusy = 0x03;
inline constexpr std::uint8_t kValidatorWasReset = 0x06;
inline constexpr std::uint8_t kValidatorDisabled = 0x09;

// The events of a POLL reply's data bytes (without the check byte), in order.
std::vector<ChangerEvent> changerEvents(std::span<const std::uint8_t> data);
std::vector<ValidatorEvent> validatorEvents(std::span<const std::uint8_t> data);

// Whether the events show activity: money moving, or the device still busy (a payout under
// way, a coin or bill in transport). Acceptance has not settled while a device is active.
bool active(const std::vector<ChangerEvent>& events);
bool active(const std::vector<ValidatorEvent>& events);

}  // namespace kestrix::mdb
