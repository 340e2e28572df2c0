#include "fakes.h"

#include <algorithm>

namespace kestrix::sim {

void RecordingPrinter::select(const std::string& name) {
    if (std::find(m_installed.begin(), m_installed.end(), name) != m_installed.end()) {
        m_current = name;
    }
}

}  // namespace kestrix::sim
