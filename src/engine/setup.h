#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "console.h"
#include "device_context.h"
#include "mdb/numbering.h"
#include "money.h"
#include "platform/clock.h"
#include "platform/instance.h"
#include "platform/journal.h"
#include "platform/log.h"
#include "platform/message_box.h"
#include "platform/network_info.h"
#include "platform/payment_library.h"
#include "platform/printer.h"
#include "platform/scheduler.h"
#include "platform/serial_port.h"
#include "platform/settings_store.h"
#include "settings/store_writer.h"

namespace kestrix {

namespace store {
struct DeviceSetting;
}  // namespace store

class MdbLink;
class BillDispenser;
class CashPayment;
class Hoppers;
class CardPayment;
class DeviceHealth;
class Recovery;

// Everything the engine needs from the outside world.
struct Platform {
    Clock& clock;
    Scheduler& scheduler;
    SettingsStore& store;
    MessageBox& messageBox;
    Printer& printer;
    NetworkInfo& network;
    Instance& instance;
    PaymentLibrary& paymentLibrary;
    SerialPort& mdbPort;               // MSComm1: MDB interface adapter
    SerialPort& dispenserPort;         // MSComm2: bill dispenser
    SerialPort& hoppersPort;           // MSComm3: hoppers interface
    Journal& journal = nullJournal();  // the money journal
    Log& log = nullLog();
};

// Console-level payment state shared by the device routines. Tables are indexed from 1, as the
// console numbers its coin types, bill types and tube slots; index 0 is unused.
struct EngineState {
    bool loaded = false;
    Money amountDue;     // zero: no cash payment running
    Money creditAmount;  // credit of the running cash payment
    int cancelKeepsCredit = 0;

    Money tubesValue;  // money in the changer's tubes
    bool tubesUsable = true;
    bool pollTimedOut = false;
    bool bvNeedsInit = false;
    bool payoutBusy = false;
    // A changer that failed while paying out (silent, or busy past its bound) is not asked for
    // change again until equipment initialisation has run.
    bool changerFailed = false;
    // When the running payment last credited a bill (seconds since midnight); none before its
    // first bill, so a bill from an earlier payment (or yesterday) can never hide one.
    std::optional<double> lastBillTime;

    mdb::NumberedFromOne<Money, mdb::kCoinTypes> coinValue{};
    mdb::NumberedFromOne<int, mdb::kCoinTypes> tubeCount{};
    mdb::NumberedFromOne<Money, mdb::kTubeSlots> tubeSlotCoin{};
    mdb::NumberedFromOne<Money, mdb::kBillTypes> billValue{};

    // The journal's id of the running payment (cash, card or payout); 0 when none runs.
    std::int64_t paymentId = 0;

    // The port name the port-error message names: the last one equipment initialisation set.
    std::string portName;
};

// The engine object, named after the console form that owns every device link, timer and
// routine. Lives on the engine thread; every public routine runs there.
class Setup : public DeviceContext {
public:
    explicit Setup(Platform platform);
    virtual ~Setup();
    Setup(const Setup&) = delete;
    Setup& operator=(const Setup&) = delete;

    // --- Lifecycle ------------------------------------------------------------------------
    // Start-up: false (after telling the operator) when another instance runs on this store.
    bool startUp();
    void Form_Load();
    void Save_Click();
    void Form_Unload();  // the console window closes: Exit
    void Exit();
    bool ended() const { return m_ended; }

    // --- Host command monitor ---------------------------------------------------------------
    void Monitor_Timer();
    // How often the monitor reads the host's requests.
    static constexpr int kMonitorIntervalMs = 500;
    // How often the monitor rewrites the heartbeat "Status"/"Engine" (the local time of its
    // tick), by which hosts tell a live engine from one that has stopped.
    static constexpr double kHeartbeatSeconds = 5;

    // --- Termination ---------------------------------------------------------------------------
    // Asks the engine to end, from any thread (SIGTERM, SIGINT): a running payment is ended as a
    // cancel that pays the credit back, then Exit runs, all within the termination bound. Waits
    // that keep a payment going give up at once; every device wait gives up at the bound.
    void requestTermination();
    // Termination has been asked for (by a signal or by Exit).
    bool interrupted() const;
    // Termination's time is up: every device wait ends now.
    bool pastDeadline() const override;

    // --- Device routines --------------------------------------------------------------------
    void InitEquipment();
    // Starts or cancels the card payment; held back while the changer pays out.
    void enablePaymentCC_Click();

    // An operator edit from a view: sets the field, then runs the control's click handler when
    // it has one (check boxes and lists raise their click when changed).
    void operatorEdit(const std::string& name, const std::string& text, int value);
    // An operator click on a button by its control name.
    void operatorClick(const std::string& name);

