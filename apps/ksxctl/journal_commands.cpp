#include "journal_commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <memory>
#include <sstream>

#include "engine/journal/books.h"
#include "engine/platform/settings_store.h"
#include "ksxctl.h"
#include "platform_qt/sqlite_journal.h"
#include "platform_qt/sqlite_store.h"

namespace ksxctl {

namespace {

namespace jk = kestrix::journal_kind;
using kestrix::JournalRecord;
using kestrix::Money;
using kestrix::qt::SqliteJournal;

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::tm localTm(std::time_t seconds) {
    std::tm t{};
#ifdef _WIN32
    localtime_s(&t, &seconds);
#else
    localtime_r(&seconds, &t);
#endif
    return t;
}

std::tm utcTm(std::time_t seconds) {
    std::tm t{};
#ifdef _WIN32
    gmtime_s(&t, &seconds);
#else
    gmtime_r(&seconds, &t);
#endif
    return t;
}

// "2026-11-23 10:00:00.123", local time.
std::string localTime(std::int64_t ms, bool withMillis = true) {
    const std::tm t = localTm(static_cast<std::time_t>(ms / 1000));
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", t.tm_year + 1900,
                  t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
    std::string out = text;
    if (withMillis) {
        std::snprintf(text, sizeof text, ".%03d", static_cast<int>(ms % 1000));
        out += text;
    }
    return out;
}

// "2026-11-23T09:00:00.123Z".
std::string isoUtc(std::int64_t ms) {
    const std::tm t = utcTm(static_cast<std::time_t>(ms / 1000));
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", t.tm_year + 1900,
                  t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
                  static_cast<int>(ms % 1000));
    return text;
}

// An amount with two decimals, as a report prints money: "643.50", "-5.00".
std::string fixed(Money m) {
    const std::int64_t minor = m.minor();
    const std::int64_t magnitude = minor < 0 ? -minor : minor;
    char text[48];
    std::snprintf(text, sizeof text, "%s%lld.%02lld", minor < 0 ? "-" : "",
                  static_cast<long long>(magnitude / 100), static_cast<long long>(magnitude % 100));
    return text;
}

std::string jsonString(std::string_view s) {
    std::string out = "\"";
    for (const char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    out += escaped;
                } else {
                    out += c;
                }
        }
    }
    return out + "\"";
}

std::string jsonMoney(Money m) {
    return jsonString(m.text());
}

bool allDigits(std::string_view s) {
    if (s.empty()) {
        return false;
    }
    for (const char c : s) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

std::int64_t wholeNumber(std::string_view s, std::string_view what) {
    if (!allDigits(s) || s.size() > 15) {
        throw UsageError(std::string(what) + " takes a whole number, not '" + std::string(s) + "'");
    }
    return std::stoll(std::string(s));
}

void printRowText(const JournalRecord& r) {
    std::ostringstream line;
    char head[96];
    std::snprintf(head, sizeof head, "%8lld %s %7s %-19s", static_cast<long long>(r.sequence),
                  localTime(r.wallTimeMs).c_str(),
                  r.paymentId != 0 ? std::to_string(r.paymentId).c_str() : "-", r.kind.c_str());
    line << head;
    if (!r.device.empty()) {
        line << " device=" << r.device;
    }
    if (!r.amount.isZero()) {
        line << " amount=" << r.amount.text();
    }
    if (r.count != 0) {
        line << " count=" << r.count;
    }
    if (r.type != 0) {
        line << " type=" << r.type;
    }
    if (!r.raw.empty()) {
        line << " raw=" << oneLine(r.raw);
    }
    if (!r.requester.empty()) {
        line << " by=" << r.requester;
    }
    if (!r.reference.empty()) {
        line << " reference=" << oneLine(r.reference);
    }
    if (!r.detail.empty()) {
        line << " \"" << oneLine(r.detail) << "\"";
    }
    std::cout << line.str() << '\n';
}

std::string rowJson(const JournalRecord& r) {
    std::ostringstream o;
    o << "{\"seq\":" << r.sequence << ",\"time\":" << jsonString(isoUtc(r.wallTimeMs))
      << ",\"timeMs\":" << r.wallTimeMs << ",\"payment\":" << r.paymentId
      << ",\"kind\":" << jsonString(r.kind) << ",\"device\":" << jsonString(r.device)
      << ",\"amount\":" << jsonMoney(r.amount) << ",\"amountMinor\":" << r.amount.minor()
      << ",\"count\":" << r.count << ",\"type\":" << r.type << ",\"raw\":" << jsonString(r.raw)
      << ",\"detail\":" << jsonString(r.detail) << ",\"requester\":" << jsonString(r.requester)
      << ",\"reference\":" << jsonString(r.reference) << "}";
    return o.str();
}

// A "cash box emptied" row names the last row its report counted; the next totals start after
// it.
constexpr std::string_view kCountedThrough = "ksxctl totals --emptied, counted through row ";

std::int64_t countedThrough(const JournalRecord& emptied) {
    const std::string_view detail = emptied.detail;
    if (detail.rfind(kCountedThrough, 0) == 0 && allDigits(detail.substr(kCountedThrough.size()))) {
        return std::stoll(std::string(detail.substr(kCountedThrough.size())));
    }
    return emptied.sequence;
}

std::string journalFile(const std::string& file, const std::string& storeOption) {
    return file.empty() ? kestrix::qt::journalPathFor(kestrix::qt::resolveStorePath(storeOption))
                        : file;
}

}  // namespace

