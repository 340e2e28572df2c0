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

// Each answer: its data length, a right check byte, and the mode bit on the last word only.
TEST(MdbAdapter, ReportsEveryWordWithItsModeAndACorrectCheckByte) {
    struct Row {
        ByteList command;
        std::size_t dataBytes;
    };
    const Row rows[] = {
        {{0x09}, 23},        // changer SETUP
        {{0x0A}, 18},        // TUBE STATUS
        {{0x0F, 0x00}, 33},  // changer identification
        {{0x0F, 0x05}, 2},   // diagnostic status
        {{0x31}, 27},        // validator SETUP
        {{0x37, 0x00}, 29},  // validator identification (level 1)
        {{0x36}, 2},         // STACKER
    };
    MdbBench b;
    for (const Row& r : rows) {
        const std::string text = b.sendAcked(r.command, 0.5);
        ASSERT_EQ(text.size(), (r.dataBytes + 1) * 5) << text;
        for (std::size_t i = 0; i + 5 <= text.size(); i += 5) {
            const bool last = i + 5 == text.size();
            EXPECT_EQ(text.substr(i + 2, 3), last ? "01 " : "00 ") << text;
        }
        const ByteList bytes = replyBytes(text);
        EXPECT_EQ(mdbCheck(ByteList(bytes.begin(), bytes.end() - 1)), bytes.back()) << text;
    }
}

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

// COIN TYPE paced word by word, as the engine sends it, with a first data word 00 00 that looks
// exactly like an ACK: the adapter must count it as data.
TEST(MdbAdapter, AssemblesACommandFromWordsSentOneByOne) {
    MdbBench b;
    const ByteList words = mdbWords({0x0C, 0x00, 0x1F, 0xFF, 0xFF});
    std::string reply;
    for (std::size_t i = 0; i < words.size(); i += 2) {
        b.host.write({words[i], words[i + 1]});
        reply += b.host.wait(0.1);
        if (i + 2 < words.size()) {
            EXPECT_EQ(reply, "") << "answered before the command was complete";
        }
    }
    EXPECT_EQ(reply, "0001 ");
    EXPECT_EQ(b.changer.coinEnableMask(), 0x001F);
    EXPECT_EQ(b.changer.manualDispenseMask(), 0xFFFF);
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

TEST(CoinChanger, DepositsAreGatedByTheEnableMaskAndFillTheTubes) {
    MdbBench b;
    b.sendAcked({0x0B});  // takes the reset report
    const ControlResult refused = b.changer.insertCoin(1, b.host.now);
    EXPECT_FALSE(refused.ok);
    EXPECT_NE(refused.text.find("not enabled"), std::string::npos);
    EXPECT_EQ(b.sendAcked({0x0B}), "7100 2800 9901 ") << "reported as rejected";

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

// 15 credit units (7.5 to the engine) are paid as 10 + 4 + 1, one coin about every half
// second, with 02 on every POLL meanwhile.
TEST(CoinChanger, AlternativePayoutReportsBusyWhileItPaysCoinByCoin) {
    MdbBench b;
    b.sendAcked({0x0B});
    EXPECT_EQ(b.sendAcked({0x0F, 0x02, 15}), "0001 ");
    int busyPolls = 0;
    for (int i = 0; i < 20 && b.sendAcked({0x0B}, 0.2) == "0200 0201 "; ++i) {
        ++busyPolls;
    }
    EXPECT_GE(busyPolls, 6);
    EXPECT_LE(busyPolls, 8);
    EXPECT_EQ(b.changer.tubeCount(3), 19);
    EXPECT_EQ(b.changer.tubeCount(2), 29);
    EXPECT_EQ(b.changer.tubeCount(0), 39);
    const ByteList status = replyBytes(b.sendAcked({0x0F, 0x03}));
    EXPECT_EQ((ByteList{status[0], status[1], status[2], status[3]}), (ByteList{1, 0, 1, 1}));
}

TEST(CoinChanger, PaysNoMoreThanAskedWhenTubesRunShort) {
    MdbBench b;
    for (int t = 0; t < 5; ++t) {
        b.changer.setTubeCount(t, 0);
    }
    b.changer.setTubeCount(1, 3);  // three coins of 2 credits
    b.sendAcked({0x0F, 0x02, 9});
    b.host.wait(5);
    EXPECT_EQ(b.changer.tubeCount(1), 0);
    EXPECT_EQ(b.changer.paidOutCount(1), 3);
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
