#include "hoppers.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "../console.h"
#include "../device_context.h"
#include "../errors.h"
#include "../formulas.h"
#include "../platform/log.h"
#include "../platform/message_box.h"
#include "../platform/serial_port.h"
#include "../settings/layout.h"
#include "cctalk.h"
#include "cctalk_link.h"

namespace kestrix {

namespace {

constexpr int kDefaultAddress1 = 3;
constexpr int kDefaultAddress2 = 4;

std::string lowerTrimmed(std::string text) {
    const auto notBlank = [](unsigned char c) { return std::isspace(c) == 0; };
    text.erase(text.begin(), std::find_if(text.begin(), text.end(), notBlank));
    text.erase(std::find_if(text.rbegin(), text.rend(), notBlank).base(), text.end());
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

std::uint8_t addressFrom(const std::string& text, int fallback) {
    const double a = leadingNumber(text);
    // 0 is the broadcast address and 1 is ours: neither can be a hopper.
    if (a >= 2 && a <= 255 && a == std::floor(a)) {
        return static_cast<std::uint8_t>(a);
    }
    return static_cast<std::uint8_t>(fallback);
}

Hoppers::Outcome linkFailure(CcTalkLink::Outcome o) {
    return o == CcTalkLink::Outcome::NoReply ? Hoppers::Outcome::Absent
                                             : Hoppers::Outcome::LinkDead;
}

}  // namespace

Hoppers::Hoppers(DeviceContext& context, SerialPort& port) : m_context(context), m_port(port) {}
Hoppers::~Hoppers() = default;

void Hoppers::hDispenseCoins_Click() {
    Console& c = m_context.console();
    const Money amount = Money::fromDouble(leadingNumber(c.text("hToDispense"))).value_or(Money());
    m_context.journal(
        {.kind = journal_kind::kOperatorDispense, .device = "hoppers", .amount = amount});
    const Money paid = dispense(amount);
    m_context.journal(
        {.kind = journal_kind::kPayoutConfirmed, .device = "hoppers", .amount = paid});
}

Money Hoppers::dispense(Money amount) {
    Console& c = m_context.console();
    const bool buttonWasEnabled = c.enabled("hDispenseCoins");
    c.setEnabled("hDispenseCoins", false);
    m_paid = Money();
    m_reports.clear();
    if (!trapped([&] { dispenseAmount(amount); })) {
        // A port that vanished or a store that failed ends the dispense; the coins counted out
        // until then are still reported, so the money stays accounted for.
        m_context.log().error("hoppers: dispense broken off by a port error",
                              {"hoppers", m_context.paymentId()});
    }
    c.setText("hDispensed", m_paid.text());
    c.setEnabled("hDispenseCoins", buttonWasEnabled);
    return m_paid;
}

void Hoppers::openPort(std::string_view portText) {
    SerialPort& port = m_port;
    if (port.isOpen()) {
        port.close();
    }
    port.open(strictInt(portText), kLineSettings);
}

bool Hoppers::ensurePortOpen() {
    SerialPort& port = m_port;
    if (port.isOpen()) {
        return true;
    }
    // Equipment initialisation opens the link; it is closed here only when that failed or the
    // port dropped since. One attempt to open it again, on the configured port.
    try {
        const double number = leadingNumber(m_context.console().text("comPorts2"));
        openPort(std::to_string(static_cast<int>(std::clamp(number, 0.0, 65535.0))));
        m_context.pause(Hoppers::kAfterResetSeconds);
    } catch (const PortError&) {
        return false;
    }
    return port.isOpen();
}

void Hoppers::dispenseAmount(Money amount) {
    if (!amount.positive()) {
        return;
    }
    Console& c = m_context.console();
    namespace key = store::key;
    const auto setting = [this](std::string_view k, std::string_view fallback) {
        return m_context.getSetting(store::section::kHoppers, k, fallback);
    };
    const std::string modeText = lowerTrimmed(setting(key::kDispenseMode, "serial"));
    Mode mode = Mode::Serial;
    if (modeText == "zeros8") {
        mode = Mode::Zeros8;
    } else if (modeText == "noencrypt8") {
        mode = Mode::NoEncrypt8;
    } else if (modeText != "serial") {
        m_context.messageBox().show(
            "Hoppers: dispense mode \"" + modeText +
                "\" is not supported. Set DispenseMode to serial, zeros8 or noencrypt8 "
                "(hoppers with encrypted payout cannot be used).",
            "Hoppers");
        return;
    }
    const bool echo = lowerTrimmed(setting(key::kEcho, "1")) != "0";

    struct Hopper {
        int number;
        std::uint8_t address;
        Money value;
    };
    const auto coinValue = [&c](FieldName control) {
        return Money::fromDouble(leadingNumber(c.text(control))).value_or(Money());
    };
    Hopper first{1, addressFrom(setting(key::kH1Address, "3"), kDefaultAddress1),
                 coinValue("h1CoinValue")};
    Hopper second{2, addressFrom(setting(key::kH2Address, "4"), kDefaultAddress2),
                  coinValue("h2CoinValue")};
    if (second.value > first.value) {
        std::swap(first, second);  // the larger coin first: fewer coins, and the small ones last
    }

    if (!ensurePortOpen()) {
        return;
    }
    CcTalkLink link(m_port, echo);

    Money left = amount;
    for (const Hopper& h : {first, second}) {
        if (!h.value.positive()) {
            continue;
        }
        std::int64_t coinsWanted = left.wholeTimes(h.value);
        if (coinsWanted < 1) {
            continue;
        }
        Report report;
        report.hopper = h.number;
        report.address = h.address;
        report.coinValue = h.value;
        // One dispense command asks for at most 255 coins; larger amounts take several, each
        // only after the previous one paid in full.
        while (coinsWanted >= 1 && !m_context.pastDeadline()) {
            const auto batch =
                static_cast<int>(std::min<std::int64_t>(coinsWanted, kMaxCoinsPerCommand));
            report.coinsAsked += batch;
            const int paid = payFrom(link, h.address, batch, mode, report);
            report.coinsPaid += paid;
            m_paid += h.value * paid;
            left -= h.value * paid;
            coinsWanted -= batch;
            if (paid < batch) {
                break;  // the shortfall passes to the other hopper
            }
        }
        m_reports.push_back(report);
    }
}

bool Hoppers::readStatus(CcTalkLink& link, std::uint8_t address, Status& out, int attempts) {
    for (int i = 0; i < attempts; ++i) {
        const CcTalkLink::Result r = link.exchange(address, cctalk::header::kHopperStatus);
        if (r.ok() && r.frame.header == cctalk::header::kAck && r.frame.data.size() >= 4) {
            out.event = r.frame.byte(0);
            out.remaining = r.frame.byte(1);
            out.paid = r.frame.byte(2);
            out.unpaid = r.frame.byte(3);
            return true;
        }
    }
    return false;
}

bool Hoppers::prepare(CcTalkLink& link, std::uint8_t address, Report& report) {
    using namespace cctalk;
    const CcTalkLink::Result test = link.exchange(address, header::kTestHopper);
    if (!test.ok() || test.frame.header != header::kAck || test.frame.data.empty()) {
        report.outcome = test.ok() ? Outcome::Refused : linkFailure(test.outcome);
        return false;
    }
    const std::uint8_t flags = test.frame.byte(0);
    if ((flags & testFlag::kNeedsReset) != 0) {
        // A fault latched from an earlier payout (or the power-up flag): only a reset clears it,
        // and a reset leaves the hopper disabled.
        link.exchange(address, header::kResetDevice);
        m_context.pause(kAfterResetSeconds);
    }
    if ((flags & (testFlag::kNeedsReset | testFlag::kPayoutDisabled)) != 0) {
        const std::string enable(1, static_cast<char>(kEnableCode));
        const CcTalkLink::Result r = link.exchange(address, header::kEnableHopper, enable);
        if (!r.ok() || !r.frame.isAck()) {
            report.outcome = r.ok() ? Outcome::Refused : linkFailure(r.outcome);
            return false;
        }
    }
    return true;
}

bool Hoppers::securityBytes(CcTalkLink& link, std::uint8_t address, Mode mode, std::string& out) {
    using namespace cctalk;
    switch (mode) {
        case Mode::Serial: {
            const CcTalkLink::Result r = link.exchange(address, header::kSerialNumber);
            if (!r.ok() || r.frame.header != header::kAck || r.frame.data.size() < 3) {
                return false;
            }
            out = r.frame.data.substr(0, 3);  // least significant byte first, as received
            return true;
        }
        case Mode::Zeros8:
            out.assign(8, '\0');
            return true;
        case Mode::NoEncrypt8: {
            // These hoppers want the cipher key requested before each dispense; with encryption
            // off the eight bytes that follow are not checked.
            const CcTalkLink::Result r = link.exchange(address, header::kRequestCipherKey);
            if (!r.ok() || r.frame.isNak()) {
                return false;
            }
            out.assign(8, '\0');
            return true;
        }
    }
    return false;
}

int Hoppers::payFrom(CcTalkLink& link, std::uint8_t address, int coins, Mode mode, Report& report) {
    using namespace cctalk;
    if (!prepare(link, address, report)) {
        return 0;
    }
    Status before;
    if (!readStatus(link, address, before, kStatusAttempts)) {
        report.outcome = Outcome::Absent;
        return 0;
    }
    if (before.remaining > 0) {
        report.outcome = Outcome::Busy;
        return 0;
    }
    std::string data;
    if (!securityBytes(link, address, mode, data)) {
        report.outcome = Outcome::Refused;
        return 0;
    }
    data += static_cast<char>(static_cast<std::uint8_t>(coins));

    // The dispense command goes out once. Only when its reply is lost AND the event counter shows
    // the hopper did not take it is it sent again: a blind resend can pay twice.
    bool taken = false;
    bool unknown = false;
    for (int attempt = 0; attempt < kDispenseAttempts && !taken && !unknown; ++attempt) {
        const CcTalkLink::Result r = link.exchange(address, header::kDispenseHopperCoins, data);
        if (r.ok()) {
            if (r.frame.isNak() || r.frame.header != header::kAck) {
                report.outcome = Outcome::Refused;
                return 0;
            }
            taken = true;
            break;
        }
        Status now;
        if (!readStatus(link, address, now, kStatusAttempts)) {
            unknown = true;  // cannot tell: watch the counter below, never send again
        } else if (now.event == before.event) {
            if (attempt + 1 == kDispenseAttempts) {
                report.outcome = linkFailure(r.outcome);
                return 0;
            }
            // Not taken: sending it again cannot pay twice.
        } else if (now.event == 0) {
            report.outcome = Outcome::HopperReset;
            return 0;
        } else {
            taken = true;
        }
    }

    // Watch the payout. A status whose counter has not moved is about the previous dispense.
    int paid = 0;
    int lastRemaining = -1;
    int stalled = 0;
    int lost = 0;
    int stale = 0;
    bool finished = false;
    Status s;
    while (!finished) {
        m_context.pause(kStatusPollSeconds);
        if (!readStatus(link, address, s, 1)) {
            if (++lost >= kLostStatusPolls) {
                paid = stop(link, address, paid);
                report.outcome = Outcome::Absent;
                return paid;
            }
            continue;
        }
        lost = 0;
        if (s.event == before.event) {
            if (++stale >= kStalePolls) {
                report.outcome = taken ? Outcome::Refused : Outcome::Absent;
                return 0;  // the dispense never started
            }
            continue;
        }
        if (s.event == 0) {
            // The hopper restarted: its counts are gone; the coins seen paid are what is known.
            report.outcome = Outcome::HopperReset;
            return paid;
        }
        paid = s.paid;
        if (s.remaining == 0) {
            finished = true;
        } else if (s.remaining != lastRemaining) {
            lastRemaining = s.remaining;
            stalled = 0;
        } else if (++stalled >= kStallPolls) {
            paid = stop(link, address, paid);
            finished = true;
        }
    }
    paid = std::clamp(paid, 0, coins);
    if (paid < coins) {
        // Test register bit 1 (payout timeout) tells a hopper that ran dry from a jam.
        const CcTalkLink::Result t = link.exchange(address, header::kTestHopper);
        const bool empty = t.ok() && (t.frame.byte(0) & testFlag::kPayoutTimeout) != 0;
        report.outcome = empty ? Outcome::Empty : Outcome::Jammed;
    } else {
        report.outcome = Outcome::Paid;
    }
    return paid;
}

int Hoppers::stop(CcTalkLink& link, std::uint8_t address, int lastKnownPaid) {
    link.exchange(address, cctalk::header::kEmergencyStop);
    Status s;
    if (readStatus(link, address, s, kStatusAttempts) && s.event != 0) {
        return std::max(lastKnownPaid, static_cast<int>(s.paid));
    }
    return lastKnownPaid;
}

}  // namespace kestrix
