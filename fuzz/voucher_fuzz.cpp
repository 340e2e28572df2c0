// The card vouchers: the payment library's voucher text with its printer markers, and the
// library's texts on the declined and error vouchers. Whatever the library hands over, the
// voucher prints without crashing and removing markers never adds text.

#include "engine/card/voucher.h"
#include "fuzz_input.h"
#include "sim/world/fakes.h"

using namespace kestrix;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input = fuzz::bytes(data, size);
    const std::string plain = voucher::withoutMarkers(std::string(input));
    fuzz::check(plain.size() <= input.size(), "removing markers never adds text", input);

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
    return 0;
}
