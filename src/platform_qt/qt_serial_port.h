#pragma once

#include <functional>
#include <memory>
#include <string>

#include "engine/platform/serial_port.h"
#include "engine/platform/settings_store.h"

class QSerialPort;

namespace kestrix::qt {

// Maps a port number to the device to open; empty when the number names no port.
using PortResolver = std::function<std::string(int portNumber)>;

// The device of port `portNumber` without any configuration: "/dev/ttyS<N-1>" on Linux, "COMN"
// on Windows; empty for 0 and below.
std::string defaultPortDevice(int portNumber);

// Port numbers as the operator chooses them, looked up in `store`: on Linux section "Ports",
// key "N" holds the device path of port N ("3" = "/dev/ttyUSB0"), else defaultPortDevice(N).
// The mapping is read again at every open, so a technician can change it with ksxctl.
PortResolver storePortResolver(SettingsStore& store, std::string app = "KSX");

// A serial link over QSerialPort, for the engine thread. The engine never runs the event loop
// while it talks to a device, so reads wait on the port directly:
//
// - one read() takes what has arrived; when nothing has, it waits at most one read quantum
//   (SerialPort::kReadQuantumMs) for something;
// - write() hands the bytes to the driver before it returns (bounded by the bytes' wire time);
// - the first read or resource error (a USB adapter pulled out, the other end of a pty gone)
//   closes the port and throws PortError: left open, such a port makes Qt spin on it. An error
//   that Qt finds while the event loop runs (between two exchanges) closes the port as well, and
//   the next read or write reports it.
//
// The QSerialPort is created on the thread that opens the port.
class QtSerialPort : public SerialPort {
public:
    explicit QtSerialPort(PortResolver resolver);
    ~QtSerialPort() override;
    QtSerialPort(const QtSerialPort&) = delete;
    QtSerialPort& operator=(const QtSerialPort&) = delete;

    void open(int portNumber, std::string_view settings) override;
    void close() override;
    bool isOpen() const override;
    int portNumber() const override { return m_portNumber; }
    void write(std::string_view bytes) override;
    std::string read() override;

    // The device opened last (or tried), for messages.
    const std::string& device() const { return m_device; }

private:
    void requireOpen(const char* operation) const;
    // Closes the port and throws when the port reports a real error; a wait that timed out is
    // not one.
    void checkError(const char* operation);
    // Closes the port after an error found by the event loop's notifier.
    void onLoopError(int openCount);

    PortResolver m_resolver;
    std::unique_ptr<QSerialPort> m_port;
    int m_portNumber = 0;
    int m_baud = 9600;
    std::string m_device;
    // Counts opens, so that a late error report of an earlier open is ignored.
    int m_openCount = 0;
    // Why the port was closed under the engine's feet; told by the next read or write.
    std::string m_failure;
};

}  // namespace kestrix::qt
