#pragma once

#include <string>

namespace kestrix {

// A message for the operator with a single OK button. It must not let another engine routine
// run while the caller waits: a console shows it without blocking the engine thread, a headless
// engine writes it to standard error.
class MessageBox {
public:
    virtual ~MessageBox() = default;
    virtual void show(const std::string& text, const std::string& title) = 0;
};

}  // namespace kestrix
