#include "clock.h"

#include <ctime>

namespace kestrix {

std::string formatTime(const LocalDateTime& t, const char* pattern) {
    std::tm tm{};
    tm.tm_year = t.year - 1900;
    tm.tm_mon = t.month - 1;
    tm.tm_mday = t.day;
    tm.tm_hour = t.hour;
    tm.tm_min = t.minute;
    tm.tm_sec = t.second;
    char text[64];
    const std::size_t length = std::strftime(text, sizeof text, pattern, &tm);
    return std::string(text, length);
}

}  // namespace kestrix
