// A stand-in for the card payment component: an in-process COM automation server that has every
// member the adapter asks for by name (but those scripted "absent"), with outcomes the test
// scripts. It records every call as the component saw it, so a test checks the names, argument
// types and argument order the adapter sends.
//
// Registered like any component: `regsvr32 kestrix_test_pin_pad.dll` writes the class, the
// ProgID "Kestrix.TestPinPad" and a type library (made at registration, saved beside the DLL)
// that ties the class to the payment library's interface, which is how the adapter finds the
// class when no ProgID is configured.
//
// Scripting (exports, called by the test in the same process):
//   TestPinPadScript(member, outcome)  outcome: "text:<text>" (unscripted: the member's name),
//                                      "number:<n>", "bool:<0|1>",
//                                      "raise:<scode>:<wCode>:<description>" (an exception the
//                                      component raises), "fail:<hresult>" (a failed Invoke),
//                                      "absent" (no such member)
//   TestPinPadCalls()                  the calls so far, one a line: "Name(arg|arg)", "get Name()",
//                                      "put Name(arg)"; a by-reference argument shows as "&"
//   TestPinPadReset()                  forgets scripts, calls and property values
#include <windows.h>

#include <oaidl.h>
#include <objbase.h>
#include <oleauto.h>
#include <olectl.h>

#include <cwchar>
#include <cwctype>
#include <map>
#include <string>
#include <vector>

