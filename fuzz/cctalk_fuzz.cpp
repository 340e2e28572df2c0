// ccTalk: the framing (parse, search in noise, build) and one whole exchange of the hoppers link
// against a line that answers with the fuzzed bytes, with and without echo. A frame that parses
// must build back to the same bytes; the search finds only frames that parse; an exchange on any
// line ends within its read limits with one of its outcomes.

#include <algorithm>

#include "engine/hoppers/cctalk.h"
#include "engine/hoppers/cctalk_link.h"
#include "engine/platform/serial_port.h"
#include "fuzz_input.h"

using namespace kestrix;

namespace {

// A port whose reads hand out the fuzzed bytes in chunks, with silent reads between them, after
// an optional echo of what the engine wrote.
class ScriptedPort : public SerialPort {
public:
    ScriptedPort(std::string_view script, bool echo) : m_script(script), m_echo(echo) {}

    void open(int, std::string_view) override {}
    void close() override {}
    bool isOpen() const override { return true; }
    int portNumber() const override { return 3; }
    void write(std::string_view bytes) override {
        if (m_echo) {
            m_pending.append(bytes);
        }
    }
    std::string read() override {
        ++m_reads;
        std::string out;
        out.swap(m_pending);
        if (m_next < m_script.size()) {
            // The first byte of each chunk is its length; 0 is a silent read.
            const std::size_t length = static_cast<unsigned char>(m_script[m_next]) % 32;
            out.append(m_script.substr(m_next + 1, length));
            m_next += 1 + length;
        }
        return out;
    }
    long reads() const { return m_reads; }

private:
    std::string_view m_script;
    bool m_echo;
    std::string m_pending;
    std::size_t m_next = 0;
    long m_reads = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input = fuzz::bytes(data, size);
    if (const std::optional<cctalk::Frame> f = cctalk::parseFrame(input)) {
        fuzz::check(cctalk::buildFrame(f->destination, f->header, f->data, f->source) == input,
                    "a parsed frame builds back to its bytes", input);
    }
    if (size >= 2) {
        const std::string_view noise = input.substr(2);
        if (const std::optional<cctalk::Found> found = cctalk::findFrame(noise, data[0], data[1])) {
            fuzz::check(found->end <= noise.size(), "a found frame ends inside the bytes", input);
            fuzz::check(found->frame.destination == data[0] && found->frame.source == data[1],
                        "a found frame is addressed as asked", input);
            const std::size_t frameSize = found->frame.data.size() + cctalk::kMinFrameSize;
            fuzz::check(
                cctalk::parseFrame(noise.substr(found->end - frameSize, frameSize)).has_value(),
                "a found frame parses", input);
        }
    }
    (void)cctalk::hex(input);

    for (bool echo : {false, true}) {
        ScriptedPort port(input, echo);
        CcTalkLink link(port, echo);
        const std::uint8_t address = size > 0 ? data[0] : 3;
        (void)link.exchange(address, cctalk::header::kHopperStatus);
        fuzz::check(port.reads() <= CcTalkLink::kTotalReadLimit + 1,
                    "an exchange ends within its read limit", input);
    }
    return 0;
}
