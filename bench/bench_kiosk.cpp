// The real programs on pseudo-terminals: `kestrix --headless` against `kestrix-sim`, driven as a
// host and a customer would, timed phase by phase against each phase's floor, with the processor
// time and memory of the engine and of the simulator.
//
//   bench_kiosk [--out FILE.json] [--seconds N] [--coins N] [--keep]
//   bench_kiosk --analyse DIR [--out FILE.json]     the analysis again, on a run's directory
//
// Writes a JSON report (see bench/report.py) and a short summary on standard output. The
// engine records its own timing (KSX_TIMING_TRACE) and the simulator what crossed each line
// (KSX_SIM_WIRE_LOG); kiosk_timing.h turns both into floors.

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "engine/formulas.h"
#include "kiosk_timing.h"
#include "platform_qt/sqlite_store.h"
#include "sim/pinpad/sim_pin_pad.h"
#include "sim/pty_kiosk.h"
#include "sim/seed.h"
#include "support/process.h"
#include "support/support.h"

namespace {

using kestrix::bench::Event;
using kestrix::bench::Floor;
using kestrix::bench::FloorReplay;
using kestrix::bench::Stream;
using kestrix::test::ChildProcess;

constexpr double kWaitSeconds = 60.0;  // the longest any step of the scenario may take
constexpr double kStepPollSeconds = 0.002;
constexpr double kPinPadSaleSeconds = 1.0;
constexpr double kWakeIntervalSeconds = 0.5;  // the monitor's tick, for the bare-wake reference

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void sleepFor(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// Processor time of every thread of a process, in seconds (nanosecond accounting).
double cpuSeconds(pid_t pid) {
    double total = 0;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::ifstream in(task.path() / "schedstat");
        double ns = 0;
        if (in >> ns) {
            total += ns / 1e9;
        }
    }
    return total;
}

// qt_wake is built beside this program.
std::string qtWakeBinary() {
    return (std::filesystem::canonical("/proc/self/exe").parent_path() / "qt_wake").string();
}

double threadCpuSeconds(pid_t tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/schedstat");
    double ns = 0;
    in >> ns;
    return ns / 1e9;
}

long statusKb(pid_t pid, const std::string& field) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(field + ":", 0) == 0) {
            return std::stol(line.substr(field.size() + 1));
        }
    }
    return 0;
}

struct Phase {
    std::string name;
    std::string from;  // what starts and ends it, for the report
    std::string to;
    double measured = 0;
    Floor floor;
    double goalRatio = 1.03;
};

class Bench {
public:
    explicit Bench(std::string root)
        : m_root(std::move(root)),
          m_store(m_root + "/KSX.db"),
          m_simDir(m_root + "/sim"),
          m_trace(m_root + "/engine-timing.tsv"),
          m_wire(m_root + "/wire.log") {}

    void run(double cpuWindow, int coins);
    // The analysis again, from the records and moments a run left in its directory.
    void reanalyse();
    std::string json() const;

private:
    void startSimulator();
    // Traced: headless, writing the timing record the floors are replayed from. Quiet: headless
    // as a kiosk runs it, for processor time and memory. Console: with its window.
    enum class Mode { Traced, Quiet, Console };
    void startEngine(Mode mode, const std::string& display = {});
    // A payment of 1000 taking `coins` coins of 0.5, each once the one before is credited.
    void payCoins(int coins, std::vector<double>* moments);
    void stopEngine();
    bool waitFor(const std::function<bool()>& done, double seconds = kWaitSeconds);
    std::string get(const std::string& section, const std::string& key) {
        return m_reader->get("KSX", section, key, "");
    }
    double host(const std::string& key, const std::string& value) {
        const double t = now();
        m_reader->set("KSX", "Status", key, value);
        return t;
    }
    double customer(const std::string& command);
    std::string status() { return get("Status", "Status"); }
    void analyse();
    void saveMoments() const;
    void requireSteps(bool ok, const std::string& what);

    std::string m_root;
    std::string m_store;
    std::string m_simDir;
    std::string m_trace;
    std::string m_wire;
    std::unique_ptr<kestrix::qt::SqliteStore> m_reader;
    std::unique_ptr<ChildProcess> m_sim;
    std::unique_ptr<ChildProcess> m_engine;
    std::unique_ptr<ChildProcess> m_display;

