#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/hoppers/cctalk.h"
#include "engine/hoppers/hoppers.h"
#include "engine/settings/layout.h"
#include "engine/setup.h"
#include "support/kiosk.h"

namespace kestrix {
namespace {

using Outcome = Hoppers::Outcome;

// The wire to the hoppers interface, able to lose the reply to a dispense command (the hopper
// took it) or the command itself (the hopper never saw it; the interface still echoes it).
class LossyWire : public sim::LinkDevice {
public:
    explicit LossyWire(sim::HopperBus& bus) : m_bus(bus) {}
    int dropDispenseReplies = 0;
    int swallowDispenses = 0;

    void receive(std::string_view bytes, double now) override {
        const bool dispense = bytes.size() > 3 && static_cast<unsigned char>(bytes[3]) ==
                                                      cctalk::header::kDispenseHopperCoins;
        if (dispense && swallowDispenses > 0 && swallowDispenses--) {
            m_echo.append(bytes);
            return;
        }
        m_bus.receive(bytes, now);
        if (dispense && dropDispenseReplies > 0 && dropDispenseReplies--) {
            m_keep = bytes.size();  // the echo gets through, the reply does not
            m_dropUntil = now + 0.1;
        }
    }
    std::string transmit(double now) override {
        std::string out = m_echo + m_bus.transmit(now);
        m_echo.clear();
        if (now <= m_dropUntil) {
            out.resize(std::min(out.size(), m_keep));
            m_keep -= out.size();
        }
        return out;
    }

private:
    sim::HopperBus& m_bus;
    std::string m_echo;
    std::size_t m_keep = 0;
    double m_dropUntil = -1;
};

// The simulated kiosk with only its hoppers enabled: coins of 1 in hopper 1 (address 3), of 5
// in hopper 2 (address 4).
struct HopperRig : test::Kiosk {
    LossyWire wire{hoppers()};
    std::vector<bool> buttonStates;  // each change of hDispenseCoins' enabled flag

    explicit HopperRig(const char* profile = "default",
                       const std::vector<std::pair<std::string_view, std::string>>& settings = {})
        : test::Kiosk(*sim::profileNamed(profile)) {
        hoppersPort().wire(kPorts.hoppers, &wire);
        for (const auto& [section, key] : {std::pair{store::section::kCoinAcceptor, "CAE"},
                                           {store::section::kBillValidator, "BVE"},
                                           {store::section::kBillDispenser, "BDE"},
                                           {store::section::kPinPad, "PPE"}}) {
            set(section, key, "0");
        }
        for (const auto& [key, value] : settings) {
            set(store::section::kHoppers, key, value);
        }
        EXPECT_TRUE(start());
        console().setChangeListener([this](const Field& f) {
            if (f.name == "hDispenseCoins") {
                buttonStates.push_back(f.enabled);
            }
        });
    }
    sim::Hopper& hopper(int n) { return hoppers().hopper(n); }

