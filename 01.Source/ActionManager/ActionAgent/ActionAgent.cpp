#include "ActionAgent.h"

#include <errno.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "ActionManager/ResultCodes.h"
#include "AgentAppList.h"
#include "CommonLib/OSAL.h"
#include "CommonLib/ZTLogger.h"
#include "TransferClient.h"

namespace PELK {
namespace Agent {

using Common::MutexGuard;
using Common::OSAbstractLayer;

namespace {

const int kServiceTimeout = 40;
const int kBrowseTimeout = 300;
const int kOneYear = 31536000;

// First reconnection attempt after a loss, then the spacing between attempts' starts.
const int kFirstReconnectMs = 3000;
const int kReconnectIntervalMs = 6000;
const int kAfterAttemptMs = 3000;  // after each attempt, before its outcome is acted on
const int kReconnectStopResult = LinkResult::kNotRegistered;

const unsigned int kMaxTCPData = 65535;
const unsigned int kMaxUDPData = 2039;
const size_t kMaxBroadcastAddress = 15;
const size_t kMaxFileName = 225;
const int kHugeDataHeader = 8;  // list ID and sequence number ahead of a piece's content

// What unfinished large payloads may hold, so that payloads whose end never comes cannot grow
// memory without bound: a payload is dropped when it outgrows its cap, and the oldest unfinished
// payloads go when their sender starts one too many or when all of them hold too much (their
// buffers counted whole, room included).
const size_t kMaxPayloadsPerSender = 8;
const int kMaxPayloadBytes = 64 * 1024 * 1024;
const int64_t kMaxHeldBytes = 128 * 1024 * 1024;

// Set while this thread runs a TCP send status callback, which holds the TCP callback mutex:
// a send from inside the callback files its entry without locking that mutex a second time.
thread_local bool t_fInTCPStatusCallBack = false;

// A MutexGuard that can stand aside: the TCP table functions lock unless the thread holds it.
class MaybeGuard {
public:
    MaybeGuard(pthread_mutex_t* mutex, bool lock) : m_pMutex(lock ? mutex : nullptr) {
        if (m_pMutex != nullptr) {
            OSAbstractLayer::osal_lock_mutex(m_pMutex);
        }
    }
    ~MaybeGuard() {
        if (m_pMutex != nullptr) {
            OSAbstractLayer::osal_unlock_mutex(m_pMutex);
        }
    }
    MaybeGuard(const MaybeGuard&) = delete;
    MaybeGuard& operator=(const MaybeGuard&) = delete;

private:
    pthread_mutex_t* m_pMutex;
};

template <class T>
void append(std::vector<T>* to, const std::vector<T>& from) {
    to->insert(to->end(), from.begin(), from.end());
}

// The bounded copies that own-record updates and event records use.
void copyRecordTexts(InteractionApp& to, const InteractionApp& from) {
    to.SetAppName(from.szAppName);
    to.SetIPv4(from.szIPv4);
    to.SetMacAddress(from.szMacAddress);
}

// The TCP callback key: the address text up to its terminator, "_", the number.
std::string tcpKey(const char* address, long id) {
    return std::string(address != nullptr ? address : "") + "_" + std::to_string(id);
}

// A UDP callback address: the whole 16-byte address field, zero bytes included.
std::string udpAddress(const char* field) {
    return field != nullptr ? std::string(field, sizeof(InteractionApp::szIPv4)) : std::string();
}

// ((seconds & 0xFFFFF) << 10) | (milliseconds & 0x3FF): a second counts as 1024.
long clockStamp() {
    long seconds = 0;
    int milliseconds = 0;
    OSAbstractLayer::osal_wall_clock(&seconds, &milliseconds);
    return ((seconds & 0xFFFFF) << 10) | (milliseconds & 0x3FF);
}

template <class Event>
file_transfer_event fileEvent(const Event& msg) {
    file_transfer_event event;
    event.ullCurrentSize = msg.ullCurrentSize;
    event.ullTotalSize = msg.ullTotalSize;
    event.ullListTotalSize = msg.ullListTotalSize;
    event.nId = msg.nTaskID;
    event.nCurrentCount = msg.nCurrentCount;
    event.nTotalCount = msg.nTotalCount;
    event.nEventType = msg.nEventType;
    Wire::CopyText(event.strFileName, msg.strFileName);
    return event;
}

file_transfer_event fileEvent(const SendFileStatusRes& msg, const InteractionApp& otherSide) {
    file_transfer_event event = fileEvent(msg);
    Wire::CopyText(event.strOtherSideIP, otherSide.szIPv4);
    event.nRemoteAppID = otherSide.nAppID;
    return event;
}

template <class Status>
data_transfer_event dataEvent(const Status& msg) {
    data_transfer_event event;
    event.nId = msg.nStatus;
    event.nEventType = msg.nEventType;
    event.nRemoteAppID = msg.nRemoteAppID;
    Wire::CopyText(event.strIPAddress, msg.szIPv4);
    return event;
}

// Decodes an event body within the bytes received. The file events arrive 8 bytes shorter than
// their classes report (deliberately): what arrived is read from a zero-padded copy, so no field
// is taken from bytes that never came. False (logged) when the body does not fit what arrived.
template <class Msg>
bool decodeEvent(Msg& msg, const char* body, uint32_t length) {
    constexpr unsigned int unwritten = Codec::UnwrittenTail<Msg>::value;
    const unsigned int size = msg.GetSize();
    bool decoded = false;
    if (unwritten > 0 && length < size && length + unwritten >= size) {
        char padded[1024] = {};
        if (size > sizeof(padded)) {
            return false;
        }
        memcpy(padded, body, length);
        decoded = Codec::Decode(msg, padded, size);
    } else {
        decoded = Codec::Decode(msg, body, length);
    }
    if (!decoded) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Dropped action %d: its body does not fit the %u bytes received",
               static_cast<int>(msg.actionID), static_cast<unsigned int>(length));
    }
    return decoded;
}

// Holds the registration mutex for one registerApp or unregisterApp. A callback of the link takes
// it only when it is free: its holder may be waiting for that very callback to return.
MutexGuard registrationGuard(pthread_mutex_t* mutex, const TransferClient* link) {
    if (link != nullptr && link->insideCallBack()) {
        return MutexGuard(mutex, MutexGuard::TryOnly{});
    }
    return MutexGuard(mutex);
}

}  // namespace

struct ActionAgent::EventRoute {
    int32_t nActionID;
    void (ActionAgent::*handler)(const char* body, uint32_t length);
};

// Every event the agent handles; any other ID is logged as unknown.
const ActionAgent::EventRoute ActionAgent::kEventRoutes[] = {
    {ACTION_SEND_FILE_STATUS, &ActionAgent::onSendFileStatus},
    {ACTION_RECEIVE_FILE, &ActionAgent::onReceiveFile},
    {ACTION_RECEIVE_DATA, &ActionAgent::onReceiveData},
    {ACTION_DM_DEVICE_CHANGE, &ActionAgent::onDeviceChange},
    {ACTION_DM_FILE_COPY, &ActionAgent::onFileCopy},
    {ACTION_INTER_APP_CHANGE, &ActionAgent::onInterAppChange},
    {ACTION_SERVER_DISCONNECTED, &ActionAgent::onServerDisconnected},
    {ACTION_SEND_UDP_DATA_STATUS, &ActionAgent::onUDPDataStatus},
    {ACTION_SEND_TCP_DATA_STATUS, &ActionAgent::onTCPDataStatus},
};

// ---------------------------------------------------------------------------------------------
// Lifecycle and registration

ActionAgent* ActionAgent::getInstance() {
    static ActionAgent agent;
    return &agent;
}

ActionAgent::ActionAgent()
    : m_nAppID(-1),
      m_fAutoConnected(true),
      m_pTransferClient(new (std::nothrow) TransferClient),
      m_pRegisterUser(nullptr),
      m_pfnDLNADeviceChange(nullptr),
      m_pfnInterAppChange(nullptr),
      m_pInteractionAppList(new (std::nothrow) AgentAppList),
      m_nHeldBytes(0),
      m_nReconnectThreads(0) {
    if (m_pTransferClient == nullptr) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory!");
    }
    if (m_pInteractionAppList == nullptr) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Memory alloc Error!");
    }
    for (pthread_mutex_t* mutex : {&m_receiveOptionMutex, &m_sendFileCallBackMutex, &m_udpCallBackMutex,
                                   &m_tcpCallBackMutex, &m_fileCopyCallBackMutex, &m_reconnectMutex,
                                   &m_registrationMutex, &m_dataBlockMutex, &m_ownAppMutex}) {
        OSAbstractLayer::osal_init_mutex(mutex);
    }
    OSAbstractLayer::osal_init_cond(&m_reconnectWake);
}

