// The service protocol: action IDs, the records that messages carry, and one class per request,
// reply and event, each encoding itself into and decoding itself from a flat body. Every class
// lists its fields once, at their offsets, and the coders of WireFormat.h do the rest.
// A message object belongs to one thread at a time; messages own their data block or vector.
#ifndef PELK_ACTIONMANAGER_STRUCT_H
#define PELK_ACTIONMANAGER_STRUCT_H

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "ActionManager/WireFormat.h"
#include "CommonLib/ZTLogger.h"

namespace PELK {

// ---------------------------------------------------------------------------------------------
// Action IDs: the first field of every body.

constexpr int32_t ACTION_REGISTER = 1;
constexpr int32_t ACTION_UNREGISTER = 2;
constexpr int32_t ACTION_PAUSE_SEND = 9;
constexpr int32_t ACTION_RESUME_SEND = 10;
constexpr int32_t ACTION_CANCEL_RECEIVE = 11;
constexpr int32_t ACTION_CANCEL_SEND = 12;
constexpr int32_t ACTION_SEND_FILE = 13;
constexpr int32_t ACTION_SEND_FILE_STATUS = 14;  // event
constexpr int32_t ACTION_SET_RECEIVE_OPTION = 15;
constexpr int32_t ACTION_BROADCAST = 16;
constexpr int32_t ACTION_GET_LOCAL_NETWORK_DEVICE = 17;
constexpr int32_t ACTION_SEND_DATA = 18;
constexpr int32_t ACTION_RECEIVE_FILE = 19;  // event
constexpr int32_t ACTION_RECEIVE_DATA = 20;  // event
constexpr int32_t ACTION_SET_SHARE_FOLDER = 21;
constexpr int32_t ACTION_SEARCH_DMS = 22;
constexpr int32_t ACTION_SEARCH_DMR = 23;
constexpr int32_t ACTION_GET_ROOT_FILE_LIST = 24;
constexpr int32_t ACTION_GET_CHILD_FILE_LIST = 25;
constexpr int32_t ACTION_GET_PARENT_FILE_LIST = 26;
constexpr int32_t ACTION_START_DMS = 27;
constexpr int32_t ACTION_STOP_DMS = 28;
constexpr int32_t ACTION_STOP_COPY_TRANSFER = 29;
constexpr int32_t ACTION_UPDATE_SHARE_FOLDER = 30;
constexpr int32_t ACTION_SET_MY_DMS_NAME = 31;
constexpr int32_t ACTION_DM_DEVICE_CHANGE = 32;  // event
constexpr int32_t ACTION_RESCAN_NETWORK = 33;
constexpr int32_t ACTION_PLAY_SELECTED_FILE = 35;
constexpr int32_t ACTION_STOP_PLAYING_FILE = 36;
constexpr int32_t ACTION_PAUSE_PLAYING_FILE = 37;
constexpr int32_t ACTION_RESUME_PLAYING_FILE = 38;
constexpr int32_t ACTION_COPY_FILE = 39;  // upload: from a device to another device's folder
// A download from a server to this device travels as CopyFileReq under its own ID.
constexpr int32_t ACTION_DOWNLOAD_FILE = 40;
constexpr int32_t ACTION_DM_FILE_COPY = 41;  // event
constexpr int32_t ACTION_ENABLE_CONTENT_LIST_CACHE = 42;
constexpr int32_t ACTION_DISABLE_CONTENT_LIST_CACHE = 43;
constexpr int32_t ACTION_SEARCH_APP = 44;
constexpr int32_t ACTION_INTER_APP_CHANGE = 45;  // event
// Made by the link itself when the connection to the service breaks; the body is the ID alone.
constexpr int32_t ACTION_SERVER_DISCONNECTED = 46;
constexpr int32_t ACTION_GET_PARENT_DIRECTORY_INFO = 47;
constexpr int32_t ACTION_SEND_UDP_DATA = 48;
constexpr int32_t ACTION_REFRESH_APP = 49;
constexpr int32_t ACTION_SEND_UDP_HUGE_DATA = 50;
constexpr int32_t ACTION_SEND_FILE_EX = 51;          // the send-file variant chosen by the send's flag
constexpr int32_t ACTION_SEND_UDP_DATA_STATUS = 52;  // event
constexpr int32_t ACTION_ASYN_SEND_DATA = 53;
constexpr int32_t ACTION_SEND_TCP_DATA_STATUS = 54;  // event

// True for the IDs that the service pushes on its own (the link routes them to the event path).
constexpr bool IsEventActionID(int32_t nActionID) {
    return nActionID == ACTION_SEND_FILE_STATUS || nActionID == ACTION_RECEIVE_FILE ||
           nActionID == ACTION_RECEIVE_DATA || nActionID == ACTION_DM_DEVICE_CHANGE ||
           nActionID == ACTION_DM_FILE_COPY || nActionID == ACTION_INTER_APP_CHANGE ||
           nActionID == ACTION_SEND_UDP_DATA_STATUS || nActionID == ACTION_SEND_TCP_DATA_STATUS;
}

// ---------------------------------------------------------------------------------------------
// Records. Those that messages carry are copied as raw images, so their memory layout is their
// wire layout (checked below). Flags inside records are bytes, nonzero meaning true, since the
// service's bytes are taken as they come.

enum DLNA_DEVICE_TYPE : int32_t {
    DLNA_DEVICE_DMS = 0,
    DLNA_DEVICE_DMR = 1,
    DLNA_DEVICE_ALL = 2,
};

// One application instance on some device that takes part in interaction.
struct InteractionApp {
    char szAppName[260] = {};
    int32_t nAppID = 0;  // assigned by the service
    int32_t nType = 0;
    char szIPv4[16] = {};
    char szMacAddress[18] = {};
    uint8_t fLocalDevice = 0;  // nonzero when the app runs on this device
    uint8_t byReserved = 0;

