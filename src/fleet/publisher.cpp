#include "publisher.h"

#include <fcntl.h>
#include <mosquitto.h>
#include <signal.h>
#include <unistd.h>

#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "engine/platform/journal.h"
#include "messages.h"

namespace kestrix::fleet {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kQos = 1;
constexpr std::string_view kOnline = "true";
constexpr std::string_view kOffline = "false";
// How often the acknowledged-up-to marker is written while events flow.
constexpr auto kMarkerSaveInterval = std::chrono::seconds(1);
constexpr auto kFirstRetryWait = std::chrono::seconds(1);

void initLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

}  // namespace

std::optional<std::int64_t> readMarker(const std::string& path) {
    std::ifstream in(path);
    std::string text;
    if (!in || !std::getline(in, text)) {
        return std::nullopt;
    }
    std::int64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || value < 0) {
        return std::nullopt;
    }
    return value;
}

bool writeMarker(const std::string& path, std::int64_t sequence) {
    const std::string temp = path + ".new";
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    const std::string text = std::to_string(sequence) + "\n";
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    // The new marker must be on disk before it replaces the old one: a marker lost in a power cut
    // would otherwise restart the events from the journal's end and skip the unsent ones.
    const bool synced = written && ::fsync(fd) == 0;
    ::close(fd);
    return synced && std::rename(temp.c_str(), path.c_str()) == 0;
}

struct Publisher::Core {
    Core(FleetConfig c, std::unique_ptr<EventSource> s, std::string markerFile, Log* l,
         PublisherTiming t)
        : config(std::move(c)),
          source(std::move(s)),
          markerPath(std::move(markerFile)),
          log(l),
          timing(t),
          eventTopic(config.topic("event")),
          stateTopic(config.topic("state")),
          onlineTopic(config.topic("online")),
          requestTopic(config.topic("state/request")) {}

    const FleetConfig config;
    const std::unique_ptr<EventSource> source;
    const std::string markerPath;
    Log* const log;
    const PublisherTiming timing;
    const std::string eventTopic;
    const std::string stateTopic;
    const std::string onlineTopic;
    const std::string requestTopic;

    KioskView view;
    std::thread thread;

    std::mutex mutex;
    std::condition_variable wake;
    bool stopRequested = false;
    bool finished = false;
    std::atomic<bool> isConnected{false};
    std::atomic<std::int64_t> ackedUpTo{0};

    // --- The publisher thread's own state -----------------------------------------------------
    struct Pending {
        std::int64_t sequence;
        int mid;
        bool acknowledged;
    };
    mosquitto* mosq = nullptr;
    bool connectedNow = false;
    bool dropRequested = false;
    std::string dropReason;
    Clock::time_point connectStarted;
    Clock::time_point nextAttempt;
    std::chrono::seconds retryWait = kFirstRetryWait;
    std::string lastProblem;

    bool markerReady = false;
    std::int64_t marker = 0;
    std::int64_t savedMarker = -1;
    Clock::time_point lastMarkerSave;
    std::int64_t readUpTo = 0;
    std::deque<Pending> pending;
    std::set<int> controlMids;  // state and online messages not yet acknowledged

    FaultNotes faults;
    bool faultsChanged = false;
    bool stateRequested = false;
    std::optional<KioskState> lastState;
    Clock::time_point lastStatePublish;

    void run();
    void say(LogLevel level, const std::string& message);
    void problem(const std::string& message);
    bool stopping() {
        std::lock_guard lock(mutex);
        return stopRequested;
    }
    void initMarker();
    void connect();
    void drop(const std::string& why);
    void pump();
    void publishState(bool online, bool force);
    bool publish(const std::string& topic, std::string_view payload, bool retain, int* mid);
    void acknowledge(int mid);
    void saveMarker(bool force);
    void shutdown();

    static void onConnect(mosquitto*, void* obj, int rc);
    static void onDisconnect(mosquitto*, void* obj, int rc);
    static void onPublish(mosquitto*, void* obj, int mid);
    static void onMessage(mosquitto*, void* obj, const mosquitto_message* message);
};

