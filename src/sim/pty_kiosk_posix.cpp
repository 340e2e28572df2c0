#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "sim/kiosk_models.h"
#include "sim/pty_kiosk.h"

namespace kestrix::sim {

namespace {

constexpr std::size_t kMaxPendingOut = 64 * 1024;
// Longest sleep of the loop while something is still to come (a model that asks to be looked at
// again later than this is looked at anyway).
constexpr double kLongestSleepSeconds = 1.0;
constexpr std::size_t kMaxCommandBytes = 4096;

std::string errnoText(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

void setNonBlocking(int fd) {
    const int flags = fcntl(fd, F_GETFL, 0);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

void makeRaw(int fd) {
    termios t{};
    if (tcgetattr(fd, &t) == 0) {
        cfmakeraw(&t);
        cfsetispeed(&t, B9600);
        cfsetospeed(&t, B9600);
        tcsetattr(fd, TCSANOW, &t);
    }
}

// The simulator's directory holds the control socket, which moves money in and out of the
// simulated kiosk, and the links the engine opens as its serial ports: it must be the user's
// alone. A directory another user owns or can write could hand the engine someone else's
// "serial ports" or take over the socket.
void refuseSharedDirectory(const std::string& dir) {
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0) {
        throw std::runtime_error(errnoText("cannot use " + dir));
    }
    if (!S_ISDIR(st.st_mode)) {
        throw std::runtime_error(dir + " is not a directory");
    }
    if (st.st_uid != ::geteuid()) {
        throw std::runtime_error("refused: " + dir + " belongs to another user (uid " +
                                 std::to_string(st.st_uid) +
                                 "); the simulated kiosk needs a directory of its own user");
    }
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw std::runtime_error("refused: other users can write " + dir +
                                 "; the simulated kiosk needs a private directory (chmod 700 '" +
                                 dir + "', or choose another)");
    }
}

bool fillAddress(const std::string& path, sockaddr_un& addr) {
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Writes all of `text` to a socket, waiting at most about a second for a slow reader.
void sendAll(int fd, const std::string& text) {
    std::size_t done = 0;
    for (int tries = 0; done < text.size() && tries < 100; ++tries) {
        const ssize_t n = ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            return;
        }
        pollfd p{fd, POLLOUT, 0};
        ::poll(&p, 1, 10);
    }
}

// The time one character takes on the line as the engine has set it up on its end of the
// pseudo-terminal: start bit, data bits, parity bit, stop bits at the baud rate.
double characterSeconds(int fd) {
    termios t{};
    if (tcgetattr(fd, &t) != 0) {
        return 10.0 / 9600;
    }
    int bits = 1;
    switch (t.c_cflag & CSIZE) {
        case CS5:
            bits += 5;
            break;
        case CS6:
            bits += 6;
            break;
        case CS7:
            bits += 7;
            break;
        default:
            bits += 8;
            break;
    }
    bits += (t.c_cflag & PARENB) != 0 ? 1 : 0;
    bits += (t.c_cflag & CSTOPB) != 0 ? 2 : 1;
    static constexpr std::pair<speed_t, int> kRates[] = {
        {B1200, 1200},     {B2400, 2400},     {B4800, 4800},     {B9600, 9600},
        {B19200, 19200},   {B38400, 38400},   {B57600, 57600},   {B115200, 115200},
        {B230400, 230400}, {B460800, 460800}, {B921600, 921600},
    };
    const speed_t speed = cfgetospeed(&t);
    int baud = 9600;
    for (const auto& [code, rate] : kRates) {
        if (code == speed) {
            baud = rate;
        }
    }
    return bits / static_cast<double>(baud);
}

// Bytes on their way across the line, and when they were put on it.
struct InTransit {
    double at;
    std::string bytes;
};

struct Link {
    std::string name;
    LinkDevice* device = nullptr;
    int master = -1;
    int slave = -1;  // kept open so the master never sees a hang-up while the engine is away
    std::string slavePath;
    double charSeconds = 10.0 / 9600;
    // Engine to device: each write arrives whole once its last character has crossed the line.
    std::deque<InTransit> inbound;
    double inboundFreeAt = 0;
    // Device to engine: the characters come out one character time after another.
    std::deque<InTransit> outbound;
    std::size_t outboundSent = 0;  // characters of outbound.front() already on the line
    double outboundFreeAt = 0;
    std::string pendingOut;  // arrived, but the pseudo-terminal would not take them yet
    FrameLog wire;           // what crossed the line, both directions, with when
    int watch = -1;          // inotify watch on the engine's end
    int engineOpens = 0;     // how many descriptors of the engine's end others hold open
    termios made{};          // the line settings it was made with
    bool haveMade = false;
};

struct Client {
    int fd;
    std::string input;
};

}  // namespace

struct PtyKiosk::Impl {
    std::string dir;
    KioskProfile profile;
    std::chrono::steady_clock::time_point epoch = std::chrono::steady_clock::now();
    std::mutex mutex;
    KioskModels models;
    std::vector<Link> links;
    int listenFd = -1;
    int notifyFd = -1;  // opens and closes of the engine's ends
    int wake[2] = {-1, -1};
    std::vector<Client> clients;
    std::thread thread;
    std::atomic<bool> quit{false};
    bool started = false;
    bool createdDir = false;
    std::vector<std::string> createdPaths;
    std::FILE* wireRecord = nullptr;

