#pragma once

#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

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

// One console control as engine state.
struct Field {
    std::string name;  // the control's exact name, also the widget's objectName
    FieldKind kind;
    std::string label;  // text of the label beside it on the console ("" when none)
    std::string text;   // text, caption, or combo text
    int value = 0;      // check box state
    bool enabled = true;
    bool visible = true;
    std::vector<std::string> items;  // combo box entries
};

enum class Indicator { Tx, Rx };

// The engine's console: one field per control of the operator console, owned and changed by the
// engine thread only. A view subscribes to changes and renders them; it never writes fields.
class Console {
public:
    using ChangeListener = std::function<void(const Field&)>;
    using IndicatorListener = std::function<void(Indicator)>;

    Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // Throws std::out_of_range for a name that is not a control.
    const Field& field(std::string_view name) const;
    const Field* find(std::string_view name) const;
    const std::deque<Field>& fields() const { return m_fields; }

    const std::string& text(std::string_view name) const { return field(name).text; }
    int value(std::string_view name) const { return field(name).value; }
    bool checked(std::string_view name) const { return field(name).value == 1; }
    bool enabled(std::string_view name) const { return field(name).enabled; }

    void setText(std::string_view name, std::string text);
    void setValue(std::string_view name, int value);
    void setChecked(std::string_view name, bool checked) { setValue(name, checked ? 1 : 0); }
    void setEnabled(std::string_view name, bool enabled);
    void setVisible(std::string_view name, bool visible);
    void setItems(std::string_view name, std::vector<std::string> items);

    // The link indicators (gLEDtx, gLEDrx): each call is one flash for a view to show.
    void BlinkTx();
    void BlinkRx();

    void setChangeListener(ChangeListener listener) { m_onChange = std::move(listener); }
    void setIndicatorListener(IndicatorListener listener) { m_onIndicator = std::move(listener); }

    // Names of the control families.
    static std::string ctEnabled(int n);     // ct1_Enabled .. ct16_Enabled
    static std::string ctValue(int n);       // ct1_value .. ct16_value
    static std::string btEnabled(int n);     // bt1_Enabled .. bt16_Enabled
    static std::string btValue(int n);       // bt1_Value .. bt8_Value, bt9_value .. bt16_value
    static std::string tubeCoinType(int n);  // tubeCoinType1 .. tubeCoinType5
    static std::string tubeCoinQty(int n);   // tubeCoinQty1 .. tubeCoinQty5

private:
    Field& mut(std::string_view name);
    void add(std::string name, FieldKind kind, std::string label = {}, std::string text = {});
    void changed(const Field& f) {
        if (m_onChange) {
            m_onChange(f);
        }
    }

    std::deque<Field> m_fields;  // stable addresses
    std::unordered_map<std::string, Field*> m_byName;
    ChangeListener m_onChange;
    IndicatorListener m_onIndicator;
};

}  // namespace kestrix
