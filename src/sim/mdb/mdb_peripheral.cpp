#include "mdb_peripheral.h"

namespace kestrix::sim {

namespace {
// A block is at most 36 bytes with its check byte; a POLL reports at most 16 data bytes.
constexpr std::size_t kMaxPollBytes = 16;
}  // namespace

std::uint8_t mdbCheck(const Bytes& bytes, std::size_t count) {
    unsigned sum = 0;
    for (std::size_t i = 0; i < count && i < bytes.size(); ++i) {
        sum += bytes[i];
    }
    return static_cast<std::uint8_t>(sum & 0xFF);
}

void MdbPeripheral::acknowledged() {
    while (m_eventsAwaitingAck > 0 && !m_events.empty()) {
        m_events.pop_front();
        --m_eventsAwaitingAck;
    }
    m_eventsAwaitingAck = 0;
}

void MdbPeripheral::clearEvents() {
    m_events.clear();
    m_eventsAwaitingAck = 0;
}

MdbAnswer MdbPeripheral::pollAnswer(const Bytes& status) {
    Bytes data;
    std::size_t taken = 0;
    for (const Bytes& e : m_events) {
        if (data.size() + e.size() > kMaxPollBytes) {
            break;
        }
        data.insert(data.end(), e.begin(), e.end());
        ++taken;
    }
    for (const std::uint8_t s : status) {
        if (data.size() < kMaxPollBytes) {
            data.push_back(s);
        }
    }
    m_eventsAwaitingAck = taken;
    if (data.empty()) {
        return MdbAnswer::ack();
    }
    return MdbAnswer::withData(std::move(data));
}

MdbAnswer MdbPeripheral::dataAnswer(Bytes data) {
    m_eventsAwaitingAck = 0;
    return MdbAnswer::withData(std::move(data));
}

}  // namespace kestrix::sim