void Publisher::Core::say(LogLevel level, const std::string& message) {
    if (log != nullptr) {
        log->write(level, "fleet: " + message);
        return;
    }
    std::fprintf(stderr, "<%d>fleet: %s\n", static_cast<int>(level), message.c_str());
}

// A connection problem is told once, not at every retry.
void Publisher::Core::problem(const std::string& message) {
    if (message != lastProblem) {
        say(LogLevel::Warning, message);
        lastProblem = message;
    }
}

void Publisher::Core::initMarker() {
    const std::int64_t last = source->lastSequence();
    const std::optional<std::int64_t> kept = readMarker(markerPath);
    if (kept) {
        marker = *kept;
        if (last >= 0 && marker > last) {
            say(LogLevel::Warning, "the journal is shorter than the events already sent (" +
                                       std::to_string(marker) + "): it was replaced; sending " +
                                       "its events from the start");
            marker = 0;
        }
    } else {
        if (last < 0) {
            return;  // the journal cannot be read just now; tried again at the next tick
        }
        // A kiosk that starts publishing sends what happens from now on, not its whole past.
        marker = last;
    }
    readUpTo = marker;
    ackedUpTo = marker;
    markerReady = true;
    saveMarker(true);
    for (const JournalRow& row : source->latestFaultRows()) {
        noteFaultRow(faults, row);
    }
}

