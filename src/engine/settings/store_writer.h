#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "../platform/clock.h"
#include "../platform/journal.h"
#include "../platform/log.h"
#include "../platform/settings_store.h"

namespace kestrix {

// The engine's writes to the shared settings store, made safe against the store's trouble: a
// host that holds the database's write lock, a full disk, an I/O error. A write the store
// refuses is kept, in order, and written again with a growing pause between tries until the
// store takes it; while any write waits, later writes queue behind it so the host never sees
// them out of order. Reads of a key with a write waiting give the waiting value, so the engine
// never acts on a value it has already replaced (a "Due" it wrote itself during a payment).
class StoreWriter {
public:
    // The first retry comes this long after a refusal; each later one waits twice as long, up to
    // kMaxRetrySeconds.
    static constexpr double kFirstRetrySeconds = 0.25;
    static constexpr double kMaxRetrySeconds = 5.0;

    StoreWriter(SettingsStore& store, Clock& clock, Log& log, Journal& journal);

    // The stored text (or the waiting write's), `defaultValue` when missing. Throws StoreError
    // when the store cannot be read.
    std::string get(std::string_view app, std::string_view section, std::string_view key,
                    std::string_view defaultValue);
    // Never throws StoreError.
    void set(std::string_view app, std::string_view section, std::string_view key,
             std::string_view value);
    // Writes what waits, when the pause since the last refusal has passed.
    void retry();
    // Writes what waits now, whatever the pause (at exit).
    void flush();
    bool troubled() const { return !m_pending.empty(); }
    std::size_t pendingWrites() const { return m_pending.size(); }

private:
    struct Pending {
        std::string app, section, key, value;
    };
    bool writeOut();
    void refused(const StoreError& e);

    SettingsStore& m_store;
    Clock& m_clock;
    Log& m_log;
    Journal& m_journal;
    std::vector<Pending> m_pending;
    double m_nextRetryAt = 0;
    double m_retrySeconds = kFirstRetrySeconds;
};

}  // namespace kestrix