    // Pays `amount` through the console's button routine; returns hDispensed.
    std::string dispense(const std::string& amount) {
        console().setText("hToDispense", amount);
        engine().hoppers().hDispenseCoins_Click();
        return console().text("hDispensed");
    }
    int dispenseCommandsSent(int address) {
        int n = 0;
        const std::string& w = hoppersPort().written();
        for (std::size_t i = 0; i + 4 < w.size(); i += static_cast<unsigned char>(w[i + 1]) + 5U) {
            n += static_cast<unsigned char>(w[i]) == address &&
                 static_cast<unsigned char>(w[i + 3]) == cctalk::header::kDispenseHopperCoins;
        }
        return n;
    }
    const Hoppers::Report& report(int hopper) {
        for (const Hoppers::Report& r : engine().hoppers().lastReports()) {
            if (r.hopper == hopper) {
                return r;
            }
        }
        throw std::out_of_range("hopper not asked");
    }
};

TEST(Hoppers, PayTheLargerCoinFirstThenTheRestInEveryDispenseMode) {
    for (const char* profile : {"default", "zeros8", "noencrypt8", "no-echo"}) {
        SCOPED_TRACE(profile);
        HopperRig rig(profile);
        EXPECT_EQ(rig.dispense("13"), "13");
        EXPECT_EQ(rig.hopper(2).coinsLeft(), 198);
        EXPECT_EQ(rig.hopper(1).coinsLeft(), 197);
        EXPECT_EQ(rig.dispenseCommandsSent(4), 1);
        EXPECT_EQ(rig.dispenseCommandsSent(3), 1);
        EXPECT_EQ(rig.engine().hoppers().lastReports().at(0).hopper, 2);  // the 5s first
        EXPECT_EQ(rig.report(1).outcome, Outcome::Paid);
        EXPECT_EQ(rig.buttonStates, (std::vector<bool>{false, true}));  // off while paying
    }
}

TEST(Hoppers, AmountsAreReadLenientlyAndLargeOnesGoInCommandsOf255Coins) {
    const std::tuple<const char*, const char*, int, int> rows[] = {
        {"7.5", "7", 1, 2}, {"4", "4", 0, 4}, {"0.5", "0", 0, 0},       {"abc", "0", 0, 0},
        {"-5", "0", 0, 0},  {"", "0", 0, 0},  {"10 coins", "10", 2, 0}, {"1300", "1300", 200, 300},
    };
    for (const auto& [amount, paid, fives, ones] : rows) {
        SCOPED_TRACE(amount);
        HopperRig rig;
        rig.hopper(1).setCoins(400);
        EXPECT_EQ(rig.dispense(amount), paid);
        EXPECT_EQ(200 - rig.hopper(2).coinsLeft(), fives);
        EXPECT_EQ(400 - rig.hopper(1).coinsLeft(), ones);
    }
    HopperRig rig;
    rig.hopper(1).setCoins(400);
    rig.console().setText("h2CoinValue", "0");  // no coin value: hopper 2 is left out
    EXPECT_EQ(rig.dispense("300"), "300");
    EXPECT_EQ(rig.dispenseCommandsSent(3), 2);
}

TEST(Hoppers, AShortHopperPassesTheRestToTheOther) {
    HopperRig rig;
    rig.hopper(2).setCoins(1);
    EXPECT_EQ(rig.dispense("13"), "13");  // one 5, then eight 1s
    EXPECT_EQ(rig.hopper(1).coinsLeft(), 192);
    EXPECT_EQ(rig.report(2).coinsPaid, 1);
    EXPECT_EQ(rig.report(2).outcome, Outcome::Empty);
    rig.hopper(1).setCoins(3);
    EXPECT_EQ(rig.dispense("13"), "3");  // both dry: what came out is what is reported
    rig.hopper(1).setCoins(50);
    rig.hopper(2).setCoins(50);
    EXPECT_EQ(rig.dispense("6"), "6");  // refilled: the latched fault is reset

    HopperRig jam;
    jam.hopper(2).setFault("jam", true);
    const double before = jam.now();
    EXPECT_EQ(jam.dispense("10"), "10");
    EXPECT_EQ(jam.report(2).outcome, Outcome::Jammed);
    EXPECT_EQ(jam.hopper(2).coinsRemaining(), 0);  // stopped
    EXPECT_LT(jam.now() - before, 20.0);           // after its stall time, not for ever
}

TEST(Hoppers, ALostDispenseReplyIsSettledByTheEventCounterNeverByAResend) {
    // Only the reply was lost: the counter moved on, so the command is not sent again.
    HopperRig taken;
    taken.wire.dropDispenseReplies = 1;
    EXPECT_EQ(taken.dispense("10"), "10");
    EXPECT_EQ(taken.dispenseCommandsSent(4), 1);
    EXPECT_EQ(taken.hopper(2).coinsPaidLifetime(), 2);
    // The command itself was lost: the counter did not move, so it is sent once more.
    HopperRig lost;
    lost.wire.swallowDispenses = 1;
    EXPECT_EQ(lost.dispense("10"), "10");
    EXPECT_EQ(lost.dispenseCommandsSent(4), 2);
    EXPECT_EQ(lost.hopper(2).coinsPaidLifetime(), 2);
}

TEST(Hoppers, LinkFaultsPayNothingAndDoNotHang) {
    // An echo skipped as noise when the setting says there is none works; one expected but
    // never coming means a dead link.
    EXPECT_EQ(HopperRig("default", {{store::key::kEcho, "0"}}).dispense("6"), "6");
    HopperRig deaf("no-echo", {{store::key::kEcho, "1"}});
    EXPECT_EQ(deaf.dispense("6"), "0");
    EXPECT_EQ(deaf.report(2).outcome, Outcome::LinkDead);

    HopperRig silent;
    silent.hopper(2).setFault("silent", true);
    EXPECT_EQ(silent.dispense("13"), "13");  // from hopper 1
    silent.hopper(1).setFault("silent", true);
    const double before = silent.now();
    EXPECT_EQ(silent.dispense("13"), "0");
    EXPECT_EQ(silent.report(2).outcome, Outcome::Absent);
    EXPECT_LT(silent.now() - before, 5.0);

    HopperRig gone;  // the port fails on its next use and closes
    gone.hoppersPort().unplug();
    EXPECT_EQ(gone.dispense("13"), "0");
    EXPECT_TRUE(gone.buttonStates.back());
    gone.hoppersPort().plugIn();  // closed now: opened once more on the configured port
    EXPECT_EQ(gone.dispense("5"), "5");
    gone.hoppersPort().close();
    gone.console().setText("comPorts2", "9");  // no such port
    EXPECT_EQ(gone.dispense("5"), "0");

    HopperRig encrypted("default", {{store::key::kDispenseMode, "encrypted"}});
    encrypted.hoppersPort().clearWritten();
    EXPECT_EQ(encrypted.dispense("13"), "0");
    EXPECT_TRUE(encrypted.hoppersPort().written().empty());
    EXPECT_NE(encrypted.messageBox().shown().at(0).text.find("encrypted"), std::string::npos);
}

}  // namespace
}  // namespace kestrix
