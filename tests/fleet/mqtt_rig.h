#pragma once

// A real mosquitto broker for the fleet tests, and a subscriber on it.

#include <QJsonDocument>
#include <QJsonObject>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/process.h"

namespace kestrix::test {

// A mosquitto broker on a port of its own, killed with the test.
class Broker {
public:
    // A self-signed certificate for "localhost", which clients trust as their CA, and its key.
    struct Tls {
        std::string certFile;
        std::string keyFile;
    };
    // A plain listener for anyone on `port` (0: a free one); with `tls`, a second listener
    // (tlsPort) that asks for TLS and `user` with `password`.
    explicit Broker(int port = 0, const Tls* tls = nullptr, const std::string& user = {},
                    const std::string& password = {});
    int port() const { return m_port; }
    int tlsPort() const { return m_tlsPort; }
    std::string url() const { return "mqtt://127.0.0.1:" + std::to_string(m_port); }

private:
    std::string m_dir;
    int m_port = 0;
    int m_tlsPort = 0;
    std::unique_ptr<ChildProcess> m_process;
};

// Made with openssl in `dir`.
Broker::Tls makeTestCertificate(const std::string& dir, const std::string& name);

// mosquitto_sub on the broker's plain port, keeping every message under "kestrix/" (retained ones
// included) in its output.
class Subscriber {
public:
    struct Message {
        std::string topic;
        std::string payload;
        QJsonObject json() const {
            return QJsonDocument::fromJson(QByteArray::fromStdString(payload)).object();
        }
    };
    explicit Subscriber(int port);

    std::vector<Message> messages(const std::string& topic) const;
    // The last message on `topic` once `accept` holds for it, within `timeout`.
    std::optional<Message> waitFor(const std::string& topic,
                                   const std::function<bool(const Message&)>& accept,
                                   std::chrono::milliseconds timeout);

private:
    ChildProcess m_client;
};

}  // namespace kestrix::test
