// MDB replies as the adapter renders them ("dd mm " per word): every byte accessor the
// initialisation and the payment read replies with, the coin and bill bytes of a POLL, and the
// SETUP and TUBE STATUS fields read the way the equipment initialisation reads them. A line
// that babbles must never crash the engine or read outside the reply, and a deposited coin or a
// stacked bill is always one of the 16 types.

#include <climits>

#include "engine/errors.h"
#include "engine/formulas.h"
#include "engine/mdb/cash_payment_bytes.h"
#include "engine/mdb/link.h"
#include "fuzz_input.h"

using namespace kestrix;

namespace {

// Two characters of the digit alphabet read at most 35 * 16 + 35; a character outside it
// counts -1.
constexpr double kLowestByteReading = -17;
constexpr double kHighestByteReading = 595;

void readSetupAndTubes(const mdb::Reply& r, std::string_view input) {
    const double scaling = leadingNumber(r.decimal(4));
    for (int i = 1; i <= 16; ++i) {
        const double credit = r.number(7 + i);
        fuzz::check(credit >= kLowestByteReading && credit <= kHighestByteReading,
                    "a credit byte reads within a byte's text range", input);
        if (scaling != 0) {
            (void)numberText(credit / scaling);
        }
    }
    for (int k : {6, 7}) {
        try {
            (void)ConvertDecToBaseN(r.number(k), 2);
        } catch (const KsxError&) {
            // A garbled routing byte reads negative: the initialisation's trap takes it.
        }
    }
    for (int k = 3; k <= 18; ++k) {
        (void)static_cast<int>(r.number(k));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input = fuzz::bytes(data, size);
    const mdb::Reply r{std::string(input)};
    (void)r.complete();
    (void)r.endsComplete();
    (void)r.isBareAck();
    (void)mdb::notNak(r);

    for (int k : {INT_MIN, -1, 0,  1,  2,  3,  4,  5,  6,  7,  8,       9,      10,
                  15,      16, 23, 24, 27, 28, 29, 30, 31, 40, 1 << 20, INT_MAX}) {
        const std::string hex = r.hex(k);
        fuzz::check(hex.size() <= 2, "a byte is at most two characters", input);
        const double n = r.number(k);
        fuzz::check(n >= kLowestByteReading && n <= kHighestByteReading,
                    "a byte reads within a byte's text range", input);
        (void)r.decimal(k);
        fuzz::check(r.character(k).size() <= 1, "a byte is at most one character", input);
    }
    (void)r.characters(1, 3);
    (void)r.characters(4, 15);
    (void)r.characters(16, 27);
    (void)r.hexJoined(2, 3);

    if (const std::optional<int> coin = mdb::payment::depositedCoinType(r)) {
        fuzz::check(*coin >= 1 && *coin <= 16, "a deposited coin is one of 16 types", input);
    }
    if (const std::optional<int> bill = mdb::payment::stackedBillType(r)) {
        fuzz::check(*bill >= 1 && *bill <= 16, "a stacked bill is one of 16 types", input);
    }
    readSetupAndTubes(r, input);
    return 0;
}
