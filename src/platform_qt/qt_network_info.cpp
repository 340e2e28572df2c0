#include "qt_network_info.h"

#include <QFileInfo>
#include <QNetworkInterface>

namespace kestrix::qt {

namespace {

// "00:1a:2b:3c:4d:5e" -> "00-1A-2B-3C-4D-5E"; empty for anything that is not six non-zero bytes.
std::string formatAddress(const QString& hardware) {
    const QStringList parts = hardware.split(QLatin1Char(':'));
    if (parts.size() != 6) {
        return {};
    }
    bool allZero = true;
    QStringList groups;
    for (const QString& part : parts) {
        bool ok = false;
        const uint value = part.toUInt(&ok, 16);
        if (!ok || value > 0xFF) {
            return {};
        }
        allZero = allZero && value == 0;
        groups << QStringLiteral("%1").arg(value, 2, 16, QLatin1Char('0')).toUpper();
    }
    return allZero ? std::string() : groups.join(QLatin1Char('-')).toStdString();
}

bool candidate(const QNetworkInterface& nic) {
    const auto flags = nic.flags();
    const auto type = nic.type();
    return flags.testFlag(QNetworkInterface::IsUp) &&
           !flags.testFlag(QNetworkInterface::IsLoopBack) &&
           (type == QNetworkInterface::Ethernet || type == QNetworkInterface::Wifi);
}

// Linux lists a physical adapter's device under /sys; bridges, veth pairs and tunnels have none.
// Elsewhere every adapter counts as physical.
bool physical(const QNetworkInterface& nic) {
#ifdef Q_OS_LINUX
    return QFileInfo::exists(QStringLiteral("/sys/class/net/%1/device").arg(nic.name()));
#else
    Q_UNUSED(nic);
    return true;
#endif
}

}  // namespace

std::string QtNetworkInfo::firstAdapterAddress() {
    const QList<QNetworkInterface> all = QNetworkInterface::allInterfaces();
    std::string fallback;
    for (const QNetworkInterface& nic : all) {
        if (!candidate(nic)) {
            continue;
        }
        const std::string address = formatAddress(nic.hardwareAddress());
        if (address.empty()) {
            continue;
        }
        if (physical(nic)) {
            return address;
        }
        if (fallback.empty()) {
            fallback = address;
        }
    }
    return fallback;
}

}  // namespace kestrix::qt
