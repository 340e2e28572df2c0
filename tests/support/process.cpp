#include "process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "support.h"

extern char** environ;

namespace kestrix::test {

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::vector<std::string>& env) {
    const std::string dir = makeTempDir("ksx-child");
    m_outPath = dir + "/out";
    m_errPath = dir + "/err";

    // env(1) adds `env` to this process's environment and runs the program in its own place, so
    // the pid is the program's; a program it cannot run ends it with status 127, as in a shell.
    std::vector<std::string> command(env);
    command.push_back(program);
    command.insert(command.end(), args.begin(), args.end());
    std::vector<char*> argv{const_cast<char*>("/usr/bin/env")};
    for (std::string& word : command) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    const int written = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, m_outPath.c_str(), written, 0600);
    posix_spawn_file_actions_addopen(&files, STDERR_FILENO, m_errPath.c_str(), written, 0600);
    if (posix_spawn(&m_pid, argv[0], &files, nullptr, argv.data(), environ) != 0) {
        m_pid = -1;
        m_status = 127;
    }
    posix_spawn_file_actions_destroy(&files);
}

ChildProcess::~ChildProcess() {
    if (running()) {
        ::kill(m_pid, SIGKILL);
        int status = 0;
        ::waitpid(m_pid, &status, 0);
    }
}

bool ChildProcess::running() {
    if (m_status || m_pid <= 0) {
        return false;
    }
    int status = 0;
    const pid_t r = ::waitpid(m_pid, &status, WNOHANG);
    if (r == m_pid) {
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return false;
    }
    return true;
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
    eventually([this] { return !running(); }, timeout);
    return m_status;
}

void ChildProcess::signal(int sig) {
    if (running()) {
        ::kill(m_pid, sig);
    }
}

std::string ChildProcess::out() const {
    return readFile(m_outPath);
}

std::string ChildProcess::err() const {
    return readFile(m_errPath);
}

RunResult run(const std::string& program, const std::vector<std::string>& args,
              const std::vector<std::string>& env, std::chrono::milliseconds timeout) {
    ChildProcess child(program, args, env);
    const std::optional<int> status = child.wait(timeout);
    return {status.value_or(-1), child.out(), child.err()};
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (condition()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

std::string kestrixBinary() {
    return std::string(KESTRIX_BIN_DIR) + "/kestrix/kestrix";
}
std::string kestrixSimBinary() {
    return std::string(KESTRIX_BIN_DIR) + "/kestrix-sim/kestrix-sim";
}
std::string ksxctlBinary() {
    return std::string(KESTRIX_BIN_DIR) + "/ksxctl/ksxctl";
}

}  // namespace kestrix::test
