#include "coin_changer.h"

#include <algorithm>
#include <cstdio>
#include <numeric>

#include <nlohmann/json.hpp>

namespace kestrix::sim {

namespace {

void appendText(Bytes& out, const std::string& text, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) {
        out.push_back(static_cast<std::uint8_t>(i < text.size() ? text[i] : ' '));
    }
}

std::string hex4(unsigned value) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "%04X", value & 0xFFFF);
    return buf;
}

std::uint8_t hi(unsigned v) {
    return static_cast<std::uint8_t>((v >> 8) & 0xFF);
}
std::uint8_t lo(unsigned v) {
    return static_cast<std::uint8_t>(v & 0xFF);
}

}  // namespace

CoinChanger::CoinChanger(ChangerProfile profile)
    : MdbPeripheral({"silent", "reset-only", "cassette-removed", "payout-jam", "busy-forever"}),
      m_profile(std::move(profile)) {
    m_tubes = m_profile.tubeStart;
    // Power-up: like a reset, the first POLL reports "changer was reset".
    reset();
}

std::size_t CoinChanger::frameLength(const Bytes& start) const {
    switch (start[0] & 0x07) {
        case 4:  // COIN TYPE: four data bytes
            return 6;
        case 5:  // DISPENSE: one data byte
            return 3;
        case 7:  // EXPANSION: the sub-command tells
            if (start.size() < 2) {
                return 0;
            }
            switch (start[1]) {
                case 0x01:  // FEATURE ENABLE: four bytes
                    return 7;
                case 0x02:  // ALTERNATIVE PAYOUT: one byte
                    return 4;
                default:
                    return 3;
            }
        default:
            return 2;
    }
}

std::string CoinChanger::commandName(const Bytes& frame) const {
    static const char* const kNames[] = {"RESET",     "SETUP",    "TUBE STATUS", "POLL",
                                         "COIN TYPE", "DISPENSE", "?",           "EXPANSION"};
    std::string name = kNames[frame[0] & 0x07];
    if ((frame[0] & 0x07) == 7 && frame.size() > 1) {
        static const char* const kSub[] = {"IDENTIFICATION",     "FEATURE ENABLE",
                                           "ALTERNATIVE PAYOUT", "PAYOUT STATUS",
                                           "PAYOUT VALUE POLL",  "DIAGNOSTIC STATUS"};
        name += frame[1] < 6 ? std::string(" ") + kSub[frame[1]] : std::string(" ?");
    }
    return name;
}

void CoinChanger::reset() {
    clearEvents();
    m_inFlight.clear();  // coins still in the acceptor drop back to the return cup
    m_payout.clear();
    m_coinEnable = 0;
    m_manualEnable = 0;
    queueEvent({0x0B});
}

void CoinChanger::powerCycle(double now) {
    advance(now);
    reset();
}

bool CoinChanger::routesToTube(int type) const {
    return ((m_profile.tubeRouting >> type) & 1) != 0;
}

void CoinChanger::advance(double now) {
    m_now = std::max(m_now, now);
    while (!m_inFlight.empty() && m_inFlight.front().due <= m_now) {
        const int t = m_inFlight.front().type;
        m_inFlight.pop_front();
        const bool toTube = routesToTube(t) && !faultOn("cassette-removed") &&
                            m_tubes[static_cast<std::size_t>(t)] < m_profile.tubeCapacity;
        if (toTube) {
            ++m_tubes[static_cast<std::size_t>(t)];
        } else {
            ++m_cashBox[static_cast<std::size_t>(t)];
        }
        queueEvent({static_cast<std::uint8_t>(0x40 | (toTube ? 0x10 : 0x00) | t),
                    static_cast<std::uint8_t>(std::min(255, tubeCount(t)))});
    }
    while (!m_payout.empty() && m_payout.front().due <= m_now) {
        if (faultOn("payout-jam")) {
            // A coin wedged in the payout slot: the mechanism stops and tells the master.
            m_payout.clear();
            queueEvent({0x07});
            break;
        }
        const auto t = static_cast<std::size_t>(m_payout.front().type);
        m_payout.pop_front();
        if (m_tubes[t] > 0 && !faultOn("cassette-removed")) {
            --m_tubes[t];
            ++m_paidOut[t];
            ++m_payoutStatus[t];
            m_valueSinceValuePoll += m_profile.coinCredits[t];
        }
    }
}

int CoinChanger::tubeCount(int type) const {
    if (type < 0 || type > 15 || faultOn("cassette-removed")) {
        return 0;
    }
    return m_tubes[static_cast<std::size_t>(type)];
}

