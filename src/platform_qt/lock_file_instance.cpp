#include "lock_file_instance.h"

#include <QDir>
#include <QFileInfo>
#include <QLockFile>
#include <cstdio>

#include "engine_lock.h"

namespace kestrix::qt {

LockFileInstance::LockFileInstance(std::string lockPath, const QStringList& arguments)
    : m_lockPath(std::move(lockPath)) {
    QStringList rest = arguments;
    if (!rest.isEmpty()) {
        rest.removeFirst();
    }
    m_commandLine = rest.join(QLatin1Char(' ')).toStdString();
}

LockFileInstance::~LockFileInstance() = default;

std::string LockFileInstance::lockPathFor(const std::string& storePath) {
    return engineLockPath(storePath);
}

long LockFileInstance::holderPid() const {
    qint64 pid = 0;
    QString host;
    QString app;
    if (m_lock && m_lock->getLockInfo(&pid, &host, &app)) {
        return static_cast<long>(pid);
    }
    return 0;
}

bool LockFileInstance::anotherIsRunning() {
    if (m_lock && m_lock->isLocked()) {
        return false;
    }
    if (!m_lock) {
        const QString path = QString::fromStdString(m_lockPath);
        QDir().mkpath(QFileInfo(path).absolutePath());
        m_lock = std::make_unique<QLockFile>(path);
        // An engine runs for days: its lock never goes stale by age, only when its process is
        // gone.
        m_lock->setStaleLockTime(0);
    }
    if (m_lock->tryLock(0)) {
        return false;
    }
    if (m_lock->error() == QLockFile::LockFailedError) {
        return true;
    }
    // The lock cannot even be written (a read-only directory): rather run than refuse service.
    std::fprintf(stderr, "kestrix: cannot take the single-instance lock %s\n", m_lockPath.c_str());
    return false;
}

}  // namespace kestrix::qt
