// Money amounts read from text exactly (the host's amounts, the settings' coin values): an amount
// that reads is within the engine's range, writes back as text that reads as the same amount,
// and is the decimal number the text states, to the nearest minor unit.

#include <cmath>

#include "engine/errors.h"
#include "engine/formulas.h"
#include "engine/money.h"
#include "fuzz_input.h"

using namespace kestrix;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input = fuzz::bytes(data, size);
    const std::optional<Money> m = Money::parse(input);
    if (m) {
        fuzz::check(m->minor() <= Money::kMaxMinor && m->minor() >= -Money::kMaxMinor,
                    "an amount is within range", input);
        fuzz::check(Money::parse(m->text()) == m, "an amount's text reads back", input);
        (void)m->currency();
        try {
            const double stated = strictNumber(input) * Money::kMinorPerUnit;
            fuzz::check(std::fabs(stated - static_cast<double>(m->minor())) <= 1.0,
                        "an amount is the number its text states", input);
        } catch (const KsxError&) {
            // Texts the strict reader refuses for their length alone.
        }
    }
    const double lenient = leadingNumber(input);
    if (const std::optional<Money> d = Money::fromDouble(lenient)) {
        fuzz::check(std::fabs(static_cast<double>(d->minor()) - lenient * 100) <=
                        0.5 + 1e-6 * std::fabs(lenient * 100),
                    "a device value becomes its nearest minor unit", input);
        (void)d->currency();
        (void)d->text();
    }
    return 0;
}
