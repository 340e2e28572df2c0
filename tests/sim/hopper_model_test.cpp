#include <gtest/gtest.h>

#include "bench.h"
#include "engine/hoppers/cctalk.h"

namespace kestrix::sim {
namespace {

using test::ByteList;
using test::bytesOf;
using test::hex;

struct HopperBench : test::Bench {
    explicit HopperBench(const KioskProfile& profile = defaultProfile()) : Bench(profile) {}

    // Sends a frame and returns what came back within 0.1 s, echo included.
    ByteList exchange(const ByteList& frame) {
        return bytesOf(Bench::exchange(models.hoppersLink(), frame));
    }
    // The reply after the echo of `frame`.
    ByteList reply(const ByteList& frame) {
        const ByteList all = exchange(frame);
        EXPECT_GE(all.size(), frame.size());
        EXPECT_TRUE(std::equal(frame.begin(), frame.end(), all.begin())) << "echo first";
        return ByteList(all.begin() + static_cast<long>(std::min(frame.size(), all.size())),
                        all.end());
    }
    static ByteList frame(std::uint8_t header, const std::string& data = {}) {
        return bytesOf(cctalk::buildFrame(3, header, data));
    }
    ByteList dispense(char coins) {
        return reply(frame(167, std::string("\x4E\x46\x05", 3) + coins));
    }
    void enable() { reply(frame(164, "\xA5")); }
};

// The engine pays whatever these bits show: that they are right is the model's to check.
TEST(HopperBus, TheTestRegisterShowsPowerUpAndDisabledUntilEnabled) {
    HopperBench b;
    EXPECT_EQ(b.reply(hex("03 00 01 A3 59")), hex("01 02 03 00 C0 00 3A")) << "power-up, disabled";
    EXPECT_EQ(b.reply(hex("03 01 01 A4 A5 B2")), hex("01 00 03 00 FC"));
    EXPECT_EQ(b.reply(hex("03 00 01 A3 59")), hex("01 02 03 00 40 00 BA"));
}

// Coins leave one by one over time, and a dispense while busy is refused, not queued.
TEST(HopperBus, PaysCoinsOverTimeAndRefusesADispenseWhileBusy) {
    HopperBench b;
    b.enable();
    b.dispense(5);
    EXPECT_EQ(b.dispense(1), hex("01 00 03 05 F7")) << "busy: refused, not queued";
    b.wait(b.models.hoppersLink(), 0.6);
    const ByteList midway = b.reply(hex("03 00 01 A6 56"));
    EXPECT_GT(midway[5], 0) << "still paying";
    EXPECT_LT(midway[5], 5);
}

TEST(HopperBus, TheEventCounterWrapsToOneAndAResetClearsIt) {
    HopperBench b;
    b.enable();
    for (int i = 1; i <= 255; ++i) {
        b.dispense(0);
    }
    EXPECT_EQ(b.models.hopper1().eventCounter(), 255);
    EXPECT_EQ(b.dispense(0)[4], 1);
    b.reply(hex("03 00 01 01 FB"));
    EXPECT_EQ(b.exchange(hex("03 00 01 A6 56")), hex("03 00 01 A6 56")) << "deaf after reset";
    b.wait(b.models.hoppersLink(), 0.2);
    EXPECT_EQ(b.reply(hex("03 00 01 A6 56"))[4], 0);
    EXPECT_EQ(b.dispense(1), hex("01 00 03 05 F7")) << "disabled after reset";
}

TEST(HopperBus, TakesOnlyTheSecurityBytesOfItsMode) {
    struct Row {
        std::string mode;
        bool cipherFirst;
        ByteList dispense;
        bool accepted;
    };
    const ByteList zeros8 = hex("03 09 01 A7 00 00 00 00 00 00 00 00 05 47");
    const ByteList serial = hex("03 04 01 A7 4E 46 05 03 B5");
    const ByteList any8 = HopperBench::frame(167, "\x01\x02\x03\x04\x05\x06\x07\x08\x02");
    const Row rows[] = {
        {"serial", false, serial, true},
        {"serial", false, zeros8, false},
        {"serial", false, hex("03 04 01 A7 4E 46 06 03 B4"), false},
        {"zeros8", false, zeros8, true},
        {"zeros8", false, serial, false},
        {"noencrypt8", true, any8, true},
        {"noencrypt8", false, any8, false},
    };
    for (const Row& r : rows) {
        KioskProfile p = defaultProfile();
        p.hopper1.mode = r.mode;
        HopperBench b(p);
        b.enable();
        if (r.cipherFirst) {
            EXPECT_EQ(b.reply(hex("03 00 01 A0 5C")).size(), 13u);
        }
        const ByteList reply = b.reply(r.dispense);
        ASSERT_GE(reply.size(), 5u) << r.mode;
        EXPECT_EQ(reply[3] == 0, r.accepted) << r.mode;
    }
}

TEST(HopperBus, StaysQuietOnBadFramesAndUnsupportedHeaders) {
    HopperBench b;
    EXPECT_EQ(b.exchange(hex("03 00 01 FE FF")), hex("03 00 01 FE FF")) << "bad checksum";
    EXPECT_EQ(b.exchange(hex("03 00 01 04 F8")), hex("03 00 01 04 F8")) << "unsupported header";
    EXPECT_EQ(b.exchange(hex("05 00 01 FE FC")), hex("05 00 01 FE FC")) << "nobody at 5";
    EXPECT_EQ(b.exchange(hex("03 00 01 A0 5C")), hex("03 00 01 A0 5C")) << "no cipher in serial";
    // A gap over 50 ms inside a frame resets the receiver.
    b.write(b.models.hoppersLink(), hex("03 00"));
    b.wait(b.models.hoppersLink(), 0.08);
    EXPECT_EQ(b.exchange(hex("01 FE FE")), hex("01 FE FE"));
    EXPECT_EQ(b.reply(hex("03 00 01 FE FE")), hex("01 00 03 00 FC"));
}

}  // namespace
}  // namespace kestrix::sim
