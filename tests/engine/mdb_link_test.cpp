#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>

#include "engine/errors.h"
#include "engine/mdb/link.h"

namespace kestrix {
namespace {

std::string hexOf(std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        if (!out.empty()) {
            out += ' ';
        }
        out += kDigits[b >> 4];
        out += kDigits[b & 0x0F];
    }
    return out;
}

TEST(MdbCheckByte, MatchesTheStandardsVectors) {
    const std::array<std::uint8_t, 12> v1{0x02, 0x00, 0x01, 0x05, 0x02, 0x00,
                                          0x07, 0x01, 0x02, 0x05, 0x14, 0xFF};
    const std::array<std::uint8_t, 5> v2{0x34, 0xFF, 0xFF, 0x00, 0x00};
    EXPECT_EQ(mdb::checkByte(v1), 0x2C);
    EXPECT_EQ(mdb::checkByte(v2), 0x32);
    // The payout command's check is 11h plus its amount byte, modulo 256.
    const std::array<std::uint8_t, 3> payout{0x0F, 0x02, 0xF5};
    EXPECT_EQ(mdb::checkByte(payout), 0x06);
}

TEST(MdbFrames, PreparedFramesHoldTheirExactBytes) {
    const mdb::PreparedFrames f = mdb::buildPreparedFrames();
    const std::pair<const std::string*, const char*> rows[] = {
        {&f.caResetFrame, "08 01 08 00"},
        {&f.caSetupFrame, "09 01 09 00"},
        {&f.caTubeStatusFrame, "0A 01 0A 00"},
        {&f.caPollFrame, "0B 01 0B 00"},
        {&f.ackFrame, "00 00"},
        {&f.caExpansionIdFrame, "0F 01 00 00 0F 00"},
        {&f.bvResetFrame, "30 01 30 00"},
        {&f.bvSetupFrame, "31 01 31 00"},
        {&f.bvPollFrame, "33 01 33 00"},
        {&f.bvEscrowFrame, "35 01 35 00"},
    };
    for (const auto& [bytes, expected] : rows) {
        EXPECT_EQ(hexOf(*bytes), expected);
    }
}

TEST(MdbFrames, WordByWordCommandsWriteOneWordAtATime) {
    const mdb::Command id = mdb::commands::validatorIdentification();
    ASSERT_EQ(id.writes().size(), 3u);
    EXPECT_EQ(hexOf(id.writes()[0].bytes), "37 01");
    EXPECT_EQ(hexOf(id.writes()[1].bytes), "00 00");
    EXPECT_EQ(hexOf(id.writes()[2].bytes), "37 00");
    EXPECT_EQ(hexOf(mdb::commands::changerIdentification().bytes()), "0F 01 00 00 0F 00");
    EXPECT_EQ(hexOf(mdb::commands::changerTubeStatus().bytes()), "0A 01 0A 00");
    // BILL TYPE with every bill enabled, as the recovery builds it.
    mdb::Command billType = mdb::Command::wordByWord(0x34, {0xFF, 0xFF, 0x00, 0x00});
    billType.pauseAfter(1, 0).pauseAfter(3, 0).pauseAfter(99, 1);
    EXPECT_EQ(hexOf(billType.bytes()), "34 01 FF 00 FF 00 00 00 00 00 32 00");
    EXPECT_EQ(billType.writes().size(), 6u);
    EXPECT_TRUE(billType.writes()[1].pauseAfterSeconds.has_value());
    EXPECT_FALSE(billType.writes()[2].pauseAfterSeconds.has_value());
}

TEST(MdbReply, BytesAreReadByPositionFiveKMinusFour) {
    // SETUP-like reply: 03, 14 84, 02, 01, 00 1F, credits...; then garbage and a cut-off byte.
    const mdb::Reply r("0300 1400 8400 0200 0100 0000 1f00 0100 ??00 4b00 zz00 7");
    EXPECT_EQ(r.hex(1), "03");
    EXPECT_EQ(r.hexJoined(2, 3), "1484");
    EXPECT_EQ(r.number(7), 31);
    EXPECT_EQ(r.decimal(4), "2");
    EXPECT_EQ(r.character(10), "K");
    // Garbage is no number: reading it for a number is an error, as a character it is nothing.
    EXPECT_THROW(r.number(9), KsxError);
    EXPECT_EQ(r.character(9), "");
    EXPECT_EQ(r.character(11), "");
    // A byte cut short holds what is there; past the end nothing, read as 0 and "".
    EXPECT_EQ(r.hex(12), "7");
    EXPECT_EQ(r.number(12), 7);
    EXPECT_EQ(r.hex(13), "");
    EXPECT_EQ(r.number(30), 0);
    EXPECT_EQ(r.decimal(30), "");
    EXPECT_EQ(r.characters(10, 40), "K\x07");
    EXPECT_EQ(r.hex(0), "");
    EXPECT_EQ(r.hex(-3), "");
    EXPECT_EQ(mdb::hexValue(""), 0);
    EXPECT_EQ(mdb::hexValue("ff"), 255);
}

TEST(MdbReply, CompletionAcknowledgementAndNak) {
    struct Row {
        const char* text;
        bool complete, endsComplete, bareAck, notNak;
    };
    const Row rows[] = {
        {"", false, false, false, true},
        {"0001 ", true, true, true, true},
        {"0b00 0b01 ", true, true, false, true},
        {"0b00 0b", false, false, false, true},
        // A second message already appended: complete, but not acknowledged.
        {"0001 0b00 ", true, false, false, true},
        {"ff01 ", true, true, false, false},
        {"garbage", false, false, false, true},
    };
    for (const Row& row : rows) {
        const mdb::Reply r(row.text);
        EXPECT_EQ(r.complete(), row.complete) << row.text;
        EXPECT_EQ(r.endsComplete(), row.endsComplete) << row.text;
        EXPECT_EQ(r.isBareAck(), row.bareAck) << row.text;
        EXPECT_EQ(mdb::notNak(r), row.notNak) << row.text;
    }
}

TEST(MdbUseTable, RowsAreConsistent) {
    std::set<std::string_view> names;
    for (const mdb::LinkUse& u : mdb::useTable()) {
        EXPECT_TRUE(names.insert(u.name).second) << "duplicate row " << u.name;
        EXPECT_FALSE(u.whenExhausted.empty()) << u.name;
        EXPECT_GE(u.waitBeforeReadSeconds, 0) << u.name;
        if (!u.limit.bounded()) {
            // An unlimited wait is always answered: retrying it is meaningless.
            EXPECT_EQ(u.attempts, 1) << u.name;
        }
        if (u.attempts != 1) {
            EXPECT_TRUE(u.ackAfterUnanswered) << u.name << ": a resend follows an ACK";
        }
    }
    // No world scenario waits out the recovery's BILL TYPE: its limit is checked here.
    EXPECT_EQ(mdb::use::kRecoveryBillType.limit.readsWhenUnanswered(), 200);
}

}  // namespace
}  // namespace kestrix
