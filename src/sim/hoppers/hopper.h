#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/profile.h"
#include "sim/sim_device.h"

namespace kestrix::sim {

using Bytes = std::vector<std::uint8_t>;

// ccTalk checksum: the byte that makes the sum of a whole frame 0 modulo 256.
std::uint8_t ccTalkChecksum(const Bytes& frameWithoutChecksum);

// A ccTalk payout hopper (equipment category "Payout") on the hoppers bus.
//
// After power-up or a reset it is disabled, its event counter is 0 and test register bit 6
// (power-up) is set. Enable (164) with A5h, then each accepted dispense (167) raises the event
// counter (1..255, wrapping to 1) and the motor pays the coins over time. Hopper status (166)
// tells [event counter][coins remaining][coins paid][coins unpaid] of the last dispense.
// Fault bits latch in the test register until a reset.
//
// Fault switches:
//   silent   no reply to anything (the interface still echoes)
//   empty    no coin comes out: after the payout timeout the rest is unpaid (test bit 1)
//   jam      the motor stalls: coins remaining stays put (test bit 0) until emergency stop
//   no-echo  the interface in front of the bus stops echoing (a bus-wide effect)
class Hopper : public SimDevice {
public:
    explicit Hopper(HopperProfile profile);

    struct Reply {
        std::uint8_t header = 0;  // 0 ACK or data, 5 NAK
        Bytes data;
    };

    int address() const { return m_profile.address; }
    // A frame for this hopper with a good checksum; no value means no reply.
    std::optional<Reply> handle(std::uint8_t header, const Bytes& data, double now);
    // True while the hopper ignores frames (just after a reset).
    bool deaf(double now) const { return now < m_deafUntil; }
    void advance(double now);
    void powerCycle(double now) override;
    nlohmann::ordered_json state() const override;

    ControlResult setCoins(int count);
    int coinsLeft() const { return m_coins; }
    int coinsPaidLifetime() const { return m_lifetimePaid; }
    int eventCounter() const { return m_eventCounter; }
    int coinsRemaining() const { return m_remaining; }
    int coinsPaid() const { return m_paid; }
    int coinsUnpaid() const { return m_unpaid; }
    bool enabled() const { return m_enabled; }
    std::uint8_t testRegister() const;
    const HopperProfile& profile() const { return m_profile; }

    // A reset makes the hopper deaf for this long.
    static constexpr double kDeafAfterResetSeconds = 0.13;

private:
    void reset(double now);
    std::optional<Reply> dispense(const Bytes& data, double now);

    HopperProfile m_profile;
    int m_coins;
    int m_lifetimePaid = 0;
    bool m_enabled = false;
    int m_eventCounter = 0;
    int m_remaining = 0;
    int m_paid = 0;
    int m_unpaid = 0;
    std::uint8_t m_latched = 0;  // fault bits of the test register
    bool m_powerUp = true;
    bool m_cipherRequested = false;
    double m_lastProgress = 0;
    double m_deafUntil = 0;
    double m_now = 0;
};

}  // namespace kestrix::sim
