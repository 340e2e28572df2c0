#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kestrix {

// Message levels, numbered as the syslog priorities the systemd journal reads from a "<N>" prefix.
enum class LogLevel { Error = 3, Warning = 4, Notice = 5, Info = 6, Debug = 7 };

// Structured fields of a log line.
struct LogFields {
    std::string_view device{};   // "changer", "validator", "dispenser", "hoppers", "pinpad", ...
    std::int64_t paymentId = 0;  // 0: not about a payment
};

// Where the engine says what happened: device faults and recoveries, retries that ran out,
// store trouble, payment start and end and money movements. One line per payment and per fault at
// Info; per-poll detail only at Debug. Never a full card number.
class Log {
public:
    virtual ~Log() = default;
    virtual void write(LogLevel level, std::string_view message, const LogFields& fields = {}) = 0;
    // Whether a line of this level would be written (to skip building costly messages).
    virtual bool enabled(LogLevel level) const = 0;

    void error(std::string_view m, const LogFields& f = {}) { write(LogLevel::Error, m, f); }
    void warning(std::string_view m, const LogFields& f = {}) { write(LogLevel::Warning, m, f); }
    void notice(std::string_view m, const LogFields& f = {}) { write(LogLevel::Notice, m, f); }
    void info(std::string_view m, const LogFields& f = {}) { write(LogLevel::Info, m, f); }
    void debug(std::string_view m, const LogFields& f = {}) { write(LogLevel::Debug, m, f); }
};

// A log that writes nothing.
class NullLog : public Log {
public:
    void write(LogLevel, std::string_view, const LogFields&) override {}
    bool enabled(LogLevel) const override { return false; }
};

// The log of engines given none.
inline Log& nullLog() {
    static NullLog log;
    return log;
}

}  // namespace kestrix
