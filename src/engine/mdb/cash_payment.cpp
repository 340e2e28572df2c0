// The cash payment's start and stop: the routine behind the `enablePayment` button, which the
// host command monitor also runs to start a payment for the host's Due and to cancel it.

#include "cash_payment.h"

#include "../errors.h"
#include "../formulas.h"
#include "../settings/layout.h"
#include "../setup.h"
#include "cash_payment_bytes.h"
#include "link.h"
#include "payment_uses.h"

namespace kestrix {

namespace {

constexpr std::uint8_t kCoinTypeCommand = 0x0C;
constexpr std::uint8_t kBillTypeCommand = 0x34;
constexpr std::uint8_t kExpansionCommand = 0x0F;
constexpr std::uint8_t kDiagnosticSubCommand = 0x05;

// Pause after each of the six writes of COIN TYPE.
constexpr double kCoinTypePaceSeconds = 0.1;
constexpr double kBeforeDiagnosticSeconds = 0.1;
// A diagnostic reply longer than a bare acknowledgement ("0001 ", 5 characters).
constexpr std::size_t kAckOnlyMaxChars = 6;
// Diagnostic 15h 02h: the changer's coin cassette has been taken out.
constexpr std::string_view kCassetteRemoved = "1500 0200";

constexpr double kStopChangerResetSeconds = 0.5;
constexpr double kMessageSeconds = 1.0;

constexpr int kTubeSlots = 5;
constexpr int kCoinTypes = 16;
constexpr int kBillTypes = 16;

}  // namespace

CashPayment::CashPayment(Setup& setup) : m_setup(setup) {}

void CashPayment::setStatus(std::string_view text) {
    m_setup.console().setText("statusDisplay", std::string(text));
    m_setup.writeMailbox(store::mailbox::kStatus, text);
}

// --- Start or stop ------------------------------------------------------------------------------

void CashPayment::enablePayment_Click() {
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    // A click queued while this runs must not start a second run when it returns.
    c.setEnabled("enablePayment", false);
    c.setEnabled("enablePaymentCC", false);
    try {
        if (st.bvNeedsInit || st.pollTimedOut) {
            m_setup.InitEquipment();
        }
        const double due = leadingNumber(c.text("due"));
        if (due > 0 && st.amountDue == 0) {
            startPayment();
        } else if (st.amountDue > 0) {
            stopPayment();
        }
    } catch (const std::exception&) {
        try {
            m_setup.writeMailbox(store::mailbox::kKsxError, "1");
        } catch (const std::exception&) {
        }
        // A payment broken off half-way (in practice the MDB port has gone) is ended here so the
        // console and the host are not left with a payment that nobody polls; what was credited
        // stays published, and the next start initialises the equipment first.
        if (st.amountDue > 0 || m_setup.pollTimer().enabled()) {
            st.pollTimedOut = true;
            abandonPayment({});
        }
        c.setEnabled("SSTab1", true);
    }
    c.setEnabled("enablePayment", true);
    c.setEnabled("enablePaymentCC", true);
}

void CashPayment::abandonPayment(std::string_view statusText) {
    Console& c = m_setup.console();
    m_setup.pollTimer().setEnabled(false);
    // Acceptance may still be on, and nobody will poll the devices now: a coin or bill taken
    // from here on would never be credited. One reset each, if the link still works, turns it
    // off; nothing more is tried.
    MdbLink& link = m_setup.link();
    const auto attempt = [](const auto& exchange) {
        try {
            exchange();
        } catch (const std::exception&) {
        }
    };
    if (link.isOpen() && c.checked("CoinAcceptorEnabled")) {
        attempt([&link] {
            const mdb::Exchange ex = link.exchange(mdb::Command::whole(link.frames().caResetFrame),
                                                   mdb::payment_use::kAbandonChangerReset);
            link.acknowledge(ex.reply);
        });
    }
    if (link.isOpen() && c.checked("billValidatorEnabled")) {
        attempt([&link] {
            const mdb::Exchange ex = link.exchange(mdb::commands::validatorReset(),
                                                   mdb::payment_use::kAbandonValidatorReset);
            link.acknowledge(ex.reply);
        });
    }
    m_setup.state().amountDue = 0;
    try {
        m_setup.writeMailbox(store::mailbox::kDue, "0");
    } catch (const std::exception&) {
    }
    c.setText("enablePayment", "Pay");
    c.setText("dueDisplay", "");
    if (!statusText.empty()) {
        c.setText("statusDisplay", std::string(statusText));
        try {
            m_setup.writeMailbox(store::mailbox::kStatus, statusText);
        } catch (const std::exception&) {
        }
    }
    c.setEnabled("SSTab1", true);
}

void CashPayment::startPayment() {
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    m_setup.writeMailbox(store::mailbox::kKsxError, "0");
    if (!c.checked("CoinAcceptorEnabled") && !c.checked("billValidatorEnabled")) {
        return;
    }
    c.setEnabled("SSTab1", false);
    st.amountDue = leadingNumber(c.text("due"));
    st.creditAmount = 0;
    m_setup.writeMailbox(store::mailbox::kDue, numberText(st.amountDue));
    m_setup.writeMailbox(store::mailbox::kCredit, numberText(st.creditAmount));
    m_setup.writeMailbox(store::mailbox::kChangeDispensed, "");
    m_setup.writeMailbox(store::mailbox::kStatus, c.text("statusDisplay"));

    if (c.checked("CoinAcceptorEnabled")) {
        enableCoinTypes();
    }
    if (c.checked("billValidatorEnabled")) {
        enableBillTypes();
    }
    c.setText("creditDisplay", "$0.00");
    m_setup.pollTimer().setEnabled(true);
    c.setText("enablePayment", "Stop Payment...");
}

void CashPayment::enableCoinTypes() {
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
    st.commandBytes = {high, low, manual, manual, check};

    Command coinType = Command::words(payment::commandWords(kCoinTypeCommand, data, check));
    for (std::size_t i = 0; i < coinType.writes().size(); ++i) {
        coinType.pauseAfter(i, kCoinTypePaceSeconds);
    }
    const Exchange enabled = link.exchange(coinType, payment_use::kCoinType);
    link.acknowledge(enabled.reply);

    // The diagnostic status tells whether the coin cassette is in; a changer that answers with a
    // bare acknowledgement is asked again.
    Reply diagnostic;
    do {
        m_setup.pause(kBeforeDiagnosticSeconds);
        const Exchange ex =
            link.exchange(Command::wordByWord(kExpansionCommand, {kDiagnosticSubCommand}),
                          payment_use::kDiagnosticStatus);
        link.acknowledge(ex.reply);
        diagnostic = ex.reply;
    } while (diagnostic.size() <= kAckOnlyMaxChars);

    if (diagnostic.startsWith(kCassetteRemoved)) {
        // The start goes on; the host command monitor cancels the payment on its next tick, and
        // the tubes, which cannot pay without their cassette, are not offered for change.
        m_setup.writeMailbox(store::mailbox::kCancel, "1");
        st.tubesUsable = false;
    } else {
        st.tubesUsable = true;
    }
}

void CashPayment::loadBillTypes() {
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    // The stored settings, not unsaved check marks on the console, decide what is accepted.
    for (int n = 1; n <= kBillTypes; ++n) {
        const std::string stored = m_setup.getSetting(store::section::kBillValidator,
                                                      "BillType" + std::to_string(n) + "_Enabled");
        const int value = strictInt(stored);
        if (value < 0 || value > 2) {
            throw KsxError(KsxError::kInvalidPropertyValue, "Invalid property value");
        }
        c.setValue(Console::btEnabled(n), value);
        st.billValue[static_cast<std::size_t>(n)] = leadingNumber(c.text(Console::btValue(n)));
    }
    // No bill is held in escrow: an accepted bill goes straight to the stacker.
    const int escrow = mdb::payment::baseTwo("00000000");
    const int high = mdb::payment::baseTwo(mdb::payment::flagDigits(c, &Console::btEnabled, 16, 9));
    const int low = mdb::payment::baseTwo(mdb::payment::flagDigits(c, &Console::btEnabled, 8, 1));
    const int data[4] = {high, low, escrow, escrow};
    st.commandBytes = {high, low, escrow, escrow,
                       mdb::payment::checkByteOf(kBillTypeCommand, data)};
}

void CashPayment::enableBillTypes() {
    using namespace mdb;
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();
    loadBillTypes();
    const auto& b = st.commandBytes;
    const int data[4] = {b[0], b[1], b[2], b[3]};
    // Zero-second pauses after data bytes 1, 3 and 5 split the frame into bursts.
    Command billType = Command::words(payment::commandWords(kBillTypeCommand, data, b[4]));
    billType.pauseAfter(1, 0).pauseAfter(3, 0).pauseAfter(5, 0);
    const Exchange ex = link.exchange(billType, payment_use::kBillType, mdb::notNak);
    link.acknowledge(ex.reply);
}

// --- Tube status
// ----------------------------------------------------------------------------------

void CashPayment::takeTubeStatus(const mdb::Reply& reply) {
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    // Bytes 1 and 2 are the tube-full flags; the counts follow, one byte per coin type. Bytes past
    // the end of a short reply count as empty tubes.
    for (std::size_t k = 1; k <= kCoinTypes; ++k) {
        st.tubeCount[k] = static_cast<int>(reply.number(static_cast<int>(k) + 2));
    }
    for (std::size_t k = 1; k <= kCoinTypes; ++k) {
        for (int slot = 1; slot <= kTubeSlots; ++slot) {
            if (st.tubeSlotCoin[static_cast<std::size_t>(slot)] == st.coinValue[k]) {
                const std::string count = std::to_string(st.tubeCount[k]);
                c.setText(Console::tubeCoinQty(slot), count);
                m_setup.saveSetting(store::section::kCoinAcceptor, store::key::tubeCoinQty(slot),
                                    count);
            }
        }
    }
    st.tubesValue = 0;
    for (std::size_t k = 1; k <= kCoinTypes; ++k) {
        st.tubesValue = static_cast<float>(static_cast<double>(st.tubesValue) +
                                           st.tubeCount[k] * st.coinValue[k]);
    }
    const std::string tubes = singleText(st.tubesValue);
    c.setText("tubesAmount", tubes);
    m_setup.writeMailbox(store::mailbox::kTubes, tubes);
}

// --- Stop ---------------------------------------------------------------------------------------

void CashPayment::stopPayment() {
    using namespace mdb;
    Console& c = m_setup.console();
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();

    m_setup.pollTimer().setEnabled(false);

    // Resetting the devices is what disables acceptance.
    if (c.checked("billValidatorEnabled")) {
        const Exchange reset =
            link.exchange(commands::validatorReset(), payment_use::kStopValidatorReset);
        link.acknowledge(reset.reply);
        link.settle();
        const Exchange poll =
            link.exchange(commands::validatorPoll(), payment_use::kStopValidatorPoll);
        link.acknowledge(poll.reply);
        link.sendAck();
        link.settle();
    }

    if (c.checked("CoinAcceptorEnabled")) {
        const Exchange reset = link.exchange(Command::whole(link.frames().caResetFrame),
                                             payment_use::kStopChangerReset);
        link.acknowledge(reset.reply);
        m_setup.pause(kStopChangerResetSeconds);

        st.tubesValue = 0;
        const Exchange tubes =
            link.exchange(commands::changerTubeStatus(), payment_use::kStopTubeStatus);
        link.acknowledge(tubes.reply);
        takeTubeStatus(tubes.reply);
        if (!st.tubesUsable) {
            // Without its cassette the changer cannot pay from the tubes: offer none.
            for (int slot = 1; slot <= kTubeSlots; ++slot) {
                m_setup.saveSetting(store::section::kCoinAcceptor, store::key::tubeCoinQty(slot),
                                    "0");
                c.setText(Console::tubeCoinQty(slot), "0");
            }
            m_setup.writeMailbox(store::mailbox::kTubes, "0");
            c.setText("tubesAmount", "0");
        }
    }

    if (st.cancelKeepsCredit == 0 && st.creditAmount > 0) {
        // The inserted money goes back; what cannot be paid shows in ChangeDispensed.
        double refund = st.creditAmount;
        DispenseChange(refund);
    }

    st.amountDue = 0;
    m_setup.writeMailbox(store::mailbox::kDue, numberText(st.amountDue));
    c.setText("enablePayment", "Pay");
    c.setText("dueDisplay", "");
    c.setText("creditDisplay", "$0.00");
    st.creditAmount = 0;
    m_setup.writeMailbox(store::mailbox::kCredit, numberText(st.creditAmount));

    setStatus("Transaction Cancelled");
    m_setup.pause(kMessageSeconds);
    c.setText("statusDisplay", "");
    c.setEnabled("SSTab1", true);
}

}  // namespace kestrix
