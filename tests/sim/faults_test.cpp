#include <gtest/gtest.h>

#include <functional>

#include "bench.h"
#include "engine/dispenser/bill_dispenser.h"
#include "engine/mdb/reply.h"
#include "sim/world/virtual_kiosk.h"

namespace kestrix::sim {
namespace {

using bd::field;
using bd::renderReply;
using test::Bench;
using test::hex;

// Read rounds until the dispense answer came, and the last read.
std::string dispense(Bench& k) {
    LinkDevice& d = k.models.dispenserLink();
    std::string got = k.exchange(d, test::bytesOf(bd::dispenseFrame().header), 0.2);
    for (const std::string& part : bd::dispenseFrame().body) {
        d.receive(part, k.now);
    }
    got += k.wait(d, 2);
    for (int round = 1; round <= 5; ++round) {
        got += k.wait(d, 1.4);
        if (renderReply(got).size() >= 13) {
            return renderReply(got);
        }
        got.clear();
    }
    return {};
}

std::string hopperStatusAfterPayingThree(Bench& k) {
    LinkDevice& bus = k.models.hoppersLink();
    k.exchange(bus, hex("03 01 01 A4 A5 B2"));
    k.exchange(bus, hex("03 04 01 A7 4E 46 05 03 B5"));
    k.wait(bus, 3);
    const test::ByteList r = test::bytesOf(k.exchange(bus, hex("03 00 01 A6 56")));
    return r.size() < 14
               ? "?"
               : std::to_string(r[10]) + " " + std::to_string(r[11]) + " " + std::to_string(r[12]);
}

struct FaultRow {
    const char* device;
    const char* fault;
    std::function<std::string(Bench&)> probe;
    const char* normal;
    const char* faulty;
};

std::string pollAfterReset(Bench& k) {
    k.mdb({0x0B});
    return k.mdb({0x0B});
}

const FaultRow kRows[] = {
    {"adapter", "garbage", [](Bench& k) { return k.mdb({0x0B}); }, "0b00 0b01 ", "0b00 #~0b01 "},
    {"changer", "reset-only",
     [](Bench& k) { return k.mdb({0x08}) + "/" + std::to_string(k.mdb({0x09}).size()); },
     "0001 /120", "0001 /0"},
    {"changer", "payout-jam",
     [](Bench& k) {
         k.mdb({0x0B});
         k.mdb({0x0F, 0x02, 20});  // one coin of 20 credits
         std::string events;
         for (int i = 0; i < 10; ++i) {
             k.now += 0.2;
             const std::string r = k.mdb({0x0B});
             events += r == "0200 0201 " ? "" : r;
         }
         const bool jam = events.find("0700 0701 ") != std::string::npos;
         return (jam ? "07, tube " : "tube ") + std::to_string(k.models.changer().tubeCount(4));
     },
     "tube 9", "07, tube 10"},
    {"changer", "busy-forever", pollAfterReset, "0001 ", "0200 0201 "},
    {"validator", "ccd",
     [](Bench& k) {
         return mdb::Reply(k.mdb({0x37, 0x00})).characters(1, 3);
     },
     "KSX", "CCD"},
    {"dispenser", "empty", [](Bench& k) { return field(dispense(k), 100, 2); }, "B1", "00"},
    {"dispenser", "slow", [](Bench& k) { return field(dispense(k), 1, 8); }, "10061006",
     "10051002"},
    {"hopper1", "empty", hopperStatusAfterPayingThree, "0 3 0", "0 0 3"},
    {"hopper2", "no-echo",
     [](Bench& k) { return hexBytes(k.exchange(k.models.hoppersLink(), hex("03 00 01 FE FE"))); },
     "03 00 01 FE FE 01 00 03 00 FC", "01 00 03 00 FC"},
};

TEST(FaultSwitches, EachFaultChangesWhatTheDeviceDoes) {
    for (const FaultRow& row : kRows) {
        SCOPED_TRACE(std::string(row.device) + " " + row.fault);
        Bench normal;
        EXPECT_EQ(row.probe(normal), row.normal);
        Bench faulty;
        ASSERT_TRUE(faulty.models.setFault(row.device, row.fault, true).ok);
        EXPECT_EQ(row.probe(faulty), row.faulty);
    }
}

TEST(FaultSwitches, UnknownNamesAreRefusedAndEveryModelListsItsFaults) {
    VirtualKiosk k;
    EXPECT_FALSE(k.models().changer().setFault("melted", true));
    const ControlResult r = k.models().setFault("changer", "melted", true);
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.text.find("payout-jam"), std::string::npos) << r.text;
    EXPECT_FALSE(k.models().setFault("toaster", "silent", true).ok);
    for (const std::string& device : k.models().deviceNames()) {
        const ControlResult list = k.models().command("faults " + device);
        EXPECT_TRUE(list.ok) << device;
        EXPECT_NE(list.text.find(" off"), std::string::npos) << device;
    }
    EXPECT_TRUE(k.models().setFault("changer", "silent", true).ok);
    EXPECT_EQ(k.models().changer().activeFaults(), std::vector<std::string>{"silent"});
    EXPECT_TRUE(k.models().setFault("changer", "silent", false).ok);
    EXPECT_TRUE(k.models().changer().activeFaults().empty());
}

}  // namespace
}  // namespace kestrix::sim
