#pragma once

#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "engine/platform/log.h"

namespace kestrix::qt {

// The engine's log on standard error, one line per message, each starting with the "<N>" syslog
// priority that the systemd journal reads from a service's output (so `journalctl -p warning`
// works), the device and the payment as "device=... payment=..." at the end of the line:
//
//   <3>changer fault: no answer to RESET device=changer
//   <6>Card payment of 25 ended: approved, card 411111******1111; "Credit Card Approved"
//   device=pinpad payment=42
//
// Line breaks inside a message become spaces, and any run of 13 to 19 digits (what a card number
// looks like) is masked, whoever wrote the message. Safe from any thread.
class StderrLog : public Log {
public:
    explicit StderrLog(LogLevel threshold = LogLevel::Info, std::FILE* out = stderr)
        : m_threshold(threshold), m_out(out) {}

    void write(LogLevel level, std::string_view message, const LogFields& fields = {}) override;
    bool enabled(LogLevel level) const override {
        return static_cast<int>(level) <= static_cast<int>(m_threshold);
    }
    void setThreshold(LogLevel threshold) { m_threshold = threshold; }

    // The line write() prints, without the final line break.
    static std::string format(LogLevel level, std::string_view message, const LogFields& fields);

private:
    LogLevel m_threshold;
    std::FILE* m_out;
    std::mutex m_mutex;
};

// A level by name ("error", "warning", "notice", "info", "debug") or number (3 to 7).
std::optional<LogLevel> parseLogLevel(std::string_view text);

// Sends Qt's own messages (qDebug, qWarning, ...) to `log` from now on, at the matching levels.
// `log` must outlive every Qt message of the process; pass nullptr to restore Qt's default.
void routeQtMessagesTo(Log* log);

}  // namespace kestrix::qt
