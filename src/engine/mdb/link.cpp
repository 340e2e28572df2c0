#include "link.h"

#include <array>
#include <cstdio>

#include "../errors.h"
#include "../formulas.h"
#include "../setup.h"

namespace kestrix {

namespace mdb {

// --- Words, check bytes and commands ---------------------------------------------------------

std::string word(std::uint8_t data, std::uint8_t mode) {
    std::string w;
    w += static_cast<char>(data);
    w += static_cast<char>(mode);
    return w;
}

std::uint8_t checkByte(std::span<const std::uint8_t> bytes) {
    unsigned sum = 0;
    for (std::uint8_t b : bytes) {
        sum += b;
    }
    return static_cast<std::uint8_t>(sum & 0xFFu);
}

namespace {

std::vector<std::uint8_t> withCommand(std::uint8_t command, std::span<const std::uint8_t> data) {
    std::vector<std::uint8_t> all;
    all.reserve(data.size() + 1);
    all.push_back(command);
    all.insert(all.end(), data.begin(), data.end());
    return all;
}

}  // namespace

std::string frame(std::uint8_t command, std::span<const std::uint8_t> data) {
    std::string f = word(command, kModeAddress);
    for (std::uint8_t b : data) {
        f += word(b, kModeData);
    }
    f += word(checkByte(withCommand(command, data)), kModeData);
    return f;
}

Command Command::whole(std::string frameBytes) {
    Command c;
    c.m_writes.push_back({std::move(frameBytes), std::nullopt});
    return c;
}

Command Command::words(std::string_view frameBytes) {
    Command c;
    for (std::size_t i = 0; i < frameBytes.size(); i += 2) {
        c.m_writes.push_back({std::string(frameBytes.substr(i, 2)), std::nullopt});
    }
    return c;
}

Command Command::wordByWord(std::uint8_t command, std::vector<std::uint8_t> data) {
    return words(frame(command, data));
}

Command& Command::pauseAfter(std::size_t index, double seconds) {
    if (index < m_writes.size()) {
        m_writes[index].pauseAfterSeconds = seconds;
    }
    return *this;
}

std::string Command::bytes() const {
    std::string all;
    for (const Write& w : m_writes) {
        all += w.bytes;
    }
    return all;
}

namespace commands {
Command changerTubeStatus() {
    return Command::wordByWord(0x0A);
}
Command changerIdentification() {
    return Command::wordByWord(0x0F, {0x00});
}
Command validatorReset() {
    return Command::wordByWord(0x30);
}
Command validatorSetup() {
    return Command::wordByWord(0x31);
}
Command validatorPoll() {
    return Command::wordByWord(0x33);
}
Command validatorIdentification() {
    return Command::wordByWord(0x37, {0x00});
}
}  // namespace commands

// --- Replies ---------------------------------------------------------------------------------

namespace {
constexpr std::string_view kEndMarker = "01 ";
constexpr std::size_t kCharsPerByte = 5;
}  // namespace

double hexValue(std::string_view hexText) {
    if (hexText.empty()) {
        return 0;
    }
    return leadingNumber(ConvertBaseNToDec(hexText, 16));
}

Reply::Reply(std::string text)
    : m_text(std::move(text)), m_complete(m_text.find(kEndMarker) != std::string::npos) {}

bool Reply::endsComplete() const {
    return m_text.ends_with(kEndMarker);
}

std::string Reply::hex(int k) const {
    if (k < 1) {
        return {};
    }
    const std::size_t start = (static_cast<std::size_t>(k) - 1) * kCharsPerByte;
    if (start >= m_text.size()) {
        return {};
    }
    return m_text.substr(start, 2);
}

std::string Reply::hexJoined(int first, int last) const {
    std::string joined;
    for (int k = first; k <= last; ++k) {
        joined += hex(k);
    }
    return joined;
}

std::string Reply::decimal(int k) const {
    const std::string h = hex(k);
    return h.empty() ? std::string() : ConvertBaseNToDec(h, 16);
}

std::string Reply::character(int k) const {
    const std::string h = hex(k);
    double code = -1;
    // Garbage (no hexadecimal byte) shows as nothing.
    if (h.empty() || !trapped([&] { code = hexValue(h); }) || code < 0 || code > 255) {
        return {};
    }
    return std::string(1, static_cast<char>(static_cast<unsigned char>(code)));
}

std::string Reply::characters(int first, int last) const {
    std::string text;
    for (int k = first; k <= last; ++k) {
        text += character(k);
    }
    return text;
}

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

std::optional<std::vector<std::uint8_t>> Reply::message() const {
    constexpr std::uint8_t kNak = 0xFF;
    std::vector<std::uint8_t> bytes;
    std::size_t at = 0;
    while (at + kCharsPerByte <= m_text.size()) {
        const int d1 = hexDigit(m_text[at]);
        const int d2 = hexDigit(m_text[at + 1]);
        const std::string_view mode(m_text.data() + at + 2, 2);
        if (d1 < 0 || d2 < 0 || m_text[at + 4] != ' ' || (mode != "00" && mode != "01")) {
            // Junk a noisy adapter put between words is passed over; a word it damaged leaves
            // the check byte wrong, and the message is refused below.
            ++at;
            continue;
        }
        bytes.push_back(static_cast<std::uint8_t>(d1 * 16 + d2));
        at += kCharsPerByte;
        if (mode == "01") {
            if (bytes.size() == 1) {
                // A lone word with the mode bit: ACK (00h) or NAK (FFh), no check byte.
                if (bytes[0] == 0x00) {
                    return std::vector<std::uint8_t>{};
                }
                if (bytes[0] == kNak) {
                    return std::nullopt;
                }
            }
            const std::uint8_t check = bytes.back();
            bytes.pop_back();
            if (checkByte(bytes) != check) {
                return std::nullopt;
            }
            return bytes;
        }
    }
    return std::nullopt;
}

Reply Reply::data(bool withCheckByte) const {
    std::optional<std::vector<std::uint8_t>> bytes = message();
    if (!bytes) {
        return *this;
    }
    if (withCheckByte) {
        bytes->push_back(checkByte(*bytes));
    }
    std::string text;
    char buf[8];
    for (const std::uint8_t b : *bytes) {
        std::snprintf(buf, sizeof buf, "%02x00 ", b);
        text += buf;
    }
    return Reply(std::move(text));
}

void Reply::append(std::string_view more) {
    // Only the new text (and the two characters before it) can hold a new end marker, so a long
    // reply is not searched again on every read.
    const std::size_t from = m_text.size() < 2 ? 0 : m_text.size() - 2;
    m_text.append(more);
    if (!m_complete) {
        m_complete = m_text.find(kEndMarker, from) != std::string::npos;
    }
    if (!m_complete && m_text.size() > MdbLink::kMaxPendingReplyChars) {
        // Keep the last two characters: they may be the start of the end marker.
        m_text.erase(0, m_text.size() - 2);
    }
}

bool notNak(const Reply& reply) {
    return !reply.startsWith("ff");
}

bool readable(const Reply& reply) {
    return reply.message().has_value();
}

// --- The use table -----------------------------------------------------------------------------

std::span<const LinkUse> useTable() {
    static constexpr std::array<LinkUse, 14> kTable = {
        use::kChangerReset,          use::kChangerSetup,
        use::kChangerIdentification, use::kChangerTubeStatus,
        use::kValidatorReset,        use::kValidatorPoll,
        use::kValidatorSetup,        use::kValidatorIdentification,
        use::kRecoveryReset,         use::kRecoveryPoll,
        use::kRecoveryBillType,      use::kExitChangerReset,
        use::kExitValidatorReset,    use::kExitValidatorPoll,
    };
    return kTable;
}

PreparedFrames buildPreparedFrames() {
    PreparedFrames f;
    f.caResetFrame = frame(0x08);
    f.caSetupFrame = frame(0x09);
    f.caTubeStatusFrame = frame(0x0A);
    f.caPollFrame = frame(0x0B);
    // The master's ACK is a lone data word: no address word, no check word.
    f.ackFrame = word(0x00, kModeData);
    // EXPANSION (0F) with its identification sub-command 00.
    f.caExpansionIdFrame = frame(0x0F, std::array<std::uint8_t, 1>{0x00});
    f.bvResetFrame = frame(0x30);
    f.bvSetupFrame = frame(0x31);
    f.bvPollFrame = frame(0x33);
    // ESCROW with no data byte, only its check byte.
    f.bvEscrowFrame = frame(0x35);
    return f;
}

}  // namespace mdb

// --- The link ----------------------------------------------------------------------------------

MdbLink::MdbLink(Setup& setup) : m_setup(setup) {}

void MdbLink::prepareFrames() {
    m_frames = mdb::buildPreparedFrames();
}

void MdbLink::open() {
    SerialPort& port = m_setup.platform().mdbPort;
    if (port.isOpen()) {
        port.close();
    }
    // The port list holds the port number as text; junk there is a run-time error that the
    // caller's trap reports as a port error.
    const int portNumber = strictInt(m_setup.console().text("comPorts"));
    port.open(portNumber, kLineSettings);
}

bool MdbLink::isOpen() const {
    return m_setup.platform().mdbPort.isOpen();
}

void MdbLink::write(const mdb::Command& command) {
    SerialPort& port = m_setup.platform().mdbPort;
    for (const mdb::Command::Write& w : command.writes()) {
        port.write(w.bytes);
        if (w.pauseAfterSeconds) {
            m_setup.pause(*w.pauseAfterSeconds);
        }
    }
}

void MdbLink::send(const mdb::Command& command) {
    write(command);
    m_setup.console().BlinkTx();
}

void MdbLink::send(std::string_view frameBytes) {
    m_setup.platform().mdbPort.write(frameBytes);
    m_setup.console().BlinkTx();
}

mdb::Reply MdbLink::collect(mdb::ReadLimit limit) {
    mdb::Reply reply;
    collectMore(reply, limit);
    return reply;
}

bool MdbLink::collectMore(mdb::Reply& reply, mdb::ReadLimit limit) {
    SerialPort& port = m_setup.platform().mdbPort;
    Console& console = m_setup.console();
    reply.m_reads = 0;
    reply.m_limitEnded = false;
    for (;;) {
        reply.append(port.read());
        console.BlinkRx();
        ++reply.m_reads;
        // Past termination's deadline no wait goes on, whatever its limit.
        if ((limit.bounded() && reply.m_reads > limit.completeBy) || m_setup.pastDeadline()) {
            reply.m_limitEnded = true;
            return false;
        }
        if (reply.complete()) {
            return true;
        }
    }
}

bool MdbLink::acknowledge(const mdb::Reply& reply) {
    if (!reply.endsComplete()) {
        return false;
    }
    m_setup.platform().mdbPort.write(m_frames.ackFrame);
    m_setup.console().BlinkTx();
    return true;
}

void MdbLink::sendAck() {
    m_setup.platform().mdbPort.write(m_frames.ackFrame);
}

void MdbLink::settle(double seconds) {
    m_setup.pause(seconds);
}

mdb::Exchange MdbLink::exchange(const mdb::Command& command, const mdb::LinkUse& use,
                                const std::function<bool(const mdb::Reply&)>& accept) {
    mdb::Exchange ex;
    for (;;) {
        write(command);
        ++ex.attempts;
        if (use.waitBeforeReadSeconds > 0) {
            m_setup.pause(use.waitBeforeReadSeconds);
        }
        m_setup.console().BlinkTx();
        ex.reply = collect(use.limit);
        if (ex.reply.answered() && (!accept || accept(ex.reply))) {
            ex.answered = true;
            return ex;
        }
        if (use.ackAfterUnanswered) {
            sendAck();
        }
        if ((use.attempts != mdb::kWithoutEnd && ex.attempts >= use.attempts) ||
            m_setup.pastDeadline()) {
            return ex;
        }
        if (use.pauseBeforeResendSeconds > 0) {
            m_setup.pause(use.pauseBeforeResendSeconds);
        }
    }
}

void MdbLink::shutDownDevices() {
    Console& console = m_setup.console();
    if (console.checked("CoinAcceptorEnabled")) {
        const mdb::Exchange ex =
            exchange(mdb::Command::whole(m_frames.caResetFrame), mdb::use::kExitChangerReset);
        acknowledge(ex.reply);
        console.BlinkTx();
        settle();
    }
    if (console.checked("billValidatorEnabled")) {
        const mdb::Exchange reset =
            exchange(mdb::Command::whole(m_frames.bvResetFrame), mdb::use::kExitValidatorReset);
        if (!reset.answered) {
            return;  // a validator that does not answer its reset will not answer its POLL
        }
        acknowledge(reset.reply);
        console.BlinkTx();
        settle();
        const mdb::Exchange poll =
            exchange(mdb::Command::whole(m_frames.bvPollFrame), mdb::use::kExitValidatorPoll);
        acknowledge(poll.reply);
        console.BlinkTx();
        settle();
    }
}

}  // namespace kestrix
