#include "memory_store.h"

namespace kestrix::sim {

std::string MemoryStore::get(std::string_view app, std::string_view section, std::string_view key,
                             std::string_view defaultValue) {
    if (m_broken) {
        throw StoreError("store unavailable");
    }
    const auto it = m_values.find({std::string(app), std::string(section), std::string(key)});
    return it == m_values.end() ? std::string(defaultValue) : it->second;
}

void MemoryStore::set(std::string_view app, std::string_view section, std::string_view key,
                      std::string_view value) {
    if (m_broken) {
        throw StoreError("store unavailable");
    }
    if (m_writesRefused) {
        throw StoreError("database is locked");
    }
    hostSet(app, section, key, value);
}

void MemoryStore::hostSet(std::string_view app, std::string_view section, std::string_view key,
                          std::string_view value) {
    m_values[{std::string(app), std::string(section), std::string(key)}] = std::string(value);
    m_writes.push_back(std::string(section) + "/" + std::string(key) + "=" + std::string(value));
}

std::vector<SettingsStore::Entry> MemoryStore::list(std::string_view app,
                                                    std::string_view section) {
    if (m_broken) {
        throw StoreError("store unavailable");
    }
    std::vector<Entry> entries;
    for (const auto& [k, v] : m_values) {
        if (std::get<0>(k) == app && (section.empty() || std::get<1>(k) == section)) {
            entries.push_back({std::get<1>(k), std::get<2>(k), v});
        }
    }
    return entries;
}

bool MemoryStore::has(std::string_view app, std::string_view section, std::string_view key) const {
    return m_values.count({std::string(app), std::string(section), std::string(key)}) > 0;
}

void MemoryStore::erase(std::string_view app, std::string_view section, std::string_view key) {
    m_values.erase({std::string(app), std::string(section), std::string(key)});
}

}  // namespace kestrix::sim
