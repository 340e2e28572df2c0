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

TEST(SqliteStore, RoundTripDefaultsAndOverwrite) {
    SqliteStore store(freshStore());
    EXPECT_EQ(store.get("KSX", "Status", "Due"), "");
    EXPECT_EQ(store.get("KSX", "Status", "Due", "0"), "0");
    store.set("KSX", "Status", "Due", "12.5");
    store.set("KSX", "Pin Pad", "User", "N/A");
    EXPECT_EQ(store.get("KSX", "Status", "Due", "0"), "12.5");
    store.set("KSX", "Status", "Due", "");
    EXPECT_EQ(store.get("KSX", "Status", "Due", "0"), "") << "an empty value is a value";
    EXPECT_EQ(store.get("KSX", "Pin Pad", "User"), "N/A");
    EXPECT_EQ(store.get("OTHER", "Pin Pad", "User", "none"), "none") << "apps are separate";
}

TEST(SqliteStore, NamesIgnoreCaseLikeTheRegistryAndKeepTheirFirstSpelling) {
    SqliteStore store(freshStore());
    store.set("KSX", "Status", "Due", "1");
    store.set("ksx", "STATUS", "due", "2");
    EXPECT_EQ(store.get("KSX", "Status", "Due"), "2");
    const auto entries = store.list("KSX");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].section, "Status");
    EXPECT_EQ(entries[0].key, "Due");
}

TEST(SqliteStore, ListsInOrderAndBySection) {
    SqliteStore store(freshStore());
    store.set("KSX", "Status", "Due", "0");
    store.set("KSX", "Pin Pad", "User", "u");
    store.set("KSX", "Status", "Credit", "0");
    store.set("OTHER", "Status", "Due", "9");
    const auto all = store.list("KSX");
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].section + "/" + all[0].key, "Pin Pad/User");
    EXPECT_EQ(all[1].section + "/" + all[1].key, "Status/Credit");
    EXPECT_EQ(all[2].section + "/" + all[2].key, "Status/Due");
    EXPECT_EQ(store.list("KSX", "Status").size(), 2u);
    EXPECT_TRUE(store.list("KSX", "Nothing").empty());
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

TEST(SqliteStore, HostileValuesComeBackUnchanged) {
    SqliteStore store(freshStore());
    std::string binaryish;
    for (int c = 1; c < 256; ++c) {
        binaryish += static_cast<char>(c);
    }
    const std::string values[] = {
        std::string(1 << 20, 'x'),
        "'; DROP TABLE settings; --",
        "\"quoted\" 'single' `back`",
        "Código ERROR DE COMUNICACIÓN €",
        "line1\nline2\r\n",
        binaryish,
        "%s%n%x",
    };
    for (const std::string& value : values) {
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
