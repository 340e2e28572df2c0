#include "kiosk_timing.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <unordered_map>

namespace kestrix::bench {

namespace {

constexpr double kNone = -std::numeric_limits<double>::infinity();
constexpr std::size_t kNoByte = static_cast<std::size_t>(-1);

std::string linkOf(const std::string& port) {
    const std::size_t slash = port.find_last_of('/');
    return slash == std::string::npos ? port : port.substr(slash + 1);
}

std::vector<std::string> splitTabs(const std::string& line) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (;;) {
        const std::size_t tab = line.find('\t', start);
        fields.push_back(line.substr(start, tab - start));
        if (tab == std::string::npos) {
            return fields;
        }
        start = tab + 1;
    }
}

}  // namespace

std::vector<Event> readTimingRecord(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        throw std::runtime_error("no timing record at " + path);
    }
    std::vector<Event> events;
    std::map<std::string, std::size_t> written;
    std::map<std::string, std::size_t> read;
    std::string line;
    while (std::getline(in, line)) {
        const std::vector<std::string> f = splitTabs(line);
        if (f.size() < 2 || f[1].empty()) {
            continue;
        }
        Event e;
        e.t = std::stod(f[0]);
        e.kind = f[1][0];
        e.first = f.size() > 2 ? f[2] : "";
        e.second = f.size() > 3 ? f[3] : "";
        if (e.kind == 'W' || e.kind == 'R') {
            e.link = linkOf(e.first);
            e.count = static_cast<std::size_t>(std::stoul(e.second));
            std::size_t& position = e.kind == 'W' ? written[e.link] : read[e.link];
            e.offset = position;
            position += e.count;
        }
        events.push_back(std::move(e));
    }
    return events;
}

std::map<std::string, Stream> readWireRecord(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        throw std::runtime_error("no wire record at " + path);
    }
    std::map<std::string, Stream> streams;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        double t = 0;
        double seconds = 0;
        std::string link;
        std::string direction;
        if (!(words >> t >> link >> direction >> seconds)) {
            continue;
        }
        Stream& s = streams[link];
        std::string hex;
        std::string text;
        while (words >> hex) {
            text += static_cast<char>(std::stoi(hex, nullptr, 16));
        }
        if (direction == ">") {
            for (std::size_t i = 0; i < text.size(); ++i) {
                s.delivered.push_back(t);
                s.inSeconds.push_back(seconds);
            }
            continue;
        }
        s.text.push_back(text);
        s.textStart.push_back(s.emitted.size());
        // The last byte the device had taken in when it sent this.
        const auto after = std::upper_bound(s.delivered.begin(), s.delivered.end(), t);
        const std::size_t trigger = after == s.delivered.begin()
                                        ? kNoByte
                                        : static_cast<std::size_t>(after - s.delivered.begin()) - 1;
        for (std::size_t i = 0; i < text.size(); ++i) {
            const double previous = s.arrived.empty() ? kNone : s.arrived.back();
            s.emitted.push_back(t);
            s.outSeconds.push_back(seconds);
            s.arrived.push_back(std::max(t, previous) + seconds);
            s.trigger.push_back(trigger);
        }
    }
    return streams;
}

FloorReplay::FloorReplay(const std::vector<Event>& events,
                         const std::map<std::string, Stream>& streams)
    : m_events(events), m_streams(streams), m_actualSchedule(events.size(), kNone) {
    // When Qt meant each tick to fire: a timer started at t fires first at t + interval; after a
    // tick at f the next is one interval after the last due time, or one after f when that has
    // passed already (a late tick comes once).
    struct Timer {
        double due;
        double interval;
    };
    std::map<std::string, Timer> timers;
    for (std::size_t i = 0; i < events.size(); ++i) {
        const Event& e = events[i];
        if (e.kind == 'A') {
            const double interval = std::stod(e.second) / 1000.0;
            timers[e.first] = {e.t + interval, interval};
        } else if ((e.kind == 'K' || e.kind == 'k') && timers.count(e.first) != 0) {
            Timer& timer = timers[e.first];
            m_actualSchedule[i] = timer.due;
            timer.due += timer.interval;
            if (timer.due < e.t) {
                timer.due = e.t + timer.interval;
            }
        }
    }
}

std::size_t FloorReplay::find(std::size_t from,
                              const std::function<bool(const Event&)>& match) const {
    for (std::size_t i = from; i < m_events.size(); ++i) {
        if (match(m_events[i])) {
            return i;
        }
    }
    return std::string::npos;
}

std::size_t FloorReplay::firstAtOrAfter(double t) const {
    return find(0, [t](const Event& e) { return e.t >= t; });
}