    // Moments of the run, on the steady clock.
    double m_spawned = 0;
    double m_standardDue = 0;
    std::vector<double> m_standardCoins;
    std::vector<double> m_coins;
    double m_cancelAsked = 0;
    double m_cardAsked = 0;
    std::vector<std::pair<std::string, double>> m_changeAsked;  // device, when

    // Results.
    std::vector<Phase> m_phases;
    std::vector<double> m_coinLatency;
    std::vector<double> m_coinFloor;
    struct Timeline {
        std::string name;
        double start, measured, floor;
    };
    std::vector<Timeline> m_timeline;
    double m_engineIdle = 0, m_simIdle = 0, m_bareWake = 0, m_qtWake = 0, m_enginePaying = 0,
           m_simPaying = 0;
    double m_idleSeconds = 0, m_payingSeconds = 0, m_consoleSeconds = 0;
    long m_rssHeadless = 0, m_rssHeadlessPeak = 0, m_rssConsole = 0, m_rssConsolePeak = 0;
    std::string m_consoleDisplay;
    std::vector<std::string> m_notes;
};

bool Bench::waitFor(const std::function<bool()>& done, double seconds) {
    const double until = now() + seconds;
    while (now() < until) {
        if (done()) {
            return true;
        }
        sleepFor(kStepPollSeconds);
    }
    return done();
}

void Bench::requireSteps(bool ok, const std::string& what) {
    if (!ok) {
        throw std::runtime_error("the scenario stopped: " + what + " (status \"" + status() +
                                 "\"; engine: " + (m_engine ? m_engine->err() : "") + ")");
    }
}

double Bench::customer(const std::string& command) {
    std::string answer;
    const double t = now();
    if (kestrix::sim::sendControlCommand(m_simDir, command, answer) !=
        kestrix::sim::kControlAccepted) {
        throw std::runtime_error("the simulator refused \"" + command + "\": " + answer);
    }
    return t;
}

void Bench::startSimulator() {
    m_sim = std::make_unique<ChildProcess>(kestrix::test::kestrixSimBinary(),
                                           std::vector<std::string>{"--dir", m_simDir},
                                           std::vector<std::string>{"KSX_SIM_WIRE_LOG=" + m_wire});
    requireSteps(waitFor([this] { return m_sim->out().find("ready") != std::string::npos; }, 10),
                 "kestrix-sim did not start: " + m_sim->err());
    m_reader = std::make_unique<kestrix::qt::SqliteStore>(m_store);
    kestrix::sim::seedSimulatedKioskSettings(*m_reader, kestrix::sim::PortNumbers{});
    kestrix::sim::seedSimulatedPortPaths(*m_reader, kestrix::sim::PortNumbers{}, m_simDir);
    std::filesystem::create_directories(m_root + "/vouchers");
    m_reader->set("KSX", "Pin Pad", "Printer", m_root + "/vouchers");
    m_reader->set("KSX", "Pin Pad Simulator", "Result", "approved");
    m_reader->set("KSX", "Pin Pad Simulator", "Seconds", std::to_string(kPinPadSaleSeconds));
}

void Bench::startEngine(Mode mode, const std::string& display) {
    const bool console = mode == Mode::Console;
    std::vector<std::string> args{"--store", m_store};
    std::vector<std::string> env{"XDG_RUNTIME_DIR=" + m_root, "XDG_CONFIG_HOME=" + m_root + "/cfg"};
    if (console) {
        if (display.empty()) {
            env.push_back("QT_QPA_PLATFORM=offscreen");
        } else {
            env.push_back("DISPLAY=" + display);
        }
    } else {
        args.insert(args.begin(), "--headless");
    }
    if (mode == Mode::Traced) {
        env.push_back("KSX_TIMING_TRACE=" + m_trace);
        m_spawned = now();
    }
    m_engine = std::make_unique<ChildProcess>(kestrix::test::kestrixBinary(), args, env);
    requireSteps(waitFor([this] {
                     return get("Pin Pad", "On Line") == "Yes" && get("Status", "Tubes") != "0" &&
                            get("Status", "BDStatus") == "OK";
                 }),
                 "the engine did not initialise");
}

