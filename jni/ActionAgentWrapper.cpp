#include "ActionAgentWrapper.h"

#include <cstring>

#include "CommonLib/ZTLogger.h"

using PELK::DataTransferCallback;
using PELK::DLNA_DEVICE_ALL;
using PELK::DLNA_DEVICE_TYPE;
using PELK::DLNADevice;
using PELK::FileInfo;
using PELK::FileTransferCallback;
using PELK::InteractionApp;
using PELK::LocalNetworkDevice;
using PELK::ReceiveDataCallback;
using PELK::ReceiveOption;
using PELK::Agent::ActionAgent;

namespace {

// Every facade line is a debug line of this file, named after the facade method.
#define WRAPPER_LOG(function, ...)                                                                                 \
    PELK::Common::ZTLogger::getDefaultLogger()->printf(PELK::Common::ZT_LOG_DEBUG, __FILE__, __LINE__, (function), \
                                                       __VA_ARGS__)

// How a method words its outcome: "ActionAgentWrapper::<method>()<separator><subject> successful."
// (or " failed."), and on failure "ActionAgentWrapper::<method>()<separator>nReturn for
// <codeSubject><codeOpen><code><codeClose>". The odd spellings of some methods are the messages
// their readers know; they stay as they are.
struct Wording {
    const char* method;
    const char* subject;
    const char* codeSubject;
    const char* separator;
    const char* codeOpen;
    const char* codeClose;
};

constexpr const char* kDashes = " ------ ";

constexpr Wording plain(const char* method) { return {method, method, method, kDashes, ": ", ""}; }

void logEntry(const char* method) { WRAPPER_LOG(method, "ActionAgentWrapper::%s()", method); }

int report(const Wording& w, int nReturn) {
    if (nReturn == 0) {
        WRAPPER_LOG(w.method, "ActionAgentWrapper::%s()%s%s successful.", w.method, w.separator, w.subject);
        return nReturn;
    }
    WRAPPER_LOG(w.method, "ActionAgentWrapper::%s()%s%s failed.", w.method, w.separator, w.subject);
    WRAPPER_LOG(w.method, "ActionAgentWrapper::%s()%snReturn for %s%s%d%s", w.method, w.separator, w.codeSubject,
                w.codeOpen, nReturn, w.codeClose);
    return nReturn;
}

// The transfer controls log only their failures.
int reportFailure(const char* method, int nReturn) {
    if (nReturn != 0) {
        WRAPPER_LOG(method, "ActionAgentWrapper::%s() failed[%d].", method, nReturn);
    }
    return nReturn;
}

// The remote app of a send. The address is written over a record that already holds
// "127.0.0.1", up to and including the caller's terminator, so bytes of the old text may stay
// behind it; they travel to the service and come back in send status events, so this is kept.
// A text too long for the field is cut (15 bytes at most, on a character boundary, and the
// terminator).
InteractionApp remoteApp(const char* ip, int appID) {
    InteractionApp app;
    const size_t length = PELK::Wire::CutLength(ip, sizeof(app.szIPv4) - 1);
    memcpy(app.szIPv4, ip == nullptr ? "" : ip, length);
    app.szIPv4[length] = '\0';
    app.nAppID = appID;
    return app;
}

// A task ID on success, the negated code otherwise, so that callers tell them apart by sign.
int taskIdOrNegatedCode(int nReturn, uint32_t id) { return nReturn == 0 ? static_cast<int>(id) : -nReturn; }

}  // namespace

ActionAgentWrapper* ActionAgentWrapper::getInstance() {
    static ActionAgentWrapper instance;
    return &instance;
}

ActionAgentWrapper::ActionAgentWrapper() : m_pActionAgent(ActionAgent::getInstance()) {}

// The agent is a singleton of its own and outlives the facade.
ActionAgentWrapper::~ActionAgentWrapper() = default;

