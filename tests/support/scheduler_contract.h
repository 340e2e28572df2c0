#pragma once

// The tick rules every scheduler of the engine keeps (the Qt one and the virtual one), as one
// suite that a test executable instantiates with a SchedulerFactory for its scheduler. Intervals
// are a few milliseconds, so the suite is quick in real time as well.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/platform/scheduler.h"

namespace kestrix::test {

// A scheduler under test with its notion of time.
class SchedulerUnderTest {
public:
    virtual ~SchedulerUnderTest() = default;
    virtual Scheduler& scheduler() = 0;
    // Seconds since the scheduler was made.
    virtual double seconds() = 0;
    // Holds the engine's thread for `seconds` inside a tick, as a blocking device read does.
    virtual void block(double seconds) = 0;
    virtual bool quitRequested() = 0;
    virtual int exitCode() = 0;
};

using SchedulerFactory = std::function<std::unique_ptr<SchedulerUnderTest>()>;

class SchedulerContract : public ::testing::TestWithParam<SchedulerFactory> {
protected:
    void SetUp() override { m_under = GetParam()(); }
    Scheduler& scheduler() { return m_under->scheduler(); }
    SchedulerUnderTest& under() { return *m_under; }

private:
    std::unique_ptr<SchedulerUnderTest> m_under;
};

TEST_P(SchedulerContract, ATimerTicksWhileEnabledAndNeverWhenDisabled) {
    int ticks = 0;
    int other = 0;
    auto timer = scheduler().createTimer("pollTimer", 10, true, [&] { ++ticks; });
    auto clock = scheduler().createTimer("Monitor", 10, false, [&] { ++other; });
    scheduler().yieldUntil([&] { return ticks >= 3; });

    timer->setEnabled(false);
    const int frozen = ticks;
    clock->setEnabled(true);
    scheduler().yieldUntil([&] { return other >= 5; });
    EXPECT_EQ(ticks, frozen);

    // An interval of 0 is a stopped timer, enabled or not.
    int zero = 0;
    auto stopped = scheduler().createTimer("CCTimer", 0, true, [&] { ++zero; });
    other = 0;
    scheduler().yieldUntil([&] { return other >= 2; });
    EXPECT_EQ(zero, 0);
}

// A tick that blocks the engine for many intervals is followed by one late tick, not by a burst
// of the missed ones.
TEST_P(SchedulerContract, LateTicksCoalesce) {
    std::vector<double> at;
    double blockEnd = 0;
    auto timer = scheduler().createTimer("changeTimer", 20, true, [&] {
        at.push_back(under().seconds());
        if (at.size() == 1) {
            under().block(0.3);
            blockEnd = under().seconds();
        }
    });
    scheduler().yieldUntil([&] { return at.size() >= 4; });
    int soonAfterBlock = 0;
    for (const double t : at) {
        soonAfterBlock += t >= blockEnd && t - blockEnd < 0.03 ? 1 : 0;
    }
    // 14 intervals were missed; at most the late tick and one regular one fit in 30 ms.
    EXPECT_GE(soonAfterBlock, 1);
    EXPECT_LE(soonAfterBlock, 2);
}

// The change payout's wait runs inside a timer tick; the loop it runs must not fire that same
// timer again, while other timers and posted clicks go on.
TEST_P(SchedulerContract, ANestedWaitNeverReentersTheTickItIsIn) {
    int depth = 0;
    int reentries = 0;
    int outerTicks = 0;
    int otherTicks = 0;
    bool postedRan = false;
    auto other = scheduler().createTimer("Monitor", 5, true, [&] { ++otherTicks; });
    auto timer = scheduler().createTimer("pollTimer", 5, true, [&] {
        if (depth > 0) {
            ++reentries;
            return;
        }
        ++depth;
        if (++outerTicks == 1) {
            scheduler().post([&] { postedRan = true; });
            scheduler().yieldUntil([&] { return otherTicks >= 10 && postedRan; });
        }
        --depth;
    });
    scheduler().yieldUntil([&] { return outerTicks >= 3; });
    EXPECT_EQ(reentries, 0);
    EXPECT_TRUE(postedRan);
}

// Enabling a timer again starts its interval afresh, so a timer that keeps being re-enabled
// sooner than its interval never fires.
TEST_P(SchedulerContract, EnablingRestartsTheInterval) {
    int slowTicks = 0;
    int fastTicks = 0;
    auto slow = scheduler().createTimer("clickTimer", 3000, true, [&] { ++slowTicks; });
    auto fast = scheduler().createTimer("fast", 10, true, [&] {
        ++fastTicks;
        slow->setEnabled(true);
    });
    scheduler().yieldUntil([&] { return fastTicks >= 20; });
    EXPECT_EQ(slowTicks, 0);
}

TEST_P(SchedulerContract, QuitEndsAWaitAndIsReported) {
    EXPECT_FALSE(under().quitRequested());
    scheduler().post([&] { scheduler().quit(7); });
    scheduler().yieldUntil([] { return false; });
    EXPECT_TRUE(under().quitRequested());
    EXPECT_EQ(under().exitCode(), 7);
}

}  // namespace kestrix::test
