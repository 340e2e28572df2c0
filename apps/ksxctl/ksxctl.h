#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "engine/platform/settings_store.h"

namespace CLI {
class App;
}

// What every ksxctl command shares: the exit statuses, the options that come before the
// command, and the store they name. Each group of commands lives in a file of its own and adds
// its commands to the program with one add...Commands function below.
namespace ksxctl {

constexpr int kExitOk = 0;
constexpr int kExitUsage = 2;
constexpr int kExitStore = 3;
constexpr int kExitNotDone = 4;  // denied, failed, cancelled, or change paid short
constexpr int kExitTimeout = 5;
constexpr int kExitBusy = 6;       // another request is pending or being served
constexpr int kExitNoEngine = 7;   // no engine runs on the store (none started, or it crashed)
constexpr int kExitRestarted = 8;  // the engine restarted while serving it: see its restart report
constexpr int kExitInterrupted = 130;

// A command line that cannot be run: reported on one line, exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Options {
    std::string store;  // --store; empty: KSX_STORE or the default location
    std::string app = "KSX";
};

// The store, opened on first use: --help and usage errors never touch it. Commands that only
// look open it read-only, so that looking at a store that is not there does not create it.
class Context {
public:
    const Options& options() const { return m_options; }
    Options& options() { return m_options; }
    const std::string& app() const { return m_options.app; }

    kestrix::SettingsStore& store();
    kestrix::SettingsStore& readOnlyStore();
    // The store's file (or "registry"), for messages and the engine's lock.
    std::string storeName() const;

    // What the chosen command does, set by its parser callback and run once the whole command
    // line has been parsed; returns the exit status.
    std::function<int()> action;

private:
    Options m_options;
    std::unique_ptr<kestrix::SettingsStore> m_store;
    bool m_readOnly = false;
};

// One entry per line: a line break inside a value would otherwise look like a second entry.
std::string oneLine(std::string_view value);

// The command groups, each in its file <group>_commands.cpp. Each adds its commands to
// `program`; a command's parser callback checks its arguments (throwing UsageError) and sets
// `context.action`.
void addStoreCommands(CLI::App& program, Context& context);  // get, set, dump, watch
void addHostCommands(CLI::App& program, Context& context);   // pay, change, cancel, exit
// journal, totals: where the store library has SQLite (not in the Windows cross-build)
void addJournalCommands(CLI::App& program, Context& context);

}  // namespace ksxctl
