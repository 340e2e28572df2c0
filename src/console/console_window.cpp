#include "console/console_window.h"

#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalBlocker>
#include <QTabWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "console/gui_relay.h"
#include "console/indicator_lamp.h"
#include "engine/console_commands.h"
#include "engine/settings/layout.h"
#include "platform_qt/qt_serial_port.h"

namespace kestrix::console {

namespace {

using Items = std::vector<std::pair<QString, QString>>;  // shown text, value

bool isValueColumn(const std::string& name) {
    for (const char* prefix : {"ct", "bt", "tubeCoin"}) {
        if (name.rfind(prefix, 0) == 0 && name.find("Enabled") == std::string::npos) {
            return true;
        }
    }
    return name == "tubesAmount";
}

bool isPortList(const std::string& name) {
    return name == "comPorts" || name == "comPorts1" || name == "comPorts2";
}

QString q(const std::string& s) {
    return QString::fromStdString(s);
}

std::string s(const QString& q) {
    return q.toStdString();
}

const char* levelColour(StatusLine::Level level) {
    switch (level) {
        case StatusLine::Level::Ok:
            return "#1b6e20";
        case StatusLine::Level::Waiting:
            return "#8a5a00";
        case StatusLine::Level::Problem:
            return "#b3141b";
        case StatusLine::Level::Off:
            break;
    }
    return "#606060";
}

QGroupBox* frame(const QString& caption, QLayout* content) {
    auto* box = new QGroupBox(caption);
    box->setLayout(content);
    return box;
}

}  // namespace

ConsoleWindow::ConsoleWindow(EnginePost post, QWidget* parent)
    : QWidget(parent), m_post(std::move(post)), m_relay(std::make_shared<GuiRelay>(this)) {
    setObjectName("Setup");
    setWindowTitle(q(m_prototype.text("Setup")));
    for (const Field& f : m_prototype.fields()) {
        m_model.emplace(f.name, f);
    }

    m_tabs = new QTabWidget;
    m_tabs->setObjectName("SSTab1");
    m_controls["SSTab1"] = m_tabs;
    m_tabs->addTab(buildGeneralTab(), "General Settings");
    m_tabs->addTab(buildCoinAcceptorTab(), "Coin Acceptor");
    m_tabs->addTab(buildBillValidatorTab(), "Bill Validator");
    m_tabs->addTab(buildBillDispenserTab(), "Bill Dispenser");
    m_tabs->addTab(buildHoppersTab(), "Hoppers");
    m_tabs->addTab(buildCreditCardTab(), "Credit Card");

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_tabs, 1);
    layout->addWidget(buildPaymentPanel());

    for (const Field& f : m_prototype.fields()) {
        apply(f);
    }
    updateStatusLines();
    adjustSize();
}

ConsoleWindow::~ConsoleWindow() {
    m_relay->detach();
}

// --- Construction -------------------------------------------------------------------------------

QWidget* ConsoleWindow::make(FieldName id) {
    const Field& f = m_prototype.field(id);
    const std::string name(id.str());
    QWidget* w = nullptr;
    switch (f.kind) {
        case FieldKind::TextBox:
            if (name == "ccPantallaPP") {
                // The pin pad's messages run over more than one line (an error ends in a line
                // break).
                auto* text = new QPlainTextEdit;
                text->setReadOnly(true);
                text->setFixedHeight(text->fontMetrics().lineSpacing() * 3 + 12);
                text->setLineWrapMode(QPlainTextEdit::WidgetWidth);
                w = text;
            } else {
                auto* edit = new QLineEdit;
                // The boxes the engine fills from a device are read-only, so that a technician
                // cannot mistake a typed value for a device's answer.
                if (f.editable) {
                    connect(edit, &QLineEdit::textEdited, this,
                            [this, name](const QString& t) { sendEdit(name, s(t), 0); });
                } else {
                    edit->setReadOnly(true);
                }
                if (name == "ccPassword") {
                    edit->setEchoMode(QLineEdit::Password);
                }
                if (isValueColumn(name)) {
                    // Coin and bill values, tube counts: short numbers in narrow columns.
                    edit->setFixedWidth(edit->fontMetrics().horizontalAdvance("00000.00") + 14);
                }
                w = edit;
            }
            break;
        case FieldKind::Label:
            w = new QLabel;
            break;
        case FieldKind::CheckBox: {
            auto* box = new QCheckBox(q(f.label));
            connect(box, &QCheckBox::clicked, this, [this, name, box] {
                sendEdit(name, {}, box->checkState() == Qt::Checked ? 1 : 0);
            });
            w = box;
            break;
        }
        case FieldKind::ComboBox: {
            auto* box = new QComboBox;
            if (isPortList(name)) {
                // A port shows the device behind it, whose path may be long.
                box->setSizeAdjustPolicy(QComboBox::AdjustToContents);
            } else {
                box->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
                box->setMinimumContentsLength(10);
            }
            connect(box, &QComboBox::activated, this, [this, name, box](int index) {
                sendEdit(name, s(box->itemData(index).toString()), 0);
            });
            w = box;
            break;
        }
        case FieldKind::Button: {
            auto* button = new QPushButton(q(f.text));
            button->setAutoDefault(false);
            connect(button, &QPushButton::clicked, this, [this, name] { sendClick(name); });
            w = button;
            break;
        }
        case FieldKind::Image:
        case FieldKind::Tabs:
        case FieldKind::Form:
            throw std::logic_error("not a plain control: " + name);
    }
    w->setObjectName(q(name));
    m_controls[name] = w;
    return w;
}

