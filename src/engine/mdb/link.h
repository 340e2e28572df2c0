#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// The MDB interface adapter link (MSComm1).
//
// The engine is the MDB bus master but talks to the bus through a serial adapter: every bus word
// goes out as two raw bytes (data byte, mode byte: 01h on the address word, 00h otherwise), and
// every word a peripheral sends comes back as five text characters, "dd" "mm" and a space, in
// lower-case hexadecimal ("0b00 0b01 "). A peripheral sets the mode bit on its last word, so a
// complete message always ends in "01 "; a bare acknowledgement reads "0001 ".
//
// How a routine talks to a peripheral (the payment routines included):
//
//   1. Pick the use's row in a use table (`mdb::use` below for initialisation, recovery and exit;
//      the payment keeps its own rows beside its routines): wait, read limit, attempts, what an
//      unanswered attempt does. A new use gets a new row, never bare numbers in the routine.
//   2. Send the command and collect its reply in one call:
//          Exchange ex = link.exchange(mdb::commands::validatorPoll(), mdb::use::kValidatorPoll);
//      `exchange` writes the command (in one write or word by word, with any pauses the command
//      carries), waits the row's wait, flashes the transmit indicator, collects the reply within
//      the row's read limit and, when that runs out, sends `ackFrame` (if the row says so),
//      pauses the row's resend pause and sends again, up to the row's attempts. `ex.answered`
//      tells whether a reply was taken; a row with attempts `kWithoutEnd` returns only answered.
//      An optional acceptance test makes a complete reply count as unanswered (the BILL TYPE
//      wait refuses a reply that begins with "ff":  link.exchange(cmd, row, mdb::notNak)).
//   3. Acknowledge as the use requires: `link.acknowledge(reply)` sends `ackFrame` only when the
//      reply ends in "01 " (the usual rule, the peripheral's bare "0001 " included);
//      `link.sendAck()` sends it without a test; the poll tick and the payout watch skip the
//      acknowledgement of a bare "0001 " themselves (`reply.isBareAck()`).
//   4. `link.settle()` (0.1 s) after an acknowledged exchange, where the routine does.
//   5. Read the reply's bytes by position: `reply.number(k)`, `reply.hex(k)`, `reply.character(k)`.
//
// Routines with their own loop shape (a poll that keeps reading after a recovery, a tube status
// asked again until it is longer than an acknowledgement) use the pieces directly: `send`,
// `write`, `collect`, `collectMore`, `acknowledge`, `sendAck`, `settle`.
//
// Nothing here yields to the event loop: a read takes what has arrived (waiting at most the
// port's read quantum) and a pause blocks, so an exchange runs to its end before any tick or
// click. A port error (a port that is not open, a cable pulled mid-way) is thrown out of every
// operation to the calling routine's trap; an unlimited wait therefore ends on a vanished port.

namespace kestrix {

class Setup;
class MdbLink;

namespace mdb {

// --- Words, check bytes and commands ---------------------------------------------------------

inline constexpr std::uint8_t kModeAddress = 0x01;  // mode byte of a command's first word
inline constexpr std::uint8_t kModeData = 0x00;     // mode byte of every other word

// One bus word as the adapter takes it: data byte, then mode byte.
std::string word(std::uint8_t data, std::uint8_t mode);

// The low eight bits of the sum of the bytes: the check byte of a command (command byte plus
// data bytes).
std::uint8_t checkByte(std::span<const std::uint8_t> bytes);

// The whole frame of a command: address word, one word per data byte, check word.
std::string frame(std::uint8_t command, std::span<const std::uint8_t> data = {});

// A command as it goes on the wire: one or more writes, each optionally followed by a pause.
// The adapter treats a frame written at once and one written word by word alike.
class Command {
public:
    struct Write {
        std::string bytes;
        std::optional<double> pauseAfterSeconds;  // a Pause after this write, when set
    };

