#include "layout.h"

#include <stdexcept>

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
                     "ct" + std::to_string(n) + "_Enabled", K::Flag, "0"});
    }
    s.push_back({section::kBillValidator, "BVE", "billValidatorEnabled", K::Flag, "0"});
    for (int n = 1; n <= 16; ++n) {
        s.push_back({section::kBillValidator, "BillType" + std::to_string(n) + "_Enabled",
                     "bt" + std::to_string(n) + "_Enabled", K::Flag, "0"});
    }
    for (int n = 1; n <= 16; ++n) {
        // The value fields of types 9 to 16 are spelled with a lower-case "value".
        s.push_back({section::kBillValidator, "BillType" + std::to_string(n) + "_Value",
                     "bt" + std::to_string(n) + (n <= 8 ? "_Value" : "_value"), K::Number, "0"});
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
        {mailbox::kDue, "0"},         {mailbox::kDueCC, "0"},
        {mailbox::kReferenceCC, ""},  {mailbox::kCredit, "0"},
        {mailbox::kStatus, ""},       {mailbox::kCancel, ""},
        {mailbox::kExit, ""},         {mailbox::kChange, ""},
        {mailbox::kChangeDispensed, ""}, {mailbox::kTubes, "0"},
        {mailbox::kBDStatus, ""},     {mailbox::kBDCassette, ""},
        {mailbox::kBDDispensed, "0"}, {mailbox::kKsxError, "0"},
    };
    return values;
}

}  // namespace kestrix::store
