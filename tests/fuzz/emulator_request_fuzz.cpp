// Random bytes as one connection's stream into the emulator's request path: framing, decoding,
// every handler, and the transfers and events they start, beside a registered peer app.
// Each input runs in a small folder tree of its own (a media folder and the two apps' receive
// folders), which the emulator may not leave (its file root), so file sends, copies and uploads stay
// inside it.
//
// With PELK_FUZZ_SEEDS=DIR in the environment, the target first writes its seeds there: short
// sessions of real requests, the message tests' golden bodies (tools/fuzz.sh uses this).
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "CommonLib/LogSink.h"
#include "Service.h"
#include "support/LogCapture.h"
#include "support/MessageGoldens.h"
#include "support/TempDir.h"

using namespace PELK;
using namespace PELK::Emulator;
using pelktest::Bytes;

namespace {

class QuietHost : public ServiceHost {
public:
    void deliver(ClientId, std::vector<char>) override {}
    size_t backlog(ClientId) const override { return 0; }
    int64_t nowMs() const override { return now; }
    void log(const std::string&) override {}
    void trace(const std::string&) override {}
    int64_t now = 0;
};

// A body as one frame of a stream.
std::string frameOf(const Bytes& body) {
    const Bytes whole = pelktest::frame(body);
    return std::string(whole.begin(), whole.end());
}

// The start of a session: registering under name (with app events, device events as asked) and
// setting the receive folder.
std::string registration(const char* name, bool deviceEvents, const char* folder) {
    RegisterReq hello;
    hello.SetAppName(name);
    hello.fAppEvents = true;
    hello.fDeviceEvents = deviceEvents;
    SetReceiveOptionReq inbox;
    inbox.SetDirectory(folder);
    return frameOf(pelktest::Encode(hello)) + frameOf(pelktest::Encode(inbox));
}

// Writes the seeds to folder: a registration with events and a receive folder, alone and
// followed by each request of the message tests' golden bodies.
void writeSeeds(const std::string& folder) {
    const std::string start = registration("fuzz", true, "inbox");
    std::ofstream(folder + "/seed-0", std::ios::binary) << start;
    int number = 0;
    for (const pelktest::Golden& golden : pelktest::Goldens()) {
        const std::string name = golden.name;
        if (name.compare(name.size() - 3, 3, "Req") == 0) {
            std::ofstream(folder + "/seed-" + std::to_string(++number), std::ios::binary)
                << start << frameOf(golden.body);
        }
    }
}

std::string g_cwd;  // libFuzzer reads its corpus and writes its findings relative to it

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Common::setPropertyFilePathForTesting(pelktest::kQuietPropertyFile);
    const char* seedFolder = getenv("PELK_FUZZ_SEEDS");
    if (seedFolder != nullptr) {
        writeSeeds(seedFolder);
    }
    // Memory-backed when there is such a folder: every input writes and removes files.
    if (access("/dev/shm", W_OK) == 0) {
        setenv("TMPDIR", "/dev/shm", 1);
    }
    char cwd[PATH_MAX];
    g_cwd = getcwd(cwd, sizeof(cwd)) != nullptr ? cwd : "/";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    pelktest::TempDir root;
    for (const char* folder : {"media", "media/Music", "inbox", "peer"}) {
        mkdir(root.file(folder).c_str(), 0755);
    }
    root.write("media/notes.txt", "notes");
    root.write("media/Music/track.mp3", std::string(3000, 'm'));
    if (chdir(root.path().c_str()) != 0) {
        abort();
    }
    QuietHost host;
    ServiceConfig config;
    config.mediaFolder = root.file("media");
    config.fileRoot = root.path();
    config.nRateBytesPerSecond = 20 * 1024;  // 1 KiB chunks: a few steps per file, each with its events
    {
        Service service(config, host);
        std::string error;
        if (!service.start(error)) {
            abort();
        }
        static const std::string peerSession = registration("peer", false, "peer");
        service.connect(2);
        service.connect(1);
        for (const std::pair<ClientId, std::string>& session :
             {std::make_pair(ClientId(2), peerSession),
              std::make_pair(ClientId(1), std::string(reinterpret_cast<const char*>(data), size))}) {
            FrameReader reader;
            reader.append(session.second.data(), session.second.size());
            const char* body = nullptr;
            uint32_t length = 0;
            while (reader.next(body, length) == FrameReader::FRAME && service.receive(session.first, body, length)) {
            }
        }
        for (int i = 0; i < 16 && service.taskCount() > 0; ++i) {
            host.now += 1000;
            service.tick();
        }
        service.disconnect(1);
        service.disconnect(2);
    }
    if (chdir(g_cwd.c_str()) != 0) {
        abort();
    }
    return 0;
}
