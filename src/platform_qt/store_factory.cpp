#include "store_factory.h"

#include <cstdlib>

#ifdef KESTRIX_HAVE_SQLITE
#include "sqlite_store.h"
#endif
#ifdef _WIN32
#include "platform_win/registry_store_win.h"
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

std::unique_ptr<SettingsStore> openSettingsStore(const std::string& cliValue, bool readOnly) {
#ifdef _WIN32
    if (!fileNamed(cliValue)) {
        return std::make_unique<win::RegistryStore>();
    }
#endif
#ifdef KESTRIX_HAVE_SQLITE
    return std::make_unique<SqliteStore>(
        resolveStorePath(cliValue),
        readOnly ? SqliteStore::Access::ReadOnly : SqliteStore::Access::ReadWrite);
#else
    (void)readOnly;
    throw StoreError(
        "settings store: this build keeps the store in the registry only (unset "
        "KSX_STORE and --store)");
#endif
}

std::string describeStore(const std::string& cliValue) {
#ifdef _WIN32
    if (!fileNamed(cliValue)) {
        return "registry";
    }
#endif
#ifdef KESTRIX_HAVE_SQLITE
    return resolveStorePath(cliValue);
#else
    const char* env = std::getenv("KSX_STORE");
    return !cliValue.empty() ? cliValue : std::string(env != nullptr ? env : "");
#endif
}

}  // namespace kestrix::qt
