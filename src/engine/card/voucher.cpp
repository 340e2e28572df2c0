#include "voucher.h"

#include "card_number.h"

namespace kestrix::voucher {

namespace {

void startDocument(Printer& printer) {
    printer.setFontName(std::string(kFontName));
    printer.setFontBold(true);
    printer.setFontSize(kFontSize);
}

// Every line goes through here, so no card number reaches the paper (or a PDF) unmasked, whatever
// text the library put on its voucher.
void line(Printer& printer, std::string_view text = {}) {
    printer.printLine(card::withCardNumbersMasked(text));
}

void blankLines(Printer& printer, int count) {
    for (int i = 0; i < count; ++i) {
        line(printer);
    }
}

void endDocument(Printer& printer) {
    line(printer, kEndLine);
    printer.endDoc();
}

// The box that tells the customer nothing was charged.
void notProcessedBox(Printer& printer) {
    line(printer, kStarLine);
    line(printer, kStarLine);
    line(printer, kBoxLine);
    line(printer, kNotProcessedLine);
    line(printer, kBoxLine);
    line(printer, kStarLine);
    line(printer, kStarLine);
}

void printErrorVoucher(Printer& printer, std::string_view heading, std::string_view error,
                       std::string_view code) {
    startDocument(printer);
    line(printer, heading);
    blankLines(printer, 5);
    notProcessedBox(printer);
    blankLines(printer, 5);
    printer.setFontSize(kDetailFontSize);
    line(printer, "Error: " + std::string(error));
    line(printer, "Código = " + std::string(code));
    printer.setFontSize(kFontSize);
    blankLines(printer, 6);
    endDocument(printer);
}

}  // namespace

std::string withoutMarkers(std::string text) {
    for (std::string_view marker : kMarkers) {
        std::string::size_type at = 0;
        while ((at = text.find(marker, at)) != std::string::npos) {
            text.erase(at, marker.size());
        }
    }
    return text;
}

void printApproved(Printer& printer, std::string_view libraryText) {
    startDocument(printer);
    line(printer, withoutMarkers(std::string(libraryText)));
    endDocument(printer);
}

void printDeclined(Printer& printer, const DeclinedDetails& details) {
    startDocument(printer);
    line(printer, "Tarjeta Declinada");
    blankLines(printer, 4);
    notProcessedBox(printer);
    blankLines(printer, 4);
    line(printer, "Número de Operacion : " + details.operationNumber);
    line(printer, "Referencia : " + details.reference);
    line(printer, "Código de Respuesta : " + details.responseCode);
    line(printer, "Causa : " + details.cause);
    blankLines(printer, 5);
    endDocument(printer);
}

void printCommunicationError(Printer& printer, std::string_view error, std::string_view code) {
    printErrorVoucher(printer, "ERROR DE COMUNICACIÓN", error, code);
}

void printPinPadError(Printer& printer, std::string_view error, std::string_view code) {
    printErrorVoucher(printer, "PIN PAD ERROR", error, code);
}

}  // namespace kestrix::voucher
