#pragma once

#include <string>

namespace kestrix::test {

// A fresh empty directory under the system's temporary directory, removed at exit.
std::string makeTempDir(const std::string& prefix);

// The whole content of a file; empty when it cannot be read.
std::string readFile(const std::string& path);

}  // namespace kestrix::test
