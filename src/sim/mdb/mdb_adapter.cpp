#include "mdb_adapter.h"

#include <algorithm>
#include <cstdio>

#include <nlohmann/json.hpp>

namespace kestrix::sim {

namespace {

// Junk a noisy adapter puts between words; it never forms "01 " and never a hex pair.
constexpr const char* kGarbage = "#~";

std::string wordText(std::uint8_t data, bool mode) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "%02x%02x ", static_cast<unsigned>(data), mode ? 1u : 0u);
    return buf;
}

}  // namespace

MdbAdapter::MdbAdapter() : SimDevice({"garbage"}) {}

void MdbAdapter::attach(MdbPeripheral* peripheral) {
    m_peripherals.push_back(peripheral);
}

MdbPeripheral* MdbAdapter::peripheralFor(std::uint8_t addressByte) const {
    for (MdbPeripheral* p : m_peripherals) {
        if ((addressByte & 0xF8) == p->address()) {
            return p;
        }
    }
    return nullptr;
}

void MdbAdapter::receive(std::string_view bytes, double now) {
    m_linkLog.add(now, FrameLog::Direction::ToDevice, hexBytes(bytes));
    for (const char c : bytes) {
        const auto b = static_cast<std::uint8_t>(c);
        // The host sends a word's two bytes together. A first byte left alone for a while, or
        // followed by something that is no mode byte, was noise: the pairing starts again here.
        if (m_pendingData && (now - m_pendingAt > kHalfWordTimeoutSeconds || b > 0x01)) {
            m_pendingData.reset();
        }
        if (!m_pendingData) {
            m_pendingData = b;
            m_pendingAt = now;
            continue;
        }
        const std::uint8_t data = *m_pendingData;
        m_pendingData.reset();
        word(data, b == 0x01, now);
    }
}

void MdbAdapter::word(std::uint8_t data, bool mode, double now) {
    if (!m_frame.empty() && now - m_lastWordAt > kWordTimeoutSeconds) {
        if (MdbPeripheral* p = peripheralFor(m_frame[0])) {
            p->busLog().add(now, FrameLog::Direction::ToDevice, hexBytes(m_frame),
                            "unfinished command dropped");
        }
        m_frame.clear();
    }
    m_lastWordAt = now;
    if (mode) {
        // An address word always begins a new command.
        if (!m_frame.empty()) {
            if (MdbPeripheral* p = peripheralFor(m_frame[0])) {
                p->busLog().add(now, FrameLog::Direction::ToDevice, hexBytes(m_frame),
                                "unfinished command dropped");
            }
        }
        m_frame.assign(1, data);
    } else if (!m_frame.empty()) {
        if (m_frame.size() >= kMaxBlockBytes) {
            m_frame.clear();  // longer than any block: line noise, not a command
            return;
        }
        m_frame.push_back(data);
    } else {
        // A word outside a command: the host's ACK, RET or NAK to the last answer.
        MdbPeripheral* p = m_lastTalker;
        if (p == nullptr) {
            return;
        }
        if (data == 0x00) {
            p->busLog().add(now, FrameLog::Direction::ToDevice, "00", "ACK");
            p->acknowledged();
            m_lastTalker = nullptr;
        } else if (data == 0xAA) {
            p->busLog().add(now, FrameLog::Direction::ToDevice, "AA", "RET");
            emitWords(m_lastAnswerWords, now);
        } else if (data == 0xFF) {
            // The data stays queued and is sent again on the next POLL.
            p->busLog().add(now, FrameLog::Direction::ToDevice, "FF", "NAK");
            m_lastTalker = nullptr;
        }
        return;
    }
    MdbPeripheral* p = peripheralFor(m_frame[0]);
    if (p == nullptr) {
        // Nobody at this address: the words go out on the bus and nobody answers. The command
        // ends with the next address word.
        return;
    }
    const std::size_t length = p->frameLength(m_frame);
    if (length != 0 && m_frame.size() >= length) {
        frameComplete(now);
    }
}

void MdbAdapter::frameComplete(double now) {
    const Bytes frame = std::move(m_frame);
    m_frame.clear();
    // An ACK acknowledges only the answer right before it: a new command ends that chance.
    m_lastTalker = nullptr;
    MdbPeripheral& p = *peripheralFor(frame[0]);
    const std::string name = p.commandName(frame);
    if (mdbCheck(frame, frame.size() - 1) != frame.back()) {
        // A peripheral ignores a block with a wrong check byte.
        p.busLog().add(now, FrameLog::Direction::ToDevice, hexBytes(frame),
                       name + " (bad check byte, ignored)");
        return;
    }
    p.busLog().add(now, FrameLog::Direction::ToDevice, hexBytes(frame), name);
    p.advance(now);
    sendAnswer(p, p.command(frame, now), now);
}

void MdbAdapter::sendAnswer(MdbPeripheral& p, const MdbAnswer& answer, double now) {
    std::vector<std::pair<std::uint8_t, bool>> words;
    switch (answer.kind) {
        case MdbAnswer::Kind::Silent:
            p.busLog().add(now, FrameLog::Direction::FromDevice, "", "no answer");
            return;
        case MdbAnswer::Kind::Ack:
            words.emplace_back(0x00, true);
            p.busLog().add(now, FrameLog::Direction::FromDevice, "00", "ACK");
            break;
        case MdbAnswer::Kind::Nak:
            words.emplace_back(0xFF, true);
            p.busLog().add(now, FrameLog::Direction::FromDevice, "FF", "NAK");
            break;
        case MdbAnswer::Kind::Data: {
            for (const std::uint8_t b : answer.data) {
                words.emplace_back(b, false);
            }
            words.emplace_back(mdbCheck(answer.data), true);
            Bytes wire = answer.data;
            wire.push_back(mdbCheck(answer.data));
            p.busLog().add(now, FrameLog::Direction::FromDevice, hexBytes(wire));
            break;
        }
    }
    m_lastTalker = &p;
    m_lastAnswerWords = words;
    emitWords(words, now);
}

void MdbAdapter::emitWords(const std::vector<std::pair<std::uint8_t, bool>>& words, double now) {
    double at = std::max(now, m_out.empty() ? now : m_out.back().due) + kResponseSeconds;
    bool first = true;
    for (const auto& [data, mode] : words) {
        at += kBusByteSeconds;
        std::string text;
        if (!first && faultOn("garbage")) {
            text += kGarbage;
        }
        first = false;
        text += wordText(data, mode);
        m_out.push_back({at, std::move(text)});
    }
}

std::string MdbAdapter::transmit(double now) {
    // The peripherals keep working between commands (coins drop, payouts pay).
    for (MdbPeripheral* p : m_peripherals) {
        p->advance(now);
    }
    std::string out;
    while (!m_out.empty() && m_out.front().due <= now) {
        out += m_out.front().text;
        m_out.pop_front();
    }
    if (!out.empty()) {
        m_linkLog.add(now, FrameLog::Direction::FromDevice, hexBytes(out), out);
    }
    return out;
}

double MdbAdapter::nextOutputAt(double) const {
    return m_out.empty() ? kNever : m_out.front().due;
}

void MdbAdapter::powerCycle(double) {
    m_pendingData.reset();
    m_frame.clear();
    m_out.clear();
    m_lastTalker = nullptr;
    m_lastAnswerWords.clear();
}

nlohmann::ordered_json MdbAdapter::state() const {
    nlohmann::ordered_json w;
    w["faults"] = activeFaults();
    w["frames"] = m_linkLog.json();
    return w;
}

}  // namespace kestrix::sim
