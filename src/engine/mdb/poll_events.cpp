#include "poll_events.h"

#include <cstdio>

namespace kestrix::mdb {

namespace {

std::string hexText(std::span<const std::uint8_t> bytes) {
    std::string text;
    char buf[4];
    for (const std::uint8_t b : bytes) {
        std::snprintf(buf, sizeof buf, "%02x", b);
        text += buf;
    }
    return text;
}

}  // namespace

std::vector<ChangerEvent> changerEvents(std::span<const std::uint8_t> data) {
    std::vector<ChangerEvent> events;
    std::size_t i = 0;
    while (i < data.size()) {
        const std::uint8_t b = data[i];
        ChangerEvent e;
        e.byte = b;
        std::size_t length = 1;
        if ((b & 0x80) != 0) {
            // Coins paid out by hand: the count in bits 4-6, the type in bits 0-3, then the
            // number of coins left in that tube.
            e.kind = ChangerEvent::Kind::ManualPayout;
            e.count = (b >> 4) & 0x07;
            e.coinType = (b & 0x0F) + 1;
            length = 2;
        } else if ((b & 0xC0) == 0x40) {
            const int routing = (b >> 4) & 0x03;
            e.kind =
                routing <= 1 ? ChangerEvent::Kind::CoinDeposited : ChangerEvent::Kind::CoinReturned;
            e.coinType = (b & 0x0F) + 1;
            length = 2;
        } else if ((b & 0xE0) == 0x20) {
            e.kind = ChangerEvent::Kind::Slugs;
            e.count = b & 0x1F;
        }
        // A two-byte event cut short by the end of the reply is still that event: the coin was
        // deposited even if the tube count after it is missing.
        const std::size_t end = std::min(data.size(), i + length);
        e.raw = hexText(data.subspan(i, end - i));
        events.push_back(std::move(e));
        i = end;
    }
    return events;
}

std::vector<ValidatorEvent> validatorEvents(std::span<const std::uint8_t> data) {
    std::vector<ValidatorEvent> events;
    for (std::size_t i = 0; i < data.size(); ++i) {
        const std::uint8_t b = data[i];
        ValidatorEvent e;
        e.byte = b;
        if ((b & 0x80) != 0) {
            e.kind = (b & 0x70) == 0 ? ValidatorEvent::Kind::BillStacked
                                     : ValidatorEvent::Kind::BillRouted;
            e.billType = (b & 0x0F) + 1;
        } else if ((b & 0xE0) == 0x40) {
            e.kind = ValidatorEvent::Kind::DisabledAttempts;
            e.count = b & 0x1F;
        }
        e.raw = hexText(data.subspan(i, 1));
        events.push_back(std::move(e));
    }
    return events;
}

bool active(const std::vector<ChangerEvent>& events) {
    for (const ChangerEvent& e : events) {
        if (e.kind != ChangerEvent::Kind::Status || e.byte == kChangerPayoutBusy ||
            e.byte == kChangerBusy) {
            return true;
        }
    }
    return false;
}

bool active(const std::vector<ValidatorEvent>& events) {
    for (const ValidatorEvent& e : events) {
        if (e.kind == ValidatorEvent::Kind::BillStacked ||
            e.kind == ValidatorEvent::Kind::BillRouted || e.byte == kValidatorBusy) {
            return true;
        }
    }
    return false;
}

}  // namespace kestrix::mdb
