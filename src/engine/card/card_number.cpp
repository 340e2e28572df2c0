#include "card_number.h"

namespace kestrix::card {

namespace {

constexpr std::size_t kShownFirst = 6;
constexpr std::size_t kShownLast = 4;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isGroupSeparator(char c) {
    return c == ' ' || c == '-';
}

bool isPosition(char c, bool maskedCounts) {
    return isDigit(c) || (maskedCounts && c == kMaskDigit);
}

// Masks the digits of `part` in place. Its card number has `positions` positions: digits, and
// when `maskedCounts`, the masked ones too (a library's "411111******1111" keeps its issuer).
void mask(std::string& part, std::size_t positions, bool maskedCounts) {
    const std::size_t shownFirst = positions >= kShortestCardNumberDigits ? kShownFirst : 0;
    std::size_t seen = 0;
    for (char& c : part) {
        if (!isPosition(c, maskedCounts)) {
            continue;
        }
        if (seen >= shownFirst && seen + kShownLast < positions) {
            c = kMaskDigit;
        }
        ++seen;
    }
}

}  // namespace

std::string maskedCardNumber(std::string_view number) {
    std::string masked(number);
    std::size_t positions = 0;
    for (char c : number) {
        positions += isPosition(c, true) ? 1U : 0U;
    }
    mask(masked, positions, true);
    return masked;
}

std::string withCardNumbersMasked(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        if (!isDigit(text[i])) {
            out += text[i++];
            continue;
        }
        // A run: digits, with single separators between two digits.
        std::size_t end = i;
        std::size_t digits = 0;
        while (end < text.size()) {
            if (isDigit(text[end])) {
                ++digits;
                ++end;
            } else if (isGroupSeparator(text[end]) && end + 1 < text.size() &&
                       isDigit(text[end + 1])) {
                ++end;
            } else {
                break;
            }
        }
        std::string run(text.substr(i, end - i));
        if (digits >= kShortestCardNumberDigits) {
            mask(run, digits, false);
        }
        out += run;
        i = end;
    }
    return out;
}

}  // namespace kestrix::card
