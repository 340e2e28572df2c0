// The fleet publisher against a real mosquitto broker: events from the journal, the retained state
// from the engine's console, the outbox through a broker outage and a restart, the last will, TLS
// with a user name and password.

#include <gtest/gtest.h>
#include <signal.h>

#include <QJsonArray>

#include <filesystem>
#include <sstream>
#include <thread>

#include "e2e/simulated_kiosk.h"
#include "engine/platform/journal.h"
#include "fleet/config.h"
#include "fleet/journal_file_source.h"
#include "fleet/messages.h"
#include "fleet/publisher.h"
#include "mqtt_rig.h"
#include "platform_qt/sqlite_journal.h"
#include "platform_qt/stderr_log.h"
#include "sim/world/virtual_kiosk.h"
#include "support/support.h"

namespace kestrix {
namespace {

using namespace std::chrono_literals;
using fleet::JournalRow;
using test::Broker;
using test::Subscriber;

fleet::FleetConfig configFor(const std::string& host, int port, const std::string& kioskId) {
    fleet::FleetConfig c;
    c.enabled = true;
    c.broker = {false, host, port};
    c.kioskId = kioskId;
    c.engineVersion = "5.0.0";
    return c;
}

// A journal file written as the engine writes it, read by each publisher as the fleet reads it.
struct TestJournal {
    std::string path = test::makeTempDir("ksx-fleet") + "/KSX-journal.db";
    qt::SqliteJournal file{path, qt::SqliteJournal::Mode::Engine};
    std::int64_t append(const JournalEntry& e) { return file.append(e); }
};

// A publisher on the test's journal that ticks, states and retries quickly.
fleet::Publisher publisherFor(const fleet::FleetConfig& config, const TestJournal& journal,
                              const std::string& marker, Log* log = nullptr) {
    fleet::PublisherTiming quick;
    quick.tick = 50ms;
    quick.stateInterval = 100ms;
    quick.maxRetryWait = 2s;
    return fleet::Publisher(config, std::make_unique<fleet::JournalFileSource>(journal.path),
                            marker, log, quick);
}

// Whether the broker comes to say `kiosk` is on line (or off line).
bool markedOnline(Subscriber& sub, const std::string& kiosk, bool online,
                  std::chrono::milliseconds timeout = 10s) {
    const std::string payload = online ? "true" : "false";
    return sub
        .waitFor(
            "kestrix/" + kiosk + "/online", [&](auto& m) { return m.payload == payload; }, timeout)
        .has_value();
}

JournalEntry paymentEnd(std::int64_t creditMinor) {
    return {.kind = journal_kind::kPaymentEnd,
            .paymentId = creditMinor,
            .amount = Money::fromMinor(creditMinor),
            .detail = "Payment Completed"};
}

// The sequence numbers of the events received, in order of arrival, each once.
std::vector<std::int64_t> firstArrivals(const Subscriber& sub, const std::string& topic) {
    std::vector<std::int64_t> seen;
    for (const auto& m : sub.messages(topic)) {
        const auto seq = static_cast<std::int64_t>(m.json()["seq"].toDouble());
        if (std::find(seen.begin(), seen.end(), seq) == seen.end()) {
            seen.push_back(seq);
        }
    }
    return seen;
}

TEST(FleetConfig, BrokerAddresses) {
    struct Row {
        const char* url;
        std::optional<fleet::BrokerAddress> expected;
    };
    const Row rows[] = {
        {"mqtt://broker.example", fleet::BrokerAddress{false, "broker.example", 1883}},
        {"mqtts://broker.example", fleet::BrokerAddress{true, "broker.example", 8883}},
        {"mqtt://10.0.0.5:1884/", fleet::BrokerAddress{false, "10.0.0.5", 1884}},
        {"mqtts://[::1]:8884", fleet::BrokerAddress{true, "::1", 8884}},
        {"broker.example:1883", std::nullopt},
        {"mqtt://", std::nullopt},
        {"mqtt://host:", std::nullopt},
        {"mqtt://host:0", std::nullopt},
        {"mqtt://host:65536", std::nullopt},
        {"mqtt://host:12ab", std::nullopt},
        {"mqtt://user@host", std::nullopt},
        {"mqtt://[::1", std::nullopt},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(fleet::parseBroker(r.url), r.expected) << r.url;
    }
}

TEST(FleetConfig, FromTheStore) {
    sim::MemoryStore store;
    EXPECT_FALSE(fleet::readFleetConfig(store, "kiosk-7").config) << "off unless enabled";
    store.set("KSX", "Fleet", "Enabled", "1");
    store.set("KSX", "Fleet", "Broker", "tcp://nowhere");
    const fleet::ConfigResult bad = fleet::readFleetConfig(store, "kiosk-7");
    EXPECT_FALSE(bad.config);
    EXPECT_NE(bad.problem.find("tcp://nowhere"), std::string::npos);
    store.set("KSX", "Fleet", "Broker", "mqtts://fleet.example");
    EXPECT_EQ(fleet::readFleetConfig(store, "kiosk-7").config->kioskId, "kiosk-7");
    store.set("KSX", "Fleet", "KioskId", "north/#1+");
    EXPECT_EQ(fleet::readFleetConfig(store, "kiosk-7").config->topic("state"),
              "kestrix/north__1_/state");
}

// The masking rule is the engine's; what the fleet must do is apply it to every text it sends.
TEST(FleetEvents, CardNumbersLeaveTheKioskMasked) {
    JournalRow r;
    r.detail = "approved 4111111111111111";
    r.raw = "4111111111111111";
    const std::string json = fleet::eventJson("k", r);
    EXPECT_EQ(json.find("4111111111111111"), std::string::npos) << json;
}

// The engine's journal file before the engine created it, and once it has (the publisher tests
// read their events through the file, the table test the faults a restart finds in it).
TEST(FleetJournalFile, ANotYetCreatedJournalIsEmptyUntilItAppears) {
    const std::string path = test::makeTempDir("ksx-journal") + "/KSX-journal.db";
    fleet::JournalFileSource source(path);
    EXPECT_EQ(source.lastSequence(), 0);
    EXPECT_TRUE(source.rowsAfter(0, 10).empty());
    qt::SqliteJournal(path, qt::SqliteJournal::Mode::Engine).append(paymentEnd(1));
    EXPECT_EQ(source.rowsAfter(0, 10).size(), 1u);
}

// The hoppers have no level sensor the engine reads: the state shows what their last dispense
// showed, hopper by hopper.
TEST(FleetState, HopperLevelsFromTheirLastDispense) {
    sim::VirtualKiosk kiosk;
    kiosk.configureAllDevices();
    kestrix::Setup& engine = kiosk.engine();
    fleet::KioskView view;
    engine.console().setChangeListener(
        [&view, &engine](const Field& f) { view.noteField(f, &engine.hoppers()); });
    ASSERT_TRUE(kiosk.start());
    EXPECT_EQ(view.takeState(true)->hoppers[0].level, "unknown");

    kiosk.hopper2().setCoins(0);
    engine.operatorEdit("hToDispense", "7", 0);
    engine.operatorClick("hDispenseCoins");
    const fleet::KioskState state = *view.takeState();
    EXPECT_EQ(state.hoppers[0].level, "ok") << engine.console().text("hDispensed");
    EXPECT_EQ(state.hoppers[1].level, "empty");
    EXPECT_EQ(state.hoppers[1].coinMinor, 500);
}

// The journal is the outbox. The broker is down for 30 s while the kiosk goes on journaling:
// after it is back, every event of the outage arrives, in order. Events journaled while no
// publisher ran are sent by the next start; a first start sends nothing of the journal's past.
// (That the broker marks a kiosk it lost off line is the engine test's last will.)
TEST(FleetPublisher, EveryEventOfAnOutageOrAStopArrivesInOrderAfterIt) {
    TestJournal journal;
    journal.append(paymentEnd(1));  // before the publisher was ever enabled
    const std::string marker = test::makeTempDir("ksx-fleet") + "/marker";
    auto broker = std::make_unique<Broker>();
    const int port = broker->port();
    auto sub = std::make_unique<Subscriber>(port);
    std::int64_t last = 0;
    std::vector<std::int64_t> expected;  // the events of the outage: credit rows are no events
    {
        fleet::Publisher first =
            publisherFor(configFor("127.0.0.1", port, "outage"), journal, marker);
        first.start();
        ASSERT_TRUE(markedOnline(*sub, "outage", true));
        journal.append(paymentEnd(2));
        ASSERT_TRUE(
            test::eventually([&] { return !sub->messages("kestrix/outage/event").empty(); }, 10s));
        EXPECT_EQ(firstArrivals(*sub, "kestrix/outage/event"), std::vector<std::int64_t>{2});
        ASSERT_TRUE(test::eventually([&] { return first.acknowledged() == 2; }, 10s));

        sub.reset();
        broker.reset();
        const auto outageEnd = std::chrono::steady_clock::now() + 30s;
        for (int i = 3; std::chrono::steady_clock::now() < outageEnd; ++i) {
            JournalEntry row = paymentEnd(100 * i);
            if (i % 3 == 0) {
                row.kind = journal_kind::kCredit;  // not an event: skipped, and never in the way
            }
            last = journal.append(row);
            if (i % 3 != 0) {
                expected.push_back(last);
            }
            std::this_thread::sleep_for(4s);
        }
        EXPECT_EQ(first.acknowledged(), 2);
        broker = std::make_unique<Broker>(port);
        sub = std::make_unique<Subscriber>(port);
        ASSERT_TRUE(test::eventually([&] { return first.acknowledged() == last; }, 30s));
        ASSERT_TRUE(markedOnline(*sub, "outage", true, 5s));
    }
    ASSERT_TRUE(test::eventually(
        [&] { return firstArrivals(*sub, "kestrix/outage/event").size() == expected.size(); }, 5s));
    EXPECT_EQ(firstArrivals(*sub, "kestrix/outage/event"), expected);
    EXPECT_EQ(fleet::readMarker(marker), last);

    journal.append(paymentEnd(1001));
    journal.append(paymentEnd(1002));
    fleet::Publisher second =
        publisherFor(configFor("127.0.0.1", port, "restart"), journal, marker);
    second.start();
    // The broker's acknowledgement and its copy to the subscriber travel apart.
    ASSERT_TRUE(test::eventually(
        [&] { return firstArrivals(*sub, "kestrix/restart/event").size() >= 2; }, 10s));
    EXPECT_EQ(firstArrivals(*sub, "kestrix/restart/event"),
              (std::vector<std::int64_t>{last + 1, last + 2}));
}

// TLS against a broker with a self-signed certificate that asks for a password.
TEST(FleetPublisher, TlsWithAUserAndPassword) {
    const std::string dir = test::makeTempDir("ksx-tls");
    const Broker::Tls tls = test::makeTestCertificate(dir, "broker");
    const Broker::Tls stranger = test::makeTestCertificate(dir, "other");
    Broker broker(0, &tls, "kiosk", "s3cret");
    Subscriber sub(broker.port());
    struct Row {
        const char* name;
        std::string ca;
        std::string password;
        const char* logged;  // empty: it connects
    };
    const Row rows[] = {
        {"good", tls.certFile, "s3cret", ""},
        {"badpassword", tls.certFile, "wrong", "refused"},
        {"untrusted", stranger.certFile, "s3cret", "TLS"},
    };
    for (const Row& r : rows) {
        fleet::FleetConfig c = configFor("localhost", broker.tlsPort(), r.name);
        c.broker.tls = true;
        c.caCertificate = r.ca;
        c.username = "kiosk";
        c.password = r.password;
        const std::string logFile = dir + "/" + r.name + ".log";
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> out(std::fopen(logFile.c_str(), "w"),
                                                                  &std::fclose);
        qt::StderrLog log(LogLevel::Debug, out.get());
        TestJournal journal;
        fleet::Publisher publisher = publisherFor(c, journal, dir + "/" + r.name + ".seq", &log);
        publisher.start();
        if (std::string(r.logged).empty()) {
            EXPECT_TRUE(markedOnline(sub, r.name, true)) << test::readFile(logFile);
            journal.append(paymentEnd(42));
            EXPECT_TRUE(sub.waitFor(
                "kestrix/good/event", [](auto&) { return true; }, 10s));
        } else {
            EXPECT_TRUE(test::eventually(
                [&] { return test::readFile(logFile).find(r.logged) != std::string::npos; }, 10s))
                << r.name << "\n"
                << test::readFile(logFile);
            EXPECT_FALSE(publisher.connected());
        }
    }
}

// The example subscriber of docs/fleet.md: one line per kiosk from the retained messages.
TEST(FleetTable, OneLinePerKioskFromTheRetainedStates) {
    Broker broker;
    const std::string dir = test::makeTempDir("ksx-table");
    TestJournal northJournal;
    TestJournal southJournal;
    fleet::Publisher north =
        publisherFor(configFor("127.0.0.1", broker.port(), "north"), northJournal, dir + "/n");
    fleet::Publisher south =
        publisherFor(configFor("127.0.0.1", broker.port(), "south"), southJournal, dir + "/s");
    const auto textBox = [](const char* name, const char* text) {
        Field f;
        f.name = name;
        f.kind = FieldKind::TextBox;
        f.text = text;
        return f;
    };
    north.view().noteField(textBox("tubesAmount", "320"));
    south.view().noteField(textBox("bdCasetteStatus", "LOW"));
    // Faults from before the start, each device's latest row telling whether one is still open,
    // and one that comes as an event.
    for (const auto& [kind, device, detail] : {
             std::tuple{journal_kind::kDeviceFault, "dispenser", "stuck"},
             {journal_kind::kDeviceRecovered, "dispenser", ""},
             {journal_kind::kDeviceFault, "hopper1", "low"},
             {journal_kind::kDeviceFault, "hopper1", "empty"},
         }) {
        northJournal.append({.kind = kind, .device = device, .detail = detail});
    }
    north.start();
    south.start();
    ASSERT_TRUE(test::eventually([&] { return north.connected() && south.connected(); }, 10s));
    northJournal.append(
        {.kind = journal_kind::kDeviceFault, .device = "validator", .detail = "bill jammed"});
    ASSERT_TRUE(test::eventually([&] { return north.acknowledged() == 5; }, 10s));
    south.stop();

    test::RunResult table;
    ASSERT_TRUE(test::eventually(
        [&] {
            table = test::run("/usr/bin/python3",
                              {std::string(KESTRIX_SOURCE_DIR) + "/scripts/fleet-table", "-h",
                               "127.0.0.1", "-p", std::to_string(broker.port())});
            return table.out.find("bill jammed") != std::string::npos;
        },
        10s))
        << table.out << table.err;
    std::istringstream in(table.out);
    std::string header, first, second, more;
    ASSERT_TRUE(std::getline(in, header) && std::getline(in, first) && std::getline(in, second));
    EXPECT_FALSE(std::getline(in, more)) << table.out;
    EXPECT_EQ(header.rfind("KIOSK", 0), 0u) << table.out;
    EXPECT_EQ(first.rfind("north  yes", 0), 0u) << table.out;
    EXPECT_NE(first.find("320.00"), std::string::npos) << table.out;
    EXPECT_NE(first.find("validator: bill jammed; hoppers: empty"), std::string::npos) << table.out;
    EXPECT_EQ(second.rfind("south  NO", 0), 0u) << table.out;
    EXPECT_NE(second.find("LOW"), std::string::npos) << table.out;
}

// The real engine program with the fleet enabled in its store: its devices and tubes reach the
// retained state, a card payment reaches the broker as one event from the journal, and when the
// engine is killed the broker publishes its last will.
TEST(FleetEngine, APaymentIsOneEventAndAKilledEngineIsMarkedOffLine) {
    Broker broker;
    Subscriber sub(broker.port());
    test::SimulatedKiosk kiosk;
    kiosk.set("Fleet", "Enabled", "1");
    kiosk.set("Fleet", "Broker", broker.url());
    kiosk.set("Fleet", "KioskId", "engine");
    ASSERT_TRUE(kiosk.start());
    ASSERT_TRUE(markedOnline(sub, "engine", true)) << kiosk.engine().err();
    const double tubesMinor =
        static_cast<double>(Money::parse(kiosk.get("Status", "Tubes"))->minor());
    const auto state = sub.waitFor(
        "kestrix/engine/state",
        [tubesMinor](const Subscriber::Message& m) {
            return m.json()["devices"].toObject()["validator"].toObject()["status"] == "ok" &&
                   m.json()["tubes"].toObject()["totalMinor"].toDouble() == tubesMinor;
        },
        10s);
    ASSERT_TRUE(state) << "tubes " << tubesMinor << "\n" << kiosk.engine().err();
    const QJsonObject s = state->json();
    EXPECT_EQ(s["version"].toString(), "5.0.0");
    EXPECT_TRUE(s["online"].toBool());
    for (const char* device : {"changer", "dispenser", "pinpad"}) {
        EXPECT_EQ(s["devices"].toObject()[device].toObject()["status"].toString(), "ok") << device;
    }
    EXPECT_TRUE(s["pinPad"].toObject()["onLine"].toBool());
    int slotCoins = 0;
    int storeCoins = 0;
    for (int n = 1; n <= 5; ++n) {
        slotCoins += s["tubes"].toObject()["slots"].toArray()[n - 1].toObject()["count"].toInt();
        storeCoins += std::stoi(kiosk.get("CoinAcceptor", "tubeCoinQty" + std::to_string(n)));
    }
    EXPECT_EQ(slotCoins, storeCoins);
    EXPECT_TRUE(std::filesystem::exists(kiosk.dir + "/KSX-fleet.seq"));

    ASSERT_EQ(kiosk.ksxctl({"set", "Status", "DueCC", "12.5"}).status, 0);
    ASSERT_TRUE(test::eventually([&] { return kiosk.get("Status", "DueCC") == "0"; }, 60s));
    const auto isEnd = [](const Subscriber::Message& m) {
        return m.json()["kind"] == "payment end";
    };
    const auto event = sub.waitFor("kestrix/engine/event", isEnd, 10s);

    kiosk.engine().signal(SIGKILL);
    EXPECT_TRUE(markedOnline(sub, "engine", false));
    ASSERT_TRUE(event);
    EXPECT_EQ(event->json()["amountMinor"].toDouble(), 1250) << event->payload;
    EXPECT_EQ(event->json()["time"].toString().left(2), "20") << "the row's wall time";
    const std::vector<Subscriber::Message> events = sub.messages("kestrix/engine/event");
    EXPECT_EQ(std::count_if(events.begin(), events.end(), isEnd), 1);
}

}  // namespace
}  // namespace kestrix
