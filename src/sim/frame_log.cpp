#include "frame_log.h"

#include <algorithm>
#include <cstdio>

#include <nlohmann/json.hpp>

namespace kestrix::sim {

namespace {

void appendHex(std::string& out, unsigned value) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    if (!out.empty()) {
        out += ' ';
    }
    out += kDigits[(value >> 4) & 0xF];
    out += kDigits[value & 0xF];
}

}  // namespace

std::string hexBytes(std::string_view bytes) {
    std::string out;
    for (const char c : bytes) {
        appendHex(out, static_cast<unsigned char>(c));
    }
    return out;
}

std::string hexBytes(const std::vector<std::uint8_t>& bytes) {
    std::string out;
    for (const std::uint8_t b : bytes) {
        appendHex(out, b);
    }
    return out;
}

void FrameLog::add(double time, Direction direction, std::string hex, std::string note, int tag) {
    m_entries.push_back({time, direction, std::move(hex), std::move(note), tag});
    if (m_sink) {
        m_sink(m_entries.back());
    }
    while (m_entries.size() > m_capacity) {
        m_entries.pop_front();
    }
}

std::string FrameLog::text(int tag) const {
    std::string out;
    for (const Entry& e : m_entries) {
        if (tag != 0 && e.tag != tag) {
            continue;
        }
        char time[32];
        std::snprintf(time, sizeof time, "%.3f", e.time);
        out += time;
        out += e.direction == Direction::ToDevice ? " > " : " < ";
        out += e.hex;
        if (!e.note.empty()) {
            out += "  ";
            out += e.note;
        }
        out += '\n';
    }
    return out;
}

nlohmann::ordered_json FrameLog::json(std::size_t count, int tag) const {
    std::vector<const Entry*> picked;
    for (auto it = m_entries.rbegin(); it != m_entries.rend() && picked.size() < count; ++it) {
        if (tag == 0 || it->tag == tag) {
            picked.push_back(&*it);
        }
    }
    std::reverse(picked.begin(), picked.end());
    nlohmann::ordered_json frames = nlohmann::ordered_json::array();
    for (const Entry* e : picked) {
        nlohmann::ordered_json frame;
        frame["t"] = e->time;
        frame["dir"] = e->direction == Direction::ToDevice ? ">" : "<";
        frame["hex"] = e->hex;
        frame["note"] = e->note;
        frames.push_back(std::move(frame));
    }
    return frames;
}

bool FaultSwitches::set(std::string_view name, bool on) {
    if (std::find(m_names.begin(), m_names.end(), name) == m_names.end()) {
        return false;
    }
    const auto it = std::find(m_on.begin(), m_on.end(), name);
    if (on && it == m_on.end()) {
        m_on.emplace_back(name);
    } else if (!on && it != m_on.end()) {
        m_on.erase(it);
    }
    return true;
}

bool FaultSwitches::on(std::string_view name) const {
    return std::find(m_on.begin(), m_on.end(), name) != m_on.end();
}

std::vector<std::string> FaultSwitches::active() const {
    std::vector<std::string> out;
    for (const std::string& n : m_names) {
        if (on(n)) {
            out.push_back(n);
        }
    }
    return out;
}

}  // namespace kestrix::sim
