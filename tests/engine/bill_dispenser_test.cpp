#include <gtest/gtest.h>

#include <string>

#include "engine/dispenser/bill_dispenser.h"

namespace kestrix {
namespace {

std::string hexOf(std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        out += {kDigits[b >> 4], kDigits[b & 0x0F]};
    }
    return out;
}

TEST(BillDispenserFrames, AreTheFixedBytes) {
    const std::pair<int, const char*> rows[] = {{20, "8B78"},  {50, "8B78"},  {100, "A57C"},
                                                {200, "A583"}, {500, "A589"}, {1000, "A591"}};
    const char* checks[] = {"8D9C", "8D9C", "72CB", "4FE2", "F8F0", "4CC9"};
    int i = 0;
    for (const auto& [type, sizes] : rows) {
        const auto f = bd::setupFrame(type);
        ASSERT_TRUE(f.has_value()) << type;
        EXPECT_EQ(hexOf(f->header), "100510020011") << type;
        EXPECT_EQ(hexOf(f->body),
                  std::string("60020D00") + sizes + "0000000000000F0000001C1003" + checks[i++])
            << type;
    }
    for (int type : {0, 5, 10, -20, 2000}) {
        EXPECT_FALSE(bd::setupFrame(type).has_value()) << type;
    }
    const bd::DispenseFrame& d = bd::dispenseFrame();
    EXPECT_EQ(hexOf(d.header), "100510020019");
    EXPECT_EQ(hexOf(d.body[0]), "6003150030B1303030303030");
    EXPECT_EQ(hexOf(d.body[1]), "B13030303030303005000000");
    EXPECT_EQ(hexOf(d.body[2]), "1C1003A38D");
    EXPECT_EQ(hexOf(bd::statusFrame()), "10051002000300011C1003FA97");
    EXPECT_EQ(hexOf(bd::ackFrame()), "1006");
}

TEST(BillDispenserReply, RendersEachByteThroughTheTwoDigitPattern) {
    // 0A to 0F are letters, not numerals: one character each.
    EXPECT_EQ(bd::renderReply(std::string("\x00\x05\x09\x10\x0A\x0F\x1C\xB1\xFF", 9)),
              "00050910AF1CB1FF");
    EXPECT_EQ(bd::field("ABCDEF", 5, 4), "EF");
    EXPECT_EQ(bd::field("ABCDEF", 7, 2), "");
    EXPECT_EQ(bd::field("ABCDEF", 0, 2), "");
}

TEST(BillDispenserReply, SetUpAndStatusAnswersAreReadAtTheirPositions) {
    // Code at 21, zero blocks from 27 and 39, version 35, cassette 57, sizes 67 and 69, thickness
    // straddling 82.
    std::string t(90, '0');
    t.replace(20, 6, "E00234").replace(34, 4, "0123").replace(56, 2, "80");
    t.replace(66, 4, "9C78").replace(81, 2, "1B");
    const bd::Decoded d = bd::decode(t, bd::Answer::Setup);
    EXPECT_FALSE(d.error);
    EXPECT_TRUE(d.low);
    EXPECT_EQ(d.version, "0123");
    EXPECT_EQ(d.maxLen, "156");
    EXPECT_EQ(d.minLen, "120");
    EXPECT_EQ(d.thickness, 27);
    // The status answer's zero block runs from 40 to 55 only.
    t.replace(20, 6, "E00124");
    t[38] = '7';
    t[55] = '7';
    EXPECT_FALSE(bd::decode(t, bd::Answer::Status).error);
    t.replace(20, 6, "E00234");
    EXPECT_TRUE(bd::decode(t, bd::Answer::Setup).error);
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