ActionAgent::~ActionAgent() {
    if (m_nAppID != -1) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Destruct ActionAgent before unregister, appID=%d", m_nAppID.load());
        unregisterApp();
    }
    m_fAutoConnected = false;
    // A reconnection attempt uses the link, so it must be over before the link goes; the link
    // goes before the final wait, since its callback thread is what starts reconnections.
    waitForReconnection();
    delete m_pTransferClient;
    m_pTransferClient = nullptr;
    delete m_pInteractionAppList;
    m_pInteractionAppList = nullptr;
    ZT_LOG(Common::ZT_LOG_DEBUG, "Waiting for thread_reconnectToServer ");
    waitForReconnection();
    for (pthread_mutex_t* mutex : {&m_receiveOptionMutex, &m_sendFileCallBackMutex, &m_udpCallBackMutex,
                                   &m_tcpCallBackMutex, &m_fileCopyCallBackMutex, &m_reconnectMutex,
                                   &m_registrationMutex, &m_dataBlockMutex, &m_ownAppMutex}) {
        OSAbstractLayer::osal_destroy_mutex(mutex);
    }
    OSAbstractLayer::osal_destroy_cond(&m_reconnectWake);
    Common::ZTLogger::destroyDefaultLogger();
    for (auto& entry : m_dataBlockMap) {
        free(entry.second.pData);
    }
}

void ActionAgent::waitForReconnection() {
    while (m_nReconnectThreads.load() > 0) {
        OSAbstractLayer::osal_unlock_cond(&m_reconnectWake);  // a pausing thread gives up at once
        OSAbstractLayer::osal_lock_mutex(&m_reconnectMutex);
        OSAbstractLayer::osal_unlock_mutex(&m_reconnectMutex);
        OSAbstractLayer::osal_sleep_ms(1);
    }
}

int ActionAgent::registerApp(const char* name, int appID, void* user, InterAppChangeCallback appCb,
                             DLNADeviceChangeCallback dlnaCb) {
    return registerApp(name, appID, user, appCb, dlnaCb, true, true);
}

int ActionAgent::registerApp(const char* name, int appID, void* user, InterAppChangeCallback appCb,
                             DLNADeviceChangeCallback dlnaCb, bool autoReconnect) {
    return registerApp(name, appID, user, appCb, dlnaCb, autoReconnect, true);
}

int ActionAgent::registerApp(const char* name, int appID, void* user, InterAppChangeCallback appCb,
                             DLNADeviceChangeCallback dlnaCb, bool autoReconnect, bool /*reserved*/) {
    ZT_LOG(Common::ZT_LOG_DEBUG, "on registerApp, m_nAppID=%d", m_nAppID.load());
    const MutexGuard registration = registrationGuard(&m_registrationMutex, m_pTransferClient);
    if (!registration.owns()) {
        return LinkResult::kLockFailed;
    }
    if (m_nAppID > 0) {
        return RegisterResult::kAlreadyRegistered;
    }
    if (name == nullptr) {
        return RegisterResult::kNoName;
    }
    const size_t length = strnlen(name, sizeof(InteractionApp::szAppName));
    if (length == 0) {
        return RegisterResult::kEmptyName;
    }
    if (length >= sizeof(InteractionApp::szAppName)) {
        return RegisterResult::kNameTooLong;
    }
    if (m_pTransferClient == nullptr || !m_pTransferClient->startTransfer()) {
        return RegisterResult::kServiceUnreachable;
    }
    if (m_pInteractionAppList == nullptr) {
        return RegisterResult::kOutOfMemory;  // the started link stays up; kept deliberately
    }
    m_pInteractionAppList->clear();
    m_pRegisterUser = user;

    RegisterReq request;
    request.nAppID = appID;
    request.SetAppName(name);
    request.fDeviceEvents = dlnaCb != nullptr;
    request.fAppEvents = appCb != nullptr;
    RegisterRes response;
    const int code = exchange(request, &response, kServiceTimeout);
    if (code == kNoMemory) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory");
        m_pTransferClient->stopTransfer();
        return RegisterResult::kOutOfMemory;
    }
    if (code != 0) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Register fail!result=%d", code);
        m_pTransferClient->stopTransfer();
        return code;
    }
    if (response.nResult != 0) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Register fail!");
        m_pTransferClient->stopTransfer();
    } else {
        {
            MutexGuard guard(&m_ownAppMutex);
            m_ownApp.fLocalDevice = 1;
            m_ownApp.nAppID = response.nAppID;
            m_ownApp.nType = appID;
            m_ownApp.SetIPv4("127.0.0.1");
            m_ownApp.SetAppName(name);
        }
        m_pfnDLNADeviceChange = dlnaCb;
        m_pfnInterAppChange = appCb;
        m_fAutoConnected = autoReconnect;
        m_nAppID = response.nAppID;
        m_pTransferClient->setActionCallBack(onActionReceived, this);
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "registerApp end!");
    return response.nResult;
}

int ActionAgent::unregisterApp() {
    ZT_LOG(Common::ZT_LOG_DEBUG, "on unregisterApp, m_nAppID=%d", m_nAppID.load());
    const MutexGuard registration = registrationGuard(&m_registrationMutex, m_pTransferClient);
    if (!registration.owns()) {
        return LinkResult::kLockFailed;
    }
    if (m_nAppID < 1) {
        return UnregisterResult::kNotRegistered;
    }
    if (m_pInteractionAppList != nullptr) {
        m_pInteractionAppList->clear();
    }
    m_pfnDLNADeviceChange = nullptr;
    m_pfnInterAppChange = nullptr;
    {
        MutexGuard guard(&m_receiveOptionMutex);
        m_receiveOption.pfnReceiveData = nullptr;
        m_receiveOption.pfnReceiveFile = nullptr;
    }
    UnregisterReq request;
    request.nAppID = m_nAppID;
    UnregisterRes response;
    const int code = exchange(request, &response, kServiceTimeout);
    if (code == kNoMemory) {
        ZT_LOG(Common::ZT_LOG_DEBUG, ">>>>>>>> pUnRegReq == null");
        return UnregisterResult::kOutOfMemory;
    }
    if (code != 0) {
        ZT_LOG(Common::ZT_LOG_DEBUG, "serviceCall fail, result = %d", code);
        return code;
    }
    m_nAppID = -1;
    m_pTransferClient->setActionCallBack(nullptr, nullptr);
    m_pTransferClient->stopTransfer();
    ZT_LOG(Common::ZT_LOG_INFO, "ActionAgent unregistered.");
    return response.nResult;
}

bool ActionAgent::checkRegisterName(const char* /*name*/) {
    return true;
}

InteractionApp ActionAgent::getOwnApp() {
    MutexGuard guard(&m_ownAppMutex);
    return m_ownApp;
}

unsigned int ActionAgent::thread_reconnectToServer(void* arg) {
    OSAbstractLayer::osal_detach_current_thread();
    if (arg == nullptr) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Error: pArg is null!");
        return 0;
    }
    ActionAgent* pThis = static_cast<ActionAgent*>(arg);
    pThis->reconnect();
    // The last touch of the agent: its destructor waits for this count to reach zero.
    --pThis->m_nReconnectThreads;
    return 0;
}

bool ActionAgent::reconnectPauseUntil(int64_t deadlineMs) {
    for (;;) {
        if (!m_fAutoConnected) {
            return false;
        }
        const int64_t left = deadlineMs - OSAbstractLayer::osal_monotonic_ms();
        if (left <= 0) {
            return true;
        }
        OSAbstractLayer::osal_lock_cond_ms(&m_reconnectWake, static_cast<int>(left));
    }
}