    Impl(std::string d, const KioskProfile& p)
        : dir(std::move(d)), profile(p), models(p, [this] { return now(); }) {}

    double now() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - epoch).count();
    }

    void openLink(const std::string& name, LinkDevice& device);
    void openSocket();
    void watchEngineEnds();
    void serviceNotifications();
    void run();
    void serviceLink(Link& link, double t);
    double nextWake(const Link& link, double t) const;
    void putOnLine(Link& link, double t);
    void flush(Link& link);
    void recordWire(Link& link);
    void acceptClients();
    bool serviceClient(Client& c);
    void cleanUp();
};

void PtyKiosk::Impl::openLink(const std::string& name, LinkDevice& device) {
    Link link;
    link.name = name;
    link.inboundFreeAt = link.outboundFreeAt = now();
    link.device = &device;
    link.master = posix_openpt(O_RDWR | O_NOCTTY);
    if (link.master < 0 || grantpt(link.master) != 0 || unlockpt(link.master) != 0) {
        if (link.master >= 0) {
            ::close(link.master);
        }
        throw std::runtime_error(errnoText("cannot create a pseudo-terminal for " + name));
    }
    const char* slaveName = ptsname(link.master);
    link.slavePath = slaveName != nullptr ? slaveName : "";
    link.slave = ::open(link.slavePath.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (link.slave < 0) {
        ::close(link.master);
        throw std::runtime_error(errnoText("cannot open " + link.slavePath));
    }
    makeRaw(link.slave);
    makeRaw(link.master);
    link.haveMade = tcgetattr(link.slave, &link.made) == 0;
    setNonBlocking(link.master);
    links.push_back(std::move(link));

    const std::string path = dir + "/" + name;
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0) {
        if (!S_ISLNK(st.st_mode)) {
            throw std::runtime_error(path + " exists and is not a link");
        }
        ::unlink(path.c_str());  // a link left by a simulator that did not end cleanly
    }
    if (::symlink(links.back().slavePath.c_str(), path.c_str()) != 0) {
        throw std::runtime_error(errnoText("cannot create " + path));
    }
    createdPaths.push_back(path);
}

// The pseudo-terminal keeps its line settings for as long as any descriptor of it is open, and
// the simulator keeps one open: an engine that ended without restoring its settings (killed, or
// crashed) would leave them for the next one, whose open then fails when the kernel refuses the
// change from there (Linux takes even parity on a pseudo-terminal only as part of a change it
// accepts, and refuses it as the only change). So whenever the last engine-side descriptor of a
// line closes, the line goes back to the settings it was made with.
void PtyKiosk::Impl::watchEngineEnds() {
    notifyFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (notifyFd < 0) {
        return;  // no inotify: lines keep what an engine set
    }
    for (Link& l : links) {
        l.watch = inotify_add_watch(notifyFd, l.slavePath.c_str(),
                                    IN_OPEN | IN_CLOSE_WRITE | IN_CLOSE_NOWRITE);
    }
}

