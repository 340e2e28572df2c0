#include "console/console_app.h"

#include <QCoreApplication>
#include <QStringList>

#include "console/gui_relay.h"
#include "console/simulator_panel.h"
#include "engine/console_commands.h"
#include "engine/settings/layout.h"
#include "engine/setup.h"
#include "platform_qt/engine_host.h"
#include "sim/pty_kiosk.h"

namespace kestrix::console {

namespace {

// The engine hides the console when its command line ends in "/hide" (on the monitor's first
// tick); the window then never comes up at all rather than flashing for half a second.
bool hideRequested() {
    QStringList words = QCoreApplication::arguments();
    if (!words.isEmpty()) {
        words.removeFirst();
    }
    return words.join(' ').endsWith("/hide");
}

}  // namespace

ConsoleApp::ConsoleApp(sim::PtyKiosk* kiosk)
    : m_kiosk(kiosk), m_relay(std::make_shared<GuiRelay>(this)), m_hideRequested(hideRequested()) {
    m_showTimer.setSingleShot(true);
    m_showTimer.setInterval(kShowWindowAfterMs);
    connect(&m_showTimer, &QTimer::timeout, this, [this] { present(); });
    connect(&m_messages, &MessageBoxes::allClosed, this, [this] { quitWhenDone(); });
}

ConsoleApp::~ConsoleApp() {
    m_relay->detach();
}

std::shared_ptr<kestrix::MessageBox> ConsoleApp::messageBox() {
    return m_messages.engineSide();
}

void ConsoleApp::attach(qt::EngineHost& engine) {
    // The view and the simulator panel reach the engine through its console commands only.
    const auto post = [&engine](std::function<void(ConsoleCommands&)> action) {
        engine.post([action = std::move(action)](Setup& setup) {
            SetupCommands commands(setup);
            action(commands);
        });
    };
    m_window = std::make_unique<ConsoleWindow>(post);
    ConsoleWindow* window = m_window.get();
    m_messages.setParentWindow(window);

    connect(
        &engine, &qt::EngineHost::fieldChanged, window,
        [this, window](const Field& f) {
            window->renderField(f);
            // The engine shows its console to a view before its load: it is taking posts.
            if (!m_engineSeen) {
                m_engineSeen = true;
                m_showTimer.start();
            }
        },
        Qt::QueuedConnection);
    connect(
        &engine, &qt::EngineHost::indicatorFlashed, window,
        [window](Indicator which) { window->flashIndicator(which); }, Qt::QueuedConnection);
    connect(
        &engine, &qt::EngineHost::deviceEvent, window,
        [window](DeviceEvent event) { window->noteDeviceEvent(event); }, Qt::QueuedConnection);
    connect(
        &engine, &qt::EngineHost::startedUp, this,
        [this, window](bool ok) {
            if (!ok) {
                // Another engine runs on this store: only its message is shown.
                m_refused = true;
                m_showTimer.stop();
                window->setPresentable(false);
                return;
            }
            window->refreshPortDevices();
            present();
        },
        Qt::QueuedConnection);
    connect(
        &engine, &qt::EngineHost::ended, this,
        [this, window](int code) {
            m_ended = true;
            m_exitCode = code;
            m_showTimer.stop();
            window->engineEnded();
            if (m_panel) {
                m_panel->close();
            }
            quitWhenDone();
        },
        Qt::QueuedConnection);

    if (m_kiosk != nullptr) {
        sim::PtyKiosk* kiosk = m_kiosk;
        SimulatorLink link;
        link.command = [kiosk](const std::string& line) { return kiosk->command(line); };
        // The program runs its simulated kiosk on the default profile.
        link.profile = sim::defaultProfile();
        // The simulated pin pad reads its steering from the store, which is the engine's.
        auto relay = m_relay;
        link.readPinPad = [post, relay](const std::string& key,
                                        std::function<void(std::string)> done) {
            post([relay, key, done = std::move(done)](ConsoleCommands& engine) {
                std::string value;
                try {
                    value = engine.setting(store::section::kPinPadSimulator, key);
                } catch (const std::exception&) {
                }
                relay->deliver([done, value] { done(value); });
            });
        };
        link.writePinPad = [post](const std::string& key, const std::string& value) {
            post([key, value](ConsoleCommands& engine) {
                try {
                    engine.saveSetting(store::section::kPinPadSimulator, key, value);
                } catch (const std::exception&) {
                }
            });
        };
        m_panel = std::make_unique<SimulatorPanel>(std::move(link));
    }
}

void ConsoleApp::present() {
    if (m_refused || m_ended || m_quitting || m_hideRequested || !m_window) {
        return;
    }
    const bool first = !m_window->isVisible() && m_panel && !m_panel->isVisible();
    m_window->setPresentable(true);
    if (first && m_window->isVisible()) {
        // The kiosk's hardware beside the console, not over it.
        m_panel->move(m_window->frameGeometry().topRight() + QPoint(8, 0));
        m_panel->show();
    }
}

void ConsoleApp::quitWhenDone() {
    if (m_ended && !m_quitting && m_messages.openCount() == 0) {
        m_quitting = true;
        emit finished(m_exitCode);
        QCoreApplication::exit(m_exitCode);
    }
}

}  // namespace kestrix::console
