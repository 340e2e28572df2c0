// MDB replies as the adapter renders them ("dd mm " per word): the message a reply carries, every
// event of a POLL reply as the changer and the validator report them, every byte accessor the
// initialisation reads replies with, and the SETUP and TUBE STATUS fields read the way the
// equipment initialisation reads them. A line that babbles must never crash the engine or read
// outside the reply; a message that reads is one the adapter could have sent; every byte of it
// is read as exactly one event, and a coin or bill is always one of the 16 types.

#include <cctype>
#include <climits>
#include <cstdio>

#include "engine/errors.h"
#include "engine/formulas.h"
#include "engine/mdb/link.h"
#include "engine/mdb/poll_events.h"
#include "engine/money.h"
#include "fuzz_input.h"

using namespace kestrix;

namespace {

// A byte's text that is no hexadecimal number is an error (KsxError), for the reading routine's
// trap; one that reads is a byte.
template <typename Read>
void readOrError(const Read& read) {
    try {
        read();
    } catch (const KsxError&) {
    }
}

std::string hexOf(std::span<const std::uint8_t> bytes) {
    std::string text;
    char buf[4];
    for (std::uint8_t b : bytes) {
        std::snprintf(buf, sizeof buf, "%02x", b);
        text += buf;
    }
    return text;
}

// The message as the adapter renders it: each data word, then the check word with the mode bit.
std::string rendered(std::span<const std::uint8_t> data) {
    std::string text;
    unsigned sum = 0;
    char buf[8];
    for (std::uint8_t b : data) {
        std::snprintf(buf, sizeof buf, "%02x00 ", b);
        text += buf;
        sum += b;
    }
    std::snprintf(buf, sizeof buf, "%02x01 ", sum & 0xFFU);
    return text + buf;
}

void readEvents(std::span<const std::uint8_t> data, std::string_view input) {
    std::string raw;
    for (const mdb::ChangerEvent& e : mdb::changerEvents(data)) {
        raw += e.raw;
        if (e.kind != mdb::ChangerEvent::Kind::Status && e.kind != mdb::ChangerEvent::Kind::Slugs) {
            fuzz::check(e.coinType >= 1 && e.coinType <= 16, "a coin is one of 16 types", input);
        }
        fuzz::check(e.count >= 0 && e.count <= 31, "a count fits its bits", input);
    }
    fuzz::check(raw == hexOf(data), "every changer byte is read once, in order", input);
    raw.clear();
    for (const mdb::ValidatorEvent& e : mdb::validatorEvents(data)) {
        raw += e.raw;
        if (e.kind == mdb::ValidatorEvent::Kind::BillStacked ||
            e.kind == mdb::ValidatorEvent::Kind::BillRouted) {
            fuzz::check(e.billType >= 1 && e.billType <= 16, "a bill is one of 16 types", input);
        }
    }
    fuzz::check(raw == hexOf(data), "every validator byte is read once, in order", input);
}

bool isByteText(const std::string& hex) {
    return hex.size() == 2 && std::isxdigit(static_cast<unsigned char>(hex[0])) != 0 &&
           std::isxdigit(static_cast<unsigned char>(hex[1])) != 0;
}

// Every accessor at positions the routines read. A byte text that is no number is read (and
// its error taken) only at the first position: an exception per position would slow the fuzzer
// a hundredfold and find nothing more.
void readBytes(const mdb::Reply& r, std::string_view input) {
    bool errorSeen = false;
    for (int k :
         {INT_MIN, 0, 1, 2, 3, 4, 5, 6, 7, 8, 15, 16, 23, 24, 27, 28, 30, 31, 1 << 20, INT_MAX}) {
        const std::string hex = r.hex(k);
        fuzz::check(hex.size() <= 2, "a byte is at most two characters", input);
        if (!hex.empty() && !isByteText(hex)) {
            if (errorSeen) {
                continue;
            }
            errorSeen = true;
        }
        readOrError([&] {
            const double n = r.number(k);
            fuzz::check(n >= 0 && n <= 255, "a byte that reads is a byte", input);
            (void)r.decimal(k);
            fuzz::check(r.character(k).size() <= 1, "a byte is at most one character", input);
        });
    }
    (void)r.hexJoined(2, 3);
}

// The changer's SETUP as the initialisation reads it: credits over the scaling factor, the tube
// routing bytes in binary.
void readSetup(const mdb::Reply& r) {
    readOrError([&] {
        const double scaling = leadingNumber(r.decimal(4));
        for (int i = 1; i <= 16; ++i) {
            if (scaling != 0) {
                (void)Money::fromDouble(r.number(7 + i) / scaling);
            }
        }
    });
    for (int k : {6, 7}) {
        readOrError([&] { (void)ConvertDecToBaseN(r.number(k), 2); });
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

    if (const std::optional<std::vector<std::uint8_t>> message = r.message()) {
        fuzz::check(mdb::Reply(rendered(*message)).message() == message,
                    "a message that reads is one the adapter renders that way", input);
        readEvents(*message, input);
    }
    // The bytes themselves as a POLL reply's data: the event readers take any bytes.
    readEvents({data, size}, input);

    readBytes(r, input);
    const mdb::Reply fields = r.data();
    readBytes(fields, input);
    readSetup(fields);
    readOrError([&] { (void)r.data(true).characters(1, 30); });
    return 0;
}
