#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/card/card_payment.h"
#include "engine_rig.h"

namespace kestrix {
namespace {

using test::ScriptedPinPad;

// The engine with only the pin pad enabled, loaded and idle.
struct CardWorld : test::EngineRig {
    explicit CardWorld(bool pinPadEnabled = true) {
        for (const store::DeviceSetting& s : store::deviceSettings()) {
            set(s.section, s.key, s.defaultValue);
        }
        set(store::section::kPinPad, "PPE", pinPadEnabled ? "1" : "0");
        set(store::section::kPinPad, "User", "kiosk7");
        set(store::section::kPinPad, "Password", "s3creto");
        EXPECT_TRUE(engine->startUp());
        console().setText("ccCompany", "ACME");
        console().setText("ccBranch", "0042");
        console().setText("ccCountry", "MX");
        pinPad.reset();
        store.clearWrites();
    }

    void host(std::string_view key, std::string_view value) {
        store.set(store::kApp, store::section::kStatus, key, value);
    }
    // Values the host saw written to a mailbox key, in order.
    std::vector<std::string> written(std::string_view key) {
        const std::string prefix = "Status/" + std::string(key) + "=";
        std::vector<std::string> values;
        for (const std::string& w : store.writes()) {
            if (w.rfind(prefix, 0) == 0) {
                values.push_back(w.substr(prefix.size()));
            }
        }
        return values;
    }
    // Runs until the card payment the host asked for has ended ("DueCC" back to "0").
    void runPayment() {
        ASSERT_TRUE(scheduler.runUntil([&] { return mailbox("DueCC") == "0"; }, 120));
    }
    // Runs `action` once, `seconds` from now, on the engine's loop (also inside a library call
    // that pumps it).
    void at(double seconds, std::function<void()> action) {
        auto fired = std::make_shared<bool>(false);
        probes.push_back(scheduler.createTimer("probe", static_cast<int>(seconds * 1000), true,
                                               [this, fired, action] {
                                                   if (!*fired) {
                                                       *fired = true;
                                                       action();
                                                   }
                                               }));
    }
    std::vector<std::unique_ptr<Timer>> probes;
    const std::vector<sim::RecordingPrinter::Document>& vouchers() { return printer.documents(); }
    // Store writes other than the monitor's idle clearing of "Cancel" and its heartbeat.
    std::vector<std::string> engineWrites() {
        std::vector<std::string> out;
        for (const std::string& w : store.writes()) {
            if (w != "Status/Cancel=" && w.rfind("Status/Engine=", 0) != 0) {
                out.push_back(w);
            }
        }
        return out;
    }
};

TEST(CardPayment, HostRequestApprovedCreditsTheAmountAndClearsTheRequest) {
    CardWorld w;
    w.host("DueCC", "25");
    w.runPayment();

    const std::vector<std::string> expected = {"setNumericParameter 50",
                                               "setCurrency MXN",
                                               "setAmount 25",
                                               "readCard",
                                               "cardNumber",
                                               "cardHolder",
                                               "setTextParameter ",
                                               "prepareOperation 11",
                                               "runSale",
                                               "result",
                                               "closeOperation"};
    EXPECT_EQ(w.pinPad.calls, expected);
    ASSERT_EQ(w.pinPad.sales.size(), 1u);
    const SaleRequest& sale = w.pinPad.sales[0];
    EXPECT_EQ(sale.user, "kiosk7");
    EXPECT_EQ(sale.password, "s3creto");
    EXPECT_EQ(sale.company, "ACME");
    EXPECT_EQ(sale.branch, "0042");
    EXPECT_EQ(sale.country, "MX");
    EXPECT_EQ(sale.operationText, "OP-TEXT");
    EXPECT_EQ(sale.operationCode, "11");
    EXPECT_EQ(sale.currency, "MXN");
    // The adapter's address, then the date and time the payment started.
    EXPECT_EQ(sale.reference, "001A2B3C4D5E_260314090000");
    EXPECT_EQ(w.written("ReferenceCC").front(), sale.reference);

    EXPECT_EQ(w.mailbox("Credit"), "25");
    EXPECT_EQ(w.mailbox("Status"), "Credit Card Approved");
    EXPECT_EQ(w.mailbox("DueCC"), "0");
    EXPECT_EQ(w.mailbox("ReferenceCC"), "");
    EXPECT_EQ(w.written("DueCC").front(), "25");
    Console& c = w.console();
    EXPECT_EQ(c.text("statusDisplay"), "Credit Card Approved");
    EXPECT_EQ(c.text("creditDisplay"), "$25.00");
    EXPECT_EQ(c.text("dueDisplay"), "Amount Due: $0.00");
    EXPECT_EQ(c.text("ccNumTarjeta"), "************1111");
    EXPECT_EQ(c.text("ccTarjetahabiente"), "JUAN PEREZ");
    EXPECT_TRUE(c.enabled("enablePayment"));
    EXPECT_TRUE(c.enabled("enablePaymentCC"));
    ASSERT_EQ(w.vouchers().size(), 1u);
    // The markers take their blanks with them.
    EXPECT_EQ(w.vouchers()[0].front().text, "VENTAAPROBADA25.00");

    // The amount stays in the `due` box, but the request is spent: no second charge follows.
    w.scheduler.runFor(10);
    EXPECT_EQ(w.pinPad.sales.size(), 1u);
    EXPECT_EQ(w.mailbox("Status"), "Credit Card Approved");
    EXPECT_TRUE(w.engine->ccTimer().enabled()) << "the watch keeps reading the pin pad";
}

TEST(CardPayment, HostReferenceIsUsedAsItStandsAndClearedAtTheEnd) {
    CardWorld w;
    w.pinPad.saleResult = "denied";
    w.host("ReferenceCC", "POS-0001/ñ");
    w.host("DueCC", "7");
    w.store.clearWrites();
    w.runPayment();
    ASSERT_EQ(w.pinPad.sales.size(), 1u);
    EXPECT_EQ(w.pinPad.sales[0].reference, "POS-0001/ñ");
    EXPECT_EQ(w.mailbox("ReferenceCC"), "");
    for (const std::string& v : w.written("ReferenceCC")) {
        EXPECT_EQ(v, "") << "the host's reference is never replaced by one of ours";
    }
    ASSERT_EQ(w.vouchers().size(), 1u);
    EXPECT_EQ(w.vouchers()[0][17].text, "Referencia : POS-0001/ñ");
    EXPECT_EQ(w.mailbox("Status"), "Credit Card Denied");
}

TEST(CardPayment, PinPadErrorBeforeTheSale) {
    CardWorld w;
    w.pinPad.readError = "PinPad no responde";
    w.host("DueCC", "40");
    w.runPayment();

    const std::vector<std::string> expected = {"setNumericParameter 50", "setCurrency MXN",
                                               "setAmount 40",           "readCard",
                                               "errorDetails",           "closeOperation"};
    EXPECT_EQ(w.pinPad.calls, expected);
    EXPECT_EQ(w.console().text("ccPantallaPP"),
              "Lectura fallida DescError = Tarjeta retirada CodError =  E07\n");
    EXPECT_EQ(w.console().text("statusDisplay"), "Pin Pad Error");
    EXPECT_EQ(w.mailbox("Status"), "Pin Pad Error");
    EXPECT_EQ(w.mailbox("Credit"), "0");
    EXPECT_EQ(w.mailbox("DueCC"), "0");
    EXPECT_EQ(w.mailbox("ReferenceCC"), "");
    EXPECT_FALSE(w.engine->ccTimer().enabled());
    ASSERT_EQ(w.vouchers().size(), 1u);
    const auto& doc = w.vouchers()[0];
    EXPECT_EQ(doc.front().text, "PIN PAD ERROR");
    EXPECT_EQ(doc[18].text, "Error: Tarjeta retirada");
    EXPECT_EQ(doc[19].text, "Código = E07");
}

TEST(CardPayment, NothingToChargeOnlyRunsTheCommonEnd) {
    for (const std::string due : {"0", "", "-5", "abc"}) {
        SCOPED_TRACE(due);
        CardWorld w;
        w.console().setText("due", due);
        w.console().setText("dueDisplay", "Amount Due: $9.00");
        w.engine->operatorClick("enablePaymentCC");
        EXPECT_TRUE(w.pinPad.calls.empty());
        EXPECT_EQ(w.console().text("enablePaymentCC"), "Credit Card");
        EXPECT_EQ(w.console().text("dueDisplay"), "Amount Due: $0.00");
        EXPECT_TRUE(w.console().enabled("enablePayment"));
        EXPECT_TRUE(w.console().enabled("enablePaymentCC"));
        const std::vector<std::string> writes = {"Status/DueCC=0", "Status/ReferenceCC="};
        EXPECT_EQ(w.store.writes(), writes);
        EXPECT_FALSE(w.engine->ccTimer().enabled());
    }
}

TEST(CardPayment, DisabledPinPadMakesNoLibraryCallAndConsumesTheRequest) {
    CardWorld w(false);
    w.host("DueCC", "25");
    w.scheduler.runFor(3);
    EXPECT_TRUE(w.pinPad.calls.empty());
    EXPECT_EQ(w.mailbox("DueCC"), "0");
    EXPECT_EQ(w.mailbox("Credit"), "0");
    EXPECT_EQ(w.console().text("enablePaymentCC"), "Credit Card");
    EXPECT_TRUE(w.vouchers().empty());
}

TEST(CardPayment, WatchMirrorsThePinPadPromptsToTheHostWhileTheSaleRuns) {
    CardWorld w;
    w.pinPad.prompts = {{1, "INSERTE TARJETA"}, {3, "DIGITE NIP"}, {5, "PROCESANDO"}};
    w.host("DueCC", "25");
    w.runPayment();
    std::vector<std::string> distinct;
    for (const std::string& s : w.written("Status")) {
        if (distinct.empty() || distinct.back() != s) {
            distinct.push_back(s);
        }
    }
    const std::vector<std::string> expected = {"",           "BIENVENIDO", "INSERTE TARJETA",
                                               "DIGITE NIP", "PROCESANDO", "Credit Card Approved"};
    EXPECT_EQ(distinct, expected);
    // Once the payment has ended the prompts reach the card tab only.
    w.scheduler.runFor(2);
    EXPECT_EQ(w.mailbox("Status"), "Credit Card Approved");
    EXPECT_EQ(w.console().text("ccPantallaPP"), "BIENVENIDO");
}

TEST(CardPayment, HostCancelDuringTheSaleEndsThePaymentOnce) {
    CardWorld w;
    w.pinPad.saleSeconds = 30;
    w.host("DueCC", "25");
    std::string captionDuringSale;
    w.at(8, [&] {
        captionDuringSale = w.console().text("enablePaymentCC");
        w.host("Cancel", "1");
    });
    w.runPayment();
    w.scheduler.runFor(3);

    EXPECT_EQ(captionDuringSale, "Cancel Payment...");
    EXPECT_EQ(w.console().text("enablePaymentCC"), "Credit Card");
    EXPECT_EQ(w.pinPad.cancels, 1);
    EXPECT_EQ(w.pinPad.count("result"), 1);
    EXPECT_EQ(w.pinPad.count("closeOperation"), 1);
    EXPECT_EQ(w.pinPad.sales.size(), 1u);
    EXPECT_EQ(w.vouchers().size(), 1u);
    EXPECT_EQ(w.mailbox("Cancel"), "");
    EXPECT_EQ(w.mailbox("Status"), "Credit Card Denied");
    EXPECT_EQ(w.mailbox("Credit"), "0");
    EXPECT_EQ(w.mailbox("DueCC"), "0");
    // The common end ran once.
    int ends = 0;
    for (const std::string& v : w.written("DueCC")) {
        ends += v == "0" ? 1 : 0;
    }
    EXPECT_EQ(ends, 1);
    EXPECT_TRUE(w.console().enabled("enablePayment"));
}

TEST(CardPayment, OperatorStartedSaleIsNotCancelledByItsOwnRequestEcho) {
    // The monitor sees the payment's own "DueCC" during the sale and enables clickTimer; that
    // tick must neither cancel the sale nor start another one after it.
    CardWorld w;
    w.console().setText("due", "18");
    w.engine->operatorClick("enablePaymentCC");
    EXPECT_EQ(w.pinPad.cancels, 0);
    EXPECT_EQ(w.mailbox("Status"), "Credit Card Approved");
    w.scheduler.runFor(5);
    EXPECT_EQ(w.pinPad.sales.size(), 1u);
    EXPECT_FALSE(w.engine->clickTimer().enabled());
}

TEST(CardPayment, ComponentErrorIsReportedAndTheNextRequestWindsThePaymentUp) {
    CardWorld w;
    w.pinPad.failingCall = "runSale";
    w.host("DueCC", "25");
    ASSERT_TRUE(w.scheduler.runUntil([&] { return !w.messages.shown().empty(); }, 5));
    EXPECT_EQ(w.messages.shown()[0].text,
              "Run-time error '-2147023170':\n\nThe remote procedure call failed.");
    EXPECT_EQ(w.console().text("enablePaymentCC"), "Cancel Payment...");
    EXPECT_TRUE(w.console().enabled("enablePaymentCC"));
    // The request still stands; its next pickup takes the cancel path and the common end.
    w.scheduler.runFor(3);
    EXPECT_EQ(w.console().text("enablePaymentCC"), "Credit Card");
    EXPECT_EQ(w.mailbox("DueCC"), "0");
    EXPECT_EQ(w.mailbox("Credit"), "0");
    EXPECT_EQ(w.pinPad.count("runSale"), 1);
    EXPECT_EQ(w.pinPad.cancels, 1);
    EXPECT_EQ(w.messages.shown().size(), 1u);
}

TEST(CardPayment, WatchReportsALostLibraryOnce) {
    CardWorld w;
    w.engine->ccTimer().setEnabled(true);
    w.pinPad.failingCall = "displayMessage";
    w.scheduler.runFor(3);
    EXPECT_EQ(w.messages.shown().size(), 1u);
    w.pinPad.failingCall.clear();
    w.scheduler.runFor(1);
    EXPECT_EQ(w.console().text("ccPantallaPP"), "BIENVENIDO");
}

TEST(VoucherPrinter, ChoosingAPrinterOnTheConsoleMakesItCurrent) {
    CardWorld w;
    w.engine->operatorEdit("ccPrinters", "Voucher Printer", 0);
    EXPECT_EQ(w.printer.current(), "Voucher Printer");
    w.engine->operatorEdit("ccPrinters", "Unplugged Printer", 0);
    EXPECT_EQ(w.printer.current(), "Voucher Printer");
}

// --- Pin pad test -------------------------------------------------------------------------------

TEST(PinPadTest, ReadShowsTheCardAndTouchesNeitherMailboxNorPrinter) {
    CardWorld w;
    w.engine->operatorClick("ccReadCard");
    const std::vector<std::string> expected = {"setCurrency MXN", "setAmount 0.01", "readCard",
                                               "cardNumber", "cardHolder"};
    EXPECT_EQ(w.pinPad.calls, expected);
    EXPECT_EQ(w.console().text("ccNumTarjeta"), "************1111");
    EXPECT_EQ(w.console().text("ccTarjetahabiente"), "JUAN PEREZ");
    EXPECT_EQ(w.console().text("ccReadCard"), "Read Card");
    EXPECT_TRUE(w.engine->ccTimer().enabled());
    EXPECT_TRUE(w.engineWrites().empty());
    EXPECT_TRUE(w.vouchers().empty());
}

TEST(PinPadTest, FailedReadShowsTheErrorAndStopsTheWatch) {
    CardWorld w;
    w.pinPad.readError = "E";
    w.engine->operatorClick("ccReadCard");
    EXPECT_EQ(w.console().text("ccPantallaPP"),
              "Lectura fallida DescError = Tarjeta retirada CodError =  E07\n");
    EXPECT_EQ(w.console().text("ccNumTarjeta"), "N/A");
    EXPECT_FALSE(w.engine->ccTimer().enabled());
    EXPECT_EQ(w.console().text("ccReadCard"), "Read Card");
    EXPECT_TRUE(w.engineWrites().empty());
}

TEST(PinPadTest, CancelDuringTheReadRestoresTheButton) {
    CardWorld w;
    w.pinPad.readSeconds = 20;
    std::string captionDuringRead;
    w.at(1, [&] {
        captionDuringRead = w.console().text("ccReadCard");
        w.engine->operatorClick("ccReadCard");
        EXPECT_EQ(w.console().text("ccReadCard"), "Read Card");
        EXPECT_EQ(w.console().text("ccNumTarjeta"), "N/A");
        // A click before the cancelled read has come back from the library starts nothing.
        w.engine->operatorClick("ccReadCard");
    });
    w.engine->operatorClick("ccReadCard");
    EXPECT_EQ(captionDuringRead, "Cancel");
    EXPECT_EQ(w.pinPad.cancels, 1);
    EXPECT_EQ(w.pinPad.count("readCard"), 1);
    EXPECT_EQ(w.console().text("ccReadCard"), "Read Card");
    EXPECT_FALSE(w.engine->card().testReadInProgress());
    EXPECT_TRUE(w.engineWrites().empty());
}

}  // namespace
}  // namespace kestrix
