#include "Trace.h"

#include <cstdio>
#include <cstring>

namespace PELK {
namespace Emulator {

namespace {

const char* deviceKind(DLNA_DEVICE_TYPE type) {
    switch (type) {
        case DLNA_DEVICE_DMS: return "DMS";
        case DLNA_DEVICE_DMR: return "DMR";
        case DLNA_DEVICE_ALL: return "ALL";
        default: return "?";
    }
}

template <class Event>
void describeFileEvent(Trace& t, const Event& m) {
    t.num("nStatus", m.nStatus).num("ullCurrentSize", static_cast<int64_t>(m.ullCurrentSize));
    t.num("ullTotalSize", static_cast<int64_t>(m.ullTotalSize));
    t.num("ullListTotalSize", static_cast<int64_t>(m.ullListTotalSize)).num("nEventType", m.nEventType);
    t.num("nTaskID", m.nTaskID).num("nCurrentCount", m.nCurrentCount).num("nTotalCount", m.nTotalCount);
    t.text("strFileName", m.strFileName).tag("sendTag", m.sendTag);
}

template <class Event>
void describeDataStatus(Trace& t, const Event& m) {
    t.num("nStatus", m.nStatus).num("nEventType", m.nEventType).text("szIPv4", m.szIPv4);
    t.num("nRemoteAppID", m.nRemoteAppID).tag("sendTag", m.sendTag);
}

}  // namespace

std::string quoted(const char* text, size_t length) {
    std::string out = "\"";
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c >= 0x7F) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\x%02x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + '"';
}

Trace::Trace(const char* name, int32_t actionID) {
    m_line = std::string(name) + '(' + std::to_string(actionID) + ')';
}

void Trace::open(const char* name) {
    m_line += ' ';
    m_line += name;
    m_line += '=';
}

Trace& Trace::num(const char* name, int64_t value) {
    open(name);
    m_line += std::to_string(value);
    return *this;
}

Trace& Trace::flag(const char* name, bool value) {
    open(name);
    m_line += value ? '1' : '0';
    return *this;
}

Trace& Trace::bytes(const char* name, const char* chars, size_t size) {
    open(name);
    appendQuoted(chars, strnlen(chars, size));
    return *this;
}

void Trace::appendQuoted(const char* chars, size_t length) {
    m_line += quoted(chars, length);
}

Trace& Trace::app(const char* name, const InteractionApp& app) {
    open(name);
    record(app);
    return *this;
}

Trace& Trace::device(const char* name, const DLNADevice& device) {
    open(name);
    record(device);
    return *this;
}

Trace& Trace::item(const char* name, const FileInfo& item) {
    open(name);
    record(item);
    return *this;
}

Trace& Trace::tag(const char* name, const SendTag& tag) {
    open(name);
    m_line += std::to_string(tag.byLocalAppID) + '/' + std::to_string(tag.byRemoteAppID) + '/' +
              std::to_string(tag.byEventType) + ':' + std::to_string(tag.nValue);
    return *this;
}

Trace& Trace::data(const char* name, const MessageData& data) {
    open(name);
    const size_t length = data.nLength > 0 ? static_cast<size_t>(data.nLength) : 0;
    m_line += std::to_string(length) + ':';
    appendQuoted(data.pData, length < kDataPreview ? length : kDataPreview);
    if (length > kDataPreview) {
        m_line += "...";
    }
    return *this;
}

void Trace::record(const InteractionApp& app) {
    m_line += '{';
    appendQuoted(app.szAppName, strnlen(app.szAppName, sizeof(app.szAppName)));
    m_line += ' ';
    m_line.append(app.szIPv4, strnlen(app.szIPv4, sizeof(app.szIPv4)));
    m_line += ':' + std::to_string(app.nAppID) + " type=" + std::to_string(app.nType) + " mac=";
    m_line.append(app.szMacAddress, strnlen(app.szMacAddress, sizeof(app.szMacAddress)));
    m_line += " local=" + std::to_string(app.fLocalDevice) + '}';
}

void Trace::record(const DLNADevice& device) {
    m_line += '{';
    appendQuoted(device.name, strnlen(device.name, sizeof(device.name)));
    m_line += ' ';
    m_line += deviceKind(device.type);
    m_line += " uuid=";
    appendQuoted(device.UUID, strnlen(device.UUID, sizeof(device.UUID)));
    m_line += ' ';
    m_line.append(device.IPv4, strnlen(device.IPv4, sizeof(device.IPv4)));
    m_line += " local=" + std::to_string(device.localDevice) + '}';
}

void Trace::record(const FileInfo& item) {
    m_line += "{id=";
    appendQuoted(item.objectID, strnlen(item.objectID, sizeof(item.objectID)));
    m_line += " parent=";
    appendQuoted(item.objectParentID, strnlen(item.objectParentID, sizeof(item.objectParentID)));
    m_line += ' ';
    appendQuoted(item.objectTitle, strnlen(item.objectTitle, sizeof(item.objectTitle)));
    m_line += ' ';
    m_line.append(item.objectType, strnlen(item.objectType, sizeof(item.objectType)));
    m_line += " udn=";
    appendQuoted(item.sourceDMSUDN, strnlen(item.sourceDMSUDN, sizeof(item.sourceDMSUDN)));
    m_line += '}';
}

void Trace::record(const NetworkCard& card) {
    m_line += '{';
    m_line.append(card.szName, strnlen(card.szName, sizeof(card.szName)));
    m_line += ' ';
    m_line.append(card.szIPv4, strnlen(card.szIPv4, sizeof(card.szIPv4)));
    m_line += ' ';
    m_line.append(card.szMacAddress, strnlen(card.szMacAddress, sizeof(card.szMacAddress)));
    m_line += '}';
}

void Trace::record(const FilePath& path) {
    appendQuoted(path.szPath, strnlen(path.szPath, sizeof(path.szPath)));
}

// ---------------------------------------------------------------------------------------------
// Registration and apps

void describe(Trace& t, const RegisterReq& m) {
    t.num("nAppID", m.nAppID).text("szAppName", m.szAppName);
    t.flag("fDeviceEvents", m.fDeviceEvents).flag("fAppEvents", m.fAppEvents);
}

void describe(Trace& t, const RegisterRes& m) {
    t.num("nAppID", m.nAppID).num("nResult", m.nResult);
}

void describe(Trace& t, const UnregisterReq& m) {
    t.num("nAppID", m.nAppID);
}

void describe(Trace&, const SearchAppReq&) {}

void describe(Trace& t, const SearchAppRes& m) {
    t.list("apps", m.apps).num("nResult", m.nResult);
}

void describe(Trace& t, const RefreshAppReq& m) {
    t.flag("fRefresh", m.fRefresh);
}

void describe(Trace& t, const InterAppChangeRes& m) {
    t.num("nStatus", m.nStatus).num("nChangeType", m.nChangeType).app("app", m.app);
}

void describe(Trace&, const GetLocalNetworkDeviceReq&) {}

void describe(Trace& t, const GetLocalNetworkDeviceRes& m) {
    t.text("szHostName", m.device.szHostName).text("szIPv4", m.device.szIPv4).text("szGateway", m.device.szGateway);
    t.list("networkCards", m.device.networkCards).num("nResult", m.nResult);
}

// ---------------------------------------------------------------------------------------------
// Data

void describe(Trace& t, const SendDataReq& m) {
    t.app("app", m.app).flag("fFlag", m.fFlag).num("nTimeout", m.nTimeout).data("data", m.data);
}

void describe(Trace& t, const AsynSendDataReq& m) {
    t.app("app", m.app).flag("fFlag", m.fFlag).flag("fWantStatus", m.fWantStatus).data("data", m.data);
}

void describe(Trace& t, const SendUDPDataReq& m) {
    t.app("app", m.app).flag("fFlag", m.fFlag).data("data", m.data);
}

void describe(Trace& t, const BroadcastReq& m) {
    t.app("app", m.app).flag("fFlag", m.fFlag).data("data", m.data);
}

void describe(Trace& t, const SendUDPHugeDataReq& m) {
    t.app("app", m.app).data("data", m.data);
}

void describe(Trace& t, const ReceiveDataRes& m) {
    t.num("nStatus", m.nStatus).num("nDataType", m.nDataType).app("sender", m.sender).data("data", m.data);
}

void describe(Trace& t, const SendUDPDataStatusRes& m) {
    describeDataStatus(t, m);
}

void describe(Trace& t, const SendTCPDataStatusRes& m) {
    describeDataStatus(t, m);
}

// ---------------------------------------------------------------------------------------------
// Files

void describe(Trace& t, const SendFileReq& m) {
    t.list("files", m.files).app("app", m.app).tag("sendTag", m.sendTag).num("nMode", m.nMode);
}

void describe(Trace& t, const SendFileRes& m) {
    t.num("nTaskID", m.nTaskID).num("nResult", m.nResult);
}

void describe(Trace& t, const FileTransferCtrlReq& m) {
    t.num("nTaskID", m.nTaskID);
}

void describe(Trace& t, const FileTransferCtrlRes& m) {
    t.num("nTaskID", m.nTaskID).num("nResult", m.nResult);
}

void describe(Trace& t, const SetReceiveOptionReq& m) {
    t.text("directory", m.directory).flag("rename", m.rename).flag("fReceiveData", m.fReceiveData);
    t.flag("fReceiveFile", m.fReceiveFile).num("percent", m.percent);
}

void describe(Trace& t, const SendFileStatusRes& m) {
    describeFileEvent(t, m);
    t.app("receiver", m.receiver);
}

void describe(Trace& t, const ReceiveFileRes& m) {
    describeFileEvent(t, m);
    t.app("sender", m.sender);
}

// ---------------------------------------------------------------------------------------------
// Media

void describe(Trace&, const SearchDeviceReq&) {}
void describe(Trace&, const DMSCtrlReq&) {}
void describe(Trace&, const UpdateShareFolderReq&) {}

void describe(Trace& t, const RescanNetworkReq& m) {
    t.num("type", m.type);
}

void describe(Trace& t, const CopyTransferCtrlReq& m) {
    t.num("nTaskID", m.nTaskID);
}

void describe(Trace& t, const SetShareFolderReq& m) {
    t.text("szFolderPath", m.szFolderPath);
}

void describe(Trace& t, const SetMyDMSNameReq& m) {
    t.text("szName", m.szName);
}

void describe(Trace& t, const FilePlayCtrlReq& m) {
    t.device("renderer", m.renderer);
}

void describe(Trace& t, const ContentListCacheCtrlReq& m) {
    t.device("server", m.server);
}

void describe(Trace& t, const GetFileListReq& m) {
    t.device("server", m.server).item("folder", m.folder);
}

void describe(Trace& t, const GetParentDirectoryInfoReq& m) {
    t.item("item", m.item);
}

void describe(Trace& t, const CopyFileReq& m) {
    t.device("source", m.source).device("destination", m.destination).list("items", m.items);
    t.item("destinationFolder", m.destinationFolder);
}

void describe(Trace& t, const PlaySelectedFileReq& m) {
    t.device("server", m.server).device("renderer", m.renderer).list("items", m.items);
    t.num("nOption1", m.nOption1).num("nOption2", m.nOption2);
}

void describe(Trace& t, const SearchDeviceRes& m) {
    t.list("devices", m.devices).num("nResult", m.nResult);
}

void describe(Trace& t, const GetFileListRes& m) {
    t.list("items", m.items).num("nResult", m.nResult);
}

void describe(Trace& t, const GetParentDirectoryInfoRes& m) {
    t.num("nResult", m.nResult).item("parent", m.parent);
}

void describe(Trace& t, const CopyFileRes& m) {
    t.num("nTaskID", m.nTaskID).num("nResult", m.nResult);
}

void describe(Trace& t, const DMDeviceChangeRes& m) {
    t.num("nStatus", m.nStatus).num("nChangeType", m.nChangeType).device("device", m.device);
}

void describe(Trace& t, const DMFileCopyRes& m) {
    describeFileEvent(t, m);
    t.device("otherSide", m.otherSide);
}

}  // namespace Emulator
}  // namespace PELK
