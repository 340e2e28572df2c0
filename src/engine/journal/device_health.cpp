#include "device_health.h"

namespace kestrix {

void DeviceHealth::fault(std::string_view device, std::string_view what, std::int64_t paymentId) {
    const auto found = m_faults.find(device);
    if (found != m_faults.end() && found->second == what) {
        return;
    }
    m_faults[std::string(device)] = std::string(what);
    JournalEntry row;
    row.kind = journal_kind::kDeviceFault;
    row.paymentId = paymentId;
    row.device = std::string(device);
    row.detail = std::string(what);
    m_journal.append(row);
    m_log.error(std::string(device) + ": fault: " + std::string(what), {device, paymentId});
}

void DeviceHealth::working(std::string_view device, std::int64_t paymentId) {
    const auto found = m_faults.find(device);
    if (found == m_faults.end()) {
        return;
    }
    const std::string was = found->second;
    m_faults.erase(found);
    JournalEntry row;
    row.kind = journal_kind::kDeviceRecovered;
    row.paymentId = paymentId;
    row.device = std::string(device);
    row.detail = "after: " + was;
    m_journal.append(row);
    m_log.notice(std::string(device) + ": recovered (was: " + was + ")", {device, paymentId});
}

}  // namespace kestrix
