#include "host_commands.h"

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

#include "engine/formulas.h"
#include "engine/settings/layout.h"
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

std::atomic<int> g_interrupts{0};

extern "C" void onRequestInterrupt(int) {
    g_interrupts.fetch_add(1);
}

bool stdoutIsTerminal() {
#ifdef _WIN32
    return _isatty(_fileno(stdout)) != 0;
#else
    return isatty(STDOUT_FILENO) != 0;
#endif
}

// The progress of a request on one line: rewritten in place on a terminal, a new line for each
// change otherwise (logs, pipes).
class LiveLine {
public:
    explicit LiveLine(bool terminal) : m_terminal(terminal) {}

    void show(const std::string& text) {
        if (text == m_last) {
            return;
        }
        m_last = text;
        if (m_terminal) {
            std::cout << '\r' << text << "\x1b[K" << std::flush;
            m_open = true;
        } else {
            std::cout << text << std::endl;
        }
    }
    // Ends the line in place, so that what follows starts on a line of its own.
    void close() {
        if (m_open) {
            std::cout << '\n';
            m_open = false;
        }
        std::cout.flush();
    }

private:
    bool m_terminal;
    bool m_open = false;
    std::string m_last;
};

std::string progressText(RequestKind kind, const MailboxReading& r, bool taken) {
    std::string status =
        r.status.empty() ? (taken ? "..." : "waiting for the engine...") : oneLine(r.status);
    switch (kind) {
        case RequestKind::Cash:
            return status + " | credit " + r.credit + " | due " + r.due;
        case RequestKind::Card:
            return status + " | credit " + r.credit + " | DueCC " + r.dueCC;
        case RequestKind::Change:
            return status + " | dispensed " + r.changeDispensed;
    }
    return status;
}

void printResults(RequestKind kind, const MailboxReading& r) {
    const auto line = [](std::string_view key, const std::string& value) {
        std::cout << key << '=' << oneLine(value) << '\n';
    };
    line(mailbox::kStatus, r.status);
    switch (kind) {
        case RequestKind::Cash:
            line(mailbox::kCredit, r.credit);
            line(mailbox::kDue, r.due);
            line(mailbox::kChangeDispensed, r.changeDispensed);
            line(mailbox::kTubes, r.tubes);
            line(mailbox::kKsxError, r.ksxError);
            break;
        case RequestKind::Card:
            line(mailbox::kCredit, r.credit);
            line(mailbox::kDueCC, r.dueCC);
            break;
        case RequestKind::Change:
            line(mailbox::kChangeDispensed, r.changeDispensed);
            line(mailbox::kTubes, r.tubes);
            break;
    }
    std::cout.flush();
}

// Parses "--timeout SECONDS" / "--timeout=SECONDS" at args[i]; advances i past its value.
bool takeTimeout(const Args& args, std::size_t& i, std::optional<double>& timeout) {
    const std::string& a = args[i];
    std::string value;
    if (a == "--timeout") {
        if (i + 1 >= args.size()) {
            throw UsageError("--timeout needs a number of seconds");
        }
        value = args[++i];
    } else if (a.rfind("--timeout=", 0) == 0) {
        value = a.substr(10);
    } else {
        return false;
    }
    if (!validAmount(value)) {
        throw UsageError("--timeout needs a positive number of seconds, not '" + value + "'");
    }
    timeout = kestrix::leadingNumber(value);
    return true;
}

// "-5" is a bad amount, not an option.
bool looksLikeOption(const std::string& arg) {
    return arg.size() > 1 && arg[0] == '-' && !(arg[1] >= '0' && arg[1] <= '9') && arg[1] != '.';
}

std::string checkedAmount(const std::string& text) {
    if (!validAmount(text)) {
        throw UsageError("AMOUNT must be a positive decimal number such as 12 or 12.5, not '" +
                         text + "'");
    }
    return text;
}

