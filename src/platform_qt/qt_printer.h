#pragma once

#include <QString>
#include <string>
#include <vector>

#include "engine/platform/printer.h"

class QPagedPaintDevice;

namespace kestrix::qt {

// The voucher printer over Qt Print Support. Lines are collected with the font they were
// printed in, and endDoc lays the whole document out and sends it.
//
// A "printer" may also be a directory: each document is then written there as a new PDF file
// ("voucher-20261122-093015-123.pdf"), so a kiosk without a printer, or a test, keeps every
// voucher. installedPrinters() lists the system's printers followed by the known directories:
// those given to the constructor, the one in the environment variable KSX_VOUCHER_DIR (created
// when missing), and any directory selected since. A directory that exists can be selected by
// name even when it was not listed, so a store that names one works at once.
//
// Long lines wrap at the page width of a real printer; a PDF page is made as wide as the widest
// line (up to a limit, past which lines wrap) and as tall as the document, like a receipt.
// Texts are UTF-8; a text that is not valid UTF-8 is read as Latin-1, as older card libraries
// write it. A font that is not installed is replaced by a metric-compatible one ("Courier New"
// by "Liberation Mono", then "DejaVu Sans Mono", then the system's fixed font).
//
// Needs a QGuiApplication (fonts); without one endDoc throws std::runtime_error, as it does when
// no printer is selected or the document cannot be written.
class QtPrinter : public Printer {
public:
    explicit QtPrinter(std::vector<std::string> pdfDirectories = {});

    std::vector<std::string> installedPrinters() override;
    void select(const std::string& name) override;
    std::string current() const override { return m_current; }
    void setFontName(const std::string& name) override;
    void setFontBold(bool bold) override { m_bold = bold; }
    void setFontSize(double points) override;
    void printLine(const std::string& text) override;
    void endDoc() override;

    // The PDF file written by the last document sent to a directory; empty otherwise.
    const std::string& lastFile() const { return m_lastFile; }

    // The family actually used for `wanted` on this system.
    static QString resolveFamily(const QString& wanted);

    struct Line {
        QString text;
        QString family;
        bool bold = false;
        double points = 10;
    };

private:
    bool isDirectory(const std::string& name) const;
    void printToDirectory(const std::vector<Line>& lines, const std::string& dir);
    void printToPrinter(const std::vector<Line>& lines, const std::string& name);

    std::vector<std::string> m_directories;
    std::string m_current;
    QString m_family;
    bool m_bold = false;
    double m_points = 10;
    std::vector<Line> m_lines;
    std::string m_lastFile;
};

// The voucher helper's side (`kestrix --print-voucher`), in a program that has a
// QGuiApplication: prints a document HelperPrinter wrote (voucher_document) with a QtPrinter.
// Returns the status the helper ends with (voucher_document::kExit...): `writtenFile` is the
// PDF file made for a directory, `error` why nothing was printed.
int printVoucherDocument(const std::string& document, std::string& writtenFile, std::string& error);

}  // namespace kestrix::qt
