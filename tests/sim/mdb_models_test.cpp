#include <gtest/gtest.h>

#include "bench.h"
#include "engine/mdb/reply.h"

namespace kestrix::sim {
namespace {

using test::Bench;

void enableCoins(Bench& b) {
    b.mdb({0x0C, 0x00, 0x1F, 0xFF, 0xFF});
}

TEST(CoinChanger, ReportsJustResetOnceAndRepeatsUnacknowledgedData) {
    Bench b;
    EXPECT_EQ(b.mdb({0x08}), "0001 ") << "the engine acknowledges even a bare ACK";
    EXPECT_EQ(b.mdb({0x0B}, false), "0b00 0b01 ");
    EXPECT_EQ(b.mdb({0x0B}, false), "0b00 0b01 ") << "not acknowledged: sent again";
    // A RET asks for the same answer at once.
    EXPECT_EQ(b.exchange(b.models.mdbLink(), {0xAA, 0x00}), "0b00 0b01 ");
    b.ack();
    EXPECT_EQ(b.mdb({0x0B}), "0001 ");
    EXPECT_EQ(b.mdb({0x0B}), "0001 ");
}

TEST(BillValidator, ReportsJustResetWithDisabledThenDisabledOnEveryPoll) {
    Bench b;
    EXPECT_EQ(b.mdb({0x30}), "0001 ");
    EXPECT_EQ(b.mdb({0x33}), "0600 0900 0f01 ");
    EXPECT_EQ(b.mdb({0x33}), "0900 0901 ");
    b.mdb({0x34, 0x00, 0x1F, 0x00, 0x00});
    EXPECT_EQ(b.mdb({0x33}), "0001 ");
}

TEST(MdbAdapter, DropsBadCheckBytesUnfinishedCommandsAndStrangers) {
    Bench b;
    LinkDevice& line = b.models.mdbLink();
    EXPECT_EQ(b.exchange(line, {0x0B, 0x01, 0x0C, 0x00}), "") << "bad check byte";
    b.write(line, {0x0C, 0x01, 0x00, 0x00});  // COIN TYPE begun, then abandoned
    b.wait(line, 1.5);
    EXPECT_EQ(b.mdb({0x0B}, false), "0b00 0b01 ") << "a silence ends an unfinished command";
    EXPECT_EQ(b.mdb({0x10}, false), "") << "nobody at the cashless address";
    EXPECT_EQ(b.exchange(line, {0x0A}), "") << "half a word";
}

TEST(CoinChanger, DepositsFillTheTubesAndAFullTubesCoinsGoToTheCashBox) {
    Bench b;
    CoinChanger& changer = b.models.changer();
    b.mdb({0x0B});  // takes the reset report
    enableCoins(b);
    ASSERT_TRUE(changer.insertCoin(1, b.now).ok);
    b.now += 0.5;
    EXPECT_EQ(b.mdb({0x0B}), "5100 2900 7a01 ") << "type 1 to its tube, 41 coins";
    EXPECT_EQ(mdb::Reply(b.mdb({0x0A})).number(4), 41);

    ASSERT_TRUE(changer.setTubeCount(4, 100).ok);
    ASSERT_TRUE(changer.insertCoin(4, b.now).ok);
    b.now += 0.5;
    EXPECT_EQ(b.mdb({0x0B}), "4400 6400 a801 ") << "full tube: to the cash box";
    EXPECT_EQ(changer.cashBoxCount(4), 1);
    EXPECT_EQ(mdb::Reply(b.mdb({0x0A})).number(2), 0x10) << "tube 4 full";
    EXPECT_FALSE(changer.insertCoin(7, b.now).ok) << "no such coin type";
}

TEST(CoinChanger, CoinsRightBehindEachOtherComeInSeparatePolls) {
    Bench b;
    b.mdb({0x0B});
    enableCoins(b);
    b.models.changer().insertCoin(0, b.now);
    b.models.changer().insertCoin(0, b.now);
    b.now += 0.35;
    EXPECT_EQ(b.mdb({0x0B}).size(), 15u) << "one coin's two bytes and the check byte";
    b.now += 0.6;
    EXPECT_EQ(b.mdb({0x0B}).size(), 15u);
    EXPECT_EQ(b.models.changer().tubeCount(0), 42);
}

TEST(CoinChanger, ResetStopsAPayoutAndDisablesCoins) {
    Bench b;
    enableCoins(b);
    b.mdb({0x0F, 0x02, 40});
    b.now += 0.6;
    b.mdb({0x08});
    b.wait(b.models.mdbLink(), 5);
    EXPECT_EQ(b.models.changer().paidOutCount(4), 1);
    EXPECT_EQ(b.models.changer().coinEnableMask(), 0);
    EXPECT_FALSE(b.models.changer().insertCoin(0, b.now).ok);
}

TEST(BillValidator, StacksEnabledBillsAndHoldsEscrowedOnes) {
    Bench b;
    BillValidator& validator = b.models.validator();
    b.mdb({0x30});
    b.mdb({0x33});
    EXPECT_FALSE(validator.insertBill(0, b.now).ok) << "validator disabled";
    EXPECT_EQ(b.mdb({0x33}), "4100 0900 4a01 ");
    b.mdb({0x34, 0x00, 0x03, 0x00, 0x02});  // types 0, 1; escrow on type 1
    EXPECT_FALSE(validator.insertBill(2, b.now).ok);
    EXPECT_EQ(b.mdb({0x33}), "c200 c201 ");
    ASSERT_TRUE(validator.insertBill(0, b.now).ok);
    b.now += 1.1;
    EXPECT_EQ(b.mdb({0x33}), "8000 8001 ");
    ASSERT_TRUE(validator.insertBill(1, b.now).ok);
    b.now += 2.5;
    EXPECT_EQ(b.mdb({0x33}), "9100 9101 ");
    EXPECT_EQ(b.mdb({0x35, 0x01}), "0001 ");
    EXPECT_EQ(b.mdb({0x33}), "8100 8101 ");
    EXPECT_EQ(validator.stackedCount(0), 1);
    EXPECT_EQ(validator.stackedCount(1), 1);
    EXPECT_EQ(b.mdb({0x36}), "0000 0200 0201 ");
}

}  // namespace
}  // namespace kestrix::sim