Since parseSince(std::string_view text, std::int64_t now) {
    Since s;
    s.text = std::string(text);
    const auto bad = [&text]() {
        return UsageError(
            "--since takes #ROW, a date (2026-11-01), a date and time (\"2026-11-01 "
            "08:00\") or a time ago (30m, 12h, 7d), not '" +
            std::string(text) + "'");
    };
    if (text.size() > 1 && text[0] == '#') {
        if (!allDigits(text.substr(1)) || text.size() > 16) {
            throw bad();
        }
        const std::int64_t row = std::stoll(std::string(text.substr(1)));
        s.afterSequence = row > 0 ? row - 1 : 0;
        return s;
    }
    if (text.size() >= 2 && text.size() <= 8 && allDigits(text.substr(0, text.size() - 1))) {
        const std::int64_t n = std::stoll(std::string(text.substr(0, text.size() - 1)));
        std::int64_t unitMs = 0;
        switch (text.back()) {
            case 'm':
                unitMs = 60'000;
                break;
            case 'h':
                unitMs = 3'600'000;
                break;
            case 'd':
                unitMs = 86'400'000;
                break;
            default:
                throw bad();
        }
        s.sinceMs = now - n * unitMs;
        return s;
    }
    std::tm t{};
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    char separator = 0;
    char rest = 0;
    const std::string copy(text);
    const int fields = std::sscanf(copy.c_str(), "%4d-%2d-%2d%c%2d:%2d:%2d%c", &year, &month, &day,
                                   &separator, &hour, &minute, &second, &rest);
    const bool dateOnly = fields == 3 && copy.size() == 10;
    const bool dateTime = (fields == 6 || fields == 7) && (separator == ' ' || separator == 'T');
    if (!(dateOnly || dateTime) || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 ||
        minute > 59 || second > 60) {
        throw bad();
    }
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    t.tm_isdst = -1;
    const std::time_t seconds = std::mktime(&t);
    if (seconds == static_cast<std::time_t>(-1)) {
        throw bad();
    }
    s.sinceMs = static_cast<std::int64_t>(seconds) * 1000;
    return s;
}

int runJournal(const std::string& storeOption, const CommandOptions& o) {
    SqliteJournal journal(journalFile(o.file, storeOption), SqliteJournal::Mode::Tool);
    kestrix::qt::JournalQuery q;
    if (o.since) {
        q.afterSequence = o.since->afterSequence;
        q.sinceMs = o.since->sinceMs;
    }
    q.paymentId = o.payment;
    const std::vector<JournalRecord> rows = journal.rows(q);
    if (o.json) {
        std::cout << "[";
        for (std::size_t i = 0; i < rows.size(); ++i) {
            std::cout << (i == 0 ? "\n" : ",\n") << rowJson(rows[i]);
        }
        std::cout << "\n]\n";
        return kExitOk;
    }
    for (const JournalRecord& r : rows) {
        printRowText(r);
    }
    return kExitOk;
}

