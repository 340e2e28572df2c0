#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kestrix {

class StoreError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The shared settings store: text values by application, section and key. Every read is fresh:
// another process (the host) may have written the value a moment ago.
class SettingsStore {
public:
    struct Entry {
        std::string section;
        std::string key;
        std::string value;
    };

    virtual ~SettingsStore() = default;

    // The stored text, or `defaultValue` when the key is missing. Throws StoreError.
    virtual std::string get(std::string_view app, std::string_view section, std::string_view key,
                            std::string_view defaultValue = {}) = 0;
    // Creates or overwrites the key. Throws StoreError.
    virtual void set(std::string_view app, std::string_view section, std::string_view key,
                     std::string_view value) = 0;
    // Every entry of the application, or of one section when `section` is not empty, ordered by
    // section and key. For tools (dump, watch), and for the monitor's one look at the whole
    // mailbox on a tick that finds nothing asked.
    virtual std::vector<Entry> list(std::string_view app, std::string_view section = {}) = 0;
    // A number that is different whenever anything in the store may have changed since it was
    // last returned: at once for a write through this object (a write that goes through moves
    // it by exactly one); for one by another connection or process as soon as the store can
    // tell (SQLite: at the next call in practice, a few seconds later at worst), and perhaps not
    // at all when that write changed nothing.
    // Nothing when the store cannot tell cheaply. Lets the monitor skip reading a mailbox it
    // already knows. Throws StoreError.
    virtual std::optional<std::uint64_t> changeCount() { return std::nullopt; }
};

}  // namespace kestrix
