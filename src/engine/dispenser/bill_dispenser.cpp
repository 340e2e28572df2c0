#include "bill_dispenser.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <initializer_list>

#include "../bounds.h"
#include "../console.h"
#include "../device_context.h"
#include "../errors.h"
#include "../formulas.h"
#include "../journal/device_health.h"
#include "../platform/log.h"
#include "../platform/message_box.h"
#include "../platform/serial_port.h"
#include "../settings/layout.h"

namespace kestrix {

namespace bd {

namespace {

std::string bytes(std::initializer_list<int> codes) {
    std::string s;
    for (int c : codes) {
        s += static_cast<char>(static_cast<unsigned char>(c));
    }
    return s;
}

// Waits of the exchanges, in seconds.
constexpr double kHeaderToBodySeconds = 0.2;
constexpr double kSetupAnswerSeconds = 4.0;
constexpr double kStatusAnswerSeconds = 0.5;
constexpr double kDispenseAnswerSeconds = 2.0;
constexpr double kDispenseRoundSeconds = 1.0;
constexpr double kAfterAckSeconds = 0.2;

// Expected texts of the answers.
constexpr std::string_view kSetupAnswerCode = "E00234";
constexpr std::string_view kStatusAnswerCode = "E00124";
constexpr std::string_view kNoErrorCode = "E0";
constexpr std::string_view kCassetteLow = "80";
constexpr std::string_view kBillDelivered = "B1";

const std::string kSetupHeader = bytes({0x10, 0x05, 0x10, 0x02, 0x00, 0x11});

// The set-up data differs between bill types only in bytes 5 and 6 and the check bytes.
std::string setupBody(int a, int b, int check1, int check2) {
    return bytes({0x60, 0x02, 0x0D, 0x00, a,    b,    0x00, 0x00, 0x00,   0x00,  0x00,
                  0x00, 0x0F, 0x00, 0x00, 0x00, 0x1C, 0x10, 0x03, check1, check2});
}

}  // namespace

std::optional<SetupFrame> setupFrame(int billType) {
    switch (billType) {
        case 20:
        case 50:
            // Both small bills share one set-up frame, byte for byte.
            return SetupFrame{kSetupHeader, setupBody(0x8B, 0x78, 0x8D, 0x9C)};
        case 100:
            return SetupFrame{kSetupHeader, setupBody(0xA5, 0x7C, 0x72, 0xCB)};
        case 200:
            return SetupFrame{kSetupHeader, setupBody(0xA5, 0x83, 0x4F, 0xE2)};
        case 500:
            return SetupFrame{kSetupHeader, setupBody(0xA5, 0x89, 0xF8, 0xF0)};
        case 1000:
            return SetupFrame{kSetupHeader, setupBody(0xA5, 0x91, 0x4C, 0xC9)};
        default:
            return std::nullopt;
    }
}

const DispenseFrame& dispenseFrame() {
    static const DispenseFrame f{
        bytes({0x10, 0x05, 0x10, 0x02, 0x00, 0x19}),
        {bytes({0x60, 0x03, 0x15, 0x00, 0x30, 0xB1, 0x30, 0x30, 0x30, 0x30, 0x30, 0x30}),
         bytes({0xB1, 0x30, 0x30, 0x30, 0x30, 0x30, 0x30, 0x30, 0x05, 0x00, 0x00, 0x00}),
         bytes({0x1C, 0x10, 0x03, 0xA3, 0x8D})}};
    return f;
}

const std::string& statusFrame() {
    static const std::string f =
        bytes({0x10, 0x05, 0x10, 0x02, 0x00, 0x03, 0x00, 0x01, 0x1C, 0x10, 0x03, 0xFA, 0x97});
    return f;
}

const std::string& ackFrame() {
    static const std::string f = bytes({0x10, 0x06});
    return f;
}

std::string renderReply(std::string_view received) {
    static constexpr std::string_view kUpperHex = "0123456789ABCDEF";
    std::string text;
    text.reserve(received.size() * 2);
    for (char c : received) {
        const unsigned b = static_cast<unsigned char>(c);
        if (b >= 0x10) {
            // Two digits: either a numeral already two long or not a number at all; the display
            // pattern leaves both as they are.
            text += kUpperHex[b >> 4];
            text += kUpperHex[b & 0x0F];
        } else if (b < 10) {
            text += '0';
            text += kUpperHex[b];
        } else {
            text += kUpperHex[b];  // "A".."F": not a numeral, stays one character
        }
    }
    return text;
}

std::string field(std::string_view reply, std::size_t position, std::size_t length) {
    if (position == 0 || position > reply.size()) {
        return {};
    }
    return std::string(reply.substr(position - 1, length));
}

namespace {

// A size field: its hexadecimal digits as decimal text; nothing there reads 0.
std::string sizeText(std::string_view reply, std::size_t position) {
    const std::string digits = field(reply, position, 2);
    return digits.empty() ? std::string("0") : ConvertBaseNToDec(digits, 16);
}

}  // namespace

Decoded decode(std::string_view reply, Answer answer) {
    Decoded d;
    const bool setup = answer == Answer::Setup;
    if (field(reply, 21, 6) != (setup ? kSetupAnswerCode : kStatusAnswerCode)) {
        d.error = true;
    }
    if (field(reply, 27, 8) != "00000000") {
        d.error = true;
    }
    d.version = field(reply, 35, 4);
    // The status answer's zero block is checked one position later and two characters shorter;
    // both are what the dispenser's answers were matched against.
    const std::string zeros = setup ? field(reply, 39, 18) : field(reply, 40, 16);
    if (zeros != std::string(setup ? 18 : 16, '0')) {
        d.error = true;
    }
    d.low = field(reply, 57, 2) == kCassetteLow;
    d.maxLen = sizeText(reply, 67);
    d.minLen = sizeText(reply, 69);
    d.thickness = static_cast<int>(leadingNumber(sizeText(reply, 82)));
    return d;
}

DispenseAnswer decodeDispenseAnswer(std::string_view bytes) {
    static constexpr std::string_view kFrameStart = "\x10\x05\x10\x02";
    // Offsets in the answer frame's two-digit rendering.
    constexpr std::size_t kCodeAt = 12;
    constexpr std::size_t kDeliveredAt = 91;
    // DLE ENQ DLE STX and the length before the data; DLE ETX and two check bytes after it.
    constexpr std::size_t kHeaderBytes = 6;
    constexpr std::size_t kTrailerBytes = 4;
    DispenseAnswer a;
    std::size_t start = bytes.find(kFrameStart);
    // The answer starts on a byte of its own after whole acknowledgements (10 06).
    while (start != std::string_view::npos && start % 2 != 0) {
        start = bytes.find(kFrameStart, start + 1);
    }
    if (start == std::string_view::npos || bytes.size() < start + kHeaderBytes) {
        return a;
    }
    const std::size_t length = static_cast<unsigned char>(bytes[start + 4]) * 256u +
                               static_cast<unsigned char>(bytes[start + 5]);
    if (bytes.size() < start + kHeaderBytes + length + kTrailerBytes) {
        return a;
    }
    std::string text;
    static constexpr std::string_view kUpperHex = "0123456789ABCDEF";
    for (const char c : bytes.substr(start)) {
        const unsigned b = static_cast<unsigned char>(c);
        text += kUpperHex[b >> 4];
        text += kUpperHex[b & 0x0F];
    }
    a.complete = true;
    a.error = field(text, kCodeAt + 1, 2) != kNoErrorCode;
    a.count = field(text, kDeliveredAt + 1, 2) == kBillDelivered ? 1 : 0;
    return a;
}

}  // namespace bd

// --- The dispenser routines ----------------------------------------------------------------------

void BillDispenser::openPort(std::string_view portText) {
    SerialPort& port = m_port;
    if (port.isOpen()) {
        port.close();
    }
    port.open(strictInt(portText), kLineSettings);
}

void BillDispenser::sendAckTwice() {
    SerialPort& port = m_port;
    port.write(bd::ackFrame());
    m_context.pause(bd::kAfterAckSeconds);
    port.write(bd::ackFrame());
    m_context.pause(bd::kAfterAckSeconds);
}

void BillDispenser::readReply() {
    // One read: whatever the receive buffer holds by now.
    m_bdReply = bd::renderReply(m_port.read());
}

void BillDispenser::apply(const bd::Decoded& d) {
    m_bdError = d.error;
    m_bdLow = d.low;
    m_bdVersion = d.version;
    m_bdMaxLen = d.maxLen;
    m_bdMinLen = d.minLen;
    m_bdThicknessValue = d.thickness;
}

void BillDispenser::show() {
    Console& c = m_context.console();
    c.setText("bdSWVersion", m_bdVersion);
    c.setText("bdCasetteStatus", m_bdLow ? "LOW" : "OK");
    c.setText("bdMaxLenght", m_bdMaxLen);
    c.setText("bdMinLenght", m_bdMinLen);
    c.setText("bdThickness", std::to_string(m_bdThicknessValue));
    c.setText("bdStatus", m_bdError ? "ERR" : "OK");
}

void BillDispenser::writeMailbox() {
    Console& c = m_context.console();
    m_context.writeMailbox(store::mailbox::kBDStatus, c.text("bdStatus"));
    m_context.writeMailbox(store::mailbox::kBDCassette, c.text("bdCasetteStatus"));
    m_context.writeMailbox(store::mailbox::kBDDispensed, c.text("bdBillsDispensed"));
}

void BillDispenser::switchButtons(bool enabled) {
    m_context.console().setEnabled("bdDispenseBills", enabled);
    m_context.console().setEnabled("bdDispenserRefill", enabled);
}

void BillDispenser::initBillDispenser(int& bType) {
    SerialPort& port = m_port;
    if (const std::optional<bd::SetupFrame> f = bd::setupFrame(bType)) {
        port.write(f->header);
        m_context.pause(bd::kHeaderToBodySeconds);
        port.write(f->body);
    }
    m_context.pause(bd::kSetupAnswerSeconds);
    sendAckTwice();
    readReply();
    apply(bd::decode(m_bdReply, bd::Answer::Setup));
    show();
}

void BillDispenser::statusBillDispenser() {
    SerialPort& port = m_port;
    port.write(bd::statusFrame());
    m_context.pause(bd::kStatusAnswerSeconds);
    sendAckTwice();
    readReply();
    apply(bd::decode(m_bdReply, bd::Answer::Status));
    show();
    m_context.console().setText("bdBillsDispensed", "0");
    writeMailbox();
}

void BillDispenser::dispenseBD() {
    SerialPort& port = m_port;
    // The console shows "--" for the whole wait (a view repaints on the change).
    m_context.console().setText("bdBillsDispensed", "--");
    m_bdLastCount = 0;
    m_lastUnknown = false;
    const bd::DispenseFrame& f = bd::dispenseFrame();
    port.write(f.header);
    m_context.pause(bd::kHeaderToBodySeconds);
    for (const std::string& part : f.body) {
        port.write(part);
    }
    m_context.pause(bd::kDispenseAnswerSeconds);
    // The dispenser answers when the bill has gone out, which takes as long as it takes: ask
    // until its whole answer has come, within a bound. Everything received since the request is
    // kept, so an answer split over two reads is read whole.
    std::string received;
    bd::DispenseAnswer answer;
    for (int round = 0; round < bounds::kDispenseAnswerRounds && !answer.complete; ++round) {
        m_context.pause(bd::kDispenseRoundSeconds);
        sendAckTwice();
        received += port.read();
        answer = bd::decodeDispenseAnswer(received);
        if (m_context.pastDeadline()) {
            break;
        }
    }
    m_bdReply = bd::renderReply(received);
    if (answer.complete) {
        m_bdError = answer.error;
        m_bdLastCount = answer.count;
    } else {
        // Whether the bill left is not known: asking again could pay it twice. The dispenser is
        // in error until it is read again.
        m_lastUnknown = true;
        m_bdError = true;
        m_context.log().error(
            "bill dispenser: no complete answer to a dispense; whether the bill "
            "left is unknown",
            {"dispenser", m_context.paymentId()});
    }
    m_context.console().setText("bdStatus", m_bdError ? "ERR" : "OK");
}

BillDispenser::Delivery BillDispenser::dispense(int count) {
    Console& c = m_context.console();
    switchButtons(false);
    Delivery d;
    c.setText("bdQtyBills", std::to_string(count));
    const bool ok = trapped([&] {
        int remaining = count;
        while (remaining > 0 && !m_bdError && !m_context.pastDeadline()) {
            dispenseBD();
            remaining -= m_bdLastCount;
            d.delivered += m_bdLastCount;
            d.unknown = m_lastUnknown;
            c.setText("bdBillsDispensed", std::to_string(d.delivered));
        }
    });
    if (!ok) {
        // The link failed mid-way (a vanished port): what was delivered stands, and the
        // dispenser is reported in error so that no payout relies on it until it is read again.
        m_bdError = true;
        c.setText("bdStatus", "ERR");
        c.setText("bdBillsDispensed", std::to_string(d.delivered));
    }
    writeMailbox();
    switchButtons(true);
    return d;
}

void BillDispenser::bdDispenseBills_Click() {
    const double asked = wholePart(leadingNumber(m_context.console().text("bdQtyBills")));
    const int count =
        asked > 0 ? static_cast<int>(std::min<double>(asked, kMaxBillsPerDispense)) : 0;
    m_context.journal(
        {.kind = journal_kind::kOperatorDispense, .device = "dispenser", .count = count});
    const Delivery d = dispense(count);
    m_context.journal({.kind = journal_kind::kPayoutConfirmed,
                       .device = "dispenser",
                       .count = d.delivered,
                       .detail = d.unknown ? "last bill unknown" : ""});
}

void BillDispenser::bdDispenserRefill_Click() {
    switchButtons(false);
    const bool read = trapped([this] { statusBillDispenser(); });
    if (!read) {
        m_bdError = true;
        m_context.console().setText("bdStatus", "ERR");
        writeMailbox();
    }
    // The technician has refilled the cassette (the engine cannot count it): the journal's
    // cassette count starts again here, with the state the dispenser reports.
    const Console& c = m_context.console();
    JournalEntry refill;
    refill.kind = journal_kind::kRefill;
    refill.device = "dispenser";
    refill.requester = "operator";
    refill.detail = "cassette " + c.text("bdCasetteStatus") + ", status " + c.text("bdStatus") +
                    ", bill value " + c.text("bDispType") + (read ? "" : ", status read failed");
    m_context.journal(refill);
    m_context.log().info("bill dispenser: refilled (" + refill.detail + ")", {"dispenser", 0});
    if (m_bdError) {
        m_context.health().fault("dispenser", "reports an error after the refill");
    } else {
        m_context.health().working("dispenser");
    }
    switchButtons(true);
}

}  // namespace kestrix
