// The process's one client of the on-device service: registers the app, carries every operation
// the app calls to the service as one request over the TransferClient link, keeps the callback
// tables that pushed events are routed to, and re-registers by itself when the service comes back.
//
// Threads: app threads call the operations (one request is in flight at a time, serialised by
// the link). The link's action callback thread runs onActionReceived() and therefore every app
// callback, one event at a time in arrival order; the reconnection thread runs after a loss and
// calls the app callback once more (status 4) when it is back. registerApp() and unregisterApp()
// run one at a time, under the registration mutex, the outermost lock of the agent (after the
// reconnection mutex): each starts or stops the link, which must not happen in the middle of the
// other. The seven table mutexes are never held two at a time and are taken after the link's
// locks are released; the logger's is innermost.
//
// Calls from inside a callback: every operation may be called from inside any callback the agent
// makes. Requests wait for their reply as on any thread. unregisterApp() stops the link without
// waiting for the thread that runs the callback; registerApp() then starts a new link. There
// neither waits for another registration or unregistration, which may be waiting for the
// callback: while one runs they return 1103 at once. A TCP send status callback runs with the TCP
// callback table held; asynSendData() with a status callback from inside it files its entry in
// that same table without taking the lock again.
// The destructor is for process exit and must not run from a callback.
//
// Ownership: the agent owns its TransferClient, its AgentAppList and every table entry; user
// pointers are the app's and are only handed back. Records are copied in and out by value.
#ifndef PELK_AGENT_ACTIONAGENT_H
#define PELK_AGENT_ACTIONAGENT_H

#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "ActionManager/Struct.h"
#include "PELKExport.h"

namespace PELK {
namespace Agent {

class TransferClient;
class AgentAppList;

// Status of the app callback: 1 added, 2 removed (from the service), 3 this app lost the
// service, 4 this app is connected again.
enum {
    APP_STATUS_CHANGE_ADD = 1,
    APP_STATUS_CHANGE_REMOVE = 2,
    APP_STATUS_DISCONNECTED = 3,
    APP_STATUS_RECONNECTED = 4,
};

typedef void (*InterAppChangeCallback)(const InteractionApp* app, int status, void* user);
typedef void (*DLNADeviceChangeCallback)(const DLNADevice* device, int status, void* user);
typedef void (*PlayNotifyCallback)(void* user);

// An asynchronous TCP send waiting for its status event; sends to one app share an entry.
struct TCPSendCallBack {
    DataTransferCallback pfnCallBack = nullptr;
    void* pUser = nullptr;
    int32_t nRefCount = 0;
};

// A UDP send waiting for its status event. A miss reads as id -1 with nulls.
struct UDPSendCallBack {
    DataTransferCallback pfnCallBack = nullptr;
    void* pUser = nullptr;
    long nId = -1;
    std::string strAddress;  // the whole 16-byte address field, zero bytes included
    uint64_t nSerial = 0;    // tells apart the entries of several sends to one app
};

// A file send's progress callback, found by the service's task ID.
struct SendFileCallBack {
    FileTransferCallback pfnCallBack = nullptr;
    void* pUser = nullptr;
    unsigned long nTaskID = 0;
};

// A copy's progress callback; it is called with the registration user pointer.
struct FileCopyCallBack {
    FileTransferCallback pfnCallBack = nullptr;
    unsigned long nTaskID = 0;
};

// One piece of a large UDP payload: owned content and the link to the next piece.
struct DataBlock {
    char* pData = nullptr;
    int nLength = 0;
    uint32_t nListID = 0;
    uint32_t nSequence = 0;  // 0 first, i in between, kLastSequence last (when there are several)
    DataBlock* pNext = nullptr;
};

// A payload being put together from its pieces, in arrival order, in one buffer (malloc, grown
// by realloc) that grows as they come.
struct DataBlockListInfo {
    int nTotalLength = 0;  // content so far
    char* pData = nullptr;
    int nCapacity = 0;     // what pData holds, the content and room for more
};

class PELK_EXPORT ActionAgent {
public:
    // Bytes of content in one piece of a large UDP payload, and the sequence that ends one.
    static constexpr int kBlockContentSize = 8173;
    static constexpr uint32_t kLastSequence = 0xFFFFFFFEu;
    // Data kind of a received piece of a large UDP payload.
    static constexpr int32_t kHugeDataType = 0x8101;

