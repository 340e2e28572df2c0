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
        out += kDigits[b >> 4];
        out += kDigits[b & 0x0F];
    }
    return out;
}

// Raw bytes from a text of two-digit hexadecimal pairs.
std::string bytesOf(std::string_view pairs) {
    std::string out;
    for (std::size_t i = 0; i + 1 < pairs.size(); i += 2) {
        out += static_cast<char>(std::stoi(std::string(pairs.substr(i, 2)), nullptr, 16));
    }
    return out;
}

TEST(BillDispenserFrames, SetUpPerBillTypeByteForByte) {
    const std::pair<int, const char*> rows[] = {
        {20,
         "6002"
         "0D00"
         "8B78"
         "000000000000"
         "0F000000"
         "1C1003"
         "8D9C"},
        {50,
         "6002"
         "0D00"
         "8B78"
         "000000000000"
         "0F000000"
         "1C1003"
         "8D9C"},
        {100,
         "6002"
         "0D00"
         "A57C"
         "000000000000"
         "0F000000"
         "1C1003"
         "72CB"},
        {200,
         "6002"
         "0D00"
         "A583"
         "000000000000"
         "0F000000"
         "1C1003"
         "4FE2"},
        {500,
         "6002"
         "0D00"
         "A589"
         "000000000000"
         "0F000000"
         "1C1003"
         "F8F0"},
        {1000,
         "6002"
         "0D00"
         "A591"
         "000000000000"
         "0F000000"
         "1C1003"
         "4CC9"},
    };
    for (const auto& [type, body] : rows) {
        const auto f = bd::setupFrame(type);
        ASSERT_TRUE(f.has_value()) << type;
        EXPECT_EQ(hexOf(f->header), "100510020011") << type;
        EXPECT_EQ(hexOf(f->body), body) << type;
    }
    for (int type : {0, 5, 10, -20, 2000}) {
        EXPECT_FALSE(bd::setupFrame(type).has_value()) << type;
    }
    const bd::DispenseFrame& d = bd::dispenseFrame();
    EXPECT_EQ(hexOf(d.header), "100510020019");
    EXPECT_EQ(hexOf(d.body[0]),
              "60031500"
              "30B1303030303030");
    EXPECT_EQ(hexOf(d.body[1]),
              "B130303030303030"
              "05000000");
    EXPECT_EQ(hexOf(d.body[2]), "1C1003A38D");
    EXPECT_EQ(hexOf(bd::statusFrame()),
              "100510020003"
              "00011C1003FA97");
    EXPECT_EQ(hexOf(bd::ackFrame()), "1006");
}

TEST(BillDispenserReply, RendersEachByteThroughTheTwoDigitPattern) {
    EXPECT_EQ(bd::renderReply(bytesOf("00050910")), "00050910");
    // 0A to 0F are letters, not numerals: one character each.
    EXPECT_EQ(bd::renderReply(bytesOf("0A0B0C0D0E0F")), "ABCDEF");
    EXPECT_EQ(bd::renderReply(bytesOf("1CB1FFE0")), "1CB1FFE0");
    EXPECT_EQ(bd::renderReply(""), "");
    EXPECT_EQ(bd::field("ABCDEF", 5, 4), "EF");
    EXPECT_EQ(bd::field("ABCDEF", 7, 2), "");
    EXPECT_EQ(bd::field("ABCDEF", 0, 2), "");
}

// A set-up or status answer laid out on its rendered text: answer code at 21, zero blocks at 27
// and 39, version at 35, cassette at 57, sizes at 67 and 69, thickness straddling 82.
std::string answerText(const char* code, const char* cassette) {
    std::string t = "10061006100200306002";  // 1..20
    t += code;                               // 21..26
    t += "00000000";                         // 27..34
    t += "0123";                             // 35..38 version
    t += std::string(18, '0');               // 39..56
    t += cassette;                           // 57..58
    t += "00000000";                         // 59..66
    t += "9C";                               // 67..68 max length 156
    t += "78";                               // 69..70 min length 120
    t += "30303030303";                      // 71..81
    t += "1B";                               // 82..83 thickness 27
    t += "01C1003";
    return t;
}

