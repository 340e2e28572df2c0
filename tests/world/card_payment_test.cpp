// The card payment on the simulated kiosk, against the simulated pin pad that kestrix --simulate
// and kestrix-sim ship. (The voucher's wording is the voucher tests'.)

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "engine/card/card_payment.h"
#include "engine/errors.h"
#include "engine/platform/journal.h"
#include "engine/settings/layout.h"
#include "support/kiosk.h"

namespace kestrix {
namespace {

namespace mb = store::mailbox;

// A card number as a real pin pad reads it (the simulator reads a masked one unless told). It
// must never be kept whole.
constexpr std::string_view kFullCardNumber = "4111111111111111";

// The kiosk with only the pin pad enabled, loaded and idle.
struct CardKiosk : test::Kiosk {
    CardKiosk() : test::Kiosk(false) {
        for (const store::DeviceSetting& s : store::deviceSettings()) {
            set(s.section, s.key, s.defaultValue);
        }
        set(store::section::kPinPad, "PPE", "1");
        set(store::section::kPinPad, "User", "kiosk7");
        set(store::section::kPinPad, "Password", "s3creto");
    }
    bool startIdle() {
        const bool started = start();
        store().clearWrites();
        return started;
    }
    void steer(std::string_view key, std::string_view value) {
        set(store::section::kPinPadSimulator, key, value);
    }
    // Runs until the card payment the host asked for has ended ("DueCC" back to "0").
    bool runPayment() {
        return runUntil([&] { return mailbox(mb::kDueCC) == "0"; }, 120);
    }
    // Runs `action` once, `seconds` from now, on the engine's loop (also inside a library call
    // that pumps it).
    void at(double seconds, std::function<void()> action) {
        m_probes.push_back(scheduler().createTimer("probe", static_cast<int>(seconds * 1000), true,
                                                   [this, i = m_probes.size(), action] {
                                                       m_probes[i]->setEnabled(false);
                                                       action();
                                                   }));
    }
    // Store writes other than the monitor's idle clearing of "Cancel" and its heartbeat.
    std::vector<std::string> engineWrites() {
        std::vector<std::string> out;
        for (const std::string& w : store().writes()) {
            if (w != "Status/Cancel=" && !w.starts_with("Status/Engine=")) {
                out.push_back(w);
            }
        }
        return out;
    }

private:
    std::vector<std::unique_ptr<Timer>> m_probes;
};

TEST(CardPayment, OutcomesReachTheHostAndTheJournalWithTheCardMasked) {
    struct Row {
        std::string result;
        std::string status;
        std::string credit;
        bool voucher;
        std::string journalled;  // the start of the card result row's detail
        bool watching;           // the pin pad's display is still read afterwards
    };
    const std::vector<Row> rows = {
        {"approved", "Credit Card Approved", "25", true, "approved, card 411111******1111", true},
        {"denied", "Credit Card Denied", "0", true,
         "denied, card 411111******1111, operation 000001", true},
        {"error", "Error: No answer from the authorisation host Código = E101", "0", true,
         "error: No answer from the authorisation host (code E101)", true},
        {"readerror", "Pin Pad Error", "0", true, "pin pad error: Card read error", false},
        // Not a result the engine knows: nothing shown (the host keeps the last prompt), printed
        // or credited.
        {"timeout", "CONNECTING TO HOST...", "0", false, "unknown result \"timeout\"", true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.result);
        CardKiosk k;
        k.steer("Result", row.result);
        k.steer("CardNumber", kFullCardNumber);
        ASSERT_TRUE(k.startIdle());
        k.hostWrite(mb::kDueCC, "25");
        ASSERT_TRUE(k.runPayment());
        EXPECT_EQ(k.mailbox(mb::kStatus), row.status);
        EXPECT_EQ(k.mailbox(mb::kCredit), row.credit);
        EXPECT_EQ(k.mailbox(mb::kReferenceCC), "");
        EXPECT_EQ(k.engine().card().ccTimer().enabled(), row.watching);
        EXPECT_EQ(k.printer().documents().size(), row.voucher ? 1u : 0u);

        // The sale's rows: started by the host, its result, its end with the status shown.
        std::vector<JournalRecord> sale;
        std::ranges::copy_if(k.journal().records(), std::back_inserter(sale),
                             [](const JournalRecord& r) { return r.paymentId != 0; });
        ASSERT_EQ(sale.size(), 3u);
        EXPECT_EQ(sale[0].kind, journal_kind::kPaymentStart);
        EXPECT_EQ(sale[0].detail, "card");
        EXPECT_EQ(sale[0].requester, "host");
        EXPECT_EQ(sale[0].amount, Money::fromUnits(25));
        EXPECT_FALSE(sale[0].reference.empty());
        EXPECT_EQ(sale[1].kind, journal_kind::kCardResult);
        EXPECT_TRUE(sale[1].detail.starts_with(row.journalled)) << sale[1].detail;
        EXPECT_EQ(sale[2].kind, journal_kind::kPaymentEnd);
        EXPECT_EQ(sale[2].detail, row.status);
        EXPECT_EQ(sale[2].amount.text(), row.credit);

        // The whole number reaches neither the voucher nor the console, the store (but the
        // simulator's steering), the log or the journal.
        std::string everything;
        for (const auto& doc : k.printer().documents()) {
            for (const auto& line : doc) {
                everything += line.text + "\n";
            }
        }
        for (const Field& f : k.console().fields()) {
            everything += f.text + "\n";
        }
        for (const auto& e : k.store().list(store::kApp)) {
            if (e.section != store::section::kPinPadSimulator) {
                everything += e.value + "\n";
            }
        }
        for (const std::string& line : k.log().lines()) {
            everything += line + "\n";
        }
        for (const JournalRecord& r : k.journal().records()) {
            everything += r.detail + r.raw + r.reference + "\n";
        }
        EXPECT_EQ(everything.find(kFullCardNumber), std::string::npos) << everything;
        if (row.result == "approved") {
            EXPECT_EQ(k.text("ccNumTarjeta"), "411111******1111");
            // Once the payment has ended the pin pad's prompts reach the card tab only.
            k.runFor(2);
            EXPECT_EQ(k.text("ccPantallaPP"), sim::SimPinPad::kIdleMessage);
            EXPECT_EQ(k.mailbox(mb::kStatus), row.status);
        } else if (row.result == "readerror") {
            EXPECT_EQ(k.text("ccPantallaPP"),
                      "Card read error DescError = The chip could not be read CodError =  R05\n");
        }
    }
}

TEST(CardPayment, TheSaleCarriesTheAccountAndAReferenceAndIsChargedOnce) {
    for (const std::string hostReference : {"", "POS-0001/ñ"}) {
        SCOPED_TRACE(hostReference);
        CardKiosk k;
        ASSERT_TRUE(k.startIdle());
        if (!hostReference.empty()) {
            k.hostWrite(mb::kReferenceCC, hostReference);
        }
        k.hostWrite(mb::kDueCC, "25");
        k.store().clearWrites();
        ASSERT_TRUE(k.runPayment());

        const SaleRequest& sale = k.pinPad().lastSale();
        EXPECT_EQ(std::tie(sale.user, sale.password, sale.company, sale.branch, sale.country,
                           sale.operationCode, sale.currency),
                  std::tie("kiosk7", "s3creto", k.text("ccCompany"), k.text("ccBranch"),
                           k.text("ccCountry"), "11", "MXN"));
        if (hostReference.empty()) {
            // The adapter's address, then the date and time the payment started.
            EXPECT_TRUE(sale.reference.starts_with("001A2B3C4D5E_2611220900")) << sale.reference;
            EXPECT_EQ(k.written(mb::kReferenceCC).front(), sale.reference);
        } else {
            EXPECT_EQ(sale.reference, hostReference);
            for (const std::string& v : k.written(mb::kReferenceCC)) {
                EXPECT_EQ(v, "") << "the host's reference is never replaced by one of ours";
            }
        }
        EXPECT_EQ(k.mailbox(mb::kReferenceCC), "");

        // The amount stays in the `due` box, but the request is spent: no second charge.
        k.runFor(10);
        EXPECT_EQ(k.pinPad().salesRun(), 1);
        EXPECT_EQ(k.mailbox(mb::kStatus), "Credit Card Approved");
    }
}

TEST(CardPayment, NothingToChargeOrNoPinPadOnlyRunsTheCommonEnd) {
    for (const std::string due : {"0", "", "-5", "abc"}) {
        SCOPED_TRACE(due);
        CardKiosk k;
        ASSERT_TRUE(k.startIdle());
        k.console().setText("due", due);
        k.console().setText("dueDisplay", "Amount Due: $9.00");
        k.engine().operatorClick("enablePaymentCC");
        EXPECT_EQ(k.text("enablePaymentCC"), "Credit Card");
        EXPECT_EQ(k.text("dueDisplay"), "Amount Due: $0.00");
        EXPECT_TRUE(k.console().enabled("enablePayment"));
        EXPECT_EQ(k.engineWrites(),
                  (std::vector<std::string>{"Status/DueCC=0", "Status/ReferenceCC="}));
        EXPECT_EQ(k.pinPad().salesRun(), 0);
        EXPECT_FALSE(k.engine().card().ccTimer().enabled());
    }
    CardKiosk disabled;
    disabled.set(store::section::kPinPad, "PPE", "0");
    ASSERT_TRUE(disabled.startIdle());
    EXPECT_FALSE(disabled.console().enabled("enablePaymentCC"));
    disabled.hostWrite(mb::kDueCC, "25");
    disabled.runFor(3);
    EXPECT_EQ(disabled.mailbox(mb::kDueCC), "0") << "the request is consumed";
    EXPECT_EQ(disabled.mailbox(mb::kCredit), "0");
    EXPECT_EQ(disabled.pinPad().salesRun(), 0);
    EXPECT_TRUE(disabled.printer().documents().empty());
}

TEST(CardPayment, HostCancelDuringTheSaleEndsThePaymentOnce) {
    CardKiosk k;
    k.steer("Seconds", "30");
    ASSERT_TRUE(k.startIdle());
    k.hostWrite(mb::kDueCC, "25");
    std::string captionDuringSale;
    k.at(8, [&] {
        captionDuringSale = k.text("enablePaymentCC");
        k.hostWrite(mb::kCancel, "1");
    });
    ASSERT_TRUE(k.runPayment());
    k.runFor(3);

    EXPECT_EQ(captionDuringSale, "Cancel Payment...");
    EXPECT_EQ(k.pinPad().salesRun(), 1);
    EXPECT_EQ(k.printer().documents().size(), 1u);
    EXPECT_EQ(k.mailbox(mb::kCancel), "");
    EXPECT_EQ(k.mailbox(mb::kStatus), "Credit Card Denied");
    EXPECT_EQ(k.mailbox(mb::kCredit), "0");
    EXPECT_EQ(std::ranges::count(k.written(mb::kDueCC), "0"), 1) << "the common end ran once";
}

TEST(CardPayment, OperatorStartedSaleIsNotCancelledByItsOwnRequestEcho) {
    // The monitor sees the payment's own "DueCC" during the sale and enables clickTimer; that
    // tick must neither cancel the sale nor start another one after it.
    CardKiosk k;
    ASSERT_TRUE(k.startIdle());
    k.console().setText("due", "18");
    k.engine().operatorClick("enablePaymentCC");
    EXPECT_EQ(k.mailbox(mb::kStatus), "Credit Card Approved");
    k.runFor(5);
    EXPECT_EQ(k.pinPad().salesRun(), 1);
    EXPECT_FALSE(k.engine().card().clickTimer().enabled());
}

// The simulated pin pad library, recording the calls of a payment; the chosen call fails as the
// library does when its component goes away.
class WatchedLibrary : public sim::SimPinPad {
public:
    using SimPinPad::SimPinPad;
    std::string failing;  // "runSale" or "displayMessage"
    std::vector<std::string> calls;

