#pragma once

#include <string>

namespace kestrix {

class Setup;

// The MDB interface adapter link (MSComm1). Placeholder until the link lands.
class MdbLink {
public:
    explicit MdbLink(Setup& setup) : m_setup(setup) {}
    // Builds the prepared frames; called once by the console's load.
    void prepareFrames() {}
    // The MDB part of Exit: resets the changer and the validator (the validator without end).
    void shutDownDevices() {}
    Setup& setup() { return m_setup; }

private:
    Setup& m_setup;
};

}  // namespace kestrix
