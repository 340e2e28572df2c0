// What the fleet publisher costs the engine. Target: a broker that never answers does not slow a
// payment: a whole cash payment on the virtual kiosk takes the same time with the publisher
// connecting to a silent broker as without one (within the run-to-run noise, a few per cent), and
// a console field change costs the engine thread well under a microsecond.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "fleet/publisher.h"
#include "sim/world/virtual_kiosk.h"

namespace {

using namespace kestrix;

// A TCP listener that takes every connection and never says a word: the MQTT handshake waits
// until the publisher gives up.
class SilentBroker {
public:
    SilentBroker() {
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        ::listen(m_fd, 16);
        socklen_t len = sizeof addr;
        ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len);
        m_port = ntohs(addr.sin_port);
        m_thread = std::thread([this] {
            while (!m_stop) {
                pollfd p{m_fd, POLLIN, 0};
                if (::poll(&p, 1, 50) > 0) {
                    m_held.push_back(::accept(m_fd, nullptr, nullptr));
                }
            }
        });
    }
    ~SilentBroker() {
        m_stop = true;
        m_thread.join();
        for (int fd : m_held) {
            ::close(fd);
        }
        ::close(m_fd);
    }
    int port() const { return m_port; }

private:
    int m_fd = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    std::vector<int> m_held;
    std::thread m_thread;
};

class NoJournal : public fleet::EventSource {
public:
    std::vector<fleet::JournalRow> rowsAfter(std::int64_t, std::size_t) override { return {}; }
    std::int64_t lastSequence() override { return 0; }
    std::vector<fleet::JournalRow> latestFaultRows() override { return {}; }
};

std::unique_ptr<fleet::Publisher> publisherTo(int port) {
    fleet::FleetConfig c;
    c.enabled = true;
    c.broker = {false, "127.0.0.1", port};
    c.kioskId = "bench";
    auto p = std::make_unique<fleet::Publisher>(c, std::make_unique<NoJournal>(), "/dev/null",
                                                nullptr, fleet::PublisherTiming{});
    return p;
}

// The payment of bench_engine's BM_CashPaymentOnTheVirtualKiosk; with the publisher (argument 1),
// every console change goes to its view on this, the engine's, thread.
void BM_CashPaymentWithTheFleetPublisher(benchmark::State& state) {
    const bool withFleet = state.range(0) == 1;
    SilentBroker broker;
    std::unique_ptr<fleet::Publisher> publisher;
    if (withFleet) {
        publisher = publisherTo(broker.port());
        publisher->start();
    }
    for (auto _ : state) {
        sim::VirtualKiosk kiosk;
        kiosk.configureAllDevices();
        Setup& engine = kiosk.engine();
        if (publisher) {
            fleet::KioskView& view = publisher->view();
            engine.console().setChangeListener(
                [&view, &engine](const Field& f) { view.noteField(f, &engine.hoppers()); });
        }
        kiosk.start();
        kiosk.hostWrite("Due", "12.5");
        kiosk.runUntil([&] { return kiosk.mailbox("Status") == "Insert Coins or Bills..."; }, 30);
        kiosk.insertBill(1);
        kiosk.runUntil([&] { return kiosk.mailbox("Status") == "Payment Completed"; }, 120);
        benchmark::DoNotOptimize(kiosk.mailbox("ChangeDispensed"));
    }
    state.SetLabel(withFleet ? "publisher on a silent broker" : "no publisher");
}
BENCHMARK(BM_CashPaymentWithTheFleetPublisher)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// One console field change as the engine thread feeds it: a field the state shows, and one it
// does not.
void BM_KioskViewFieldChange(benchmark::State& state) {
    fleet::KioskView view;
    Field f;
    f.kind = FieldKind::TextBox;
    f.name = state.range(0) == 1 ? "tubeCoinQty3" : "creditDisplay";
    int n = 0;
    for (auto _ : state) {
        f.text = std::to_string(++n & 63);
        view.noteField(f);
    }
    state.SetLabel(state.range(0) == 1 ? "watched field" : "other field");
}
BENCHMARK(BM_KioskViewFieldChange)->Arg(1)->Arg(0);

}  // namespace

BENCHMARK_MAIN();
