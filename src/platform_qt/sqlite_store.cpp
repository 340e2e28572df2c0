#include "sqlite_store.h"

#include <sqlite3.h>

#include <sys/stat.h>
#ifndef _WIN32
#include <fcntl.h>
#include <unistd.h>
#endif
#ifdef __linux__
#include <sys/inotify.h>
#endif

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <system_error>

#include "timing_trace.h"

#include "sqlite_statement.h"

namespace kestrix::qt {

namespace {

using sqlite::bindText;
using sqlite::columnText;
using sqlite::Reset;

std::string envValue(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? std::string(value) : std::string();
}

// Creates the missing directories of `file` (0700) and the file itself (0600), leaving what
// exists alone: the store holds the pin pad account. SQLite gives its -wal and -shm files the
// database file's mode.
void createPrivately(const std::string& file) {
    namespace fs = std::filesystem;
    const fs::path dir = fs::path(file).parent_path();
    std::error_code ec;
    if (!dir.empty() && !fs::is_directory(dir, ec)) {
        fs::path partial;
        for (const fs::path& part : dir) {
            partial /= part;
            if (fs::is_directory(partial, ec)) {
                continue;
            }
            ec.clear();
#ifdef _WIN32
            fs::create_directory(partial, ec);
#else
            if (::mkdir(partial.c_str(), 0700) != 0 && errno != EEXIST) {
                ec = std::error_code(errno, std::generic_category());
            }
#endif
            if (ec) {
                throw StoreError("settings store " + file + ": cannot create " + partial.string() +
                                 ": " + ec.message());
            }
        }
    }
#ifndef _WIN32
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) {
        ::close(fd);
    }
    // Any failure (the file exists, the directory is not ours) is left for SQLite to report.
#endif
}

bool damaged(int rc) {
    const int primary = rc & 0xFF;
    return primary == SQLITE_NOTADB || primary == SQLITE_CORRUPT;
}

std::string damagedMessage(const std::string& path) {
    return "settings store " + path +
           " is damaged (not a readable database). The engine does not start on it: move it "
           "aside (mv '" +
           path + "' '" + path +
           ".damaged') and start again for a fresh default set, or put a backup in its place";
}

std::string octal(unsigned mode) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "%04o", mode & 07777U);
    return buf;
}

// Why the store must not live in `dir` (another user can write there, or owns it), or "" when
// it may. Root's directories are trusted: root can do anything anyway.
std::string sharedDirectoryProblem(const std::string& path, const std::filesystem::path& dir) {
#ifdef _WIN32
    (void)path;
    (void)dir;
    return {};
#else
    const std::string shown = dir.empty() ? std::string(".") : dir.string();
    struct stat st {};
    if (::stat(shown.c_str(), &st) != 0) {
        return {};  // opening the store reports it
    }
    const std::string why =
        "the store holds the payment account's password and the host's "
        "requests, and whoever can write there can replace it or block the "
        "engine with a lock file";
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return "settings store " + path + " refused: its directory " + shown +
               " can be written by other users (mode " + octal(st.st_mode) + "); " + why +
               ". Keep the store in a directory of your own (the default is "
               "~/.config/kestrix), or make this one private: chmod go-w '" +
               shown + "'";
    }
    if (st.st_uid != ::geteuid() && st.st_uid != 0) {
        return "settings store " + path + " refused: its directory " + shown +
               " belongs to another user (uid " + std::to_string(st.st_uid) + "); " + why +
               ". Keep the store in a directory of your own (the default is ~/.config/kestrix)";
    }
    return {};
#endif
}

}  // namespace

std::string resolveStorePath(const std::string& cliValue) {
    if (!cliValue.empty()) {
        return cliValue;
    }
    if (std::string env = envValue("KSX_STORE"); !env.empty()) {
        return env;
    }
    std::filesystem::path config;
    // A relative XDG_CONFIG_HOME is invalid and ignored, as the XDG rules say.
    if (std::string xdg = envValue("XDG_CONFIG_HOME"); !xdg.empty() && xdg.front() == '/') {
        config = xdg;
    } else if (std::string home = envValue("HOME"); !home.empty()) {
        config = std::filesystem::path(home) / ".config";
    } else if (std::string appData = envValue("APPDATA"); !appData.empty()) {
        config = appData;
    } else {
        throw StoreError("settings store: no home directory to keep the store in (set KSX_STORE)");
    }
    return (config / "kestrix" / "KSX.db").string();
}

