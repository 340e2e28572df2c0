#include "card_payment.h"

#include "card_number.h"
#include "engine/errors.h"
#include "engine/formulas.h"
#include "engine/settings/layout.h"
#include "engine/setup.h"
#include "voucher.h"

namespace kestrix {

namespace {

constexpr std::string_view kCardCaption = caption::kCreditCard;
constexpr std::string_view kCancelCaption = caption::kCancelPayment;
constexpr std::string_view kReadCaption = "Read Card";
constexpr std::string_view kReadCancelCaption = "Cancel";
constexpr std::string_view kNotAvailable = caption::kNotAvailable;

// What the library is told about the sale. The numeric parameter and the operation code are the
// values the pin pad's acquirer configured for unattended sales; their meaning stays inside the
// library.
constexpr std::string_view kNumericParameter = "50";
constexpr std::string_view kCurrency = "MXN";
constexpr std::string_view kOperationCode = "11";
constexpr std::string_view kTestAmount = "0.01";

constexpr std::string_view kApproved = "approved";
constexpr std::string_view kDenied = "denied";
constexpr std::string_view kError = "error";

// Sets a flag for the life of a scope, so an error escaping a library call cannot leave it set.
class FlagScope {
public:
    explicit FlagScope(bool& flag) : m_flag(flag) { m_flag = true; }
    ~FlagScope() { m_flag = false; }
    FlagScope(const FlagScope&) = delete;
    FlagScope& operator=(const FlagScope&) = delete;

private:
    bool& m_flag;
};

}  // namespace

FieldName CardPayment::pinPadDisplay(int index) {
    // The displays a card payment fills as it goes, cleared at its start so that nothing of the
    // previous payment (a stale "Credit Card Approved" above all) is read as this one's.
    static constexpr FieldName kDisplays[] = {"ccNumTarjeta", "ccTarjetahabiente", "ccPantallaPP",
                                              "dueDisplay",   "creditDisplay",     "statusDisplay"};
    if (index < 1 || index > kPinPadDisplays) {
        throw KsxError(KsxError::kInvalidProcedureCall, "Invalid procedure call or argument");
    }
    return kDisplays[index - 1];
}

std::string CardPayment::pinPadErrorMessage(const PinPadErrorDetails& details) {
    return card::withCardNumbersMasked(details.error + " DescError = " + details.description +
                                       " CodError =  " + details.code + "\n");
}

std::string CardPayment::buildReference(const std::string& adapterAddress,
                                        const LocalDateTime& now) {
    std::string reference;
    for (char ch : adapterAddress) {
        if (ch != '-') {
            reference += ch;
        }
    }
    reference += '_';
    reference += formatTime(now, "%y%m%d%H%M%S");
    return reference;
}

PaymentLibrary& CardPayment::library() {
    return m_setup.platform().paymentLibrary;
}

Console& CardPayment::console() {
    return m_setup.console();
}

void CardPayment::showStatus(std::string text) {
    // Statuses may carry the library's texts (its prompts, its errors) to the host.
    console().setText("statusDisplay", card::withCardNumbersMasked(text));
    m_setup.writeMailbox(store::mailbox::kStatus, console().text("statusDisplay"));
}

void CardPayment::reportError(const std::exception& error) {
    // The console's ordinary report of an error nobody trapped: the error's number and text in a
    // message box, after which the console goes on with whatever state it was left in.
    std::string text;
    if (const auto* ksx = dynamic_cast<const KsxError*>(&error)) {
        text = "Run-time error '" + std::to_string(ksx->number()) + "':\n\n" + ksx->what();
    } else {
        text = error.what();
    }
    m_setup.platform().messageBox.show(text, console().text("Setup"));
}

// --- Card payment -------------------------------------------------------------------------------

void CardPayment::enablePaymentCC_Click() {
    try {
        paymentClick();
    } catch (const std::runtime_error& e) {
        // The payment's state is left as the failing call found it: the caption still reads
        // "Cancel Payment...", so the next click (operator or host) runs the cancel path and
        // the common end.
        reportError(e);
    }
}

void CardPayment::paymentClick() {
    Console& c = console();
    if (m_inSale) {
        // A click while the library runs this payment (it pumps messages while it waits) is the
        // cancel: the library is asked to stop, and the payment then ends once, through its own
        // result handling and common end.
        if (c.text("enablePaymentCC") == kCancelCaption) {
            library().cancelOperation();
        }
        return;
    }
    if (m_inTestRead) {
        // The operator's pin pad test holds the library; a payment cannot share it.
        return;
    }

    c.setEnabled("enablePayment", false);
    c.setEnabled("enablePaymentCC", false);
    const std::optional<Money> amount = requestedAmount(c.text("due"), m_setup.maxAmount());
    if (!(amount && m_dueAmount.isZero())) {
        // Nothing to charge, or a payment that an error left half done: cancel what the library
        // may still hold.
        if (c.text("enablePaymentCC") == kCancelCaption) {
            library().cancelOperation();
        }
        commonEnd();
        return;
    }
    if (!(c.checked("pinPadEnabled") && c.text("enablePaymentCC") == kCardCaption)) {
        commonEnd();
        return;
    }

    for (int i = 1; i <= kPinPadDisplays; ++i) {
        c.setText(pinPadDisplay(i), "");
    }
    ccTimer().setEnabled(true);
    m_dueAmount = *amount;
    m_credit = Money();

    m_reference = m_setup.mailbox(store::mailbox::kReferenceCC);
    const bool ownReference = m_reference.empty();
    if (ownReference) {
        m_reference = buildReference(m_setup.platform().network.firstAdapterAddress(),
                                     m_setup.platform().clock.now());
    }
    journalStart();
    if (ownReference) {
        m_setup.writeMailbox(store::mailbox::kReferenceCC, m_reference);
    }

    c.setText("dueDisplay", "Amount Due: " + m_dueAmount.currency());
    m_setup.writeMailbox(store::mailbox::kDueCC, m_dueAmount.text());
    m_setup.writeMailbox(store::mailbox::kCredit, m_credit.text());
    m_setup.writeMailbox(store::mailbox::kStatus, c.text("statusDisplay"));
    c.setText("creditDisplay", "$0.00");

    c.setText("enablePaymentCC", std::string(kCancelCaption));
    c.setEnabled("enablePaymentCC", true);

    {
        FlagScope inSale(m_inSale);
        runSale();
    }
    commonEnd();
}

void CardPayment::runSale() {
    Console& c = console();
    PaymentLibrary& lib = library();

    lib.setNumericParameter(std::string(kNumericParameter));
    lib.setCurrency(std::string(kCurrency));
    lib.setAmount(m_dueAmount.text());
    c.setText("ccNumTarjeta", std::string(kNotAvailable));
    c.setText("ccTarjetahabiente", std::string(kNotAvailable));
    c.setText("ccPantallaPP", std::string(kNotAvailable));

    const std::string readError = lib.readCard();
    if (!readError.empty()) {
        const PinPadErrorDetails details = lib.errorDetails();
        journalResult("pin pad error: " + details.error + " (code " + details.code + ")", Money());
        c.setText("ccPantallaPP", pinPadErrorMessage(details));
        showStatus("Pin Pad Error");
        m_setup.writeMailbox(store::mailbox::kReferenceCC, "");
        printVoucher(
            [&](Printer& p) { voucher::printPinPadError(p, details.description, details.code); });
        ccTimer().setEnabled(false);
        // The read reached the library: its operation is closed like any other.
        lib.closeOperation();
        return;
    }

    c.setText("ccNumTarjeta", card::maskedCardNumber(lib.cardNumber()));
    m_maskedCard = c.text("ccNumTarjeta");
    c.setText("ccTarjetahabiente", lib.cardHolder());
    lib.setTextParameter("");
    SaleRequest sale;
    sale.user = c.text("ccUser");
    sale.password = c.text("ccPassword");
    sale.company = c.text("ccCompany");
    sale.branch = c.text("ccBranch");
    sale.country = c.text("ccCountry");
    sale.operationText = lib.prepareOperation(std::string(kOperationCode));
    sale.reference = m_reference;
    sale.operationCode = std::string(kOperationCode);
    sale.currency = std::string(kCurrency);
    const std::string voucherText = lib.runSale(sale);

    const std::string result = lib.result();
    const Money due = m_dueAmount;
    if (result == kApproved) {
        journalResult("approved, card " + m_maskedCard, due);
        printVoucher([&](Printer& p) { voucher::printApproved(p, voucherText); });
        c.setText("statusDisplay", "Credit Card Approved");
        m_credit = m_dueAmount;
        c.setText("creditDisplay", m_credit.currency());
        m_setup.writeMailbox(store::mailbox::kCredit, m_credit.text());
        m_setup.writeMailbox(store::mailbox::kStatus, c.text("statusDisplay"));
    } else if (result == kDenied) {
        voucher::DeclinedDetails declined;
        declined.operationNumber = lib.operationNumber();
        declined.reference = m_reference;
        declined.responseCode = lib.responseCode();
        declined.cause = lib.declineCause();
        journalResult("denied, card " + m_maskedCard + ", operation " + declined.operationNumber +
                          ", response " + declined.responseCode + ", cause " + declined.cause,
                      due);
        printVoucher([&](Printer& p) { voucher::printDeclined(p, declined); });
        showStatus("Credit Card Denied");
    } else if (result == kError) {
        const std::string error = lib.errorText();
        const std::string code = lib.errorCode();
        journalResult("error: " + error + " (code " + code + ")", due);
        printVoucher([&](Printer& p) { voucher::printCommunicationError(p, error, code); });
        showStatus("Error: " + error + " Código = " + code);
    } else {
        // Any other text is not a result this engine knows: nothing is shown, printed or
        // credited.
        journalResult("unknown result \"" + result + "\"", due);
    }
    m_setup.writeMailbox(store::mailbox::kReferenceCC, "");
    lib.closeOperation();
}

void CardPayment::journalStart() {
    Journal& journal = m_setup.platform().journal;
    m_paymentId = journal.newPaymentId();
    m_maskedCard.clear();
    m_result.clear();
    JournalEntry row;
    row.kind = journal_kind::kPaymentStart;
    row.paymentId = m_paymentId;
    row.device = "pinpad";
    row.amount = m_dueAmount;
    row.detail = "card";
    // The host asks through "DueCC"; a sale without one is the operator's from the console.
    row.requester =
        leadingNumber(m_setup.mailbox(store::mailbox::kDueCC)) > 0 ? "host" : "operator";
    row.reference = m_reference;
    journal.append(row);
    m_setup.platform().log.info("payment " + std::to_string(m_paymentId) + ": card of " +
                                    m_dueAmount.text() + " asked by the " + row.requester,
                                {"pinpad", m_paymentId});
}

void CardPayment::journalResult(std::string outcome, Money amount) {
    m_result = outcome;
    JournalEntry row;
    row.kind = journal_kind::kCardResult;
    row.paymentId = m_paymentId;
    row.device = "pinpad";
    row.amount = amount;
    row.detail = std::move(outcome);
    row.reference = m_reference;
    m_setup.platform().journal.append(row);
}

void CardPayment::journalEnd() {
    if (m_paymentId == 0) {
        return;  // no sale began
    }
    const std::string status = console().text("statusDisplay");
    JournalEntry row;
    row.kind = journal_kind::kPaymentEnd;
    row.paymentId = m_paymentId;
    row.device = "pinpad";
    row.amount = m_credit;
    row.detail = status;
    row.reference = m_reference;
    m_setup.platform().journal.append(row);
    m_setup.platform().log.info("payment " + std::to_string(m_paymentId) + " ended: " + status +
                                    "; " + (m_result.empty() ? "no result" : m_result),
                                {"pinpad", m_paymentId});
    m_paymentId = 0;
}

void CardPayment::printVoucher(const std::function<void(Printer&)>& print) {
    // A printer that fails must not cost the host the payment's outcome: the error is reported
    // and the result is still shown and written.
    try {
        print(m_setup.platform().printer);
    } catch (const std::runtime_error& e) {
        reportError(e);
    }
}

void CardPayment::commonEnd() {
    Console& c = console();
    journalEnd();
    c.setText("enablePaymentCC", std::string(kCardCaption));
    // The attempt is over whatever its outcome: the host asks again for another try, so the
    // request is cleared rather than left for the monitor to start once more.
    m_dueAmount = Money();
    c.setText("dueDisplay", "Amount Due: " + m_dueAmount.currency());
    m_setup.writeMailbox(store::mailbox::kDueCC, m_dueAmount.text());
    m_setup.writeMailbox(store::mailbox::kReferenceCC, "");
    c.setEnabled("enablePayment", true);
    c.setEnabled("enablePaymentCC", true);
    // While the sale ran, the monitor saw the payment's own "DueCC" and may have armed the click
    // timer; with the `due` box still holding the amount, that tick would charge it again.
    clickTimer().setEnabled(false);
}

CardPayment::CardPayment(Setup& setup)
    : m_setup(setup),
      m_clickTimer(setup.platform().scheduler.createTimer(
          "clickTimer", kClickIntervalMs, false,
          [this] { m_setup.guarded("clickTimer", [this] { clickTimer_Timer(); }); })),
      m_ccTimer(setup.platform().scheduler.createTimer("ccTimer", kWatchIntervalMs, false, [this] {
          m_setup.guarded("ccTimer", [this] { ccTimer_Timer(); });
      })) {}

void CardPayment::clickTimer_Timer() {
    if (m_inTestRead) {
        // The host's request waits (timer left on) until the operator's pin pad test is over.
        return;
    }
    if (!m_inSale) {
        m_setup.enablePaymentCC_Click();
    }
    // During a sale the monitor sees the payment's own "DueCC" and enables this timer again;
    // that is not a new request (and must not be taken for a cancel).
    clickTimer().setEnabled(false);
}

void CardPayment::ccTimer_Timer() {
    Console& c = console();
    try {
        c.setText("ccPantallaPP", card::withCardNumbersMasked(library().displayMessage()));
        if (c.text("enablePaymentCC") == kCancelCaption) {
            showStatus(c.text("ccPantallaPP"));
        }
        m_watchErrorReported = false;
    } catch (const std::runtime_error& e) {
        // Told once, not five times a second, until the library answers again.
        if (!m_watchErrorReported) {
            m_watchErrorReported = true;
            reportError(e);
        }
    }
}

void CardPayment::cancelForExit() {
    if (m_inSale && console().text("enablePaymentCC") == kCancelCaption) {
        try {
            library().cancelOperation();
        } catch (const std::runtime_error& e) {
            m_setup.log().warning(std::string("pin pad: cancel at exit failed: ") + e.what());
        }
    }
}

// --- Pin pad test
// ---------------------------------------------------------------------------------

void CardPayment::ccReadCard_Click() {
    try {
        testRead();
    } catch (const std::runtime_error& e) {
        reportError(e);
    }
}

void CardPayment::testRead() {
    if (m_inSale) {
        // The test would change the amount of the sale the library is running.
        return;
    }
    Console& c = console();
    PaymentLibrary& lib = library();
    ccTimer().setEnabled(true);
    if (c.text("ccReadCard") != kReadCaption) {
        lib.cancelOperation();
        c.setText("ccReadCard", std::string(kReadCaption));
        return;
    }
    if (m_inTestRead) {
        // The cancelled read has not come back from the library yet.
        return;
    }
    c.setText("ccReadCard", std::string(kReadCancelCaption));
    FlagScope inTest(m_inTestRead);
    lib.setCurrency(std::string(kCurrency));
    c.setText("ccNumTarjeta", std::string(kNotAvailable));
    c.setText("ccTarjetahabiente", std::string(kNotAvailable));
    c.setText("ccPantallaPP", std::string(kNotAvailable));
    lib.setAmount(std::string(kTestAmount));
    const std::string readError = lib.readCard();
    if (!readError.empty()) {
        c.setText("ccPantallaPP", pinPadErrorMessage(lib.errorDetails()));
        ccTimer().setEnabled(false);
    } else {
        c.setText("ccNumTarjeta", card::maskedCardNumber(lib.cardNumber()));
        c.setText("ccTarjetahabiente", lib.cardHolder());
    }
    c.setText("ccReadCard", std::string(kReadCaption));
}

// --- Voucher printer ----------------------------------------------------------------------------

void CardPayment::ccPrinters_Click() {
    try {
        m_setup.platform().printer.select(console().text("ccPrinters"));
    } catch (const std::runtime_error& e) {
        reportError(e);
    }
}

}  // namespace kestrix
