#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "sim/profile.h"
#include "sim/sim_device.h"

namespace kestrix::sim {

// The simulated kiosk in real time on pseudo-terminals (POSIX only).
//
// start() creates one pseudo-terminal pair per link and, in `dir`, the links "mdb",
// "dispenser" and "hoppers" to their engine-side ends, and the control socket "control". A
// background thread then feeds the device models with what the engine writes, on the steady
// clock, and writes their answers back. stop() (or destruction) ends the thread and removes
// everything start() created, `dir` included when start() had to create it.
//
// The lines take their time as real ones do: a write reaches its device once its last character
// has crossed the line, and an answer reaches the engine one character time after another, at
// the baud rate, data bits, parity and stop bits the engine set on its end (9600 baud: about a
// millisecond a character). The thread sleeps until the engine writes, a client calls, or the
// next character or device answer is due, so an idle kiosk costs no processor time.
//
// With KSX_SIM_WIRE_LOG=FILE in the environment, everything that crosses a line is also written
// to FILE, one line per piece: steady-clock seconds (the system's monotonic clock, as other
// programs read it), the link ("mdb", "dispenser", "hoppers"), ">" when it reached the device or
// "<" when the device put it on the line, the seconds one character takes, and the bytes in hex.
//
// Control protocol on the socket: the client sends one command line ending in "\n"; the
// simulator answers "OK\n", "REJECTED\n" (a device refused) or "USAGE\n" (no such command, or
// wrong arguments), then the command's text, and closes. The commands
// are those of KioskModels::command ("coin 2", "fault changer silent on", "state", ...).
class PtyKiosk {
public:
    explicit PtyKiosk(std::string dir, const KioskProfile& profile = defaultProfile());
    ~PtyKiosk();
    PtyKiosk(const PtyKiosk&) = delete;
    PtyKiosk& operator=(const PtyKiosk&) = delete;

    // Throws std::runtime_error (with the reason) when a link or the socket cannot be made, or
    // when another simulator already answers in `dir`.
    void start();
    void stop();
    bool running() const;

    // Runs a control command in-process, as the socket would. Safe from any thread.
    ControlResult command(std::string_view line);

    const std::string& dir() const;
    // DIR/mdb, DIR/dispenser, DIR/hoppers, DIR/control.
    std::string path(std::string_view name) const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// Exit codes of a control command sent to a simulator.
inline constexpr int kControlAccepted = 0;
inline constexpr int kControlRejected = 1;
inline constexpr int kControlUsage = 2;
inline constexpr int kControlNoSimulator = 3;

// Sends one command to the simulator running in `dir`; fills `answer` with its text (or the
// reason nobody answered) and returns one of the codes above.
int sendControlCommand(const std::string& dir, const std::string& command, std::string& answer,
                       double timeoutSeconds = 5.0);

}  // namespace kestrix::sim
