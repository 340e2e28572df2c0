#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace kestrix {

enum class FieldKind {
    TextBox,   // text the operator edits (or the engine fills)
    Label,     // text only the engine sets
    CheckBox,  // value 0 / 1
    ComboBox,  // text with a list of items
    Button,    // caption in `text`
    Image,     // indicator; `visible` is its state
    Tabs,      // the device tabs; `enabled` enables all six
    Form,      // the console window itself; `visible` shows it
};

// Captions of the payment buttons: the cash button reads "Stop Payment..." while a cash payment
// runs and the card button "Cancel Payment..." while a card payment runs.
namespace caption {
inline constexpr std::string_view kCash = "Cash";
inline constexpr std::string_view kPay = "Pay";
inline constexpr std::string_view kStopPayment = "Stop Payment...";
inline constexpr std::string_view kCreditCard = "Credit Card";
inline constexpr std::string_view kCancelPayment = "Cancel Payment...";
// What a device's fields show while the device has told nothing.
inline constexpr std::string_view kNotAvailable = "N/A";
}  // namespace caption

// The values the operator picks from: a dispenser cassette's bill, a hopper's coin.
inline constexpr std::array<std::string_view, 6> kDispenserBillChoices = {"20",  "50",  "100",
                                                                          "200", "500", "1000"};
inline constexpr std::array<std::string_view, 6> kHopperCoinChoices = {"0.5", "1",  "2",
                                                                       "5",   "10", "20"};

// One control of the operator console as the engine lays it out.
struct ControlRow {
    std::string_view name;  // the control's exact name, also the widget's objectName
    FieldKind kind = FieldKind::TextBox;
    std::string_view label;  // text of the label beside it ("" when none)
    std::string_view text;   // initial text or caption
    // The operator changes it (types, ticks, picks); the other text boxes show what the engine
    // read from a device.
    bool editable = false;
    bool visible = true;
    std::span<const std::string_view> choices;  // the values a list offers (fixed lists only)
};

