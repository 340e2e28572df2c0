#include "engine_host.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <cstdio>
#include <mutex>

#include "engine/platform/message_box.h"
#include "engine/settings/layout.h"
#include "engine/setup.h"
#include "lock_file_instance.h"
#include "payment_library_factory.h"
#include "qt_network_info.h"
#include "qt_printer.h"
#include "qt_scheduler.h"
#include "qt_serial_port.h"
#include "sim/seed.h"
#include "sqlite_store.h"
#include "steady_clock.h"

namespace kestrix::qt {

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
        SqliteStore store(m_options.storePath);
        store.setBusyTimeout(SqliteStore::kEngineBusyTimeoutMs);
        if (!m_options.simulatorDir.empty()) {
            // The simulated kiosk's links answer at port numbers 1, 2 and 3.
            sim::seedSimulatedPortPaths(store, sim::PortNumbers{}, m_options.simulatorDir);
        }
        // A "Printer" setting that names a directory is a PDF voucher printer (kiosks without a
        // printer, tests): it is listed with the installed printers, so the load selects it.
        QtPrinter printer(
            {store.get(kestrix::store::kApp, kestrix::store::section::kPinPad, "Printer", "")});
        QtNetworkInfo network;
        LockFileInstance instance(LockFileInstance::lockPathFor(m_options.storePath),
                                  QCoreApplication::arguments());
        std::unique_ptr<PaymentLibrary> library = makePaymentLibrary(store, clock, scheduler);
        const PortResolver resolver = storePortResolver(store);
        QtSerialPort mdbPort(resolver);
        QtSerialPort dispenserPort(resolver);
        QtSerialPort hoppersPort(resolver);
        {
            Setup setup(Platform{clock, scheduler, store, *m_messageBox, printer, network, instance,
                                 *library, mdbPort, dispenserPort, hoppersPort});
            setup.console().setChangeListener([this](const Field& f) { emit fieldChanged(f); });
            setup.console().setIndicatorListener(
                [this](Indicator which) { emit indicatorFlashed(which); });
            // Let a view render the whole console before the load changes it.
            for (const Field& f : setup.console().fields()) {
                emit fieldChanged(f);
            }
            {
                std::lock_guard lock(m_shared->mutex);
                m_shared->scheduler = &scheduler;
                m_shared->setup = &setup;
            }
            const bool ok = setup.startUp();
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
        code = 3;
    }
    m_exitCode = code;
    emit ended(code);
}

}  // namespace kestrix::qt