int ActionAgentWrapper::registerApp(const char* name, int appID, PELK::Agent::InterAppChangeCallback appCallback,
                                    PELK::Agent::DLNADeviceChangeCallback deviceCallback) {
    const int nReturn = m_pActionAgent->registerApp(name, appID, nullptr, appCallback, deviceCallback);
    if (nReturn == 0) {
        WRAPPER_LOG("registerApp", "ActionAgentWrapper::registerApp() ------ Registe app:%d successful.",
                    m_pActionAgent->getAppID());
        return nReturn;
    }
    return report({"registerApp", "Registe app", "Registe app", kDashes, ": ", ""}, nReturn);
}

int ActionAgentWrapper::unregisterApp() {
    return report({"unregisterApp", "Unregiste app", "Unregiste app", kDashes, ": ", ""},
                  m_pActionAgent->unregisterApp());
}

int ActionAgentWrapper::sendData(const char* data, unsigned int len, const char* ip, int appID, bool flag,
                                 int timeOut) {
    const InteractionApp app = remoteApp(ip, appID);
    WRAPPER_LOG("sendData", "time_Out=%d", timeOut);
    return report({"sendData", "Send data", "Send data", kDashes, ": ", ""},
                  m_pActionAgent->sendData(data, len, &app, flag, timeOut));
}

int ActionAgentWrapper::asynSendData(const char* data, unsigned int len, const char* ip, int appID, bool flag,
                                     DataTransferCallback callback, void* context) {
    const InteractionApp app = remoteApp(ip, appID);
    return report(plain("asynSendData"), m_pActionAgent->asynSendData(data, len, &app, flag, callback, context));
}

int ActionAgentWrapper::sendUDPData(const char* data, unsigned int len, const char* ip, int appID, bool flag,
                                    DataTransferCallback callback, void* context) {
    const InteractionApp app = remoteApp(ip, appID);
    return report(plain("sendUDPData"), m_pActionAgent->sendUDPData(data, len, &app, flag, callback, context));
}

int ActionAgentWrapper::broadcast(const char* data, unsigned int len, const char* ip, bool flag) {
    return report({"broadcast", "Broadcast data", "broadcast", kDashes, ": ", ""},
                  m_pActionAgent->broadcast(data, len, ip, flag));
}

int ActionAgentWrapper::sendUDPDataAll(const char* data, unsigned int len, bool flag) {
    return report({"sendUDPDataAll", "Send", "sendUDPDataAll", kDashes, ": ", ""},
                  m_pActionAgent->broadcast(data, len, "0.0.0.0", flag));
}

int ActionAgentWrapper::sendFile(const char* path, const char* ip, int appID, FileTransferCallback callback,
                                 void* context, bool flag, int value) {
    const InteractionApp app = remoteApp(ip, appID);
    uint32_t id = 0;
    const int nReturn =
        report(plain("sendFile"), m_pActionAgent->sendFile(path, &app, callback, context, &id, flag, value));
    return taskIdOrNegatedCode(nReturn, id);
}

int ActionAgentWrapper::sendFileList(const std::vector<std::string>& paths, const char* ip, int appID,
                                     FileTransferCallback callback, void* context, bool flag, int value) {
    const InteractionApp app = remoteApp(ip, appID);
    uint32_t id = 0;
    const int nReturn =
        report(plain("sendFileList"), m_pActionAgent->sendFileList(&paths, &app, callback, context, &id, flag, value));
    return taskIdOrNegatedCode(nReturn, id);
}

int ActionAgentWrapper::pauseSend(unsigned long id) {
    return reportFailure("pauseSend", m_pActionAgent->pauseSend(id));
}

// Resuming asks the agent to pause, as the service's clients have always seen it; deliberate.
int ActionAgentWrapper::resumeSend(unsigned long id) {
    return reportFailure("resumeSend", m_pActionAgent->pauseSend(id));
}

int ActionAgentWrapper::cancelSend(unsigned long id) {
    return reportFailure("cancelSend", m_pActionAgent->cancelSend(id));
}

int ActionAgentWrapper::cancelReceive(unsigned long id) {
    return reportFailure("cancelReceive", m_pActionAgent->cancelReceive(id));
}

