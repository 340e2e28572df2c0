#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/errors.h"
#include "engine/settings/layout.h"
#include "platform_qt/payment_library_factory.h"
#include "sim/pinpad/sim_pin_pad.h"
#include "sim/world/memory_store.h"
#include "sim/world/virtual_time.h"

namespace kestrix::qt {
namespace {

// A store without the key (set up by hand, holding only the console's keys) gets the real
// library, which needs Windows: a missing setting must not approve every card by simulation.
TEST(PaymentLibraryFactory, SimulatedOnlyWhenNamedAndUnusableChoicesFailEveryCall) {
    struct Row {
        const char* choice;
        std::string mentions;  // empty: the simulated pin pad
    };
    const std::vector<Row> rows = {{"simulated", ""}, {" Simulated ", ""}, {nullptr, "Windows"},
                                   {"", "Windows"},   {"com", "Windows"},  {"comm", "\"comm\""}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.choice ? row.choice : "(missing)");
        sim::VirtualClock clock;
        sim::VirtualScheduler scheduler{clock};
        sim::MemoryStore store;
        if (row.choice != nullptr) {
            store.set(store::kApp, store::section::kPinPad, store::key::kLibrary, row.choice);
        }
        auto lib = makePaymentLibrary(store, clock, scheduler);
        EXPECT_EQ(dynamic_cast<sim::SimPinPad*>(lib.get()) != nullptr, row.mentions.empty());
        if (row.mentions.empty()) {
            continue;
        }
        try {
            lib->readCard();
            ADD_FAILURE() << "the card read succeeded";
        } catch (const KsxError& e) {
            EXPECT_EQ(e.number(), 429);
            EXPECT_NE(std::string(e.what()).find(row.mentions), std::string::npos) << e.what();
        }
        EXPECT_THROW(lib->identify(), KsxError);
    }
}

}  // namespace
}  // namespace kestrix::qt
