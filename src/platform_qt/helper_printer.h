#pragma once

#include <string>
#include <vector>

#include "engine/platform/printer.h"

namespace kestrix::qt {

// The voucher printer of the headless engine: the document is collected here and laid out and
// printed by a short-lived helper process (the engine's own program started with
// --print-voucher, which reads the document on its standard input). Fonts, the GUI platform and the
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

// The helper's side, in a program that has a QGuiApplication: prints a document written by
// HelperPrinter with QtPrinter. Returns the exit status the helper ends with: 0 printed
// (`writtenFile` is the PDF file, for a directory), 1 not printed, 2 not a document; `error`
// says why.
int printVoucherDocument(const std::string& document, std::string& writtenFile, std::string& error);

}  // namespace kestrix::qt
