// The service's core: framing, the route of each request, replies and events, registration,
// the app directory and data relay. Files and media are in ServiceFiles.cpp and ServiceMedia.cpp.
#include "Service.h"

#include <unistd.h>

#include <algorithm>
#include <type_traits>
#include <utility>

#include "ServiceCodes.h"
#include "Trace.h"

namespace PELK {
namespace Emulator {

const char* const Service::kDeviceMac = "02:50:45:4c:4b:01";
const char* const Service::kMediaServerUDN = "uuid:pelk-emulator-media-server";
const char* const Service::kRendererUDN = "uuid:pelk-emulator-renderer";

namespace {

// Bytes of the length word in front of every message.
constexpr size_t kLengthWord = 4;
// The agent finds a send's status callback by the low byte of the target's app ID, so IDs stay
// within one byte.
constexpr int32_t kMaxAppID = 255;
const char* const kLocalAddress = "127.0.0.1";

// Reads a request with its class's own field list; false unless the body is exactly as long as
// the fields, counts and lengths that it declares.
template <class Msg>
bool decodeExact(Msg& message, const char* body, uint32_t length) {
    Wire::BodySizer sizer(body, length);
    Msg::Fields(std::as_const(message), sizer);
    if (!sizer.Fits() || sizer.End() != length) {
        return false;
    }
    message.FromBuffer(body, length);
    return true;
}

// The frame of a message: what GetBuffer writes (the file events write less than GetSize()).
template <class Msg>
std::vector<char> frameOf(const Msg& message) {
    std::vector<char> frame(kLengthWord + message.GetSize());
    const unsigned int written = message.GetBuffer(frame.data() + kLengthWord);
    frame.resize(kLengthWord + written);
    Wire::EncodeFixed32(reinterpret_cast<unsigned char*>(frame.data()), written);
    return frame;
}

std::string resultText(int32_t result) {
    const char* meaning = describeServiceResult(result);
    return std::to_string(result) + " (" + (meaning != nullptr ? meaning : "?") + ")";
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Framing

void FrameReader::append(const char* data, size_t size) {
    if (m_nConsumed > 0) {
        m_buffer.erase(m_buffer.begin(), m_buffer.begin() + static_cast<std::ptrdiff_t>(m_nConsumed));
        m_nConsumed = 0;
    }
    m_buffer.insert(m_buffer.end(), data, data + size);
}

FrameReader::Status FrameReader::next(const char*& body, uint32_t& length) {
    const size_t available = m_buffer.size() - m_nConsumed;
    if (available < kLengthWord) {
        return NEED_MORE;
    }
    const char* start = m_buffer.data() + m_nConsumed;
    length = Wire::DecodeFixed32(reinterpret_cast<const unsigned char*>(start));
    if (length < sizeof(int32_t) || length > Service::kMaxBody) {
        return MALFORMED;
    }
    if (available - kLengthWord < length) {
        return NEED_MORE;
    }
    body = start + kLengthWord;
    m_nConsumed += kLengthWord + length;
    return FRAME;
}

// ---------------------------------------------------------------------------------------------
// Routing

const Service::Route Service::kRoutes[] = {
    {ACTION_REGISTER, &Service::serve<RegisterReq, RegisterRes, &Service::onRegister, true>},
    {ACTION_UNREGISTER, &Service::serve<UnregisterReq, UnregisterRes, &Service::onUnregister>},
    {ACTION_PAUSE_SEND, &Service::serve<FileTransferCtrlReq, FileTransferCtrlRes, &Service::onTransferCtrl>},
    {ACTION_RESUME_SEND, &Service::serve<FileTransferCtrlReq, FileTransferCtrlRes, &Service::onTransferCtrl>},
    {ACTION_CANCEL_RECEIVE, &Service::serve<FileTransferCtrlReq, FileTransferCtrlRes, &Service::onTransferCtrl>},
    {ACTION_CANCEL_SEND, &Service::serve<FileTransferCtrlReq, FileTransferCtrlRes, &Service::onTransferCtrl>},
    {ACTION_SEND_FILE, &Service::serve<SendFileReq, SendFileRes, &Service::onSendFile>},
    {ACTION_SEND_FILE_EX, &Service::serve<SendFileReq, SendFileRes, &Service::onSendFile>},
    {ACTION_SET_RECEIVE_OPTION, &Service::serve<SetReceiveOptionReq, SetReceiveOptionRes, &Service::onSetReceiveOption>},
    {ACTION_BROADCAST, &Service::serve<BroadcastReq, BroadcastRes, &Service::onBroadcast>},
    {ACTION_GET_LOCAL_NETWORK_DEVICE,
     &Service::serve<GetLocalNetworkDeviceReq, GetLocalNetworkDeviceRes, &Service::onGetLocalNetwork>},
    {ACTION_SEND_DATA, &Service::serve<SendDataReq, SendDataRes, &Service::onSendData>},
    {ACTION_SET_SHARE_FOLDER, &Service::serve<SetShareFolderReq, SetShareFolderRes, &Service::onSetShareFolder>},
    {ACTION_SEARCH_DMS, &Service::serve<SearchDeviceReq, SearchDeviceRes, &Service::onSearchDevice>},
    {ACTION_SEARCH_DMR, &Service::serve<SearchDeviceReq, SearchDeviceRes, &Service::onSearchDevice>},
    {ACTION_GET_ROOT_FILE_LIST, &Service::serve<GetFileListReq, GetFileListRes, &Service::onGetFileList>},
    {ACTION_GET_CHILD_FILE_LIST, &Service::serve<GetFileListReq, GetFileListRes, &Service::onGetFileList>},
    {ACTION_GET_PARENT_FILE_LIST, &Service::serve<GetFileListReq, GetFileListRes, &Service::onGetFileList>},
    {ACTION_START_DMS, &Service::serve<DMSCtrlReq, DMSCtrlRes, &Service::onDMSCtrl>},
    {ACTION_STOP_DMS, &Service::serve<DMSCtrlReq, DMSCtrlRes, &Service::onDMSCtrl>},
    {ACTION_STOP_COPY_TRANSFER, &Service::serve<CopyTransferCtrlReq, CopyTransferCtrlRes, &Service::onStopCopy>},
    {ACTION_UPDATE_SHARE_FOLDER,
     &Service::serve<UpdateShareFolderReq, UpdateShareFolderRes, &Service::onUpdateShareFolder>},
    {ACTION_SET_MY_DMS_NAME, &Service::serve<SetMyDMSNameReq, SetMyDMSNameRes, &Service::onSetMyDMSName>},
    {ACTION_RESCAN_NETWORK, &Service::serve<RescanNetworkReq, RescanNetworkRes, &Service::onRescanNetwork>},
    {ACTION_PLAY_SELECTED_FILE, &Service::serve<PlaySelectedFileReq, PlaySelectedFileRes, &Service::onPlay>},
    {ACTION_STOP_PLAYING_FILE, &Service::serve<FilePlayCtrlReq, FilePlayCtrlRes, &Service::onPlayCtrl>},
    {ACTION_PAUSE_PLAYING_FILE, &Service::serve<FilePlayCtrlReq, FilePlayCtrlRes, &Service::onPlayCtrl>},
    {ACTION_RESUME_PLAYING_FILE, &Service::serve<FilePlayCtrlReq, FilePlayCtrlRes, &Service::onPlayCtrl>},
    {ACTION_COPY_FILE, &Service::serve<CopyFileReq, CopyFileRes, &Service::onCopy>},
    {ACTION_DOWNLOAD_FILE, &Service::serve<CopyFileReq, CopyFileRes, &Service::onCopy>},
    {ACTION_ENABLE_CONTENT_LIST_CACHE,
     &Service::serve<ContentListCacheCtrlReq, ContentListCacheCtrlRes, &Service::onContentCache>},
    {ACTION_DISABLE_CONTENT_LIST_CACHE,
     &Service::serve<ContentListCacheCtrlReq, ContentListCacheCtrlRes, &Service::onContentCache>},
    {ACTION_SEARCH_APP, &Service::serve<SearchAppReq, SearchAppRes, &Service::onSearchApp>},
    {ACTION_GET_PARENT_DIRECTORY_INFO,
     &Service::serve<GetParentDirectoryInfoReq, GetParentDirectoryInfoRes, &Service::onGetParentInfo>},
    {ACTION_SEND_UDP_DATA, &Service::serve<SendUDPDataReq, SendUDPDataRes, &Service::onSendUDPData>},
    {ACTION_REFRESH_APP, &Service::serve<RefreshAppReq, RefreshAppRes, &Service::onRefreshApp>},
    {ACTION_SEND_UDP_HUGE_DATA, &Service::serve<SendUDPHugeDataReq, SendUDPHugeDataRes, &Service::onSendUDPHugeData>},
    {ACTION_ASYN_SEND_DATA, &Service::serve<AsynSendDataReq, NoReply, &Service::onAsynSendData>},
};

Service::Service(const ServiceConfig& config, ServiceHost& host)
    : m_config(config), m_host(host), m_pMediaServer(new MediaLibrary(kMediaServerUDN)) {
    Wire::CopyText(m_mediaServerDevice.name, "pelk-emulator media");
    m_mediaServerDevice.type = DLNA_DEVICE_DMS;
    Wire::CopyText(m_mediaServerDevice.UUID, kMediaServerUDN);
    m_mediaServerDevice.localDevice = 1;  // every emulated device is on this machine
    Wire::CopyText(m_rendererDevice.name, "pelk-emulator renderer");
    m_rendererDevice.type = DLNA_DEVICE_DMR;
    Wire::CopyText(m_rendererDevice.UUID, kRendererUDN);
    m_rendererDevice.localDevice = 1;
}

Service::~Service() = default;

bool Service::start(std::string& error) {
    if (m_config.mediaFolder.empty()) {
        m_pMediaServer.reset();
        return true;
    }
    if (!m_pMediaServer->setFolder(m_config.mediaFolder)) {
        error = "cannot serve " + m_config.mediaFolder + ": not a readable folder";
        return false;
    }
    report("media server \"pelk-emulator media\" serves " + m_pMediaServer->folder());
    return true;
}

void Service::connect(ClientId client) {
    m_clients[client].id = client;
}

bool Service::receive(ClientId id, const char* body, uint32_t length) {
    const auto found = m_clients.find(id);
    if (found == m_clients.end() || length < sizeof(int32_t)) {
        return false;
    }
    const int32_t actionID = static_cast<int32_t>(Wire::DecodeFixed32(reinterpret_cast<const unsigned char*>(body)));
    for (const Route& route : kRoutes) {
        if (route.nActionID == actionID) {
            return (this->*route.serve)(found->second, body, length);
        }
    }
    report(label(id) + ": action " + std::to_string(actionID) + " is no request; closing the connection");
    return false;
}

template <class Req, class Res, int32_t (Service::*Handler)(Service::Client&, const Req&, Res&), bool Open>
bool Service::serve(Client& client, const char* body, uint32_t length) {
    Req request;
    if (!decodeExact(request, body, length)) {
        report(label(client.id) + ": malformed " + Req::kName + "(" + std::to_string(request.actionID) + "), " +
               std::to_string(length) + " bytes; closing the connection");
        return false;
    }
    if (m_config.fTrace) {
        m_host.trace("<- " + label(client.id) + " " + traceLine(request));
    }
    Res response;
    response.actionID = request.actionID;
    m_fServing = true;
    response.nResult = Open || client.pApp ? (this->*Handler)(client, request, response) : RESULT_NOT_REGISTERED;
    if (response.nResult != RESULT_OK) {
        report(label(client.id) + ": " + Req::kName + "(" + std::to_string(request.actionID) +
               ") refused: " + resultText(response.nResult));
    }
    if constexpr (!std::is_same<Res, NoReply>::value) {
        send(client.id, response);
    }
    m_fServing = false;
    for (Deferred& event : m_deferred) {
        if (m_config.fTrace) {
            m_host.trace(event.trace);
        }
        m_host.deliver(event.to, std::move(event.frame));
    }
    m_deferred.clear();
    return true;
}

template <class Msg>
void Service::send(ClientId to, const Msg& message) {
    if (m_config.fTrace) {
        m_host.trace("-> " + label(to) + " " + traceLine(message));
    }
    m_host.deliver(to, frameOf(message));
}

template <class Msg>
void Service::push(ClientId to, const Msg& message) {
    if (!m_fServing) {
        send(to, message);
        return;
    }
    Deferred event;
    event.to = to;
    event.frame = frameOf(message);
    if (m_config.fTrace) {
        event.trace = "-> " + label(to) + " " + traceLine(message);
    }
    m_deferred.push_back(std::move(event));
}

// The events that ServiceFiles.cpp and ServiceMedia.cpp push.
template void Service::push(ClientId, const SendFileStatusRes&);
template void Service::push(ClientId, const ReceiveFileRes&);
template void Service::push(ClientId, const DMFileCopyRes&);
template void Service::push(ClientId, const DMDeviceChangeRes&);

void Service::later(int delayMs, std::function<void()> action) {
    m_delayed.push_back({m_host.nowMs() + delayMs, std::move(action)});
}

int64_t Service::tick() {
    int64_t now = m_host.nowMs();
    std::vector<Delayed> due;
    const auto firstLater = std::stable_partition(m_delayed.begin(), m_delayed.end(),
                                                  [now](const Delayed& d) { return d.nDueMs <= now; });
    std::move(m_delayed.begin(), firstLater, std::back_inserter(due));
    m_delayed.erase(m_delayed.begin(), firstLater);
    for (Delayed& d : due) {
        d.action();
    }
    std::vector<int32_t> ready;
    for (const auto& entry : m_tasks) {
        if (!entry.second->fPaused && entry.second->nNextStepMs <= now) {
            ready.push_back(entry.first);
        }
    }
    for (int32_t taskID : ready) {
        const auto found = m_tasks.find(taskID);
        if (found != m_tasks.end()) {
            stepTask(*found->second, now);
        }
    }
    now = m_host.nowMs();
    int64_t next = -1;
    auto consider = [&next, now](int64_t dueMs) {
        const int64_t wait = dueMs > now ? dueMs - now : 0;
        next = next < 0 || wait < next ? wait : next;
    };
    for (const Delayed& d : m_delayed) {
        consider(d.nDueMs);
    }
    for (const auto& entry : m_tasks) {
        if (!entry.second->fPaused) {
            consider(entry.second->nNextStepMs);
        }
    }
    return next;
}

std::string Service::label(ClientId client) const {
    std::string text = "c" + std::to_string(client);
    const auto found = m_clients.find(client);
    if (found != m_clients.end() && found->second.pApp) {
        const InteractionApp& record = found->second.pApp->record;
        text += ' ' + quoted(record.szAppName, strnlen(record.szAppName, sizeof(record.szAppName))) + '/' +
                std::to_string(record.nAppID);
    }
    return text;
}

void Service::report(const std::string& line) {
    m_host.log(line);
}

size_t Service::appCount() const {
    return static_cast<size_t>(
        std::count_if(m_clients.begin(), m_clients.end(), [](const auto& entry) { return entry.second.pApp != nullptr; }));
}

void Service::disconnect(ClientId client) {
    const auto found = m_clients.find(client);
    if (found == m_clients.end()) {
        return;
    }
    removeApp(found->second, "left (connection closed)");
    m_clients.erase(found);
}

// ---------------------------------------------------------------------------------------------
// Registration and apps

int32_t Service::assignAppID() {
    for (int32_t step = 1; step <= kMaxAppID; ++step) {
        // Round robin from the last ID given: a freed ID comes back only after all others.
        const int32_t candidate = (m_nLastAppID + step - 1) % kMaxAppID + 1;
        const bool taken = std::any_of(m_clients.begin(), m_clients.end(), [candidate](const auto& entry) {
            return entry.second.pApp && entry.second.pApp->record.nAppID == candidate;
        });
        if (!taken) {
            m_nLastAppID = candidate;
            return candidate;
        }
    }
    return 0;
}

InteractionApp Service::recordFor(const App& app, ClientId recipient) const {
    InteractionApp record = app.record;
    const auto found = m_clients.find(recipient);
    // fLocalDevice tells an agent "this is you": every emulated app shares this one device.
    record.fLocalDevice = found != m_clients.end() && found->second.pApp.get() == &app ? 1 : 0;
    return record;
}

Service::Client* Service::findApp(const InteractionApp& address) {
    if (Wire::TextOf(address.szIPv4) != kLocalAddress) {
        return nullptr;
    }
    for (auto& entry : m_clients) {
        if (entry.second.pApp && entry.second.pApp->record.nAppID == address.nAppID) {
            return &entry.second;
        }
    }
    return nullptr;
}

void Service::announceApp(const App& app, int32_t change) {
    for (const auto& entry : m_clients) {
        const App* other = entry.second.pApp.get();
        if (other != nullptr && other != &app && other->fAppEvents) {
            InterAppChangeRes event;
            event.nChangeType = change;
            event.app = recordFor(app, entry.first);
            push(entry.first, event);
        }
    }
}

// The app itself first, then every other app, each as appeared.
void Service::pushDirectory(const Client& to) {
    InterAppChangeRes own;
    own.nChangeType = APP_APPEARED;
    own.app = recordFor(*to.pApp, to.id);
    push(to.id, own);
    for (const auto& entry : m_clients) {
        if (entry.second.pApp && entry.first != to.id) {
            InterAppChangeRes event;
            event.nChangeType = APP_APPEARED;
            event.app = recordFor(*entry.second.pApp, to.id);
            push(to.id, event);
        }
    }
}

int32_t Service::onRegister(Client& c, const RegisterReq& req, RegisterRes& res) {
    res.nAppID = 0;
    if (c.pApp) {
        return RESULT_ALREADY_REGISTERED;
    }
    if (req.szAppName[0] == '\0') {
        return RESULT_BAD_REQUEST;
    }
    const int32_t appID = assignAppID();
    if (appID == 0) {
        return RESULT_NO_APP_ID;
    }
    std::unique_ptr<App> app(new App);
    app->record.SetAppName(Wire::TextOf(req.szAppName).c_str());
    app->record.nAppID = appID;
    app->record.nType = req.nAppID;
    app->record.SetIPv4(kLocalAddress);
    app->record.SetMacAddress(kDeviceMac);
    app->fAppEvents = req.fAppEvents;
    app->fDeviceEvents = req.fDeviceEvents;
    const std::string udn = "uuid:pelk-app-server-" + std::to_string(++m_nLastServerNumber);
    app->pServer.reset(new MediaLibrary(udn));
    app->serverDevice.type = DLNA_DEVICE_DMS;
    Wire::CopyText(app->serverDevice.name, (Wire::TextOf(req.szAppName) + " media").c_str());
    Wire::CopyText(app->serverDevice.UUID, udn.c_str());
    app->serverDevice.localDevice = 1;
    c.pApp = std::move(app);
    res.nAppID = appID;
    report(label(c.id) + ": registered, number " + std::to_string(req.nAppID) +
           (req.fAppEvents ? ", wants app events" : "") + (req.fDeviceEvents ? ", wants device events" : ""));
    if (c.pApp->fAppEvents) {
        pushDirectory(c);
    }
    announceApp(*c.pApp, APP_APPEARED);
    if (c.pApp->fDeviceEvents) {
        pushDevices(c.id, DLNA_DEVICE_ALL);
    }
    return RESULT_OK;
}

void Service::removeApp(Client& c, const char* why) {
    if (!c.pApp) {
        return;
    }
    failTasksOf(c.id);
    if (c.pApp->fServerRunning) {
        announceDevice(c.pApp->serverDevice, DEVICE_LEFT, c.id);
    }
    announceApp(*c.pApp, APP_LEFT);
    report(label(c.id) + ": " + why);
    c.pApp.reset();
}

int32_t Service::onUnregister(Client& c, const UnregisterReq& req, UnregisterRes&) {
    if (req.nAppID != c.pApp->record.nAppID) {
        return RESULT_BAD_REQUEST;
    }
    removeApp(c, "unregistered");
    return RESULT_OK;
}

int32_t Service::onSearchApp(Client& c, const SearchAppReq&, SearchAppRes& res) {
    for (const auto& entry : m_clients) {
        if (entry.second.pApp) {
            res.apps.push_back(recordFor(*entry.second.pApp, c.id));
        }
    }
    std::sort(res.apps.begin(), res.apps.end(),
              [](const InteractionApp& a, const InteractionApp& b) { return a.nAppID < b.nAppID; });
    return RESULT_OK;
}

int32_t Service::onRefreshApp(Client& c, const RefreshAppReq&, RefreshAppRes&) {
    if (c.pApp->fAppEvents) {
        pushDirectory(c);
    }
    return RESULT_OK;
}

int32_t Service::onGetLocalNetwork(Client&, const GetLocalNetworkDeviceReq&, GetLocalNetworkDeviceRes& res) {
    char host[64] = {};
    if (gethostname(host, sizeof(host) - 1) != 0) {
        Wire::CopyText(host, "localhost");
    }
    Wire::CopyText(res.device.szHostName, host);
    Wire::CopyText(res.device.szIPv4, kLocalAddress);
    Wire::CopyText(res.device.szGateway, "0.0.0.0");
    NetworkCard loopback;
    Wire::CopyText(loopback.szName, "lo");
    Wire::CopyText(loopback.szIPv4, kLocalAddress);
    Wire::CopyText(loopback.szMacAddress, kDeviceMac);
    res.device.networkCards.push_back(loopback);
    return RESULT_OK;
}

// ---------------------------------------------------------------------------------------------
// Data

void Service::deliverData(const Client& from, ClientId to, int32_t kind, const MessageData& data) {
    ReceiveDataRes event;
    event.nDataType = kind;
    event.sender = recordFor(*from.pApp, to);
    if (!event.data.Set(data.pData, static_cast<unsigned int>(data.nLength))) {
        report(label(from.id) + ": out of memory for " + std::to_string(data.nLength) + " bytes of data");
        return;
    }
    push(to, event);
}

int32_t Service::relay(Client& from, const InteractionApp& to, int32_t kind, const MessageData& data) {
    const Client* target = findApp(to);
    if (target == nullptr) {
        return RESULT_UNKNOWN_TARGET;
    }
    deliverData(from, target->id, kind, data);
    return RESULT_OK;
}

template <class Status>
Status Service::dataStatus(Client& from, const InteractionApp& to, int32_t result) {
    Status status;
    status.nStatus = static_cast<int32_t>(++from.pApp->nSendCount);  // the agent's nId of the event
    status.nEventType = result == RESULT_OK ? DATA_EVENT_DELIVERED : DATA_EVENT_FAILED;
    // The whole field as the sender's record holds it: the agent keys UDP callbacks by all 16 bytes.
    memcpy(status.szIPv4, to.szIPv4, sizeof(status.szIPv4));
    status.nRemoteAppID = to.nAppID;
    status.sendTag.byLocalAppID = static_cast<uint8_t>(from.pApp->record.nAppID);
    status.sendTag.byRemoteAppID = static_cast<uint8_t>(to.nAppID);
    status.sendTag.nValue = status.nStatus;
    return status;
}

int32_t Service::onSendData(Client& c, const SendDataReq& req, SendDataRes&) {
    return relay(c, req.app, DATA_KIND_TCP, req.data);
}

int32_t Service::onAsynSendData(Client& c, const AsynSendDataReq& req, NoReply&) {
    const int32_t result = relay(c, req.app, DATA_KIND_TCP, req.data);
    if (req.fWantStatus) {
        push(c.id, dataStatus<SendTCPDataStatusRes>(c, req.app, result));
    }
    return result;
}

int32_t Service::onSendUDPData(Client& c, const SendUDPDataReq& req, SendUDPDataRes&) {
    const int32_t result = relay(c, req.app, DATA_KIND_UDP, req.data);
    if (req.fFlag) {  // the send's wantStatus
        const SendUDPDataStatusRes status = dataStatus<SendUDPDataStatusRes>(c, req.app, result);
        const ClientId sender = c.id;
        later(kFollowUpDelayMs, [this, sender, status] {
            if (m_clients.count(sender) != 0) {
                push(sender, status);
            }
        });
    }
    return result;
}

int32_t Service::onSendUDPHugeData(Client& c, const SendUDPHugeDataReq& req, SendUDPHugeDataRes&) {
    // A piece starts with its list ID and sequence number, which the receiving agent reads.
    if (req.data.nLength < 8) {
        return RESULT_BAD_REQUEST;
    }
    return relay(c, req.app, DATA_KIND_HUGE_PIECE, req.data);
}

int32_t Service::onBroadcast(Client& c, const BroadcastReq& req, BroadcastRes&) {
    // Every emulated app is on this device, so a broadcast to any address reaches all others.
    for (const auto& entry : m_clients) {
        if (entry.second.pApp && entry.first != c.id) {
            deliverData(c, entry.first, DATA_KIND_BROADCAST, req.data);
        }
    }
    return RESULT_OK;
}

}  // namespace Emulator
}  // namespace PELK