QWidget* ConsoleWindow::addRow(QGridLayout* grid, int row, FieldName id, int column) {
    QWidget* w = make(id);
    const Field& f = m_prototype.field(id);
    const std::string name(id.str());
    const bool labelled = f.kind != FieldKind::CheckBox && f.kind != FieldKind::Button;
    if (labelled && !f.label.empty()) {
        auto* label = new QLabel(q(f.label));
        label->setObjectName(q(name + "_label"));
        label->setBuddy(w);
        grid->addWidget(label, row, column);
        grid->addWidget(w, row, column + 1);
    } else {
        grid->addWidget(w, row, column, 1, 2);
    }
    return w;
}

QLabel* ConsoleWindow::statusLine(const QString& objectName) {
    auto* line = new QLabel;
    line->setObjectName(objectName);
    line->setWordWrap(true);
    line->setMinimumHeight(line->fontMetrics().lineSpacing() * 2);
    line->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    return line;
}

QWidget* ConsoleWindow::buildGeneralTab() {
    auto* page = new QWidget;
    auto* layout = new QVBoxLayout(page);
    const std::array<std::pair<QString, FieldName>, 3> links = {{
        {"MDB Interface Configuration", FieldName("comPorts")},
        {"Bill Dispenser Configuration", FieldName("comPorts1")},
        {"Hoppers Interface Configuration", FieldName("comPorts2")},
    }};
    const std::array<QString, 3> lineNames = {"mdbLinkStatus", "dispenserLinkStatus",
                                              "hoppersLinkStatus"};
    for (std::size_t i = 0; i < links.size(); ++i) {
        auto* grid = new QGridLayout;
        addRow(grid, 0, links[i].second);
        grid->setColumnStretch(2, 1);
        QLabel* line = statusLine(lineNames[i]);
        grid->addWidget(line, 1, 0, 1, 3);
        m_linkLines[kLinks[i]] = line;
        layout->addWidget(frame(links[i].first, grid));
    }
    layout->addStretch(1);
    return page;
}

