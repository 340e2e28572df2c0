#include "steady_clock.h"

#include <QDateTime>
#include <QTime>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

#include "timing_trace.h"

namespace kestrix::qt {

namespace {
// No single pause of the engine is longer than a few minutes; a day bounds a hostile value
// (a text converted to 1e300 seconds) without overflowing the sleep's duration type.
constexpr double kLongestSleepSeconds = 86400.0;
}  // namespace

double SteadyClock::secondsSinceMidnight() const {
    return QTime::currentTime().msecsSinceStartOfDay() / 1000.0;
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
    const QDateTime t = QDateTime::currentDateTime();
    const QDate d = t.date();
    const QTime tm = t.time();
    return LocalDateTime{d.year(), d.month(), d.day(), tm.hour(), tm.minute(), tm.second()};
}

}  // namespace kestrix::qt