void PtyKiosk::Impl::serviceNotifications() {
    alignas(inotify_event) char buf[4096];
    for (;;) {
        const ssize_t n = ::read(notifyFd, buf, sizeof buf);
        if (n <= 0) {
            return;
        }
        for (ssize_t at = 0; at < n;) {
            const auto* e = reinterpret_cast<const inotify_event*>(buf + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
            for (Link& l : links) {
                if (l.watch != e->wd) {
                    continue;
                }
                if ((e->mask & IN_OPEN) != 0) {
                    ++l.engineOpens;
                } else if ((e->mask & (IN_CLOSE_WRITE | IN_CLOSE_NOWRITE)) != 0 &&
                           --l.engineOpens <= 0) {
                    l.engineOpens = 0;
                    if (l.haveMade) {
                        tcsetattr(l.slave, TCSANOW, &l.made);
                    }
                    tcflush(l.slave, TCIOFLUSH);
                    l.pendingOut.clear();
                }
            }
        }
    }
}

void PtyKiosk::Impl::openSocket() {
    const std::string path = dir + "/control";
    sockaddr_un addr{};
    if (!fillAddress(path, addr)) {
        throw std::runtime_error("the directory path is too long for a control socket: " + path);
    }
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0) {
        std::string ignored;
        if (sendControlCommand(dir, "help", ignored, 1.0) != kControlNoSimulator) {
            throw std::runtime_error("a simulator already runs in " + dir);
        }
        ::unlink(path.c_str());
    }
    listenFd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (listenFd < 0 || ::bind(listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        throw std::runtime_error(errnoText("cannot open the control socket " + path));
    }
    createdPaths.push_back(path);
    // Only the user may connect. Nobody can connect before listen(), so there is no moment when
    // the socket is open to others.
    if (::chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0 || ::listen(listenFd, 8) != 0) {
        throw std::runtime_error(errnoText("cannot open the control socket " + path));
    }
    setNonBlocking(listenFd);
}

void PtyKiosk::Impl::flush(Link& link) {
    while (!link.pendingOut.empty()) {
        const ssize_t n = ::write(link.master, link.pendingOut.data(), link.pendingOut.size());
        if (n <= 0) {
            break;  // the engine side is not reading; the loop waits until it can write again
        }
        link.pendingOut.erase(0, static_cast<std::size_t>(n));
    }
    if (link.pendingOut.size() > kMaxPendingOut) {
        link.pendingOut.erase(0, link.pendingOut.size() - kMaxPendingOut);
    }
}

// Hands the engine every character whose time on the line is over by `t`.
void PtyKiosk::Impl::putOnLine(Link& link, double t) {
    while (!link.outbound.empty()) {
        const InTransit& chunk = link.outbound.front();
        const double arrives = std::max(chunk.at, link.outboundFreeAt) + link.charSeconds;
        if (arrives > t) {
            break;
        }
        link.pendingOut += chunk.bytes[link.outboundSent];
        link.outboundFreeAt = arrives;
        if (++link.outboundSent == chunk.bytes.size()) {
            link.outbound.pop_front();
            link.outboundSent = 0;
        }
    }
    flush(link);
}

void PtyKiosk::Impl::serviceLink(Link& link, double t) {
    char buf[4096];
    for (;;) {
        const ssize_t n = ::read(link.master, buf, sizeof buf);
        if (n <= 0) {
            break;
        }
        // The engine may have changed the line's settings since its last write.
        link.charSeconds = characterSeconds(link.slave);
        const auto count = static_cast<std::size_t>(n);
        const double arrives =
            std::max(t, link.inboundFreeAt) + static_cast<double>(count) * link.charSeconds;
        link.inboundFreeAt = arrives;
        link.inbound.push_back({arrives, std::string(buf, count)});
    }
    while (!link.inbound.empty() && link.inbound.front().at <= t) {
        const InTransit chunk = std::move(link.inbound.front());
        link.inbound.pop_front();
        link.wire.add(chunk.at, FrameLog::Direction::ToDevice, hexBytes(chunk.bytes));
        link.device->receive(chunk.bytes, chunk.at);
    }
    std::string out = link.device->transmit(t);
    if (!out.empty()) {
        link.wire.add(t, FrameLog::Direction::FromDevice, hexBytes(out));
        link.outbound.push_back({t, std::move(out)});
    }
    putOnLine(link, t);
}

// When the link next needs the loop: a write reaching the device, the device's next answer, the
// next character of an answer reaching the engine.
double PtyKiosk::Impl::nextWake(const Link& link, double t) const {
    double next = link.device->nextOutputAt(t);
    if (!link.inbound.empty()) {
        next = std::min(next, link.inbound.front().at);
    }
    if (!link.outbound.empty()) {
        next = std::min(next,
                        std::max(link.outbound.front().at, link.outboundFreeAt) + link.charSeconds);
    }
    return next;
}

void PtyKiosk::Impl::recordWire(Link& link) {
    if (wireRecord == nullptr) {
        return;
    }
    // Times on the steady clock's own scale, so they line up with other programs' records.
    const double base = std::chrono::duration<double>(epoch.time_since_epoch()).count();
    link.wire.setSink([this, base, name = link.name, &link](const FrameLog::Entry& e) {
        std::fprintf(wireRecord, "%.6f %s %s %.9f %s\n", base + e.time, name.c_str(),
                     e.direction == FrameLog::Direction::ToDevice ? ">" : "<", link.charSeconds,
                     e.hex.c_str());
    });
}

void PtyKiosk::Impl::acceptClients() {
    for (;;) {
        const int fd = ::accept(listenFd, nullptr, nullptr);
        if (fd < 0) {
            return;
        }
        setNonBlocking(fd);
        clients.push_back({fd, {}});
    }
}

// False when the client is done with (answered or gone).
bool PtyKiosk::Impl::serviceClient(Client& c) {
    char buf[1024];
    for (;;) {
        const ssize_t n = ::recv(c.fd, buf, sizeof buf, 0);
        if (n == 0) {
            break;  // the client finished writing
        }
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                if (c.input.find('\n') == std::string::npos) {
                    return true;  // the rest of the line is still coming
                }
                break;
            }
            return false;
        }
        c.input.append(buf, static_cast<std::size_t>(n));
        if (c.input.size() > kMaxCommandBytes) {
            sendAll(c.fd, "REJECTED\ncommand too long\n");
            return false;
        }
    }
    const std::string line = c.input.substr(0, c.input.find('\n'));
    ControlResult r;
    {
        std::lock_guard lock(mutex);
        r = models.command(line);
    }
    std::string text = r.text;
    if (!text.empty() && text.back() != '\n') {
        text += '\n';
    }
    sendAll(c.fd, (r.ok ? "OK\n" : r.usage ? "USAGE\n" : "REJECTED\n") + text);
    return false;
}

