#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "engine/platform/settings_store.h"

// The host's commands of ksxctl: a payment, a payout, a cancel and an exit request, each written
// into the mailbox the way a careful host writes it, and followed to its end.
namespace ksxctl {

constexpr int kExitOk = 0;
constexpr int kExitUsage = 2;
constexpr int kExitStore = 3;
constexpr int kExitNotDone = 4;  // denied, failed, cancelled, or change paid short
constexpr int kExitTimeout = 5;
constexpr int kExitBusy = 6;       // another request is pending or being served
constexpr int kExitRestarted = 7;  // the engine restarted while serving it: see its restart report
constexpr int kExitInterrupted = 130;

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

using Args = std::vector<std::string>;

// One entry per line: a line break inside a value would otherwise look like a second entry.
std::string oneLine(std::string_view value);

// pay AMOUNT [--card] [--timeout SECONDS]
int runPay(kestrix::SettingsStore& store, std::string_view app, const Args& args);
// change AMOUNT [--timeout SECONDS]
int runChange(kestrix::SettingsStore& store, std::string_view app, const Args& args);
// cancel [--keep]
int runCancel(kestrix::SettingsStore& store, std::string_view app, const Args& args);
// exit
int runExit(kestrix::SettingsStore& store, std::string_view app, const Args& args);

}  // namespace ksxctl
