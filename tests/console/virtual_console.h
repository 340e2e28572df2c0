#pragma once

#include <gtest/gtest.h>
#include <QAbstractButton>
#include <QCheckBox>
#include <QCoreApplication>
#include <QLabel>
#include <QLineEdit>
#include <QStyle>
#include <QTabWidget>
#include <QTest>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "console/console_window.h"
#include "engine/console_commands.h"
#include "engine/setup.h"
#include "sim/world/virtual_kiosk.h"

namespace kestrix::console::test {

// A check box reacts to its box and caption only, not to the whole width a layout gives it.
inline void clickFace(QWidget* w) {
    QPoint at = w->rect().center();
    if (qobject_cast<QCheckBox*>(w) != nullptr) {
        at.setX(w->style()->pixelMetric(QStyle::PM_IndicatorWidth) / 2 + 1);
    }
    QTest::mouseClick(w, Qt::LeftButton, {}, at);
}

inline QString shownText(QWidget* w) {
    if (auto* edit = qobject_cast<QLineEdit*>(w)) {
        return edit->text();
    }
    if (auto* label = qobject_cast<QLabel*>(w)) {
        return label->text();
    }
    if (auto* button = qobject_cast<QAbstractButton*>(w)) {
        return button->text();
    }
    return {};
}

// The console window on an engine in virtual time: the engine's changes reach the window as they
// happen (one thread, so directly), the window's posts go to the engine's event queue, and the
// two loops take turns: a slice of virtual time for the engine, then the GUI's pending events.
class VirtualConsole {
public:
    static constexpr double kSliceSeconds = 0.05;

    VirtualConsole() {
        kiosk.configureAllDevices();
        window =
            std::make_unique<ConsoleWindow>([this](std::function<void(ConsoleCommands&)> action) {
                kiosk.scheduler().post([this, action = std::move(action)] {
                    SetupCommands commands(kiosk.engine());
                    action(commands);
                });
            });
        Console& console = kiosk.engine().console();
        console.setChangeListener([this](const Field& f) {
            window->renderField(f);
            displayed.emplace_back(f.name,
                                   shownText(window->control(QString::fromStdString(f.name))));
        });
        console.setIndicatorListener([this](Indicator which) { window->flashIndicator(which); });
        console.setDeviceEventListener(
            [this](DeviceEvent event) { window->noteDeviceEvent(event); });
        for (const Field& f : console.fields()) {
            window->renderField(f);
        }
        m_guiTimer = kiosk.scheduler().createTimer("gui", static_cast<int>(kSliceSeconds * 1000),
                                                   true, [this] { guiTurn(); });
    }

    ~VirtualConsole() {
        kiosk.engine().console().setChangeListener({});
        kiosk.engine().console().setIndicatorListener({});
        kiosk.engine().console().setDeviceEventListener({});
    }

    bool start() {
        const bool ok = kiosk.start();
        window->setPresentable(true);
        guiTurn();
        return ok;
    }

    void run(double seconds) {
        kiosk.runFor(seconds);
        guiTurn();
    }

    // Runs both loops until `done` holds; false when `maxSeconds` of virtual time passed first.
    // (`done` is looked at between slices of the outermost loop; a wait nested in an engine
    // routine runs to its end first.)
    bool runUntil(const std::function<bool()>& done, double maxSeconds) {
        for (double t = 0; t < maxSeconds; t += kSliceSeconds) {
            if (done()) {
                return true;
            }
            run(kSliceSeconds);
        }
        return done();
    }

    QString shown(const char* name) const { return shownText(window->control(name)); }
    template <typename W>
    W* widget(const char* name) const {
        return qobject_cast<W*>(window->control(name));
    }

    // Whether a control showed `text` at some point (displays change and clear within a tick).
    bool showed(const std::string& name, const QString& text) const {
        for (const auto& [n, t] : displayed) {
            if (n == name && t == text) {
                return true;
            }
        }
        return false;
    }

    sim::VirtualKiosk kiosk;
    std::unique_ptr<ConsoleWindow> window;
    // Every change as the window showed it right after rendering it.
    std::vector<std::pair<std::string, QString>> displayed;

private:
    // The GUI thread's share of the time: its events (the engine's acknowledgements, the
    // operator's input) run every slice of virtual time, whatever the engine is doing.
    void guiTurn() { QCoreApplication::processEvents(); }
    std::unique_ptr<Timer> m_guiTimer;
};

// Clicks a control as the operator does: on its tab, where its face reacts to the mouse.
inline void click(VirtualConsole& c, const char* name) {
    QWidget* w = c.window->control(name);
    ASSERT_NE(w, nullptr) << name;
    auto* tabs = c.widget<QTabWidget>("SSTab1");
    for (int i = 0; i < tabs->count(); ++i) {
        if (tabs->widget(i)->isAncestorOf(w)) {
            tabs->setCurrentIndex(i);
        }
    }
    ASSERT_TRUE(w->isVisible()) << name;
    ASSERT_TRUE(w->isEnabled()) << name;
    clickFace(w);
}

}  // namespace kestrix::console::test