    // The process's agent, made on first use; destroyed at process exit.
    static ActionAgent* getInstance();
    virtual ~ActionAgent();

    // ---- Registration ------------------------------------------------------------------------
    // Connects to the service and registers under name (at most 259 characters) and appID.
    // user comes back as the last argument of the app, device and copy callbacks. Returns 0,
    // 1200 already registered, 1201, 1202 null name, 1203 empty, 1204 too long, 1206 no service,
    // a link code (1103 from a callback while another registration or unregistration runs), or
    // the service's result.
    int registerApp(const char* name, int appID, void* user, InterAppChangeCallback appCb,
                    DLNADeviceChangeCallback dlnaCb);
    int registerApp(const char* name, int appID, void* user, InterAppChangeCallback appCb,
                    DLNADeviceChangeCallback dlnaCb, bool autoReconnect);
    // reserved is accepted and never read.
    int registerApp(const char* name, int appID, void* user, InterAppChangeCallback appCb,
                    DLNADeviceChangeCallback dlnaCb, bool autoReconnect, bool reserved);
    // 0, 1300 not registered, 1301, a link code (the agent then stays registered) or the result.
    int unregisterApp();
    // Present for callers that check names first; accepts every name.
    static bool checkRegisterName(const char* name);
    // The service-assigned app ID, below 1 while not registered.
    int getAppID() const { return m_nAppID.load(); }
    // This app as the service describes it.
    InteractionApp getOwnApp();

    // The link's action callback: context is the agent. A null frame means the link ended.
    static void onActionReceived(char* recvBuf, void* context);
    // Body of the detached reconnection thread; arg is the agent.
    static unsigned int thread_reconnectToServer(void* arg);

    // ---- Data (codes 14xx TCP, 15xx UDP, 16xx large UDP, 19xx broadcast) ---------------------
    // timeout 1..200 is in seconds, any other value in milliseconds.
    int sendData(const char* data, unsigned int len, const InteractionApp* app, bool flag, int timeout);
    // No reply: cb (when set) gets the outcome from a later status event.
    int asynSendData(const char* data, unsigned int len, const InteractionApp* app, bool flag,
                     DataTransferCallback cb, void* user);
    // Above 2039 bytes the payload goes out as a large payload (and no status is asked for).
    int sendUDPData(const char* data, unsigned int len, const InteractionApp* app, bool wantStatus,
                    DataTransferCallback cb, void* user);
    int sendUDPHugeData(const char* data, unsigned int len, const InteractionApp* app);
    int broadcast(const char* data, unsigned int len, const char* address, bool flag);

    // Send status tables. getTCPCallBack expects the TCP callback mutex to be held.
    void addTCPCallBack(const char* address, long id, DataTransferCallback cb, void* user);
    bool getTCPCallBack(const char* address, long id, TCPSendCallBack& entry);
    void deleteTCPCallBack(const char* address, long id);
    // Returns the entry's serial, by which a send whose call failed withdraws exactly its own.
    uint64_t addUDPCallBack(const char* address, long id, DataTransferCallback cb, void* user);
    UDPSendCallBack getUDPCallBack(const char* address, long id);
    void deleteUDPCallBack(const char* address, long id);
    void withdrawUDPCallBack(uint64_t serial);

    // Large payloads: cutting on the sending side, joining on the receiving side.
    static uint64_t createMapKey(const char* address, unsigned long id);
    static DataBlock* createDataBlock(const char* data, int len, unsigned long listId, unsigned long sequence);
    static DataBlock* createDataBlockList(const char* data, int len);
    static void releaseDataBlockList(DataBlock* first);
    // Appends a piece's content; false, with info unchanged, when memory runs out.
    static bool appendBlockData(DataBlockListInfo& info, const char* data, int len);
    void addBlockListInfo(uint64_t key, const DataBlockListInfo& info);
    bool findBlockListInfo(uint64_t key, DataBlockListInfo& info);
    void updateBlockListInfo(uint64_t key, const DataBlockListInfo& info);
    void removeBlockListInfo(uint64_t key);