QWidget* ConsoleWindow::buildCoinAcceptorTab() {
    auto* page = new QWidget;
    auto* grid = new QGridLayout(page);

    auto* settings = new QGridLayout;
    addRow(settings, 0, "CoinAcceptorEnabled");
    int row = 1;
    for (FieldName name : std::initializer_list<FieldName>{
             "caFeatureLevel", "caCountryCode", "caScalingFactor", "caDecimal", "caManufacturer",
             "caSerialNumber", "caModelNumber"}) {
        addRow(settings, row++, name);
    }
    settings->setRowStretch(row, 1);
    grid->addWidget(frame("Coin Acceptor Settings", settings), 0, 0);

    auto* change = new QGridLayout;
    addRow(change, 0, "changeEnabled");
    change->addWidget(new QLabel("Value"), 1, 1);
    change->addWidget(new QLabel("Coins"), 1, 2);
    for (int n = 1; n <= 5; ++n) {
        addRow(change, n + 1, Console::tubeCoinType(n));
        QWidget* qty = make(Console::tubeCoinQty(n));
        change->addWidget(qty, n + 1, 2);
        auto* bar = new QProgressBar;
        bar->setObjectName(QString("tubeFill%1").arg(n));
        bar->setRange(0, kTubeCapacityCoins);
        bar->setTextVisible(false);
        bar->setToolTip(QString("Tube %1 fill, of %2 coins").arg(n).arg(kTubeCapacityCoins));
        bar->setMaximumHeight(qty->sizeHint().height() - 6);
        change->addWidget(bar, n + 1, 3);
        m_tubeBars[static_cast<std::size_t>(n - 1)] = bar;
    }
    addRow(change, 7, "tubesAmount");
    for (int col : {1, 2}) {
        change->setColumnMinimumWidth(col, 60);
    }
    change->setColumnStretch(3, 1);
    grid->addWidget(frame("Change Management", change), 1, 0);

    auto* types = new QGridLayout;
    for (int n = 1; n <= 16; ++n) {
        const int col = n <= 8 ? 0 : 2;
        const int r = (n - 1) % 8;
        types->addWidget(make(Console::ctEnabled(n)), r, col);
        types->addWidget(make(Console::ctValue(n)), r, col + 1);
    }
    types->setRowStretch(8, 1);
    grid->addWidget(frame("Coin Types Enabled/Disabled", types), 0, 1, 2, 1);

    QLabel* line = statusLine("coinAcceptorStatus");
    m_deviceLines[Device::CoinAcceptor] = line;
    grid->addWidget(line, 2, 0, 1, 2);
    grid->setRowStretch(1, 1);
    return page;
}

QWidget* ConsoleWindow::buildBillValidatorTab() {
    auto* page = new QWidget;
    auto* grid = new QGridLayout(page);

    auto* settings = new QGridLayout;
    addRow(settings, 0, "billValidatorEnabled");
    int row = 1;
    for (FieldName name : std::initializer_list<FieldName>{
             "bvFeatureLevel", "bvCountryCode", "bvScalingFactor", "bvDecimalPlaces",
             "bvStackerCapacity", "bvSecurityLevels", "bvEscrowCapability", "bvManufacturer",
             "bvSerialNumber", "bvModelNumber", "bvSoftwareVersion"}) {
        addRow(settings, row++, name);
    }
    settings->setRowStretch(row, 1);
    grid->addWidget(frame("Bill Validator Settings", settings), 0, 0);

    auto* types = new QGridLayout;
    for (int n = 1; n <= 16; ++n) {
        const int col = n <= 8 ? 0 : 2;
        const int r = (n - 1) % 8;
        types->addWidget(make(Console::btEnabled(n)), r, col);
        types->addWidget(make(Console::btValue(n)), r, col + 1);
    }
    types->setRowStretch(8, 1);
    grid->addWidget(frame("Bill Types Enabled/Disabled", types), 0, 1);

    QLabel* line = statusLine("billValidatorStatus");
    m_deviceLines[Device::BillValidator] = line;
    grid->addWidget(line, 1, 0, 1, 2);
    grid->setRowStretch(0, 1);
    return page;
}

QWidget* ConsoleWindow::buildBillDispenserTab() {
    auto* page = new QWidget;
    auto* grid = new QGridLayout(page);

    auto* settings = new QGridLayout;
    addRow(settings, 0, "billDispenserEnabled");
    int row = 1;
    for (FieldName name : std::initializer_list<FieldName>{
             "bDispType", "bdSWVersion", "bdCasetteStatus", "bdMaxLenght", "bdMinLenght",
             "bdThickness", "bdStatus"}) {
        addRow(settings, row++, name);
    }
    settings->setRowStretch(row, 1);
    grid->addWidget(frame("Bill Dispenser Settings", settings), 0, 0);

    auto* functions = new QGridLayout;
    addRow(functions, 0, "bdQtyBills");
    functions->addWidget(make("bdDispenseBills"), 1, 1);
    addRow(functions, 2, "bdBillsDispensed");
    functions->addWidget(make("bdDispenserRefill"), 3, 1);
    functions->setRowStretch(4, 1);
    grid->addWidget(frame("Bill Dispenser Functions", functions), 0, 1);

    QLabel* line = statusLine("billDispenserStatus");
    m_deviceLines[Device::BillDispenser] = line;
    grid->addWidget(line, 1, 0, 1, 2);
    grid->setRowStretch(0, 1);
    return page;
}

