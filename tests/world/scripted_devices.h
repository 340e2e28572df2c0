#pragma once

// A scripted MDB adapter for the link and initialisation tests that need a reply no well-behaved
// peripheral gives (a tube status that is only an acknowledgement, truncated or garbled text).

#include <cstdint>
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
    const auto wordText = [&](int b, bool last) {
        text += kDigits[(b >> 4) & 0xF];
        text += kDigits[b & 0xF];
        text += last ? "01 " : "00 ";
    };
    for (int b : data) {
        wordText(b, false);
        sum += b;
    }
    wordText(sum & 0xFF, true);
    return text;
}

inline std::vector<int> asciiBytes(std::string_view text) {
    return {text.begin(), text.end()};
}

// The MDB interface adapter with scripted peripherals. Each command (keyed by its command byte,
// or command and sub-command for 0F and 37) is answered with the next of its scripted replies a
// few milliseconds after its last word; the last reply repeats, an empty reply is silence, and a
// command with no script gets none.
class ScriptedMdb : public sim::LinkDevice {
public:
    static constexpr double kAnswerSeconds = 0.003;
    // Seconds from a command to its answer, per command key, where not kAnswerSeconds.
    std::map<int, double> answerDelay;

    void script(int key, std::vector<std::string> replies) { m_script[key] = {std::move(replies)}; }
    // Called with each complete frame ("08 08", "ACK") as it arrives.
    std::function<void(const std::string&)> onFrame;

    // Every frame received, in order: "08 08", "0F 00 0F", "ACK".
    const std::vector<std::string>& frames() const { return m_frames; }
    int count(std::string_view frame) const {
        int n = 0;
        for (const std::string& f : m_frames) {
            n += f == frame ? 1 : 0;
        }
        return n;
    }

    void receive(std::string_view bytes, double now) override {
        m_in.append(bytes);
        for (;;) {
            if (m_in.size() < 2) {
                return;
            }
            const int data = static_cast<unsigned char>(m_in[0]);
            const int mode = static_cast<unsigned char>(m_in[1]);
            if (mode != 1) {
                m_in.erase(0, 2);
                record(data == 0 ? "ACK" : "stray", now);
                continue;
            }
            const std::size_t words = frameWords(data);
            if (m_in.size() < 2 * words) {
                return;
            }
            std::string text;
            int key = data;
            for (std::size_t w = 0; w < words; ++w) {
                const int b = static_cast<unsigned char>(m_in[2 * w]);
                text += (w ? " " : "") + hex(b);
                if (w == 1 && words == 3) {
                    key = (data << 8) | b;
                }
            }
            m_in.erase(0, 2 * words);
            record(text, now);
            answer(key, now);
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
    struct Script {
        std::vector<std::string> replies;
        std::size_t next = 0;
    };

    static std::size_t frameWords(int command) {
        switch (command) {
            case 0x0C:
            case 0x34:
                return 6;
            case 0x0F:
            case 0x37:
                return 3;
            default:
                return 2;
        }
    }
    static std::string hex(int b) {
        static constexpr char kDigits[] = "0123456789ABCDEF";
        return {kDigits[(b >> 4) & 0xF], kDigits[b & 0xF]};
    }
    void record(const std::string& frame, double) {
        m_frames.push_back(frame);
        if (onFrame) {
            onFrame(frame);
        }
    }
    void answer(int key, double now) {
        const auto it = m_script.find(key);
        if (it == m_script.end() || it->second.replies.empty()) {
            return;
        }
        Script& s = it->second;
        const std::string& reply = s.replies[std::min(s.next, s.replies.size() - 1)];
        ++s.next;
        if (!reply.empty()) {
            const auto delay = answerDelay.find(key);
            m_out.emplace_back(now + (delay == answerDelay.end() ? kAnswerSeconds : delay->second),
                               reply);
        }
    }

    std::string m_in;
    std::map<int, Script> m_script;
    std::vector<std::string> m_frames;
    std::deque<std::pair<double, std::string>> m_out;
};

}  // namespace kestrix::test
