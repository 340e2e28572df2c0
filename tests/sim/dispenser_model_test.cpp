#include <gtest/gtest.h>

#include "bench.h"
#include "engine/dispenser/bill_dispenser.h"
#include "sim/dispenser/bill_dispenser_model.h"

namespace kestrix::sim {
namespace {

using bd::field;
using bd::renderReply;
using test::ByteList;
using test::hex;

// The requests exactly as the engine sends them: header, then the body in one or more writes.
const int kSetUpTypes[] = {20, 100, 200, 500, 1000};
const ByteList kStatus = test::bytesOf(bd::statusFrame());
const ByteList kDleAck = test::bytesOf(bd::ackFrame());

struct DispenserBench {
    BillDispenserModel dispenser;
    test::Host host{dispenser};

    // Set-up, 4 s, two acknowledgements 0.2 s apart, one read of everything.
    std::string init(int type) {
        host.write(test::bytesOf(bd::setupFrame(type)->header));
        std::string got = host.wait(0.2);
        host.write(test::bytesOf(bd::setupFrame(type)->body));
        got += host.wait(4);
        return got + acknowledgeTwice();
    }
    std::string status() {
        host.write(kStatus);
        return host.wait(0.5) + acknowledgeTwice();
    }
    std::string acknowledgeTwice() {
        host.write(kDleAck);
        std::string got = host.wait(0.2);
        host.write(kDleAck);
        return got + host.wait(0.2);
    }
};

// The lengths and thickness in the answer are the model's own table; what matters is that the
// engine reads every set-up as done, cassette not low.
TEST(BillDispenserModel, SetUpAnswersDecodeAtTheEnginesPositions) {
    for (int type : kSetUpTypes) {
        DispenserBench b;
        const std::string text = renderReply(b.init(type));
        SCOPED_TRACE(text);
        EXPECT_EQ(field(text, 1, 8), "10061006");
        const bd::Decoded d = bd::decode(text, bd::Answer::Setup);
        EXPECT_FALSE(d.error);
        EXPECT_FALSE(d.low);
        EXPECT_EQ(b.dispenser.setUpFor(), type);
    }
}

// The engine reads the flag wherever it comes from; that it rises under ten bills is the model's.
TEST(BillDispenserModel, ReportsLowUnderTenBills) {
    DispenserBench b;
    b.dispenser.setBills(10);
    EXPECT_EQ(field(renderReply(b.status()), 57, 2), "00");
    b.dispenser.setBills(9);
    EXPECT_EQ(field(renderReply(b.status()), 57, 2), "80");
}

TEST(BillDispenserModel, RefusesABadCrcAndAnswersAnUnknownCommandWithAnError) {
    DispenserBench b;
    ByteList bad = kStatus;
    bad.back() ^= 0xFF;
    b.host.write(bad);
    EXPECT_EQ(test::bytesOf(b.host.wait(1)), hex("10 06 10 15")) << "ENQ taken, frame refused";

    ByteList unknown = hex("10 05 10 02 00 03 00 07 1C 10 03");
    const std::uint16_t crc = dispenserCrc(ByteList(unknown.begin() + 4, unknown.end()));
    unknown.push_back(static_cast<std::uint8_t>(crc & 0xFF));
    unknown.push_back(static_cast<std::uint8_t>(crc >> 8));
    b.host.write(unknown);
    EXPECT_EQ(field(renderReply(b.host.wait(1)), 21, 2), "F0");
}

TEST(BillDispenserModel, AsksAgainAfterTheHostsNak) {
    DispenserBench b;
    const std::string first = b.status();
    b.host.write(hex("10 15"));
    EXPECT_EQ(b.host.wait(0.1), first.substr(4)) << "the answer without the two ACKs";
}

}  // namespace
}  // namespace kestrix::sim
