#pragma once

#include <string>

namespace kestrix {

// Local calendar date and time, for texts such as the card transaction reference.
struct LocalDateTime {
    int year = 2000;  // four digits
    int month = 1;    // 1..12
    int day = 1;      // 1..31
    int hour = 0;
    int minute = 0;
    int second = 0;
};

// The date and time in a strftime pattern ("%Y-%m-%d %H:%M:%S").
std::string formatTime(const LocalDateTime& t, const char* pattern);

// The engine's view of time. Engine thread only.
class Clock {
public:
    virtual ~Clock() = default;

    // Time of day in seconds since local midnight, with fractions; wraps to 0 at midnight.
    virtual double secondsSinceMidnight() const = 0;

    // Blocks the engine thread for about `seconds` without running the event loop and without
    // burning the processor. A virtual clock advances its time instead.
    virtual void sleep(double seconds) = 0;

    virtual LocalDateTime now() const = 0;

    // Seconds since an arbitrary start, never going back and unaffected by midnight or a change
    // of the wall clock: what the engine's bounds on device waits are measured on.
    virtual double elapsedSeconds() const = 0;
};

}  // namespace kestrix