    // --- Shared services for the device routines --------------------------------------------
    Console& console() override { return m_console; }
    EngineState& state() { return m_state; }
    const EngineState& state() const { return m_state; }
    Platform& platform() { return m_platform; }
    MdbLink& link() { return *m_link; }
    BillDispenser& dispenser() { return *m_dispenser; }
    Hoppers& hoppers() { return *m_hoppers; }
    CardPayment& card() { return *m_card; }
    // Device faults and recoveries, journalled and logged once each.
    DeviceHealth& health() override { return *m_health; }

    Timer& monitorTimer() { return *m_monitor; }

    // Reads and writes of the application's settings (application "KSX"). A write the store
    // refuses is kept and written again once the store takes writes (never thrown: store
    // trouble is not a device fault); a read sees the engine's own pending writes.
    std::string getSetting(std::string_view section, std::string_view key,
                           std::string_view defaultValue = {}) override;
    void saveSetting(std::string_view section, std::string_view key, std::string_view value);
    // The host mailbox (section "Status"); reads default to "".
    std::string mailbox(std::string_view key);
    void writeMailbox(std::string_view key, std::string_view value) override;
    StoreWriter& storeWriter() { return m_storeWriter; }

    // The largest amount a request may ask for (setting "MaxAmount" of section "Settings").
    Money maxAmount();

    // A journal row (the running payment's id when the row names none); never throws.
    void journal(JournalEntry entry) override;
    Log& log() override { return m_platform.log; }
    MessageBox& messageBox() override { return m_platform.messageBox; }
    std::int64_t paymentId() const override { return m_state.paymentId; }
    // Seconds on the monotonic clock.
    double elapsed() const { return m_platform.clock.elapsedSeconds(); }

    // Waits `seconds` on the clock without yielding (the engine's Pause).
    void pause(double seconds) override;

    // The change payout's yielding wait for the coin changer. While it runs, payment actions
    // (cash start/stop, card, change, exit) that arrive are held back and run after the routine
    // that started the payout has returned, so none of them begins or ends a second time.
    void yieldUntil(const std::function<bool()>& done);
    bool payoutWaiting() const { return m_payoutWaitDepth > 0; }

    // Runs a tick or an operator action; an error nobody expected (a logic error, not a device,
    // store or conversion error) is reported as an internal error and the running payment is
    // ended safely, instead of being mistaken for a device fault.
    void guarded(std::string_view what, const std::function<void()>& action);

private:
    // Port and device handlers (operator changes on the console).
    void comPorts_Click();
    void billDispenserEnabled_Click();
    void hoppersEnabled_Click();
    void bDispType_Click();
    // The cash payment's start/stop; `requester` ("host" or "operator") goes in the journal.
    void paymentClick(std::string_view requester);
    void noteRefusedAmount(std::string_view key, const std::string& text, bool accepted);
    // Runs `action` now, or holds it back while the payout wait runs; true when held back.
    bool holdDuringPayout(const std::function<void()>& action);
    void switchPaymentButtonsForPayout(bool waiting);
    void endPaymentAfterInternalError();
    void startTerminationClock();
    // A monitor tick that finds no request in the mailbox (one read of the whole section).
    bool nothingAsked();
    void loadSettings();
    void writeDefaultSet();
    bool storeHasConfiguration();
    void publishHeartbeat();
    // Reads one operator setting into its control; throws KsxError when it cannot be read.
    void readSetting(const store::DeviceSetting& s);
    void fillPrinters();
    void switchDispenserButtons();
    void switchHopperButton();

    Platform m_platform;
    Console m_console;
    EngineState m_state;
    StoreWriter m_storeWriter;
    bool m_ended = false;
    double m_lastHeartbeat = -1;  // the steady clock's seconds at the last heartbeat written
    // The store's change count at a tick that found nothing asked, and whether a cash payment
    // ran then: while both stay the same, so does the answer.
    struct QuietMailbox {
        std::uint64_t change;
        bool paying;
    };
    std::optional<QuietMailbox> m_quietMailbox;
    int m_payoutWaitDepth = 0;
    std::vector<std::function<void()>> m_heldActions;
    // Buttons the payout wait turned off, with their state before.
    std::vector<std::pair<FieldName, bool>> m_buttonsBeforePayout;
    std::map<std::string, std::string> m_refusedAmounts;  // last refused text per request key
    // Termination: asked for (any thread), and when (monotonic seconds).
    std::atomic<bool> m_terminationRequested = false;
    std::atomic<double> m_terminationStartedAt = 0;

    // Timers fire in the order they were made when they fall due together: the recovery's, the
    // monitor, then the cash payment's and the card payment's.
    std::unique_ptr<MdbLink> m_link;
    std::unique_ptr<BillDispenser> m_dispenser;
    std::unique_ptr<Hoppers> m_hoppers;
    std::unique_ptr<DeviceHealth> m_health;
    std::unique_ptr<Recovery> m_recovery;
    std::unique_ptr<Timer> m_monitor;
    std::unique_ptr<CashPayment> m_cash;
    std::unique_ptr<CardPayment> m_card;
};

}  // namespace kestrix
