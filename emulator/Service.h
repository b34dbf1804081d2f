// The emulated on-device service: everything the real service does for the apps connected to
// it, without the sockets. The host (the network loop, or a test) hands it each connection's
// messages and the passing of time; the service answers through the host with whole frames:
// registration and the app directory, data relayed between apps, file sends and media copies
// copied in chunks with progress events, an emulated media server and renderer, and the apps'
// own media servers. Requests are decoded and replies and events encoded only with the message
// classes of ActionManager/Struct.h; the values the protocol leaves open are in ServiceCodes.h.
//
// Threads: one. The host calls every operation from the same thread and the service calls the
// host back on it; nothing here locks. Ownership: the service owns its apps, tasks and media
// libraries; frames handed to the host are the host's.
#ifndef PELK_EMULATOR_SERVICE_H
#define PELK_EMULATOR_SERVICE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ActionManager/Struct.h"
#include "FileCopy.h"
#include "MediaLibrary.h"

namespace PELK {
namespace Emulator {

using ClientId = uint64_t;

// What the service needs of the world around it.
class ServiceHost {
public:
    virtual ~ServiceHost() = default;
    // Queues one whole frame (length word first) for the client.
    virtual void deliver(ClientId client, std::vector<char> frame) = 0;
    // Bytes queued for the client and not yet sent.
    virtual size_t backlog(ClientId client) const = 0;
    // Milliseconds of a monotonic clock.
    virtual int64_t nowMs() const = 0;
    // The emulator's own report: registrations, transfers, refusals, what the renderer plays.
    virtual void log(const std::string& line) = 0;
    // One protocol trace line; called only when tracing is on.
    virtual void trace(const std::string& line) = 0;
};

struct ServiceConfig {
    std::string mediaFolder;            // served by the emulated media server; empty: no such server
    bool fTrace = false;                // every message in and out goes to ServiceHost::trace
    uint64_t nRateBytesPerSecond = 0;   // speed of each file send and copy; 0: as fast as it goes
    std::string fileRoot;               // when set, apps may name only files and folders under it
};

// Cuts a connection's byte stream into frames. A frame whose length word is below 4 (no room
// for an action ID) or above Service::kMaxBody is malformed; the stream cannot be trusted after.
class FrameReader {
public:
    enum Status { NEED_MORE, FRAME, MALFORMED };

    void append(const char* data, size_t size);
    // The next whole frame's message (action ID first), valid until the next append(); the
    // length word of a malformed frame is left in length.
    Status next(const char*& body, uint32_t& length);

private:
    std::vector<char> m_buffer;
    size_t m_nConsumed = 0;
};

class Service {
public:
    // Largest message accepted from an app: a copy or play request of about 2000 items.
    static constexpr uint32_t kMaxBody = 4u << 20;
    // Bytes copied per step of a transfer.
    static constexpr size_t kChunkBytes = 64u << 10;
    // A transfer waits while one of its apps has this much unsent.
    static constexpr size_t kBacklogLimit = 1u << 20;
    // A new transfer's first step, and a UDP send's status event, come this late: the agent
    // files the callbacks for them only once the reply is in.
    static constexpr int kFollowUpDelayMs = 100;
    static const char* const kDeviceMac;      // the one MAC of this emulated device
    static const char* const kMediaServerUDN;  // the emulated media server
    static const char* const kRendererUDN;     // the emulated renderer

    Service(const ServiceConfig& config, ServiceHost& host);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // False (with the reason) when the media folder cannot be served.
    bool start(std::string& error);
    // REQUIRES: client is not 0 and not connected yet.
    void connect(ClientId client);
    // Serves one message (action ID first). False when it is malformed or not a request: the
    // host then closes the connection and calls disconnect().
    bool receive(ClientId client, const char* body, uint32_t length);
    // The connection is gone: its app leaves, its transfers fail.
    void disconnect(ClientId client);
    // Runs what is due (transfer steps, delayed events); milliseconds until more is due, or -1.
    int64_t tick();
    // Cancels every transfer (their unfinished files are removed) before the emulator stops.
    void shutdown();

