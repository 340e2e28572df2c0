#pragma once

#include <string>
#include <vector>

#include "engine/platform/printer.h"

namespace kestrix::qt {

// The voucher printer of the headless engine: the document is collected here and laid out and
// printed by a short-lived helper process (the engine's own program started with
// --print-voucher, which reads the document on its standard input; printVoucherDocument in
// qt_printer.h). Fonts, the GUI platform and the
// print system's client are loaded only in that process and only while a voucher prints, so the
// engine that runs for months keeps none of them resident.
//
// Printer names are taken as given: a directory is a PDF voucher printer (as for QtPrinter);
// any other name is checked by the helper when it prints, which uses the system's default
// printer (else the first known directory) when the name is not installed, as QtPrinter keeps
// its default then. installedPrinters() lists the names given to the constructor and those
// selected since, without asking the print system: only the console shows the list, and the
// console prints in-process.
//
// endDoc throws std::runtime_error with the helper's own message when the voucher cannot be
// printed, and when the helper cannot start, crashes or has not finished within the bound (it
// is then killed): the card payment reports it as it reports any failing printer.
// The option that starts the `kestrix` program as the voucher helper.
inline constexpr const char* kPrintVoucherOption = "--print-voucher";

class HelperPrinter : public Printer {
public:
    // How long the engine waits for one voucher. Laying it out and handing it to the spooler
    // takes well under a second; a helper stuck on a print system that does not answer must
    // not hold the engine (and the host's result) for longer than this.
    static constexpr int kPrintTimeoutMs = 15000;

    HelperPrinter(std::string program, std::vector<std::string> arguments,
                  std::vector<std::string> printerNames = {}, int timeoutMs = kPrintTimeoutMs);

    std::vector<std::string> installedPrinters() override;
    void select(const std::string& name) override;
    std::string current() const override { return m_current; }
    void setFontName(const std::string& name) override;
    void setFontBold(bool bold) override;
    void setFontSize(double points) override;
    void printLine(const std::string& text) override;
    void endDoc() override;

    // What the helper said it wrote (the PDF file, for a directory); empty otherwise.
    const std::string& lastFile() const { return m_lastFile; }

private:
    void add(char tag, const std::string& value);

    std::string m_program;
    std::vector<std::string> m_arguments;
    int m_timeoutMs;
    std::vector<std::string> m_known;
    std::string m_current;
    std::string m_document;
    bool m_hasLines = false;
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