void PtyKiosk::Impl::run() {
    while (!quit.load()) {
        std::vector<pollfd> fds;
        fds.push_back({wake[0], POLLIN, 0});
        fds.push_back({listenFd, POLLIN, 0});
        double next = LinkDevice::kNever;
        {
            std::lock_guard lock(mutex);
            const double t = now();
            for (const Link& l : links) {
                const short events = l.pendingOut.empty() ? POLLIN : POLLIN | POLLOUT;
                fds.push_back({l.master, events, 0});
                next = std::min(next, nextWake(l, t));
            }
            next -= t;
        }
        for (const Client& c : clients) {
            fds.push_back({c.fd, POLLIN, 0});
        }
        fds.push_back({notifyFd, POLLIN, 0});  // last: a negative descriptor is skipped
        // Asleep until the engine writes, a client calls, or the next thing a model or the line
        // has scheduled is due: an idle kiosk costs nothing.
        timespec timeout{};
        const timespec* wait = nullptr;
        if (std::isfinite(next)) {
            const double seconds = std::clamp(next, 0.0, kLongestSleepSeconds);
            timeout.tv_sec = static_cast<time_t>(seconds);
            timeout.tv_nsec =
                static_cast<long>((seconds - static_cast<double>(timeout.tv_sec)) * 1e9);
            wait = &timeout;
        }
        ::ppoll(fds.data(), fds.size(), wait, nullptr);
        if ((fds[0].revents & POLLIN) != 0) {
            break;
        }
        if ((fds.back().revents & POLLIN) != 0) {
            serviceNotifications();
        }
        fds.pop_back();
        {
            std::lock_guard lock(mutex);
            const double t = now();
            for (Link& l : links) {
                serviceLink(l, t);
            }
        }
        if ((fds[1].revents & POLLIN) != 0) {
            acceptClients();
        }
        for (std::size_t i = 0; i < clients.size();) {
            const pollfd& p =
                fds.size() > 2 + links.size() + i ? fds[2 + links.size() + i] : pollfd{-1, 0, 0};
            if (p.fd == clients[i].fd && p.revents != 0 && !serviceClient(clients[i])) {
                ::close(clients[i].fd);
                clients.erase(clients.begin() + static_cast<long>(i));
                fds.erase(fds.begin() + static_cast<long>(2 + links.size() + i));
                continue;
            }
            ++i;
        }
    }
}

