#pragma once

#include <QTimer>
#include <QWidget>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "sim/profile.h"
#include "sim/sim_device.h"

class QCheckBox;
class QLabel;
class QTreeWidget;
class QTreeWidgetItem;
class QJsonValue;

namespace kestrix::console {

// What the panel needs from a simulated kiosk.
struct SimulatorLink {
    // Runs one control command of the simulated kiosk ("coin 2", "fault changer silent on",
    // "faults changer", "state"), as `kestrix-sim ctl` does; called on the GUI thread.
    std::function<sim::ControlResult(const std::string&)> command;
    // The kiosk's profile: the coin and bill values the buttons are labelled with.
    sim::KioskProfile profile;
    // The simulated pin pad lives with the engine and is steered through the store (section
    // "Pin Pad Simulator"): reads a key and hands its value to the callback on the GUI thread,
    // and writes one. Empty when there is no simulated pin pad.
    std::function<void(const std::string& key, std::function<void(std::string)> done)> readPinPad;
    std::function<void(const std::string& key, const std::string& value)> writePinPad;
};

// The simulated kiosk's side of the desk: a customer inserting coins and bills, a technician
// pulling cables and jamming devices (the fault switches), and the devices' state as the
// simulator sees it, refreshed every kRefreshMs. A window of its own beside the console, as it
// stands for the kiosk's hardware, not for anything on the console.
class SimulatorPanel : public QWidget {
    Q_OBJECT

public:
    static constexpr int kRefreshMs = 1000;
    // The window's height at first: beside the console on a 1280x1024 screen, below the title
    // bar and a panel of the desktop.
    static constexpr int kDefaultHeight = 900;
    // The devices whose faults can be switched, as the simulator names them.
    static const std::vector<std::string>& deviceNames();

    explicit SimulatorPanel(SimulatorLink link, QWidget* parent = nullptr);

    // Runs a command and shows its answer; the answer's text.
    sim::ControlResult run(const std::string& command);
    // Reads the devices' state and fault switches again.
    void refresh();

private:
    QWidget* buildCashBox();
    QWidget* buildPinPad();
    QWidget* buildFaults();
    void addFaultSwitches(const std::string& device);
    void showState(const QString& json);
    void fillTree(QTreeWidgetItem* item, const QJsonValue& value);

    SimulatorLink m_link;
    QLabel* m_answer = nullptr;
    QTreeWidget* m_state = nullptr;
    std::map<std::string, QCheckBox*> m_faultBoxes;  // "device fault"
    std::map<std::string, bool> m_expanded;
    QTimer m_refresh;
};

}  // namespace kestrix::console
