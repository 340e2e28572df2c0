#pragma once

// Splits a fuzz input into parts, so that one input can drive several values (a base and a
// digit text, a mailbox value per key). The same bytes always split the same way.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kestrix::fuzz {

inline std::string_view bytes(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// The input cut at every `separator` byte, at most `maxParts` parts (the last one takes the
// rest, separators included).
inline std::vector<std::string> split(std::string_view input, char separator,
                                      std::size_t maxParts) {
    std::vector<std::string> parts;
    while (parts.size() + 1 < maxParts) {
        const std::size_t at = input.find(separator);
        if (at == std::string_view::npos) {
            break;
        }
        parts.emplace_back(input.substr(0, at));
        input.remove_prefix(at + 1);
    }
    parts.emplace_back(input);
    return parts;
}

// Stops the fuzzer with a message when a property that must hold does not.
[[noreturn]] void violated(const char* what, std::string_view input);

inline void check(bool holds, const char* what, std::string_view input) {
    if (!holds) {
        violated(what, input);
    }
}

}  // namespace kestrix::fuzz
