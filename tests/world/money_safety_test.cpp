// Faults where the engine once lost track of money, kept a customer's money without credit,
// paid more than owed or waited without end; each group is checked against the simulators' own
// books on the virtual kiosk.

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>

#include "support/kiosk.h"

namespace kestrix {
namespace {

using test::expectBooksBalance;
using test::Kiosk;
using test::Till;
namespace mb = store::mailbox;

constexpr std::string_view kChangerPoll("\x0B\x01\x0B\x00", 4);

TEST(MoneySafety, StopsApplyToThePaymentTheyWereMeantFor) {
    // The operator presses "Stop Payment..." while the completion's change is paid: the click
    // does not become a new payment.
    Kiosk k;
    ASSERT_TRUE(k.start());
    k.onPayout(
        [&k](int) { k.scheduler().post([&k] { k.engine().operatorClick("enablePayment"); }); });
    ASSERT_TRUE(k.requestPayment("12.5"));
    ASSERT_TRUE(k.insertBill(1));
    ASSERT_TRUE(k.runUntilIdle(60));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
    EXPECT_FALSE(k.paymentRunning());
    k.mdbTap().onWrite = nullptr;
    ASSERT_TRUE(k.requestPayment("5")) << "the host's next request is served";

    // A cancel "2" keeps the credit of its own payment only.
    k.hostWrite(mb::kCancel, "2");
    ASSERT_TRUE(k.runUntilIdle(30));
    const Till before = k.till();
    ASSERT_TRUE(k.requestPayment("50"));
    ASSERT_TRUE(k.insertCoin(4));
    k.engine().operatorClick("enablePayment");
    ASSERT_TRUE(k.runUntilIdle(60));
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "5");
    expectBooksBalance(k, before, 0, 5);
}

TEST(MoneySafety, ACheckBoxIsOneBitWhateverItsState) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    k.console().setValue("ct9_Enabled", 2);  // grey
    k.console().setValue("ct16_Enabled", 1);
    ASSERT_TRUE(k.requestPayment("5"));
    EXPECT_EQ(k.changer().coinEnableMask(), 0x811F);
    EXPECT_EQ(k.changer().coinEnableMask() & 0x0200, 0) << "no carry into type 10";
}

TEST(MoneySafety, TerminationPaysTheCreditBackThenEnds) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    const Till before = k.till();
    ASSERT_TRUE(k.requestPayment("50"));
    ASSERT_TRUE(k.insertCoin(5));
    ASSERT_TRUE(k.insertBill(1));
    const double t0 = k.now();
    k.engine().requestTermination();
    ASSERT_TRUE(k.runUntil([&] { return k.engine().ended(); }, 60));
    EXPECT_LT(k.now() - t0, 10.0);
    EXPECT_EQ(k.mailbox(mb::kStatus), "Transaction Cancelled");
    EXPECT_EQ(k.mailbox(mb::kChangeDispensed), "30");
    EXPECT_EQ(k.setting(store::section::kPinPad, "On Line"), "No");
    expectBooksBalance(k, before, 0, 30);

    // The host's "Exit" with a validator that never answers: Exit gives it a few tries.
    Kiosk silent;
    ASSERT_TRUE(silent.start());
    silent.control("fault validator silent on");
    silent.hostWrite(mb::kExit, "1");
    const double t1 = silent.now();
    ASSERT_TRUE(silent.runUntil([&] { return silent.engine().ended(); }, 600));
    EXPECT_LT(silent.now() - t1, 10.0);
}

TEST(MoneySafety, AChangerSilentOnceAtTheStartDoesNotHangTheEngine) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    bool swallowed = false;
    k.mdbTap().answer = [&swallowed](std::string_view b, double) -> std::optional<std::string> {
        if (!swallowed && b == std::string_view("\x0C\x01", 2)) {
            swallowed = true;
            return std::string();  // the first COIN TYPE is lost
        }
        return std::nullopt;
    };
    const Till before = k.till();
    ASSERT_TRUE(k.requestPayment("5"));
    ASSERT_TRUE(k.insertCoin(4));
    ASSERT_TRUE(k.runUntilIdle(30));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
    expectBooksBalance(k, before, 5, 0);
}

TEST(MoneySafety, ALogicErrorIsAnInternalErrorNotADeviceFault) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    ASSERT_TRUE(k.requestPayment("50"));
    ASSERT_TRUE(k.insertCoin(4));
    bool thrown = false;
    k.mdbTap().answer = [&thrown](std::string_view b, double) -> std::optional<std::string> {
        if (!thrown && b == kChangerPoll) {
            thrown = true;
            throw std::logic_error("a programming mistake");
        }
        return std::nullopt;
    };
    ASSERT_TRUE(k.runUntil([&] { return thrown && !k.paymentRunning(); }, 10));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Internal Error");
    EXPECT_EQ(k.mailbox(mb::kKsxError), "1");
    EXPECT_EQ(k.mailbox(mb::kCredit), "5") << "for the host to settle";
    const auto& lines = k.log().lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& l) {
        return l.starts_with("<3>internal error");
    }));
}

}  // namespace
}  // namespace kestrix
