// Capacity of the virtual world: random cash payments per second of real time, with several
// worlds on two threads, and how the cost of a payment grows as a world lives on.
//
//   bench_world [--out FILE.json] [--seconds N] [--threads N] [--worlds-per-thread N]
//               [--growth N]
//
// A payment: the host asks a random due (0.50 to 100.00), the customer inserts random coins and
// bills until it is covered, the engine completes it and pays the change. Every so often the
// technician refills the change sources, so a long run keeps paying change.

#include <atomic>
#include <chrono>
#include <fstream>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "engine/formulas.h"
#include "sim/world/virtual_kiosk.h"

namespace {

using kestrix::sim::VirtualKiosk;

constexpr int kRefillEvery = 50;
constexpr double kStepSeconds = 120;  // virtual seconds a step of a payment may take at most
constexpr double kAfterPaymentSeconds = 2;

class World {
public:
    explicit World(unsigned seed) : m_random(seed) {
        m_kiosk.clock().setDeadline(-1);
        m_kiosk.configureAllDevices();
        m_kiosk.start();
    }

    // One payment; false when the engine did not get through it.
    bool pay() {
        if (++m_paid % kRefillEvery == 0) {
            refill();
        }
        std::uniform_int_distribution<int> halves(1, 200);
        const int due = halves(m_random);
        m_kiosk.hostWrite("Due", std::to_string(due / 2) + (due % 2 != 0 ? ".5" : ""));
        if (!m_kiosk.runUntil([this] { return status() == "Insert Coins or Bills..."; },
                              kStepSeconds)) {
            return false;
        }
        std::uniform_int_distribution<int> kind(0, 3);
        std::uniform_int_distribution<int> type(1, 5);
        while (status() == "Insert Coins or Bills...") {
            const std::string before = m_kiosk.mailbox("Credit");
            const bool bill = kind(m_random) == 0;
            const auto taken =
                bill ? m_kiosk.insertBill(type(m_random)) : m_kiosk.insertCoin(type(m_random));
            if (!taken.ok) {
                break;  // acceptance is over: the payment is completing
            }
            if (!m_kiosk.runUntil(
                    [&] {
                        return m_kiosk.mailbox("Credit") != before ||
                               status() != "Insert Coins or Bills...";
                    },
                    kStepSeconds)) {
                return false;
            }
        }
        if (!m_kiosk.runUntil([this] { return status() == "Payment Completed"; }, kStepSeconds)) {
            return false;
        }
        // The completion's message stays in "Status"; the next host request comes after it.
        m_kiosk.runFor(kAfterPaymentSeconds);
        return true;
    }

private:
    std::string status() { return m_kiosk.mailbox("Status"); }
    void refill() {
        m_kiosk.control("cassette 100");
        for (int t = 1; t <= 5; ++t) {
            m_kiosk.control("tube " + std::to_string(t) + " 40");
        }
        m_kiosk.control("hopper 1 200");
        m_kiosk.control("hopper 2 200");
    }

    VirtualKiosk m_kiosk;
    std::mt19937 m_random;
    int m_paid = 0;
};

double seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

int main(int argc, char** argv) {
    std::string out = "bench_world.json";
    double runSeconds = 20;
    int threads = 2;
    int worldsPerThread = 2;
    int growthPayments = 10000;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        const std::string v = argv[i + 1];
        if (a == "--out") {
            out = v;
        } else if (a == "--seconds") {
            runSeconds = std::stod(v);
        } else if (a == "--threads") {
            threads = std::stoi(v);
        } else if (a == "--worlds-per-thread") {
            worldsPerThread = std::stoi(v);
        } else if (a == "--growth") {
            growthPayments = std::stoi(v);
        }
    }

    // Capacity: every thread takes its worlds in turn, a payment each, until the time is up.
    std::atomic<long> paid{0};
    std::atomic<long> failed{0};
    const auto started = std::chrono::steady_clock::now();
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            std::vector<std::unique_ptr<World>> worlds;
            for (int w = 0; w < worldsPerThread; ++w) {
                worlds.push_back(std::make_unique<World>(static_cast<unsigned>(t * 100 + w)));
            }
            for (std::size_t n = 0; seconds(started) < runSeconds; ++n) {
                (worlds[n % worlds.size()]->pay() ? paid : failed)++;
            }
        });
    }
    for (std::thread& t : pool) {
        t.join();
    }
    const double elapsed = seconds(started);

    // Growth: one world, the time of each thousand payments.
    std::vector<double> perThousand;
    long growthFailed = 0;
    {
        World world(7);
        auto chunk = std::chrono::steady_clock::now();
        for (int n = 1; n <= growthPayments; ++n) {
            growthFailed += world.pay() ? 0 : 1;
            if (n % 1000 == 0) {
                perThousand.push_back(seconds(chunk));
                chunk = std::chrono::steady_clock::now();
            }
        }
    }

    nlohmann::ordered_json w;
    w["threads"] = threads;
    w["worlds"] = threads * worldsPerThread;
    w["seconds"] = elapsed;
    w["payments"] = static_cast<long long>(paid.load());
    w["failed"] = static_cast<long long>(failed.load());
    w["payments_per_second"] = static_cast<double>(paid.load()) / elapsed;
    w["growth_seconds_per_thousand"] = perThousand;
    w["growth_failed"] = static_cast<long long>(growthFailed);
    std::ofstream(out) << w.dump() << '\n';
    std::cout << w.dump() << '\n';
    return failed.load() == 0 && growthFailed == 0 ? 0 : 1;
}
