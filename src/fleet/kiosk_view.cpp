#include "kiosk_view.h"

#include <charconv>
#include <unordered_set>

#include "engine/money.h"

namespace kestrix::fleet {

namespace {

using console::Device;

struct DeviceNames {
    Device device;
    const char* name;
    const char* enable;
};
constexpr std::array<DeviceNames, 5> kDeviceNames = {{
    {Device::CoinAcceptor, "changer", "CoinAcceptorEnabled"},
    {Device::BillValidator, "validator", "billValidatorEnabled"},
    {Device::BillDispenser, "dispenser", "billDispenserEnabled"},
    {Device::Hoppers, "hoppers", "hoppersEnabled"},
    {Device::PinPad, "pinpad", "pinPadEnabled"},
}};

const char* levelName(console::StatusLine::Level level) {
    switch (level) {
        case console::StatusLine::Level::Off:
            return "off";
        case console::StatusLine::Level::Waiting:
            return "waiting";
        case console::StatusLine::Level::Ok:
            return "ok";
        case console::StatusLine::Level::Problem:
            return "problem";
    }
    return "off";
}

std::optional<std::int64_t> minorOf(const std::string& text) {
    const auto money = Money::parse(text);
    if (!money) {
        return std::nullopt;
    }
    return money->minor();
}

bool sameReports(const std::vector<Hoppers::Report>& a, const std::vector<Hoppers::Report>& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i].hopper != b[i].hopper || a[i].coinsPaid != b[i].coinsPaid ||
            a[i].coinsAsked != b[i].coinsAsked || a[i].outcome != b[i].outcome) {
            return false;
        }
    }
    return true;
}

}  // namespace

KioskView::KioskView() = default;

bool KioskView::watched(const std::string& name) {
    static const std::unordered_set<std::string> kNames = [] {
        std::unordered_set<std::string> names = {
            "tubesAmount", "bdStatus",   "bdCasetteStatus", "h1CoinValue",    "h2CoinValue",
            "ccOnLine",    "hDispensed", "statusDisplay",   "hoppersEnabled", "pinPadEnabled"};
        for (int n = 1; n <= 5; ++n) {
            names.emplace(Console::tubeCoinType(n).str());
            names.emplace(Console::tubeCoinQty(n).str());
        }
        return names;
    }();
    return kNames.contains(name) || console::DeviceStatus::reads(name);
}

std::string KioskView::hopperLevel(Hoppers::Outcome outcome) {
    switch (outcome) {
        case Hoppers::Outcome::Paid:
        case Hoppers::Outcome::Busy:
            return "ok";
        case Hoppers::Outcome::Empty:
            return "empty";
        case Hoppers::Outcome::Jammed:
        case Hoppers::Outcome::HopperReset:
            return "jammed";
        case Hoppers::Outcome::Refused:
        case Hoppers::Outcome::Absent:
        case Hoppers::Outcome::LinkDead:
            return "absent";
    }
    return "unknown";
}

void KioskView::noteField(const Field& field, const Hoppers* hoppers) {
    if (!watched(field.name)) {
        return;
    }
    std::lock_guard lock(m_mutex);
    m_status.noteField(field);
    m_texts[field.name] =
        field.kind == FieldKind::CheckBox ? std::to_string(field.value) : field.text;
    if (hoppers != nullptr && !sameReports(hoppers->lastReports(), m_lastReports)) {
        m_lastReports = hoppers->lastReports();
        for (const Hoppers::Report& r : m_lastReports) {
            if (r.hopper == 1 || r.hopper == 2) {
                m_hopperLevels[static_cast<std::size_t>(r.hopper - 1)] = hopperLevel(r.outcome);
            }
        }
    }
    m_dirty = true;
}

void KioskView::noteEvent(DeviceEvent event) {
    std::lock_guard lock(m_mutex);
    m_status.noteEvent(event);
    m_dirty = true;
}

std::optional<KioskState> KioskView::takeState(bool always) {
    std::lock_guard lock(m_mutex);
    if (!m_dirty && !always) {
        return std::nullopt;
    }
    m_dirty = false;
    return build();
}

KioskState KioskView::build() const {
    const auto text = [this](const std::string& name) {
        const auto it = m_texts.find(name);
        return it == m_texts.end() ? std::string() : it->second;
    };
    KioskState s;
    for (std::size_t i = 0; i < kDeviceNames.size(); ++i) {
        const console::StatusLine line = m_status.device(kDeviceNames[i].device);
        s.devices[i] = {kDeviceNames[i].name, text(kDeviceNames[i].enable) == "1",
                        levelName(line.level), line.text};
    }
    s.tubesMinor = minorOf(text("tubesAmount"));
    for (int n = 1; n <= 5; ++n) {
        KioskState::Tube& tube = s.tubes[static_cast<std::size_t>(n - 1)];
        tube.coinMinor = minorOf(text(std::string(Console::tubeCoinType(n).str())));
        if (tube.coinMinor && *tube.coinMinor == 0) {
            tube.coinMinor.reset();
        }
        const std::string qty = text(std::string(Console::tubeCoinQty(n).str()));
        std::from_chars(qty.data(), qty.data() + qty.size(), tube.count);
    }
    s.dispenserStatus = text("bdStatus");
    s.cassette = text("bdCasetteStatus");
    for (std::size_t h = 0; h < 2; ++h) {
        s.hoppers[h].coinMinor = minorOf(text(h == 0 ? "h1CoinValue" : "h2CoinValue"));
        s.hoppers[h].level = m_hopperLevels[h];
    }
    s.pinPadOnLine = text("ccOnLine") == "Yes";
    return s;
}

}  // namespace kestrix::fleet
