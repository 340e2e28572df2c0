#include "store_writer.h"

#include <algorithm>
#include <cctype>

namespace kestrix {

namespace {

// Sections and keys are matched without regard to case, as the store itself matches them.
bool sameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

}  // namespace

StoreWriter::StoreWriter(SettingsStore& store, Clock& clock, Log& log, Journal& journal)
    : m_store(store), m_clock(clock), m_log(log), m_journal(journal) {}

std::string StoreWriter::get(std::string_view app, std::string_view section, std::string_view key,
                             std::string_view defaultValue) {
    for (auto it = m_pending.rbegin(); it != m_pending.rend(); ++it) {
        if (sameName(it->app, app) && sameName(it->section, section) && sameName(it->key, key)) {
            return it->value;
        }
    }
    return m_store.get(app, section, key, defaultValue);
}

void StoreWriter::set(std::string_view app, std::string_view section, std::string_view key,
                      std::string_view value) {
    if (!m_pending.empty()) {
        // Behind the waiting writes; an older waiting value of the same key is replaced, so the
        // queue holds at most one write per key.
        std::erase_if(m_pending, [&](const Pending& p) {
            return sameName(p.app, app) && sameName(p.section, section) && sameName(p.key, key);
        });
        m_pending.push_back(
            {std::string(app), std::string(section), std::string(key), std::string(value)});
        retry();
        return;
    }
    try {
        m_store.set(app, section, key, value);
    } catch (const StoreError& e) {
        m_pending.push_back(
            {std::string(app), std::string(section), std::string(key), std::string(value)});
        refused(e);
    }
}

void StoreWriter::retry() {
    if (!m_pending.empty() && m_clock.elapsedSeconds() >= m_nextRetryAt) {
        writeOut();
    }
}

void StoreWriter::flush() {
    if (!m_pending.empty()) {
        writeOut();
    }
}

bool StoreWriter::writeOut() {
    while (!m_pending.empty()) {
        const Pending& p = m_pending.front();
        try {
            m_store.set(p.app, p.section, p.key, p.value);
        } catch (const StoreError& e) {
            m_retrySeconds = std::min(m_retrySeconds * 2, kMaxRetrySeconds);
            m_nextRetryAt = m_clock.elapsedSeconds() + m_retrySeconds;
            return false;
        }
        m_pending.erase(m_pending.begin());
    }
    m_retrySeconds = kFirstRetrySeconds;
    m_log.notice("settings store: writes accepted again; every waiting value is written",
                 {"store", 0});
    m_journal.append(
        {.kind = journal_kind::kStoreTrouble, .device = "store", .detail = "resolved"});
    return true;
}

void StoreWriter::refused(const StoreError& e) {
    m_retrySeconds = kFirstRetrySeconds;
    m_nextRetryAt = m_clock.elapsedSeconds() + m_retrySeconds;
    m_log.warning(std::string("settings store refuses writes (") + e.what() +
                      "); the engine keeps the values and writes them once it can",
                  {"store", 0});
    m_journal.append({.kind = journal_kind::kStoreTrouble, .device = "store", .detail = e.what()});
}

}  // namespace kestrix
