#include <gtest/gtest.h>

#include <random>

#include "bench.h"
#include "sim/kiosk_models.h"

namespace kestrix::sim {
namespace {

// Noise on every line and nonsense on the control channel: the models neither crash nor pile
// up output, and they still answer properly afterwards.
TEST(KioskModels, SurviveNoiseOnEveryLinkAndNonsenseCommands) {
    double now = 0;
    KioskModels k(defaultProfile(), [&now] { return now; });
    std::mt19937 random(20261122);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> length(1, 40);
    LinkDevice* links[] = {&k.mdbLink(), &k.dispenserLink(), &k.hoppersLink()};
    for (int round = 0; round < 20000; ++round) {
        std::string noise;
        const int n = length(random);
        for (int i = 0; i < n; ++i) {
            noise += static_cast<char>(byte(random));
        }
        LinkDevice* link = links[round % 3];
        link->receive(noise, now);
        now += 0.003 * (round % 7);
        EXPECT_LT(link->transmit(now).size(), 4096u);
    }
    const char* commands[] = {"coin 99999999999", "tube -1 5",  "bill +2",    "fault",
                              "reset nobody",     "frames",     "\x01\xff x", "tube 1 99999",
                              "hopper 3 1",       "cassette -4"};
    for (const char* c : commands) {
        EXPECT_FALSE(k.command(c).ok) << c;
    }
    now += 5;
    k.mdbLink().transmit(now);
    k.mdbLink().receive(test::raw(test::mdbWords({0x08})), now);
    now += 0.1;
    EXPECT_EQ(k.mdbLink().transmit(now), "0001 ");
    k.hoppersLink().transmit(now);
    now += 1;
    k.hoppersLink().receive(test::raw(test::hex("03 00 01 FE FE")), now);
    now += 0.1;
    EXPECT_EQ(test::bytesOf(k.hoppersLink().transmit(now)),
              test::hex("03 00 01 FE FE 01 00 03 00 FC"));
}

}  // namespace
}  // namespace kestrix::sim
