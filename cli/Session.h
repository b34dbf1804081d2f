// One registration of the pelk command line with the service, and what the agent's callbacks
// tell the command that runs on the main thread: apps and devices coming and going, data and
// files received (printed as they come), the progress of the command's own file send or media
// copy, the loss of the service, and an interrupt (SIGINT or SIGTERM, taken by a thread of its
// own: the stop signals are blocked in every other thread).
//
// Threads: the main thread runs the command; the agent's callback thread runs the callbacks;
// the signal thread only interrupts. All shared state is under one mutex; output lines are
// written whole under another. The callbacks do not call the agent.
#ifndef PELK_CLI_SESSION_H
#define PELK_CLI_SESSION_H

#include <cstdint>
#include <string>

#include "ActionAgent.h"

namespace PELK {
namespace Cli {

// One whole line on standard output (or standard error), from any thread.
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void complain(const char* format, ...) __attribute__((format(printf, 1, 2)));

class Session {
public:
    // How a file send or media copy ended.
    enum End { FINISHED, CANCELLED, FAILED, LOST, INTERRUPTED, STALLED };

    // Blocks the stop signals and starts the thread that takes them. Call first, before the
    // agent makes its threads, so that they inherit the mask.
    static void catchStopSignals();
    // Sends what the library writes to standard error (its host stand-in for the Android log:
    // on a host mostly the logger's start and end lines) to /dev/null; complain() goes on
    // writing to the real standard error.
    static void quietLibrary();

    // Registers as name/number. A listener prints what it receives and reconnects by itself
    // after a loss. Returns the agent's result.
    int open(const std::string& name, int number, bool listener);
    ~Session();

    Agent::ActionAgent& agent() { return *m_pAgent; }
    // The callback and user pointer for a file send or copy of this session.
    static FileTransferCallback progressCallback();
    void* progressUser() { return this; }

    // Prints progress until the transfer ends (or the service is lost, the program interrupted,
    // or nothing came for idleSeconds).
    End waitForTransfer(int idleSeconds);
    // Waits for an interrupt; true once one came.
    bool waitForInterrupt();
    // The transfer's last file event (its totals after FINISHED).
    file_transfer_event lastEvent();

    // The receive folder and callbacks of a listener, or of a download (quiet: no printing).
    int receiveInto(const std::string& folder, bool print);

private:
    Agent::ActionAgent* m_pAgent = nullptr;
    bool m_fRegistered = false;
};

}  // namespace Cli
}  // namespace PELK

#endif  // PELK_CLI_SESSION_H
