#include "console.h"

#include <stdexcept>

namespace kestrix {

void notAConsoleControl(std::string_view name) {
    throw std::out_of_range("no console control named " + std::string(name));
}

std::optional<FieldName> FieldName::find(std::string_view name) noexcept {
    for (std::size_t i = 0; i < field_table::kFields.size(); ++i) {
        if (field_table::kFields[i].name == name) {
            return FieldName(ByIndex{}, i);
        }
    }
    return std::nullopt;
}

FieldName FieldName::runtime(std::string_view name) {
    if (const std::optional<FieldName> found = find(name)) {
        return *found;
    }
    notAConsoleControl(name);
    return "Setup";  // not reached: the call above throws
}

FieldName Console::ctEnabled(int n) {
    return FieldName::runtime("ct" + std::to_string(n) + "_Enabled");
}
FieldName Console::ctValue(int n) {
    return FieldName::runtime("ct" + std::to_string(n) + "_value");
}
FieldName Console::btEnabled(int n) {
    return FieldName::runtime("bt" + std::to_string(n) + "_Enabled");
}
FieldName Console::btValue(int n) {
    // Types 9 to 16 are spelled with a lower-case "value" on the console.
    return FieldName::runtime("bt" + std::to_string(n) + (n <= 8 ? "_Value" : "_value"));
}
FieldName Console::tubeCoinType(int n) {
    return FieldName::runtime("tubeCoinType" + std::to_string(n));
}
FieldName Console::tubeCoinQty(int n) {
    return FieldName::runtime("tubeCoinQty" + std::to_string(n));
}

Console::Console() {
    m_fields.reserve(field_table::kFields.size());
    for (const ControlRow& row : field_table::kFields) {
        Field f;
        f.name = std::string(row.name);
        f.kind = row.kind;
        f.label = std::string(row.label);
        f.text = std::string(row.text);
        f.visible = row.visible;
        f.editable = row.editable;
        f.choices = row.choices;
        m_fields.push_back(std::move(f));
    }
}

void Console::setText(FieldName name, std::string text) {
    Field& f = mut(name);
    if (f.text != text) {
        f.text = std::move(text);
        changed(f);
    }
}

void Console::setValue(FieldName name, int value) {
    Field& f = mut(name);
    if (f.value != value) {
        f.value = value;
        changed(f);
    }
}

void Console::setEnabled(FieldName name, bool enabled) {
    Field& f = mut(name);
    if (f.enabled != enabled) {
        f.enabled = enabled;
        changed(f);
    }
}

void Console::setVisible(FieldName name, bool visible) {
    Field& f = mut(name);
    if (f.visible != visible) {
        f.visible = visible;
        changed(f);
    }
}

void Console::setItems(FieldName name, std::vector<std::string> items) {
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