void ActionAgent::reconnect() {
    int64_t nextAttempt = OSAbstractLayer::osal_monotonic_ms() + kFirstReconnectMs;
    if (!reconnectPauseUntil(nextAttempt)) {
        ZT_LOG(Common::ZT_LOG_DEBUG, "reconnectThread finished");
        return;
    }
    if (OSAbstractLayer::osal_lock_mutex(&m_reconnectMutex) != 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Cannot lock mutex! error=%d", errno);
        return;
    }
    bool reconnected = false;
    for (;;) {
        ZT_LOG(Common::ZT_LOG_DEBUG, "[reconnecting to server......]");
        const InteractionApp own = getOwnApp();
        const int result = registerApp(own.szAppName, own.nType, m_pRegisterUser, m_pfnInterAppChange,
                                       m_pfnDLNADeviceChange, true);
        // Every attempt, a successful one too, is followed by a pause before its outcome is acted
        // on, so a service that has just come back settles before the option is re-sent.
        reconnectPauseUntil(OSAbstractLayer::osal_monotonic_ms() + kAfterAttemptMs);
        if (result == 0) {
            reconnected = true;
            break;
        }
        if (!m_fAutoConnected || result == kReconnectStopResult || m_nAppID != -1) {
            break;
        }
        // Attempts start 6 s apart however long each took, so a refusal at once still waits.
        nextAttempt += kReconnectIntervalMs;
        // The app may have registered by itself, or turned reconnection off, during the wait.
        if (!reconnectPauseUntil(nextAttempt) || m_nAppID != -1) {
            break;
        }
    }
    if (reconnected) {
        ZT_LOG(Common::ZT_LOG_DEBUG, "[reconnected to server]");
        ReceiveOption saved;
        {
            MutexGuard guard(&m_receiveOptionMutex);
            saved = m_receiveOption;
        }
        setReceiveOption(&saved);
        const InterAppChangeCallback appCb = m_pfnInterAppChange;
        if (appCb != nullptr) {
            const InteractionApp own = getOwnApp();
            appCb(&own, APP_STATUS_RECONNECTED, m_pRegisterUser);
        }
    }
    OSAbstractLayer::osal_unlock_mutex(&m_reconnectMutex);
    ZT_LOG(Common::ZT_LOG_DEBUG, "reconnectThread finished");
}

int ActionAgent::exchange(const ReqResBase& request, ReqResBase* response, int timeoutSeconds) {
    const unsigned int size = request.GetSize();
    char* buffer = new (std::nothrow) char[size];
    if (buffer == nullptr) {
        return kNoMemory;
    }
    request.GetBuffer(buffer);
    char* reply = nullptr;
    int replyLength = 0;
    const int code = m_pTransferClient->serviceCall(buffer, static_cast<int>(size), reply,
                                                    response != nullptr ? &replyLength : nullptr, timeoutSeconds);
    delete[] buffer;
    if (code == 0 && response != nullptr) {
        // Bounded by what arrived: a reply that claims more is refused and reads as a failure.
        response->FromBuffer(reply, static_cast<unsigned int>(replyLength));
    }
    delete[] reply;
    return code;
}

template <class Res>
int ActionAgent::callForResult(const ReqResBase& request, int timeoutSeconds, int outOfMemoryCode) {
    Res response;
    const int code = exchange(request, &response, timeoutSeconds);
    if (code == kNoMemory) {
        return outOfMemoryCode;
    }
    return code != 0 ? code : response.nResult;
}

template <class Req, class Res>
int ActionAgent::deviceCommand(const DLNADevice* device, int code, DLNADevice Req::*field) {
    if (m_nAppID < 1) {
        return CommonResult::kNotRegistered;
    }
    if (device == nullptr) {
        return CommonResult::kMissingArgument;
    }
    Req request(code);
    request.*field = *device;
    return callForResult<Res>(request, kServiceTimeout, CommonResult::kOutOfMemory);
}

// ---------------------------------------------------------------------------------------------
// Dispatch

void ActionAgent::onActionReceived(char* recvBuf, void* context) {
    ActionAgent* pThis = static_cast<ActionAgent*>(context);
    if (pThis == nullptr) {
        return;
    }
    if (recvBuf == nullptr) {
        pThis->m_nAppID = -1;  // the link has ended
        ZT_LOG(Common::ZT_LOG_DEBUG, "recvBuf == NULL, unregistered.");
        return;
    }
    const uint32_t length = Frame::lengthOf(recvBuf);
    const char* body = recvBuf + Frame::MSG_LENGTH_OFFSET;
    if (length < sizeof(int32_t)) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Dropped a frame of %u bytes: too short for an action ID",
               static_cast<unsigned int>(length));
        return;
    }
    const int32_t actionID = Frame::actionIdOf(recvBuf);
    ZT_LOG(Common::ZT_LOG_DEBUG, "Received actionID:%d", actionID);
    for (const EventRoute& route : kEventRoutes) {
        if (route.nActionID == actionID) {
            (pThis->*route.handler)(body, length);
            return;
        }
    }
    // The field after the action ID is what is logged, not the ID; kept deliberately.
    const int32_t second = length >= 2 * sizeof(int32_t)
                               ? static_cast<int32_t>(Wire::DecodeFixed32(
                                     reinterpret_cast<const unsigned char*>(body) + sizeof(int32_t)))
                               : 0;
    ZT_LOG(Common::ZT_LOG_WARNING, "Unknown ActionID=%d!", second);
}

void ActionAgent::onSendFileStatus(const char* body, uint32_t length) {
    SendFileStatusRes msg;
    if (!decodeEvent(msg, body, length)) {
        return;
    }
    const SendFileCallBack entry = getCallBack(static_cast<uint32_t>(msg.nTaskID));
    if (entry.pfnCallBack != nullptr) {
        entry.pfnCallBack(fileEvent(msg, msg.receiver), entry.pUser);
    }
}

void ActionAgent::onReceiveFile(const char* body, uint32_t length) {
    ReceiveFileRes msg;
    if (!decodeEvent(msg, body, length)) {
        return;
    }
    FileTransferCallback callBack = nullptr;
    void* user = nullptr;
    {
        MutexGuard guard(&m_receiveOptionMutex);
        callBack = m_receiveOption.pfnReceiveFile;
        user = m_receiveOption.pReceiveFileUser;
    }
    if (callBack != nullptr) {
        file_transfer_event event = fileEvent(msg);
        Wire::CopyText(event.strOtherSideIP, msg.sender.szIPv4);
        event.nRemoteAppID = msg.sender.nAppID;
        callBack(event, user);
    }
}

void ActionAgent::onReceiveData(const char* body, uint32_t length) {
    ReceiveDataRes msg;
    if (!decodeEvent(msg, body, length)) {
        return;
    }
    if (msg.nDataType == kHugeDataType) {
        onHugeDataPiece(msg.sender, msg.data.pData, msg.data.nLength);
        return;
    }
    ReceiveDataCallback callBack = nullptr;
    void* user = nullptr;
    {
        MutexGuard guard(&m_receiveOptionMutex);
        callBack = m_receiveOption.pfnReceiveData;
        user = m_receiveOption.pReceiveDataUser;
    }
    if (callBack != nullptr) {
        callBack(msg.nDataType, msg.data.pData, msg.data.nLength, user, &msg.sender);
    }
}

void ActionAgent::onHugeDataPiece(const InteractionApp& sender, const char* data, int length) {
    if (length < kHugeDataHeader) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Dropped a piece of %d bytes: too short for its header", length);
        return;
    }
    uint32_t listID = 0;
    uint32_t sequence = 0;
    memcpy(&listID, data, sizeof(listID));
    memcpy(&sequence, data + sizeof(listID), sizeof(sequence));
    const char* content = data + kHugeDataHeader;
    const int contentLength = length - kHugeDataHeader;

    const uint64_t key = createMapKey(sender.szIPv4, listID);
    DataBlockListInfo info;
    const bool found = findBlockListInfo(key, info);
    if (found && info.nTotalLength > kMaxPayloadBytes - contentLength) {
        ZT_LOG(Common::ZT_LOG_WARNING, "Dropped a large payload from %s: above %d bytes", sender.szIPv4,
               kMaxPayloadBytes);
        removeBlockListInfo(key);
        free(info.pData);
        return;
    }
    // Pieces are joined in arrival order; the sequence number only marks the last one. A piece
    // that finds no memory is dropped.
    if (appendBlockData(info, content, contentLength)) {
        if (found) {
            updateBlockListInfo(key, info);
        } else {
            addBlockListInfo(key, info);
        }
    }
    if (sequence != kLastSequence) {
        return;
    }
    ReceiveDataCallback callBack = nullptr;
    void* user = nullptr;
    {
        MutexGuard guard(&m_receiveOptionMutex);
        callBack = m_receiveOption.pfnReceiveData;
        user = m_receiveOption.pReceiveDataUser;
    }
    if (callBack != nullptr) {
        callBack(kHugeDataType, info.pData, info.nTotalLength, user, &sender);
    }
    removeBlockListInfo(key);
    free(info.pData);
}

