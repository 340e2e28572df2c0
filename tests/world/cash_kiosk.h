#pragma once

// The simulated kiosk as the cash payment tests use it: the host's side of the mailbox, the
// customer's coins and bills, taps on the MDB and hoppers lines, and the money the device models
// have taken in and paid out, which is what every payment's books are checked against.

#include <array>
#include <cmath>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/formulas.h"
#include "engine/settings/layout.h"
#include "engine/setup.h"
#include "sim/link_device.h"
#include "sim/world/virtual_kiosk.h"

namespace kestrix::test {

// Sits on a line between the engine and a device model. It can run actions at given virtual
// times (on the next traffic after that time, which on the MDB line is every few milliseconds
// while a payment runs), watch what the engine sends, and answer a command itself instead of
// the device.
class LineTap : public sim::LinkDevice {
public:
    explicit LineTap(sim::LinkDevice& device) : m_device(device) {}

    // Runs `action` once, at the first traffic at or after `elapsedSeconds`.
    void at(double elapsedSeconds, std::function<void()> action) {
        m_timed.push_back({elapsedSeconds, std::move(action)});
    }
    // Sees every write of the engine before the device does.
    std::function<void(std::string_view bytes, double now)> onWrite;
    // Returns the reply text to give instead of forwarding the write to the device; no value
    // forwards it.
    std::function<std::optional<std::string>(std::string_view bytes, double now)> answer;

    void receive(std::string_view bytes, double now) override {
        runDue(now);
        if (onWrite) {
            onWrite(bytes, now);
        }
        if (m_swallowAck && bytes == std::string_view("\0\0", 2)) {
            m_swallowAck = false;  // the engine's ACK of an answer the device never gave
            return;
        }
        if (answer) {
            // An empty answer swallows the write (the first word of a command answered later).
            if (std::optional<std::string> reply = answer(bytes, now)) {
                if (!reply->empty()) {
                    m_own.push_back({now + kAnswerSeconds, std::move(*reply)});
                    m_swallowAck = true;
                }
                return;
            }
        }
        m_device.receive(bytes, now);
    }
    std::string transmit(double now) override {
        runDue(now);
        std::string out = m_device.transmit(now);
        while (!m_own.empty() && m_own.front().due <= now) {
            out += m_own.front().text;
            m_own.erase(m_own.begin());
        }
        return out;
    }

    static constexpr double kAnswerSeconds = 0.003;

private:
    void runDue(double now) {
        for (std::size_t i = 0; i < m_timed.size();) {
            if (m_timed[i].time <= now) {
                std::function<void()> action = std::move(m_timed[i].action);
                m_timed.erase(m_timed.begin() + static_cast<std::ptrdiff_t>(i));
                action();
            } else {
                ++i;
            }
        }
    }

    sim::LinkDevice& m_device;
    struct Timed {
        double time;
        std::function<void()> action;
    };
    std::vector<Timed> m_timed;
    struct Own {
        double due;
        std::string text;
    };
    std::vector<Own> m_own;
    bool m_swallowAck = false;
};

// Money counted by the device models: what customers put in and what the kiosk paid out.
struct Till {
    std::array<int, 16> coinsIn{};  // tubes + cash box + paid out, per MDB coin type
    std::array<int, 16> coinsOut{};
    std::array<int, 16> billsIn{};
    int billsOut = 0;
    int hopper1Out = 0;
    int hopper2Out = 0;
};

// MDB reply text for a peripheral's data bytes: each "dd00 ", then the check byte "cc01 ".
inline std::string mdbReplyText(const std::vector<int>& data) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    int sum = 0;
    const auto add = [&text](int b, bool last) {
        text += kDigits[(b >> 4) & 0xF];
        text += kDigits[b & 0xF];
        text += last ? "01 " : "00 ";
    };
    for (int b : data) {
        add(b, false);
        sum += b;
    }
    add(sum & 0xFF, true);
    return text;
}

class CashKiosk {
public:
    explicit CashKiosk(const sim::KioskProfile& profile = sim::defaultProfile())
        : m_profile(profile),
          m_kiosk(profile),
          m_mdbTap(m_kiosk.models().mdbLink()),
          m_hopperTap(m_kiosk.models().hoppersLink()) {
        m_kiosk.mdbPort().wire(sim::VirtualKiosk::kPorts.mdb, &m_mdbTap);
        m_kiosk.hoppersPort().wire(sim::VirtualKiosk::kPorts.hoppers, &m_hopperTap);
        m_kiosk.configureAllDevices();
    }

    bool start() { return m_kiosk.start(); }
    sim::VirtualKiosk& kiosk() { return m_kiosk; }
    Setup& engine() { return m_kiosk.engine(); }
    Console& console() { return m_kiosk.engine().console(); }
    LineTap& mdbTap() { return m_mdbTap; }
    LineTap& hopperTap() { return m_hopperTap; }
    double now() { return m_kiosk.clock().elapsed(); }