namespace {

// The payment library's interface and this stand-in's class and type library.
const IID kInterfaceId = {
    0x0CF2F7EF, 0xEA1D, 0x4DC0, {0x9B, 0x6E, 0xBB, 0x68, 0x38, 0x6C, 0x3B, 0x90}};
const CLSID kClassId = {
    0x5E3C2A71, 0x8D4B, 0x4C3A, {0xA1, 0xF2, 0x7D, 0x9E, 0x0B, 0x6C, 0x4A, 0x12}};
const GUID kLibraryId = {
    0x6B1D1E0A, 0x3C52, 0x4F7E, {0x9E, 0x59, 0x0B, 0x2B, 0x7C, 0x1A, 0x9D, 0x41}};
const wchar_t kProgId[] = L"Kestrix.TestPinPad";

HMODULE g_module = nullptr;
std::vector<std::wstring> g_members;                // as first asked for; DISPID: place + 1
std::map<std::wstring, std::wstring> g_scripts;     // lower-case member name -> outcome
std::map<std::wstring, std::wstring> g_properties;  // lower-case member name -> value put
std::wstring g_calls;

std::wstring lower(const wchar_t* text) {
    std::wstring s(text);
    for (wchar_t& c : s) {
        c = static_cast<wchar_t>(std::towlower(c));
    }
    return s;
}

std::wstring describe(const VARIANT& v) {
    if (v.vt == VT_BSTR) {
        return std::wstring(v.bstrVal, SysStringLen(v.bstrVal));
    }
    if (v.vt == (VT_BSTR | VT_BYREF)) {
        return L"&";
    }
    return L"<vt " + std::to_wstring(v.vt) + L">";
}

// The text of "prefix:rest" after the prefix, if `outcome` starts with it.
bool after(const std::wstring& outcome, const wchar_t* prefix, std::wstring& rest) {
    const std::size_t n = std::wcslen(prefix);
    if (outcome.compare(0, n, prefix) != 0) {
        return false;
    }
    rest = outcome.substr(n);
    return true;
}

class PinPad final : public IDispatch {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDispatch) ||
            IsEqualIID(riid, kInterfaceId)) {
            *out = static_cast<IDispatch*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&m_references); }
    ULONG STDMETHODCALLTYPE Release() override {
        const LONG left = InterlockedDecrement(&m_references);
        if (left == 0) {
            delete this;
        }
        return static_cast<ULONG>(left);
    }

    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
        *count = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }

    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID,
                                            DISPID* ids) override {
        for (UINT i = 0; i < count; ++i) {
            ids[i] = DISPID_UNKNOWN;
        }
        const auto script = count == 1 ? g_scripts.find(lower(names[0])) : g_scripts.end();
        if (count != 1 || (script != g_scripts.end() && script->second == L"absent")) {
            return DISP_E_UNKNOWNNAME;
        }
        std::size_t at = 0;
        while (at < g_members.size() && _wcsicmp(names[0], g_members[at].c_str()) != 0) {
            ++at;
        }
        if (at == g_members.size()) {
            g_members.push_back(names[0]);
        }
        ids[0] = static_cast<DISPID>(at + 1);
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params,
                                     VARIANT* result, EXCEPINFO* exception, UINT*) override {
        if (id < 1 || static_cast<std::size_t>(id) > g_members.size()) {
            return DISP_E_MEMBERNOTFOUND;
        }
        const std::wstring name = g_members[static_cast<std::size_t>(id) - 1];
        const std::wstring key = lower(name.c_str());
        const bool put = (flags & DISPATCH_PROPERTYPUT) != 0;
        const bool methodCall = (flags & DISPATCH_METHOD) != 0;

        g_calls += (put ? L"put " : (methodCall ? L"" : L"get ")) + name + L"(";
        for (UINT i = params->cArgs; i > 0; --i) {  // arguments come last first
            g_calls += describe(params->rgvarg[i - 1]) + (i > 1 ? L"|" : L"");
        }
        g_calls += L")\n";

        if (put) {
            if (params->cArgs != 1 || params->rgvarg[0].vt != VT_BSTR) {
                return DISP_E_TYPEMISMATCH;
            }
            g_properties[key] = describe(params->rgvarg[0]);
            return S_OK;
        }

        std::wstring outcome = L"text:" + name;
        if (const auto it = g_scripts.find(key); it != g_scripts.end()) {
            outcome = it->second;
        } else if (const auto prop = g_properties.find(key); prop != g_properties.end()) {
            outcome = L"text:" + prop->second;
        }
        std::wstring rest;
        if (after(outcome, L"fail:", rest)) {
            return static_cast<HRESULT>(std::wcstoul(rest.c_str(), nullptr, 0));
        }
        if (after(outcome, L"raise:", rest)) {
            wchar_t* end = nullptr;
            const auto scode = static_cast<SCODE>(std::wcstoul(rest.c_str(), &end, 0));
            const auto code = static_cast<WORD>(std::wcstoul(end + 1, &end, 0));
            if (exception != nullptr) {
                *exception = EXCEPINFO{};
                exception->wCode = code;
                exception->scode = code != 0 ? 0 : scode;
                exception->bstrSource = SysAllocString(L"cpIntegracionEMV");
                exception->bstrDescription = SysAllocString(end + 1);
            }
            return DISP_E_EXCEPTION;
        }

        // A by-reference result: the last argument is the string the method fills.
        if (params->cArgs > 0 && params->rgvarg[0].vt == (VT_BSTR | VT_BYREF)) {
            if (!after(outcome, L"text:", rest)) {
                return DISP_E_TYPEMISMATCH;
            }
            SysFreeString(*params->rgvarg[0].pbstrVal);
            *params->rgvarg[0].pbstrVal = SysAllocString(rest.c_str());
            return S_OK;
        }
        if (result == nullptr) {
            return S_OK;
        }
        VariantInit(result);
        if (after(outcome, L"number:", rest)) {
            result->vt = VT_I4;
            result->lVal = std::wcstol(rest.c_str(), nullptr, 10);
        } else if (after(outcome, L"bool:", rest)) {
            result->vt = VT_BOOL;
            result->boolVal = rest == L"0" ? VARIANT_FALSE : VARIANT_TRUE;
        } else if (after(outcome, L"text:", rest)) {
            result->vt = VT_BSTR;
            result->bstrVal = SysAllocStringLen(rest.data(), static_cast<UINT>(rest.size()));
        }
        return S_OK;
    }

private:
    LONG m_references = 1;
};

class Factory final : public IClassFactory {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IClassFactory)) {
            *out = static_cast<IClassFactory*>(this);
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    // The factory is a static object: counting is not needed.
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** out) override {
        *out = nullptr;
        if (outer != nullptr) {
            return CLASS_E_NOAGGREGATION;
        }
        PinPad* pad = new PinPad;
        const HRESULT hr = pad->QueryInterface(riid, out);
        pad->Release();
        return hr;
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
};

Factory g_factory;

std::wstring modulePath() {
    wchar_t path[MAX_PATH];
    const DWORD n = GetModuleFileNameW(g_module, path, MAX_PATH);
    return std::wstring(path, n);
}

std::wstring guidText(const GUID& id) {
    wchar_t text[40];
    StringFromGUID2(id, text, 40);
    return text;
}

bool setText(const std::wstring& key, const wchar_t* name, const std::wstring& value) {
    return RegSetKeyValueW(HKEY_CLASSES_ROOT, key.c_str(), name, REG_SZ, value.c_str(),
                           static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))) ==
           ERROR_SUCCESS;
}

