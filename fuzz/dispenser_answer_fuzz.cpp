// The bill dispenser's answers: raw bytes from the line rendered as the dispenser routines see
// them and read as a set-up and a status answer, and read as a dispense answer. An answer is
// whatever the line brought (noise, a cut-off frame, a frame from another device); none may crash
// the engine, and one dispense answer never counts more than the one bill it asked for.

#include "engine/dispenser/bill_dispenser.h"
#include "engine/errors.h"
#include "fuzz_input.h"

using namespace kestrix;

namespace {

void readAnswer(std::string_view reply, bool rendered, std::string_view input) {
    for (bd::Answer answer : {bd::Answer::Setup, bd::Answer::Status}) {
        const bd::Decoded d = bd::decode(reply, answer);
        fuzz::check(d.version.size() <= 4, "the version is one four-character field", input);
        fuzz::check(!rendered || (d.thickness >= 0 && d.thickness <= 255),
                    "the thickness of a rendered answer is one byte", input);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input = fuzz::bytes(data, size);
    const std::string rendered = bd::renderReply(input);
    fuzz::check(rendered.size() >= input.size() && rendered.size() <= 2 * input.size(),
                "each byte renders as one or two characters", input);
    readAnswer(rendered, true, input);
    // The input as already-rendered text too: a field that is no hexadecimal number is an
    // error there (the routines read only renderings, where every field is one).
    try {
        readAnswer(input, false, input);
    } catch (const KsxError&) {
    }

    const bd::DispenseAnswer answer = bd::decodeDispenseAnswer(input);
    fuzz::check(answer.count == 0 || answer.count == 1, "one dispense answer is at most one bill",
                input);
    fuzz::check(answer.count == 0 || answer.complete,
                "a bill is counted only from a complete answer", input);
    for (std::size_t position : {std::size_t{0}, std::size_t{1}, input.size(), input.size() + 1}) {
        fuzz::check(bd::field(input, position, 8).size() <= 8, "a field is at most its length",
                    input);
    }
    return 0;
}