void ActionAgent::onDeviceChange(const char* body, uint32_t length) {
    DMDeviceChangeRes msg;
    if (!decodeEvent(msg, body, length)) {
        return;
    }
    const DLNADeviceChangeCallback callBack = m_pfnDLNADeviceChange;
    if (callBack != nullptr) {
        callBack(&msg.device, msg.nChangeType, m_pRegisterUser);
    }
}

void ActionAgent::onFileCopy(const char* body, uint32_t length) {
    DMFileCopyRes msg;
    if (!decodeEvent(msg, body, length)) {
        return;
    }
    const FileCopyCallBack entry = getFileCopyCallBack(static_cast<uint32_t>(msg.nTaskID));
    if (entry.pfnCallBack != nullptr) {
        file_transfer_event event = fileEvent(msg);
        Wire::CopyText(event.strOtherSideIP, msg.otherSide.IPv4);
        entry.pfnCallBack(event, m_pRegisterUser);
    }
}

void ActionAgent::onInterAppChange(const char* body, uint32_t length) {
    InterAppChangeRes msg;
    if (!decodeEvent(msg, body, length)) {
        return;
    }
    if (msg.app.fLocalDevice != 0) {
        MutexGuard guard(&m_ownAppMutex);
        m_ownApp.nAppID = msg.app.nAppID;
        m_ownApp.nType = msg.app.nType;
        m_ownApp.fLocalDevice = msg.app.fLocalDevice;
        copyRecordTexts(m_ownApp, msg.app);
    }
    if (m_pInteractionAppList != nullptr &&
        (msg.nChangeType == APP_STATUS_CHANGE_ADD || msg.nChangeType == APP_STATUS_CHANGE_REMOVE)) {
        if (msg.nChangeType == APP_STATUS_CHANGE_ADD) {
            m_pInteractionAppList->insert(msg.app);
        } else {
            m_pInteractionAppList->remove(msg.app);
        }
        // A removal logs the insertion's words; kept deliberately.
        ZT_LOG(Common::ZT_LOG_DEBUG, "APP_STATUS_CHANGE_ADD m_pInteractionAppList->insert,%d",
               static_cast<int>(m_pInteractionAppList->size()));
    }
    const InterAppChangeCallback callBack = m_pfnInterAppChange;
    if (callBack != nullptr) {
        callBack(&msg.app, msg.nChangeType, m_pRegisterUser);
    }
}

void ActionAgent::onServerDisconnected(const char* /*body*/, uint32_t /*length*/) {
    ZT_LOG(Common::ZT_LOG_WARNING, "======Disconnected from Server! m_fAutoConnected=%d", m_fAutoConnected ? 1 : 0);
    if (m_pInteractionAppList != nullptr) {
        m_pInteractionAppList->clear();
    }
    int32_t lostAppID = m_nAppID;
    const InterAppChangeCallback callBack = m_pfnInterAppChange;
    if (callBack != nullptr) {
        const InteractionApp own = getOwnApp();
        callBack(&own, APP_STATUS_DISCONNECTED, m_pRegisterUser);
    }
    // An app that registered again from inside the callback keeps its new registration.
    if (!m_nAppID.compare_exchange_strong(lostAppID, -1) && lostAppID > 0) {
        return;
    }
    if (!m_fAutoConnected) {
        return;
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "======Auto reconnection thread started...");
    ++m_nReconnectThreads;
    long thread = 0;
    if (OSAbstractLayer::osal_create_thread(&thread, thread_reconnectToServer, this) == 1) {
        --m_nReconnectThreads;
        ZT_LOG(Common::ZT_LOG_ERROR, "Fail to create thread!");
        return;
    }
    OSAbstractLayer::osal_destroy_thread(&thread);
}

void ActionAgent::onUDPDataStatus(const char* body, uint32_t length) {
    SendUDPDataStatusRes msg;
    if (!decodeEvent(msg, body, length)) {
        return;
    }
    const long id = msg.sendTag.byRemoteAppID;
    const UDPSendCallBack entry = getUDPCallBack(msg.szIPv4, id);
    if (entry.pfnCallBack != nullptr) {
        entry.pfnCallBack(dataEvent(msg), entry.pUser);
    }
    deleteUDPCallBack(msg.szIPv4, id);
}

void ActionAgent::onTCPDataStatus(const char* body, uint32_t length) {
    SendTCPDataStatusRes msg;
    if (!decodeEvent(msg, body, length)) {
        return;
    }
    char address[sizeof(msg.szIPv4)];
    Wire::CopyText(address, msg.szIPv4);
    const long id = msg.sendTag.byRemoteAppID;
    {
        MutexGuard guard(&m_tcpCallBackMutex);
        TCPSendCallBack entry;
        if (getTCPCallBack(address, id, entry)) {
            ZT_LOG(Common::ZT_LOG_INFO, "notify TCP Data status: %s, %d", address, static_cast<int>(id));
            if (entry.pfnCallBack != nullptr) {
                t_fInTCPStatusCallBack = true;
                entry.pfnCallBack(dataEvent(msg), entry.pUser);
                t_fInTCPStatusCallBack = false;
            }
        }
    }
    deleteTCPCallBack(address, id);
}

// ---------------------------------------------------------------------------------------------
// Data

int ActionAgent::sendData(const char* data, unsigned int len, const InteractionApp* app, bool flag, int timeout) {
    if (m_nAppID < 1) {
        return SendDataResult::kNotRegistered;
    }
    if (data == nullptr) {
        return SendDataResult::kNoData;
    }
    if (app == nullptr || app->szIPv4[0] == '\0') {
        return SendDataResult::kNoTarget;
    }
    if (len > kMaxTCPData) {
        return SendDataResult::kTooLong;
    }
    if (len == 0) {
        return SendDataResult::kEmpty;
    }
    const int timeoutMillis = timeout >= 1 && timeout <= 200 ? timeout * 1000 : timeout;
    ZT_LOG(Common::ZT_LOG_INFO, "time_out=%d, time_out_millis=%d", timeout, timeoutMillis);
    SendDataReq request;
    request.app = *app;
    request.fFlag = flag;
    request.nTimeout = timeoutMillis;
    if (!request.data.Set(data, len)) {
        return SendDataResult::kOutOfMemory;
    }
    return callForResult<SendDataRes>(request, kServiceTimeout, SendDataResult::kOutOfMemory);
}

int ActionAgent::asynSendData(const char* data, unsigned int len, const InteractionApp* app, bool flag,
                              DataTransferCallback cb, void* user) {
    if (m_nAppID < 1) {
        return SendDataResult::kNotRegistered;
    }
    if (data == nullptr) {
        return SendDataResult::kNoData;
    }
    if (app == nullptr || app->szIPv4[0] == '\0') {
        return SendDataResult::kNoTarget;
    }
    if (len > kMaxTCPData) {
        return SendDataResult::kTooLong;
    }
    if (len == 0) {
        return SendDataResult::kEmpty;
    }
    AsynSendDataReq request;
    request.app = *app;
    request.fFlag = flag;
    request.fWantStatus = cb != nullptr;
    if (!request.data.Set(data, len)) {
        return SendDataResult::kOutOfMemory;
    }
    if (cb != nullptr) {
        addTCPCallBack(app->szIPv4, app->nAppID, cb, user);
    }
    int code = exchange(request, nullptr, kServiceTimeout);
    if (code == kNoMemory) {
        code = SendDataResult::kOutOfMemory;
    }
    if (code != 0 && cb != nullptr) {
        deleteTCPCallBack(app->szIPv4, app->nAppID);
    }
    return code;
}