int runTotals(const std::string& storeOption, const CommandOptions& o) {
    SqliteJournal journal(journalFile(o.file, storeOption), SqliteJournal::Mode::Tool);

    kestrix::qt::JournalQuery q;
    std::string from;
    std::optional<JournalRecord> lastEmptied;
    if (o.since) {
        q.afterSequence = o.since->afterSequence;
        q.sinceMs = o.since->sinceMs;
        from = "--since " + o.since->text;
    } else if ((lastEmptied = journal.last(jk::kCashBoxEmptied))) {
        q.afterSequence = countedThrough(*lastEmptied);
        from = "the cash box emptied at " + localTime(lastEmptied->wallTimeMs, false);
    } else {
        from = "the journal's first row";
    }
    const std::vector<JournalRecord> window = journal.rows(q);
    const std::int64_t start = !window.empty()
                                   ? window.front().sequence
                                   : std::max(q.afterSequence, journal.lastSequence()) + 1;
    // The last tube reading and refill before the start, and what moved since, still tell what
    // the engine knew.
    std::int64_t earliest = start;
    for (std::string_view kind : {jk::kTubeLevels, jk::kRefill}) {
        if (std::optional<JournalRecord> r = journal.last(kind, start)) {
            earliest = std::min(earliest, r->sequence);
        }
    }
    const std::vector<JournalRecord> rows =
        earliest < start ? journal.rows({.afterSequence = earliest - 1}) : window;
    const kestrix::books::Totals t = kestrix::books::totals(rows, start - 1);

    if (o.json) {
        std::ostringstream j;
        j << "{\"from\":" << jsonString(from) << ",\"fromSeq\":" << t.fromSequence
          << ",\"toSeq\":" << t.toSequence
          << ",\"fromTime\":" << (t.fromSequence != 0 ? jsonString(isoUtc(t.fromTimeMs)) : "null")
          << ",\"toTime\":" << (t.toSequence != 0 ? jsonString(isoUtc(t.toTimeMs)) : "null")
          << ",\"payments\":{\"cash\":" << t.cashPayments << ",\"card\":" << t.cardPayments
          << ",\"change\":" << t.changePayments << "},\"devices\":{";
        bool first = true;
        for (const auto& [device, money] : t.devices) {
            j << (first ? "" : ",") << jsonString(device) << ":{\"in\":" << jsonMoney(money.in)
              << ",\"out\":" << jsonMoney(money.out) << ",\"piecesIn\":" << money.coinsOrBillsIn
              << ",\"piecesOut\":" << money.coinsOrBillsOut << "}";
            first = false;
        }
        const std::optional<Money> tubes = t.tubesHeld();
        j << "},\"inserted\":" << jsonMoney(t.inserted())
          << ",\"paidOut\":" << jsonMoney(t.paidOut()) << ",\"toTubes\":" << jsonMoney(t.toTubes)
          << ",\"coinsToCashBox\":" << jsonMoney(t.coinsToCashBox)
          << ",\"notCredited\":" << jsonMoney(t.notCredited)
          << ",\"unpaid\":" << jsonMoney(t.unpaid)
          << ",\"interrupted\":" << jsonMoney(t.interrupted)
          << ",\"unknown\":" << jsonMoney(t.unknown)
          << ",\"cardApproved\":" << jsonMoney(t.cardApproved)
          << ",\"cashBox\":" << jsonMoney(t.cashBox())
          << ",\"tubes\":" << (tubes ? jsonMoney(*tubes) : "null") << ",\"tubesReadAt\":"
          << (t.tubeReading ? jsonString(isoUtc(t.tubeReading->wallTimeMs)) : "null")
          << ",\"billsSinceRefill\":" << t.billsSinceRefill
          << ",\"refillAt\":" << (t.refill ? jsonString(isoUtc(t.refill->wallTimeMs)) : "null")
          << "}";
        std::cout << j.str() << '\n';
    } else {
        const auto line = [](std::string_view label, Money m, std::string_view note = {}) {
            char text[160];
            std::snprintf(text, sizeof text, "  %-28s %12s", std::string(label).c_str(),
                          fixed(m).c_str());
            std::cout << text << (note.empty() ? "" : "  ") << note << '\n';
        };
        if (t.toSequence == 0) {
            std::cout << "No rows since " << from << ".\n";
        } else {
            std::cout << "Totals from " << localTime(t.fromTimeMs, false) << " to "
                      << localTime(t.toTimeMs, false) << " (rows " << t.fromSequence << " to "
                      << t.toSequence << "), counted from " << from << "\n";
        }
        std::cout << "Payments: " << t.cashPayments << " cash, " << t.cardPayments << " card, "
                  << t.changePayments << " change\n\nTaken in\n";
        for (const auto& [device, money] : t.devices) {
            if (money.in.positive()) {
                std::string note = std::to_string(money.coinsOrBillsIn) +
                                   (device == "changer" ? " coins" : " bills");
                if (device == "changer") {
                    note += ": to tubes " + fixed(t.toTubes) + ", to cash box " +
                            fixed(t.coinsToCashBox);
                }
                line(device, money.in, note);
            }
        }
        line("total", t.inserted());
        if (t.notCredited.positive()) {
            line("of which not credited", t.notCredited);
        }
        std::cout << "Paid out\n";
        for (const auto& [device, money] : t.devices) {
            if (money.out.positive()) {
                // Tube and hopper payouts are journalled as money; the dispenser's as bills too.
                line(device, money.out,
                     money.coinsOrBillsOut > 0 ? std::to_string(money.coinsOrBillsOut) +
                                                     (device == "dispenser" ? " bills" : " coins")
                                               : std::string());
            }
        }
        line("total", t.paidOut());
        std::cout << "Owed to customers\n";
        line("change not paid", t.unpaid);
        line("interrupted payments", t.interrupted, "(for the host to settle)");
        line("payouts of unknown outcome", t.unknown, "(at most; count the device to know)");
        std::cout << "Held, as the engine last knew\n";
        line("cash box", t.cashBox(), "taken in since the start of these totals");
        if (const std::optional<Money> tubes = t.tubesHeld()) {
            line("tubes", *tubes,
                 "read " + localTime(t.tubeReading->wallTimeMs, false) + ", then +" +
                     fixed(t.tubesInSinceReading) + " in, -" + fixed(t.tubesOutSinceReading) +
                     " out");
        } else {
            std::cout << "  tubes                        never read\n";
        }
        if (t.refill) {
            std::cout << "  cassette                     " << t.billsSinceRefill
                      << " bills paid since the refill of "
                      << localTime(t.refill->wallTimeMs, false) << " (" << t.refill->detail
                      << ")\n";
        }
        std::cout << "\n";
        line("Card sales approved", t.cardApproved);
    }

    if (o.emptied) {
        kestrix::JournalEntry row;
        row.kind = jk::kCashBoxEmptied;
        row.device = "cash box";
        row.amount = t.cashBox();
        row.requester = "operator";
        // Rows the engine wrote while this report was made belong to the next one.
        row.detail = std::string(kCountedThrough) +
                     std::to_string(t.toSequence != 0 ? t.toSequence : start - 1);
        if (journal.append(row) == 0) {
            throw kestrix::StoreError("journal " + journal.path() + ": cannot record the emptying");
        }
        if (!o.json) {
            std::cout << "\nCash box emptied: the next totals start here.\n";
        }
    }
    return kExitOk;
}

