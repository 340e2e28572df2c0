// The console's controls: each by its control name, with the exact caption or label beside it,
// on the tab and in the frame where a technician looks for it.
#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QCheckBox>
#include <QComboBox>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QTabWidget>
#include <memory>
#include <vector>

#include "console/console_window.h"
#include "engine/setup.h"

namespace kestrix::console {
namespace {

std::unique_ptr<ConsoleWindow> makeWindow() {
    return std::make_unique<ConsoleWindow>([](std::function<void(Setup&)>) {});
}

QLabel* labelOf(const QWidget& window, const QWidget* control) {
    for (QLabel* label : window.findChildren<QLabel*>()) {
        if (label->buddy() == control) {
            return label;
        }
    }
    return nullptr;
}

TEST(Layout, EveryControlIsAWidgetNamedAfterItWithItsExactLabelOrCaption) {
    const auto window = makeWindow();
    const Console console;
    for (const Field& f : console.fields()) {
        SCOPED_TRACE(f.name);
        QWidget* w = window->control(QString::fromStdString(f.name));
        ASSERT_NE(w, nullptr);
        EXPECT_EQ(w->objectName().toStdString(), f.name);
        EXPECT_EQ(window->findChildren<QWidget*>(QString::fromStdString(f.name)).size(),
                  f.kind == FieldKind::Form ? 0 : 1);
        switch (f.kind) {
            case FieldKind::CheckBox:
                EXPECT_EQ(qobject_cast<QCheckBox*>(w)->text().toStdString(), f.label);
                break;
            case FieldKind::Button:
                EXPECT_EQ(qobject_cast<QAbstractButton*>(w)->text().toStdString(), f.text);
                break;
            case FieldKind::TextBox:
            case FieldKind::ComboBox:
                if (!f.label.empty()) {
                    const QLabel* label = labelOf(*window, w);
                    ASSERT_NE(label, nullptr);
                    EXPECT_EQ(label->text().toStdString(), f.label);
                }
                break;
            default:
                break;
        }
    }
    EXPECT_EQ(window->windowTitle(), "Kestrix V5.0.0");
}

TEST(Layout, SixTabsInOrderWithTheirFrames) {
    const auto window = makeWindow();
    auto* tabs = qobject_cast<QTabWidget*>(window->control("SSTab1"));
    ASSERT_NE(tabs, nullptr);
    const std::vector<std::pair<QString, QStringList>> expected = {
        {"General Settings",
         {"MDB Interface Configuration", "Bill Dispenser Configuration",
          "Hoppers Interface Configuration"}},
        {"Coin Acceptor",
         {"Coin Acceptor Settings", "Change Management", "Coin Types Enabled/Disabled"}},
        {"Bill Validator", {"Bill Validator Settings", "Bill Types Enabled/Disabled"}},
        {"Bill Dispenser", {"Bill Dispenser Settings", "Bill Dispenser Functions"}},
        {"Hoppers", {"Hopper No. 1", "Hopper No. 2", "Hoppers Functions"}},
        {"Credit Card",
         {"Pin Pad Settings", "Business Parameters", "Test Pin Pad", "Vaucher Printer"}},
    };
    ASSERT_EQ(tabs->count(), 6);
    for (int i = 0; i < 6; ++i) {
        const auto& [caption, frames] = expected[static_cast<std::size_t>(i)];
        EXPECT_EQ(tabs->tabText(i), caption);
        QStringList titles;
        for (const QGroupBox* box : tabs->widget(i)->findChildren<QGroupBox*>()) {
            titles << box->title();
        }
        EXPECT_EQ(titles, frames) << caption.toStdString();
    }
}

// Where each control sits: the frame a technician finds it in.
TEST(Layout, ControlsSitInTheirFrames) {
    const auto window = makeWindow();
    const std::vector<std::pair<const char*, const char*>> rows = {
        {"comPorts", "MDB Interface Configuration"},
        {"comPorts1", "Bill Dispenser Configuration"},
        {"comPorts2", "Hoppers Interface Configuration"},
        {"caSerialNumber", "Coin Acceptor Settings"},
        {"ct16_value", "Coin Types Enabled/Disabled"},
        {"tubeCoinQty5", "Change Management"},
        {"bvSoftwareVersion", "Bill Validator Settings"},
        {"bt9_value", "Bill Types Enabled/Disabled"},
        {"bt8_Value", "Bill Types Enabled/Disabled"},
        {"bdMinLenght", "Bill Dispenser Settings"},
        {"bdDispenserRefill", "Bill Dispenser Functions"},
        {"h1CoinValue", "Hopper No. 1"},
        {"h2CoinValue", "Hopper No. 2"},
        {"hDispensed", "Hoppers Functions"},
        {"ccPrinter", "Pin Pad Settings"},
        {"ccCountry", "Business Parameters"},
        {"ccReadCard", "Test Pin Pad"},
        {"ccPrinters", "Vaucher Printer"},
    };
    for (const auto& [name, frameTitle] : rows) {
        QWidget* w = window->control(name);
        ASSERT_NE(w, nullptr) << name;
        QWidget* p = w->parentWidget();
        while (p != nullptr && qobject_cast<QGroupBox*>(p) == nullptr) {
            p = p->parentWidget();
        }
        ASSERT_NE(p, nullptr) << name;
        EXPECT_EQ(qobject_cast<QGroupBox*>(p)->title(), frameTitle) << name;
    }
}

TEST(Layout, DisplaysStartAsDesignedAndThePasswordIsHidden) {
    const auto window = makeWindow();
    auto* credit = qobject_cast<QLabel*>(window->control("creditDisplay"));
    ASSERT_NE(credit, nullptr);
    EXPECT_EQ(credit->text(), "$0.00");
    EXPECT_EQ(credit->font().family(), "Arial");
    EXPECT_EQ(qobject_cast<QAbstractButton*>(window->control("enablePayment"))->text(), "Cash");
    EXPECT_EQ(qobject_cast<QAbstractButton*>(window->control("enablePaymentCC"))->text(),
              "Credit Card");
    EXPECT_EQ(qobject_cast<QLineEdit*>(window->control("ccPassword"))->echoMode(),
              QLineEdit::Password);
    // Device answers are shown, not typed.
    EXPECT_TRUE(qobject_cast<QLineEdit*>(window->control("caSerialNumber"))->isReadOnly());
    EXPECT_FALSE(qobject_cast<QLineEdit*>(window->control("bt3_Value"))->isReadOnly());
    EXPECT_FALSE(qobject_cast<QLineEdit*>(window->control("due"))->isReadOnly());
}

TEST(Layout, ListsOfferWhatATechnicianNeedsAndTheDefaults) {
    const auto window = makeWindow();
    const auto values = [&](const char* name) {
        auto* box = qobject_cast<QComboBox*>(window->control(name));
        QStringList v;
        for (int i = 0; i < box->count(); ++i) {
            v << box->itemData(i).toString();
        }
        return v;
    };
    for (const char* ports : {"comPorts", "comPorts1", "comPorts2"}) {
        const QStringList v = values(ports);
        for (int n = 0; n <= 16; ++n) {
            EXPECT_TRUE(v.contains(QString::number(n))) << ports << " " << n;
        }
    }
    for (const char* bill : {"20", "50", "100", "200", "500", "1000"}) {
        EXPECT_TRUE(values("bDispType").contains(bill)) << bill;
    }
    for (const char* hopper : {"h1CoinValue", "h2CoinValue"}) {
        for (const char* coin : {"0.5", "1", "2", "5", "10", "20"}) {
            EXPECT_TRUE(values(hopper).contains(coin)) << hopper << " " << coin;
        }
    }
}

}  // namespace
}  // namespace kestrix::console
