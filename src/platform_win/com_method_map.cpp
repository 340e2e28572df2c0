#include "com_method_map.h"

#include <stdexcept>

#include "engine/settings/layout.h"

namespace kestrix::win::com {

namespace {

// Letters, "_", and any non-ASCII character (a UTF-8 letter such as the "ú" of a Spanish name).
bool isNameStart(char c) {
    const auto u = static_cast<unsigned char>(c);
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || u >= 0x80;
}

bool isNameChar(char c) {
    return isNameStart(c) || (c >= '0' && c <= '9');
}

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) {
        s.remove_prefix(1);
    }
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) {
        s.remove_suffix(1);
    }
    return s;
}

}  // namespace

const std::vector<Operation>& operations() {
    static const std::vector<Operation> ops = {
        {"setNumericParameter", "SetNumericParameter", 1, false},
        {"setCurrency", "SetCurrency", 1, false},
        {"setAmount", "SetAmount", 1, false},
        {"readCard", "ReadCard", 0, true},
        {"errorDetailsError", "GetErrorDetail1", 0, true},
        {"errorDetailsDescription", "GetErrorDetail2", 0, true},
        {"errorDetailsCode", "GetErrorDetail3", 0, true},
        {"errorDetailsExtra", "GetErrorDetail4", 0, true},
        {"cardNumber", "GetCardNumber", 0, true},
        {"cardHolder", "GetCardHolder", 0, true},
        {"setTextParameter", "SetTextParameter", 1, false},
        {"prepareOperation", "PrepareOperation", 1, true},
        // user, password, "", company, branch, country, "", prepared text, reference, code,
        // currency
        {"runSale", "RunSale", 11, true},
        {"result", "GetResult", 0, true},
        {"closeOperation", "CloseOperation", 0, false},
        {"cancelOperation", "CancelOperation", 0, false},
        {"displayMessage", "GetDisplayMessage", 0, true},
        {"operationNumber", "GetOperationNumber", 0, true},
        {"responseCode", "GetResponseCode", 0, true},
        {"declineCause", "GetDeclineCause", 0, true},
        {"errorText", "GetErrorText", 0, true},
        {"errorCode", "GetErrorCode", 0, true},
        // Identification: the call whose success (and a text other than "0", "false" or "no")
        // means the pin pad is on line, then one read per field.
        {"identify", "Identify", 0, true},
        {"emvFull", "GetEMVFull", 0, true},
        {"model", "GetModel", 0, true},
        {"serialNumber", "GetSerialNumber", 0, true},
        {"tradeMark", "GetTradeMark", 0, true},
        {"versionApp", "GetVersionApp", 0, true},
        {"com", "GetCOM", 0, true},
        {"printer", "GetPrinter", 0, true},
        {"company", "GetCompany", 0, true},
        {"branch", "GetBranch", 0, true},
        {"country", "GetCountry", 0, true},
    };
    return ops;
}

const Operation& operation(std::string_view key) {
    for (const Operation& op : operations()) {
        if (op.key == key) {
            return op;
        }
    }
    throw std::out_of_range("no pin pad library operation \"" + std::string(key) + "\"");
}

MethodCall parseMethodCall(std::string_view value) {
    std::string_view v = trimmed(value);
    MethodCall call;
    if (v.empty()) {
        call.kind = CallKind::Skip;
        return call;
    }
    if (v.front() == '.') {
        call.kind = CallKind::Property;
        v.remove_prefix(1);
    } else if (v.back() == '&') {
        call.resultByReference = true;
        v.remove_suffix(1);
    }
    v = trimmed(v);
    bool ok = !v.empty() && isNameStart(v.front());
    for (char c : v) {
        ok = ok && isNameChar(c);
    }
    if (!ok) {
        throw std::invalid_argument("\"" + std::string(value) +
                                    "\" is not a method or property name");
    }
    call.name = std::string(v);
    return call;
}

MethodCall lookUp(SettingsStore& store, std::string_view key) {
    const Operation& op = operation(key);
    const std::string value =
        store.get(store::kApp, store::section::kPinPadMethods, key, op.defaultMapping);
    return parseMethodCall(value);
}

}  // namespace kestrix::win::com