    // ---- Files (codes 17xx, 18xx, 20xx, 21xx, 22xx) -----------------------------------------
    // On success *taskId receives the service's task ID, under which cb gets the progress.
    int sendFileList(const std::vector<std::string>* paths, const InteractionApp* app, FileTransferCallback cb,
                     void* user, uint32_t* taskId, bool flag, int mode);
    int sendFile(const char* path, const InteractionApp* app, FileTransferCallback cb, void* user, uint32_t* taskId,
                 bool flag, int mode);
    int fileTransferCtrl(uint32_t taskId, int code);
    int pauseSend(unsigned long taskId);
    int pauseSend(int taskId);
    int resumeSend(unsigned long taskId);
    int resumeSend(int taskId);
    int cancelSend(unsigned long taskId);
    int cancelSend(int taskId);
    int cancelReceive(unsigned long taskId);
    int cancelReceive(int taskId);
    // Sets where incoming files go and who is told of incoming data and files; kept and sent
    // again after a reconnection.
    int setReceiveOption(const ReceiveOption* option);
    int getReceiveOption(ReceiveOption* option);
    // 0 removed, 1 no such task, 1100 not registered.
    int deleteSendFileCallback(uint32_t taskId);

    // File-send callback list. addCallBack expects the file-send callback mutex to be held.
    void addCallBack(unsigned long taskId, FileTransferCallback cb, void* user);
    SendFileCallBack getCallBack(unsigned long taskId);
    bool deleteCallBack(unsigned long taskId);

    // ---- Media devices (1001 null argument, 1002 not registered, 1008 out of memory) ---------
    // Found devices and items are appended to the caller's vector.
    int searchDMS(std::vector<DLNADevice>* devices);
    int searchDMR(std::vector<DLNADevice>* devices);
    int searchDLNADevice(std::vector<DLNADevice>* devices, int code);
    int getFileList(const DLNADevice* server, std::vector<FileInfo>* items);
    int getFileList(const DLNADevice* server, const FileInfo* folder, std::vector<FileInfo>* items);
    int getParentFileList(const DLNADevice* server, const FileInfo* item, std::vector<FileInfo>* items);
    int getParentDirectoryInfo(const FileInfo* item, FileInfo* parent);
    // Download from a server (copy progress goes to cb, with the registration user pointer).
    int copyFileList(const DLNADevice* server, const std::vector<FileInfo>* files, FileTransferCallback cb,
                     int* taskId);
    // Upload from source to target's folder.
    int copyFileList(const DLNADevice* source, const DLNADevice* target, const std::vector<FileInfo>* files,
                     const FileInfo* targetFolder, FileTransferCallback cb, int* taskId);
    int stopCopyTransfer(int taskId);
    // The request carries server first and renderer second, then index and option.
    int playSelectedFile(int index, const DLNADevice* renderer, const std::vector<FileInfo>* files,
                         const DLNADevice* server, PlayNotifyCallback cb, const void* context, int option);
    int stopCurPlayingFile(const DLNADevice* renderer);
    int pauseCurPlayingFile(const DLNADevice* renderer);
    int resumeCurPlayingFile(const DLNADevice* renderer);
    int filePlayCtrl(const DLNADevice* renderer, int code);
    int enableContentListCache(const DLNADevice* server);
    int disableContentListCache(const DLNADevice* server);
    int contentListCacheCtrl(const DLNADevice* server, int code);
    int startDMS();
    int stopDMS();
    int dmsCtrl(int code, int timeout);
    int setShareFolder(const char* path);
    int rescanShareFolder();
    int setMyDMSName(const char* name);
    int rescanNetwork(DLNA_DEVICE_TYPE type);

    // File-copy callback list.
    void addFileCopyCallBack(unsigned long taskId, FileTransferCallback cb);
    FileCopyCallBack getFileCopyCallBack(unsigned long taskId);

    // ---- Apps and network (codes 23xx, 24xx, 25xx, 27xx) ------------------------------------
    int getLocalNetworkInfo(LocalNetworkDevice* device);
    int searchInteractionApp(std::vector<InteractionApp>* apps);
    int refreshInteractionApp(bool flag);
    // The apps announced by the service so far, from the agent's own list.
    int getInteractionAppList(std::vector<InteractionApp>* apps);

protected:
    // The process uses getInstance(); tests make agents of their own through a subclass.
    ActionAgent();
    ActionAgent(const ActionAgent&) = delete;
    ActionAgent& operator=(const ActionAgent&) = delete;

private:
    struct EventRoute;
    static const EventRoute kEventRoutes[];
    static constexpr int kNoMemory = -1;

