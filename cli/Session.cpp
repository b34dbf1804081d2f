#include "Session.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include "ServiceCodes.h"

namespace PELK {
namespace Cli {

namespace {

using Clock = std::chrono::steady_clock;

// Shared by the callbacks, the signal thread and the command. Made once and never destroyed:
// the agent's threads may still call back while the process exits.
struct Shared {
    std::mutex mutex;
    std::condition_variable changed;
    bool fListener = false;
    bool fInterrupted = false;
    bool fLost = false;
    // The command's own transfer.
    bool fEnded = false;
    file_transfer_event last;
    Clock::time_point lastEventAt = Clock::now();
    std::vector<uint64_t> fileSizes;  // by index, as the events give them
    bool fTerminal = false;            // progress as a bar rather than as lines
    int nShownTenth = -1;              // lines show each tenth of the list once
};

Shared& shared() {
    static Shared* instance = new Shared;
    return *instance;
}

std::mutex& outputMutex() {
    static std::mutex* instance = new std::mutex;
    return *instance;
}

// Where complain() writes: standard error, or its copy once the library's is quieted.
FILE* g_complaints = stderr;

// Formats are always literals; the attribute also keeps g++'s sanitizer builds from assuming a
// null one on paths that never run.
__attribute__((format(printf, 2, 0), nonnull(2))) void vwrite(FILE* out, const char* format, va_list args) {
    std::lock_guard<std::mutex> guard(outputMutex());
    vfprintf(out, format, args);
    fputc('\n', out);
    fflush(out);
}

std::string baseName(const char* path) {
    const std::string text = path;
    return text.substr(text.rfind('/') + 1);
}

// One line for any bytes: printable ASCII as it is, the rest escaped.
std::string printable(const char* data, int length) {
    std::string text;
    for (int i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(data[i]);
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            text += static_cast<char>(c);
        } else {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), c == '\\' ? "\\\\" : "\\x%02x", c);
            text += escaped;
        }
    }
    return text;
}

const char* dataKind(int type) {
    switch (type) {
        case Emulator::DATA_KIND_TCP: return "tcp";
        case Emulator::DATA_KIND_UDP: return "udp";
        case Emulator::DATA_KIND_BROADCAST: return "broadcast";
        case Emulator::DATA_KIND_HUGE_PIECE: return "large udp";
        default: return "data";
    }
}

void onApp(const InteractionApp* app, int status, void*) {
    Shared& s = shared();
    {
        std::lock_guard<std::mutex> guard(s.mutex);
        if (status == Agent::APP_STATUS_DISCONNECTED || status == Agent::APP_STATUS_RECONNECTED) {
            s.fLost = status == Agent::APP_STATUS_DISCONNECTED;
            s.changed.notify_all();
        }
        if (!s.fListener) {
            return;
        }
    }
    switch (status) {
        case Agent::APP_STATUS_CHANGE_ADD:
        case Agent::APP_STATUS_CHANGE_REMOVE:
            if (app->fLocalDevice == 0) {  // the service's record of this very app
                say("app %s: \"%s\" %s:%d (number %d)", status == Agent::APP_STATUS_CHANGE_ADD ? "joined" : "left",
                    app->szAppName, app->szIPv4, app->nAppID, app->nType);
            }
            break;
        case Agent::APP_STATUS_DISCONNECTED: say("lost the service; reconnecting"); break;
        case Agent::APP_STATUS_RECONNECTED: say("reconnected as \"%s\" %s:%d", app->szAppName, app->szIPv4, app->nAppID); break;
        default: say("app \"%s\" %s:%d changed (%d)", app->szAppName, app->szIPv4, app->nAppID, status); break;
    }
}

void onDevice(const DLNADevice* device, int status, void*) {
    say("device %s: %s \"%s\" (%s)", status == Emulator::DEVICE_LEFT ? "left" : "appeared",
        device->type == DLNA_DEVICE_DMR ? "renderer" : "server", device->name, device->UUID);
}

