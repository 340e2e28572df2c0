#include "hopper_bus.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace kestrix::sim {

namespace {
constexpr std::uint8_t kHostAddress = 1;
}

HopperBus::HopperBus(const HopperProfile& first, const HopperProfile& second, bool echo)
    : m_hoppers{std::make_unique<Hopper>(first), std::make_unique<Hopper>(second)}, m_echo(echo) {}

Hopper& HopperBus::hopper(int number) {
    return *m_hoppers[number == 2 ? 1 : 0];
}

const Hopper& HopperBus::hopper(int number) const {
    return *m_hoppers[number == 2 ? 1 : 0];
}

bool HopperBus::echoing() const {
    return m_echo && !m_hoppers[0]->faultOn("no-echo") && !m_hoppers[1]->faultOn("no-echo");
}

Hopper* HopperBus::hopperAt(int address) {
    for (auto& h : m_hoppers) {
        if (h->address() == address) {
            return h.get();
        }
    }
    return nullptr;
}

void HopperBus::receive(std::string_view bytes, double now) {
    if (echoing()) {
        m_out.push_back({now, std::string(bytes)});
    }
    for (const char c : bytes) {
        if (!m_frame.empty() && now - m_lastByteAt > kInterByteTimeoutSeconds) {
            m_log.add(now, FrameLog::Direction::ToDevice, hexBytes(m_frame),
                      "incomplete frame dropped (gap)", m_frame[0]);
            m_frame.clear();
        }
        m_lastByteAt = now;
        m_frame.push_back(static_cast<std::uint8_t>(c));
        if (m_frame.size() >= 2 && m_frame.size() == static_cast<std::size_t>(m_frame[1]) + 5) {
            frameReceived(now);
            m_frame.clear();
        }
    }
}

void HopperBus::frameReceived(double now) {
    const Bytes& f = m_frame;
    const int destination = f[0];
    if (ccTalkChecksum(Bytes(f.begin(), f.end() - 1)) != f.back()) {
        m_log.add(now, FrameLog::Direction::ToDevice, hexBytes(f), "bad checksum, ignored",
                  destination);
        return;
    }
    Hopper* h = hopperAt(destination);
    m_log.add(now, FrameLog::Direction::ToDevice, hexBytes(f),
              "header " + std::to_string(f[3]) + (h ? "" : " (nobody at this address)"),
              destination);
    if (h == nullptr) {
        return;
    }
    const Bytes data(f.begin() + 4, f.end() - 1);
    const auto reply = h->handle(f[3], data, now);
    if (!reply) {
        m_log.add(now, FrameLog::Direction::FromDevice, "", "no reply", destination);
        return;
    }
    Bytes out;
    out.reserve(reply->data.size() + 5);
    out.push_back(static_cast<std::uint8_t>(f[2] == 0 ? kHostAddress : f[2]));
    out.push_back(static_cast<std::uint8_t>(reply->data.size()));
    out.push_back(static_cast<std::uint8_t>(destination));
    out.push_back(reply->header);
    for (const std::uint8_t b : reply->data) {
        out.push_back(b);
    }
    out.push_back(ccTalkChecksum(out));
    m_log.add(now + kReplySeconds, FrameLog::Direction::FromDevice, hexBytes(out),
              reply->header == 5 ? "NAK" : "", destination);
    m_out.push_back({now + kReplySeconds, std::string(out.begin(), out.end())});
}

void HopperBus::advance(double now) {
    for (auto& h : m_hoppers) {
        h->advance(now);
    }
}

std::string HopperBus::transmit(double now) {
    advance(now);
    std::string out;
    while (!m_out.empty() && m_out.front().due <= now) {
        out += m_out.front().bytes;
        m_out.pop_front();
    }
    return out;
}

double HopperBus::nextOutputAt(double) const {
    return m_out.empty() ? kNever : m_out.front().due;
}

nlohmann::ordered_json HopperBus::state() const {
    nlohmann::ordered_json w;
    w["echo"] = echoing();
    w["hoppers"] = nlohmann::ordered_json::array({m_hoppers[0]->state(), m_hoppers[1]->state()});
    w["frames"] = m_log.json();
    return w;
}

}  // namespace kestrix::sim
