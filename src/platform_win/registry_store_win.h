#pragma once

#include "engine/platform/settings_store.h"

namespace kestrix::win {

// The settings store in the Windows registry, where existing hosts already keep it with their
// platform's standard settings calls:
//
//   HKEY_CURRENT_USER\Software\VB and VBA Program Settings\<app>\<section>, value <key>
//
// String values (REG_SZ), read live on every call (the host writes them while the engine runs);
// a number a host wrote as REG_DWORD or REG_QWORD reads as its decimal text, values of other
// types read as missing. Names and values are UTF-8 on our side and UTF-16 in the registry;
// names ignore case, as the SQLite store's do. Windows only.
class RegistryStore : public SettingsStore {
public:
    std::string get(std::string_view app, std::string_view section, std::string_view key,
                    std::string_view defaultValue = {}) override;
    void set(std::string_view app, std::string_view section, std::string_view key,
             std::string_view value) override;
    std::vector<Entry> list(std::string_view app, std::string_view section = {}) override;
};

}  // namespace kestrix::win
