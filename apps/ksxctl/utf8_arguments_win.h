#pragma once

#include <string>
#include <vector>

namespace ksxctl {

// Windows hands a program's arguments to main() in the ANSI code page, which cannot hold every
// character, while the store takes UTF-8: the arguments as UTF-8, from the UTF-16 command line.
// Also switches the console to UTF-8, so values print as they are stored. Windows only.
std::vector<std::string> utf8Arguments();

}  // namespace ksxctl
