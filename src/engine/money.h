#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrix {

// An amount of money as a whole count of minor units (hundredths of the currency unit), so that
// sums and comparisons are exact: 0.2 + 0.5 + 0.1 is 0.8, and a due of 0.8 is met by it. Money
// becomes text only where it leaves the engine (mailbox, console, journal).
class Money {
public:
    static constexpr std::int64_t kMinorPerUnit = 100;
    // The largest amount the engine handles at all; anything larger is not an amount.
    static constexpr std::int64_t kMaxMinor = 1'000'000'000'000'000LL;

    constexpr Money() = default;
    static constexpr Money fromMinor(std::int64_t minor) { return Money(minor); }
    static constexpr Money fromUnits(std::int64_t units) { return Money(units * kMinorPerUnit); }

    // A decimal amount text ("12.5", " 7 ", "0.30", "+3") read exactly, without going through
    // floating point; digits past the minor unit are rounded half away from zero. None for
    // anything else: empty, "abc", "5,50", "1e3", "NaN", "0x10", a trailing "x", or an amount
    // beyond kMaxMinor.
    static std::optional<Money> parse(std::string_view text);

    // The nearest whole count of minor units of a device value given as a double (a coin value
    // that the changer reports as credit / scaling factor). None when it is not finite or beyond
    // kMaxMinor; never undefined behaviour.
    static std::optional<Money> fromDouble(double value);

    constexpr std::int64_t minor() const { return m_minor; }
    constexpr bool isZero() const { return m_minor == 0; }
    constexpr bool positive() const { return m_minor > 0; }
    double toDouble() const { return static_cast<double>(m_minor) / kMinorPerUnit; }

    // Plain decimal text, as the mailbox has always shown amounts: no trailing zeros, "." as the
    // separator ("12.5", "7.5", "320", "0.3", "-1.5", "0").
    std::string text() const;
    // Console currency text: "$0.00", "$1,234.50", "-$5.00".
    std::string currency() const;

    // How many whole times `part` fits in this amount (0 for a part that is not positive).
    std::int64_t wholeTimes(Money part) const;

    constexpr Money operator+(Money o) const { return Money(m_minor + o.m_minor); }
    constexpr Money operator-(Money o) const { return Money(m_minor - o.m_minor); }
    constexpr Money operator*(std::int64_t n) const { return Money(m_minor * n); }
    constexpr Money& operator+=(Money o) {
        m_minor += o.m_minor;
        return *this;
    }
    constexpr Money& operator-=(Money o) {
        m_minor -= o.m_minor;
        return *this;
    }
    constexpr auto operator<=>(const Money&) const = default;

private:
    constexpr explicit Money(std::int64_t minor) : m_minor(minor) {}
    std::int64_t m_minor = 0;
};

constexpr Money min(Money a, Money b) {
    return a < b ? a : b;
}
constexpr Money max(Money a, Money b) {
    return a < b ? b : a;
}

}  // namespace kestrix