// The type library: the interface (a dispinterface: every member is reached by name) and the
// class that implements it, saved beside the DLL and registered. It runs once, in regsvr32, which
// exits afterwards: nothing is released.
HRESULT registerTypeLibrary() {
    std::wstring path = modulePath();
    path = path.substr(0, path.rfind(L'.')) + L".tlb";
    ITypeLib* stdole = nullptr;
    ITypeInfo* dispatchInfo = nullptr;
    ICreateTypeLib2* library = nullptr;
    ICreateTypeInfo* interfaceInfo = nullptr;
    ICreateTypeInfo* classInfo = nullptr;
    ITypeInfo* interfaceType = nullptr;
    ITypeLib* saved = nullptr;
    HREFTYPE reference = 0;
    HRESULT hr = S_OK;
    const auto ok = [&hr](HRESULT step) { return SUCCEEDED(hr = step); };
    ok(LoadTypeLib(L"stdole2.tlb", &stdole)) &&
        ok(stdole->GetTypeInfoOfGuid(IID_IDispatch, &dispatchInfo)) &&
        ok(CreateTypeLib2(SYS_WIN64, path.c_str(), &library)) && ok(library->SetGuid(kLibraryId)) &&
        ok(library->SetName(const_cast<LPOLESTR>(L"KestrixTestPinPad"))) &&
        ok(library->SetVersion(1, 0)) && ok(library->SetLcid(LOCALE_NEUTRAL)) &&
        ok(library->CreateTypeInfo(const_cast<LPOLESTR>(L"_cpIntegracionEMV"), TKIND_DISPATCH,
                                   &interfaceInfo)) &&
        ok(interfaceInfo->SetGuid(kInterfaceId)) &&
        ok(interfaceInfo->AddRefTypeInfo(dispatchInfo, &reference)) &&
        ok(interfaceInfo->AddImplType(0, reference)) &&
        ok(interfaceInfo->QueryInterface(IID_ITypeInfo,
                                         reinterpret_cast<void**>(&interfaceType))) &&
        ok(library->CreateTypeInfo(const_cast<LPOLESTR>(L"TestPinPad"), TKIND_COCLASS,
                                   &classInfo)) &&
        ok(classInfo->SetGuid(kClassId)) &&
        ok(classInfo->AddRefTypeInfo(interfaceType, &reference)) &&
        ok(classInfo->AddImplType(0, reference)) &&
        ok(classInfo->SetImplTypeFlags(0, IMPLTYPEFLAG_FDEFAULT)) &&
        ok(library->SaveAllChanges()) && ok(LoadTypeLibEx(path.c_str(), REGKIND_REGISTER, &saved));
    return hr;
}

}  // namespace

extern "C" {

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) {
        g_module = instance;
        DisableThreadLibraryCalls(instance);
    }
    return TRUE;
}

HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID riid, void** out) {
    if (!IsEqualCLSID(clsid, kClassId)) {
        *out = nullptr;
        return CLASS_E_CLASSNOTAVAILABLE;
    }
    return g_factory.QueryInterface(riid, out);
}

// Stays loaded: the test's scripts live in it.
HRESULT STDAPICALLTYPE DllCanUnloadNow() {
    return S_FALSE;
}

HRESULT STDAPICALLTYPE DllRegisterServer() {
    const std::wstring clsidKey = L"CLSID\\" + guidText(kClassId);
    const bool written = setText(clsidKey, nullptr, L"Kestrix test pin pad") &&
                         setText(clsidKey + L"\\InprocServer32", nullptr, modulePath()) &&
                         setText(clsidKey + L"\\InprocServer32", L"ThreadingModel", L"Apartment") &&
                         setText(clsidKey + L"\\ProgID", nullptr, kProgId) &&
                         setText(std::wstring(kProgId) + L"\\CLSID", nullptr, guidText(kClassId));
    if (!written) {
        return SELFREG_E_CLASS;
    }
    return SUCCEEDED(registerTypeLibrary()) ? S_OK : SELFREG_E_TYPELIB;
}

void TestPinPadScript(const wchar_t* member, const wchar_t* outcome) {
    g_scripts[lower(member)] = outcome;
}

const wchar_t* TestPinPadCalls() {
    return g_calls.c_str();
}

void TestPinPadReset() {
    g_scripts.clear();
    g_properties.clear();
    g_calls.clear();
}

}  // extern "C"
