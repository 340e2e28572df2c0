#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace kestrix {

// A serial port failure: opening a port that does not exist or is busy, or using a port that
// is not open (the same run-time error the engine's error traps expect from a port control).
class PortError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Line settings in the classic "9600,N,8,1" form: baud, parity (N, E, O, M, S), data bits,
// stop bits.
struct LineSettings {
    int baud = 9600;
    char parity = 'N';
    int dataBits = 8;
    int stopBits = 1;

    // Throws std::invalid_argument on a malformed text.
    static LineSettings parse(std::string_view text);
};

// One serial link of the engine. Engine thread only.
class SerialPort {
public:
    // One read waits at most this long when nothing has arrived yet: a loop "limited to 500
    // reads" therefore gives up after about one second of silence.
    static constexpr int kReadQuantumMs = 2;

    virtual ~SerialPort() = default;

    // Closes the port first if it is open. Throws PortError when the port cannot be opened.
    virtual void open(int portNumber, std::string_view settings) = 0;
    virtual void close() = 0;
    virtual bool isOpen() const = 0;
    virtual int portNumber() const = 0;

    // Writes raw bytes (each char is one byte, 0..255). Throws PortError when not open.
    virtual void write(std::string_view bytes) = 0;

    // One read: everything that has arrived, waiting at most one read quantum when nothing has.
    // Throws PortError when not open. A read or resource error closes the port.
    virtual std::string read() = 0;
};

}  // namespace kestrix
