#include <gtest/gtest.h>

#include "support/kiosk.h"

namespace kestrix::test {
namespace {

namespace mb = store::mailbox;

TEST(Monitor, AHostPayoutRunsWithChangeForcedOnAndPutsTheBoxBack) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    k.engine().operatorEdit("changeEnabled", "", 0);
    const Till before = k.till();
    k.hostWrite(mb::kChange, "5");
    ASSERT_TRUE(k.runUntil([&] { return k.mailbox(mb::kChange).empty(); }, 120));

    EXPECT_EQ(k.mailbox(mb::kStatus), "Change dispensed");
    EXPECT_EQ(k.console().text("statusDisplay"), "");
    EXPECT_FALSE(k.console().checked("changeEnabled")) << "the operator's choice is restored";
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "5");
    EXPECT_NEAR(k.paidOut(before, k.till()), 5, 1e-9);
}

}  // namespace
}  // namespace kestrix::test
