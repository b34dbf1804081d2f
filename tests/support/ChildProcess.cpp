#include "support/ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <gtest/gtest.h>

#include "support/TempDir.h"
#include "support/Waits.h"

extern char** environ;

namespace pelktest {

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& outputPath)
    : m_outputPath(outputPath) {
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    // The test's own signal mask (its threads may block signals) must not reach the child.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    if (posix_spawn(&m_pid, args[0], &actions, &attributes, args.data(), environ) != 0) {
        m_pid = -1;
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess() {
    if (m_pid > 0 && m_nStatus < 0) {
        signal(SIGTERM);
        if (wait(5000) < 0) {
            signal(SIGKILL);
            wait(60000);
        }
    }
}

void ChildProcess::signal(int signalNumber) {
    if (m_pid > 0 && m_nStatus < 0) {
        kill(m_pid, signalNumber);
    }
}

int ChildProcess::wait(int timeoutMs) {
    waitUntil([&] {
        int status = 0;
        const pid_t done = m_pid > 0 && m_nStatus < 0 ? waitpid(m_pid, &status, WNOHANG) : -1;
        if (done == m_pid) {
            m_nStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return done != 0;  // reaped, or nothing (left) to wait for
    }, timeoutMs, 10);
    return m_nStatus;
}

std::string ChildProcess::output() const {
    return readFile(m_outputPath);
}

bool ChildProcess::awaitOutput(const std::string& text, int timeoutMs) const {
    return waitUntil([&] { return output().find(text) != std::string::npos; }, timeoutMs, 20);
}

std::unique_ptr<ChildProcess> startEmulator(const std::vector<std::string>& argv, const std::string& outputPath) {
    auto emulator = std::make_unique<ChildProcess>(argv, outputPath);
    if (!emulator->awaitOutput("listening on 127.0.0.1:20014", 30000)) {
        ADD_FAILURE() << "the emulator did not start:\n" << emulator->output();
    }
    return emulator;
}

}  // namespace pelktest