void onData(int type, const char* data, int length, void*, const InteractionApp* sender) {
    say("data from \"%s\" %s:%d (%s, %d bytes): %s", sender->szAppName, sender->szIPv4, sender->nAppID,
        dataKind(type), length, printable(data, length).c_str());
}

void onReceivedFile(file_transfer_event event, void*) {
    switch (event.nEventType) {
        case Emulator::FILE_EVENT_FILE_DONE:
            say("file received: %s (%llu bytes) from %s:%d", event.strFileName,
                static_cast<unsigned long long>(event.ullTotalSize), event.strOtherSideIP, event.nRemoteAppID);
            break;
        case Emulator::FILE_EVENT_CANCELLED: say("transfer %lld cancelled", static_cast<long long>(event.nId)); break;
        case Emulator::FILE_EVENT_FAILED: say("transfer %lld failed", static_cast<long long>(event.nId)); break;
        default: break;
    }
}

// REQUIRES: shared().mutex held.
uint64_t listDone(Shared& s, const file_transfer_event& event) {
    const size_t index = event.nCurrentCount > 0 ? static_cast<size_t>(event.nCurrentCount - 1) : 0;
    if (s.fileSizes.size() <= index) {
        s.fileSizes.resize(index + 1);
    }
    s.fileSizes[index] = event.ullTotalSize;
    uint64_t done = event.ullCurrentSize;
    for (size_t i = 0; i < index; ++i) {
        done += s.fileSizes[i];
    }
    return done;
}

void showProgress(bool terminal, const file_transfer_event& event, uint64_t done) {
    const unsigned long long total = event.ullListTotalSize;
    if (!terminal) {
        say("progress %lld/%lld %s %llu/%llu %llu/%llu", static_cast<long long>(event.nCurrentCount),
            static_cast<long long>(event.nTotalCount), baseName(event.strFileName).c_str(),
            static_cast<unsigned long long>(event.ullCurrentSize), static_cast<unsigned long long>(event.ullTotalSize),
            static_cast<unsigned long long>(done), total);
        return;
    }
    constexpr int kWidth = 30;
    const int filled = total == 0 ? kWidth : static_cast<int>(done * kWidth / total);
    std::lock_guard<std::mutex> guard(outputMutex());
    printf("\r[%s%s] %3d%%  %.1f/%.1f MiB  %lld/%lld %-24.24s", std::string(static_cast<size_t>(filled), '#').c_str(),
           std::string(static_cast<size_t>(kWidth - filled), '-').c_str(), filled * 100 / kWidth,
           static_cast<double>(done) / (1 << 20), static_cast<double>(total) / (1 << 20),
           static_cast<long long>(event.nCurrentCount), static_cast<long long>(event.nTotalCount),
           baseName(event.strFileName).c_str());
    fflush(stdout);
}

void onProgress(file_transfer_event event, void*) {
    Shared& s = shared();
    bool terminal = false;
    bool show = false;
    uint64_t done = 0;
    {
        std::lock_guard<std::mutex> guard(s.mutex);
        s.last = event;
        s.lastEventAt = Clock::now();
        terminal = s.fTerminal;
        done = listDone(s, event);
        const int tenth = event.ullListTotalSize == 0 ? 10 : static_cast<int>(done * 10 / event.ullListTotalSize);
        show = terminal || event.nEventType == Emulator::FILE_EVENT_FILE_DONE || tenth > s.nShownTenth;
        s.nShownTenth = show ? tenth : s.nShownTenth;
        s.fEnded = event.nEventType == Emulator::FILE_EVENT_LIST_DONE ||
                   event.nEventType == Emulator::FILE_EVENT_CANCELLED || event.nEventType == Emulator::FILE_EVENT_FAILED;
        s.changed.notify_all();
    }
    switch (event.nEventType) {
        case Emulator::FILE_EVENT_PROGRESS:
        case Emulator::FILE_EVENT_FILE_DONE:
            if (show) {
                showProgress(terminal, event, done);
            }
            break;
        case Emulator::FILE_EVENT_PAUSED: say("%spaused", terminal ? "\n" : ""); break;
        case Emulator::FILE_EVENT_RESUMED: say("resumed"); break;
        case Emulator::FILE_EVENT_LIST_DONE:
            if (terminal) {
                say("%s", "");
            }
            break;
        default: break;
    }
}

