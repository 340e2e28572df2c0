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

TEST(BillDispenserReply, DispenseAnswersByTheirPrefix) {
    // After our two acknowledgements: "E0" at 21, and a shortened byte ("C") before the count
    // moves "B1" from 101 to 100, where it is read.
    std::string afterAcks = "10061006100200306003E000C";
    afterAcks += std::string(99 - afterAcks.size(), '3') + "B11C1003";
    struct Row {
        std::string reply;
        std::optional<bool> error;
        int count;
    };
    const Row rows[] = {
        {afterAcks, false, 1},
        {afterAcks.substr(8), std::nullopt, 0},         // no known prefix: nothing changes
        {"10051002" + afterAcks.substr(16), false, 1},  // the answer came first: 13 and 92
        {"10061006100200306003E1", true, 0},
        {"100510020030E3", true, 0},
    };
    for (const Row& r : rows) {
        const bd::DispenseOutcome out = bd::decodeDispense(r.reply);
        EXPECT_EQ(out.error, r.error) << r.reply;
        EXPECT_EQ(out.count, r.count) << r.reply;
    }
}

}  // namespace
}  // namespace kestrix
