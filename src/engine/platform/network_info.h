#pragma once

#include <string>

namespace kestrix {

class NetworkInfo {
public:
    virtual ~NetworkInfo() = default;
    // Hardware address of the first real, up, non-loopback Ethernet adapter as six two-digit
    // upper-case hexadecimal groups joined by "-" ("00-1A-2B-3C-4D-5E"); empty when none.
    virtual std::string firstAdapterAddress() = 0;
};

}  // namespace kestrix
