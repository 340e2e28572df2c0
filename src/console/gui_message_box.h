#pragma once

#include <QObject>
#include <QPointer>
#include <QWidget>
#include <functional>
#include <memory>
#include <string>

#include "console/gui_relay.h"
#include "engine/platform/message_box.h"

namespace kestrix::console {

// The engine's message box on the GUI thread. show() may be called from the engine thread and
// returns at once: the box opens later on the GUI thread and stays until the operator presses
// OK, while the engine carries on (a routine that waited for the operator would freeze the
// devices it is talking to).
class MessageBoxes : public QObject {
    Q_OBJECT

public:
    MessageBoxes();
    ~MessageBoxes() override;

    // The engine's end of it: safe from any thread, never blocks.
    std::shared_ptr<kestrix::MessageBox> engineSide() const { return m_engineSide; }

    // Boxes are shown over this window when it is on screen.
    void setParentWindow(QWidget* window) { m_parentWindow = window; }
    int openCount() const { return m_open; }

signals:
    // Each message as it is shown (GUI thread).
    void shown(const QString& text, const QString& title);
    // The last open box was closed.
    void allClosed();

private:
    void open(const QString& text, const QString& title);

    std::shared_ptr<GuiRelay> m_relay;
    std::shared_ptr<kestrix::MessageBox> m_engineSide;
    QPointer<QWidget> m_parentWindow;
    int m_open = 0;
};

}  // namespace kestrix::console
