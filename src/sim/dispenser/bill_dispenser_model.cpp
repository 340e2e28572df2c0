#include "bill_dispenser_model.h"

#include <algorithm>
#include <array>

#include <nlohmann/json.hpp>

namespace kestrix::sim {

namespace {

constexpr std::uint8_t kDle = 0x10;
constexpr std::uint8_t kEnq = 0x05;
constexpr std::uint8_t kStx = 0x02;
constexpr std::uint8_t kEtx = 0x03;
constexpr std::uint8_t kAck = 0x06;
constexpr std::uint8_t kNak = 0x15;
constexpr std::uint8_t kEnd = 0x1C;

constexpr double kAckSeconds = 0.005;
constexpr double kStatusSeconds = 0.1;
// A frame with a longer gap between two of its bytes is abandoned.
constexpr double kByteTimeoutSeconds = 1.0;
constexpr std::size_t kMaxData = 512;

// Result codes.
constexpr std::uint8_t kDone = 0xE0;
constexpr std::uint8_t kUnknownCommand = 0xF0;
constexpr std::uint8_t kMechanismError = 0xF1;
constexpr std::uint8_t kCassetteEmpty = 0xF3;
// Status flags (p1).
constexpr std::uint8_t kFlagError = 0x01;
constexpr std::uint8_t kFlagEmpty = 0x20;

struct BillFamily {
    int value;  // the first face value of the family
    std::uint8_t maxLength;
    std::uint8_t minLength;
};
// Bills of 20 and 50 share one set-up.
constexpr std::array<BillFamily, 5> kFamilies{{{20, 0x8B, 0x78},
                                               {100, 0xA5, 0x7C},
                                               {200, 0xA5, 0x83},
                                               {500, 0xA5, 0x89},
                                               {1000, 0xA5, 0x91}}};

const Bytes kDispenseData{0x60, 0x03, 0x15, 0x00, 0x30, 0xB1, 0x30, 0x30, 0x30,
                          0x30, 0x30, 0x30, 0xB1, 0x30, 0x30, 0x30, 0x30, 0x30,
                          0x30, 0x30, 0x05, 0x00, 0x00, 0x00, kEnd};
const Bytes kStatusData{0x00, 0x01, kEnd};

Bytes setUpData(std::uint8_t maxLength, std::uint8_t minLength) {
    return {0x60, 0x02, 0x0D, 0x00, maxLength, minLength, 0x00, 0x00, 0x00,
            0x00, 0x00, 0x00, 0x0F, 0x00,      0x00,      0x00, kEnd};
}

// `digits` BCD digits of `value`, most significant byte first.
void appendBcd(Bytes& out, int value, int digits) {
    value = std::max(0, value);
    Bytes b;
    for (int i = 0; i < digits / 2; ++i) {
        const int two = value % 100;
        value /= 100;
        b.push_back(static_cast<std::uint8_t>((two / 10) << 4 | two % 10));
    }
    out.insert(out.end(), b.rbegin(), b.rend());
}

}  // namespace

std::uint16_t dispenserCrc(const Bytes& bytes) {
    std::uint16_t crc = 0;
    for (const std::uint8_t b : bytes) {
        crc = static_cast<std::uint16_t>(crc ^ b);
        for (int i = 0; i < 8; ++i) {
            crc = (crc & 1) != 0 ? static_cast<std::uint16_t>((crc >> 1) ^ 0x8408)
                                 : static_cast<std::uint16_t>(crc >> 1);
        }
    }
    return crc;
}

BillDispenserModel::BillDispenserModel(DispenserProfile profile)
    : SimDevice({"silent", "error", "low", "empty", "shifted", "slow"}),
      m_profile(std::move(profile)),
      m_left(m_profile.bills) {}

void BillDispenserModel::send(Bytes bytes, double at, std::string note) {
    if (faultOn("silent")) {
        return;
    }
    m_log.add(at, FrameLog::Direction::FromDevice, hexBytes(bytes), std::move(note));
    m_out.push_back({at, std::move(bytes)});
}

void BillDispenserModel::receive(std::string_view bytes, double now) {
    m_log.add(now, FrameLog::Direction::ToDevice, hexBytes(bytes));
    advance(now);
    for (const char c : bytes) {
        byte(static_cast<std::uint8_t>(c), now);
    }
}

void BillDispenserModel::byte(std::uint8_t b, double now) {
    if (m_rx != Rx::Idle && m_rx != Rx::Dle && now - m_lastByteAt > kByteTimeoutSeconds) {
        m_rx = Rx::Idle;
    }
    m_lastByteAt = now;
    switch (m_rx) {
        case Rx::Idle:
            if (b == kDle) {
                m_rx = Rx::Dle;
            }
            return;  // line noise outside a frame is ignored
        case Rx::Dle:
            m_rx = Rx::Idle;
            if (b == kEnq) {
                send({kDle, kAck}, now + kAckSeconds, "DLE ACK (ENQ)");
            } else if (b == kStx) {
                m_frame.clear();
                m_rx = Rx::Len1;
            } else if (b == kNak && !m_lastAnswer.empty()) {
                send(m_lastAnswer, now + kAckSeconds, "answer again");
            } else if (b == kDle) {
                m_rx = Rx::Dle;
            }
            return;
        case Rx::Len1:
            m_frame.assign(1, b);
            m_rx = Rx::Len2;
            return;
        case Rx::Len2:
            m_frame.push_back(b);
            m_length = static_cast<std::size_t>(m_frame[0] << 8 | m_frame[1]);
            m_rx = m_length == 0 || m_length > kMaxData ? Rx::Idle : Rx::Data;
            return;
        case Rx::Data:
            m_frame.push_back(b);
            if (m_frame.size() == m_length + 2) {
                m_rx = Rx::EtxDle;
            }
            return;
        case Rx::EtxDle:
            m_rx = b == kDle ? Rx::Etx : Rx::Idle;
            if (m_rx == Rx::Idle) {
                send({kDle, kNak}, now + kAckSeconds, "DLE NAK (no DLE ETX)");
            }
            return;
        case Rx::Etx:
            m_rx = b == kEtx ? Rx::Crc1 : Rx::Idle;
            if (m_rx == Rx::Idle) {
                send({kDle, kNak}, now + kAckSeconds, "DLE NAK (no DLE ETX)");
            }
            return;
        case Rx::Crc1:
            m_crc = b;
            m_rx = Rx::Crc2;
            return;
        case Rx::Crc2:
            m_crc = static_cast<std::uint16_t>(m_crc | b << 8);
            m_rx = Rx::Idle;
            frameReceived(now);
            return;
    }
}

void BillDispenserModel::frameReceived(double now) {
    Bytes checked = m_frame;
    checked.push_back(kDle);
    checked.push_back(kEtx);
    if (dispenserCrc(checked) != m_crc) {
        send({kDle, kNak}, now + kAckSeconds, "DLE NAK (bad CRC)");
        return;
    }
    if (m_operation) {
        send({kDle, kNak}, now + kAckSeconds, "DLE NAK (busy)");
        return;
    }
    const Bytes data(m_frame.begin() + 2, m_frame.end());
    Operation op{Op::Unknown, now + kStatusSeconds, data};
    if (data == kStatusData) {
        op.op = Op::Status;
    } else if (data == kDispenseData) {
        op.op = Op::Dispense;
        op.due =
            now + (faultOn("slow") ? m_profile.slowDispenseSeconds : m_profile.dispenseSeconds);
    } else {
        for (const BillFamily& f : kFamilies) {
            if (data == setUpData(f.maxLength, f.minLength)) {
                op.op = Op::SetUp;
                op.due = now + m_profile.setupSeconds;
            }
        }
    }
    send({kDle, kAck}, now + kAckSeconds, "DLE ACK (frame)");
    m_operation = op;
}

bool BillDispenserModel::cassetteEmpty() const {
    return m_left <= 0 || faultOn("empty");
}

Bytes BillDispenserModel::statusBlock(std::uint8_t flags) const {
    Bytes p{flags, 0x00, 0x00, 0x00};
    p.push_back(static_cast<std::uint8_t>(m_profile.version >> 8));
    p.push_back(static_cast<std::uint8_t>(m_profile.version & 0xFF));
    p.insert(p.end(), 9, 0x00);
    const bool low = m_left < m_profile.lowBelow || faultOn("low") || cassetteEmpty();
    p.push_back(low ? 0x80 : 0x00);
    appendBcd(p, cassetteEmpty() ? 0 : m_left, 8);
    if (faultOn("shifted")) {
        p.back() = 0x0C;
    }
    p.push_back(m_maxLength);
    p.push_back(m_minLength);
    appendBcd(p, m_rejectedLast, 4);
    appendBcd(p, m_deliveredSincePowerUp, 6);
    const int t = std::clamp(m_thickness, 0, 0x9F);
    p.push_back(static_cast<std::uint8_t>(t >> 4));
    p.push_back(static_cast<std::uint8_t>((t & 0x0F) << 4));
    p.insert(p.end(), 7, 0x00);
    return p;
}

Bytes BillDispenserModel::answerFrame(std::uint8_t code, std::uint8_t cmd,
                                      const Bytes& payload) const {
    Bytes data{code, cmd, static_cast<std::uint8_t>(payload.size())};
    data.insert(data.end(), payload.begin(), payload.end());
    data.push_back(kEnd);
    Bytes body{static_cast<std::uint8_t>(data.size() >> 8),
               static_cast<std::uint8_t>(data.size() & 0xFF)};
    body.insert(body.end(), data.begin(), data.end());
    body.push_back(kDle);
    body.push_back(kEtx);
    const std::uint16_t crc = dispenserCrc(body);
    Bytes frame{kDle, kEnq, kDle, kStx};
    frame.insert(frame.end(), body.begin(), body.end());
    frame.push_back(static_cast<std::uint8_t>(crc & 0xFF));
    frame.push_back(static_cast<std::uint8_t>(crc >> 8));
    return frame;
}

void BillDispenserModel::finish(const Operation& op, double at) {
    const bool error = faultOn("error");
    std::uint8_t flags = error ? kFlagError : 0x00;
    if (cassetteEmpty()) {
        flags |= kFlagEmpty;
    }
    Bytes answer;
    std::string note;
    switch (op.op) {
        case Op::SetUp: {
            for (const BillFamily& f : kFamilies) {
                if (op.request[4] == f.maxLength && op.request[5] == f.minLength) {
                    m_setUpFor = f.value;
                }
            }
            m_maxLength = op.request[4];
            m_minLength = op.request[5];
            m_thickness = op.request[12];
            Bytes payload = statusBlock(flags);
            payload.insert(payload.end(), op.request.begin() + 3, op.request.end() - 1);
            payload.insert(payload.end(), 3, 0x00);
            answer = answerFrame(error ? kMechanismError : kDone, 0x02, payload);
            note = "set-up answer";
            break;
        }
        case Op::Status:
            answer = answerFrame(error ? kMechanismError : kDone, 0x01, statusBlock(flags));
            note = "status answer";
            break;
        case Op::Dispense: {
            std::uint8_t code = kDone;
            bool delivered = false;
            m_rejectedLast = 0;
            if (error) {
                code = kMechanismError;
            } else if (cassetteEmpty()) {
                code = kCassetteEmpty;
            } else {
                --m_left;
                ++m_delivered;
                ++m_deliveredSincePowerUp;
                delivered = true;
                if (m_left <= 0) {
                    flags |= kFlagEmpty;
                }
            }
            Bytes payload = statusBlock(flags);
            payload.push_back(delivered ? 0x3B : 0x30);
            payload.push_back(delivered ? 0x10 : 0x00);
            payload.push_back(0x00);
            payload.push_back(0x00);
            answer = answerFrame(code, 0x03, payload);
            note = delivered ? "dispense answer: one bill delivered" : "dispense answer: none";
            break;
        }
        case Op::Unknown:
            answer = answerFrame(kUnknownCommand, op.request.size() > 1 ? op.request[1] : 0, {});
            note = "unknown command";
            break;
    }
    m_lastAnswer = answer;
    send(std::move(answer), at, std::move(note));
}

void BillDispenserModel::advance(double now) {
    if (m_operation && m_operation->due <= now) {
        const Operation op = *m_operation;
        m_operation.reset();
        finish(op, op.due);
    }
}

std::string BillDispenserModel::transmit(double now) {
    advance(now);
    std::string out;
    while (!m_out.empty() && m_out.front().due <= now) {
        for (const std::uint8_t b : m_out.front().bytes) {
            out += static_cast<char>(b);
        }
        m_out.pop_front();
    }
    return out;
}

double BillDispenserModel::nextOutputAt(double) const {
    double next = m_out.empty() ? kNever : m_out.front().due;
    if (m_operation) {
        next = std::min(next, m_operation->due);
    }
    return next;
}

void BillDispenserModel::powerCycle(double) {
    m_rx = Rx::Idle;
    m_operation.reset();
    m_out.clear();
    m_lastAnswer.clear();
    m_deliveredSincePowerUp = 0;
    m_rejectedLast = 0;
}

ControlResult BillDispenserModel::setBills(int count) {
    if (count < 0 || count > 9999) {
        return ControlResult::rejected("rejected: a cassette holds 0 to 9999 bills");
    }
    m_left = count;
    return ControlResult::accepted("cassette holds " + std::to_string(count) + " bills");
}

nlohmann::ordered_json BillDispenserModel::state() const {
    nlohmann::ordered_json w;
    w["faults"] = activeFaults();
    w["billsLeft"] = m_left;
    w["billsDelivered"] = m_delivered;
    w["billValue"] = m_profile.billValue;
    w["setUpFor"] = m_setUpFor;
    w["low"] = m_left < m_profile.lowBelow;
    w["busy"] = busy();
    w["frames"] = m_log.json();
    return w;
}

}  // namespace kestrix::sim
