#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/platform/printer.h"

class QProcess;
class QTimer;

namespace kestrix::qt {

// The voucher printer of the headless engine: the document is collected here and laid out and
// printed by a short-lived helper process (the engine's own program started with
// --print-voucher, which reads the document on its standard input; printVoucherDocument in
// qt_printer.h). Fonts, the GUI platform and the print system's client are loaded only in that
// process and only while a voucher prints, so the engine that runs for months keeps none of
// them resident.
//
// endDoc hands the document over and returns at once: the engine does not wait for the
// voucher, so a card payment's result is written as soon as it is known, whatever the printer
// does. Vouchers print one after the other in the order they were ended. A voucher that does not
// print (the helper's own reason; a helper that cannot start, crashes, or has not finished
// within the bound and is then killed) is told to the failure listener, on the thread that
// made the printer (the engine's), once its event loop runs.
//
// Printer names are taken as given: a directory is a PDF voucher printer (as for QtPrinter);
// any other name is checked by the helper when it prints, which uses the system's default
// printer (else the first known directory) when the name is not installed, as QtPrinter keeps
// its default then. installedPrinters() lists the names given to the constructor and those
// selected since, without asking the print system: only the console shows the list, and the
// console prints in-process.
// The option that starts the `kestrix` program as the voucher helper.
inline constexpr const char* kPrintVoucherOption = "--print-voucher";

class HelperPrinter : public Printer {
public:
    // How long one voucher may take. Laying it out and handing it to the spooler takes well
    // under a second; a helper stuck on a print system that does not answer is killed then.
    static constexpr int kPrintTimeoutMs = 15000;
    // How long the engine's end waits for a voucher still printing.
    static constexpr int kEndWaitMs = 2000;

    using FailureListener = std::function<void(const std::string& reason)>;

    HelperPrinter(std::string program, std::vector<std::string> arguments,
                  std::vector<std::string> printerNames = {}, int timeoutMs = kPrintTimeoutMs);
    // Waits at most kEndWaitMs for the voucher printing, then kills it; vouchers not yet begun
    // are dropped (each with a line on standard error).
    ~HelperPrinter() override;
    HelperPrinter(const HelperPrinter&) = delete;
    HelperPrinter& operator=(const HelperPrinter&) = delete;

    // Without a listener a failure goes to standard error.
    void setFailureListener(FailureListener listener) { m_onFailure = std::move(listener); }

    std::vector<std::string> installedPrinters() override;
    void select(const std::string& name) override;
    std::string current() const override { return m_current; }
    void setFontName(const std::string& name) override;
    void setFontBold(bool bold) override;
    void setFontSize(double points) override;
    void printLine(const std::string& text) override;
    void endDoc() override;

    // Whether a voucher is printing or waiting to.
    bool busy() const { return m_helper != nullptr || !m_queue.empty(); }
    // What the helper said it wrote for the last voucher printed (the PDF file, for a
    // directory); empty otherwise.
    const std::string& lastFile() const { return m_lastFile; }

private:
    void add(char tag, const std::string& value);
    void startNext();
    void done(const std::string& failure, const std::string& file);

    std::string m_program;
    std::vector<std::string> m_arguments;
    int m_timeoutMs;
    std::vector<std::string> m_known;
    std::string m_current;
    std::string m_document;
    bool m_hasLines = false;
    std::deque<std::string> m_queue;
    std::unique_ptr<QProcess> m_helper;
    std::unique_ptr<QTimer> m_bound;
    bool m_timedOut = false;
    bool m_ending = false;
    FailureListener m_onFailure;
    std::string m_lastFile;
};

// The document HelperPrinter writes on the helper's standard input: records of a tag, the
// value's length in decimal, a colon, the value's bytes and a line break. Texts go as they are
// (a card library's bytes, line breaks and all). The known directories and the printer come
// first, then the font changes and lines in the order they were made.
namespace voucher_document {

inline constexpr char kDirectory = 'd';
inline constexpr char kPrinterName = 'p';
inline constexpr char kFontName = 'f';
inline constexpr char kFontBold = 'b';
inline constexpr char kFontSize = 's';
inline constexpr char kLine = 'l';

// The helper's exit status: printed, not printed (the reason on its standard error), or what
// it was given is not a document.
inline constexpr int kExitPrinted = 0;
inline constexpr int kExitNotPrinted = 1;
inline constexpr int kExitNotADocument = 2;

struct Record {
    char tag = 0;
    std::string value;
};

void append(std::string& document, char tag, const std::string& value);
// Splits a document into its records; false when it is not one.
bool parse(const std::string& document, std::vector<Record>& records);

}  // namespace voucher_document

}  // namespace kestrix::qt
