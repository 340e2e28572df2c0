#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "engine/formulas.h"
#include "sim/world/virtual_time.h"
#include "support/scheduler_contract.h"

namespace kestrix::sim {
namespace {

struct World {
    VirtualClock clock{8 * 3600.0};
    VirtualScheduler scheduler{clock};
};

using test::SchedulerContract;

class VirtualUnderTest : public test::SchedulerUnderTest {
public:
    Scheduler& scheduler() override { return m_world.scheduler; }
    double seconds() override { return m_world.clock.elapsed(); }
    void block(double seconds) override { m_world.clock.advance(seconds); }
    bool quitRequested() override { return m_world.scheduler.quitRequested(); }
    int exitCode() override { return m_world.scheduler.exitCode(); }

private:
    World m_world;
};

INSTANTIATE_TEST_SUITE_P(Virtual, SchedulerContract, ::testing::Values(test::SchedulerFactory([] {
                             return std::make_unique<VirtualUnderTest>();
                         })));

TEST(VirtualScheduler, HoursOfTicksRunInVirtualTime) {
    World w;
    int ticks = 0;
    auto t = w.scheduler.createTimer("Monitor", 500, true, [&] { ++ticks; });
    w.scheduler.runFor(4 * 3600.0);
    EXPECT_EQ(ticks, 4 * 3600 * 2);
    EXPECT_NEAR(w.clock.elapsed(), 4 * 3600.0, 1e-6);
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
