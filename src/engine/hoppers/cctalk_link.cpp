#include "cctalk_link.h"

#include "../platform/serial_port.h"

namespace kestrix {

CcTalkLink::Result CcTalkLink::exchange(std::uint8_t address, std::uint8_t header,
                                        std::string_view data) {
    const std::string frame = cctalk::buildFrame(address, header, data);
    // Whatever is still on the line (a late reply to an earlier frame) is not this reply.
    m_port.read();
    m_port.write(frame);

    std::string received;
    int idle = 0;
    for (int reads = 0; reads < kTotalReadLimit && idle < kIdleReadLimit; ++reads) {
        const std::string got = m_port.read();
        if (got.empty()) {
            ++idle;
            continue;
        }
        idle = 0;
        received += got;
        std::string_view reply = received;
        if (m_echo) {
            if (received.size() < frame.size()) {
                if (frame.compare(0, received.size(), received) != 0) {
                    return {Outcome::BadEcho, {}};
                }
                continue;
            }
            if (received.compare(0, frame.size(), frame) != 0) {
                return {Outcome::BadEcho, {}};
            }
            reply.remove_prefix(frame.size());
        }
        if (auto found = cctalk::findFrame(reply, cctalk::kHostAddress, address)) {
            return {Outcome::Reply, std::move(found->frame)};
        }
    }
    if (m_echo && received.size() < frame.size()) {
        return {Outcome::NoEcho, {}};
    }
    return {Outcome::NoReply, {}};
}

}  // namespace kestrix
