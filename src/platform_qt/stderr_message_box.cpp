#include "stderr_message_box.h"

#include <cstdio>

namespace kestrix::qt {

void StderrMessageBox::show(const std::string& text, const std::string& title) {
    std::lock_guard lock(m_mutex);
    std::fprintf(stderr, "%s: %s\n", title.c_str(), text.c_str());
    std::fflush(stderr);
}

}  // namespace kestrix::qt
