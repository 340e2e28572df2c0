// The host's mailbox values as the engine's monitor reads them, on a whole simulated kiosk in
// virtual time. The input is up to four values cut at newlines: "Due", "DueCC", "Change" and
// "Cancel". Each run starts a fresh kiosk, writes the values, lets the monitor tick, cancels and
// asks the engine to exit. Whatever the host wrote, the engine neither crashes nor waits without
// an end (the virtual deadline ends such a wait as a failure), and it ends when asked.

#include "engine/formulas.h"
#include "engine/settings/layout.h"
#include "fuzz_input.h"
#include "sim/world/virtual_kiosk.h"

using namespace kestrix;

namespace {

constexpr std::string_view kKeys[] = {store::mailbox::kDue, store::mailbox::kDueCC,
                                      store::mailbox::kChange, store::mailbox::kCancel};
constexpr double kTicksSeconds = 3;
constexpr double kExitSeconds = 60;
// Longer than any bounded payout of the simulated kiosk's whole stock.
constexpr double kDeadlineSeconds = 2 * 3600;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input = fuzz::bytes(data, size);
    const std::vector<std::string> values = fuzz::split(input, '\n', std::size(kKeys));

    sim::VirtualKiosk k;
    k.configureAllDevices();
    fuzz::check(k.start(), "the simulated kiosk starts", input);
    k.clock().setDeadline(k.clock().elapsed() + kDeadlineSeconds);
    try {
        for (std::size_t i = 0; i < values.size(); ++i) {
            k.hostWrite(kKeys[i], values[i]);
        }
        k.runFor(kTicksSeconds);
        k.hostWrite(store::mailbox::kCancel, "1");
        k.runFor(kTicksSeconds);
        k.hostWrite(store::mailbox::kExit, "1");
        fuzz::check(k.runUntil([&] { return k.engine().ended(); }, kExitSeconds),
                    "the engine ends when the host asks it to exit", input);
    } catch (const sim::VirtualDeadline&) {
        fuzz::violated("a wait of the engine has no end", input);
    }
    return 0;
}