    InteractionApp() { SetIPv4("127.0.0.1"); }
    // Bounded copies: an over-long text is cut to 259, 15 or 17 characters.
    void SetAppName(const char* name) { Wire::CopyText(szAppName, name); }
    void SetIPv4(const char* ip) { Wire::CopyText(szIPv4, ip); }
    void SetMacAddress(const char* mac) { Wire::CopyText(szMacAddress, mac); }
};

// One DLNA media server or renderer.
struct DLNADevice {
    char name[260] = {};
    DLNA_DEVICE_TYPE type = DLNA_DEVICE_DMS;
    char UUID[100] = {};
    char IPv4[16] = {};
    uint8_t localDevice = 0;     // nonzero for a device on this machine
    uint8_t reserved[231] = {};  // the service's own fields, carried through unchanged

    DLNADevice() { Wire::CopyText(IPv4, "127.0.0.1"); }
};

// One content item or directory of a media server. Each field is filled by a copy bounded by
// its full size, so a text of exactly that size has no terminator.
struct FileInfo {
    char sourceDMSUDN[100] = {};
    char objectParentID[100] = {};
    char objectID[100] = {};
    char objectTitle[260] = {};
    char objectType[260] = {};
    char objectURI[1024] = {};
};

// One network interface of this device.
struct NetworkCard {
    char szName[16] = {};
    char szIPv4[16] = {};
    char szMacAddress[18] = {};
};

// One 260-byte path of a file send.
struct FilePath {
    char szPath[260] = {};

