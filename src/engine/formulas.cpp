#include "formulas.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

#include "errors.h"
#include "platform/clock.h"

namespace kestrix {

namespace {

constexpr double kSecondsPerDay = 86400.0;

KsxError reraise(const KsxError& e, const char* source) {
    return KsxError(e.number(), e.what(), source);
}

// Rounds to the nearest whole number, halves to even, as the classic whole-number conversions
// do; raises an overflow past the 32-bit range.
long long roundToLong(double value) {
    if (!std::isfinite(value) || std::fabs(value) > 2147483647.0) {
        throw KsxError(KsxError::kOverflow, "Overflow");
    }
    return static_cast<long long>(std::nearbyint(value));
}

}  // namespace

std::string ConvertBaseNToDec(std::string_view digits, int base) {
    try {
        std::string text(digits);
        for (char& c : text) {
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        }
        if (base < 2 || base > 36) {
            return {};
        }
        if (text.empty()) {
            // The loop body runs once before its end test, so an empty text reads a character
            // position that does not exist.
            throw KsxError(KsxError::kInvalidProcedureCall, "Invalid procedure call or argument");
        }
        double value = 0;
        double power = 1;
        for (std::size_t i = 0; i < text.size(); ++i) {
            const char c = text[text.size() - 1 - i];
            const std::size_t found = kDigitAlphabet.find(c);
            // A character that is no digit of the base is an error, never a digit: read as -1
            // (its position in a text search, minus one) it once turned garbage on a device line
            // into negative tube counts and a wrong refund.
            if (found == std::string_view::npos || found >= static_cast<std::size_t>(base)) {
                throw KsxError(KsxError::kInvalidProcedureCall,
                               "Invalid procedure call or argument");
            }
            const double digit = static_cast<double>(found);
            value += digit * power;
            power *= base;
            if (!std::isfinite(value) || !std::isfinite(power)) {
                throw KsxError(KsxError::kOverflow, "Overflow");
            }
        }
        return numberText(value);
    } catch (const KsxError& e) {
        throw reraise(e, "ConvertBaseNToDec");
    }
}

std::string ConvertDecToBaseN(double value, int base) {
    try {
        if (base < 2 || base > 36) {
            return {};
        }
        std::string text;
        double rest = value;
        do {
            const long long digit = roundToLong(rest) % base;
            if (digit < 0) {
                throw KsxError(KsxError::kInvalidProcedureCall,
                               "Invalid procedure call or argument");
            }
            text.insert(text.begin(), kDigitAlphabet[static_cast<std::size_t>(digit)]);
            rest = wholePart(rest / base);
        } while (rest > 0);
        return text;
    } catch (const KsxError& e) {
        throw reraise(e, "ConvertDecToBaseN");
    }
}

void Pause(Clock& clock, double seconds) {
    double start = clock.secondsSinceMidnight();
    for (;;) {
        const double now = clock.secondsSinceMidnight();
        if (start > now) {
            // Midnight passed: the wait starts again from midnight.
            start = now;
        }
        const double left = start + seconds - now;
        if (left <= 0) {
            return;
        }
        // Never sleep past midnight: the wait must see midnight to restart from it. A wait of
        // at least a microsecond, though: a time of day a hair before midnight would otherwise
        // ask for sleeps too short to move the clock at all.
        constexpr double kShortestSleepSeconds = 1e-6;
        clock.sleep(std::max(kShortestSleepSeconds, std::min(left, kSecondsPerDay - now)));
    }
}

std::string numberText(double value) {
    if (std::isnan(value)) {
        return "NaN";
    }
    if (std::isinf(value)) {
        return value > 0 ? "Infinity" : "-Infinity";
    }
    if (value == 0) {
        return "0";  // also for -0
    }
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.15g", value);
    std::string text(buf);
    // "1e+15" -> "1E+15", as the classic conversion writes exponents.
    for (char& c : text) {
        if (c == 'e') {
            c = 'E';
        }
    }
    return text;
}

std::string singleText(float value) {
    if (!std::isfinite(value)) {
        return numberText(static_cast<double>(value));
    }
    if (value == 0) {
        return "0";
    }
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.7g", static_cast<double>(value));
    std::string text(buf);
    for (char& c : text) {
        if (c == 'e') {
            c = 'E';
        }
    }
    return text;
}

namespace {

// Length of the longest decimal number at the start of `s` (sign, digits, point, exponent).
std::size_t numberPrefix(std::string_view s) {
    std::size_t i = 0;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) {
        ++i;
    }
    std::size_t digits = 0;
    while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) {
        ++i;
        ++digits;
    }
    if (i < s.size() && s[i] == '.') {
        ++i;
        while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) {
            ++i;
            ++digits;
        }
    }
    if (digits == 0) {
        return 0;
    }
    if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
        std::size_t j = i + 1;
        if (j < s.size() && (s[j] == '+' || s[j] == '-')) {
            ++j;
        }
        if (j < s.size() && std::isdigit(static_cast<unsigned char>(s[j]))) {
            while (j < s.size() && std::isdigit(static_cast<unsigned char>(s[j]))) {
                ++j;
            }
            i = j;
        }
    }
    return i;
}

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) {
        s.remove_prefix(1);
    }
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) {
        s.remove_suffix(1);
    }
    return s;
}

bool parseDouble(std::string_view s, double& out) {
    // A leading '+' is not taken by from_chars.
    if (!s.empty() && s.front() == '+') {
        s.remove_prefix(1);
    }
    // Unreasonably long digit strings are refused rather than parsed: no amount has them.
    if (s.size() > 400) {
        return false;
    }
    const auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
    return ec == std::errc() && ptr == s.data() + s.size() && std::isfinite(out);
}

}  // namespace

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

double leadingNumber(std::string_view text) {
    std::string_view s = text;
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) {
        s.remove_prefix(1);
    }
    const std::size_t n = numberPrefix(s);
    if (n == 0) {
        return 0;
    }
    double value = 0;
    if (!parseDouble(s.substr(0, n), value)) {
        return 0;
    }
    return value == 0 ? 0 : value;  // no -0
}

double strictNumber(std::string_view text) {
    const std::string_view s = trimmed(text);
    double value = 0;
    if (s.empty() || numberPrefix(s) != s.size() || !parseDouble(s, value)) {
        throw KsxError(KsxError::kTypeMismatch, "Type mismatch");
    }
    return value;
}

int strictInt(std::string_view text) {
    const double value = strictNumber(text);
    const double rounded = std::nearbyint(value);
    if (rounded < std::numeric_limits<short>::min() ||
        rounded > std::numeric_limits<short>::max()) {
        throw KsxError(KsxError::kOverflow, "Overflow");
    }
    return static_cast<int>(rounded);
}

std::optional<Money> requestedAmount(std::string_view text, Money maximum) {
    if (text.find(',') != std::string_view::npos) {
        return std::nullopt;
    }
    const std::optional<Money> amount = Money::fromDouble(leadingNumber(text));
    if (!amount || !amount->positive() || *amount > maximum) {
        return std::nullopt;
    }
    return amount;
}

double wholePart(double value) {
    return std::floor(value);
}

}  // namespace kestrix