int ActionAgent::sendUDPData(const char* data, unsigned int len, const InteractionApp* app, bool wantStatus,
                             DataTransferCallback cb, void* user) {
    if (m_nAppID < 1) {
        return SendUDPDataResult::kNotRegistered;
    }
    if (data == nullptr) {
        return SendUDPDataResult::kNoData;
    }
    if (app == nullptr || app->szIPv4[0] == '\0') {
        return SendUDPDataResult::kNoTarget;
    }
    if (len > kMaxUDPData) {
        return sendUDPHugeData(data, len, app);
    }
    if (len == 0) {
        return SendUDPDataResult::kEmpty;
    }
    SendUDPDataReq request;
    request.app = *app;
    request.fFlag = wantStatus;
    if (!request.data.Set(data, len)) {
        return SendUDPDataResult::kOutOfMemory;
    }
    // Filed before the call, so that a status that overtakes the reply still finds its entry.
    const bool wantsCallBack = wantStatus && cb != nullptr;
    const uint64_t filed = wantsCallBack ? addUDPCallBack(app->szIPv4, app->nAppID, cb, user) : 0;
    SendUDPDataRes response;
    int code = exchange(request, &response, kServiceTimeout);
    if (code == kNoMemory) {
        code = SendUDPDataResult::kOutOfMemory;
    }
    if (code == 0) {
        code = response.nResult;
    }
    if (code != 0 && wantsCallBack) {
        withdrawUDPCallBack(filed);  // no status comes; never an earlier pending send's entry
    }
    return code;
}

int ActionAgent::sendUDPHugeData(const char* data, unsigned int len, const InteractionApp* app) {
    if (m_nAppID < 1) {
        return SendUDPHugeDataResult::kNotRegistered;
    }
    if (data == nullptr) {
        return SendUDPHugeDataResult::kNoData;
    }
    if (len == 0) {
        return SendUDPHugeDataResult::kEmpty;
    }
    if (app == nullptr || app->szIPv4[0] == '\0') {
        return SendUDPHugeDataResult::kNoTarget;
    }
    if (len > static_cast<unsigned int>(INT32_MAX)) {
        return SendUDPHugeDataResult::kOutOfMemory;  // a payload's length must fit the pieces' int lengths
    }
    const long start = clockStamp();
    DataBlock* first = createDataBlockList(data, static_cast<int>(len));
    if (first == nullptr) {
        return SendUDPHugeDataResult::kOutOfMemory;
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "sendUDPHugeData 1 -----%ld ms", clockStamp() - start);
    int result = 0;
    SendUDPHugeDataReq request;
    request.app = *app;
    for (const DataBlock* block = first; block != nullptr; block = block->pNext) {
        const int payloadLength = block->nLength + kHugeDataHeader;
        char* payload = new (std::nothrow) char[payloadLength];
        if (payload == nullptr) {
            result = SendUDPHugeDataResult::kOutOfMemory;
            break;
        }
        memcpy(payload, &block->nListID, sizeof(block->nListID));
        memcpy(payload + sizeof(block->nListID), &block->nSequence, sizeof(block->nSequence));
        memcpy(payload + kHugeDataHeader, block->pData, static_cast<size_t>(block->nLength));
        delete[] request.data.pData;
        request.data.pData = payload;
        request.data.nLength = payloadLength;
        result = callForResult<SendUDPHugeDataRes>(request, kServiceTimeout, SendUDPHugeDataResult::kOutOfMemory);
        if (result != 0) {
            break;
        }
    }
    ZT_LOG(Common::ZT_LOG_DEBUG, "sendUDPHugeData 2 -----%ld ms", clockStamp() - start);
    releaseDataBlockList(first);
    return result;
}

int ActionAgent::broadcast(const char* data, unsigned int len, const char* address, bool flag) {
    if (m_nAppID < 1) {
        return BroadcastResult::kNotRegistered;
    }
    if (data == nullptr) {
        return BroadcastResult::kNoData;
    }
    if (address == nullptr) {
        return BroadcastResult::kNoAddress;
    }
    if (strnlen(address, kMaxBroadcastAddress + 1) > kMaxBroadcastAddress) {
        return BroadcastResult::kAddressTooLong;
    }
    if (len > kMaxUDPData) {
        return BroadcastResult::kTooLong;
    }
    BroadcastReq request;
    request.app.SetIPv4(address);
    request.fFlag = flag;
    if (!request.data.Set(data, len)) {
        return BroadcastResult::kOutOfMemory;
    }
    return callForResult<BroadcastRes>(request, kServiceTimeout, BroadcastResult::kOutOfMemory);
}

void ActionAgent::addTCPCallBack(const char* address, long id, DataTransferCallback cb, void* user) {
    MaybeGuard guard(&m_tcpCallBackMutex, !t_fInTCPStatusCallBack);
    TCPSendCallBack& entry = m_tcpCallBackMap[tcpKey(address, id)];
    if (entry.nRefCount < 1) {
        entry.pfnCallBack = cb;
        entry.pUser = user;
        entry.nRefCount = 1;
    } else {
        ++entry.nRefCount;  // the first callback given stays
    }
}

bool ActionAgent::getTCPCallBack(const char* address, long id, TCPSendCallBack& entry) {
    const std::string key = tcpKey(address, id);
    const auto found = m_tcpCallBackMap.find(key);
    if (found == m_tcpCallBackMap.end()) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Can not find tcp callback: %s, %s, %d!", key.c_str(), address,
               static_cast<int>(id));
        return false;
    }
    entry = found->second;
    return true;
}

void ActionAgent::deleteTCPCallBack(const char* address, long id) {
    MaybeGuard guard(&m_tcpCallBackMutex, !t_fInTCPStatusCallBack);
    const auto found = m_tcpCallBackMap.find(tcpKey(address, id));
    if (found == m_tcpCallBackMap.end()) {
        ZT_LOG(Common::ZT_LOG_ERROR, "can not delete call back!");
        return;
    }
    if (--found->second.nRefCount < 1) {
        m_tcpCallBackMap.erase(found);
    }
}

uint64_t ActionAgent::addUDPCallBack(const char* address, long id, DataTransferCallback cb, void* user) {
    UDPSendCallBack entry;
    entry.pfnCallBack = cb;
    entry.pUser = user;
    entry.nId = id;
    entry.strAddress = udpAddress(address);
    MutexGuard guard(&m_udpCallBackMutex);
    entry.nSerial = ++m_nUDPCallBackSerial;
    m_udpCallBacks.push_back(entry);
    return entry.nSerial;
}

UDPSendCallBack ActionAgent::getUDPCallBack(const char* address, long id) {
    const std::string key = udpAddress(address);
    MutexGuard guard(&m_udpCallBackMutex);
    for (const UDPSendCallBack& entry : m_udpCallBacks) {
        if (entry.nId == id && entry.strAddress == key) {
            return entry;
        }
    }
    return UDPSendCallBack();
}

void ActionAgent::deleteUDPCallBack(const char* address, long id) {
    const std::string key = udpAddress(address);
    MutexGuard guard(&m_udpCallBackMutex);
    for (auto it = m_udpCallBacks.begin(); it != m_udpCallBacks.end(); ++it) {
        if (it->nId == id && it->strAddress == key) {
            m_udpCallBacks.erase(it);
            return;
        }
    }
}

void ActionAgent::withdrawUDPCallBack(uint64_t serial) {
    MutexGuard guard(&m_udpCallBackMutex);
    m_udpCallBacks.remove_if([serial](const UDPSendCallBack& entry) { return entry.nSerial == serial; });
}

uint64_t ActionAgent::createMapKey(const char* address, unsigned long id) {
    return (static_cast<uint64_t>(id) << 32) | OSAbstractLayer::osal_inet_addr(address);
}

DataBlock* ActionAgent::createDataBlock(const char* data, int len, unsigned long listId, unsigned long sequence) {
    if (len < 0 || (len > 0 && data == nullptr)) {
        return nullptr;
    }
    DataBlock* block = new (std::nothrow) DataBlock;
    if (block == nullptr) {
        return nullptr;
    }
    block->pData = new (std::nothrow) char[len > 0 ? len : 1];
    if (block->pData == nullptr) {
        delete block;
        return nullptr;
    }
    if (len > 0) {
        memcpy(block->pData, data, static_cast<size_t>(len));
    }
    block->nLength = len;
    block->nListID = static_cast<uint32_t>(listId);
    block->nSequence = static_cast<uint32_t>(sequence);
    return block;
}

