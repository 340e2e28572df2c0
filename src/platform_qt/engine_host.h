#pragma once

#include <QObject>
#include <QThread>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/console.h"

namespace kestrix {
class Setup;
class MessageBox;
class Log;
class Instance;
class Printer;
}  // namespace kestrix

namespace kestrix::qt {

// The engine's exit status when its settings store cannot be used as it is (a directory other
// users can write, a damaged file): starting again will not help until someone acts.
inline constexpr int kExitStoreRefused = 4;

struct EngineOptions {
    std::string storePath;    // resolved path of the SQLite store
    std::string commandLine;  // the process's arguments after the program name
    // Where the simulated kiosk's links are ("Ports" 1, 2, 3 are pointed at them); empty for a
    // real kiosk.
    std::string simulatorDir;
    // Where the engine logs (StderrLog in the programs); nullptr: nowhere.
    Log* log = nullptr;
    // The single-instance lock, when the program has taken it before anything else; otherwise
    // the engine takes it (a LockFileInstance on the store) before it changes the store.
    std::shared_ptr<Instance> instance;
    // Makes the voucher printer, given the store's "Printer" setting. Empty: vouchers are
    // printed by a HelperPrinter running the `kestrix` program beside this one.
    std::function<std::unique_ptr<Printer>(const std::string& printerSetting)> makePrinter;
};

// Runs the engine (the Setup object, its timers and every device adapter) on its own thread with
// its own event loop. Everything engine-side is created, used and destroyed on that thread; the
// rest of the process talks to it only through post() and the signals below.
class EngineHost : public QObject {
    Q_OBJECT

public:
    // `messageBox` must be safe to call from the engine thread and must not block it.
    EngineHost(EngineOptions options, std::shared_ptr<MessageBox> messageBox);
    ~EngineHost() override;

    void start();
    // Queues `action` on the engine thread, after what is already queued. Safe from any thread;
    // dropped once the engine has ended.
    void post(std::function<void(Setup&)> action);
    // Asks the engine to end (a service manager's stop, Ctrl+C): the running payment is
    // cancelled and its credit paid back, then Exit runs, within the engine's termination
    // bound. Safe from any thread; nothing happens once the engine has ended.
    void requestTermination();
    // Blocks until the engine thread has finished; the engine's exit code.
    int wait();
    bool running() const;

signals:
    // Emitted on the engine thread; connect with a queued connection.
    void fieldChanged(const kestrix::Field& field);
    void indicatorFlashed(kestrix::Indicator which);
    void deviceEvent(kestrix::DeviceEvent event);
    // The engine has loaded (true) or refused to start because another instance runs (false).
    void startedUp(bool ok);
    void ended(int exitCode);

private:
    void run();

    EngineOptions m_options;
    std::shared_ptr<MessageBox> m_messageBox;
    std::unique_ptr<QThread> m_thread;
    struct Shared;
    std::shared_ptr<Shared> m_shared;
    int m_exitCode = 0;
};

}  // namespace kestrix::qt

Q_DECLARE_METATYPE(kestrix::Field)
Q_DECLARE_METATYPE(kestrix::Indicator)
Q_DECLARE_METATYPE(kestrix::DeviceEvent)
