// ksxctl: reads and writes the shared settings store (the host mailbox among it) from scripts.
//
// The command line is parsed by CLI11. Each group of commands lives in a file of its own
// (store_commands.cpp, host_commands.cpp) and adds its commands here with one call.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <string>

#include "ksxctl.h"
#include "platform_qt/store_factory.h"
#ifdef _WIN32
#include "utf8_arguments_win.h"
#endif

namespace ksxctl {

kestrix::SettingsStore& Context::store() {
    if (!m_store || m_readOnly) {
        m_store = kestrix::qt::openSettingsStore(m_options.store);
        m_readOnly = false;
    }
    return *m_store;
}

kestrix::SettingsStore& Context::readOnlyStore() {
    if (!m_store) {
        m_store = kestrix::qt::openSettingsStore(m_options.store, true);
        m_readOnly = true;
    }
    return *m_store;
}

std::string Context::storeName() const {
    return kestrix::qt::describeStore(m_options.store);
}

std::string oneLine(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (const char c : value) {
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else {
            out += c;
        }
    }
    return out;
}

namespace {

const char* const kFooter =
    "Names with spaces need quotes: ksxctl get \"Pin Pad\" PPE\n"
    "`ksxctl COMMAND --help` tells more about a command.\n"
    "\n"
    "Exit status: 0 success (pay: paid; change: paid in full), 2 usage error, 3 store error\n"
    "(also: the store does not exist, for get, dump and watch), 4 not paid (denied, failed,\n"
    "cancelled) or change paid short, 5 time-out, 6 busy (another request is pending or\n"
    "being served), 7 no engine runs on the store, 8 the engine restarted while serving the\n"
    "request (do not ask again: read its restart report, keys Interrupted*), 130 pay or\n"
    "change stopped waiting at a second Ctrl+C.";

int run(int argc, char** argv) {
    Context context;
    CLI::App program(
        "Reads and writes the settings store that the Kestrix engine shares with its\n"
        "host program. The host mailbox is the section \"Status\".",
        "ksxctl");
    program.set_version_flag("--version", std::string("ksxctl ") + KESTRIX_VERSION,
                             "print the version and exit");
    program.set_help_flag("-h,--help", "print this help and exit");
    program
        .add_option("--store", context.options().store,
                    "the store file; default: $KSX_STORE, else\n"
                    "${XDG_CONFIG_HOME:-~/.config}/kestrix/KSX.db"
#ifdef _WIN32
                    " (without either, the registry)"
#endif
                    )
        ->option_text("PATH");
    program.add_option("--app", context.options().app, "the application name (default KSX)")
        ->option_text("NAME");
    program.require_subcommand(1);
    addStoreCommands(program, context);
    addHostCommands(program, context);
#ifdef KESTRIX_HAVE_SQLITE
    addJournalCommands(program, context);
#endif
    // After the commands, which would inherit it.
    program.footer(kFooter);

    // The first word that is not an option names the command.
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--store" || word == "--app") {
            ++i;
        } else if (!word.empty() && word[0] != '-') {
            const auto commands = program.get_subcommands({});
            if (std::none_of(commands.begin(), commands.end(),
                             [&word](const CLI::App* c) { return c->check_name(word); })) {
                throw UsageError("unknown command '" + word + "'");
            }
            break;
        }
    }
    try {
        program.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::cout << program.help();
        return kExitOk;
    } catch (const CLI::CallForVersion& e) {
        std::cout << e.what() << '\n';
        return kExitOk;
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {
            // Help asked of a command: its own help.
            std::cout << program.help();
            return kExitOk;
        }
        throw UsageError(e.what());
    }
    if (program.count("--store") > 0 && context.options().store.empty()) {
        throw UsageError("--store needs a path");
    }
    if (program.count("--app") > 0 && context.options().app.empty()) {
        throw UsageError("--app needs a name");
    }
    return context.action ? context.action() : kExitOk;
}

}  // namespace

}  // namespace ksxctl

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
        const int code = ksxctl::run(argc, argv);
        std::cout.flush();
        return code;
    } catch (const ksxctl::UsageError& e) {
        std::cerr << "ksxctl: " << e.what() << " (see ksxctl --help)\n";
        return ksxctl::kExitUsage;
    } catch (const std::exception& e) {
        // Store trouble: one line naming the store and what went wrong.
        std::cerr << "ksxctl: " << e.what() << '\n';
        return ksxctl::kExitStore;
    }
}