DataBlock* ActionAgent::createDataBlockList(const char* data, int len) {
    if (data == nullptr || len <= 0) {
        return nullptr;
    }
    const int count = len / kBlockContentSize + (len % kBlockContentSize != 0 ? 1 : 0);
    const uint32_t listID = static_cast<uint32_t>(clockStamp());
    DataBlock* first = nullptr;
    DataBlock* last = nullptr;
    for (int i = 0; i < count; ++i) {
        const int offset = i * kBlockContentSize;
        const int length = len - offset < kBlockContentSize ? len - offset : kBlockContentSize;
        // A payload of one piece carries 0 and no end mark; kept deliberately.
        const uint32_t sequence = i == 0 ? 0 : (i == count - 1 ? kLastSequence : static_cast<uint32_t>(i));
        DataBlock* block = createDataBlock(data + offset, length, listID, sequence);
        if (block == nullptr) {
            releaseDataBlockList(first);
            return nullptr;
        }
        if (last != nullptr) {
            last->pNext = block;
        } else {
            first = block;
        }
        last = block;
    }
    return first;
}

void ActionAgent::releaseDataBlockList(DataBlock* first) {
    while (first != nullptr) {
        DataBlock* next = first->pNext;
        delete[] first->pData;
        delete first;
        first = next;
    }
}

bool ActionAgent::appendBlockData(DataBlockListInfo& info, const char* data, int len) {
    if (len < 0 || (len > 0 && data == nullptr) || info.nTotalLength > INT32_MAX - len) {
        return false;
    }
    const int needed = info.nTotalLength + len;
    if (needed > info.nCapacity) {
        // Doubling keeps the copies of a payload to about one of its size, however many pieces
        // it comes in, and realloc often spares even that (it may extend or move the pages); a
        // payload's cap bounds the doubling.
        const int doubled = info.nCapacity < kMaxPayloadBytes / 2 ? 2 * info.nCapacity : kMaxPayloadBytes;
        const int capacity = needed > doubled ? needed : doubled;
        char* grown = static_cast<char*>(realloc(info.pData, static_cast<size_t>(capacity)));
        if (grown == nullptr) {
            return false;
        }
        info.pData = grown;
        info.nCapacity = capacity;
    }
    if (len > 0) {
        memcpy(info.pData + info.nTotalLength, data, static_cast<size_t>(len));
    }
    info.nTotalLength = needed;
    return true;
}

void ActionAgent::addBlockListInfo(uint64_t key, const DataBlockListInfo& info) {
    MutexGuard guard(&m_dataBlockMutex);
    m_dataBlockMap[key] = info;
    m_payloadOrder.push_back(key);
    m_nHeldBytes += info.nCapacity;
    limitHeldPayloads(key);
}

bool ActionAgent::findBlockListInfo(uint64_t key, DataBlockListInfo& info) {
    MutexGuard guard(&m_dataBlockMutex);
    const auto found = m_dataBlockMap.find(key);
    if (found == m_dataBlockMap.end()) {
        return false;
    }
    info = found->second;
    return true;
}

void ActionAgent::updateBlockListInfo(uint64_t key, const DataBlockListInfo& info) {
    MutexGuard guard(&m_dataBlockMutex);
    const auto found = m_dataBlockMap.find(key);
    if (found != m_dataBlockMap.end()) {
        m_nHeldBytes += info.nCapacity - found->second.nCapacity;
        found->second = info;
        limitHeldPayloads(key);
    }
}

void ActionAgent::removeBlockListInfo(uint64_t key) {
    MutexGuard guard(&m_dataBlockMutex);
    const auto found = m_dataBlockMap.find(key);
    if (found != m_dataBlockMap.end()) {
        m_nHeldBytes -= found->second.nCapacity;
        m_dataBlockMap.erase(found);
        m_payloadOrder.remove(key);
    }
}

void ActionAgent::limitHeldPayloads(uint64_t key) {
    // The sender is the key's low half, its address.
    const uint32_t sender = static_cast<uint32_t>(key);
    size_t fromSender = 0;
    for (uint64_t held : m_payloadOrder) {
        fromSender += static_cast<uint32_t>(held) == sender ? 1 : 0;
    }
    for (auto it = m_payloadOrder.begin();
         it != m_payloadOrder.end() && (fromSender > kMaxPayloadsPerSender || m_nHeldBytes > kMaxHeldBytes);) {
        const bool sameSender = static_cast<uint32_t>(*it) == sender;
        if (*it == key || (!sameSender && m_nHeldBytes <= kMaxHeldBytes)) {
            ++it;
            continue;
        }
        const auto entry = m_dataBlockMap.find(*it);
        if (entry != m_dataBlockMap.end()) {
            ZT_LOG(Common::ZT_LOG_WARNING, "Dropped an unfinished large payload of %d bytes",
                   entry->second.nTotalLength);
            m_nHeldBytes -= entry->second.nCapacity;
            free(entry->second.pData);
            m_dataBlockMap.erase(entry);
        }
        fromSender -= sameSender ? 1 : 0;
        it = m_payloadOrder.erase(it);
    }
}

// ---------------------------------------------------------------------------------------------
// Files

int ActionAgent::sendFileList(const std::vector<std::string>* paths, const InteractionApp* app,
                              FileTransferCallback cb, void* user, uint32_t* taskId, bool flag, int mode) {
    if (m_nAppID < 1) {
        return SendFileListResult::kNotRegistered;
    }
    if (paths == nullptr) {
        return SendFileListResult::kNoList;
    }
    if (taskId == nullptr) {
        return SendFileListResult::kNoTaskPlace;
    }
    if (app == nullptr) {
        return SendFileListResult::kNoTarget;
    }
    if (paths->empty()) {
        return SendFileListResult::kEmptyList;
    }
    SendFileReq request(flag ? ACTION_SEND_FILE_EX : ACTION_SEND_FILE);
    for (const std::string& path : *paths) {
        const std::string absolute = OSAbstractLayer::osal_getAbsolutePath(path.c_str());
        if (absolute.empty()) {
            return SendFileListResult::kPathNotAbsolute;
        }
        const size_t separator = absolute.find_last_of("/\\");
        const size_t nameLength = separator == std::string::npos ? absolute.size() : absolute.size() - separator - 1;
        if (nameLength > kMaxFileName) {
            return SendFileListResult::kNameTooLong;
        }
        request.files.emplace_back(absolute.c_str());
    }
    request.app = *app;
    request.sendTag.byLocalAppID = static_cast<uint8_t>(m_nAppID.load());
    request.sendTag.byRemoteAppID = static_cast<uint8_t>(app->nAppID);
    request.nMode = mode;
    SendFileRes response(request.actionID);
    // Held across the call, so that a progress event for the new task cannot look the table up
    // before its entry exists.
    MutexGuard guard(&m_sendFileCallBackMutex);
    const int code = exchange(request, &response, kServiceTimeout);
    if (code == kNoMemory) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory!");
        return SendFileListResult::kOutOfMemory;
    }
    if (code != 0) {
        return code;
    }
    *taskId = static_cast<uint32_t>(response.nTaskID);
    addCallBack(*taskId, cb, user);
    return response.nResult;
}

int ActionAgent::sendFile(const char* path, const InteractionApp* app, FileTransferCallback cb, void* user,
                          uint32_t* taskId, bool flag, int mode) {
    if (m_nAppID < 1) {
        return SendFileResult::kNotRegistered;
    }
    if (path == nullptr) {
        return SendFileResult::kNoPath;
    }
    const std::string absolute = OSAbstractLayer::osal_getAbsolutePath(path);
    if (absolute.empty()) {
        return SendFileResult::kPathNotAbsolute;
    }
    const std::vector<std::string> paths(1, absolute);
    return sendFileList(&paths, app, cb, user, taskId, flag, mode);
}

int ActionAgent::fileTransferCtrl(uint32_t taskId, int code) {
    if (m_nAppID < 1) {
        return TransferControlResult::kNotRegistered;
    }
    FileTransferCtrlReq request(code);
    request.nTaskID = static_cast<int32_t>(taskId);
    FileTransferCtrlRes response(code);
    const int result = exchange(request, &response, kServiceTimeout);
    if (result == kNoMemory) {
        return TransferControlResult::kOutOfMemory;
    }
    return result != 0 ? result : response.nResult;
}

