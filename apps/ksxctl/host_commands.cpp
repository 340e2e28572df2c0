// ksxctl's host commands: a payment, a payout, a cancel and an exit request, each written into
// the mailbox the way a careful host writes it, and followed to its end. Progress goes to
// standard error, the results to standard output (as key=value lines, or one JSON object).

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <optional>
#include <thread>

#ifdef _WIN32
#include <io.h>
#else
#include <unistd.h>
#endif

#include <nlohmann/json.hpp>

#include "engine/formulas.h"
#include "engine/settings/layout.h"
#include "ksxctl.h"
#include "platform_qt/engine_lock.h"
#include "request_tracker.h"

namespace ksxctl {

namespace {

namespace mailbox = kestrix::store::mailbox;
constexpr std::string_view kMailbox = kestrix::store::section::kStatus;

// The same fresh reads as `watch`: the mailbox is read again every 100 ms, which is well inside
// the engine's 500 ms poll.
constexpr auto kReadPeriod = std::chrono::milliseconds(100);

// After a cancel, how long the engine may take to confirm it. A cash cancel pays the credit
// back first, which takes a few seconds per source.
constexpr double kCancelWaitSeconds = 60;
constexpr double kCancelRepeatSeconds = 1;
// How long a card request may go untouched after a cancel before it is taken to have no engine.
constexpr double kUntakenCardSeconds = 3;
// Without --timeout, how long a request may take before it is cancelled: a customer who walks
// away must not keep the kiosk (and the script) waiting for ever.
constexpr double kDefaultTimeoutSeconds = 300;
// How often the engine's lock is looked at while a request runs.
constexpr double kEngineCheckSeconds = 1;

std::atomic<int> g_interrupts{0};

extern "C" void onRequestInterrupt(int) {
    g_interrupts.fetch_add(1);
}

bool stderrIsTerminal() {
#ifdef _WIN32
    return _isatty(_fileno(stderr)) != 0;
#else
    return isatty(STDERR_FILENO) != 0;
#endif
}

// The progress of a request on one line of standard error: rewritten in place on a terminal, a
// new line for each change otherwise (logs, pipes).
class LiveLine {
public:
    explicit LiveLine(bool terminal) : m_terminal(terminal) {}

