#include "profile.h"

namespace kestrix::sim {

KioskProfile defaultProfile() {
    KioskProfile p;
    p.hopper2.address = 4;
    p.hopper2.serialNumber = 0x05464F;
    return p;
}

std::optional<KioskProfile> profileNamed(std::string_view name) {
    KioskProfile p = defaultProfile();
    p.name = std::string(name);
    if (name == "default") {
        return p;
    }
    if (name == "ccd") {
        p.validator.manufacturer = "CCD";
        return p;
    }
    if (name == "no-echo") {
        p.hopperEcho = false;
        return p;
    }
    if (name == "zeros8" || name == "noencrypt8") {
        p.hopper1.mode = p.name;
        p.hopper2.mode = p.name;
        return p;
    }
    return std::nullopt;
}

std::vector<std::string> profileNames() {
    return {"default", "ccd", "no-echo", "zeros8", "noencrypt8"};
}

}  // namespace kestrix::sim
