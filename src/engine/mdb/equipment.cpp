#include "../setup.h"

namespace kestrix {

// Placeholder until equipment initialisation lands.
void Setup::InitEquipment() {}

}  // namespace kestrix
