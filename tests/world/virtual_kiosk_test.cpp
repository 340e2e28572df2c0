#include <gtest/gtest.h>

#include "engine/settings/layout.h"
#include "sim/world/virtual_kiosk.h"

namespace kestrix::sim {
namespace {

TEST(VirtualKiosk, ControlCommandsReachTheModelsAndTheStateDumpShowsThem) {
    VirtualKiosk k;
    EXPECT_TRUE(k.control("tube 3 12").ok);
    EXPECT_EQ(k.changer().tubeCount(2), 12);
    EXPECT_FALSE(k.control("coin 1").ok) << "nothing enabled before the engine runs";
    EXPECT_FALSE(k.control("coin").ok);
    EXPECT_TRUE(k.control("fault pinpad offline on").ok);
    const std::string state = k.stateJson();
    for (const char* key : {"\"tubes\":[40,40,12,20,10]", "\"billsLeft\":100", "\"coinsLeft\":200",
                            "\"offline\"", "\"frames\":["}) {
        EXPECT_NE(state.find(key), std::string::npos) << key << "\n" << state;
    }
}

}  // namespace
}  // namespace kestrix::sim
