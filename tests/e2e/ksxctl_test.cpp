#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "platform_qt/sqlite_store.h"
#include "support/support.h"

extern char** environ;

namespace kestrix {
namespace {

const std::string kKsxctl = std::string(KESTRIX_BIN_DIR) + "/ksxctl/ksxctl";

// A ksxctl process with its output on pipes. `storeEnv` is KSX_STORE for it (unset when empty).
class Process {
public:
    Process(const std::vector<std::string>& args, const std::string& storeEnv) {
        int out[2];
        int err[2];
        if (pipe(out) != 0 || pipe(err) != 0) {
            throw std::runtime_error("pipe");
        }
        std::vector<std::string> env;
        for (char** e = environ; *e != nullptr; ++e) {
            if (std::strncmp(*e, "KSX_STORE=", 10) != 0) {
                env.emplace_back(*e);
            }
        }
        if (!storeEnv.empty()) {
            env.push_back("KSX_STORE=" + storeEnv);
        }
        std::vector<char*> argv{const_cast<char*>(kKsxctl.c_str())};
        for (const auto& a : args) {
            argv.push_back(const_cast<char*>(a.c_str()));
        }
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (auto& e : env) {
            envp.push_back(e.data());
        }
        envp.push_back(nullptr);
        m_pid = fork();
        if (m_pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            close(out[0]);
            close(err[0]);
            execve(argv[0], argv.data(), envp.data());
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        m_out = out[0];
        m_err = err[0];
    }
    ~Process() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            wait();
        }
        close(m_out);
        close(m_err);
    }

    // Reads the output until `text` has appeared or ten seconds passed.
    bool waitForOutput(const std::string& text) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (out.find(text) == std::string::npos && std::chrono::steady_clock::now() < end) {
            pump(100);
        }
        return out.find(text) != std::string::npos;
    }
    void interrupt() { kill(m_pid, SIGINT); }
    // Collects the rest of the output and the exit status.
    int wait() {
        while (pump(-1)) {
        }
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    std::string out;
    std::string err;

private:
    // One read from whichever pipe has something; false once both are at their end.
    bool pump(int timeoutMs) {
        pollfd fds[2] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}};
        if (m_outDone && m_errDone) {
            return false;
        }
        fds[0].fd = m_outDone ? -1 : m_out;
        fds[1].fd = m_errDone ? -1 : m_err;
        if (poll(fds, 2, timeoutMs) <= 0) {
            return timeoutMs >= 0;
        }
        char buffer[4096];
        for (int i = 0; i < 2; ++i) {
            if (fds[i].revents != 0) {
                const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
                if (n <= 0) {
                    (i == 0 ? m_outDone : m_errDone) = true;
                } else {
                    (i == 0 ? out : err).append(buffer, static_cast<std::size_t>(n));
                }
            }
        }
        return true;
    }

    pid_t m_pid = -1;
    int m_out = -1;
    int m_err = -1;
    bool m_outDone = false;
    bool m_errDone = false;
};

struct Outcome {
    int code;
    std::string out;
    std::string err;
};

Outcome ksxctl(const std::vector<std::string>& args, const std::string& storeEnv = {}) {
    Process p(args, storeEnv);
    const int code = p.wait();
    return {code, p.out, p.err};
}

TEST(Ksxctl, AValueSetByOneProcessIsReadAtOnceByAnotherAndByTheEngine) {
    const std::string path = test::makeTempDir("ksx-e2e") + "/KSX.db";
    qt::SqliteStore engine(path);  // open all along, as the engine's store is

    EXPECT_EQ(ksxctl({"--store", path, "set", "Status", "Due", "12.5"}).code, 0);
    EXPECT_EQ(ksxctl({"--store", path, "get", "Status", "Due"}).out, "12.5\n");
    EXPECT_EQ(engine.get("KSX", "Status", "Due"), "12.5");

    engine.set("KSX", "Status", "Credit", "20");
    EXPECT_EQ(ksxctl({"get", "Status", "Credit"}, path).out, "20\n") << "KSX_STORE is honoured";

    // Values that start with "-", carry quotes or spaces, and sections with spaces.
    EXPECT_EQ(ksxctl({"--store=" + path, "set", "Pin Pad", "User", "-o'neil \"x\""}).code, 0);
    EXPECT_EQ(engine.get("KSX", "Pin Pad", "User"), "-o'neil \"x\"");

    EXPECT_EQ(ksxctl({"--store", path, "--app", "OTHER", "get", "Status", "Due"}).out, "\n");
    const Outcome dump = ksxctl({"--store", path, "dump"});
    EXPECT_EQ(dump.out, "Pin Pad/User=-o'neil \"x\"\nStatus/Credit=20\nStatus/Due=12.5\n");
    EXPECT_EQ(ksxctl({"--store", path, "dump", "Status"}).out,
              "Status/Credit=20\nStatus/Due=12.5\n");
}

TEST(Ksxctl, WatchPrintsEachChangeWithATimeStampUntilInterrupted) {
    const std::string path = test::makeTempDir("ksx-e2e") + "/KSX.db";
    qt::SqliteStore engine(path);
    engine.set("KSX", "Status", "Due", "0");
    Process watch({"--store", path, "watch", "Status"}, {});
    ASSERT_TRUE(watch.waitForOutput("watching"));
    engine.set("KSX", "Status", "Due", "42");
    engine.set("KSX", "Settings", "COM", "3");  // another section: not shown
    ASSERT_TRUE(watch.waitForOutput("Status/Due=42\n")) << watch.out;
    watch.interrupt();
    EXPECT_EQ(watch.wait(), 0);
    EXPECT_EQ(watch.out.find("COM"), std::string::npos);
    // "2026-11-22 09:30:15.123 Status/Due=42"
    const std::size_t line = watch.out.find("Status/Due=42");
    ASSERT_GE(line, 24u);
    EXPECT_EQ(watch.out[line - 1], ' ');
    EXPECT_EQ(watch.out[line - 5], '.');
}

TEST(Ksxctl, ExitCodesAndMessages) {
    const std::string dir = test::makeTempDir("ksx-e2e");
    const std::string path = dir + "/KSX.db";
    const std::vector<std::vector<std::string>> usageErrors = {
        {},
        {"frobnicate"},
        {"get", "Status"},
        {"set", "Status", "Due"},
        {"dump", "a", "b"},
        {"--store"},
        {"--app=", "get", "Status", "Due"},
        {"--bogus", "get", "Status", "Due"},
    };
    for (const auto& args : usageErrors) {
        const Outcome r = ksxctl(args, path);
        EXPECT_EQ(r.code, 2) << testing::PrintToString(args);
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_EQ(r.err.rfind("ksxctl: ", 0), 0u) << r.err;
    }
    for (const std::string& bad : {std::string("/dev/null/KSX.db"), dir}) {
        const Outcome r = ksxctl({"--store", bad, "get", "Status", "Due"});
        EXPECT_EQ(r.code, 3) << bad;
        EXPECT_NE(r.err.find(bad), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
    const Outcome help = ksxctl({"--help"});
    EXPECT_EQ(help.code, 0);
    for (const char* word : {"get", "set", "dump", "watch", "--store", "--app", "KSX_STORE"}) {
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
    }
}

}  // namespace
}  // namespace kestrix