QWidget* ConsoleWindow::buildHoppersTab() {
    auto* page = new QWidget;
    auto* grid = new QGridLayout(page);

    const std::array<FieldName, 2> coinValues = {"h1CoinValue", "h2CoinValue"};
    for (int n = 1; n <= 2; ++n) {
        auto* hopper = new QGridLayout;
        addRow(hopper, 0, coinValues[static_cast<std::size_t>(n - 1)]);
        hopper->setColumnStretch(2, 1);
        grid->addWidget(frame(QString("Hopper No. %1").arg(n), hopper), 0, n - 1);
    }

    auto* functions = new QGridLayout;
    addRow(functions, 0, "hoppersEnabled");
    addRow(functions, 1, "hToDispense");
    functions->addWidget(make("hDispenseCoins"), 1, 2);
    addRow(functions, 2, "hDispensed");
    functions->setColumnStretch(3, 1);
    grid->addWidget(frame("Hoppers Functions", functions), 1, 0, 1, 2);

    QLabel* line = statusLine("hoppersStatus");
    m_deviceLines[Device::Hoppers] = line;
    grid->addWidget(line, 2, 0, 1, 2);
    grid->setRowStretch(3, 1);
    return page;
}

QWidget* ConsoleWindow::buildCreditCardTab() {
    auto* page = new QWidget;
    auto* grid = new QGridLayout(page);

    auto* settings = new QGridLayout;
    addRow(settings, 0, "pinPadEnabled");
    int row = 1;
    for (FieldName name :
         std::initializer_list<FieldName>{"ccEMVFull", "ccModel", "ccSerialNumber", "ccTradeMark",
                                          "ccVersionApp", "ccCOM", "ccPrinter"}) {
        addRow(settings, row++, name);
    }
    settings->setRowStretch(row, 1);
    grid->addWidget(frame("Pin Pad Settings", settings), 0, 0);

    auto* business = new QGridLayout;
    row = 0;
    for (FieldName name : std::initializer_list<FieldName>{
             "ccUser", "ccPassword", "ccURL", "ccOnLine", "ccCompany", "ccBranch", "ccCountry"}) {
        addRow(business, row++, name);
    }
    business->setRowStretch(row, 1);
    grid->addWidget(frame("Business Parameters", business), 0, 1);

    auto* test = new QGridLayout;
    addRow(test, 0, "ccNumTarjeta");
    addRow(test, 1, "ccTarjetahabiente");
    addRow(test, 2, "ccPantallaPP");
    test->addWidget(make("ccReadCard"), 3, 1, Qt::AlignLeft);
    test->setColumnStretch(1, 1);
    test->setRowStretch(4, 1);
    grid->addWidget(frame("Test Pin Pad", test), 1, 0);

    auto* printer = new QGridLayout;
    addRow(printer, 0, "ccPrinters");
    printer->setRowStretch(1, 1);
    grid->addWidget(frame("Vaucher Printer", printer), 1, 1);

    QLabel* line = statusLine("pinPadStatus");
    m_deviceLines[Device::PinPad] = line;
    grid->addWidget(line, 2, 0, 1, 2);
    grid->setColumnStretch(0, 1);
    grid->setColumnStretch(1, 1);
    return page;
}

QWidget* ConsoleWindow::lampPair(const std::string& lit, const std::string& dark,
                                 const QString& caption) {
    auto* box = new QWidget;
    auto* row = new QHBoxLayout(box);
    row->setContentsMargins(0, 0, 0, 0);
    auto* stack = new QGridLayout;
    // The lit lamp lies over the dark one, as the two images lie on the form.
    auto* darkLamp = new IndicatorLamp(QColor(0xe8, 0xe8, 0xe8), QColor());
    auto* litLamp = new IndicatorLamp(QColor(0x2e, 0xd1, 0x3a), QColor());
    darkLamp->setObjectName(q(dark));
    litLamp->setObjectName(q(lit));
    m_controls[dark] = darkLamp;
    m_controls[lit] = litLamp;
    stack->addWidget(darkLamp, 0, 0);
    stack->addWidget(litLamp, 0, 0);
    litLamp->raise();
    row->addLayout(stack);
    row->addWidget(new QLabel(caption));
    return box;
}

