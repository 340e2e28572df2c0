#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/journal.h"

namespace kestrix {

class Console;
class DeviceHealth;
class Log;
class MessageBox;

// What a device routine (the bill dispenser, the hoppers) needs from the engine around it, and
// no more: the console it shows its state on, the settings and the host mailbox, the journal,
// log and health record, the engine's pause and its termination deadline. Its port comes
// separately. The engine is the one implementation; a routine cannot reach the other devices,
// the payment state or the platform through it.
class DeviceContext {
public:
    virtual Console& console() = 0;
    virtual std::string getSetting(std::string_view section, std::string_view key,
                                   std::string_view defaultValue = {}) = 0;
    virtual void writeMailbox(std::string_view key, std::string_view value) = 0;
    // A journal row; the running payment's id when the row names none. Never throws.
    virtual void journal(JournalEntry entry) = 0;
    virtual Log& log() = 0;
    virtual MessageBox& messageBox() = 0;
    virtual DeviceHealth& health() = 0;
    // The running payment's id (0 when none), for log lines.
    virtual std::int64_t paymentId() const = 0;
    // Waits on the clock without yielding (the engine's Pause).
    virtual void pause(double seconds) = 0;
    // Termination's time is up: every device wait ends now.
    virtual bool pastDeadline() const = 0;

protected:
    ~DeviceContext() = default;
};

}  // namespace kestrix
