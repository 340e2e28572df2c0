#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "engine/formulas.h"
#include "sim/world/virtual_time.h"

namespace kestrix::sim {
namespace {

struct World {
    VirtualClock clock{8 * 3600.0};
    VirtualScheduler scheduler{clock};
};

TEST(VirtualScheduler, HoursOfTicksRunInVirtualTime) {
    World w;
    int ticks = 0;
    auto t = w.scheduler.createTimer("Monitor", 500, true, [&] { ++ticks; });
    w.scheduler.runFor(4 * 3600.0);
    EXPECT_EQ(ticks, 4 * 3600 * 2);
    EXPECT_NEAR(w.clock.elapsed(), 4 * 3600.0, 1e-6);
}

TEST(VirtualScheduler, ALateTickFiresOnceAndThenCountsFromNow) {
    World w;
    std::vector<double> at;
    auto t = w.scheduler.createTimer("pollTimer", 200, true, [&] {
        at.push_back(w.clock.elapsed());
        if (at.size() == 1) {
            w.clock.advance(1.0);  // a tick that blocks for five intervals
        }
    });
    w.scheduler.runFor(1.75);
    // 0.2 (blocks to 1.2); 0.4..1.2 are missed and coalesce into one tick at 1.2, then 1.4, 1.6.
    ASSERT_EQ(at.size(), 4u);
    EXPECT_NEAR(at[0], 0.2, 1e-9);
    EXPECT_NEAR(at[1], 1.2, 1e-9);
    EXPECT_NEAR(at[2], 1.4, 1e-9);
    EXPECT_NEAR(at[3], 1.6, 1e-9);
}

TEST(VirtualScheduler, ANestedWaitNeverReentersTheTimerItIsIn) {
    World w;
    int outer = 0;
    int inner = 0;
    int depth = 0;
    int maxDepth = 0;
    std::unique_ptr<Timer> watch;
    auto monitor = w.scheduler.createTimer("Monitor", 500, true, [&] {
        ++outer;
        ++depth;
        maxDepth = std::max(maxDepth, depth);
        if (outer == 1) {
            watch->setEnabled(true);
            w.scheduler.yieldUntil([&] { return inner >= 20; });  // 4 s of 200 ms ticks
        }
        --depth;
    });
    watch = w.scheduler.createTimer("changeTimer", 200, false, [&] { ++inner; });
    w.scheduler.runFor(10);
    EXPECT_EQ(maxDepth, 1) << "Monitor ticked inside its own tick";
    EXPECT_GE(inner, 20);
    // After the 4 s wait the Monitor goes on ticking every 500 ms.
    EXPECT_GE(outer, 10);
}

TEST(VirtualScheduler, EqualDueTimesFireInCreationOrderAndPostedTasksFirst) {
    World w;
    std::string order;
    auto a = w.scheduler.createTimer("a", 100, true, [&] { order += 'a'; });
    auto b = w.scheduler.createTimer("b", 100, true, [&] { order += 'b'; });
    w.scheduler.post([&] { order += 'p'; });
    w.scheduler.runFor(0.1);
    EXPECT_EQ(order, "pab");
}

TEST(VirtualScheduler, EnablingRestartsTheIntervalAndQuitStops) {
    World w;
    int ticks = 0;
    auto t = w.scheduler.createTimer("clickTimer", 200, false, [&] { ++ticks; });
    w.scheduler.runFor(1);
    EXPECT_EQ(ticks, 0);
    t->setEnabled(true);
    w.scheduler.runFor(0.15);
    t->setEnabled(true);  // restart: the tick moves to 0.35 s from here
    w.scheduler.runFor(0.15);
    EXPECT_EQ(ticks, 0);
    w.scheduler.runFor(0.1);
    EXPECT_EQ(ticks, 1);
    auto q = w.scheduler.createTimer("Exit", 50, true, [&] { w.scheduler.quit(0); });
    w.scheduler.runFor(100);
    EXPECT_TRUE(w.scheduler.quitRequested());
    EXPECT_LT(ticks, 3);
}

TEST(VirtualScheduler, AWaitThatCanNeverEndHitsTheDeadline) {
    World w;
    w.clock.setDeadline(60);
    EXPECT_THROW(w.scheduler.yieldUntil([] { return false; }), VirtualDeadline);
    auto t = w.scheduler.createTimer("forever", 200, true, [] {});
    EXPECT_THROW(w.scheduler.yieldUntil([] { return false; }), VirtualDeadline);
    EXPECT_LE(w.clock.elapsed(), 60);
}

TEST(VirtualClock, WrapsAtMidnightAndCarriesTheDate) {
    VirtualClock clock(86400.0 - 1, {2026, 12, 31, 0, 0, 0});
    EXPECT_NEAR(clock.secondsSinceMidnight(), 86399, 1e-9);
    clock.advance(2);
    EXPECT_NEAR(clock.secondsSinceMidnight(), 1, 1e-9);
    const LocalDateTime t = clock.now();
    EXPECT_EQ(t.year, 2027);
    EXPECT_EQ(t.month, 1);
    EXPECT_EQ(t.day, 1);
    EXPECT_EQ(t.second, 1);
}

// Fifteen hours into a world begun at 9:00, a Pause a hair before midnight sleeps "until
// midnight" for less than the clock can tell apart; the wait must still get there and end.
TEST(VirtualClock, APauseReachesMidnightAfterHoursOfVirtualTime) {
    VirtualClock clock(9 * 3600.0);
    clock.advanceTo(std::nextafter(15 * 3600.0, 0.0));
    Pause(clock, 0.2);
    EXPECT_NEAR(clock.secondsSinceMidnight(), 0.2, 1e-6);
}

}  // namespace
}  // namespace kestrix::sim