// Writes a request and follows the mailbox until the engine has served it.
int follow(kestrix::SettingsStore& store, std::string_view app, RequestKind kind,
           const std::string& amountText, std::optional<double> timeout) {
    const std::string_view key = requestKey(kind);
    const MailboxReading before = readMailbox(store, app);
    if (const std::string pending = pendingRequest(before); !pending.empty()) {
        std::cerr << "ksxctl: busy: \"" << pending << "\" is pending or being served (" << pending
                  << " = " << store.get(app, kMailbox, pending, "")
                  << "); try again when it is done\n";
        return kExitBusy;
    }
    // "Status" is the engine's to write and it never reads it; blanking it marks where this
    // request begins, so no earlier result can be taken for this one's.
    store.set(app, kMailbox, mailbox::kStatus, "");
    store.set(app, kMailbox, key, amountText);

    g_interrupts = 0;
    std::signal(SIGINT, onRequestInterrupt);
    std::signal(SIGTERM, onRequestInterrupt);

    RequestTracker tracker(kind, kestrix::leadingNumber(amountText));
    LiveLine line(stdoutIsTerminal());
    const auto start = std::chrono::steady_clock::now();
    const auto elapsed = [&start] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    bool timedOut = false;
    std::optional<double> cancelledAt;
    double cancelWrittenAt = 0;
    bool withdrawn = false;
    bool neverTaken = false;
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
        line.show(progressText(kind, reading, tracker.taken()));
        if (outcome != Outcome::Pending) {
            break;
        }
        if (g_interrupts >= 2) {
            line.close();
            std::cerr << "ksxctl: stopped waiting; the engine may still be serving the request\n";
            printResults(kind, reading);
            return kExitInterrupted;
        }
        const bool interrupted = g_interrupts == 1;
        const bool expired = timeout && seconds >= *timeout;
        if (!cancelledAt && (interrupted || expired)) {
            timedOut = expired && !interrupted;
            line.close();
            const char* const why = timedOut ? "timed out" : "interrupted";
            if (kind == RequestKind::Change && tracker.taken()) {
                // A payout cannot be stopped once it has begun.
                std::cerr << "ksxctl: " << why << "; the payout has begun and cannot be stopped\n";
                printResults(kind, reading);
                return timedOut ? kExitTimeout : kExitInterrupted;
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
    printResults(kind, reading);
    if (neverTaken && outcome != Outcome::Succeeded) {
        std::cerr << "ksxctl: no engine took the request (is kestrix running on this store?)\n";
        return timedOut ? kExitTimeout : kExitNotDone;
    }
    if (outcome == Outcome::Succeeded) {
        // Served after all (the cancel came too late): the money has been taken.
        return kExitOk;
    }
    if (tracker.restarted()) {
        std::cerr << "ksxctl: " << tracker.reason() << '\n';
        return kExitRestarted;
    }
    if (outcome == Outcome::Failed && !tracker.reason().empty() &&
        tracker.reason() != reading.status) {
        std::cerr << "ksxctl: " << tracker.reason() << '\n';
    }
    return timedOut ? kExitTimeout : kExitNotDone;
}

}  // namespace

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

int runPay(kestrix::SettingsStore& store, std::string_view app, const Args& args) {
    std::optional<std::string> amount;
    std::optional<double> timeout;
    bool card = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--card") {
            card = true;
        } else if (takeTimeout(args, i, timeout)) {
        } else if (looksLikeOption(args[i])) {
            throw UsageError("pay: unknown option '" + args[i] + "'");
        } else if (amount) {
            throw UsageError("pay takes one AMOUNT; '" + args[i] + "' is extra");
        } else {
            amount = checkedAmount(args[i]);
        }
    }
    if (!amount) {
        throw UsageError("pay needs an AMOUNT");
    }
    return follow(store, app, card ? RequestKind::Card : RequestKind::Cash, *amount, timeout);
}

int runChange(kestrix::SettingsStore& store, std::string_view app, const Args& args) {
    std::optional<std::string> amount;
    std::optional<double> timeout;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (takeTimeout(args, i, timeout)) {
        } else if (looksLikeOption(args[i])) {
            throw UsageError("change: unknown option '" + args[i] + "'");
        } else if (amount) {
            throw UsageError("change takes one AMOUNT; '" + args[i] + "' is extra");
        } else {
            amount = checkedAmount(args[i]);
        }
    }
    if (!amount) {
        throw UsageError("change needs an AMOUNT");
    }
    return follow(store, app, RequestKind::Change, *amount, timeout);
}

int runCancel(kestrix::SettingsStore& store, std::string_view app, const Args& args) {
    bool keep = false;
    for (const std::string& a : args) {
        if (a != "--keep") {
            throw UsageError("cancel: unknown argument '" + a + "'");
        }
        keep = true;
    }
    store.set(app, kMailbox, mailbox::kCancel, keep ? "2" : "1");
    return kExitOk;
}

int runExit(kestrix::SettingsStore& store, std::string_view app, const Args&) {
    store.set(app, kMailbox, mailbox::kExit, "1");
    return kExitOk;
}

}  // namespace ksxctl
