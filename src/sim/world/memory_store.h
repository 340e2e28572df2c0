#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "engine/platform/settings_store.h"

namespace kestrix::sim {

// The settings store in memory, for the virtual world. Names compare as in the real stores
// (the registry, the SQLite file): without regard to ASCII case, the first spelling written is
// the one kept and listed, and entries list by section, then key, in that order.
class MemoryStore : public SettingsStore {
public:
    std::string get(std::string_view app, std::string_view section, std::string_view key,
                    std::string_view defaultValue = {}) override;
    void set(std::string_view app, std::string_view section, std::string_view key,
             std::string_view value) override;
    std::vector<Entry> list(std::string_view app, std::string_view section = {}) override;
    std::optional<std::uint64_t> changeCount() override;

    bool has(std::string_view app, std::string_view section, std::string_view key) const;
    void erase(std::string_view app, std::string_view section, std::string_view key);
    // Every write in order ("section/key=value"), for tests of write order.
    const std::vector<std::string>& writes() const { return m_writes; }
    void clearWrites() { m_writes.clear(); }
    // Makes every operation fail, as a store on a vanished disk would.
    void setBroken(bool broken) { m_broken = broken; }
    // Makes writes fail and reads work, as a store whose write lock another process holds.
    void setWritesRefused(bool refused) { m_writesRefused = refused; }
    // A write that never fails: the host's own, which holds the lock.
    void hostSet(std::string_view app, std::string_view section, std::string_view key,
                 std::string_view value);

private:
    // Lower-case (ASCII) app, section and key: what identifies an entry.
    struct Id {
        std::string app;
        std::string section;
        std::string key;
        auto operator<=>(const Id&) const = default;
    };
    struct Stored {
        std::string section;  // as first written
        std::string key;
        std::string value;
    };
    static Id idOf(std::string_view app, std::string_view section, std::string_view key);
    void check() const;

    std::map<Id, Stored> m_values;
    std::vector<std::string> m_writes;
    std::uint64_t m_changes = 0;
    bool m_broken = false;
    bool m_writesRefused = false;
};

}  // namespace kestrix::sim