    FilePath() = default;
    explicit FilePath(const char* path) { Wire::CopyText(szPath, path); }
};

// The tag that a send carries to the service and that comes back in its status events; the
// agent finds the send's callback by it.
struct SendTag {
    uint8_t byLocalAppID = 0;   // low byte of the sender's app ID
    uint8_t byRemoteAppID = 0;  // low byte of the target's app ID
    uint8_t byEventType = 3;
    uint8_t byReserved = 0;
    int32_t nValue = 0;
};

// The local network description: a 64-byte fixed part, then the network cards.
struct LocalNetworkDevice {
    char szHostName[32] = {};
    char szIPv4[16] = {};
    char szGateway[16] = {};
    std::vector<NetworkCard> networkCards;
};

// What a file send, receive or copy reports to its callback.
struct file_transfer_event {
    uint64_t ullCurrentSize = 0;    // bytes done of the current file
    uint64_t ullTotalSize = 0;      // size of the current file
    uint64_t ullListTotalSize = 0;  // size of the whole list
    int64_t nId = 0;                // transfer ID
    int64_t nCurrentCount = 0;      // index of the current file
    int64_t nTotalCount = 0;        // number of files
    int64_t nEventType = 0;
    char strFileName[260] = {};
    char strOtherSideIP[16] = {};
    int32_t nRemoteAppID = 0;
};

// What a data send reports to its callback.
struct data_transfer_event {
    int64_t nId = 0;  // transfer ID
    int64_t nEventType = 0;
    int32_t nRemoteAppID = 0;
    char strIPAddress[16] = {};
};

typedef void (*ReceiveDataCallback)(int type, const char* data, int len, void* user, const InteractionApp* sender);
typedef void (*FileTransferCallback)(file_transfer_event event, void* user);
typedef void (*DataTransferCallback)(data_transfer_event event, void* user);

// How incoming data and files are stored and reported (native only, never on the wire as is).
struct ReceiveOption {
    char directory[260] = {};  // receive folder, at most 259 characters
    bool rename = true;
    int percent = 1;
    ReceiveDataCallback pfnReceiveData = nullptr;
    void* pReceiveDataUser = nullptr;
    FileTransferCallback pfnReceiveFile = nullptr;
    void* pReceiveFileUser = nullptr;
};

static_assert(sizeof(bool) == 1, "flags take one byte");

static_assert(sizeof(InteractionApp) == 304, "InteractionApp image");
static_assert(offsetof(InteractionApp, szAppName) == 0 && offsetof(InteractionApp, nAppID) == 260 &&
                  offsetof(InteractionApp, nType) == 264 && offsetof(InteractionApp, szIPv4) == 268 &&
                  offsetof(InteractionApp, szMacAddress) == 284 && offsetof(InteractionApp, fLocalDevice) == 302 &&
                  offsetof(InteractionApp, byReserved) == 303,
              "InteractionApp layout");
static_assert(sizeof(DLNADevice) == 612, "DLNADevice image");
static_assert(offsetof(DLNADevice, name) == 0 && offsetof(DLNADevice, type) == 260 &&
                  offsetof(DLNADevice, UUID) == 264 && offsetof(DLNADevice, IPv4) == 364 &&
                  offsetof(DLNADevice, localDevice) == 380 && offsetof(DLNADevice, reserved) == 381,
              "DLNADevice layout");
static_assert(sizeof(DLNA_DEVICE_TYPE) == 4, "device type is an int32");
static_assert(sizeof(FileInfo) == 1844, "FileInfo image");
static_assert(offsetof(FileInfo, sourceDMSUDN) == 0 && offsetof(FileInfo, objectParentID) == 100 &&
                  offsetof(FileInfo, objectID) == 200 && offsetof(FileInfo, objectTitle) == 300 &&
                  offsetof(FileInfo, objectType) == 560 && offsetof(FileInfo, objectURI) == 820,
              "FileInfo layout");
static_assert(sizeof(NetworkCard) == 50, "NetworkCard image");
static_assert(offsetof(NetworkCard, szName) == 0 && offsetof(NetworkCard, szIPv4) == 16 &&
                  offsetof(NetworkCard, szMacAddress) == 32,
              "NetworkCard layout");
static_assert(sizeof(FilePath) == 260, "FilePath image");
static_assert(sizeof(SendTag) == 8, "SendTag image");
static_assert(offsetof(SendTag, byLocalAppID) == 0 && offsetof(SendTag, byRemoteAppID) == 1 &&
                  offsetof(SendTag, byEventType) == 2 && offsetof(SendTag, byReserved) == 3 &&
                  offsetof(SendTag, nValue) == 4,
              "SendTag layout");

// ---------------------------------------------------------------------------------------------
// Message base and the shared encode/decode steps.

class ReqResBase {
public:
    virtual ~ReqResBase() = default;
    // Writes the body into buf (sized by GetSize()) and returns the bytes written; a null buf is
    // logged and nothing is written.
    virtual unsigned int GetBuffer(void* buf) const = 0;
    // Fills the object from a body of nBufferSize bytes. A null buf, a buffer smaller than
    // GetSize(), or a count or length that runs past nBufferSize is logged and changes nothing.
    virtual void FromBuffer(const void* buf, unsigned int nBufferSize) = 0;
    // The exact size of the body in the object's present state.
    virtual unsigned int GetSize() const = 0;

protected:
    ReqResBase() = default;
    ReqResBase(const ReqResBase&) = default;
    ReqResBase& operator=(const ReqResBase&) = default;
};

namespace Codec {

// The bytes that GetSize() reports beyond what GetBuffer() writes: zero unless a class says
// otherwise with kUnwrittenTail.
template <class Msg, class = void>
struct UnwrittenTail {
    static constexpr unsigned int value = 0;
};
template <class Msg>
struct UnwrittenTail<Msg, std::void_t<decltype(Msg::kUnwrittenTail)>> {
    static constexpr unsigned int value = Msg::kUnwrittenTail;
};

template <class Msg>
unsigned int Size(const Msg& msg) {
    Wire::Sizer sizer;
    Msg::Fields(msg, sizer);
    return static_cast<unsigned int>(sizer.End()) + UnwrittenTail<Msg>::value;
}

template <class Msg>
unsigned int Encode(const Msg& msg, void* buf) {
    if (buf == nullptr) {
        Common::ZTLogger::getDefaultLogger()->printf(Common::ZT_LOG_DEBUG, __FILE__, __LINE__, "GetBuffer",
                                                     "%s -> GetBuffer : buf == NULL!\n", Msg::kName);
        return msg.GetSize();
    }
    Wire::Writer writer(buf);
    Msg::Fields(msg, writer);
    return static_cast<unsigned int>(writer.End());
}

inline int LoggedSize(uint64_t size) {
    return size > static_cast<uint64_t>(INT_MAX) ? INT_MAX : static_cast<int>(size);
}

// True when the object was filled; false (logged, object unchanged) otherwise.
template <class Msg>
bool Decode(Msg& msg, const void* buf, unsigned int nBufferSize) {
    if (buf == nullptr) {
        Common::ZTLogger::getDefaultLogger()->printf(Common::ZT_LOG_DEBUG, __FILE__, __LINE__, "FromBuffer",
                                                     "%s -> FromBuffer(): NULL == buf !\n", Msg::kName);
        return false;
    }
    const unsigned int nSize = msg.GetSize();
    Wire::BodySizer body(buf, nBufferSize);
    Msg::Fields(std::as_const(msg), body);
    if (nBufferSize < nSize || !body.Fits()) {
        // A body whose own count or length overruns the buffer is refused in the same words.
        const int nLogged = nBufferSize < nSize ? LoggedSize(nSize) : LoggedSize(body.End());
        Common::ZTLogger::getDefaultLogger()->printf(Common::ZT_LOG_DEBUG, __FILE__, __LINE__, "FromBuffer",
                                                     "%s : nBufferSize < this->GetSize()[%d]!\n", Msg::kName, nLogged);
        return false;
    }
    char* pBlock = nullptr;
    if (body.HasData()) {
        pBlock = new (std::nothrow) char[static_cast<size_t>(body.DataLength())];
        if (pBlock == nullptr) {
            Common::ZTLogger::getDefaultLogger()->printf(Common::ZT_LOG_ERROR, __FILE__, __LINE__, "FromBuffer",
                                                         "Out of memory!");
            return false;
        }
    }
    Wire::Reader reader(buf, pBlock);
    Msg::Fields(msg, reader);
    return true;
}

// Fields shared by several classes, for any class that has the members named.
template <class Self, class Coder>
void ResultFields(Self& m, Coder& c) {
    c.Int32(0, m.actionID);
    c.Int32(4, m.nResult);
}

}  // namespace Codec

// The overrides of a message class, all driven by its static Fields().
#define PELK_MESSAGE_CODEC(Name)                                                           \
    static constexpr const char* kName = #Name;                                            \
    unsigned int GetSize() const override { return Codec::Size(*this); }                   \
    unsigned int GetBuffer(void* buf) const override { return Codec::Encode(*this, buf); } \
    void FromBuffer(const void* buf, unsigned int nBufferSize) override { Codec::Decode(*this, buf, nBufferSize); }

// A message whose body is its action ID alone; classes shared by several IDs take theirs.
#define PELK_ACTION_ONLY_MESSAGE(Name, nDefaultID)                               \
    class Name : public ReqResBase {                                             \
    public:                                                                      \
        int32_t actionID;                                                        \
        explicit Name(int32_t nActionID = (nDefaultID)) : actionID(nActionID) {} \
        PELK_MESSAGE_CODEC(Name)                                                 \
        template <class Self, class Coder>                                       \
        static void Fields(Self& m, Coder& c) {                                  \
            c.Int32(0, m.actionID);                                              \
        }                                                                        \
    };

// An 8-byte reply: the action ID and the service's result, 1 until a reply is read.
#define PELK_RESULT_MESSAGE(Name, nDefaultID)                                    \
    class Name : public ReqResBase {                                             \
    public:                                                                      \
        int32_t actionID;                                                        \
        int32_t nResult = 1;                                                     \
        explicit Name(int32_t nActionID = (nDefaultID)) : actionID(nActionID) {} \
        PELK_MESSAGE_CODEC(Name)                                                 \
        template <class Self, class Coder>                                       \
        static void Fields(Self& m, Coder& c) {                                  \
            Codec::ResultFields(m, c);                                           \
        }                                                                        \
    };

// A data message's block: a length and that many bytes, owned and freed by the message.
class MessageData {
public:
    int32_t nLength = 0;
    char* pData = nullptr;

