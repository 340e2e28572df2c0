// ksxctl: reads and writes the shared settings store (the host mailbox among it) from scripts.
//
// Each command is one entry of the command table below: a name, its arguments, a line of help
// and the function that runs it. Adding a command is adding an entry.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "engine/platform/settings_store.h"
#include "host_commands.h"
#ifdef KESTRIX_HAVE_SQLITE
#include "journal_commands.h"
#endif
#include "platform_qt/store_factory.h"
#ifdef _WIN32
#include "utf8_arguments_win.h"
#endif

namespace {

using ksxctl::kExitOk;
using ksxctl::kExitStore;
using ksxctl::kExitUsage;
using ksxctl::oneLine;
using ksxctl::UsageError;

// How often `watch` reads the store again. Each read is a fresh query; a change shows within
// this time.
constexpr auto kWatchPeriod = std::chrono::milliseconds(100);

struct Options {
    std::string store;  // --store; empty: KSX_STORE or the default location
    std::string app = "KSX";
};

// What a command works with. The store is opened on first use, so --help and usage errors never
// touch it.
class Context {
public:
    explicit Context(Options options) : m_options(std::move(options)) {}
    const Options& options() const { return m_options; }
    kestrix::SettingsStore& store() {
        if (!m_store) {
            m_store = kestrix::qt::openSettingsStore(m_options.store);
        }
        return *m_store;
    }

private:
    Options m_options;
    std::unique_ptr<kestrix::SettingsStore> m_store;
};

using Args = std::vector<std::string>;

struct Command {
    std::string_view name;
    std::string_view arguments;
    std::string_view help;
    std::size_t minArgs;
    std::size_t maxArgs;
    int (*run)(Context&, const Args&);
};

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

int runGet(Context& context, const Args& args) {
    std::cout << context.store().get(context.options().app, args[0], args[1], "") << '\n';
    return kExitOk;
}

int runSet(Context& context, const Args& args) {
    context.store().set(context.options().app, args[0], args[1], args[2]);
    return kExitOk;
}

int runDump(Context& context, const Args& args) {
    const std::string section = args.empty() ? std::string() : args[0];
    for (const auto& entry : context.store().list(context.options().app, section)) {
        std::cout << entryLine(entry) << '\n';
    }
    return kExitOk;
}

std::atomic<bool> g_interrupted{false};

extern "C" void onInterrupt(int) {
    g_interrupted = true;
}

int runWatch(Context& context, const Args& args) {
    const std::string section = args.empty() ? std::string() : args[0];
    using Snapshot = std::map<std::pair<std::string, std::string>, std::string>;
    const auto snapshot = [&] {
        Snapshot values;
        for (auto& e : context.store().list(context.options().app, section)) {
            values[{std::move(e.section), std::move(e.key)}] = std::move(e.value);
        }
        return values;
    };
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    Snapshot previous = snapshot();
    std::cout << "watching " << (section.empty() ? "all sections" : section) << " of "
              << context.options().app << "; Ctrl+C ends" << std::endl;
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

// Help texts: "\n" starts a continuation line of the help column.
const Command kCommands[] = {
    {"get", "SECTION KEY", "print the value of KEY in SECTION\n(an empty line when it is missing)",
     2, 2, runGet},
    {"set", "SECTION KEY VALUE", "write VALUE to KEY in SECTION, creating it when missing", 3, 3,
     runSet},
    {"dump", "[SECTION]",
     "print every entry (or those of SECTION) as section/key=value,\none a line; line breaks in "
     "values are shown as \\n and \\r",
     0, 1, runDump},
    {"watch", "[SECTION]",
     "print each change (of SECTION) with a time stamp as it happens,\nuntil interrupted; the "
     "store is read every 100 ms",
     0, 1, runWatch},
    {"pay", "AMOUNT [--card] [--timeout S]",
     "ask the engine for AMOUNT in cash (\"Due\") or by card\n(\"DueCC\"), follow \"Status\", "
     "\"Credit\" and \"Due\" until\nthe payment ends, print the results; on a time-out\nor "
     "Ctrl+C the request is withdrawn or cancelled",
     1, 4, [](Context& c, const Args& a) { return ksxctl::runPay(c.store(), c.options().app, a); }},
    {"change", "AMOUNT [--timeout S]",
     "ask the engine to pay AMOUNT out (\"Change\"), wait for\n\"Change dispensed\", print "
     "\"ChangeDispensed\"",
     1, 3,
     [](Context& c, const Args& a) { return ksxctl::runChange(c.store(), c.options().app, a); }},
    {"cancel", "[--keep]",
     "cancel the running payment (\"Cancel\" = \"1\"; with --keep\n\"2\": a cash payment keeps "
     "the credit inserted)",
     0, 1,
     [](Context& c, const Args& a) { return ksxctl::runCancel(c.store(), c.options().app, a); }},
    {"exit", "", "ask the engine to shut down (\"Exit\" = \"1\")", 0, 0,
     [](Context& c, const Args& a) { return ksxctl::runExit(c.store(), c.options().app, a); }},
#ifdef KESTRIX_HAVE_SQLITE
    {"journal", "[--since WHEN] [--payment ID] [--json] [--file PATH]",
     "print the engine's money journal (beside the store:\nKSX-journal.db), one row a line; WHEN "
     "is #ROW, a date,\n\"DATE HH:MM\" or a time ago (30m, 12h, 7d)",
     0, 7, [](Context& c, const Args& a) { return ksxctl::runJournal(c.options().store, a); }},
    {"totals", "[--since WHEN] [--emptied] [--json] [--file PATH]",
     "money per device since the cash box was last emptied\n(or WHEN): taken in, paid out, owed, "
     "held; --emptied\nrecords that the cash box is emptied now",
     0, 6, [](Context& c, const Args& a) { return ksxctl::runTotals(c.options().store, a); }},
#endif
};

void printHelp() {
    std::cout << "Usage: ksxctl [--store PATH] [--app NAME] COMMAND [ARGUMENTS]\n"
                 "\n"
                 "Reads and writes the settings store that the Kestrix engine shares with its\n"
                 "host program. The host mailbox is the section \"Status\".\n"
                 "\n"
                 "Commands:\n";
    constexpr std::size_t kHelpColumn = 26;
    for (const Command& c : kCommands) {
        std::string usage = std::string(c.name) + " " + std::string(c.arguments);
        if (usage.size() >= kHelpColumn) {
            // Too long for the column: the help starts on the next line.
            usage += "\n" + std::string(kHelpColumn + 2, ' ');
        } else {
            usage.resize(kHelpColumn, ' ');
        }
        std::string help(c.help);
        for (std::size_t at = help.find('\n'); at != std::string::npos;
             at = help.find('\n', at + 1)) {
            help.insert(at + 1, kHelpColumn + 2, ' ');
        }
        std::cout << "  " << usage << help << '\n';
    }
    std::cout << "\n"
                 "Options:\n"
                 "  --store PATH              the store file; default: $KSX_STORE, else\n"
                 "                            ${XDG_CONFIG_HOME:-~/.config}/kestrix/KSX.db\n"
#ifdef _WIN32
                 "                            (without either, the registry)\n"
#endif
                 "  --app NAME                the application name (default KSX)\n"
                 "  -h, --help                this text\n"
                 "\n"
                 "Names with spaces need quotes: ksxctl get \"Pin Pad\" PPE\n"
                 "Exit status: 0 success (pay: paid; change: paid in full), 2 usage error,\n"
                 "3 store error, 4 not paid (denied, failed, cancelled) or change paid short,\n"
                 "5 time-out, 6 busy (another request is pending or being served),\n"
                 "7 the engine restarted while serving the request (do not ask again: read\n"
                 "its restart report, keys Interrupted*), 130 pay or change stopped waiting\n"
                 "at a second Ctrl+C.\n";
}

const Command& findCommand(std::string_view name) {
    for (const Command& c : kCommands) {
        if (c.name == name) {
            return c;
        }
    }
    throw UsageError("unknown command '" + std::string(name) + "'");
}

// Options come before the command; everything after the command is its arguments, so a value
// may start with "-" ("set Status Due -5").
int run(int argc, char** argv) {
    Options options;
    int i = 1;
    const auto optionValue = [&](std::string_view arg, std::string_view name) -> std::string {
        if (arg.size() > name.size() && arg[name.size()] == '=') {
            return std::string(arg.substr(name.size() + 1));
        }
        if (i + 1 >= argc) {
            throw UsageError(std::string(name) + " needs a value");
        }
        return argv[++i];
    };
    for (; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            printHelp();
            return kExitOk;
        }
        if (arg == "--") {
            ++i;
            break;
        }
        if (arg == "--store" || arg.rfind("--store=", 0) == 0) {
            options.store = optionValue(arg, "--store");
            if (options.store.empty()) {
                throw UsageError("--store needs a path");
            }
        } else if (arg == "--app" || arg.rfind("--app=", 0) == 0) {
            options.app = optionValue(arg, "--app");
            if (options.app.empty()) {
                throw UsageError("--app needs a name");
            }
        } else if (arg.size() > 1 && arg[0] == '-') {
            throw UsageError("unknown option '" + std::string(arg) + "'");
        } else {
            break;
        }
    }
    if (i >= argc) {
        throw UsageError("no command given");
    }
    const Command& command = findCommand(argv[i]);
    const Args args(argv + i + 1, argv + argc);
    if (args.size() < command.minArgs || args.size() > command.maxArgs) {
        throw UsageError(std::string(command.name) + " takes " + std::string(command.arguments) +
                         ", got " + std::to_string(args.size()) + " argument" +
                         (args.size() == 1 ? "" : "s"));
    }
    Context context(std::move(options));
    return command.run(context, args);
}

}  // namespace

int main(int argc, char** argv) {
#ifdef _WIN32
    std::vector<std::string> arguments = ksxctl::utf8Arguments();
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    argc = static_cast<int>(arguments.size());
    argv = pointers.data();
#endif
    try {
        const int code = run(argc, argv);
        std::cout.flush();
        return code;
    } catch (const UsageError& e) {
        std::cerr << "ksxctl: " << e.what() << " (see ksxctl --help)\n";
        return kExitUsage;
    } catch (const kestrix::StoreError& e) {
        std::cerr << "ksxctl: " << e.what() << '\n';
        return kExitStore;
    } catch (const std::exception& e) {
        std::cerr << "ksxctl: " << e.what() << '\n';
        return kExitStore;
    }
}
