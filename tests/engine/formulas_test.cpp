#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>

#include "engine/errors.h"
#include "engine/formulas.h"
#include "sim/world/virtual_time.h"

namespace kestrix {
namespace {

// The number of the error `f` raises; 0 for none.
int errorNumber(const std::function<void()>& f) {
    try {
        f();
    } catch (const KsxError& e) {
        return e.number();
    }
    return 0;
}

TEST(ConvertBaseNToDec, ReadsDigitTextsInAnyBase) {
    struct Row {
        const char* digits;
        int base;
        const char* expected;
    };
    const Row rows[] = {
        {"ff", 16, "255"},    {"0A", 16, "10"}, {"0b", 16, "11"}, {"11111111", 2, "255"},
        {"00000000", 2, "0"}, {"Z", 36, "35"},  {"10", 36, "36"}, {"ff", 1, ""},
        {"ff", 37, ""},       {"ff", 0, ""},    {"7", 8, "7"},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(ConvertBaseNToDec(r.digits, r.base), r.expected)
            << r.digits << " base " << r.base;
    }
    // A character that is no digit of the base is an error, never a (negative) digit: garbage
    // on a device line once came out as negative tube counts. A hostile 1 MB digit text
    // overflows instead of producing a number.
    const std::pair<const char*, int> invalid[] = {{"9", 2},   {"-", 16},  {"1-", 16},   {" 1", 16},
                                                   {"g0", 16}, {"??", 16}, {"\xff", 16}, {"", 16}};
    for (const auto& [digits, base] : invalid) {
        EXPECT_EQ(errorNumber([&] { ConvertBaseNToDec(digits, base); }),
                  KsxError::kInvalidProcedureCall)
            << digits << " base " << base;
    }
    EXPECT_EQ(errorNumber([] { ConvertBaseNToDec(std::string(1 << 20, 'F'), 16); }),
              KsxError::kOverflow);
}

TEST(ConvertDecToBaseN, WritesDigitTexts) {
    struct Row {
        double value;
        int base;
        const char* expected;
    };
    const Row rows[] = {
        {255, 16, "FF"}, {0, 16, "0"},        {0, 2, "0"},        {12, 2, "1100"},
        {35, 36, "Z"},   {11, 16, "B"},       {1, 2, "1"},        {255, 40, ""},
        {255, 1, ""},    {65535, 16, "FFFF"}, {0x10B, 16, "10B"},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(ConvertDecToBaseN(r.value, r.base), r.expected) << r.value << " base " << r.base;
    }
    EXPECT_EQ(errorNumber([] { ConvertDecToBaseN(-5, 16); }), KsxError::kInvalidProcedureCall);
    for (double tooLarge : {1e12, std::nan(""), double(INFINITY)}) {
        EXPECT_EQ(errorNumber([&] { ConvertDecToBaseN(tooLarge, 16); }), KsxError::kOverflow);
    }
}

TEST(Pause, WaitsOnTheClockAndRestartsAtMidnight) {
    struct Row {
        const char* what;
        double start;    // seconds since midnight
        double elapsed;  // virtual time run before the pause
        double seconds;
        double sinceMidnight;  // after the pause
    };
    const Row rows[] = {
        {"plain", 10 * 3600.0, 0, 0.5, 10 * 3600.0 + 0.5},
        {"none", 10 * 3600.0, 0, 0, 10 * 3600.0},
        {"begun 0.2 s before midnight: the time left to midnight plus the whole "
         "duration",
         86400.0 - 0.2, 0, 0.5, 0.5},
        // Begun at 9:00, a hair before midnight the time left is less than the
        // clock can tell apart from none; the wait must still get there and end.
        {"15 h of virtual time", 9 * 3600.0, std::nextafter(15 * 3600.0, 0.0), 0.2, 0.2},
    };
    for (const Row& r : rows) {
        sim::VirtualClock clock(r.start);
        clock.advanceTo(r.elapsed);
        Pause(clock, r.seconds);
        EXPECT_NEAR(clock.secondsSinceMidnight(), r.sinceMidnight, 1e-6) << r.what;
    }
}

TEST(NumberText, WritesTheShortestPlainDecimal) {
    const std::pair<double, const char*> rows[] = {
        {0, "0"},
        {-0.0, "0"},
        {2.5, "2.5"},
        {10, "10"},
        {0.1 + 0.2, "0.3"},
        {-5, "-5"},
        {1234.5, "1234.5"},
        {1.0 / 3, "0.333333333333333"},
        {123456789012345.0, "123456789012345"},
        {1e15, "1E+15"},
    };
    for (const auto& [value, expected] : rows) {
        EXPECT_EQ(numberText(value), expected) << value;
    }
    EXPECT_EQ(singleText(142.5f), "142.5");
    EXPECT_EQ(singleText(0.1f + 0.2f), "0.3");
    EXPECT_EQ(singleText(0.0f), "0");
    EXPECT_EQ(singleText(1234567.8f), "1234568");
}

TEST(LeadingNumber, TakesTheLeadingNumberAndNeverInventsAnAmount) {
    const std::pair<const char*, double> rows[] = {
        {"12.5", 12.5}, {"  7", 7},    {"3abc", 3},  {"abc", 0}, {"", 0},     {"-5", -5},
        {"0", 0},       {"1e3", 1000}, {"1e309", 0}, {"NaN", 0}, {"inf", 0},  {".5", 0.5},
        {"5.", 5},      {"+4", 4},     {"1,000", 1}, {"1e", 1},  {"0x10", 0}, {"--5", 0},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(leadingNumber(text), expected) << text;
    }
    // A 1 MB number is no amount.
    EXPECT_EQ(leadingNumber(std::string(1 << 20, '9')), 0);
    EXPECT_EQ(leadingNumber(std::string(1 << 20, 'x')), 0);
}

TEST(StrictConversion, RefusesEmptyAndJunk) {
    EXPECT_EQ(strictNumber(" 12.5 "), 12.5);
    EXPECT_EQ(strictInt("1"), 1);
    EXPECT_EQ(strictInt("0"), 0);
    for (const char* junk : {"", "x", "1x", "1e309", "NaN", " "}) {
        EXPECT_THROW(strictNumber(junk), KsxError) << junk;
    }
    EXPECT_THROW(strictInt("40000"), KsxError);
}

}  // namespace
}  // namespace kestrix
