#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "simulated_kiosk.h"

namespace kestrix {
namespace {

using namespace std::chrono_literals;

// A host's card request, written with nothing but `ksxctl set`, served by the real engine on the
// simulated pin pad with vouchers printed to a directory.
TEST(CardPaymentProgram, DueCCApprovedCreditsTheAmountAndPrintsOneVoucher) {
    test::SimulatedKiosk kiosk;
    ASSERT_TRUE(kiosk.start());
    ASSERT_TRUE(kiosk.voucherFiles().empty());

    const test::RunResult request = kiosk.ksxctl({"set", "Status", "DueCC", "25"});
    ASSERT_EQ(request.status, 0) << request.err;

    ASSERT_TRUE(test::eventually([&] { return kiosk.get("Status", "DueCC") == "0"; }, 60s))
        << "the card attempt did not end; Status = " << kiosk.get("Status", "Status") << '\n'
        << kiosk.engine().err();
    EXPECT_EQ(kiosk.get("Status", "Status"), "Credit Card Approved");
    EXPECT_EQ(kiosk.get("Status", "Credit"), "25");
    EXPECT_EQ(kiosk.get("Status", "ReferenceCC"), "") << "the reference is cleared at the end";

    // One more poll and click-timer tick must not charge or print again.
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(kiosk.get("Status", "DueCC"), "0");
    const auto files = kiosk.voucherFiles();
    ASSERT_EQ(files.size(), 1u);
    std::string magic(5, '\0');
    std::ifstream(files[0], std::ios::binary).read(magic.data(), 5);
    EXPECT_EQ(magic, "%PDF-");
    EXPECT_EQ(files[0].substr(files[0].size() - 4), ".pdf");
}

}  // namespace
}  // namespace kestrix
