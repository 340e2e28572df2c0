// The settings store misused while the engine runs on it: locked by a host that does not commit,
// made read-only, corrupted, deleted, replaced by a directory. The engine never starts a payment
// nobody asked for, never crashes, and serves the host again once the store is back.

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>

#include "simulated_kiosk.h"

namespace kestrix {
namespace {

using namespace std::chrono_literals;
using test::eventually;
using test::SimulatedKiosk;

// A host that begins a write transaction and does not commit: the store's write lock is its
// until the object goes.
class StoreLock {
public:
    explicit StoreLock(const std::string& path) {
        EXPECT_EQ(sqlite3_open(path.c_str(), &m_db), SQLITE_OK);
        sqlite3_busy_timeout(m_db, 5000);
        EXPECT_EQ(sqlite3_exec(m_db,
                               "BEGIN IMMEDIATE; UPDATE settings SET value = value WHERE "
                               "section = 'Status' AND key = 'Exit'",
                               nullptr, nullptr, nullptr),
                  SQLITE_OK)
            << sqlite3_errmsg(m_db);
    }
    ~StoreLock() {
        sqlite3_exec(m_db, "COMMIT", nullptr, nullptr, nullptr);
        sqlite3_close(m_db);
    }

private:
    sqlite3* m_db = nullptr;
};

// The simulated changer's coin enable mask, from its state dump: "0000" while no payment accepts
// coins.
std::string coinEnable(const SimulatedKiosk& kiosk) {
    std::smatch m;
    const std::string state = kiosk.ctl({"state"}).out;
    return std::regex_search(state, m, std::regex("\"coinEnable\":\"([0-9A-F]{4})\"")) ? m[1].str()
                                                                                       : "?";
}

// `ksxctl get Status KEY` as a host program that opens the store afresh.
std::string hostGet(const SimulatedKiosk& kiosk, const std::string& key) {
    std::string out = kiosk.ksxctl({"get", "Status", key}).out;
    if (!out.empty() && out.back() == '\n') {
        out.pop_back();
    }
    return out;
}

TEST(HostileStore, LockedForThirtySecondsThePaymentGoesOnAndItsResultsArriveAfter) {
    SimulatedKiosk kiosk;
    ASSERT_TRUE(kiosk.start());
    kiosk.set("Status", "Status", "");
    kiosk.set("Status", "Due", "12.5");
    ASSERT_TRUE(eventually(
        [&] { return kiosk.get("Status", "Status") == "Insert Coins or Bills..."; }, 30s));
    ASSERT_EQ(kiosk.ctl({"coin", "3"}).status, 0);  // 2
    ASSERT_TRUE(eventually([&] { return kiosk.get("Status", "Credit") == "2"; }, 10s));
    {
        // A host that forgets to commit, while the customer puts in the rest: 20 against 10.5.
        StoreLock lock(kiosk.store);
        ASSERT_EQ(kiosk.ctl({"bill", "1"}).status, 0);
        const auto until = std::chrono::steady_clock::now() + 30s;
        while (std::chrono::steady_clock::now() < until) {
            std::this_thread::sleep_for(1s);
            ASSERT_TRUE(kiosk.engine().running()) << kiosk.engine().err();
            EXPECT_EQ(kiosk.get("Status", "Due"), "12.5") << "nothing is written while locked";
        }
    }
    ASSERT_TRUE(
        eventually([&] { return kiosk.get("Status", "Status") == "Payment Completed"; }, 20s));
    EXPECT_EQ(kiosk.get("Status", "Due"), "0");
    EXPECT_EQ(kiosk.get("Status", "Credit"), "0");
    EXPECT_EQ(kiosk.get("Status", "ChangeDispensed"), "9.5");
    EXPECT_EQ(kiosk.get("Status", "KSX_Error"), "0");
    // The engine's own "Due" of the payment, refused during the lock, never started another.
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(kiosk.get("Status", "Status"), "Payment Completed");
    EXPECT_EQ(coinEnable(kiosk), "0000");

    kiosk.set("Status", "Due", "5");
    ASSERT_TRUE(eventually(
        [&] { return kiosk.get("Status", "Status") == "Insert Coins or Bills..."; }, 30s));
    ASSERT_EQ(kiosk.ctl({"coin", "4"}).status, 0);
    EXPECT_TRUE(
        eventually([&] { return kiosk.get("Status", "Status") == "Payment Completed"; }, 30s));
}

TEST(HostileStore, MadeReadOnlyOrCorruptedNothingStartsAndTheEngineCarriesOnOnceItIsBack) {
    SimulatedKiosk kiosk;
    ASSERT_TRUE(kiosk.start());
    const auto servesAPayment = [&] {
        EXPECT_EQ(kiosk.ksxctl({"set", "Status", "Due", "5"}).status, 0);
        EXPECT_TRUE(eventually(
            [&] { return hostGet(kiosk, "Status") == "Insert Coins or Bills..."; }, 30s));
        EXPECT_EQ(kiosk.ctl({"coin", "4"}).status, 0);
        EXPECT_TRUE(
            eventually([&] { return hostGet(kiosk, "Status") == "Payment Completed"; }, 30s));
    };
    const std::filesystem::path store(kiosk.store);
    const std::filesystem::path dir = store.parent_path();

    // Read-only: the engine's connection was opened for writing before, and goes on with it.
    // A host that opens the store now may no longer write (unless it runs as root).
    std::filesystem::permissions(store, std::filesystem::perms::owner_read);
    std::filesystem::permissions(
        dir, std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    if (geteuid() != 0) {
        const test::RunResult refused = kiosk.ksxctl({"set", "Status", "Due", "5"});
        EXPECT_NE(refused.status, 0);
        EXPECT_NE(refused.err.find("readonly"), std::string::npos) << refused.err;
        std::this_thread::sleep_for(2s);
        EXPECT_EQ(coinEnable(kiosk), "0000");
    }
    std::filesystem::permissions(dir, std::filesystem::perms::owner_all);
    std::filesystem::permissions(
        store, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    servesAPayment();
    ASSERT_TRUE(kiosk.engine().running()) << kiosk.engine().err();

    // Corrupted: the file overwritten with text, everything of it in the file itself (nothing
    // left in the write-ahead log). The host is told the file is no database and nothing starts;
    // with the file back the engine serves the host again.
    {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(kiosk.store.c_str(), &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr),
                  SQLITE_OK);
        sqlite3_close(db);
    }
    const std::string saved = test::readFile(kiosk.store);
    ASSERT_FALSE(saved.empty());
    std::ofstream(kiosk.store, std::ios::binary | std::ios::trunc) << "no database at all";
    const test::RunResult damaged = kiosk.ksxctl({"set", "Status", "Due", "5"});
    EXPECT_NE(damaged.status, 0);
    EXPECT_NE(damaged.err.find("damaged"), std::string::npos) << damaged.err;
    std::this_thread::sleep_for(3s);
    ASSERT_TRUE(kiosk.engine().running()) << kiosk.engine().err();
    EXPECT_EQ(coinEnable(kiosk), "0000");
    std::ofstream(kiosk.store, std::ios::binary | std::ios::trunc) << saved;
    servesAPayment();
    EXPECT_TRUE(kiosk.engine().running()) << kiosk.engine().err();
}

TEST(HostileStore, DeletedOrReplacedByADirectoryNothingStartsAndTheEngineStillStops) {
    SimulatedKiosk kiosk;
    ASSERT_TRUE(kiosk.start());
    // Replaced by a directory: a host cannot open the store, and is told so.
    std::filesystem::remove(kiosk.store);
    std::filesystem::create_directory(kiosk.store);
    const test::RunResult refused = kiosk.ksxctl({"set", "Status", "Due", "5"});
    EXPECT_EQ(refused.status, 3);
    EXPECT_NE(refused.err.find("unable to open database file"), std::string::npos) << refused.err;
    std::this_thread::sleep_for(2s);
    EXPECT_TRUE(kiosk.engine().running()) << kiosk.engine().err();
    EXPECT_EQ(coinEnable(kiosk), "0000");

    // Deleted: the engine notices, says so once, and serves the store a host makes at the path.
    std::filesystem::remove(kiosk.store);
    kiosk.ksxctl({"set", "Status", "Due", "abc"});
    std::this_thread::sleep_for(2s);
    EXPECT_TRUE(kiosk.engine().running()) << kiosk.engine().err();
    EXPECT_EQ(coinEnable(kiosk), "0000");
    EXPECT_EQ(kiosk.ksxctl({"set", "Status", "Due", "5"}).status, 0);
    EXPECT_TRUE(test::eventually(
        [&] {
            return kiosk.ksxctl({"get", "Status", "Status"}).out == "Insert Coins or Bills...\n";
        },
        30s))
        << kiosk.engine().err();
    EXPECT_NE(kiosk.engine().err().find("while in use"), std::string::npos) << kiosk.engine().err();

    // Whatever store it talks to, the engine still ends on a termination signal.
    kiosk.engine().signal(SIGTERM);
    const std::optional<int> status = kiosk.engine().wait(15s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(*status, 0) << kiosk.engine().err();
}

}  // namespace
}  // namespace kestrix
