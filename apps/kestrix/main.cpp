// kestrix: the device engine. Runs the engine on its own thread, with the operator console as
// its window, or headless as a service.

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTimer>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/bounds.h"
#include "engine/settings/layout.h"
#include "engine/setup.h"
#include "platform_qt/engine_host.h"
#include "platform_qt/helper_printer.h"
#include "platform_qt/lock_file_instance.h"
#include "platform_qt/sqlite_store.h"
#include "platform_qt/stderr_log.h"
#include "platform_qt/stderr_message_box.h"
#include "signal_bridge.h"
#include "sim/pty_kiosk.h"
#include "sim/seed.h"

#ifdef __linux__
#include <unistd.h>
#endif

#ifdef KESTRIX_HAVE_PRINT
#include <QFile>
#include <QGuiApplication>

#include "platform_qt/qt_printer.h"
#endif

#ifdef KESTRIX_HAVE_CONSOLE
#include <QApplication>
#include <QMessageBox>

#include "console/console_app.h"
#endif

namespace {

constexpr int kExitRefused = 1;
constexpr int kExitUsage = 2;
constexpr int kExitStore = 3;

const char* const kDescription =
    "\nThe Kestrix device engine: drives the kiosk's coin changer, bill validator, bill\n"
    "dispenser, coin hoppers and card pin pad for a host program that talks to it through\n"
    "the shared settings store (section \"Status\" of application KSX).\n"
    "\n"
    "One engine runs per store: a second start is refused with exit status 1, naming the\n"
    "store and the process id of the engine that runs on it. SIGTERM and SIGINT end a\n"
    "running payment as a cancel that pays the credit back, then run the engine's Exit\n"
    "(devices reset, pin pad marked off line), within 10 seconds; a second signal ends the\n"
    "process at once. Exit status: 0 ended on request, 1 refused (another engine runs on the\n"
    "store), 2 usage error, 3 store error, 4 store refused (in a directory other users can\n"
    "write, or damaged).";

struct Options {
    std::string store;
    bool headless = false;
    bool simulate = false;
    kestrix::LogLevel logLevel = kestrix::LogLevel::Info;
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

// Parses the command line before any application object exists (which one to make depends on
// --headless). Returns an exit status when the program is done (help, version, usage error).
std::optional<int> parseOptions(int argc, char* argv[], Options& opt) {
    QStringList arguments;
    for (int i = 0; i < argc; ++i) {
        arguments << QString::fromLocal8Bit(argv[i]);
    }
    QCommandLineParser parser;
    parser.setApplicationDescription(kDescription);
    const QCommandLineOption store("store",
                                   "The settings store (SQLite). Default: $KSX_STORE, else "
                                   "${XDG_CONFIG_HOME:-~/.config}/kestrix/KSX.db.",
                                   "PATH");
    const QCommandLineOption headless(
        "headless", "No window: service mode; operator messages go to standard error.");
    const QCommandLineOption simulate(
        "simulate",
        "Run on the simulated kiosk: every device is simulated in-process on pseudo-terminals "
        "in $KSX_SIM_DIR, else ${XDG_RUNTIME_DIR:-/tmp}/kestrix-simulated (see kestrix-sim "
        "ctl). Without --store it uses its own store, "
        "${XDG_CONFIG_HOME:-~/.config}/kestrix/simulated/KSX.db, configured on first use with "
        "every device enabled.");
    const QCommandLineOption logLevel(
        "log-level",
        "What goes to standard error: error, warning, notice, info (the default: faults, "
        "payments, money movements) or debug.",
        "LEVEL");
    parser.addOptions({store, headless, simulate, logLevel});
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption version = parser.addVersionOption();
    parser.addPositionalArgument("/hide", "(last argument) Keep the console window hidden.",
                                 "[/hide]");
    if (!parser.parse(arguments)) {
        std::fprintf(stderr, "kestrix: %s (see kestrix --help)\n", qPrintable(parser.errorText()));
        return kExitUsage;
    }
    if (parser.isSet(help)) {
        // Without an application object yet, Qt cannot name the program itself.
        std::fputs(qPrintable(parser.helpText().replace("<executable_name>", "kestrix")), stdout);
        return 0;
    }
    if (parser.isSet(version)) {
        std::printf("kestrix %s\n", KESTRIX_VERSION);
        return 0;
    }
    for (const QString& word : parser.positionalArguments()) {
        // Free words are part of the command line the monitor looks at ("/hide"); an unknown
        // option is not one of them.
        if (word.startsWith('-')) {
            std::fprintf(stderr, "kestrix: Unknown option '%s'. (see kestrix --help)\n",
                         qPrintable(word));
            return kExitUsage;
        }
    }
    opt.store = parser.value(store).toStdString();
    if (parser.isSet(store) && opt.store.empty()) {
        std::fputs("kestrix: --store needs a path (see kestrix --help)\n", stderr);
        return kExitUsage;
    }
    if (parser.isSet(logLevel)) {
        const std::optional<kestrix::LogLevel> level =
            kestrix::qt::parseLogLevel(parser.value(logLevel).toStdString());
        if (!level) {
            std::fputs(
                "kestrix: --log-level takes error, warning, notice, info or debug (see "
                "kestrix --help)\n",
                stderr);
            return kExitUsage;
        }
        opt.logLevel = *level;
    }
    opt.headless = parser.isSet(headless);
    opt.simulate = parser.isSet(simulate);
    return std::nullopt;
}

// Another engine runs on the store: say which, and touch nothing.
int refuse(const Options& opt, const std::string& storePath, long pid) {
    const std::string text = "Another version of this program is already running";
    const std::string detail = "the store " + storePath +
                               " is in use by the engine with process id " +
                               (pid > 0 ? std::to_string(pid) : std::string("(unknown)"));
    std::fprintf(stderr, "Unable to start: %s\nkestrix: %s\n", text.c_str(), detail.c_str());
#ifdef KESTRIX_HAVE_CONSOLE
    if (!opt.headless) {
        QMessageBox::critical(nullptr, "Unable to start",
                              QString::fromStdString(text + "\n\n" + detail + "."));
    }
#else
    (void)opt;
#endif
    return kExitRefused;
}

#ifdef KESTRIX_HAVE_PRINT
// The voucher printer of the headless engine (HelperPrinter): `kestrix --print-voucher` reads
// one voucher document on standard input, prints it, writes the PDF file it made (if any) on
// standard output and ends (voucher_document::kExit...; the reason it did not print on standard
// error, as the operator is shown it). Fonts and the print system's client live only as long as
// this process.
int printVoucher(int argc, char* argv[]) {
    // Nothing is shown: the offscreen platform needs no display, whatever the session has.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    // Only the reason a voucher did not print goes to the engine, not Qt's chatter about fonts.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    QGuiApplication app(argc, argv);
    QFile in;
    if (!in.open(stdin, QIODevice::ReadOnly)) {
        std::fputs("the voucher document cannot be read\n", stderr);
        return kestrix::qt::voucher_document::kExitNotADocument;
    }
    const QByteArray document = in.readAll();
    std::string file;
    std::string error;
    const int status = kestrix::qt::printVoucherDocument(document.toStdString(), file, error);
    if (status != kestrix::qt::voucher_document::kExitPrinted) {
        std::fprintf(stderr, "%s\n", error.c_str());
    } else if (!file.empty()) {
        std::printf("%s\n", file.c_str());
    }
    return status;
}
#endif

#if defined(KESTRIX_HAVE_CONSOLE) && defined(__linux__)
// The directory of this program's file, found before any application object exists.
std::string programDirectory() {
    std::string path(4096, '\0');
    const ssize_t n = ::readlink("/proc/self/exe", path.data(), path.size());
    if (n <= 0 || static_cast<std::size_t>(n) >= path.size()) {
        return {};
    }
    path.resize(static_cast<std::size_t>(n));
    return path.substr(0, path.rfind('/'));
}

// A headless engine runs as kestrix-headless, the same engine built without the console and the
// printer: the GUI libraries it would never use stay out of its memory (a third of it). The
// process (its id, its arguments) stays the same. Returns only when that program cannot be
// started; this one then runs headless itself.
void becomeHeadlessProgram(char* argv[]) {
    const std::string dir = programDirectory();
    if (dir.empty()) {
        return;
    }
    const std::string program = dir + "/kestrix-headless";
    ::execv(program.c_str(), argv);
}
#endif

// How the headless engine prints vouchers: a `kestrix --print-voucher` process per voucher.
std::vector<std::string> voucherHelperCommand() {
#if defined(KESTRIX_HAVE_PRINT) && defined(__linux__)
    // This very program, through the file it was started from (still there after a package
    // upgrade replaced it), so the helper always matches the engine.
    const std::string program = "/proc/self/exe";
#elif defined(KESTRIX_HAVE_PRINT)
    const std::string program = QCoreApplication::applicationFilePath().toStdString();
#else
    // The console program beside this one.
    const std::string program = QCoreApplication::applicationDirPath().toStdString() + "/kestrix";
#endif
    return {program, kestrix::qt::kPrintVoucherOption};
}

}  // namespace

int main(int argc, char* argv[]) {
#ifdef KESTRIX_HAVE_PRINT
    if (argc == 2 && std::strcmp(argv[1], kestrix::qt::kPrintVoucherOption) == 0) {
        return printVoucher(argc, argv);
    }
#endif
    Options opt;
    if (const std::optional<int> done = parseOptions(argc, argv, opt)) {
        return *done;
    }

    // One log for the engine and for Qt's own messages, from before the application exists to
    // the process's very end (Qt may still talk while it tears down, so it is never destroyed).
    static auto* const log = new kestrix::qt::StderrLog(opt.logLevel);
    kestrix::qt::routeQtMessagesTo(log);

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
#ifdef __linux__
    if (opt.headless) {
        becomeHeadlessProgram(argv);
    }
#endif
    if (!opt.headless) {
        app = std::make_unique<QApplication>(argc, argv);
    }
#endif
    if (!app) {
        // Headless, no GUI application object: its platform and fonts would be most of the
        // engine's memory, and they are needed only to lay out a voucher, which a helper
        // process does (HelperPrinter).
        opt.headless = true;
        app = std::make_unique<QCoreApplication>(argc, argv);
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
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kestrix: %s\n", e.what());
        return kExitStore;
    }

    // The single-instance check comes before anything touches the store or the simulated
    // kiosk: a refused start must leave the running engine's mailbox and ports alone.
    auto instance = std::make_shared<kestrix::qt::LockFileInstance>(
        kestrix::qt::LockFileInstance::lockPathFor(engineOptions.storePath),
        QCoreApplication::arguments());
    if (instance->anotherIsRunning()) {
        return refuse(opt, engineOptions.storePath, instance->holderPid());
    }
    engineOptions.instance = instance;

    try {
        if (opt.simulate) {
            engineOptions.simulatorDir = simulatorDirectory();
            kiosk = std::make_unique<kestrix::sim::PtyKiosk>(engineOptions.simulatorDir);
            kiosk->start();
            const std::string& dir = engineOptions.simulatorDir;
            std::fprintf(stderr,
                         "kestrix: simulated kiosk in %s, store %s\n"
                         "kestrix: to pay, ask for money (\"Amount:\" and \"Cash\" on the console, "
                         "or ksxctl --store %s pay 12.5), then insert it: kestrix-sim ctl %s "
                         "coin 5\n",
                         dir.c_str(), engineOptions.storePath.c_str(),
                         engineOptions.storePath.c_str(), dir.c_str());
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
        return kExitStore;
    }
    QStringList words = QCoreApplication::arguments();
    words.removeFirst();
    engineOptions.commandLine = words.join(' ').toStdString();
    engineOptions.log = log;
    if (opt.headless) {
        const std::vector<std::string> helper = voucherHelperCommand();
        engineOptions.makePrinter = [helper](const std::string& printerSetting) {
            return std::make_unique<kestrix::qt::HelperPrinter>(
                helper.front(), std::vector<std::string>(helper.begin() + 1, helper.end()),
                std::vector<std::string>{printerSetting});
        };
    }
#ifdef KESTRIX_HAVE_PRINT
    else {
        // The console's process has the GUI application already: it prints in-process.
        engineOptions.makePrinter = [](const std::string& printerSetting) {
            return std::make_unique<kestrix::qt::QtPrinter>(
                std::vector<std::string>{printerSetting});
        };
    }
#endif

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