int ActionAgent::pauseSend(unsigned long taskId) {
    return fileTransferCtrl(static_cast<uint32_t>(taskId), ACTION_PAUSE_SEND);
}

int ActionAgent::pauseSend(int taskId) {
    return pauseSend(static_cast<unsigned long>(taskId));
}

int ActionAgent::resumeSend(unsigned long taskId) {
    return fileTransferCtrl(static_cast<uint32_t>(taskId), ACTION_RESUME_SEND);
}

int ActionAgent::resumeSend(int taskId) {
    return resumeSend(static_cast<unsigned long>(taskId));
}

int ActionAgent::cancelSend(unsigned long taskId) {
    return fileTransferCtrl(static_cast<uint32_t>(taskId), ACTION_CANCEL_SEND);
}

int ActionAgent::cancelSend(int taskId) {
    return cancelSend(static_cast<unsigned long>(taskId));
}

int ActionAgent::cancelReceive(unsigned long taskId) {
    return fileTransferCtrl(static_cast<uint32_t>(taskId), ACTION_CANCEL_RECEIVE);
}

int ActionAgent::cancelReceive(int taskId) {
    return cancelReceive(static_cast<unsigned long>(taskId));
}

int ActionAgent::setReceiveOption(const ReceiveOption* option) {
    if (option == nullptr) {
        return SetReceiveOptionResult::kNoOption;
    }
    if (m_nAppID < 1) {
        return SetReceiveOptionResult::kNotRegistered;
    }
    SetReceiveOptionReq request;
    char directory[sizeof(option->directory)];
    Wire::CopyText(directory, option->directory);
    request.SetDirectory(OSAbstractLayer::osal_getAbsolutePath(directory).c_str());
    request.rename = option->rename;
    request.percent = option->percent;
    request.fReceiveData = option->pfnReceiveData != nullptr;
    request.fReceiveFile = option->pfnReceiveFile != nullptr;
    SetReceiveOptionRes response;
    const int code = exchange(request, &response, kServiceTimeout);
    if (code == kNoMemory) {
        return SetReceiveOptionResult::kOutOfMemory;
    }
    if (code != 0) {
        return code;
    }
    MutexGuard guard(&m_receiveOptionMutex);
    m_receiveOption = *option;  // kept whatever the result says
    return response.nResult;
}

int ActionAgent::getReceiveOption(ReceiveOption* option) {
    if (m_nAppID < 1) {
        return GetReceiveOptionResult::kNotRegistered;
    }
    if (option == nullptr) {
        return GetReceiveOptionResult::kNoPlace;
    }
    MutexGuard guard(&m_receiveOptionMutex);
    *option = m_receiveOption;
    return 0;
}

int ActionAgent::deleteSendFileCallback(uint32_t taskId) {
    if (m_nAppID < 1) {
        return LinkResult::kNotRegistered;
    }
    return deleteCallBack(taskId) ? 0 : 1;
}

void ActionAgent::addCallBack(unsigned long taskId, FileTransferCallback cb, void* user) {
    SendFileCallBack entry;
    entry.pfnCallBack = cb;
    entry.pUser = user;
    entry.nTaskID = taskId;
    m_sendFileCallBacks.push_back(entry);
}

SendFileCallBack ActionAgent::getCallBack(unsigned long taskId) {
    MutexGuard guard(&m_sendFileCallBackMutex);
    for (const SendFileCallBack& entry : m_sendFileCallBacks) {
        if (entry.nTaskID == taskId) {
            return entry;
        }
    }
    return SendFileCallBack();
}

bool ActionAgent::deleteCallBack(unsigned long taskId) {
    MutexGuard guard(&m_sendFileCallBackMutex);
    for (auto it = m_sendFileCallBacks.begin(); it != m_sendFileCallBacks.end(); ++it) {
        if (it->nTaskID == taskId) {
            m_sendFileCallBacks.erase(it);
            return true;
        }
    }
    return false;
}

// ---------------------------------------------------------------------------------------------
// Media devices

int ActionAgent::searchDMS(std::vector<DLNADevice>* devices) {
    return searchDLNADevice(devices, ACTION_SEARCH_DMS);
}

int ActionAgent::searchDMR(std::vector<DLNADevice>* devices) {
    return searchDLNADevice(devices, ACTION_SEARCH_DMR);
}

int ActionAgent::searchDLNADevice(std::vector<DLNADevice>* devices, int code) {
    if (devices == nullptr) {
        return CommonResult::kMissingArgument;  // checked before registration
    }
    if (m_nAppID < 1) {
        return CommonResult::kNotRegistered;
    }
    const SearchDeviceReq request(code);
    SearchDeviceRes response(code);
    const int result = exchange(request, &response, kServiceTimeout);
    if (result == kNoMemory) {
        return CommonResult::kOutOfMemory;
    }
    if (result != 0) {
        return result;
    }
    append(devices, response.devices);
    return response.nResult;
}

int ActionAgent::requestFileList(int32_t actionID, const DLNADevice* server, const FileInfo* folder,
                                 std::vector<FileInfo>* items, int timeout) {
    if (m_nAppID < 1) {
        return CommonResult::kNotRegistered;
    }
    if (server == nullptr || items == nullptr || (actionID != ACTION_GET_ROOT_FILE_LIST && folder == nullptr)) {
        return CommonResult::kMissingArgument;
    }
    GetFileListReq request(actionID);
    request.server = *server;
    if (folder != nullptr) {
        request.folder = *folder;
    }
    GetFileListRes response(actionID);
    const int result = exchange(request, &response, timeout);
    if (result == kNoMemory) {
        return CommonResult::kOutOfMemory;
    }
    if (result != 0) {
        return result;
    }
    append(items, response.items);
    return response.nResult;
}

int ActionAgent::getFileList(const DLNADevice* server, std::vector<FileInfo>* items) {
    return requestFileList(ACTION_GET_ROOT_FILE_LIST, server, nullptr, items, kBrowseTimeout);
}

int ActionAgent::getFileList(const DLNADevice* server, const FileInfo* folder, std::vector<FileInfo>* items) {
    return requestFileList(ACTION_GET_CHILD_FILE_LIST, server, folder, items, kBrowseTimeout);
}

int ActionAgent::getParentFileList(const DLNADevice* server, const FileInfo* item, std::vector<FileInfo>* items) {
    return requestFileList(ACTION_GET_PARENT_FILE_LIST, server, item, items, kServiceTimeout);
}

int ActionAgent::getParentDirectoryInfo(const FileInfo* item, FileInfo* parent) {
    if (m_nAppID < 1) {
        return CommonResult::kNotRegistered;
    }
    if (item == nullptr || parent == nullptr) {
        return CommonResult::kMissingArgument;
    }
    GetParentDirectoryInfoReq request;
    request.item = *item;
    GetParentDirectoryInfoRes response;
    const int result = exchange(request, &response, kServiceTimeout);
    if (result == kNoMemory) {
        return CommonResult::kOutOfMemory;
    }
    if (result != 0) {
        return result;
    }
    *parent = response.parent;
    return response.nResult;
}

int ActionAgent::requestCopy(int32_t actionID, const DLNADevice* source, const DLNADevice* target,
                             const std::vector<FileInfo>* files, const FileInfo* targetFolder, FileTransferCallback cb,
                             int* taskId) {
    CopyFileReq request;
    request.actionID = actionID;
    request.source = *source;
    if (target != nullptr) {
        request.destination = *target;
    }
    if (targetFolder != nullptr) {
        request.destinationFolder = *targetFolder;
    }
    request.items = *files;
    CopyFileRes response;
    const int result = exchange(request, &response, kServiceTimeout);
    if (result == kNoMemory) {
        return CommonResult::kOutOfMemory;
    }
    if (result != 0) {
        return result;
    }
    *taskId = response.nTaskID;
    addFileCopyCallBack(static_cast<uint32_t>(response.nTaskID), cb);
    return response.nResult;
}

int ActionAgent::copyFileList(const DLNADevice* server, const std::vector<FileInfo>* files, FileTransferCallback cb,
                              int* taskId) {
    if (m_nAppID < 1) {
        return CommonResult::kNotRegistered;
    }
    if (server == nullptr || files == nullptr || taskId == nullptr) {
        return CommonResult::kMissingArgument;
    }
    return requestCopy(ACTION_DOWNLOAD_FILE, server, nullptr, files, nullptr, cb, taskId);
}