    // The frame in one write.
    static Command whole(std::string frameBytes);
    // The address word, each data word and the check word as separate writes.
    static Command wordByWord(std::uint8_t command, std::vector<std::uint8_t> data = {});
    // Already-built words as separate writes (two bytes each; a trailing odd byte is its own
    // write).
    static Command words(std::string_view frameBytes);

    // Pause `seconds` after write number `index` (from 0). Ignored past the last write.
    Command& pauseAfter(std::size_t index, double seconds);

    const std::vector<Write>& writes() const { return m_writes; }
    // Every byte of the command, in order.
    std::string bytes() const;

private:
    std::vector<Write> m_writes;
};

// Commands built word by word, as the routines send them.
namespace commands {
Command changerTubeStatus();        // 0A/01 0A/00
Command changerIdentification();    // 0F/01 00/00 0F/00
Command validatorReset();           // 30/01 30/00
Command validatorSetup();           // 31/01 31/00
Command validatorPoll();            // 33/01 33/00
Command validatorIdentification();  // 37/01 00/00 37/00
}  // namespace commands

// --- Replies ---------------------------------------------------------------------------------

// The value of a hexadecimal text as the link reads it: ConvertBaseNToDec with base 16, so a
// character that is no hexadecimal digit is a KsxError. An empty text (a byte past the end of a
// short reply) has no digits and counts 0: a peripheral may send a shorter SETUP than the
// longest one (fewer coin types), and a missing credit reads as an unused one rather than as an
// error.
double hexValue(std::string_view hexText);

// Reply text collected from the adapter.
class Reply {
public:
    Reply() = default;
    explicit Reply(std::string text);

    const std::string& text() const { return m_text; }
    std::size_t size() const { return m_text.size(); }
    bool empty() const { return m_text.empty(); }
    // Holds "01 " anywhere: the collect loop takes the reply as complete.
    bool complete() const { return m_complete; }
    // Ends in "01 ": the reply is acknowledged.
    bool endsComplete() const;
    // Exactly a peripheral's bare acknowledgement, "0001 ".
    bool isBareAck() const { return m_text == "0001 "; }
    bool startsWith(std::string_view prefix) const { return m_text.starts_with(prefix); }

    // Byte k (from 1): the two characters at text positions 5k-4 and 5k-3. Near or past the end
    // of the text it holds what is there: one character or none.
    std::string hex(int k) const;
    // Bytes `first`..`last` as one hexadecimal text ("0b" "c3" -> "0bc3").
    std::string hexJoined(int first, int last) const;
    // Byte k as a number (see hexValue: an absent byte counts 0; garbage is a KsxError).
    double number(int k) const { return hexValue(hex(k)); }
    // Byte k as decimal text; "" for an absent byte.
    std::string decimal(int k) const;
    // Byte k as the character of its code; "" for an absent byte or for garbage ("??").
    std::string character(int k) const;
    // Bytes `first`..`last` as characters, joined.
    std::string characters(int first, int last) const;

    // The reply's first message (its words up to the first one with the mode bit) as data bytes
    // without the check byte, when every word of it is well formed ("hhmm " with mode 00 or 01)
    // and its check byte is the sum of the other bytes; empty for a bare acknowledgement. None for
    // a negative acknowledgement, an unfinished message, garbage or a wrong check byte: such a
    // reply is not read for money, and not acknowledged, so the peripheral sends it again.
    std::optional<std::vector<std::uint8_t>> message() const;
    // The message's data bytes alone as reply text ("dd00 " each), for reading fields by
    // position: they hold the device's data whatever junk the line added, and bytes past the
    // data read as absent (no check byte is read as a coin's credit). The identification's
    // displays keep the check byte where they have always shown it (`withCheckByte`). The reply
    // itself when its message cannot be read.
    Reply data(bool withCheckByte = false) const;

    // Complete, and within the read limit of the loop that collected it.
    bool answered() const { return !m_limitEnded && complete(); }
    // Reads the last collect loop made.
    long long reads() const { return m_reads; }

private:
    friend class kestrix::MdbLink;
    void append(std::string_view more);

