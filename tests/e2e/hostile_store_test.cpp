// The settings store misused while the engine runs on it: locked by a host that does not commit,
// or corrupted (made read-only, deleted or replaced: the store's own tests). The engine never
// starts a payment nobody asked for, never crashes, and serves the host again once the store is
// back.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <fstream>
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

// The engine still runs and has started no payment of its own.
void expectNothingStarted(SimulatedKiosk& kiosk) {
    std::this_thread::sleep_for(2s);
    EXPECT_TRUE(kiosk.engine().running()) << kiosk.engine().err();
    EXPECT_EQ(kiosk.deviceState()["changer"]["coinEnable"], "0000") << "no coin is accepted";
}

// Served through a host program that opens the store afresh.
void expectServesAPayment(SimulatedKiosk& kiosk) {
    const auto status = [&kiosk] { return kiosk.ksxctl({"get", "Status", "Status"}).out; };
    EXPECT_EQ(kiosk.ksxctl({"set", "Status", "Due", "5"}).status, 0);
    EXPECT_TRUE(eventually([&] { return status() == "Insert Coins or Bills...\n"; }, 30s));
    EXPECT_EQ(kiosk.ctl({"coin", "4"}).status, 0);
    EXPECT_TRUE(eventually([&] { return status() == "Payment Completed\n"; }, 30s));
}

TEST(HostileStore, LockedOrCorruptedTheEngineCarriesOnAndServesTheHostOnceItIsBack) {
    SimulatedKiosk kiosk;
    ASSERT_TRUE(kiosk.start());
    kiosk.set("Status", "Status", "");
    kiosk.set("Status", "Due", "12.5");
    ASSERT_TRUE(kiosk.statusBecomes("Insert Coins or Bills..."));
    ASSERT_EQ(kiosk.ctl({"coin", "3"}).status, 0);  // 2
    ASSERT_TRUE(eventually([&] { return kiosk.get("Status", "Credit") == "2"; }, 10s));
    {
        // A host that forgets to commit, while the customer puts in the rest: 20 against 10.5.
        // The engine, whose writes are refused, must keep the devices running all the same.
        StoreLock lock(kiosk.store);
        ASSERT_EQ(kiosk.ctl({"bill", "1"}).status, 0);
        const auto until = std::chrono::steady_clock::now() + 15s;
        while (std::chrono::steady_clock::now() < until) {
            std::this_thread::sleep_for(1s);
            ASSERT_TRUE(kiosk.engine().running()) << kiosk.engine().err();
            EXPECT_EQ(kiosk.get("Status", "Due"), "12.5") << "nothing is written while locked";
        }
    }
    ASSERT_TRUE(kiosk.statusBecomes("Payment Completed"));
    EXPECT_EQ(kiosk.get("Status", "Due"), "0");
    EXPECT_EQ(kiosk.get("Status", "Credit"), "0");
    EXPECT_EQ(kiosk.get("Status", "ChangeDispensed"), "9.5");
    EXPECT_EQ(kiosk.get("Status", "KSX_Error"), "0");
    expectNothingStarted(kiosk);  // the payment's own "Due", refused during the lock
    expectServesAPayment(kiosk);

    // Corrupted: the file overwritten with text, everything of it in the file itself (nothing
    // left in the write-ahead log).
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
    expectNothingStarted(kiosk);
    std::ofstream(kiosk.store, std::ios::binary | std::ios::trunc) << saved;
    expectServesAPayment(kiosk);
    EXPECT_TRUE(kiosk.engine().running()) << kiosk.engine().err();
}

}  // namespace
}  // namespace kestrix
