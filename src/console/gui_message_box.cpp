#include "console/gui_message_box.h"

#include <QMessageBox>

namespace kestrix::console {

namespace {

class RelayedMessageBox : public kestrix::MessageBox {
public:
    RelayedMessageBox(std::shared_ptr<GuiRelay> relay, std::function<void(QString, QString)> open)
        : m_relay(std::move(relay)), m_open(std::move(open)) {}

    void show(const std::string& text, const std::string& title) override {
        m_relay->deliver([open = m_open, t = QString::fromStdString(text),
                          c = QString::fromStdString(title)] { open(t, c); });
    }

private:
    std::shared_ptr<GuiRelay> m_relay;
    std::function<void(QString, QString)> m_open;
};

}  // namespace

MessageBoxes::MessageBoxes() : m_relay(std::make_shared<GuiRelay>(this)) {
    m_engineSide = std::make_shared<RelayedMessageBox>(
        m_relay, [this](const QString& text, const QString& title) { open(text, title); });
}

MessageBoxes::~MessageBoxes() {
    m_relay->detach();
}

void MessageBoxes::open(const QString& text, const QString& title) {
    QWidget* parent =
        m_parentWindow && m_parentWindow->isVisible() ? m_parentWindow.data() : nullptr;
    auto* box = new QMessageBox(QMessageBox::NoIcon, title, text, QMessageBox::Ok, parent);
    box->setObjectName("engineMessage");
    box->setAttribute(Qt::WA_DeleteOnClose);
    // Modal to the console, as the operator's acknowledgement is expected before going on with
    // it, but never a nested event loop: show() returns at once.
    box->setWindowModality(parent != nullptr ? Qt::WindowModal : Qt::ApplicationModal);
    ++m_open;
    connect(box, &QObject::destroyed, this, [this] {
        if (--m_open == 0) {
            emit allClosed();
        }
    });
    emit shown(text, title);
    box->show();
}

}  // namespace kestrix::console