    MessageData() = default;
    ~MessageData() { delete[] pData; }
    MessageData(const MessageData&) = delete;
    MessageData& operator=(const MessageData&) = delete;

    // Replaces the block with a copy of len bytes of data; false (logged, block unchanged) when
    // the copy cannot be made.
    bool Set(const void* data, unsigned int len) {
        // A block too long to frame is refused like one that cannot be allocated.
        char* pCopy = len <= 0x7FFF0000u ? new (std::nothrow) char[len] : nullptr;
        if (pCopy == nullptr) {
            Common::ZTLogger::getDefaultLogger()->printf(Common::ZT_LOG_ERROR, __FILE__, __LINE__, "Set",
                                                         "Out of memory!");
            return false;
        }
        if (len > 0) {
            memcpy(pCopy, data, len);
        }
        delete[] pData;
        pData = pCopy;
        nLength = static_cast<int32_t>(len);
        return true;
    }
};

// ---------------------------------------------------------------------------------------------
// Registration and app discovery.

class RegisterReq : public ReqResBase {
public:
    int32_t actionID = ACTION_REGISTER;
    int32_t nAppID = 0;  // the app number the caller registers under
    char szAppName[260] = {};
    bool fDeviceEvents = false;  // the caller wants media device change events
    bool fAppEvents = false;     // the caller wants interaction app change events

    void SetAppName(const char* name) { Wire::CopyText(szAppName, name); }
    PELK_MESSAGE_CODEC(RegisterReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(4, m.nAppID);
        c.Text(8, m.szAppName);
        c.Flag(268, m.fDeviceEvents);
        c.Flag(269, m.fAppEvents);
    }
};

class RegisterRes : public ReqResBase {
public:
    int32_t actionID = ACTION_REGISTER;
    int32_t nAppID = 1026;  // assigned by the service
    int32_t nResult = 1;

    PELK_MESSAGE_CODEC(RegisterRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(4, m.nAppID);
        c.Int32(8, m.nResult);
    }
};

class UnregisterReq : public ReqResBase {
public:
    int32_t actionID = ACTION_UNREGISTER;
    int32_t nAppID = 0;

    PELK_MESSAGE_CODEC(UnregisterReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(4, m.nAppID);
    }
};

PELK_RESULT_MESSAGE(UnregisterRes, ACTION_UNREGISTER)
PELK_ACTION_ONLY_MESSAGE(SearchAppReq, ACTION_SEARCH_APP)

class SearchAppRes : public ReqResBase {
public:
    int32_t actionID = ACTION_SEARCH_APP;
    std::vector<InteractionApp> apps;
    int32_t nResult = 1;