QWidget* ConsoleWindow::buildPaymentPanel() {
    auto* panel = new QWidget;
    auto* grid = new QGridLayout(panel);
    grid->setContentsMargins(0, 4, 0, 0);

    auto* request = new QHBoxLayout;
    QWidget* due = make("due");
    auto* dueLabel = new QLabel(q(m_prototype.field("due").label));
    dueLabel->setObjectName("due_label");
    dueLabel->setBuddy(due);
    request->addWidget(dueLabel);
    request->addWidget(due);
    request->addWidget(make("enablePayment"));
    request->addWidget(make("enablePaymentCC"));
    request->addStretch(1);
    request->addWidget(lampPair("gLEDtx", "wLEDtx", "TX"));
    request->addSpacing(8);
    request->addWidget(lampPair("gLEDrx", "wLEDrx", "RX"));
    m_txLamp = static_cast<IndicatorLamp*>(m_controls.at("gLEDtx"));
    m_rxLamp = static_cast<IndicatorLamp*>(m_controls.at("gLEDrx"));
    grid->addLayout(request, 0, 0, 1, 2);

    auto* status = static_cast<QLabel*>(make("statusDisplay"));
    QFont statusFont = status->font();
    statusFont.setBold(true);
    statusFont.setPointSizeF(statusFont.pointSizeF() * 1.2);
    status->setFont(statusFont);
    status->setWordWrap(true);
    status->setMinimumHeight(QFontMetrics(statusFont).lineSpacing() * 2);
    status->setFrameShape(QFrame::StyledPanel);
    grid->addWidget(status, 1, 0, 1, 2);

    auto* dueDisplay = static_cast<QLabel*>(make("dueDisplay"));
    QFont dueFont = dueDisplay->font();
    dueFont.setPointSizeF(dueFont.pointSizeF() * 1.4);
    dueDisplay->setFont(dueFont);
    grid->addWidget(dueDisplay, 2, 0);

    auto* credit = static_cast<QLabel*>(make("creditDisplay"));
    QFont creditFont("Arial");
    creditFont.setPointSizeF(dueFont.pointSizeF() * 1.4);
    creditFont.setBold(true);
    credit->setFont(creditFont);
    credit->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    grid->addWidget(credit, 2, 1);

    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(make("Save"));
    buttons->addWidget(make("Cancel"));
    grid->addLayout(buttons, 3, 0, 1, 2);
    return panel;
}

// --- Rendering ----------------------------------------------------------------------------------

QWidget* ConsoleWindow::control(const QString& name) const {
    if (name == "Setup") {
        return const_cast<ConsoleWindow*>(this);
    }
    const auto it = m_controls.find(s(name));
    return it == m_controls.end() ? nullptr : it->second;
}

const Field* ConsoleWindow::field(const std::string& name) const {
    const auto it = m_model.find(name);
    return it == m_model.end() ? nullptr : &it->second;
}

int ConsoleWindow::pendingEdits() const {
    int n = 0;
    for (const auto& [name, count] : m_pendingEdits) {
        n += count;
    }
    return n;
}

void ConsoleWindow::renderField(const Field& f) {
    m_model[f.name] = f;
    if (DeviceStatus::reads(f.name)) {
        m_status.noteField(f);
        updateStatusLines();
    }
    if (m_pendingEdits.count(f.name) != 0) {
        return;  // brought up to date when the engine has taken the operator's edit
    }
    apply(f);
}

