#pragma once

// The simulated kiosk as the world tests use it: the virtual kiosk with the host's side of the
// mailbox, the customer's coins and bills, the technician's console, a tap on the MDB line, and
// the money the device models took in and paid out, which every payment's books are checked
// against.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/formulas.h"
#include "engine/settings/layout.h"
#include "engine/setup.h"
#include "sim/world/virtual_kiosk.h"
#include "support/hex.h"

namespace kestrix::test {

// Sits on a line between the engine and a device model: runs actions at virtual times (at the
// next traffic after them: every few milliseconds while a payment runs), watches the engine's
// writes, and can answer a write itself (an empty answer swallows it) instead of the device.
class LineTap : public sim::LinkDevice {
public:
    explicit LineTap(sim::LinkDevice& device) : m_device(device) {}

    void at(double elapsedSeconds, std::function<void()> action) {
        m_timed.push_back({elapsedSeconds, std::move(action)});
    }
    std::function<void(std::string_view bytes)> onWrite;
    std::function<std::optional<std::string>(std::string_view bytes, double now)> answer;

    void receive(std::string_view bytes, double now) override {
        runDue(now);
        if (onWrite) {
            onWrite(bytes);
        }
        if (m_swallowAck && bytes == std::string_view("\0\0", 2)) {
            m_swallowAck = false;  // the ACK of an answer the device never gave
            return;
        }
        if (std::optional<std::string> reply = answer ? answer(bytes, now) : std::nullopt) {
            if (!reply->empty()) {
                m_own.push_back({now + 0.003, std::move(*reply)});
                m_swallowAck = true;
            }
            return;
        }
        m_device.receive(bytes, now);
    }
    std::string transmit(double now) override {
        runDue(now);
        std::string out = m_device.transmit(now);
        while (!m_own.empty() && m_own.front().first <= now) {
            out += m_own.front().second;
            m_own.erase(m_own.begin());
        }
        return out;
    }

private:
    void runDue(double now) {
        for (std::size_t i = 0; i < m_timed.size();) {
            if (m_timed[i].first <= now) {
                const std::function<void()> action = std::move(m_timed[i].second);
                m_timed.erase(m_timed.begin() + static_cast<std::ptrdiff_t>(i));
                action();
            } else {
                ++i;
            }
        }
    }

    sim::LinkDevice& m_device;
    std::vector<std::pair<double, std::function<void()>>> m_timed;
    std::vector<std::pair<double, std::string>> m_own;
    bool m_swallowAck = false;
};

// Coins and bills counted by the models, per MDB type; what went out of the kiosk.
struct Till {
    std::array<int, 16> coinsIn{}, coinsOut{}, billsIn{};
    int billsOut = 0, hopper1Out = 0, hopper2Out = 0;
};

class Kiosk : public sim::VirtualKiosk {
public:
    // Every device configured, or (`allDevices` false) an empty store: every device disabled.
    explicit Kiosk(const sim::KioskProfile& profile = sim::defaultProfile(), bool allDevices = true)
        : sim::VirtualKiosk(profile), m_profile(profile), m_mdbTap(models().mdbLink()) {
        mdbPort().wire(kPorts.mdb, &m_mdbTap);
        if (allDevices) {
            configureAllDevices();
        }
    }
    explicit Kiosk(bool allDevices) : Kiosk(sim::defaultProfile(), allDevices) {}

    // The virtual kiosk itself: its customer actions answer at once, without waiting for credit.
    sim::VirtualKiosk& kiosk() { return *this; }
    Console& console() { return engine().console(); }
    LineTap& mdbTap() { return m_mdbTap; }
    double now() { return clock().elapsed(); }
    void set(std::string_view section, std::string_view key, std::string_view value) {
        store().set(store::kApp, section, key, value);
    }
    std::string setting(std::string_view section, std::string_view key) {
        return store().get(store::kApp, section, key, "<missing>");
    }
    const std::string& text(FieldName field) { return console().text(field); }
    // Several fields' texts at once, to compare with a list.
    std::vector<std::string> texts(std::initializer_list<FieldName> fields) {
        std::vector<std::string> out;
        for (const FieldName f : fields) {
            out.push_back(text(f));
        }
        return out;
    }
    bool checked(FieldName field) { return console().checked(field); }
    // The texts of the message boxes shown so far.
    std::vector<std::string> shown() {
        std::vector<std::string> texts;
        for (const auto& m : messageBox().shown()) {
            texts.push_back(m.text);
        }
        return texts;
    }
    bool paymentRunning() { return console().running(); }
    double credit() { return leadingNumber(mailbox(store::mailbox::kCredit)); }

    // The host asks for `due`; true once the payment runs and has polled once.
    bool requestPayment(std::string_view due) {
        hostWrite(store::mailbox::kDue, due);
        return runUntil(
            [this] { return mailbox(store::mailbox::kStatus) == "Insert Coins or Bills..."; }, 30);
    }
    // Runs until no payment runs and any payout has ended, then a second more for the monitor.
    bool runUntilIdle(double maxSeconds) {
        const bool idle =
            runUntil([this] { return !paymentRunning() && !engine().payoutWaiting(); }, maxSeconds);
        runFor(1.0);
        return idle && !paymentRunning();
    }
    // A customer inserts a coin or a bill (console numbering); waits until it is credited.
    bool insertCoin(int consoleType) {
        return creditedAfter(sim::VirtualKiosk::insertCoin(consoleType).ok);
    }
    bool insertBill(int consoleType) {
        return creditedAfter(sim::VirtualKiosk::insertBill(consoleType).ok);
    }

