#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "engine/settings/layout.h"
#include "engine/setup.h"
#include "sim/pinpad/sim_pin_pad.h"
#include "sim/world/fakes.h"
#include "sim/world/memory_store.h"
#include "sim/world/virtual_serial_port.h"
#include "sim/world/virtual_time.h"

// The card payment against the simulated pin pad that kestrix --simulate and kestrix-sim ship:
// the engine and the model must agree on the calls, the texts and the timing.
namespace kestrix {
namespace {

struct SimCardKiosk {
    sim::VirtualClock clock;
    sim::VirtualScheduler scheduler{clock};
    sim::MemoryStore store;
    sim::RecordingMessageBox messages;
    sim::RecordingPrinter printer;
    sim::FixedNetworkInfo network;
    sim::FixedInstance instance;
    sim::SimPinPad pinPad{clock, scheduler, store};
    sim::VirtualSerialPort mdb{clock, "MSComm1"};
    sim::VirtualSerialPort dispenser{clock, "MSComm2"};
    sim::VirtualSerialPort hoppers{clock, "MSComm3"};
    std::unique_ptr<Setup> engine;

    SimCardKiosk() {
        clock.setDeadline(3600);
        for (const store::DeviceSetting& s : store::deviceSettings()) {
            store.set(store::kApp, s.section, s.key, s.defaultValue);
        }
        store.set(store::kApp, store::section::kPinPad, "PPE", "1");
        engine =
            std::make_unique<Setup>(Platform{clock, scheduler, store, messages, printer, network,
                                             instance, pinPad, mdb, dispenser, hoppers});
        EXPECT_TRUE(engine->startUp());
    }
    void steer(std::string_view key, std::string_view value) {
        store.set(store::kApp, store::section::kPinPadSimulator, key, value);
    }
    std::string mailbox(std::string_view key) {
        return store.get(store::kApp, store::section::kStatus, key, "<missing>");
    }
    void pay(std::string_view amount) {
        store.set(store::kApp, store::section::kStatus, store::mailbox::kDueCC, amount);
        ASSERT_TRUE(scheduler.runUntil([&] { return mailbox("DueCC") == "0"; }, 120));
    }
};

TEST(SimulatedPinPad, OnLineAfterTheQuery) {
    SimCardKiosk k;
    EXPECT_EQ(k.engine->console().text("ccOnLine"), "Yes");
    EXPECT_EQ(k.engine->console().text("ccCompany"), "0001");
}

TEST(SimulatedPinPad, OutcomesReachTheHost) {
    struct Row {
        std::string result;
        std::string status;
        std::string credit;
        std::string voucherStart;
    };
    const std::vector<Row> rows = {
        {"approved", "Credit Card Approved", "25", "KESTRIX SIMULATED ACQUIRER"},
        {"denied", "Credit Card Denied", "0", "Tarjeta Declinada"},
        {"error", "Error: No answer from the authorisation host Código = E101", "0",
         "ERROR DE COMUNICACIÓN"},
        {"readerror", "Pin Pad Error", "0", "PIN PAD ERROR"},
        // Not a result the engine knows: nothing shown (the host keeps the last prompt), printed
        // or credited.
        {"timeout", "CONNECTING TO HOST...", "0", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.result);
        SimCardKiosk k;
        k.steer("Result", row.result);
        k.pay("25");
        EXPECT_EQ(k.mailbox("Status"), row.status);
        EXPECT_EQ(k.mailbox("Credit"), row.credit);
        EXPECT_EQ(k.mailbox("ReferenceCC"), "");
        EXPECT_EQ(k.mailbox("DueCC"), "0");
        if (row.voucherStart.empty()) {
            EXPECT_TRUE(k.printer.documents().empty());
            continue;
        }
        ASSERT_EQ(k.printer.documents().size(), 1u);
        const std::string& first = k.printer.documents()[0].front().text;
        EXPECT_EQ(first.rfind(row.voucherStart, 0), 0u) << first;
        EXPECT_EQ(first.find('@'), std::string::npos);
    }
}

}  // namespace
}  // namespace kestrix
