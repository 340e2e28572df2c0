#pragma once

#include <array>
#include <string>
#include <string_view>
#include <unordered_map>

#include "console.h"

namespace kestrix::console {

enum class Device { CoinAcceptor, BillValidator, BillDispenser, Hoppers, PinPad };
inline constexpr std::array<Device, 5> kDevices = {Device::CoinAcceptor, Device::BillValidator,
                                                   Device::BillDispenser, Device::Hoppers,
                                                   Device::PinPad};

// The serial links of the "General Settings" tab.
enum class Link { Mdb, Dispenser, Hoppers };
inline constexpr std::array<Link, 3> kLinks = {Link::Mdb, Link::Dispenser, Link::Hoppers};

struct StatusLine {
    enum class Level { Off, Waiting, Ok, Problem };
    std::string text;
    Level level = Level::Off;
    bool operator==(const StatusLine&) const = default;
};

// What the console can tell the technician about each device, worked out from what the engine
// shows anyway: its enable box, the identification it fills after a successful initialisation
// ("N/A" until then), and the device events it reports when a device does not answer or a port
// cannot be opened. The engine's routines keep no such summary themselves; the operator console and
// the fleet publisher each keep one, fed from the console's field changes.
class DeviceStatus {
public:
    // Every field change (cheap for fields it does not read).
    void noteField(const Field& field);
    // Every device event the engine reports.
    void noteEvent(DeviceEvent event);

    StatusLine device(Device d) const;
    StatusLine link(Link l) const;

    // True when a change of this field can change a status line.
    static bool reads(std::string_view fieldName);

private:
    enum class Problem { None, Absent, PortError };
    std::string text(std::string_view name) const;
    bool checked(std::string_view name) const;
    void clearProblemsOf(std::string_view fieldName, const Field& field);

    std::unordered_map<std::string, Field> m_fields;
    std::array<Problem, kDevices.size()> m_problem{};
    std::array<bool, kLinks.size()> m_portError{};
};

}  // namespace kestrix::console
