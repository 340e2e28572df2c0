#pragma once

#include <string>

namespace kestrix {

// The process: single-instance check and its command line.
class Instance {
public:
    virtual ~Instance() = default;
    // True when another engine already runs on the same store.
    virtual bool anotherIsRunning() = 0;
    // The command line after the program name, as one text.
    virtual std::string commandLine() const = 0;
};

}  // namespace kestrix
