#pragma once

namespace kestrix {

class Setup;

// The single-cassette bill dispenser on MSComm2. Placeholder until the dispenser lands.
class BillDispenser {
public:
    explicit BillDispenser(Setup& setup) : m_setup(setup) {}
    void initBillDispenser(int& bType) { (void)bType; }
    void statusBillDispenser() {}
    void dispenseBD() {}
    void bdDispenseBills_Click() {}
    void bdDispenserRefill_Click() {}

private:
    [[maybe_unused]] Setup& m_setup;
};

}  // namespace kestrix
