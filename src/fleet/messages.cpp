#include "messages.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <vector>

#include "engine/platform/journal.h"
#include "sim/json_writer.h"

namespace kestrix::fleet {

namespace {

using sim::JsonWriter;

bool digit(char c) {
    return c >= '0' && c <= '9';
}

void money(JsonWriter& w, std::string_view key, const std::optional<std::int64_t>& minor) {
    w.key(key);
    if (minor) {
        w.value(static_cast<long long>(*minor));
    } else {
        w.null();
    }
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

}  // namespace

std::string maskCardNumbers(std::string_view text) {
    std::string out(text);
    std::size_t i = 0;
    while (i < out.size()) {
        if (!digit(out[i])) {
            ++i;
            continue;
        }
        // A run of digits, single spaces or dashes allowed between them.
        std::vector<std::size_t> digits;
        std::size_t j = i;
        while (j < out.size()) {
            if (digit(out[j])) {
                digits.push_back(j);
                ++j;
            } else if ((out[j] == ' ' || out[j] == '-') && j + 1 < out.size() &&
                       digit(out[j + 1])) {
                ++j;
            } else {
                break;
            }
        }
        if (digits.size() >= 13 && digits.size() <= 19) {
            for (std::size_t k = 6; k + 4 < digits.size(); ++k) {
                out[digits[k]] = '*';
            }
        }
        i = j;
    }
    return out;
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
    JsonWriter w;
    w.beginObject();
    w.key("kiosk").value(kioskId);
    w.key("seq").value(static_cast<long long>(row.sequence));
    w.key("time").value(isoTime(row.wallTimeMs));
    w.key("kind").value(row.kind);
    w.key("payment").value(static_cast<long long>(row.paymentId));
    w.key("device").value(row.device);
    w.key("amountMinor").value(static_cast<long long>(row.amount.minor()));
    w.key("count").value(row.count);
    w.key("type").value(row.type);
    w.key("raw").value(maskCardNumbers(row.raw));
    w.key("detail").value(maskCardNumbers(row.detail));
    w.key("requester").value(row.requester);
    w.key("reference").value(row.reference);
    w.endObject();
    return w.text();
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
    JsonWriter w;
    w.beginObject();
    w.key("kiosk").value(config.kioskId);
    w.key("version").value(config.engineVersion);
    w.key("online").value(online);
    w.key("updated").value(isoTime(updatedMs));
    w.key("devices").beginObject();
    for (const KioskState::Device& d : state.devices) {
        w.key(d.name).beginObject();
        w.key("enabled").value(d.enabled);
        w.key("status").value(d.status);
        w.key("text").value(d.text);
        w.key("lastFault");
        const auto fault = faults.find(d.name);
        if (fault == faults.end()) {
            w.null();
        } else {
            w.beginObject();
            w.key("seq").value(static_cast<long long>(fault->second.sequence));
            w.key("time").value(isoTime(fault->second.wallTimeMs));
            w.key("detail").value(fault->second.detail);
            w.key("recovered").value(fault->second.recovered);
            w.endObject();
        }
        w.endObject();
    }
    w.endObject();
    w.key("tubes").beginObject();
    money(w, "totalMinor", state.tubesMinor);
    w.key("slots").beginArray();
    for (const KioskState::Tube& t : state.tubes) {
        w.beginObject();
        money(w, "coinMinor", t.coinMinor);
        w.key("count").value(t.count);
        w.endObject();
    }
    w.endArray();
    w.endObject();
    w.key("cassette").beginObject();
    w.key("level").value(state.cassette);
    w.key("dispenser").value(state.dispenserStatus);
    w.endObject();
    w.key("hoppers").beginArray();
    for (const KioskState::Hopper& h : state.hoppers) {
        w.beginObject();
        money(w, "coinMinor", h.coinMinor);
        w.key("level").value(h.level);
        w.endObject();
    }
    w.endArray();
    w.key("pinPad").beginObject();
    w.key("onLine").value(state.pinPadOnLine);
    w.endObject();
    w.endObject();
    return w.text();
}

}  // namespace kestrix::fleet

namespace kestrix::fleet {

bool isPublishedKind(std::string_view kind) {
    return kind == journal_kind::kPaymentEnd || kind == journal_kind::kPaymentInterrupted ||
           kind == journal_kind::kDeviceFault || kind == journal_kind::kDeviceRecovered ||
           kind == journal_kind::kRefill;
}

}  // namespace kestrix::fleet
