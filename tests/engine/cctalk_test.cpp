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

// A command and the replies the engine reads, as a real hopper frames them. (The other commands
// are in the hoppers' world tests: the hopper model answers no other header and no bad frame.)
TEST(CcTalkFrames, BuildTheKnownVectors) {
    const Vector vectors[] = {
        {"reset", 3, header::kResetDevice, "", "03 00 01 01 FB"},
        {"ACK from 3", 1, header::kAck, "", "01 00 03 00 FC", 3},
        {"status reply", 1, header::kAck, "07 00 05 00", "01 04 03 00 07 00 05 00 EC", 3},
    };
    for (const Vector& v : vectors) {
        const std::string built = buildFrame(v.destination, v.header, fromHex(v.data), v.source);
        EXPECT_EQ(hex(built), v.frame) << v.name;
        // Parsed, every field is back where it came from: built again, the frame is the same.
        const auto f = parseFrame(fromHex(v.frame));
        ASSERT_TRUE(f.has_value()) << v.name;
        EXPECT_EQ(hex(buildFrame(f->destination, f->header, f->data, f->source)), v.frame)
            << v.name;
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
