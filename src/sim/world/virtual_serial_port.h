#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>

#include "engine/platform/serial_port.h"
#include "sim/link_device.h"
#include "sim/world/virtual_time.h"

namespace kestrix::sim {

// A serial port in virtual time, wired to device models by port number. Bytes take their wire
// time (10 or 11 bits each at the line's baud rate), so a reply arrives over several reads as it
// does on a real line, and a read with nothing waiting costs one read quantum of virtual time.
class VirtualSerialPort : public SerialPort {
public:
    VirtualSerialPort(VirtualClock& clock, std::string name);

    // The device that answers when the engine opens `portNumber`. Unwired numbers fail to open.
    void wire(int portNumber, LinkDevice* device);
    // Pulls the cable: the next read or write fails and closes the port.
    void unplug() { m_unplugged = true; }
    void plugIn() { m_unplugged = false; }

    void open(int portNumber, std::string_view settings) override;
    void close() override;
    bool isOpen() const override { return m_open; }
    int portNumber() const override { return m_portNumber; }
    void write(std::string_view bytes) override;
    std::string read() override;

    const std::string& name() const { return m_name; }
    const LineSettings& lineSettings() const { return m_settings; }
    // Everything written since the port was created, for tests.
    const std::string& written() const { return m_written; }
    void clearWritten() { m_written.clear(); }
    // Called with each write, before the device takes it (tests: act on the engine's traffic).
    void setWriteListener(std::function<void(std::string_view)> listener) {
        m_onWrite = std::move(listener);
    }
    int opens() const { return m_opens; }
    long reads() const { return m_reads; }

private:
    void checkUsable();
    void pullFromDevice();
    double byteSeconds() const;

    VirtualClock& m_clock;
    std::string m_name;
    std::map<int, LinkDevice*> m_wiring;
    LinkDevice* m_device = nullptr;
    bool m_open = false;
    bool m_unplugged = false;
    int m_portNumber = 0;
    LineSettings m_settings;
    struct InFlight {
        char byte;
        double arrival;
    };
    std::deque<InFlight> m_inbound;
    double m_lastArrival = 0;
    double m_lastContact = 0;  // when the port last took the device's output
    std::string m_written;
    std::function<void(std::string_view)> m_onWrite;
    int m_opens = 0;
    long m_reads = 0;
};

}  // namespace kestrix::sim