    PELK_MESSAGE_CODEC(SearchAppRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(c.List(4, m.apps), m.nResult);
    }
};

class RefreshAppReq : public ReqResBase {
public:
    int32_t actionID = ACTION_REFRESH_APP;
    bool fRefresh = false;

    PELK_MESSAGE_CODEC(RefreshAppReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Flag(4, m.fRefresh);
    }
};

PELK_RESULT_MESSAGE(RefreshAppRes, ACTION_REFRESH_APP)

// Event 45: an interaction app appeared (1), left (2) or changed otherwise.
class InterAppChangeRes : public ReqResBase {
public:
    int32_t actionID = ACTION_INTER_APP_CHANGE;
    int32_t nStatus = 1;
    int32_t nChangeType = 0;
    InteractionApp app;

    PELK_MESSAGE_CODEC(InterAppChangeRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(4, m.nStatus);
        c.Int32(8, m.nChangeType);
        c.Record(12, m.app);
    }
};

PELK_ACTION_ONLY_MESSAGE(GetLocalNetworkDeviceReq, ACTION_GET_LOCAL_NETWORK_DEVICE)

class GetLocalNetworkDeviceRes : public ReqResBase {
public:
    int32_t actionID = ACTION_GET_LOCAL_NETWORK_DEVICE;
    LocalNetworkDevice device;
    int32_t nResult = 1;

    PELK_MESSAGE_CODEC(GetLocalNetworkDeviceRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Text(4, m.device.szHostName);
        c.Text(36, m.device.szIPv4);
        c.Text(52, m.device.szGateway);
        c.Int32(c.List(68, m.device.networkCards), m.nResult);
    }
};

// ---------------------------------------------------------------------------------------------
// Data. Each data message owns its block (data.Set copies the caller's bytes in).

class SendDataReq : public ReqResBase {
public:
    int32_t actionID = ACTION_SEND_DATA;
    InteractionApp app;
    bool fFlag = false;
    int32_t nTimeout = 0;  // milliseconds
    MessageData data;

    PELK_MESSAGE_CODEC(SendDataReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Record(4, m.app);
        c.Flag(308, m.fFlag);
        c.Int32(309, m.nTimeout);
        c.Data(313, m.data.nLength, m.data.pData);
    }
};

// No reply: the outcome arrives as event 54.
class AsynSendDataReq : public ReqResBase {
public:
    int32_t actionID = ACTION_ASYN_SEND_DATA;
    InteractionApp app;
    bool fFlag = false;
    bool fWantStatus = false;
    MessageData data;

    PELK_MESSAGE_CODEC(AsynSendDataReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Record(4, m.app);
        c.Flag(308, m.fFlag);
        c.Flag(309, m.fWantStatus);
        c.Data(310, m.data.nLength, m.data.pData);
    }
};

class SendUDPDataReq : public ReqResBase {
public:
    int32_t actionID = ACTION_SEND_UDP_DATA;
    InteractionApp app;
    bool fFlag = false;
    MessageData data;

    PELK_MESSAGE_CODEC(SendUDPDataReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Record(4, m.app);
        c.Flag(308, m.fFlag);
        c.Data(309, m.data.nLength, m.data.pData);
    }
};

// app is the record that the broadcast builds from its address.
class BroadcastReq : public ReqResBase {
public:
    int32_t actionID = ACTION_BROADCAST;
    InteractionApp app;
    bool fFlag = false;
    MessageData data;

    PELK_MESSAGE_CODEC(BroadcastReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Record(4, m.app);
        c.Flag(308, m.fFlag);
        c.Data(309, m.data.nLength, m.data.pData);
    }
};

// One piece of a large UDP payload.
class SendUDPHugeDataReq : public ReqResBase {
public:
    int32_t actionID = ACTION_SEND_UDP_HUGE_DATA;
    InteractionApp app;
    MessageData data;

    PELK_MESSAGE_CODEC(SendUDPHugeDataReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Record(4, m.app);
        c.Data(308, m.data.nLength, m.data.pData);
    }
};

PELK_RESULT_MESSAGE(SendDataRes, ACTION_SEND_DATA)
PELK_RESULT_MESSAGE(SendUDPDataRes, ACTION_SEND_UDP_DATA)
PELK_RESULT_MESSAGE(SendUDPHugeDataRes, ACTION_SEND_UDP_HUGE_DATA)
PELK_RESULT_MESSAGE(BroadcastRes, ACTION_BROADCAST)

// Event 20: data that another app sent here. A data kind of 0x8101 marks a piece of a large
// UDP payload.
class ReceiveDataRes : public ReqResBase {
public:
    int32_t actionID = ACTION_RECEIVE_DATA;
    int32_t nStatus = 1;
    int32_t nDataType = 0;
    InteractionApp sender;
    MessageData data;