void takeStopSignals(sigset_t stops) {
    int signal = 0;
    sigwait(&stops, &signal);
    {
        Shared& s = shared();
        std::lock_guard<std::mutex> guard(s.mutex);
        s.fInterrupted = true;
        s.changed.notify_all();
    }
    sigwait(&stops, &signal);
    _exit(128 + signal);  // a second stop does not wait for the first to be handled
}

}  // namespace

void say(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vwrite(stdout, format, args);
    va_end(args);
}

void complain(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vwrite(g_complaints, format, args);
    va_end(args);
}

void Session::quietLibrary() {
    const int original = dup(STDERR_FILENO);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    FILE* complaints = original >= 0 ? fdopen(original, "w") : nullptr;
    if (complaints == nullptr || null < 0 || dup2(null, STDERR_FILENO) < 0) {
        return;  // everything stays on standard error
    }
    close(null);
    g_complaints = complaints;
}

void Session::catchStopSignals() {
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stops, nullptr);
    std::thread(takeStopSignals, stops).detach();
}

int Session::open(const std::string& name, int number, bool listener) {
    {
        Shared& s = shared();
        std::lock_guard<std::mutex> guard(s.mutex);
        s.fListener = listener;
        s.fTerminal = isatty(STDOUT_FILENO) != 0;
    }
    m_pAgent = Agent::ActionAgent::getInstance();
    const int result = m_pAgent->registerApp(name.c_str(), number, this, onApp, listener ? onDevice : nullptr, listener);
    m_fRegistered = result == 0;
    return result;
}

Session::~Session() {
    if (m_fRegistered) {
        m_pAgent->unregisterApp();
    }
}

FileTransferCallback Session::progressCallback() {
    return onProgress;
}

int Session::receiveInto(const std::string& folder, bool print) {
    ReceiveOption option;
    Wire::CopyText(option.directory, folder.c_str());
    option.rename = true;
    option.percent = 1;
    option.pfnReceiveData = print ? onData : nullptr;
    option.pfnReceiveFile = print ? onReceivedFile : nullptr;
    return m_pAgent->setReceiveOption(&option);
}

Session::End Session::waitForTransfer(int idleSeconds) {
    Shared& s = shared();
    std::unique_lock<std::mutex> lock(s.mutex);
    s.lastEventAt = Clock::now();
    for (;;) {
        if (s.fEnded) {
            switch (s.last.nEventType) {
                case Emulator::FILE_EVENT_LIST_DONE: return FINISHED;
                case Emulator::FILE_EVENT_CANCELLED: return CANCELLED;
                default: return FAILED;
            }
        }
        if (s.fLost || s.fInterrupted) {
            return s.fLost ? LOST : INTERRUPTED;
        }
        if (Clock::now() - s.lastEventAt > std::chrono::seconds(idleSeconds)) {
            return STALLED;
        }
        s.changed.wait_for(lock, std::chrono::milliseconds(200));
    }
}

bool Session::waitForInterrupt() {
    Shared& s = shared();
    std::unique_lock<std::mutex> lock(s.mutex);
    s.changed.wait(lock, [&s] { return s.fInterrupted; });
    return true;
}

file_transfer_event Session::lastEvent() {
    Shared& s = shared();
    std::lock_guard<std::mutex> guard(s.mutex);
    return s.last;
}

}  // namespace Cli
}  // namespace PELK
