#pragma once

// Bytes as hex text and back, for frames written in tests as "10 05 10 02".

#include <string>
#include <string_view>
#include <vector>

namespace kestrix::test {

// "10 05 0a" or "10050A" -> raw bytes; blanks are skipped.
inline std::string fromHex(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i + 1 < text.size();) {
        if (text[i] == ' ') {
            ++i;
            continue;
        }
        out += static_cast<char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16));
        i += 2;
    }
    return out;
}

// MDB reply text for a peripheral's data bytes, as the adapter reports it: each "dd00 ", then the
// check byte "cc01 ".
inline std::string mdbReply(const std::vector<int>& data) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    int sum = 0;
    for (std::size_t i = 0; i <= data.size(); ++i) {
        const int b = i < data.size() ? data[i] : sum & 0xFF;
        sum += b;
        text += {kDigits[(b >> 4) & 0xF], kDigits[b & 0xF]};
        text += i < data.size() ? "00 " : "01 ";
    }
    return text;
}

}  // namespace kestrix::test
