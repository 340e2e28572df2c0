#include <gtest/gtest.h>

#include <QThread>
#include <atomic>
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform_qt/qt_scheduler.h"
#include "platform_qt/steady_clock.h"

namespace kestrix::qt {
namespace {

using Steady = std::chrono::steady_clock;

TEST(QtScheduler, TimerTicksWhileEnabledAndNeverWhenDisabled) {
    QtScheduler scheduler([](int) { ADD_FAILURE() << "nobody quits"; });
    int ticks = 0;
    int other = 0;
    auto timer = scheduler.createTimer("pollTimer", 10, true, [&] { ++ticks; });
    auto clock = scheduler.createTimer("Monitor", 10, false, [&] { ++other; });
    EXPECT_EQ(timer->name(), "pollTimer");
    EXPECT_TRUE(timer->enabled());
    scheduler.yieldUntil([&] { return ticks >= 3; });

    timer->setEnabled(false);
    const int frozen = ticks;
    clock->setEnabled(true);
    scheduler.yieldUntil([&] { return other >= 5; });
    EXPECT_EQ(ticks, frozen);

    timer->setInterval(0);
    timer->setEnabled(true);
    other = 0;
    scheduler.yieldUntil([&] { return other >= 5; });
    EXPECT_EQ(ticks, frozen) << "an interval of 0 never fires";
}

// A tick that blocks the engine for many intervals is followed by one late tick, not by a burst
// of the missed ones.
TEST(QtScheduler, LateTicksCoalesce) {
    QtScheduler scheduler([](int) {});
    std::vector<Steady::time_point> at;
    Steady::time_point blockEnd;
    auto timer = scheduler.createTimer("changeTimer", 20, true, [&] {
        at.push_back(Steady::now());
        if (at.size() == 1) {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            blockEnd = Steady::now();
        }
    });
    scheduler.yieldUntil([&] { return at.size() >= 4; });
    int soonAfterBlock = 0;
    for (const auto& t : at) {
        if (t >= blockEnd && t - blockEnd < std::chrono::milliseconds(30)) {
            ++soonAfterBlock;
        }
    }
    // 14 intervals were missed; at most the late tick and one regular one fit in 30 ms.
    EXPECT_LE(soonAfterBlock, 2);
}

// The change payout's wait runs inside a timer tick; the loop it runs must not fire that same
// timer again, while other timers and posted clicks go on.
TEST(QtScheduler, NestedWaitNeverReentersTheTickItIsIn) {
    QtScheduler scheduler([](int) {});
    int depth = 0;
    int reentries = 0;
    int outerTicks = 0;
    int otherTicks = 0;
    bool postedRan = false;
    auto other = scheduler.createTimer("Monitor", 5, true, [&] { ++otherTicks; });
    auto timer = scheduler.createTimer("pollTimer", 5, true, [&] {
        if (depth > 0) {
            ++reentries;
            return;
        }
        ++depth;
        if (++outerTicks == 1) {
            scheduler.post([&] { postedRan = true; });
            scheduler.yieldUntil([&] { return otherTicks >= 10 && postedRan; });
        }
        --depth;
    });
    scheduler.yieldUntil([&] { return outerTicks >= 3; });
    EXPECT_EQ(reentries, 0);
    EXPECT_TRUE(postedRan);
}

TEST(QtScheduler, PostsFromAnotherThreadRunInOrderOnTheSchedulersThread) {
    QtScheduler scheduler([](int) {});
    constexpr int kTasks = 200;
    std::vector<int> order;
    std::atomic<int> wrongThread{0};
    QThread* const engineThread = QThread::currentThread();
    std::thread gui([&] {
        for (int i = 0; i < kTasks; ++i) {
            scheduler.post([&, i] {
                if (QThread::currentThread() != engineThread) {
                    ++wrongThread;
                }
                order.push_back(i);
            });
        }
    });
    gui.join();
    scheduler.yieldUntil([&] { return order.size() == kTasks; });
    EXPECT_EQ(wrongThread.load(), 0);
    for (int i = 0; i < kTasks; ++i) {
        ASSERT_EQ(order[static_cast<std::size_t>(i)], i);
    }
}

// Enabling a timer again starts its interval afresh, so a timer that keeps being re-enabled
// sooner than its interval never fires.
TEST(QtScheduler, EnablingRestartsTheInterval) {
    QtScheduler scheduler([](int) {});
    int slowTicks = 0;
    int fastTicks = 0;
    auto slow = scheduler.createTimer("clickTimer", 3000, true, [&] { ++slowTicks; });
    auto fast = scheduler.createTimer("fast", 10, true, [&] {
        ++fastTicks;
        slow->setEnabled(true);
    });
    scheduler.yieldUntil([&] { return fastTicks >= 20; });
    EXPECT_EQ(slowTicks, 0);
}

TEST(QtScheduler, ErrorsInTicksStayInsideAndTimersMayEndThemselves) {
    QtScheduler scheduler([](int) {});
    int throwing = 0;
    std::unique_ptr<Timer> selfEnding;
    int selfEndingTicks = 0;
    auto thrower = scheduler.createTimer("ccTimer", 5, true, [&] {
        ++throwing;
        throw std::runtime_error("device gone");
    });
    selfEnding = scheduler.createTimer("once", 5, true, [&] {
        ++selfEndingTicks;
        selfEnding.reset();
    });
    scheduler.post([] { throw std::runtime_error("bad click"); });
    scheduler.yieldUntil([&] { return throwing >= 3 && !selfEnding; });
    EXPECT_EQ(selfEndingTicks, 1);
}

TEST(QtScheduler, QuitEndsAWaitAndIsReported) {
    std::vector<int> codes;
    QtScheduler scheduler([&](int code) { codes.push_back(code); });
    EXPECT_FALSE(scheduler.quitRequested());
    scheduler.post([&] { scheduler.quit(7); });
    scheduler.yieldUntil([] { return false; });
    EXPECT_TRUE(scheduler.quitRequested());
    EXPECT_EQ(scheduler.exitCode(), 7);
    EXPECT_EQ(codes, std::vector<int>{7});
}

TEST(SteadyClock, TimeOfDayAndSleep) {
    SteadyClock clock;
    const LocalDateTime now = clock.now();
    const double seconds = clock.secondsSinceMidnight();
    EXPECT_GE(seconds, 0.0);
    EXPECT_LT(seconds, 86400.0);
    const double fromNow = now.hour * 3600.0 + now.minute * 60.0 + now.second;
    if (seconds > 5 && seconds < 86395) {  // not across midnight
        EXPECT_NEAR(seconds, fromNow, 2.0);
    }
    EXPECT_GE(now.year, 2024);

    const auto start = Steady::now();
    clock.sleep(0.05);
    EXPECT_GE(Steady::now() - start, std::chrono::milliseconds(45));
    clock.sleep(-1);
    clock.sleep(std::nan(""));
    clock.sleep(0);
}

}  // namespace
}  // namespace kestrix::qt
