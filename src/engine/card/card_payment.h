#pragma once

namespace kestrix {

class Setup;

// Card payment through the payment library, vouchers and the pin pad test. Placeholder until
// the card payment lands.
class CardPayment {
public:
    explicit CardPayment(Setup& setup) : m_setup(setup) {}
    // Equipment initialisation's pin pad query: fills the pin pad fields and "On Line".
    void queryPinPad() {}
    void enablePaymentCC_Click() {}
    void clickTimer_Timer() {}
    void ccTimer_Timer() {}
    void ccReadCard_Click() {}
    void ccPrinters_Click() {}

private:
    [[maybe_unused]] Setup& m_setup;
};

}  // namespace kestrix
