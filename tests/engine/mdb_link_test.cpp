#include <gtest/gtest.h>

#include <string>

#include "engine/errors.h"
#include "engine/mdb/link.h"
#include "support/hex.h"

namespace kestrix {
namespace {

using test::fromHex;

// The engine paces these commands word by word, as the adapters it was built for need.
TEST(MdbFrames, WordByWordCommandsWriteOneWordAtATime) {
    const mdb::Command id = mdb::commands::validatorIdentification();
    ASSERT_EQ(id.writes().size(), 3u);
    EXPECT_EQ(id.writes()[0].bytes, fromHex("37 01"));
    EXPECT_EQ(id.writes()[1].bytes, fromHex("00 00"));
    EXPECT_EQ(id.writes()[2].bytes, fromHex("37 00"));
    // BILL TYPE with every bill enabled, as the recovery builds it.
    mdb::Command billType = mdb::Command::wordByWord(0x34, {0xFF, 0xFF, 0x00, 0x00});
    billType.pauseAfter(1, 0).pauseAfter(3, 0).pauseAfter(99, 1);
    EXPECT_EQ(billType.bytes(), fromHex("34 01 FF 00 FF 00 00 00 00 00 32 00"));
    EXPECT_EQ(billType.writes().size(), 6u);
    EXPECT_TRUE(billType.writes()[1].pauseAfterSeconds.has_value());
    EXPECT_FALSE(billType.writes()[2].pauseAfterSeconds.has_value());
}

TEST(MdbReply, BytesAreReadByPositionFiveKMinusFour) {
    // A reply with garbage among its bytes and a byte cut off at its end.
    const mdb::Reply r("0300 1400 8400 0200 0100 0000 1f00 0100 ??00 4b00 zz00 7");
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

}  // namespace
}  // namespace kestrix
