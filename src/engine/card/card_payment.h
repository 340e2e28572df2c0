#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>

#include "engine/console_fields.h"
#include "engine/money.h"
#include "engine/platform/clock.h"
#include "engine/platform/payment_library.h"
#include "engine/platform/printer.h"
#include "engine/platform/scheduler.h"

namespace kestrix {

class Console;
class Setup;

// Card payment through the payment library, its vouchers and the pin pad test. The library
// blocks in the card read and the sale while it pumps the engine's event loop, so the watch
// (`ccTimer`), the monitor and the operator's clicks run inside those calls; the flags below
// keep such a nested click from starting a second use of the library.
class CardPayment {
public:
    // How often the host's card request is looked at (`clickTimer`) and the pin pad's display
    // is read while a card is used (`ccTimer`).
    static constexpr int kClickIntervalMs = 200;
    static constexpr int kWatchIntervalMs = 200;

    explicit CardPayment(Setup& setup);
    // Equipment initialisation's pin pad query: fills the pin pad fields and "On Line".
    void queryPinPad();
    void enablePaymentCC_Click();
    // Starts the host's card payment, once no operator's test read holds the library.
    void clickTimer_Timer();
    // The watch on the pin pad while a card is read or sold.
    void ccTimer_Timer();
    Timer& clickTimer() { return *m_clickTimer; }
    Timer& ccTimer() { return *m_ccTimer; }
    void ccReadCard_Click();
    void ccPrinters_Click();

    // Exit: a sale in progress is asked to stop (the library ends it as denied).
    void cancelForExit();
    bool testReadInProgress() const { return m_inTestRead; }

    // The six displays the start of a payment clears, by index 1..6.
    static constexpr int kPinPadDisplays = 6;
    static FieldName pinPadDisplay(int index);
    // What `ccPantallaPP` shows when the pin pad cannot read a card.
    static std::string pinPadErrorMessage(const PinPadErrorDetails& details);
    // The transaction reference: the adapter's address without its "-", "_", yymmdd, hhmmss.
    static std::string buildReference(const std::string& adapterAddress, const LocalDateTime& now);

private:
    void paymentClick();
    void runSale();
    void commonEnd();
    void testRead();
    void showStatus(std::string text);
    void printVoucher(const std::function<void(Printer&)>& print);
    // The console's ordinary report of an error a call raised: a library or printer failure
    // (a run-time error). A logic error goes on to the engine's guard.
    void reportError(const std::exception& error);
    // The sale's rows in the money journal.
    void journalStart();
    void journalResult(std::string outcome, Money amount);
    void journalEnd();
    PaymentLibrary& library();
    Console& console();

    Setup& m_setup;
    Money m_dueAmount;
    Money m_credit;
    std::string m_reference;
    bool m_inSale = false;      // the library is running this payment's read or sale
    bool m_inTestRead = false;  // the library is running the operator's test read
    bool m_watchErrorReported = false;
    std::int64_t m_paymentId = 0;  // the sale's journal id while it runs
    std::string m_maskedCard;      // the card read, masked
    std::string m_result;          // the sale's result as journalled
    std::unique_ptr<Timer> m_clickTimer;
    std::unique_ptr<Timer> m_ccTimer;
};

}  // namespace kestrix