int CoinChanger::cashBoxCount(int type) const {
    return type < 0 || type > 15 ? 0 : m_cashBox[static_cast<std::size_t>(type)];
}

int CoinChanger::paidOutCount(int type) const {
    return type < 0 || type > 15 ? 0 : m_paidOut[static_cast<std::size_t>(type)];
}

Bytes CoinChanger::tubeStatus() const {
    unsigned full = 0;
    Bytes counts;
    for (int t = 0; t < 16; ++t) {
        const int n = tubeCount(t);
        if (routesToTube(t) && n >= m_profile.tubeCapacity) {
            full |= 1u << t;
        }
        counts.push_back(static_cast<std::uint8_t>(std::min(255, n)));
    }
    counts.insert(counts.begin(), {hi(full), lo(full)});
    return counts;
}

void CoinChanger::planCoins(int type, int count, double now) {
    double at = std::max(now, m_payout.empty() ? now : m_payout.back().due);
    for (int i = 0; i < count; ++i) {
        at += m_profile.payoutSecondsPerCoin;
        m_payout.push_back({type, at});
    }
}

int CoinChanger::planPayout(int credits, double now) {
    if (faultOn("cassette-removed")) {
        return 0;
    }
    // The changer chooses the coins: largest first, never more than asked.
    std::array<int, 16> order{};
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [this](int a, int b) {
        return m_profile.coinCredits[static_cast<std::size_t>(a)] >
               m_profile.coinCredits[static_cast<std::size_t>(b)];
    });
    int planned = 0;
    for (const int t : order) {
        const int credit = m_profile.coinCredits[static_cast<std::size_t>(t)];
        if (credit <= 0 || credit == 0xFF || !routesToTube(t)) {
            continue;
        }
        const int n = std::min(credits / credit, m_tubes[static_cast<std::size_t>(t)]);
        if (n > 0) {
            planCoins(t, n, now);
            credits -= n * credit;
            planned += n;
        }
    }
    return planned;
}

MdbAnswer CoinChanger::command(const Bytes& frame, double now) {
    if (faultOn("silent")) {
        return MdbAnswer::silent();
    }
    const int cmd = frame[0] & 0x07;
    if (faultOn("reset-only") && cmd != 0) {
        return MdbAnswer::silent();
    }
    advance(now);
    switch (cmd) {
        case 0:  // RESET
            reset();
            return MdbAnswer::ack();
        case 1: {  // SETUP
            Bytes d{static_cast<std::uint8_t>(m_profile.level),
                    hi(m_profile.countryCode),
                    lo(m_profile.countryCode),
                    static_cast<std::uint8_t>(m_profile.scalingFactor),
                    static_cast<std::uint8_t>(m_profile.decimalPlaces),
                    hi(m_profile.tubeRouting),
                    lo(m_profile.tubeRouting)};
            for (const int c : m_profile.coinCredits) {
                d.push_back(static_cast<std::uint8_t>(c));
            }
            return dataAnswer(std::move(d));
        }
        case 2:  // TUBE STATUS
            return dataAnswer(tubeStatus());
        case 3: {  // POLL
            Bytes status;
            if (payoutBusy() || faultOn("busy-forever")) {
                status.push_back(0x02);
            }
            return pollAnswer(status);
        }
        case 4:  // COIN TYPE
            m_coinEnable = static_cast<std::uint16_t>(frame[1] << 8 | frame[2]);
            m_manualEnable = static_cast<std::uint16_t>(frame[3] << 8 | frame[4]);
            return MdbAnswer::ack();
        case 5:  // DISPENSE: nnnn tttt
            if (!payoutBusy() && !faultOn("cassette-removed")) {
                const int type = frame[1] & 0x0F;
                planCoins(type, std::min(frame[1] >> 4, m_tubes[static_cast<std::size_t>(type)]),
                          now);
            }
            return MdbAnswer::ack();
        case 7:
            return expansion(frame, now);
        default:
            return MdbAnswer::silent();
    }
}

