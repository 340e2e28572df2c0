// One behaviour suite for every settings store: the memory store of the virtual world, the
// SQLite file (where the build has SQLite) and the registry (on Windows, under Wine when
// cross-built). The engine and the hosts rely on these behaving alike, so a rule that holds for
// one store holds for all.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/platform/settings_store.h"
#include "sim/world/memory_store.h"
#include "support/support.h"

#ifdef KESTRIX_HAVE_SQLITE
#include "platform_qt/sqlite_store.h"
#endif
#ifdef _WIN32
#include <windows.h>

#include <random>

#include "platform_win/registry_store_win.h"
#endif

namespace kestrix {
namespace {

// A store under test, empty, and the application names a test may use in it.
class Backend {
public:
    virtual ~Backend() = default;
    virtual SettingsStore& store() = 0;
    // Two distinct application names, spelt as a test writes them.
    virtual std::string app() const { return "KSX"; }
    virtual std::string otherApp() const { return "OTHER"; }
    // Writes as the host does: another connection, another program.
    virtual void hostSet(const std::string& section, const std::string& key,
                         const std::string& value) = 0;
};

class MemoryBackend : public Backend {
public:
    SettingsStore& store() override { return m_store; }
    void hostSet(const std::string& section, const std::string& key,
                 const std::string& value) override {
        m_store.hostSet(app(), section, key, value);
    }

private:
    sim::MemoryStore m_store;
};

#ifdef KESTRIX_HAVE_SQLITE
class SqliteBackend : public Backend {
public:
    SettingsStore& store() override { return m_store; }
    void hostSet(const std::string& section, const std::string& key,
                 const std::string& value) override {
        qt::SqliteStore(m_store.path()).set(app(), section, key, value);
    }

private:
    qt::SqliteStore m_store{test::makeTempDir("ksx-contract") + "/KSX.db"};
};
#endif

#ifdef _WIN32
// The registry is shared by every test and program of the prefix: each test works under
// application names of its own and removes them afterwards.
class RegistryBackend : public Backend {
public:
    RegistryBackend() {
        std::random_device entropy;
        const std::string tag =
            std::to_string(GetCurrentProcessId()) + "-" + std::to_string(entropy());
        m_app = "KsxContract-" + tag;
        m_otherApp = "KsxContractOther-" + tag;
    }
    ~RegistryBackend() override {
        for (const std::string& app : {m_app, m_otherApp}) {
            const std::string path = "Software\\VB and VBA Program Settings\\" + app;
            RegDeleteTreeA(HKEY_CURRENT_USER, path.c_str());
        }
    }
    SettingsStore& store() override { return m_store; }
    void hostSet(const std::string& section, const std::string& key,
                 const std::string& value) override {
        win::RegistryStore().set(app(), section, key, value);
    }
    std::string app() const override { return m_app; }
    std::string otherApp() const override { return m_otherApp; }

private:
    win::RegistryStore m_store;
    std::string m_app;
    std::string m_otherApp;
};
#endif

struct Implementation {
    std::string name;
    std::function<std::unique_ptr<Backend>()> open;
};

std::vector<Implementation> implementations() {
    std::vector<Implementation> all = {
        {"Memory", [] { return std::make_unique<MemoryBackend>(); }}};
#ifdef KESTRIX_HAVE_SQLITE
    all.push_back({"Sqlite", [] { return std::make_unique<SqliteBackend>(); }});
#endif
#ifdef _WIN32
    all.push_back({"Registry", [] { return std::make_unique<RegistryBackend>(); }});
#endif
    return all;
}

std::string names(const std::vector<SettingsStore::Entry>& entries) {
    std::string text;
    for (const auto& e : entries) {
        text += e.section + "/" + e.key + "=" + e.value.substr(0, 20) + ";";
    }
    return text;
}

class StoreContract : public ::testing::TestWithParam<Implementation> {
protected:
    void SetUp() override { m_backend = GetParam().open(); }
    SettingsStore& store() { return m_backend->store(); }
    std::string app() const { return m_backend->app(); }
    std::string otherApp() const { return m_backend->otherApp(); }

