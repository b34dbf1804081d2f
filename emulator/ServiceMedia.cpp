// The service's media side: the emulated media server and renderer, the apps' own media
// servers, browsing, copies between devices and playback.
#include "Service.h"
#include "ServiceCodes.h"
#include "Trace.h"

namespace PELK {
namespace Emulator {

namespace {

const char* const kRendererStates[] = {"stopped", "playing", "paused"};

}  // namespace

std::vector<Service::Device> Service::devices(DLNA_DEVICE_TYPE type) const {
    std::vector<Device> found;
    if (type != DLNA_DEVICE_DMR) {
        if (m_pMediaServer) {
            found.push_back({m_mediaServerDevice, m_pMediaServer.get()});
        }
        for (const auto& entry : m_clients) {
            const App* app = entry.second.pApp.get();
            if (app != nullptr && app->fServerRunning) {
                found.push_back({app->serverDevice, app->pServer.get()});
            }
        }
    }
    if (type != DLNA_DEVICE_DMS) {
        found.push_back({m_rendererDevice, nullptr});
    }
    return found;
}

const MediaLibrary* Service::findServer(const std::string& udn, DLNADevice* device) const {
    for (const Device& candidate : devices(DLNA_DEVICE_DMS)) {
        if (Wire::TextOf(candidate.record.UUID) == udn) {
            if (device != nullptr) {
                *device = candidate.record;
            }
            return candidate.pLibrary;
        }
    }
    return nullptr;
}

void Service::pushDevices(ClientId to, DLNA_DEVICE_TYPE type) {
    for (const Device& device : devices(type)) {
        DMDeviceChangeRes event;
        event.nChangeType = DEVICE_APPEARED;
        event.device = device.record;
        push(to, event);
    }
}

void Service::announceDevice(const DLNADevice& device, int32_t change, ClientId except) {
    for (const auto& entry : m_clients) {
        if (entry.second.pApp && entry.second.pApp->fDeviceEvents && entry.first != except) {
            DMDeviceChangeRes event;
            event.nChangeType = change;
            event.device = device;
            push(entry.first, event);
        }
    }
}

int32_t Service::onSearchDevice(Client&, const SearchDeviceReq& req, SearchDeviceRes& res) {
    const DLNA_DEVICE_TYPE type = req.actionID == ACTION_SEARCH_DMS ? DLNA_DEVICE_DMS : DLNA_DEVICE_DMR;
    for (const Device& device : devices(type)) {
        res.devices.push_back(device.record);
    }
    return RESULT_OK;
}

int32_t Service::onGetFileList(Client&, const GetFileListReq& req, GetFileListRes& res) {
    const MediaLibrary* server = findServer(Wire::TextOf(req.server.UUID));
    if (server == nullptr) {
        return RESULT_UNKNOWN_DEVICE;
    }
    std::string folder = req.actionID == ACTION_GET_ROOT_FILE_LIST ? MediaLibrary::kRootID : Wire::TextOf(req.folder.objectID);
    if (req.actionID == ACTION_GET_PARENT_FILE_LIST) {
        const std::string item = folder;
        const int32_t result = server->parentID(item, folder);
        if (result != RESULT_OK) {
            return result;
        }
    }
    return server->list(folder, res.items);
}

int32_t Service::onGetParentInfo(Client&, const GetParentDirectoryInfoReq& req, GetParentDirectoryInfoRes& res) {
    const MediaLibrary* server = findServer(Wire::TextOf(req.item.sourceDMSUDN));
    if (server == nullptr) {
        return RESULT_UNKNOWN_DEVICE;
    }
    return server->parentOf(Wire::TextOf(req.item.objectID), res.parent);
}

int32_t Service::collectItems(const MediaLibrary& library, const std::vector<FileInfo>& items,
                              const std::string& folder, std::vector<FileCopy::Item>& copies) const {
    for (const FileInfo& info : items) {
        FileCopy::Item item;
        item.folder = folder;
        const int32_t result = library.fileOf(Wire::TextOf(info.objectID), item.source, item.size);
        if (result != RESULT_OK) {
            return result;
        }
        copies.push_back(item);
    }
    return RESULT_OK;
}

// A download (ACTION_DOWNLOAD_FILE) copies a server's items into the app's receive folder; an
// upload copies them into a folder of another server.
int32_t Service::onCopy(Client& c, const CopyFileReq& req, CopyFileRes& res) {
    if (req.items.empty()) {
        return RESULT_BAD_REQUEST;
    }
    std::unique_ptr<Task> task(new Task);
    const MediaLibrary* source = findServer(Wire::TextOf(req.source.UUID), &task->otherSide);
    if (source == nullptr) {
        return RESULT_UNKNOWN_DEVICE;
    }
    std::string folder = c.pApp->receiveFolder;
    bool rename = c.pApp->fRename;
    if (req.actionID != ACTION_DOWNLOAD_FILE) {
        const MediaLibrary* target = findServer(Wire::TextOf(req.destination.UUID), &task->otherSide);
        if (target == nullptr) {
            return RESULT_UNKNOWN_DEVICE;
        }
        const int32_t result = target->folderOf(Wire::TextOf(req.destinationFolder.objectID), folder);
        if (result != RESULT_OK) {
            return result;
        }
        rename = true;  // an upload never overwrites what the server holds
    } else if (folder.empty()) {
        return RESULT_NO_RECEIVE_FOLDER;
    }
    std::vector<FileCopy::Item> copies;
    const int32_t result = collectItems(*source, req.items, folder, copies);
    if (result != RESULT_OK) {
        return result;
    }
    task->fCopy = true;
    task->sender = c.id;
    task->receiver = c.id;
    task->senderRecord = recordFor(*c.pApp, c.id);
    task->receiverRecord = task->senderRecord;
    task->tag.byLocalAppID = static_cast<uint8_t>(c.pApp->record.nAppID);
    task->pCopy.reset(new FileCopy(std::move(copies), rename));
    const std::string what =
        std::to_string(task->pCopy->count()) + " item(s) from " + quoted(req.source.name) + " into " + folder;
    res.nTaskID = startTask(std::move(task));
    report(label(c.id) + ": copy task " + std::to_string(res.nTaskID) + " copies " + what);
    return RESULT_OK;
}

int32_t Service::onPlay(Client& c, const PlaySelectedFileReq& req, PlaySelectedFileRes&) {
    // Apps pass the two devices in either order: the renderer is the one of type DMR.
    const bool swapped = req.renderer.type != DLNA_DEVICE_DMR && req.server.type == DLNA_DEVICE_DMR;
    const DLNADevice& renderer = swapped ? req.server : req.renderer;
    const DLNADevice& serverRecord = swapped ? req.renderer : req.server;
    DLNADevice server;
    const MediaLibrary* library = findServer(Wire::TextOf(serverRecord.UUID), &server);
    if (Wire::TextOf(renderer.UUID) != kRendererUDN || library == nullptr) {
        return RESULT_UNKNOWN_DEVICE;
    }
    const int32_t index = req.nOption1;
    if (index < 0 || static_cast<size_t>(index) >= req.items.size()) {
        return RESULT_BAD_REQUEST;
    }
    std::vector<FileCopy::Item> files;
    const int32_t result = collectItems(*library, req.items, std::string(), files);
    if (result != RESULT_OK) {
        return result;
    }
    const std::string& path = files[static_cast<size_t>(index)].source;
    m_renderer.state = Renderer::PLAYING;
    m_renderer.title = path.substr(path.rfind('/') + 1);
    report(label(c.id) + ": renderer plays item " + std::to_string(index + 1) + " of " +
           std::to_string(req.items.size()) + ", " + quoted(m_renderer.title.data(), m_renderer.title.size()) + " (" +
           path + ") from " + quoted(server.name) + ", option " +
           std::to_string(req.nOption2));
    return RESULT_OK;
}

int32_t Service::onPlayCtrl(Client& c, const FilePlayCtrlReq& req, FilePlayCtrlRes&) {
    if (Wire::TextOf(req.renderer.UUID) != kRendererUDN) {
        return RESULT_UNKNOWN_DEVICE;
    }
    if (req.actionID == ACTION_STOP_PLAYING_FILE) {
        m_renderer.state = Renderer::STOPPED;
    } else {
        const bool pause = req.actionID == ACTION_PAUSE_PLAYING_FILE;
        if (m_renderer.state != (pause ? Renderer::PLAYING : Renderer::PAUSED)) {
            return RESULT_NOT_PLAYING;
        }
        m_renderer.state = pause ? Renderer::PAUSED : Renderer::PLAYING;
    }
    report(label(c.id) + ": renderer " + kRendererStates[m_renderer.state] + " (" +
           quoted(m_renderer.title.data(), m_renderer.title.size()) + ")");
    return RESULT_OK;
}

int32_t Service::onContentCache(Client& c, const ContentListCacheCtrlReq& req, ContentListCacheCtrlRes&) {
    DLNADevice server;
    if (findServer(Wire::TextOf(req.server.UUID), &server) == nullptr) {
        return RESULT_UNKNOWN_DEVICE;
    }
    const bool enable = req.actionID == ACTION_ENABLE_CONTENT_LIST_CACHE;
    report(label(c.id) + ": content list cache of " + quoted(server.name) + (enable ? " enabled" : " disabled"));
    return RESULT_OK;
}

int32_t Service::onDMSCtrl(Client& c, const DMSCtrlReq& req, DMSCtrlRes&) {
    App& app = *c.pApp;
    const bool start = req.actionID == ACTION_START_DMS;
    if (app.fServerRunning != start) {
        app.fServerRunning = start;
        announceDevice(app.serverDevice, start ? DEVICE_APPEARED : DEVICE_LEFT, c.id);
        report(label(c.id) + ": media server " + quoted(app.serverDevice.name) + " " +
               (start ? "started, sharing " + (app.pServer->folder().empty() ? "nothing" : app.pServer->folder())
                      : std::string("stopped")));
    }
    return RESULT_OK;
}

int32_t Service::onSetShareFolder(Client& c, const SetShareFolderReq& req, SetShareFolderRes&) {
    const std::string folder = Wire::TextOf(req.szFolderPath);
    if (!allowed(folder) || !c.pApp->pServer->setFolder(folder)) {
        return RESULT_BAD_FOLDER;
    }
    report(label(c.id) + ": media server shares " + c.pApp->pServer->folder());
    return RESULT_OK;
}

int32_t Service::onUpdateShareFolder(Client& c, const UpdateShareFolderReq&, UpdateShareFolderRes&) {
    MediaLibrary& server = *c.pApp->pServer;
    // Content is read at each browse, so a rescan only checks that the folder is still there.
    const std::string folder = server.folder();
    return !folder.empty() && server.setFolder(folder) ? RESULT_OK : RESULT_BAD_FOLDER;
}

int32_t Service::onSetMyDMSName(Client& c, const SetMyDMSNameReq& req, SetMyDMSNameRes&) {
    if (req.szName[0] == '\0') {
        return RESULT_BAD_REQUEST;
    }
    Wire::CopyText(c.pApp->serverDevice.name, Wire::TextOf(req.szName).c_str());
    return RESULT_OK;
}

int32_t Service::onRescanNetwork(Client& c, const RescanNetworkReq& req, RescanNetworkRes&) {
    if (req.type != DLNA_DEVICE_DMS && req.type != DLNA_DEVICE_DMR && req.type != DLNA_DEVICE_ALL) {
        return RESULT_BAD_REQUEST;
    }
    if (c.pApp->fDeviceEvents) {
        pushDevices(c.id, req.type);
    }
    return RESULT_OK;
}

}  // namespace Emulator
}  // namespace PELK