void PtyKiosk::Impl::cleanUp() {
    for (Client& c : clients) {
        ::close(c.fd);
    }
    clients.clear();
    if (listenFd >= 0) {
        ::close(listenFd);
        listenFd = -1;
    }
    if (notifyFd >= 0) {
        ::close(notifyFd);
        notifyFd = -1;
    }
    for (Link& l : links) {
        ::close(l.master);
        ::close(l.slave);
    }
    links.clear();
    for (int& fd : wake) {
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }
    if (wireRecord != nullptr) {
        std::fclose(wireRecord);
        wireRecord = nullptr;
    }
    for (const std::string& p : createdPaths) {
        ::unlink(p.c_str());
    }
    createdPaths.clear();
    if (createdDir) {
        ::rmdir(dir.c_str());  // only when nothing else has been put there
        createdDir = false;
    }
}

PtyKiosk::PtyKiosk(std::string dir, const KioskProfile& profile)
    : m_impl(std::make_unique<Impl>(std::move(dir), profile)) {}

PtyKiosk::~PtyKiosk() {
    stop();
}

void PtyKiosk::start() {
    Impl& d = *m_impl;
    if (d.started) {
        return;
    }
    if (::mkdir(d.dir.c_str(), S_IRWXU) == 0) {
        d.createdDir = true;
    } else if (errno != EEXIST) {
        throw std::runtime_error(errnoText("cannot create " + d.dir));
    }
    try {
        refuseSharedDirectory(d.dir);
        if (::pipe(d.wake) != 0) {
            throw std::runtime_error(errnoText("cannot create a pipe"));
        }
        d.openSocket();
        d.openLink("mdb", d.models.mdbLink());
        d.openLink("dispenser", d.models.dispenserLink());
        d.openLink("hoppers", d.models.hoppersLink());
        if (const char* record = std::getenv("KSX_SIM_WIRE_LOG"); record != nullptr && *record) {
            d.wireRecord = std::fopen(record, "w");
            if (d.wireRecord == nullptr) {
                throw std::runtime_error(errnoText(std::string("cannot write ") + record));
            }
            for (Link& l : d.links) {
                d.recordWire(l);
            }
        }
        d.watchEngineEnds();
    } catch (...) {
        d.cleanUp();
        throw;
    }
    d.quit = false;
    d.thread = std::thread([&d] { d.run(); });
    d.started = true;
}

void PtyKiosk::stop() {
    Impl& d = *m_impl;
    if (!d.started) {
        return;
    }
    d.quit = true;
    const char byte = 'q';
    [[maybe_unused]] const ssize_t n = ::write(d.wake[1], &byte, 1);
    d.thread.join();
    d.cleanUp();
    d.started = false;
}

bool PtyKiosk::running() const {
    return m_impl->started;
}

ControlResult PtyKiosk::command(std::string_view line) {
    std::lock_guard lock(m_impl->mutex);
    return m_impl->models.command(line);
}

const std::string& PtyKiosk::dir() const {
    return m_impl->dir;
}

std::string PtyKiosk::path(std::string_view name) const {
    return m_impl->dir + "/" + std::string(name);
}

int sendControlCommand(const std::string& dir, const std::string& command, std::string& answer,
                       double timeoutSeconds) {
    const std::string path = dir + "/control";
    sockaddr_un addr{};
    answer.clear();
    if (!fillAddress(path, addr)) {
        answer = "no simulator answers at " + dir + " (path too long)";
        return kControlNoSimulator;
    }
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        if (fd >= 0) {
            ::close(fd);
        }
        answer = "no simulator answers at " + dir;
        return kControlNoSimulator;
    }
    sendAll(fd, command + "\n");
    ::shutdown(fd, SHUT_WR);
    std::string reply;
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
    char buf[4096];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            break;
        }
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) {
            break;
        }
        const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) {
            break;
        }
        reply.append(buf, static_cast<std::size_t>(n));
    }
    ::close(fd);
    const std::size_t eol = reply.find('\n');
    const std::string status = reply.substr(0, eol);
    answer = eol == std::string::npos ? std::string() : reply.substr(eol + 1);
    if (status == "OK") {
        return kControlAccepted;
    }
    if (status == "REJECTED") {
        return kControlRejected;
    }
    if (status == "USAGE") {
        return kControlUsage;
    }
    answer = "no simulator answers at " + dir;
    return kControlNoSimulator;
}

}  // namespace kestrix::sim
