// A picture of each tab on the simulated kiosk, with a check of what a picture shows at a
// glance: no label, caption or value cut off, no two controls on top of each other.
//
// The pictures go to $KESTRIX_SCREENSHOT_DIR when set (the `screenshots` target points it at
// docs/screenshots), else to ./screenshots.
#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QStyle>
#include <QStyleOptionComboBox>
#include <QTabBar>
#include <QTabWidget>
#include <vector>

#include "console/simulator_panel.h"
#include "virtual_console.h"

namespace kestrix::console {
namespace {

QString screenshotDir() {
    const QString dir = qEnvironmentVariableIsSet("KESTRIX_SCREENSHOT_DIR")
                            ? qEnvironmentVariable("KESTRIX_SCREENSHOT_DIR")
                            : QDir::current().filePath("screenshots");
    QDir().mkpath(dir);
    return dir;
}

QString fileName(const QString& caption) {
    return caption.toLower().replace(' ', '-') + ".png";
}

// The controls a technician reads: not the parts inside a list box, text area or tab bar.
std::vector<QWidget*> readableControls(QWidget* root) {
    std::vector<QWidget*> out;
    for (QWidget* w : root->findChildren<QWidget*>()) {
        if (!w->isVisible()) {
            continue;
        }
        bool inner = false;
        for (QWidget* p = w->parentWidget(); p != nullptr && p != root; p = p->parentWidget()) {
            if (qobject_cast<QComboBox*>(p) || qobject_cast<QPlainTextEdit*>(p) ||
                qobject_cast<QTabBar*>(p) || qobject_cast<QAbstractScrollArea*>(p)) {
                inner = true;
            }
        }
        const bool readable = qobject_cast<QLabel*>(w) || qobject_cast<QAbstractButton*>(w) ||
                              qobject_cast<QLineEdit*>(w) || qobject_cast<QComboBox*>(w) ||
                              qobject_cast<QPlainTextEdit*>(w) || qobject_cast<QProgressBar*>(w);
        if (readable && !inner) {
            out.push_back(w);
        }
    }
    return out;
}

// Whether the widget is too narrow or too low for what it shows.
QString cutOff(QWidget* w) {
    const auto tooSmall = [w](QSize need) {
        return w->width() < need.width() || w->height() < need.height();
    };
    if (auto* label = qobject_cast<QLabel*>(w)) {
        if (!label->wordWrap() && tooSmall(label->minimumSizeHint())) {
            return "label \"" + label->text() + "\"";
        }
    } else if (auto* button = qobject_cast<QAbstractButton*>(w)) {
        if (tooSmall(button->minimumSizeHint()) || w->width() < button->sizeHint().width()) {
            return "button \"" + button->text() + "\"";
        }
    } else if (auto* edit = qobject_cast<QLineEdit*>(w)) {
        const int room = edit->width() - 12;  // frame and text margins
        if (edit->echoMode() == QLineEdit::Normal &&
            edit->fontMetrics().horizontalAdvance(edit->text()) > room) {
            return "text \"" + edit->text() + "\"";
        }
    } else if (auto* combo = qobject_cast<QComboBox*>(w)) {
        QStyleOptionComboBox option;
        option.initFrom(combo);
        option.editable = combo->isEditable();
        const int room =
            combo->style()
                ->subControlRect(QStyle::CC_ComboBox, &option, QStyle::SC_ComboBoxEditField, combo)
                .width();
        if (combo->fontMetrics().horizontalAdvance(combo->currentText()) > room) {
            return "list \"" + combo->currentText() + "\"";
        }
    }
    return {};
}

void checkReadable(QWidget* window, QWidget* page, const QString& where) {
    std::vector<QWidget*> controls = readableControls(page);
    for (QWidget* w : readableControls(window)) {
        if (!page->isAncestorOf(w) && !qobject_cast<QTabWidget*>(w->parentWidget())) {
            bool onOtherTab = false;
            for (QWidget* p = w; p != nullptr; p = p->parentWidget()) {
                onOtherTab = onOtherTab || qobject_cast<QTabWidget*>(p) != nullptr;
            }
            if (!onOtherTab) {
                controls.push_back(w);  // the payment panel below the tabs
            }
        }
    }
    for (QWidget* w : controls) {
        const QString problem = cutOff(w);
        EXPECT_TRUE(problem.isEmpty())
            << where.toStdString() << ": cut off: " << problem.toStdString() << " ("
            << w->objectName().toStdString() << ")";
    }
    for (std::size_t i = 0; i < controls.size(); ++i) {
        const QRect a(controls[i]->mapTo(window, QPoint(0, 0)), controls[i]->size());
        for (std::size_t j = i + 1; j < controls.size(); ++j) {
            const QRect b(controls[j]->mapTo(window, QPoint(0, 0)), controls[j]->size());
            EXPECT_FALSE(a.intersects(b))
                << where.toStdString() << ": " << controls[i]->objectName().toStdString() << " \""
                << test::shownText(controls[i]).toStdString() << "\" overlaps "
                << controls[j]->objectName().toStdString() << " \""
                << test::shownText(controls[j]).toStdString() << "\"";
        }
    }
}

TEST(Screenshots, EachTabOnTheSimulatedKioskIsReadableAtTheDefaultSize) {
    test::VirtualConsole c;
    // The port lists name the devices as the program on the simulated kiosk shows them.
    sim::seedSimulatedPortPaths(c.kiosk.store(), sim::PortNumbers{},
                                "/run/user/1000/kestrix-simulated");
    ASSERT_TRUE(c.start());
    c.window->refreshPortDevices();
    c.run(3);
    QTest::keyClicks(c.widget<QLineEdit>("due"), "12.5");
    c.run(1);
    auto* tabs = c.widget<QTabWidget>("SSTab1");
    const QString dir = screenshotDir();
    for (int i = 0; i < tabs->count(); ++i) {
        tabs->setCurrentIndex(i);
        QCoreApplication::processEvents();
        const QString caption = tabs->tabText(i);
        checkReadable(c.window.get(), tabs->widget(i), caption);
        // The same picture whatever the link lamps were doing at that moment.
        c.window->settleIndicators();
        const QImage picture = c.window->grab().toImage();
        c.window->flashIndicator(Indicator::Tx);
        c.window->settleIndicators();
        EXPECT_EQ(c.window->grab().toImage(), picture) << caption.toStdString();
        EXPECT_TRUE(picture.save(QDir(dir).filePath(fileName(caption)))) << caption.toStdString();
    }

    SimulatorLink link;
    link.command = [&c](const std::string& command) { return c.kiosk.control(command); };
    link.profile = c.kiosk.models().profile();
    link.readPinPad = [&c](const std::string& key, std::function<void(std::string)> done) {
        done(c.kiosk.store().get("KSX", "Pin Pad Simulator", key, ""));
    };
    link.writePinPad = [&c](const std::string& key, const std::string& value) {
        c.kiosk.store().set("KSX", "Pin Pad Simulator", key, value);
    };
    SimulatorPanel panel(link);
    panel.show();
    QCoreApplication::processEvents();
    EXPECT_TRUE(panel.grab().save(QDir(dir).filePath("simulator-panel.png")));

    // Beside each other on a 1280x1024 screen, frames and the gap between them included.
    constexpr int kFrame = 10;
    constexpr int kGap = 8;
    EXPECT_LE(c.window->width() + kGap + panel.width() + 2 * kFrame, 1280)
        << c.window->width() << " + " << panel.width();
    EXPECT_LE(std::max(c.window->height(), panel.height()) + 4 * kFrame, 1024)
        << c.window->height() << ", " << panel.height();
}

}  // namespace
}  // namespace kestrix::console
