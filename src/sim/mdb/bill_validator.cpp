#include "bill_validator.h"

#include <algorithm>
#include <cstdio>

#include <nlohmann/json.hpp>

namespace kestrix::sim {

namespace {

void appendText(Bytes& out, const std::string& text, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) {
        out.push_back(static_cast<std::uint8_t>(i < text.size() ? text[i] : ' '));
    }
}

std::uint8_t hi(unsigned v) {
    return static_cast<std::uint8_t>((v >> 8) & 0xFF);
}
std::uint8_t lo(unsigned v) {
    return static_cast<std::uint8_t>(v & 0xFF);
}

std::string hex4(unsigned value) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "%04X", value & 0xFFFF);
    return buf;
}

}  // namespace

BillValidator::BillValidator(ValidatorProfile profile)
    : MdbPeripheral({"silent", "ccd", "flaky"}), m_profile(std::move(profile)) {
    reset();
}

std::size_t BillValidator::frameLength(const Bytes& start) const {
    switch (start[0] & 0x07) {
        case 2:  // SECURITY: two bytes
            return 4;
        case 4:  // BILL TYPE: four bytes
            return 6;
        case 5:  // ESCROW: one byte
            return 3;
        case 7:
            if (start.size() < 2) {
                return 0;
            }
            return start[1] == 0x01 ? 7 : 3;  // level 2 FEATURE ENABLE carries four bytes
        default:
            return 2;
    }
}

std::string BillValidator::commandName(const Bytes& frame) const {
    static const char* const kNames[] = {"RESET",     "SETUP",  "SECURITY", "POLL",
                                         "BILL TYPE", "ESCROW", "STACKER",  "EXPANSION"};
    std::string name = kNames[frame[0] & 0x07];
    if ((frame[0] & 0x07) == 7 && frame.size() > 1 && frame[1] == 0x00) {
        name += " IDENTIFICATION";
    }
    return name;
}

bool BillValidator::setFault(std::string_view name, bool on) {
    m_missed = 0;
    return MdbPeripheral::setFault(name, on);
}

std::string BillValidator::manufacturer() const {
    return faultOn("ccd") ? std::string("CCD") : m_profile.manufacturer;
}

void BillValidator::reset() {
    clearEvents();
    // A reset hands back the bill in escrow and any bill still in the transport.
    m_escrow.reset();
    m_inFlight.clear();
    m_billEnable = 0;
    m_escrowEnable = 0;
    queueEvent({0x06});
}

void BillValidator::powerCycle(double now) {
    advance(now);
    reset();
}

void BillValidator::stack(int type) {
    ++m_stacked[static_cast<std::size_t>(type)];
    ++m_stackerCount;
    queueEvent({static_cast<std::uint8_t>(0x80 | type)});
}

void BillValidator::advance(double now) {
    m_now = std::max(m_now, now);
    while (!m_inFlight.empty() && m_inFlight.front().due <= m_now) {
        const int t = m_inFlight.front().type;
        m_inFlight.pop_front();
        if (((m_escrowEnable >> t) & 1) != 0 && !m_escrow) {
            m_escrow = t;
            queueEvent({static_cast<std::uint8_t>(0x90 | t)});
        } else {
            stack(t);
        }
    }
}

int BillValidator::stackedCount(int type) const {
    return type < 0 || type > 15 ? 0 : m_stacked[static_cast<std::size_t>(type)];
}

