// The money journal's write cost: every row is its own transaction, on disk (synchronous=FULL)
// before append() returns, on the engine thread. Measured per row, and for the rows of a whole
// cash payment against the time that payment takes on the kiosk.
//
// The journal goes to a temporary directory; KSX_BENCH_DIR puts it elsewhere (the kiosk's own
// disk: the cost is the disk's flush).

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform_qt/sqlite_journal.h"
#include "sim/world/virtual_kiosk.h"
#include "support/support.h"

namespace {

using kestrix::JournalEntry;

std::string journalFile() {
    const char* dir = std::getenv("KSX_BENCH_DIR");
    const std::string base = dir != nullptr && *dir != '\0'
                                 ? std::string(dir) + "/ksx-bench-" + std::to_string(::getpid())
                                 : kestrix::test::makeTempDir("ksx-bench");
    return base + "/KSX-journal.db";
}

// A coin credited: the row written most often.
void BM_JournalAppendOneRow(benchmark::State& state) {
    kestrix::qt::SqliteJournal journal(journalFile(), kestrix::qt::SqliteJournal::Mode::Engine);
    JournalEntry credit;
    credit.kind = kestrix::journal_kind::kCredit;
    credit.paymentId = journal.newPaymentId();
    credit.device = "changer";
    credit.amount = kestrix::Money::fromUnits(10);
    credit.type = 5;
    credit.raw = "5408";
    for (auto _ : state) {
        benchmark::DoNotOptimize(journal.append(credit));
    }
}
BENCHMARK(BM_JournalAppendOneRow)->Unit(benchmark::kMicrosecond);

// The rows of one cash payment of 12.5 paid with a bill of 20 (change from the tubes), as the
// engine journals it on the virtual kiosk, and how long that payment takes there (device
// exchanges and pauses as on the kiosk; the customer's own time not counted).
struct PaymentRecord {
    std::vector<JournalEntry> rows;
    double seconds = 0;
};

PaymentRecord recordPayment() {
    kestrix::sim::VirtualKiosk kiosk;
    kiosk.configureAllDevices();
    kiosk.start();
    const std::size_t before = kiosk.journal().rows().size();
    kiosk.hostWrite("Due", "12.5");
    kiosk.runUntil([&] { return kiosk.mailbox("Status") == "Insert Coins or Bills..."; }, 30);
    const double started = kiosk.clock().elapsed();
    kiosk.insertBill(1);
    kiosk.runUntil([&] { return kiosk.mailbox("Status") == "Payment Completed"; }, 120);
    PaymentRecord p;
    p.seconds = kiosk.clock().elapsed() - started;
    const auto& rows = kiosk.journal().rows();
    p.rows.assign(rows.begin() + static_cast<std::ptrdiff_t>(before), rows.end());
    return p;
}

void BM_JournalRowsOfACashPayment(benchmark::State& state) {
    static const PaymentRecord payment = recordPayment();
    kestrix::qt::SqliteJournal journal(journalFile(), kestrix::qt::SqliteJournal::Mode::Engine);
    double spent = 0;
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        const std::int64_t id = journal.newPaymentId();
        for (JournalEntry row : payment.rows) {
            row.paymentId = row.paymentId != 0 ? id : 0;
            benchmark::DoNotOptimize(journal.append(row));
        }
        spent += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    }
    const double perPayment = spent / static_cast<double>(state.iterations());
    state.counters["rows"] = static_cast<double>(payment.rows.size());
    state.counters["payment_s"] = payment.seconds;
    state.counters["share_%"] = payment.seconds > 0 ? 100.0 * perPayment / payment.seconds : 0;
}
BENCHMARK(BM_JournalRowsOfACashPayment)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
