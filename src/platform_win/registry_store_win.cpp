#include "registry_store_win.h"

// RegGetValueW and RegSetKeyValueW came with Windows Vista; the kiosks run Windows 7 or later.
#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0601
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

namespace kestrix::win {

namespace {

const wchar_t kRoot[] = L"Software\\VB and VBA Program Settings";

std::wstring widen(std::string_view text) {
    if (text.empty()) {
        return {};
    }
    if (text.size() > static_cast<std::size_t>(INT_MAX)) {
        throw StoreError("settings store: text too long for the registry");
    }
    const int length = static_cast<int>(text.size());
    const int wideLength = MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
    if (wideLength <= 0) {
        throw StoreError("settings store: text is not valid UTF-8");
    }
    std::wstring wide(static_cast<std::size_t>(wideLength), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), wideLength);
    return wide;
}

std::string narrow(const wchar_t* text, std::size_t length) {
    if (length == 0) {
        return {};
    }
    const int wideLength = static_cast<int>(length);
    const int bytes =
        WideCharToMultiByte(CP_UTF8, 0, text, wideLength, nullptr, 0, nullptr, nullptr);
    if (bytes <= 0) {
        return {};
    }
    std::string result(static_cast<std::size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, wideLength, result.data(), bytes, nullptr, nullptr);
    return result;
}

std::string narrow(const std::wstring& text) {
    return narrow(text.data(), text.size());
}

std::wstring appKey(std::string_view app) {
    return std::wstring(kRoot) + L"\\" + widen(app);
}

std::wstring sectionKey(std::string_view app, std::string_view section) {
    return appKey(app) + L"\\" + widen(section);
}

[[noreturn]] void fail(const std::string& what, LSTATUS status) {
    wchar_t* buffer = nullptr;
    const DWORD length = FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, static_cast<DWORD>(status), 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    std::string message = length > 0 ? narrow(buffer, length) : "error " + std::to_string(status);
    LocalFree(buffer);
    while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) {
        message.pop_back();
    }
    throw StoreError("settings store (registry): " + what + ": " + message);
}

// Reads one value as text; false when the key or value does not exist or has a type that is no
// text or number. Hosts write strings (REG_SZ) with the standard settings calls, but a host that
// uses the registry API directly may write a number (REG_DWORD, REG_QWORD): it reads as its
// decimal text, as a number stored in the SQLite store reads. REG_EXPAND_SZ reads as written,
// unexpanded: the store hands values through unchanged.
bool readValue(HKEY root, const std::wstring& subKey, const std::wstring& name, std::wstring& out,
               const std::string& what) {
    const DWORD flags = RRF_RT_ANY | RRF_NOEXPAND;
    const auto missing = [](LSTATUS status) {
        return status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND;
    };
    std::vector<BYTE> data;
    for (;;) {
        DWORD type = REG_NONE;
        DWORD bytes = 0;
        LSTATUS status =
            RegGetValueW(root, subKey.c_str(), name.c_str(), flags, &type, nullptr, &bytes);
        if (missing(status)) {
            return false;
        }
        if (status != ERROR_SUCCESS) {
            fail("cannot read " + what, status);
        }
        // Room for a terminating null that RegGetValueW adds to a string stored without one.
        data.assign(bytes + sizeof(wchar_t), 0);
        DWORD size = static_cast<DWORD>(data.size());
        status = RegGetValueW(root, subKey.c_str(), name.c_str(), flags, &type, data.data(), &size);
        if (status == ERROR_MORE_DATA) {
            continue;  // the host made the value longer between the two calls
        }
        if (missing(status)) {
            return false;
        }
        if (status != ERROR_SUCCESS) {
            fail("cannot read " + what, status);
        }
        switch (type) {
            case REG_SZ:
            case REG_EXPAND_SZ: {
                std::wstring text(size / sizeof(wchar_t), L'\0');
                std::memcpy(text.data(), data.data(), text.size() * sizeof(wchar_t));
                // The size counts the terminating null.
                while (!text.empty() && text.back() == L'\0') {
                    text.pop_back();
                }
                out = std::move(text);
                return true;
            }
            case REG_DWORD: {
                DWORD number = 0;
                std::memcpy(&number, data.data(), std::min<std::size_t>(size, sizeof number));
                out = std::to_wstring(number);
                return true;
            }
            case REG_QWORD: {
                unsigned long long number = 0;
                std::memcpy(&number, data.data(), std::min<std::size_t>(size, sizeof number));
                out = std::to_wstring(number);
                return true;
            }
            default:
                return false;
        }
    }
}

struct KeyHandle {
    HKEY key = nullptr;
    ~KeyHandle() {
        if (key != nullptr) {
            RegCloseKey(key);
        }
    }
};