    std::string m_text;
    long long m_reads = 0;
    bool m_limitEnded = false;
    bool m_complete = false;
};

// A reply that does not begin with an MDB negative acknowledgement (data byte FFh).
bool notNak(const Reply& reply);
// A reply whose message can be read (well-formed words, a right check byte): what a reply that
// money or coin values are read from must be; an unreadable one is asked for again.
bool readable(const Reply& reply);

// --- The use table -----------------------------------------------------------------------------

// How many reads a reply may take. The reply must be complete by read `completeBy`; the next read
// ends the wait, whatever it brings (its bytes go with the unfinished reply). A use "limited to
// N reads" whose count must pass N therefore uses completeBy(N) and makes N + 1 reads when
// nothing comes; a use that makes at most N reads uses completeBy(N - 1). Each read waits at
// most the port's read quantum when nothing has arrived, so 500 silent reads last about a
// second.
struct ReadLimit {
    long long completeBy = 0;  // 0: no limit, the wait lasts until the reply is complete
    constexpr bool bounded() const { return completeBy > 0; }
    constexpr long long readsWhenUnanswered() const { return completeBy + 1; }
};
inline constexpr ReadLimit kNoReadLimit{0};
constexpr ReadLimit completeBy(long long reads) {
    return ReadLimit{reads};
}

inline constexpr int kWithoutEnd = 0;  // attempts: resend until the peripheral answers

// One use of the link: how a command is waited for, and what happens when it is not answered.
struct LinkUse {
    std::string_view name;
    double waitBeforeReadSeconds;  // Pause between the command and its first read
    ReadLimit limit;               // reads per attempt
    int attempts;                  // kWithoutEnd, or the number of sends before giving up
    bool ackAfterUnanswered;       // `ackFrame` after each unanswered attempt
    double pauseBeforeResendSeconds;
    std::string_view whenExhausted;  // what the routine does when every attempt went unanswered
};

// The settle pause after an acknowledged exchange.
inline constexpr double kSettleSeconds = 0.1;
// A tube status reply is asked for again until it is at least this long: a bare acknowledgement
// ("0001 ", 5 characters) is not a tube status.
inline constexpr std::size_t kTubeStatusMinChars = 7;
// The validator's commands at initialisation and in recovery that give up: the first try and
// 300 more.
inline constexpr int kValidatorAttempts = 301;
// Sends of a command that the device is trusted to answer (it has just answered another) before
// it counts as failed: no command is sent again without end.
inline constexpr int kDeviceAttempts = 10;

namespace use {
// Equipment initialisation. The first command to each peripheral proves that it is there and is
// limited; the commands after it are trusted to be answered and wait as long as it takes.
inline constexpr LinkUse kChangerReset{.name = "Changer RESET",
                                       .waitBeforeReadSeconds = 0,
                                       .limit = completeBy(500),
                                       .attempts = 1,
                                       .ackAfterUnanswered = false,
                                       .pauseBeforeResendSeconds = 0,
                                       .whenExhausted = "coin changer declared absent"};
inline constexpr LinkUse kChangerSetup{.name = "Changer SETUP",
                                       .waitBeforeReadSeconds = 0,
                                       .limit = completeBy(500),
                                       .attempts = kDeviceAttempts,
                                       .ackAfterUnanswered = true,
                                       .pauseBeforeResendSeconds = 0,
                                       .whenExhausted = "coin changer declared absent"};
inline constexpr LinkUse kChangerIdentification{.name = "Changer EXPANSION identification",
                                                .waitBeforeReadSeconds = 0,
                                                .limit = completeBy(500),
                                                .attempts = kDeviceAttempts,
                                                .ackAfterUnanswered = true,
                                                .pauseBeforeResendSeconds = 0,
                                                .whenExhausted = "coin changer declared absent"};
// Asked again, each time with its wait, until the reply is at least kTubeStatusMinChars long.
inline constexpr LinkUse kChangerTubeStatus{.name = "Changer TUBE STATUS",
                                            .waitBeforeReadSeconds = 0.5,
                                            .limit = completeBy(500),
                                            .attempts = kDeviceAttempts,
                                            .ackAfterUnanswered = true,
                                            .pauseBeforeResendSeconds = 0,
                                            .whenExhausted = "coin changer declared absent"};
// 50 reads an attempt: the reply must be complete by the 49th, the 50th ends the attempt.
inline constexpr LinkUse kValidatorReset{.name = "Validator RESET",
                                         .waitBeforeReadSeconds = 0.5,
                                         .limit = completeBy(49),
                                         .attempts = kValidatorAttempts,
                                         .ackAfterUnanswered = true,
                                         .pauseBeforeResendSeconds = 0,
                                         .whenExhausted = "bill validator declared absent"};
inline constexpr LinkUse kValidatorPoll{.name = "Validator POLL",
                                        .waitBeforeReadSeconds = 0.5,
                                        .limit = completeBy(49),
                                        .attempts = kValidatorAttempts,
                                        .ackAfterUnanswered = true,
                                        .pauseBeforeResendSeconds = 0,
                                        .whenExhausted = "bill validator declared absent"};
inline constexpr LinkUse kValidatorSetup{.name = "Validator SETUP",
                                         .waitBeforeReadSeconds = 0.5,
                                         .limit = completeBy(49),
                                         .attempts = kValidatorAttempts,
                                         .ackAfterUnanswered = true,
                                         .pauseBeforeResendSeconds = 0,
                                         .whenExhausted = "bill validator declared absent"};
inline constexpr LinkUse kValidatorIdentification{
    .name = "Validator EXPANSION identification",
    .waitBeforeReadSeconds = 0.5,
    .limit = completeBy(49),
    .attempts = kValidatorAttempts,
    .ackAfterUnanswered = true,
    .pauseBeforeResendSeconds = 0,
    .whenExhausted = "bill validator declared absent"};

// Bill validator recovery during a payment: each stage has its own attempts.
inline constexpr LinkUse kRecoveryReset{
    .name = "Validator RESET in recovery",
    .waitBeforeReadSeconds = 0.5,
    .limit = completeBy(49),
    .attempts = kValidatorAttempts,
    .ackAfterUnanswered = true,
    .pauseBeforeResendSeconds = 0,
    .whenExhausted = "recovery gives up: equipment needs initialising"};
inline constexpr LinkUse kRecoveryPoll{
    .name = "Validator POLL in recovery",
    .waitBeforeReadSeconds = 0.5,
    .limit = completeBy(49),
    .attempts = kValidatorAttempts,
    .ackAfterUnanswered = true,
    .pauseBeforeResendSeconds = 0,
    .whenExhausted = "recovery gives up: equipment needs initialising"};
// 200 reads an attempt.
inline constexpr LinkUse kRecoveryBillType{
    .name = "Validator BILL TYPE in recovery",
    .waitBeforeReadSeconds = 0,
    .limit = completeBy(199),
    .attempts = kValidatorAttempts,
    .ackAfterUnanswered = true,
    .pauseBeforeResendSeconds = 0,
    .whenExhausted = "recovery gives up: equipment needs initialising"};

// Exit. Every device gets a few tries, then the process ends all the same: an engine that
// cannot end holds the kiosk's ports and ignores the service manager.
inline constexpr LinkUse kExitChangerReset{.name = "Changer RESET at exit",
                                           .waitBeforeReadSeconds = 0,
                                           .limit = completeBy(200),
                                           .attempts = 5,
                                           .ackAfterUnanswered = true,
                                           .pauseBeforeResendSeconds = 0,
                                           .whenExhausted = "left as it is: the process ends"};
inline constexpr LinkUse kExitValidatorReset{.name = "Validator RESET at exit",
                                             .waitBeforeReadSeconds = 0,
                                             .limit = completeBy(200),
                                             .attempts = 5,
                                             .ackAfterUnanswered = true,
                                             .pauseBeforeResendSeconds = 0,
                                             .whenExhausted = "left as it is: the process ends"};
inline constexpr LinkUse kExitValidatorPoll{.name = "Validator POLL at exit",
                                            .waitBeforeReadSeconds = 0,
                                            .limit = completeBy(200),
                                            .attempts = 3,
                                            .ackAfterUnanswered = true,
                                            .pauseBeforeResendSeconds = 0,
                                            .whenExhausted = "left as it is: the process ends"};
}  // namespace use

// Every row above, for listings and checks.
std::span<const LinkUse> useTable();

// The result of `MdbLink::exchange`.
struct Exchange {
    Reply reply;  // the last attempt's reply (unfinished when not answered)
    bool answered = false;
    long long attempts = 0;  // sends made
};

// The frames built once at load and kept for the whole run.
struct PreparedFrames {
    std::string caResetFrame;        // 08 01 08 00
    std::string caSetupFrame;        // 09 01 09 00
    std::string caTubeStatusFrame;   // 0A 01 0A 00
    std::string caPollFrame;         // 0B 01 0B 00
    std::string ackFrame;            // 00 00
    std::string caExpansionIdFrame;  // 0F 01 00 00 0F 00
    std::string bvResetFrame;        // 30 01 30 00
    std::string bvSetupFrame;        // 31 01 31 00
    std::string bvPollFrame;         // 33 01 33 00
    std::string bvEscrowFrame;       // 35 01 35 00
};

PreparedFrames buildPreparedFrames();

}  // namespace mdb

// The MDB interface adapter link on MSComm1.
class MdbLink {
public:
    static constexpr std::string_view kLineSettings = "9600,N,8,1";

