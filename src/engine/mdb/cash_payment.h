#pragma once

namespace kestrix {

class Setup;

// Cash payment, poll loop, change payout and bill validator recovery. Placeholder until the
// cash payment lands.
class CashPayment {
public:
    explicit CashPayment(Setup& setup) : m_setup(setup) {}
    void enablePayment_Click() {}
    void pollTimer_Timer() {}
    void DispenseChange(double& amount) { (void)amount; }
    void changeTimer_Timer() {}
    void bvRecovery() {}

private:
    [[maybe_unused]] Setup& m_setup;
};

}  // namespace kestrix
