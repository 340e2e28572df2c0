#include "sim/sim_device.h"

#include <nlohmann/json.hpp>

namespace kestrix::sim {

std::string SimDevice::stateJson() const {
    return state().dump();
}

}  // namespace kestrix::sim
