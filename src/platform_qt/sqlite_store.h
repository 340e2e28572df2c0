#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "engine/platform/settings_store.h"

struct sqlite3;
struct sqlite3_stmt;

namespace kestrix::qt {

// A store the engine must not run on as it is, and that no restart will mend: it lies in a
// directory other users can write, or its file is damaged. The message says what to do.
class StoreRefused : public StoreError {
public:
    using StoreError::StoreError;
};

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
// The store lives in a private directory: one that other users can write (or that belongs to
// another user) is refused, since whoever can write there can swap the store or leave a lock
// file that keeps the engine from starting. A store file deleted or replaced while in use is
// noticed at the next read or write, said once, and the file now at the path is used (a new one
// when none is there), so the engine and the host never talk through two different files. A
// damaged file is refused with what to do about it.
//
// One connection guarded by a mutex: the engine thread and a GUI thread may both use it.
class SqliteStore : public SettingsStore {
public:
    // Where the store says what it noticed (a replaced file, damage); standard error by default.
    using Notice = std::function<void(const std::string& message)>;

    enum class Access {
        ReadWrite,  // creates the file (0600), its directories (0700) and the table when missing
        ReadOnly,   // for tools that only look: a missing store is an error, never created
    };

    // Opens the store. Throws StoreRefused for a shared directory or a damaged file, StoreError
    // for any other failure.
    explicit SqliteStore(std::string path, Access access = Access::ReadWrite);
    ~SqliteStore() override;
    SqliteStore(const SqliteStore&) = delete;
    SqliteStore& operator=(const SqliteStore&) = delete;

    std::string get(std::string_view app, std::string_view section, std::string_view key,
                    std::string_view defaultValue = {}) override;
    void set(std::string_view app, std::string_view section, std::string_view key,
             std::string_view value) override;
    std::vector<Entry> list(std::string_view app, std::string_view section = {}) override;
    std::optional<std::uint64_t> changeCount() override;

    const std::string& path() const { return m_path; }
    void setNotice(Notice notice) { m_notice = std::move(notice); }

    // How long a statement waits for another process's write to finish before failing.
    static constexpr int kBusyTimeoutMs = 5000;
    // The engine waits much less: a write refused because a host holds the lock is kept and
    // written again later, and a long wait would only stall the device work meanwhile.
    static constexpr int kEngineBusyTimeoutMs = 250;
    void setBusyTimeout(int milliseconds);
    // changeCount() asks SQLite at least this often even when the files look untouched.
    static constexpr int kFullLookSeconds = 5;

private:
    [[noreturn]] void fail(const std::string& what);
    void open();
    void closeAll();
    // Reopens when the file at the path is no longer the one open. Throws StoreError.
    void followFile();
    // Whether the store's files may have been written, replaced or deleted since the last
    // call: true unless the file system's change notification says they were not.
    bool filesTouched();
    void notice(const std::string& message);
    void exec(const char* sql);
    sqlite3_stmt* prepare(const char* sql);

    std::string m_path;
    bool m_readOnly = false;
    sqlite3* m_db = nullptr;
    sqlite3_stmt* m_get = nullptr;
    sqlite3_stmt* m_set = nullptr;
    sqlite3_stmt* m_listAll = nullptr;
    sqlite3_stmt* m_listSection = nullptr;
    sqlite3_stmt* m_dataVersion = nullptr;
    // Counts this object's writes and opens and the other connections' commits it has seen.
    std::uint64_t m_changes = 0;
    long long m_lastDataVersion = -1;
    // When the next look at data_version is due whatever the files tell, and the change
    // notification on the store's directory (-1: none yet, or none to be had).
    std::chrono::steady_clock::time_point m_nextFullLook{};
    int m_watch = -1;
    bool m_watchTried = false;
    std::vector<std::string> m_watchedNames;  // the store's file names in those directories
    // The identity (device, inode) of the file open.
    unsigned long long m_device = 0;
    unsigned long long m_inode = 0;
    bool m_troubleSaid = false;
    Notice m_notice;
    std::mutex m_mutex;
};

}  // namespace kestrix::qt
