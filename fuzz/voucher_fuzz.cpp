// The card vouchers: the payment library's voucher text with its printer markers, and the
// library's texts on the declined and error vouchers. Whatever the library hands over, the
// voucher prints without crashing, removing markers never adds text, and no card number (13
// digits in a row) is printed or shown unmasked.

#include "engine/card/card_number.h"
#include "engine/card/voucher.h"
#include "fuzz_input.h"
#include "sim/world/fakes.h"

using namespace kestrix;

namespace {

bool holdsThirteenDigitsInARow(std::string_view text) {
    std::size_t run = 0;
    for (char c : text) {
        run = c >= '0' && c <= '9' ? run + 1 : 0;
        if (run >= card::kShortestCardNumberDigits) {
            return true;
        }
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input = fuzz::bytes(data, size);
    const std::string plain = voucher::withoutMarkers(std::string(input));
    fuzz::check(plain.size() <= input.size(), "removing markers never adds text", input);

    const std::string masked = card::withCardNumbersMasked(input);
    fuzz::check(masked.size() == input.size(), "masking keeps the length", input);
    fuzz::check(!holdsThirteenDigitsInARow(masked), "a masked text holds no card number", input);
    fuzz::check(card::withCardNumbersMasked(masked) == masked, "masking twice changes nothing",
                input);
    const std::string field = card::maskedCardNumber(input);
    fuzz::check(!holdsThirteenDigitsInARow(field), "a masked card number field is masked", input);

    sim::RecordingPrinter printer;
    voucher::printApproved(printer, input);
    const std::vector<std::string> parts = fuzz::split(input, '\n', 4);
    voucher::DeclinedDetails details;
    details.operationNumber = parts[0];
    if (parts.size() > 1)
        details.reference = parts[1];
    if (parts.size() > 2)
        details.responseCode = parts[2];
    if (parts.size() > 3)
        details.cause = parts[3];
    voucher::printDeclined(printer, details);
    voucher::printCommunicationError(printer, details.operationNumber, details.reference);
    voucher::printPinPadError(printer, details.responseCode, details.cause);
    for (const auto& document : printer.documents()) {
        for (const auto& line : document) {
            fuzz::check(!holdsThirteenDigitsInARow(line.text), "a voucher shows no card number",
                        input);
        }
    }
    return 0;
}
