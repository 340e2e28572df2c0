#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "money.h"

namespace kestrix {

class Clock;

// Digit alphabet of the base conversions; a digit's value is its position from 0.
inline constexpr std::string_view kDigitAlphabet = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";

// Digit text in base 2..36 (either case) to decimal text. A base outside 2..36 gives "". Errors
// (an empty text, a character that is not a digit of the base, an overflow) are raised as
// KsxError with the source "ConvertBaseNToDec".
std::string ConvertBaseNToDec(std::string_view digits, int base);

// A whole number to its digit text in base 2..36 ("0" for 0). A base outside 2..36 gives "".
// Errors (a negative digit, an overflow) are raised as KsxError with the source
// "ConvertDecToBaseN".
std::string ConvertDecToBaseN(double value, int base);

// Waits `seconds` on the time-of-day clock without yielding to the event loop. Across midnight
// the wait restarts from midnight, so a pause begun shortly before midnight lasts the time left
// to midnight plus the full duration; kept that way on purpose.
void Pause(Clock& clock, double seconds);

// --- Number text ----------------------------------------------------------------------------

// Default number-to-text conversion of the store and the console: up to 15 significant digits,
// no trailing zeros, "." as separator ("2.5", "10", "0.3" for 0.1 + 0.2).
std::string numberText(double value);
// The same for single-precision values (the tube money): up to 7 significant digits.
std::string singleText(float value);

// Lenient text-to-number: the leading decimal number of the text (after leading blanks), 0 for
// an empty or non-numeric text. Never throws; a number too large for a double gives 0, so a
// hostile text can never become an amount it does not state.
double leadingNumber(std::string_view text);

// Strict text-to-number: the whole text (blanks around it allowed) must be a finite number.
// Throws KsxError (type mismatch) otherwise.
double strictNumber(std::string_view text);
// Strict whole number in the 16-bit range; throws KsxError (type mismatch or overflow).
int strictInt(std::string_view text);

// An amount asked for in a mailbox request or typed into the console: the leading number of the
// text, as the lenient reader takes it, as money. None (no request) when the text holds a comma
// (a host in a comma-decimal locale writes "5,50", which would otherwise read as 5), when the
// number rounds to less than one minor unit ("4e-320") or exceeds `maximum` ("1e307"), and for
// every text the lenient reader makes 0 of.
std::optional<Money> requestedAmount(std::string_view text, Money maximum);

// The value of one hexadecimal digit (either case), or -1 for any other character.
int hexDigit(char c);

// The whole part of a number (toward minus infinity), as the classic Int() does.
double wholePart(double value);

}  // namespace kestrix
