#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <string_view>
#include <vector>

#include "frame_log.h"

namespace kestrix::sim {

// The answer to a customer's or technician's action on a model, or to a control command.
struct ControlResult {
    bool ok = true;
    std::string text;
    bool usage = false;  // not refused by a device: the command itself is wrong

    static ControlResult accepted(std::string text) { return {true, std::move(text)}; }
    static ControlResult rejected(std::string reason) { return {false, std::move(reason)}; }
    static ControlResult misused(std::string reason) { return {false, std::move(reason), true}; }
};

// What every device model offers besides its line protocol: named fault switches, a power
// cycle, and a state dump as JSON.
class SimDevice {
public:
    explicit SimDevice(std::vector<std::string> faultNames) : m_faults(std::move(faultNames)) {}
    virtual ~SimDevice() = default;

    // Turns a fault on or off; false for a name this model does not know.
    virtual bool setFault(std::string_view name, bool on) { return m_faults.set(name, on); }
    // The names of this model's fault switches.
    std::vector<std::string> faults() const { return m_faults.names(); }
    std::vector<std::string> activeFaults() const { return m_faults.active(); }
    bool faultOn(std::string_view name) const { return m_faults.on(name); }

    // The technician switches the device off and on again.
    virtual void powerCycle(double now) = 0;
    // The model's state, for the `state` command and the simulator window.
    virtual nlohmann::ordered_json state() const = 0;
    // state() as compact JSON text.
    std::string stateJson() const;

protected:
    FaultSwitches m_faults;
};

}  // namespace kestrix::sim
