#pragma once

#include <string_view>

#include "engine/platform/settings_store.h"
#include "sim/profile.h"

namespace kestrix::sim {

// The port numbers the engine is told to use for the three links.
struct PortNumbers {
    int mdb = 1;        // MDB interface adapter
    int dispenser = 2;  // bill dispenser
    int hoppers = 3;    // hoppers interface
};

// Writes a store configuration that enables every device of the simulated kiosk on the given
// ports: coin types 1-5 and change, bill types 1-5 with the profile's bill values, the bill
// dispenser's bill value, both hoppers with their coin values and link settings, the pin pad
// with the simulated library. Device settings are overwritten; the pin pad simulator's steering
// keys are written only when missing, so a developer's chosen outcome survives.
void seedSimulatedKioskSettings(SettingsStore& store, const PortNumbers& ports,
                                const KioskProfile& profile = defaultProfile());

// Linux: points the engine's port numbers at the links of a simulator running in `dir`
// (section "Ports": "1" = DIR/mdb, "2" = DIR/dispenser, "3" = DIR/hoppers).
void seedSimulatedPortPaths(SettingsStore& store, const PortNumbers& ports, std::string_view dir);

}  // namespace kestrix::sim