    PELK_MESSAGE_CODEC(ReceiveDataRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(4, m.nStatus);
        c.Int32(8, m.nDataType);
        c.Record(12, m.sender);
        c.Data(316, m.data.nLength, m.data.pData);
    }
};

namespace Codec {
// Events 52 and 54: the outcome of a UDP or TCP send.
template <class Self, class Coder>
void DataStatusFields(Self& m, Coder& c) {
    c.Int32(0, m.actionID);
    c.Int32(4, m.nStatus);
    c.Int32(8, m.nEventType);
    c.Text(12, m.szIPv4);
    c.Int32(28, m.nRemoteAppID);
    c.Record(32, m.sendTag);
}
}  // namespace Codec

class SendUDPDataStatusRes : public ReqResBase {
public:
    int32_t actionID = ACTION_SEND_UDP_DATA_STATUS;
    int32_t nStatus = 0;
    int32_t nEventType = 0;
    char szIPv4[16] = {};  // the other side
    int32_t nRemoteAppID = 0;
    SendTag sendTag;

    PELK_MESSAGE_CODEC(SendUDPDataStatusRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        Codec::DataStatusFields(m, c);
    }
};

class SendTCPDataStatusRes : public ReqResBase {
public:
    int32_t actionID = ACTION_SEND_TCP_DATA_STATUS;
    int32_t nStatus = 0;
    int32_t nEventType = 0;
    char szIPv4[16] = {};  // the other side
    int32_t nRemoteAppID = 0;
    SendTag sendTag;

    PELK_MESSAGE_CODEC(SendTCPDataStatusRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        Codec::DataStatusFields(m, c);
    }
};

// ---------------------------------------------------------------------------------------------
// File transfer.

// Action 13, or 51 for the variant that the send's flag selects.
class SendFileReq : public ReqResBase {
public:
    int32_t actionID;
    std::vector<FilePath> files;
    InteractionApp app;
    SendTag sendTag;
    int32_t nMode = 0;

    explicit SendFileReq(int32_t nActionID = ACTION_SEND_FILE) : actionID(nActionID) {}
    PELK_MESSAGE_CODEC(SendFileReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        const uint64_t end = c.Record(c.List(4, m.files), m.app);
        c.Int32(c.Record(end, m.sendTag), m.nMode);
    }
};

class SendFileRes : public ReqResBase {
public:
    int32_t actionID;
    int32_t nTaskID = -1;
    int32_t nResult = 1;

    explicit SendFileRes(int32_t nActionID = ACTION_SEND_FILE) : actionID(nActionID) {}
    PELK_MESSAGE_CODEC(SendFileRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(4, m.nTaskID);
        c.Int32(8, m.nResult);
    }
};

// The action ID is the command: 9 pause send, 10 resume send, 11 cancel receive, 12 cancel send.
class FileTransferCtrlReq : public ReqResBase {
public:
    int32_t actionID;
    int32_t nTaskID = 0;

    explicit FileTransferCtrlReq(int32_t nActionID = ACTION_PAUSE_SEND) : actionID(nActionID) {}
    PELK_MESSAGE_CODEC(FileTransferCtrlReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(4, m.nTaskID);
    }
};

class FileTransferCtrlRes : public ReqResBase {
public:
    int32_t actionID;
    int32_t nTaskID = -1;
    int32_t nResult = 1;

    explicit FileTransferCtrlRes(int32_t nActionID = ACTION_PAUSE_SEND) : actionID(nActionID) {}
    PELK_MESSAGE_CODEC(FileTransferCtrlRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(4, m.nTaskID);
        c.Int32(8, m.nResult);
    }
};

class SetReceiveOptionReq : public ReqResBase {
public:
    int32_t actionID = ACTION_SET_RECEIVE_OPTION;
    char directory[260] = {};
    bool rename = true;
    bool fReceiveData = false;  // a receive-data callback is installed
    bool fReceiveFile = false;  // a receive-file callback is installed
    int32_t percent = 1;

    void SetDirectory(const char* path) { Wire::CopyText(directory, path); }
    PELK_MESSAGE_CODEC(SetReceiveOptionReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Text(4, m.directory);
        c.Flag(264, m.rename);
        c.Flag(265, m.fReceiveData);
        c.Flag(266, m.fReceiveFile);
        c.Int32(267, m.percent);
    }
};

PELK_RESULT_MESSAGE(SetReceiveOptionRes, ACTION_SET_RECEIVE_OPTION)

namespace Codec {
// The 308-byte head of the file events 14, 19 and 41.
template <class Self, class Coder>
void FileEventHeadFields(Self& m, Coder& c) {
    c.Int32(0, m.actionID);
    c.Int32(4, m.nStatus);
    c.Int64(8, m.ullCurrentSize);
    c.Int64(16, m.ullTotalSize);
    c.Int64(24, m.ullListTotalSize);
    c.Int32(32, m.nEventType);
    c.Int32(36, m.nTaskID);
    c.Int32(40, m.nCurrentCount);
    c.Int32(44, m.nTotalCount);
    c.Text(48, m.strFileName);
}
}  // namespace Codec

// Event 14: progress or end of a file send.
class SendFileStatusRes : public ReqResBase {
public:
    int32_t actionID = ACTION_SEND_FILE_STATUS;
    int32_t nStatus = 0;
    uint64_t ullCurrentSize = 0;
    uint64_t ullTotalSize = 0;
    uint64_t ullListTotalSize = 0;
    int32_t nEventType = 0;
    int32_t nTaskID = 0;  // the transfer the event belongs to
    int32_t nCurrentCount = 0;
    int32_t nTotalCount = 0;
    char strFileName[260] = {};
    InteractionApp receiver;
    SendTag sendTag;