SqliteStore::SqliteStore(std::string path, Access access)
    : m_path(std::move(path)), m_readOnly(access == Access::ReadOnly) {
    if (m_path.empty()) {
        throw StoreError("settings store: empty path");
    }
    open();
}

void SqliteStore::open() {
    const std::filesystem::path dir = std::filesystem::path(m_path).parent_path();
    if (m_readOnly) {
        // A tool that only looks never creates a store.
        std::error_code ec;
        if (!std::filesystem::exists(m_path, ec)) {
            throw StoreError("settings store " + m_path + " does not exist");
        }
    } else {
        // Judge the directory before anything is created in it.
        if (const std::string problem = sharedDirectoryProblem(m_path, dir); !problem.empty()) {
            throw StoreRefused(problem);
        }
        createPrivately(m_path);
    }
    const int flags =
        (m_readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) |
        SQLITE_OPEN_FULLMUTEX;
    const int rc = sqlite3_open_v2(m_path.c_str(), &m_db, flags, nullptr);
    if (rc != SQLITE_OK) {
        const std::string message = m_db != nullptr ? sqlite3_errmsg(m_db) : sqlite3_errstr(rc);
        sqlite3_close(m_db);
        m_db = nullptr;
        throw StoreError("settings store " + m_path + ": " + message);
    }
    try {
        sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
        if (!m_readOnly) {
            // WAL lets the host read while the engine writes and the other way round. NORMAL
            // synchronisation is safe against a crash of either program; the mailbox is reset
            // at every engine start anyway.
            exec("PRAGMA journal_mode=WAL");
            exec("PRAGMA synchronous=NORMAL");
            exec(
                "CREATE TABLE IF NOT EXISTS settings("
                "app TEXT NOT NULL COLLATE NOCASE, "
                "section TEXT NOT NULL COLLATE NOCASE, "
                "key TEXT NOT NULL COLLATE NOCASE, "
                "value TEXT NOT NULL, "
                "PRIMARY KEY(app, section, key))");
        }
        m_get = prepare("SELECT value FROM settings WHERE app=?1 AND section=?2 AND key=?3");
        m_set = prepare(
            "INSERT INTO settings(app, section, key, value) VALUES(?1, ?2, ?3, ?4) "
            "ON CONFLICT(app, section, key) DO UPDATE SET value=excluded.value");
        m_listAll =
            prepare("SELECT section, key, value FROM settings WHERE app=?1 ORDER BY section, key");
        m_listSection = prepare(
            "SELECT section, key, value FROM settings WHERE app=?1 AND section=?2 "
            "ORDER BY section, key");
        // Changes when another connection commits; this connection's own writes do not count.
        m_dataVersion = prepare("PRAGMA data_version");
        ++m_changes;
    } catch (const std::exception&) {
        closeAll();
        throw;
    }
#ifndef _WIN32
    struct stat st {};
    if (::stat(m_path.c_str(), &st) == 0) {
        m_device = static_cast<unsigned long long>(st.st_dev);
        m_inode = static_cast<unsigned long long>(st.st_ino);
    }
#endif
}

SqliteStore::~SqliteStore() {
    closeAll();
#ifndef _WIN32
    if (m_watch >= 0) {
        ::close(m_watch);
    }
#endif
}

void SqliteStore::closeAll() {
    for (sqlite3_stmt** stmt : {&m_get, &m_set, &m_listAll, &m_listSection, &m_dataVersion}) {
        sqlite3_finalize(*stmt);
        *stmt = nullptr;
    }
    sqlite3_close(m_db);
    m_db = nullptr;
}