TEST(BillDispenserReply, DecodesSetUpAndStatusAnswers) {
    const bd::Decoded ok = bd::decode(answerText("E00234", "00"), bd::Answer::Setup);
    EXPECT_FALSE(ok.error);
    EXPECT_FALSE(ok.low);
    EXPECT_EQ(ok.version, "0123");
    EXPECT_EQ(ok.maxLen, "156");
    EXPECT_EQ(ok.minLen, "120");
    EXPECT_EQ(ok.thickness, 27);

    EXPECT_TRUE(bd::decode(answerText("E00234", "80"), bd::Answer::Setup).low);
    EXPECT_TRUE(bd::decode(answerText("E00124", "00"), bd::Answer::Setup).error);
    EXPECT_FALSE(bd::decode(answerText("E00124", "00"), bd::Answer::Status).error);

    // The status answer checks its zero block from 40 to 55 only: a non-zero character at 39 or
    // 56 is an error at set-up but not in a status answer.
    std::string edge = answerText("E00124", "00");
    edge[38] = '7';
    edge[55] = '7';
    EXPECT_FALSE(bd::decode(edge, bd::Answer::Status).error);
    edge.replace(20, 6, "E00234");
    EXPECT_TRUE(bd::decode(edge, bd::Answer::Setup).error);

    // Nothing answered: every comparison fails, sizes read 0.
    const bd::Decoded none = bd::decode("", bd::Answer::Setup);
    EXPECT_TRUE(none.error);
    EXPECT_EQ(none.maxLen, "0");
    EXPECT_EQ(none.thickness, 0);
    EXPECT_EQ(none.version, "");
}

TEST(BillDispenserReply, AByteOfAToFShiftsTheFieldsAfterIt) {
    // The same answer with byte 3 = 0Bh: every later field is read one character early.
    std::string raw = bytesOf(answerText("E00234", "80"));
    raw[2] = '\x0B';
    const std::string shifted = bd::renderReply(raw);
    ASSERT_EQ(shifted.size(), answerText("E00234", "80").size() - 1);
    const bd::Decoded d = bd::decode(shifted, bd::Answer::Setup);
    EXPECT_TRUE(d.error);
    EXPECT_EQ(d.version, "1230");
    EXPECT_FALSE(d.low) << "the cassette byte is now read from 58..59, \"00\"";
    EXPECT_EQ(d.maxLen, "199");  // "C7" read across the size bytes
}

TEST(BillDispenserReply, DecodesDispenseAnswers) {
    // After our two acknowledgements: E0 at 21; one shortened byte before the count moves "B1"
    // from 101 to 100, where it is read.
    std::string afterAcks =
        "10061006"
        "10020030"
        "6003"
        "E0"
        "00"
        "C";
    afterAcks += std::string(100 - 1 - afterAcks.size(), '3');
    afterAcks +=
        "B1"
        "1C1003";
    struct Row {
        std::string reply;
        std::optional<bool> error;
        int count;
    };
    const Row rows[] = {
        {afterAcks, false, 1},
        {afterAcks.substr(8), std::nullopt, 0},                // no known prefix once the acks are cut
        {"10051002" + afterAcks.substr(16), false, 1},  // the answer came first: 13 and 92
        {"10061006"
         "10020030"
         "6003"
         "E1"
         "00",
         true, 0},
        {"10051002"
         "0030"
         "E3",
         true, 0},
        {"0123456789ABCDEF", std::nullopt, 0},
    };
    for (const Row& r : rows) {
        const bd::DispenseOutcome out = bd::decodeDispense(r.reply);
        EXPECT_EQ(out.error, r.error) << r.reply;
        EXPECT_EQ(out.count, r.count) << r.reply;
    }
}

}  // namespace
}  // namespace kestrix
