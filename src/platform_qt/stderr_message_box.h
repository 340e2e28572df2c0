#pragma once

#include <mutex>

#include "engine/platform/message_box.h"

namespace kestrix::qt {

// The message box of a headless engine: "<title>: <text>" on standard error, one line each,
// never waiting for anyone.
class StderrMessageBox : public MessageBox {
public:
    void show(const std::string& text, const std::string& title) override;

private:
    std::mutex m_mutex;
};

}  // namespace kestrix::qt
