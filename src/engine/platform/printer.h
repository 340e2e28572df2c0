#pragma once

#include <string>
#include <vector>

namespace kestrix {

// The voucher printer, used line by line like a classic printer object: set the font, print
// lines, end the document (which sends it to the printer).
class Printer {
public:
    virtual ~Printer() = default;
    // Device names of the installed printers, in the order the system lists them.
    virtual std::vector<std::string> installedPrinters() = 0;
    // Makes the named printer current; an unknown name keeps the current one.
    virtual void select(const std::string& name) = 0;
    virtual std::string current() const = 0;
    virtual void setFontName(const std::string& name) = 0;
    virtual void setFontBold(bool bold) = 0;
    virtual void setFontSize(double points) = 0;
    // Prints `text` and a line break; an empty text is a blank line.
    virtual void printLine(const std::string& text) = 0;
    virtual void endDoc() = 0;
};

}  // namespace kestrix
