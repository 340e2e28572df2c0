#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "config.h"
#include "event_source.h"
#include "kiosk_view.h"

namespace kestrix::fleet {

// The JSON of one `event` message: the journal row, the card number masked.
std::string eventJson(const std::string& kioskId, const JournalRow& row);

// A device's last fault as the state shows it: the journal's latest fault or recovery row of it.
struct FaultNote {
    std::int64_t sequence = 0;
    std::int64_t wallTimeMs = 0;
    std::string detail;
    bool recovered = false;  // a "device recovered" row came after the fault
};
// Last faults by the state's device names ("changer", "validator", "dispenser", "hoppers",
// "pinpad").
using FaultNotes = std::map<std::string, FaultNote>;
// Takes a "device fault" or "device recovered" row into `notes`.
void noteFaultRow(FaultNotes& notes, const JournalRow& row);

// The JSON of the retained `state` message.
// `online` is false only in the last state a stopping engine publishes.
std::string stateJson(const FleetConfig& config, const KioskState& state, const FaultNotes& faults,
                      bool online, std::int64_t updatedMs);

// Long digit runs that can be a card number (13 to 19 digits, spaces or dashes allowed between
// groups) keep their first 6 and last 4 digits; the rest become '*'. The journal already masks
// them; this is the publisher's own guard, since an event leaves the kiosk.
std::string maskCardNumbers(std::string_view text);

// A wall time as UTC ISO 8601 text with milliseconds: "2024-05-31T12:34:56.789Z".
std::string isoTime(std::int64_t wallTimeMs);
// Milliseconds since 1970-01-01 UTC now.
std::int64_t wallTimeMsNow();

}  // namespace kestrix::fleet
