#pragma once

namespace kestrix {

class Setup;

// The two coin hoppers behind the hoppers interface on MSComm3. Placeholder until they land.
class Hoppers {
public:
    explicit Hoppers(Setup& setup) : m_setup(setup) {}
    void hDispenseCoins_Click() {}

private:
    [[maybe_unused]] Setup& m_setup;
};

}  // namespace kestrix
