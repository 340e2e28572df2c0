#include "helper_printer.h"

#include <QByteArray>
#include <QFileInfo>
#include <QProcess>
#include <QStringList>
#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "qt_printer.h"

namespace kestrix::qt {

namespace {

// The document on the helper's standard input: records of a tag, the value's length in decimal,
// a colon, the value's bytes and a line break. Texts go as they are (a card library's bytes,
// line breaks and all).
constexpr char kDirectory = 'd';
constexpr char kPrinterName = 'p';
constexpr char kFontName = 'f';
constexpr char kFontBold = 'b';
constexpr char kFontSize = 's';
constexpr char kLine = 'l';

// Once killed, the helper is given this long to be gone before the engine moves on.
constexpr int kReapMs = 2000;

constexpr int kExitNotPrinted = 1;
constexpr int kExitNotADocument = 2;

void append(std::string& document, char tag, const std::string& value) {
    document += tag;
    document += std::to_string(value.size());
    document += ':';
    document += value;
    document += '\n';
}

bool isDirectory(const std::string& name) {
    return !name.empty() && QFileInfo(QString::fromStdString(name)).isDir();
}

struct Record {
    char tag = 0;
    std::string value;
};

// Splits a document into its records; false when it is not one.
bool parse(const std::string& document, std::vector<Record>& records) {
    std::size_t at = 0;
    while (at < document.size()) {
        Record r;
        r.tag = document[at++];
        const std::size_t colon = document.find(':', at);
        if (colon == std::string::npos || colon == at || colon - at > 9) {
            return false;
        }
        std::size_t length = 0;
        for (std::size_t i = at; i < colon; ++i) {
            if (document[i] < '0' || document[i] > '9') {
                return false;
            }
            length = length * 10 + static_cast<std::size_t>(document[i] - '0');
        }
        at = colon + 1;
        if (document.size() - at < length + 1 || document[at + length] != '\n') {
            return false;
        }
        r.value = document.substr(at, length);
        at += length + 1;
        records.push_back(std::move(r));
    }
    return true;
}

std::string trimmed(const QByteArray& bytes) {
    return QString::fromLocal8Bit(bytes).trimmed().toStdString();
}

}  // namespace

HelperPrinter::HelperPrinter(std::string program, std::vector<std::string> arguments,
                             std::vector<std::string> printerNames, int timeoutMs)
    : m_program(std::move(program)), m_arguments(std::move(arguments)), m_timeoutMs(timeoutMs) {
    for (std::string& name : printerNames) {
        if (!name.empty() && std::find(m_known.begin(), m_known.end(), name) == m_known.end()) {
            m_known.push_back(std::move(name));
        }
    }
    // The same directory the helper's QtPrinter takes from the environment, listed here too.
    if (const char* env = std::getenv("KSX_VOUCHER_DIR"); env != nullptr && *env != '\0') {
        if (std::find(m_known.begin(), m_known.end(), env) == m_known.end()) {
            m_known.emplace_back(env);
        }
    }
}

std::vector<std::string> HelperPrinter::installedPrinters() {
    return m_known;
}

void HelperPrinter::select(const std::string& name) {
    if (name.empty()) {
        return;
    }
    if (std::find(m_known.begin(), m_known.end(), name) == m_known.end()) {
        m_known.push_back(name);
    }
    m_current = name;
}

void HelperPrinter::add(char tag, const std::string& value) {
    append(m_document, tag, value);
}

void HelperPrinter::setFontName(const std::string& name) {
    add(kFontName, name);
}

void HelperPrinter::setFontBold(bool bold) {
    add(kFontBold, bold ? "1" : "0");
}

void HelperPrinter::setFontSize(double points) {
    // In the C locale's notation whatever the kiosk's locale: the helper reads it back so.
    add(kFontSize, QByteArray::number(points, 'g', 17).toStdString());
}

void HelperPrinter::printLine(const std::string& text) {
    add(kLine, text);
    m_hasLines = true;
}

void HelperPrinter::endDoc() {
    // The document is gone whether or not it can be printed: a failed voucher must not come out
    // at the head of the next one.
    const std::string body = std::move(m_document);
    m_document.clear();
    const bool hasLines = m_hasLines;
    m_hasLines = false;
    m_lastFile.clear();
    if (!hasLines) {
        return;
    }
    // The helper falls back as QtPrinter would: the default printer, else the first directory.
    std::string document;
    for (const std::string& name : m_known) {
        if (isDirectory(name)) {
            append(document, kDirectory, name);
        }
    }
    append(document, kPrinterName, m_current);
    document += body;

    QStringList arguments;
    for (const std::string& a : m_arguments) {
        arguments << QString::fromStdString(a);
    }
    QProcess helper;
    helper.start(QString::fromStdString(m_program), arguments);
    if (!helper.waitForStarted(m_timeoutMs)) {
        throw std::runtime_error("the voucher printer could not be started (" + m_program +
                                 "): " + helper.errorString().toStdString());
    }
    helper.write(document.data(), static_cast<qint64>(document.size()));
    helper.closeWriteChannel();
    if (!helper.waitForFinished(m_timeoutMs)) {
        helper.kill();
        helper.waitForFinished(kReapMs);
        throw std::runtime_error("the voucher printer did not finish within " +
                                 QString::number(m_timeoutMs / 1000.0).toStdString() + " seconds");
    }
    if (helper.exitStatus() != QProcess::NormalExit) {
        throw std::runtime_error("the voucher printer ended abnormally (" + m_program + ")");
    }
    if (helper.exitCode() != 0) {
        std::string reason = trimmed(helper.readAllStandardError());
        if (reason.empty()) {
            reason = "the voucher printer ended with status " + std::to_string(helper.exitCode());
        }
        throw std::runtime_error(reason);
    }
    m_lastFile = trimmed(helper.readAllStandardOutput());
}

int printVoucherDocument(const std::string& document, std::string& writtenFile,
                         std::string& error) {
    std::vector<Record> records;
    if (!parse(document, records)) {
        error = "the voucher document cannot be read";
        return kExitNotADocument;
    }
    std::vector<std::string> directories;
    for (const Record& r : records) {
        if (r.tag == kDirectory) {
            directories.push_back(r.value);
        }
    }
    try {
        QtPrinter printer(directories);
        for (const Record& r : records) {
            switch (r.tag) {
                case kPrinterName:
                    printer.select(r.value);
                    break;
                case kFontName:
                    printer.setFontName(r.value);
                    break;
                case kFontBold:
                    printer.setFontBold(r.value == "1");
                    break;
                case kFontSize: {
                    bool ok = false;
                    const double points = QByteArray::fromStdString(r.value).toDouble(&ok);
                    if (ok) {
                        printer.setFontSize(points);
                    }
                    break;
                }
                case kLine:
                    printer.printLine(r.value);
                    break;
                default:
                    break;
            }
        }
        printer.endDoc();
        writtenFile = printer.lastFile();
    } catch (const std::runtime_error& e) {
        error = e.what();
        return kExitNotPrinted;
    }
    return 0;
}

}  // namespace kestrix::qt
