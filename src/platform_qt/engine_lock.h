#pragma once

#include <string>

// Which engine serves a store. An engine holds a lock file beside its store for as long as it
// runs (see LockFileInstance); programs without Qt (ksxctl) read it here to tell a running
// engine from one that has crashed.
namespace kestrix::qt {

// The lock file of a store: its canonical path (absolute, symbolic links resolved as far as the
// path exists) plus ".lock". The same store reached through a link or another relative path has
// the same lock, so a second engine cannot run on it unnoticed.
std::string engineLockPath(const std::string& storePath);

struct EngineLockState {
    enum class Holder {
        Running,  // a live process holds the lock
        None,     // no lock file, or the process named in it has ended (a crashed engine)
        Unknown,  // cannot tell (another machine's lock on a shared disk, or no way to look)
    };
    Holder holder = Holder::Unknown;
    long pid = 0;  // the process named in the lock file, when there is one
};

EngineLockState engineLockState(const std::string& storePath);

}  // namespace kestrix::qt
