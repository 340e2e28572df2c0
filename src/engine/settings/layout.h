#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "../console_fields.h"

// The layout of the shared settings store: every section and key the engine reads or writes,
// with its default and the console control it belongs to. The rest of the engine names keys
// through this file only.
namespace kestrix::store {

inline constexpr std::string_view kApp = "KSX";
inline constexpr std::string_view kDefaultMaxAmount = "100000";

namespace section {
inline constexpr std::string_view kSettings = "Settings";
inline constexpr std::string_view kCoinAcceptor = "CoinAcceptor";
inline constexpr std::string_view kBillValidator = "BillValidator";
inline constexpr std::string_view kBillDispenser = "BillDispenser";
inline constexpr std::string_view kHoppers = "Hoppers";
inline constexpr std::string_view kPinPad = "Pin Pad";
// The host mailbox.
inline constexpr std::string_view kStatus = "Status";
// Linux: port number -> device path ("3" = "/dev/ttyUSB0").
inline constexpr std::string_view kPorts = "Ports";
inline constexpr std::string_view kPinPadSimulator = "Pin Pad Simulator";
inline constexpr std::string_view kPinPadMethods = "Pin Pad Methods";
// The money journal's settings: "KeepDays", how many days of rows it keeps (400).
inline constexpr std::string_view kJournal = "Journal";
}  // namespace section

// Host mailbox keys (section "Status").
namespace mailbox {
inline constexpr std::string_view kDue = "Due";
inline constexpr std::string_view kDueCC = "DueCC";
inline constexpr std::string_view kChange = "Change";
inline constexpr std::string_view kCancel = "Cancel";
inline constexpr std::string_view kExit = "Exit";
inline constexpr std::string_view kStatus = "Status";
inline constexpr std::string_view kCredit = "Credit";
inline constexpr std::string_view kChangeDispensed = "ChangeDispensed";
inline constexpr std::string_view kTubes = "Tubes";
inline constexpr std::string_view kBDStatus = "BDStatus";
inline constexpr std::string_view kBDCassette = "BDCassette";
inline constexpr std::string_view kBDDispensed = "BDDispensed";
inline constexpr std::string_view kReferenceCC = "ReferenceCC";
inline constexpr std::string_view kKsxError = "KSX_Error";
// A restarted engine's report of a payment it was serving when it stopped: the payment id in
// "Interrupted" (the host acknowledges by writing "" to it), the rest its outcome.
inline constexpr std::string_view kInterrupted = "Interrupted";
inline constexpr std::string_view kInterruptedRequest = "InterruptedRequest";
inline constexpr std::string_view kInterruptedAmount = "InterruptedAmount";
inline constexpr std::string_view kInterruptedOutcome = "InterruptedOutcome";
inline constexpr std::string_view kInterruptedCredit = "InterruptedCredit";
inline constexpr std::string_view kInterruptedPaid = "InterruptedPaid";
inline constexpr std::string_view kInterruptedUnknown = "InterruptedUnknown";
// The engine's heartbeat: the local time ("2026-11-22 09:30:15") of a recent monitor tick.
inline constexpr std::string_view kEngine = "Engine";
}  // namespace mailbox

// Keys of the other sections that are not operator settings.
namespace key {
inline constexpr std::string_view kOnLine = "On Line";  // section "Pin Pad"
// Hoppers link settings beside the operator's (section "Hoppers").
inline constexpr std::string_view kH1Address = "h1Address";
inline constexpr std::string_view kH2Address = "h2Address";
inline constexpr std::string_view kDispenseMode = "DispenseMode";
inline constexpr std::string_view kEcho = "Echo";
// Which card payment library drives the pin pad (section "Pin Pad"): "simulated" or "com".
inline constexpr std::string_view kLibrary = "Library";
// The largest amount a host or the operator may ask for (section "Settings"); a larger one is
// no request.
inline constexpr std::string_view kMaxAmount = "MaxAmount";
inline constexpr std::string_view kKeepDays = "KeepDays";  // section "Journal"
std::string tubeCoinType(int slot);                        // "tubeCoinType1".."tubeCoinType5"
std::string tubeCoinQty(int slot);                         // "tubeCoinQty1".."tubeCoinQty5"
}  // namespace key

// How a setting is read at the console's load.
enum class SettingKind {
    Port,    // read with "" as default; the port list takes a whole number, so "" is an error
    Flag,    // strict whole number 0..2 into a check box; missing or junk is an error
    Number,  // strict number shown as text; missing or junk is an error
    Text,    // read with "" as default
};

struct DeviceSetting {
    std::string_view section;
    std::string key;
    FieldName control;  // console control that shows and edits it
    SettingKind kind;
    std::string defaultValue;  // what the default set writes
};

// Every operator setting, in the order Save writes them. The console's load reads them in the
// same order (all but "Printer", which it matches against the installed printers).
const std::vector<DeviceSetting>& deviceSettings();

// The default set, in the order it is written when a flag or number cannot be read at load.
std::vector<const DeviceSetting*> defaultSetOrder();

// The fourteen mailbox writes of the console's load, in order.
struct MailboxValue {
    std::string_view key;
    std::string_view value;
};
const std::vector<MailboxValue>& mailboxReset();

const DeviceSetting& setting(std::string_view key);

// What a tool may write into the engine's own sections ("Settings", "CoinAcceptor",
// "BillValidator", "BillDispenser", "Hoppers", "Pin Pad"), checked against what the engine reads
// there: the operator settings above and the other keys the engine reads or exports. Other
// sections ("Status", "Ports", "Pin Pad Simulator", ...) are free. Names compare without regard
// to case, as the store's do.
bool isCheckedSection(std::string_view section);
// The keys of a checked section, in layout order; empty for a free section.
std::vector<std::string> sectionKeys(std::string_view section);
// Why the engine could not use `value` under section/key (no such key, or a value it cannot
// read: a flag that is not 0 or 1, a number or port that is not one); empty when it can, and
// for every key of a free section.
std::string settingProblem(std::string_view section, std::string_view key, std::string_view value);

}  // namespace kestrix::store
