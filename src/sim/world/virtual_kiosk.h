#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "engine/setup.h"
#include "sim/kiosk_models.h"
#include "sim/pinpad/sim_pin_pad.h"
#include "sim/profile.h"
#include "sim/seed.h"
#include "sim/world/fakes.h"
#include "sim/world/memory_store.h"
#include "sim/world/virtual_serial_port.h"
#include "sim/world/virtual_time.h"

namespace kestrix::sim {

// A whole kiosk in virtual time: the engine's platform (clock, scheduler, store, message box,
// printer, network, instance), the simulated pin pad, every device model, and the three serial
// ports wired to them at port numbers 1 (MDB adapter), 2 (bill dispenser) and 3 (hoppers).
// Time moves only when the engine waits, so hours of kiosk life run in a moment; a deadline
// (4 hours of virtual time unless changed) ends any wait that would last for ever with
// VirtualDeadline.
class VirtualKiosk {
public:
    static constexpr double kDefaultDeadlineSeconds = 4 * 3600.0;
    static constexpr PortNumbers kPorts{1, 2, 3};

    explicit VirtualKiosk(const KioskProfile& profile = defaultProfile());
    ~VirtualKiosk();
    VirtualKiosk(const VirtualKiosk&) = delete;
    VirtualKiosk& operator=(const VirtualKiosk&) = delete;

    // --- The platform ---------------------------------------------------------------------
    VirtualClock& clock() { return m_clock; }
    VirtualScheduler& scheduler() { return m_scheduler; }
    MemoryStore& store() { return m_store; }
    RecordingMessageBox& messageBox() { return m_messageBox; }
    RecordingPrinter& printer() { return m_printer; }
    FixedNetworkInfo& network() { return m_network; }
    FixedInstance& instance() { return m_instance; }
    SimPinPad& pinPad() { return m_pinPad; }
    VirtualSerialPort& mdbPort() { return m_mdbPort; }
    VirtualSerialPort& dispenserPort() { return m_dispenserPort; }
    VirtualSerialPort& hoppersPort() { return m_hoppersPort; }
    MemoryJournal& journal() { return m_journal; }
    RecordingLog& log() { return m_log; }

    // --- The devices ----------------------------------------------------------------------
    KioskModels& models() { return m_models; }
    MdbAdapter& adapter() { return m_models.adapter(); }
    CoinChanger& changer() { return m_models.changer(); }
    BillValidator& validator() { return m_models.validator(); }
    BillDispenserModel& dispenser() { return m_models.dispenser(); }
    HopperBus& hoppers() { return m_models.hoppers(); }
    Hopper& hopper1() { return m_models.hopper1(); }
    Hopper& hopper2() { return m_models.hopper2(); }

    // --- The engine -----------------------------------------------------------------------
    // The engine object, created with this kiosk's platform on first use.
    Setup& engine();
    // Writes the store configuration that enables every device on ports 1, 2 and 3.
    void configureAllDevices();
    // The engine's start-up (load, equipment initialisation, timers).
    bool start();

    // --- Running --------------------------------------------------------------------------
    void runFor(double seconds);
    // Runs the engine's event loop until `done` holds; false when `maxSeconds` passed first.
    bool runUntil(const std::function<bool()>& done, double maxSeconds);

    // --- The host and the customer --------------------------------------------------------
    std::string mailbox(std::string_view key);
    void hostWrite(std::string_view key, std::string_view value);
    ControlResult insertCoin(int consoleType) { return m_models.insertCoin(consoleType); }
    ControlResult insertBill(int consoleType) { return m_models.insertBill(consoleType); }
    // A control command as kestrix-sim takes it ("coin 2", "fault changer silent on").
    ControlResult control(std::string_view command) { return m_models.command(command); }
    std::string stateJson() { return m_models.stateJson(); }

private:
    VirtualClock m_clock;
    VirtualScheduler m_scheduler{m_clock};
    MemoryStore m_store;
    RecordingMessageBox m_messageBox;
    RecordingPrinter m_printer;
    FixedNetworkInfo m_network;
    FixedInstance m_instance;
    MemoryJournal m_journal;
    RecordingLog m_log;
    SimPinPad m_pinPad{m_clock, m_scheduler, m_store};
    KioskModels m_models;
    VirtualSerialPort m_mdbPort{m_clock, "MSComm1"};
    VirtualSerialPort m_dispenserPort{m_clock, "MSComm2"};
    VirtualSerialPort m_hoppersPort{m_clock, "MSComm3"};
    std::unique_ptr<Setup> m_engine;
};

}  // namespace kestrix::sim
