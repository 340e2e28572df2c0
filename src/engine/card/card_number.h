#pragma once

#include <string>
#include <string_view>

// Card numbers leave the engine masked: at most the first six digits (the issuer) and the last
// four are shown, whatever the payment library hands over. A library that already masks passes
// through unchanged; one that gives the whole number (a simulated card, a test library) does not
// get it onto a voucher, the console, a log or the store.
namespace kestrix::card {

inline constexpr char kMaskDigit = '*';
// The shortest card number (ISO/IEC 7812): a run of this many digits in a text is taken as one.
inline constexpr std::size_t kShortestCardNumberDigits = 13;

// The card number field as the library gave it, with every digit masked but the first six and the
// last four (only the last four when it has fewer than 13 digits). Other characters stay.
std::string maskedCardNumber(std::string_view number);

// A text (a voucher the library wrote, a log line) with every card number in it masked: any run
// of 13 or more digits, single blanks or dashes between digits included, as in maskedCardNumber.
std::string withCardNumbersMasked(std::string_view text);

}  // namespace kestrix::card
