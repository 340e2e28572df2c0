#pragma once

#include <string>
#include <vector>

#include "engine/platform/instance.h"
#include "engine/platform/journal.h"
#include "engine/platform/log.h"
#include "engine/platform/message_box.h"
#include "engine/platform/network_info.h"
#include "engine/platform/printer.h"

namespace kestrix::sim {

// Records every message the engine shows.
class RecordingMessageBox : public MessageBox {
public:
    struct Shown {
        std::string text;
        std::string title;
    };
    void show(const std::string& text, const std::string& title) override {
        m_shown.push_back({text, title});
    }
    const std::vector<Shown>& shown() const { return m_shown; }
    void clear() { m_shown.clear(); }

private:
    std::vector<Shown> m_shown;
};

// A printer that keeps each ended document as lines with the font they were printed in.
class RecordingPrinter : public Printer {
public:
    struct Line {
        std::string text;
        std::string font;
        bool bold = false;
        double size = 0;
    };
    using Document = std::vector<Line>;

    explicit RecordingPrinter(std::vector<std::string> installed = {"Voucher Printer"})
        : m_installed(std::move(installed)) {}

    std::vector<std::string> installedPrinters() override { return m_installed; }
    void select(const std::string& name) override;
    std::string current() const override { return m_current; }
    void setFontName(const std::string& name) override { m_font = name; }
    void setFontBold(bool bold) override { m_bold = bold; }
    void setFontSize(double points) override { m_size = points; }
    void printLine(const std::string& text) override {
        m_page.push_back({text, m_font, m_bold, m_size});
    }
    void endDoc() override {
        m_documents.push_back(std::move(m_page));
        m_page.clear();
    }

    const std::vector<Document>& documents() const { return m_documents; }

private:
    std::vector<std::string> m_installed;
    std::string m_current;
    std::string m_font;
    bool m_bold = false;
    double m_size = 0;
    Document m_page;
    std::vector<Document> m_documents;
};

class FixedNetworkInfo : public NetworkInfo {
public:
    explicit FixedNetworkInfo(std::string address = "00-1A-2B-3C-4D-5E")
        : m_address(std::move(address)) {}
    std::string firstAdapterAddress() override { return m_address; }

private:
    std::string m_address;
};

class FixedInstance : public Instance {
public:
    explicit FixedInstance(std::string commandLine = {}, bool another = false)
        : m_commandLine(std::move(commandLine)), m_another(another) {}
    bool anotherIsRunning() override { return m_another; }
    std::string commandLine() const override { return m_commandLine; }
    void setCommandLine(std::string line) { m_commandLine = std::move(line); }
    void setAnotherRunning(bool another) { m_another = another; }

private:
    std::string m_commandLine;
    bool m_another;
};

// Keeps every journal row in memory, in order; the sequence of a row is its place (from 1).
class MemoryJournal : public Journal {
public:
    std::int64_t append(const JournalEntry& entry) override {
        m_rows.push_back(entry);
        return static_cast<std::int64_t>(m_rows.size());
    }
    std::int64_t newPaymentId() override { return ++m_lastPaymentId; }
    std::vector<JournalRecord> recoveryRows() override;
    const std::vector<JournalEntry>& rows() const { return m_rows; }
    // Every row as a journal reads it back.
    std::vector<JournalRecord> records() const;
    void clear() { m_rows.clear(); }

private:
    std::vector<JournalEntry> m_rows;
    std::int64_t m_lastPaymentId = 0;
};

// Keeps every log line as "<N>message".
class RecordingLog : public Log {
public:
    void write(LogLevel level, std::string_view message, const LogFields&) override {
        m_lines.push_back("<" + std::to_string(static_cast<int>(level)) + ">" +
                          std::string(message));
    }
    bool enabled(LogLevel) const override { return true; }
    const std::vector<std::string>& lines() const { return m_lines; }

private:
    std::vector<std::string> m_lines;
};

}  // namespace kestrix::sim
