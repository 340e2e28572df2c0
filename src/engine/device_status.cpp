#include "device_status.h"

#include <cstddef>
#include <optional>
#include <vector>

namespace kestrix::console {

namespace {

constexpr std::string_view kNotAvailable = caption::kNotAvailable;

struct DeviceInfo {
    std::string_view enable;    // its check box
    std::string_view ready;     // a field that holds a real value once it is initialised
    std::string_view portName;  // as the engine names it in a port error
    int link;                   // index into kLinks, -1 for none
    std::optional<DeviceEvent> absent;
};

constexpr std::array<DeviceInfo, kDevices.size()> kInfo = {{
    {"CoinAcceptorEnabled", "caFeatureLevel", "MDB Interface", 0, DeviceEvent::ChangerNotAnswering},
    {"billValidatorEnabled", "bvFeatureLevel", "MDB Interface", 0,
     DeviceEvent::ValidatorNotAnswering},
    {"billDispenserEnabled", "bdStatus", "Bill Dispenser", 1, std::nullopt},
    {"hoppersEnabled", "", "Hoppers Interface", 2, std::nullopt},
    {"pinPadEnabled", "ccOnLine", "Pin Pad", -1, std::nullopt},
}};

// The port a port error names, as the engine names it.
std::string_view portNameOf(DeviceEvent event) {
    switch (event) {
        case DeviceEvent::PinPadPortError:
            return "Pin Pad";
        case DeviceEvent::DispenserPortError:
            return "Bill Dispenser";
        case DeviceEvent::HoppersPortError:
            return "Hoppers Interface";
        case DeviceEvent::MdbPortError:
            return "MDB Interface";
        case DeviceEvent::ChangerNotAnswering:
        case DeviceEvent::ValidatorNotAnswering:
            break;
    }
    return {};
}

struct LinkInfo {
    std::string_view port;
    std::string_view portName;
};

constexpr std::array<LinkInfo, kLinks.size()> kLinkInfo = {{
    {"comPorts", "MDB Interface"},
    {"comPorts1", "Bill Dispenser"},
    {"comPorts2", "Hoppers Interface"},
}};

constexpr std::array<std::string_view, 20> kRead = {
    "CoinAcceptorEnabled",
    "billValidatorEnabled",
    "billDispenserEnabled",
    "hoppersEnabled",
    "pinPadEnabled",
    "comPorts",
    "comPorts1",
    "comPorts2",
    "caFeatureLevel",
    "caManufacturer",
    "caModelNumber",
    "caSerialNumber",
    "tubesAmount",
    "bvFeatureLevel",
    "bvManufacturer",
    "bvModelNumber",
    "bdStatus",
    "bdCasetteStatus",
    "ccOnLine",
    "ccModel",
};

std::size_t index(Device d) {
    return static_cast<std::size_t>(d);
}

bool real(const std::string& text) {
    return !text.empty() && text != kNotAvailable;
}

// "a, b and c"
std::string joined(const std::vector<std::string>& parts) {
    std::string out;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) {
            out += i + 1 == parts.size() ? " and " : ", ";
        }
        out += parts[i];
    }
    return out;
}

std::string trimmed(std::string s) {
    const auto first = s.find_first_not_of(' ');
    if (first == std::string::npos) {
        return {};
    }
    s.erase(0, first);
    s.erase(s.find_last_not_of(' ') + 1);
    return s;
}

}  // namespace

bool DeviceStatus::reads(std::string_view fieldName) {
    for (std::string_view n : kRead) {
        if (n == fieldName) {
            return true;
        }
    }
    return fieldName == "ccSerialNumber" || fieldName == "ccTradeMark" ||
           fieldName == "bvSerialNumber" || fieldName == "bdSWVersion";
}

std::string DeviceStatus::text(std::string_view name) const {
    const auto it = m_fields.find(std::string(name));
    return it == m_fields.end() ? std::string() : it->second.text;
}

bool DeviceStatus::checked(std::string_view name) const {
    const auto it = m_fields.find(std::string(name));
    return it != m_fields.end() && it->second.value == 1;
}

void DeviceStatus::noteField(const Field& field) {
    if (!reads(field.name)) {
        return;
    }
    const auto it = m_fields.find(field.name);
    const bool changed =
        it == m_fields.end() || it->second.text != field.text || it->second.value != field.value;
    m_fields[field.name] = field;
    if (changed) {
        clearProblemsOf(field.name, field);
    }
}

