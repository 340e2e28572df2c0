#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "engine/platform/payment_library.h"
#include "engine/platform/settings_store.h"

struct IDispatch;

namespace kestrix::win {

// The kiosk's registered card payment component (cpIntegracionEMV), driven by late-bound COM
// automation: every operation is a call through IDispatch by the name that com_method_map.h
// gives it, so a component whose names differ is adapted in the store, not here.
//
// The component is created on first use, on the calling thread (the engine thread, which is
// made a single-threaded apartment then), and kept until this object is destroyed on that same
// thread. The component pumps the thread's messages while a card read or a sale waits, which is
// what lets the engine's timers run meanwhile.
//
// Failures are thrown as KsxError with the number a Visual Basic client would report: 429 when
// the component cannot be created, 438 when it has no member of the mapped name, the
// component's own error number and text when it raises one (a Visual Basic error raised in it
// by its own number), 13, 449, 450 or 6 for a call the component refuses for its arguments, and
// the failure code itself (a negative number) for anything else.
class ComPaymentLibrary : public PaymentLibrary {
public:
    explicit ComPaymentLibrary(SettingsStore& store);
    ~ComPaymentLibrary() override;
    ComPaymentLibrary(const ComPaymentLibrary&) = delete;
    ComPaymentLibrary& operator=(const ComPaymentLibrary&) = delete;

    PinPadIdentity identify() override;
    void setNumericParameter(const std::string& value) override;
    void setCurrency(const std::string& currency) override;
    void setAmount(const std::string& amount) override;
    std::string readCard() override;
    PinPadErrorDetails errorDetails() override;
    std::string cardNumber() override;
    std::string cardHolder() override;
    void setTextParameter(const std::string& value) override;
    std::string prepareOperation(const std::string& code) override;
    std::string runSale(const SaleRequest& request) override;
    std::string result() override;
    void closeOperation() override;
    void cancelOperation() override;
    std::string displayMessage() override;
    std::string operationNumber() override;
    std::string responseCode() override;
    std::string declineCause() override;
    std::string errorText() override;
    std::string errorCode() override;

private:
    // Runs the operation `key` with its input texts; its text, or "" when it gives none.
    std::string call(std::string_view key, const std::vector<std::string>& inputs = {});
    IDispatch* object();

    SettingsStore& m_store;
    IDispatch* m_object = nullptr;
    bool m_comInitialised = false;
};

}  // namespace kestrix::win
