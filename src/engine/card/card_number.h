#pragma once

#include <string>
#include <string_view>

namespace kestrix {

// A card number as the engine may keep or show it anywhere (journal, log): at most its first six
// and last four digits, every other character a '*'. Spaces and dashes are dropped first. A
// number of fewer than 13 characters keeps only its last four, so that a short number is never
// shown nearly whole; one of four or fewer is all stars. Already masked text stays masked.
std::string maskCardNumber(std::string_view number);

}  // namespace kestrix
