#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "engine/hoppers/cctalk.h"
#include "engine/hoppers/hoppers.h"
#include "engine/settings/layout.h"
#include "engine/setup.h"
#include "sim/profile.h"
#include "sim/world/virtual_kiosk.h"
#include "sim/world/virtual_serial_port.h"

namespace kestrix {
namespace {

using Outcome = Hoppers::Outcome;

// The wire between the engine and the hoppers interface, able to lose frames on the way: the
// reply to a dispense command (the hopper took it), or the dispense command itself (the hopper
// never saw it; the interface still echoes what was sent).
class LossyWire : public sim::LinkDevice {
public:
    explicit LossyWire(sim::HopperBus& bus) : m_bus(bus) {}
    int dropDispenseReplies = 0;
    int swallowDispenses = 0;

    void receive(std::string_view bytes, double now) override {
        const bool dispense = bytes.size() > 3 && static_cast<unsigned char>(bytes[3]) ==
                                                      cctalk::header::kDispenseHopperCoins;
        if (dispense && swallowDispenses > 0) {
            --swallowDispenses;
            if (m_bus.echoing()) {
                m_ownEcho.append(bytes);
            }
            return;
        }
        m_bus.receive(bytes, now);
        if (dispense && dropDispenseReplies > 0) {
            --dropDispenseReplies;
            m_keepEcho = m_bus.echoing() ? bytes.size() : 0;
            m_dropUntil = now + 0.1;
        }
    }
    std::string transmit(double now) override {
        std::string out = m_ownEcho + m_bus.transmit(now);
        m_ownEcho.clear();
        if (now <= m_dropUntil) {
            const std::size_t keep = std::min(out.size(), m_keepEcho);
            m_keepEcho -= keep;
            out.resize(keep);
        }
        return out;
    }

private:
    sim::HopperBus& m_bus;
    std::string m_ownEcho;
    std::size_t m_keepEcho = 0;
    double m_dropUntil = -1;
};

// The simulated kiosk with only its hoppers enabled: coins of 1 in hopper 1 (address 3) and of
// 5 in hopper 2 (address 4), behind a wire that can lose frames.
struct HopperRig {
    std::unique_ptr<sim::VirtualKiosk> kiosk;
    std::unique_ptr<LossyWire> wire;
    Setup* engine = nullptr;
    std::vector<bool> buttonStates;  // every change of hDispenseCoins' enabled flag

    explicit HopperRig(const std::string& profileName = "default",
                       const std::vector<std::pair<std::string, std::string>>& settings = {}) {
        kiosk = std::make_unique<sim::VirtualKiosk>(*sim::profileNamed(profileName));
        wire = std::make_unique<LossyWire>(kiosk->hoppers());
        kiosk->hoppersPort().wire(sim::VirtualKiosk::kPorts.hoppers, wire.get());
        kiosk->configureAllDevices();
        set(store::section::kCoinAcceptor, "CAE", "0");
        set(store::section::kBillValidator, "BVE", "0");
        set(store::section::kBillDispenser, "BDE", "0");
        set(store::section::kPinPad, "PPE", "0");
        for (const auto& [key, value] : settings) {
            set(store::section::kHoppers, key, value);
        }
        EXPECT_TRUE(kiosk->start());
        engine = &kiosk->engine();
        engine->console().setChangeListener([this](const Field& f) {
            if (f.name == "hDispenseCoins") {
                buttonStates.push_back(f.enabled);
            }
        });
    }
    void set(std::string_view section, std::string_view key, std::string_view value) {
        kiosk->store().set(store::kApp, section, key, value);
    }
    Console& console() { return engine->console(); }
    sim::Hopper& hopper(int n) { return kiosk->hoppers().hopper(n); }
    sim::VirtualSerialPort& port() { return kiosk->hoppersPort(); }
    double now() { return kiosk->clock().elapsed(); }

