#pragma once

#include <string>

namespace kestrix {

// What the pin pad reports about itself; shown on the "Credit Card" tab at initialisation.
struct PinPadIdentity {
    bool online = false;
    std::string emvFull;
    std::string model;
    std::string serialNumber;
    std::string tradeMark;
    std::string versionApp;
    std::string com;
    std::string printer;
    std::string company;
    std::string branch;
    std::string country;
};

// The four detail texts the library gives after a failed card read.
struct PinPadErrorDetails {
    std::string error;        // first text of the operator message
    std::string description;  // shown after " DescError = "
    std::string code;         // shown after " CodError =  "
    std::string extra;        // fourth text; not shown
};

// The account and reference of one sale, in the order the library takes them.
struct SaleRequest {
    std::string user;
    std::string password;
    std::string company;
    std::string branch;
    std::string country;
    std::string operationText;  // the text returned by prepareOperation
    std::string reference;
    std::string operationCode;  // "11"
    std::string currency;       // "MXN"
};

// The closed card payment library that drives the pin pad. One instance per engine; engine
// thread only. The blocking calls (readCard, runSale) pump the engine's event loop while they
// wait, as the real library pumps messages, so the engine's timers keep running.
class PaymentLibrary {
public:
    virtual ~PaymentLibrary() = default;

    // Pin pad query at equipment initialisation.
    virtual PinPadIdentity identify() = 0;

    virtual void setNumericParameter(const std::string& value) = 0;  // "50"
    virtual void setCurrency(const std::string& currency) = 0;       // "MXN"
    virtual void setAmount(const std::string& amount) = 0;
    // Asks for the card; returns an error text, empty when the card was read.
    virtual std::string readCard() = 0;
    virtual PinPadErrorDetails errorDetails() = 0;
    virtual std::string cardNumber() = 0;
    virtual std::string cardHolder() = 0;
    virtual void setTextParameter(const std::string& value) = 0;  // ""
    // Sets up the operation with its code ("11"); returns the text the sale takes.
    virtual std::string prepareOperation(const std::string& code) = 0;
    // Runs the sale; returns when the pin pad transaction has ended. Returns the library's
    // voucher text for an approved sale (with its printer markers).
    virtual std::string runSale(const SaleRequest& request) = 0;
    // "approved", "denied", "error", or any other text the library may give.
    virtual std::string result() = 0;
    virtual void closeOperation() = 0;
    virtual void cancelOperation() = 0;
    virtual std::string displayMessage() = 0;

    // Details for the declined and error vouchers.
    virtual std::string operationNumber() = 0;
    virtual std::string responseCode() = 0;
    virtual std::string declineCause() = 0;
    virtual std::string errorText() = 0;
    virtual std::string errorCode() = 0;
};

}  // namespace kestrix
