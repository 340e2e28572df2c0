#include <gtest/gtest.h>

#include <string>

#include "engine/hoppers/cctalk.h"
#include "support/hex.h"

namespace kestrix::cctalk {
namespace {

using test::fromHex;

struct Vector {
    const char* name;
    std::uint8_t destination;
    std::uint8_t header;
    const char* data;  // hex, "" for none
    const char* frame;
    std::uint8_t source = kHostAddress;
};

// The commands the engine sends and the replies it reads, as a real hopper frames them.
TEST(CcTalkFrames, BuildTheKnownVectors) {
    const Vector vectors[] = {
        {"serial number", 3, header::kSerialNumber, "", "03 00 01 F2 0A"},
        {"test hopper", 3, header::kTestHopper, "", "03 00 01 A3 59"},
        {"enable", 3, header::kEnableHopper, "A5", "03 01 01 A4 A5 B2"},
        {"cipher key", 3, header::kRequestCipherKey, "", "03 00 01 A0 5C"},
        {"hopper status", 3, header::kHopperStatus, "", "03 00 01 A6 56"},
        {"emergency stop", 3, header::kEmergencyStop, "", "03 00 01 AC 50"},
        {"reset", 3, header::kResetDevice, "", "03 00 01 01 FB"},
        {"dispense zeros8 5", 3, header::kDispenseHopperCoins, "00 00 00 00 00 00 00 00 05",
         "03 09 01 A7 00 00 00 00 00 00 00 00 05 47"},
        {"dispense serial 3", 3, header::kDispenseHopperCoins, "4E 46 05 03",
         "03 04 01 A7 4E 46 05 03 B5"},
        {"ACK from 3", 1, header::kAck, "", "01 00 03 00 FC", 3},
        {"NAK from 3", 1, header::kNak, "", "01 00 03 05 F7", 3},
        {"status reply", 1, header::kAck, "07 00 05 00", "01 04 03 00 07 00 05 00 EC", 3},
    };
    for (const Vector& v : vectors) {
        const std::string built = buildFrame(v.destination, v.header, fromHex(v.data), v.source);
        EXPECT_EQ(hex(built), v.frame) << v.name;
        const auto parsed = parseFrame(fromHex(v.frame));
        ASSERT_TRUE(parsed.has_value()) << v.name;
        EXPECT_EQ(parsed->destination, v.destination) << v.name;
        EXPECT_EQ(parsed->source, v.source) << v.name;
        EXPECT_EQ(parsed->header, v.header) << v.name;
        EXPECT_EQ(hex(parsed->data), hex(fromHex(v.data))) << v.name;
    }
}

TEST(CcTalkFrames, ParseRejectsDamagedFrames) {
    const char* bad[] = {
        "",
        "01 00 03",                    // too short
        "01 00 03 00 FD",              // checksum off by one
        "01 04 03 00 07 00 05 00",     // data count says 4, checksum missing
        "01 01 03 00 08 F3 00",        // one byte too many
        "01 FF 03 00 08 F3",           // count far beyond the bytes
        "01 04 03 00 07 00 05 00 ED",  // a flipped bit in the checksum
    };
    for (const char* b : bad) {
        EXPECT_FALSE(parseFrame(fromHex(b)).has_value()) << b;
    }
    EXPECT_THROW(buildFrame(3, 167, std::string(256, '\0')), std::length_error);
}

TEST(CcTalkFrames, FindSkipsEchoNoiseAndOtherAddresses) {
    // Echo of our status request, a byte of noise, a reply from hopper 4, then the one we want.
    const std::string line = fromHex("03 00 01 A6 56 55 01 00 04 00 FB 01 04 03 00 07 00 05 00 EC");
    const auto found = findFrame(line, kHostAddress, 3);
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->end, line.size());
    EXPECT_EQ(hex(found->frame.data), "07 00 05 00");

    // A frame still arriving is not found yet.
    EXPECT_FALSE(findFrame(line.substr(0, line.size() - 1), kHostAddress, 3).has_value());
}

}  // namespace
}  // namespace kestrix::cctalk
