// A program that a test runs beside itself (the emulator, the command line), its standard output
// and error going to one file that the test reads while it runs. The destructor stops it
// (SIGTERM, then SIGKILL after 5 s) and reaps it. For the test thread only.
#ifndef PELK_TESTS_CHILDPROCESS_H
#define PELK_TESTS_CHILDPROCESS_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace pelktest {

class ChildProcess {
public:
    // Starts argv[0] with argv; output goes to outputPath (created or truncated).
    ChildProcess(const std::vector<std::string>& argv, const std::string& outputPath);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void signal(int signalNumber);
    // The exit status (128 + signal when one ended it), or -1 when it is still running after
    // timeoutMs.
    int wait(int timeoutMs);
    // Everything it wrote so far.
    std::string output() const;
    // Waits until its output holds text; false after timeoutMs.
    bool awaitOutput(const std::string& text, int timeoutMs = 10000) const;

private:
    pid_t m_pid = -1;
    int m_nStatus = -1;
    std::string m_outputPath;
};

// Starts the emulator (argv: its path, then its arguments) and waits until it listens on the
// service's port; a test failure, with its output, when it does not within 30 s.
std::unique_ptr<ChildProcess> startEmulator(const std::vector<std::string>& argv, const std::string& outputPath);

}  // namespace pelktest

#endif  // PELK_TESTS_CHILDPROCESS_H
