#pragma once

#include <string>
#include <string_view>

#include "engine/platform/printer.h"

// The card vouchers, printed on the console's current printer at the end of every card payment
// that reached the payment library. The approved voucher's text comes from the library; the
// other three are laid out here. Texts are UTF-8.
namespace kestrix::voucher {

inline constexpr std::string_view kFontName = "Courier New";
inline constexpr double kFontSize = 10;
// The error vouchers print their details small so that long library texts fit the paper width.
inline constexpr double kDetailFontSize = 5;

inline constexpr std::string_view kStarLine = "**********************************";
inline constexpr std::string_view kBoxLine = "***                            ***";
inline constexpr std::string_view kNotProcessedLine = "***     CARGO NO PROCESADO     ***";
inline constexpr std::string_view kEndLine = "_";

// The library's printer markers, in the order they are removed. " @b" goes last: after the
// others are gone, a blank followed by "@b" (a word starting with b) loses those three
// characters as well, as the kiosks' printers have always shown it.
inline constexpr std::string_view kMarkers[] = {" @cnb ", " @cnn ", " @br ", " @lnn ", " @b"};

// The library's voucher text with every marker deleted (not rendered: " @br " is no break).
std::string withoutMarkers(std::string text);

// What the declined voucher shows below its box.
struct DeclinedDetails {
    std::string operationNumber;
    std::string reference;
    std::string responseCode;
    std::string cause;
};

void printApproved(Printer& printer, std::string_view libraryText);
void printDeclined(Printer& printer, const DeclinedDetails& details);
// Result "error": the library could not complete the sale with the bank.
void printCommunicationError(Printer& printer, std::string_view error, std::string_view code);
// The pin pad failed before the sale (the card read gave an error).
void printPinPadError(Printer& printer, std::string_view error, std::string_view code);

}  // namespace kestrix::voucher
