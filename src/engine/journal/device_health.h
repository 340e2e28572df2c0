#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "engine/platform/journal.h"
#include "engine/platform/log.h"

namespace kestrix {

// Which devices are faulty, so that a fault is journalled and logged once when it appears (not at
// every re-initialisation or poll that finds it again) and its end once when the device works
// again.
class DeviceHealth {
public:
    DeviceHealth(Journal& journal, Log& log) : m_journal(journal), m_log(log) {}

    // The device is faulty: a "device fault" row and an error line, unless it was already found
    // faulty for the same reason.
    void fault(std::string_view device, std::string_view what, std::int64_t paymentId = 0);
    // The device works: a "device recovered" row and a notice when it was faulty.
    void working(std::string_view device, std::int64_t paymentId = 0);
    bool faulty(std::string_view device) const { return m_faults.count(device) != 0; }

private:
    Journal& m_journal;
    Log& m_log;
    std::map<std::string, std::string, std::less<>> m_faults;
};

}  // namespace kestrix
