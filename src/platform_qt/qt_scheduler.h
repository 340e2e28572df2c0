#pragma once

#include <QObject>
#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "engine/platform/scheduler.h"

namespace kestrix::qt {

// The engine thread's event loop as the engine sees it. Create it on the engine thread: its
// timers and posted tasks run on the thread that created it.
//
// Timers behave like form timers: a late tick fires once, a tick is never re-entered while it
// runs (even when its handler waits in yieldUntil), and enabling restarts the interval. An
// interval of 0 or less never fires, as a form timer with interval 0 does not.
class QtScheduler : public Scheduler {
public:
    // How the engine's event loop ends: QThread::exit on an engine thread, QCoreApplication::exit
    // when the engine runs on the main thread. Without one, the scheduler picks by its thread.
    using QuitFunction = std::function<void(int exitCode)>;

    explicit QtScheduler(QuitFunction quit = {});
    ~QtScheduler() override;
    QtScheduler(const QtScheduler&) = delete;
    QtScheduler& operator=(const QtScheduler&) = delete;

    std::unique_ptr<Timer> createTimer(std::string name, int intervalMs, bool enabled,
                                       std::function<void()> onTick) override;
    void post(std::function<void()> task) override;
    void yieldUntil(const std::function<bool()>& done) override;
    void quit(int exitCode) override;

    // A quit asked before the event loop started is lost by QCoreApplication::exit; the program
    // checks this before it enters the loop.
    bool quitRequested() const { return m_quitRequested.load(); }
    int exitCode() const { return m_exitCode.load(); }

    // The object whose thread runs the engine; posted tasks are queued to it.
    QObject* context() const { return m_context.get(); }

private:
    std::unique_ptr<QObject> m_context;
    QuitFunction m_quit;
    std::atomic<bool> m_quitRequested{false};
    std::atomic<int> m_exitCode{0};
};

}  // namespace kestrix::qt
