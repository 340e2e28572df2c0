// The per-device status lines, from the fields and messages the engine gives.
#include <gtest/gtest.h>

#include "engine/device_status.h"

namespace kestrix::console {
namespace {

using Level = StatusLine::Level;

Field text(const std::string& name, const std::string& value) {
    Field f;
    f.name = name;
    f.kind = FieldKind::TextBox;
    f.text = value;
    return f;
}

Field box(const std::string& name, int value) {
    Field f;
    f.name = name;
    f.kind = FieldKind::CheckBox;
    f.value = value;
    return f;
}

TEST(DeviceStatus, ADeviceGoesFromDisabledToInitialisedAsItsFieldsFillIn) {
    DeviceStatus s;
    EXPECT_EQ(s.device(Device::BillValidator).level, Level::Off);
    s.noteField(box("billValidatorEnabled", 1));
    s.noteField(text("bvFeatureLevel", "N/A"));
    EXPECT_EQ(s.device(Device::BillValidator).level, Level::Waiting);
    s.noteField(text("bvManufacturer", "KSX"));
    s.noteField(text("bvModelNumber", "BV-5        "));
    s.noteField(text("bvSerialNumber", "000000020001"));
    s.noteField(text("bvFeatureLevel", "01"));
    EXPECT_EQ(
        s.device(Device::BillValidator),
        (StatusLine{"Initialised: feature level 01, KSX BV-5, serial 000000020001.", Level::Ok}));
    EXPECT_EQ(s.link(Link::Mdb).text, "In use by the bill validator.");
}

TEST(DeviceStatus, ANotAnsweringDeviceStaysReportedUntilItIsEnabledAgain) {
    DeviceStatus s;
    s.noteField(box("CoinAcceptorEnabled", 1));
    s.noteMessage("Check Coin Acceptor Connection!");
    s.noteField(box("CoinAcceptorEnabled", 0));  // the engine unticks it
    EXPECT_EQ(s.device(Device::CoinAcceptor).level, Level::Problem);
    EXPECT_EQ(s.device(Device::BillValidator).level, Level::Off);
    s.noteField(box("CoinAcceptorEnabled", 1));
    EXPECT_EQ(s.device(Device::CoinAcceptor).level, Level::Waiting);
}

TEST(DeviceStatus, APortErrorNamesTheLinkAndLastsUntilThePortChangesOrTheDeviceAnswers) {
    struct Row {
        const char* message;
        Link link;
        Device device;
        Field clears;
    };
    const Row rows[] = {
        {"MDB Interface- Port Error. Please select another port.", Link::Mdb, Device::CoinAcceptor,
         text("comPorts", "2")},
        {"MDB Interface- Port Error. Please select another port.", Link::Mdb, Device::BillValidator,
         text("bvFeatureLevel", "01")},
        {"Bill Dispenser- Port Error. Please select another port.", Link::Dispenser,
         Device::BillDispenser, text("comPorts1", "7")},
        {"Hoppers Interface- Port Error. Please select another port.", Link::Hoppers,
         Device::Hoppers, text("comPorts2", "4")},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.message);
        DeviceStatus s;
        for (const char* b : {"CoinAcceptorEnabled", "billValidatorEnabled", "billDispenserEnabled",
                              "hoppersEnabled"}) {
            s.noteField(box(b, 1));
        }
        s.noteMessage("Another version of this program is already running");
        EXPECT_NE(s.device(r.device).level, Level::Problem);
        s.noteMessage(r.message);
        EXPECT_EQ(s.link(r.link).level, Level::Problem);
        EXPECT_EQ(s.device(r.device).level, Level::Problem);
        EXPECT_NE(s.device(r.device).text.find("Port error"), std::string::npos);
        s.noteField(r.clears);
        EXPECT_NE(s.device(r.device).level, Level::Problem);
        EXPECT_NE(s.link(r.link).level, Level::Problem);
    }
}

}  // namespace
}  // namespace kestrix::console
