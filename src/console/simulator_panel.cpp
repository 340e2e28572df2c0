#include "console/simulator_panel.h"

#include <QCheckBox>
#include <QComboBox>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QPushButton>
#include <QScrollBar>
#include <QSignalBlocker>
#include <QSplitter>
#include <QStringList>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <sstream>

namespace kestrix::console {

namespace {

QString money(double value) {
    return QString::number(value, 'g', 15);
}

// A row of simple values reads better in one line: [40, 40, 30, 20, 10].
bool flat(const QJsonArray& array) {
    for (const QJsonValue& v : array) {
        if (v.isArray() || v.isObject()) {
            return false;
        }
    }
    return true;
}

QString scalar(const QJsonValue& v) {
    if (v.isString()) {
        return v.toString();
    }
    if (v.isBool()) {
        return v.toBool() ? "yes" : "no";
    }
    if (v.isDouble()) {
        return QString::number(v.toDouble(), 'g', 12);
    }
    if (v.isNull()) {
        return "-";
    }
    if (v.isArray()) {
        if (v.toArray().isEmpty()) {
            return "none";
        }
        QStringList parts;
        for (const QJsonValue& item : v.toArray()) {
            parts << scalar(item);
        }
        return parts.join(", ");
    }
    return {};
}

}  // namespace

const std::vector<std::string>& SimulatorPanel::deviceNames() {
    // The pin pad is listed when the simulator knows it (it lives with the engine's library).
    static const std::vector<std::string> names = {"changer", "validator", "dispenser", "hopper1",
                                                   "hopper2", "adapter",   "pinpad"};
    return names;
}

SimulatorPanel::SimulatorPanel(SimulatorLink link, QWidget* parent)
    : QWidget(parent), m_link(std::move(link)) {
    setObjectName("simulatorPanel");
    setWindowTitle("Simulated kiosk");

    // One narrow column, so that the window fits beside the console on a 1280x1024 screen: the
    // customer's hand, the pin pad, the faults, and the devices' state below.
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(buildCashBox());
    if (m_link.readPinPad && m_link.writePinPad) {
        layout->addWidget(buildPinPad());
    }
    layout->addWidget(buildFaults());
    m_answer = new QLabel;
    m_answer->setObjectName("simAnswer");
    m_answer->setWordWrap(true);
    m_answer->setMinimumHeight(m_answer->fontMetrics().lineSpacing() * 2);
    m_answer->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(m_answer);

    m_state = new QTreeWidget;
    m_state->setObjectName("simState");
    m_state->setHeaderLabels({"Device", "State"});
    m_state->header()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    m_state->setMinimumHeight(m_state->fontMetrics().lineSpacing() * 8);
    // The tree is rebuilt at every refresh; what the technician opened or closed stays so.
    connect(m_state, &QTreeWidget::itemExpanded, this, [this](QTreeWidgetItem* item) {
        m_expanded[item->data(0, Qt::UserRole).toString().toStdString()] = true;
    });
    connect(m_state, &QTreeWidget::itemCollapsed, this, [this](QTreeWidgetItem* item) {
        m_expanded[item->data(0, Qt::UserRole).toString().toStdString()] = false;
    });

    layout->addWidget(m_state, 1);

    m_refresh.setInterval(kRefreshMs);
    connect(&m_refresh, &QTimer::timeout, this, [this] {
        if (isVisible()) {
            refresh();
        }
    });
    m_refresh.start();
    refresh();
    resize(minimumSizeHint().width(), kDefaultHeight);
}

QWidget* SimulatorPanel::buildCashBox() {
    auto* box = new QGroupBox("Customer");
    auto* grid = new QGridLayout(box);
    const sim::ChangerProfile& changer = m_link.profile.changer;
    const sim::ValidatorProfile& validator = m_link.profile.validator;

    // Narrow buttons: five of them side by side must fit the panel's width.
    const int buttonWidth = fontMetrics().horizontalAdvance("0000") + 24;
    grid->addWidget(new QLabel("Insert a coin:"), 0, 0, 1, -1);
    int column = 0;
    for (int n = 1; n <= 16; ++n) {
        const int credit = changer.coinCredits[static_cast<std::size_t>(n - 1)];
        if (credit <= 0) {
            continue;
        }
        // The value the engine will read: credit divided by the scaling factor.
        const double value = changer.scalingFactor > 0
                                 ? static_cast<double>(credit) / changer.scalingFactor
                                 : credit;
        auto* button = new QPushButton(money(value));
        button->setFixedWidth(buttonWidth);
        button->setObjectName(QString("simCoin%1").arg(n));
        button->setToolTip(QString("coin %1 (console coin type %1)").arg(n));
        connect(button, &QPushButton::clicked, this,
                [this, n] { run("coin " + std::to_string(n)); });
        grid->addWidget(button, 1, column++);
    }

    grid->addWidget(new QLabel("Insert a bill:"), 2, 0, 1, -1);
    int billColumn = 0;
    for (int n = 1; n <= 16; ++n) {
        const int credit = validator.billCredits[static_cast<std::size_t>(n - 1)];
        if (credit <= 0) {
            continue;
        }
        const double value = credit * static_cast<double>(validator.scalingFactor) /
                             std::pow(10.0, validator.decimalPlaces);
        auto* button = new QPushButton(money(value));
        button->setFixedWidth(buttonWidth);
        button->setObjectName(QString("simBill%1").arg(n));
        button->setToolTip(QString("bill %1 (console bill type %1)").arg(n));
        connect(button, &QPushButton::clicked, this,
                [this, n] { run("bill " + std::to_string(n)); });
        grid->addWidget(button, 3, billColumn++);
    }
    grid->setColumnStretch(std::max(column, billColumn), 1);
    return box;
}

QWidget* SimulatorPanel::buildPinPad() {
    auto* box = new QGroupBox("Pin pad");
    auto* row = new QHBoxLayout(box);
    row->addWidget(new QLabel("Next card read or sale:"));
    auto* result = new QComboBox;
    result->setObjectName("simCardResult");
    // The outcomes the simulated pin pad knows; "readerror" fails the card read itself.
    for (const char* outcome : {"approved", "denied", "error", "readerror"}) {
        result->addItem(outcome);
    }
    connect(result, &QComboBox::activated, this, [this, result](int index) {
        const std::string outcome = result->itemText(index).toStdString();
        m_link.writePinPad("Result", outcome);
        m_answer->setText(QString::fromStdString("pin pad: the next one is " + outcome));
        m_answer->setStyleSheet("");
    });
    m_link.readPinPad("Result", [result](const std::string& value) {
        const int i = result->findText(QString::fromStdString(value));
        result->setCurrentIndex(i >= 0 ? i : 0);
    });
    row->addWidget(result);
    row->addStretch(1);
    return box;
}

QWidget* SimulatorPanel::buildFaults() {
    auto* box = new QGroupBox("Faults");
    box->setObjectName("simFaults");
    auto* grid = new QGridLayout(box);
    // Two faults a row beside the device's name and, under it, its power-cycle button.
    constexpr int kPerRow = 2;
    int row = 0;
    for (const std::string& device : deviceNames()) {
        const sim::ControlResult faults = run("faults " + device);
        if (!faults.ok) {
            continue;
        }
        grid->addWidget(new QLabel(QString::fromStdString(device)), row, 0);
        auto* reset = new QPushButton("Power cycle");
        reset->setObjectName(QString::fromStdString("simReset_" + device));
        connect(reset, &QPushButton::clicked, this, [this, device] { run("reset " + device); });
        grid->addWidget(reset, row + 1, 0);
        std::istringstream lines(faults.text);
        std::string name;
        std::string state;
        int i = 0;
        while (lines >> name >> state) {
            auto* check = new QCheckBox(QString::fromStdString(name));
            check->setObjectName(QString::fromStdString("simFault_" + device + "_" + name));
            check->setChecked(state == "on");
            connect(check, &QCheckBox::clicked, this, [this, device, name](bool on) {
                run("fault " + device + " " + name + (on ? " on" : " off"));
            });
            m_faultBoxes[device + " " + name] = check;
            grid->addWidget(check, row + i / kPerRow, 1 + i % kPerRow);
            ++i;
        }
        row += std::max(2, (i + kPerRow - 1) / kPerRow);
    }
    grid->setColumnStretch(1 + kPerRow, 1);
    return box;
}

sim::ControlResult SimulatorPanel::run(const std::string& command) {
    sim::ControlResult result;
    try {
        result = m_link.command(command);
    } catch (const std::exception& e) {
        result = sim::ControlResult::rejected(e.what());
    }
    const bool quiet = command == "state" || command.rfind("faults ", 0) == 0;
    if (m_answer != nullptr && !quiet) {
        m_answer->setText(
            QString::fromStdString(command + ": " + (result.ok ? "" : "rejected: ") + result.text));
        m_answer->setStyleSheet(result.ok ? "" : "color: #b3141b;");
        refresh();
    }
    return result;
}

void SimulatorPanel::refresh() {
    for (const std::string& device : deviceNames()) {
        const sim::ControlResult faults = run("faults " + device);
        if (!faults.ok) {
            continue;
        }
        std::istringstream lines(faults.text);
        std::string name;
        std::string state;
        while (lines >> name >> state) {
            const auto it = m_faultBoxes.find(device + " " + name);
            if (it != m_faultBoxes.end()) {
                const QSignalBlocker blocker(it->second);
                it->second->setChecked(state == "on");
            }
        }
    }
    const sim::ControlResult state = run("state");
    if (state.ok) {
        showState(QString::fromStdString(state.text));
    }
}

void SimulatorPanel::showState(const QString& json) {
    const QJsonDocument doc = QJsonDocument::fromJson(json.toUtf8());
    if (!doc.isObject()) {
        return;
    }
    const QJsonObject root = doc.object();
    const int scrolled = m_state->verticalScrollBar()->value();
    m_state->setUpdatesEnabled(false);
    m_state->clear();
    for (auto it = root.begin(); it != root.end(); ++it) {
        auto* item = new QTreeWidgetItem(m_state, {it.key()});
        item->setData(0, Qt::UserRole, it.key());
        fillTree(item, it.value());
    }
    m_state->verticalScrollBar()->setValue(scrolled);
    m_state->setUpdatesEnabled(true);
}

void SimulatorPanel::fillTree(QTreeWidgetItem* item, const QJsonValue& value) {
    const QString path = item->data(0, Qt::UserRole).toString();
    const auto add = [item, &path](const QString& key) {
        auto* child = new QTreeWidgetItem(item, {key});
        child->setData(0, Qt::UserRole, path + "/" + key);
        return child;
    };
    if (value.isObject()) {
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it) {
            if (it.key() == "frames") {
                continue;  // the traffic logs drown the state; "frames DEVICE" shows them
            }
            fillTree(add(it.key()), it.value());
        }
    } else if (value.isArray() && !flat(value.toArray())) {
        int i = 0;
        for (const QJsonValue& v : value.toArray()) {
            fillTree(add(QString::number(++i)), v);
        }
    } else {
        item->setText(1, scalar(value));
        return;
    }
    // Devices start open; lists of records start closed.
    const auto seen = m_expanded.find(path.toStdString());
    item->setExpanded(seen != m_expanded.end() ? seen->second : value.isObject());
}

}  // namespace kestrix::console
