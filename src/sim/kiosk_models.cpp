#include "kiosk_models.h"

#include <charconv>

#include <nlohmann/json.hpp>

namespace kestrix::sim {

namespace {

std::vector<std::string_view> words(std::string_view line) {
    std::vector<std::string_view> out;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i]))) {
            ++i;
        }
        const std::size_t start = i;
        while (i < line.size() && !std::isspace(static_cast<unsigned char>(line[i]))) {
            ++i;
        }
        if (i > start) {
            out.push_back(line.substr(start, i - start));
        }
    }
    return out;
}

bool wholeNumber(std::string_view text, int& value) {
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && ptr == text.data() + text.size();
}

}  // namespace

KioskModels::KioskModels(const KioskProfile& profile, std::function<double()> now)
    : m_profile(profile),
      m_now(std::move(now)),
      m_changer(profile.changer),
      m_validator(profile.validator),
      m_dispenser(profile.dispenser),
      m_hoppers(profile.hopper1, profile.hopper2, profile.hopperEcho) {
    m_adapter.attach(&m_changer);
    m_adapter.attach(&m_validator);
}

void KioskModels::addDevice(std::string name, SimDevice* device) {
    m_extra.emplace_back(std::move(name), device);
}

std::vector<std::string> KioskModels::deviceNames() const {
    std::vector<std::string> names{"adapter",   "changer", "validator",
                                   "dispenser", "hopper1", "hopper2"};
    for (const auto& [name, d] : m_extra) {
        names.push_back(name);
    }
    return names;
}

SimDevice* KioskModels::device(std::string_view name) {
    if (name == "adapter") {
        return &m_adapter;
    }
    if (name == "changer") {
        return &m_changer;
    }
    if (name == "validator") {
        return &m_validator;
    }
    if (name == "dispenser") {
        return &m_dispenser;
    }
    if (name == "hopper1") {
        return &hopper1();
    }
    if (name == "hopper2") {
        return &hopper2();
    }
    for (const auto& [n, d] : m_extra) {
        if (n == name) {
            return d;
        }
    }
    return nullptr;
}

ControlResult KioskModels::insertCoin(int consoleType) {
    return m_changer.insertCoin(consoleType - 1, m_now());
}

ControlResult KioskModels::insertBill(int consoleType) {
    return m_validator.insertBill(consoleType - 1, m_now());
}

ControlResult KioskModels::setTube(int consoleType, int count) {
    catchUp();
    return m_changer.setTubeCount(consoleType - 1, count);
}

ControlResult KioskModels::setFault(std::string_view name, std::string_view fault, bool on) {
    SimDevice* d = device(name);
    if (d == nullptr) {
        return ControlResult::rejected("unknown device \"" + std::string(name) + "\"");
    }
    if (!d->setFault(fault, on)) {
        std::string known;
        for (const std::string& f : d->faults()) {
            known += (known.empty() ? "" : ", ") + f;
        }
        return ControlResult::rejected("the " + std::string(name) + " has no fault \"" +
                                       std::string(fault) + "\" (faults: " + known + ")");
    }
    return ControlResult::accepted(std::string(name) + " " + std::string(fault) +
                                   (on ? " on" : " off"));
}

ControlResult KioskModels::reset(std::string_view name) {
    SimDevice* d = device(name);
    if (d == nullptr) {
        return ControlResult::rejected("unknown device \"" + std::string(name) + "\"");
    }
    d->powerCycle(m_now());
    return ControlResult::accepted(std::string(name) + " switched off and on");
}

std::string KioskModels::frames(std::string_view name) const {
    if (name == "adapter") {
        return m_adapter.linkLog().text();
    }
    if (name == "changer") {
        return m_changer.busLog().text();
    }
    if (name == "validator") {
        return m_validator.busLog().text();
    }
    if (name == "dispenser") {
        return m_dispenser.log().text();
    }
    if (name == "hopper1") {
        return m_hoppers.log().text(m_hoppers.hopper(1).address());
    }
    if (name == "hopper2") {
        return m_hoppers.log().text(m_hoppers.hopper(2).address());
    }
    return {};
}