void addJournalCommands(CLI::App& program, Context& context) {
    struct Arguments {
        std::string since;
        std::string payment;
        bool json = false;
        bool emptied = false;
        std::string file;
    };
    auto args = std::make_shared<Arguments>();
    const auto options = [args](CLI::App* command) {
        command
            ->add_option("--since", args->since,
                         "from WHEN on: #ROW, a date (2026-11-01), \"DATE HH:MM\" or a time ago "
                         "(30m, 12h, 7d)")
            ->option_text("WHEN");
        command->add_flag("--json", args->json, "print the rows as JSON");
        command
            ->add_option("--file", args->file,
                         "the journal file (default: KSX-journal.db beside the store)")
            ->option_text("PATH");
    };
    const auto parsed = [args] {
        CommandOptions o;
        if (!args->since.empty()) {
            o.since = parseSince(args->since, nowMs());
        }
        if (!args->payment.empty()) {
            o.payment = wholeNumber(args->payment, "--payment");
            if (o.payment == 0) {
                throw UsageError("--payment takes a payment id greater than 0");
            }
        }
        o.json = args->json;
        o.emptied = args->emptied;
        o.file = args->file;
        return o;
    };

    CLI::App* journal = program.add_subcommand(
        "journal", "[--since WHEN] [--payment ID] [--json] [--file PATH]: the money journal");
    journal->footer(
        "Prints the engine's money journal (KSX-journal.db beside the store), one row a line.");
    options(journal);
    journal->add_option("--payment", args->payment, "only the rows of payment ID")
        ->option_text("ID");
    journal->callback([&context, parsed] {
        const CommandOptions o = parsed();
        context.action = [&context, o] { return runJournal(context.options().store, o); };
    });

    CLI::App* totals = program.add_subcommand(
        "totals", "[--since WHEN] [--emptied] [--json] [--file PATH]: money per device");
    totals->footer(
        "Money per device since the cash box was last emptied (or WHEN): taken in, paid out,\n"
        "owed, held. --emptied records that the cash box is emptied now.");
    options(totals);
    totals->add_flag("--emptied", args->emptied, "record that the cash box is emptied now");
    totals->callback([&context, parsed] {
        const CommandOptions o = parsed();
        context.action = [&context, o] { return runTotals(context.options().store, o); };
    });
}

}  // namespace ksxctl
