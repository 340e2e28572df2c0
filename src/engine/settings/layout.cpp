#include "layout.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <stdexcept>

#include "../errors.h"
#include "../formulas.h"

namespace kestrix::store {

namespace key {
std::string tubeCoinType(int slot) {
    return "tubeCoinType" + std::to_string(slot);
}
std::string tubeCoinQty(int slot) {
    return "tubeCoinQty" + std::to_string(slot);
}
}  // namespace key

namespace {

std::vector<DeviceSetting> buildSettings() {
    using K = SettingKind;
    std::vector<DeviceSetting> s;
    s.push_back({section::kSettings, "COM", "comPorts", K::Port, "0"});
    s.push_back({section::kSettings, "COM1", "comPorts1", K::Port, "0"});
    s.push_back({section::kSettings, "COM2", "comPorts2", K::Port, "0"});
    s.push_back({section::kCoinAcceptor, "CAE", "CoinAcceptorEnabled", K::Flag, "0"});
    s.push_back({section::kCoinAcceptor, "ChangeEnabled", "changeEnabled", K::Flag, "0"});
    for (int n = 1; n <= 16; ++n) {
        s.push_back({section::kCoinAcceptor, "CoinType" + std::to_string(n) + "_Enabled",
                     FieldName::runtime("ct" + std::to_string(n) + "_Enabled"), K::Flag, "0"});
    }
    s.push_back({section::kBillValidator, "BVE", "billValidatorEnabled", K::Flag, "0"});
    for (int n = 1; n <= 16; ++n) {
        s.push_back({section::kBillValidator, "BillType" + std::to_string(n) + "_Enabled",
                     FieldName::runtime("bt" + std::to_string(n) + "_Enabled"), K::Flag, "0"});
    }
    for (int n = 1; n <= 16; ++n) {
        // The value fields of types 9 to 16 are spelled with a lower-case "value".
        s.push_back({section::kBillValidator, "BillType" + std::to_string(n) + "_Value",
                     FieldName::runtime("bt" + std::to_string(n) + (n <= 8 ? "_Value" : "_value")),
                     K::Number, "0"});
    }
    s.push_back({section::kBillDispenser, "BDE", "billDispenserEnabled", K::Flag, "0"});
    s.push_back({section::kBillDispenser, "BillDispTypeValue", "bDispType", K::Number, "50"});
    s.push_back({section::kHoppers, "HE", "hoppersEnabled", K::Flag, "0"});
    s.push_back({section::kHoppers, "h1CoinValue", "h1CoinValue", K::Number, "1"});
    s.push_back({section::kHoppers, "h2CoinValue", "h2CoinValue", K::Number, "1"});
    s.push_back({section::kPinPad, "PPE", "pinPadEnabled", K::Flag, "0"});
    s.push_back({section::kPinPad, "User", "ccUser", K::Text, "N/A"});
    s.push_back({section::kPinPad, "Password", "ccPassword", K::Text, "N/A"});
    s.push_back({section::kPinPad, "URL", "ccURL", K::Text, "N/A"});
    s.push_back({section::kPinPad, "Printer", "ccPrinters", K::Text, ""});
    return s;
}

}  // namespace

const std::vector<DeviceSetting>& deviceSettings() {
    static const std::vector<DeviceSetting> settings = buildSettings();
    return settings;
}

const DeviceSetting& setting(std::string_view key) {
    for (const DeviceSetting& s : deviceSettings()) {
        if (s.key == key) {
            return s;
        }
    }
    throw std::out_of_range("no such setting: " + std::string(key));
}

std::vector<const DeviceSetting*> defaultSetOrder() {
    // Same as Save's order except that each link's port is written with its own device.
    std::vector<const DeviceSetting*> order;
    const auto add = [&order](std::string_view key) { order.push_back(&setting(key)); };
    add("COM");
    for (const DeviceSetting& s : deviceSettings()) {
        if (s.section == section::kCoinAcceptor || s.section == section::kBillValidator) {
            order.push_back(&s);
        }
    }
    add("BDE");
    add("COM1");
    add("BillDispTypeValue");
    add("COM2");
    for (const DeviceSetting& s : deviceSettings()) {
        if (s.section == section::kHoppers || s.section == section::kPinPad) {
            order.push_back(&s);
        }
    }
    return order;
}

const std::vector<MailboxValue>& mailboxReset() {
    static const std::vector<MailboxValue> values = {
        {mailbox::kDue, "0"},         {mailbox::kDueCC, "0"},    {mailbox::kReferenceCC, ""},
        {mailbox::kCredit, "0"},      {mailbox::kStatus, ""},    {mailbox::kCancel, ""},
        {mailbox::kExit, ""},         {mailbox::kChange, ""},    {mailbox::kChangeDispensed, ""},
        {mailbox::kTubes, "0"},       {mailbox::kBDStatus, ""},  {mailbox::kBDCassette, ""},
        {mailbox::kBDDispensed, "0"}, {mailbox::kKsxError, "0"},
    };
    return values;
}

namespace {

enum class ValueKind { Port, Flag, Number, Text, Address, Choice };

struct KeyRule {
    std::string_view section;
    std::string key;
    ValueKind kind;
    std::vector<std::string_view> choices;  // ValueKind::Choice
};

std::vector<KeyRule> buildRules() {
    std::vector<KeyRule> rules;
    for (const DeviceSetting& s : deviceSettings()) {
        const ValueKind kind = s.kind == SettingKind::Port     ? ValueKind::Port
                               : s.kind == SettingKind::Flag   ? ValueKind::Flag
                               : s.kind == SettingKind::Number ? ValueKind::Number
                                                               : ValueKind::Text;
        rules.push_back({s.section, s.key, kind, {}});
    }
    // The tube slots the engine exports for the host.
    for (int slot = 1; slot <= 5; ++slot) {
        rules.push_back({section::kCoinAcceptor, key::tubeCoinType(slot), ValueKind::Number, {}});
        rules.push_back({section::kCoinAcceptor, key::tubeCoinQty(slot), ValueKind::Number, {}});
    }
    rules.push_back({section::kSettings, std::string(key::kMaxAmount), ValueKind::Number, {}});
    rules.push_back({section::kHoppers, std::string(key::kH1Address), ValueKind::Address, {}});
    rules.push_back({section::kHoppers, std::string(key::kH2Address), ValueKind::Address, {}});
    rules.push_back({section::kHoppers,
                     std::string(key::kDispenseMode),
                     ValueKind::Choice,
                     {"serial", "zeros8", "noencrypt8"}});
    rules.push_back({section::kHoppers, std::string(key::kEcho), ValueKind::Flag, {}});
    rules.push_back(
        {section::kPinPad, std::string(key::kLibrary), ValueKind::Choice, {"com", "simulated"}});
    rules.push_back(
        {section::kPinPad, std::string(key::kOnLine), ValueKind::Choice, {"Yes", "No"}});
    return rules;
}

const std::vector<KeyRule>& rules() {
    static const std::vector<KeyRule> all = buildRules();
    return all;
}

bool sameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

std::string trimmedText(std::string_view v) {
    const auto first = v.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    return std::string(v.substr(first, v.find_last_not_of(" \t") - first + 1));
}

// The number the engine reads from a value, or NaN when it reads none.
double numberOrNan(std::string_view v) {
    try {
        return strictNumber(v);
    } catch (const KsxError&) {
        return std::nan("");
    }
}

bool whole(double n, double low, double high) {
    return n == std::floor(n) && n >= low && n <= high;
}

}  // namespace

bool isCheckedSection(std::string_view section) {
    for (const std::string_view known :
         {section::kSettings, section::kCoinAcceptor, section::kBillValidator,
          section::kBillDispenser, section::kHoppers, section::kPinPad}) {
        if (sameName(section, known)) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> sectionKeys(std::string_view section) {
    std::vector<std::string> keys;
    for (const KeyRule& r : rules()) {
        if (sameName(r.section, section)) {
            keys.push_back(r.key);
        }
    }
    return keys;
}

std::string settingProblem(std::string_view section, std::string_view key, std::string_view value) {
    if (!isCheckedSection(section)) {
        return {};
    }
    const KeyRule* rule = nullptr;
    for (const KeyRule& r : rules()) {
        if (sameName(r.section, section) && sameName(r.key, key)) {
            rule = &r;
        }
    }
    const std::string name = std::string(section) + "/" + std::string(key);
    if (rule == nullptr) {
        std::string keys;
        for (const std::string& k : sectionKeys(section)) {
            keys += (keys.empty() ? "" : ", ") + k;
        }
        return "the engine reads no key \"" + std::string(key) + "\" in section \"" +
               std::string(section) + "\"; its keys are: " + keys;
    }
    const std::string text = trimmedText(value);
    const double n = numberOrNan(value);
    switch (rule->kind) {
        case ValueKind::Port:
            if (text.empty() || whole(n, 0, 32767)) {
                return {};
            }
            return name + " is a port number (0 for none), not \"" + std::string(value) + "\"";
        case ValueKind::Flag:
            if (whole(n, 0, 1)) {
                return {};
            }
            return name + " is a flag, 0 or 1, not \"" + std::string(value) + "\"";
        case ValueKind::Number:
            if (!std::isnan(n)) {
                return {};
            }
            return name + " is a number such as 50 or 0.5, not \"" + std::string(value) + "\"";
        case ValueKind::Address:
            if (whole(n, 1, 255)) {
                return {};
            }
            return name + " is a ccTalk address, 1 to 255, not \"" + std::string(value) + "\"";
        case ValueKind::Choice: {
            std::string allowed;
            for (const std::string_view c : rule->choices) {
                if (sameName(c, text)) {
                    return {};
                }
                allowed += (allowed.empty() ? "" : ", ") + std::string(c);
            }
            return name + " is one of " + allowed + ", not \"" + std::string(value) + "\"";
        }
        case ValueKind::Text:
            return {};
    }
    return {};
}

}  // namespace kestrix::store