    explicit MdbLink(Setup& setup);

    // Builds the prepared frames; called once by the console's load.
    void prepareFrames();
    const mdb::PreparedFrames& frames() const { return m_frames; }

    // Opens MSComm1 on the port in `comPorts` (closing it first if open). The port text must be a
    // whole number: anything else is a run-time error, as is a port that cannot be opened.
    void open();
    bool isOpen() const;

    // Writes the command (with its pauses), without the indicator.
    void write(const mdb::Command& command);
    // Writes the command, then flashes the transmit indicator.
    void send(const mdb::Command& command);
    // A prepared frame in one write, then the transmit indicator.
    void send(std::string_view frameBytes);

    // Collects a reply: reads, appending each read and flashing the receive indicator, until the
    // text holds "01 " or the limit ends the wait (then `reply.answered()` is false). The reply
    // starts empty; bytes that arrive after it was taken as complete stay in the port for the next
    // exchange.
    mdb::Reply collect(mdb::ReadLimit limit);
    // Goes on collecting into `reply` with a fresh read count; true when it became complete.
    bool collectMore(mdb::Reply& reply, mdb::ReadLimit limit);

    // `ackFrame` and the transmit indicator, only when the reply ends in "01 ". True when sent.
    bool acknowledge(const mdb::Reply& reply);
    // `ackFrame` without a test (no indicator: callers flash it where they do).
    void sendAck();
    void settle(double seconds = mdb::kSettleSeconds);

    // One command with its use's wait, read limit and attempts (see the top of this file).
    // `accept`, when given, must also hold for a complete reply to count as answered.
    mdb::Exchange exchange(const mdb::Command& command, const mdb::LinkUse& use,
                           const std::function<bool(const mdb::Reply&)>& accept = {});

    // The MDB part of Exit: resets the changer, then resets the validator (without end) and takes
    // its first poll. Devices whose check box is clear get nothing.
    void shutDownDevices();

    Setup& setup() { return m_setup; }

    // Text kept while a reply never completes; older garbage is dropped beyond it so a line that
    // babbles for hours cannot exhaust memory.
    static constexpr std::size_t kMaxPendingReplyChars = 1 << 20;

private:
    Setup& m_setup;
    mdb::PreparedFrames m_frames;
};

}  // namespace kestrix