    void show(const std::string& text) {
        if (text == m_last) {
            return;
        }
        m_last = text;
        if (m_terminal) {
            std::cerr << '\r' << text << "\x1b[K" << std::flush;
            m_open = true;
        } else {
            std::cerr << text << std::endl;
        }
    }
    // Ends the line in place, so that what follows starts on a line of its own.
    void close() {
        if (m_open) {
            std::cerr << '\n';
            m_open = false;
        }
        std::cerr.flush();
    }

private:
    bool m_terminal;
    bool m_open = false;
    std::string m_last;
};

std::string progressText(RequestKind kind, const MailboxReading& r, bool taken,
                         const std::string& credit) {
    std::string status =
        r.status.empty() ? (taken ? "..." : "waiting for the engine...") : oneLine(r.status);
    switch (kind) {
        case RequestKind::Cash:
            return status + " | credit " + credit + " | due " + r.due;
        case RequestKind::Card:
            return status + " | credit " + credit + " | DueCC " + r.dueCC;
        case RequestKind::Change:
            return status + " | dispensed " + r.changeDispensed;
    }
    return status;
}

// The mailbox keys that make up a request's results, in the order they are printed.
std::vector<std::pair<std::string_view, std::string>> results(RequestKind kind,
                                                              const MailboxReading& r) {
    switch (kind) {
        case RequestKind::Cash:
            return {{mailbox::kStatus, r.status}, {mailbox::kCredit, r.credit},
                    {mailbox::kDue, r.due},       {mailbox::kChangeDispensed, r.changeDispensed},
                    {mailbox::kTubes, r.tubes},   {mailbox::kKsxError, r.ksxError}};
        case RequestKind::Card:
            return {{mailbox::kStatus, r.status},
                    {mailbox::kCredit, r.credit},
                    {mailbox::kDueCC, r.dueCC}};
        case RequestKind::Change:
            return {{mailbox::kStatus, r.status},
                    {mailbox::kChangeDispensed, r.changeDispensed},
                    {mailbox::kTubes, r.tubes}};
    }
    return {};
}

struct Request {
    RequestKind kind = RequestKind::Cash;
    std::string amount;
    double timeoutSeconds = kDefaultTimeoutSeconds;
    bool json = false;
};

// How a request ended, for the exit status and the JSON result.
const char* outcomeName(int status) {
    switch (status) {
        case kExitOk:
            return "succeeded";
        case kExitNotDone:
            return "failed";
        case kExitTimeout:
            return "timed-out";
        case kExitBusy:
            return "busy";
        case kExitNoEngine:
            return "no-engine";
        case kExitRestarted:
            return "restarted";
        case kExitInterrupted:
            return "interrupted";
    }
    return "failed";
}

// Prints the results on standard output and returns `status`. `reason`, when given, is also
// said on standard error.
int finish(const Request& request, int status, const MailboxReading& r, const std::string& reason) {
    if (!reason.empty()) {
        std::cerr << "ksxctl: " << reason << '\n';
    }
    if (request.json) {
        nlohmann::ordered_json out;
        out["outcome"] = outcomeName(status);
        out["exitStatus"] = status;
        out["request"] = std::string(requestKey(request.kind));
        out["amount"] = request.amount;
        if (!reason.empty()) {
            out["reason"] = reason;
        }
        nlohmann::ordered_json values = nlohmann::ordered_json::object();
        for (const auto& [key, value] : results(request.kind, r)) {
            values[std::string(key)] = value;
        }
        out["results"] = values;
        // Mailbox texts are the engine's and the host's: replace what is not UTF-8.
        std::cout << out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
    } else {
        for (const auto& [key, value] : results(request.kind, r)) {
            std::cout << key << '=' << oneLine(value) << '\n';
        }
    }
    std::cout.flush();
    return status;
}

std::string checkedAmount(const std::string& text) {
    if (!validAmount(text)) {
        throw UsageError("AMOUNT must be a positive decimal number such as 12 or 12.5, not '" +
                         text + "'");
    }
    return text;
}

double checkedTimeout(const std::string& text) {
    if (!validAmount(text)) {
        throw UsageError("--timeout needs a positive number of seconds, not '" + text + "'");
    }
    return kestrix::leadingNumber(text);
}

// Writes a request and follows the mailbox until the engine has served it.
int follow(Context& context, const Request& request) {
    kestrix::SettingsStore& store = context.store();
    const std::string_view app = context.app();
    const RequestKind kind = request.kind;
    const std::string_view key = requestKey(kind);
    const std::string storeName = context.storeName();
    const auto engineGone = [&storeName] {
        return kestrix::qt::engineLockState(storeName).holder ==
               kestrix::qt::EngineLockState::Holder::None;
    };
    const MailboxReading before = readMailbox(store, app);
    if (engineGone()) {
        return finish(request, kExitNoEngine, before,
                      "no engine runs on the store " + storeName +
                          " (start kestrix on it; a crashed engine must be started again)");
    }
    if (const std::string pending = pendingRequest(before); !pending.empty()) {
        return finish(request, kExitBusy, before,
                      "busy: \"" + pending + "\" is pending or being served (" + pending + " = " +
                          store.get(app, kMailbox, pending, "") + "); try again when it is done");
    }
    // "Status" is the engine's to write and it never reads it; blanking it marks where this
    // request begins, so no earlier result can be taken for this one's.
    store.set(app, kMailbox, mailbox::kStatus, "");
    store.set(app, kMailbox, key, request.amount);

    g_interrupts = 0;
    std::signal(SIGINT, onRequestInterrupt);
    std::signal(SIGTERM, onRequestInterrupt);

    RequestTracker tracker(kind, kestrix::leadingNumber(request.amount));
    LiveLine line(stderrIsTerminal());
    const auto start = std::chrono::steady_clock::now();
    const auto elapsed = [&start] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    bool timedOut = false;
    std::optional<double> cancelledAt;
    double cancelWrittenAt = 0;
    double engineCheckedAt = 0;
    bool withdrawn = false;
    bool neverTaken = false;
    // The credit left by the previous payment is not this one's: until the engine has written
    // this payment's first credit, it is shown as 0.
    bool creditFresh = kestrix::leadingNumber(before.credit) == 0;
    const auto withdraw = [&] {
        // Given back by this program, the request looks served to the tracker from now on.
        neverTaken = !tracker.taken();
        store.set(app, kMailbox, key, withdrawnValue(kind));
        withdrawn = true;
    };
    const auto writeCancel = [&](double seconds) {
        store.set(app, kMailbox, mailbox::kCancel, "1");
        cancelWrittenAt = seconds;
    };
    MailboxReading reading;
    Outcome outcome = Outcome::Pending;
    for (;;) {
        reading = readMailbox(store, app);
        const double seconds = elapsed();
        outcome = tracker.observe(reading, seconds);
        creditFresh = creditFresh || reading.credit != before.credit ||
                      reading.status == "Insert Coins or Bills...";
        line.show(progressText(kind, reading, tracker.taken(), creditFresh ? reading.credit : "0"));
        if (outcome != Outcome::Pending) {
            break;
        }
        if (seconds - engineCheckedAt >= kEngineCheckSeconds) {
            engineCheckedAt = seconds;
            if (engineGone()) {
                line.close();
                if (!tracker.taken()) {
                    store.set(app, kMailbox, key, withdrawnValue(kind));
                }
                return finish(request, kExitNoEngine, readMailbox(store, app),
                              "the engine serving the store has stopped; what it wrote last is "
                              "below (a restarted engine settles an unfinished payment)");
            }
        }
        if (g_interrupts >= 2) {
            line.close();
            return finish(request, kExitInterrupted, reading,
                          "stopped waiting; the engine may still be serving the request");
        }
        const bool interrupted = g_interrupts == 1;
        const bool expired = seconds >= request.timeoutSeconds;
        if (!cancelledAt && (interrupted || expired)) {
            timedOut = expired && !interrupted;
            line.close();
            const char* const why = timedOut ? "timed out" : "interrupted";
            if (kind == RequestKind::Change && tracker.taken()) {
                // A payout cannot be stopped once it has begun.
                return finish(request, timedOut ? kExitTimeout : kExitInterrupted, reading,
                              std::string(why) + "; the payout has begun and cannot be stopped");
            }
            std::cerr << "ksxctl: " << why << "; "
                      << (kind == RequestKind::Change ? "withdrawing the request" : "cancelling")
                      << (interrupted ? " (Ctrl+C again to stop waiting)" : "") << '\n';
            // A cash request still waiting is withdrawn, and cancelled too: an engine taking it
            // at this very moment starts and stops it in the same tick. A card request is not
            // withdrawn at once: the engine starts a card payment one timer tick after it has
            // read "DueCC", from its own copy of the amount, so a withdrawal cannot stop it;
            // only a cancel once it runs can.
            if (!tracker.taken() && kind != RequestKind::Card) {
                withdraw();
            }
            if (kind != RequestKind::Change) {
                writeCancel(seconds);
            }
            cancelledAt = seconds;
        }
        if (cancelledAt && kind != RequestKind::Change) {
            // The engine drops a cancel that finds nothing running (a card payment about to
            // start) and clears "Cancel" on every tick, so one written at the wrong moment is
            // lost: it is written again until the request has ended.
            if (seconds - cancelWrittenAt >= kCancelRepeatSeconds &&
                store.get(app, kMailbox, mailbox::kCancel, "").empty()) {
                writeCancel(seconds);
            }
            if (kind == RequestKind::Card && !tracker.taken() && !withdrawn &&
                seconds - *cancelledAt >= kUntakenCardSeconds) {
                // An idle engine takes a card request within a second: none is serving this
                // store.
                withdraw();
            }
        }
        if (cancelledAt && seconds - *cancelledAt > kCancelWaitSeconds) {
            line.close();
            std::cerr << "ksxctl: the engine has not confirmed the cancel\n";
            break;
        }
        std::this_thread::sleep_for(kReadPeriod);
    }
    line.close();
    if (neverTaken && outcome != Outcome::Succeeded) {
        return finish(request, timedOut ? kExitTimeout : kExitNotDone, reading,
                      "no engine took the request (is kestrix running on this store?)");
    }
    if (outcome == Outcome::Succeeded) {
        // Served after all (the cancel came too late): the money has been taken.
        return finish(request, kExitOk, reading, "");
    }
    if (tracker.restarted()) {
        // Asking again could pay twice: the restart report says what happened.
        return finish(request, kExitRestarted, reading, tracker.reason());
    }
    std::string reason;
    if (outcome == Outcome::Failed && !tracker.reason().empty() &&
        tracker.reason() != reading.status) {
        reason = tracker.reason();
    }
    return finish(request, timedOut ? kExitTimeout : kExitNotDone, reading, reason);
}

}  // namespace

void addHostCommands(CLI::App& program, Context& context) {
    struct Arguments {
        std::string amount;
        std::string timeout;
        bool card = false;
        bool json = false;
        bool keep = false;
    };
    auto args = std::make_shared<Arguments>();
    const auto request = [args](RequestKind kind) {
        Request r;
        r.kind = kind;
        r.amount = checkedAmount(args->amount);
        if (!args->timeout.empty()) {
            r.timeoutSeconds = checkedTimeout(args->timeout);
        }
        r.json = args->json;
        return r;
    };
    const std::string timeoutHelp = "give up after S seconds (default " +
                                    kestrix::numberText(kDefaultTimeoutSeconds) +
                                    "): a payment is cancelled, a payout not yet begun withdrawn";

    CLI::App* pay =
        program.add_subcommand("pay", "AMOUNT [--card] [--timeout S] [--json]: take a payment");
    pay->footer(
        "Asks the engine for AMOUNT in cash (\"Due\") or by card (\"DueCC\"), follows \"Status\",\n"
        "\"Credit\" and \"Due\" on standard error until the payment ends, and prints the\n"
        "results on standard output. On a time-out or Ctrl+C the request is withdrawn or\n"
        "cancelled. Stops at once when no engine runs on the store (none started, or it has\n"
        "crashed): exit status 7.");
    pay->add_option("AMOUNT", args->amount, "the amount, such as 12.5")->required();
    pay->add_flag("--card", args->card, "charge a card instead of taking cash");
    pay->add_option("--timeout", args->timeout, timeoutHelp)->option_text("S");
    pay->add_flag("--json", args->json, "print the results as one JSON object");
    pay->callback([&context, args, request] {
        const Request r = request(args->card ? RequestKind::Card : RequestKind::Cash);
        context.action = [&context, r] { return follow(context, r); };
    });

    CLI::App* change =
        program.add_subcommand("change", "AMOUNT [--timeout S] [--json]: pay money out");
    change->footer(
        "Asks the engine to pay AMOUNT out (\"Change\"), waits for \"Change dispensed\" and\n"
        "prints \"ChangeDispensed\"; exit status 4 when it paid short.");
    change->add_option("AMOUNT", args->amount, "the amount, such as 7.5")->required();
    change->add_option("--timeout", args->timeout, timeoutHelp)->option_text("S");
    change->add_flag("--json", args->json, "print the results as one JSON object");
    change->callback([&context, request] {
        const Request r = request(RequestKind::Change);
        context.action = [&context, r] { return follow(context, r); };
    });

    CLI::App* cancel = program.add_subcommand("cancel", "[--keep]: cancel the running payment");
    cancel->footer(
        "Writes \"Cancel\" = \"1\" (with --keep \"2\": a cash payment keeps the credit\n"
        "inserted).");
    cancel->add_flag("--keep", args->keep, "keep the credit inserted so far");
    cancel->callback([&context, args] {
        context.action = [&context, args] {
            context.store().set(context.app(), kMailbox, mailbox::kCancel, args->keep ? "2" : "1");
            return kExitOk;
        };
    });

    CLI::App* exit =
        program.add_subcommand("exit", "ask the engine to shut down (\"Exit\" = \"1\")");
    exit->callback([&context] {
        context.action = [&context] {
            context.store().set(context.app(), kMailbox, mailbox::kExit, "1");
            return kExitOk;
        };
    });
}

}  // namespace ksxctl
