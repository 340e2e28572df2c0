// Equipment initialisation: brings every enabled device to a known state, in a fixed order (pin
// pad, bill dispenser, hoppers link, MDB link, coin changer, bill validator), and publishes what
// the devices report on the console, in the device settings and in the host mailbox.

#include <optional>
#include <string>
#include <string_view>

#include "card/card_payment.h"
#include "dispenser/bill_dispenser.h"
#include "errors.h"
#include "formulas.h"
#include "hoppers/hoppers.h"
#include "journal/device_health.h"
#include "mdb/cash_payment.h"
#include "mdb/initialisation.h"
#include "mdb/link.h"
#include "settings/layout.h"
#include "setup.h"

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

using mdb::kCoinTypes;
using mdb::kTubeSlots;

constexpr std::string_view kNotAvailable = caption::kNotAvailable;

// The device a link's port error is about, as the journal and the log name devices.
std::optional<DeviceEvent> portError(std::string_view portName) {
    if (portName == kPinPadPort) {
        return DeviceEvent::PinPadPortError;
    }
    if (portName == kDispenserPort) {
        return DeviceEvent::DispenserPortError;
    }
    if (portName == kHoppersPort) {
        return DeviceEvent::HoppersPortError;
    }
    if (portName == kMdbPort) {
        return DeviceEvent::MdbPortError;
    }
    return std::nullopt;
}

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
    for (FieldName name : std::initializer_list<FieldName>{
             "ccEMVFull",          "ccModel",         "ccSerialNumber",    "ccTradeMark",
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
            m_dispenser->openPort(c.text("comPorts1"));
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
            m_hoppers->openPort(c.text("comPorts2"));
            m_health->working("hoppers");
            pause(kHoppersOpenSeconds);
        }

        if (c.checked("CoinAcceptorEnabled") || c.checked("billValidatorEnabled")) {
            m_state.portName = kMdbPort;
            m_link->open(c.text("comPorts"));
            m_health->working("mdb");
            if (m_state.pollTimedOut || m_state.bvNeedsInit) {
                m_cash->collectReports();
            }
        }

        if (c.checked("CoinAcceptorEnabled")) {
            if (mdb::initChanger(*this)) {
                m_health->working("changer");
            } else {
                m_health->fault("changer", "no answer to RESET");
                // Check boxes changed by the engine raise no handler, so this does not re-enter.
                c.setValue("CoinAcceptorEnabled", 0);
                m_platform.messageBox.show(std::string(kNoChangerMessage),
                                           std::string(kMessageTitle));
                c.reportDevice(DeviceEvent::ChangerNotAnswering);
            }
        }

        if (c.checked("billValidatorEnabled")) {
            if (mdb::initValidator(*this)) {
                m_health->working("validator");
            } else {
                m_health->fault("validator", "no answer to RESET");
                c.setValue("billValidatorEnabled", 0);
                m_platform.messageBox.show(std::string(kNoValidatorMessage),
                                           std::string(kMessageTitle));
                c.reportDevice(DeviceEvent::ValidatorNotAnswering);
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
        if (const std::optional<DeviceEvent> event = portError(m_state.portName)) {
            c.reportDevice(*event);
        }
    }
}

}  // namespace kestrix
