#include "config.h"

#include <unistd.h>

#include <charconv>

#include "engine/settings/layout.h"

namespace kestrix::fleet {

namespace {
constexpr std::string_view kSection = "Fleet";
constexpr int kPlainPort = 1883;
constexpr int kTlsPort = 8883;
}  // namespace

std::optional<BrokerAddress> parseBroker(std::string_view url) {
    BrokerAddress out;
    if (url.starts_with("mqtt://")) {
        url.remove_prefix(7);
    } else if (url.starts_with("mqtts://")) {
        url.remove_prefix(8);
        out.tls = true;
    } else {
        return std::nullopt;
    }
    if (!url.empty() && url.back() == '/') {
        url.remove_suffix(1);
    }
    std::string_view port;
    if (url.starts_with("[")) {
        const auto close = url.find(']');
        if (close == std::string_view::npos) {
            return std::nullopt;
        }
        out.host = std::string(url.substr(1, close - 1));
        const std::string_view rest = url.substr(close + 1);
        if (!rest.empty()) {
            if (rest.front() != ':') {
                return std::nullopt;
            }
            port = rest.substr(1);
            if (port.empty()) {
                return std::nullopt;
            }
        }
    } else {
        const auto colon = url.find(':');
        out.host = std::string(url.substr(0, colon));
        if (colon != std::string_view::npos) {
            port = url.substr(colon + 1);
            if (port.empty()) {
                return std::nullopt;
            }
        }
    }
    if (out.host.empty() || out.host.find_first_of("/@?# ") != std::string::npos) {
        return std::nullopt;
    }
    out.port = out.tls ? kTlsPort : kPlainPort;
    if (!port.empty()) {
        int value = 0;
        const auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), value);
        if (ec != std::errc() || end != port.data() + port.size() || value < 1 || value > 65535) {
            return std::nullopt;
        }
        out.port = value;
    }
    return out;
}

std::string topicLevel(std::string_view id) {
    std::string out(id);
    for (char& ch : out) {
        if (ch == '+' || ch == '#' || ch == '/' || static_cast<unsigned char>(ch) < 0x20) {
            ch = '_';
        }
    }
    return out;
}

std::string hostName() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') {
        return "kiosk";
    }
    return name;
}

ConfigResult readFleetConfig(SettingsStore& settings, const std::string& host) {
    const auto get = [&settings](std::string_view key) {
        return settings.get(store::kApp, kSection, key, "");
    };
    ConfigResult result;
    if (get("Enabled") != "1") {
        return result;
    }
    FleetConfig config;
    config.enabled = true;
    const std::string broker = get("Broker");
    const auto address = parseBroker(broker);
    if (!address) {
        result.problem = "Fleet: Broker \"" + broker +
                         "\" is not mqtt://host[:port] or mqtts://host[:port]; not publishing";
        return result;
    }
    config.broker = *address;
    std::string id = get("KioskId");
    config.kioskId = topicLevel(id.empty() ? host : id);
    if (config.kioskId.empty()) {
        config.kioskId = "kiosk";
    }
    config.username = get("Username");
    config.password = get("Password");
    config.caCertificate = get("CACertificate");
    result.config = std::move(config);
    return result;
}

}  // namespace kestrix::fleet