void Bench::stopEngine() {
    host("Exit", "1");
    requireSteps(m_engine->wait(std::chrono::seconds(30)).has_value(), "the engine did not exit");
}

void Bench::payCoins(int coins, std::vector<double>* moments) {
    host("Due", "1000");
    requireSteps(waitFor([this] { return status() == "Insert Coins or Bills..."; }), "start");
    for (int i = 0; i < coins; ++i) {
        const std::string before = get("Status", "Credit");
        const double t = customer("coin 1");
        if (moments != nullptr) {
            moments->push_back(t);
        }
        requireSteps(waitFor([&] { return get("Status", "Credit") != before; }), "coin credit");
    }
}

void Bench::run(double cpuWindow, int coins) {
    startSimulator();
    // Processor time and memory of the engine as a kiosk runs it, without the timing record,
    // on the kiosk as it comes up.
    startEngine(Mode::Quiet);
    const pid_t engine = m_engine->pid();
    const pid_t sim = m_sim->pid();

    // Idle: devices enabled, no payment. A thread of this program that only wakes every 500 ms
    // tells what waking alone costs on this machine; qt_wake, a Qt program that only runs a
    // 500 ms timer on an event loop of its own thread as the engine runs its monitor, what that
    // costs through Qt: the floor under the idle engine.
    ChildProcess qtWake(qtWakeBinary(), {}, {});
    sleepFor(2);
    {
        std::atomic<bool> stop{false};
        std::atomic<pid_t> wakerTid{0};
        std::thread waker([&] {
            wakerTid = static_cast<pid_t>(::syscall(SYS_gettid));
            while (!stop) {
                ::poll(nullptr, 0, static_cast<int>(kWakeIntervalSeconds * 1000));
            }
        });
        while (wakerTid == 0) {
            sleepFor(0.001);
        }
        const double e0 = cpuSeconds(engine), s0 = cpuSeconds(sim), w0 = threadCpuSeconds(wakerTid),
                     q0 = cpuSeconds(qtWake.pid()), t0 = now();
        sleepFor(cpuWindow);
        const double t1 = now();
        m_idleSeconds = t1 - t0;
        m_engineIdle = (cpuSeconds(engine) - e0) / m_idleSeconds * 100;
        m_simIdle = (cpuSeconds(sim) - s0) / m_idleSeconds * 100;
        m_bareWake = (threadCpuSeconds(wakerTid) - w0) / m_idleSeconds * 100;
        m_qtWake = (cpuSeconds(qtWake.pid()) - q0) / m_idleSeconds * 100;
        stop = true;
        waker.join();
        m_rssHeadless = statusKb(engine, "VmRSS");
    }

    // Paying: one payment kept open while coins come one after the other; the processor time
    // is taken over the whole payment.
    {
        const double e0 = cpuSeconds(engine), s0 = cpuSeconds(sim), t0 = now();
        payCoins(coins, nullptr);
        sleepFor(std::max(0.0, cpuWindow - (now() - t0)));
        const double t1 = now();
        m_payingSeconds = t1 - t0;
        m_enginePaying = (cpuSeconds(engine) - e0) / m_payingSeconds * 100;
        m_simPaying = (cpuSeconds(sim) - s0) / m_payingSeconds * 100;
        m_rssHeadlessPeak = statusKb(engine, "VmHWM");
    }
    host("Cancel", "2");
    requireSteps(waitFor([this] { return status() == "Transaction Cancelled"; }), "cancel");
    sleepFor(1.5);
    stopEngine();

    // The phases, on an engine writing the timing record, against a simulator started afresh:
    // its wire record is read in step with the engine's timing record.
    m_sim->signal(SIGTERM);
    m_sim->wait(std::chrono::seconds(10));
    std::filesystem::remove(m_wire);
    startSimulator();
    startEngine(Mode::Traced);

    // A standard payment: 12.5 due, a coin of 10 and one of 5, 2.5 change from the tubes.
    m_standardDue = host("Due", "12.5");
    requireSteps(waitFor([this] { return status() == "Insert Coins or Bills..."; }), "start");
    for (const char* coin : {"coin 5", "coin 4"}) {
        const std::string before = get("Status", "Credit");
        m_standardCoins.push_back(customer(coin));
        requireSteps(waitFor([&] { return get("Status", "Credit") != before; }), "credit");
    }
    requireSteps(waitFor([this] { return status() == "Payment Completed"; }), "completion");
    requireSteps(waitFor([this] { return status().empty() || status() == "Payment Completed"; }),
                 "completion");
    sleepFor(1.5);

    // Coin to credit: 200 coins of 0.5 into one payment.
    payCoins(coins, &m_coins);
    host("Cancel", "2");  // the credit stays with the host: no refund
    requireSteps(waitFor([this] { return status() == "Transaction Cancelled"; }), "cancel");
    sleepFor(1.5);

    // A cancel with nothing inserted.
    host("Due", "5");
    requireSteps(waitFor([this] { return status() == "Insert Coins or Bills..."; }), "start");
    sleepFor(0.5);
    m_cancelAsked = host("Cancel", "1");
    requireSteps(waitFor([this] { return status() == "Transaction Cancelled"; }), "cancel");
    sleepFor(1.5);

    // Payouts by device: a bill from the dispenser, coins from the tubes, and (tubes emptied)
    // coins from the hoppers.
    const auto payout = [this](const std::string& device, const std::string& amount) {
        m_changeAsked.emplace_back(device, host("Change", amount));
        requireSteps(waitFor([this] { return status() == "Change dispensed"; }), "payout");
        requireSteps(waitFor([this] { return get("Status", "Change").empty(); }), "payout");
        host("Status", "");
        sleepFor(1);
    };
    payout("dispenser", "50");
    payout("tubes", "7.5");
    for (int type = 1; type <= 5; ++type) {
        customer("tube " + std::to_string(type) + " 0");
    }
    payout("hoppers", "7");
    for (int type = 1; type <= 5; ++type) {
        customer("tube " + std::to_string(type) + " 40");
    }

    // A card sale on the simulated pin pad.
    m_cardAsked = host("DueCC", "10");
    requireSteps(waitFor([this] { return status() == "Credit Card Approved"; }), "card sale");
    requireSteps(waitFor([this] { return get("Status", "DueCC") == "0"; }), "card sale");
    sleepFor(1);
    stopEngine();

    // With the console: a virtual display when there is one, else Qt's offscreen platform.
    std::string display;
    if (std::filesystem::exists("/usr/bin/Xvfb")) {
        display = ":" + std::to_string(90 + getpid() % 9);
        m_display = std::make_unique<ChildProcess>(
            "/usr/bin/Xvfb",
            std::vector<std::string>{display, "-screen", "0", "1280x1024x24", "-nolisten", "tcp"});
        sleepFor(1.5);
        m_consoleDisplay = "Xvfb";
    } else {
        m_consoleDisplay = "offscreen";
    }
    startEngine(Mode::Console, display);
    {
        const double t0 = now();
        while (now() - t0 < cpuWindow) {
            sleepFor(1);
            m_rssConsole = statusKb(m_engine->pid(), "VmRSS");
        }
        m_consoleSeconds = now() - t0;
        m_rssConsolePeak = statusKb(m_engine->pid(), "VmHWM");
    }
    stopEngine();
    m_display.reset();
    m_sim->signal(SIGTERM);
    m_sim->wait(std::chrono::seconds(10));
    saveMoments();
    analyse();
}

