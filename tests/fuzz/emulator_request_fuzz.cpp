// Random bytes as one connection's stream into the emulator's request path: framing, decoding,
// every handler, and the transfers and events they start, beside a registered peer app.
// Each input runs in the same small folder tree, which the emulator may not leave (its file root),
// so file sends, copies and uploads stay inside it; what an input wrote is removed after it.
//
// With PELK_FUZZ_SEEDS=DIR in the environment, the target first writes its seeds there: short
// sessions of real requests encoded by the message classes (tools/fuzz.sh uses this).
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "CommonLib/LogSink.h"
#include "Service.h"
#include "ServiceCodes.h"

using namespace PELK;
using namespace PELK::Emulator;

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

template <class Msg>
void appendFrame(std::string& stream, const Msg& message) {
    std::vector<char> body(message.GetSize());
    const unsigned int length = message.GetBuffer(body.data());
    unsigned char word[4];
    Wire::EncodeFixed32(word, length);
    stream.append(reinterpret_cast<const char*>(word), 4);
    stream.append(body.data(), length);
}

InteractionApp peer() {
    InteractionApp app;
    app.nAppID = 1;  // the peer registers first
    return app;
}

FileInfo item(const char* objectID) {
    FileInfo info;
    Wire::CopyText(info.objectID, objectID);
    Wire::CopyText(info.sourceDMSUDN, Service::kMediaServerUDN);
    return info;
}

DLNADevice device(const char* udn, DLNA_DEVICE_TYPE type) {
    DLNADevice found;
    Wire::CopyText(found.UUID, udn);
    found.type = type;
    return found;
}

// Paths in seeds are relative: each input runs in the tree, entered as the current folder.
std::vector<std::string> seeds() {
    std::string registration;
    RegisterReq hello;
    hello.SetAppName("fuzz");
    hello.fAppEvents = true;
    hello.fDeviceEvents = true;
    appendFrame(registration, hello);
    SetReceiveOptionReq inbox;
    inbox.SetDirectory("inbox");
    appendFrame(registration, inbox);

    std::string data = registration;
    SendDataReq text;
    text.app = peer();
    text.data.Set("hello", 5);
    appendFrame(data, text);
    AsynSendDataReq asyn;
    asyn.app = peer();
    asyn.fWantStatus = true;
    asyn.data.Set("later", 5);
    appendFrame(data, asyn);
    SendUDPHugeDataReq piece;
    piece.app = peer();
    piece.data.Set("\x01\0\0\0\xfe\xff\xff\xffpiece", 13);
    appendFrame(data, piece);

    std::string files = registration;
    SendFileReq send;
    send.files = {FilePath("media/notes.txt"), FilePath("media/Music/track.mp3")};
    send.app = peer();
    appendFrame(files, send);
    FileTransferCtrlReq pause(ACTION_PAUSE_SEND);
    pause.nTaskID = 1;
    appendFrame(files, pause);
    FileTransferCtrlReq cancel(ACTION_CANCEL_SEND);
    cancel.nTaskID = 1;
    appendFrame(files, cancel);

    std::string media = registration;
    GetFileListReq browse(ACTION_GET_CHILD_FILE_LIST);
    browse.server = device(Service::kMediaServerUDN, DLNA_DEVICE_DMS);
    browse.folder = item("Music");
    appendFrame(media, browse);
    CopyFileReq download;
    download.actionID = ACTION_DOWNLOAD_FILE;
    download.source = browse.server;
    download.items = {item("Music/track.mp3")};
    appendFrame(media, download);
    CopyFileReq upload;
    upload.source = browse.server;
    upload.destination = browse.server;
    upload.items = {item("notes.txt")};
    upload.destinationFolder = item("Music");
    appendFrame(media, upload);
    PlaySelectedFileReq play;
    play.server = device(Service::kRendererUDN, DLNA_DEVICE_DMR);
    play.renderer = browse.server;
    play.items = {item("notes.txt")};
    appendFrame(media, play);
    SetShareFolderReq share;
    share.SetFolderPath("media");
    appendFrame(media, share);
    appendFrame(media, DMSCtrlReq(ACTION_START_DMS));
    return {registration, data, files, media};
}

void writeSeeds(const char* folder) {
    int number = 0;
    for (const std::string& seed : seeds()) {
        std::ofstream(std::string(folder) + "/seed-" + std::to_string(++number), std::ios::binary) << seed;
    }
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

// The tree that every input starts from: a media folder and the two apps' receive folders.
const char* const kFolders[] = {"media", "media/Music", "inbox", "peer"};
const std::pair<const char*, size_t> kFiles[] = {{"media/notes.txt", 5}, {"media/Music/track.mp3", 3000}};

std::string g_root;
std::string g_cwd;  // libFuzzer reads its corpus and writes its findings relative to it

// Removes every file an input left (copies, uploads) and restores the tree's own files, which an
// input may have overwritten or (as an abandoned copy) removed. Cheaper than a new tree per input.
int removeForeign(const char* path, const struct stat* info, int type, struct FTW*) {
    const std::string relative = std::string(path).substr(std::min(g_root.size() + 1, strlen(path)));
    const bool own = std::any_of(std::begin(kFiles), std::end(kFiles), [&](const auto& f) { return relative == f.first; });
    if (type == FTW_F && !own && S_ISREG(info->st_mode)) {
        unlink(path);
    }
    return 0;
}

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

void removeTree() {
    nftw(g_root.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

void resetTree() {
    nftw(g_root.c_str(), removeForeign, 16, FTW_PHYS);
    for (const auto& file : kFiles) {
        writeFile(g_root + "/" + file.first, std::string(file.second, 'm'));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Common::setPropertyFilePathForTesting("/nonexistent/pelk-fuzz/log.properties");
    const char* seedFolder = getenv("PELK_FUZZ_SEEDS");
    if (seedFolder != nullptr) {
        writeSeeds(seedFolder);
    }
    // Memory-backed when there is such a folder: every input writes and removes files.
    std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    base += "/pelk-emulator-fuzz-XXXXXX";
    if (mkdtemp(&base[0]) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    g_root = base;
    char cwd[PATH_MAX];
    g_cwd = getcwd(cwd, sizeof(cwd)) != nullptr ? cwd : "/";
    for (const char* folder : kFolders) {
        mkdir((g_root + "/" + folder).c_str(), 0755);
    }
    atexit(removeTree);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    resetTree();
    if (chdir(g_root.c_str()) != 0) {
        abort();
    }
    QuietHost host;
    ServiceConfig config;
    config.mediaFolder = g_root + "/media";
    config.fileRoot = g_root;
    config.nRateBytesPerSecond = 20 * 1024;  // 1 KiB chunks: a few steps per file, each with its events
    {
        Service service(config, host);
        std::string error;
        if (!service.start(error)) {
            abort();
        }
        std::string peerSession;
        RegisterReq peerRegistration;
        peerRegistration.SetAppName("peer");
        peerRegistration.fAppEvents = true;
        appendFrame(peerSession, peerRegistration);
        SetReceiveOptionReq peerInbox;
        peerInbox.SetDirectory("peer");
        appendFrame(peerSession, peerInbox);
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