void KioskModels::catchUp() {
    const double now = m_now();
    m_changer.advance(now);
    m_validator.advance(now);
    m_dispenser.advance(now);
    m_hoppers.advance(now);
}

std::string KioskModels::stateJson() {
    catchUp();
    nlohmann::ordered_json w;
    w["profile"] = m_profile.name;
    w["time"] = m_now();
    w["adapter"] = m_adapter.state();
    w["changer"] = m_changer.state();
    w["validator"] = m_validator.state();
    w["dispenser"] = m_dispenser.state();
    w["hoppers"] = m_hoppers.state();
    for (const auto& [name, d] : m_extra) {
        w[name] = d->state();
    }
    return w.dump();
}

std::string KioskModels::commandHelp() {
    return "coin N                    a customer inserts a coin of console coin type N\n"
           "bill N                    a customer inserts a bill of console bill type N\n"
           "tube N COUNT              the tube of console coin type N holds COUNT coins\n"
           "cassette COUNT            the dispenser cassette holds COUNT bills\n"
           "hopper 1|2 COUNT          the hopper holds COUNT coins\n"
           "fault DEVICE NAME on|off  switches a fault of a device\n"
           "faults DEVICE             lists the faults of a device and which are on\n"
           "reset DEVICE              switches a device off and on\n"
           "state                     the state of every device as JSON\n"
           "frames DEVICE             recent traffic of a device, hex, both directions\n"
           "help                      this list\n"
           "Devices: adapter, changer, validator, dispenser, hopper1, hopper2.\n";
}

ControlResult KioskModels::command(std::string_view line) {
    const std::vector<std::string_view> w = words(line);
    if (w.empty()) {
        return ControlResult::misused("empty command; try \"help\"");
    }
    const std::string_view verb = w[0];
    const auto usage = [&](const char* text) {
        return ControlResult::misused(std::string("usage: ") + text);
    };
    int n = 0;
    int count = 0;
    if (verb == "help") {
        return ControlResult::accepted(commandHelp());
    }
    if (verb == "coin") {
        return w.size() == 2 && wholeNumber(w[1], n) ? insertCoin(n) : usage("coin N");
    }
    if (verb == "bill") {
        return w.size() == 2 && wholeNumber(w[1], n) ? insertBill(n) : usage("bill N");
    }
    if (verb == "tube") {
        return w.size() == 3 && wholeNumber(w[1], n) && wholeNumber(w[2], count)
                   ? setTube(n, count)
                   : usage("tube N COUNT");
    }
    if (verb == "cassette") {
        return w.size() == 2 && wholeNumber(w[1], count) ? m_dispenser.setBills(count)
                                                         : usage("cassette COUNT");
    }
    if (verb == "hopper") {
        if (w.size() != 3 || !wholeNumber(w[1], n) || (n != 1 && n != 2) ||
            !wholeNumber(w[2], count)) {
            return usage("hopper 1|2 COUNT");
        }
        catchUp();
        return m_hoppers.hopper(n).setCoins(count);
    }
    if (verb == "fault") {
        if (w.size() != 4 || (w[3] != "on" && w[3] != "off")) {
            return usage("fault DEVICE NAME on|off");
        }
        return setFault(w[1], w[2], w[3] == "on");
    }
    if (verb == "faults") {
        SimDevice* d = w.size() == 2 ? device(w[1]) : nullptr;
        if (d == nullptr) {
            return usage("faults DEVICE");
        }
        std::string out;
        for (const std::string& f : d->faults()) {
            out += f + (d->faultOn(f) ? " on\n" : " off\n");
        }
        return ControlResult::accepted(out);
    }
    if (verb == "reset") {
        return w.size() == 2 ? reset(w[1]) : usage("reset DEVICE");
    }
    if (verb == "state") {
        return ControlResult::accepted(stateJson());
    }
    if (verb == "frames") {
        if (w.size() != 2 || device(w[1]) == nullptr) {
            return usage("frames DEVICE");
        }
        return ControlResult::accepted(frames(w[1]));
    }
    return ControlResult::misused("unknown command \"" + std::string(verb) + "\"; try \"help\"");
}

}  // namespace kestrix::sim
