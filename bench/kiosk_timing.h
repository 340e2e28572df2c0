#pragma once

// The floor of a phase of the engine's work, from two records of one run: the engine's timing
// record (KSX_TIMING_TRACE, written by the Qt adapters) and the simulator's wire record
// (KSX_SIM_WIRE_LOG). The floor is the time an engine that costs nothing would take for the
// same steps: every Pause it asked for, every timer tick at its interval, every byte it wrote
// and read taking its wire time, and every device answer taking as long after its command as
// the simulated device took. Nothing in here knows a phase's waits: they come from the record.

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace kestrix::bench {

// One line of the engine's timing record. W and R carry the byte range of their port's stream.
struct Event {
    double t = 0;
    char kind = 0;
    std::string first;
    std::string second;
    std::string link;  // W, R: the port's link name ("mdb", "dispenser", "hoppers")
    std::size_t offset = 0;
    std::size_t count = 0;
};

// Both directions of one serial line, byte by byte, as the simulator saw them.
struct Stream {
    std::vector<double> delivered;  // engine to device: when each byte reached the device
    std::vector<double> inSeconds;  // its character time
    std::vector<double> emitted;    // device to engine: when the device put each byte out
    std::vector<double> outSeconds;
    std::vector<double> arrived;       // when it reached the engine (emitted + the line)
    std::vector<std::size_t> trigger;  // the last byte the device had received by then
    std::vector<std::string> text;     // the device's pieces as sent, with their first byte
    std::vector<std::size_t> textStart;
};

std::vector<Event> readTimingRecord(const std::string& path);
std::map<std::string, Stream> readWireRecord(const std::string& path);

struct Floor {
    double total = 0;
    double waits = 0;   // Pauses and timer intervals
    double wire = 0;    // bytes on the line
    double device = 0;  // the devices' own time
};

class FloorReplay {
public:
    FloorReplay(const std::vector<Event>& events, const std::map<std::string, Stream>& streams);

    // The floor from time `start` over events [from, to] (indices into the record). Yielding
    // waits in the range are the pin pad's when `pinPadWaits` is given: each lasts its entry.
    Floor run(double start, std::size_t from, std::size_t to,
              const std::vector<double>* pinPadWaits = nullptr) const;

    // The index of the first event at or after `from` that satisfies `match`; npos when none.
    std::size_t find(std::size_t from, const std::function<bool(const Event&)>& match) const;
    std::size_t firstAtOrAfter(double t) const;

private:
    const std::vector<Event>& m_events;
    const std::map<std::string, Stream>& m_streams;
    std::vector<double> m_actualSchedule;  // per tick event: when Qt meant it to fire
};

double percentile(std::vector<double> values, double fraction);

}  // namespace kestrix::bench
