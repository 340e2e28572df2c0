#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "sim/mdb/mdb_peripheral.h"
#include "sim/profile.h"

namespace kestrix::sim {

// An MDB bill validator at address 30h (level 1) with up to sixteen bill types, an escrow
// position and a stacker.
//
// Fault switches:
//   silent  answers nothing at all
//   ccd     identifies with manufacturer code "CCD" (the engine times such validators apart)
//   flaky   misses a number of replies in a row (flakyMisses(), 2 unless set), answers one,
//           and so on
class BillValidator : public MdbPeripheral {
public:
    explicit BillValidator(ValidatorProfile profile = {});

    std::uint8_t address() const override { return 0x30; }
    std::size_t frameLength(const Bytes& start) const override;
    MdbAnswer command(const Bytes& frame, double now) override;
    void advance(double now) override;
    std::string commandName(const Bytes& frame) const override;
    bool setFault(std::string_view name, bool on) override;
    void powerCycle(double now) override;
    nlohmann::ordered_json state() const override;

    // A customer feeds a bill of MDB type `type` (0..15). Taken only when the type exists and
    // the engine has enabled it.
    ControlResult insertBill(int type, double now);

    void setFlakyMisses(int misses) { m_flakyMisses = misses < 0 ? 0 : misses; }
    int flakyMisses() const { return m_flakyMisses; }

    int stackedCount(int type) const;
    int stackerCount() const { return m_stackerCount; }
    std::uint16_t billEnableMask() const { return m_billEnable; }
    std::uint16_t escrowEnableMask() const { return m_escrowEnable; }
    std::optional<int> billInEscrow() const { return m_escrow; }
    std::string manufacturer() const;
    const ValidatorProfile& profile() const { return m_profile; }

private:
    struct InFlight {
        int type;
        double due;
    };
    void reset();
    void stack(int type);

    ValidatorProfile m_profile;
    std::array<int, 16> m_stacked{};
    int m_stackerCount = 0;
    std::uint16_t m_billEnable = 0;
    std::uint16_t m_escrowEnable = 0;
    std::optional<int> m_escrow;
    std::deque<InFlight> m_inFlight;
    double m_transportFreeAt = 0;
    int m_flakyMisses = 2;
    int m_missed = 0;
    double m_now = 0;
};

}  // namespace kestrix::sim
