#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// ksxctl's journal commands: the engine's money journal read by a technician or support.
namespace ksxctl {

// Where a report starts, from a --since value: "#N" (row N on), "YYYY-MM-DD" (local midnight),
// "YYYY-MM-DD HH:MM[:SS]" or with a "T", or a time ago: "30m", "12h", "7d". Throws UsageError.
struct Since {
    std::int64_t afterSequence = 0;
    std::int64_t sinceMs = 0;
    std::string text;  // as given
};
Since parseSince(std::string_view text, std::int64_t nowMs);

struct CommandOptions {
    std::optional<Since> since;
    std::int64_t payment = 0;
    bool json = false;
    bool emptied = false;
    std::string file;  // empty: the journal beside the store
};

// The commands read the journal beside the store (--store, KSX_STORE or the default), or the one
// `file` names.
int runJournal(const std::string& storeOption, const CommandOptions& options);
int runTotals(const std::string& storeOption, const CommandOptions& options);

}  // namespace ksxctl
