#pragma once

// The engine on virtual time with no device models behind its ports: a scripted pin pad library
// that records its calls, a recording message box and printer, and the store as the host sees it.

#include <memory>
#include <string>
#include <vector>

#include "engine/errors.h"
#include "engine/settings/layout.h"
#include "engine/setup.h"
#include "sim/world/fakes.h"
#include "sim/world/memory_store.h"
#include "sim/world/virtual_serial_port.h"
#include "sim/world/virtual_time.h"

namespace kestrix::test {

// A pin pad library driven by a script. The card read and the sale take virtual time and pump
// the engine's loop while they wait, as the real library pumps messages; a cancel ends either
// wait early.
class ScriptedPinPad : public PaymentLibrary {
public:
    explicit ScriptedPinPad(sim::VirtualScheduler& scheduler) : m_scheduler(scheduler) {}

    // The script.
    double readSeconds = 2;
    double saleSeconds = 6;
    std::string readError;  // non-empty: the card read fails
    PinPadErrorDetails details{"Lectura fallida", "Tarjeta retirada", "E07", "x"};
    std::string saleResult = "approved";
    std::string resultAfterCancel = "denied";
    std::string voucherText = "VENTA @cnb APROBADA @br 25.00 @b";
    std::vector<std::pair<double, std::string>> prompts;  // seconds into the sale, display text
    std::string failingCall;                              // this call throws a component error

    // What happened.
    std::vector<std::string> calls;
    std::vector<SaleRequest> sales;
    int cancels = 0;

    PinPadIdentity identify() override {
        call("identify");
        PinPadIdentity id;
        id.online = true;
        id.company = "ACME";
        id.branch = "0042";
        id.country = "MX";
        return id;
    }
    void setNumericParameter(const std::string& v) override { call("setNumericParameter " + v); }
    void setCurrency(const std::string& v) override { call("setCurrency " + v); }
    void setAmount(const std::string& v) override { call("setAmount " + v); }
    std::string readCard() override {
        call("readCard");
        pump(readSeconds);
        return m_cancelled ? "Operacion cancelada" : readError;
    }
    PinPadErrorDetails errorDetails() override { return call("errorDetails"), details; }
    std::string cardNumber() override { return call("cardNumber"), "************1111"; }
    std::string cardHolder() override { return call("cardHolder"), "JUAN PEREZ"; }
    void setTextParameter(const std::string& v) override { call("setTextParameter " + v); }
    std::string prepareOperation(const std::string& code) override {
        return call("prepareOperation " + code), "OP-TEXT";
    }
    std::string runSale(const SaleRequest& request) override {
        call("runSale");
        sales.push_back(request);
        m_saleStart = m_scheduler.clock().elapsed();
        m_inSale = true;
        pump(saleSeconds);
        m_inSale = false;
        return voucherText;
    }
    std::string result() override {
        return call("result"), m_cancelled ? resultAfterCancel : saleResult;
    }
    void closeOperation() override { call("closeOperation"); }
    void cancelOperation() override {
        call("cancelOperation");
        ++cancels;
        m_cancelled = true;
    }
    std::string displayMessage() override {
        if (failingCall == "displayMessage") {
            throw KsxError(-2147023170, "The remote procedure call failed.", "cpIntegracionEMV");
        }
        std::string shown = "BIENVENIDO";
        const double into = m_scheduler.clock().elapsed() - m_saleStart;
        for (const auto& [at, text] : prompts) {
            if (m_inSale && into >= at) {
                shown = text;
            }
        }
        return shown;
    }
    std::string operationNumber() override { return call("operationNumber"), "000123"; }
    std::string responseCode() override { return call("responseCode"), "05"; }
    std::string declineCause() override { return call("declineCause"), "FONDOS INSUFICIENTES"; }
    std::string errorText() override { return call("errorText"), "Sin respuesta del host"; }
    std::string errorCode() override { return call("errorCode"), "T01"; }

    void reset() {
        calls.clear();
        m_cancelled = false;
    }
    int count(const std::string& name) const {
        int n = 0;
        for (const std::string& c : calls) {
            n += c.rfind(name, 0) == 0 ? 1 : 0;
        }
        return n;
    }

private:
    void call(const std::string& what) {
        calls.push_back(what);
        if (!failingCall.empty() && what.rfind(failingCall, 0) == 0) {
            throw KsxError(-2147023170, "The remote procedure call failed.", "cpIntegracionEMV");
        }
    }
    void pump(double seconds) {
        const double end = m_scheduler.clock().elapsed() + seconds;
        m_scheduler.yieldUntil([&] { return m_cancelled || m_scheduler.clock().elapsed() >= end; });
    }

    sim::VirtualScheduler& m_scheduler;
    bool m_cancelled = false;
    bool m_inSale = false;
    double m_saleStart = 0;
};

// The engine, not yet loaded.
struct EngineRig {
    sim::VirtualClock clock{9 * 3600.0, {2026, 3, 14, 0, 0, 0}};
    sim::VirtualScheduler scheduler{clock};
    sim::MemoryStore store;
    sim::RecordingMessageBox messages;
    sim::RecordingPrinter printer{{"Front Printer", "Voucher Printer"}};
    sim::FixedNetworkInfo network{"00-1A-2B-3C-4D-5E"};
    sim::FixedInstance instance;
    sim::RecordingLog log;
    ScriptedPinPad pinPad{scheduler};
    sim::VirtualSerialPort mdb{clock, "MSComm1"};
    sim::VirtualSerialPort dispenser{clock, "MSComm2"};
    sim::VirtualSerialPort hoppers{clock, "MSComm3"};
    std::unique_ptr<Setup> engine;

    EngineRig() {
        clock.setDeadline(3600);
        engine = std::make_unique<Setup>(Platform{clock, scheduler, store, messages, printer,
                                                  network, instance, pinPad, mdb, dispenser,
                                                  hoppers, nullJournal(), log});
    }
    Console& console() { return engine->console(); }
    std::string get(std::string_view section, std::string_view key) {
        return store.get(store::kApp, section, key, "<missing>");
    }
    void set(std::string_view section, std::string_view key, std::string_view value) {
        store.set(store::kApp, section, key, value);
    }
    std::string mailbox(std::string_view key) { return get(store::section::kStatus, key); }
};

}  // namespace kestrix::test
