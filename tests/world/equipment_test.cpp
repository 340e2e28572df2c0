// Equipment initialisation, the bill dispenser and the MDB part of Exit on the simulated kiosk in
// virtual time; scripted replies where no well-behaved device gives them.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <tuple>

#include "engine/dispenser/bill_dispenser.h"
#include "engine/errors.h"
#include "engine/mdb/link.h"
#include "engine/settings/layout.h"
#include "engine/setup.h"
#include "support/kiosk.h"

namespace kestrix {
namespace {

using test::Kiosk;
using test::mdbReply;
using namespace std::string_literals;

// Replies no well-behaved device gives, in place of the simulated devices' own: each command
// in `replies`, keyed by the engine's write that ends it, is answered with its next reply (the
// last repeats); the writes before that one are swallowed. `asked` counts each command.
struct Scripted {
    explicit Scripted(std::map<std::string, std::vector<std::string>> script)
        : replies(std::move(script)) {}
    std::map<std::string, std::vector<std::string>> replies;
    std::map<std::string, int> asked;

    void wire(Kiosk& k) {
        k.mdbTap().answer = [this](std::string_view bytes, double) -> std::optional<std::string> {
            for (auto& [last, script] : replies) {
                if (bytes == last) {
                    const auto n = static_cast<std::size_t>(asked[last]++);
                    return script[std::min(n, script.size() - 1)];
                }
                if (bytes[0] == last[0] && bytes.size() == 2 && bytes[1] == 1) {
                    return std::string();  // its first word
                }
            }
            return std::nullopt;
        };
    }
};

// Occurrences of `bytes` in what the engine wrote to the MDB adapter.
int sent(Kiosk& k, std::string_view bytes) {
    int n = 0;
    const std::string& w = k.mdbPort().written();
    for (std::size_t at = w.find(bytes); at != std::string::npos; at = w.find(bytes, at + 2)) {
        ++n;
    }
    return n;
}

// The validator's model number: an MDB identification text field of twelve characters.
const std::string kValidatorModel = "KSX-BV-5    ";

const std::string kReset = std::string("\x30\x01\x30\x00", 4);

TEST(InitEquipment, PublishesWhatEveryDeviceOfTheKioskReports) {
    Kiosk k;
    k.set("Status", "KSX_Error", "1");
    ASSERT_TRUE(k.start());
    const sim::KioskProfile& p = k.models().profile();
    EXPECT_TRUE(k.shown().empty());
    EXPECT_EQ(k.mailbox("KSX_Error"), "0");
    EXPECT_EQ(k.setting("Pin Pad", "On Line"), "Yes");
    EXPECT_EQ(k.dispenser().setUpFor(), 20) << "its bills of 50 share the set-up of 20";

    // Bytes 28 and 29 of the validator's identification are the BCD version 02 10, byte 30 its
    // check byte: the engine shows all three as decimal numbers. The stacker capacity is in
    // bytes 7-8. (The other identification and SETUP fields follow the same position rule.)
    const std::pair<const char*, std::string> fields[] = {
        {"ccOnLine", "Yes"},
        {"bdMaxLenght", "139"},
        {"caCountryCode", "1484"},
        {"caSerialNumber", p.changer.serialNumber},
        {"bvScalingFactor", "100"},
        {"bvStackerCapacity", "500"},
        {"bvSoftwareVersion", "216232"}};
    for (const auto& [field, value] : fields) {
        EXPECT_EQ(k.text(FieldName::runtime(field)), value) << field;
    }
    EXPECT_EQ(k.mailbox("BDCassette"), "OK");
    EXPECT_EQ(k.mailbox("Tubes"), "320");
    for (int n : {1, 5}) {
        const std::string count =
            std::to_string(p.changer.tubeStart[static_cast<std::size_t>(n - 1)]);
        EXPECT_EQ(k.setting("CoinAcceptor", store::key::tubeCoinType(n)), n == 1 ? "0.5" : "10");
        EXPECT_EQ(k.setting("CoinAcceptor", store::key::tubeCoinQty(n)), count);
    }
}

TEST(InitEquipment, AnAbsentChangerIsGivenUpOnItsFiveHundredFirstReadAndTheValidatorGoesOn) {
    Kiosk k;
    k.control("fault changer silent on");
    ASSERT_TRUE(k.start());
    EXPECT_EQ(k.shown(), std::vector<std::string>{"Check Coin Acceptor Connection!"});
    EXPECT_FALSE(k.checked("CoinAcceptorEnabled"));
    EXPECT_EQ(k.text("caScalingFactor"), "N/A");
    EXPECT_EQ(k.text("bvModelNumber"), kValidatorModel);
    EXPECT_EQ(k.mailbox("KSX_Error"), "0");

    Kiosk alone;  // the changer alone on the link: exactly 501 reads
    alone.set("BillValidator", "BVE", "0");
    alone.control("fault changer silent on");
    ASSERT_TRUE(alone.start());
    EXPECT_EQ(alone.mdbPort().reads(), 501);
}

TEST(InitEquipment, AnAbsentValidatorGetsThreeHundredAndOneResetsThenTheRoutineEnds) {
    Kiosk k;
    k.control("fault validator silent on");
    ASSERT_TRUE(k.start());
    EXPECT_EQ(k.shown(), std::vector<std::string>{"Check Bill Validator Connection!"});
    EXPECT_FALSE(k.checked("billValidatorEnabled"));
    EXPECT_EQ(sent(k, kReset), 301);
    EXPECT_EQ(sent(k, std::string("\x33\x01", 2)), 0) << "no POLL after the failed RESET";
    EXPECT_EQ(k.text("bvFeatureLevel"), "N/A");
    EXPECT_EQ(k.text("caManufacturer"), "KSX");

    Kiosk flaky;  // misses two replies in a row, answers the third: taken on a later attempt
    flaky.control("fault validator flaky on");
    ASSERT_TRUE(flaky.start());
    EXPECT_TRUE(flaky.messageBox().shown().empty());
    EXPECT_EQ(flaky.text("bvModelNumber"), kValidatorModel);
    EXPECT_GT(sent(flaky, kReset), 1);
}

TEST(InitEquipment, APortErrorNamesTheStepAndInitialisesNothingAfterIt) {
    struct Row {
        const char* name;
        std::function<void(Kiosk&)> breakIt;
        const char* portName;
        bool dispenserDone, hoppersOpen, mdbOpened;
    };
    const Row rows[] = {
        {"dispenser port missing", [](Kiosk& k) { k.set("Settings", "COM1", "7"); },
         "Bill Dispenser", false, false, false},
        {"hoppers port missing", [](Kiosk& k) { k.set("Settings", "COM2", "9"); },
         "Hoppers Interface", true, false, false},
        {"MDB port missing", [](Kiosk& k) { k.set("Settings", "COM", "4"); }, "MDB Interface", true,
         true, false},
        {"MDB cable pulled during SETUP",
         [](Kiosk& k) {
             k.mdbTap().onWrite = [&k](std::string_view b) {
                 if (b.starts_with(std::string_view("\x09\x01", 2))) {
                     k.mdbPort().unplug();
                 }
             };
         },
         "MDB Interface", true, true, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Kiosk k;
        row.breakIt(k);
        ASSERT_TRUE(k.start());
        EXPECT_EQ(k.shown(), std::vector<std::string>{std::string(row.portName) +
                                                      "- Port Error. Please select another port."});
        EXPECT_EQ(k.mailbox("KSX_Error"), "1");
        EXPECT_EQ(k.text("bdStatus") == "OK", row.dispenserDone);
        EXPECT_EQ(k.hoppersPort().isOpen(), row.hoppersOpen);
        EXPECT_EQ(k.mdbPort().opens() > 0, row.mdbOpened);
        EXPECT_EQ(k.text("bvFeatureLevel"), "N/A");
        EXPECT_TRUE(k.checked("CoinAcceptorEnabled"));
    }
    // Junk where a whole number belongs is the same run-time error as a missing port.
    for (const auto& [field, portName] : {std::pair{FieldName("comPorts"), "MDB Interface"},
                                          {FieldName("comPorts1"), "Bill Dispenser"},
                                          {FieldName("bDispType"), "Bill Dispenser"}}) {
        Kiosk k;
        ASSERT_TRUE(k.start());
        k.console().setText(field, "COM1");
        k.engine().InitEquipment();
        EXPECT_EQ(k.shown(), std::vector<std::string>{std::string(portName) +
                                                      "- Port Error. Please select another port."})
            << field.str();
    }
}

// A pin pad library that cannot be reached.
class UnreachableLibrary : public sim::SimPinPad {
public:
    using SimPinPad::SimPinPad;
    PinPadIdentity identify() override {
        throw KsxError(429, "ActiveX component can't create object", "cpIntegracionEMV");
    }
};

TEST(InitEquipment, AnOffLineOrUnreachablePinPadIsNotAPortError) {
    Kiosk k;
    UnreachableLibrary library(k.clock(), k.scheduler(), k.store());
    const auto engine = k.engineOn(library);
    ASSERT_TRUE(engine->startUp());
    EXPECT_TRUE(k.messageBox().shown().empty());
    EXPECT_EQ(engine->console().text("ccOnLine"), "No");
    EXPECT_EQ(engine->console().text("bvModelNumber"), kValidatorModel);
    EXPECT_EQ(k.setting("Pin Pad", "On Line"), "No");

    Kiosk offline;
    offline.control("fault pinpad offline on");
    ASSERT_TRUE(offline.start());
    EXPECT_EQ(offline.text("ccOnLine"), "No");
    EXPECT_EQ(offline.text("ccModel"), "N/A");
    EXPECT_TRUE(offline.console().enabled("ccReadCard")) << "the box decides";
}

TEST(InitEquipment, ChangerAndValidatorProfiles) {
    // Scaling factor 5: a credit of 0Ah is a coin of 2.
    sim::KioskProfile p = sim::defaultProfile();
    p.changer.scalingFactor = 5;
    p.changer.coinCredits = {10, 25, 10, 50};
    p.changer.tubeRouting = 0x0007;
    p.changer.tubeStart = {11, 22, 33};
    // Security levels 00FF: their low byte is byte 10, where the escrow flag is read.
    p.validator.securityLevels = 0x00FF;
    Kiosk k(p);
    ASSERT_TRUE(k.start());
    // Types 1 and 3 share a value: its slots show the higher type's count; three routed types.
    EXPECT_EQ(k.texts({"ct1_value", "ct2_value", "ct4_value", "tubeCoinType1", "tubeCoinType3",
                       "tubeCoinQty1", "tubeCoinQty3", "tubeCoinQty2", "tubeCoinType4",
                       "tubesAmount", "bvEscrowCapability", "bvSecurityLevels"}),
              (std::vector<std::string>{"2", "5", "10", "2", "2", "33", "33", "22", "0",
                                        std::to_string(11 * 2 + 22 * 5 + 33 * 2), "YES", "f400H"}));
}

TEST(InitEquipment, ScriptedRepliesNoPeripheralShouldSend) {
    // A tube status that is only an acknowledgement is asked again, each time after its wait; a
    // garbled identification (wrong check byte) is asked again; a short SETUP (two coin types)
    // leaves the other coin types and fields empty: its check byte is no coin's credit.
    Kiosk k;
    Scripted mdb{
        {{"\x09\x01\x09\x00"s, {mdbReply({0x02, 0x14, 0x84, 0x01, 0x02, 0x00, 0x03, 5, 10})}},
         {"\x0F\x00"s, {"4b00 ??00 5801 ", mdbReply({'K', 'X'})}},
         {"\x0A\x00"s, {"0001 ", "0001 ", mdbReply({0, 0, 3})}},
         {"\x31\x00"s, {mdbReply({0x01, 0x14, 0x84, 0x00, 0x64, 0x01})}}}};
    mdb.wire(k);
    ASSERT_TRUE(k.start());
    EXPECT_TRUE(k.messageBox().shown().empty());
    EXPECT_EQ(mdb.asked["\x0A\x00"s], 3);
    EXPECT_EQ(mdb.asked["\x0F\x00"s], 2);
    // The manufacturer ends in the check byte where a third letter was; a short SETUP leaves
    // the stacker's capacity empty.
    EXPECT_EQ(k.texts({"ct1_value", "ct3_value", "caManufacturer", "caSerialNumber", "tubeCoinQty1",
                       "tubeCoinQty2", "tubesAmount", "bvDecimalPlaces", "bvStackerCapacity"}),
              (std::vector<std::string>{"5", "0", "KX\xA3", "", "3", "0", "15", "1", ""}));

    // A scaling factor of 0 cannot give coin values: a run-time error, told as a port error.
    Kiosk zero;
    Scripted zeroMdb{
        {{"\x09\x01\x09\x00"s, {mdbReply({0x03, 0x14, 0x84, 0x00, 0x01, 0x00, 0x1F, 1, 2})}}}};
    zeroMdb.wire(zero);
    ASSERT_TRUE(zero.start());
    EXPECT_EQ(zero.shown(),
              std::vector<std::string>{"MDB Interface- Port Error. Please select another port."});

    // Junk text between the adapter's words never stops the initialisation.
    Kiosk garbage;
    garbage.control("fault adapter garbage on");
    ASSERT_TRUE(garbage.start());
    EXPECT_TRUE(garbage.checked("CoinAcceptorEnabled"));
}

TEST(BillDispenser, IsSetUpForItsBillTypeAndATypeWithoutASetUpIsAnError) {
    for (int type : {20, 50, 100, 1000, 0, 5}) {
        Kiosk k;
        k.dispenserPort().open(sim::VirtualKiosk::kPorts.dispenser, BillDispenser::kLineSettings);
        int bType = type;
        k.engine().dispenser().initBillDispenser(bType);
        const bool known = type >= 20;
        EXPECT_EQ(k.text("bdStatus"), known ? "OK" : "ERR") << type;
        EXPECT_EQ(k.dispenser().setUpFor(), known ? (type == 50 ? 20 : type) : 0) << type;
    }
}

TEST(BillDispenser, FaultsShowInStatusCassetteAndFields) {
    // Fault, status, cassette, software version. "shifted": a byte 0Ch in the cassette count, so
    // every later field is read one character early.
    const std::tuple<std::string, const char*, const char*, const char*> rows[] = {
        {"low", "OK", "LOW", "0215"},
        {"error", "ERR", "OK", "0215"},
        {"silent", "ERR", "OK", ""},
        {"shifted", "OK", "OK", "0215"},
    };
    for (const auto& [fault, status, cassette, version] : rows) {
        SCOPED_TRACE(fault);
        Kiosk k;
        k.control("fault dispenser " + fault + " on");
        ASSERT_TRUE(k.start());
        EXPECT_TRUE(k.messageBox().shown().empty());
        EXPECT_EQ(k.text("bdStatus"), status);
        EXPECT_EQ(k.mailbox("BDStatus"), status);
        EXPECT_EQ(k.text("bdCasetteStatus"), cassette);
        EXPECT_EQ(k.mailbox("BDCassette"), cassette);
        EXPECT_EQ(k.text("bdSWVersion"), version);
        if (fault == "shifted") {
            EXPECT_NE(k.text("bdMaxLenght"), "139");
        }
    }
}

TEST(BillDispenser, AQuantityIsPaidBillByBillAndStopsOnAnError) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    k.dispenser().setBills(2);
    k.console().setText("bdQtyBills", "5");
    k.engine().dispenser().bdDispenseBills_Click();
    EXPECT_EQ(k.dispenser().billsDelivered(), 2);
    EXPECT_EQ(k.text("bdBillsDispensed"), "2");
    EXPECT_EQ(k.text("bdStatus"), "ERR");
    EXPECT_EQ(k.mailbox("BDStatus"), "ERR");
    EXPECT_EQ(k.mailbox("BDDispensed"), "2");
    EXPECT_TRUE(k.console().enabled("bdDispenseBills"));

    // In error nothing is paid until a status read clears it; the refill's status does.
    k.engine().dispenser().bdDispenseBills_Click();
    EXPECT_EQ(k.dispenser().billsDelivered(), 2);
    k.dispenser().setBills(100);
    k.engine().dispenser().bdDispenserRefill_Click();
    EXPECT_EQ(k.text("bdStatus"), "OK");
    EXPECT_EQ(k.mailbox("BDDispensed"), "0");

    // A slow dispenser answers after the engine's first read: it asks again until it has it.
    k.control("fault dispenser slow on");
    k.console().setText("bdQtyBills", "1");
    k.engine().dispenser().bdDispenseBills_Click();
    EXPECT_EQ(k.dispenser().billsDelivered(), 3);
    EXPECT_EQ(k.mailbox("BDDispensed"), "1");
}

TEST(BillDispenser, NothingToPayPaysNothingAndAVanishedPortIsAnError) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    for (const char* qty : {"0", "two", "-3"}) {
        k.console().setText("bdQtyBills", qty);
        k.engine().dispenser().bdDispenseBills_Click();
        EXPECT_EQ(k.mailbox("BDDispensed"), "0") << qty;
    }
    EXPECT_EQ(k.dispenser().billsDelivered(), 0);
    k.console().setText("bdQtyBills", "1");
    k.dispenserPort().unplug();
    k.engine().dispenser().bdDispenseBills_Click();
    EXPECT_EQ(k.text("bdStatus"), "ERR");
    EXPECT_EQ(k.mailbox("BDDispensed"), "0");
    EXPECT_TRUE(k.console().enabled("bdDispenserRefill"));
}

TEST(Exit, ResetsTheChangerThenTheValidatorUntilItAnswers) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    // The validator misses two resets, then two polls: each is followed by an ACK, then the
    // command again.
    k.control("fault validator flaky on");
    k.mdbPort().clearWritten();
    k.engine().Exit();
    EXPECT_EQ(k.mdbPort().written(),
              test::fromHex("08 01 08 00  00 00  30 01 30 00  00 00"
                            "30 01 30 00  00 00  30 01 30 00  00 00"
                            "33 01 33 00  00 00  33 01 33 00  00 00  33 01 33 00  00 00"));
    EXPECT_EQ(k.setting("Pin Pad", "On Line"), "No");
    EXPECT_FALSE(k.mdbPort().isOpen());
    EXPECT_TRUE(k.engine().ended());
}

TEST(VirtualKiosk, ControlCommandsReachTheModelsAndTheStateDumpShowsThem) {
    sim::VirtualKiosk k;
    EXPECT_TRUE(k.control("tube 3 12").ok);
    EXPECT_EQ(k.changer().tubeCount(2), 12);
    EXPECT_FALSE(k.control("coin 1").ok) << "nothing enabled before the engine runs";
    EXPECT_FALSE(k.control("coin").ok);
    EXPECT_TRUE(k.control("fault pinpad offline on").ok);
    const std::string state = k.stateJson();
    for (const char* key : {"\"tubes\":[40,40,12,20,10]", "\"billsLeft\":100", "\"coinsLeft\":200",
                            "\"offline\"", "\"frames\":["}) {
        EXPECT_NE(state.find(key), std::string::npos) << key << "\n" << state;
    }
}

}  // namespace
}  // namespace kestrix
