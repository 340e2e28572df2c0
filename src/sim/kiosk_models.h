#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/dispenser/bill_dispenser_model.h"
#include "sim/hoppers/hopper_bus.h"
#include "sim/mdb/bill_validator.h"
#include "sim/mdb/coin_changer.h"
#include "sim/mdb/mdb_adapter.h"
#include "sim/profile.h"
#include "sim/sim_device.h"

namespace kestrix::sim {

// Every device model of one simulated kiosk, wired as on the kiosk: the MDB adapter with the
// coin changer and the bill validator behind it, the bill dispenser, and the two hoppers on
// their bus. Also the technician's and customer's control commands, shared by the virtual
// world, the kestrix-sim control socket and the in-process simulator. Not thread-safe: the
// owner serialises access.
class KioskModels {
public:
    // `now` tells the models' time (seconds on a monotonic clock, the same as the links feed).
    KioskModels(const KioskProfile& profile, std::function<double()> now);

    MdbAdapter& adapter() { return m_adapter; }
    CoinChanger& changer() { return m_changer; }
    BillValidator& validator() { return m_validator; }
    BillDispenserModel& dispenser() { return m_dispenser; }
    HopperBus& hoppers() { return m_hoppers; }
    Hopper& hopper1() { return m_hoppers.hopper(1); }
    Hopper& hopper2() { return m_hoppers.hopper(2); }
    const KioskProfile& profile() const { return m_profile; }

    // The devices at the end of the three links.
    LinkDevice& mdbLink() { return m_adapter; }
    LinkDevice& dispenserLink() { return m_dispenser; }
    LinkDevice& hoppersLink() { return m_hoppers; }

    // A further device whose faults the `fault` command can switch (the pin pad, which lives
    // with the engine).
    void addDevice(std::string name, SimDevice* device);

    // Customer and technician actions with console numbering (coin type N is MDB type N-1).
    ControlResult insertCoin(int consoleType);
    ControlResult insertBill(int consoleType);
    ControlResult setTube(int consoleType, int count);
    ControlResult setFault(std::string_view device, std::string_view fault, bool on);
    ControlResult reset(std::string_view device);

    // One control command line, e.g. "coin 2", "fault changer silent on", "state".
    ControlResult command(std::string_view line);
    static std::string commandHelp();

    // Lets every model catch up to the present (coins dropping, payouts, a dispense).
    void catchUp();
    std::string stateJson();
    // Recent traffic of a device, one line per frame, or empty for an unknown device.
    std::string frames(std::string_view device) const;
    std::vector<std::string> deviceNames() const;

private:
    SimDevice* device(std::string_view name);

    KioskProfile m_profile;
    std::function<double()> m_now;
    MdbAdapter m_adapter;
    CoinChanger m_changer;
    BillValidator m_validator;
    BillDispenserModel m_dispenser;
    HopperBus m_hoppers;
    std::vector<std::pair<std::string, SimDevice*>> m_extra;
};

}  // namespace kestrix::sim
