// kestrix-sim: every device of a kiosk, simulated, on pseudo-terminals.
//
//   kestrix-sim --dir DIR [--profile NAME]    run the simulator until SIGTERM or SIGINT
//   kestrix-sim ctl DIR COMMAND...            send one control command to it

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include "sim/kiosk_models.h"
#include "sim/profile.h"
#include "sim/pty_kiosk.h"

namespace {

using kestrix::sim::KioskModels;

constexpr int kUsageError = 2;

std::string profileList() {
    std::string profiles;
    for (const std::string& p : kestrix::sim::profileNames()) {
        profiles += (profiles.empty() ? "" : ", ") + p;
    }
    return profiles;
}

std::string footer() {
    return "Exit status of ctl: 0 done, 1 rejected (the reason is printed), 2 usage error\n"
           "(also an unknown command or wrong arguments), 3 no simulator answers at DIR.\n"
           "\n"
           "Commands (console numbering: coin type N is MDB coin type N-1):\n" +
           KioskModels::commandHelp() +
           "\n"
           "Faults by device:\n"
           "  adapter    garbage\n"
           "  changer    silent, reset-only, cassette-removed, payout-jam, busy-forever\n"
           "  validator  silent, ccd, flaky\n"
           "  dispenser  silent, error, low, empty, shifted, slow\n"
           "  hopper1/2  silent, empty, jam, no-echo\n"
           "\n"
           "A coin or bill is taken only when the engine has enabled its type; otherwise the\n"
           "command is rejected with the reason, as a real acceptor hands the coin back.\n"
           "Whenever the engine closes a line, the simulator puts the line's settings back, so\n"
           "an engine that was killed leaves nothing behind for the next one.\n"
           "\n"
           "Profiles: ccd = the bill validator identifies as \"CCD\"; no-echo = a hoppers\n"
           "interface without echo; zeros8, noencrypt8 = hoppers of those security modes.\n"
           "Default profile: changer level 3, country 1484, scaling factor 2, 1 decimal, coin\n"
           "types 1-5 worth 0.5, 1, 2, 5, 10 with tubes of 40, 40, 30, 20, 10 coins (100 each\n"
           "at most); validator level 1, bill types 1-5 worth 20, 50, 100, 200, 500; dispenser\n"
           "with 100 bills of 50 (low under 10); hoppers at ccTalk addresses 3 and 4 with 200\n"
           "coins each, security mode serial, echo on.";
}

int runControl(const std::string& dir, const std::vector<std::string>& words) {
    std::string command;
    for (const std::string& w : words) {
        command += (command.empty() ? "" : " ") + w;
    }
    std::string answer;
    const int code = kestrix::sim::sendControlCommand(dir, command, answer);
    if (!answer.empty() && answer.back() == '\n') {
        answer.pop_back();
    }
    if (code == kestrix::sim::kControlAccepted) {
        std::cout << answer << '\n';
    } else {
        std::cerr << "kestrix-sim: " << answer << '\n';
    }
    return code;
}

int runSimulator(const std::string& dir, const kestrix::sim::KioskProfile& profile) {
    // The signals are taken by sigwait below, so every thread must leave them blocked.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    kestrix::sim::PtyKiosk kiosk(dir, profile);
    try {
        kiosk.start();
    } catch (const std::exception& e) {
        std::cerr << "kestrix-sim: " << e.what() << '\n';
        return 1;
    }
    std::cout << "ready" << std::endl;
    int signal = 0;
    sigwait(&signals, &signal);
    kiosk.stop();
    return 0;
}

int run(int argc, char** argv) {
    CLI::App program(
        "A simulated kiosk (MDB coin changer and bill validator behind their interface adapter,\n"
        "bill dispenser, two ccTalk hoppers) on pseudo-terminals.\n"
        "\n"
        "kestrix-sim --dir DIR creates DIR (if needed) with the links DIR/mdb, DIR/dispenser\n"
        "and DIR/hoppers to the engine's ends of the three serial lines and the control socket\n"
        "DIR/control, prints \"ready\" when all are up, and runs until SIGTERM or SIGINT; then\n"
        "it removes what it created. kestrix-sim ctl DIR COMMAND... sends one command to the\n"
        "simulator in DIR and prints its answer.",
        "kestrix-sim");
    program.set_version_flag("--version", std::string("kestrix-sim ") + KESTRIX_VERSION,
                             "print the version and exit");
    program.set_help_flag("-h,--help", "print this help and exit");
    std::string dir;
    std::string profileName = "default";
    program.add_option("--dir", dir, "where the links and the control socket are made")
        ->option_text("DIR");
    program.add_option("--profile", profileName, "the kiosk to simulate: " + profileList())
        ->option_text("NAME")
        ->capture_default_str();
    CLI::App* ctl = program.add_subcommand("ctl", "DIR COMMAND...: send one control command");
    // The command's words go to the simulator as they are.
    ctl->prefix_command();
    program.footer(footer());

    try {
        program.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::cout << program.help();
        return 0;
    } catch (const CLI::CallForVersion& e) {
        std::cout << e.what() << '\n';
        return 0;
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {
            std::cout << program.help();
            return 0;
        }
        std::cerr << "kestrix-sim: " << e.what() << " (see kestrix-sim --help)\n";
        return kUsageError;
    }
    if (ctl->parsed()) {
        const std::vector<std::string> words = ctl->remaining();
        if (words.size() < 2) {
            std::cerr << "kestrix-sim: ctl needs DIR and a COMMAND (see kestrix-sim --help)\n";
            return kUsageError;
        }
        return runControl(words[0], {words.begin() + 1, words.end()});
    }
    if (dir.empty()) {
        std::cerr << "kestrix-sim: --dir DIR is required (see kestrix-sim --help)\n";
        return kUsageError;
    }
    const auto profile = kestrix::sim::profileNamed(profileName);
    if (!profile) {
        std::cerr << "kestrix-sim: no profile \"" << profileName
                  << "\"; profiles: " << profileList() << '\n';
        return kUsageError;
    }
    return runSimulator(dir, *profile);
}

}  // namespace

int main(int argc, char** argv) {
    return run(argc, argv);
}
