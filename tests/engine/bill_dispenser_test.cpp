#include <gtest/gtest.h>

#include <string>

#include "engine/dispenser/bill_dispenser.h"

namespace kestrix {
namespace {

TEST(BillDispenserReply, RendersEachByteThroughTheTwoDigitPattern) {
    // 0A to 0F are letters, not numerals: one character each.
    EXPECT_EQ(bd::renderReply(std::string("\x00\x05\x09\x10\x0A\x0F\x1C\xB1\xFF", 9)),
              "00050910AF1CB1FF");
    EXPECT_EQ(bd::field("ABCDEF", 5, 4), "EF");
    EXPECT_EQ(bd::field("ABCDEF", 7, 2), "");
    EXPECT_EQ(bd::field("ABCDEF", 0, 2), "");
}

TEST(BillDispenserReply, SetUpAnswersAreReadAtTheirPositions) {
    // Code at 21, zero blocks from 27 and 39, thickness straddling 82 (the other fields, and the
    // status answer's shorter zero block, the kiosk's own answers show).
    std::string t(90, '0');
    t.replace(20, 6, "E00234").replace(81, 2, "1B");
    const bd::Decoded d = bd::decode(t, bd::Answer::Setup);
    EXPECT_FALSE(d.error);
    EXPECT_EQ(d.thickness, 27);
    // Nothing answered: every comparison fails, sizes read 0.
    const bd::Decoded none = bd::decode("", bd::Answer::Setup);
    EXPECT_TRUE(none.error);
    EXPECT_EQ(none.maxLen, "0");
    EXPECT_EQ(none.thickness, 0);
}

// A dispense answer as the dispenser frames it: result code, command 03, payload length, the
// 36-byte status block, the delivery record and two zeros, 1C; then DLE ETX and two check bytes.
std::string dispenseAnswer(std::uint8_t code, std::uint8_t record, std::uint8_t statusByte = 0) {
    std::string data = {static_cast<char>(code), 0x03, 0x28};
    std::string block(36, '\0');
    block[19] = static_cast<char>(statusByte);  // a bill count byte of the status block
    data += block;
    data += {static_cast<char>(record), 0x10, 0x00, 0x00, 0x1C};
    std::string frame = {0x10, 0x05, 0x10, 0x02, 0x00, static_cast<char>(data.size())};
    return frame + data + std::string{0x10, 0x03, 0x12, 0x34};
}

TEST(BillDispenserReply, DispenseAnswersAreReadWhereverTheyStartAndWhateverTheyHold) {
    const std::string acks = "\x10\x06\x10\x06";
    const std::string delivered = dispenseAnswer(0xE0, 0x3B);
    struct Row {
        const char* what;
        std::string bytes;
        bool complete;
        bool error;
        int count;
    };
    const Row rows[] = {
        {"after our two acknowledgements", acks + delivered, true, false, 1},
        {"the answer first", delivered, true, false, 1},
        // A byte 0A-0F before the delivery record once moved "B1" off its place.
        {"a 0C in the status block", acks + dispenseAnswer(0xE0, 0x3B, 0x0C), true, false, 1},
        {"no bill", acks + dispenseAnswer(0xE0, 0x30), true, false, 0},
        {"cassette empty", acks + dispenseAnswer(0xF3, 0x30), true, true, 0},
        {"not all there yet", acks + delivered.substr(0, 40), false, false, 0},
        {"acknowledgements only", acks, false, false, 0},
        {"noise", std::string("\x10\x05\x10\x02\x00", 5), false, false, 0},
    };
    for (const Row& r : rows) {
        const bd::DispenseAnswer a = bd::decodeDispenseAnswer(r.bytes);
        EXPECT_EQ(a.complete, r.complete) << r.what;
        if (r.complete) {
            EXPECT_EQ(a.error, r.error) << r.what;
            EXPECT_EQ(a.count, r.count) << r.what;
        }
    }
}

}  // namespace
}  // namespace kestrix
