#include <gtest/gtest.h>

#include <QByteArray>

#include <chrono>
#include <cmath>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform_qt/qt_scheduler.h"
#include "platform_qt/steady_clock.h"
#include "support/scheduler_contract.h"

namespace kestrix::qt {
namespace {

using Steady = std::chrono::steady_clock;
using test::SchedulerContract;

// The Qt scheduler in real time; its quit is reported to the program once, with its code.
class QtUnderTest : public test::SchedulerUnderTest {
public:
    Scheduler& scheduler() override { return m_scheduler; }
    double seconds() override {
        return std::chrono::duration<double>(Steady::now() - m_start).count();
    }
    void block(double seconds) override {
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    }
    bool quitRequested() override { return m_scheduler.quitRequested(); }
    int exitCode() override {
        return m_reported == std::vector<int>{m_scheduler.exitCode()} ? m_scheduler.exitCode() : -1;
    }

private:
    Steady::time_point m_start = Steady::now();
    std::vector<int> m_reported;
    QtScheduler m_scheduler{[this](int code) { m_reported.push_back(code); }};
};

INSTANTIATE_TEST_SUITE_P(Qt, SchedulerContract, ::testing::Values(test::SchedulerFactory([] {
                             return std::make_unique<QtUnderTest>();
                         })));

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
TEST(SteadyClock, TimeOfDayAndSleep) {
    SteadyClock clock;
    // The time of day in a zone half an hour off UTC's hours (a POSIX rule: no zone files
    // needed), on a thread of its own, since the clock keeps a zone's offset per thread.
    const QByteArray zone = qgetenv("TZ");
    qputenv("TZ", "KST-5:30");
    std::thread([&clock] {
        const LocalDateTime now = clock.now();
        const double seconds = clock.secondsSinceMidnight();
        if (seconds > 5 && seconds < 86395) {  // not across midnight
            EXPECT_NEAR(seconds, now.hour * 3600.0 + now.minute * 60.0 + now.second, 2.0);
        }
    }).join();
    zone.isNull() ? qunsetenv("TZ") : qputenv("TZ", zone);

    const auto start = Steady::now();
    clock.sleep(0.05);
    EXPECT_GE(Steady::now() - start, std::chrono::milliseconds(45));
    clock.sleep(-1);
    clock.sleep(std::nan(""));
    clock.sleep(0);
}

}  // namespace
}  // namespace kestrix::qt