    // Encodes request, sends it and, when response is given, decodes the reply within the bytes
    // received; everything allocated on the way is freed. 0, kNoMemory, or the link's code.
    int exchange(const ReqResBase& request, ReqResBase* response, int timeoutSeconds);
    // exchange() for a reply that is a result: the link's code, outOfMemoryCode, or the result.
    template <class Res>
    int callForResult(const ReqResBase& request, int timeoutSeconds, int outOfMemoryCode);
    // A command that carries one device, the command being the request's action ID.
    template <class Req, class Res>
    int deviceCommand(const DLNADevice* device, int code, DLNADevice Req::*field);
    int requestFileList(int32_t actionID, const DLNADevice* server, const FileInfo* folder,
                        std::vector<FileInfo>* items, int timeout);
    int requestCopy(int32_t actionID, const DLNADevice* source, const DLNADevice* target,
                    const std::vector<FileInfo>* files, const FileInfo* targetFolder, FileTransferCallback cb,
                    int* taskId);

    // Event handlers: body is the message from its action ID on, length the bytes received.
    void onSendFileStatus(const char* body, uint32_t length);
    void onReceiveFile(const char* body, uint32_t length);
    void onReceiveData(const char* body, uint32_t length);
    void onDeviceChange(const char* body, uint32_t length);
    void onFileCopy(const char* body, uint32_t length);
    void onInterAppChange(const char* body, uint32_t length);
    void onServerDisconnected(const char* body, uint32_t length);
    void onUDPDataStatus(const char* body, uint32_t length);
    void onTCPDataStatus(const char* body, uint32_t length);
    void onHugeDataPiece(const InteractionApp& sender, const char* data, int length);
    // Drops the oldest unfinished payloads but key's while the limits are exceeded.
    // REQUIRES: m_dataBlockMutex held.
    void limitHeldPayloads(uint64_t key);

    void reconnect();
    // Waits until deadlineMs of the monotonic clock; false once auto-reconnect is off.
    bool reconnectPauseUntil(int64_t deadlineMs);
    // Returns once no reconnection thread runs.
    void waitForReconnection();

    std::atomic<int32_t> m_nAppID;
    InteractionApp m_ownApp;  // guarded by m_ownAppMutex: the dispatch and app threads share it
    std::atomic<bool> m_fAutoConnected;
    TransferClient* m_pTransferClient;
    ReceiveOption m_receiveOption;
    std::atomic<void*> m_pRegisterUser;
    std::atomic<DLNADeviceChangeCallback> m_pfnDLNADeviceChange;
    std::atomic<InterAppChangeCallback> m_pfnInterAppChange;
    std::list<SendFileCallBack> m_sendFileCallBacks;
    std::list<UDPSendCallBack> m_udpCallBacks;
    uint64_t m_nUDPCallBackSerial = 0;  // under m_udpCallBackMutex
    std::list<FileCopyCallBack> m_fileCopyCallBacks;
    std::map<uint64_t, DataBlockListInfo> m_dataBlockMap;
    std::map<std::string, TCPSendCallBack> m_tcpCallBackMap;
    pthread_mutex_t m_receiveOptionMutex;
    pthread_mutex_t m_sendFileCallBackMutex;
    pthread_mutex_t m_udpCallBackMutex;
    pthread_mutex_t m_tcpCallBackMutex;
    pthread_mutex_t m_fileCopyCallBackMutex;
    pthread_mutex_t m_reconnectMutex;
    pthread_mutex_t m_registrationMutex;
    pthread_mutex_t m_dataBlockMutex;
    AgentAppList* m_pInteractionAppList;

    pthread_mutex_t m_ownAppMutex;
    std::list<uint64_t> m_payloadOrder;  // data-block keys in the order their payloads began
    int64_t m_nHeldBytes;                // what the data-block map holds, under its mutex
    sem_t m_reconnectWake;               // posted by the destructor: a pausing reconnection ends
    std::atomic<int> m_nReconnectThreads;
};

}  // namespace Agent
}  // namespace PELK

#endif  // PELK_AGENT_ACTIONAGENT_H