    static constexpr unsigned int kUnwrittenTail = 8;  // GetSize() exceeds what GetBuffer() writes; deliberate
    PELK_MESSAGE_CODEC(SendFileStatusRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        Codec::FileEventHeadFields(m, c);
        c.Record(308, m.receiver);
        c.Record(612, m.sendTag);
    }
};

// Event 19: progress or end of a file receive.
class ReceiveFileRes : public ReqResBase {
public:
    int32_t actionID = ACTION_RECEIVE_FILE;
    int32_t nStatus = 0;
    uint64_t ullCurrentSize = 0;
    uint64_t ullTotalSize = 0;
    uint64_t ullListTotalSize = 0;
    int32_t nEventType = 0;
    int32_t nTaskID = 0;  // the transfer the event belongs to
    int32_t nCurrentCount = 0;
    int32_t nTotalCount = 0;
    char strFileName[260] = {};
    SendTag sendTag;
    InteractionApp sender;

    static constexpr unsigned int kUnwrittenTail = 8;  // GetSize() exceeds what GetBuffer() writes; deliberate
    PELK_MESSAGE_CODEC(ReceiveFileRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        Codec::FileEventHeadFields(m, c);
        c.Record(308, m.sendTag);
        c.Record(316, m.sender);
    }
};

// ---------------------------------------------------------------------------------------------
// Media devices.

PELK_ACTION_ONLY_MESSAGE(SearchDeviceReq, ACTION_SEARCH_DMS)
PELK_ACTION_ONLY_MESSAGE(DMSCtrlReq, ACTION_START_DMS)
PELK_ACTION_ONLY_MESSAGE(UpdateShareFolderReq, ACTION_UPDATE_SHARE_FOLDER)

class RescanNetworkReq : public ReqResBase {
public:
    int32_t actionID = ACTION_RESCAN_NETWORK;
    DLNA_DEVICE_TYPE type = DLNA_DEVICE_DMS;

    PELK_MESSAGE_CODEC(RescanNetworkReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(4, m.type);
    }
};

class CopyTransferCtrlReq : public ReqResBase {
public:
    int32_t actionID = ACTION_STOP_COPY_TRANSFER;
    int32_t nTaskID = 0;

    PELK_MESSAGE_CODEC(CopyTransferCtrlReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(4, m.nTaskID);
    }
};

class SetShareFolderReq : public ReqResBase {
public:
    int32_t actionID = ACTION_SET_SHARE_FOLDER;
    char szFolderPath[260] = {};

    void SetFolderPath(const char* path) { Wire::CopyText(szFolderPath, path); }
    PELK_MESSAGE_CODEC(SetShareFolderReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Text(4, m.szFolderPath);
    }
};

class SetMyDMSNameReq : public ReqResBase {
public:
    int32_t actionID = ACTION_SET_MY_DMS_NAME;
    char szName[260] = {};

    void SetName(const char* name) { Wire::CopyText(szName, name); }
    PELK_MESSAGE_CODEC(SetMyDMSNameReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Text(4, m.szName);
    }
};

// The action ID is the command: 36 stop, 37 pause, 38 resume.
class FilePlayCtrlReq : public ReqResBase {
public:
    int32_t actionID;
    DLNADevice renderer;

    explicit FilePlayCtrlReq(int32_t nActionID = ACTION_STOP_PLAYING_FILE) : actionID(nActionID) {}
    PELK_MESSAGE_CODEC(FilePlayCtrlReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Record(4, m.renderer);
    }
};

// The action ID is the command: 42 enable, 43 disable.
class ContentListCacheCtrlReq : public ReqResBase {
public:
    int32_t actionID;
    DLNADevice server;

    explicit ContentListCacheCtrlReq(int32_t nActionID = ACTION_ENABLE_CONTENT_LIST_CACHE) : actionID(nActionID) {}
    PELK_MESSAGE_CODEC(ContentListCacheCtrlReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Record(4, m.server);
    }
};

// The action ID is the command: 24 the root, 25 a folder's children, 26 its parent's list.
class GetFileListReq : public ReqResBase {
public:
    int32_t actionID;
    DLNADevice server;
    FileInfo folder;

    explicit GetFileListReq(int32_t nActionID = ACTION_GET_ROOT_FILE_LIST) : actionID(nActionID) {}
    PELK_MESSAGE_CODEC(GetFileListReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Record(4, m.server);
        c.Record(616, m.folder);
    }
};

class GetParentDirectoryInfoReq : public ReqResBase {
public:
    int32_t actionID = ACTION_GET_PARENT_DIRECTORY_INFO;
    FileInfo item;

    PELK_MESSAGE_CODEC(GetParentDirectoryInfoReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Record(4, m.item);
    }
};

class CopyFileReq : public ReqResBase {
public:
    int32_t actionID = ACTION_COPY_FILE;
    DLNADevice source;
    DLNADevice destination;
    std::vector<FileInfo> items;
    FileInfo destinationFolder;

