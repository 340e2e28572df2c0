#pragma once

#include <string>

namespace kestrix::test {

// A fresh empty directory under the system's temporary directory, removed at exit.
std::string makeTempDir(const std::string& prefix);

}  // namespace kestrix::test
