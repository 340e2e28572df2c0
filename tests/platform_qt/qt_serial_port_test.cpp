#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <QCoreApplication>
#include <chrono>
#include <cstdlib>
#include <string>

#include "engine/settings/layout.h"
#include "platform_qt/qt_serial_port.h"
#include "sim/world/memory_store.h"

namespace kestrix::qt {
namespace {

// The far end of a pseudo-terminal: the test plays the device on the master side while the port
// opens the slave like any serial device.
class PtyDevice {
public:
    PtyDevice() {
        m_master = posix_openpt(O_RDWR | O_NOCTTY);
        if (m_master < 0 || grantpt(m_master) != 0 || unlockpt(m_master) != 0) {
            throw std::runtime_error("no pseudo-terminal");
        }
        m_slave = ptsname(m_master);
    }
    ~PtyDevice() { hangUp(); }

    const std::string& path() const { return m_slave; }
    void send(const std::string& bytes) {
        ASSERT_EQ(::write(m_master, bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }
    // Everything the port wrote, waiting up to two seconds for `count` bytes.
    std::string receive(std::size_t count) {
        std::string got;
        for (int i = 0; i < 200 && got.size() < count; ++i) {
            pollfd p{m_master, POLLIN, 0};
            if (::poll(&p, 1, 10) > 0) {
                char buffer[256];
                const ssize_t n = ::read(m_master, buffer, sizeof buffer);
                if (n > 0) {
                    got.append(buffer, static_cast<std::size_t>(n));
                }
            }
        }
        return got;
    }
    void hangUp() {
        if (m_master >= 0) {
            ::close(m_master);
            m_master = -1;
        }
    }

private:
    int m_master = -1;
    std::string m_slave;
};

// Port 7 is the slave of a pty the test plays the device on.
struct PortFixture : ::testing::Test {
    sim::MemoryStore store;
    PtyDevice device;
    QtSerialPort port{storePortResolver(store)};

    void SetUp() override { store.set(store::kApp, store::section::kPorts, "7", device.path()); }
};

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

TEST_F(PortFixture, ExchangesRawBytesBothWays) {
    port.open(7, "9600,N,8,1");
    ASSERT_TRUE(port.isOpen());
    EXPECT_EQ(port.portNumber(), 7);
    const std::string frame("\x01\x02\xff\x00\x80 abc", 8);
    port.write(frame);
    EXPECT_EQ(device.receive(frame.size()), frame);

    std::string reply;
    for (int i = 0; i < 300; ++i) {
        reply += static_cast<char>(i % 256);
    }
    device.send(reply);
    std::string got;
    for (int i = 0; i < 2000 && got.size() < reply.size(); ++i) {
        got += port.read();
    }
    EXPECT_EQ(got, reply);
    EXPECT_EQ(port.read(), "") << "nothing more has arrived";
}

// A read loop "limited to 500 reads" must give up after about a second of silence: every read
// of nothing waits one quantum, and never much longer.
TEST_F(PortFixture, AReadOfNothingWaitsOneQuantum) {
    port.open(7, "9600,e,8,1");
    constexpr int kReads = 200;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kReads; ++i) {
        ASSERT_EQ(port.read(), "");
    }
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(ms, kReads * SerialPort::kReadQuantumMs * 0.9);
    EXPECT_LT(ms, 20000.0);
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
        sim::MemoryStore store;
        PtyDevice device;
        store.set(store::kApp, store::section::kPorts, "7", device.path());
        QtSerialPort port(storePortResolver(store));
        port.open(7, "9600,N,8,1");
        device.hangUp();
        int reported = 0;
        for (int i = 0; i < (byRead ? 50 : 500) && port.isOpen(); ++i) {
            if (!byRead) {
                QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
                continue;
            }
            try {
                port.read();
            } catch (const PortError&) {
                ++reported;
            }
        }
        EXPECT_EQ(reported, byRead ? 1 : 0);
        EXPECT_FALSE(port.isOpen());
        EXPECT_THROW(port.write("x"), PortError);
    }
}

}  // namespace
}  // namespace kestrix::qt
