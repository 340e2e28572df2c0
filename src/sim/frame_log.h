#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrix::sim {

// "0B 01 0B 00": bytes as upper-case hexadecimal pairs separated by blanks.
std::string hexBytes(std::string_view bytes);
std::string hexBytes(const std::vector<std::uint8_t>& bytes);

// The recent traffic of one link or bus, both directions, for the state dump and the `frames`
// control command.
class FrameLog {
public:
    enum class Direction { ToDevice, FromDevice };
    struct Entry {
        double time = 0;
        Direction direction = Direction::ToDevice;
        std::string hex;
        std::string note;  // what the model made of it ("POLL", "echo", "bad checksum", ...)
        int tag = 0;       // bus address, for logs shared by several devices
    };

    explicit FrameLog(std::size_t capacity = 64) : m_capacity(capacity) {}

    // Every entry also goes to `sink` as it is added, for a full record of a session (the log
    // itself keeps only the recent ones). An empty function stops it.
    void setSink(std::function<void(const Entry&)> sink) { m_sink = std::move(sink); }

    void add(double time, Direction direction, std::string hex, std::string note = {}, int tag = 0);
    const std::deque<Entry>& entries() const { return m_entries; }
    void clear() { m_entries.clear(); }

    // One line per entry: "12.345 > 0B 0B  POLL" (">" towards the device, "<" from it).
    // A tag other than 0 keeps only the entries of that tag.
    std::string text(int tag = 0) const;
    // The last `count` entries as a JSON array of {"t","dir","hex","note"}.
    nlohmann::ordered_json json(std::size_t count = 16, int tag = 0) const;

private:
    std::size_t m_capacity;
    std::deque<Entry> m_entries;
    std::function<void(const Entry&)> m_sink;
};

// The named fault switches of one model. Names are fixed when the model is built.
class FaultSwitches {
public:
    explicit FaultSwitches(std::vector<std::string> names) : m_names(std::move(names)) {}

    // False for a name this model does not know.
    bool set(std::string_view name, bool on);
    bool on(std::string_view name) const;
    const std::vector<std::string>& names() const { return m_names; }
    std::vector<std::string> active() const;
    void clearAll() { m_on.clear(); }

private:
    std::vector<std::string> m_names;
    std::vector<std::string> m_on;
};

}  // namespace kestrix::sim