MdbAnswer CoinChanger::expansion(const Bytes& frame, double now) {
    switch (frame[1]) {
        case 0x00: {  // IDENTIFICATION
            Bytes d;
            appendText(d, m_profile.manufacturer, 3);
            appendText(d, m_profile.serialNumber, 12);
            appendText(d, m_profile.modelNumber, 12);
            d.push_back(hi(m_profile.softwareVersion));
            d.push_back(lo(m_profile.softwareVersion));
            for (int shift = 24; shift >= 0; shift -= 8) {
                d.push_back(static_cast<std::uint8_t>((m_profile.options >> shift) & 0xFF));
            }
            return dataAnswer(std::move(d));
        }
        case 0x01:  // FEATURE ENABLE
            return MdbAnswer::ack();
        case 0x02:  // ALTERNATIVE PAYOUT, in credit units
            if (!payoutBusy()) {
                std::fill(m_payoutStatus.begin(), m_payoutStatus.end(), 0);
                m_valueSinceValuePoll = 0;
                planPayout(frame[2], now);
            }
            return MdbAnswer::ack();
        case 0x03: {  // PAYOUT STATUS
            if (payoutBusy()) {
                return MdbAnswer::ack();
            }
            Bytes d;
            for (int& n : m_payoutStatus) {
                d.push_back(static_cast<std::uint8_t>(std::min(255, n)));
                n = 0;
            }
            return dataAnswer(std::move(d));
        }
        case 0x04: {  // PAYOUT VALUE POLL
            if (!payoutBusy()) {
                return MdbAnswer::ack();
            }
            const int v = std::min(255, m_valueSinceValuePoll);
            m_valueSinceValuePoll = 0;
            return dataAnswer({static_cast<std::uint8_t>(v)});
        }
        case 0x05:  // SEND DIAGNOSTIC STATUS
            if (faultOn("cassette-removed")) {
                return dataAnswer({0x15, 0x02});
            }
            return dataAnswer({0x03, 0x00});
        default:
            return MdbAnswer::silent();
    }
}

ControlResult CoinChanger::insertCoin(int type, double now) {
    advance(now);
    const std::string name = "coin type " + std::to_string(type + 1);
    if (type < 0 || type > 15 || m_profile.coinCredits[static_cast<std::size_t>(type)] <= 0) {
        return ControlResult::rejected("rejected: the changer has no " + name);
    }
    if (((m_coinEnable >> type) & 1) == 0) {
        // The accept gate stays shut; the changer reports the coin as rejected.
        queueEvent({static_cast<std::uint8_t>(0x70 | type),
                    static_cast<std::uint8_t>(std::min(255, tubeCount(type)))});
        return ControlResult::rejected("rejected: " + name +
                                       " is not enabled by the engine; the coin is returned");
    }
    const double start = std::max(m_now, m_acceptorFreeAt);
    m_inFlight.push_back({type, start + m_profile.coinValidationSeconds});
    m_acceptorFreeAt = start + m_profile.coinCycleSeconds;
    return ControlResult::accepted("accepted: " + name);
}

ControlResult CoinChanger::setTubeCount(int type, int count) {
    if (type < 0 || type > 15 || !routesToTube(type)) {
        return ControlResult::rejected("rejected: coin type " + std::to_string(type + 1) +
                                       " has no tube");
    }
    if (count < 0 || count > 255) {
        return ControlResult::rejected("rejected: a tube holds 0 to 255 coins");
    }
    m_tubes[static_cast<std::size_t>(type)] = count;
    return ControlResult::accepted("tube of coin type " + std::to_string(type + 1) + " holds " +
                                   std::to_string(count));
}

nlohmann::ordered_json CoinChanger::state() const {
    int types = 0;
    for (int t = 0; t < 16; ++t) {
        if (m_profile.coinCredits[static_cast<std::size_t>(t)] > 0) {
            types = t + 1;
        }
    }
    std::vector<int> tubes, cash, paid, credits;
    for (int t = 0; t < types; ++t) {
        tubes.push_back(tubeCount(t));
        cash.push_back(cashBoxCount(t));
        paid.push_back(paidOutCount(t));
        credits.push_back(m_profile.coinCredits[static_cast<std::size_t>(t)]);
    }
    nlohmann::ordered_json w;
    w["faults"] = activeFaults();
    w["coinCredits"] = credits;
    w["coinEnable"] = hex4(m_coinEnable);
    w["manualDispense"] = hex4(m_manualEnable);
    w["tubes"] = tubes;
    w["cashBox"] = cash;
    w["paidOut"] = paid;
    w["payoutBusy"] = payoutBusy();
    w["coinsPlanned"] = static_cast<int>(m_payout.size());
    w["coinsInAcceptor"] = static_cast<int>(m_inFlight.size());
    w["pendingEvents"] = static_cast<int>(pendingEvents());
    w["frames"] = m_busLog.json();
    return w;
}

}  // namespace kestrix::sim
