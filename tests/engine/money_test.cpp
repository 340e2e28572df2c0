#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>

#include "engine/money.h"

namespace kestrix {
namespace {

TEST(Money, ReadsDecimalTextExactlyAndRefusesEverythingElse) {
    struct Row {
        const char* text;
        std::optional<long long> minor;
    };
    const Row rows[] = {
        {"12.5", 1250},   {" 7 ", 700},   {"0.30", 30},
        {"+3", 300},      {"-1.5", -150}, {".5", 50},
        {"5.", 500},      {"0.005", 1},   {"0.004", 0},
        {"12.505", 1251}, {"", {}},       {"abc", {}},
        {"5,50", {}},     {"1e3", {}},    {"NaN", {}},
        {"0x10", {}},     {"12x", {}},    {"4e-320", {}},
        {".", {}},        {"1 2", {}},    {"99999999999999999999", {}},
    };
    for (const Row& r : rows) {
        const std::optional<Money> m = Money::parse(r.text);
        ASSERT_EQ(m.has_value(), r.minor.has_value()) << r.text;
        if (m) {
            EXPECT_EQ(m->minor(), *r.minor) << r.text;
        }
    }
}

TEST(Money, SumsAreExactAndTextsAreTheMailboxForms) {
    const Money sum = *Money::parse("0.2") + *Money::parse("0.5") + *Money::parse("0.1");
    EXPECT_EQ(sum, *Money::parse("0.8"));
    EXPECT_EQ((*Money::parse("0.1") * 3).text(), "0.3");
    EXPECT_EQ(Money::fromMinor(750).text(), "7.5");
    EXPECT_EQ(Money::fromUnits(320).text(), "320");
    EXPECT_EQ(Money().text(), "0");
    EXPECT_EQ(Money::fromMinor(-150).text(), "-1.5");
    EXPECT_EQ(Money::fromMinor(123450).currency(), "$1,234.50");
    EXPECT_EQ(Money().currency(), "$0.00");
    EXPECT_EQ(Money::fromMinor(-500).currency(), "-$5.00");
    EXPECT_EQ(Money::fromUnits(20).wholeTimes(Money::fromUnits(5)), 4);
    EXPECT_EQ(Money::fromMinor(30).wholeTimes(Money::fromMinor(10)), 3);
}

TEST(Money, DeviceValuesRoundToTheMinorUnitAndNonsenseIsRefused) {
    EXPECT_EQ(Money::fromDouble(0.1 + 0.2)->minor(), 30);
    EXPECT_EQ(Money::fromDouble(2.0 / 3.0)->minor(), 67);
    EXPECT_FALSE(Money::fromDouble(std::numeric_limits<double>::infinity()));
    EXPECT_FALSE(Money::fromDouble(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_FALSE(Money::fromDouble(1e307));
}

}  // namespace
}  // namespace kestrix
