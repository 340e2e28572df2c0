#include "timing_trace.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

namespace kestrix::qt::timing {

namespace {

constexpr std::size_t kBufferBytes = 4 << 20;

class Trace {
public:
    Trace() {
        const char* path = std::getenv("KSX_TIMING_TRACE");
        if (path != nullptr && *path != '\0') {
            m_file = std::fopen(path, "w");
            if (m_file != nullptr) {
                // Written out at the end, not while the engine is being timed.
                std::setvbuf(m_file, nullptr, _IOFBF, kBufferBytes);
            }
        }
    }
    ~Trace() {
        if (m_file != nullptr) {
            std::fclose(m_file);
        }
    }
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    bool on() const { return m_file != nullptr; }

    void line(char kind, std::string_view first, std::string_view second) {
        const double t =
            std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
                .count();
        std::string text(second);
        for (char& c : text) {
            if (c == '\n' || c == '\r' || c == '\t') {
                c = ' ';
            }
        }
        std::lock_guard lock(m_mutex);
        std::fprintf(m_file, "%.6f\t%c", t, kind);
        if (!first.empty() || !second.empty()) {
            std::fprintf(m_file, "\t%.*s", static_cast<int>(first.size()), first.data());
        }
        if (!second.empty()) {
            std::fprintf(m_file, "\t%s", text.c_str());
        }
        std::fputc('\n', m_file);
    }

private:
    std::FILE* m_file = nullptr;
    std::mutex m_mutex;
};

Trace& trace() {
    static Trace t;
    return t;
}

}  // namespace

bool enabled() {
    return trace().on();
}

void record(char kind, std::string_view first, std::string_view second) {
    if (trace().on()) {
        trace().line(kind, first, second);
    }
}

void record(char kind, std::string_view first, double number) {
    if (trace().on()) {
        char text[32];
        std::snprintf(text, sizeof text, "%.6f", number);
        trace().line(kind, first, text);
    }
}

}  // namespace kestrix::qt::timing
