#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine/platform/clock.h"
#include "engine/platform/scheduler.h"

namespace kestrix::sim {

// Thrown when virtual time passes the world's deadline. Deliberately not a std::exception, so
// no engine error trap swallows it: a test that would wait for ever ends with a clear failure.
struct VirtualDeadline {
    double elapsedSeconds;
};

// A clock that moves only when the engine waits: a Pause or a serial read advances it.
class VirtualClock : public Clock {
public:
    // The world begins at `startSecondsSinceMidnight` on the given date.
    explicit VirtualClock(double startSecondsSinceMidnight = 9 * 3600.0,
                          LocalDateTime date = {2026, 11, 22, 0, 0, 0});

    double secondsSinceMidnight() const override;
    void sleep(double seconds) override { advance(seconds); }
    LocalDateTime now() const override;
    double elapsedSeconds() const override { return m_elapsed; }

    // Seconds since the world began (monotonic).
    double elapsed() const { return m_elapsed; }
    void advance(double seconds);
    void advanceTo(double elapsedSeconds);
    // Virtual time past this (in elapsed seconds) throws VirtualDeadline; < 0 means none.
    void setDeadline(double elapsedSeconds) { m_deadline = elapsedSeconds; }
    double deadline() const { return m_deadline; }

private:
    double m_start;
    LocalDateTime m_date;
    double m_elapsed = 0;
    double m_deadline = -1;
};

// The engine's event loop in virtual time, with the tick semantics of a Qt timer: a late timer
// fires once (then every interval from that moment), a timer is never re-entered while its tick
// runs, equal due times fire in creation order, and posted tasks run before any timer.
class VirtualScheduler : public Scheduler {
public:
    explicit VirtualScheduler(VirtualClock& clock) : m_clock(clock) {}
    ~VirtualScheduler() override;

    std::unique_ptr<Timer> createTimer(std::string name, int intervalMs, bool enabled,
                                       std::function<void()> onTick) override;
    void post(std::function<void()> task) override;
    void yieldUntil(const std::function<bool()>& done) override;
    void quit(int exitCode) override;

    // Runs the loop for `seconds` of virtual time (or until quit).
    void runFor(double seconds);
    // Runs until `done` (checked between events) or quit; false when `maxSeconds` passed first.
    bool runUntil(const std::function<bool()>& done, double maxSeconds);
    // Runs every posted task that is due now, without advancing time.
    void drainPosted();

    bool quitRequested() const { return m_quit; }
    int exitCode() const { return m_exitCode; }
    // Number of ticks fired per timer name, for tests of the tick rules.
    int ticks(const std::string& timerName) const;
    VirtualClock& clock() { return m_clock; }

    struct TimerState;

private:
    // Runs one event due by `until`: a posted task, or the earliest timer. Advances time to the
    // event. False when nothing is due by `until` (time is then left unchanged).
    bool runOne(double until);

    VirtualClock& m_clock;
    std::mutex m_postMutex;
    std::deque<std::function<void()>> m_posted;
    std::vector<TimerState*> m_timers;
    bool m_quit = false;
    int m_exitCode = 0;
};

}  // namespace kestrix::sim
