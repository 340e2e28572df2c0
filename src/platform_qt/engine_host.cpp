#include "engine_host.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <cstdio>
#include <mutex>

#include "engine/formulas.h"
#include "engine/hoppers/hoppers.h"
#include "engine/platform/log.h"
#include "engine/platform/message_box.h"
#include "engine/settings/layout.h"
#include "engine/setup.h"
#include "helper_printer.h"
#include "lock_file_instance.h"
#include "payment_library_factory.h"
#include "qt_network_info.h"
#include "qt_scheduler.h"
#include "qt_serial_port.h"
#include "sim/seed.h"
#include "sqlite_journal.h"
#include "sqlite_store.h"
#include "steady_clock.h"
#include "timing_trace.h"

#ifdef KESTRIX_HAVE_FLEET
#include "fleet/start.h"
#endif

namespace kestrix::qt {

namespace {

#ifdef KESTRIX_HAVE_FLEET
using FleetView = fleet::KioskView;
#else
// A build without the fleet publisher has nothing to feed.
struct FleetView {
    void noteField(const Field&, const Hoppers* = nullptr) {}
    void noteEvent(DeviceEvent) {}
};
#endif

// The journal beside the store, kept for the days in section "Journal", key "KeepDays" (400 when
// missing or not a number of days). An engine whose journal cannot be opened still runs
// (a kiosk that cannot take money helps nobody) and says so at error level.
std::unique_ptr<SqliteJournal> openJournal(SettingsStore& store, const std::string& storePath,
                                           Log& log) {
    const std::string path = journalPathFor(storePath);
    int keepDays = SqliteJournal::kDefaultKeepDays;
    try {
        const double days =
            leadingNumber(store.get(kestrix::store::kApp, kestrix::store::section::kJournal,
                                    kestrix::store::key::kKeepDays, ""));
        if (days >= 1 && days <= 100000) {
            keepDays = static_cast<int>(days);
        }
        return std::make_unique<SqliteJournal>(path, SqliteJournal::Mode::Engine, log, keepDays);
    } catch (const std::exception& e) {
        log.error(std::string("journal: none; the engine runs without one: ") + e.what(),
                  {"journal", 0});
        return nullptr;
    }
}

}  // namespace

struct EngineHost::Shared {
    std::mutex mutex;
    QtScheduler* scheduler = nullptr;
    Setup* setup = nullptr;
};

EngineHost::EngineHost(EngineOptions options, std::shared_ptr<MessageBox> messageBox)
    : m_options(std::move(options)),
      m_messageBox(std::move(messageBox)),
      m_shared(std::make_shared<Shared>()) {
    qRegisterMetaType<kestrix::Field>();
    qRegisterMetaType<kestrix::Indicator>();
    qRegisterMetaType<kestrix::DeviceEvent>();
}

EngineHost::~EngineHost() {
    if (m_thread && m_thread->isRunning()) {
        post([](Setup& setup) { setup.Exit(); });
        m_thread->wait();
    }
}

void EngineHost::start() {
    m_thread.reset(QThread::create([this] { run(); }));
    m_thread->setObjectName("engine");
    m_thread->start();
}

bool EngineHost::running() const {
    return m_thread && m_thread->isRunning();
}

int EngineHost::wait() {
    if (m_thread) {
        m_thread->wait();
    }
    return m_exitCode;
}

void EngineHost::post(std::function<void(Setup&)> action) {
    std::lock_guard lock(m_shared->mutex);
    if (m_shared->scheduler == nullptr) {
        return;
    }
    Setup* setup = m_shared->setup;
    m_shared->scheduler->post([setup, action = std::move(action)] { action(*setup); });
}

void EngineHost::requestTermination() {
    std::lock_guard lock(m_shared->mutex);
    if (m_shared->setup != nullptr) {
        m_shared->setup->requestTermination();
    }
}

void EngineHost::run() {
    int code = 0;
    try {
        QEventLoop loop;
        // Exit ends this loop; the engine thread then tears everything down in order.
        QtScheduler scheduler([&loop](int exitCode) {
            QMetaObject::invokeMethod(
                &loop, [&loop, exitCode] { loop.exit(exitCode); }, Qt::QueuedConnection);
        });
        SteadyClock clock;
        std::shared_ptr<Instance> instance = m_options.instance;
        if (!instance) {
            instance = std::make_shared<LockFileInstance>(
                LockFileInstance::lockPathFor(m_options.storePath), QCoreApplication::arguments());
        }
        SqliteStore store(m_options.storePath);
        store.setBusyTimeout(SqliteStore::kEngineBusyTimeoutMs);
        // Another engine's store is left as it is: the start-up only shows the refusal.
        if (!m_options.simulatorDir.empty() && !instance->anotherIsRunning()) {
            // The simulated kiosk's links answer at port numbers 1, 2 and 3.
            sim::seedSimulatedPortPaths(store, sim::PortNumbers{}, m_options.simulatorDir);
        }
        // A "Printer" setting that names a directory is a PDF voucher printer (kiosks without a
        // printer, tests): it is listed with the installed printers, so the load selects it.
        const std::string printerSetting =
            store.get(kestrix::store::kApp, kestrix::store::section::kPinPad, "Printer", "");
        std::unique_ptr<Printer> printer;
        if (m_options.makePrinter) {
            printer = m_options.makePrinter(printerSetting);
        } else {
            printer = std::make_unique<HelperPrinter>(
                QCoreApplication::applicationDirPath().toStdString() + "/kestrix",
                std::vector<std::string>{kPrintVoucherOption},
                std::vector<std::string>{printerSetting});
        }
        QtNetworkInfo network;
        std::unique_ptr<PaymentLibrary> library = makePaymentLibrary(store, clock, scheduler);
        const PortResolver resolver = storePortResolver(store);
        QtSerialPort mdbPort(resolver);
        QtSerialPort dispenserPort(resolver);
        QtSerialPort hoppersPort(resolver);
        // The fleet publisher (when the store enables it) outlives the engine object, so that it
        // can tell the broker the engine has ended.
        FleetView* fleetView = nullptr;
#ifdef KESTRIX_HAVE_FLEET
        const std::unique_ptr<fleet::Publisher> fleetPublisher = fleet::startFromStore(
            store, m_options.storePath, QCoreApplication::applicationVersion().toStdString());
        fleetView = fleetPublisher ? &fleetPublisher->view() : nullptr;
#endif
        MessageBox& messageBox = *m_messageBox;
        Log& log = m_options.log != nullptr ? *m_options.log : nullLog();
        std::unique_ptr<SqliteJournal> journal = openJournal(store, m_options.storePath, log);
        {
            Setup setup(Platform{clock, scheduler, store, messageBox, *printer, network, *instance,
                                 *library, mdbPort, dispenserPort, hoppersPort,
                                 journal ? static_cast<Journal&>(*journal) : nullJournal(), log});
            // A voucher the helper could not print is reported as a failing printer is: the
            // reason in a message box under the console's caption. The listener goes before
            // the engine object does.
            auto* helperPrinter = dynamic_cast<HelperPrinter*>(printer.get());
            if (helperPrinter != nullptr) {
                helperPrinter->setFailureListener([&messageBox, &setup](const std::string& why) {
                    messageBox.show(why, setup.console().text("Setup"));
                });
            }
            const std::unique_ptr<HelperPrinter, void (*)(HelperPrinter*)> listenerReset(
                helperPrinter, [](HelperPrinter* p) { p->setFailureListener({}); });
            const Hoppers* hoppers = &setup.hoppers();
            setup.console().setChangeListener([this, fleetView, hoppers](const Field& f) {
                emit fieldChanged(f);
                if (fleetView != nullptr) {
                    fleetView->noteField(f, hoppers);
                }
            });
            setup.console().setIndicatorListener(
                [this](Indicator which) { emit indicatorFlashed(which); });
            setup.console().setDeviceEventListener([this, fleetView](DeviceEvent event) {
                emit deviceEvent(event);
                if (fleetView != nullptr) {
                    fleetView->noteEvent(event);
                }
            });
            // Let a view render the whole console before the load changes it.
            for (const Field& f : setup.console().fields()) {
                emit fieldChanged(f);
                if (fleetView != nullptr) {
                    fleetView->noteField(f);
                }
            }
            {
                std::lock_guard lock(m_shared->mutex);
                m_shared->scheduler = &scheduler;
                m_shared->setup = &setup;
            }
            const bool ok = setup.startUp();
            timing::record('U');
            emit startedUp(ok);
            code = ok ? loop.exec() : 1;
            std::lock_guard lock(m_shared->mutex);
            m_shared->scheduler = nullptr;
            m_shared->setup = nullptr;
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kestrix: %s\n", e.what());
        {
            std::lock_guard lock(m_shared->mutex);
            m_shared->scheduler = nullptr;
            m_shared->setup = nullptr;
        }
        // A store that a restart will not mend ends with a status of its own, which the service
        // unit does not restart on: one clear message instead of the same one every few seconds.
        code = dynamic_cast<const StoreRefused*>(&e) != nullptr ? kExitStoreRefused : 3;
    }
    m_exitCode = code;
    emit ended(code);
}

}  // namespace kestrix::qt