    // For the host's messages and tests: how many apps are registered, and transfers running.
    size_t appCount() const;
    size_t taskCount() const { return m_tasks.size(); }

private:
    // A registered app.
    struct App {
        InteractionApp record;  // as the others see it: fLocalDevice is set only for the app itself
        bool fAppEvents = false;
        bool fDeviceEvents = false;
        std::string receiveFolder;  // empty until a receive option names one
        bool fRename = true;
        int32_t nPercent = 1;  // receive progress is reported in steps of this many percent
        uint32_t nSendCount = 0;  // numbers its data sends that asked for a status
        // Its own media server, which others see while it runs.
        std::unique_ptr<MediaLibrary> pServer;
        DLNADevice serverDevice;
        bool fServerRunning = false;
    };
    struct Client {
        ClientId id = 0;
        std::unique_ptr<App> pApp;  // null until registered
    };
    // A file send (events 14 and 19 to its two apps) or a media copy (event 41 to the app that
    // asked for it, which is then both sender and receiver).
    struct Task {
        int32_t nTaskID = 0;
        bool fCopy = false;
        ClientId sender = 0;
        ClientId receiver = 0;
        InteractionApp senderRecord;
        InteractionApp receiverRecord;
        SendTag tag;
        DLNADevice otherSide;  // of a copy
        std::unique_ptr<FileCopy> pCopy;
        bool fPaused = false;
        int64_t nNextStepMs = 0;
        int32_t nReportedPercent = -1;  // of the receiver's current file
    };
    struct Device {
        DLNADevice record;
        const MediaLibrary* pLibrary;  // null for the renderer
    };
    struct NoReply {
        int32_t actionID = 0;
        int32_t nResult = 0;
    };
    struct Route {
        int32_t nActionID;
        bool (Service::*serve)(Client& client, const char* body, uint32_t length);
    };
    static const Route kRoutes[];

    template <class Req, class Res, int32_t (Service::*Handler)(Client&, const Req&, Res&), bool Open = false>
    bool serve(Client& client, const char* body, uint32_t length);
    template <class Msg>
    void push(ClientId to, const Msg& message);
    template <class Msg>
    void send(ClientId to, const Msg& message);
    void later(int delayMs, std::function<void()> action);
    std::string label(ClientId client) const;
    void report(const std::string& line);

    // Registration and apps.
    int32_t onRegister(Client& c, const RegisterReq& req, RegisterRes& res);
    int32_t onUnregister(Client& c, const UnregisterReq& req, UnregisterRes& res);
    int32_t onSearchApp(Client& c, const SearchAppReq& req, SearchAppRes& res);
    int32_t onRefreshApp(Client& c, const RefreshAppReq& req, RefreshAppRes& res);
    int32_t onGetLocalNetwork(Client& c, const GetLocalNetworkDeviceReq& req, GetLocalNetworkDeviceRes& res);
    int32_t assignAppID();
    void removeApp(Client& c, const char* why);
    void announceApp(const App& app, int32_t change);
    void pushDirectory(const Client& to);
    InteractionApp recordFor(const App& app, ClientId recipient) const;
    Client* findApp(const InteractionApp& address);

    // Data.
    int32_t onSendData(Client& c, const SendDataReq& req, SendDataRes& res);
    int32_t onAsynSendData(Client& c, const AsynSendDataReq& req, NoReply& res);
    int32_t onSendUDPData(Client& c, const SendUDPDataReq& req, SendUDPDataRes& res);
    int32_t onSendUDPHugeData(Client& c, const SendUDPHugeDataReq& req, SendUDPHugeDataRes& res);
    int32_t onBroadcast(Client& c, const BroadcastReq& req, BroadcastRes& res);
    int32_t relay(Client& from, const InteractionApp& to, int32_t kind, const MessageData& data);
    void deliverData(const Client& from, ClientId to, int32_t kind, const MessageData& data);
    template <class Status>
    Status dataStatus(Client& from, const InteractionApp& to, int32_t result);

