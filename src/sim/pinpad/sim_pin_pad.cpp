#include "sim_pin_pad.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include <nlohmann/json.hpp>
#include "engine/settings/layout.h"

namespace kestrix::sim {

namespace {

constexpr double kSecondsPerDay = 86400.0;
constexpr double kDefaultSaleSeconds = 4.0;
constexpr double kMaxSaleSeconds = 600.0;
// The wait checks for cancellation and the end of a step this often.
constexpr int kTickMs = 50;

std::string trimmedLower(std::string s) {
    const auto notSpace = [](unsigned char c) { return c != ' ' && c != '\t'; };
    s.erase(s.begin(), std::find_if(s.begin(), s.end(), notSpace));
    s.erase(std::find_if(s.rbegin(), s.rend(), notSpace).base(), s.end());
    for (char& c : s) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return s;
}

}  // namespace

SimPinPad::SimPinPad(Clock& clock, Scheduler& scheduler, SettingsStore& store)
    : SimDevice({"offline"}),
      m_clock(clock),
      m_scheduler(scheduler),
      m_store(store),
      m_tick(scheduler.createTimer("pinPadSimulator", kTickMs, false, [] {})) {}

SimPinPad::~SimPinPad() = default;

SimPinPad::Steering SimPinPad::readSteering() {
    Steering s{"approved", kDefaultSaleSeconds, "************1111", "SIMULATED/CARDHOLDER"};
    const auto read = [this](std::string_view key) {
        try {
            return m_store.get(store::kApp, store::section::kPinPadSimulator, key, "");
        } catch (const std::exception&) {
            return std::string();  // a store that cannot be read leaves the defaults
        }
    };
    if (std::string r = trimmedLower(read("Result")); !r.empty()) {
        s.result = r;
    }
    const std::string seconds = read("Seconds");
    double value = 0;
    const auto [ptr, ec] = std::from_chars(seconds.data(), seconds.data() + seconds.size(), value);
    if (ec == std::errc() && ptr != seconds.data()) {
        s.seconds = std::clamp(value, 0.0, kMaxSaleSeconds);
    }
    if (std::string n = read("CardNumber"); !n.empty()) {
        s.cardNumber = n;
    }
    if (std::string h = read("CardHolder"); !h.empty()) {
        s.cardHolder = h;
    }
    return s;
}

double SimPinPad::elapsedSince(double start) const {
    double d = m_clock.secondsSinceMidnight() - start;
    if (d < 0) {
        d += kSecondsPerDay;  // the wait ran over midnight
    }
    return d;
}

bool SimPinPad::show(const std::string& message, double seconds) {
    m_message = message;
    if (m_cancel) {
        return false;
    }
    const double start = m_clock.secondsSinceMidnight();
    // The timer only wakes the event loop so the wait notices time passing.
    m_tick->setEnabled(true);
    m_scheduler.yieldUntil([&] { return m_cancel || elapsedSince(start) >= seconds; });
    m_tick->setEnabled(false);
    return !m_cancel;
}

PinPadIdentity SimPinPad::identify() {
    PinPadIdentity id;
    id.online = !faultOn("offline");
    if (!id.online) {
        return id;
    }
    id.emvFull = "KSX-PP EMV L2 4.3";
    id.model = "KSX-PP200";
    id.serialNumber = "PP0000123456";
    id.tradeMark = "Kestrix";
    id.versionApp = "5.0.0";
    id.com = "USB";
    id.printer = "Voucher Printer";
    id.company = "0001";
    id.branch = "0001";
    id.country = "MX";
    return id;
}

std::string SimPinPad::readCard() {
    const Steering s = readSteering();
    m_busy = true;
    m_cancel = false;
    m_cardNumber.clear();
    m_cardHolder.clear();
    m_errorDetails = {};
    struct Done {
        bool& busy;
        ~Done() { busy = false; }
    } done{m_busy};
    if (faultOn("offline")) {
        m_message = "NO PIN PAD";
        m_errorDetails = {"Pin pad not connected", "No answer from the pin pad", "P01", ""};
        return m_errorDetails.error;
    }
    if (!show("INSERT OR SWIPE CARD", kPresentCardSeconds) ||
        !show("READING CARD...", kReadCardSeconds)) {
        m_message = "OPERATION CANCELLED";
        m_errorDetails = {"Operation cancelled", "Cancelled while reading the card", "C01", ""};
        return m_errorDetails.error;
    }
    if (s.result == "readerror") {
        m_message = "CARD READ ERROR";
        m_errorDetails = {"Card read error", "The chip could not be read", "R05", ""};
        return m_errorDetails.error;
    }
    m_cardNumber = s.cardNumber;
    m_cardHolder = s.cardHolder;
    m_message = "CARD READ";
    return {};
}

std::string SimPinPad::prepareOperation(const std::string& code) {
    return "OP" + code + "-" + std::to_string(m_nextOperation);
}

std::string SimPinPad::runSale(const SaleRequest& request) {
    const Steering s = readSteering();
    m_lastSale = request;
    m_busy = true;
    ++m_sales;
    m_result.clear();
    m_responseCode.clear();
    m_declineCause.clear();
    m_errorText.clear();
    m_errorCode.clear();
    char number[16];
    std::snprintf(number, sizeof number, "%06d", m_nextOperation++ % 1000000);
    m_operationNumber = number;
    struct Done {
        bool& busy;
        ~Done() { busy = false; }
    } done{m_busy};

    const bool finished = show("ENTER PIN", s.seconds * kEnterPinShare) &&
                          show("PROCESSING...", s.seconds * kProcessingShare) &&
                          show("CONNECTING TO HOST...", s.seconds * kHostShare);
    if (!finished) {
        m_result = "denied";
        m_responseCode = "17";
        m_declineCause = "CANCELLED";
        m_message = "OPERATION CANCELLED";
        return {};
    }
    if (s.result == "approved") {
        m_result = "approved";
        m_responseCode = "00";
        m_message = "APPROVED";
        // The library's voucher text: one line per printer line, each with the layout markers
        // (centred bold, centred, left, break, bold) that the engine takes out before printing.
        const std::string currency = m_currency.empty() ? request.currency : m_currency;
        return " @cnb KESTRIX SIMULATED ACQUIRER @br \n"
               " @cnn VENTA @br \n"
               " @lnn COMERCIO: " +
               request.company + " SUC " + request.branch +
               " @br \n"
               " @lnn TARJETA: " +
               m_cardNumber +
               " @br \n"
               " @lnn TITULAR: " +
               m_cardHolder +
               " @br \n"
               " @lnn IMPORTE: $" +
               m_amount + " " + currency +
               " @br \n"
               " @lnn REFERENCIA: " +
               request.reference +
               " @br \n"
               " @lnn OPERACION: " +
               m_operationNumber + "  AUT: 4" + m_operationNumber.substr(1) +
               " @br \n"
               " @b APROBADA @br \n"
               " @cnn PAGO CON FIRMA ELECTRONICA @br ";
    }
    if (s.result == "denied") {
        m_result = "denied";
        m_responseCode = "05";
        m_declineCause = "DECLINED BY ISSUER";
        m_message = "DECLINED";
        return {};
    }
    if (s.result == "error" || s.result == "readerror") {
        m_result = "error";
        m_errorText = "No answer from the authorisation host";
        m_errorCode = "E101";
        m_message = "COMMUNICATION ERROR";
        return {};
    }
    m_result = s.result;  // an unexpected answer of the library, as configured
    m_message = "END";
    return {};
}

void SimPinPad::closeOperation() {
    m_busy = false;
    m_cancel = false;
    m_message = kIdleMessage;
}

void SimPinPad::cancelOperation() {
    if (m_busy) {
        m_cancel = true;
    }
}

void SimPinPad::powerCycle(double) {
    m_cancel = m_busy;
    m_message = kIdleMessage;
}

nlohmann::ordered_json SimPinPad::state() const {
    nlohmann::ordered_json w;
    w["faults"] = activeFaults();
    w["message"] = m_message;
    w["busy"] = m_busy;
    w["sales"] = m_sales;
    w["lastResult"] = m_result;
    w["amount"] = m_amount;
    return w;
}

}  // namespace kestrix::sim
