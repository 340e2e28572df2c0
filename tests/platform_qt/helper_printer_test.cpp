#include <gtest/gtest.h>

#include <QCoreApplication>
#include <chrono>
#include <string>
#include <vector>

#include "platform_qt/helper_printer.h"

namespace kestrix::qt {
namespace {

// A voucher helper that is missing, fails or hangs is a failing printer: the engine is not held
// (endDoc returns at once), and the reason is reported within the bound.
TEST(HelperPrinter, AHelperThatCannotPrintIsReportedWithinTheBoundWithoutHoldingTheEngine) {
    struct Row {
        const char* what;
        std::vector<std::string> command;
        std::string reason;
    };
    const std::vector<Row> rows{
        {"absent", {"/nonexistent/kestrix", "--print-voucher"}, "could not be started"},
        {"failing",
         {"/bin/sh", "-c", "cat >/dev/null; echo 'printer Kiosk is not installed' >&2; exit 1"},
         "printer Kiosk is not installed"},
        {"hanging", {"/bin/sleep", "60"}, "did not finish within 0.3 seconds"},
    };
    for (const Row& row : rows) {
        HelperPrinter printer(row.command.front(),
                              std::vector<std::string>(row.command.begin() + 1, row.command.end()),
                              {}, 300);
        std::vector<std::string> reasons;
        printer.setFailureListener([&](const std::string& why) { reasons.push_back(why); });
        printer.printLine("APPROVED");
        const auto start = std::chrono::steady_clock::now();
        printer.endDoc();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300))
            << row.what;
        while (printer.busy() &&
               std::chrono::steady_clock::now() - start < std::chrono::seconds(10)) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
        }
        ASSERT_EQ(reasons.size(), 1u) << row.what;
        EXPECT_NE(reasons[0].find(row.reason), std::string::npos) << row.what << ": " << reasons[0];
    }
}

}  // namespace
}  // namespace kestrix::qt
