// The number readers and writers of the mailbox and the console: the lenient reader every
// mailbox amount goes through, the strict readers of the settings, the base conversions of the
// MDB bytes, and the number and currency texts. Whatever the text, a reader gives a finite number
// or its error, a whole number written in a base reads back as itself, and the currency text is
// always "$" or "-$", digits and two decimals.

#include <cmath>
#include <optional>

#include "engine/errors.h"
#include "engine/formulas.h"
#include "engine/money.h"
#include "fuzz_input.h"

using namespace kestrix;

namespace {

bool isCurrencyText(const std::string& text) {
    std::string_view s = text;
    if (s.starts_with("-")) {
        s.remove_prefix(1);
    }
    if (!s.starts_with("$") || s.size() < 5 || s[s.size() - 3] != '.') {
        return false;
    }
    for (std::size_t i = 1; i < s.size(); ++i) {
        if (i != s.size() - 3 && !std::isdigit(static_cast<unsigned char>(s[i])) && s[i] != ',') {
            return false;
        }
    }
    return true;
}

void writeOut(double value, std::string_view input) {
    (void)numberText(value);
    if (std::fabs(value) < 3.0e38) {
        (void)singleText(static_cast<float>(value));
    }
    if (const std::optional<Money> money = Money::fromDouble(value)) {
        fuzz::check(isCurrencyText(money->currency()), "currency text is $, digits, two decimals",
                    input);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string_view input = fuzz::bytes(data, size);
    const int base = data[0] % 40;  // bases outside 2..36 included
    const std::string_view text = input.substr(1);

    const double lenient = leadingNumber(text);
    fuzz::check(std::isfinite(lenient), "the lenient reader gives a finite number", input);
    writeOut(lenient, input);
    try {
        const double strict = strictNumber(text);
        fuzz::check(std::isfinite(strict), "the strict reader gives a finite number", input);
        fuzz::check(strict == lenient, "a strict number reads the same leniently", input);
        writeOut(strict, input);
    } catch (const KsxError&) {
    }
    try {
        const int whole = strictInt(text);
        fuzz::check(whole >= -32768 && whole <= 32767, "a strict integer is 16-bit", input);
    } catch (const KsxError&) {
    }

    try {
        (void)ConvertBaseNToDec(text, base);
    } catch (const KsxError&) {
    }
    try {
        const std::string digits = ConvertDecToBaseN(lenient, base);
        const double whole = std::nearbyint(lenient);
        if (!digits.empty() && whole == std::floor(lenient) && whole >= 0) {
            fuzz::check(ConvertBaseNToDec(digits, base) == numberText(whole),
                        "a whole number written in a base reads back", input);
        }
    } catch (const KsxError&) {
    }
    return 0;
}
