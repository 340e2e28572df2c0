#include "mqtt_rig.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "support/support.h"

namespace kestrix::test {

namespace {

// Binds (port 0: the system picks) or connects a TCP socket on the loopback; its port, or -1.
int onLoopback(int port, bool connect) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    socklen_t len = sizeof addr;
    auto* a = reinterpret_cast<sockaddr*>(&addr);
    const bool ok = connect ? ::connect(fd, a, len) == 0
                            : ::bind(fd, a, len) == 0 && ::getsockname(fd, a, &len) == 0;
    ::close(fd);
    return ok ? ntohs(addr.sin_port) : -1;
}

}  // namespace

Broker::Broker(int port, const Tls* tls, const std::string& user, const std::string& password)
    : m_dir(makeTempDir("ksx-broker")), m_port(port != 0 ? port : onLoopback(0, false)) {
    const passwd* me = ::getpwuid(::getuid());
    std::ofstream conf(m_dir + "/mosquitto.conf");
    // As root, mosquitto would drop to a "mosquitto" user that cannot read the test's files.
    conf << "user " << (me != nullptr ? me->pw_name : "root") << "\n"
         << "per_listener_settings true\n"
         << "persistence false\n"
         << "listener " << m_port << " 127.0.0.1\n"
         << "allow_anonymous true\n";
    if (tls != nullptr) {
        m_tlsPort = onLoopback(0, false);  // a port nobody listens on just now
        const std::string passwordFile = m_dir + "/passwords";
        const RunResult r =
            run("/usr/bin/mosquitto_passwd", {"-b", "-c", passwordFile, user, password});
        if (r.status != 0) {
            throw std::runtime_error("mosquitto_passwd: " + r.err);
        }
        // Every interface, so that "localhost" answers whether it resolves to IPv4 or IPv6.
        conf << "listener " << m_tlsPort << "\n"
             << "cafile " << tls->certFile << "\ncertfile " << tls->certFile << "\nkeyfile "
             << tls->keyFile << "\n"
             << "allow_anonymous false\npassword_file " << passwordFile << "\n";
    }
    conf.close();
    m_process = std::make_unique<ChildProcess>(
        "/usr/sbin/mosquitto", std::vector<std::string>{"-c", m_dir + "/mosquitto.conf"});
    const bool up =
        eventually([this] { return onLoopback(m_port, true) >= 0; }, std::chrono::seconds(10));
    if (!up) {
        throw std::runtime_error("mosquitto did not start: " + m_process->err());
    }
}

Broker::Tls makeTestCertificate(const std::string& dir, const std::string& name) {
    const Broker::Tls t{dir + "/" + name + ".crt", dir + "/" + name + ".key"};
    const RunResult r =
        run("/usr/bin/openssl",
            {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
             "-keyout", t.keyFile, "-out", t.certFile, "-days", "2", "-subj", "/CN=localhost",
             "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1"});
    if (r.status != 0) {
        throw std::runtime_error("openssl: " + r.err);
    }
    return t;
}

Subscriber::Subscriber(int port)
    : m_client("/usr/bin/mosquitto_sub", {"-h", "127.0.0.1", "-p", std::to_string(port), "-q", "1",
                                          "-v", "-t", "kestrix/#"}) {
    // A round trip through the broker: once a message of its own arrives, the subscription is in
    // place.
    const bool subscribed = eventually(
        [this, port] {
            run("/usr/bin/mosquitto_pub",
                {"-h", "127.0.0.1", "-p", std::to_string(port), "-t", "kestrix/probe", "-m", "x"});
            return !messages("kestrix/probe").empty();
        },
        std::chrono::seconds(10));
    if (!subscribed) {
        throw std::runtime_error("subscriber did not get its subscription: " + m_client.err());
    }
}

// One "topic payload" line a message; a line still being written is left for the next look.
std::vector<Subscriber::Message> Subscriber::messages(const std::string& topic) const {
    std::vector<Message> out;
    std::istringstream lines(m_client.out());
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
        if (line.rfind(topic + " ", 0) == 0) {
            out.push_back({topic, line.substr(topic.size() + 1)});
        }
    }
    return out;
}

std::optional<Subscriber::Message> Subscriber::waitFor(
    const std::string& topic, const std::function<bool(const Message&)>& accept,
    std::chrono::milliseconds timeout) {
    std::optional<Message> found;
    eventually(
        [&] {
            const std::vector<Message> all = messages(topic);
            if (!all.empty() && accept(all.back())) {
                found = all.back();
            }
            return found.has_value();
        },
        timeout);
    return found;
}

}  // namespace kestrix::test
