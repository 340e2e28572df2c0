#include <gtest/gtest.h>

#include "bench.h"
#include "engine/dispenser/bill_dispenser.h"

namespace kestrix::sim {
namespace {

using bd::field;
using bd::renderReply;
using test::ByteList;
using test::bytesOf;
using test::hex;

// The requests exactly as the engine sends them: header, then the body in one or more writes.
const ByteList kStatus = bytesOf(bd::statusFrame());

struct DispenserBench : test::Bench {
    LinkDevice& line = models.dispenserLink();

    // Set-up, 4 s, two acknowledgements 0.2 s apart, one read of everything.
    std::string init(int type) {
        std::string got = exchange(line, bytesOf(bd::setupFrame(type)->header), 0.2);
        got += exchange(line, bytesOf(bd::setupFrame(type)->body), 4);
        return got + acknowledgeTwice();
    }
    std::string status() { return exchange(line, kStatus, 0.5) + acknowledgeTwice(); }
    std::string acknowledgeTwice() {
        const std::string got = exchange(line, bytesOf(bd::ackFrame()), 0.2);
        return got + exchange(line, bytesOf(bd::ackFrame()), 0.2);
    }
};

// The lengths and thickness in the answer are the model's own table; what matters is that the
// engine reads every set-up as done, cassette not low.
TEST(BillDispenserModel, SetUpAnswersDecodeAtTheEnginesPositions) {
    for (int type : {20, 100, 200, 500, 1000}) {
        DispenserBench b;
        const std::string text = renderReply(b.init(type));
        SCOPED_TRACE(text);
        EXPECT_EQ(field(text, 1, 8), "10061006");
        const bd::Decoded d = bd::decode(text, bd::Answer::Setup);
        EXPECT_FALSE(d.error);
        EXPECT_FALSE(d.low);
        EXPECT_EQ(b.models.dispenser().setUpFor(), type);
    }
}

// The engine reads the flag wherever it comes from; that it rises under ten bills is the model's.
TEST(BillDispenserModel, ReportsLowUnderTenBills) {
    DispenserBench b;
    b.models.dispenser().setBills(10);
    EXPECT_EQ(field(renderReply(b.status()), 57, 2), "00");
    b.models.dispenser().setBills(9);
    EXPECT_EQ(field(renderReply(b.status()), 57, 2), "80");
}

TEST(BillDispenserModel, RefusesABadCrcAndAnswersAnUnknownCommandWithAnError) {
    DispenserBench b;
    ByteList bad = kStatus;
    bad.back() ^= 0xFF;
    EXPECT_EQ(bytesOf(b.exchange(b.line, bad, 1)), hex("10 06 10 15"))
        << "ENQ taken, frame refused";

    ByteList unknown = hex("10 05 10 02 00 03 00 07 1C 10 03");
    const std::uint16_t crc = dispenserCrc(ByteList(unknown.begin() + 4, unknown.end()));
    unknown.push_back(static_cast<std::uint8_t>(crc & 0xFF));
    unknown.push_back(static_cast<std::uint8_t>(crc >> 8));
    EXPECT_EQ(field(renderReply(b.exchange(b.line, unknown, 1)), 21, 2), "F0");
}

TEST(BillDispenserModel, AsksAgainAfterTheHostsNak) {
    DispenserBench b;
    const std::string first = b.status();
    EXPECT_EQ(b.exchange(b.line, hex("10 15")), first.substr(4))
        << "the answer without the two ACKs";
}

}  // namespace
}  // namespace kestrix::sim
