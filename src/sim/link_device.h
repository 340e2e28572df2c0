#pragma once

#include <limits>
#include <string>
#include <string_view>

namespace kestrix::sim {

// A device at the far end of a serial line (or the adapter in front of a bus). Time is in
// seconds on a monotonic clock: virtual time in the virtual world, steady time on a pty.
class LinkDevice {
public:
    virtual ~LinkDevice() = default;
    // Bytes from the engine, arrived at `now`.
    virtual void receive(std::string_view bytes, double now) = 0;
    // The bytes the device has put on the line by `now` and not handed out before.
    virtual std::string transmit(double now) = 0;
    // The earliest time after `now` at which transmit() will have bytes it would not hand out
    // now (an answer on its way, an operation finishing), or kNever when nothing comes until more
    // bytes arrive. A program that runs devices on a real clock sleeps until then. A device that
    // cannot tell keeps the default: looked at again a few milliseconds later.
    virtual double nextOutputAt(double now) const { return now + kUnknownNextOutputSeconds; }

    static constexpr double kNever = std::numeric_limits<double>::infinity();
    static constexpr double kUnknownNextOutputSeconds = 0.002;
};

}  // namespace kestrix::sim
