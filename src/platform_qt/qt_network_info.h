#pragma once

#include "engine/platform/network_info.h"

namespace kestrix::qt {

// The kiosk's network adapter, for the card transaction reference. Picks the first adapter that
// is up, not the loopback, of Ethernet or Wi-Fi type, with a non-zero hardware address; one
// backed by a physical device is preferred to a virtual one (bridges, container links, VPNs).
class QtNetworkInfo : public NetworkInfo {
public:
    std::string firstAdapterAddress() override;
};

}  // namespace kestrix::qt