void ConsoleWindow::apply(const Field& f) {
    if (f.kind == FieldKind::Form) {
        setWindowTitle(q(f.text));
        m_formVisible = f.visible;
        updateVisibility();
        return;
    }
    QWidget* w = control(q(f.name));
    if (w == nullptr) {
        return;
    }
    const QSignalBlocker blocker(w);
    switch (f.kind) {
        case FieldKind::TextBox:
            if (auto* edit = qobject_cast<QLineEdit*>(w)) {
                if (edit->text() != q(f.text)) {
                    edit->setText(q(f.text));
                    edit->setCursorPosition(0);
                }
            } else if (auto* text = qobject_cast<QPlainTextEdit*>(w)) {
                if (text->toPlainText() != q(f.text)) {
                    text->setPlainText(q(f.text));
                }
            }
            if (f.name.rfind("tubeCoinQty", 0) == 0) {
                updateTubeBar(f.name.back() - '0');
            }
            break;
        case FieldKind::Label:
            static_cast<QLabel*>(w)->setText(q(f.text));
            break;
        case FieldKind::CheckBox: {
            auto* box = static_cast<QCheckBox*>(w);
            // 2 is the grey "neither" state a stored flag may hold.
            box->setTristate(f.value == 2);
            box->setCheckState(f.value == 2   ? Qt::PartiallyChecked
                               : f.value != 0 ? Qt::Checked
                                              : Qt::Unchecked);
            break;
        }
        case FieldKind::ComboBox:
            applyCombo(static_cast<QComboBox*>(w), f);
            break;
        case FieldKind::Button:
            static_cast<QPushButton*>(w)->setText(q(f.text));
            break;
        case FieldKind::Image:
            // The lit lamps' state is their field's visible flag; traffic flashes them besides.
            static_cast<IndicatorLamp*>(w)->setSteady(f.visible);
            return;
        case FieldKind::Tabs:
            // The whole tab control, as the form's: its pages cannot be switched or edited, and
            // the page the technician was looking at stays in front (disabling the tabs one by
            // one would make Qt move to another).
            m_tabs->setEnabled(f.enabled);
            return;
        case FieldKind::Form:
            return;
    }
    w->setEnabled(f.enabled);
    if (w->isHidden() == f.visible) {
        w->setVisible(f.visible);
        for (QLabel* label : findChildren<QLabel*>()) {
            if (label->buddy() == w) {
                label->setVisible(f.visible);
            }
        }
    }
}

void ConsoleWindow::applyCombo(QComboBox* box, const Field& f) {
    Items items;
    if (isPortList(f.name)) {
        const int current = std::atoi(f.text.c_str());
        const int last = std::max(
            {kLastListedPort, current, m_portDevices.empty() ? 0 : m_portDevices.rbegin()->first});
        for (int n = 0; n <= last; ++n) {
            const auto mapped = m_portDevices.find(n);
            std::string device =
                mapped != m_portDevices.end() ? mapped->second : qt::defaultPortDevice(n);
            if (device.empty()) {
                device = "no port";
            }
            items.emplace_back(QString("%1   %2").arg(n).arg(q(device)), QString::number(n));
        }
    } else if (!f.choices.empty()) {
        for (std::string_view v : f.choices) {
            const QString value = QString::fromUtf8(v.data(), static_cast<qsizetype>(v.size()));
            items.emplace_back(value, value);
        }
    } else {
        for (const std::string& item : f.items) {
            items.emplace_back(q(item), q(item));
        }
    }
    // A value the engine holds is always on the list, so that it can be shown (a stored bill
    // value the list does not offer, a port above the listed ones), except for the printer
    // list, whose text stands for "none chosen yet" until a printer is picked.
    const QString text = q(f.text);
    const bool listed = std::any_of(items.begin(), items.end(),
                                    [&](const auto& item) { return item.second == text; });
    if (!listed && f.name != "ccPrinters" && !text.isEmpty()) {
        items.emplace_back(text, text);
        std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
            bool okA = false;
            bool okB = false;
            const double va = a.second.toDouble(&okA);
            const double vb = b.second.toDouble(&okB);
            return okA && okB ? va < vb : okA;
        });
    }

    bool same = box->count() == static_cast<int>(items.size());
    for (int i = 0; same && i < box->count(); ++i) {
        const auto& item = items[static_cast<std::size_t>(i)];
        same = box->itemText(i) == item.first && box->itemData(i).toString() == item.second;
    }
    if (!same) {
        box->clear();
        for (const auto& [shown, value] : items) {
            box->addItem(shown, value);
        }
        if (auto* view = box->view()) {
            view->setMinimumWidth(view->sizeHintForColumn(0) + 24);
        }
    }
    box->setPlaceholderText(text);
    box->setCurrentIndex(box->findData(text));
}

