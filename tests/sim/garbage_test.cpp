#include <gtest/gtest.h>

#include <random>

#include "bench.h"

namespace kestrix::sim {
namespace {

// Noise on every line and nonsense on the control channel: the models neither crash nor pile
// up output, and they still answer properly afterwards.
TEST(KioskModels, SurviveNoiseOnEveryLinkAndNonsenseCommands) {
    test::Bench b;
    std::mt19937 random(20261122);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> length(1, 40);
    LinkDevice* links[] = {&b.models.mdbLink(), &b.models.dispenserLink(), &b.models.hoppersLink()};
    for (int round = 0; round < 20000; ++round) {
        test::ByteList noise;
        const int n = length(random);
        for (int i = 0; i < n; ++i) {
            noise.push_back(static_cast<std::uint8_t>(byte(random)));
        }
        LinkDevice* link = links[round % 3];
        b.write(*link, noise);
        EXPECT_LT(b.wait(*link, 0.003 * (round % 7)).size(), 4096u);
    }
    const char* commands[] = {"coin 99999999999", "tube -1 5",  "bill +2",    "fault",
                              "reset nobody",     "frames",     "\x01\xff x", "tube 1 99999",
                              "hopper 3 1",       "cassette -4"};
    for (const char* c : commands) {
        EXPECT_FALSE(b.models.command(c).ok) << c;
    }
    b.wait(b.models.mdbLink(), 5);
    EXPECT_EQ(b.mdb({0x08}, false), "0001 ");
    b.wait(b.models.hoppersLink(), 1);
    EXPECT_EQ(test::bytesOf(b.exchange(b.models.hoppersLink(), test::hex("03 00 01 FE FE"))),
              test::hex("03 00 01 FE FE 01 00 03 00 FC"));
}

}  // namespace
}  // namespace kestrix::sim
