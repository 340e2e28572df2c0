#pragma once

#include "engine/platform/clock.h"

namespace kestrix::qt {

// The wall clock of the kiosk. Time of day comes from the local wall clock (the engine's pauses
// and poll time-outs are measured on it, midnight wrap included); sleep() really sleeps, so a
// long pause costs no processor time.
class SteadyClock : public Clock {
public:
    double secondsSinceMidnight() const override;
    void sleep(double seconds) override;
    LocalDateTime now() const override;
    double elapsedSeconds() const override;
};

}  // namespace kestrix::qt
