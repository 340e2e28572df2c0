#include "store_factory.h"

#include <cstdlib>

#include "sqlite_store.h"
#ifdef _WIN32
#include "registry_store_win.h"
#endif

namespace kestrix::qt {

namespace {
#ifdef _WIN32
bool fileNamed(const std::string& cliValue) {
    const char* env = std::getenv("KSX_STORE");
    return !cliValue.empty() || (env != nullptr && *env != '\0');
}
#endif
}  // namespace

std::unique_ptr<SettingsStore> openSettingsStore(const std::string& cliValue) {
#ifdef _WIN32
    if (!fileNamed(cliValue)) {
        return std::make_unique<RegistryStore>();
    }
#endif
    return std::make_unique<SqliteStore>(resolveStorePath(cliValue));
}

std::string describeStore(const std::string& cliValue) {
#ifdef _WIN32
    if (!fileNamed(cliValue)) {
        return "registry";
    }
#endif
    return resolveStorePath(cliValue);
}

}  // namespace kestrix::qt