    void setAmount(const std::string& amount) override {
        calls.push_back("setAmount " + amount);
        SimPinPad::setAmount(amount);
    }
    std::string readCard() override {
        calls.push_back("readCard");
        return SimPinPad::readCard();
    }
    std::string runSale(const SaleRequest& request) override {
        calls.push_back("runSale");
        fail("runSale");
        return SimPinPad::runSale(request);
    }
    std::string result() override {
        calls.push_back("result");
        return SimPinPad::result();
    }
    void closeOperation() override {
        calls.push_back("closeOperation");
        SimPinPad::closeOperation();
    }
    std::string displayMessage() override {
        fail("displayMessage");
        return SimPinPad::displayMessage();
    }

private:
    void fail(std::string_view call) {
        if (failing == call) {
            throw KsxError(-2147023170, "The remote procedure call failed.", "cpIntegracionEMV");
        }
    }
};

// The amount is set before the card is read, the sale follows the read, and the operation is
// closed once its result is taken. A library that goes away is reported once, and the next
// request winds the payment up.
TEST(CardPayment, TheLibraryIsCalledInThePinPadsOrderAndALostOneIsReportedOnce) {
    CardKiosk k;
    WatchedLibrary library(k.clock(), k.scheduler(), k.store());
    const auto engine = k.engineOn(library);
    ASSERT_TRUE(engine->startUp());
    k.hostWrite(mb::kDueCC, "25");
    ASSERT_TRUE(k.runPayment());
    EXPECT_EQ(library.calls, (std::vector<std::string>{"setAmount 25", "readCard", "runSale",
                                                       "result", "closeOperation"}));

    library.failing = "runSale";
    k.hostWrite(mb::kDueCC, "25");
    ASSERT_TRUE(k.runUntil([&] { return !k.messageBox().shown().empty(); }, 5));
    EXPECT_EQ(k.messageBox().shown()[0].text,
              "Run-time error '-2147023170':\n\nThe remote procedure call failed.");
    EXPECT_EQ(engine->console().text("enablePaymentCC"), "Cancel Payment...");
    // The request still stands; its next pickup takes the cancel path and the common end.
    k.runFor(3);
    EXPECT_EQ(engine->console().text("enablePaymentCC"), "Credit Card");
    EXPECT_EQ(k.mailbox(mb::kDueCC), "0");
    EXPECT_EQ(k.mailbox(mb::kCredit), "0");
    EXPECT_EQ(k.messageBox().shown().size(), 1u);

    // The watch reading a lost library reports it once.
    library.failing = "displayMessage";
    engine->card().ccTimer().setEnabled(true);
    k.runFor(3);
    EXPECT_EQ(k.messageBox().shown().size(), 2u);
    library.failing.clear();
    library.closeOperation();  // the pin pad back at its idle prompt
    k.runFor(1);
    EXPECT_EQ(engine->console().text("ccPantallaPP"), sim::SimPinPad::kIdleMessage);
}

TEST(VoucherPrinter, AnInstalledPrinterChosenOnTheConsoleOrSavedIsCurrent) {
    CardKiosk k;
    ASSERT_TRUE(k.startIdle());
    k.engine().operatorEdit("ccPrinters", "Voucher Printer", 0);
    EXPECT_EQ(k.printer().current(), "Voucher Printer");
    k.engine().operatorEdit("ccPrinters", "Unplugged Printer", 0);
    EXPECT_EQ(k.printer().current(), "Voucher Printer");

    CardKiosk saved;
    saved.set(store::section::kPinPad, "Printer", "Voucher Printer");
    ASSERT_TRUE(saved.startIdle());
    EXPECT_EQ(saved.text("ccPrinters"), "Voucher Printer");
    EXPECT_EQ(saved.printer().current(), "Voucher Printer");
    EXPECT_EQ(saved.console().field("ccPrinters").items.size(), 1u);
}

TEST(PinPadTest, AReadShowsTheCardOrTheErrorAndTouchesNeitherMailboxNorPrinter) {
    for (const bool fails : {false, true}) {
        SCOPED_TRACE(fails ? "failed read" : "read");
        CardKiosk k;
        k.steer("Result", fails ? "readerror" : "approved");
        ASSERT_TRUE(k.startIdle());
        k.engine().operatorClick("ccReadCard");
        EXPECT_EQ(k.text("ccNumTarjeta"), fails ? "N/A" : "************1111");
        EXPECT_EQ(k.text("ccTarjetahabiente"), fails ? "N/A" : "SIMULATED/CARDHOLDER");
        if (fails) {
            EXPECT_EQ(k.text("ccPantallaPP"),
                      "Card read error DescError = The chip could not be read CodError =  R05\n");
        }
        EXPECT_EQ(k.text("ccReadCard"), "Read Card");
        EXPECT_EQ(k.engine().card().ccTimer().enabled(), !fails);
        EXPECT_TRUE(k.engineWrites().empty());
        EXPECT_TRUE(k.printer().documents().empty());
        EXPECT_EQ(k.pinPad().salesRun(), 0);
    }
}

TEST(PinPadTest, CancelDuringTheReadRestoresTheButton) {
    CardKiosk k;
    ASSERT_TRUE(k.startIdle());
    std::string captionDuringRead;
    k.at(0.5, [&] {
        captionDuringRead = k.text("ccReadCard");
        k.engine().operatorClick("ccReadCard");
        EXPECT_EQ(k.text("ccReadCard"), "Read Card");
        EXPECT_EQ(k.text("ccNumTarjeta"), "N/A");
        // A click before the cancelled read has come back from the library starts nothing.
        k.engine().operatorClick("ccReadCard");
    });
    k.engine().operatorClick("ccReadCard");
    EXPECT_EQ(captionDuringRead, "Cancel");
    EXPECT_EQ(k.text("ccReadCard"), "Read Card");
    EXPECT_EQ(k.text("ccNumTarjeta"), "N/A");
    EXPECT_FALSE(k.engine().card().testReadInProgress());
    EXPECT_FALSE(k.pinPad().busy());
    EXPECT_TRUE(k.engineWrites().empty());
}

}  // namespace
}  // namespace kestrix
