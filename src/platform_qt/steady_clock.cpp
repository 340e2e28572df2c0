#include "steady_clock.h"

#include <QDateTime>
#include <QTime>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <thread>

#include "timing_trace.h"

namespace kestrix::qt {

namespace {

// No single pause of the engine is longer than a few minutes; a day bounds a hostile value
// (a text converted to 1e300 seconds) without overflowing the sleep's duration type.
constexpr double kLongestSleepSeconds = 86400.0;
constexpr std::int64_t kMsPerDay = 86400LL * 1000;

// The local time as days since 1970 and milliseconds into the day: the system clock plus the
// zone's offset from UTC. Asking the C library for the local time reads the time zone again
// each time (a look at /etc/localtime); every step of a wait and every heartbeat asks, and
// paying that was a tenth of the engine's processor time. The offset is taken once a minute
// instead, which is how late a change of zone or of summer time shows. Kept per thread, so
// threads sharing a clock need no lock.
struct LocalTime {
    std::int64_t day;
    std::int64_t msOfDay;
};

LocalTime localTime() {
    struct Offset {
        std::chrono::steady_clock::time_point until{};
        std::int64_t seconds = 0;
    };
    thread_local Offset offset;
    const auto steadyNow = std::chrono::steady_clock::now();
    if (steadyNow >= offset.until) {
        offset.seconds = QDateTime::currentDateTime().offsetFromUtc();
        offset.until = steadyNow + std::chrono::minutes(1);
    }
    const std::int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::system_clock::now().time_since_epoch())
                                .count() +
                            offset.seconds * 1000;
    const std::int64_t msOfDay = ((ms % kMsPerDay) + kMsPerDay) % kMsPerDay;
    return {(ms - msOfDay) / kMsPerDay, msOfDay};
}

}  // namespace

double SteadyClock::secondsSinceMidnight() const {
    return static_cast<double>(localTime().msOfDay) / 1000.0;
}

void SteadyClock::sleep(double seconds) {
    if (!(seconds > 0)) {  // also NaN
        return;
    }
    seconds = std::min(seconds, kLongestSleepSeconds);
    timing::record('P', {}, seconds);
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

double SteadyClock::elapsedSeconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

LocalDateTime SteadyClock::now() const {
    const LocalTime t = localTime();
    const QDate d = QDate(1970, 1, 1).addDays(t.day);
    const QTime tm = QTime::fromMSecsSinceStartOfDay(static_cast<int>(t.msOfDay));
    return LocalDateTime{d.year(), d.month(), d.day(), tm.hour(), tm.minute(), tm.second()};
}

}  // namespace kestrix::qt
