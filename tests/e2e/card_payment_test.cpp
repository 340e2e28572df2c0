#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "simulated_engine.h"

namespace kestrix {
namespace {

using namespace std::chrono_literals;

std::string head(const std::string& path, std::size_t bytes) {
    std::ifstream in(path, std::ios::binary);
    std::string text(bytes, '\0');
    in.read(text.data(), static_cast<std::streamsize>(bytes));
    text.resize(static_cast<std::size_t>(in.gcount()));
    return text;
}

// A host's card request, written with nothing but `ksxctl set`, served by the real engine on the
// simulated pin pad with vouchers printed to a directory.
TEST(CardPaymentProgram, DueCCApprovedCreditsTheAmountAndPrintsOneVoucher) {
    test::SimulatedEngine kiosk;
    ASSERT_TRUE(kiosk.ready);
    ASSERT_TRUE(kiosk.voucherFiles().empty());

    const test::RunResult request =
        test::run(test::ksxctlBinary(), {"--store", kiosk.store, "set", "Status", "DueCC", "25"});
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
    EXPECT_EQ(head(files[0], 5), "%PDF-");
    EXPECT_EQ(files[0].substr(files[0].size() - 4), ".pdf");
}

}  // namespace
}  // namespace kestrix
