#pragma once

#include <memory>
#include <string>

#include "engine/platform/settings_store.h"

namespace kestrix::qt {

// The settings store a program uses. On Linux always the SQLite file of resolveStorePath. On
// Windows the registry, where existing hosts keep it, unless a file is named (`cliValue` from a
// --store option, or KSX_STORE): then that SQLite file (a Windows build without SQLite throws
// StoreError then). `readOnly`: for tools that only look, which must not create a store that is
// not there. Throws StoreError.
std::unique_ptr<SettingsStore> openSettingsStore(const std::string& cliValue,
                                                 bool readOnly = false);

// Where the store is, in words, for messages and the single-instance lock ("registry" or the
// file's path).
std::string describeStore(const std::string& cliValue);

}  // namespace kestrix::qt
