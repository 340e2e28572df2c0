#include "qt_scheduler.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QThread>
#include <QTimer>
#include <cstdio>
#include <exception>

#include "timing_trace.h"

namespace kestrix::qt {

namespace {

// While the engine waits in yieldUntil, the condition is checked after each batch of events and
// at least this often, in case it changes without an event (another thread's state).
constexpr int kYieldCheckMs = 10;

// A handler's exception must not cross the event loop: the engine's routines trap their own
// errors, so one that escapes is reported and the loop goes on.
template <typename F>
void runGuarded(const char* what, const std::string& name, F&& f) {
    try {
        f();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kestrix: %s %s ended by an error: %s\n", what, name.c_str(),
                     e.what());
    }
}

class QtTimer : public Timer {
public:
    QtTimer(std::string name, int intervalMs, std::function<void()> onTick)
        : m_name(std::move(name)), m_intervalMs(intervalMs), m_onTick(std::move(onTick)) {
        m_timer.setTimerType(Qt::PreciseTimer);
        m_timer.setSingleShot(false);
        QObject::connect(&m_timer, &QTimer::timeout, &m_timer, [this] { tick(); });
    }
    ~QtTimer() override { *m_alive = false; }

    void setEnabled(bool enabled) override {
        m_enabled = enabled;
        apply();
    }
    bool enabled() const override { return m_enabled; }
    void setInterval(int intervalMs) override {
        m_intervalMs = intervalMs;
        apply();
    }
    int interval() const override { return m_intervalMs; }
    const std::string& name() const override { return m_name; }

private:
    // (Re)starting counts the interval from now, as enabling a form timer or changing its
    // interval does.
    void apply() {
        if (m_enabled && m_intervalMs > 0) {
            m_timer.start(m_intervalMs);
            timing::record('A', m_name, std::to_string(m_intervalMs));
        } else {
            if (m_timer.isActive()) {
                timing::record('D', m_name);
            }
            m_timer.stop();
        }
    }

    void tick() {
        // A tick whose handler is still running (it waits in a nested event loop) is skipped;
        // Qt re-arms the timer, so the tick simply comes again one interval later.
        if (m_inTick) {
            timing::record('k', m_name);
            return;
        }
        timing::record('K', m_name);
        m_inTick = true;
        // The handler may destroy this timer; the token tells whether it is still there.
        const std::shared_ptr<bool> alive = m_alive;
        const std::function<void()> handler = m_onTick;
        runGuarded("timer", m_name, handler);
        if (*alive) {
            m_inTick = false;
        }
    }

    std::string m_name;
    int m_intervalMs;
    bool m_enabled = false;
    bool m_inTick = false;
    std::function<void()> m_onTick;
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
    QTimer m_timer;
};

}  // namespace

QtScheduler::QtScheduler(QuitFunction quit)
    : m_context(std::make_unique<QObject>()), m_quit(std::move(quit)) {
    if (!m_quit) {
        QThread* engineThread = m_context->thread();
        m_quit = [engineThread](int code) {
            if (QCoreApplication::instance() != nullptr &&
                engineThread == QCoreApplication::instance()->thread()) {
                QCoreApplication::exit(code);
            } else {
                engineThread->exit(code);
            }
        };
    }
}

QtScheduler::~QtScheduler() = default;

std::unique_ptr<Timer> QtScheduler::createTimer(std::string name, int intervalMs, bool enabled,
                                                std::function<void()> onTick) {
    auto timer = std::make_unique<QtTimer>(std::move(name), intervalMs, std::move(onTick));
    timer->setEnabled(enabled);
    return timer;
}

void QtScheduler::post(std::function<void()> task) {
    // Queued to the context object, so the task runs on the engine thread whichever thread
    // posts it, after the events already queued there.
    QMetaObject::invokeMethod(
        m_context.get(),
        [task = std::move(task)] { runGuarded("posted task", std::string(), task); },
        Qt::QueuedConnection);
}

void QtScheduler::yieldUntil(const std::function<bool()>& done) {
    if (done()) {
        return;
    }
    // A nested event loop: timers (other than the one whose tick waits here), posted clicks and
    // the serial ports' notifiers run meanwhile. The wake-up timer bounds how long a condition
    // that changes without any event goes unnoticed, without spinning.
    timing::record('Y');
    QTimer wake;
    wake.setInterval(kYieldCheckMs);
    QObject::connect(&wake, &QTimer::timeout, &wake, [] {});
    wake.start();
    while (!m_quitRequested.load() && !done()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
    timing::record('y');
}

void QtScheduler::quit(int exitCode) {
    m_exitCode = exitCode;
    m_quitRequested = true;
    m_quit(exitCode);
}

}  // namespace kestrix::qt
