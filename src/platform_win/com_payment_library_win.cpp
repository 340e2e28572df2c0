#include "com_payment_library_win.h"

// windows.h first: the COM headers build on its definitions.
#include <windows.h>

#include <objbase.h>
#include <oleauto.h>

#include <algorithm>
#include <cctype>
#include <cwchar>
#include <stdexcept>

#include "com_method_map.h"
#include "engine/errors.h"
#include "engine/settings/layout.h"

namespace kestrix::win {

namespace {

// The numbers the console reports for these failures, as for any automation client.
constexpr int kCannotCreateObject = 429;
constexpr int kNoSuchMember = 438;

std::wstring widen(std::string_view utf8) {
    if (utf8.empty()) {
        return {};
    }
    const int size = static_cast<int>(utf8.size());
    const int n = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, wide.data(), n);
    return wide;
}

std::string narrow(const wchar_t* wide, std::size_t length) {
    if (wide == nullptr || length == 0) {
        return {};
    }
    const int size = static_cast<int>(length);
    const int n = WideCharToMultiByte(CP_UTF8, 0, wide, size, nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<std::size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide, size, text.data(), n, nullptr, nullptr);
    return text;
}

std::string narrow(BSTR text) {
    return narrow(text, text == nullptr ? 0 : SysStringLen(text));
}

std::string systemMessage(HRESULT hr) {
    wchar_t* buffer = nullptr;
    const DWORD n = FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, static_cast<DWORD>(hr), 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    std::string text = narrow(buffer, n);
    LocalFree(buffer);
    while (!text.empty() && (text.back() == '\r' || text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    return text.empty() ? "Automation error" : text;
}

KsxError failure(int number, const std::string& description) {
    return KsxError(number, description, std::string(com::kComponentName));
}

// What an automation client (Visual Basic, which the operators' guide and the console messages
// follow) reports for the automation failures of a late-bound call.
struct ClientError {
    HRESULT hr;
    int number;
    const char* description;
};
constexpr ClientError kClientErrors[] = {
    {DISP_E_MEMBERNOTFOUND, kNoSuchMember, "Object doesn't support this property or method"},
    {DISP_E_UNKNOWNNAME, kNoSuchMember, "Object doesn't support this property or method"},
    {DISP_E_TYPEMISMATCH, KsxError::kTypeMismatch, "Type mismatch"},
    {DISP_E_BADPARAMCOUNT, 450, "Wrong number of arguments or invalid property assignment"},
    {DISP_E_PARAMNOTOPTIONAL, 449, "Argument not optional"},
    {DISP_E_OVERFLOW, KsxError::kOverflow, "Overflow"},
};

// The error number of a failure code: a Visual Basic run-time error raised inside the component
// travels as FACILITY_CONTROL with the error's number in the low word; any other code is
// reported whole, as a (negative) number.
int errorNumber(HRESULT hr) {
    if (HRESULT_FACILITY(hr) == FACILITY_CONTROL) {
        return HRESULT_CODE(hr);
    }
    return static_cast<int>(hr);
}

// The component's own report of a failed call (its error number and text), or the client's
// number and text for an automation failure.
KsxError callFailure(HRESULT hr, const std::string& member, EXCEPINFO* info) {
    int number = errorNumber(hr);
    std::string description;
    if (hr == DISP_E_EXCEPTION && info != nullptr) {
        if (info->pfnDeferredFillIn != nullptr) {
            info->pfnDeferredFillIn(info);
        }
        description = narrow(info->bstrDescription);
        if (info->wCode != 0) {
            number = info->wCode;
        } else if (info->scode != 0) {
            number = errorNumber(info->scode);
        }
        SysFreeString(info->bstrSource);
        SysFreeString(info->bstrDescription);
        SysFreeString(info->bstrHelpFile);
    } else {
        for (const ClientError& e : kClientErrors) {
            if (e.hr == hr) {
                number = e.number;
                description = e.description;
            }
        }
    }
    if (description.empty()) {
        description = systemMessage(hr);
    }
    return failure(number, description + " (" + member + ")");
}

// Argument list of one Invoke: owns the strings it holds.
class Arguments {
public:
    Arguments(const std::vector<std::string>& inputs, bool resultByReference)
        : m_values(inputs.size() + (resultByReference ? 1 : 0)) {
        // Invoke takes its arguments last first.
        const std::size_t n = m_values.size();
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            VARIANT& v = m_values[n - 1 - i];
            VariantInit(&v);
            const std::wstring wide = widen(inputs[i]);
            v.vt = VT_BSTR;
            v.bstrVal = SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
        }
        if (resultByReference) {
            m_out = SysAllocString(L"");
            VARIANT& v = m_values[0];
            VariantInit(&v);
            v.vt = VT_BSTR | VT_BYREF;
            v.pbstrVal = &m_out;
        }
    }
    ~Arguments() {
        for (VARIANT& v : m_values) {
            if (v.vt == VT_BSTR) {
                VariantClear(&v);
            }
        }
        SysFreeString(m_out);
    }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;

    VARIANT* data() { return m_values.empty() ? nullptr : m_values.data(); }
    UINT count() const { return static_cast<UINT>(m_values.size()); }
    std::string out() const { return narrow(m_out); }

private:
    std::vector<VARIANT> m_values;
    BSTR m_out = nullptr;
};

class Result {
public:
    Result() { VariantInit(&m_value); }
    ~Result() { VariantClear(&m_value); }
    Result(const Result&) = delete;
    Result& operator=(const Result&) = delete;
    VARIANT* get() { return &m_value; }

    // Any value as text; numbers with "." whatever the kiosk's regional settings.
    std::string text() {
        if (m_value.vt == VT_EMPTY || m_value.vt == VT_NULL) {
            return {};
        }
        VARIANT converted;
        VariantInit(&converted);
        const HRESULT hr =
            VariantChangeTypeEx(&converted, &m_value, LOCALE_INVARIANT, VARIANT_ALPHABOOL, VT_BSTR);
        if (FAILED(hr)) {
            throw failure(KsxError::kTypeMismatch, "Type mismatch");
        }
        std::string s = narrow(converted.bstrVal);
        VariantClear(&converted);
        return s;
    }

private:
    VARIANT m_value;
};

template <typename T>
void release(T*& p) {
    if (p != nullptr) {
        p->Release();
        p = nullptr;
    }
}

std::string trimmed(std::string s) {
    const auto notSpace = [](unsigned char c) { return !std::isspace(c); };
    s.erase(s.begin(), std::find_if(s.begin(), s.end(), notSpace));
    s.erase(std::find_if(s.rbegin(), s.rend(), notSpace).base(), s.end());
    return s;
}

// Reads a registry text of HKEY_CLASSES_ROOT; empty when missing.
std::wstring classesRootText(const std::wstring& path, const wchar_t* value) {
    wchar_t buffer[256] = {};
    DWORD size = sizeof buffer;
    if (RegGetValueW(HKEY_CLASSES_ROOT, path.c_str(), value, RRF_RT_REG_SZ, nullptr, buffer,
                     &size) != ERROR_SUCCESS) {
        return {};
    }
    return buffer;
}

// The class that implements the library's interface, found through the type library that the
// component registered for it.
CLSID classFromTypeLibrary() {
    const std::wstring interfaceId = widen(com::kInterfaceId);
    IID iid;
    if (FAILED(IIDFromString(interfaceId.c_str(), &iid))) {
        throw failure(kCannotCreateObject, "ActiveX component can't create object");
    }
    const std::wstring key = L"Interface\\" + interfaceId + L"\\TypeLib";
    const std::wstring libraryId = classesRootText(key, nullptr);
    GUID library;
    if (libraryId.empty() || FAILED(CLSIDFromString(libraryId.c_str(), &library))) {
        throw failure(kCannotCreateObject,
                      "ActiveX component can't create object (the pin pad library is not "
                      "registered)");
    }
    // Type library versions are written in hexadecimal ("1.0", "1.a").
    unsigned long major = 1;
    unsigned long minor = 0;
    const std::wstring version = classesRootText(key, L"Version");
    if (!version.empty()) {
        wchar_t* end = nullptr;
        major = std::wcstoul(version.c_str(), &end, 16);
        minor = (end != nullptr && *end == L'.') ? std::wcstoul(end + 1, nullptr, 16) : 0;
    }
    ITypeLib* typeLib = nullptr;
    HRESULT hr = LoadRegTypeLib(library, static_cast<WORD>(major), static_cast<WORD>(minor),
                                LOCALE_NEUTRAL, &typeLib);
    if (FAILED(hr)) {
        throw callFailure(hr, "LoadRegTypeLib", nullptr);
    }
    CLSID found = CLSID_NULL;
    const UINT count = typeLib->GetTypeInfoCount();
    for (UINT i = 0; i < count && IsEqualCLSID(found, CLSID_NULL); ++i) {
        TYPEKIND kind;
        if (FAILED(typeLib->GetTypeInfoType(i, &kind)) || kind != TKIND_COCLASS) {
            continue;
        }
        ITypeInfo* info = nullptr;
        TYPEATTR* attr = nullptr;
        if (FAILED(typeLib->GetTypeInfo(i, &info)) || FAILED(info->GetTypeAttr(&attr))) {
            release(info);
            continue;
        }
        for (WORD j = 0; j < attr->cImplTypes; ++j) {
            HREFTYPE ref;
            ITypeInfo* implemented = nullptr;
            TYPEATTR* implementedAttr = nullptr;
            if (SUCCEEDED(info->GetRefTypeOfImplType(j, &ref)) &&
                SUCCEEDED(info->GetRefTypeInfo(ref, &implemented)) &&
                SUCCEEDED(implemented->GetTypeAttr(&implementedAttr))) {
                if (IsEqualIID(implementedAttr->guid, iid)) {
                    found = attr->guid;
                }
                implemented->ReleaseTypeAttr(implementedAttr);
            }
            release(implemented);
        }
        info->ReleaseTypeAttr(attr);
        release(info);
    }
    release(typeLib);
    if (IsEqualCLSID(found, CLSID_NULL)) {
        throw failure(kCannotCreateObject,
                      "ActiveX component can't create object (no class implements the pin pad "
                      "library's interface)");
    }
    return found;
}

CLSID classId(SettingsStore& store) {
    const std::string configured =
        trimmed(store.get(store::kApp, store::section::kPinPadMethods, com::kClassKey, ""));
    if (configured.empty()) {
        return classFromTypeLibrary();
    }
    const std::wstring wide = widen(configured);
    CLSID id;
    const HRESULT hr = configured.front() == '{' ? CLSIDFromString(wide.c_str(), &id)
                                                 : CLSIDFromProgID(wide.c_str(), &id);
    if (FAILED(hr)) {
        throw failure(kCannotCreateObject,
                      "ActiveX component can't create object (" + configured + ")");
    }
    return id;
}

bool meansOffLine(std::string state) {
    state = trimmed(std::move(state));
    std::transform(state.begin(), state.end(), state.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return state == "0" || state == "false" || state == "no";
}

}  // namespace

ComPaymentLibrary::ComPaymentLibrary(SettingsStore& store) : m_store(store) {}

ComPaymentLibrary::~ComPaymentLibrary() {
    release(m_object);
    if (m_comInitialised) {
        CoUninitialize();
    }
}

IDispatch* ComPaymentLibrary::object() {
    if (m_object != nullptr) {
        return m_object;
    }
    if (!m_comInitialised) {
        const HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        if (SUCCEEDED(hr)) {
            m_comInitialised = true;  // S_FALSE too: every success is balanced at the end
        } else if (hr != RPC_E_CHANGED_MODE) {
            throw callFailure(hr, "CoInitializeEx", nullptr);
        }
        // RPC_E_CHANGED_MODE: the thread is already in the multi-threaded apartment; COM then
        // reaches the component through its own apartment.
    }
    const CLSID clsid = classId(m_store);
    IDispatch* dispatch = nullptr;
    const HRESULT hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER | CLSCTX_LOCAL_SERVER,
                                        IID_IDispatch, reinterpret_cast<void**>(&dispatch));
    if (FAILED(hr) || dispatch == nullptr) {
        throw failure(kCannotCreateObject,
                      "ActiveX component can't create object (" + systemMessage(hr) + ")");
    }
    m_object = dispatch;
    return m_object;
}

std::string ComPaymentLibrary::call(std::string_view key, const std::vector<std::string>& inputs) {
    const com::Operation& op = com::operation(key);
    const com::MethodCall method = com::lookUp(m_store, key);
    if (method.kind == com::CallKind::Skip) {
        return {};
    }
    WORD flags = DISPATCH_METHOD;
    bool put = false;
    if (method.kind == com::CallKind::Property) {
        if (op.givesText && op.inputs == 0) {
            flags = DISPATCH_PROPERTYGET;
        } else if (!op.givesText && op.inputs == 1) {
            flags = DISPATCH_PROPERTYPUT;
            put = true;
        } else {
            throw std::invalid_argument("the pin pad library operation \"" + std::string(key) +
                                        "\" cannot be a property");
        }
    } else if (inputs.empty() && !method.resultByReference) {
        // A member without arguments may be a method or a property: let the component decide.
        flags = DISPATCH_METHOD | DISPATCH_PROPERTYGET;
    }

    IDispatch* dispatch = object();
    std::wstring name = widen(method.name);
    LPOLESTR names[] = {name.data()};
    DISPID member = DISPID_UNKNOWN;
    if (FAILED(dispatch->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &member))) {
        throw failure(kNoSuchMember,
                      "Object doesn't support this property or method (" + method.name + ")");
    }

