#include "hopper.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace kestrix::sim {

namespace {

namespace hdr {
constexpr std::uint8_t kResetDevice = 1;
constexpr std::uint8_t kRequestCipherKey = 160;
constexpr std::uint8_t kTestHopper = 163;
constexpr std::uint8_t kEnableHopper = 164;
constexpr std::uint8_t kHopperStatus = 166;
constexpr std::uint8_t kDispenseHopperCoins = 167;
constexpr std::uint8_t kDispenseCount = 168;
constexpr std::uint8_t kEmergencyStop = 172;
constexpr std::uint8_t kPayoutLevelStatus = 217;
constexpr std::uint8_t kSerialNumber = 242;
constexpr std::uint8_t kProductCode = 244;
constexpr std::uint8_t kEquipmentCategory = 245;
constexpr std::uint8_t kManufacturerId = 246;
constexpr std::uint8_t kSimplePoll = 254;
}  // namespace hdr

constexpr std::uint8_t kNak = 5;
constexpr std::uint8_t kEnableCode = 0xA5;

// Test register bits.
constexpr std::uint8_t kMaxCurrentExceeded = 0x01;
constexpr std::uint8_t kPayoutTimeout = 0x02;
constexpr std::uint8_t kPowerUp = 0x40;
constexpr std::uint8_t kPayoutDisabled = 0x80;

// What header 160 hands out in the "noencrypt8" mode; the hopper accepts any 8 bytes after it.
const Bytes kCipherKey{0x3C, 0x81, 0x5E, 0x22, 0x97, 0x40, 0x6B, 0xD5};

Bytes text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

std::uint8_t byteOf(int v) {
    return static_cast<std::uint8_t>(std::clamp(v, 0, 255));
}

}  // namespace

std::uint8_t ccTalkChecksum(const Bytes& frame) {
    unsigned sum = 0;
    for (const std::uint8_t b : frame) {
        sum += b;
    }
    return static_cast<std::uint8_t>((256 - (sum & 0xFF)) & 0xFF);
}

Hopper::Hopper(HopperProfile profile)
    : SimDevice({"silent", "empty", "jam", "no-echo"}),
      m_profile(std::move(profile)),
      m_coins(m_profile.coins) {}

std::uint8_t Hopper::testRegister() const {
    std::uint8_t r = m_latched;
    if (m_powerUp) {
        r |= kPowerUp;
    }
    if (!m_enabled) {
        r |= kPayoutDisabled;
    }
    return r;
}

void Hopper::advance(double now) {
    m_now = std::max(m_now, now);
    while (m_remaining > 0) {
        if (faultOn("jam")) {
            // The motor is stalled: nothing moves until the jam clears or the host stops it.
            m_latched |= kMaxCurrentExceeded;
            m_lastProgress = m_now;
            return;
        }
        if (m_coins <= 0 || faultOn("empty")) {
            if (m_now >= m_lastProgress + m_profile.emptyTimeoutSeconds) {
                m_unpaid += m_remaining;
                m_remaining = 0;
                m_latched |= kPayoutTimeout;
            }
            return;
        }
        const double next = m_lastProgress + m_profile.secondsPerCoin;
        if (next > m_now) {
            return;
        }
        --m_coins;
        --m_remaining;
        ++m_paid;
        ++m_lifetimePaid;
        m_lastProgress = next;
    }
}

void Hopper::reset(double now) {
    m_enabled = false;
    m_eventCounter = 0;
    m_unpaid += m_remaining;
    m_remaining = 0;
    m_latched = 0;
    m_powerUp = false;
    m_cipherRequested = false;
    m_deafUntil = now + kDeafAfterResetSeconds;
}

void Hopper::powerCycle(double now) {
    advance(now);
    reset(now);
    m_paid = 0;
    m_unpaid = 0;
    m_powerUp = true;
}