// The moments of the run beside its records, so the analysis can be run again on them.
void Bench::saveMoments() const {
    std::ofstream out(m_root + "/moments.txt");
    out.precision(17);
    out << "spawned " << m_spawned << "\nstandardDue " << m_standardDue << "\ncancel "
        << m_cancelAsked << "\ncard " << m_cardAsked << '\n';
    for (double t : m_standardCoins) {
        out << "standardCoin " << t << '\n';
    }
    for (double t : m_coins) {
        out << "coin " << t << '\n';
    }
    for (const auto& [device, t] : m_changeAsked) {
        out << "change " << t << ' ' << device << '\n';
    }
    out << "resources " << m_engineIdle << ' ' << m_simIdle << ' ' << m_bareWake << ' '
        << m_enginePaying << ' ' << m_simPaying << ' ' << m_idleSeconds << ' ' << m_payingSeconds
        << ' ' << m_consoleSeconds << ' ' << m_rssHeadless << ' ' << m_rssHeadlessPeak << ' '
        << m_rssConsole << ' ' << m_rssConsolePeak << ' ' << m_consoleDisplay << '\n';
    out << "qtWake " << m_qtWake << '\n';
}

void Bench::reanalyse() {
    std::ifstream in(m_root + "/moments.txt");
    std::string what;
    while (in >> what) {
        double t = 0;
        if (what == "resources") {
            in >> m_engineIdle >> m_simIdle >> m_bareWake >> m_enginePaying >> m_simPaying >>
                m_idleSeconds >> m_payingSeconds >> m_consoleSeconds >> m_rssHeadless >>
                m_rssHeadlessPeak >> m_rssConsole >> m_rssConsolePeak >> m_consoleDisplay;
            continue;
        }
        in >> t;
        if (what == "qtWake") {
            m_qtWake = t;
        } else if (what == "spawned") {
            m_spawned = t;
        } else if (what == "standardDue") {
            m_standardDue = t;
        } else if (what == "cancel") {
            m_cancelAsked = t;
        } else if (what == "card") {
            m_cardAsked = t;
        } else if (what == "standardCoin") {
            m_standardCoins.push_back(t);
        } else if (what == "coin") {
            m_coins.push_back(t);
        } else if (what == "change") {
            std::string device;
            in >> device;
            m_changeAsked.emplace_back(device, t);
        }
    }
    analyse();
}

