#include "card_number.h"

namespace kestrix {

std::string maskCardNumber(std::string_view number) {
    std::string compact;
    for (const char c : number) {
        if (c != ' ' && c != '-') {
            compact += c;
        }
    }
    constexpr std::size_t kFullLength = 13;  // the shortest card numbers in use
    constexpr std::size_t kHead = 6;
    constexpr std::size_t kTail = 4;
    const std::size_t n = compact.size();
    for (std::size_t i = 0; i < n; ++i) {
        const bool head = n >= kFullLength && i < kHead;
        const bool tail = n > kTail && i >= n - kTail;
        if (!head && !tail) {
            compact[i] = '*';
        }
    }
    return compact;
}

}  // namespace kestrix
