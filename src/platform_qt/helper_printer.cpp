#include "helper_printer.h"

#include <QByteArray>
#include <QFileInfo>
#include <QProcess>
#include <QStringList>
#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace kestrix::qt {

namespace voucher_document {

void append(std::string& document, char tag, const std::string& value) {
    document += tag;
    document += std::to_string(value.size());
    document += ':';
    document += value;
    document += '\n';
}

bool parse(const std::string& document, std::vector<Record>& records) {
    std::size_t at = 0;
    while (at < document.size()) {
        Record r;
        r.tag = document[at++];
        const std::size_t colon = document.find(':', at);
        // A length of more than nine digits is no voucher's.
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

}  // namespace voucher_document

namespace {

using namespace voucher_document;

// Once killed, the helper is given this long to be gone before the engine moves on.
constexpr int kReapMs = 2000;

bool isDirectory(const std::string& name) {
    return !name.empty() && QFileInfo(QString::fromStdString(name)).isDir();
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

}  // namespace kestrix::qt
