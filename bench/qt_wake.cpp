// The floor under the idle engine's processor time: a Qt program shaped like the engine (an
// application object on the main thread, an event loop on a thread of its own) whose only work
// is a timer ticking every 500 ms, the monitor's interval. bench_kiosk runs it beside the idle
// engine and measures both over the same window.
#include <QCoreApplication>
#include <QEventLoop>
#include <QThread>
#include <QTimer>

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QThread* loop = QThread::create([] {
        QEventLoop events;
        QTimer tick;
        tick.setTimerType(Qt::PreciseTimer);
        QObject::connect(&tick, &QTimer::timeout, [] {});
        tick.start(500);
        events.exec();
    });
    loop->start();
    return QCoreApplication::exec();
}
