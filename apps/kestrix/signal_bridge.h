#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <memory>

// Turns SIGTERM and SIGINT into a Qt signal on the main thread (self-pipe), so that a service
// manager's stop or a Ctrl+C runs the engine's Exit instead of killing it mid-exchange.
class SignalBridge : public QObject {
    Q_OBJECT

public:
    explicit SignalBridge(QObject* parent = nullptr);
    ~SignalBridge() override;

signals:
    void terminationRequested();

private:
    std::unique_ptr<QSocketNotifier> m_notifier;
};
