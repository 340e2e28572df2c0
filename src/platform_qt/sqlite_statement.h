#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <string>
#include <string_view>

// What the settings store and the money journal both need of a prepared SQLite statement.
namespace kestrix::qt::sqlite {

// Binds text by length: values may be long and hold any byte, quotes included.
inline int bindText(sqlite3_stmt* stmt, int index, std::string_view text) {
    return sqlite3_bind_text64(stmt, index, text.empty() ? "" : text.data(), text.size(),
                               SQLITE_TRANSIENT, SQLITE_UTF8);
}

inline std::string columnText(sqlite3_stmt* stmt, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
    const int bytes = sqlite3_column_bytes(stmt, column);
    return text != nullptr ? std::string(text, static_cast<std::size_t>(bytes)) : std::string();
}

// Resets a statement when a query ends, however it ends: a statement left mid-way would hold
// its read snapshot open and the next read would not be fresh.
struct Reset {
    sqlite3_stmt* stmt;
    ~Reset() {
        sqlite3_reset(stmt);
        sqlite3_clear_bindings(stmt);
    }
};

}  // namespace kestrix::qt::sqlite
