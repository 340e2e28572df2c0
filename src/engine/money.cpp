#include "money.h"

#include <cctype>
#include <cmath>
#include <cstdio>

namespace kestrix {

std::optional<Money> Money::parse(std::string_view text) {
    std::size_t i = 0;
    const auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    while (i < text.size() && blank(text[i])) {
        ++i;
    }
    std::size_t end = text.size();
    while (end > i && blank(text[end - 1])) {
        --end;
    }
    bool negative = false;
    if (i < end && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    std::int64_t whole = 0;
    std::size_t digits = 0;
    const auto digit = [](char c) { return c >= '0' && c <= '9'; };
    while (i < end && digit(text[i])) {
        if (whole > kMaxMinor / kMinorPerUnit) {
            return std::nullopt;
        }
        whole = whole * 10 + (text[i] - '0');
        ++i;
        ++digits;
    }
    std::int64_t fraction = 0;  // in minor units
    bool roundUp = false;
    if (i < end && text[i] == '.') {
        ++i;
        std::int64_t scale = kMinorPerUnit / 10;
        std::size_t fractionDigits = 0;
        while (i < end && digit(text[i])) {
            const int d = text[i] - '0';
            if (scale > 0) {
                fraction += d * scale;
                scale /= 10;
            } else if (fractionDigits == 2) {
                roundUp = d >= 5;  // the first digit past the minor unit decides
            }
            ++fractionDigits;
            ++i;
            ++digits;
        }
    }
    if (digits == 0 || i != end) {
        return std::nullopt;
    }
    std::int64_t minor = whole * kMinorPerUnit + fraction + (roundUp ? 1 : 0);
    if (minor > kMaxMinor) {
        return std::nullopt;
    }
    return Money(negative ? -minor : minor);
}

std::optional<Money> Money::fromDouble(double value) {
    if (!std::isfinite(value)) {
        return std::nullopt;
    }
    const double minor = std::round(value * kMinorPerUnit);
    if (std::fabs(minor) > static_cast<double>(kMaxMinor)) {
        return std::nullopt;
    }
    return Money(static_cast<std::int64_t>(minor));
}

std::string Money::text() const {
    const bool negative = m_minor < 0;
    const std::int64_t a = negative ? -m_minor : m_minor;
    std::string s = std::to_string(a / kMinorPerUnit);
    std::int64_t rest = a % kMinorPerUnit;
    if (rest != 0) {
        char buf[8];
        std::snprintf(buf, sizeof buf, "%02lld", static_cast<long long>(rest));
        std::string frac(buf);
        while (!frac.empty() && frac.back() == '0') {
            frac.pop_back();
        }
        s += '.';
        s += frac;
    }
    return negative ? "-" + s : s;
}

std::string Money::currency() const {
    const bool negative = m_minor < 0;
    const std::int64_t a = negative ? -m_minor : m_minor;
    const std::string whole = std::to_string(a / kMinorPerUnit);
    std::string grouped;
    for (std::size_t i = 0; i < whole.size(); ++i) {
        if (i > 0 && (whole.size() - i) % 3 == 0) {
            grouped += ',';
        }
        grouped += whole[i];
    }
    char buf[8];
    std::snprintf(buf, sizeof buf, ".%02lld", static_cast<long long>(a % kMinorPerUnit));
    return std::string(negative ? "-$" : "$") + grouped + buf;
}

std::int64_t Money::wholeTimes(Money part) const {
    if (part.m_minor <= 0 || m_minor <= 0) {
        return 0;
    }
    return m_minor / part.m_minor;
}

}  // namespace kestrix
