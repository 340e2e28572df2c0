#include "virtual_kiosk.h"

#include "engine/settings/layout.h"

namespace kestrix::sim {

VirtualKiosk::VirtualKiosk(const KioskProfile& profile)
    : m_models(profile, [this] { return m_clock.elapsed(); }) {
    m_clock.setDeadline(kDefaultDeadlineSeconds);
    m_models.addDevice("pinpad", &m_pinPad);
    m_mdbPort.wire(kPorts.mdb, &m_models.mdbLink());
    m_dispenserPort.wire(kPorts.dispenser, &m_models.dispenserLink());
    m_hoppersPort.wire(kPorts.hoppers, &m_models.hoppersLink());
}

// The engine goes first: it owns timers of this kiosk's scheduler.
VirtualKiosk::~VirtualKiosk() {
    m_engine.reset();
}

Setup& VirtualKiosk::engine() {
    if (!m_engine) {
        m_engine = std::make_unique<Setup>(
            Platform{m_clock, m_scheduler, m_store, m_messageBox, m_printer, m_network, m_instance,
                     m_pinPad, m_mdbPort, m_dispenserPort, m_hoppersPort, m_journal, m_log});
    }
    return *m_engine;
}

void VirtualKiosk::configureAllDevices() {
    seedSimulatedKioskSettings(m_store, kPorts, m_models.profile());
}

bool VirtualKiosk::start() {
    return engine().startUp();
}

void VirtualKiosk::runFor(double seconds) {
    m_scheduler.runFor(seconds);
}

bool VirtualKiosk::runUntil(const std::function<bool()>& done, double maxSeconds) {
    return m_scheduler.runUntil(done, maxSeconds);
}

std::string VirtualKiosk::mailbox(std::string_view key) {
    return m_store.get(store::kApp, store::section::kStatus, key, "");
}

void VirtualKiosk::hostWrite(std::string_view key, std::string_view value) {
    m_store.hostSet(store::kApp, store::section::kStatus, key, value);
}

}  // namespace kestrix::sim
