#include "memory_store.h"

namespace kestrix::sim {

namespace {

std::string lowerAscii(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return lower;
}

}  // namespace

MemoryStore::Id MemoryStore::idOf(std::string_view app, std::string_view section,
                                  std::string_view key) {
    return {lowerAscii(app), lowerAscii(section), lowerAscii(key)};
}

void MemoryStore::check() const {
    if (m_broken) {
        throw StoreError("store unavailable");
    }
}

std::string MemoryStore::get(std::string_view app, std::string_view section, std::string_view key,
                             std::string_view defaultValue) {
    check();
    const auto it = m_values.find(idOf(app, section, key));
    return it == m_values.end() ? std::string(defaultValue) : it->second.value;
}

void MemoryStore::set(std::string_view app, std::string_view section, std::string_view key,
                      std::string_view value) {
    check();
    if (m_writesRefused) {
        throw StoreError("database is locked");
    }
    hostSet(app, section, key, value);
}

void MemoryStore::hostSet(std::string_view app, std::string_view section, std::string_view key,
                          std::string_view value) {
    ++m_changes;
    const auto [it, added] =
        m_values.try_emplace(idOf(app, section, key),
                             Stored{std::string(section), std::string(key), std::string(value)});
    if (!added) {
        it->second.value = std::string(value);
    }
    m_writes.push_back(std::string(section) + "/" + std::string(key) + "=" + std::string(value));
}

std::vector<SettingsStore::Entry> MemoryStore::list(std::string_view app,
                                                    std::string_view section) {
    check();
    const std::string appId = lowerAscii(app);
    const std::string sectionId = lowerAscii(section);
    std::vector<Entry> entries;
    // The map is ordered by the lower-case names, which is the order the entries list in.
    for (auto it = m_values.lower_bound(Id{appId, sectionId, {}});
         it != m_values.end() && it->first.app == appId; ++it) {
        if (!section.empty() && it->first.section != sectionId) {
            break;
        }
        entries.push_back({it->second.section, it->second.key, it->second.value});
    }
    return entries;
}

bool MemoryStore::has(std::string_view app, std::string_view section, std::string_view key) const {
    return m_values.count(idOf(app, section, key)) > 0;
}

std::optional<std::uint64_t> MemoryStore::changeCount() {
    check();
    return m_changes;
}

void MemoryStore::erase(std::string_view app, std::string_view section, std::string_view key) {
    ++m_changes;
    m_values.erase(idOf(app, section, key));
}

}  // namespace kestrix::sim