namespace field_table {

constexpr ControlRow row(std::string_view name, FieldKind kind, std::string_view label = {},
                         std::string_view text = {}, bool editable = false, bool visible = true,
                         std::span<const std::string_view> choices = {}) {
    return {name, kind, label, text, editable, visible, choices};
}
constexpr ControlRow form(std::string_view name, std::string_view title) {
    return row(name, FieldKind::Form, {}, title);
}
constexpr ControlRow tabs(std::string_view name) {
    return row(name, FieldKind::Tabs);
}
constexpr ControlRow label(std::string_view name, std::string_view text = {}) {
    return row(name, FieldKind::Label, {}, text);
}
constexpr ControlRow image(std::string_view name, bool visible = true) {
    return row(name, FieldKind::Image, {}, {}, false, visible);
}
constexpr ControlRow button(std::string_view name, std::string_view caption) {
    return row(name, FieldKind::Button, {}, caption);
}
// A text box the engine fills from a device or a computation.
constexpr ControlRow shown(std::string_view name, std::string_view label = {}) {
    return row(name, FieldKind::TextBox, label);
}
// A text box the operator types into.
constexpr ControlRow typed(std::string_view name, std::string_view label = {}) {
    return row(name, FieldKind::TextBox, label, {}, true);
}
constexpr ControlRow check(std::string_view name, std::string_view label) {
    return row(name, FieldKind::CheckBox, label, {}, true);
}
constexpr ControlRow list(std::string_view name, std::string_view label, std::string_view text,
                          std::span<const std::string_view> choices = {}) {
    return row(name, FieldKind::ComboBox, label, text, true, true, choices);
}

// Every control of the console, in the order of the form.
inline constexpr auto kFields = std::to_array<ControlRow>({
    // Live displays and the form's buttons.
    form("Setup", "Kestrix V5.0.0"),
    tabs("SSTab1"),
    typed("due", "Amount:"),
    button("enablePayment", caption::kCash),
    button("enablePaymentCC", caption::kCreditCard),
    label("statusDisplay"),
    label("dueDisplay"),
    label("creditDisplay", "$0.00"),
    image("gLEDtx", false),
    image("gLEDrx", false),
    image("wLEDtx"),
    image("wLEDrx"),
    button("Save", "Save"),
    button("Cancel", "Cancel"),

    // General Settings.
    list("comPorts", "COM Port:", "0"),
    list("comPorts1", "COM Port:", "0"),
    list("comPorts2", "COM Port:", "0"),

    // Coin Acceptor.
    check("CoinAcceptorEnabled", "Coin Acceptor Enabled"),
    shown("caFeatureLevel", "Changer Feature Level:"),
    shown("caCountryCode", "Country / Currency Code:"),
    shown("caScalingFactor", "Coin Scaling Factor:"),
    shown("caDecimal", "Decimal Places:"),
    shown("caManufacturer", "Manufacturer Code:"),
    shown("caSerialNumber", "Serial Number:"),
    shown("caModelNumber", "Model Number:"),
    check("ct1_Enabled", "Coin Type 1"),
    shown("ct1_value"),
    check("ct2_Enabled", "Coin Type 2"),
    shown("ct2_value"),
    check("ct3_Enabled", "Coin Type 3"),
    shown("ct3_value"),
    check("ct4_Enabled", "Coin Type 4"),
    shown("ct4_value"),
    check("ct5_Enabled", "Coin Type 5"),
    shown("ct5_value"),
    check("ct6_Enabled", "Coin Type 6"),
    shown("ct6_value"),
    check("ct7_Enabled", "Coin Type 7"),
    shown("ct7_value"),
    check("ct8_Enabled", "Coin Type 8"),
    shown("ct8_value"),
    check("ct9_Enabled", "Coin Type 9"),
    shown("ct9_value"),
    check("ct10_Enabled", "Coin Type 10"),
    shown("ct10_value"),
    check("ct11_Enabled", "Coin Type 11"),
    shown("ct11_value"),
    check("ct12_Enabled", "Coin Type 12"),
    shown("ct12_value"),
    check("ct13_Enabled", "Coin Type 13"),
    shown("ct13_value"),
    check("ct14_Enabled", "Coin Type 14"),
    shown("ct14_value"),
    check("ct15_Enabled", "Coin Type 15"),
    shown("ct15_value"),
    check("ct16_Enabled", "Coin Type 16"),
    shown("ct16_value"),
    check("changeEnabled", "Enable Change"),
    shown("tubeCoinType1", "Tube Coin Type 1:"),
    shown("tubeCoinQty1"),
    shown("tubeCoinType2", "Tube Coin Type 2:"),
    shown("tubeCoinQty2"),
    shown("tubeCoinType3", "Tube Coin Type 3:"),
    shown("tubeCoinQty3"),
    shown("tubeCoinType4", "Tube Coin Type 4:"),
    shown("tubeCoinQty4"),
    shown("tubeCoinType5", "Tube Coin Type 5:"),
    shown("tubeCoinQty5"),
    shown("tubesAmount", "Total Amount in Tubes:"),

    // Bill Validator. The operator sets the bill values (types 9 to 16 are spelled with a
    // lower-case "value" on the console).
    check("billValidatorEnabled", "Bill Validator Enabled"),
    shown("bvFeatureLevel", "Bill Validator Feature Level:"),
    shown("bvCountryCode", "Country / Currency Code:"),
    shown("bvScalingFactor", "Bill Scaling Factor:"),
    shown("bvDecimalPlaces", "Decimal Places:"),
    shown("bvStackerCapacity", "Stacker Capacity:"),
    shown("bvSecurityLevels", "Bill Security Levels:"),
    shown("bvEscrowCapability", "Escrow Capability:"),
    shown("bvManufacturer", "Manufacturer Code:"),
    shown("bvSerialNumber", "Serial Number:"),
    shown("bvModelNumber", "Model Number:"),
    shown("bvSoftwareVersion", "Software Version:"),
    check("bt1_Enabled", "Bill Type 1"),
    typed("bt1_Value"),
    check("bt2_Enabled", "Bill Type 2"),
    typed("bt2_Value"),
    check("bt3_Enabled", "Bill Type 3"),
    typed("bt3_Value"),
    check("bt4_Enabled", "Bill Type 4"),
    typed("bt4_Value"),
    check("bt5_Enabled", "Bill Type 5"),
    typed("bt5_Value"),
    check("bt6_Enabled", "Bill Type 6"),
    typed("bt6_Value"),
    check("bt7_Enabled", "Bill Type 7"),
    typed("bt7_Value"),
    check("bt8_Enabled", "Bill Type 8"),
    typed("bt8_Value"),
    check("bt9_Enabled", "Bill Type 9"),
    typed("bt9_value"),
    check("bt10_Enabled", "Bill Type 10"),
    typed("bt10_value"),
    check("bt11_Enabled", "Bill Type 11"),
    typed("bt11_value"),
    check("bt12_Enabled", "Bill Type 12"),
    typed("bt12_value"),
    check("bt13_Enabled", "Bill Type 13"),
    typed("bt13_value"),
    check("bt14_Enabled", "Bill Type 14"),
    typed("bt14_value"),
    check("bt15_Enabled", "Bill Type 15"),
    typed("bt15_value"),
    check("bt16_Enabled", "Bill Type 16"),
    typed("bt16_value"),

    // Bill Dispenser.
    check("billDispenserEnabled", "Bill Dispenser Enabled"),
    list("bDispType", "Bill Type:", "1000", kDispenserBillChoices),
    shown("bdSWVersion", "Bill Dispenser SW Version:"),
    shown("bdCasetteStatus", "Casette Status:"),
    shown("bdMaxLenght", "Bill Size Max. Lenght:"),
    shown("bdMinLenght", "Bill Size Min. Lenght:"),
    shown("bdThickness", "Bill Size Thickness:"),
    shown("bdStatus", "Bill Dispenser Status:"),
    typed("bdQtyBills", "Quantity of Bills to Dispense:"),
    button("bdDispenseBills", "Dispense Bills"),
    shown("bdBillsDispensed", "Quantity of Bills Dispensed:"),
    button("bdDispenserRefill", "Bill Dispenser Refill"),

    // Hoppers.
    list("h1CoinValue", "Coin Value:", "1", kHopperCoinChoices),
    list("h2CoinValue", "Coin Value:", "1", kHopperCoinChoices),
    check("hoppersEnabled", "Hoppers Enabled"),
    typed("hToDispense", "Amount to Dispense:"),
    button("hDispenseCoins", "Dispense Coins"),
    shown("hDispensed", "Amount Dispensed:"),

    // Credit Card.
    check("pinPadEnabled", "Pin Pad Enabled"),
    shown("ccEMVFull", "EMV Full:"),
    shown("ccModel", "Model:"),
    shown("ccSerialNumber", "Serial Number:"),
    shown("ccTradeMark", "Trademark:"),
    shown("ccVersionApp", "App Version:"),
    shown("ccCOM", "COM Port:"),
    shown("ccPrinter", "Pin Pad Printer:"),
    typed("ccUser", "User:"),
    typed("ccPassword", "Password:"),
    typed("ccURL", "URL:"),
    shown("ccOnLine", "On Line:"),
    typed("ccCompany", "Company:"),
    typed("ccBranch", "Branch:"),
    typed("ccCountry", "Country:"),
    shown("ccNumTarjeta", "Número de Tarjeta:"),
    shown("ccTarjetahabiente", "Tarjetahabiente:"),
    shown("ccPantallaPP", "Mensajes en Pantalla Pin Pad:"),
    button("ccReadCard", "Read Card"),
    list("ccPrinters", "", "Default Printer..."),
});

}  // namespace field_table

