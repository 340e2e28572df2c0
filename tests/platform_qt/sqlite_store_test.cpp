#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "platform_qt/sqlite_store.h"
#include "support/support.h"

namespace kestrix::qt {
namespace {

std::string freshStore() {
    return test::makeTempDir("ksx-store") + "/nested/dir/KSX.db";
}

// What only SQLite could get wrong: bytes that are NUL or not UTF-8 (the registry takes UTF-16
// text, and the store contract covers the texts every store keeps, SQL among them).
TEST(SqliteStore, NulAndNonUtf8BytesComeBackUnchanged) {
    SqliteStore store(freshStore());
    std::string bytes;
    for (int c = 0; c < 256; ++c) {
        bytes += static_cast<char>(c);
    }
    store.set("KSX", "Status", "Hostile", bytes);
    EXPECT_EQ(store.get("KSX", "Status", "Hostile"), bytes);
    store.set("KSX", bytes, bytes, "as names too");
    EXPECT_EQ(store.get("KSX", bytes, bytes), "as names too");
}

TEST(SqliteStore, UnusablePathIsAStoreError) {
    const std::string dir = test::makeTempDir("ksx-store");
    EXPECT_THROW(SqliteStore{""}, StoreError);
    EXPECT_THROW(SqliteStore{dir}, StoreError) << "a directory is no database";
    EXPECT_THROW(SqliteStore{"/dev/null/KSX.db"}, StoreError);
    std::ofstream(dir + "/junk.db") << "this is not a database, just text long enough to check";
    try {
        SqliteStore damaged(dir + "/junk.db");
        ADD_FAILURE() << "a damaged store opened";
    } catch (const StoreRefused& e) {
        // Refused with what to do, so that the service unit does not restart into it for ever.
        EXPECT_NE(std::string(e.what()).find("is damaged"), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("mv '" + dir + "/junk.db'"), std::string::npos);
    }
}

// Whoever can write the store's directory can swap the store or plant its lock file.
TEST(SqliteStore, ADirectoryOtherUsersCanWriteOrOwnIsRefused) {
    struct Row {
        const char* name;
        mode_t mode;
        bool otherOwner;
        bool refused;
    };
    const Row rows[] = {
        {"private", 0700, false, false},          {"readable by all", 0755, false, false},
        {"group-writable", 0770, false, true},    {"world-writable", 0777, false, true},
        {"shared like /tmp", 01777, false, true}, {"another user's", 0755, true, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string dir = test::makeTempDir("ksx-store") + "/kiosk";
        std::filesystem::create_directory(dir);
        ASSERT_EQ(::chmod(dir.c_str(), row.mode), 0);
        if (row.otherOwner) {
            if (::geteuid() != 0) {
                continue;  // only root can give a directory away
            }
            ASSERT_EQ(::chown(dir.c_str(), 65534, 65534), 0);
        }
        if (!row.refused) {
            EXPECT_NO_THROW(SqliteStore{dir + "/KSX.db"});
            continue;
        }
        EXPECT_THROW(SqliteStore{dir + "/KSX.db"}, StoreRefused);
        EXPECT_FALSE(std::filesystem::exists(dir + "/KSX.db")) << "nothing is created there";
    }
}

// The host and the engine are separate processes: each sees the other's writes at its next read,
// also when the host deletes the store or moves a new one into place while the engine runs (the
// engine must not go on in a file nobody else can open).
TEST(SqliteStore, AStoreDeletedOrReplacedWhileInUseIsNoticedAndFollowed) {
    const std::string path = freshStore();
    SqliteStore engine(path);
    std::vector<std::string> notices;
    engine.setNotice([&](const std::string& m) { notices.push_back(m); });
    engine.set("KSX", "Status", "Credit", "5");

    std::filesystem::remove(path);
    EXPECT_EQ(engine.get("KSX", "Status", "Credit", "none"), "none") << "a new, empty store";
    SqliteStore(path).set("KSX", "Status", "Due", "7");  // the host, in a connection of its own
    EXPECT_EQ(engine.get("KSX", "Status", "Due"), "7");

    const std::string replacement = path + ".new";
    SqliteStore(replacement).set("KSX", "Status", "Due", "12");
    std::filesystem::rename(replacement, path);
    EXPECT_EQ(engine.get("KSX", "Status", "Due"), "12");
    engine.set("KSX", "Status", "Credit", "12");
    EXPECT_EQ(SqliteStore(path).get("KSX", "Status", "Credit"), "12") << "one file for both";

    ASSERT_EQ(notices.size(), 2u);
    EXPECT_NE(notices[0].find("was deleted while in use"), std::string::npos) << notices[0];
    EXPECT_NE(notices[1].find("was replaced while in use"), std::string::npos) << notices[1];

    // Replaced by a directory: every use fails, said once, until a store is back.
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_THROW(engine.get("KSX", "Status", "Due"), StoreError);
    EXPECT_THROW(engine.set("KSX", "Status", "Due", "1"), StoreError);
    EXPECT_EQ(notices.size(), 4u) << "the replacement, then the failure once";
    std::filesystem::remove(path);
    EXPECT_EQ(engine.get("KSX", "Status", "Due", "back"), "back");
    EXPECT_NE(notices.back().find("usable again"), std::string::npos);
}

TEST(SqliteStore, ANewStoreIsPrivateAndALookNeverCreatesOne) {
    namespace fs = std::filesystem;
    const std::string path = freshStore();
    const fs::path nested = fs::path(path).parent_path().parent_path();
    EXPECT_THROW(SqliteStore(path, SqliteStore::Access::ReadOnly), StoreError);
    EXPECT_FALSE(fs::exists(nested)) << "a read-only opening created directories";

    SqliteStore store(path);
    store.set("KSX", "Pin Pad", "Password", "secret");
    const auto mode = [](const fs::path& p) {
        return fs::status(p).permissions() & fs::perms::all;
    };
    EXPECT_EQ(mode(path), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(mode(path + "-wal"), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(mode(nested), fs::perms::owner_all);
    EXPECT_EQ(mode(fs::path(path).parent_path()), fs::perms::owner_all);

    SqliteStore reader(path, SqliteStore::Access::ReadOnly);
    EXPECT_EQ(reader.get("KSX", "Pin Pad", "Password"), "secret");
    EXPECT_THROW(reader.set("KSX", "Status", "Due", "1"), StoreError);
    store.set("KSX", "Pin Pad", "Password", "changed");
    EXPECT_EQ(reader.get("KSX", "Pin Pad", "Password"), "changed") << "reads stay fresh";
}

// The store path as the programs resolve it with KSX_STORE and XDG_CONFIG_HOME set as given
// (nullptr: unset) and HOME=/home/kiosk. The test's own environment is put back afterwards.
std::string pathWith(const char* ksxStore, const char* xdg, const std::string& cli = {}) {
    const std::pair<const char*, const char*> given[] = {
        {"KSX_STORE", ksxStore}, {"XDG_CONFIG_HOME", xdg}, {"HOME", "/home/kiosk"}};
    std::vector<std::pair<const char*, std::optional<std::string>>> saved;
    for (const auto& [name, value] : given) {
        const char* old = std::getenv(name);
        saved.emplace_back(name, old != nullptr ? std::optional<std::string>(old) : std::nullopt);
        value != nullptr ? setenv(name, value, 1) : unsetenv(name);
    }
    const std::string path = resolveStorePath(cli);
    for (const auto& [name, value] : saved) {
        value ? setenv(name, value->c_str(), 1) : unsetenv(name);
    }
    return path;
}

TEST(SqliteStore, StorePathRules) {
    EXPECT_EQ(pathWith(nullptr, nullptr), "/home/kiosk/.config/kestrix/KSX.db");
    EXPECT_EQ(pathWith(nullptr, nullptr, "/tmp/x.db"), "/tmp/x.db");
    EXPECT_EQ(pathWith(nullptr, "/etc/cfg"), "/etc/cfg/kestrix/KSX.db");
    EXPECT_EQ(pathWith(nullptr, "relative/cfg"), "/home/kiosk/.config/kestrix/KSX.db")
        << "a relative XDG_CONFIG_HOME is ignored";
    EXPECT_EQ(pathWith("/srv/ksx.db", "/etc/cfg"), "/srv/ksx.db");
    EXPECT_EQ(pathWith("/srv/ksx.db", "/etc/cfg", "/opt/cli.db"), "/opt/cli.db")
        << "the option wins";
}

}  // namespace
}  // namespace kestrix::qt
