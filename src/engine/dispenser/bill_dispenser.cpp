#include "bill_dispenser.h"

#include <array>
#include <cctype>
#include <initializer_list>

#include "../formulas.h"
#include "../settings/layout.h"
#include "../setup.h"

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
// A dispense answer read after our two acknowledgements, or one that came first.
constexpr std::string_view kAfterAcksPrefix = "10061006";
constexpr std::string_view kAnswerFirstPrefix = "10051002";

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

DispenseOutcome decodeDispense(std::string_view reply) {
    DispenseOutcome out;
    if (reply.starts_with(kAfterAcksPrefix)) {
        out.error = field(reply, 21, 2) != kNoErrorCode;
        out.count = field(reply, 100, 2) == kBillDelivered ? 1 : 0;
    } else if (reply.starts_with(kAnswerFirstPrefix)) {
        out.error = field(reply, 13, 2) != kNoErrorCode;
        out.count = field(reply, 92, 2) == kBillDelivered ? 1 : 0;
    }
    return out;
}

}  // namespace bd

// --- The dispenser routines ----------------------------------------------------------------------

void BillDispenser::sendAckTwice() {
    SerialPort& port = m_setup.platform().dispenserPort;
    port.write(bd::ackFrame());
    m_setup.pause(bd::kAfterAckSeconds);
    port.write(bd::ackFrame());
    m_setup.pause(bd::kAfterAckSeconds);
}

void BillDispenser::readReply() {
    // One read: whatever the receive buffer holds by now.
    m_bdReply = bd::renderReply(m_setup.platform().dispenserPort.read());
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
    Console& c = m_setup.console();
    c.setText("bdSWVersion", m_bdVersion);
    c.setText("bdCasetteStatus", m_bdLow ? "LOW" : "OK");
    c.setText("bdMaxLenght", m_bdMaxLen);
    c.setText("bdMinLenght", m_bdMinLen);
    c.setText("bdThickness", std::to_string(m_bdThicknessValue));
    c.setText("bdStatus", m_bdError ? "ERR" : "OK");
}

void BillDispenser::writeMailbox() {
    Console& c = m_setup.console();
    m_setup.writeMailbox(store::mailbox::kBDStatus, c.text("bdStatus"));
    m_setup.writeMailbox(store::mailbox::kBDCassette, c.text("bdCasetteStatus"));
    m_setup.writeMailbox(store::mailbox::kBDDispensed, c.text("bdBillsDispensed"));
}

void BillDispenser::switchButtons(bool enabled) {
    m_setup.console().setEnabled("bdDispenseBills", enabled);
    m_setup.console().setEnabled("bdDispenserRefill", enabled);
}

void BillDispenser::initBillDispenser(int& bType) {
    SerialPort& port = m_setup.platform().dispenserPort;
    if (const std::optional<bd::SetupFrame> f = bd::setupFrame(bType)) {
        port.write(f->header);
        m_setup.pause(bd::kHeaderToBodySeconds);
        port.write(f->body);
    }
    m_setup.pause(bd::kSetupAnswerSeconds);
    sendAckTwice();
    readReply();
    apply(bd::decode(m_bdReply, bd::Answer::Setup));
    show();
}

void BillDispenser::statusBillDispenser() {
    SerialPort& port = m_setup.platform().dispenserPort;
    port.write(bd::statusFrame());
    m_setup.pause(bd::kStatusAnswerSeconds);
    sendAckTwice();
    readReply();
    apply(bd::decode(m_bdReply, bd::Answer::Status));
    show();
    m_setup.console().setText("bdBillsDispensed", "0");
    writeMailbox();
}

void BillDispenser::dispenseBD() {
    SerialPort& port = m_setup.platform().dispenserPort;
    // The console shows "--" for the whole wait (a view repaints on the change).
    m_setup.console().setText("bdBillsDispensed", "--");
    m_bdLastCount = 0;
    const bd::DispenseFrame& f = bd::dispenseFrame();
    port.write(f.header);
    m_setup.pause(bd::kHeaderToBodySeconds);
    for (const std::string& part : f.body) {
        port.write(part);
    }
    m_setup.pause(bd::kDispenseAnswerSeconds);
    // The dispenser answers when the bill has gone out, which takes as long as it takes: ask
    // until an answer of useful length arrives.
    m_bdReply.clear();
    while (m_bdReply.size() < bd::kDispenseAnswerMinChars) {
        m_setup.pause(bd::kDispenseRoundSeconds);
        sendAckTwice();
        readReply();
    }
    const bd::DispenseOutcome out = bd::decodeDispense(m_bdReply);
    if (out.error) {
        m_bdError = *out.error;
    }
    m_bdLastCount = out.count;
    m_setup.console().setText("bdStatus", m_bdError ? "ERR" : "OK");
}

void BillDispenser::bdDispenseBills_Click() {
    Console& c = m_setup.console();
    switchButtons(false);
    double remaining = wholePart(leadingNumber(c.text("bdQtyBills")));
    int delivered = 0;
    try {
        while (remaining > 0 && !m_bdError) {
            dispenseBD();
            remaining -= m_bdLastCount;
            delivered += m_bdLastCount;
            c.setText("bdBillsDispensed", std::to_string(delivered));
        }
    } catch (const std::exception&) {
        // The link failed mid-way (a vanished port): what was delivered stands, and the
        // dispenser is reported in error so that no payout relies on it until it is read again.
        m_bdError = true;
        c.setText("bdStatus", "ERR");
        c.setText("bdBillsDispensed", std::to_string(delivered));
    }
    try {
        writeMailbox();
    } catch (const std::exception&) {
        // A store that cannot be written must not leave the test buttons off.
    }
    switchButtons(true);
}

void BillDispenser::bdDispenserRefill_Click() {
    switchButtons(false);
    try {
        statusBillDispenser();
    } catch (const std::exception&) {
        m_bdError = true;
        m_setup.console().setText("bdStatus", "ERR");
        try {
            writeMailbox();
        } catch (const std::exception&) {
        }
    }
    switchButtons(true);
}

}  // namespace kestrix
