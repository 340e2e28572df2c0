#include "qt_serial_port.h"

#include <QDeadlineTimer>
#include <QSerialPort>
#include <QThread>
#include <algorithm>

#include "engine/settings/layout.h"
#include "timing_trace.h"

#ifndef _WIN32
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>
#endif

namespace kestrix::qt {

namespace {

// A port keeps the line settings its last user left when that user was killed (QSerialPort puts
// them back only when it closes the port). On a pseudo-terminal, which drops parity, those
// settings make the next open fail, so a restart after a crash could not reach the simulated
// bill dispenser. Clears them back to a plain 8-bit line; false when the device cannot be opened.
bool clearLeftoverLineSettings(const std::string& device) {
#ifdef _WIN32
    (void)device;
    return false;
#else
    const int fd = ::open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    termios tio{};
    bool cleared = ::tcgetattr(fd, &tio) == 0;
    if (cleared) {
        tio.c_iflag = 0;
        tio.c_cflag = (tio.c_cflag & CBAUD) | CS8 | CREAD;
        cleared = ::tcsetattr(fd, TCSANOW, &tio) == 0;
    }
    ::close(fd);
    return cleared;
#endif
}

QSerialPort::Parity toParity(char parity) {
    switch (parity) {
        case 'E':
            return QSerialPort::EvenParity;
        case 'O':
            return QSerialPort::OddParity;
        case 'M':
            return QSerialPort::MarkParity;
        case 'S':
            return QSerialPort::SpaceParity;
        default:
            return QSerialPort::NoParity;
    }
}

// Bytes reach the driver quickly; what can hold them up is the line itself (or flow control on
// a misbehaving adapter). Allow the wire time of the bytes twice over, plus a margin.
int writeTimeoutMs(std::size_t bytes, int baud) {
    const double wireMs = static_cast<double>(bytes) * 10.0 * 1000.0 / std::max(baud, 1);
    return static_cast<int>(std::min(2.0 * wireMs + 500.0, 60000.0));
}

}  // namespace

std::string defaultPortDevice(int portNumber) {
    if (portNumber <= 0) {
        return {};
    }
#ifdef _WIN32
    return "COM" + std::to_string(portNumber);
#else
    return "/dev/ttyS" + std::to_string(portNumber - 1);
#endif
}

PortResolver storePortResolver(SettingsStore& store, std::string app) {
    return [&store, app = std::move(app)](int portNumber) -> std::string {
#ifndef _WIN32
        if (portNumber > 0) {
            std::string mapped =
                store.get(app, store::section::kPorts, std::to_string(portNumber), "");
            if (!mapped.empty()) {
                return mapped;
            }
        }
#else
        (void)store;
#endif
        return defaultPortDevice(portNumber);
    };
}

QtSerialPort::QtSerialPort(PortResolver resolver) : m_resolver(std::move(resolver)) {}

QtSerialPort::~QtSerialPort() {
    close();
}

void QtSerialPort::open(int portNumber, std::string_view settings) {
    close();
    m_portNumber = portNumber;
    m_device.clear();

    LineSettings line;
    try {
        line = LineSettings::parse(settings);
    } catch (const std::invalid_argument& e) {
        throw PortError("port " + std::to_string(portNumber) + ": " + e.what());
    }
    try {
        m_device = m_resolver ? m_resolver(portNumber) : defaultPortDevice(portNumber);
    } catch (const std::exception& e) {
        throw PortError("port " + std::to_string(portNumber) + ": " + e.what());
    }
    if (m_device.empty()) {
        throw PortError("port " + std::to_string(portNumber) + " is not a serial port");
    }

    // The QSerialPort lives on the thread that uses it: its notifiers belong to that thread's
    // event loop.
    if (!m_port || m_port->thread() != QThread::currentThread()) {
        m_port = std::make_unique<QSerialPort>();
    }
    const int openCount = ++m_openCount;
    // Queued: Qt reports the error from inside its own read handler, where closing the port
    // would pull the buffer away under it.
    QObject::disconnect(m_port.get(), &QSerialPort::errorOccurred, nullptr, nullptr);
    QObject::connect(
        m_port.get(), &QSerialPort::errorOccurred, m_port.get(),
        [this, openCount](QSerialPort::SerialPortError error) {
            if (error == QSerialPort::ReadError || error == QSerialPort::ResourceError) {
                onLoopError(openCount);
            }
        },
        Qt::QueuedConnection);
    m_port->setPortName(QString::fromStdString(m_device));
    m_port->setBaudRate(line.baud);
    m_port->setParity(toParity(line.parity));
    m_port->setDataBits(static_cast<QSerialPort::DataBits>(line.dataBits));
    m_port->setStopBits(line.stopBits == 2 ? QSerialPort::TwoStop : QSerialPort::OneStop);
    m_port->setFlowControl(QSerialPort::NoFlowControl);
    m_baud = line.baud;
    bool opened = m_port->open(QIODevice::ReadWrite);
    if (!opened && clearLeftoverLineSettings(m_device)) {
        m_port->clearError();
        opened = m_port->open(QIODevice::ReadWrite);
    }
    if (!opened) {
        const std::string reason = m_port->errorString().toStdString();
        m_port->clearError();
        throw PortError("port " + std::to_string(portNumber) + " (" + m_device +
                        "): cannot open: " + reason);
    }
    // What arrived while nobody had the port open (a device's answers to an engine that was
    // killed mid-exchange) belongs to no question this engine asks: read as the answer to its
    // first one, it would be taken for that device's reply.
    m_port->clear(QSerialPort::Input);
}

void QtSerialPort::onLoopError(int openCount) {
    if (openCount != m_openCount || !isOpen()) {
        return;  // a read or write already dealt with it, or the port was opened again
    }
    const QSerialPort::SerialPortError error = m_port->error();
    if (error == QSerialPort::NoError || error == QSerialPort::TimeoutError) {
        return;
    }
    const std::string reason = m_port->errorString().toStdString();
    close();
    m_failure = reason;
}

void QtSerialPort::close() {
    m_failure.clear();
    if (m_port && m_port->isOpen()) {
        m_port->close();
    }
    if (m_port) {
        m_port->clearError();
    }
}

bool QtSerialPort::isOpen() const {
    return m_port && m_port->isOpen();
}

void QtSerialPort::requireOpen(const char* operation) const {
    if (!isOpen()) {
        throw PortError("port " + std::to_string(m_portNumber) + ": " + operation +
                        (m_failure.empty() ? " on a closed port"
                                           : " on a port closed after an error: " + m_failure));
    }
}

void QtSerialPort::checkError(const char* operation) {
    const QSerialPort::SerialPortError error = m_port->error();
    if (error == QSerialPort::NoError) {
        return;
    }
    if (error == QSerialPort::TimeoutError) {
        m_port->clearError();
        return;
    }
    const std::string reason = m_port->errorString().toStdString();
    close();
    m_failure = reason;
    throw PortError("port " + std::to_string(m_portNumber) + " (" + m_device + "): " + operation +
                    " failed: " + reason);
}

void QtSerialPort::write(std::string_view bytes) {
    requireOpen("write");
    if (bytes.empty()) {
        return;
    }
    const auto size = static_cast<qint64>(bytes.size());
    timing::record('W', m_device, std::to_string(bytes.size()));
    if (m_port->write(bytes.data(), size) != size) {
        checkError("write");
        throw PortError("port " + std::to_string(m_portNumber) + ": write failed");
    }
    QDeadlineTimer deadline(writeTimeoutMs(bytes.size(), m_baud));
    while (m_port->bytesToWrite() > 0) {
        const auto remaining = static_cast<int>(deadline.remainingTime());
        if (deadline.hasExpired() || !m_port->waitForBytesWritten(remaining)) {
            checkError("write");
            if (m_port->bytesToWrite() > 0 && deadline.hasExpired()) {
                // The line does not take the bytes: drop them rather than let them go out
                // later, in the middle of another exchange.
                m_port->clear(QSerialPort::Output);
                throw PortError("port " + std::to_string(m_portNumber) + " (" + m_device +
                                "): write timed out");
            }
        }
    }
}

std::string QtSerialPort::read() {
    requireOpen("read");
    // What the port already buffered (bytes that came while the event loop ran)...
    QByteArray data = m_port->readAll();
    // ...plus what the driver holds. Only when nothing at all has arrived does the read wait,
    // and then one quantum at most.
    if (m_port->waitForReadyRead(data.isEmpty() ? kReadQuantumMs : 0)) {
        data += m_port->readAll();
    }
    checkError("read");
    timing::record('R', m_device, std::to_string(data.size()));
    return std::string(data.constData(), static_cast<std::size_t>(data.size()));
}

}  // namespace kestrix::qt