MdbAnswer BillValidator::command(const Bytes& frame, double now) {
    if (faultOn("silent")) {
        return MdbAnswer::silent();
    }
    if (faultOn("flaky")) {
        if (m_missed < m_flakyMisses) {
            ++m_missed;
            return MdbAnswer::silent();
        }
        m_missed = 0;
    }
    advance(now);
    switch (frame[0] & 0x07) {
        case 0:  // RESET
            reset();
            return MdbAnswer::ack();
        case 1: {  // SETUP
            const auto scaling = static_cast<unsigned>(m_profile.scalingFactor);
            const auto capacity = static_cast<unsigned>(m_profile.stackerCapacity);
            Bytes d{static_cast<std::uint8_t>(m_profile.level),
                    hi(m_profile.countryCode),
                    lo(m_profile.countryCode),
                    hi(scaling),
                    lo(scaling),
                    static_cast<std::uint8_t>(m_profile.decimalPlaces),
                    hi(capacity),
                    lo(capacity),
                    hi(m_profile.securityLevels),
                    lo(m_profile.securityLevels),
                    static_cast<std::uint8_t>(m_profile.escrow ? 0xFF : 0x00)};
            for (const int c : m_profile.billCredits) {
                d.push_back(static_cast<std::uint8_t>(c));
            }
            return dataAnswer(std::move(d));
        }
        case 2:  // SECURITY
            return MdbAnswer::ack();
        case 3: {  // POLL
            Bytes status;
            if (m_billEnable == 0) {
                status.push_back(0x09);  // disabled, on every POLL while it lasts
            }
            return pollAnswer(status);
        }
        case 4:  // BILL TYPE
            m_billEnable = static_cast<std::uint16_t>(frame[1] << 8 | frame[2]);
            m_escrowEnable = static_cast<std::uint16_t>(frame[3] << 8 | frame[4]);
            return MdbAnswer::ack();
        case 5:  // ESCROW
            if (!m_escrow) {
                queueEvent({0x0A});  // invalid escrow request
            } else if (frame[1] != 0) {
                const int t = *m_escrow;
                m_escrow.reset();
                stack(t);
            } else {
                queueEvent({static_cast<std::uint8_t>(0xA0 | *m_escrow)});
                m_escrow.reset();
            }
            return MdbAnswer::ack();
        case 6: {  // STACKER
            unsigned v = static_cast<unsigned>(std::min(m_stackerCount, 0x7FFF));
            if (m_stackerCount >= m_profile.stackerCapacity) {
                v |= 0x8000;
            }
            return dataAnswer({hi(v), lo(v)});
        }
        case 7:
            if (frame[1] == 0x00) {  // IDENTIFICATION (level 1: no option bits)
                Bytes d;
                appendText(d, manufacturer(), 3);
                appendText(d, m_profile.serialNumber, 12);
                appendText(d, m_profile.modelNumber, 12);
                d.push_back(hi(m_profile.softwareVersion));
                d.push_back(lo(m_profile.softwareVersion));
                return dataAnswer(std::move(d));
            }
            return MdbAnswer::silent();
        default:
            return MdbAnswer::silent();
    }
}

ControlResult BillValidator::insertBill(int type, double now) {
    advance(now);
    const std::string name = "bill type " + std::to_string(type + 1);
    if (type < 0 || type > 15 || m_profile.billCredits[static_cast<std::size_t>(type)] <= 0) {
        return ControlResult::rejected("rejected: the validator has no " + name);
    }
    if (m_billEnable == 0) {
        queueEvent({0x41});  // one attempt while disabled
        return ControlResult::rejected(
            "rejected: the validator is disabled (no bill type enabled by the engine); the "
            "bill is returned");
    }
    if (((m_billEnable >> type) & 1) == 0) {
        queueEvent({static_cast<std::uint8_t>(0xC0 | type)});
        return ControlResult::rejected("rejected: " + name +
                                       " is not enabled by the engine; the bill is returned");
    }
    const double start = std::max(m_now, m_transportFreeAt);
    m_inFlight.push_back({type, start + m_profile.billValidationSeconds});
    m_transportFreeAt = start + m_profile.billCycleSeconds;
    return ControlResult::accepted("accepted: " + name);
}

nlohmann::ordered_json BillValidator::state() const {
    int types = 0;
    for (int t = 0; t < 16; ++t) {
        if (m_profile.billCredits[static_cast<std::size_t>(t)] > 0) {
            types = t + 1;
        }
    }
    std::vector<int> stacked, credits;
    for (int t = 0; t < types; ++t) {
        stacked.push_back(stackedCount(t));
        credits.push_back(m_profile.billCredits[static_cast<std::size_t>(t)]);
    }
    nlohmann::ordered_json w;
    w["faults"] = activeFaults();
    w["manufacturer"] = manufacturer();
    w["billCredits"] = credits;
    w["billEnable"] = hex4(m_billEnable);
    w["escrowEnable"] = hex4(m_escrowEnable);
    w["stacked"] = stacked;
    w["stackerCount"] = m_stackerCount;
    w["inEscrow"] = m_escrow ? nlohmann::ordered_json(*m_escrow + 1) : nlohmann::ordered_json();
    w["billsInTransport"] = static_cast<int>(m_inFlight.size());
    w["pendingEvents"] = static_cast<int>(pendingEvents());
    w["frames"] = m_busLog.json();
    return w;
}

}  // namespace kestrix::sim
