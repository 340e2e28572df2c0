#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform_qt/helper_printer.h"

namespace kestrix::qt {
namespace {

// A voucher helper that is missing, fails or hangs is a failing printer: endDoc throws the
// reason, within its bound, and the engine goes on.
TEST(HelperPrinter, AHelperThatCannotPrintIsAPrinterErrorWithinTheBound) {
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
        printer.printLine("APPROVED");
        const auto start = std::chrono::steady_clock::now();
        try {
            printer.endDoc();
            ADD_FAILURE() << row.what << ": printed";
        } catch (const std::runtime_error& e) {
            EXPECT_NE(std::string(e.what()).find(row.reason), std::string::npos)
                << row.what << ": " << e.what();
        }
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << row.what;
    }
}

}  // namespace
}  // namespace kestrix::qt
