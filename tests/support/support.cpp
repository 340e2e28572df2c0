#include "support.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
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

// A random name, made only if nobody has it yet (Windows has no mkdtemp), and the user's alone.
std::string makeTempDir(const std::string& prefix) {
    std::random_device entropy;
    std::mt19937_64 random((static_cast<std::uint64_t>(entropy()) << 32) ^ entropy());
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::filesystem::path dir = std::filesystem::temp_directory_path() /
                                          (prefix + "-" + std::to_string(random() % 1000000000));
        std::error_code ec;
        if (std::filesystem::create_directory(dir, ec)) {
            std::filesystem::permissions(dir, std::filesystem::perms::owner_all, ec);
            cleanup().dirs.push_back(dir);
            return dir.string();
        }
    }
    throw std::runtime_error("cannot create a temporary directory");
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace kestrix::test