    double coinValue(int mdbType) const {
        const auto& c = m_profile.changer;
        return c.coinCredits[static_cast<std::size_t>(mdbType)] / double(c.scalingFactor);
    }
    double billValue(int mdbType) const {
        const auto& v = m_profile.validator;
        return v.billCredits[static_cast<std::size_t>(mdbType)] * v.scalingFactor /
               std::pow(10.0, v.decimalPlaces);
    }
    double tubesValue() {
        double v = 0;
        for (int type = 0; type < 16; ++type) {
            v += changer().tubeCount(type) * coinValue(type);
        }
        return v;
    }

    Till till() {
        models().catchUp();
        Till t;
        for (int type = 0; type < 16; ++type) {
            const auto i = static_cast<std::size_t>(type);
            t.coinsOut[i] = changer().paidOutCount(type);
            t.coinsIn[i] = changer().tubeCount(type) + changer().cashBoxCount(type) + t.coinsOut[i];
            t.billsIn[i] = validator().stackedCount(type);
        }
        t.billsOut = dispenser().billsDelivered();
        t.hopper1Out = hopper1().coinsPaidLifetime();
        t.hopper2Out = hopper2().coinsPaidLifetime();
        return t;
    }
    double inserted(const Till& a, const Till& b) const {
        double v = 0;
        for (std::size_t i = 0; i < 16; ++i) {
            v += (b.coinsIn[i] - a.coinsIn[i]) * coinValue(static_cast<int>(i)) +
                 (b.billsIn[i] - a.billsIn[i]) * billValue(static_cast<int>(i));
        }
        return v;
    }
    double paidOut(const Till& a, const Till& b) const {
        double v = (b.billsOut - a.billsOut) * m_profile.dispenser.billValue +
                   (b.hopper1Out - a.hopper1Out) * m_profile.hopper1CoinValue +
                   (b.hopper2Out - a.hopper2Out) * m_profile.hopper2CoinValue;
        for (std::size_t i = 0; i < 16; ++i) {
            v += (b.coinsOut[i] - a.coinsOut[i]) * coinValue(static_cast<int>(i));
        }
        return v;
    }

    // Runs `action` with the amount of each payout command the engine sends the changer (its two
    // command words, then the amount), before the changer has it.
    void onPayout(std::function<void(int units)> action) {
        m_mdbTap.onWrite = [action = std::move(action), state = 0](std::string_view b) mutable {
            if (state == 2 && b.size() == 2) {
                action(static_cast<unsigned char>(b[0]));
            }
            state = b == std::string_view("\x0F\x01", 2)                 ? 1
                    : state == 1 && b == std::string_view("\x02\x00", 2) ? 2
                                                                         : 0;
        };
    }
    // An engine on this kiosk's devices and store, but with `library` for its pin pad.
    std::unique_ptr<Setup> engineOn(PaymentLibrary& library) {
        return std::make_unique<Setup>(Platform{clock(), scheduler(), store(), messageBox(),
                                                printer(), network(), instance(), library,
                                                mdbPort(), dispenserPort(), hoppersPort()});
    }

    // The amounts of the journal's rows of one kind from row `from` on, summed.
    double journalSum(std::size_t from, std::string_view kind) {
        double v = 0;
        const auto& rows = journal().rows();
        for (std::size_t i = from; i < rows.size(); ++i) {
            v += rows[i].kind == kind ? rows[i].amount.toDouble() : 0;
        }
        return v;
    }

    // The values a mailbox key was written with, in order, by the store's write log (since it
    // was last cleared); how often it was written with `value`.
    std::vector<std::string> written(std::string_view key) {
        const std::string prefix = "Status/" + std::string(key) + "=";
        std::vector<std::string> values;
        for (const std::string& w : store().writes()) {
            if (w.starts_with(prefix)) {
                values.push_back(w.substr(prefix.size()));
            }
        }
        return values;
    }
    int mailboxWrites(std::string_view key, std::string_view value) {
        return static_cast<int>(std::ranges::count(written(key), value));
    }

private:
    bool creditedAfter(bool accepted) {
        const double before = credit();
        return accepted &&
               (runUntil([&] { return credit() != before || !paymentRunning(); }, 10), true);
    }

    sim::KioskProfile m_profile;
    LineTap m_mdbTap;
};

// The books of a payment since `before`: the engine credited what the models took in (kept plus
// the change it owed), ChangeDispensed is what the models paid out, and no more than owed.
inline void expectBooksBalance(Kiosk& k, const Till& before, double kept, double owed) {
    const Till after = k.till();
    const double reported = leadingNumber(k.mailbox(store::mailbox::kChangeDispensed));
    EXPECT_NEAR(k.inserted(before, after), kept + owed, 1e-9) << "credit differs from inserted";
    EXPECT_NEAR(k.paidOut(before, after), reported, 1e-9) << "ChangeDispensed differs from paid";
    EXPECT_GE(owed - reported, -1e-9) << "paid more than owed";
}

}  // namespace kestrix::test
