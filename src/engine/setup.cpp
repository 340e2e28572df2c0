#include "setup.h"

#include "card/card_payment.h"
#include "dispenser/bill_dispenser.h"
#include "errors.h"
#include "formulas.h"
#include "hoppers/hoppers.h"
#include "mdb/cash_payment.h"
#include "mdb/link.h"
#include "settings/layout.h"

namespace kestrix {

namespace {

constexpr int kMonitorIntervalMs = 500;
constexpr int kPollIntervalMs = 200;
constexpr int kChangeIntervalMs = 200;
constexpr int kClickIntervalMs = 200;
constexpr int kCardWatchIntervalMs = 200;

constexpr std::string_view kHideSwitch = "/hide";

}  // namespace

Setup::Setup(Platform platform)
    : m_platform(platform),
      m_link(std::make_unique<MdbLink>(*this)),
      m_dispenser(std::make_unique<BillDispenser>(*this)),
      m_cash(std::make_unique<CashPayment>(*this)),
      m_hoppers(std::make_unique<Hoppers>(*this)),
      m_card(std::make_unique<CardPayment>(*this)) {
    Scheduler& s = m_platform.scheduler;
    m_monitor = s.createTimer("Monitor", kMonitorIntervalMs, false, [this] { Monitor_Timer(); });
    m_pollTimer = s.createTimer("pollTimer", kPollIntervalMs, false, [this] { pollTimer_Timer(); });
    m_changeTimer =
        s.createTimer("changeTimer", kChangeIntervalMs, false, [this] { changeTimer_Timer(); });
    m_clickTimer =
        s.createTimer("clickTimer", kClickIntervalMs, false, [this] { clickTimer_Timer(); });
    m_ccTimer = s.createTimer("ccTimer", kCardWatchIntervalMs, false, [this] { ccTimer_Timer(); });
}

Setup::~Setup() = default;

// --- Store access -----------------------------------------------------------------------------

std::string Setup::getSetting(std::string_view section, std::string_view key,
                              std::string_view defaultValue) {
    return m_platform.store.get(store::kApp, section, key, defaultValue);
}

void Setup::saveSetting(std::string_view section, std::string_view key, std::string_view value) {
    m_platform.store.set(store::kApp, section, key, value);
}

std::string Setup::mailbox(std::string_view key) {
    return getSetting(store::section::kStatus, key, "");
}

void Setup::writeMailbox(std::string_view key, std::string_view value) {
    saveSetting(store::section::kStatus, key, value);
}

void Setup::pause(double seconds) {
    Pause(m_platform.clock, seconds);
}

// --- Start-up and load ------------------------------------------------------------------------

bool Setup::startUp() {
    if (m_platform.instance.anotherIsRunning()) {
        m_platform.messageBox.show("Another version of this program is already running",
                                   "Unable to start");
        return false;
    }
    Form_Load();
    return true;
}

void Setup::Form_Load() {
    m_state.loaded = false;
    m_link->prepareFrames();
    for (const store::MailboxValue& v : store::mailboxReset()) {
        writeMailbox(v.key, v.value);
    }
    m_state.amountDue = 0;
    m_state.creditAmount = 0;
    m_state.cancelKeepsCredit = 0;
    loadSettings();
    fillPrinters();
    m_state.loaded = true;
    m_monitor->setEnabled(true);
    InitEquipment();
}

void Setup::writeDefaultSet() {
    for (const store::DeviceSetting* s : store::defaultSetOrder()) {
        saveSetting(s->section, s->key, s->defaultValue);
    }
}

void Setup::loadSettings() {
    using store::SettingKind;
    // The load's error trap: the first flag or number that cannot be read writes the whole
    // default set (over whatever the operator had saved) and the failed read is repeated.
    const auto trapped = [this](const auto& read) {
        try {
            read();
        } catch (const KsxError&) {
            writeDefaultSet();
            read();
        }
    };
    for (const store::DeviceSetting& s : store::deviceSettings()) {
        if (s.key == "Printer") {
            continue;  // matched against the installed printers afterwards
        }
        if (s.key == "BVE") {
            // The tube keys are an export for the host; a fresh run starts them at zero.
            for (int slot = 1; slot <= 5; ++slot) {
                saveSetting(store::section::kCoinAcceptor, store::key::tubeCoinType(slot), "0");
            }
            for (int slot = 1; slot <= 5; ++slot) {
                saveSetting(store::section::kCoinAcceptor, store::key::tubeCoinQty(slot), "0");
            }
        }
        trapped([this, &s] {
            switch (s.kind) {
                case SettingKind::Port:
                    // The lists hold port numbers: a missing or junk port cannot be shown.
                    m_console.setText(s.control,
                                      std::to_string(strictInt(getSetting(s.section, s.key, ""))));
                    break;
                case SettingKind::Flag: {
                    const int v = strictInt(getSetting(s.section, s.key));
                    if (v < 0 || v > 2) {
                        throw KsxError(KsxError::kInvalidPropertyValue, "Invalid property value");
                    }
                    m_console.setValue(s.control, v);
                    break;
                }
                case SettingKind::Number:
                    m_console.setText(s.control,
                                      numberText(strictNumber(getSetting(s.section, s.key))));
                    break;
                case SettingKind::Text: {
                    std::string v = getSetting(s.section, s.key, "");
                    if (s.key == "URL" && v.empty()) {
                        v = "N/A";
                    }
                    m_console.setText(s.control, std::move(v));
                    break;
                }
            }
        });
        if (s.key == "BillDispTypeValue") {
            switchDispenserButtons();
        } else if (s.key == "h2CoinValue") {
            switchHopperButton();
        }
    }
}

void Setup::fillPrinters() {
    const std::string wanted = getSetting(store::section::kPinPad, "Printer", "");
    std::vector<std::string> printers = m_platform.printer.installedPrinters();
    for (const std::string& name : printers) {
        if (name == wanted) {
            m_console.setText("ccPrinters", name);
            m_platform.printer.select(name);
        }
    }
    m_console.setItems("ccPrinters", std::move(printers));
}

void Setup::switchDispenserButtons() {
    const bool on = m_console.checked("billDispenserEnabled");
    m_console.setEnabled("bdDispenserRefill", on);
    m_console.setEnabled("bdDispenseBills", on);
}

void Setup::switchHopperButton() {
    m_console.setEnabled("hDispenseCoins", m_console.checked("hoppersEnabled"));
}

// --- Port and device handlers -----------------------------------------------------------------

void Setup::comPorts_Click() {
    if (m_state.loaded) {
        InitEquipment();
    }
}

void Setup::comPorts1_Click() {
    comPorts_Click();
}

void Setup::CoinAcceptorEnabled_Click() {
    comPorts_Click();
}

void Setup::billValidatorEnabled_Click() {
    comPorts_Click();
}

void Setup::pinPadEnabled_Click() {
    comPorts_Click();
}

void Setup::billDispenserEnabled_Click() {
    if (m_state.loaded) {
        InitEquipment();
    }
    switchDispenserButtons();
}

void Setup::hoppersEnabled_Click() {
    if (m_state.loaded) {
        InitEquipment();
    }
    switchHopperButton();
}

void Setup::bDispType_Click() {
    m_console.setEnabled("bdDispenseBills", false);
    m_console.setEnabled("bdDispenserRefill", false);
    try {
        if (m_state.loaded) {
            InitEquipment();
        }
    } catch (...) {
        m_console.setEnabled("bdDispenseBills", true);
        m_console.setEnabled("bdDispenserRefill", true);
        throw;
    }
    m_console.setEnabled("bdDispenseBills", true);
    m_console.setEnabled("bdDispenserRefill", true);
}

// --- Save and exit ----------------------------------------------------------------------------

void Setup::Save_Click() {
    for (const store::DeviceSetting& s : store::deviceSettings()) {
        const Field& f = m_console.field(s.control);
        const std::string value =
            s.kind == store::SettingKind::Flag ? std::to_string(f.value) : f.text;
        saveSetting(s.section, s.key, value);
    }
}

void Setup::Cancel_Click() {
    Exit();
}

void Setup::Form_Unload() {
    Exit();
}

void Setup::Exit() {
    if (m_ended) {
        return;
    }
    if (holdDuringPayout([this] { Exit(); })) {
        return;
    }
    try {
        m_link->shutDownDevices();
        saveSetting(store::section::kPinPad, store::key::kOnLine, "No");
        if (m_platform.mdbPort.isOpen()) {
            m_platform.mdbPort.close();
        }
    } catch (const std::exception&) {
        // A failing step (a port already gone) silently skips the rest. The process ends all
        // the same: an engine asked to exit that stays up would hold the kiosk's ports.
    }
    m_ended = true;
    for (Timer* t : {m_monitor.get(), m_pollTimer.get(), m_changeTimer.get(), m_clickTimer.get(),
                     m_ccTimer.get()}) {
        t->setEnabled(false);
    }
    m_platform.scheduler.quit(0);
}

// --- Host command monitor ---------------------------------------------------------------------

void Setup::Monitor_Timer() {
    // The tick's trap resumes with the next statement: a failing step skips only itself.
    const auto step = [](const auto& statement) {
        try {
            statement();
        } catch (const std::exception&) {
        }
    };
    EngineState& st = m_state;

    step([this] {
        const std::string cmd = m_platform.instance.commandLine();
        if (cmd.size() >= kHideSwitch.size() &&
            cmd.compare(cmd.size() - kHideSwitch.size(), kHideSwitch.size(), kHideSwitch) == 0 &&
            m_console.field("Setup").visible) {
            m_console.setVisible("Setup", false);
        }
    });

    std::string exitRequest;
    step([&] { exitRequest = mailbox(store::mailbox::kExit); });
    if (!exitRequest.empty()) {
        step([this] { Exit(); });
    }
    if (m_ended) {
        return;
    }

    if (st.amountDue == 0) {
        double due = 0;
        step([&] { due = leadingNumber(mailbox(store::mailbox::kDue)); });
        if (due > 0) {
            step([this] { m_console.setText("due", mailbox(store::mailbox::kDue)); });
            step([this] { enablePayment_Click(); });
        }
    }

    if (st.amountDue == 0) {
        double dueCC = 0;
        step([&] { dueCC = leadingNumber(mailbox(store::mailbox::kDueCC)); });
        if (dueCC > 0) {
            step([this] { m_console.setText("due", mailbox(store::mailbox::kDueCC)); });
            step([this] { m_clickTimer->setEnabled(true); });
        }
    }

    if (st.amountDue == 0) {
        double change = 0;
        step([&] { change = leadingNumber(mailbox(store::mailbox::kChange)); });
        if (change > 0) {
            int remembered = 0;
            step([&] { remembered = m_console.value("changeEnabled"); });
            step([this] { m_console.setValue("changeEnabled", 1); });
            step([this] {
                double amount = leadingNumber(mailbox(store::mailbox::kChange));
                DispenseChange(amount);
            });
            step([this] { writeMailbox(store::mailbox::kChange, ""); });
            step([this] { writeMailbox(store::mailbox::kStatus, "Change dispensed"); });
            step([this] { m_console.setText("statusDisplay", ""); });
            step([&] { m_console.setValue("changeEnabled", remembered); });
        }
    }

    std::string caption;
    std::string cancel;
    step([&] { caption = m_console.text("enablePayment"); });
    step([&] { cancel = mailbox(store::mailbox::kCancel); });
    if (!cancel.empty() && caption == "Stop Payment...") {
        step([&] { st.cancelKeepsCredit = cancel == "2" ? 1 : 0; });
        step([this] { enablePayment_Click(); });
    } else {
        step([&] { caption = m_console.text("enablePaymentCC"); });
        step([&] { cancel = mailbox(store::mailbox::kCancel); });
        if (!cancel.empty() && caption == "Cancel Payment...") {
            step([this] { enablePaymentCC_Click(); });
        } else {
            step([this] { writeMailbox(store::mailbox::kCancel, ""); });
            return;
        }
    }
    step([this] { writeMailbox(store::mailbox::kCancel, ""); });
}

// --- Payout wait and held actions -------------------------------------------------------------

void Setup::yieldUntil(const std::function<bool()>& done) {
    ++m_payoutWaitDepth;
    try {
        m_platform.scheduler.yieldUntil(done);
    } catch (...) {
        --m_payoutWaitDepth;
        throw;
    }
    if (--m_payoutWaitDepth == 0 && !m_heldActions.empty()) {
        // Run after the routine that paid out has returned to the event loop.
        for (std::function<void()>& action : m_heldActions) {
            m_platform.scheduler.post(std::move(action));
        }
        m_heldActions.clear();
    }
}

bool Setup::holdDuringPayout(const std::function<void()>& action) {
    if (m_payoutWaitDepth == 0) {
        return false;
    }
    m_heldActions.push_back(action);
    return true;
}

// --- Device routines --------------------------------------------------------------------------

void Setup::enablePayment_Click() {
    // A stop that arrives during a payout is held back; if the payment it meant to stop has
    // ended meanwhile, it has nothing left to do (and must not start a new one).
    const bool meantToStop = m_state.amountDue > 0;
    if (holdDuringPayout([this, meantToStop] {
            if (!(meantToStop && m_state.amountDue == 0)) {
                enablePayment_Click();
            }
        })) {
        return;
    }
    m_cash->enablePayment_Click();
}

void Setup::pollTimer_Timer() {
    m_cash->pollTimer_Timer();
}

void Setup::DispenseChange(double& amount) {
    m_cash->DispenseChange(amount);
}

void Setup::changeTimer_Timer() {
    m_cash->changeTimer_Timer();
}

void Setup::bvRecovery() {
    m_cash->bvRecovery();
}

void Setup::bdDispenseBills_Click() {
    m_dispenser->bdDispenseBills_Click();
}

void Setup::bdDispenserRefill_Click() {
    m_dispenser->bdDispenserRefill_Click();
}

void Setup::hDispenseCoins_Click() {
    m_hoppers->hDispenseCoins_Click();
}

void Setup::enablePaymentCC_Click() {
    if (holdDuringPayout([this] { enablePaymentCC_Click(); })) {
        return;
    }
    m_card->enablePaymentCC_Click();
}

void Setup::clickTimer_Timer() {
    m_card->clickTimer_Timer();
}

void Setup::ccTimer_Timer() {
    m_card->ccTimer_Timer();
}

void Setup::ccReadCard_Click() {
    m_card->ccReadCard_Click();
}

void Setup::ccPrinters_Click() {
    m_card->ccPrinters_Click();
}

// --- Operator input from a view ---------------------------------------------------------------

void Setup::operatorEdit(const std::string& name, const std::string& text, int value) {
    if (m_ended) {
        return;
    }
    const Field& f = m_console.field(name);
    if (f.kind == FieldKind::CheckBox) {
        if (f.value == value) {
            return;
        }
        m_console.setValue(name, value);
    } else {
        if (f.text == text) {
            return;
        }
        m_console.setText(name, text);
    }
    // Check boxes and lists raise their click when the operator changes them.
    static const std::vector<std::pair<std::string_view, void (Setup::*)()>> handlers = {
        {"comPorts", &Setup::comPorts_Click},
        {"comPorts1", &Setup::comPorts1_Click},
        {"CoinAcceptorEnabled", &Setup::CoinAcceptorEnabled_Click},
        {"billValidatorEnabled", &Setup::billValidatorEnabled_Click},
        {"pinPadEnabled", &Setup::pinPadEnabled_Click},
        {"billDispenserEnabled", &Setup::billDispenserEnabled_Click},
        {"hoppersEnabled", &Setup::hoppersEnabled_Click},
        {"bDispType", &Setup::bDispType_Click},
        {"ccPrinters", &Setup::ccPrinters_Click},
    };
    for (const auto& [control, handler] : handlers) {
        if (control == name) {
            try {
                (this->*handler)();
            } catch (const std::exception&) {
                // The handler's own trap has reported what the operator needs to know.
            }
            return;
        }
    }
}

void Setup::operatorClick(const std::string& name) {
    if (m_ended) {
        return;
    }
    const Field& f = m_console.field(name);
    if (!f.enabled || f.kind != FieldKind::Button) {
        return;  // a disabled button cannot be pressed
    }
    static const std::vector<std::pair<std::string_view, void (Setup::*)()>> buttons = {
        {"Save", &Setup::Save_Click},
        {"Cancel", &Setup::Cancel_Click},
        {"enablePayment", &Setup::enablePayment_Click},
        {"enablePaymentCC", &Setup::enablePaymentCC_Click},
        {"bdDispenseBills", &Setup::bdDispenseBills_Click},
        {"bdDispenserRefill", &Setup::bdDispenserRefill_Click},
        {"hDispenseCoins", &Setup::hDispenseCoins_Click},
        {"ccReadCard", &Setup::ccReadCard_Click},
    };
    for (const auto& [control, handler] : buttons) {
        if (control == name) {
            if (name != "Save" && holdDuringPayout([this, name] { operatorClick(name); })) {
                return;
            }
            try {
                (this->*handler)();
            } catch (const std::exception&) {
            }
            return;
        }
    }
}

}  // namespace kestrix