void SqliteStore::notice(const std::string& message) {
    if (m_notice) {
        m_notice(message);
    } else {
        std::fprintf(stderr, "%s\n", message.c_str());
    }
}

void SqliteStore::fail(const std::string& what) {
    if (damaged(sqlite3_extended_errcode(m_db))) {
        // Said once, not on every read of every tick, until the store works again.
        const std::string message = damagedMessage(m_path);
        if (!m_troubleSaid) {
            m_troubleSaid = true;
            notice(message);
        }
        throw StoreError(message);
    }
    throw StoreError("settings store " + m_path + ": " + what + ": " + sqlite3_errmsg(m_db));
}

void SqliteStore::exec(const char* sql) {
    char* error = nullptr;
    const int rc = sqlite3_exec(m_db, sql, nullptr, nullptr, &error);
    if (rc != SQLITE_OK) {
        std::string message = error != nullptr ? error : sqlite3_errmsg(m_db);
        sqlite3_free(error);
        if (damaged(rc)) {
            throw StoreRefused(damagedMessage(m_path));
        }
        throw StoreError("settings store " + m_path + ": " + message);
    }
}

void SqliteStore::followFile() {
#ifndef _WIN32
    if (m_db != nullptr) {
        struct stat st {};
        const bool present = ::stat(m_path.c_str(), &st) == 0;
        if (present && static_cast<unsigned long long>(st.st_dev) == m_device &&
            static_cast<unsigned long long>(st.st_ino) == m_inode) {
            return;
        }
        // Writing on into a file nobody else can open any more would lose every request the
        // host makes from now on.
        notice("settings store " + m_path +
               (present ? " was replaced while in use: the file now at that path is used"
                        : " was deleted while in use: a new one is made at that path"));
        // The write-ahead log is found by the path, not by the file: left as it is, the old
        // store's last writes would be read into whatever file now has that path. Emptied
        // into the old file first, it is harmless.
        sqlite3_wal_checkpoint_v2(m_db, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
        closeAll();
    }
    try {
        open();
    } catch (const StoreError& e) {
        if (!m_troubleSaid) {
            m_troubleSaid = true;
            notice(std::string(e.what()) + " (tried again at every read and write)");
        }
        throw;
    }
    if (m_troubleSaid) {
        m_troubleSaid = false;
        notice("settings store " + m_path + " is usable again");
    }
#endif
}

sqlite3_stmt* SqliteStore::prepare(const char* sql) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(m_db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) {
        fail("cannot prepare a query");
    }
    return stmt;
}

std::string SqliteStore::get(std::string_view app, std::string_view section, std::string_view key,
                             std::string_view defaultValue) {
    std::lock_guard lock(m_mutex);
    followFile();
    Reset reset{m_get};
    if (bindText(m_get, 1, app) != SQLITE_OK || bindText(m_get, 2, section) != SQLITE_OK ||
        bindText(m_get, 3, key) != SQLITE_OK) {
        fail("cannot read " + std::string(section) + "/" + std::string(key));
    }
    switch (sqlite3_step(m_get)) {
        case SQLITE_ROW:
            return columnText(m_get, 0);
        case SQLITE_DONE:
            return std::string(defaultValue);
        default:
            fail("cannot read " + std::string(section) + "/" + std::string(key));
    }
}

void SqliteStore::set(std::string_view app, std::string_view section, std::string_view key,
                      std::string_view value) {
    std::lock_guard lock(m_mutex);
    followFile();
    ++m_changes;  // also when refused: a later look at the store must not be skipped
    Reset reset{m_set};
    if (bindText(m_set, 1, app) != SQLITE_OK || bindText(m_set, 2, section) != SQLITE_OK ||
        bindText(m_set, 3, key) != SQLITE_OK || bindText(m_set, 4, value) != SQLITE_OK ||
        sqlite3_step(m_set) != SQLITE_DONE) {
        fail("cannot write " + std::string(section) + "/" + std::string(key));
    }
    if (timing::enabled()) {
        timing::record('S', std::string(section) + "/" + std::string(key), value);
    }
}

