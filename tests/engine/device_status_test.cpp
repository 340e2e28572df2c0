// The per-device status lines, from the fields and messages the engine gives.
#include <gtest/gtest.h>

#include "engine/device_status.h"

namespace kestrix::console {
namespace {

using Level = StatusLine::Level;

// A control as the engine gives it: a text, or a check box's state.
Field field(const std::string& name, const std::string& text, int value = 0) {
    Field f;
    f.name = name;
    f.text = text;
    f.value = value;
    return f;
}

TEST(DeviceStatus, ADeviceGoesFromDisabledToInitialisedAsItsFieldsFillIn) {
    DeviceStatus s;
    EXPECT_EQ(s.device(Device::BillValidator).level, Level::Off);
    s.noteField(field("billValidatorEnabled", "", 1));
    s.noteField(field("bvFeatureLevel", "N/A"));
    EXPECT_EQ(s.device(Device::BillValidator).level, Level::Waiting);
    s.noteField(field("bvManufacturer", "KSX"));
    s.noteField(field("bvModelNumber", "BV-5        "));
    s.noteField(field("bvSerialNumber", "000000020001"));
    s.noteField(field("bvFeatureLevel", "01"));
    EXPECT_EQ(
        s.device(Device::BillValidator),
        (StatusLine{"Initialised: feature level 01, KSX BV-5, serial 000000020001.", Level::Ok}));
    EXPECT_EQ(s.link(Link::Mdb).text, "In use by the bill validator.");
}

TEST(DeviceStatus, ANotAnsweringDeviceStaysReportedUntilItIsEnabledAgain) {
    DeviceStatus s;
    s.noteField(field("CoinAcceptorEnabled", "", 1));
    s.noteEvent(DeviceEvent::ChangerNotAnswering);
    s.noteField(field("CoinAcceptorEnabled", "", 0));  // the engine unticks it
    EXPECT_EQ(s.device(Device::CoinAcceptor).level, Level::Problem);
    EXPECT_EQ(s.device(Device::BillValidator).level, Level::Off);
    s.noteField(field("CoinAcceptorEnabled", "", 1));
    EXPECT_EQ(s.device(Device::CoinAcceptor).level, Level::Waiting);
}

TEST(DeviceStatus, APortErrorNamesTheLinkAndLastsUntilThePortChangesOrTheDeviceAnswers) {
    struct Row {
        DeviceEvent event;
        Link link;
        Device device;
        Field clears;
    };
    const Row rows[] = {
        {DeviceEvent::MdbPortError, Link::Mdb, Device::CoinAcceptor, field("comPorts", "2")},
        {DeviceEvent::MdbPortError, Link::Mdb, Device::BillValidator,
         field("bvFeatureLevel", "01")},
        {DeviceEvent::DispenserPortError, Link::Dispenser, Device::BillDispenser,
         field("comPorts1", "7")},
        {DeviceEvent::HoppersPortError, Link::Hoppers, Device::Hoppers, field("comPorts2", "4")},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(static_cast<int>(r.event));
        DeviceStatus s;
        for (const char* b : {"CoinAcceptorEnabled", "billValidatorEnabled", "billDispenserEnabled",
                              "hoppersEnabled"}) {
            s.noteField(field(b, "", 1));
        }
        EXPECT_NE(s.device(r.device).level, Level::Problem);
        s.noteEvent(r.event);
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
