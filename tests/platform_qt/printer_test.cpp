#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QPrinterInfo>
#include <QRegularExpression>

#include <cmath>
#include <string>

#include "engine/card/voucher.h"
#include "platform_qt/qt_printer.h"
#include "support/process.h"
#include "support/support.h"

namespace kestrix::qt {
namespace {

// The output of a poppler tool on a PDF file.
QString poppler(const std::string& tool, const std::vector<std::string>& args) {
    return QString::fromStdString(test::run("/usr/bin/" + tool, args).out);
}

QString pdfText(const std::string& file) {
    return poppler("pdftotext", {"-layout", file, "-"});
}

// A word of a PDF and its box, as pdftotext -bbox gives them.
struct Word {
    QString text;
    double xMin, yMin, xMax, yMax;
};

std::vector<Word> pdfWords(const std::string& file, double& pageWidth) {
    const QString html = poppler("pdftotext", {"-bbox", file, "-"});
    pageWidth =
        QRegularExpression(R"re(<page width="([0-9.]+)")re").match(html).captured(1).toDouble();
    std::vector<Word> words;
    const QRegularExpression word(
        R"re(<word xMin="([0-9.]+)" yMin="([0-9.]+)" xMax="([0-9.]+)" yMax="([0-9.]+)">([^<]*)</word>)re");
    for (const auto& m : word.globalMatch(html)) {
        words.push_back({m.captured(5), m.captured(1).toDouble(), m.captured(2).toDouble(),
                         m.captured(3).toDouble(), m.captured(4).toDouble()});
    }
    return words;
}

// Vouchers go to a directory as PDF files, one a document: Spanish text in either encoding, long
// lines whole, hostile font settings survived. On the kiosk's paper an error voucher keeps its
// box whole, nothing past the page's edge, its details at half the size of its heading.
TEST(QtPrinter, VouchersArePdfFilesWithEveryLineWholeOnThePage) {
    const std::string dir = test::makeTempDir("ksx-vouchers");
    QtPrinter printer({dir});
    EXPECT_EQ(printer.installedPrinters().back(), dir);
    printer.select("No Such Printer");
    printer.select(dir);
    printer.select("No Such Printer");
    EXPECT_EQ(printer.current(), dir) << "an unknown name keeps the current printer";

    const std::string wide = "REF 0123456789 " + std::string(60, '=') + " 9876543210 FIN";
    printer.setFontName("Courier New");
    printer.setFontBold(true);
    printer.setFontSize(10);
    printer.printLine("Código");
    printer.setFontBold(false);
    printer.printLine("");
    printer.printLine(wide);
    printer.printLine("Autorizaci\xf3n 123");  // Latin-1, as an older library writes it
    printer.setFontName("No Such Font");
    printer.setFontSize(std::nan(""));
    printer.setFontSize(-4);
    printer.setFontSize(1e9);
    printer.setFontSize(9);
    std::string endless;
    for (int i = 0; i < 300; ++i) {
        endless += "[" + std::to_string(i) + "]";
    }
    printer.printLine(endless);
    for (int i = 0; i < 400; ++i) {
        printer.printLine("line " + std::to_string(i));
    }
    printer.printLine("two\nlines");
    printer.endDoc();

    EXPECT_EQ(QFile::permissions(QString::fromStdString(printer.lastFile())),
              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadUser |
                  QFileDevice::WriteUser)
        << "a voucher is its user's alone";
    const QString text = pdfText(printer.lastFile());
    EXPECT_TRUE(text.contains(QString::fromUtf8("Código"))) << text.toStdString();
    EXPECT_TRUE(text.contains(QString::fromUtf8("Autorización 123")));
    EXPECT_TRUE(text.contains(QString::fromStdString(wide))) << "not clipped nor wrapped";
    QString flat = text;
    flat.remove(QRegularExpression("\\s"));
    for (int i = 0; i < 300; ++i) {
        ASSERT_TRUE(flat.contains(QString("[%1]").arg(i))) << i;
    }
    for (const char* line : {"line 0", "line 399", "two", "lines"}) {
        EXPECT_TRUE(text.contains(line)) << line;
    }
    // The font asked for, or an installed fixed-pitch look-alike, is the one in the document, bold
    // included.
    const QString fonts = poppler("pdffonts", {printer.lastFile()});
    EXPECT_TRUE(fonts.contains("Mono") || fonts.contains("Courier")) << fonts.toStdString();
    EXPECT_TRUE(fonts.contains("Bold")) << fonts.toStdString();

    voucher::printCommunicationError(printer, "Sin respuesta del autorizador", "T01");
    printer.endDoc();
    printer.endDoc();
    EXPECT_EQ(QDir(QString::fromStdString(dir)).entryList({"*.pdf"}, QDir::Files).size(), 2)
        << "every document is a file of its own, an empty one none";
    double pageWidth = 0;
    const std::vector<Word> words = pdfWords(printer.lastFile(), pageWidth);
    ASSERT_GT(pageWidth, 0);
    int starLines = 0;
    const Word* heading = nullptr;
    const Word* detail = nullptr;
    for (const Word& w : words) {
        EXPECT_GE(w.xMin, 0) << w.text.toStdString();
        EXPECT_LE(w.xMax, pageWidth) << w.text.toStdString();
        EXPECT_NE(w.text, "Autorización") << "the first is not repeated";
        starLines += w.text.toStdString() == voucher::kStarLine ? 1 : 0;
        heading = w.text == "ERROR" && heading == nullptr ? &w : heading;
        detail = w.text == QString::fromUtf8("Código") ? &w : detail;
    }
    EXPECT_EQ(starLines, 4) << "each star line on one line";
    ASSERT_TRUE(heading && detail) << pdfText(printer.lastFile()).toStdString();
    EXPECT_NEAR((detail->yMax - detail->yMin) / (heading->yMax - heading->yMin), 0.5, 0.1);
}

TEST(QtPrinter, NoPrinterAtAllIsAnError) {
    if (!QPrinterInfo::defaultPrinterName().isEmpty()) {
        GTEST_SKIP() << "this machine has a printer; the test would print on it";
    }
    QtPrinter printer;
    ASSERT_EQ(printer.current(), "");
    printer.printLine("x");
    EXPECT_THROW(printer.endDoc(), std::runtime_error);
}

}  // namespace
}  // namespace kestrix::qt