std::optional<Hopper::Reply> Hopper::dispense(const Bytes& data, double now) {
    const std::string& mode = m_profile.mode;
    bool secured = false;
    if (mode == "serial") {
        secured = data.size() == 4 && data[0] == (m_profile.serialNumber & 0xFF) &&
                  data[1] == ((m_profile.serialNumber >> 8) & 0xFF) &&
                  data[2] == ((m_profile.serialNumber >> 16) & 0xFF);
    } else if (mode == "zeros8") {
        secured = data.size() == 9 &&
                  std::all_of(data.begin(), data.end() - 1, [](std::uint8_t b) { return b == 0; });
    } else if (mode == "noencrypt8") {
        secured = data.size() == 9 && m_cipherRequested;
    }
    m_cipherRequested = false;
    if (!secured || !m_enabled || m_remaining > 0) {
        return Reply{kNak, {}};
    }
    m_eventCounter = m_eventCounter >= 255 ? 1 : m_eventCounter + 1;
    m_remaining = data.back();
    m_paid = 0;
    m_unpaid = 0;
    m_lastProgress = now;
    return Reply{0, {byteOf(m_eventCounter)}};
}

std::optional<Hopper::Reply> Hopper::handle(std::uint8_t header, const Bytes& data, double now) {
    advance(now);
    if (faultOn("silent") || deaf(now)) {
        return std::nullopt;
    }
    switch (header) {
        case hdr::kSimplePoll:
            return Reply{};
        case hdr::kEquipmentCategory:
            return Reply{0, text("Payout")};
        case hdr::kProductCode:
            return Reply{0, text("KSX-H200")};
        case hdr::kManufacturerId:
            return Reply{0, text("KSX")};
        case hdr::kSerialNumber:
            return Reply{0,
                         {static_cast<std::uint8_t>(m_profile.serialNumber & 0xFF),
                          static_cast<std::uint8_t>((m_profile.serialNumber >> 8) & 0xFF),
                          static_cast<std::uint8_t>((m_profile.serialNumber >> 16) & 0xFF)}};
        case hdr::kResetDevice:
            reset(now);
            return Reply{};
        case hdr::kEnableHopper:
            m_enabled = !data.empty() && data[0] == kEnableCode;
            return Reply{};
        case hdr::kTestHopper:
            return Reply{0, {testRegister(), 0x00}};
        case hdr::kHopperStatus:
            return Reply{
                0, {byteOf(m_eventCounter), byteOf(m_remaining), byteOf(m_paid), byteOf(m_unpaid)}};
        case hdr::kDispenseHopperCoins:
            return dispense(data, now);
        case hdr::kDispenseCount:
            return Reply{0,
                         {static_cast<std::uint8_t>(m_lifetimePaid & 0xFF),
                          static_cast<std::uint8_t>((m_lifetimePaid >> 8) & 0xFF),
                          static_cast<std::uint8_t>((m_lifetimePaid >> 16) & 0xFF)}};
        case hdr::kEmergencyStop: {
            const int stopped = m_remaining;
            m_unpaid += m_remaining;
            m_remaining = 0;
            m_enabled = false;
            return Reply{0, {byteOf(stopped)}};
        }
        case hdr::kPayoutLevelStatus: {
            std::uint8_t level = 0;
            if (m_coins < m_profile.lowLevel) {
                level |= 0x01;
            }
            if (m_coins >= m_profile.highLevel) {
                level |= 0x02;
            }
            return Reply{0, {level}};
        }
        case hdr::kRequestCipherKey:
            if (m_profile.mode != "noencrypt8") {
                return std::nullopt;
            }
            m_cipherRequested = true;
            return Reply{0, kCipherKey};
        default:
            return std::nullopt;  // unsupported headers get no reply at all
    }
}

ControlResult Hopper::setCoins(int count) {
    if (count < 0 || count > 5000) {
        return ControlResult::rejected("rejected: a hopper holds 0 to 5000 coins");
    }
    m_coins = count;
    return ControlResult::accepted("hopper at address " + std::to_string(address()) + " holds " +
                                   std::to_string(count) + " coins");
}

nlohmann::ordered_json Hopper::state() const {
    nlohmann::ordered_json w;
    w["address"] = address();
    w["faults"] = activeFaults();
    w["mode"] = m_profile.mode;
    w["coinsLeft"] = m_coins;
    w["coinsPaid"] = m_lifetimePaid;
    w["enabled"] = m_enabled;
    w["eventCounter"] = m_eventCounter;
    w["lastDispense"] = {{"remaining", m_remaining}, {"paid", m_paid}, {"unpaid", m_unpaid}};
    w["testRegister"] = static_cast<int>(testRegister());
    return w;
}

}  // namespace kestrix::sim