void Publisher::Core::connect() {
    mosq = mosquitto_new(("kestrix-" + config.kioskId).c_str(), true, this);
    if (mosq == nullptr) {
        problem("cannot create an MQTT client");
        nextAttempt = Clock::now() + retryWait;
        return;
    }
    mosquitto_int_option(mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
    mosquitto_will_set(mosq, onlineTopic.c_str(), static_cast<int>(kOffline.size()),
                       kOffline.data(), kQos, true);
    if (!config.username.empty()) {
        mosquitto_username_pw_set(mosq, config.username.c_str(),
                                  config.password.empty() ? nullptr : config.password.c_str());
    }
    int rc = MOSQ_ERR_SUCCESS;
    if (config.broker.tls) {
        if (config.caCertificate.empty()) {
            rc = mosquitto_int_option(mosq, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
        } else {
            rc = mosquitto_tls_set(mosq, config.caCertificate.c_str(), nullptr, nullptr, nullptr,
                                   nullptr);
        }
    }
    mosquitto_connect_callback_set(mosq, &Core::onConnect);
    mosquitto_disconnect_callback_set(mosq, &Core::onDisconnect);
    mosquitto_publish_callback_set(mosq, &Core::onPublish);
    mosquitto_message_callback_set(mosq, &Core::onMessage);
    if (rc == MOSQ_ERR_SUCCESS) {
        rc = mosquitto_connect_async(mosq, config.broker.host.c_str(), config.broker.port,
                                     timing.keepaliveSeconds);
    }
    connectStarted = Clock::now();
    if (rc != MOSQ_ERR_SUCCESS) {
        drop(std::string("cannot connect to ") + config.broker.host + ":" +
             std::to_string(config.broker.port) + ": " + mosquitto_strerror(rc));
    }
}

void Publisher::Core::drop(const std::string& why) {
    if (mosq != nullptr) {
        mosquitto_destroy(mosq);
        mosq = nullptr;
    }
    if (connectedNow) {
        say(LogLevel::Warning, "lost the broker (" + why + "); unsent events wait in the journal");
        lastProblem.clear();
    } else {
        problem(why);
    }
    connectedNow = false;
    isConnected = false;
    dropRequested = false;
    dropReason.clear();
    // What was sent and not acknowledged is sent again from the journal after the reconnection.
    pending.clear();
    controlMids.clear();
    readUpTo = marker;
    nextAttempt = Clock::now() + retryWait;
    retryWait = std::min(retryWait * 2, timing.maxRetryWait);
}

void Publisher::Core::onConnect(mosquitto* m, void* obj, int rc) {
    auto* self = static_cast<Core*>(obj);
    if (rc != 0) {
        self->dropReason =
            std::string("the broker refused the connection: ") + mosquitto_connack_string(rc);
        self->dropRequested = true;
        return;
    }
    self->connectedNow = true;
    self->isConnected = true;
    self->retryWait = kFirstRetryWait;
    self->say(LogLevel::Info, "connected to " + self->config.broker.host + ":" +
                                  std::to_string(self->config.broker.port) + " as kiosk " +
                                  self->config.kioskId);
    self->lastProblem.clear();
    int mid = 0;
    self->publish(self->onlineTopic, kOnline, true, &mid);
    mosquitto_subscribe(m, nullptr, self->requestTopic.c_str(), kQos);
    self->stateRequested = true;
    self->lastStatePublish = {};
}

void Publisher::Core::onDisconnect(mosquitto*, void* obj, int) {
    static_cast<Core*>(obj)->dropRequested = true;
}

void Publisher::Core::onPublish(mosquitto*, void* obj, int mid) {
    static_cast<Core*>(obj)->acknowledge(mid);
}

void Publisher::Core::onMessage(mosquitto*, void* obj, const mosquitto_message* message) {
    auto* self = static_cast<Core*>(obj);
    if (message != nullptr && message->topic != nullptr && self->requestTopic == message->topic) {
        self->stateRequested = true;
    }
}

bool Publisher::Core::publish(const std::string& topic, std::string_view payload, bool retain,
                              int* mid) {
    const int rc = mosquitto_publish(mosq, mid, topic.c_str(), static_cast<int>(payload.size()),
                                     payload.data(), kQos, retain);
    if (rc != MOSQ_ERR_SUCCESS) {
        dropRequested = true;
        return false;
    }
    if (topic != eventTopic) {
        controlMids.insert(*mid);
    }
    return true;
}

void Publisher::Core::acknowledge(int mid) {
    if (controlMids.erase(mid) > 0) {
        return;
    }
    for (Pending& p : pending) {
        if (p.mid == mid) {
            p.acknowledged = true;
            break;
        }
    }
    while (!pending.empty() && pending.front().acknowledged) {
        pending.pop_front();
    }
    marker = pending.empty() ? readUpTo : pending.front().sequence - 1;
    ackedUpTo = marker;
}

void Publisher::Core::pump() {
    if (!markerReady) {
        return;
    }
    while (connectedNow && !dropRequested && pending.size() < timing.maxInFlight) {
        const std::vector<JournalRow> rows =
            source->rowsAfter(readUpTo, timing.maxInFlight - pending.size());
        if (rows.empty()) {
            break;
        }
        for (const JournalRow& row : rows) {
            if (row.kind == journal_kind::kDeviceFault ||
                row.kind == journal_kind::kDeviceRecovered) {
                noteFaultRow(faults, row);
                faultsChanged = true;
            }
            if (isPublishedKind(row.kind)) {
                int mid = 0;
                if (!publish(eventTopic, eventJson(config.kioskId, row), false, &mid)) {
                    return;
                }
                pending.push_back({row.sequence, mid, false});
            }
            readUpTo = row.sequence;
        }
        if (pending.empty()) {
            marker = readUpTo;
            ackedUpTo = marker;
        }
    }
}

void Publisher::Core::publishState(bool online, bool force) {
    const Clock::time_point now = Clock::now();
    const bool wanted = force || stateRequested || faultsChanged || !lastState;
    if (!force && now - lastStatePublish < timing.stateInterval) {
        return;
    }
    std::optional<KioskState> state = view.takeState(wanted);
    if (!state || (!wanted && *state == *lastState)) {
        return;
    }
    int mid = 0;
    if (publish(stateTopic, stateJson(config, *state, faults, online, wallTimeMsNow()), true,
                &mid)) {
        lastState = std::move(state);
        lastStatePublish = now;
        stateRequested = false;
        faultsChanged = false;
    }
}

void Publisher::Core::saveMarker(bool force) {
    if (!markerReady || marker == savedMarker) {
        return;
    }
    const Clock::time_point now = Clock::now();
    if (!force && now - lastMarkerSave < kMarkerSaveInterval) {
        return;
    }
    lastMarkerSave = now;
    if (writeMarker(markerPath, marker)) {
        savedMarker = marker;
    } else {
        problem("cannot write " + markerPath);
    }
}

void Publisher::Core::run() {
    // Signals belong to the engine's threads; a write to a socket the broker closed must come
    // back as an error here, not as a SIGPIPE that ends the process.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    initLibrary();
    const int tickMs = static_cast<int>(timing.tick.count());
    while (!stopping()) {
        if (!markerReady) {
            initMarker();
        }
        if (mosq == nullptr && Clock::now() >= nextAttempt) {
            connect();
        }
        if (mosq != nullptr) {
            const int rc = mosquitto_loop(mosq, tickMs, 1);
            if (dropRequested) {
                drop(dropReason.empty() ? "the broker closed the connection" : dropReason);
            } else if (rc != MOSQ_ERR_SUCCESS) {
                drop(std::string("connection to ") + config.broker.host + ":" +
                     std::to_string(config.broker.port) + ": " + mosquitto_strerror(rc));
            } else if (!connectedNow && Clock::now() - connectStarted > timing.connectTimeout) {
                drop("no answer from " + config.broker.host + ":" +
                     std::to_string(config.broker.port));
            }
        } else {
            std::unique_lock lock(mutex);
            wake.wait_for(lock, timing.tick, [this] { return stopRequested; });
        }
        if (connectedNow) {
            pump();
            publishState(true, false);
        }
        saveMarker(false);
    }
    shutdown();
    std::lock_guard lock(mutex);
    finished = true;
    wake.notify_all();
}

void Publisher::Core::shutdown() {
    if (mosq != nullptr && connectedNow) {
        pump();
        publishState(false, true);
        int mid = 0;
        publish(onlineTopic, kOffline, true, &mid);
        const Clock::time_point deadline = Clock::now() + timing.stopGrace;
        while (connectedNow && !dropRequested && (!pending.empty() || !controlMids.empty()) &&
               Clock::now() < deadline) {
            if (mosquitto_loop(mosq, 50, 1) != MOSQ_ERR_SUCCESS) {
                break;
            }
        }
        mosquitto_disconnect(mosq);
        mosquitto_loop(mosq, 50, 1);
    }
    if (mosq != nullptr) {
        mosquitto_destroy(mosq);
        mosq = nullptr;
    }
    saveMarker(true);
}

Publisher::Publisher(FleetConfig config, std::unique_ptr<EventSource> source,
                     std::string markerPath, Log* log, PublisherTiming timing)
    : m_core(std::make_shared<Core>(std::move(config), std::move(source), std::move(markerPath),
                                    log, timing)) {}

Publisher::~Publisher() {
    stop();
}

KioskView& Publisher::view() {
    return m_core->view;
}

void Publisher::start() {
    if (m_core->thread.joinable()) {
        return;
    }
    // The thread keeps the core alive: a thread stuck in a name lookup at stop is left to end on
    // its own.
    m_core->thread = std::thread([core = m_core] { core->run(); });
}

void Publisher::stop() {
    Core& core = *m_core;
    if (!core.thread.joinable()) {
        return;
    }
    std::unique_lock lock(core.mutex);
    core.stopRequested = true;
    core.wake.notify_all();
    const bool ended = core.wake.wait_for(lock, core.timing.stopGrace + std::chrono::seconds(1),
                                          [&core] { return core.finished; });
    lock.unlock();
    if (ended) {
        core.thread.join();
    } else {
        core.thread.detach();
    }
}

bool Publisher::connected() const {
    return m_core->isConnected;
}

std::int64_t Publisher::acknowledged() const {
    return m_core->ackedUpTo;
}

}  // namespace kestrix::fleet
