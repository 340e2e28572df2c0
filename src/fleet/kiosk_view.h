#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "engine/console.h"
#include "engine/device_status.h"
#include "engine/hoppers/hoppers.h"

namespace kestrix::fleet {

// What the retained `state` message says about the kiosk at one moment.
struct KioskState {
    struct Device {
        std::string name;  // "changer", "validator", "dispenser", "hoppers", "pinpad"
        bool enabled = false;
        std::string status;  // "ok", "off", "waiting", "problem"
        std::string text;    // the console's status line for it
        bool operator==(const Device&) const = default;
    };
    struct Tube {
        std::optional<std::int64_t> coinMinor;  // none: the slot holds no coin type
        int count = 0;
        bool operator==(const Tube&) const = default;
    };
    struct Hopper {
        std::optional<std::int64_t> coinMinor;
        // What its last dispense showed: "unknown" (none since start), "ok", "empty", "jammed",
        // "absent" (no valid reply or a dead link).
        std::string level = "unknown";
        bool operator==(const Hopper&) const = default;
    };
    std::array<Device, 5> devices;
    std::optional<std::int64_t> tubesMinor;  // none before the changer reported its tubes
    std::array<Tube, 5> tubes;
    std::string dispenserStatus;  // "OK", "ERR", or "" before the dispenser reported
    std::string cassette;         // "OK", "LOW", or ""
    std::array<Hopper, 2> hoppers;
    bool pinPadOnLine = false;
    bool operator==(const KioskState&) const = default;
};

// The engine's side of the publisher: it watches the console's field changes and the operator
// messages on the engine thread and keeps what the `state` needs. The engine thread only updates
// a few values under a mutex that the publisher's thread holds just long enough to copy them, so
// a slow or absent broker can never hold the engine up.
class KioskView {
public:
    KioskView();

    // Engine thread: every console field change. `hoppers` (may be null) is read for the outcome
    // of the last dispense when a field that ends one changes.
    void noteField(const Field& field, const Hoppers* hoppers = nullptr);
    // Engine thread: every device event.
    void noteEvent(DeviceEvent event);

    // Publisher thread: the state when it changed since the last call (or `always`).
    std::optional<KioskState> takeState(bool always = false);

private:
    KioskState build() const;
    static bool watched(const std::string& name);
    static std::string hopperLevel(Hoppers::Outcome outcome);

    mutable std::mutex m_mutex;
    console::DeviceStatus m_status;
    std::unordered_map<std::string, std::string> m_texts;  // watched fields by name
    std::array<std::string, 2> m_hopperLevels{"unknown", "unknown"};
    std::vector<Hoppers::Report> m_lastReports;
    bool m_dirty = true;
};

}  // namespace kestrix::fleet
