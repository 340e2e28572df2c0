#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "engine/card/card_number.h"
#include "engine/card/card_payment.h"
#include "engine/card/voucher.h"
#include "sim/world/fakes.h"

namespace kestrix {
namespace {

using Document = sim::RecordingPrinter::Document;

std::vector<std::string> texts(const Document& doc) {
    std::vector<std::string> out;
    for (const auto& line : doc) {
        out.push_back(line.text);
    }
    return out;
}

std::vector<std::string> blanks(int n) {
    return std::vector<std::string>(static_cast<std::size_t>(n), "");
}

std::vector<std::string> join(std::initializer_list<std::vector<std::string>> parts) {
    std::vector<std::string> out;
    for (const auto& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

const std::vector<std::string> kBox = {
    "**********************************", "**********************************",
    "***                            ***", "***     CARGO NO PROCESADO     ***",
    "***                            ***", "**********************************",
    "**********************************"};

TEST(Voucher, MarkersAreRemovedInTheirOrder) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        // " @b" goes last: what the others leave as " @b..." loses those three characters.
        {"x @bill", "xill"},
        {"TOTAL @cnb  @bill", "TOTALill"},
        // " @br " goes before " @b": a break marker is deleted whole, not as " @b" + "r ".
        {"A @br B", "AB"},
        {"A @brB", "ArB"},
        // Markers are deleted, not rendered, and the blanks around them go too.
        {" @cnb COMERCIO @cnn ACME @lnn  @b", "COMERCIOACME"},
        // Occurrences are removed in one pass each; what a removal joins is not looked at again.
        {"a  @cnb cnb b", "a cnb b"},
        {"sin marcas", "sin marcas"},
        {"", ""},
    };
    for (const auto& [in, out] : rows) {
        EXPECT_EQ(voucher::withoutMarkers(in), out) << in;
    }
}

// Whatever the library hands over, at most the first six and the last four digits leave the
// engine.
TEST(CardNumber, MaskedToTheIssuerAndTheLastFour) {
    struct Row {
        std::string in;
        std::string text;                  // inside a voucher or status text
        std::optional<std::string> field;  // as the console's card number field shows it
    };
    const std::vector<Row> rows = {
        {"4111111111111111", "411111******1111", "411111******1111"},
        {"************1111", "************1111", "************1111"},
        {"411111******1111", "411111******1111", "411111******1111"},
        {"4111 1111 1111 1111", "4111 11** **** 1111", "4111 11** **** 1111"},
        {"5500-0000-0000-0004", "5500-00**-****-0004", "5500-00**-****-0004"},
        {"TARJETA: 4000056655665556 EXP", "TARJETA: 400005******5556 EXP",
         "TARJETA: 400005******5556 EXP"},
        {"4111111111111111111111", "411111************1111", "411111************1111"},
        // Too short for a card number in a text; as the card number field, the last four only.
        {"3782822463", "3782822463", "******2463"},
        {"1234", "1234", "1234"},
        {"", "", ""},
        // Amounts and references in a text are not card numbers.
        {"$1,234,567,890.00", "$1,234,567,890.00", std::nullopt},
        {"001A2B3C4D5E_260314090000", "001A2B3C4D5E_260314090000", std::nullopt},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(card::withCardNumbersMasked(row.in), row.text) << row.in;
        if (row.field) {
            EXPECT_EQ(card::maskedCardNumber(row.in), *row.field) << row.in;
        }
    }
}

// Every voucher in bold Courier New at ten points, but an error voucher's details at five.
TEST(Voucher, LayoutsAndFonts) {
    const std::vector<std::string> errorDetails = {"Error: Sin respuesta", "Código = T01"};
    struct Row {
        const char* what;
        std::function<void(Printer&)> print;
        std::vector<std::string> lines;
    };
    const std::vector<Row> rows = {
        // " @br" before a line break is not the break marker (no trailing blank): only " @b" goes.
        {"approved",
         [](Printer& p) { voucher::printApproved(p, "COMERCIO @br\nTOTAL $25.00 @b"); },
         {"COMERCIOr\nTOTAL $25.00", "_"}},
        {"declined",
         [](Printer& p) {
             voucher::printDeclined(
                 p, {"000123", "001A2B3C4D5E_250314093015", "05", "FONDOS INSUFICIENTES"});
         },
         join({{"Tarjeta Declinada"},
               blanks(4),
               kBox,
               blanks(4),
               {"Número de Operacion : 000123", "Referencia : 001A2B3C4D5E_250314093015",
                "Código de Respuesta : 05", "Causa : FONDOS INSUFICIENTES"},
               blanks(5),
               {"_"}})},
        {"communication error",
         [](Printer& p) { voucher::printCommunicationError(p, "Sin respuesta", "T01"); },
         join({{"ERROR DE COMUNICACIÓN"},
               blanks(5),
               kBox,
               blanks(5),
               errorDetails,
               blanks(6),
               {"_"}})},
        {"pin pad error", [](Printer& p) { voucher::printPinPadError(p, "Sin respuesta", "T01"); },
         join({{"PIN PAD ERROR"}, blanks(5), kBox, blanks(5), errorDetails, blanks(6), {"_"}})},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        sim::RecordingPrinter p;
        row.print(p);
        ASSERT_EQ(p.documents().size(), 1u);
        const Document& doc = p.documents()[0];
        ASSERT_EQ(texts(doc), row.lines);
        for (const auto& line : doc) {
            const bool detail = line.text == errorDetails[0] || line.text == errorDetails[1];
            EXPECT_EQ(line.size, detail ? 5 : 10) << line.text;
            EXPECT_EQ(line.font, "Courier New");
            EXPECT_TRUE(line.bold);
        }
    }
}

TEST(CardTexts, Reference) {
    EXPECT_EQ(CardPayment::buildReference("00-1A-2B-3C-4D-5E", {2025, 3, 14, 9, 30, 15}),
              "001A2B3C4D5E_250314093015");
    EXPECT_EQ(CardPayment::buildReference("", {2100, 12, 1, 23, 5, 0}), "_001201230500");
}

}  // namespace
}  // namespace kestrix