    PELK_MESSAGE_CODEC(CopyFileReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Record(4, m.source);
        c.Record(616, m.destination);
        c.Record(c.List(1228, m.items), m.destinationFolder);
    }
};

// nOption1 and nOption2 carry the play operation's two integer arguments, in that order.
class PlaySelectedFileReq : public ReqResBase {
public:
    int32_t actionID = ACTION_PLAY_SELECTED_FILE;
    DLNADevice server;
    DLNADevice renderer;
    std::vector<FileInfo> items;
    int32_t nOption1 = 0;
    int32_t nOption2 = 0;

    PELK_MESSAGE_CODEC(PlaySelectedFileReq)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Record(4, m.server);
        c.Record(616, m.renderer);
        c.Int32(c.Int32(c.List(1228, m.items), m.nOption1), m.nOption2);
    }
};

class SearchDeviceRes : public ReqResBase {
public:
    int32_t actionID;
    std::vector<DLNADevice> devices;
    int32_t nResult = 1;

    explicit SearchDeviceRes(int32_t nActionID = ACTION_SEARCH_DMS) : actionID(nActionID) {}
    PELK_MESSAGE_CODEC(SearchDeviceRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(c.List(4, m.devices), m.nResult);
    }
};

class GetFileListRes : public ReqResBase {
public:
    int32_t actionID;
    std::vector<FileInfo> items;
    int32_t nResult = 1;

    explicit GetFileListRes(int32_t nActionID = ACTION_GET_ROOT_FILE_LIST) : actionID(nActionID) {}
    PELK_MESSAGE_CODEC(GetFileListRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(c.List(4, m.items), m.nResult);
    }
};

class GetParentDirectoryInfoRes : public ReqResBase {
public:
    int32_t actionID = ACTION_GET_PARENT_DIRECTORY_INFO;
    int32_t nResult = 1;
    FileInfo parent;

    PELK_MESSAGE_CODEC(GetParentDirectoryInfoRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        Codec::ResultFields(m, c);
        c.Record(8, m.parent);
    }
};

class CopyFileRes : public ReqResBase {
public:
    int32_t actionID = ACTION_COPY_FILE;
    int32_t nTaskID = -1;  // the copy, to stop it and to find its callback
    int32_t nResult = 1;

    PELK_MESSAGE_CODEC(CopyFileRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(4, m.nTaskID);
        c.Int32(8, m.nResult);
    }
};

PELK_RESULT_MESSAGE(DMSCtrlRes, ACTION_START_DMS)
PELK_RESULT_MESSAGE(UpdateShareFolderRes, ACTION_UPDATE_SHARE_FOLDER)
PELK_RESULT_MESSAGE(RescanNetworkRes, ACTION_RESCAN_NETWORK)
PELK_RESULT_MESSAGE(CopyTransferCtrlRes, ACTION_STOP_COPY_TRANSFER)
PELK_RESULT_MESSAGE(SetShareFolderRes, ACTION_SET_SHARE_FOLDER)
PELK_RESULT_MESSAGE(SetMyDMSNameRes, ACTION_SET_MY_DMS_NAME)
PELK_RESULT_MESSAGE(FilePlayCtrlRes, ACTION_STOP_PLAYING_FILE)
PELK_RESULT_MESSAGE(ContentListCacheCtrlRes, ACTION_ENABLE_CONTENT_LIST_CACHE)
PELK_RESULT_MESSAGE(PlaySelectedFileRes, ACTION_PLAY_SELECTED_FILE)

// Event 32: a media server or renderer appeared or left.
class DMDeviceChangeRes : public ReqResBase {
public:
    int32_t actionID = ACTION_DM_DEVICE_CHANGE;
    int32_t nStatus = 0;
    int32_t nChangeType = 0;
    DLNADevice device;

    PELK_MESSAGE_CODEC(DMDeviceChangeRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        c.Int32(0, m.actionID);
        c.Int32(4, m.nStatus);
        c.Int32(8, m.nChangeType);
        c.Record(12, m.device);
    }
};

// Event 41: progress or end of a copy between devices.
class DMFileCopyRes : public ReqResBase {
public:
    int32_t actionID = ACTION_DM_FILE_COPY;
    int32_t nStatus = 0;
    uint64_t ullCurrentSize = 0;
    uint64_t ullTotalSize = 0;
    uint64_t ullListTotalSize = 0;
    int32_t nEventType = 0;
    int32_t nTaskID = 0;  // the transfer the event belongs to
    int32_t nCurrentCount = 0;
    int32_t nTotalCount = 0;
    char strFileName[260] = {};
    SendTag sendTag;
    DLNADevice otherSide;

    static constexpr unsigned int kUnwrittenTail = 8;  // GetSize() exceeds what GetBuffer() writes; deliberate
    PELK_MESSAGE_CODEC(DMFileCopyRes)
    template <class Self, class Coder>
    static void Fields(Self& m, Coder& c) {
        Codec::FileEventHeadFields(m, c);
        c.Record(308, m.sendTag);
        c.Record(316, m.otherSide);
    }
};

#undef PELK_RESULT_MESSAGE
#undef PELK_ACTION_ONLY_MESSAGE
#undef PELK_MESSAGE_CODEC

}  // namespace PELK

#endif  // PELK_ACTIONMANAGER_STRUCT_H