// Reached only while compiling a FieldName from a literal that names no console control: the
// build stops at the misspelt name.
void notAConsoleControl(std::string_view name);

// The name of a console control, checked against the table: `FieldName("ccNumTarjeta")` compiles
// only if the console has that control. Names made at run time (a family member, a name from a
// view) go through runtime() or find().
class FieldName {
public:
    // Implicit, so that `console.text("due")` reads as the control's name.
    consteval FieldName(const char* name) : m_index(indexOf(name)) {}  // NOLINT

    // Throws std::out_of_range for a name that is not a control.
    static FieldName runtime(std::string_view name);
    static std::optional<FieldName> find(std::string_view name) noexcept;

    static constexpr std::size_t count() { return field_table::kFields.size(); }

    constexpr std::size_t index() const { return m_index; }
    constexpr const ControlRow& row() const { return field_table::kFields[m_index]; }
    constexpr std::string_view str() const { return row().name; }
    constexpr bool operator==(const FieldName&) const = default;

private:
    struct ByIndex {};
    constexpr FieldName(ByIndex, std::size_t index) : m_index(index) {}

    static consteval std::size_t indexOf(std::string_view name) {
        for (std::size_t i = 0; i < field_table::kFields.size(); ++i) {
            if (field_table::kFields[i].name == name) {
                return i;
            }
        }
        notAConsoleControl(name);
        return 0;
    }

    std::size_t m_index;
};

}  // namespace kestrix
