#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kestrix::test {

// A child process for end-to-end tests: its output goes to files, so it never blocks on a full
// pipe, and the test reads it whenever it likes.
class ChildProcess {
public:
    // Starts `program` with `args`; `env` entries ("NAME=value") are added to (or replace) this
    // process's environment.
    ChildProcess(const std::string& program, const std::vector<std::string>& args,
                 const std::vector<std::string>& env = {});
    ~ChildProcess();  // kills the child if it still runs
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The exit status once the child has ended within `timeout`; nullopt otherwise.
    std::optional<int> wait(std::chrono::milliseconds timeout);
    bool running();
    void signal(int sig);
    pid_t pid() const { return m_pid; }

    std::string out() const;
    std::string err() const;

private:
    pid_t m_pid = -1;
    std::optional<int> m_status;
    std::string m_outPath;
    std::string m_errPath;
};

// Runs a program to its end (at most `timeout`) and returns its exit status and output.
struct RunResult {
    int status = -1;
    std::string out;
    std::string err;
};
RunResult run(const std::string& program, const std::vector<std::string>& args,
              const std::vector<std::string>& env = {},
              std::chrono::milliseconds timeout = std::chrono::seconds(30));

// Polls `condition` every 50 ms until it holds or `timeout` passes.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

// Paths of the built programs.
std::string kestrixBinary();
std::string kestrixSimBinary();
std::string ksxctlBinary();

}  // namespace kestrix::test
