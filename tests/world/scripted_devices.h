#pragma once

// A scripted MDB adapter for the tests that need a reply no well-behaved peripheral gives (a
// tube status that is only an acknowledgement, truncated or garbled text, a reply that comes
// with the next one already appended).

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "sim/link_device.h"

namespace kestrix::test {

// MDB reply text for a peripheral's data bytes: each "dd00 ", then the check byte "cc01 ".
inline std::string mdbReply(const std::vector<int>& data) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    int sum = 0;
    for (std::size_t i = 0; i <= data.size(); ++i) {
        const int b = i < data.size() ? data[i] : sum & 0xFF;
        sum += b;
        text += {kDigits[(b >> 4) & 0xF], kDigits[b & 0xF]};
        text += i < data.size() ? "00 " : "01 ";
    }
    return text;
}

// Each command (keyed by its command byte, or command and sub-command for 0F and 37) is answered
// with the next of its scripted replies 3 ms after its last word; the last reply repeats, an
// empty one is silence, an unscripted command gets none.
class ScriptedMdb : public sim::LinkDevice {
public:
    void script(int key, std::vector<std::string> replies) { m_script[key] = {replies, 0}; }
    // Called with each frame as it arrives.
    std::function<void(const std::string&)> onFrame;
    // Every frame received, in order: "08 08", "0F 00 0F", "ACK".
    const std::vector<std::string>& frames() const { return m_frames; }
    long count(std::string_view frame) const { return std::ranges::count(m_frames, frame); }

    void receive(std::string_view bytes, double now) override {
        m_in.append(bytes);
        while (m_in.size() >= 2) {
            const int command = static_cast<unsigned char>(m_in[0]);
            if (m_in[1] != 1) {  // a data word outside a command: the engine's ACK
                m_in.erase(0, 2);
                record(command == 0 ? "ACK" : "stray");
                continue;
            }
            const std::size_t words = command == 0x0F || command == 0x37 ? 3 : 2;
            if (m_in.size() < 2 * words) {
                return;
            }
            static constexpr char kDigits[] = "0123456789ABCDEF";
            std::string text;
            for (std::size_t w = 0; w < words; ++w) {
                const auto b = static_cast<unsigned char>(m_in[2 * w]);
                text += std::string(w ? " " : "") + kDigits[b >> 4] + kDigits[b & 0xF];
            }
            const int key =
                words == 3 ? command << 8 | static_cast<unsigned char>(m_in[2]) : command;
            m_in.erase(0, 2 * words);
            record(text);
            auto it = m_script.find(key);
            if (it != m_script.end() && !it->second.first.empty()) {
                auto& [replies, next] = it->second;
                const std::string& reply = replies[std::min(next++, replies.size() - 1)];
                if (!reply.empty()) {
                    m_out.emplace_back(now + 0.003, reply);
                }
            }
        }
    }

    std::string transmit(double now) override {
        std::string out;
        while (!m_out.empty() && m_out.front().first <= now) {
            out += m_out.front().second;
            m_out.pop_front();
        }
        return out;
    }

private:
    void record(const std::string& frame) {
        m_frames.push_back(frame);
        if (onFrame) {
            onFrame(frame);
        }
    }

    std::string m_in;
    std::map<int, std::pair<std::vector<std::string>, std::size_t>> m_script;
    std::vector<std::string> m_frames;
    std::deque<std::pair<double, std::string>> m_out;
};

}  // namespace kestrix::test
