#pragma once

#include <QStringList>
#include <memory>
#include <string>

#include "engine/platform/instance.h"

class QLockFile;

namespace kestrix::qt {

// One engine per store: the engine holds a lock file beside the store ("<canonical store
// path>.lock", see engineLockPath) for as long as it runs. A lock left by an engine that crashed
// is taken over, because the process it names no longer runs.
class LockFileInstance : public Instance {
public:
    // `arguments` are the process arguments, program name first (QCoreApplication::arguments()).
    LockFileInstance(std::string lockPath, const QStringList& arguments);
    ~LockFileInstance() override;

    // The lock file that goes with a store file.
    static std::string lockPathFor(const std::string& storePath);

    // Takes the lock on the first call and keeps it; true when another process holds it.
    bool anotherIsRunning() override;
    // The arguments after the program name, joined by single spaces.
    std::string commandLine() const override { return m_commandLine; }
    // The process id of the engine holding the lock (after anotherIsRunning() said one does);
    // 0 when it cannot be read.
    long holderPid() const;
    const std::string& lockPath() const { return m_lockPath; }

private:
    std::string m_lockPath;
    std::string m_commandLine;
    std::unique_ptr<QLockFile> m_lock;
};

}  // namespace kestrix::qt
