#include "virtual_serial_port.h"

#include <algorithm>

namespace kestrix::sim {

VirtualSerialPort::VirtualSerialPort(VirtualClock& clock, std::string name)
    : m_clock(clock), m_name(std::move(name)) {}

void VirtualSerialPort::wire(int portNumber, LinkDevice* device) {
    m_wiring[portNumber] = device;
}

double VirtualSerialPort::byteSeconds() const {
    const int bits =
        1 + m_settings.dataBits + (m_settings.parity == 'N' ? 0 : 1) + m_settings.stopBits;
    return bits / static_cast<double>(m_settings.baud);
}

void VirtualSerialPort::open(int portNumber, std::string_view settings) {
    if (m_open) {
        close();
    }
    LineSettings parsed;
    try {
        parsed = LineSettings::parse(settings);
    } catch (const std::invalid_argument& e) {
        throw PortError(e.what());
    }
    const auto it = m_wiring.find(portNumber);
    if (it == m_wiring.end() || it->second == nullptr || m_unplugged) {
        throw PortError("port " + std::to_string(portNumber) + " does not exist");
    }
    m_settings = parsed;
    m_device = it->second;
    m_portNumber = portNumber;
    m_open = true;
    m_inbound.clear();
    m_lastContact = m_clock.elapsed();
    ++m_opens;
}

void VirtualSerialPort::close() {
    m_open = false;
    m_device = nullptr;
    m_inbound.clear();
}

void VirtualSerialPort::checkUsable() {
    if (!m_open) {
        throw PortError("port is not open");
    }
    if (m_unplugged) {
        // Closed on the first error, as the real port does.
        close();
        throw PortError("the device has been removed");
    }
}

void VirtualSerialPort::write(std::string_view bytes) {
    checkUsable();
    pullFromDevice();
    m_written.append(bytes);
    if (m_onWrite) {
        m_onWrite(bytes);
    }
    // The driver buffers the write; the device sees the last byte after its wire time.
    m_device->receive(bytes, m_clock.elapsed() + static_cast<double>(bytes.size()) * byteSeconds());
}

void VirtualSerialPort::pullFromDevice() {
    const double now = m_clock.elapsed();
    const std::string out = m_device->transmit(now);
    // The device put these bytes on the line at some moment since the port last looked (a read,
    // a write or the open), so they travel from then: a reply that came during a pause is in the
    // receive buffer when the engine reads after the pause, as on a real line.
    for (char c : out) {
        m_lastArrival = std::max(m_lastArrival, m_lastContact) + byteSeconds();
        m_inbound.push_back({c, m_lastArrival});
    }
    m_lastContact = now;
}

std::string VirtualSerialPort::read() {
    checkUsable();
    ++m_reads;
    pullFromDevice();
    const auto take = [this] {
        std::string got;
        while (!m_inbound.empty() && m_inbound.front().arrival <= m_clock.elapsed()) {
            got += m_inbound.front().byte;
            m_inbound.pop_front();
        }
        return got;
    };
    std::string got = take();
    if (!got.empty()) {
        return got;
    }
    // Nothing yet: wait up to one read quantum, returning as soon as something arrives.
    const double quantum = kReadQuantumMs / 1000.0;
    const double limit = m_clock.elapsed() + quantum;
    if (!m_inbound.empty() && m_inbound.front().arrival <= limit) {
        m_clock.advanceTo(m_inbound.front().arrival);
        return take();
    }
    m_clock.advanceTo(limit);
    pullFromDevice();
    return take();
}

}  // namespace kestrix::sim