    // Pays `amount` through the console's button routine; returns hDispensed.
    std::string dispense(const std::string& amount) {
        console().setText("hToDispense", amount);
        engine->hDispenseCoins_Click();
        return console().text("hDispensed");
    }
    // Dispense commands the engine wrote, by hopper address.
    int dispenseCommandsSent(int address) {
        int n = 0;
        const std::string& w = kiosk->hoppersPort().written();
        for (std::size_t i = 0; i + 4 < w.size();) {
            const auto size = static_cast<std::size_t>(static_cast<unsigned char>(w[i + 1])) + 5;
            if (static_cast<unsigned char>(w[i]) == address &&
                static_cast<unsigned char>(w[i + 3]) == cctalk::header::kDispenseHopperCoins) {
                ++n;
            }
            i += size;
        }
        return n;
    }
    const Hoppers::Report& report(int hopper) const {
        for (const Hoppers::Report& r : engine->hoppers().lastReports()) {
            if (r.hopper == hopper) {
                return r;
            }
        }
        throw std::out_of_range("hopper " + std::to_string(hopper) + " was not asked");
    }
};

TEST(Hoppers, PayTheLargerCoinFirstThenTheRestInEveryDispenseMode) {
    for (const std::string profile : {"default", "zeros8", "noencrypt8", "no-echo"}) {
        SCOPED_TRACE(profile);
        HopperRig rig(profile);
        EXPECT_EQ(rig.dispense("13"), "13");
        EXPECT_EQ(rig.hopper(2).coinsLeft(), 200 - 2);
        EXPECT_EQ(rig.hopper(1).coinsLeft(), 200 - 3);
        EXPECT_EQ(rig.dispenseCommandsSent(4), 1);
        EXPECT_EQ(rig.dispenseCommandsSent(3), 1);
        ASSERT_EQ(rig.engine->hoppers().lastReports().size(), 2U);
        EXPECT_EQ(rig.engine->hoppers().lastReports()[0].hopper, 2);  // the 5s first
        EXPECT_EQ(rig.report(1).outcome, Outcome::Paid);
        EXPECT_EQ(rig.report(2).outcome, Outcome::Paid);
        // The button is off while the coins are paid and back afterwards.
        EXPECT_EQ(rig.buttonStates, (std::vector<bool>{false, true}));
    }
}

TEST(Hoppers, AmountsAreReadLenientlyAndWhatNoCoinFitsIsLeft) {
    struct Row {
        const char* toDispense;
        const char* dispensed;
        int fives;
        int ones;
    };
    const Row rows[] = {
        {"7.5", "7", 1, 2}, {"4", "4", 0, 4},         {"0.5", "0", 0, 0}, {"abc", "0", 0, 0},
        {"-5", "0", 0, 0},  {"10 coins", "10", 2, 0}, {"", "0", 0, 0},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.toDispense);
        HopperRig rig;
        EXPECT_EQ(rig.dispense(r.toDispense), r.dispensed);
        EXPECT_EQ(200 - rig.hopper(2).coinsLeft(), r.fives);
        EXPECT_EQ(200 - rig.hopper(1).coinsLeft(), r.ones);
    }
}

TEST(Hoppers, AnEmptyHopperPaysWhatItHasAndTheOtherPaysTheShortfall) {
    HopperRig rig;
    rig.hopper(2).setCoins(1);
    EXPECT_EQ(rig.dispense("13"), "13");  // one 5, then eight 1s
    EXPECT_EQ(rig.hopper(2).coinsLeft(), 0);
    EXPECT_EQ(rig.hopper(1).coinsLeft(), 192);
    EXPECT_EQ(rig.report(2).coinsAsked, 2);
    EXPECT_EQ(rig.report(2).coinsPaid, 1);
    EXPECT_EQ(rig.report(2).outcome, Outcome::Empty);

    // Both run dry: what came out is what is reported.
    rig.hopper(1).setCoins(3);
    EXPECT_EQ(rig.dispense("13"), "3");
    EXPECT_EQ(rig.hopper(1).coinsLeft(), 0);
    EXPECT_EQ(rig.report(1).outcome, Outcome::Empty);

    // Refilled, the latched fault is reset and the hoppers pay again.
    rig.hopper(1).setCoins(50);
    rig.hopper(2).setCoins(50);
    EXPECT_EQ(rig.dispense("6"), "6");
}

TEST(Hoppers, AJammedHopperIsStoppedAndTheOtherPays) {
    HopperRig rig;
    rig.hopper(2).setFault("jam", true);
    const double before = rig.now();
    EXPECT_EQ(rig.dispense("10"), "10");
    EXPECT_EQ(rig.report(2).outcome, Outcome::Jammed);
    EXPECT_EQ(rig.report(2).coinsPaid, 0);
    EXPECT_EQ(rig.hopper(2).coinsRemaining(), 0);  // the emergency stop ended its payout
    EXPECT_EQ(rig.hopper(1).coinsLeft(), 190);
    // The stall is given up after its timeout, not waited on for ever.
    EXPECT_LT(rig.now() - before, 20.0);
}

TEST(Hoppers, TheEchoSettingMustMatchTheInterface) {
    // The interface echoes but the setting says it does not: the echo is skipped as noise.
    HopperRig quiet("default", {{std::string(store::key::kEcho), "0"}});
    EXPECT_EQ(quiet.dispense("6"), "6");

    // The setting expects an echo that never comes: the link is dead and nothing is paid.
    HopperRig deaf("no-echo", {{std::string(store::key::kEcho), "1"}});
    EXPECT_EQ(deaf.dispense("6"), "0");
    EXPECT_EQ(deaf.report(2).outcome, Outcome::LinkDead);
    EXPECT_EQ(deaf.hopper(1).coinsLeft(), 200);
    EXPECT_EQ(deaf.hopper(2).coinsLeft(), 200);
}

TEST(Hoppers, ALostDispenseReplyIsSettledByTheEventCounterNeverByAResend) {
    // The hopper took the command; only its reply was lost. The event counter moved on, so the
    // command is not sent again and the coins are paid once.
    HopperRig rig;
    rig.wire->dropDispenseReplies = 1;
    EXPECT_EQ(rig.dispense("10"), "10");
    EXPECT_EQ(rig.dispenseCommandsSent(4), 1);
    EXPECT_EQ(rig.hopper(2).coinsLeft(), 198);
    EXPECT_EQ(rig.hopper(2).coinsPaidLifetime(), 2);

    // The command itself was lost: the counter did not move, so it is sent once more.
    HopperRig lost;
    lost.wire->swallowDispenses = 1;
    EXPECT_EQ(lost.dispense("10"), "10");
    EXPECT_EQ(lost.dispenseCommandsSent(4), 2);
    EXPECT_EQ(lost.hopper(2).coinsPaidLifetime(), 2);
}

TEST(Hoppers, SilentHoppersGarbageAndAVanishedPortPayNothingAndDoNotHang) {
    HopperRig silent;
    silent.hopper(1).setFault("silent", true);
    silent.hopper(2).setFault("silent", true);
    const double before = silent.now();
    EXPECT_EQ(silent.dispense("13"), "0");
    EXPECT_EQ(silent.report(2).outcome, Outcome::Absent);
    EXPECT_LT(silent.now() - before, 5.0);

    // One silent hopper: the other pays what its coins can.
    HopperRig one;
    one.hopper(2).setFault("silent", true);
    EXPECT_EQ(one.dispense("13"), "13");
    EXPECT_EQ(one.hopper(1).coinsLeft(), 187);

    // The port has gone (the next use fails and closes it): nothing is paid, nothing throws,
    // and the button comes back.
    HopperRig gone;
    gone.console().setText("hToDispense", "13");
    gone.port().unplug();
    gone.engine->hDispenseCoins_Click();
    EXPECT_EQ(gone.console().text("hDispensed"), "0");
    EXPECT_TRUE(gone.buttonStates.back());
}

TEST(Hoppers, AnUnsupportedDispenseModeIsAConfigurationErrorWithNoTraffic) {
    HopperRig rig("default", {{std::string(store::key::kDispenseMode), "encrypted"}});
    rig.port().clearWritten();
    EXPECT_EQ(rig.dispense("13"), "0");
    EXPECT_TRUE(rig.port().written().empty());
    ASSERT_EQ(rig.kiosk->messageBox().shown().size(), 1U);
    EXPECT_NE(rig.kiosk->messageBox().shown()[0].text.find("encrypted"), std::string::npos);
}

TEST(Hoppers, LargeAmountsGoInCommandsOfAtMost255Coins) {
    HopperRig rig;
    rig.set(store::section::kHoppers, "h2CoinValue", "1");
    rig.console().setText("h2CoinValue", "0");  // hopper 2 holds no coin value: skipped
    rig.hopper(1).setCoins(400);
    EXPECT_EQ(rig.dispense("300"), "300");
    EXPECT_EQ(rig.dispenseCommandsSent(3), 2);
    EXPECT_EQ(rig.hopper(1).coinsLeft(), 100);
}

TEST(Hoppers, AClosedPortIsOpenedOnceMoreOnTheConfiguredNumber) {
    HopperRig rig;
    rig.port().close();
    EXPECT_EQ(rig.dispense("5"), "5");
    EXPECT_TRUE(rig.port().isOpen());

    rig.port().close();
    rig.console().setText("comPorts2", "9");  // no such port
    EXPECT_EQ(rig.dispense("5"), "0");
}

}  // namespace
}  // namespace kestrix
