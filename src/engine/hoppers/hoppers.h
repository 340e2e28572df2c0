#pragma once

#include <cstdint>

#include <string>
#include <string_view>
#include <vector>
#include "../money.h"

namespace kestrix {

class DeviceContext;
class SerialPort;
class CcTalkLink;

// The two coin hoppers behind the hoppers interface on MSComm3, spoken to in ccTalk.
//
// hDispenseCoins_Click pays the amount in hToDispense with the coins of both hoppers, the larger
// coin first and the rest from the other, and leaves what actually left the hoppers in
// hDispensed. A dispense is done so that no coin is ever paid twice: one dispense command per
// batch, checked against the hopper's event counter when its reply is lost, then the hopper's
// status polled until it has finished.
//
// The waits are plain pauses: the dispense runs to its end before any tick or click, as every
// other device exchange does. (A yielding wait would also be allowed, but it would hold back
// every payment action meanwhile and gain nothing.)
class Hoppers {
public:
    // How one hopper's part of a dispense ended.
    enum class Outcome {
        Paid,         // every coin asked for
        Empty,        // paid short: the hopper ran dry
        Jammed,       // paid short for another reason (jam, stall, emergency stop)
        Busy,         // a payout of its own was still running: nothing started
        Refused,      // the hopper would not take the command (NAK, not enabled, no serial)
        Absent,       // no valid reply
        LinkDead,     // no echo, or an altered echo: the interface or its cable
        HopperReset,  // the hopper restarted during the dispense
    };
    struct Report {
        int hopper = 0;  // 1 or 2
        int address = 0;
        Money coinValue;
        int coinsAsked = 0;
        int coinsPaid = 0;
        Outcome outcome = Outcome::Paid;
    };

    // Pause between two status polls while a hopper pays.
    static constexpr double kStatusPollSeconds = 0.2;
    // A hopper is deaf for about 130 ms after a reset.
    static constexpr double kAfterResetSeconds = 0.2;
    // Polls with no coin paid before the payout counts as stalled (about 5 s).
    static constexpr int kStallPolls = 25;
    // Consecutive unanswered status polls before the hopper is given up.
    static constexpr int kLostStatusPolls = 25;
    // Polls that still show the old event counter before an accepted-looking dispense is taken
    // as never started.
    static constexpr int kStalePolls = 10;
    // A dispense command is sent again only after the event counter proved it was not taken.
    static constexpr int kDispenseAttempts = 3;
    // Status requests made when a single answer is needed.
    static constexpr int kStatusAttempts = 3;
    // Coins one dispense command can ask for.
    static constexpr int kMaxCoinsPerCommand = 255;

    static constexpr std::string_view kLineSettings = "9600,N,8,1";

    Hoppers(DeviceContext& context, SerialPort& port);
    ~Hoppers();
    Hoppers(const Hoppers&) = delete;
    Hoppers& operator=(const Hoppers&) = delete;

    // Opens the hoppers interface on the port named by `portText` (closing it first if open). The
    // text must be a whole number (else KsxError); a port that cannot be opened throws PortError.
    void openPort(std::string_view portText);

    // The console's "Dispense Coins": pays the amount in `hToDispense`, leaves what was paid in
    // `hDispensed`.
    void hDispenseCoins_Click();
    // Pays `amount` with the coins of both hoppers (the larger coin first, the rest from the
    // other) and returns what left the hoppers, as their counters report it: never more than
    // `amount`.
    Money dispense(Money amount);

    // One entry per hopper asked to pay in the last dispense, in the order they were asked.
    const std::vector<Report>& lastReports() const { return m_reports; }

private:
    enum class Mode { Serial, Zeros8, NoEncrypt8 };
    struct Status {
        std::uint8_t event = 0;
        int remaining = 0;
        int paid = 0;
        int unpaid = 0;
    };

    void dispenseAmount(Money amount);
    int payFrom(CcTalkLink& link, std::uint8_t address, int coins, Mode mode, Report& report);
    bool prepare(CcTalkLink& link, std::uint8_t address, Report& report);
    bool securityBytes(CcTalkLink& link, std::uint8_t address, Mode mode, std::string& out);
    bool readStatus(CcTalkLink& link, std::uint8_t address, Status& out, int attempts);
    int stop(CcTalkLink& link, std::uint8_t address, int lastKnownPaid);
    bool ensurePortOpen();

    DeviceContext& m_context;
    SerialPort& m_port;
    Money m_paid;  // money paid by the running dispense so far
    std::vector<Report> m_reports;
};

}  // namespace kestrix
