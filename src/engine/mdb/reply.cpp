#include "reply.h"

#include <cstdio>

#include "../errors.h"
#include "../formulas.h"
#include "frame.h"

namespace kestrix::mdb {

namespace {
constexpr std::string_view kEndMarker = "01 ";
constexpr std::size_t kCharsPerByte = 5;
}  // namespace

double hexValue(std::string_view hexText) {
    if (hexText.empty()) {
        return 0;
    }
    return leadingNumber(ConvertBaseNToDec(hexText, 16));
}

Reply::Reply(std::string text)
    : m_text(std::move(text)), m_complete(m_text.find(kEndMarker) != std::string::npos) {}

bool Reply::endsComplete() const {
    return m_text.ends_with(kEndMarker);
}

std::string Reply::hex(int k) const {
    if (k < 1) {
        return {};
    }
    const std::size_t start = (static_cast<std::size_t>(k) - 1) * kCharsPerByte;
    if (start >= m_text.size()) {
        return {};
    }
    return m_text.substr(start, 2);
}

std::string Reply::hexJoined(int first, int last) const {
    std::string joined;
    for (int k = first; k <= last; ++k) {
        joined += hex(k);
    }
    return joined;
}

std::string Reply::decimal(int k) const {
    const std::string h = hex(k);
    return h.empty() ? std::string() : ConvertBaseNToDec(h, 16);
}

std::string Reply::character(int k) const {
    const std::string h = hex(k);
    double code = -1;
    // Garbage (no hexadecimal byte) shows as nothing.
    if (h.empty() || !trapped([&] { code = hexValue(h); }) || code < 0 || code > 255) {
        return {};
    }
    return std::string(1, static_cast<char>(static_cast<unsigned char>(code)));
}

std::string Reply::characters(int first, int last) const {
    std::string text;
    for (int k = first; k <= last; ++k) {
        text += character(k);
    }
    return text;
}

std::optional<std::vector<std::uint8_t>> Reply::message() const {
    constexpr std::uint8_t kNak = 0xFF;
    std::vector<std::uint8_t> bytes;
    std::size_t at = 0;
    while (at + kCharsPerByte <= m_text.size()) {
        const int d1 = hexDigit(m_text[at]);
        const int d2 = hexDigit(m_text[at + 1]);
        const std::string_view mode(m_text.data() + at + 2, 2);
        if (d1 < 0 || d2 < 0 || m_text[at + 4] != ' ' || (mode != "00" && mode != "01")) {
            // Junk a noisy adapter put between words is passed over; a word it damaged leaves
            // the check byte wrong, and the message is refused below.
            ++at;
            continue;
        }
        bytes.push_back(static_cast<std::uint8_t>(d1 * 16 + d2));
        at += kCharsPerByte;
        if (mode == "01") {
            if (bytes.size() == 1) {
                // A lone word with the mode bit: ACK (00h) or NAK (FFh), no check byte.
                if (bytes[0] == 0x00) {
                    return std::vector<std::uint8_t>{};
                }
                if (bytes[0] == kNak) {
                    return std::nullopt;
                }
            }
            const std::uint8_t check = bytes.back();
            bytes.pop_back();
            if (checkByte(bytes) != check) {
                return std::nullopt;
            }
            return bytes;
        }
    }
    return std::nullopt;
}

Reply Reply::data(bool withCheckByte) const {
    std::optional<std::vector<std::uint8_t>> bytes = message();
    if (!bytes) {
        return *this;
    }
    if (withCheckByte) {
        bytes->push_back(checkByte(*bytes));
    }
    std::string text;
    char buf[8];
    for (const std::uint8_t b : *bytes) {
        std::snprintf(buf, sizeof buf, "%02x00 ", b);
        text += buf;
    }
    return Reply(std::move(text));
}

void Reply::append(std::string_view more) {
    // Only the new text (and the two characters before it) can hold a new end marker, so a long
    // reply is not searched again on every read.
    const std::size_t from = m_text.size() < 2 ? 0 : m_text.size() - 2;
    m_text.append(more);
    if (!m_complete) {
        m_complete = m_text.find(kEndMarker, from) != std::string::npos;
    }
    if (!m_complete && m_text.size() > kMaxPendingChars) {
        // Keep the last two characters: they may be the start of the end marker.
        m_text.erase(0, m_text.size() - 2);
    }
}

bool notNak(const Reply& reply) {
    return !reply.startsWith("ff");
}

bool readable(const Reply& reply) {
    return reply.message().has_value();
}

}  // namespace kestrix::mdb