    // Files and transfers.
    int32_t onSetReceiveOption(Client& c, const SetReceiveOptionReq& req, SetReceiveOptionRes& res);
    int32_t onSendFile(Client& c, const SendFileReq& req, SendFileRes& res);
    int32_t onTransferCtrl(Client& c, const FileTransferCtrlReq& req, FileTransferCtrlRes& res);
    int32_t onStopCopy(Client& c, const CopyTransferCtrlReq& req, CopyTransferCtrlRes& res);
    bool allowed(const std::string& path) const;
    int32_t startTask(std::unique_ptr<Task> task);
    void stepTask(Task& task, int64_t now);
    // Tells the task's apps (or only the app only) of its state after an event of eventType.
    void notify(Task& task, int32_t eventType, int32_t status, ClientId only = 0);
    void endTask(int32_t taskID);
    void failTasksOf(ClientId client);
    size_t chunkBytes() const;

    // Media.
    int32_t onSearchDevice(Client& c, const SearchDeviceReq& req, SearchDeviceRes& res);
    int32_t onGetFileList(Client& c, const GetFileListReq& req, GetFileListRes& res);
    int32_t onGetParentInfo(Client& c, const GetParentDirectoryInfoReq& req, GetParentDirectoryInfoRes& res);
    int32_t onCopy(Client& c, const CopyFileReq& req, CopyFileRes& res);
    int32_t onPlay(Client& c, const PlaySelectedFileReq& req, PlaySelectedFileRes& res);
    int32_t onPlayCtrl(Client& c, const FilePlayCtrlReq& req, FilePlayCtrlRes& res);
    int32_t onContentCache(Client& c, const ContentListCacheCtrlReq& req, ContentListCacheCtrlRes& res);
    int32_t onDMSCtrl(Client& c, const DMSCtrlReq& req, DMSCtrlRes& res);
    int32_t onSetShareFolder(Client& c, const SetShareFolderReq& req, SetShareFolderRes& res);
    int32_t onUpdateShareFolder(Client& c, const UpdateShareFolderReq& req, UpdateShareFolderRes& res);
    int32_t onSetMyDMSName(Client& c, const SetMyDMSNameReq& req, SetMyDMSNameRes& res);
    int32_t onRescanNetwork(Client& c, const RescanNetworkReq& req, RescanNetworkRes& res);
    std::vector<Device> devices(DLNA_DEVICE_TYPE type) const;
    const MediaLibrary* findServer(const std::string& udn, DLNADevice* device = nullptr) const;
    // Every device of the type, as appeared, to one app; a device's change to all others.
    void pushDevices(ClientId to, DLNA_DEVICE_TYPE type);
    void announceDevice(const DLNADevice& device, int32_t change, ClientId except);
    int32_t collectItems(const MediaLibrary& library, const std::vector<FileInfo>& items, const std::string& folder,
                         std::vector<FileCopy::Item>& copies) const;

    ServiceConfig m_config;
    ServiceHost& m_host;
    std::map<ClientId, Client> m_clients;
    std::map<int32_t, std::unique_ptr<Task>> m_tasks;  // by task ID
    struct Delayed {
        int64_t nDueMs;
        std::function<void()> action;
    };
    std::vector<Delayed> m_delayed;
    // While a request is served, its events wait here so that they follow its reply.
    bool m_fServing = false;
    struct Deferred {
        ClientId to;
        std::vector<char> frame;
        std::string trace;
    };
    std::vector<Deferred> m_deferred;
    int32_t m_nLastAppID = 0;
    int32_t m_nLastTaskID = 0;
    int32_t m_nLastServerNumber = 0;

    std::unique_ptr<MediaLibrary> m_pMediaServer;
    DLNADevice m_mediaServerDevice;
    DLNADevice m_rendererDevice;
    struct Renderer {
        enum State { STOPPED, PLAYING, PAUSED } state = STOPPED;
        std::string title;
    } m_renderer;
};

}  // namespace Emulator
}  // namespace PELK

#endif  // PELK_EMULATOR_SERVICE_H
