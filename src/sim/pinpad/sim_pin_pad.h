#pragma once

#include <memory>
#include <string>
#include <vector>

#include "engine/platform/clock.h"
#include "engine/platform/payment_library.h"
#include "engine/platform/scheduler.h"
#include "engine/platform/settings_store.h"
#include "sim/sim_device.h"

namespace kestrix::sim {

// A simulated pin pad behind the card payment library's operations.
//
// The outcome is steered through the settings store, section "Pin Pad Simulator", read at the
// start of each card read and each sale:
//   "Result"      "approved" (default), "denied", "error", "readerror" (the card read fails);
//                 any other text is handed back by result() as it stands
//   "Seconds"     how long a sale lasts (default 4; 0 to 600)
//   "CardNumber"  the masked card number read (default "************1111")
//   "CardHolder"  the card holder read (default "SIMULATED/CARDHOLDER")
//
// The card read and the sale block like the real library, but they wait on the engine's event
// loop (Scheduler::yieldUntil) so the engine's timers keep running and can read the changing
// display messages. cancelOperation() ends a running read or sale within a fraction of a
// second; a cancelled sale is declined ("denied", decline cause "CANCELLED").
//
// Fault switches: offline (identify() reports the pin pad off line and card reads fail).
class SimPinPad : public PaymentLibrary, public SimDevice {
public:
    SimPinPad(Clock& clock, Scheduler& scheduler, SettingsStore& store);
    ~SimPinPad() override;

    PinPadIdentity identify() override;
    void setNumericParameter(const std::string& value) override { m_numeric = value; }
    void setCurrency(const std::string& currency) override { m_currency = currency; }
    void setAmount(const std::string& amount) override { m_amount = amount; }
    std::string readCard() override;
    PinPadErrorDetails errorDetails() override { return m_errorDetails; }
    std::string cardNumber() override { return m_cardNumber; }
    std::string cardHolder() override { return m_cardHolder; }
    void setTextParameter(const std::string& value) override { m_textParameter = value; }
    std::string prepareOperation(const std::string& code) override;
    std::string runSale(const SaleRequest& request) override;
    std::string result() override { return m_result; }
    void closeOperation() override;
    void cancelOperation() override;
    std::string displayMessage() override { return m_message; }
    std::string operationNumber() override { return m_operationNumber; }
    std::string responseCode() override { return m_responseCode; }
    std::string declineCause() override { return m_declineCause; }
    std::string errorText() override { return m_errorText; }
    std::string errorCode() override { return m_errorCode; }

    void powerCycle(double now) override;
    nlohmann::ordered_json state() const override;

    bool busy() const { return m_busy; }
    int salesRun() const { return m_sales; }
    // The last sale's request, as the library received it.
    const SaleRequest& lastSale() const { return m_lastSale; }

    static constexpr const char* kIdleMessage = "WELCOME";
    // How long the customer takes: presenting the card, then its reading; a sale's own time
    // ("Seconds") is shared between the PIN, the processing and the host's answer.
    static constexpr double kPresentCardSeconds = 1.0;
    static constexpr double kReadCardSeconds = 0.5;
    static constexpr double kEnterPinShare = 0.3;
    static constexpr double kProcessingShare = 0.3;
    static constexpr double kHostShare = 0.4;
    // The pin pad's waits of one card read and sale of `saleSeconds`, in order.
    static std::vector<double> waitsOfASale(double saleSeconds) {
        return {kPresentCardSeconds, kReadCardSeconds, saleSeconds * kEnterPinShare,
                saleSeconds * kProcessingShare, saleSeconds * kHostShare};
    }

private:
    struct Steering {
        std::string result;
        double seconds;
        std::string cardNumber;
        std::string cardHolder;
    };
    Steering readSteering();
    // Shows `message` and waits `seconds` on the engine's event loop; false when cancelled.
    bool show(const std::string& message, double seconds);
    double elapsedSince(double start) const;

    Clock& m_clock;
    Scheduler& m_scheduler;
    SettingsStore& m_store;
    std::unique_ptr<Timer> m_tick;

    std::string m_numeric;
    std::string m_currency;
    std::string m_amount;
    std::string m_textParameter;
    std::string m_message = kIdleMessage;
    std::string m_cardNumber;
    std::string m_cardHolder;
    PinPadErrorDetails m_errorDetails;
    std::string m_result;
    std::string m_operationNumber;
    std::string m_responseCode;
    std::string m_declineCause;
    std::string m_errorText;
    std::string m_errorCode;
    SaleRequest m_lastSale;
    bool m_busy = false;
    bool m_cancel = false;
    int m_sales = 0;
    int m_nextOperation = 1;
};

}  // namespace kestrix::sim
