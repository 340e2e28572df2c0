#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "config.h"
#include "engine/platform/log.h"
#include "event_source.h"
#include "kiosk_view.h"

namespace kestrix::fleet {

struct PublisherTiming {
    // How often the publisher's thread looks at the journal and the kiosk view.
    std::chrono::milliseconds tick{250};
    // At most one `state` message per interval; changes in between are coalesced.
    std::chrono::milliseconds stateInterval{1000};
    // A connection (TCP, TLS, MQTT CONNACK) not made within this is given up and tried again.
    std::chrono::seconds connectTimeout{10};
    // Waits between connection attempts double from one second up to this.
    std::chrono::seconds maxRetryWait{10};
    // MQTT keepalive: a broker that falls silent is pinged after this, and given up when it has
    // not answered one more of it later.
    int keepaliveSeconds = 30;
    // Events sent and not yet acknowledged at once.
    std::size_t maxInFlight = 32;
    // What a stopping engine waits for its last messages to be acknowledged.
    std::chrono::milliseconds stopGrace{2000};
};

// The acknowledged-up-to marker: the highest journal sequence up to which every published row has
// been acknowledged by the broker. Kept in a small file, replaced atomically, so that a restart
// neither loses nor (beyond the last second's) repeats events.
std::optional<std::int64_t> readMarker(const std::string& path);
bool writeMarker(const std::string& path, std::int64_t sequence);

// The fleet telemetry publisher. Runs on a thread of its own with its own MQTT connection
// (libmosquitto): the engine thread only feeds the KioskView, and the events come from the
// journal, so a slow, absent or refusing broker never delays the engine.
//
// Topics, under kestrix/<KioskId>/: `online` ("true", retained; the broker's last will sets
// "false"), `state` (retained JSON, on every change, at most once per stateInterval), `event`
// (one JSON message per published journal row, QoS 1, in sequence order). It subscribes to
// `state/request` alone: a message there makes it publish a fresh state. Nothing received
// ever reaches the engine.
class Publisher {
public:
    // `markerPath`: where the acknowledged-up-to marker is kept. `log`: may be null (then lines go
    // to standard error with "<N>" priority prefixes). The log must be safe to call from the
    // publisher's thread.
    Publisher(FleetConfig config, std::unique_ptr<EventSource> source, std::string markerPath,
              Log* log = nullptr, PublisherTiming timing = {});
    ~Publisher();
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    // What the engine thread feeds.
    KioskView& view();

    void start();
    // Publishes a last state and `online` "false", waits up to stopGrace for acknowledgements,
    // disconnects and ends the thread. Returns within stopGrace plus a second even when the
    // broker or the name lookup hangs (the thread is then left to end on its own).
    void stop();

    // For tests and diagnostics.
    bool connected() const;
    std::int64_t acknowledged() const;

private:
    struct Core;
    std::shared_ptr<Core> m_core;
};

}  // namespace kestrix::fleet
