#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "engine/platform/journal.h"

namespace kestrix::fleet {

// One row of the money journal as the publisher reads it back.
using JournalRow = JournalRecord;

// Where the publisher's events come from: the journal, read on the publisher's own thread. The
// journal is the outbox: a row not yet acknowledged by the broker is simply read again.
class EventSource {
public:
    virtual ~EventSource() = default;
    // Up to `limit` rows with a sequence above `sequence`, in sequence order. Empty when there
    // are none or the journal cannot be read just now (it is asked again later).
    virtual std::vector<JournalRow> rowsAfter(std::int64_t sequence, std::size_t limit) = 0;
    // The highest sequence written so far (0 for an empty journal); -1 when the journal cannot be
    // read just now.
    virtual std::int64_t lastSequence() = 0;
    // For each device, its latest "device fault" or "device recovered" row (for the state's
    // last faults after a restart).
    virtual std::vector<JournalRow> latestFaultRows() = 0;
};

// The journal kinds published as events: what an operator acts on. The money movements inside a
// payment (credits, payouts asked and confirmed) stay in the kiosk's journal; the payment's end
// row sums them up.
bool isPublishedKind(std::string_view kind);

}  // namespace kestrix::fleet