    std::unique_ptr<Backend> m_backend;
};

TEST_P(StoreContract, MissingValuesGiveTheDefault) {
    EXPECT_EQ(store().get(app(), "Status", "Due"), "") << "no application yet";
    EXPECT_EQ(store().get(app(), "Status", "Due", "0"), "0");
    store().set(app(), "Pin Pad", "User", "u");
    EXPECT_EQ(store().get(app(), "Status", "Due", "0"), "0") << "no section";
    EXPECT_EQ(store().get(app(), "Pin Pad", "Password", "none"), "none") << "no key";
    EXPECT_TRUE(store().list(otherApp()).empty());
    EXPECT_TRUE(store().list(app(), "Status").empty());
}

TEST_P(StoreContract, SetOverwritesAndAnEmptyValueIsAValue) {
    store().set(app(), "Status", "Due", "12.5");
    EXPECT_EQ(store().get(app(), "Status", "Due", "0"), "12.5");
    store().set(app(), "Status", "Due", "0");
    EXPECT_EQ(store().get(app(), "Status", "Due"), "0");
    store().set(app(), "Status", "Due", "");
    EXPECT_EQ(store().get(app(), "Status", "Due", "0"), "");
    EXPECT_EQ(names(store().list(app())), "Status/Due=;");
}

TEST_P(StoreContract, ApplicationsAndSectionsAreSeparate) {
    store().set(app(), "Status", "Due", "1");
    store().set(app(), "Settings", "Due", "2");
    store().set(otherApp(), "Status", "Due", "3");
    EXPECT_EQ(store().get(app(), "Status", "Due"), "1");
    EXPECT_EQ(store().get(app(), "Settings", "Due"), "2");
    EXPECT_EQ(store().get(otherApp(), "Status", "Due"), "3");
}

// As in the registry that older hosts use: "due" and "Due" are one key, and the first spelling
// written is the one kept.
TEST_P(StoreContract, NamesIgnoreAsciiCaseAndKeepTheirFirstSpelling) {
    store().set(app(), "Status", "Due", "1");
    std::string lowerApp = app();
    std::transform(lowerApp.begin(), lowerApp.end(), lowerApp.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    store().set(lowerApp, "STATUS", "due", "2");
    EXPECT_EQ(store().get(app(), "status", "DUE"), "2");
    EXPECT_EQ(names(store().list(app())), "Status/Due=2;");
    EXPECT_EQ(names(store().list(app(), "sTaTuS")), "Status/Due=2;");
}

TEST_P(StoreContract, ListsBySectionThenKeyIgnoringCase) {
    store().set(app(), "Status", "due", "0");
    store().set(app(), "Pin Pad", "User", "u");
    store().set(app(), "Status", "Credit", "5");
    store().set(app(), "ports", "3", "COM3");
    store().set(app(), "Status", "BDStatus", "OK");
    store().set(otherApp(), "Status", "Due", "9");
    EXPECT_EQ(names(store().list(app())),
              "Pin Pad/User=u;ports/3=COM3;Status/BDStatus=OK;Status/Credit=5;Status/due=0;");
    EXPECT_EQ(names(store().list(app(), "Status")),
              "Status/BDStatus=OK;Status/Credit=5;Status/due=0;");
}

// Texts come back byte for byte: long ones, non-ASCII (UTF-8 on our side, UTF-16 in the
// registry), line breaks, blanks at either end, characters that mean something to a shell, SQL
// or printf; as values and as names.
TEST_P(StoreContract, TextsComeBackUnchanged) {
    const std::string texts[] = {
        std::string(1 << 20, 'x'),
        "Código ERROR DE COMUNICACIÓN €",
        "日本語 😀",
        "line1\nline2\r\n",
        "  12.5\t ",
        "\"quoted\" 'single' `back` %s%n%x $HOME & | ; <>",
    };
    for (const std::string& text : texts) {
        store().set(app(), "Status", "Text", text);
        EXPECT_EQ(store().get(app(), "Status", "Text"), text) << text.substr(0, 40);
    }
    for (const char* name : {"Sección Ñ", "日本語 😀", "key with spaces & | ;"}) {
        store().set(app(), name, name, "as names too");
        EXPECT_EQ(store().get(app(), name, name), "as names too") << name;
    }
    const auto entries = store().list(app(), "Sección Ñ");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].key, "Sección Ñ");
}

// The monitor skips reading a mailbox while the change count stays: a write it missed would be
// a host request never seen.
TEST_P(StoreContract, TheChangeCountMovesWithEveryWriteWhoeverMakesIt) {
    const std::optional<std::uint64_t> start = store().changeCount();
    if (!start) {
        GTEST_SKIP() << "this store does not count changes; the monitor reads every tick";
    }
    EXPECT_EQ(store().changeCount(), start) << "nothing written";
    store().set(app(), "Status", "Credit", "5");
    const auto afterOwn = store().changeCount();
    EXPECT_NE(afterOwn, start) << "a write of its own";
    for (const char* value : {"12.5", "0", ""}) {
        const auto before = store().changeCount();
        m_backend->hostSet("Status", "Due", value);
        EXPECT_NE(store().changeCount(), before) << "the host writing \"" << value << "\"";
    }
}

INSTANTIATE_TEST_SUITE_P(Stores, StoreContract, ::testing::ValuesIn(implementations()),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace kestrix