void Bench::analyse() {
    const std::vector<Event> events = kestrix::bench::readTimingRecord(m_trace);
    const auto streams = kestrix::bench::readWireRecord(m_wire);
    const FloorReplay replay(events, streams);
    const auto npos = std::string::npos;
    const auto storeWrite = [](const std::string& key,
                               const std::function<bool(const std::string&)>& value) {
        return [key, value](const Event& e) {
            return e.kind == 'S' && e.first == "Status/" + key && value(e.second);
        };
    };
    const auto is = [](std::string text) {
        return [text](const std::string& v) { return v == text; };
    };
    const auto tickAfter = [&](double t, const std::string& timer) {
        return replay.find(replay.firstAtOrAfter(t),
                           [timer](const Event& e) { return e.kind == 'K' && e.first == timer; });
    };
    const auto phase = [&](std::string name, std::string from, std::string to, double start,
                           std::size_t first, std::size_t last,
                           const std::vector<double>* pinPad = nullptr) {
        if (first == npos || last == npos) {
            m_notes.push_back("phase \"" + name + "\" not found in the timing record");
            return Phase{};
        }
        Phase p{std::move(name), std::move(from), std::move(to), events[last].t - start,
                replay.run(start, first, last, pinPad)};
        m_phases.push_back(p);
        return p;
    };

    // Initialisation: from the process's start to the end of the load.
    const std::size_t loaded = replay.find(0, [](const Event& e) { return e.kind == 'U'; });
    phase("initialisation", "process start", "equipment initialised", m_spawned, 0, loaded);

    // The standard payment.
    const std::size_t startTick = tickAfter(m_standardDue, "Monitor");
    const std::size_t accepting =
        replay.find(startTick, storeWrite("Status", is("Insert Coins or Bills...")));
    const Phase start =
        phase("payment start", "monitor tick taking \"Due\"", "\"Insert Coins or Bills...\"",
              events[startTick].t, startTick, accepting);
    m_timeline.push_back({"start", 0, start.measured, start.floor.total});

    // Coin to credit: from the changer's answer carrying the coin to "Credit" in the store.
    const Stream& mdb = streams.at("mdb");
    const auto coinToCredit = [&](double inserted, double& measured, Floor& floor) {
        for (std::size_t piece = 0; piece < mdb.text.size(); ++piece) {
            const double emitted = mdb.emitted[mdb.textStart[piece]];
            const std::string& text = mdb.text[piece];
            if (emitted < inserted || text.size() < 2) {
                continue;
            }
            // A coin deposited: event byte 01yyxxxx.
            const int event = std::stoi(text.substr(0, 2), nullptr, 16);
            if ((event & 0xC0) != 0x40) {
                continue;
            }
            const std::size_t first = replay.firstAtOrAfter(emitted);
            const std::size_t credit =
                replay.find(first, storeWrite("Credit", [](const std::string&) { return true; }));
            if (credit == npos) {
                return false;
            }
            measured = events[credit].t - emitted;
            floor = replay.run(emitted, first, credit);
            return true;
        }
        return false;
    };
    double creditStart = 0;
    for (std::size_t i = 0; i < m_standardCoins.size(); ++i) {
        double measured = 0;
        Floor floor;
        if (coinToCredit(m_standardCoins[i], measured, floor)) {
            m_timeline.push_back({"credit " + std::to_string(i + 1),
                                  m_standardCoins[i] - events[startTick].t, measured, floor.total});
            creditStart = m_standardCoins[i];
        }
    }
    for (double inserted : m_coins) {
        double measured = 0;
        Floor floor;
        if (coinToCredit(inserted, measured, floor)) {
            m_coinLatency.push_back(measured);
            m_coinFloor.push_back(floor.total);
        }
    }
    (void)creditStart;

    // Completion: from the credit that covers the due to "Payment Completed"; the change payout
    // inside it is its own phase.
    const std::size_t completed =
        replay.find(accepting, storeWrite("Status", is("Payment Completed")));
    std::size_t covering = npos;
    for (std::size_t i = accepting; i < completed && completed != npos; ++i) {
        if (storeWrite("Credit", [](const std::string& v) { return v != "0"; })(events[i])) {
            covering = i;
        }
    }
    if (covering != npos && completed != npos) {
        const std::size_t changeStart =
            replay.find(covering, storeWrite("ChangeDispensed", is("")));
        const std::size_t changeEnd = replay.find(
            changeStart + 1,
            storeWrite("ChangeDispensed", [](const std::string& v) { return !v.empty(); }));
        const Floor whole = replay.run(events[covering].t, covering, completed);
        const Phase change =
            phase("change payout (standard payment)", "\"ChangeDispensed\" cleared",
                  "\"ChangeDispensed\" written", events[changeStart].t, changeStart, changeEnd);
        Phase completion{"completion (without its change)", "credit covers the due",
                         "\"Payment Completed\"",
                         events[completed].t - events[covering].t - change.measured, whole};
        completion.floor.total = whole.total - change.floor.total;
        completion.floor.waits -= change.floor.waits;
        completion.floor.wire -= change.floor.wire;
        completion.floor.device -= change.floor.device;
        m_phases.push_back(completion);
        const double base = events[startTick].t;
        m_timeline.push_back({"completion", events[covering].t - base,
                              events[changeStart].t - events[covering].t,
                              replay.run(events[covering].t, covering, changeStart).total});
        m_timeline.push_back(
            {"change", events[changeStart].t - base, change.measured, change.floor.total});
    }

    // Payouts by device: from the first byte to the device to its last answer.
    for (const auto& [device, asked] : m_changeAsked) {
        const std::string link = device == "tubes" ? "mdb" : device;
        const std::size_t tick = tickAfter(asked, "Monitor");
        const std::size_t done = replay.find(tick, storeWrite("Status", is("Change dispensed")));
        std::size_t first = npos;
        std::size_t last = npos;
        for (std::size_t i = tick; i < done && done != npos; ++i) {
            if (events[i].link == link && events[i].kind == 'W' && first == npos) {
                first = i;
            }
            if (events[i].link == link && events[i].kind == 'R' && events[i].count > 0) {
                last = i;
            }
        }
        if (first != npos) {
            phase("change payout: " + device, "first byte to the " + device, "its last answer read",
                  events[first].t, first, last);
        }
    }

    const std::size_t cancelTick = tickAfter(m_cancelAsked, "Monitor");
    phase("cancel", "monitor tick taking \"Cancel\"", "\"Transaction Cancelled\"",
          events[cancelTick].t, cancelTick,
          replay.find(cancelTick, storeWrite("Status", is("Transaction Cancelled"))));

    const std::size_t cardTick = tickAfter(m_cardAsked, "Monitor");
    const std::vector<double> pinPad = kestrix::sim::SimPinPad::waitsOfASale(kPinPadSaleSeconds);
    phase("card sale", "monitor tick taking \"DueCC\"", "\"Credit Card Approved\"",
          events[cardTick].t, cardTick,
          replay.find(cardTick, storeWrite("Status", is("Credit Card Approved"))), &pinPad);
}

