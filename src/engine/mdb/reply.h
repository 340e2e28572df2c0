#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrix {

class MdbLink;

// Replies as the MDB adapter renders them: every word a peripheral sends comes back as five
// text characters, "dd" "mm" and a space, in lower-case hexadecimal ("0b00 0b01 "). A peripheral
// sets the mode bit on its last word, so a complete message always ends in "01 ".
namespace mdb {

// A peripheral's bare acknowledgement.
inline constexpr std::string_view kBareAck = "0001 ";

// The value of a hexadecimal text as the link reads it: ConvertBaseNToDec with base 16, so a
// character that is no hexadecimal digit is a KsxError. An empty text (a byte past the end of a
// short reply) has no digits and counts 0: a peripheral may send a shorter SETUP than the
// longest one (fewer coin types), and a missing credit reads as an unused one rather than as an
// error.
double hexValue(std::string_view hexText);

// Reply text collected from the adapter.
class Reply {
public:
    // Text kept while a reply never completes; older garbage is dropped beyond it so a line that
    // babbles for hours cannot exhaust memory.
    static constexpr std::size_t kMaxPendingChars = 1 << 20;

    Reply() = default;
    explicit Reply(std::string text);

    const std::string& text() const { return m_text; }
    std::size_t size() const { return m_text.size(); }
    bool empty() const { return m_text.empty(); }
    // Holds "01 " anywhere: the collect loop takes the reply as complete.
    bool complete() const { return m_complete; }
    // Ends in "01 ": the reply is acknowledged.
    bool endsComplete() const;
    // Exactly a peripheral's bare acknowledgement.
    bool isBareAck() const { return m_text == kBareAck; }
    // Longer than a bare acknowledgement by more than one character (a stray character after
    // one does not make a message).
    bool longerThanAck() const { return m_text.size() > kBareAck.size() + 1; }
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

}  // namespace mdb
}  // namespace kestrix
