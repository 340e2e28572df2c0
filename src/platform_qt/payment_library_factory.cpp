#include "payment_library_factory.h"

#include <algorithm>
#include <cctype>
#include <string>

#include "engine/errors.h"
#include "engine/settings/layout.h"
#include "sim/pinpad/sim_pin_pad.h"

#ifdef _WIN32
#include "platform_win/com_payment_library_win.h"
#endif

namespace kestrix::qt {

namespace {

constexpr int kCannotCreateObject = 429;

// Stands in for a library that cannot be had: every operation fails with the same error, which
// the engine handles like any failing library (pin pad off line, payment error reported).
class UnavailableLibrary : public PaymentLibrary {
public:
    explicit UnavailableLibrary(std::string why) : m_why(std::move(why)) {}

    PinPadIdentity identify() override { fail(); }
    void setNumericParameter(const std::string&) override { fail(); }
    void setCurrency(const std::string&) override { fail(); }
    void setAmount(const std::string&) override { fail(); }
    std::string readCard() override { fail(); }
    PinPadErrorDetails errorDetails() override { fail(); }
    std::string cardNumber() override { fail(); }
    std::string cardHolder() override { fail(); }
    void setTextParameter(const std::string&) override { fail(); }
    std::string prepareOperation(const std::string&) override { fail(); }
    std::string runSale(const SaleRequest&) override { fail(); }
    std::string result() override { fail(); }
    void closeOperation() override { fail(); }
    void cancelOperation() override { fail(); }
    std::string displayMessage() override { fail(); }
    std::string operationNumber() override { fail(); }
    std::string responseCode() override { fail(); }
    std::string declineCause() override { fail(); }
    std::string errorText() override { fail(); }
    std::string errorCode() override { fail(); }

private:
    [[noreturn]] void fail() const {
        throw KsxError(kCannotCreateObject, "ActiveX component can't create object (" + m_why + ")",
                       "cpIntegracionEMV");
    }
    std::string m_why;
};

std::string normalised(std::string s) {
    const auto notSpace = [](unsigned char c) { return !std::isspace(c); };
    s.erase(s.begin(), std::find_if(s.begin(), s.end(), notSpace));
    s.erase(std::find_if(s.rbegin(), s.rend(), notSpace).base(), s.end());
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

}  // namespace

std::unique_ptr<PaymentLibrary> makePaymentLibrary(SettingsStore& store, Clock& clock,
                                                   Scheduler& scheduler) {
    const std::string raw =
        store.get(store::kApp, store::section::kPinPad, store::key::kLibrary, "");
    const std::string choice = normalised(raw);
    if (choice == "simulated") {
        return std::make_unique<sim::SimPinPad>(clock, scheduler, store);
    }
    // A kiosk set up by hand often has no "Library" key at all: it gets the real library, so a
    // missing setting can never turn card payments into simulated approvals.
    if (choice.empty() || choice == "com") {
#ifdef _WIN32
        return std::make_unique<win::ComPaymentLibrary>(store);
#else
        return std::make_unique<UnavailableLibrary>(
            "the COM payment library exists on Windows only");
#endif
    }
    return std::make_unique<UnavailableLibrary>("unknown pin pad library \"" + raw +
                                                "\" in Pin Pad/Library");
}

}  // namespace kestrix::qt