int ActionAgent::copyFileList(const DLNADevice* source, const DLNADevice* target, const std::vector<FileInfo>* files,
                              const FileInfo* targetFolder, FileTransferCallback cb, int* taskId) {
    if (m_nAppID < 1) {
        return CommonResult::kNotRegistered;
    }
    if (source == nullptr || target == nullptr || files == nullptr || targetFolder == nullptr || taskId == nullptr) {
        return CommonResult::kMissingArgument;
    }
    return requestCopy(ACTION_COPY_FILE, source, target, files, targetFolder, cb, taskId);
}

int ActionAgent::stopCopyTransfer(int taskId) {
    if (m_nAppID < 1) {
        return CommonResult::kNotRegistered;
    }
    CopyTransferCtrlReq request;
    request.nTaskID = taskId;
    return callForResult<CopyTransferCtrlRes>(request, kServiceTimeout, CommonResult::kOutOfMemory);
}

int ActionAgent::playSelectedFile(int index, const DLNADevice* renderer, const std::vector<FileInfo>* files,
                                  const DLNADevice* server, PlayNotifyCallback /*cb*/, const void* /*context*/,
                                  int option) {
    if (m_nAppID < 1) {
        return CommonResult::kNotRegistered;
    }
    if (renderer == nullptr || files == nullptr || server == nullptr) {
        return CommonResult::kMissingArgument;
    }
    PlaySelectedFileReq request;
    request.server = *server;
    request.renderer = *renderer;
    request.items = *files;
    request.nOption1 = index;
    request.nOption2 = option;
    return callForResult<PlaySelectedFileRes>(request, kServiceTimeout, CommonResult::kOutOfMemory);
}

int ActionAgent::stopCurPlayingFile(const DLNADevice* renderer) {
    return filePlayCtrl(renderer, ACTION_STOP_PLAYING_FILE);
}

int ActionAgent::pauseCurPlayingFile(const DLNADevice* renderer) {
    return filePlayCtrl(renderer, ACTION_PAUSE_PLAYING_FILE);
}

int ActionAgent::resumeCurPlayingFile(const DLNADevice* renderer) {
    return filePlayCtrl(renderer, ACTION_RESUME_PLAYING_FILE);
}

int ActionAgent::filePlayCtrl(const DLNADevice* renderer, int code) {
    return deviceCommand<FilePlayCtrlReq, FilePlayCtrlRes>(renderer, code, &FilePlayCtrlReq::renderer);
}

int ActionAgent::enableContentListCache(const DLNADevice* server) {
    return contentListCacheCtrl(server, ACTION_ENABLE_CONTENT_LIST_CACHE);
}

int ActionAgent::disableContentListCache(const DLNADevice* server) {
    return contentListCacheCtrl(server, ACTION_DISABLE_CONTENT_LIST_CACHE);
}

int ActionAgent::contentListCacheCtrl(const DLNADevice* server, int code) {
    return deviceCommand<ContentListCacheCtrlReq, ContentListCacheCtrlRes>(server, code,
                                                                           &ContentListCacheCtrlReq::server);
}

int ActionAgent::startDMS() {
    return dmsCtrl(ACTION_START_DMS, kOneYear);
}

int ActionAgent::stopDMS() {
    return dmsCtrl(ACTION_STOP_DMS, kServiceTimeout);
}

int ActionAgent::dmsCtrl(int code, int timeout) {
    if (m_nAppID < 1) {
        return CommonResult::kNotRegistered;
    }
    const DMSCtrlReq request(code);
    return callForResult<DMSCtrlRes>(request, timeout, CommonResult::kOutOfMemory);
}

int ActionAgent::setShareFolder(const char* path) {
    if (m_nAppID < 1) {
        return CommonResult::kNotRegistered;
    }
    if (path == nullptr) {
        return CommonResult::kMissingArgument;
    }
    SetShareFolderReq request;
    request.SetFolderPath(path);
    return callForResult<SetShareFolderRes>(request, kOneYear, CommonResult::kOutOfMemory);
}

int ActionAgent::rescanShareFolder() {
    if (m_nAppID < 1) {
        return CommonResult::kNotRegistered;
    }
    const UpdateShareFolderReq request;
    return callForResult<UpdateShareFolderRes>(request, kOneYear, CommonResult::kOutOfMemory);
}

int ActionAgent::setMyDMSName(const char* name) {
    if (m_nAppID < 1) {
        return CommonResult::kNotRegistered;
    }
    if (name == nullptr) {
        return CommonResult::kMissingArgument;
    }
    SetMyDMSNameReq request;
    request.SetName(name);
    return callForResult<SetMyDMSNameRes>(request, kServiceTimeout, CommonResult::kOutOfMemory);
}

int ActionAgent::rescanNetwork(DLNA_DEVICE_TYPE type) {
    if (m_nAppID < 1) {
        return CommonResult::kNotRegistered;
    }
    RescanNetworkReq request;
    request.type = type;
    return callForResult<RescanNetworkRes>(request, kServiceTimeout, CommonResult::kOutOfMemory);
}

void ActionAgent::addFileCopyCallBack(unsigned long taskId, FileTransferCallback cb) {
    FileCopyCallBack entry;
    entry.pfnCallBack = cb;
    entry.nTaskID = taskId;
    // Locked although only lookups need it by design: the dispatch thread reads the list.
    MutexGuard guard(&m_fileCopyCallBackMutex);
    m_fileCopyCallBacks.push_back(entry);
}

FileCopyCallBack ActionAgent::getFileCopyCallBack(unsigned long taskId) {
    MutexGuard guard(&m_fileCopyCallBackMutex);
    for (const FileCopyCallBack& entry : m_fileCopyCallBacks) {
        if (entry.nTaskID == taskId) {
            return entry;
        }
    }
    return FileCopyCallBack();
}

// ---------------------------------------------------------------------------------------------
// Apps and network

int ActionAgent::getLocalNetworkInfo(LocalNetworkDevice* device) {
    if (m_nAppID < 1) {
        return NetworkInfoResult::kNotRegistered;
    }
    if (device == nullptr) {
        return NetworkInfoResult::kNoPlace;
    }
    const GetLocalNetworkDeviceReq request;
    GetLocalNetworkDeviceRes response;
    const int result = exchange(request, &response, kServiceTimeout);
    if (result == kNoMemory) {
        return NetworkInfoResult::kOutOfMemory;
    }
    if (result != 0) {
        return result;
    }
    memcpy(device->szHostName, response.device.szHostName, sizeof(device->szHostName));
    memcpy(device->szIPv4, response.device.szIPv4, sizeof(device->szIPv4));
    memcpy(device->szGateway, response.device.szGateway, sizeof(device->szGateway));
    append(&device->networkCards, response.device.networkCards);
    return response.nResult;
}

int ActionAgent::searchInteractionApp(std::vector<InteractionApp>* apps) {
    if (m_nAppID < 1) {
        return SearchAppResult::kNotRegistered;
    }
    if (apps == nullptr) {
        return SearchAppResult::kNoList;
    }
    const SearchAppReq request;
    SearchAppRes response;
    const int result = exchange(request, &response, kServiceTimeout);
    if (result == kNoMemory) {
        return SearchAppResult::kOutOfMemory;
    }
    if (result != 0) {
        return result;
    }
    append(apps, response.apps);
    return response.nResult;
}

int ActionAgent::refreshInteractionApp(bool flag) {
    if (m_nAppID < 1) {
        return RefreshAppResult::kNotRegistered;
    }
    RefreshAppReq request;
    request.fRefresh = flag;
    return callForResult<RefreshAppRes>(request, kServiceTimeout, RefreshAppResult::kOutOfMemory);
}

int ActionAgent::getInteractionAppList(std::vector<InteractionApp>* apps) {
    if (m_nAppID < 1) {
        return AppListResult::kNotRegistered;
    }
    if (apps == nullptr) {
        return AppListResult::kNoList;
    }
    if (m_pInteractionAppList != nullptr) {
        m_pInteractionAppList->getAppList(*apps);
    }
    return 0;
}

}  // namespace Agent
}  // namespace PELK
