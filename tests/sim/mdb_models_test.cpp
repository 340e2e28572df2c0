#include <gtest/gtest.h>

#include "bench.h"
#include "sim/mdb/bill_validator.h"
#include "sim/mdb/coin_changer.h"
#include "sim/mdb/mdb_adapter.h"

namespace kestrix::sim {
namespace {

using test::ByteList;
using test::mdbWords;
using test::replyBytes;

struct MdbBench {
    CoinChanger changer;
    BillValidator validator;
    MdbAdapter adapter;
    test::Host host{adapter};

    MdbBench() {
        adapter.attach(&changer);
        adapter.attach(&validator);
    }
    std::string send(const ByteList& command, double seconds = 0.1) {
        return host.exchange(mdbWords(command), seconds);
    }
    void ack() { host.exchange(test::kMdbAck, 0.01); }
    // Sends and acknowledges a complete reply, as the engine does.
    std::string sendAcked(const ByteList& command, double seconds = 0.1) {
        std::string reply = send(command, seconds);
        if (reply.size() >= 3 && reply.compare(reply.size() - 3, 3, "01 ") == 0) {
            ack();
        }
        return reply;
    }
    void enableCoins(std::uint16_t mask) {
        sendAcked({0x0C, static_cast<std::uint8_t>(mask >> 8),
                   static_cast<std::uint8_t>(mask & 0xFF), 0xFF, 0xFF});
    }
};

TEST(CoinChanger, ReportsJustResetOnceAndRepeatsUnacknowledgedData) {
    MdbBench b;
    EXPECT_EQ(b.send({0x08}), "0001 ");
    b.ack();  // the engine acknowledges even a bare ACK
    EXPECT_EQ(b.send({0x0B}), "0b00 0b01 ");
    EXPECT_EQ(b.send({0x0B}), "0b00 0b01 ") << "not acknowledged: sent again";
    // A RET asks for the same answer at once.
    EXPECT_EQ(b.host.exchange({0xAA, 0x00}), "0b00 0b01 ");
    b.ack();
    EXPECT_EQ(b.send({0x0B}), "0001 ");
    b.ack();
    EXPECT_EQ(b.send({0x0B}), "0001 ");
}

TEST(BillValidator, ReportsJustResetWithDisabledThenDisabledOnEveryPoll) {
    MdbBench b;
    EXPECT_EQ(b.sendAcked({0x30}), "0001 ");
    EXPECT_EQ(b.sendAcked({0x33}), "0600 0900 0f01 ");
    EXPECT_EQ(b.sendAcked({0x33}), "0900 0901 ");
    b.sendAcked({0x34, 0x00, 0x1F, 0x00, 0x00});
    EXPECT_EQ(b.sendAcked({0x33}), "0001 ");
}

TEST(MdbAdapter, DropsBadCheckBytesUnfinishedCommandsAndStrangers) {
    MdbBench b;
    EXPECT_EQ(b.host.exchange({0x0B, 0x01, 0x0C, 0x00}), "") << "bad check byte";
    b.host.write({0x0C, 0x01, 0x00, 0x00});  // COIN TYPE begun, then abandoned
    b.host.wait(1.5);
    EXPECT_EQ(b.send({0x0B}), "0b00 0b01 ") << "a silence ends an unfinished command";
    EXPECT_EQ(b.send({0x10}), "") << "nobody at the cashless address";
    EXPECT_EQ(b.host.exchange({0x0A}), "") << "half a word";
}

TEST(CoinChanger, DepositsFillTheTubesAndAFullTubesCoinsGoToTheCashBox) {
    MdbBench b;
    b.sendAcked({0x0B});  // takes the reset report
    b.enableCoins(0x001F);
    ASSERT_TRUE(b.changer.insertCoin(1, b.host.now).ok);
    b.host.wait(0.5);
    EXPECT_EQ(b.sendAcked({0x0B}), "5100 2900 7a01 ") << "type 1 to its tube, 41 coins";
    EXPECT_EQ(replyBytes(b.sendAcked({0x0A}))[3], 41);

    ASSERT_TRUE(b.changer.setTubeCount(4, 100).ok);
    ASSERT_TRUE(b.changer.insertCoin(4, b.host.now).ok);
    b.host.wait(0.5);
    EXPECT_EQ(b.sendAcked({0x0B}), "4400 6400 a801 ") << "full tube: to the cash box";
    EXPECT_EQ(b.changer.cashBoxCount(4), 1);
    const ByteList tubes = replyBytes(b.sendAcked({0x0A}));
    EXPECT_EQ(tubes[1], 0x10) << "tube 4 full";
    EXPECT_FALSE(b.changer.insertCoin(7, b.host.now).ok) << "no such coin type";
}

TEST(CoinChanger, CoinsRightBehindEachOtherComeInSeparatePolls) {
    MdbBench b;
    b.sendAcked({0x0B});
    b.enableCoins(0x001F);
    b.changer.insertCoin(0, b.host.now);
    b.changer.insertCoin(0, b.host.now);
    b.host.wait(0.35);
    EXPECT_EQ(replyBytes(b.sendAcked({0x0B})).size(), 3u);
    b.host.wait(0.6);
    EXPECT_EQ(replyBytes(b.sendAcked({0x0B})).size(), 3u);
    EXPECT_EQ(b.changer.tubeCount(0), 42);
}

TEST(CoinChanger, ResetStopsAPayoutAndDisablesCoins) {
    MdbBench b;
    b.enableCoins(0x001F);
    b.sendAcked({0x0F, 0x02, 40});
    b.host.wait(0.6);
    b.sendAcked({0x08});
    b.host.wait(5);
    EXPECT_EQ(b.changer.paidOutCount(4), 1);
    EXPECT_EQ(b.changer.coinEnableMask(), 0);
    EXPECT_FALSE(b.changer.insertCoin(0, b.host.now).ok);
}

TEST(BillValidator, StacksEnabledBillsAndHoldsEscrowedOnes) {
    MdbBench b;
    b.sendAcked({0x30});
    b.sendAcked({0x33});
    EXPECT_FALSE(b.validator.insertBill(0, b.host.now).ok) << "validator disabled";
    EXPECT_EQ(b.sendAcked({0x33}), "4100 0900 4a01 ");
    b.sendAcked({0x34, 0x00, 0x03, 0x00, 0x02});  // types 0, 1; escrow on type 1
    EXPECT_FALSE(b.validator.insertBill(2, b.host.now).ok);
    EXPECT_EQ(b.sendAcked({0x33}), "c200 c201 ");
    ASSERT_TRUE(b.validator.insertBill(0, b.host.now).ok);
    b.host.wait(1.1);
    EXPECT_EQ(b.sendAcked({0x33}), "8000 8001 ");
    ASSERT_TRUE(b.validator.insertBill(1, b.host.now).ok);
    b.host.wait(2.5);
    EXPECT_EQ(b.sendAcked({0x33}), "9100 9101 ");
    EXPECT_EQ(b.sendAcked({0x35, 0x01}), "0001 ");
    EXPECT_EQ(b.sendAcked({0x33}), "8100 8101 ");
    EXPECT_EQ(b.validator.stackedCount(0), 1);
    EXPECT_EQ(b.validator.stackedCount(1), 1);
    EXPECT_EQ(replyBytes(b.sendAcked({0x36})), (ByteList{0x00, 0x02, 0x02}));
}

}  // namespace
}  // namespace kestrix::sim
