#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "sim/frame_log.h"
#include "sim/link_device.h"
#include "sim/profile.h"
#include "sim/sim_device.h"

namespace kestrix::sim {

using Bytes = std::vector<std::uint8_t>;

// CRC-16/KERMIT (polynomial 1021h reflected, initial value 0) over the length bytes, the data
// and the closing DLE ETX: the two check bytes of a dispenser frame, low byte first.
std::uint16_t dispenserCrc(const Bytes& lengthDataEtx);

// A single-cassette bill dispenser on its own serial line (9600 baud, even parity).
//
// Link protocol. A frame is DLE ENQ (10 05), DLE STX (10 02), the data length (2 bytes, high
// first), the data (ending in 1C), DLE ETX (10 03) and the CRC (2 bytes, low first). The
// dispenser acknowledges the host's DLE ENQ and each good frame with DLE ACK (10 06); a frame
// with a bad CRC or arriving while an operation runs gets DLE NAK (10 15). When the operation
// is done the dispenser sends its answer, announced the same way (DLE ENQ, then at once the
// frame). The host's DLE ACKs are taken as receipts; a DLE NAK asks for the answer again.
//
// Requests (data part): set-up "60 02 0D 00 <max> <min> 00 00 00 00 00 00 0F 00 00 00 1C" for
// the five bill families the dispenser knows (max/min bill length in mm), dispense one bill
// "60 03 15 00 30 B1 30 30 30 30 30 30 B1 30 30 30 30 30 30 30 05 00 00 00 1C", status
// "00 01 1C". Anything else is answered with result code F0.
//
// Answer data: result code (E0 done, F0 unknown command, F1 mechanism error, F3 cassette
// empty), the command (02 set-up, 01 status, 03 dispense), the payload length, the payload,
// 1C. The payload starts with a 36-byte status block:
//   p1-p4    status flags (01 mechanism error, 20 cassette empty; 00 when all is well)
//   p5-p6    firmware version
//   p7-p15   error detail, zero when all is well
//   p16      cassette: 80 low, 00 ok
//   p17-p20  bills in the cassette, 8 BCD digits
//   p21-p22  maximum and minimum bill length set up (mm)
//   p23-p24  bills rejected in the last operation, BCD
//   p25-p27  bills delivered since power-up, BCD
//   p28-p29  bill thickness (hundredths of a mm) in the upper 12 bits, lower 4 bits zero
//   p30-p36  reserved, zero
// Set-up answers (length 34h) add the 16 set-up bytes as received (13, then 3 zeros); status
// answers (24h) are the block alone; dispense answers (28h) add a delivery record of four
// nibbles "3 B 1 0" (exit shutter, bill delivered, one bill, 0) or "3 0 0 0", and two zeros.
//
// Counts are BCD so that no byte before the delivery record lies in 0A-0F: the engine turns
// each byte into hexadecimal text without a leading zero for one-letter values, which would
// move every later field by one character. The `shifted` fault sends such a byte (0C in p20).
//
// Fault switches: silent (nothing at all, not even DLE ACK), error (mechanism error on every
// operation), low (cassette reported low), empty (cassette reported empty, nothing delivered),
// shifted (see above), slow (a dispense takes long enough for the answer to come after the
// host's first read).
class BillDispenserModel : public LinkDevice, public SimDevice {
public:
    explicit BillDispenserModel(DispenserProfile profile = {});

    void receive(std::string_view bytes, double now) override;
    std::string transmit(double now) override;
    // The next queued answer, or the end of the operation under way (its answer follows).
    double nextOutputAt(double now) const override;
    void powerCycle(double now) override;
    nlohmann::ordered_json state() const override;

    // Lets a running operation finish by `now`.
    void advance(double now);
    ControlResult setBills(int count);
    int billsLeft() const { return m_left; }
    int billsDelivered() const { return m_delivered; }
    bool busy() const { return m_operation.has_value(); }
    // Face value of the bills the last set-up was for (20 and 50 share one set-up; 0 before
    // any set-up).
    int setUpFor() const { return m_setUpFor; }
    const FrameLog& log() const { return m_log; }

private:
    enum class Op { SetUp, Status, Dispense, Unknown };
    struct Operation {
        Op op;
        double due;
        Bytes request;
    };
    enum class Rx { Idle, Dle, Len1, Len2, Data, EtxDle, Etx, Crc1, Crc2 };

    void byte(std::uint8_t b, double now);
    void frameReceived(double now);
    void finish(const Operation& op, double now);
    void send(Bytes bytes, double at, std::string note);
    Bytes statusBlock(std::uint8_t flags) const;
    Bytes answerFrame(std::uint8_t code, std::uint8_t cmd, const Bytes& payload) const;
    bool cassetteEmpty() const;

    DispenserProfile m_profile;
    int m_left;
    int m_delivered = 0;
    int m_deliveredSincePowerUp = 0;
    int m_rejectedLast = 0;
    std::uint8_t m_maxLength = 0x8B;
    std::uint8_t m_minLength = 0x78;
    int m_thickness = 0x0F;
    int m_setUpFor = 0;

    Rx m_rx = Rx::Idle;
    double m_lastByteAt = 0;
    Bytes m_frame;  // length bytes and data
    std::size_t m_length = 0;
    std::uint16_t m_crc = 0;
    std::optional<Operation> m_operation;
    Bytes m_lastAnswer;

    struct Out {
        double due;
        Bytes bytes;
    };
    std::deque<Out> m_out;
    FrameLog m_log;
};

}  // namespace kestrix::sim
