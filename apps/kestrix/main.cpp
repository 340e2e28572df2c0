// kestrix: the device engine. Runs the engine on its own thread, with the operator console as
// its window, or headless as a service.

#include <QApplication>
#include <QCoreApplication>
#include <QGuiApplication>
#include <QTimer>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "engine/bounds.h"
#include "engine/settings/layout.h"
#include "engine/setup.h"
#include "platform_qt/engine_host.h"
#include "platform_qt/sqlite_store.h"
#include "platform_qt/stderr_message_box.h"
#include "signal_bridge.h"
#include "sim/pty_kiosk.h"
#include "sim/seed.h"

#ifdef KESTRIX_HAVE_CONSOLE
#include "console/console_app.h"
#endif

namespace {

const char* const kUsage =
    "Usage: kestrix [--store PATH] [--headless] [--simulate] [--version] [--help] [/hide]\n"
    "\n"
    "The Kestrix device engine: drives the kiosk's coin changer, bill validator, bill\n"
    "dispenser, coin hoppers and card pin pad for a host program that talks to it through\n"
    "the shared settings store (section \"Status\" of application KSX).\n"
    "\n"
    "  --store PATH  the settings store (SQLite). Default: $KSX_STORE, else\n"
    "                ${XDG_CONFIG_HOME:-~/.config}/kestrix/KSX.db\n"
    "  --headless    no window: service mode; operator messages go to standard error\n"
    "  --simulate    run on the simulated kiosk: every device is simulated in-process on\n"
    "                pseudo-terminals; without --store it uses its own store,\n"
    "                ${XDG_CONFIG_HOME:-~/.config}/kestrix/simulated/KSX.db, configured on\n"
    "                first use with every device enabled\n"
    "                The simulator's links and control socket are in $KSX_SIM_DIR, else\n"
    "                ${XDG_RUNTIME_DIR:-/tmp}/kestrix-simulated (see kestrix-sim ctl)\n"
    "  --version     print the version and exit\n"
    "  --help        print this help and exit\n"
    "  /hide         (last argument) keep the console window hidden\n"
    "\n"
    "One engine runs per store: a second start is refused with exit status 1. A store in a\n"
    "directory other users can write, or a damaged one, is refused with exit status 4.\n"
    "SIGTERM and SIGINT end a running payment as a cancel that pays the credit back, then\n"
    "run the engine's Exit (devices reset, pin pad marked off line), within 10 seconds;\n"
    "a second signal ends the process at once.\n";

struct Options {
    std::string store;
    bool headless = false;
    bool simulate = false;
};

std::string configHome() {
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    if (xdg != nullptr && *xdg != '\0') {
        return xdg;
    }
    const char* home = std::getenv("HOME");
    return std::string(home != nullptr ? home : ".") + "/.config";
}

// The simulated kiosk's links live in one well-known directory, so that `kestrix-sim ctl DIR`
// reaches them: $KSX_SIM_DIR, else ${XDG_RUNTIME_DIR:-/tmp}/kestrix-simulated.
std::string simulatorDirectory() {
    const char* chosen = std::getenv("KSX_SIM_DIR");
    if (chosen != nullptr && *chosen != '\0') {
        return chosen;
    }
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::string base = runtime != nullptr && *runtime != '\0' ? runtime : "/tmp";
    return base + "/kestrix-simulated";
}

}  // namespace

int main(int argc, char* argv[]) {
    Options opt;
    std::vector<std::string> args(argv + 1, argv + argc);
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (a == "--version") {
            std::printf("kestrix %s\n", KESTRIX_VERSION);
            return 0;
        }
        if (a == "--headless") {
            opt.headless = true;
        } else if (a == "--simulate") {
            opt.simulate = true;
        } else if (a == "--store" && i + 1 < args.size()) {
            opt.store = args[++i];
        } else if (a.rfind("--store=", 0) == 0) {
            opt.store = a.substr(8);
        } else if (a == "/hide" || a == "/HIDE" || a.empty() || a[0] != '-') {
            // Free words are part of the command line the monitor looks at ("/hide").
        } else {
            std::fprintf(stderr, "kestrix: unknown option %s\n%s", a.c_str(), kUsage);
            return 2;
        }
    }

    std::unique_ptr<QCoreApplication> app;
#ifdef KESTRIX_HAVE_CONSOLE
#ifndef _WIN32
    // Without a display the console cannot open; an engine started that way (a service shell,
    // an SSH session) still runs, as it would with --headless.
    if (!opt.headless && qEnvironmentVariableIsEmpty("DISPLAY") &&
        qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") &&
        qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        std::fputs("kestrix: no display found; running headless\n", stderr);
        opt.headless = true;
    }
