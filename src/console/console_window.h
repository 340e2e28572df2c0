#pragma once

#include <QString>
#include <QWidget>
#include <array>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "engine/console.h"
#include "engine/device_status.h"

class QCloseEvent;
class QComboBox;
class QGridLayout;
class QLabel;
class QLineEdit;
class QProgressBar;
class QTabWidget;

namespace kestrix {
class ConsoleCommands;
}

namespace kestrix::console {

class GuiRelay;
class IndicatorLamp;

// Queues an action on the engine thread, after what is already queued there.
using EnginePost = std::function<void(std::function<void(ConsoleCommands&)>)>;

// The operator console: the form "Setup" with its six device tabs, the payment displays and the
// link indicators. It is a view of the engine's Console and owns no engine state:
//
// - renderField() shows a field as the engine changed it (signals blocked, so a programmatic
//   update never comes back as an operator edit);
// - what the operator types, ticks, picks or presses is posted to the engine thread as
//   ConsoleCommands::edit / ConsoleCommands::click, in the order it happened;
// - while an edit of a control is on its way, the engine's echoes of that control are held back
//   and the control is brought up to date once the engine has taken the edit, so typing is never
//   overwritten by an echo of an earlier keystroke.
//
// Every widget's objectName is its control's name.
class ConsoleWindow : public QWidget {
    Q_OBJECT

public:
    // Coins a changer tube holds: the fill bars' full scale.
    static constexpr int kTubeCapacityCoins = 100;
    // The port lists offer 0 (no port) to this number at least.
    static constexpr int kLastListedPort = 16;

    explicit ConsoleWindow(EnginePost post, QWidget* parent = nullptr);
    ~ConsoleWindow() override;

    // --- From the engine, on the GUI thread ----------------------------------------------------
    void renderField(const kestrix::Field& field);
    void flashIndicator(kestrix::Indicator which);
    // Ends the link lamps' blinks, leaving their steady state (for screenshots).
    void settleIndicators();
    // A device problem the engine reported (device absent, port error).
    void noteDeviceEvent(kestrix::DeviceEvent event);
    // Reads the devices behind the port numbers through the engine, for the port lists' labels.
    void refreshPortDevices();
    void setPortDevices(std::map<int, std::string> devices);

    // Whether the window may be on screen at all; the "Setup" field's visible flag decides
    // within that.
    void setPresentable(bool presentable);
    // The engine has ended: the window closes and closing is no longer a request to Exit.
    void engineEnded();

    // The widget of a control by its name, the tab widget included; nullptr for none.
    QWidget* control(const QString& name) const;
    // The last state the engine reported for a control (its initial state before that).
    const kestrix::Field* field(const std::string& name) const;
    const DeviceStatus& deviceStatus() const { return m_status; }
    // Edits sent to the engine and not yet taken by it.
    int pendingEdits() const;

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    // Construction.
    QWidget* buildGeneralTab();
    QWidget* buildCoinAcceptorTab();
    QWidget* buildBillValidatorTab();
    QWidget* buildBillDispenserTab();
    QWidget* buildHoppersTab();
    QWidget* buildCreditCardTab();
    QWidget* buildPaymentPanel();
    QWidget* make(kestrix::FieldName name);
    // The control's label (if it has one) in `column`, the control in the next one.
    QWidget* addRow(QGridLayout* grid, int row, kestrix::FieldName name, int column = 0);
    QLabel* statusLine(const QString& objectName);
    QWidget* lampPair(const std::string& lit, const std::string& dark, const QString& caption);

    // Rendering.
    void apply(const kestrix::Field& field);
    void applyCombo(QComboBox* box, const kestrix::Field& field);
    void updateStatusLines();
    void updateTubeBar(int slot);
    void updateVisibility();

    // Operator input.
    void sendEdit(const std::string& name, const std::string& text, int value);
    void sendClick(const std::string& name);
    void editTaken(const std::string& name);

    EnginePost m_post;
    std::shared_ptr<GuiRelay> m_relay;
    kestrix::Console m_prototype;  // names, kinds, labels and initial texts of the controls
    std::unordered_map<std::string, QWidget*> m_controls;
    std::unordered_map<std::string, kestrix::Field> m_model;
    std::unordered_map<std::string, int> m_pendingEdits;
    DeviceStatus m_status;
    std::map<Device, QLabel*> m_deviceLines;
    std::map<Link, QLabel*> m_linkLines;
    std::array<QProgressBar*, 5> m_tubeBars{};
    std::map<int, std::string> m_portDevices;
    QTabWidget* m_tabs = nullptr;
    IndicatorLamp* m_txLamp = nullptr;
    IndicatorLamp* m_rxLamp = nullptr;
    bool m_presentable = false;
    bool m_formVisible = true;
    bool m_ended = false;
};

}  // namespace kestrix::console
