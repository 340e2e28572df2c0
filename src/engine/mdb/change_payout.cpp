// The change payout: the bill dispenser first, then the coin changer's tubes, then the hoppers,
// each paying what it can and passing the rest on.

#include <algorithm>
#include <cmath>

#include "../formulas.h"
#include "../settings/layout.h"
#include "../setup.h"
#include "cash_payment.h"
#include "cash_payment_bytes.h"
#include "link.h"
#include "payment_uses.h"

namespace kestrix {

namespace {

constexpr std::uint8_t kExpansionCommand = 0x0F;
constexpr std::uint8_t kPayoutSubCommand = 0x02;
// The payout's check byte is 0Fh + 02h + the amount.
constexpr int kPayoutCheckBase = kExpansionCommand + kPayoutSubCommand;
constexpr double kPayoutPaceSeconds = 0.1;
constexpr std::size_t kAckOnlyMaxChars = 6;
constexpr std::string_view kBareAck = "0001 ";
constexpr std::string_view kDispensing = "Dispensing change...";
// Counts of bills, coin units and coins are whole parts of money divided by a value; the
// epsilon keeps a representation error (0.3 / 0.1 = 2.9999...) from costing a whole unit.
constexpr double kCountEpsilon = 1e-9;

int wholeCount(double value) {
    if (!(value > 0)) {
        return 0;
    }
    return static_cast<int>(std::min(std::floor(value + kCountEpsilon), 1e9));
}

}  // namespace

void CashPayment::DispenseChange(double& amount) {
    Console& c = m_setup.console();
    double total = 0;
    try {
        m_setup.writeMailbox(store::mailbox::kChangeDispensed, "");
        const bool changeOn = c.checked("changeEnabled");

        const double billValue = leadingNumber(c.text("bDispType"));
        if (changeOn && c.checked("billDispenserEnabled") && billValue > 0 && amount >= billValue &&
            c.text("bdStatus") == "OK") {
            setStatus(kDispensing);
            c.setText("bdQtyBills", std::to_string(wholeCount(amount / billValue)));
            m_setup.bdDispenseBills_Click();
            const double paid = leadingNumber(c.text("bdBillsDispensed")) * billValue;
            amount -= paid;
            total += paid;
        }

        const double tubesBefore = leadingNumber(c.text("tubesAmount"));
        if (changeOn && tubesBefore > 0) {
            setStatus(kDispensing);
            double share = std::min(amount, tubesBefore);
            const double scaling = leadingNumber(c.text("caScalingFactor"));
            // A share below one coin unit (or a changer without a scaling factor) sends nothing:
            // a payout of 0 units would be asked for again and again.
            for (int units = wholeCount(scaling * share); scaling > 0 && units > 0;
                 units = wholeCount(scaling * share)) {
                units = std::min(units, kMaxPayoutUnits);
                payOutFromTubes(units);
                share -= units / scaling;
            }
            readTubesAfterPayout();
            // What counts is the tube money actually lost, not the units asked for.
            const double paid = tubesBefore - leadingNumber(c.text("tubesAmount"));
            total += paid;
            amount -= paid;
        }

        const double h1 = leadingNumber(c.text("h1CoinValue"));
        const double h2 = leadingNumber(c.text("h2CoinValue"));
        const auto payable = [&amount](double coin) {
            return coin > 0 && amount + kCountEpsilon >= coin;
        };
        if (changeOn && c.checked("hoppersEnabled") && (payable(h1) || payable(h2))) {
            setStatus(kDispensing);
            c.setText("hToDispense", numberText(amount));
            m_setup.hDispenseCoins_Click();
            const double paid = leadingNumber(c.text("hDispensed"));
            amount -= paid;
            total += paid;
        }
    } catch (const std::exception&) {
        // A source that failed half-way (a port gone) pays nothing more; what was paid until then
        // is still reported below, so the host knows what left the kiosk.
    }
    try {
        m_setup.writeMailbox(store::mailbox::kChangeDispensed, numberText(total));
    } catch (const std::exception&) {
    }
}

void CashPayment::payOutFromTubes(int units) {
    using namespace mdb;
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();
    const std::uint8_t amount = payment::wireByte(units);
    const std::string words = word(kExpansionCommand, kModeAddress) +
                              word(kPayoutSubCommand, kModeData) + word(amount, kModeData) +
                              word(payment::wireByte(kPayoutCheckBase + units), kModeData);
    Command payout = Command::words(words);
    payout.pauseAfter(1, kPayoutPaceSeconds).pauseAfter(3, kPayoutPaceSeconds);
    const Exchange ex = link.exchange(payout, payment_use::kPayout);
    link.acknowledge(ex.reply);

    // The changer pays at its own pace; changeTimer watches it while the console goes on.
    st.payoutBusy = true;
    m_setup.changeTimer().setEnabled(true);
    m_setup.yieldUntil([&st] { return !st.payoutBusy; });
}

void CashPayment::changeTimer_Timer() {
    using namespace mdb;
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();
    try {
        const Exchange ex =
            link.exchange(Command::whole(link.frames().caPollFrame), payment_use::kPayoutWatchPoll);
        if (!ex.reply.isBareAck()) {
            // Still busy (or reporting something else): keep waiting.
            link.acknowledge(ex.reply);
            return;
        }
    } catch (const std::exception&) {
        // The link has gone: nothing more can be learnt from the changer, and the payout's wait
        // must not last for ever. The tube status read afterwards settles what was paid.
    }
    st.payoutBusy = false;
    m_setup.changeTimer().setEnabled(false);
}

void CashPayment::readTubesAfterPayout() {
    using namespace mdb;
    EngineState& st = m_setup.state();
    MdbLink& link = m_setup.link();
    Reply tubes;
    do {
        m_setup.pause(kSettleSeconds);
        st.tubesValue = 0;
        const Exchange ex =
            link.exchange(commands::changerTubeStatus(), payment_use::kPayoutTubeStatus);
        link.acknowledge(ex.reply);
        tubes = ex.reply;
    } while (tubes.size() <= kAckOnlyMaxChars);
    if (tubes.startsWith(kBareAck)) {
        tubes = Reply(tubes.text().substr(kBareAck.size()));
    }
    takeTubeStatus(tubes);
}

}  // namespace kestrix
