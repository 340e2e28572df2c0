#include "qt_printer.h"

#include "helper_printer.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFontDatabase>
#include <QFontMetricsF>
#include <QGuiApplication>
#include <QPageLayout>
#include <QPainter>
#include <QPdfWriter>
#include <QPrinter>
#include <QPrinterInfo>
#include <QStringDecoder>
#include <QTextLayout>
#include <algorithm>
#include <cmath>
#include <memory>
#include <stdexcept>

namespace kestrix::qt {

namespace {

constexpr double kMmPerInch = 25.4;
constexpr int kPdfDpi = 300;
constexpr double kPdfMarginMm = 4.0;
// A voucher is at least as wide as a receipt roll; past the widest page below, lines wrap.
constexpr double kPdfMinWidthMm = 80.0;
constexpr double kPdfMaxWidthMm = 420.0;
// A very long document goes on to further pages of this height.
constexpr double kPdfMaxHeightMm = 1200.0;
constexpr double kMinPoints = 1.0;
constexpr double kMaxPoints = 144.0;

QString decodeText(const std::string& bytes) {
    QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = utf8(QByteArrayView(bytes.data(), static_cast<qsizetype>(bytes.size())));
    if (utf8.hasError()) {
        text = QString::fromLatin1(bytes.data(), static_cast<qsizetype>(bytes.size()));
    }
    // A line break inside a printed text starts a new line, as on the classic printer object.
    text.replace(QLatin1String("\r\n"), QString(QChar::LineSeparator));
    text.replace(QLatin1Char('\n'), QChar::LineSeparator);
    text.replace(QLatin1Char('\r'), QChar::LineSeparator);
    return text;
}

bool installed(const QString& family) {
    return QFontDatabase::families().contains(family, Qt::CaseInsensitive);
}

QString firstInstalled(std::initializer_list<const char*> candidates) {
    for (const char* name : candidates) {
        if (installed(QString::fromLatin1(name))) {
            return QString::fromLatin1(name);
        }
    }
    return {};
}

QFont makeFont(const QtPrinter::Line& line) {
    QFont font(QtPrinter::resolveFamily(line.family));
    font.setPointSizeF(line.points);
    font.setBold(line.bold);
    if (QFontDatabase::isFixedPitch(font.family())) {
        font.setStyleHint(QFont::TypeWriter);
    }
    return font;
}

// One printed line laid out for a paint device, wrapped at `width` device pixels.
struct Laid {
    std::unique_ptr<QTextLayout> layout;
    double height = 0;
};

Laid layOut(const QtPrinter::Line& line, const QPaintDevice* device, double width) {
    Laid laid;
    // An empty line is a blank line as tall as its font.
    const QString text = line.text.isEmpty() ? QStringLiteral(" ") : line.text;
    laid.layout = std::make_unique<QTextLayout>(text, makeFont(line), device);
    QTextOption option;
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    laid.layout->setTextOption(option);
    laid.layout->beginLayout();
    for (;;) {
        QTextLine textLine = laid.layout->createLine();
        if (!textLine.isValid()) {
            break;
        }
        textLine.setLineWidth(width);
        textLine.setPosition(QPointF(0, 0));
        laid.height += textLine.height();
    }
    laid.layout->endLayout();
    return laid;
}

// Draws the laid-out lines from the top of the paintable area, going on to a new page when one
// is full.
void draw(QPainter& painter, QPagedPaintDevice& device, const std::vector<Laid>& laid,
          double pageHeight) {
    double y = 0;
    for (const Laid& l : laid) {
        for (int i = 0; i < l.layout->lineCount(); ++i) {
            const QTextLine textLine = l.layout->lineAt(i);
            if (y > 0 && y + textLine.height() > pageHeight) {
                device.newPage();
                y = 0;
            }
            textLine.draw(&painter, QPointF(0, y));
            y += textLine.height();
        }
    }
}

void requireGuiApplication() {
    if (qobject_cast<QGuiApplication*>(QCoreApplication::instance()) == nullptr) {
        throw std::runtime_error("printing needs the application's fonts (a QGuiApplication)");
    }
}

QString uniquePdfName(const QDir& dir) {
    const QString stamp =
        QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss-zzz"));
    QString name = QStringLiteral("voucher-%1.pdf").arg(stamp);
    for (int n = 2; QFileInfo::exists(dir.filePath(name)); ++n) {
        name = QStringLiteral("voucher-%1-%2.pdf").arg(stamp).arg(n);
    }
    return dir.filePath(name);
}

}  // namespace

QtPrinter::QtPrinter(std::vector<std::string> pdfDirectories)
    : m_directories(std::move(pdfDirectories)), m_family(QStringLiteral("Courier New")) {
    if (const QByteArray env = qgetenv("KSX_VOUCHER_DIR"); !env.isEmpty()) {
        QDir().mkpath(QString::fromLocal8Bit(env));
        m_directories.push_back(env.toStdString());
    }
    m_current = QPrinterInfo::defaultPrinterName().toStdString();
    if (m_current.empty()) {
        for (const std::string& dir : m_directories) {
            if (isDirectory(dir)) {
                m_current = dir;
                break;
            }
        }
    }
}

bool QtPrinter::isDirectory(const std::string& name) const {
    return !name.empty() && QFileInfo(QString::fromStdString(name)).isDir();
}

std::vector<std::string> QtPrinter::installedPrinters() {
    std::vector<std::string> names;
    for (const QString& name : QPrinterInfo::availablePrinterNames()) {
        names.push_back(name.toStdString());
    }
    for (const std::string& dir : m_directories) {
        if (isDirectory(dir) && std::find(names.begin(), names.end(), dir) == names.end()) {
            names.push_back(dir);
        }
    }
    return names;
}

void QtPrinter::select(const std::string& name) {
    if (isDirectory(name)) {
        if (std::find(m_directories.begin(), m_directories.end(), name) == m_directories.end()) {
            m_directories.push_back(name);
        }
        m_current = name;
        return;
    }
    if (QPrinterInfo::availablePrinterNames().contains(QString::fromStdString(name))) {
        m_current = name;
    }
}

void QtPrinter::setFontName(const std::string& name) {
    m_family = decodeText(name);
}

void QtPrinter::setFontSize(double points) {
    if (std::isfinite(points)) {
        m_points = std::clamp(points, kMinPoints, kMaxPoints);
    }
}

void QtPrinter::printLine(const std::string& text) {
    m_lines.push_back({decodeText(text), m_family, m_bold, m_points});
}

void QtPrinter::endDoc() {
    // The document is gone whether or not it can be printed: a failed voucher must not come out
    // at the head of the next one.
    std::vector<Line> lines = std::move(m_lines);
    m_lines.clear();
    if (lines.empty()) {
        return;
    }
    requireGuiApplication();
    if (isDirectory(m_current)) {
        printToDirectory(lines, m_current);
    } else if (!m_current.empty()) {
        printToPrinter(lines, m_current);
    } else {
        throw std::runtime_error("no printer selected");
    }
}

QString QtPrinter::resolveFamily(const QString& wanted) {
    if (wanted.isEmpty()) {
        return QGuiApplication::font().family();
    }
    if (installed(wanted)) {
        return wanted;
    }
    const QString lower = wanted.toLower();
    QString replacement;
    if (lower.contains(QLatin1String("courier")) || lower == QLatin1String("lucida console") ||
        lower == QLatin1String("consolas") || lower.contains(QLatin1String("mono"))) {
        replacement = firstInstalled({"Liberation Mono", "DejaVu Sans Mono"});
        if (replacement.isEmpty()) {
            replacement = QFontDatabase::systemFont(QFontDatabase::FixedFont).family();
        }
    } else if (lower.contains(QLatin1String("times")) || lower.contains(QLatin1String("serif"))) {
        replacement = firstInstalled({"Liberation Serif", "DejaVu Serif"});
    } else {
        replacement = firstInstalled({"Liberation Sans", "DejaVu Sans"});
    }
    return replacement.isEmpty() ? wanted : replacement;
}

void QtPrinter::printToDirectory(const std::vector<Line>& lines, const std::string& dirName) {
    const QDir dir(QString::fromStdString(dirName));
    const QString file = uniquePdfName(dir);
    // A voucher names the card and the amount: it is the kiosk user's alone, from its creation.
    QFile out(file);
    if (!out.open(QIODevice::WriteOnly | QIODevice::NewOnly,
                  QFileDevice::ReadOwner | QFileDevice::WriteOwner)) {
        throw std::runtime_error("cannot write the voucher " + file.toStdString() + ": " +
                                 out.errorString().toStdString());
    }
    QPdfWriter writer(&out);
    writer.setResolution(kPdfDpi);
    writer.setCreator(QStringLiteral("Kestrix"));
    writer.setTitle(QStringLiteral("Voucher"));

    const double pxPerMm = kPdfDpi / kMmPerInch;
    double widest = 0;
    for (const Line& line : lines) {
        const QFontMetricsF metrics(makeFont(line), &writer);
        for (const QString& part : line.text.split(QChar::LineSeparator)) {
            widest = std::max(widest, metrics.horizontalAdvance(part));
        }
    }
    // A little slack so that rounding in the layout never pushes the widest line onto two.
    const double contentWidthMm =
        std::clamp(widest / pxPerMm + 1.0, kPdfMinWidthMm - 2 * kPdfMarginMm,
                   kPdfMaxWidthMm - 2 * kPdfMarginMm);
    std::vector<Laid> laid;
    double height = 0;
    for (const Line& line : lines) {
        laid.push_back(layOut(line, &writer, contentWidthMm * pxPerMm));
        height += laid.back().height;
    }
    const double widthMm = contentWidthMm + 2 * kPdfMarginMm;
    const double heightMm = std::min(height / pxPerMm + 2 * kPdfMarginMm + 1.0, kPdfMaxHeightMm);
    // Page sizes are kept upright; a short, wide voucher is an upright page turned on its side.
    const bool landscape = widthMm > heightMm;
    const QPageSize size(QSizeF(std::min(widthMm, heightMm), std::max(widthMm, heightMm)),
                         QPageSize::Millimeter, QStringLiteral("Voucher"), QPageSize::ExactMatch);
    writer.setPageLayout(
        QPageLayout(size, landscape ? QPageLayout::Landscape : QPageLayout::Portrait,
                    QMarginsF(kPdfMarginMm, kPdfMarginMm, kPdfMarginMm, kPdfMarginMm),
                    QPageLayout::Millimeter));
    QPainter painter;
    if (!painter.begin(&writer)) {
        throw std::runtime_error("cannot write the voucher " + file.toStdString());
    }
    draw(painter, writer, laid, (heightMm - 2 * kPdfMarginMm) * pxPerMm);
    if (!painter.end()) {
        throw std::runtime_error("cannot write the voucher " + file.toStdString());
    }
    m_lastFile = file.toStdString();
}

void QtPrinter::printToPrinter(const std::vector<Line>& lines, const std::string& name) {
    const QPrinterInfo info = QPrinterInfo::printerInfo(QString::fromStdString(name));
    if (info.isNull()) {
        throw std::runtime_error("printer " + name + " is not installed");
    }
    QPrinter printer(info, QPrinter::HighResolution);
    printer.setDocName(QStringLiteral("Voucher"));
    if (!printer.isValid()) {
        throw std::runtime_error("printer " + name + " cannot print");
    }
    const QRectF area = printer.pageLayout().paintRectPixels(printer.resolution());
    std::vector<Laid> laid;
    for (const Line& line : lines) {
        laid.push_back(layOut(line, &printer, area.width()));
    }
    QPainter painter;
    if (!painter.begin(&printer)) {
        throw std::runtime_error("cannot print on " + name);
    }
    draw(painter, printer, laid, area.height());
    if (!painter.end()) {
        throw std::runtime_error("cannot print on " + name);
    }
    m_lastFile.clear();
}

int printVoucherDocument(const std::string& document, std::string& writtenFile,
                         std::string& error) {
    using namespace voucher_document;
    std::vector<Record> records;
    if (!parse(document, records)) {
        error = "the voucher document cannot be read";
        return voucher_document::kExitNotADocument;
    }
    std::vector<std::string> directories;
    for (const Record& r : records) {
        if (r.tag == kDirectory) {
            directories.push_back(r.value);
        }
    }
    try {
        QtPrinter printer(directories);
        for (const Record& r : records) {
            switch (r.tag) {
                case kPrinterName:
                    printer.select(r.value);
                    break;
                case kFontName:
                    printer.setFontName(r.value);
                    break;
                case kFontBold:
                    printer.setFontBold(r.value == "1");
                    break;
                case kFontSize: {
                    bool ok = false;
                    const double points = QByteArray::fromStdString(r.value).toDouble(&ok);
                    if (ok) {
                        printer.setFontSize(points);
                    }
                    break;
                }
                case kLine:
                    printer.printLine(r.value);
                    break;
                default:
                    break;
            }
        }
        printer.endDoc();
        writtenFile = printer.lastFile();
    } catch (const std::runtime_error& e) {
        error = e.what();
        return voucher_document::kExitNotPrinted;
    }
    return kExitPrinted;
}

}  // namespace kestrix::qt