// A problem lasts until the engine tries the device again (its box ticked, its port changed) or
// shows it initialised.
void DeviceStatus::clearProblemsOf(std::string_view fieldName, const Field& field) {
    for (std::size_t l = 0; l < kLinks.size(); ++l) {
        if (kLinkInfo[l].port == fieldName) {
            m_portError[l] = false;
            for (std::size_t d = 0; d < kDevices.size(); ++d) {
                if (kInfo[d].link == static_cast<int>(l) && m_problem[d] == Problem::PortError) {
                    m_problem[d] = Problem::None;
                }
            }
        }
    }
    for (std::size_t d = 0; d < kDevices.size(); ++d) {
        const DeviceInfo& info = kInfo[d];
        const bool reenabled = info.enable == fieldName && field.value == 1;
        const bool initialised = info.ready == fieldName && real(field.text) &&
                                 !(fieldName == "ccOnLine" && field.text == "No");
        if (reenabled || initialised) {
            m_problem[d] = Problem::None;
        }
        if (initialised && info.link >= 0) {
            m_portError[static_cast<std::size_t>(info.link)] = false;
        }
    }
}

void DeviceStatus::noteEvent(DeviceEvent event) {
    for (std::size_t d = 0; d < kDevices.size(); ++d) {
        if (kInfo[d].absent == event) {
            m_problem[d] = Problem::Absent;
        }
    }
    const std::string_view portName = portNameOf(event);
    if (portName.empty()) {
        return;
    }
    for (std::size_t l = 0; l < kLinks.size(); ++l) {
        if (kLinkInfo[l].portName == portName) {
            m_portError[l] = true;
        }
    }
    for (std::size_t d = 0; d < kDevices.size(); ++d) {
        if (kInfo[d].portName == portName) {
            m_problem[d] = Problem::PortError;
        }
    }
}

StatusLine DeviceStatus::device(Device d) const {
    using L = StatusLine::Level;
    const DeviceInfo& info = kInfo[index(d)];
    const Problem problem = m_problem[index(d)];
    if (problem == Problem::PortError) {
        std::string where = std::string(info.portName);
        if (info.link >= 0) {
            where += " on port " + text(kLinkInfo[static_cast<std::size_t>(info.link)].port);
        }
        return {"Port error (" + where + "): select another port on General Settings.", L::Problem};
    }
    if (!checked(info.enable)) {
        if (problem == Problem::Absent) {
            return {"Not answering: check its connection. Disabled until it is enabled again.",
                    L::Problem};
        }
        return {"Disabled.", L::Off};
    }
    switch (d) {
        case Device::CoinAcceptor:
            if (real(text("caFeatureLevel"))) {
                return {"Initialised: feature level " + text("caFeatureLevel") + ", " +
                            trimmed(text("caManufacturer")) + " " + trimmed(text("caModelNumber")) +
                            ", serial " + trimmed(text("caSerialNumber")) + "; " +
                            text("tubesAmount") + " in the tubes.",
                        L::Ok};
            }
            break;
        case Device::BillValidator:
            if (real(text("bvFeatureLevel"))) {
                return {"Initialised: feature level " + text("bvFeatureLevel") + ", " +
                            trimmed(text("bvManufacturer")) + " " + trimmed(text("bvModelNumber")) +
                            ", serial " + trimmed(text("bvSerialNumber")) + ".",
                        L::Ok};
            }
            break;
        case Device::BillDispenser:
            if (real(text("bdStatus"))) {
                std::string summary = "Initialised: status " + text("bdStatus");
                if (real(text("bdCasetteStatus"))) {
                    summary += ", cassette " + text("bdCasetteStatus");
                }
                if (real(text("bdSWVersion"))) {
                    summary += ", software " + text("bdSWVersion");
                }
                return {summary + ".", L::Ok};
            }
            break;
        case Device::Hoppers:
            return {"Enabled on port " + text("comPorts2") + " (Hoppers Interface).", L::Ok};
        case Device::PinPad:
            if (text("ccOnLine") == "Yes") {
                return {"On line: " + trimmed(text("ccTradeMark") + " " + text("ccModel")) +
                            ", serial " + text("ccSerialNumber") + ".",
                        L::Ok};
            }
            if (text("ccOnLine") == "No") {
                return {"Off line: the pin pad did not answer.", L::Problem};
            }
            break;
    }
    return {"Enabled, not initialised yet.", L::Waiting};
}

StatusLine DeviceStatus::link(Link l) const {
    using L = StatusLine::Level;
    const auto li = static_cast<std::size_t>(l);
    if (m_portError[li]) {
        return {"Port error: the port could not be opened. Select another port.", L::Problem};
    }
    std::vector<std::string> users;
    switch (l) {
        case Link::Mdb:
            if (checked("CoinAcceptorEnabled")) {
                users.emplace_back("the coin acceptor");
            }
            if (checked("billValidatorEnabled")) {
                users.emplace_back("the bill validator");
            }
            break;
        case Link::Dispenser:
            if (checked("billDispenserEnabled")) {
                users.emplace_back("the bill dispenser");
            }
            break;
        case Link::Hoppers:
            if (checked("hoppersEnabled")) {
                users.emplace_back("the hoppers");
            }
            break;
    }
    if (users.empty()) {
        return {"Not in use: no device on this link is enabled.", L::Off};
    }
    return {"In use by " + joined(users) + ".", L::Ok};
}

}  // namespace kestrix::console
