#pragma once

#include <QObject>
#include <QTimer>
#include <memory>

#include "console/console_window.h"
#include "console/gui_message_box.h"
#include "engine/platform/message_box.h"

namespace kestrix::qt {
class EngineHost;
}
namespace kestrix::sim {
class PtyKiosk;
}

namespace kestrix::console {

class GuiRelay;
class SimulatorPanel;

// The operator console of the kestrix program: the window on the engine's console, the
// engine's message boxes, and (on the simulated kiosk) the simulator panel.
class ConsoleApp : public QObject {
    Q_OBJECT

public:
    // A refused start shows its message this long after the engine began at most; a normal
    // start shows the window once the engine has loaded, or after this long if the load takes
    // longer (a device that does not answer can hold it for minutes).
    static constexpr int kShowWindowAfterMs = 300;

    // `kiosk` is the in-process simulated kiosk when started with --simulate (else nullptr):
    // then a simulator panel is offered.
    explicit ConsoleApp(sim::PtyKiosk* kiosk);
    ~ConsoleApp() override;

    // Thread-safe and non-blocking: shows each message in a QMessageBox on the GUI thread
    // (title and text as given).
    std::shared_ptr<kestrix::MessageBox> messageBox();

    // Builds the window on the engine's console and connects it; quits the application
    // (QCoreApplication::exit(code)) once the engine has ended and the operator has closed any
    // message box still open (so a refused second start shows its message before exiting).
    void attach(qt::EngineHost& engine);

    ConsoleWindow* window() const { return m_window.get(); }
    SimulatorPanel* simulatorPanel() const { return m_panel.get(); }
    const MessageBoxes& messageBoxes() const { return m_messages; }

signals:
    // Just before the application is told to quit, with the engine's exit code.
    void finished(int exitCode);

private:
    void present();
    void quitWhenDone();

    sim::PtyKiosk* m_kiosk;
    std::shared_ptr<GuiRelay> m_relay;
    MessageBoxes m_messages;
    std::unique_ptr<ConsoleWindow> m_window;
    std::unique_ptr<SimulatorPanel> m_panel;
    QTimer m_showTimer;
    bool m_engineSeen = false;
    bool m_hideRequested = false;
    bool m_refused = false;
    bool m_ended = false;
    bool m_quitting = false;
    int m_exitCode = 0;
};

}  // namespace kestrix::console
