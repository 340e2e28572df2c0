#include "console.h"

#include <stdexcept>

namespace kestrix {

std::string Console::ctEnabled(int n) {
    return "ct" + std::to_string(n) + "_Enabled";
}
std::string Console::ctValue(int n) {
    return "ct" + std::to_string(n) + "_value";
}
std::string Console::btEnabled(int n) {
    return "bt" + std::to_string(n) + "_Enabled";
}
std::string Console::btValue(int n) {
    // Types 9 to 16 are spelled with a lower-case "value" on the console.
    return "bt" + std::to_string(n) + (n <= 8 ? "_Value" : "_value");
}
std::string Console::tubeCoinType(int n) {
    return "tubeCoinType" + std::to_string(n);
}
std::string Console::tubeCoinQty(int n) {
    return "tubeCoinQty" + std::to_string(n);
}

void Console::add(std::string name, FieldKind kind, std::string label, std::string text) {
    Field f;
    f.name = std::move(name);
    f.kind = kind;
    f.label = std::move(label);
    f.text = std::move(text);
    m_fields.push_back(std::move(f));
    Field& stored = m_fields.back();
    m_byName.emplace(stored.name, &stored);
}

Console::Console() {
    using K = FieldKind;
    // Live displays and the form's buttons.
    add("Setup", K::Form, "", "Kestrix V5.0.0");
    add("SSTab1", K::Tabs);
    add("due", K::TextBox, "Amount:");
    add("enablePayment", K::Button, "", "Cash");
    add("enablePaymentCC", K::Button, "", "Credit Card");
    add("statusDisplay", K::Label);
    add("dueDisplay", K::Label);
    add("creditDisplay", K::Label, "", "$0.00");
    add("gLEDtx", K::Image);
    add("gLEDrx", K::Image);
    add("wLEDtx", K::Image);
    add("wLEDrx", K::Image);
    add("Save", K::Button, "", "Save");
    add("Cancel", K::Button, "", "Cancel");
    m_byName.at("gLEDtx")->visible = false;
    m_byName.at("gLEDrx")->visible = false;

    // General Settings.
    add("comPorts", K::ComboBox, "COM Port:", "0");
    add("comPorts1", K::ComboBox, "COM Port:", "0");
    add("comPorts2", K::ComboBox, "COM Port:", "0");

    // Coin Acceptor.
    add("CoinAcceptorEnabled", K::CheckBox, "Coin Acceptor Enabled");
    add("caFeatureLevel", K::TextBox, "Changer Feature Level:");
    add("caCountryCode", K::TextBox, "Country / Currency Code:");
    add("caScalingFactor", K::TextBox, "Coin Scaling Factor:");
    add("caDecimal", K::TextBox, "Decimal Places:");
    add("caManufacturer", K::TextBox, "Manufacturer Code:");
    add("caSerialNumber", K::TextBox, "Serial Number:");
    add("caModelNumber", K::TextBox, "Model Number:");
    for (int n = 1; n <= 16; ++n) {
        add(ctEnabled(n), K::CheckBox, "Coin Type " + std::to_string(n));
        add(ctValue(n), K::TextBox);
    }
    add("changeEnabled", K::CheckBox, "Enable Change");
    for (int n = 1; n <= 5; ++n) {
        add(tubeCoinType(n), K::TextBox, "Tube Coin Type " + std::to_string(n) + ":");
        add(tubeCoinQty(n), K::TextBox);
    }
    add("tubesAmount", K::TextBox, "Total Amount in Tubes:");

    // Bill Validator.
    add("billValidatorEnabled", K::CheckBox, "Bill Validator Enabled");
    add("bvFeatureLevel", K::TextBox, "Bill Validator Feature Level:");
    add("bvCountryCode", K::TextBox, "Country / Currency Code:");
    add("bvScalingFactor", K::TextBox, "Bill Scaling Factor:");
    add("bvDecimalPlaces", K::TextBox, "Decimal Places:");
    add("bvStackerCapacity", K::TextBox, "Stacker Capacity:");
    add("bvSecurityLevels", K::TextBox, "Bill Security Levels:");
    add("bvEscrowCapability", K::TextBox, "Escrow Capability:");
    add("bvManufacturer", K::TextBox, "Manufacturer Code:");
    add("bvSerialNumber", K::TextBox, "Serial Number:");
    add("bvModelNumber", K::TextBox, "Model Number:");
    add("bvSoftwareVersion", K::TextBox, "Software Version:");
    for (int n = 1; n <= 16; ++n) {
        add(btEnabled(n), K::CheckBox, "Bill Type " + std::to_string(n));
        add(btValue(n), K::TextBox);
    }

    // Bill Dispenser.
    add("billDispenserEnabled", K::CheckBox, "Bill Dispenser Enabled");
    add("bDispType", K::ComboBox, "Bill Type:", "1000");
    add("bdSWVersion", K::TextBox, "Bill Dispenser SW Version:");
    add("bdCasetteStatus", K::TextBox, "Casette Status:");
    add("bdMaxLenght", K::TextBox, "Bill Size Max. Lenght:");
    add("bdMinLenght", K::TextBox, "Bill Size Min. Lenght:");
    add("bdThickness", K::TextBox, "Bill Size Thickness:");
    add("bdStatus", K::TextBox, "Bill Dispenser Status:");
    add("bdQtyBills", K::TextBox, "Quantity of Bills to Dispense:");
    add("bdDispenseBills", K::Button, "", "Dispense Bills");
    add("bdBillsDispensed", K::TextBox, "Quantity of Bills Dispensed:");
    add("bdDispenserRefill", K::Button, "", "Bill Dispenser Refill");

    // Hoppers.
    add("h1CoinValue", K::ComboBox, "Coin Value:", "1");
    add("h2CoinValue", K::ComboBox, "Coin Value:", "1");
    add("hoppersEnabled", K::CheckBox, "Hoppers Enabled");
    add("hToDispense", K::TextBox, "Amount to Dispense:");
    add("hDispenseCoins", K::Button, "", "Dispense Coins");
    add("hDispensed", K::TextBox, "Amount Dispensed:");

    // Credit Card.
    add("pinPadEnabled", K::CheckBox, "Pin Pad Enabled");
    add("ccEMVFull", K::TextBox, "EMV Full:");
    add("ccModel", K::TextBox, "Model:");
    add("ccSerialNumber", K::TextBox, "Serial Number:");
    add("ccTradeMark", K::TextBox, "Trademark:");
    add("ccVersionApp", K::TextBox, "App Version:");
    add("ccCOM", K::TextBox, "COM Port:");
    add("ccPrinter", K::TextBox, "Pin Pad Printer:");
    add("ccUser", K::TextBox, "User:");
    add("ccPassword", K::TextBox, "Password:");
    add("ccURL", K::TextBox, "URL:");
    add("ccOnLine", K::TextBox, "On Line:");
    add("ccCompany", K::TextBox, "Company:");
    add("ccBranch", K::TextBox, "Branch:");
    add("ccCountry", K::TextBox, "Country:");
    add("ccNumTarjeta", K::TextBox, "Número de Tarjeta:");
    add("ccTarjetahabiente", K::TextBox, "Tarjetahabiente:");
    add("ccPantallaPP", K::TextBox, "Mensajes en Pantalla Pin Pad:");
    add("ccReadCard", K::Button, "", "Read Card");
    add("ccPrinters", K::ComboBox, "", "Default Printer...");
}

const Field* Console::find(std::string_view name) const {
    const auto it = m_byName.find(std::string(name));
    return it == m_byName.end() ? nullptr : it->second;
}

const Field& Console::field(std::string_view name) const {
    const Field* f = find(name);
    if (f == nullptr) {
        throw std::out_of_range("no console control named " + std::string(name));
    }
    return *f;
}

Field& Console::mut(std::string_view name) {
    return const_cast<Field&>(field(name));
}

void Console::setText(std::string_view name, std::string text) {
    Field& f = mut(name);
    if (f.text != text) {
        f.text = std::move(text);
        changed(f);
    }
}

void Console::setValue(std::string_view name, int value) {
    Field& f = mut(name);
    if (f.value != value) {
        f.value = value;
        changed(f);
    }
}

void Console::setEnabled(std::string_view name, bool enabled) {
    Field& f = mut(name);
    if (f.enabled != enabled) {
        f.enabled = enabled;
        changed(f);
    }
}

void Console::setVisible(std::string_view name, bool visible) {
    Field& f = mut(name);
    if (f.visible != visible) {
        f.visible = visible;
        changed(f);
    }
}

void Console::setItems(std::string_view name, std::vector<std::string> items) {
    Field& f = mut(name);
    f.items = std::move(items);
    changed(f);
}

void Console::BlinkTx() {
    if (m_onIndicator) {
        m_onIndicator(Indicator::Tx);
    }
}

void Console::BlinkRx() {
    if (m_onIndicator) {
        m_onIndicator(Indicator::Rx);
    }
}

}  // namespace kestrix
