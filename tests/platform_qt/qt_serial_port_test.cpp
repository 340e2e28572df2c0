#include <gtest/gtest.h>

#include <QCoreApplication>
#include <string>

#include "engine/settings/layout.h"
#include "platform_qt/qt_serial_port.h"
#include "sim/pty_kiosk.h"
#include "sim/world/memory_store.h"
#include "support/support.h"

namespace kestrix::qt {
namespace {

// The simulator's links are pseudo-terminals that the port opens like any serial device (bytes
// both ways and the read quantum are what every engine run on them relies on). Port 7 is its
// MDB link.
struct SimulatedPort {
    sim::MemoryStore store;
    sim::PtyKiosk device{test::makeTempDir("ksx-port")};
    QtSerialPort port{storePortResolver(store)};

    SimulatedPort() {
        device.start();
        store.set(store::kApp, store::section::kPorts, "7", device.path("mdb"));
    }
};
struct PortFixture : ::testing::Test, SimulatedPort {};

TEST(QtSerialPortMapping, NumbersMapToDevices) {
    EXPECT_EQ(defaultPortDevice(0), "");
    EXPECT_EQ(defaultPortDevice(-3), "");
    EXPECT_EQ(defaultPortDevice(1), "/dev/ttyS0");
    EXPECT_EQ(defaultPortDevice(3), "/dev/ttyS2");
    sim::MemoryStore store;
    store.set("KSX", "Ports", "3", "/dev/ttyUSB0");
    const PortResolver resolve = storePortResolver(store);
    EXPECT_EQ(resolve(3), "/dev/ttyUSB0");
    EXPECT_EQ(resolve(4), "/dev/ttyS3");
    EXPECT_EQ(resolve(0), "");
}

TEST_F(PortFixture, OpeningFailuresArePortErrors) {
    store.set(store::kApp, store::section::kPorts, "8", "/nonexistent/ttyX");
    const struct {
        int number;
        const char* settings;
    } cases[] = {
        {0, "9600,N,8,1"},  // port 0 is no port
        {8, "9600,N,8,1"},  // mapped to a device that does not exist
        {7, "9600,X,8,1"},  // bad parity
        {7, "fast"},        // not line settings at all
    };
    for (const auto& c : cases) {
        EXPECT_THROW(port.open(c.number, c.settings), PortError) << c.number << " " << c.settings;
        EXPECT_FALSE(port.isOpen());
        EXPECT_EQ(port.portNumber(), c.number);
    }
    EXPECT_THROW(port.read(), PortError);
    EXPECT_THROW(port.write("x"), PortError);
}

TEST_F(PortFixture, ReopeningClosesFirstAndABusyPortCannotBeOpenedTwice) {
    port.open(7, "9600,N,8,1");
    port.open(7, "9600,E,8,1");
    EXPECT_TRUE(port.isOpen());
    QtSerialPort second(storePortResolver(store));
    EXPECT_THROW(second.open(7, "9600,N,8,1"), PortError);
    port.close();
    EXPECT_FALSE(port.isOpen());
    second.open(7, "9600,N,8,1");
    EXPECT_TRUE(second.isOpen());
}

// A USB adapter pulled out looks like this: the other end is gone. Whether a read finds it or the
// event loop does between two exchanges, the port must report it once and close, not spin or
// return silence for ever.
TEST(QtSerialPort, AVanishedDeviceClosesThePort) {
    for (const bool byRead : {true, false}) {
        SCOPED_TRACE(byRead ? "found by a read" : "found by the event loop");
        SimulatedPort rig;
        rig.port.open(7, "9600,N,8,1");
        rig.device.stop();
        int reported = 0;
        for (int i = 0; i < (byRead ? 50 : 500) && rig.port.isOpen(); ++i) {
            if (!byRead) {
                QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
                continue;
            }
            try {
                rig.port.read();
            } catch (const PortError&) {
                ++reported;
            }
        }
        EXPECT_EQ(reported, byRead ? 1 : 0);
        EXPECT_FALSE(rig.port.isOpen());
        EXPECT_THROW(rig.port.write("x"), PortError);
    }
}

}  // namespace
}  // namespace kestrix::qt
