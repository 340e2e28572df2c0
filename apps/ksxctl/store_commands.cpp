// ksxctl's store commands: get, set, dump and watch.

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <map>
#include <thread>

#include "engine/settings/layout.h"
#include "ksxctl.h"

namespace ksxctl {

namespace {

// How often `watch` reads the store again. Each read is a fresh query; a change shows within
// this time.
constexpr auto kWatchPeriod = std::chrono::milliseconds(100);

std::string entryLine(const kestrix::SettingsStore::Entry& e) {
    return e.section + "/" + e.key + "=" + oneLine(e.value);
}

std::string timeStamp() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    std::tm local{};
#ifdef _WIN32
    localtime_s(&local, &seconds);
#else
    localtime_r(&seconds, &local);
#endif
    char text[96];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(millis));
    return text;
}

std::atomic<bool> g_interrupted{false};

extern "C" void onInterrupt(int) {
    g_interrupted = true;
}

// The heartbeat changes every few seconds and would bury the changes a watcher looks for.
bool isHeartbeat(const std::string& section, const std::string& key) {
    return section == kestrix::store::section::kStatus && key == kestrix::store::mailbox::kEngine;
}

int watch(Context& context, const std::string& section) {
    using Snapshot = std::map<std::pair<std::string, std::string>, std::string>;
    const auto snapshot = [&] {
        Snapshot values;
        for (auto& e : context.readOnlyStore().list(context.app(), section)) {
            if (!isHeartbeat(e.section, e.key)) {
                values[{std::move(e.section), std::move(e.key)}] = std::move(e.value);
            }
        }
        return values;
    };
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    Snapshot previous = snapshot();
    std::cout << "watching " << (section.empty() ? "all sections" : section) << " of "
              << context.app() << "; Ctrl+C ends" << std::endl;
    while (!g_interrupted) {
        std::this_thread::sleep_for(kWatchPeriod);
        Snapshot current = snapshot();
        if (current == previous) {
            continue;
        }
        const std::string stamp = timeStamp();
        for (const auto& [name, value] : current) {
            const auto old = previous.find(name);
            if (old == previous.end() || old->second != value) {
                std::cout << stamp << ' ' << entryLine({name.first, name.second, value}) << '\n';
            }
        }
        for (const auto& [name, value] : previous) {
            if (current.find(name) == current.end()) {
                std::cout << stamp << ' ' << name.first << '/' << name.second << " removed\n";
            }
        }
        std::cout.flush();
        previous = std::move(current);
    }
    return kExitOk;
}

}  // namespace

void addStoreCommands(CLI::App& program, Context& context) {
    // Each command's arguments live as long as the program's parser.
    struct Arguments {
        std::string section;
        std::string key;
        std::string value;
        bool force = false;
    };
    auto args = std::make_shared<Arguments>();

    CLI::App* get = program.add_subcommand(
        "get", "SECTION KEY: print a value (an empty line when it is missing)");
    get->add_option("SECTION", args->section)->required();
    get->add_option("KEY", args->key)->required();
    get->callback([&context, args] {
        context.action = [&context, args] {
            std::cout << context.readOnlyStore().get(context.app(), args->section, args->key, "")
                      << '\n';
            return kExitOk;
        };
    });

    CLI::App* set = program.add_subcommand("set", "[--force] SECTION KEY VALUE: write a value");
    set->footer(
        "Writes VALUE to KEY in SECTION, creating it when missing. In the engine's own sections\n"
        "(Settings, CoinAcceptor, BillValidator, BillDispenser, Hoppers, Pin Pad) the key must\n"
        "be one the engine reads and the value one it can read (flags 0 or 1, numbers, port\n"
        "numbers); a typo is refused with the list of valid keys, and --force writes it anyway.\n"
        "\"Status\", \"Ports\" and other sections take any key and value. VALUE may start\n"
        "with \"-\".");
    set->add_flag("--force", args->force, "write even what the engine cannot read");
    // The value may start with "-" ("set Status Due -5"): past SECTION nothing is an option.
    set->prefix_command();
    set->callback([&context, args, set] {
        const std::vector<std::string> words = set->remaining();
        if (words.size() != 3) {
            throw UsageError("set takes SECTION KEY VALUE, got " + std::to_string(words.size()) +
                             " argument" + (words.size() == 1 ? "" : "s"));
        }
        if (!args->force) {
            if (const std::string problem =
                    kestrix::store::settingProblem(words[0], words[1], words[2]);
                !problem.empty()) {
                throw UsageError(problem + " (--force writes it anyway)");
            }
        }
        context.action = [&context, words] {
            context.store().set(context.app(), words[0], words[1], words[2]);
            return kExitOk;
        };
    });

    CLI::App* dump = program.add_subcommand(
        "dump", "[SECTION]: print every entry as section/key=value, one a line");
    dump->footer("Line breaks in values are shown as \\n and \\r.");
    dump->add_option("SECTION", args->section);
    dump->callback([&context, args] {
        context.action = [&context, args] {
            for (const auto& entry : context.readOnlyStore().list(context.app(), args->section)) {
                std::cout << entryLine(entry) << '\n';
            }
            return kExitOk;
        };
    });

    CLI::App* watchCommand =
        program.add_subcommand("watch", "[SECTION]: print each change as it happens");
    watchCommand->footer(
        "Prints each change (of SECTION) with a time stamp, until interrupted; the store is\n"
        "read every 100 ms. The engine's heartbeat (Status/Engine) is left out.");
    watchCommand->add_option("SECTION", args->section);
    watchCommand->callback([&context, args] {
        context.action = [&context, args] { return watch(context, args->section); };
    });
}

}  // namespace ksxctl
