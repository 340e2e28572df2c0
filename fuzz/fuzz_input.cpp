#include "fuzz_input.h"

#include <cstdio>
#include <cstdlib>

namespace kestrix::fuzz {

void violated(const char* what, std::string_view input) {
    std::fprintf(stderr, "property violated: %s\ninput (%zu bytes):", what, input.size());
    for (char c : input) {
        std::fprintf(stderr, " %02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
    }
    std::fputc('\n', stderr);
    std::abort();
}

}  // namespace kestrix::fuzz
