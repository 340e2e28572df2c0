// Speed of the engine's pure parts and of the virtual world that every scenario test runs in.
// Targets: a whole cash payment on the simulated kiosk (initialisation included) costs well
// under 50 ms of real time, so thousands of payments fit in a test run; a hostile 1 MB mailbox
// value is read in under a millisecond (it is scanned once).

#include <benchmark/benchmark.h>

#include <string>

#include "engine/formulas.h"
#include "sim/world/virtual_kiosk.h"

namespace {

void BM_ConvertBaseNToDec(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(kestrix::ConvertBaseNToDec("7a", 16));
    }
}
BENCHMARK(BM_ConvertBaseNToDec);

void BM_LeadingNumberOnAHostileMegabyte(benchmark::State& state) {
    const std::string hostile(1 << 20, '9');
    for (auto _ : state) {
        benchmark::DoNotOptimize(kestrix::leadingNumber(hostile));
    }
}
BENCHMARK(BM_LeadingNumberOnAHostileMegabyte)->Unit(benchmark::kMicrosecond);

// Start the simulated kiosk, take 12.5 in coins and a bill of 20, pay the change.
void BM_CashPaymentOnTheVirtualKiosk(benchmark::State& state) {
    for (auto _ : state) {
        kestrix::sim::VirtualKiosk kiosk;
        kiosk.configureAllDevices();
        kiosk.start();
        kiosk.hostWrite("Due", "12.5");
        kiosk.runUntil([&] { return kiosk.mailbox("Status") == "Insert Coins or Bills..."; }, 30);
        kiosk.insertBill(1);
        kiosk.runUntil([&] { return kiosk.mailbox("Status") == "Payment Completed"; }, 120);
        benchmark::DoNotOptimize(kiosk.mailbox("ChangeDispensed"));
    }
}
BENCHMARK(BM_CashPaymentOnTheVirtualKiosk)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
