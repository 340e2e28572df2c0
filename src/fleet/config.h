#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "engine/platform/settings_store.h"

namespace kestrix::fleet {

// Where the broker is: "mqtt://host[:port]" (plain, port 1883 by default) or "mqtts://host[:port]"
// (TLS, port 8883 by default). An IPv6 address is written in brackets ("mqtt://[::1]:1883").
struct BrokerAddress {
    bool tls = false;
    std::string host;
    int port = 0;
    bool operator==(const BrokerAddress&) const = default;
};
std::optional<BrokerAddress> parseBroker(std::string_view url);

// The publisher's settings, from section "Fleet" of the store. They are read once when the engine
// starts; a change takes effect at the next start.
struct FleetConfig {
    bool enabled = false;       // "Enabled" = "1"
    BrokerAddress broker;       // "Broker"
    std::string kioskId;        // "KioskId", else the host name; the second level of every topic
    std::string username;       // "Username" (empty: none)
    std::string password;       // "Password"
    std::string caCertificate;  // "CACertificate": PEM file of the CA that signed the broker's
                                // certificate; empty: the system's trusted CAs
    std::string engineVersion;  // published in the state
    // Topic prefix "kestrix/<KioskId>/".
    std::string topic(std::string_view leaf) const {
        return "kestrix/" + kioskId + "/" + std::string(leaf);
    }
};

// The configuration in the store, or why there is none to run with (disabled, or a setting that
// cannot work, in `problem`). `hostName` stands in for a missing KioskId.
struct ConfigResult {
    std::optional<FleetConfig> config;
    std::string problem;  // empty when disabled or fine
};
ConfigResult readFleetConfig(SettingsStore& settings, const std::string& hostName);

// A kiosk id usable as one topic level: the MQTT wildcards '+' and '#', the level separator '/'
// and control characters become '_'.
std::string topicLevel(std::string_view id);

// This machine's host name ("kiosk" when it has none).
std::string hostName();

}  // namespace kestrix::fleet
