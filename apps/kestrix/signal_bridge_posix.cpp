#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "signal_bridge.h"

namespace {
int g_pipe[2] = {-1, -1};

void onSignal(int) {
    const char c = 1;
    // Nothing else is safe in a signal handler; a full pipe already carries the request.
    [[maybe_unused]] const ssize_t n = ::write(g_pipe[0], &c, 1);
}
}  // namespace

SignalBridge::SignalBridge(QObject* parent) : QObject(parent) {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_pipe) != 0) {
        return;
    }
    ::fcntl(g_pipe[0], F_SETFL, O_NONBLOCK);
    m_notifier = std::make_unique<QSocketNotifier>(g_pipe[1], QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, [this] {
        char buf[16];
        [[maybe_unused]] const ssize_t n = ::read(g_pipe[1], buf, sizeof buf);
        emit terminationRequested();
    });
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &sa, nullptr);
    ::sigaction(SIGINT, &sa, nullptr);
}

SignalBridge::~SignalBridge() {
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
}