// Names of the subkeys of `key`.
std::vector<std::wstring> subKeys(HKEY key) {
    std::vector<std::wstring> names;
    for (DWORD index = 0;; ++index) {
        wchar_t name[256];  // a registry key name is at most 255 characters
        DWORD length = 256;
        const LSTATUS status =
            RegEnumKeyExW(key, index, name, &length, nullptr, nullptr, nullptr, nullptr);
        if (status == ERROR_NO_MORE_ITEMS) {
            return names;
        }
        if (status != ERROR_SUCCESS) {
            fail("cannot list the sections", status);
        }
        names.emplace_back(name, length);
    }
}

// Names of the values of `key`.
std::vector<std::wstring> valueNames(HKEY key) {
    std::vector<std::wstring> names;
    DWORD longest = 0;
    LSTATUS status = RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                      nullptr, &longest, nullptr, nullptr, nullptr);
    if (status != ERROR_SUCCESS) {
        fail("cannot list the settings", status);
    }
    std::wstring name;
    for (DWORD index = 0;; ++index) {
        name.assign(longest + 2, L'\0');
        DWORD length = static_cast<DWORD>(name.size());
        status =
            RegEnumValueW(key, index, name.data(), &length, nullptr, nullptr, nullptr, nullptr);
        if (status == ERROR_NO_MORE_ITEMS) {
            return names;
        }
        if (status == ERROR_MORE_DATA) {
            longest = longest * 2 + 64;  // a value was added meanwhile
            --index;
            continue;
        }
        if (status != ERROR_SUCCESS) {
            fail("cannot list the settings", status);
        }
        names.emplace_back(name.data(), length);
    }
}

}  // namespace

std::string RegistryStore::get(std::string_view app, std::string_view section, std::string_view key,
                               std::string_view defaultValue) {
    std::wstring value;
    if (!readValue(HKEY_CURRENT_USER, sectionKey(app, section), widen(key), value,
                   std::string(section) + "/" + std::string(key))) {
        return std::string(defaultValue);
    }
    return narrow(value);
}

void RegistryStore::set(std::string_view app, std::string_view section, std::string_view key,
                        std::string_view value) {
    const std::wstring wide = widen(value);
    const std::size_t bytes = (wide.size() + 1) * sizeof(wchar_t);
    if (bytes > static_cast<std::size_t>(ULONG_MAX)) {
        throw StoreError("settings store (registry): value too long for " + std::string(key));
    }
    // Creates the application and section keys when missing, as the standard settings call
    // does.
    const LSTATUS status =
        RegSetKeyValueW(HKEY_CURRENT_USER, sectionKey(app, section).c_str(), widen(key).c_str(),
                        REG_SZ, wide.c_str(), static_cast<DWORD>(bytes));
    if (status != ERROR_SUCCESS) {
        fail("cannot write " + std::string(section) + "/" + std::string(key), status);
    }
}

std::vector<SettingsStore::Entry> RegistryStore::list(std::string_view app,
                                                      std::string_view section) {
    std::vector<Entry> entries;
    KeyHandle appHandle;
    LSTATUS status =
        RegOpenKeyExW(HKEY_CURRENT_USER, appKey(app).c_str(), 0, KEY_READ, &appHandle.key);
    if (status == ERROR_FILE_NOT_FOUND) {
        return entries;
    }
    if (status != ERROR_SUCCESS) {
        fail("cannot open " + std::string(app), status);
    }
    // Sections by the names they have in the registry, which may be spelt otherwise than asked.
    std::vector<std::wstring> sections = subKeys(appHandle.key);
    if (!section.empty()) {
        const std::wstring wanted = widen(section);
        std::erase_if(sections, [&](const std::wstring& name) {
            return CompareStringOrdinal(name.c_str(), static_cast<int>(name.size()), wanted.c_str(),
                                        static_cast<int>(wanted.size()), TRUE) != CSTR_EQUAL;
        });
    }
    for (const std::wstring& sectionName : sections) {
        KeyHandle sectionHandle;
        status = RegOpenKeyExW(appHandle.key, sectionName.c_str(), 0, KEY_READ, &sectionHandle.key);
        if (status == ERROR_FILE_NOT_FOUND) {
            continue;
        }
        if (status != ERROR_SUCCESS) {
            fail("cannot open " + narrow(sectionName), status);
        }
        for (const std::wstring& name : valueNames(sectionHandle.key)) {
            std::wstring value;
            if (readValue(sectionHandle.key, std::wstring(), name, value,
                          narrow(sectionName) + "/" + narrow(name))) {
                entries.push_back({narrow(sectionName), narrow(name), narrow(value)});
            }
        }
    }
    // Ordered as the SQLite store orders them: by section, then key, ignoring ASCII case.
    const auto lower = [](std::string s) {
        std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) {
            return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
        });
        return s;
    };
    std::sort(entries.begin(), entries.end(), [&](const Entry& a, const Entry& b) {
        const std::string sa = lower(a.section);
        const std::string sb = lower(b.section);
        return sa != sb ? sa < sb : lower(a.key) < lower(b.key);
    });
    return entries;
}

}  // namespace kestrix::win
