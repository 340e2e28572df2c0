#include "stderr_log.h"

#include <QString>
#include <QtGlobal>
#include <atomic>

#include "engine/card/card_number.h"

namespace kestrix::qt {

namespace {

// One line of text, and a card number never whole.
std::string cleaned(std::string_view message) {
    std::string out;
    out.reserve(message.size());
    for (const char c : message) {
        out += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
    }
    while (!out.empty() && out.back() == ' ') {
        out.pop_back();
    }
    return card::withCardNumbersMasked(out);
}

std::atomic<Log*> g_qtLog{nullptr};

void qtMessage(QtMsgType type, const QMessageLogContext& context, const QString& text) {
    Log* log = g_qtLog.load();
    if (log == nullptr) {
        return;
    }
    LogLevel level = LogLevel::Debug;
    switch (type) {
        case QtDebugMsg:
            level = LogLevel::Debug;
            break;
        case QtInfoMsg:
            level = LogLevel::Info;
            break;
        case QtWarningMsg:
            level = LogLevel::Warning;
            break;
        case QtCriticalMsg:
        case QtFatalMsg:
            level = LogLevel::Error;
            break;
    }
    if (!log->enabled(level)) {
        return;
    }
    std::string message = "Qt";
    if (context.category != nullptr && std::string_view(context.category) != "default") {
        message += std::string(" (") + context.category + ")";
    }
    message += ": " + text.toStdString();
    log->write(level, message, {"qt", 0});
}

}  // namespace

std::string StderrLog::format(LogLevel level, std::string_view message, const LogFields& fields) {
    std::string line = "<" + std::to_string(static_cast<int>(level)) + ">" + cleaned(message);
    if (!fields.device.empty()) {
        line += " device=" + cleaned(fields.device);
    }
    if (fields.paymentId != 0) {
        line += " payment=" + std::to_string(fields.paymentId);
    }
    return line;
}

void StderrLog::write(LogLevel level, std::string_view message, const LogFields& fields) {
    if (!enabled(level)) {
        return;
    }
    const std::string line = format(level, message, fields) + "\n";
    std::lock_guard lock(m_mutex);
    std::fwrite(line.data(), 1, line.size(), m_out);
    std::fflush(m_out);
}

std::optional<LogLevel> parseLogLevel(std::string_view text) {
    static const std::pair<std::string_view, LogLevel> kNames[] = {
        {"error", LogLevel::Error},     {"err", LogLevel::Error},    {"3", LogLevel::Error},
        {"warning", LogLevel::Warning}, {"warn", LogLevel::Warning}, {"4", LogLevel::Warning},
        {"notice", LogLevel::Notice},   {"5", LogLevel::Notice},     {"info", LogLevel::Info},
        {"6", LogLevel::Info},          {"debug", LogLevel::Debug},  {"7", LogLevel::Debug},
    };
    for (const auto& [name, level] : kNames) {
        if (name == text) {
            return level;
        }
    }
    return std::nullopt;
}

void routeQtMessagesTo(Log* log) {
    g_qtLog = log;
    qInstallMessageHandler(log != nullptr ? qtMessage : nullptr);
}

}  // namespace kestrix::qt
