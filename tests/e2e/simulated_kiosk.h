#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "engine/formulas.h"
#include "platform_qt/sqlite_store.h"
#include "sim/pty_kiosk.h"
#include "sim/seed.h"
#include "support/process.h"
#include "support/support.h"

namespace kestrix::test {

// The kiosk on a store of its own, with vouchers printed to a directory as PDF files and a pin
// pad that approves. `InProcess` is `kestrix --headless --simulate`, as a host developer runs
// it; `OnPtys` is kestrix-sim as a program of its own and `kestrix --headless` on its
// pseudo-terminals, as an integrator sets them up.
class SimulatedKiosk {
public:
    enum class Devices { InProcess, OnPtys };

    explicit SimulatedKiosk(Devices devices = Devices::InProcess)
        : dir(makeTempDir("ksx-kiosk")),
          store(dir + "/KSX.db"),
          simDir(dir + "/sim"),
          vouchers(dir + "/vouchers"),
          m_devices(devices) {
        std::filesystem::create_directories(vouchers);
        m_reader = std::make_unique<qt::SqliteStore>(store);
        sim::seedSimulatedKioskSettings(*m_reader, sim::PortNumbers{});
        if (devices == Devices::OnPtys) {
            sim::seedSimulatedPortPaths(*m_reader, sim::PortNumbers{}, simDir);
            m_sim = std::make_unique<ChildProcess>(kestrixSimBinary(),
                                                   std::vector<std::string>{"--dir", simDir});
            EXPECT_TRUE(
                eventually([this] { return m_sim->out().find("ready") != std::string::npos; },
                           std::chrono::seconds(10)))
                << m_sim->err();
        }
        set("Pin Pad", "Printer", vouchers);
        set("Pin Pad Simulator", "Result", "approved");
        set("Pin Pad Simulator", "Seconds", "1");
    }

    ~SimulatedKiosk() {
        stopCustomer();
        if (m_engine && m_engine->running()) {
            set("Status", "Exit", "1");
            m_engine->wait(std::chrono::seconds(30));
        }
    }

    // Starts the engine; true once every device has been initialised: the pin pad answered, the
    // changer's tubes were read and the dispenser reported (reported OK, unless a dispenser in
    // error is to be expected: an engine killed mid-frame leaves it confused).
    bool start(bool dispenserOk = true) {
        std::vector<std::string> args{"--headless", "--store", store};
        if (m_devices == Devices::InProcess) {
            args.emplace_back("--simulate");
        }
        m_engine = std::make_unique<ChildProcess>(kestrixBinary(), args, environment());
        const bool ready = eventually(
            [this, dispenserOk] {
                const std::string dispenser = get("Status", "BDStatus");
                return get("Pin Pad", "On Line") == "Yes" && get("Status", "Tubes") != "0" &&
                       (dispenser == "OK" || (!dispenserOk && dispenser == "ERR"));
            },
            std::chrono::seconds(60));
        EXPECT_TRUE(ready) << m_engine->err();
        return ready;
    }

    // The environment of the engine and of the programs the tests run beside it.
    std::vector<std::string> environment() const {
        const char* path = std::getenv("PATH");
        return {"KSX_STORE=" + store,
                "KSX_SIM_DIR=" + simDir,
                "XDG_CONFIG_HOME=" + dir + "/config",
                "XDG_RUNTIME_DIR=" + dir,
                "QT_QPA_PLATFORM=offscreen",
                "PATH=" + std::filesystem::path(ksxctlBinary()).parent_path().string() + ":" +
                    std::filesystem::path(kestrixSimBinary()).parent_path().string() + ":" +
                    (path != nullptr ? path : "/usr/bin:/bin")};
    }

    std::string get(const std::string& section, const std::string& key) {
        return m_reader->get("KSX", section, key, "");
    }
    bool statusBecomes(const std::string& status,
                       std::chrono::seconds within = std::chrono::seconds(30)) {
        return eventually([&] { return get("Status", "Status") == status; }, within);
    }
    void set(const std::string& section, const std::string& key, const std::string& value) {
        m_reader->set("KSX", section, key, value);
    }
    // `ksxctl --store STORE args...`, a host's process of its own.
    RunResult ksxctl(std::vector<std::string> args) const {
        args.insert(args.begin(), {"--store", store});
        return run(ksxctlBinary(), args);
    }
    // `kestrix-sim ctl SIMDIR command...`: the customer's hand on the simulated devices.
    RunResult ctl(std::vector<std::string> command) const {
        command.insert(command.begin(), {"ctl", simDir});
        return run(kestrixSimBinary(), command);
    }

    // What the simulated devices hold, have taken and have paid (`kestrix-sim ctl SIMDIR state`).
    nlohmann::json deviceState() const { return nlohmann::json::parse(ctl({"state"}).out); }

    std::vector<std::string> voucherFiles() const {
        std::vector<std::string> files;
        for (const auto& entry : std::filesystem::directory_iterator(vouchers)) {
            files.push_back(entry.path().string());
        }
        return files;
    }

    // A customer at the kiosk: whenever a cash payment asks for money and is not covered yet,
    // one coin of type 5 (10.00), then a wait until the engine has credited it.
    void startCustomer() {
        m_customerStop = false;
        m_customer = std::thread([this] {
            qt::SqliteStore s(store);
            const auto credit = [&s] { return s.get("KSX", "Status", "Credit", ""); };
            while (!m_customerStop) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                if (s.get("KSX", "Status", "Status", "") != "Insert Coins or Bills..." ||
                    !(leadingNumber(s.get("KSX", "Status", "Due", "")) > leadingNumber(credit()))) {
                    continue;
                }
                const std::string before = credit();
                std::string answer;
                if (sim::sendControlCommand(simDir, "coin 5", answer) != sim::kControlAccepted) {
                    continue;  // acceptance already switched off: the payment is ending
                }
                const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
                while (!m_customerStop && credit() == before &&
                       std::chrono::steady_clock::now() < until) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(50));
                }
            }
        });
    }
    void stopCustomer() {
        m_customerStop = true;
        if (m_customer.joinable()) {
            m_customer.join();
        }
    }

    ChildProcess& engine() { return *m_engine; }

    const std::string dir;
    const std::string store;
    const std::string simDir;
    const std::string vouchers;

private:
    Devices m_devices;
    std::unique_ptr<ChildProcess> m_sim;
    std::unique_ptr<qt::SqliteStore> m_reader;
    std::unique_ptr<ChildProcess> m_engine;
    std::atomic<bool> m_customerStop{false};
    std::thread m_customer;
};

}  // namespace kestrix::test
