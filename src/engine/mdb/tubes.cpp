#include "tubes.h"

#include "../settings/layout.h"
#include "../setup.h"
#include "link.h"

namespace kestrix::mdb {

namespace {
// Bytes 1 and 2 of a tube status are the tube-full flags; the counts follow.
constexpr std::size_t kFirstCount = 2;
}  // namespace

std::optional<TubeCounts> readTubeStatus(Setup& setup, const LinkUse& use) {
    MdbLink& link = setup.link();
    for (int round = 0; round < kDeviceAttempts && !setup.pastDeadline(); ++round) {
        if (round > 0) {
            link.settle();
        }
        const Exchange ex = link.exchange(commands::changerTubeStatus(), use);
        if (!ex.answered) {
            return std::nullopt;
        }
        // An acknowledgement left over in front of the status is dropped.
        Reply reply = ex.reply;
        if (reply.startsWith(kBareAck) && reply.size() > kBareAck.size()) {
            reply = Reply(reply.text().substr(kBareAck.size()));
        }
        const std::optional<std::vector<std::uint8_t>> data = reply.message();
        if (!data || data->empty()) {
            continue;  // not acknowledged when unreadable: the changer sends it again
        }
        link.acknowledge(ex.reply);
        // A shorter status than sixteen counts leaves the rest of the tubes empty.
        TubeCounts counts{};
        for (std::size_t k = 1; k <= kCoinTypes; ++k) {
            const std::size_t at = kFirstCount + k - 1;
            counts[k] = at < data->size() ? (*data)[at] : 0;
        }
        return counts;
    }
    return std::nullopt;
}

Money tubeMoney(const Setup& setup, const TubeCounts& counts) {
    const EngineState& st = setup.state();
    Money total;
    for (std::size_t k = 1; k <= kCoinTypes; ++k) {
        total += st.coinValue[k] * counts[k];
    }
    return total;
}

void publishTubes(Setup& setup, const TubeCounts& counts) {
    Console& c = setup.console();
    EngineState& st = setup.state();
    for (std::size_t k = 1; k <= kCoinTypes; ++k) {
        st.tubeCount[k] = counts[k];
    }
    for (std::size_t k = 1; k <= kCoinTypes; ++k) {
        for (int slot = 1; slot <= kTubeSlots; ++slot) {
            if (st.tubeSlotCoin[static_cast<std::size_t>(slot)] == st.coinValue[k]) {
                const std::string count = std::to_string(counts[k]);
                c.setText(Console::tubeCoinQty(slot), count);
                setup.saveSetting(store::section::kCoinAcceptor, store::key::tubeCoinQty(slot),
                                  count);
            }
        }
    }
    st.tubesValue = tubeMoney(setup, counts);
    const std::string tubes = st.tubesValue.text();
    c.setText("tubesAmount", tubes);
    setup.writeMailbox(store::mailbox::kTubes, tubes);
}

void publishNoTubes(Setup& setup) {
    Console& c = setup.console();
    for (int slot = 1; slot <= kTubeSlots; ++slot) {
        setup.saveSetting(store::section::kCoinAcceptor, store::key::tubeCoinQty(slot), "0");
        c.setText(Console::tubeCoinQty(slot), "0");
    }
    setup.state().tubesValue = Money();
    setup.writeMailbox(store::mailbox::kTubes, "0");
    c.setText("tubesAmount", "0");
}

}  // namespace kestrix::mdb