#endif
    if (!opt.headless) {
        app = std::make_unique<QApplication>(argc, argv);
    }
#endif
    if (!app) {
        // Headless still lays out vouchers with fonts, which needs a GUI application object; the
        // offscreen platform needs no display.
        opt.headless = true;
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
            qputenv("QT_QPA_PLATFORM", "offscreen");
        }
        app = std::make_unique<QGuiApplication>(argc, argv);
    }
    QCoreApplication::setApplicationName("kestrix");
    QCoreApplication::setApplicationVersion(KESTRIX_VERSION);

    kestrix::qt::EngineOptions engineOptions;
    std::unique_ptr<kestrix::sim::PtyKiosk> kiosk;
    try {
        if (opt.simulate && opt.store.empty() && std::getenv("KSX_STORE") == nullptr) {
            opt.store = configHome() + "/kestrix/simulated/KSX.db";
        }
        engineOptions.storePath = kestrix::qt::resolveStorePath(opt.store);
        if (opt.simulate) {
            engineOptions.simulatorDir = simulatorDirectory();
            kiosk = std::make_unique<kestrix::sim::PtyKiosk>(engineOptions.simulatorDir);
            kiosk->start();
            std::fprintf(
                stderr,
                "kestrix: simulated kiosk in %s (insert a coin: kestrix-sim ctl %s coin 3)\n",
                engineOptions.simulatorDir.c_str(), engineOptions.simulatorDir.c_str());
            // A simulated kiosk store is configured once; later runs keep the technician's
            // changes.
            kestrix::qt::SqliteStore seedStore(engineOptions.storePath);
            if (seedStore.get("KSX", "CoinAcceptor", "CAE", "").empty()) {
                kestrix::sim::seedSimulatedKioskSettings(seedStore, kestrix::sim::PortNumbers{});
            }
        }
    } catch (const kestrix::qt::StoreRefused& e) {
        std::fprintf(stderr, "kestrix: %s\n", e.what());
        return kestrix::qt::kExitStoreRefused;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kestrix: %s\n", e.what());
        return 3;
    }
    QStringList words = QCoreApplication::arguments();
    words.removeFirst();
    engineOptions.commandLine = words.join(' ').toStdString();

    std::shared_ptr<kestrix::MessageBox> messages;
#ifdef KESTRIX_HAVE_CONSOLE
    std::unique_ptr<kestrix::console::ConsoleApp> console;
    if (!opt.headless) {
        console = std::make_unique<kestrix::console::ConsoleApp>(kiosk.get());
        messages = console->messageBox();
    }
#endif
    if (!messages) {
        messages = std::make_shared<kestrix::qt::StderrMessageBox>();
    }

    kestrix::qt::EngineHost engine(engineOptions, messages);
    SignalBridge terminations;
    // The first SIGTERM or SIGINT ends the running payment as a cancel that pays the credit back,
    // then runs Exit; whatever a device does, the process ends within the bound. A second signal
    // ends it at once.
    int signalsSeen = 0;
    QTimer watchdog;
    watchdog.setSingleShot(true);
    QObject::connect(&watchdog, &QTimer::timeout, [] {
        std::fputs(
            "kestrix: the engine did not end in time after a termination request; "
            "ending now\n",
            stderr);
        std::_Exit(1);
    });
    QObject::connect(
        &terminations, &SignalBridge::terminationRequested, &engine,
        [&engine, &signalsSeen, &watchdog] {
            if (++signalsSeen > 1) {
                std::fputs("kestrix: second termination signal: ending now\n", stderr);
                std::_Exit(1);
            }
            engine.requestTermination();
            watchdog.start(static_cast<int>(kestrix::bounds::kProcessExitSeconds * 1000));
        });
#ifdef KESTRIX_HAVE_CONSOLE
    if (console) {
        // The console quits the application once the engine has ended and the operator has
        // acknowledged any message still open.
        console->attach(engine);
    }
#endif
    if (opt.headless) {
        QObject::connect(
            &engine, &kestrix::qt::EngineHost::ended, app.get(),
            [](int code) { QCoreApplication::exit(code); }, Qt::QueuedConnection);
    }
    engine.start();
    app->exec();
    const int exitCode = engine.wait();
    if (kiosk) {
        kiosk->stop();
    }
    return exitCode;
}
