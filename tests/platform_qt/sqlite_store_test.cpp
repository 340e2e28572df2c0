#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "platform_qt/sqlite_store.h"
#include "support/support.h"

namespace kestrix::qt {
namespace {

std::string freshStore() {
    return test::makeTempDir("ksx-store") + "/nested/dir/KSX.db";
}

// The host and the engine are separate processes: a write through one connection must be seen
// by the other's next read, without reopening and without either caching.
TEST(SqliteStore, TwoConnectionsSeeEachOthersWritesAtOnce) {
    const std::string path = freshStore();
    SqliteStore engine(path);
    SqliteStore host(path);
    EXPECT_EQ(engine.get("KSX", "Status", "Due", "0"), "0");
    for (int i = 1; i <= 50; ++i) {
        host.set("KSX", "Status", "Due", std::to_string(i));
        ASSERT_EQ(engine.get("KSX", "Status", "Due"), std::to_string(i));
        engine.set("KSX", "Status", "Credit", std::to_string(i));
        ASSERT_EQ(host.get("KSX", "Status", "Credit"), std::to_string(i));
    }
}

// What only SQLite could get wrong: text that is SQL, and bytes that are not UTF-8 (the registry
// takes UTF-16 text and the store contract covers the texts every store keeps).
TEST(SqliteStore, SqlAndNonUtf8BytesComeBackUnchanged) {
    SqliteStore store(freshStore());
    std::string bytes;
    for (int c = 1; c < 256; ++c) {
        bytes += static_cast<char>(c);
    }
    for (const std::string& value : {std::string("'; DROP TABLE settings; --"), bytes}) {
        store.set("KSX", "Status", "Hostile", value);
        EXPECT_EQ(store.get("KSX", "Status", "Hostile"), value) << value.substr(0, 40);
        store.set("KSX", value, value, "as names too");
        EXPECT_EQ(store.get("KSX", value, value), "as names too") << value.substr(0, 40);
    }
}

TEST(SqliteStore, EngineAndGuiThreadsShareOneStore) {
    SqliteStore store(freshStore());
    std::thread gui([&] {
        for (int i = 0; i < 200; ++i) {
            store.get("KSX", "Status", "Due");
        }
    });
    for (int i = 0; i < 200; ++i) {
        store.set("KSX", "Status", "Due", std::to_string(i));
    }
    gui.join();
    EXPECT_EQ(store.get("KSX", "Status", "Due"), "199");
}

TEST(SqliteStore, UnusablePathIsAStoreError) {
    const std::string dir = test::makeTempDir("ksx-store");
    EXPECT_THROW(SqliteStore{""}, StoreError);
    EXPECT_THROW(SqliteStore{dir}, StoreError) << "a directory is no database";
    EXPECT_THROW(SqliteStore{"/dev/null/KSX.db"}, StoreError);
    {
        std::FILE* f = std::fopen((dir + "/junk.db").c_str(), "w");
        std::fputs("this is not a database, just some text that is long enough to check", f);
        std::fclose(f);
    }
    EXPECT_THROW(SqliteStore{dir + "/junk.db"}, StoreError);
}

#ifndef _WIN32
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
#endif

// The store path as the programs resolve it with KSX_STORE and XDG_CONFIG_HOME set as given
// (nullptr: unset) and HOME=/home/kiosk. The test's own environment is put back afterwards.
std::string pathWith(const char* ksxStore, const char* xdg, const std::string& cli = {}) {
    const char* names[] = {"KSX_STORE", "XDG_CONFIG_HOME", "HOME"};
    const char* values[] = {ksxStore, xdg, "/home/kiosk"};
    std::string saved[3];
    bool had[3];
    for (int i = 0; i < 3; ++i) {
        const char* old = std::getenv(names[i]);
        had[i] = old != nullptr;
        saved[i] = had[i] ? old : "";
        values[i] != nullptr ? setenv(names[i], values[i], 1) : unsetenv(names[i]);
    }
    const std::string path = resolveStorePath(cli);
    for (int i = 0; i < 3; ++i) {
        had[i] ? setenv(names[i], saved[i].c_str(), 1) : unsetenv(names[i]);
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