void ConsoleWindow::updateStatusLines() {
    const auto show = [](QLabel* label, const StatusLine& line) {
        label->setText(q(line.text));
        label->setStyleSheet(QString("color: %1;").arg(levelColour(line.level)));
    };
    for (const auto& [device, label] : m_deviceLines) {
        show(label, m_status.device(device));
    }
    for (const auto& [link, label] : m_linkLines) {
        show(label, m_status.link(link));
    }
}

void ConsoleWindow::updateTubeBar(int slot) {
    if (slot < 1 || slot > 5) {
        return;
    }
    QProgressBar* bar = m_tubeBars[static_cast<std::size_t>(slot - 1)];
    const Field* qty = field(std::string(Console::tubeCoinQty(slot).str()));
    bool ok = false;
    const double coins = qty != nullptr ? q(qty->text).toDouble(&ok) : 0;
    const int shown =
        ok && std::isfinite(coins) ? static_cast<int>(std::clamp(coins, 0.0, 1.0e6)) : 0;
    bar->setValue(std::min(shown, kTubeCapacityCoins));
    bar->setToolTip(
        ok ? QString("Tube %1: %2 of %3 coins").arg(slot).arg(shown).arg(kTubeCapacityCoins)
           : QString("Tube %1: not known").arg(slot));
}

void ConsoleWindow::flashIndicator(Indicator which) {
    (which == Indicator::Tx ? m_txLamp : m_rxLamp)->flash();
}

void ConsoleWindow::settleIndicators() {
    for (IndicatorLamp* lamp : findChildren<IndicatorLamp*>()) {
        lamp->settle();
    }
}

void ConsoleWindow::noteDeviceEvent(DeviceEvent event) {
    m_status.noteEvent(event);
    updateStatusLines();
}

void ConsoleWindow::setPortDevices(std::map<int, std::string> devices) {
    m_portDevices = std::move(devices);
    for (const char* name : {"comPorts", "comPorts1", "comPorts2"}) {
        if (m_pendingEdits.count(name) == 0) {
            apply(m_model.at(name));
        }
    }
}

void ConsoleWindow::refreshPortDevices() {
    const int last = kLastListedPort;
    m_post([relay = m_relay, this, last](ConsoleCommands& engine) {
        std::map<int, std::string> devices;
        try {
            for (int n = 0; n <= last; ++n) {
                std::string path = engine.setting(store::section::kPorts, std::to_string(n));
                if (!path.empty()) {
                    devices.emplace(n, std::move(path));
                }
            }
        } catch (const std::exception&) {
            // A store that cannot be read leaves the lists with the default devices.
        }
        relay->deliver(
            [this, devices = std::move(devices)]() mutable { setPortDevices(std::move(devices)); });
    });
}

void ConsoleWindow::setPresentable(bool presentable) {
    m_presentable = presentable;
    updateVisibility();
}

void ConsoleWindow::updateVisibility() {
    const bool show = m_presentable && m_formVisible && !m_ended;
    if (show != isVisible()) {
        setVisible(show);
    }
}

void ConsoleWindow::engineEnded() {
    m_ended = true;
    close();
}

void ConsoleWindow::closeEvent(QCloseEvent* event) {
    if (m_ended) {
        event->accept();
        return;
    }
    // Closing the console is the engine's Exit; the window goes when the engine has ended
    // (which may take a while: Exit waits for the bill validator to answer its reset).
    event->ignore();
    m_post([](ConsoleCommands& engine) { engine.close(); });
}

// --- Operator input ----------------------------------------------------------------------------

void ConsoleWindow::sendEdit(const std::string& name, const std::string& text, int value) {
    ++m_pendingEdits[name];
    m_post([relay = m_relay, this, name, text, value](ConsoleCommands& engine) {
        try {
            engine.edit(name, text, value);
        } catch (const std::exception&) {
            // The edit's handler reports its own failures on the console.
        }
        relay->deliver([this, name] { editTaken(name); });
    });
}

void ConsoleWindow::sendClick(const std::string& name) {
    m_post([name](ConsoleCommands& engine) {
        try {
            engine.click(name);
        } catch (const std::exception&) {
        }
    });
}

void ConsoleWindow::editTaken(const std::string& name) {
    const auto it = m_pendingEdits.find(name);
    if (it == m_pendingEdits.end()) {
        return;
    }
    if (--it->second > 0) {
        return;
    }
    m_pendingEdits.erase(it);
    apply(m_model.at(name));
}

}  // namespace kestrix::console
