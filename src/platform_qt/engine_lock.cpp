#include "engine_lock.h"

#include <filesystem>
#include <fstream>

#ifndef _WIN32
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#endif

namespace kestrix::qt {

std::string engineLockPath(const std::string& storePath) {
    std::error_code ec;
    std::filesystem::path path = std::filesystem::weakly_canonical(storePath, ec);
    if (ec) {
        path = std::filesystem::absolute(storePath, ec);
        if (ec) {
            path = storePath;
        }
    }
    return path.string() + ".lock";
}

EngineLockState engineLockState(const std::string& storePath) {
    EngineLockState state;
    // The lock file's first lines: the holder's process id, its program name and its host.
    std::ifstream file(engineLockPath(storePath));
    if (!file) {
        state.holder = EngineLockState::Holder::None;
        return state;
    }
    std::string pid;
    std::string program;
    std::string host;
    std::getline(file, pid);
    std::getline(file, program);
    std::getline(file, host);
    try {
        state.pid = std::stol(pid);
    } catch (const std::exception&) {
        return state;  // being written this very moment, or not a lock file of ours
    }
#ifdef _WIN32
    return state;
#else
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) == 0 && !host.empty() && host != name) {
        return state;
    }
    if (state.pid <= 0 || (::kill(static_cast<pid_t>(state.pid), 0) != 0 && errno != EPERM)) {
        state.holder = EngineLockState::Holder::None;
        return state;
    }
    // A crashed engine's process id may since have been given to another program.
    std::ifstream comm("/proc/" + std::to_string(state.pid) + "/comm");
    std::string running;
    constexpr std::size_t kCommLength = 15;  // the kernel keeps that much of a program's name
    if (!program.empty() && comm && std::getline(comm, running) &&
        running != program.substr(0, kCommLength)) {
        state.holder = EngineLockState::Holder::None;
        return state;
    }
    state.holder = EngineLockState::Holder::Running;
    return state;
#endif
}

}  // namespace kestrix::qt
