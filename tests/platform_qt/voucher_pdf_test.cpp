#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "engine/card/voucher.h"
#include "platform_qt/qt_printer.h"
#include "support/support.h"

// The card vouchers printed through the Qt printer into PDF files, read back with pdftotext:
// what the customer's paper would show.
namespace kestrix::qt {
namespace {

bool havePdftotext() {
    return std::system("pdftotext -v >/dev/null 2>&1") == 0;
}

std::string run(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return out;
    }
    char buffer[4096];
    std::size_t n = 0;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        out.append(buffer, n);
    }
    pclose(pipe);
    return out;
}

struct Word {
    std::string text;
    double xMin, yMin, xMax, yMax;
    double height() const { return yMax - yMin; }
};

struct Pdf {
    std::string text;  // pdftotext -layout
    std::vector<Word> words;
    double pageWidth = 0;

    const Word* find(const std::string& w) const {
        for (const Word& word : words) {
            if (word.text == w) {
                return &word;
            }
        }
        return nullptr;
    }
};

Pdf readPdf(const std::string& file) {
    Pdf pdf;
    pdf.text = run("pdftotext -layout '" + file + "' -");
    const std::string html = run("pdftotext -bbox '" + file + "' -");
    const std::regex page(R"re(<page width="([0-9.]+)")re");
    std::smatch m;
    if (std::regex_search(html, m, page)) {
        pdf.pageWidth = std::stod(m[1]);
    }
    const std::regex word(
        R"re(<word xMin="([0-9.]+)" yMin="([0-9.]+)" xMax="([0-9.]+)" yMax="([0-9.]+)">([^<]*)</word>)re");
    for (auto it = std::sregex_iterator(html.begin(), html.end(), word);
         it != std::sregex_iterator(); ++it) {
        const std::smatch& w = *it;
        pdf.words.push_back(
            {w[5].str(), std::stod(w[1]), std::stod(w[2]), std::stod(w[3]), std::stod(w[4])});
    }
    return pdf;
}

class VoucherPdf : public ::testing::Test {
protected:
    void SetUp() override {
        if (!havePdftotext()) {
            GTEST_SKIP() << "pdftotext (poppler-utils) is not installed";
        }
        m_dir = test::makeTempDir("ksx-voucher");
        m_printer.select(m_dir);
        ASSERT_EQ(m_printer.current(), m_dir);
    }

    // The PDF of the document just ended.
    Pdf last() {
        EXPECT_FALSE(m_printer.lastFile().empty());
        return readPdf(m_printer.lastFile());
    }

    void expectNothingClipped(const Pdf& pdf) {
        ASSERT_GT(pdf.pageWidth, 0);
        for (const Word& w : pdf.words) {
            EXPECT_GE(w.xMin, 0) << w.text;
            EXPECT_LE(w.xMax, pdf.pageWidth) << w.text;
        }
        // The box is drawn whole: every star line keeps its 34 stars on one line.
        int stars = 0;
        for (const Word& w : pdf.words) {
            if (w.text == voucher::kStarLine) {
                ++stars;
            }
        }
        EXPECT_EQ(stars, 4);
        EXPECT_NE(pdf.text.find(voucher::kNotProcessedLine), std::string::npos);
        EXPECT_NE(pdf.text.find(voucher::kBoxLine), std::string::npos);
    }

    std::string m_dir;
    QtPrinter m_printer;
};

TEST_F(VoucherPdf, ErrorVouchersKeepTheirAccentsAndPrintDetailsAtHalfSize) {
    voucher::printCommunicationError(m_printer, "Sin respuesta del autorizador", "T01");
    const Pdf communication = last();
    voucher::printPinPadError(m_printer, "Tarjeta retirada", "E07");
    const Pdf pinPad = last();
    for (const Pdf* pdf : {&communication, &pinPad}) {
        expectNothingClipped(*pdf);
        const Word* heading = pdf->find("ERROR");
        const Word* detail = pdf->find("Código");
        ASSERT_TRUE(heading && detail) << pdf->text;
        EXPECT_NEAR(detail->height() / heading->height(), 0.5, 0.1) << pdf->text;
    }
    EXPECT_NE(communication.text.find("ERROR DE COMUNICACIÓN"), std::string::npos);
    EXPECT_NE(communication.text.find("Error: Sin respuesta del autorizador"), std::string::npos);
    EXPECT_NE(communication.text.find("Código = T01"), std::string::npos);
    EXPECT_EQ(pinPad.text.substr(pinPad.text.find_first_not_of(" \n"), 13), "PIN PAD ERROR");
    EXPECT_NE(pinPad.text.find("Código = E07"), std::string::npos);
}

TEST_F(VoucherPdf, DeclinedDetailsStayAtTheHeadingSize) {
    voucher::printDeclined(m_printer,
                           {"000123", "001A2B3C4D5E_250314093015", "05", "FONDOS INSUFICIENTES"});
    const Pdf pdf = last();
    for (const char* line : {"Tarjeta Declinada", "Número de Operacion : 000123",
                             "Referencia : 001A2B3C4D5E_250314093015", "Código de Respuesta : 05",
                             "Causa : FONDOS INSUFICIENTES"}) {
        EXPECT_NE(pdf.text.find(line), std::string::npos) << line << "\n" << pdf.text;
    }
    expectNothingClipped(pdf);
    ASSERT_TRUE(pdf.find("Tarjeta") && pdf.find("Número"));
    EXPECT_NEAR(pdf.find("Número")->height() / pdf.find("Tarjeta")->height(), 1.0, 0.1);
}

TEST_F(VoucherPdf, ApprovedTextWithoutItsMarkersAndNothingCut) {
    const std::string line =
        "AUTORIZACION 123456 REFERENCIA 001A2B3C4D5E_250314093015 IMPORTE $1,234.50 MXN";
    voucher::printApproved(m_printer,
                           " @cnb COMERCIO ACME SUCURSAL 0042 @br \n" + line + " @b\nx @bill");
    const Pdf pdf = last();
    EXPECT_EQ(pdf.text.find('@'), std::string::npos) << pdf.text;
    EXPECT_NE(pdf.text.find("COMERCIO ACME SUCURSAL 0042"), std::string::npos) << pdf.text;
    EXPECT_NE(pdf.text.find(line), std::string::npos) << pdf.text;
    EXPECT_NE(pdf.text.find("xill"), std::string::npos) << pdf.text;
    for (const Word& w : pdf.words) {
        EXPECT_LE(w.xMax, pdf.pageWidth) << w.text;
    }
}

}  // namespace
}  // namespace kestrix::qt
