#include "virtual_time.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <limits>

namespace kestrix::sim {

namespace {
constexpr double kSecondsPerDay = 86400.0;
}

VirtualClock::VirtualClock(double startSecondsSinceMidnight, LocalDateTime date)
    : m_start(startSecondsSinceMidnight), m_date(date) {}

double VirtualClock::secondsSinceMidnight() const {
    return std::fmod(m_start + m_elapsed, kSecondsPerDay);
}

LocalDateTime VirtualClock::now() const {
    const double total = m_start + m_elapsed;
    const int days = static_cast<int>(total / kSecondsPerDay);
    std::tm tm{};
    tm.tm_year = m_date.year - 1900;
    tm.tm_mon = m_date.month - 1;
    tm.tm_mday = m_date.day + days;
    tm.tm_hour = 12;
    std::mktime(&tm);  // normalises the day overflow into month and year
    const auto secs = static_cast<long>(std::fmod(total, kSecondsPerDay));
    LocalDateTime t;
    t.year = tm.tm_year + 1900;
    t.month = tm.tm_mon + 1;
    t.day = tm.tm_mday;
    t.hour = static_cast<int>(secs / 3600);
    t.minute = static_cast<int>(secs / 60 % 60);
    t.second = static_cast<int>(secs % 60);
    return t;
}

void VirtualClock::advance(double seconds) {
    if (seconds > 0) {
        // A wait shorter than the clock can tell apart still moves it on: a Pause that sleeps
        // "until midnight" a hair before midnight would otherwise wait there for ever.
        advanceTo(std::max(m_elapsed + seconds,
                           std::nextafter(m_elapsed, std::numeric_limits<double>::infinity())));
    }
}

void VirtualClock::advanceTo(double elapsedSeconds) {
    if (elapsedSeconds <= m_elapsed) {
        return;
    }
    if (m_deadline >= 0 && elapsedSeconds > m_deadline) {
        m_elapsed = m_deadline;
        throw VirtualDeadline{m_deadline};
    }
    m_elapsed = elapsedSeconds;
}

// --- Timers -----------------------------------------------------------------------------------

struct VirtualScheduler::TimerState {
    std::string name;
    int intervalMs = 0;
    bool enabled = false;
    bool inTick = false;
    double due = 0;
    std::size_t order = 0;
    int ticks = 0;
    std::function<void()> onTick;
    VirtualScheduler* owner = nullptr;
};

namespace {

class VirtualTimer : public Timer {
public:
    explicit VirtualTimer(VirtualScheduler::TimerState* s, VirtualClock& clock)
        : m_s(s), m_clock(clock) {}
    ~VirtualTimer() override;

    void setEnabled(bool enabled) override {
        m_s->enabled = enabled;
        if (enabled) {
            m_s->due = m_clock.elapsed() + m_s->intervalMs / 1000.0;
        }
    }
    bool enabled() const override { return m_s->enabled; }
    void setInterval(int intervalMs) override {
        m_s->intervalMs = intervalMs;
        if (m_s->enabled) {
            m_s->due = m_clock.elapsed() + intervalMs / 1000.0;
        }
    }
    int interval() const override { return m_s->intervalMs; }
    const std::string& name() const override { return m_s->name; }

    VirtualScheduler::TimerState* state() { return m_s; }

private:
    VirtualScheduler::TimerState* m_s;
    VirtualClock& m_clock;
};

}  // namespace

VirtualTimer::~VirtualTimer() {
    // The scheduler owns the state; a destroyed timer just never fires again.
    m_s->enabled = false;
    m_s->onTick = nullptr;
}

VirtualScheduler::~VirtualScheduler() {
    for (TimerState* t : m_timers) {
        delete t;
    }
}

std::unique_ptr<Timer> VirtualScheduler::createTimer(std::string name, int intervalMs, bool enabled,
                                                     std::function<void()> onTick) {
    auto* s = new TimerState;
    s->name = std::move(name);
    s->intervalMs = intervalMs;
    s->order = m_timers.size();
    s->onTick = std::move(onTick);
    s->owner = this;
    m_timers.push_back(s);
    auto timer = std::make_unique<VirtualTimer>(s, m_clock);
    timer->setEnabled(enabled);
    return timer;
}

void VirtualScheduler::post(std::function<void()> task) {
    std::lock_guard lock(m_postMutex);
    m_posted.push_back(std::move(task));
}

void VirtualScheduler::quit(int exitCode) {
    m_quit = true;
    m_exitCode = exitCode;
}

int VirtualScheduler::ticks(const std::string& timerName) const {
    for (const TimerState* t : m_timers) {
        if (t->name == timerName) {
            return t->ticks;
        }
    }
    return 0;
}

bool VirtualScheduler::runOne(double until) {
    std::function<void()> task;
    {
        std::lock_guard lock(m_postMutex);
        if (!m_posted.empty()) {
            task = std::move(m_posted.front());
            m_posted.pop_front();
        }
    }
    if (task) {
        task();
        return true;
    }
    TimerState* next = nullptr;
    for (TimerState* t : m_timers) {
        // A form timer with an interval of 0 is stopped (as the Qt scheduler keeps it).
        if (t->enabled && t->intervalMs > 0 && !t->inTick && t->onTick &&
            (next == nullptr || t->due < next->due)) {
            next = t;  // strict "<": equal due times keep creation order
        }
    }
    if (next == nullptr || next->due > until) {
        return false;
    }
    m_clock.advanceTo(next->due);
    const double now = m_clock.elapsed();
    const double interval = next->intervalMs / 1000.0;
    // Re-armed before the handler runs, as Qt does: a late timer fires once and then counts its
    // interval from now, so missed ticks coalesce.
    next->due += interval;
    if (next->due < now) {
        next->due = now + interval;
    }
    next->inTick = true;
    ++next->ticks;
    struct Guard {
        TimerState* t;
        ~Guard() { t->inTick = false; }
    } guard{next};
    std::function<void()> tick = next->onTick;
    tick();
    return true;
}

void VirtualScheduler::drainPosted() {
    for (;;) {
        std::function<void()> task;
        {
            std::lock_guard lock(m_postMutex);
            if (m_posted.empty()) {
                return;
            }
            task = std::move(m_posted.front());
            m_posted.pop_front();
        }
        task();
    }
}

void VirtualScheduler::runFor(double seconds) {
    const double until = m_clock.elapsed() + seconds;
    while (!m_quit && runOne(until)) {
    }
    if (!m_quit) {
        m_clock.advanceTo(until);
    }
}

bool VirtualScheduler::runUntil(const std::function<bool()>& done, double maxSeconds) {
    const double until = m_clock.elapsed() + maxSeconds;
    while (!m_quit) {
        if (done()) {
            return true;
        }
        if (!runOne(until)) {
            m_clock.advanceTo(until);
            return done();
        }
    }
    return done();
}

void VirtualScheduler::yieldUntil(const std::function<bool()>& done) {
    while (!done()) {
        if (m_quit) {
            return;
        }
        if (!runOne(std::numeric_limits<double>::infinity())) {
            // Nothing can ever happen: the wait would last for ever.
            throw VirtualDeadline{m_clock.elapsed()};
        }
    }
}

}  // namespace kestrix::sim
