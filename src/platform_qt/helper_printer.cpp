#include "helper_printer.h"

#include <QByteArray>
#include <QFileInfo>
#include <QProcess>
#include <QStringList>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
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
    m_queue.push_back(std::move(document));
    if (m_helper == nullptr) {
        startNext();
    }
}

void HelperPrinter::startNext() {
    if (m_ending || m_queue.empty()) {
        return;
    }
    const std::string document = std::move(m_queue.front());
    m_queue.pop_front();
    QStringList arguments;
    for (const std::string& a : m_arguments) {
        arguments << QString::fromStdString(a);
    }
    m_timedOut = false;
    m_helper = std::make_unique<QProcess>();
    QProcess* helper = m_helper.get();
    QObject::connect(helper, &QProcess::errorOccurred, helper,
                     [this, helper](QProcess::ProcessError e) {
                         // Only a helper that never started ends here; any other error also ends in
                         // finished.
                         if (e == QProcess::FailedToStart) {
                             done("the voucher printer could not be started (" + m_program +
                                      "): " + helper->errorString().toStdString(),
                                  {});
                         }
                     });
    QObject::connect(
        helper, &QProcess::finished, helper,
        [this, helper](int exitCode, QProcess::ExitStatus status) {
            if (m_timedOut) {
                done("the voucher printer did not finish within " +
                         QString::number(m_timeoutMs / 1000.0).toStdString() + " seconds",
                     {});
            } else if (status != QProcess::NormalExit) {
                done("the voucher printer ended abnormally (" + m_program + ")", {});
            } else if (exitCode != kExitPrinted) {
                std::string reason = trimmed(helper->readAllStandardError());
                if (reason.empty()) {
                    reason = "the voucher printer ended with status " + std::to_string(exitCode);
                }
                done(reason, {});
            } else {
                done({}, trimmed(helper->readAllStandardOutput()));
            }
        });
    m_bound = std::make_unique<QTimer>();
    m_bound->setSingleShot(true);
    QObject::connect(m_bound.get(), &QTimer::timeout, helper, [this, helper] {
        m_timedOut = true;
        helper->kill();
    });
    m_bound->start(m_timeoutMs);
    helper->start(QString::fromStdString(m_program), arguments);
    // Kept by the process object until the helper has started, then written to it.
    helper->write(document.data(), static_cast<qint64>(document.size()));
    helper->closeWriteChannel();
}

void HelperPrinter::done(const std::string& failure, const std::string& file) {
    m_bound.reset();
    // Called from the process object's own signal: it is deleted once that has returned.
    m_helper.release()->deleteLater();
    m_lastFile = file;
    if (!failure.empty()) {
        if (m_onFailure) {
            m_onFailure(failure);
        } else {
            std::fprintf(stderr, "kestrix: voucher not printed: %s\n", failure.c_str());
        }
    }
    startNext();
}

HelperPrinter::~HelperPrinter() {
    m_ending = true;
    m_onFailure = {};
    if (m_helper != nullptr) {
        QProcess* helper = m_helper.get();
        if (!helper->waitForFinished(kEndWaitMs) && m_helper != nullptr) {
            std::fputs("kestrix: a voucher was still printing at the end: stopped\n", stderr);
            helper->disconnect();
            helper->kill();
            helper->waitForFinished(kEndWaitMs);
        }
    }
    for (std::size_t i = 0; i < m_queue.size(); ++i) {
        std::fputs("kestrix: a voucher not yet printed at the end is dropped\n", stderr);
    }
    if (m_helper != nullptr) {
        m_helper->disconnect();
        m_helper.reset();
    }
}

}  // namespace kestrix::qt
