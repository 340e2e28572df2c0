// Runs a fuzz target over saved inputs, without libFuzzer: each argument is a file or a directory
// of files. The normal build (any compiler) replays the committed corpora this way as a test, so
// an input that once crashed a parser keeps being checked without a fuzzing toolchain.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

bool replay(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.string().c_str());
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    // A copy of exactly the input's size, so that a read past its end is caught by a sanitizer.
    std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
    return true;
}

}  // namespace

int main(int argc, char* argv[]) {
    int inputs = 0;
    bool ok = true;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path arg(argv[i]);
        if (std::filesystem::is_directory(arg)) {
            for (const auto& entry : std::filesystem::directory_iterator(arg)) {
                if (entry.is_regular_file()) {
                    ok = replay(entry.path()) && ok;
                    ++inputs;
                }
            }
        } else {
            ok = replay(arg) && ok;
            ++inputs;
        }
    }
    std::printf("replayed %d inputs\n", inputs);
    return ok && inputs > 0 ? 0 : 1;
}
