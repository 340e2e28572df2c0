#include "support.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace kestrix::test {

namespace {
struct Cleanup {
    std::vector<std::filesystem::path> dirs;
    ~Cleanup() {
        std::error_code ec;
        for (const auto& d : dirs) {
            std::filesystem::remove_all(d, ec);
        }
    }
};
Cleanup& cleanup() {
    static Cleanup c;
    return c;
}
}  // namespace

std::string makeTempDir(const std::string& prefix) {
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a temporary directory");
    }
    cleanup().dirs.emplace_back(pattern);
    return pattern;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace kestrix::test
