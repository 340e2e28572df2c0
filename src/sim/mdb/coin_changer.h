#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <string>

#include "sim/mdb/mdb_peripheral.h"
#include "sim/profile.h"

namespace kestrix::sim {

// An MDB coin changer at address 08h (level 3) with up to sixteen coin types, tubes that fill
// from deposits and empty through payouts, a cash box, and a payout mechanism that pays about
// two coins a second.
//
// Fault switches:
//   silent            answers nothing at all
//   reset-only        answers RESET, then nothing
//   cassette-removed  the tube cassette is out: diagnostic 15 02, tubes read empty, coins go to
//                     the cash box, payouts pay nothing
//   payout-jam        a payout stops at its next coin and reports 07 (tube jam)
//   busy-forever      every POLL reports 02 (payout busy), paying or not
class CoinChanger : public MdbPeripheral {
public:
    explicit CoinChanger(ChangerProfile profile = {});

    std::uint8_t address() const override { return 0x08; }
    std::size_t frameLength(const Bytes& start) const override;
    MdbAnswer command(const Bytes& frame, double now) override;
    void advance(double now) override;
    std::string commandName(const Bytes& frame) const override;
    void powerCycle(double now) override;
    nlohmann::ordered_json state() const override;

    // A customer drops a coin of MDB type `type` (0..15) into the slot. Taken only when the
    // type exists and the engine has enabled it.
    ControlResult insertCoin(int type, double now);
    // A technician fills or empties the tube of MDB coin type `type`.
    ControlResult setTubeCount(int type, int count);

    int tubeCount(int type) const;
    int cashBoxCount(int type) const;
    int paidOutCount(int type) const;
    std::uint16_t coinEnableMask() const { return m_coinEnable; }
    std::uint16_t manualDispenseMask() const { return m_manualEnable; }
    bool payoutBusy() const { return !m_payout.empty(); }
    const ChangerProfile& profile() const { return m_profile; }

private:
    struct InFlight {
        int type;
        double due;
    };
    struct PlannedCoin {
        int type;
        double due;
    };

    void reset();
    bool routesToTube(int type) const;
    MdbAnswer expansion(const Bytes& frame, double now);
    // Plans coins worth `credits` from the tubes, largest first; returns the coins planned.
    int planPayout(int credits, double now);
    void planCoins(int type, int count, double now);
    Bytes tubeStatus() const;

    ChangerProfile m_profile;
    std::array<int, 16> m_tubes{};
    std::array<int, 16> m_cashBox{};
    std::array<int, 16> m_paidOut{};       // lifetime, per type
    std::array<int, 16> m_payoutStatus{};  // coins paid since the last PAYOUT STATUS
    int m_valueSinceValuePoll = 0;         // credits paid since the last PAYOUT VALUE POLL
    std::uint16_t m_coinEnable = 0;
    std::uint16_t m_manualEnable = 0;
    std::deque<InFlight> m_inFlight;
    double m_acceptorFreeAt = 0;
    std::deque<PlannedCoin> m_payout;
    double m_now = 0;
};

}  // namespace kestrix::sim
