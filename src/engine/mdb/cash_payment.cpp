// The cash payment's start and stop: the routine behind the `enablePayment` button, which the
// host command monitor also runs to start a payment for the host's Due and to cancel it, and the
// settling of acceptance that comes before every reset that ends it.

#include "cash_payment.h"

#include "../bounds.h"
#include "../errors.h"
#include "../formulas.h"
#include "../settings/layout.h"
#include "../setup.h"
#include "cash_payment_bytes.h"
#include "link.h"
#include "tubes.h"
#include "uses.h"

namespace kestrix {

namespace {

constexpr std::uint8_t kCoinTypeCommand = 0x0C;
constexpr std::uint8_t kBillTypeCommand = 0x34;
constexpr std::uint8_t kExpansionCommand = 0x0F;
constexpr std::uint8_t kDiagnosticSubCommand = 0x05;

// Pause after each of the six writes of COIN TYPE.
constexpr double kCoinTypePaceSeconds = 0.1;
constexpr double kBeforeDiagnosticSeconds = 0.1;
// Diagnostic 15h 02h: the changer's coin cassette has been taken out.
constexpr std::string_view kCassetteRemoved = "1500 0200";

constexpr double kStopChangerResetSeconds = 0.5;
constexpr double kMessageSeconds = 1.0;

}  // namespace

CashPayment::CashPayment(Setup& setup)
    : m_setup(setup),
      m_pollTimer(setup.platform().scheduler.createTimer(
          "pollTimer", kPollIntervalMs, false,
          [this] { m_setup.guarded("pollTimer", [this] { pollTimer_Timer(); }); })),
      m_changeTimer(setup.platform().scheduler.createTimer(
          "changeTimer", kPayoutWatchIntervalMs, false,
          [this] { m_setup.guarded("changeTimer", [this] { changeTimer_Timer(); }); })) {}

void CashPayment::setStatus(std::string_view text) {
    m_setup.console().setText("statusDisplay", std::string(text));
    m_setup.writeMailbox(store::mailbox::kStatus, text);
}

bool CashPayment::cancelRequested() {
    std::string cancel;
    trapped([&] { cancel = m_setup.mailbox(store::mailbox::kCancel); });
    return !cancel.empty() || m_setup.interrupted();
}

// --- The journal's record of a payment
// ------------------------------------------------------------

void CashPayment::beginPaymentRecord(std::string_view kind, Money amount,
                                     std::string_view requester) {
    EngineState& st = m_setup.state();
    st.paymentId = m_setup.platform().journal.newPaymentId();
    m_lastUnknown = Money();
    m_setup.journal({.kind = journal_kind::kPaymentStart,
                     .amount = amount,
                     .detail = std::string(kind),
                     .requester = std::string(requester)});
    m_setup.log().info("payment " + std::to_string(st.paymentId) + ": " + std::string(kind) +
                           " of " + amount.text() + " asked by the " + std::string(requester),
                       {"", st.paymentId});
}

void CashPayment::endPaymentRecord(std::string_view status, Money change, Money unpaid) {
    EngineState& st = m_setup.state();
    const std::string detail = std::string(status) + "; credit " + st.creditAmount.text() +
                               "; change paid " + change.text() + "; unpaid " + unpaid.text();
    m_setup.journal(
        {.kind = journal_kind::kPaymentEnd, .amount = st.creditAmount, .detail = detail});
    reportVanishedPorts();
    const LogLevel level =
        unpaid.positive() || status.starts_with("Error") ? LogLevel::Warning : LogLevel::Info;
    m_setup.log().write(level, "payment " + std::to_string(st.paymentId) + " ended: " + detail,
                        {"", st.paymentId});
    st.paymentId = 0;
}

bool CashPayment::enabledPortClosed() {
    const Console& c = m_setup.console();
    Platform& p = m_setup.platform();
    const bool mdb = c.checked("CoinAcceptorEnabled") || c.checked("billValidatorEnabled");
    return (mdb && !p.mdbPort.isOpen()) ||
           (c.checked("billDispenserEnabled") && !p.dispenserPort.isOpen()) ||
           (c.checked("hoppersEnabled") && !p.hoppersPort.isOpen());
}

void CashPayment::reportVanishedPorts() {
    // A link of an enabled device that closed during the payment (a cable pulled, a USB adapter
    // gone) is a port error, whatever device error the payment ended with: the host reads it in
    // "KSX_Error", and the next start initialises the equipment.
    const Console& c = m_setup.console();
    Platform& p = m_setup.platform();
    const bool mdb = c.checked("CoinAcceptorEnabled") || c.checked("billValidatorEnabled");
    if (enabledPortClosed()) {
        m_setup.writeMailbox(store::mailbox::kKsxError, "1");
        m_setup.log().error("a device's port closed during the payment: port error",
                            {"", m_setup.state().paymentId});
        if (mdb && !p.mdbPort.isOpen()) {
            m_setup.state().pollTimedOut = true;  // initialise again at the next start
        }
    }
}

// --- Start or stop ------------------------------------------------------------------------------

void CashPayment::enablePayment_Click(std::string_view requester) {
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    // A click queued while this runs must not start a second run when it returns.
    c.setEnabled("enablePayment", false);
    c.setEnabled("enablePaymentCC", false);
    const bool ok = trapped([&] {
        // A device that failed, or a port that went (a cable pulled, a USB adapter gone), in an
        // earlier payment is initialised again before the next payment starts: a port back in
        // its place is opened again, and one still missing is told to the host once more.
        if (st.bvNeedsInit || st.pollTimedOut || st.changerFailed ||
            (st.amountDue.isZero() && enabledPortClosed())) {
            m_setup.InitEquipment();
        }
        const std::optional<Money> due = requestedAmount(c.text("due"), m_setup.maxAmount());
        if (due && st.amountDue.isZero()) {
            startPayment(*due, requester);
        } else if (st.amountDue.positive()) {
            stopPayment();
        }
    });
    if (!ok) {
        m_setup.writeMailbox(store::mailbox::kKsxError, "1");
        // A payment broken off half-way (in practice the MDB port has gone) is ended here so the
        // console and the host are not left with a payment that nobody polls; what was credited
        // stays published, and the next start initialises the equipment first.
        if (st.amountDue.positive() || pollTimer().enabled()) {
            st.pollTimedOut = true;
            abandonPayment("Error: Coin Acceptor");
        }
        c.setEnabled("SSTab1", true);
    }
    c.setEnabled("enablePayment", true);
    c.setEnabled("enablePaymentCC", true);
}

void CashPayment::endForExit() {
    EngineState& st = m_setup.state();
    if (st.amountDue.positive()) {
        st.cancelKeepsCredit = 0;
        stopPayment();
    }
}

void CashPayment::abandonAfterInternalError() {
    EngineState& st = m_setup.state();
    m_setup.writeMailbox(store::mailbox::kKsxError, "1");
    if (st.amountDue.positive() || pollTimer().enabled()) {
        abandonPayment("Internal Error");
    }
}

void CashPayment::abandonPayment(std::string_view statusText) {
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    pollTimer().setEnabled(false);
    // Acceptance may still be on, and nobody will poll the devices now: a coin or bill taken
    // from here on would never be credited. Settle what can still be settled, then one reset
    // each, if the link still works.
    trapped([this] { settleAcceptance(); });
    MdbLink& link = m_setup.link();
    if (link.isOpen() && c.checked("CoinAcceptorEnabled") && !st.pollTimedOut) {
        trapped([&link] {
            const mdb::Exchange ex = link.exchange(mdb::Command::whole(mdb::frames::changerReset()),
                                                   mdb::payment_use::kAbandonChangerReset);
            link.acknowledge(ex.reply);
        });
    }
    if (link.isOpen() && c.checked("billValidatorEnabled") && !st.bvNeedsInit) {
        trapped([&link] {
            const mdb::Exchange ex = link.exchange(mdb::commands::validatorReset(),
                                                   mdb::payment_use::kAbandonValidatorReset);
            link.acknowledge(ex.reply);
        });
    }
    st.amountDue = Money();
    m_setup.writeMailbox(store::mailbox::kDue, "0");
    c.setText("enablePayment", std::string(caption::kPay));
    c.setText("dueDisplay", "");
    if (!statusText.empty()) {
        setStatus(statusText);
    }
    // The credit stays published: the host settles it.
    endPaymentRecord(statusText.empty() ? "abandoned" : statusText, Money(), Money());
    st.cancelKeepsCredit = 0;
    c.setEnabled("SSTab1", true);
}

void CashPayment::startPayment(Money due, std::string_view requester) {
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    m_setup.writeMailbox(store::mailbox::kKsxError, "0");
    if (!c.checked("CoinAcceptorEnabled") && !c.checked("billValidatorEnabled")) {
        return;
    }
    c.setEnabled("SSTab1", false);
    st.amountDue = due;
    st.creditAmount = Money();
    st.lastBillTime.reset();
    m_unreadablePolls = 0;
    beginPaymentRecord("cash", due, requester);
    m_setup.writeMailbox(store::mailbox::kDue, st.amountDue.text());
    m_setup.writeMailbox(store::mailbox::kCredit, st.creditAmount.text());
    m_setup.writeMailbox(store::mailbox::kChangeDispensed, "");
    m_setup.writeMailbox(store::mailbox::kStatus, c.text("statusDisplay"));

    if (c.checked("CoinAcceptorEnabled") && !enableCoinTypes()) {
        st.pollTimedOut = true;
        m_setup.log().error("coin changer: no answer to COIN TYPE; the payment does not start",
                            {"changer", st.paymentId});
        abandonPayment("Error: Coin Acceptor");
        return;
    }
    if (c.checked("billValidatorEnabled") && !enableBillTypes()) {
        st.bvNeedsInit = true;
        m_setup.log().error("bill validator: no answer to BILL TYPE; the payment does not start",
                            {"validator", st.paymentId});
        abandonPayment("Error: Bill Validator");
        return;
    }
    c.setText("creditDisplay", "$0.00");
    pollTimer().setEnabled(true);
    c.setText("enablePayment", std::string(caption::kStopPayment));
}

bool CashPayment::enableCoinTypes() {
    using namespace mdb;
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();

    // Console coin type n is the changer's type n-1; type 16 is the top bit of the high byte.
    const int high = payment::baseTwo(payment::flagDigits(c, &Console::ctEnabled, 16, 9));
    const int low = payment::baseTwo(payment::flagDigits(c, &Console::ctEnabled, 8, 1));
    // Every coin type may also be paid out by hand at the changer.
    const int manual = payment::baseTwo("11111111");
    const int data[4] = {high, low, manual, manual};
    const int check = payment::checkByteOf(kCoinTypeCommand, data);

    Command coinType = Command::words(payment::commandWords(kCoinTypeCommand, data, check));
    for (std::size_t i = 0; i < coinType.writes().size(); ++i) {
        coinType.pauseAfter(i, kCoinTypePaceSeconds);
    }
    const Exchange enabled = link.exchange(coinType, payment_use::kCoinType);
    if (!enabled.answered) {
        return false;
    }
    link.acknowledge(enabled.reply);

    // The diagnostic status tells whether the coin cassette is in; a changer that answers with a
    // bare acknowledgement is asked again.
    Reply diagnostic;
    for (int round = 0; round < kDeviceAttempts; ++round) {
        m_setup.pause(kBeforeDiagnosticSeconds);
        const Exchange ex =
            link.exchange(Command::wordByWord(kExpansionCommand, {kDiagnosticSubCommand}),
                          payment_use::kDiagnosticStatus);
        if (!ex.answered) {
            return false;
        }
        link.acknowledge(ex.reply);
        diagnostic = ex.reply;
        if (diagnostic.longerThanAck()) {
            break;
        }
    }

    if (diagnostic.startsWith(kCassetteRemoved)) {
        // The start goes on; the host command monitor cancels the payment on its next tick, and
        // the tubes, which cannot pay without their cassette, are not offered for change.
        m_setup.writeMailbox(store::mailbox::kCancel, "1");
        st.tubesUsable = false;
    } else {
        st.tubesUsable = true;
    }
    return true;
}

std::string CashPayment::loadBillTypes() {
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    // The stored settings, not unsaved check marks on the console, decide what is accepted. A
    // store that cannot be read leaves the boxes as they were loaded.
    for (int n = 1; n <= mdb::kBillTypes; ++n) {
        trapped([&] {
            const std::string stored = m_setup.getSetting(
                store::section::kBillValidator, "BillType" + std::to_string(n) + "_Enabled");
            const int value = strictInt(stored);
            if (value < 0 || value > 2) {
                throw KsxError(KsxError::kInvalidPropertyValue, "Invalid property value");
            }
            c.setValue(Console::btEnabled(n), value);
        });
        st.billValue[static_cast<std::size_t>(n)] =
            Money::fromDouble(leadingNumber(c.text(Console::btValue(n)))).value_or(Money());
    }
    // No bill is held in escrow: an accepted bill goes straight to the stacker.
    const int escrow = mdb::payment::baseTwo("00000000");
    const int high = mdb::payment::baseTwo(mdb::payment::flagDigits(c, &Console::btEnabled, 16, 9));
    const int low = mdb::payment::baseTwo(mdb::payment::flagDigits(c, &Console::btEnabled, 8, 1));
    const int data[4] = {high, low, escrow, escrow};
    return mdb::payment::commandWords(kBillTypeCommand, data,
                                      mdb::payment::checkByteOf(kBillTypeCommand, data));
}

bool CashPayment::enableBillTypes() {
    using namespace mdb;
    MdbLink& link = m_setup.link();
    // Zero-second pauses after data bytes 1, 3 and 5 split the frame into bursts.
    Command billType = Command::words(loadBillTypes());
    billType.pauseAfter(1, 0).pauseAfter(3, 0).pauseAfter(5, 0);
    const Exchange ex = link.exchange(billType, payment_use::kBillType, mdb::notNak);
    if (!ex.answered) {
        return false;
    }
    link.acknowledge(ex.reply);
    return true;
}

// --- Settling acceptance ------------------------------------------------------------------------

void CashPayment::settleAcceptance() {
    using namespace mdb;
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();
    if (!link.isOpen()) {
        return;
    }
    bool changer = c.checked("CoinAcceptorEnabled") && !st.pollTimedOut;
    bool validator = c.checked("billValidatorEnabled") && !st.bvNeedsInit;
    if (!changer && !validator) {
        return;
    }
    if (changer) {
        const int none[4] = {0, 0, 0xFF, 0xFF};
        const Exchange ex = link.exchange(
            Command::words(payment::commandWords(kCoinTypeCommand, none,
                                                 payment::checkByteOf(kCoinTypeCommand, none))),
            payment_use::kDisableCoinTypes);
        changer = ex.answered;
        if (changer) {
            link.acknowledge(ex.reply);
        }
    }
    if (validator) {
        const int none[4] = {0, 0, 0, 0};
        const Exchange ex = link.exchange(
            Command::words(payment::commandWords(kBillTypeCommand, none,
                                                 payment::checkByteOf(kBillTypeCommand, none))),
            payment_use::kDisableBillTypes, mdb::notNak);
        validator = ex.answered;
        if (validator) {
            link.acknowledge(ex.reply);
        }
    }

    const double start = m_setup.elapsed();
    double lastActivity = start;
    while (changer || validator) {
        bool active = false;
        if (changer) {
            const Poll p = pollChanger(payment_use::kSettleChangerPoll);
            active = active || p == Poll::Active || p == Poll::Unreadable;
            if (p == Poll::Silent) {
                // Whatever it still held cannot be read: the payment ends as the changer's
                // failure, with its credit published.
                changer = false;
                st.pollTimedOut = true;
            }
        }
        if (validator) {
            const Poll p = pollValidator(payment_use::kSettleValidatorPoll);
            active = active || p == Poll::Active || p == Poll::Unreadable;
            if (p == Poll::Silent) {
                validator = false;
                st.bvNeedsInit = true;
            }
        }
        const double now = m_setup.elapsed();
        if (active) {
            lastActivity = now;
        }
        if (now - lastActivity >= bounds::kSettleQuietSeconds || m_setup.pastDeadline()) {
            break;
        }
        if (now - start >= bounds::kSettleMaxSeconds) {
            m_setup.log().warning("acceptance did not settle within its bound; resetting anyway",
                                  {"", st.paymentId});
            break;
        }
        m_setup.pause(bounds::kSettlePollSeconds);
    }
}

void CashPayment::collectReports() {
    Console& c = m_setup.console();
    // A device that failed in a payment, or whose port went, may still hold the report of money
    // it took in while nobody heard it (a bill stacked as the cable was pulled); the RESET of its
    // initialisation would drop that report. It is read first: credited to a payment still
    // running, otherwise recorded in the journal as uncredited and logged, for the operator to
    // settle. A device that does not answer is left to its initialisation.
    constexpr int kRounds = 5;
    for (int round = 0; round < kRounds; ++round) {
        bool more = false;
        if (c.checked("CoinAcceptorEnabled")) {
            more = pollChanger(mdb::payment_use::kSettleChangerPoll) == Poll::Active || more;
        }
        if (c.checked("billValidatorEnabled")) {
            more = pollValidator(mdb::payment_use::kSettleValidatorPoll) == Poll::Active || more;
        }
        if (!more) {
            break;
        }
    }
}

void CashPayment::resetValidator(const mdb::LinkUse& resetUse, bool ccdPause) {
    using namespace mdb;
    MdbLink& link = m_setup.link();
    if (ccdPause) {
        m_setup.pause(kSettleSeconds);
    }
    const Exchange reset = link.exchange(commands::validatorReset(), resetUse);
    // A validator that answers no RESET is left as it is: a POLL would not be answered either.
    if (!reset.answered) {
        m_setup.state().bvNeedsInit = true;
        return;
    }
    link.acknowledge(reset.reply);
    link.settle();
    // Its first POLL takes the "validator was reset" report.
    const Exchange poll =
        link.exchange(commands::validatorPoll(), payment_use::kValidatorPollAfterReset);
    if (poll.answered) {
        link.acknowledge(poll.reply);
    }
    link.settle();
}

void CashPayment::resetChangerAndReadTubes() {
    using namespace mdb;
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();
    const Exchange reset =
        link.exchange(Command::whole(mdb::frames::changerReset()), payment_use::kChangerReset);
    if (!reset.answered) {
        st.changerFailed = true;
        return;
    }
    link.acknowledge(reset.reply);
    // Its first POLL takes the "changer was reset" report.
    pollChanger(payment_use::kChangerPollAfterReset);
    m_setup.pause(kStopChangerResetSeconds);
    if (const std::optional<TubeCounts> counts =
            readTubeStatus(m_setup, payment_use::kTubeStatus)) {
        publishTubes(m_setup, *counts);
    } else {
        st.changerFailed = true;
    }
}

// --- Stop ---------------------------------------------------------------------------------------

void CashPayment::stopPayment() {
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();

    pollTimer().setEnabled(false);
    settleAcceptance();
    const bool linkOpen = m_setup.link().isOpen();
    if (c.checked("billValidatorEnabled") && !st.bvNeedsInit && linkOpen) {
        resetValidator(mdb::payment_use::kStopValidatorReset, false);
    }
    if (c.checked("CoinAcceptorEnabled") && !st.pollTimedOut && linkOpen) {
        resetChangerAndReadTubes();
        if (!st.tubesUsable) {
            // Without its cassette the changer cannot pay from the tubes: offer none.
            mdb::publishNoTubes(m_setup);
        }
    }

    Money change;
    const Money refund = st.cancelKeepsCredit == 0 ? st.creditAmount : Money();
    if (refund.positive()) {
        // The inserted money goes back; what cannot be paid shows in ChangeDispensed.
        change = DispenseChange(refund);
    }
    // The "keep the credit" cancel was for this payment only.
    st.cancelKeepsCredit = 0;

    st.amountDue = Money();
    m_setup.writeMailbox(store::mailbox::kDue, st.amountDue.text());
    c.setText("enablePayment", std::string(caption::kPay));
    c.setText("dueDisplay", "");
    c.setText("creditDisplay", "$0.00");
    endPaymentRecord("Transaction Cancelled", change, refund - change - m_lastUnknown);
    st.creditAmount = Money();
    m_setup.writeMailbox(store::mailbox::kCredit, st.creditAmount.text());

    setStatus("Transaction Cancelled");
    if (!m_setup.interrupted()) {
        m_setup.pause(kMessageSeconds);
    }
    c.setText("statusDisplay", "");
    c.setEnabled("SSTab1", true);
}

}  // namespace kestrix