std::string Bench::json() const {
    using Json = nlohmann::ordered_json;
    const auto floorJson = [](const Floor& f) {
        return Json{{"total", f.total}, {"waits", f.waits}, {"wire", f.wire}, {"device", f.device}};
    };
    Json w;
    Json phases = Json::array();
    for (const Phase& p : m_phases) {
        phases.push_back({{"name", p.name},
                          {"from", p.from},
                          {"to", p.to},
                          {"measured", p.measured},
                          {"floor", floorJson(p.floor)},
                          {"goal_ratio", p.goalRatio}});
    }
    w["phases"] = std::move(phases);
    w["coin_to_credit"] = {{"count", static_cast<double>(m_coinLatency.size())},
                           {"median", kestrix::bench::percentile(m_coinLatency, 0.5)},
                           {"p99", kestrix::bench::percentile(m_coinLatency, 0.99)},
                           {"max", kestrix::bench::percentile(m_coinLatency, 1.0)},
                           {"floor_median", kestrix::bench::percentile(m_coinFloor, 0.5)},
                           {"floor_p99", kestrix::bench::percentile(m_coinFloor, 0.99)}};
    Json timeline = Json::array();
    for (const Timeline& t : m_timeline) {
        timeline.push_back(
            {{"name", t.name}, {"start", t.start}, {"measured", t.measured}, {"floor", t.floor}});
    }
    w["timeline"] = std::move(timeline);
    w["resources"] = {{"engine_idle_percent", m_engineIdle},
                      {"bare_wake_percent", m_bareWake},
                      {"qt_wake_percent", m_qtWake},
                      {"idle_seconds", m_idleSeconds},
                      {"engine_paying_percent", m_enginePaying},
                      {"paying_seconds", m_payingSeconds},
                      {"sim_idle_percent", m_simIdle},
                      {"sim_paying_percent", m_simPaying},
                      {"rss_headless_kb", static_cast<double>(m_rssHeadless)},
                      {"rss_headless_peak_kb", static_cast<double>(m_rssHeadlessPeak)},
                      {"rss_console_kb", static_cast<double>(m_rssConsole)},
                      {"rss_console_peak_kb", static_cast<double>(m_rssConsolePeak)},
                      {"console_seconds", m_consoleSeconds},
                      {"console_display", m_consoleDisplay}};
    w["notes"] = m_notes;
    return w.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

int main(int argc, char** argv) {
    std::string out = "bench_kiosk.json";
    double seconds = 60;
    int coins = 200;
    std::string again;
    bool keep = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool hasValue = i + 1 < argc;
        if (a == "--keep") {
            keep = true;
        } else if (a == "--out" && hasValue) {
            out = argv[++i];
        } else if (a == "--seconds" && hasValue) {
            seconds = std::stod(argv[++i]);
        } else if (a == "--coins" && hasValue) {
            coins = std::stoi(argv[++i]);
        } else if (a == "--analyse" && hasValue) {
            again = argv[++i];
        } else {
            std::cerr << "bench_kiosk: unknown argument " << a << '\n';
            return 2;
        }
    }
    std::string dir = again;
    if (dir.empty()) {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "ksx-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            std::cerr << "bench_kiosk: cannot create a directory in " << pattern << '\n';
            return 1;
        }
        dir = pattern;
    }
    try {
        Bench bench(dir);
        if (again.empty()) {
            bench.run(seconds, coins);
        } else {
            bench.reanalyse();
        }
        std::ofstream(out) << bench.json() << '\n';
        std::cout << bench.json() << '\n';
    } catch (const std::exception& e) {
        std::cerr << "bench_kiosk: " << e.what() << "\nbench_kiosk: the run's records are in "
                  << dir << '\n';
        return 1;
    }
    if (keep || !again.empty()) {
        std::cerr << "bench_kiosk: the run's records are in " << dir << '\n';
    } else {
        std::filesystem::remove_all(dir);
    }
    return 0;
}