int ActionAgentWrapper::deleteSendFileCallback(unsigned long id) {
    return report(plain("deleteSendFileCallback"), m_pActionAgent->deleteSendFileCallback(static_cast<uint32_t>(id)));
}

int ActionAgentWrapper::setReceiveOption(const char* folder, ReceiveDataCallback dataCallback, void* dataContext,
                                         FileTransferCallback fileCallback, void* fileContext, bool flag, int value) {
    ReceiveOption option;
    PELK::Wire::CopyText(option.directory, folder);
    option.rename = flag;
    option.percent = value;
    option.pfnReceiveData = dataCallback;
    option.pReceiveDataUser = dataContext;
    option.pfnReceiveFile = fileCallback;
    option.pReceiveFileUser = fileContext;
    const int nReturn = report(plain("setReceiveOption"), m_pActionAgent->setReceiveOption(&option));
    if (nReturn == 0) {
        WRAPPER_LOG("setReceiveOption", "recvFolderPath=%s", option.directory);
    }
    return nReturn;
}

int ActionAgentWrapper::setReceiveOption(const ReceiveOption* option) {
    return report(plain("setReceiveOptionX"), m_pActionAgent->setReceiveOption(option));
}

int ActionAgentWrapper::getReceiveOption(ReceiveOption* option) {
    return report(plain("getReceiveOption"), m_pActionAgent->getReceiveOption(option));
}

int ActionAgentWrapper::getLocalNetworkInfo(LocalNetworkDevice* device) {
    return report(plain("getLocalNetworkInfo"), m_pActionAgent->getLocalNetworkInfo(device));
}

int ActionAgentWrapper::searchInteractionApp(std::vector<InteractionApp>* apps) {
    logEntry("searchInteractionApp");
    return report(plain("searchInteractionApp"), m_pActionAgent->searchInteractionApp(apps));
}

int ActionAgentWrapper::getInteractionAppList(std::vector<InteractionApp>* apps) {
    logEntry("getInteractionAppList");
    return report(plain("getInteractionAppList"), m_pActionAgent->getInteractionAppList(apps));
}

int ActionAgentWrapper::startDMS() {
    logEntry("startDMS");
    return report({"startDMS", "startDMS", "startDMS", ":", ": ", ""}, m_pActionAgent->startDMS());
}

int ActionAgentWrapper::stopDMS() {
    logEntry("stopDMS");
    return report(plain("stopDMS"), m_pActionAgent->stopDMS());
}

int ActionAgentWrapper::setMyDMSName(const char* name) {
    logEntry("setMyDMSName");
    return report(plain("setMyDMSName"), m_pActionAgent->setMyDMSName(name));
}

int ActionAgentWrapper::setShareFolder(const char* path) {
    logEntry("setShareFolder");
    return report(plain("setShareFolder"), m_pActionAgent->setShareFolder(path));
}

int ActionAgentWrapper::rescanShareFolder() {
    logEntry("rescanShareFolder");
    return report(plain("rescanShareFolder"), m_pActionAgent->rescanShareFolder());
}

int ActionAgentWrapper::rescanNetwork(int kind) {
    logEntry("rescanNetwork");
    // Compared unsigned, so negative kinds become "all" as well.
    const DLNA_DEVICE_TYPE type =
        static_cast<unsigned int>(kind) <= DLNA_DEVICE_ALL ? static_cast<DLNA_DEVICE_TYPE>(kind) : DLNA_DEVICE_ALL;
    return report(plain("rescanNetwork"), m_pActionAgent->rescanNetwork(type));
}

int ActionAgentWrapper::searchDMS(std::vector<DLNADevice>* devices) {
    logEntry("searchDMS");
    return report({"searchDMS", "searchDMS", "searchDMS", " : ", ":[", "]"}, m_pActionAgent->searchDMS(devices));
}

int ActionAgentWrapper::searchDMR(std::vector<DLNADevice>* devices) {
    logEntry("searchDMR");
    return report(plain("searchDMR"), m_pActionAgent->searchDMR(devices));
}

