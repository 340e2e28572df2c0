// kestrix-sim: every device of a kiosk, simulated, on pseudo-terminals.
//
//   kestrix-sim --dir DIR [--profile NAME]    run the simulator until SIGTERM or SIGINT
//   kestrix-sim ctl DIR COMMAND...            send one control command to it

#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "sim/kiosk_models.h"
#include "sim/profile.h"
#include "sim/pty_kiosk.h"

namespace {

using kestrix::sim::KioskModels;

constexpr int kUsageError = 2;

void printHelp() {
    std::string profiles;
    for (const std::string& p : kestrix::sim::profileNames()) {
        profiles += (profiles.empty() ? "" : ", ") + p;
    }
    std::cout
        << "kestrix-sim: a simulated kiosk (MDB coin changer and bill validator behind their\n"
           "interface adapter, bill dispenser, two ccTalk hoppers) on pseudo-terminals.\n"
           "\n"
           "Usage:\n"
           "  kestrix-sim --dir DIR [--profile NAME]\n"
           "      Creates DIR (if needed) with the links DIR/mdb, DIR/dispenser and\n"
           "      DIR/hoppers to the engine's ends of the three serial lines and the\n"
           "      control socket DIR/control, prints \"ready\" when all are up, and runs\n"
           "      until SIGTERM or SIGINT; then removes what it created.\n"
           "  kestrix-sim ctl DIR COMMAND...\n"
           "      Sends one command to the simulator in DIR and prints its answer.\n"
           "      Exit status: 0 done, 1 rejected (the reason is printed), 2 usage error,\n"
           "      3 no simulator answers at DIR.\n"
           "  kestrix-sim --help\n"
           "\n"
           "Options:\n"
           "  --dir DIR        where the links and the control socket are made\n"
           "  --profile NAME   the kiosk to simulate: "
        << profiles
        << "\n"
           "                   (default: default; ccd = the bill validator identifies as\n"
           "                   \"CCD\"; no-echo = a hoppers interface without echo;\n"
           "                   zeros8, noencrypt8 = hoppers of those security modes)\n"
           "\n"
           "Commands (console numbering: coin type N is MDB coin type N-1):\n"
        << KioskModels::commandHelp()
        << "\n"
           "Faults by device:\n"
           "  adapter    garbage\n"
           "  changer    silent, reset-only, cassette-removed, payout-jam, busy-forever\n"
           "  validator  silent, ccd, flaky\n"
           "  dispenser  silent, error, low, empty, shifted, slow\n"
           "  hopper1/2  silent, empty, jam, no-echo\n"
           "\n"
           "A coin or bill is taken only when the engine has enabled its type; otherwise the\n"
           "command is rejected with the reason, as a real acceptor hands the coin back.\n"
           "\n"
           "Default profile: changer level 3, country 1484, scaling factor 2, 1 decimal, coin\n"
           "types 1-5 worth 0.5, 1, 2, 5, 10 with tubes of 40, 40, 30, 20, 10 coins (100 each\n"
           "at most); validator level 1, bill types 1-5 worth 20, 50, 100, 200, 500; dispenser\n"
           "with 100 bills of 50 (low under 10); hoppers at ccTalk addresses 3 and 4 with 200\n"
           "coins each, security mode serial, echo on.\n";
}

int runControl(const std::vector<std::string>& args) {
    if (args.size() < 4) {
        std::cerr << "usage: kestrix-sim ctl DIR COMMAND...\n";
        return kUsageError;
    }
    std::string command;
    for (std::size_t i = 3; i < args.size(); ++i) {
        command += (command.empty() ? "" : " ") + args[i];
    }
    std::string answer;
    const int code = kestrix::sim::sendControlCommand(args[2], command, answer);
    if (code == kestrix::sim::kControlAccepted) {
        std::cout << answer;
        if (!answer.empty() && answer.back() != '\n') {
            std::cout << '\n';
        }
    } else {
        std::cerr << answer;
        if (answer.empty() || answer.back() != '\n') {
            std::cerr << '\n';
        }
    }
    return code;
}

int runSimulator(const std::string& dir, const std::string& profileName) {
    const auto profile = kestrix::sim::profileNamed(profileName);
    if (!profile) {
        std::cerr << "kestrix-sim: no profile \"" << profileName << "\" (see --help)\n";
        return kUsageError;
    }
    // The signals are taken by sigwait below, so every thread must leave them blocked.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    kestrix::sim::PtyKiosk kiosk(dir, *profile);
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

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv, argv + argc);
    if (args.size() >= 2 && args[1] == "ctl") {
        return runControl(args);
    }
    std::string dir;
    std::string profile = "default";
    for (std::size_t i = 1; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--help" || a == "-h") {
            printHelp();
            return 0;
        }
        if ((a == "--dir" || a == "--profile") && i + 1 < args.size()) {
            (a == "--dir" ? dir : profile) = args[++i];
            continue;
        }
        std::cerr << "kestrix-sim: unknown argument \"" << a << "\" (see --help)\n";
        return kUsageError;
    }
    if (dir.empty()) {
        std::cerr << "kestrix-sim: --dir DIR is required (see --help)\n";
        return kUsageError;
    }
    return runSimulator(dir, profile);
}