std::vector<SettingsStore::Entry> SqliteStore::list(std::string_view app,
                                                    std::string_view section) {
    std::lock_guard lock(m_mutex);
    followFile();
    sqlite3_stmt* stmt = section.empty() ? m_listAll : m_listSection;
    Reset reset{stmt};
    if (bindText(stmt, 1, app) != SQLITE_OK ||
        (!section.empty() && bindText(stmt, 2, section) != SQLITE_OK)) {
        fail("cannot list the settings");
    }
    std::vector<Entry> entries;
    for (;;) {
        const int rc = sqlite3_step(stmt);
        if (rc == SQLITE_DONE) {
            return entries;
        }
        if (rc != SQLITE_ROW) {
            fail("cannot list the settings");
        }
        entries.push_back({columnText(stmt, 0), columnText(stmt, 1), columnText(stmt, 2)});
    }
}

bool SqliteStore::filesTouched() {
#ifdef __linux__
    if (!m_watchTried) {
        m_watchTried = true;
        // A store reached through a link is written where the link leads (its log too): both
        // directories are watched, the link's for the link being replaced.
        namespace fs = std::filesystem;
        std::error_code ec;
        const fs::path given = fs::absolute(m_path, ec);
        const fs::path real = fs::canonical(given, ec);
        m_watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        for (const fs::path& p : {given, ec ? given : real}) {
            m_watchedNames.push_back(p.filename().string());
            constexpr std::uint32_t kEvents = IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE |
                                              IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF |
                                              IN_MOVE_SELF;
            if (m_watch >= 0 &&
                ::inotify_add_watch(m_watch, p.parent_path().c_str(), kEvents) < 0) {
                ::close(m_watch);
                m_watch = -1;
            }
        }
        return true;
    }
    if (m_watch < 0) {
        return true;
    }
    const auto ours = [this](std::string_view what) {
        for (const std::string& name : m_watchedNames) {
            if (what == name || (what.starts_with(name) && what.substr(name.size()) == "-wal")) {
                return true;
            }
        }
        return false;
    };
    bool touched = false;
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(m_watch, buffer, sizeof buffer);
        if (n <= 0) {
            // Drained (EAGAIN); anything else and the notification cannot be trusted any more.
            return touched || !(n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK));
        }
        for (ssize_t at = 0; at < n;) {
            const auto* e = reinterpret_cast<const inotify_event*>(buffer + at);
            // The shared-memory index (-shm) is written through a mapping, which tells nothing;
            // the database and its log are written with write(), which does.
            const std::string_view what = e->len > 0 ? std::string_view(e->name) : "";
            touched = touched || e->len == 0 || ours(what);
            at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
        }
    }
#else
    return true;
#endif
}

std::optional<std::uint64_t> SqliteStore::changeCount() {
    std::lock_guard lock(m_mutex);
    // Asking SQLite takes a read transaction (file locks, a statement) and following the file a
    // look up of its path: twice a second for as long as the kiosk is idle, that was most of
    // what an idle engine cost. Another program's commit writes the write-ahead log (or, in
    // another journal mode, the database file), and replacing or deleting the store changes
    // its directory: the file system tells of both. Where it cannot, or should it miss
    // something, SQLite is still asked every kFullLookSeconds.
    const auto now = std::chrono::steady_clock::now();
    if (!filesTouched() && now < m_nextFullLook && m_db != nullptr) {
        return m_changes;
    }
    followFile();
    m_nextFullLook = now + std::chrono::seconds(kFullLookSeconds);
    Reset reset{m_dataVersion};
    if (sqlite3_step(m_dataVersion) != SQLITE_ROW) {
        fail("cannot tell whether the settings changed");
    }
    const long long dataVersion = sqlite3_column_int64(m_dataVersion, 0);
    if (dataVersion != m_lastDataVersion) {
        m_lastDataVersion = dataVersion;
        ++m_changes;
    }
    return m_changes;
}

void SqliteStore::setBusyTimeout(int milliseconds) {
    std::lock_guard lock(m_mutex);
    sqlite3_busy_timeout(m_db, milliseconds);
}

}  // namespace kestrix::qt