    Arguments args(inputs, method.resultByReference);
    DISPID namedPut = DISPID_PROPERTYPUT;
    DISPPARAMS params{};
    params.rgvarg = args.data();
    params.cArgs = args.count();
    if (put) {
        params.rgdispidNamedArgs = &namedPut;
        params.cNamedArgs = 1;
    }
    Result result;
    EXCEPINFO info{};
    UINT argumentError = 0;
    const HRESULT hr = dispatch->Invoke(member, IID_NULL, LOCALE_USER_DEFAULT, flags, &params,
                                        put ? nullptr : result.get(), &info, &argumentError);
    if (FAILED(hr)) {
        throw callFailure(hr, method.name, &info);
    }
    if (!op.givesText) {
        return {};
    }
    return method.resultByReference ? args.out() : result.text();
}

PinPadIdentity ComPaymentLibrary::identify() {
    PinPadIdentity id;
    id.online = !meansOffLine(call("identify"));
    id.emvFull = call("emvFull");
    id.model = call("model");
    id.serialNumber = call("serialNumber");
    id.tradeMark = call("tradeMark");
    id.versionApp = call("versionApp");
    id.com = call("com");
    id.printer = call("printer");
    id.company = call("company");
    id.branch = call("branch");
    id.country = call("country");
    return id;
}

