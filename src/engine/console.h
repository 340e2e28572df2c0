#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "console_fields.h"

namespace kestrix {

// One console control as engine state.
struct Field {
    std::string name;  // the control's exact name, also the widget's objectName
    FieldKind kind;
    std::string label;  // text of the label beside it on the console ("" when none)
    std::string text;   // text, caption, or combo text
    int value = 0;      // check box state
    bool enabled = true;
    bool visible = true;
    bool editable = false;                      // the operator types, ticks or picks it
    std::span<const std::string_view> choices;  // a fixed list's values (bills, coins)
    std::vector<std::string> items;             // a list's entries as the engine fills them
};

enum class Indicator { Tx, Rx };

// The device problems the engine reports to the operator in a message box, told to views as
// events too, so that a view's summary of the devices does not hang on a message's wording.
enum class DeviceEvent {
    ChangerNotAnswering,    // no answer to its RESET: its box is cleared
    ValidatorNotAnswering,  // no answer to its RESET: its box is cleared
    // A port could not be opened (or went) during equipment initialisation: the devices
    // initialised after it are not.
    PinPadPortError,
    DispenserPortError,
    HoppersPortError,
    MdbPortError,
};

// The engine's console: one field per control of the operator console, owned and changed by the
// engine thread only. A view subscribes to changes and renders them; it never writes fields.
class Console {
public:
    using ChangeListener = std::function<void(const Field&)>;
    using IndicatorListener = std::function<void(Indicator)>;
    using DeviceEventListener = std::function<void(DeviceEvent)>;

    Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    const Field& field(FieldName name) const { return m_fields[name.index()]; }
    // In the order of the form, indexed by FieldName::index().
    const std::vector<Field>& fields() const { return m_fields; }

    const std::string& text(FieldName name) const { return field(name).text; }
    int value(FieldName name) const { return field(name).value; }
    bool checked(FieldName name) const { return field(name).value == 1; }
    bool enabled(FieldName name) const { return field(name).enabled; }

    void setText(FieldName name, std::string text);
    void setValue(FieldName name, int value);
    void setChecked(FieldName name, bool checked) { setValue(name, checked ? 1 : 0); }
    void setEnabled(FieldName name, bool enabled);
    void setVisible(FieldName name, bool visible);
    void setItems(FieldName name, std::vector<std::string> items);

    // A cash payment runs: its button offers to stop it.
    bool running() const { return text("enablePayment") == caption::kStopPayment; }

    // The link indicators (gLEDtx, gLEDrx): each call is one flash for a view to show.
    void BlinkTx();
    void BlinkRx();

    void reportDevice(DeviceEvent event) {
        if (m_onDeviceEvent) {
            m_onDeviceEvent(event);
        }
    }

    void setChangeListener(ChangeListener listener) { m_onChange = std::move(listener); }
    void setDeviceEventListener(DeviceEventListener listener) {
        m_onDeviceEvent = std::move(listener);
    }
    void setIndicatorListener(IndicatorListener listener) { m_onIndicator = std::move(listener); }

    // Names of the control families; std::out_of_range for a number outside the family.
    static FieldName ctEnabled(int n);     // ct1_Enabled .. ct16_Enabled
    static FieldName ctValue(int n);       // ct1_value .. ct16_value
    static FieldName btEnabled(int n);     // bt1_Enabled .. bt16_Enabled
    static FieldName btValue(int n);       // bt1_Value .. bt8_Value, bt9_value .. bt16_value
    static FieldName tubeCoinType(int n);  // tubeCoinType1 .. tubeCoinType5
    static FieldName tubeCoinQty(int n);   // tubeCoinQty1 .. tubeCoinQty5

private:
    Field& mut(FieldName name) { return m_fields[name.index()]; }
    void changed(const Field& f) {
        if (m_onChange) {
            m_onChange(f);
        }
    }

    std::vector<Field> m_fields;
    ChangeListener m_onChange;
    IndicatorListener m_onIndicator;
    DeviceEventListener m_onDeviceEvent;
};

}  // namespace kestrix
