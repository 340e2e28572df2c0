#pragma once

#include <functional>
#include <memory>
#include <string>

namespace kestrix {

// A repeating timer on the engine's event loop, in the manner of a form timer: it fires every
// `intervalMs` while enabled. Enabling (again) restarts the interval. A tick that is late fires
// once, not once per missed interval, and a tick is never re-entered while it runs, even when
// the handler waits with Scheduler::yieldUntil.
class Timer {
public:
    virtual ~Timer() = default;
    virtual void setEnabled(bool enabled) = 0;
    virtual bool enabled() const = 0;
    virtual void setInterval(int intervalMs) = 0;
    virtual int interval() const = 0;
    virtual const std::string& name() const = 0;
};

// The engine thread's event loop.
class Scheduler {
public:
    virtual ~Scheduler() = default;

    virtual std::unique_ptr<Timer> createTimer(std::string name, int intervalMs, bool enabled,
                                               std::function<void()> onTick) = 0;

    // Queues `task` to run on the engine thread after the events already queued (operator
    // clicks and edits arrive this way). Safe to call from any thread.
    virtual void post(std::function<void()> task) = 0;

    // Runs the event loop (timers and posted tasks) until `done` returns true. The only
    // yielding wait of the engine: the change payout's wait for the coin changer.
    virtual void yieldUntil(const std::function<bool()>& done) = 0;

    // Ends the event loop; the program ends when the engine thread returns.
    virtual void quit(int exitCode) = 0;
};

}  // namespace kestrix
