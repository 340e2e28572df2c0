#include <charconv>
#include <stdexcept>
#include <string>

#include "serial_port.h"

namespace kestrix {

namespace {

int toInt(std::string_view s) {
    int value = 0;
    const auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
    if (ec != std::errc() || ptr != s.data() + s.size()) {
        throw std::invalid_argument("bad number in line settings: " + std::string(s));
    }
    return value;
}

}  // namespace

LineSettings LineSettings::parse(std::string_view text) {
    std::string_view parts[4];
    std::size_t count = 0;
    while (count < 4) {
        const std::size_t comma = text.find(',');
        parts[count++] = text.substr(0, comma);
        if (comma == std::string_view::npos) {
            break;
        }
        text.remove_prefix(comma + 1);
    }
    if (count != 4 || parts[1].size() != 1) {
        throw std::invalid_argument("line settings must read like 9600,N,8,1");
    }
    LineSettings s;
    s.baud = toInt(parts[0]);
    s.parity = static_cast<char>(std::toupper(static_cast<unsigned char>(parts[1][0])));
    s.dataBits = toInt(parts[2]);
    s.stopBits = toInt(parts[3]);
    if (std::string_view("NEOMS").find(s.parity) == std::string_view::npos || s.baud <= 0 ||
        s.dataBits < 5 || s.dataBits > 8 || s.stopBits < 1 || s.stopBits > 2) {
        throw std::invalid_argument("unsupported line settings");
    }
    return s;
}

}  // namespace kestrix
