#include "process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "support.h"

extern char** environ;

namespace kestrix::test {

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::vector<std::string>& env) {
    const std::string dir = makeTempDir("ksx-child");
    m_outPath = dir + "/out";
    m_errPath = dir + "/err";

    std::vector<std::string> environment(env);
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry(*e);
        if (std::none_of(env.begin(), env.end(), [&entry](const std::string& mine) {
                return entry.rfind(mine.substr(0, mine.find('=') + 1), 0) == 0;
            })) {
            environment.push_back(entry);
        }
    }
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& a : args) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (std::string& e : environment) {
        envp.push_back(e.data());
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    const int written = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, m_outPath.c_str(), written, 0600);
    posix_spawn_file_actions_addopen(&files, STDERR_FILENO, m_errPath.c_str(), written, 0600);
    if (posix_spawn(&m_pid, program.c_str(), &files, nullptr, argv.data(), envp.data()) != 0) {
        m_pid = -1;
        m_status = 127;  // as a shell reports a program it cannot run
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
    RunResult r;
    const std::optional<int> status = child.wait(timeout);
    r.status = status.value_or(-1);
    r.out = child.out();
    r.err = child.err();
    return r;
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