Floor FloorReplay::run(double start, std::size_t from, std::size_t to,
                       const std::vector<double>* pinPadWaits) const {
    Floor floor;
    double now = start;
    struct IdealTimer {
        double due;
        double interval;
    };
    std::map<std::string, IdealTimer> started;  // timers started inside the range
    std::map<std::string, std::unordered_map<std::size_t, double>> delivered;
    std::map<std::string, std::unordered_map<std::size_t, double>> writtenAt;
    std::map<std::string, std::unordered_map<std::size_t, double>> arrived;
    bool inPinPadWait = false;
    double pinPadWaitStart = 0;
    std::size_t pinPadWait = 0;

    for (std::size_t i = from; i <= to && i < m_events.size(); ++i) {
        const Event& e = m_events[i];
        if (inPinPadWait && e.kind != 'y') {
            continue;  // the pin pad's time covers whatever the engine does meanwhile
        }
        switch (e.kind) {
            case 'P': {
                const double seconds = std::stod(e.second);
                now += seconds;
                floor.waits += seconds;
                break;
            }
            case 'A': {
                const double interval = std::stod(e.second) / 1000.0;
                started[e.first] = {now + interval, interval};
                break;
            }
            case 'D':
                started.erase(e.first);
                break;
            case 'K':
            case 'k': {
                const auto timer = started.find(e.first);
                const double due = timer != started.end() ? timer->second.due : m_actualSchedule[i];
                const double fires = std::max(now, due);
                if (e.kind == 'K') {
                    floor.waits += fires - now;
                    now = fires;
                }
                if (timer != started.end()) {
                    IdealTimer& t = timer->second;
                    t.due += t.interval;
                    if (t.due < fires) {
                        t.due = fires + t.interval;
                    }
                }
                break;
            }
            case 'W': {
                const auto s = m_streams.find(e.link);
                if (s == m_streams.end()) {
                    break;
                }
                auto& ideal = delivered[e.link];
                auto& when = writtenAt[e.link];
                for (std::size_t j = e.offset;
                     j < e.offset + e.count && j < s->second.delivered.size(); ++j) {
                    double previous = kNone;
                    if (j > 0) {
                        const auto p = ideal.find(j - 1);
                        previous = p != ideal.end() ? p->second : s->second.delivered[j - 1];
                    }
                    ideal[j] = std::max(now, previous) + s->second.inSeconds[j];
                    when[j] = now;
                }
                break;
            }
            case 'R': {
                const auto s = m_streams.find(e.link);
                if (e.count == 0 || s == m_streams.end()) {
                    break;
                }
                const Stream& st = s->second;
                auto& ideal = arrived[e.link];
                const auto& in = delivered[e.link];
                std::size_t last = e.offset + e.count - 1;
                if (last >= st.emitted.size()) {
                    last = st.emitted.size() - 1;
                }
                int onLineAfterNow = 0;
                for (std::size_t k = e.offset; k <= last; ++k) {
                    double emitted = st.emitted[k];
                    const std::size_t trigger = st.trigger[k];
                    if (trigger != kNoByte) {
                        const auto d = in.find(trigger);
                        if (d != in.end()) {
                            emitted = d->second + (st.emitted[k] - st.delivered[trigger]);
                        }
                    }
                    double previous = kNone;
                    if (k > 0) {
                        const auto p = ideal.find(k - 1);
                        previous = p != ideal.end() ? p->second : st.arrived[k - 1];
                    }
                    ideal[k] = std::max(emitted, previous) + st.outSeconds[k];
                    if (ideal[k] > now) {
                        ++onLineAfterNow;
                    }
                }
                const double ready = ideal[last];
                if (ready > now) {
                    const double gap = ready - now;
                    const double wireIn = std::min(gap, onLineAfterNow * st.outSeconds[last]);
                    double rest = gap - wireIn;
                    double wireOut = 0;
                    const std::size_t trigger = st.trigger[last];
                    if (trigger != kNoByte && in.count(trigger) != 0) {
                        const double sentAt = writtenAt[e.link].at(trigger);
                        wireOut =
                            std::min(rest, std::max(0.0, in.at(trigger) - std::max(now, sentAt)));
                    }
                    rest -= wireOut;
                    floor.wire += wireIn + wireOut;
                    floor.device += rest;
                    now = ready;
                }
                break;
            }
            case 'Y':
                if (pinPadWaits != nullptr) {
                    inPinPadWait = true;
                    pinPadWaitStart = now;
                }
                break;
            case 'y':
                if (inPinPadWait) {
                    inPinPadWait = false;
                    const double seconds =
                        pinPadWait < pinPadWaits->size() ? (*pinPadWaits)[pinPadWait] : 0;
                    ++pinPadWait;
                    const double ends = std::max(now, pinPadWaitStart + seconds);
                    floor.device += ends - now;
                    now = ends;
                }
                break;
            default:
                break;
        }
    }
    floor.total = now - start;
    return floor;
}

double percentile(std::vector<double> values, double fraction) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const double rank = fraction * static_cast<double>(values.size() - 1);
    const auto low = static_cast<std::size_t>(std::floor(rank));
    const std::size_t high = std::min(low + 1, values.size() - 1);
    return values[low] + (values[high] - values[low]) * (rank - static_cast<double>(low));
}

}  // namespace kestrix::bench
