#pragma once

#include <mutex>
#include <string>

#include "engine/platform/settings_store.h"

struct sqlite3;
struct sqlite3_stmt;

namespace kestrix::qt {

// The store's file: `cliValue` (a --store option) when given, else the environment variable
// KSX_STORE, else ${XDG_CONFIG_HOME:-~/.config}/kestrix/KSX.db. Throws StoreError when none can
// be formed (no home directory).
std::string resolveStorePath(const std::string& cliValue);

// The settings store as one SQLite database shared by the engine, the host and ksxctl:
//
//   settings(app, section, key, value, primary key(app, section, key))
//
// Every read is a fresh query, so a value another process wrote a moment ago is seen at once.
// The database runs in WAL mode (readers never block the writer) with a busy timeout, so two
// processes writing at the same moment wait for each other instead of failing. Names compare
// without regard to ASCII case, as the registry that older hosts used does: "due" and "Due" are
// the same key, and the first spelling written is the one kept.
//
// One connection guarded by a mutex: the engine thread and a GUI thread may both use it.
//
// The store holds the pin pad account: a new store file is created readable by its owner only
// (0600), in directories created for it likewise (0700).
class SqliteStore : public SettingsStore {
public:
    enum class Access {
        ReadWrite,  // creates the file, its directory and the table when missing
        ReadOnly,   // for tools that only look: a missing store is an error, never created
    };

    // Opens the store. Throws StoreError.
    explicit SqliteStore(std::string path, Access access = Access::ReadWrite);
    ~SqliteStore() override;
    SqliteStore(const SqliteStore&) = delete;
    SqliteStore& operator=(const SqliteStore&) = delete;

    std::string get(std::string_view app, std::string_view section, std::string_view key,
                    std::string_view defaultValue = {}) override;
    void set(std::string_view app, std::string_view section, std::string_view key,
             std::string_view value) override;
    std::vector<Entry> list(std::string_view app, std::string_view section = {}) override;

    const std::string& path() const { return m_path; }

    // How long a statement waits for another process's write to finish before failing.
    static constexpr int kBusyTimeoutMs = 5000;
    // The engine waits much less: a write refused because a host holds the lock is kept and
    // written again later, and a long wait would only stall the device work meanwhile.
    static constexpr int kEngineBusyTimeoutMs = 250;
    void setBusyTimeout(int milliseconds);

private:
    [[noreturn]] void fail(const std::string& what) const;
    void closeAll();
    void exec(const char* sql);
    sqlite3_stmt* prepare(const char* sql);

    std::string m_path;
    sqlite3* m_db = nullptr;
    sqlite3_stmt* m_get = nullptr;
    sqlite3_stmt* m_set = nullptr;
    sqlite3_stmt* m_listAll = nullptr;
    sqlite3_stmt* m_listSection = nullptr;
    std::mutex m_mutex;
};

}  // namespace kestrix::qt
