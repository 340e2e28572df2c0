#include "setup.h"

#include <algorithm>
#include <cctype>

#include "bounds.h"
#include "card/card_payment.h"
#include "dispenser/bill_dispenser.h"
#include "errors.h"
#include "formulas.h"
#include "hoppers/hoppers.h"
#include "journal/device_health.h"
#include "journal/recovery.h"
#include "mdb/cash_payment.h"
#include "mdb/link.h"
#include "settings/layout.h"

namespace kestrix {

namespace {

constexpr std::string_view kHideSwitch = "/hide";

bool sameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

}  // namespace

Setup::Setup(Platform platform)
    : m_platform(platform),
      m_storeWriter(platform.store, platform.clock, platform.log, platform.journal),
      m_link(std::make_unique<MdbLink>(m_platform.mdbPort, m_platform.clock, m_console,
                                       [this] { return pastDeadline(); })),
      m_dispenser(std::make_unique<BillDispenser>(*this, m_platform.dispenserPort)),
      m_hoppers(std::make_unique<Hoppers>(*this, m_platform.hoppersPort)),
      m_health(std::make_unique<DeviceHealth>(m_platform.journal, m_platform.log)),
      m_recovery(std::make_unique<Recovery>(*this)),
      m_monitor(m_platform.scheduler.createTimer(
          "Monitor", kMonitorIntervalMs, false,
          [this] { guarded("Monitor", [this] { Monitor_Timer(); }); })),
      m_cash(std::make_unique<CashPayment>(*this)),
      m_card(std::make_unique<CardPayment>(*this)) {}

Setup::~Setup() = default;

// --- Store access -----------------------------------------------------------------------------

std::string Setup::getSetting(std::string_view section, std::string_view key,
                              std::string_view defaultValue) {
    return m_storeWriter.get(store::kApp, section, key, defaultValue);
}

void Setup::saveSetting(std::string_view section, std::string_view key, std::string_view value) {
    m_storeWriter.set(store::kApp, section, key, value);
}

Money Setup::maxAmount() {
    const std::string text =
        getSetting(store::section::kSettings, store::key::kMaxAmount, store::kDefaultMaxAmount);
    const std::optional<Money> m = Money::parse(text);
    return m && m->positive() ? *m : *Money::parse(store::kDefaultMaxAmount);
}

void Setup::journal(JournalEntry entry) {
    if (entry.paymentId == 0) {
        entry.paymentId = m_state.paymentId;
    }
    try {
        m_platform.journal.append(entry);
    } catch (const std::exception& e) {
        // The journal reports its own trouble; a payment never stops for it.
        m_platform.log.error(std::string("journal: ") + e.what());
    }
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
    // What the last run left for the host, before the reset wipes it: the recovery needs it to
    // tell whether the host saw the result of the payment that run was serving.
    const MailboxBefore before = m_recovery->readMailbox();
    for (const store::MailboxValue& v : store::mailboxReset()) {
        writeMailbox(v.key, v.value);
    }
    // Before any request is taken: payments the last run left unfinished are closed and the
    // host is told their outcome; nothing is paid out.
    m_recovery->run(before);
    m_state.amountDue = Money();
    m_state.creditAmount = Money();
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

bool Setup::storeHasConfiguration() {
    // A value no one writes: tells a missing key from an empty one.
    constexpr std::string_view kMissing = "\x01missing";
    for (const store::DeviceSetting& s : store::deviceSettings()) {
        if (getSetting(s.section, s.key, kMissing) != kMissing) {
            return true;
        }
    }
    return false;
}

void Setup::readSetting(const store::DeviceSetting& s) {
    using store::SettingKind;
    switch (s.kind) {
        case SettingKind::Port: {
            // A port not set yet reads as none (0); only a value that is not a number is wrong.
            const std::string v = getSetting(s.section, s.key, "");
            const bool blank = v.find_first_not_of(" \t") == std::string::npos;
            m_console.setText(s.control, blank ? "0" : std::to_string(strictInt(v)));
            break;
        }
        case SettingKind::Flag: {
            const int v = strictInt(getSetting(s.section, s.key));
            if (v < 0 || v > 2) {
                throw KsxError(KsxError::kInvalidPropertyValue, "Invalid property value");
            }
            m_console.setValue(s.control, v);
            break;
        }
        case SettingKind::Number:
            m_console.setText(s.control, numberText(strictNumber(getSetting(s.section, s.key))));
            break;
        case SettingKind::Text: {
            std::string v = getSetting(s.section, s.key, "");
            if (s.key == "URL" && v.empty()) {
                v = caption::kNotAvailable;
            }
            m_console.setText(s.control, std::move(v));
            break;
        }
    }
}

void Setup::loadSettings() {
    // A new kiosk's store holds no configuration: it gets the whole default set. In a store
    // that has one, a value that cannot be read takes its default alone, and the technician is
    // told which it was and what it held: resetting every port, device and the pin pad account
    // because of one typo would take a working kiosk out of service without a word.
    if (!storeHasConfiguration()) {
        writeDefaultSet();
    }
    std::vector<std::string> replaced;
    for (const store::DeviceSetting& s : store::deviceSettings()) {
        if (s.key == "Printer") {
            continue;  // matched against the installed printers afterwards
        }
        if (s.key == "BVE") {
            // The tube keys are an export for the host; a fresh run starts them at zero.
            for (int slot = 1; slot <= mdb::kTubeSlots; ++slot) {
                saveSetting(store::section::kCoinAcceptor, store::key::tubeCoinType(slot), "0");
            }
            for (int slot = 1; slot <= mdb::kTubeSlots; ++slot) {
                saveSetting(store::section::kCoinAcceptor, store::key::tubeCoinQty(slot), "0");
            }
        }
        try {
            readSetting(s);
        } catch (const KsxError&) {
            constexpr std::string_view kMissing = "\x01missing";
            const std::string held = getSetting(s.section, s.key, kMissing);
            const std::string line =
                std::string(s.section) + "/" + s.key +
                (held == kMissing ? " was missing" : " held \"" + held + "\"") +
                ", which is not a valid " +
                (s.kind == store::SettingKind::Flag   ? "flag (0, 1 or 2)"
                 : s.kind == store::SettingKind::Port ? "port number"
                                                      : "number") +
                "; it now holds its default \"" + s.defaultValue + "\"";
            m_platform.log.error("settings: " + line, {"settings"});
            replaced.push_back(line);
            saveSetting(s.section, s.key, s.defaultValue);
            readSetting(s);
        }
        if (s.key == "BillDispTypeValue") {
            switchDispenserButtons();
        } else if (s.key == "h2CoinValue") {
            switchHopperButton();
        }
    }
    // Hosts see the engine's heartbeat from its load on, not only from its first poll, which
    // comes after the devices' initialisation.
    publishHeartbeat();
    if (!replaced.empty()) {
        std::string text =
            "Settings that could not be read were reset to their defaults; every "
            "other setting is kept:";
        for (const std::string& line : replaced) {
            text += "\n" + line + ".";
        }
        m_platform.messageBox.show(text, "Settings");
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

void Setup::Form_Unload() {
    Exit();
}

void Setup::Exit() {
    if (m_ended) {
        return;
    }
    // Exit's time starts now, whoever asked: a payout under way gets until the bound to finish.
    startTerminationClock();
    if (holdDuringPayout([this] { Exit(); })) {
        return;
    }
    // A payment still running is ended first, as a cancel that pays the credit back; what
    // cannot be paid back in time stays reported as owed.
    trapped([this] { m_cash->endForExit(); });
    trapped([this] { m_card->cancelForExit(); });
    try {
        m_link->shutDownDevices(m_console.checked("CoinAcceptorEnabled"),
                                m_console.checked("billValidatorEnabled"));
    } catch (const std::exception&) {
        // A failing step (a port already gone) silently skips the rest of the devices. The
        // process ends all the same: an engine asked to exit that stays up would hold the
        // kiosk's ports.
    }
    saveSetting(store::section::kPinPad, store::key::kOnLine, "No");
    m_storeWriter.flush();
    trapped([this] {
        if (m_platform.mdbPort.isOpen()) {
            m_platform.mdbPort.close();
        }
    });
    m_platform.journal.append({.kind = journal_kind::kEngineEnd, .device = "engine"});
    m_platform.log.notice("engine: ended", {"engine", 0});
    m_ended = true;
    for (Timer* t : {m_monitor.get(), &m_cash->pollTimer(), &m_cash->changeTimer(),
                     &m_card->clickTimer(), &m_card->ccTimer()}) {
        t->setEnabled(false);
    }
    m_platform.scheduler.quit(0);
}

// --- Termination ------------------------------------------------------------------------------

void Setup::requestTermination() {
    startTerminationClock();
    m_platform.scheduler.post([this] { guarded("Exit", [this] { Exit(); }); });
}

void Setup::startTerminationClock() {
    // The first request sets the clock; the flag is raised after it, so whoever sees the flag
    // sees its time.
    double unset = 0;
    m_terminationStartedAt.compare_exchange_strong(unset, m_platform.clock.elapsedSeconds());
    m_terminationRequested = true;
}

bool Setup::interrupted() const {
    return m_terminationRequested;
}

bool Setup::pastDeadline() const {
    return m_terminationRequested &&
           m_platform.clock.elapsedSeconds() > m_terminationStartedAt + bounds::kTerminationSeconds;
}

// --- The top-level guard ----------------------------------------------------------------------

void Setup::guarded(std::string_view what, const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& e) {
        m_platform.log.error("internal error in " + std::string(what) + ": " + e.what() +
                                 "; the running payment is ended",
                             {"engine", m_state.paymentId});
        journal({.kind = journal_kind::kDeviceFault,
                 .device = "engine",
                 .detail = "internal error in " + std::string(what) + ": " + e.what()});
        endPaymentAfterInternalError();
    }
}

void Setup::endPaymentAfterInternalError() {
    try {
        m_cash->abandonAfterInternalError();
    } catch (const std::exception& e) {
        m_platform.log.error(std::string("internal error while ending the payment: ") + e.what());
    }
}

// --- Host command monitor ---------------------------------------------------------------------

void Setup::Monitor_Timer() {
    m_storeWriter.retry();
    // The tick's trap resumes with the next statement: a failing step skips only itself.
    const auto step = [](const auto& statement) { trapped(statement); };
    EngineState& st = m_state;
    step([this] { publishHeartbeat(); });

    step([this] {
        if (m_console.field("Setup").visible &&
            m_platform.instance.commandLine().ends_with(kHideSwitch)) {
            m_console.setVisible("Setup", false);
        }
    });

    if (nothingAsked()) {
        return;
    }

    std::string exitRequest;
    step([&] { exitRequest = mailbox(store::mailbox::kExit); });
    if (!exitRequest.empty()) {
        Exit();
    }
    if (m_ended) {
        return;
    }

    // A request's amount: a positive amount within the maximum; anything else is no request.
    const auto requested = [this, &step](std::string_view key) -> std::optional<Money> {
        std::optional<Money> amount;
        step([&] {
            const std::string text = mailbox(key);
            amount = requestedAmount(text, maxAmount());
            noteRefusedAmount(key, text, amount.has_value());
        });
        return amount;
    };

    if (st.amountDue.isZero()) {
        if (requested(store::mailbox::kDue)) {
            step([this] { m_console.setText("due", mailbox(store::mailbox::kDue)); });
            step([this] { paymentClick("host"); });
        }
    }

    if (st.amountDue.isZero()) {
        if (requested(store::mailbox::kDueCC)) {
            step([this] { m_console.setText("due", mailbox(store::mailbox::kDueCC)); });
            step([this] { m_card->clickTimer().setEnabled(true); });
        }
    }

    if (st.amountDue.isZero()) {
        if (requested(store::mailbox::kChange)) {
            int remembered = 0;
            step([&] { remembered = m_console.value("changeEnabled"); });
            step([this] { m_console.setValue("changeEnabled", 1); });
            step([&] {
                if (const std::optional<Money> amount = requested(store::mailbox::kChange)) {
                    m_cash->payChange(*amount, "host");
                }
            });
            step([this] { writeMailbox(store::mailbox::kChange, ""); });
            step([this] { writeMailbox(store::mailbox::kStatus, "Change dispensed"); });
            step([this] { m_console.setText("statusDisplay", ""); });
            step([&] { m_console.setValue("changeEnabled", remembered); });
        }
    }

    bool running = false;
    std::string cancel;
    step([&] { running = m_console.running(); });
    step([&] { cancel = mailbox(store::mailbox::kCancel); });
    if (!cancel.empty() && running) {
        step([&] { st.cancelKeepsCredit = cancel == "2" ? 1 : 0; });
        step([this] { paymentClick("host"); });
    } else {
        std::string cardCaption;
        step([&] { cardCaption = m_console.text("enablePaymentCC"); });
        step([&] { cancel = mailbox(store::mailbox::kCancel); });
        if (!cancel.empty() && cardCaption == caption::kCancelPayment) {
            step([this] { enablePaymentCC_Click(); });
        } else {
            step([this] { writeMailbox(store::mailbox::kCancel, ""); });
            return;
        }
    }
    step([this] { writeMailbox(store::mailbox::kCancel, ""); });
}

void Setup::noteRefusedAmount(std::string_view key, const std::string& text, bool accepted) {
    // A request that reads as no amount is ignored, but a text that looks like one is worth a
    // line in the log, once per value (the monitor reads it every 500 ms).
    std::string& last = m_refusedAmounts[std::string(key)];
    if (accepted || text.empty() || text == last) {
        if (accepted) {
            last.clear();
        }
        return;
    }
    last = text;
    if (leadingNumber(text) != 0 || text.find(',') != std::string::npos) {
        m_platform.log.warning("mailbox \"" + std::string(key) + "\" = \"" + text.substr(0, 40) +
                               "\" is not an amount this engine accepts; ignored");
    }
}

bool Setup::nothingAsked() {
    // Most ticks find nothing to do. One read of the whole mailbox tells so, where the round
    // below takes ten queries: twice a second for as long as the kiosk is on, that was most of
    // an idle engine's processor time. Only the mailbox as the engine leaves it counts as
    // nothing asked ("" or "0" in the request keys); anything else takes the full round, which
    // also notes amounts it refuses. And when the store tells that nobody has written since a
    // tick that found nothing asked, not even that read is needed.
    const bool paying = !m_state.amountDue.isZero();
    std::optional<std::uint64_t> change;
    std::vector<SettingsStore::Entry> entries;
    try {
        change = m_platform.store.changeCount();
        if (change && m_quietMailbox && m_quietMailbox->change == *change &&
            m_quietMailbox->paying == paying) {
            return true;
        }
        m_quietMailbox.reset();
        entries = m_platform.store.list(store::kApp, store::section::kStatus);
    } catch (const std::exception&) {
        return false;
    }
    const auto value = [&entries](std::string_view key) -> std::string_view {
        for (const SettingsStore::Entry& e : entries) {
            if (sameName(e.key, key)) {
                return e.value;
            }
        }
        return {};
    };
    const auto none = [&value](std::string_view key) {
        const std::string_view v = value(key);
        return v.empty() || v == "0";
    };
    // While a cash payment runs, the amount keys are not requests (the round skips them).
    const bool noAmountAsked =
        paying || (none(store::mailbox::kDue) && none(store::mailbox::kDueCC) &&
                   none(store::mailbox::kChange));
    const bool quiet = value(store::mailbox::kExit).empty() &&
                       value(store::mailbox::kCancel).empty() && noAmountAsked;
    if (quiet && change) {
        m_quietMailbox = QuietMailbox{*change, paying};
    }
    return quiet;
}

void Setup::publishHeartbeat() {
    // Rewritten every few seconds rather than at every tick: a kiosk's storage is often a
    // memory card. Timed on the steady clock, which is cheap to read (the time of day asks
    // the time zone each time).
    const double now = m_platform.clock.elapsedSeconds();
    if (m_lastHeartbeat >= 0 && now - m_lastHeartbeat < kHeartbeatSeconds) {
        return;
    }
    // The heartbeat is no request: a mailbox found quiet stays quiet through it. The store
    // counts this write as one change, so the count that keeps the mailbox quiet moves by one.
    // Anything else that changed the store meanwhile (another program's write, this engine's
    // waiting writes going out) moves it further, and the mailbox is read again.
    const bool quiet = m_quietMailbox.has_value() && !m_storeWriter.troubled();
    writeMailbox(store::mailbox::kEngine, formatTime(m_platform.clock.now(), "%Y-%m-%d %H:%M:%S"));
    if (quiet) {
        ++m_quietMailbox->change;
    }
    m_lastHeartbeat = now;
}

// --- Payout wait and held actions -------------------------------------------------------------

void Setup::yieldUntil(const std::function<bool()>& done) {
    if (++m_payoutWaitDepth == 1) {
        switchPaymentButtonsForPayout(true);
    }
    try {
        m_platform.scheduler.yieldUntil(done);
    } catch (...) {
        if (--m_payoutWaitDepth == 0) {
            switchPaymentButtonsForPayout(false);
        }
        throw;
    }
    if (--m_payoutWaitDepth == 0) {
        switchPaymentButtonsForPayout(false);
        if (!m_heldActions.empty()) {
            // Run after the routine that paid out has returned to the event loop.
            for (std::function<void()>& action : m_heldActions) {
                m_platform.scheduler.post(
                    [this, action = std::move(action)] { guarded("held action", action); });
            }
            m_heldActions.clear();
        }
    }
}

void Setup::switchPaymentButtonsForPayout(bool waiting) {
    // While the changer pays out, the console's payment buttons are off: a click there could
    // only be held and replayed later, when it may no longer mean what it meant.
    if (waiting) {
        m_buttonsBeforePayout.clear();
        for (FieldName name : std::initializer_list<FieldName>{
                 "enablePayment", "enablePaymentCC", "bdDispenseBills", "bdDispenserRefill",
                 "hDispenseCoins", "ccReadCard"}) {
            m_buttonsBeforePayout.emplace_back(name, m_console.enabled(name));
            m_console.setEnabled(name, false);
        }
        return;
    }
    for (const auto& [name, enabled] : m_buttonsBeforePayout) {
        m_console.setEnabled(name, enabled);
    }
    m_buttonsBeforePayout.clear();
}

bool Setup::holdDuringPayout(const std::function<void()>& action) {
    if (m_payoutWaitDepth == 0) {
        return false;
    }
    m_heldActions.push_back(action);
    return true;
}

// --- Device routines --------------------------------------------------------------------------

void Setup::paymentClick(std::string_view requester) {
    // A click held back during a payout keeps what it meant when it was made: a stop of the
    // payment then running. If that payment has ended meanwhile, the stop has nothing left to
    // do, and it must never become a start of a new payment from the old amount.
    const bool meantToStop = m_state.amountDue.positive();
    const std::int64_t payment = m_state.paymentId;
    if (holdDuringPayout([this, meantToStop, payment, requester = std::string(requester)] {
            if (meantToStop && m_state.paymentId != payment) {
                return;
            }
            if (meantToStop && m_state.amountDue.isZero()) {
                return;
            }
            paymentClick(requester);
        })) {
        return;
    }
    m_cash->enablePayment_Click(requester);
}

void Setup::enablePaymentCC_Click() {
    if (holdDuringPayout([this] { enablePaymentCC_Click(); })) {
        return;
    }
    m_card->enablePaymentCC_Click();
}

// --- Operator input from a view ---------------------------------------------------------------

namespace {
// A control and what the operator's click (or change) on it runs.
struct ControlHandler {
    FieldName control;
    void (*handler)(Setup&);
};
}  // namespace

void Setup::operatorEdit(const std::string& name, const std::string& text, int value) {
    if (m_ended) {
        return;
    }
    const std::optional<FieldName> edited = FieldName::find(name);
    if (!edited) {
        return;  // no such control: a view's mistake, nothing to change
    }
    const Field& f = m_console.field(*edited);
    if (f.kind == FieldKind::CheckBox) {
        if (f.value == value) {
            return;
        }
        m_console.setValue(*edited, value);
    } else {
        if (f.text == text) {
            return;
        }
        m_console.setText(*edited, text);
    }
    // Check boxes and lists raise their click when the operator changes them.
    static const ControlHandler handlers[] = {
        {"comPorts", [](Setup& s) { s.comPorts_Click(); }},
        {"comPorts1", [](Setup& s) { s.comPorts_Click(); }},
        {"CoinAcceptorEnabled", [](Setup& s) { s.comPorts_Click(); }},
        {"billValidatorEnabled", [](Setup& s) { s.comPorts_Click(); }},
        {"pinPadEnabled", [](Setup& s) { s.comPorts_Click(); }},
        {"billDispenserEnabled", [](Setup& s) { s.billDispenserEnabled_Click(); }},
        {"hoppersEnabled", [](Setup& s) { s.hoppersEnabled_Click(); }},
        {"bDispType", [](Setup& s) { s.bDispType_Click(); }},
        {"ccPrinters", [](Setup& s) { s.m_card->ccPrinters_Click(); }},
    };
    for (const auto& [control, handler] : handlers) {
        if (control == *edited) {
            // The handler's own trap has reported what the operator needs to know.
            guarded(name, [this, handler = handler] { trapped([&] { handler(*this); }); });
            return;
        }
    }
}

void Setup::operatorClick(const std::string& name) {
    if (m_ended) {
        return;
    }
    const std::optional<FieldName> button = FieldName::find(name);
    if (!button) {
        return;  // no such control: a view's mistake, nothing to press
    }
    const Field& f = m_console.field(*button);
    if (!f.enabled || f.kind != FieldKind::Button) {
        return;  // a disabled button cannot be pressed
    }
    static const ControlHandler buttons[] = {
        {"Save", [](Setup& s) { s.Save_Click(); }},
        {"Cancel", [](Setup& s) { s.Exit(); }},
        {"enablePayment", [](Setup& s) { s.paymentClick("operator"); }},
        {"enablePaymentCC", [](Setup& s) { s.enablePaymentCC_Click(); }},
        {"bdDispenseBills", [](Setup& s) { s.m_dispenser->bdDispenseBills_Click(); }},
        {"bdDispenserRefill", [](Setup& s) { s.m_dispenser->bdDispenserRefill_Click(); }},
        {"hDispenseCoins", [](Setup& s) { s.m_hoppers->hDispenseCoins_Click(); }},
        {"ccReadCard", [](Setup& s) { s.m_card->ccReadCard_Click(); }},
    };
    for (const auto& [control, handler] : buttons) {
        if (control == *button) {
            // The payment buttons hold themselves back with what they meant; the others are
            // held here.
            const bool holdsItself = control == "enablePayment" || control == "enablePaymentCC";
            if (control != "Save" && !holdsItself &&
                holdDuringPayout([this, name] { operatorClick(name); })) {
                return;
            }
            guarded(name, [this, handler = handler] { trapped([&] { handler(*this); }); });
            return;
        }
    }
}

}  // namespace kestrix