void ComPaymentLibrary::setNumericParameter(const std::string& value) {
    call("setNumericParameter", {value});
}

void ComPaymentLibrary::setCurrency(const std::string& currency) {
    call("setCurrency", {currency});
}

void ComPaymentLibrary::setAmount(const std::string& amount) {
    call("setAmount", {amount});
}

std::string ComPaymentLibrary::readCard() {
    return call("readCard");
}

PinPadErrorDetails ComPaymentLibrary::errorDetails() {
    PinPadErrorDetails details;
    details.error = call("errorDetailsError");
    details.description = call("errorDetailsDescription");
    details.code = call("errorDetailsCode");
    details.extra = call("errorDetailsExtra");
    return details;
}

std::string ComPaymentLibrary::cardNumber() {
    return call("cardNumber");
}

std::string ComPaymentLibrary::cardHolder() {
    return call("cardHolder");
}

void ComPaymentLibrary::setTextParameter(const std::string& value) {
    call("setTextParameter", {value});
}

std::string ComPaymentLibrary::prepareOperation(const std::string& code) {
    return call("prepareOperation", {code});
}

std::string ComPaymentLibrary::runSale(const SaleRequest& r) {
    return call("runSale", {r.user, r.password, "", r.company, r.branch, r.country, "",
                            r.operationText, r.reference, r.operationCode, r.currency});
}

std::string ComPaymentLibrary::result() {
    return call("result");
}

void ComPaymentLibrary::closeOperation() {
    call("closeOperation");
}

void ComPaymentLibrary::cancelOperation() {
    call("cancelOperation");
}

std::string ComPaymentLibrary::displayMessage() {
    return call("displayMessage");
}

std::string ComPaymentLibrary::operationNumber() {
    return call("operationNumber");
}

std::string ComPaymentLibrary::responseCode() {
    return call("responseCode");
}

std::string ComPaymentLibrary::declineCause() {
    return call("declineCause");
}

std::string ComPaymentLibrary::errorText() {
    return call("errorText");
}

std::string ComPaymentLibrary::errorCode() {
    return call("errorCode");
}

}  // namespace kestrix::win