int ActionAgentWrapper::getFileList(const DLNADevice* server, std::vector<FileInfo>* items) {
    logEntry("getFileList");
    return report(plain("getFileList"), m_pActionAgent->getFileList(server, items));
}

int ActionAgentWrapper::getFileList(const DLNADevice* server, const FileInfo* folder, std::vector<FileInfo>* items) {
    logEntry("getFileList");
    return report(plain("getFileList"), m_pActionAgent->getFileList(server, folder, items));
}

int ActionAgentWrapper::getParentFileList(const DLNADevice* server, const FileInfo* item,
                                          std::vector<FileInfo>* items) {
    logEntry("getParentFileList");
    return report(plain("getParentFileList"), m_pActionAgent->getParentFileList(server, item, items));
}

int ActionAgentWrapper::getParentDirectoryInfo(const FileInfo* item, FileInfo* parent) {
    logEntry("getParentDirectoryInfo");
    return report({"getParentDirectoryInfo", "getParentDirectoryInfo", "getParentDirectoryInfo", kDashes, ": [", "]"},
                  m_pActionAgent->getParentDirectoryInfo(item, parent));
}

int ActionAgentWrapper::copyFileList(const DLNADevice* server, const std::vector<FileInfo>* files,
                                     FileTransferCallback callback, int* taskId) {
    logEntry("copyFileList");
    return report(plain("copyFileList"), m_pActionAgent->copyFileList(server, files, callback, taskId));
}

int ActionAgentWrapper::copyFileList(const DLNADevice* source, const DLNADevice* target,
                                     const std::vector<FileInfo>* files, const FileInfo* targetFolder,
                                     FileTransferCallback callback, int* taskId) {
    logEntry("copyFileList");
    return report(plain("copyFileList"),
                  m_pActionAgent->copyFileList(source, target, files, targetFolder, callback, taskId));
}

int ActionAgentWrapper::stopCopyTransfer(int taskId) {
    logEntry("stopCopyTransfer");
    return report(plain("stopCopyTransfer"), m_pActionAgent->stopCopyTransfer(taskId));
}

// The arguments reach the agent in the facade's own order: the agent's second parameter receives
// the facade's second argument. Settled between the bridge and the agent; do not swap them.
int ActionAgentWrapper::playSelectedFile(int index, const DLNADevice* server, const std::vector<FileInfo>* files,
                                         const DLNADevice* renderer, PELK::Agent::PlayNotifyCallback callback,
                                         const void* context) {
    logEntry("playSelectedFile");
    constexpr const char* kSubject = "play selected file(s)";
    return report({"playSelectedFile", kSubject, kSubject, kDashes, ": ", ""},
                  m_pActionAgent->playSelectedFile(index, server, files, renderer, callback, context, 0));
}

int ActionAgentWrapper::stopCurPlayingFile(const DLNADevice* renderer) {
    // The entry line names stopCopyTransfer; the readers of this log know it so. Deliberate.
    WRAPPER_LOG("stopCurPlayingFile", "ActionAgentWrapper::stopCopyTransfer()");
    return report(plain("stopCurPlayingFile"), m_pActionAgent->stopCurPlayingFile(renderer));
}

int ActionAgentWrapper::pauseCurPlayingFile(const DLNADevice* renderer) {
    logEntry("pauseCurPlayingFile");
    return report(plain("pauseCurPlayingFile"), m_pActionAgent->pauseCurPlayingFile(renderer));
}

int ActionAgentWrapper::resumeCurPlayingFile(const DLNADevice* renderer) {
    logEntry("resumeCurPlayingFile");
    return report(plain("resumeCurPlayingFile"), m_pActionAgent->resumeCurPlayingFile(renderer));
}

int ActionAgentWrapper::enableContentListCache(const DLNADevice* server) {
    logEntry("enableContentListCache");
    return report(plain("enableContentListCache"), m_pActionAgent->enableContentListCache(server));
}

int ActionAgentWrapper::disableContentListCache(const DLNADevice* server) {
    logEntry("disableContentListCache");
    return report(plain("disableContentListCache"), m_pActionAgent->disableContentListCache(server));
}
