#include "seed.h"

#include <cmath>
#include <cstdio>
#include <string>

#include "engine/settings/layout.h"

namespace kestrix::sim {

namespace {

// Money as the engine writes it: shortest text, no trailing zeros.
std::string money(double value) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.15g", value);
    return buf;
}

// A bill's face value from its MDB credit: credit x scaling factor / 10^decimal places.
double billValue(const ValidatorProfile& v, int credit) {
    return credit * v.scalingFactor / std::pow(10.0, v.decimalPlaces);
}

}  // namespace

void seedSimulatedKioskSettings(SettingsStore& store, const PortNumbers& ports,
                                const KioskProfile& profile) {
    using namespace store;
    const auto set = [&store](std::string_view section, std::string_view key,
                              const std::string& value) { store.set(kApp, section, key, value); };
    set(section::kSettings, "COM", std::to_string(ports.mdb));
    set(section::kSettings, "COM1", std::to_string(ports.dispenser));
    set(section::kSettings, "COM2", std::to_string(ports.hoppers));

    set(section::kCoinAcceptor, "CAE", "1");
    set(section::kCoinAcceptor, "ChangeEnabled", "1");
    for (int n = 1; n <= 16; ++n) {
        const bool exists = profile.changer.coinCredits[static_cast<std::size_t>(n - 1)] > 0;
        set(section::kCoinAcceptor, "CoinType" + std::to_string(n) + "_Enabled",
            exists ? "1" : "0");
    }

    set(section::kBillValidator, "BVE", "1");
    for (int n = 1; n <= 16; ++n) {
        const int credit = profile.validator.billCredits[static_cast<std::size_t>(n - 1)];
        set(section::kBillValidator, "BillType" + std::to_string(n) + "_Enabled",
            credit > 0 ? "1" : "0");
    }
    for (int n = 1; n <= 16; ++n) {
        const int credit = profile.validator.billCredits[static_cast<std::size_t>(n - 1)];
        set(section::kBillValidator, "BillType" + std::to_string(n) + "_Value",
            credit > 0 ? money(billValue(profile.validator, credit)) : "0");
    }

    set(section::kBillDispenser, "BDE", "1");
    set(section::kBillDispenser, "BillDispTypeValue", std::to_string(profile.dispenser.billValue));

    set(section::kHoppers, "HE", "1");
    set(section::kHoppers, "h1CoinValue", money(profile.hopper1CoinValue));
    set(section::kHoppers, "h2CoinValue", money(profile.hopper2CoinValue));
    set(section::kHoppers, key::kH1Address, std::to_string(profile.hopper1.address));
    set(section::kHoppers, key::kH2Address, std::to_string(profile.hopper2.address));
    set(section::kHoppers, key::kDispenseMode, profile.hopper1.mode);
    set(section::kHoppers, key::kEcho, profile.hopperEcho ? "1" : "0");

    set(section::kPinPad, "PPE", "1");
    set(section::kPinPad, "User", "kiosk01");
    set(section::kPinPad, "Password", "sim");
    set(section::kPinPad, "URL", "https://payments.invalid/emv");
    set(section::kPinPad, "Printer", "Voucher Printer");
    set(section::kPinPad, key::kLibrary, "simulated");

    // The steering of the simulated pin pad: only what is missing.
    const auto setMissing = [&store](std::string_view key, const std::string& value) {
        const std::string kMissing = "\x01missing";
        if (store.get(kApp, section::kPinPadSimulator, key, kMissing) == kMissing) {
            store.set(kApp, section::kPinPadSimulator, key, value);
        }
    };
    setMissing("Result", "approved");
    setMissing("Seconds", "4");
    setMissing("CardNumber", "************1111");
    setMissing("CardHolder", "SIMULATED/CARDHOLDER");
}

void seedSimulatedPortPaths(SettingsStore& store, const PortNumbers& ports, std::string_view dir) {
    const std::string base(dir);
    store.set(store::kApp, store::section::kPorts, std::to_string(ports.mdb), base + "/mdb");
    store.set(store::kApp, store::section::kPorts, std::to_string(ports.dispenser),
              base + "/dispenser");
    store.set(store::kApp, store::section::kPorts, std::to_string(ports.hoppers),
              base + "/hoppers");
}

}  // namespace kestrix::sim