    std::string mailbox(std::string_view key) { return m_kiosk.mailbox(key); }
    void hostWrite(std::string_view key, std::string_view value) { m_kiosk.hostWrite(key, value); }
    bool paymentRunning() { return console().text("enablePayment") == "Stop Payment..."; }

    // The host asks for `due`; true once the payment runs and has polled once.
    bool requestPayment(std::string_view due) {
        hostWrite(store::mailbox::kDue, due);
        return runUntil(
            [this] { return mailbox(store::mailbox::kStatus) == "Insert Coins or Bills..."; }, 30);
    }
    bool runUntil(const std::function<bool()>& done, double maxSeconds) {
        return m_kiosk.runUntil(done, maxSeconds);
    }
    void runFor(double seconds) { m_kiosk.runFor(seconds); }
    // Runs until no payment runs and the monitor has had a tick to finish its own work.
    bool runUntilIdle(double maxSeconds) {
        const bool idle =
            runUntil([this] { return !paymentRunning() && !engine().payoutWaiting(); }, maxSeconds);
        runFor(1.0);
        return idle && !paymentRunning();
    }

    // A customer inserts a coin or a bill (console numbering) and the engine credits it.
    double credit() { return leadingNumber(mailbox(store::mailbox::kCredit)); }
    bool insertCoin(int consoleType) { return insertAndWait(m_kiosk.insertCoin(consoleType).ok); }
    bool insertBill(int consoleType) { return insertAndWait(m_kiosk.insertBill(consoleType).ok); }

    // Face values as the kiosk's configuration gives them.
    double coinValue(int mdbType) const {
        const auto& p = m_profile.changer;
        return p.coinCredits[static_cast<std::size_t>(mdbType)] / double(p.scalingFactor);
    }
    double billValue(int mdbType) const {
        const auto& v = m_profile.validator;
        return v.billCredits[static_cast<std::size_t>(mdbType)] * v.scalingFactor /
               std::pow(10.0, v.decimalPlaces);
    }

    Till till() {
        m_kiosk.models().catchUp();
        Till t;
        for (int type = 0; type < 16; ++type) {
            const auto i = static_cast<std::size_t>(type);
            t.coinsOut[i] = m_kiosk.changer().paidOutCount(type);
            t.coinsIn[i] = m_kiosk.changer().tubeCount(type) +
                           m_kiosk.changer().cashBoxCount(type) + t.coinsOut[i];
            t.billsIn[i] = m_kiosk.validator().stackedCount(type);
        }
        t.billsOut = m_kiosk.dispenser().billsDelivered();
        t.hopper1Out = m_kiosk.hopper1().coinsPaidLifetime();
        t.hopper2Out = m_kiosk.hopper2().coinsPaidLifetime();
        return t;
    }
    // Money the customers put in between two counts.
    double inserted(const Till& a, const Till& b) const {
        double v = 0;
        for (int type = 0; type < 16; ++type) {
            const auto i = static_cast<std::size_t>(type);
            v += (b.coinsIn[i] - a.coinsIn[i]) * coinValue(type);
            v += (b.billsIn[i] - a.billsIn[i]) * billValue(type);
        }
        return v;
    }
    // Money the kiosk paid out between two counts: tubes, bill dispenser, hoppers.
    double paidOut(const Till& a, const Till& b) const {
        const auto& p = m_profile;
        double v = 0;
        for (int type = 0; type < 16; ++type) {
            const auto i = static_cast<std::size_t>(type);
            v += (b.coinsOut[i] - a.coinsOut[i]) * coinValue(type);
        }
        v += (b.billsOut - a.billsOut) * p.dispenser.billValue;
        v += (b.hopper1Out - a.hopper1Out) * p.hopper1CoinValue;
        v += (b.hopper2Out - a.hopper2Out) * p.hopper2CoinValue;
        return v;
    }
    // The highest credit the engine published since the store's write log was last cleared.
    double publishedCredit() {
        double highest = 0;
        const std::string prefix = "Status/Credit=";
        for (const std::string& w : m_kiosk.store().writes()) {
            if (w.starts_with(prefix)) {
                highest = std::max(highest, leadingNumber(w.substr(prefix.size())));
            }
        }
        return highest;
    }
    // How often the engine wrote `key` = `value` to the mailbox since the log was cleared.
    int mailboxWrites(std::string_view key, std::string_view value) {
        const std::string entry = "Status/" + std::string(key) + "=" + std::string(value);
        int n = 0;
        for (const std::string& w : m_kiosk.store().writes()) {
            n += w == entry ? 1 : 0;
        }
        return n;
    }

private:
    bool insertAndWait(bool accepted) {
        if (!accepted) {
            return false;
        }
        const double before = credit();
        runUntil([&] { return credit() != before || !paymentRunning(); }, 10);
        return true;
    }

    sim::KioskProfile m_profile;
    sim::VirtualKiosk m_kiosk;
    LineTap m_mdbTap;
    LineTap m_hopperTap;
};

}  // namespace kestrix::test
