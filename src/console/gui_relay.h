#pragma once

#include <QObject>
#include <functional>
#include <memory>
#include <mutex>

namespace kestrix::console {

// Hands functions from any thread to the GUI thread, to run in the context of one object that
// may be destroyed meanwhile. The engine thread keeps a relay in its queued actions; once the
// object is gone (detach() in its destructor) deliveries are dropped instead of reaching a
// dangling object.
class GuiRelay {
public:
    explicit GuiRelay(QObject* target) : m_target(target) {}

    // Queues `f` on the target's thread, after what is already queued there. Thread-safe.
    void deliver(std::function<void()> f) {
        std::lock_guard lock(m_mutex);
        if (m_target != nullptr) {
            QMetaObject::invokeMethod(m_target, std::move(f), Qt::QueuedConnection);
        }
    }

    // Called by the target before it goes; Qt discards events already queued for it.
    void detach() {
        std::lock_guard lock(m_mutex);
        m_target = nullptr;
    }

private:
    std::mutex m_mutex;
    QObject* m_target;
};

}  // namespace kestrix::console
