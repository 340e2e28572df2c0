#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrix {

class DeviceContext;
class SerialPort;

// The single-cassette bill dispenser on MSComm2 ("9600,e,8,1").
//
// Every request is a fixed byte string (DLE ENQ, DLE STX, length, data ending in 1C, DLE ETX and
// two fixed check bytes); the engine never builds a frame. After a request it waits, sends DLE ACK
// twice, reads the receive buffer once and picks fields out of the reply's hexadecimal rendering
// at fixed character positions.
namespace bd {

// The set-up request of a bill type: header, then (0.2 s later) body. No set-up for other types.
struct SetupFrame {
    std::string header;
    std::string body;
};
std::optional<SetupFrame> setupFrame(int billType);

// Dispense one bill: header, 0.2 s, then the three body parts back to back.
struct DispenseFrame {
    std::string header;
    std::string body[3];
};
const DispenseFrame& dispenseFrame();

// The status request, in one write.
const std::string& statusFrame();

// DLE ACK.
const std::string& ackFrame();

// The reply as the dispenser routines see it: each byte's upper-case hexadecimal digits without a
// leading zero, passed through the numeric display pattern "00". A numeral ("5") gains its zero
// ("05"); a one-letter text (bytes 0A to 0F) is not a number and stays one character, which
// shifts every later field one position to the left. The dispenser's field positions were fixed
// against this rendering, so it is kept.
std::string renderReply(std::string_view bytes);

// Characters `length` from 1-based position `position`; shorter (or empty) near the end.
std::string field(std::string_view reply, std::size_t position, std::size_t length);

// The fields of a set-up or status answer.
struct Decoded {
    bool error = false;
    bool low = false;
    std::string version;
    std::string maxLen = "0";
    std::string minLen = "0";
    int thickness = 0;
};
enum class Answer { Setup, Status };
Decoded decode(std::string_view reply, Answer answer);

// One dispense's answer, read from the bytes received since the request. The answer frame
// (DLE ENQ DLE STX, length, data, DLE ETX, two check bytes) is found wherever it starts among
// the acknowledgements, and its fields are read from two hexadecimal digits per byte: the
// result code two bytes after the length ("E0": done), and the delivery record's "B1" (bill
// delivered) at the 80th character of the frame's data. A byte 0A-0F before them (which the
// one-character rendering above would shorten, moving the fields) cannot hide a bill, and an
// answer not yet complete by its length is not read at all.
struct DispenseAnswer {
    bool complete = false;  // the whole frame has arrived
    bool error = false;     // the result code is not "E0"
    int count = 0;          // 1 when the delivery record says a bill left
};
DispenseAnswer decodeDispenseAnswer(std::string_view bytes);

}  // namespace bd

class BillDispenser {
public:
    static constexpr std::string_view kLineSettings = "9600,e,8,1";

    BillDispenser(DeviceContext& context, SerialPort& port) : m_context(context), m_port(port) {}

    // Opens MSComm2 on the port named by `portText` (closing it first if open). The text must be
    // a whole number (else KsxError); a port that cannot be opened throws PortError.
    void openPort(std::string_view portText);

    // Sets the dispenser up for the bill type (20, 50, 100, 200, 500 or 1000; any other type gets
    // no set-up) and reads its version, sizes and cassette state into the console. Writes nothing
    // to the store. Port errors are thrown to the caller's trap.
    void initBillDispenser(int& bType);
    // Reads the dispenser's state into the console and writes the three mailbox keys.
    void statusBillDispenser();
    // Delivers at most one bill; waits for its answer within bounds::kDispenseAnswerRounds.
    void dispenseBD();
    // Pays the number of bills in `bdQtyBills`, stopping at the first error.
    void bdDispenseBills_Click();

    // What a dispense of several bills achieved.
    struct Delivery {
        int delivered = 0;
        // The last bill's answer never came complete: whether it left is not known. The
        // dispenser is then reported in error and asked for nothing more.
        bool unknown = false;
    };
    // The most bills one payout asks for.
    static constexpr int kMaxBillsPerDispense = 100;
    // Pays `count` bills one at a time, stopping at the first error or unknown answer; never
    // asks for more than `count`. Writes the three mailbox keys.
    Delivery dispense(int count);
    // Runs the status read with the test buttons held off.
    void bdDispenserRefill_Click();

    // Console-level state.
    const std::string& bdReply() const { return m_bdReply; }
    bool bdError() const { return m_bdError; }

private:
    void sendAckTwice();
    void readReply();
    void apply(const bd::Decoded& d);
    void show();
    void writeMailbox();
    void switchButtons(bool enabled);

    DeviceContext& m_context;
    SerialPort& m_port;
    std::string m_bdReply;
    bool m_bdError = false;
    bool m_bdLow = false;
    std::string m_bdMaxLen = "0";
    std::string m_bdMinLen = "0";
    int m_bdThicknessValue = 0;
    std::string m_bdVersion;
    int m_bdLastCount = 0;
    bool m_lastUnknown = false;
};

}  // namespace kestrix
