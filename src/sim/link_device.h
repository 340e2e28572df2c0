#pragma once

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
};

}  // namespace kestrix::sim
