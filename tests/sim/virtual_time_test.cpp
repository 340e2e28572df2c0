#include <gtest/gtest.h>

#include <string>

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

}  // namespace
}  // namespace kestrix::sim
