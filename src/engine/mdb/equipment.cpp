// Equipment initialisation: brings every enabled device to a known state, in a fixed order (pin
// pad, bill dispenser, hoppers link, MDB link, coin changer, bill validator), and publishes what
// the devices report on the console, in the device settings and in the host mailbox.

#include <string>
#include <string_view>

#include "../card/card_payment.h"
#include "../dispenser/bill_dispenser.h"
#include "../errors.h"
#include "../formulas.h"
#include "../hoppers/hoppers.h"
#include "../journal/device_health.h"
#include "../settings/layout.h"
#include "../setup.h"
#include "cash_payment.h"
#include "link.h"
#include "tubes.h"
#include "uses.h"

namespace kestrix {

namespace {

constexpr std::string_view kPortErrorSuffix = "- Port Error. Please select another port.";
constexpr std::string_view kNoChangerMessage = "Check Coin Acceptor Connection!";
constexpr std::string_view kNoValidatorMessage = "Check Bill Validator Connection!";
constexpr std::string_view kMessageTitle = "Kestrix";

// Names the port-error message gives, the last one set before the failure.
constexpr std::string_view kPinPadPort = "Pin Pad";
constexpr std::string_view kDispenserPort = "Bill Dispenser";
constexpr std::string_view kHoppersPort = "Hoppers Interface";
constexpr std::string_view kMdbPort = "MDB Interface";

// Waits after opening a link and after the dispenser's set-up, in seconds.
constexpr double kDispenserOpenSeconds = 0.5;
constexpr double kDispenserSetupSeconds = 1.0;
constexpr double kHoppersOpenSeconds = 0.1;

constexpr int kTubeSlots = 5;
constexpr int kCoinTypes = 16;

constexpr std::string_view kNotAvailable = "N/A";

// The device a link's port error is about, as the journal and the log name devices.
std::string linkDevice(std::string_view portName) {
    if (portName == kPinPadPort) {
        return "pinpad";
    }
    if (portName == kDispenserPort) {
        return "dispenser";
    }
    if (portName == kHoppersPort) {
        return "hoppers";
    }
    return "mdb";
}

// Every identification and state field of the pin pad, the changer, the validator and the
// dispenser. The bill type values are the operator's and are left alone.
void clearDisplays(Console& c) {
    for (std::string_view name :
         {"ccEMVFull",          "ccModel",         "ccSerialNumber",    "ccTradeMark",
          "ccVersionApp",       "ccCOM",           "ccPrinter",         "ccCompany",
          "ccBranch",           "ccCountry",       "caFeatureLevel",    "caCountryCode",
          "caScalingFactor",    "caDecimal",       "caManufacturer",    "caSerialNumber",
          "caModelNumber",      "tubesAmount",     "bvFeatureLevel",    "bvCountryCode",
          "bvScalingFactor",    "bvDecimalPlaces", "bvStackerCapacity", "bvSecurityLevels",
          "bvEscrowCapability", "bvManufacturer",  "bvSerialNumber",    "bvModelNumber",
          "bvSoftwareVersion",  "bdSWVersion",     "bdCasetteStatus",   "bdMaxLenght",
          "bdMinLenght",        "bdThickness",     "bdStatus"}) {
        c.setText(name, std::string(kNotAvailable));
    }
    for (int n = 1; n <= kCoinTypes; ++n) {
        c.setText(Console::ctValue(n), std::string(kNotAvailable));
    }
    for (int n = 1; n <= kTubeSlots; ++n) {
        c.setText(Console::tubeCoinType(n), std::string(kNotAvailable));
        c.setText(Console::tubeCoinQty(n), std::string(kNotAvailable));
    }
    c.setText("bdQtyBills", "1");
    c.setText("bdBillsDispensed", "0");
    c.setText("ccOnLine", "No");
}

// Closes the port if open and opens it on the port number in `portList`.
void openLink(SerialPort& port, const Console& c, std::string_view portList,
              std::string_view settings) {
    if (port.isOpen()) {
        port.close();
    }
    port.open(strictInt(c.text(portList)), settings);
}

// Hexadecimal text as decimal text; "" when there are no digits.
std::string decimalOf(const std::string& hexText) {
    return hexText.empty() ? std::string() : ConvertBaseNToDec(hexText, 16);
}

// A coin credit in money: the changer reports coin values in units of its scaling factor.
Money coinMoney(double credit, double scalingFactor) {
    if (scalingFactor == 0) {
        throw KsxError(11, "Division by zero");
    }
    return Money::fromDouble(credit / scalingFactor).value_or(Money());
}

// A byte as eight binary digits (more for a garbled byte that reads above 255).
std::string binaryByte(double value) {
    std::string digits = ConvertDecToBaseN(value, 2);
    if (digits.size() < 8) {
        digits.insert(0, 8 - digits.size(), '0');
    }
    return digits;
}

// --- Coin changer ------------------------------------------------------------------------------

void fillChangerSetup(Setup& s, const mdb::Reply& r) {
    Console& c = s.console();
    EngineState& st = s.state();
    c.setText("caFeatureLevel", r.hex(1));
    c.setText("caCountryCode", r.hexJoined(2, 3));
    c.setText("caScalingFactor", r.decimal(4));
    c.setText("caDecimal", r.decimal(5));
    const double scaling = leadingNumber(c.text("caScalingFactor"));
    for (int i = 1; i <= kCoinTypes; ++i) {
        // Credits are bytes 8 to 23; dividing by the scaling factor gives the money value.
        const Money value = coinMoney(r.number(7 + i), scaling);
        c.setText(Console::ctValue(i), value.text());
        st.coinValue[static_cast<std::size_t>(i)] = value;
    }

    // Tube slots: bytes 6 and 7 are the coin type routing (bit n set: MDB coin type n can go to a
    // tube). The routed coin types take the five slots in order.
    const std::string mask = binaryByte(r.number(6)) + binaryByte(r.number(7));
    st.tubeSlotCoin.fill(Money());
    int slot = 0;
    for (int type = 1; type <= kCoinTypes && slot < kTubeSlots; ++type) {
        const std::size_t fromRight = static_cast<std::size_t>(type);
        if (fromRight <= mask.size() && mask[mask.size() - fromRight] == '1') {
            ++slot;
            st.tubeSlotCoin[static_cast<std::size_t>(slot)] =
                st.coinValue[static_cast<std::size_t>(type)];
        }
    }
    for (int n = 1; n <= kTubeSlots; ++n) {
        const std::string value = st.tubeSlotCoin[static_cast<std::size_t>(n)].text();
        c.setText(Console::tubeCoinType(n), value);
        s.saveSetting(store::section::kCoinAcceptor, store::key::tubeCoinType(n), value);
    }
}

// What the tubes hold, in the journal: where the totals' tube money starts from.
void journalTubeLevels(Setup& s, const mdb::TubeCounts& counts) {
    const EngineState& st = s.state();
    JournalEntry levels{.kind = journal_kind::kTubeLevels, .device = "changer"};
    levels.amount = mdb::tubeMoney(s, counts);
    for (std::size_t k = 1; k <= kCoinTypes; ++k) {
        if (st.coinValue[k].positive() && counts[k] > 0) {
            levels.detail += (levels.detail.empty() ? "" : " ") + st.coinValue[k].text() + "x" +
                             std::to_string(counts[k]);
        }
    }
    s.platform().journal.append(levels);
}

// False when the changer does not answer its RESET.
bool initChanger(Setup& s) {
    MdbLink& link = s.link();
    Console& c = s.console();

    const mdb::Exchange reset =
        link.exchange(mdb::Command::whole(mdb::frames::changerReset()), mdb::use::kChangerReset);
    if (!reset.answered) {
        return false;
    }
    link.acknowledge(reset.reply);
    link.settle();
    // The changer's "I was reset" report is taken at once, so it never stands in front of a
    // coin in a later reply.
    const mdb::Exchange poll = link.exchange(mdb::Command::whole(mdb::frames::changerPoll()),
                                             mdb::payment_use::kChangerPollAfterReset);
    if (poll.answered && poll.reply.message() && !poll.reply.isBareAck()) {
        link.sendAck();
    }

    // The commands after the RESET are trusted to be answered, within their attempts: a changer
    // that answers its RESET and then nothing is absent all the same.
    const mdb::Exchange setup = link.exchange(mdb::Command::whole(mdb::frames::changerSetup()),
                                              mdb::use::kChangerSetup, mdb::readable);
    if (!setup.answered) {
        return false;
    }
    link.acknowledge(setup.reply);
    fillChangerSetup(s, setup.reply.data());

    const mdb::Exchange id = link.exchange(mdb::commands::changerIdentification(),
                                           mdb::use::kChangerIdentification, mdb::readable);
    if (!id.answered) {
        return false;
    }
    link.acknowledge(id.reply);
    const mdb::Reply idData = id.reply.data(true);
    c.setText("caManufacturer", idData.characters(1, 3));
    c.setText("caSerialNumber", idData.characters(4, 15));
    c.setText("caModelNumber", idData.characters(16, 27));

    // Right after a reset the changer may answer TUBE STATUS with a bare acknowledgement: ask
    // again until the counts come.
    const std::optional<mdb::TubeCounts> tubes =
        mdb::readTubeStatus(s, mdb::use::kChangerTubeStatus);
    if (!tubes) {
        return false;
    }
    mdb::publishTubes(s, *tubes);
    journalTubeLevels(s, *tubes);
    return true;
}

// --- Bill validator ----------------------------------------------------------------------------

// False when the validator does not answer its RESET.
bool initValidator(Setup& s) {
    MdbLink& link = s.link();
    Console& c = s.console();

    const mdb::Exchange reset =
        link.exchange(mdb::commands::validatorReset(), mdb::use::kValidatorReset);
    if (!reset.answered) {
        return false;
    }
    link.acknowledge(reset.reply);
    c.BlinkTx();
    link.settle();

    // The first poll collects the validator's report that it has just been reset; it is
    // acknowledged whatever it holds.
    if (!link.exchange(mdb::commands::validatorPoll(), mdb::use::kValidatorPoll).answered) {
        return false;
    }
    link.sendAck();
    c.BlinkTx();
    link.settle();

    const mdb::Exchange setup =
        link.exchange(mdb::commands::validatorSetup(), mdb::use::kValidatorSetup, mdb::readable);
    if (!setup.answered) {
        return false;
    }
    link.acknowledge(setup.reply);
    c.BlinkTx();
    link.settle();
    const mdb::Reply r = setup.reply.data();
    c.setText("bvFeatureLevel", r.hex(1));
    c.setText("bvCountryCode", r.hexJoined(2, 3));
    c.setText("bvScalingFactor", decimalOf(r.hexJoined(4, 5)));
    c.setText("bvDecimalPlaces", r.decimal(6));
    c.setText("bvStackerCapacity", decimalOf(r.hexJoined(7, 8)));
    // A validator sends its security levels in bytes 9 and 10 and its escrow flag in byte 11;
    // these fields are read one byte early (overlapping the stacker capacity), which is what
    // operators and hosts have always been shown, so the readings stay as they are.
    c.setText("bvSecurityLevels", r.hexJoined(8, 9) + "H");
    c.setText("bvEscrowCapability", r.hex(10) == "ff" ? "YES" : "NO");

    const mdb::Exchange id = link.exchange(mdb::commands::validatorIdentification(),
                                           mdb::use::kValidatorIdentification, mdb::readable);
    if (!id.answered) {
        return false;
    }
    link.acknowledge(id.reply);
    c.BlinkTx();
    link.settle();
    const mdb::Reply idData = id.reply.data(true);
    c.setText("bvManufacturer", idData.characters(1, 3));
    c.setText("bvSerialNumber", idData.characters(4, 15));
    c.setText("bvModelNumber", idData.characters(16, 27));
    c.setText("bvSoftwareVersion", idData.decimal(28) + idData.decimal(29) + idData.decimal(30));
    return true;
}

}  // namespace

void Setup::InitEquipment() {
    Console& c = m_console;
    // Initialisation starts every device afresh: one that failed before is trusted again.
    m_state.changerFailed = false;
    const bool ok = trapped([&] {
        writeMailbox(store::mailbox::kKsxError, "0");
        clearDisplays(c);

        if (c.checked("pinPadEnabled")) {
            m_state.portName = kPinPadPort;
            m_card->queryPinPad();
            if (c.text("ccOnLine") == "Yes") {
                m_health->working("pinpad");
            } else {
                m_health->fault("pinpad", "not on line");
            }
        }
        // The card test controls follow the pin pad's box.
        c.setEnabled("ccReadCard", c.checked("pinPadEnabled"));
        c.setEnabled("enablePaymentCC", c.checked("pinPadEnabled"));

        if (c.checked("billDispenserEnabled")) {
            m_state.portName = kDispenserPort;
            openLink(m_platform.dispenserPort, c, "comPorts1", BillDispenser::kLineSettings);
            pause(kDispenserOpenSeconds);
            int billType = strictInt(c.text("bDispType"));
            m_dispenser->initBillDispenser(billType);
            writeMailbox(store::mailbox::kBDStatus, c.text("bdStatus"));
            writeMailbox(store::mailbox::kBDCassette, c.text("bdCasetteStatus"));
            writeMailbox(store::mailbox::kBDDispensed, "0");
            if (m_dispenser->bdError()) {
                m_health->fault("dispenser", "reports an error at set-up (reply " +
                                                 m_dispenser->bdReply().substr(0, 64) + ")");
            } else {
                m_health->working("dispenser");
            }
            pause(kDispenserSetupSeconds);
        }

        if (c.checked("hoppersEnabled")) {
            m_state.portName = kHoppersPort;
            m_hoppers->openPort(strictInt(c.text("comPorts2")));
            m_health->working("hoppers");
            pause(kHoppersOpenSeconds);
        }

        if (c.checked("CoinAcceptorEnabled") || c.checked("billValidatorEnabled")) {
            m_state.portName = kMdbPort;
            m_link->open();
            m_health->working("mdb");
            if (m_state.pollTimedOut || m_state.bvNeedsInit) {
                m_cash->collectReports();
            }
        }

        if (c.checked("CoinAcceptorEnabled")) {
            if (initChanger(*this)) {
                m_health->working("changer");
            } else {
                m_health->fault("changer", "no answer to RESET");
                // Check boxes changed by the engine raise no handler, so this does not re-enter.
                c.setValue("CoinAcceptorEnabled", 0);
                m_platform.messageBox.show(std::string(kNoChangerMessage),
                                           std::string(kMessageTitle));
            }
        }

        if (c.checked("billValidatorEnabled")) {
            if (initValidator(*this)) {
                m_health->working("validator");
            } else {
                m_health->fault("validator", "no answer to RESET");
                c.setValue("billValidatorEnabled", 0);
                m_platform.messageBox.show(std::string(kNoValidatorMessage),
                                           std::string(kMessageTitle));
            }
        }
    });
    if (!ok) {
        // In practice a port that cannot be opened or has gone: nothing after it is initialised.
        writeMailbox(store::mailbox::kKsxError, "1");
        m_health->fault(
            linkDevice(m_state.portName),
            m_state.portName + ": port error; the devices after it are not initialised");
        m_platform.messageBox.show(m_state.portName + std::string(kPortErrorSuffix),
                                   std::string(kMessageTitle));
    }
}

}  // namespace kestrix
