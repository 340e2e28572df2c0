#include "messages.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <vector>

#include "engine/card/card_number.h"
#include "engine/platform/journal.h"

namespace kestrix::fleet {

namespace {

using Json = nlohmann::ordered_json;

Json money(const std::optional<std::int64_t>& minor) {
    return minor ? Json(static_cast<long long>(*minor)) : Json();
}

// The journal's device names grouped as the state shows them.
std::string stateDevice(std::string_view journalDevice) {
    if (journalDevice == "tubes") {
        return "changer";
    }
    if (journalDevice == "hopper1" || journalDevice == "hopper2") {
        return "hoppers";
    }
    return std::string(journalDevice);
}

// Texts from devices and the journal are not always UTF-8: what is not is replaced, never thrown.
std::string dumped(const Json& w) {
    return w.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

std::string maskCardNumbers(std::string_view text) {
    return card::withCardNumbersMasked(text);
}

std::string isoTime(std::int64_t wallTimeMs) {
    const std::time_t seconds = static_cast<std::time_t>(wallTimeMs / 1000);
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char buf[40];
    const std::size_t n = std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    std::snprintf(buf + n, sizeof buf - n, ".%03dZ", static_cast<int>(wallTimeMs % 1000));
    return buf;
}

std::int64_t wallTimeMsNow() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::string eventJson(const std::string& kioskId, const JournalRow& row) {
    Json w;
    w["kiosk"] = kioskId;
    w["seq"] = static_cast<long long>(row.sequence);
    w["time"] = isoTime(row.wallTimeMs);
    w["kind"] = row.kind;
    w["payment"] = static_cast<long long>(row.paymentId);
    w["device"] = row.device;
    w["amountMinor"] = static_cast<long long>(row.amount.minor());
    w["count"] = row.count;
    w["type"] = row.type;
    w["raw"] = maskCardNumbers(row.raw);
    w["detail"] = maskCardNumbers(row.detail);
    w["requester"] = row.requester;
    w["reference"] = row.reference;
    return dumped(w);
}

void noteFaultRow(FaultNotes& notes, const JournalRow& row) {
    const std::string device = stateDevice(row.device);
    if (row.kind == journal_kind::kDeviceFault) {
        notes[device] = {row.sequence, row.wallTimeMs, maskCardNumbers(row.detail), false};
    } else if (row.kind == journal_kind::kDeviceRecovered) {
        const auto it = notes.find(device);
        if (it != notes.end()) {
            it->second.recovered = true;
        }
    }
}

std::string stateJson(const FleetConfig& config, const KioskState& state, const FaultNotes& faults,
                      bool online, std::int64_t updatedMs) {
    Json w;
    w["kiosk"] = config.kioskId;
    w["version"] = config.engineVersion;
    w["online"] = online;
    w["updated"] = isoTime(updatedMs);
    Json devices = Json::object();
    for (const KioskState::Device& d : state.devices) {
        Json device;
        device["enabled"] = d.enabled;
        device["status"] = d.status;
        device["text"] = d.text;
        const auto fault = faults.find(d.name);
        if (fault == faults.end()) {
            device["lastFault"] = nullptr;
        } else {
            device["lastFault"] = {{"seq", static_cast<long long>(fault->second.sequence)},
                                   {"time", isoTime(fault->second.wallTimeMs)},
                                   {"detail", fault->second.detail},
                                   {"recovered", fault->second.recovered}};
        }
        devices[d.name] = std::move(device);
    }
    w["devices"] = std::move(devices);
    Json slots = Json::array();
    for (const KioskState::Tube& t : state.tubes) {
        slots.push_back({{"coinMinor", money(t.coinMinor)}, {"count", t.count}});
    }
    w["tubes"] = {{"totalMinor", money(state.tubesMinor)}, {"slots", std::move(slots)}};
    w["cassette"] = {{"level", state.cassette}, {"dispenser", state.dispenserStatus}};
    Json hoppers = Json::array();
    for (const KioskState::Hopper& h : state.hoppers) {
        hoppers.push_back({{"coinMinor", money(h.coinMinor)}, {"level", h.level}});
    }
    w["hoppers"] = std::move(hoppers);
    w["pinPad"] = {{"onLine", state.pinPadOnLine}};
    return dumped(w);
}

}  // namespace kestrix::fleet

namespace kestrix::fleet {

bool isPublishedKind(std::string_view kind) {
    return kind == journal_kind::kPaymentEnd || kind == journal_kind::kPaymentInterrupted ||
           kind == journal_kind::kDeviceFault || kind == journal_kind::kDeviceRecovered ||
           kind == journal_kind::kRefill;
}

}  // namespace kestrix::fleet
