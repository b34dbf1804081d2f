// The service's file side: receive options, file sends between apps, and the task machinery
// that runs sends and media copies chunk by chunk with their progress events.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "Paths.h"
#include "Service.h"
#include "ServiceCodes.h"

namespace PELK {
namespace Emulator {

namespace {

// A transfer held back by an app that reads its events slowly tries again this much later.
constexpr int kBacklogRetryMs = 5;
// Progress events per second when a rate is set.
constexpr uint64_t kStepsPerSecond = 20;

template <class Event>
void fillHead(Event& event, int32_t taskID, const FileCopy& copy, int32_t eventType, int32_t status,
              const std::string& fileName) {
    event.nStatus = status;
    event.ullCurrentSize = copy.done();
    event.ullTotalSize = copy.current().size;
    event.ullListTotalSize = copy.listTotal();
    event.nEventType = eventType;
    event.nTaskID = taskID;
    event.nCurrentCount = static_cast<int32_t>(copy.index() + 1);
    event.nTotalCount = static_cast<int32_t>(copy.count());
    Wire::CopyText(event.strFileName, fileName.c_str());
}

// Where the current file's copy goes (or went): its path once opened, else the planned one.
std::string destinationOf(const FileCopy& copy) {
    if (!copy.destination().empty()) {
        return copy.destination();
    }
    const std::string& source = copy.current().source;
    return copy.current().folder + source.substr(source.rfind('/'));
}

bool readableFile(const std::string& path, uint64_t& size) {
    struct stat info = {};
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || access(path.c_str(), R_OK) != 0) {
        return false;
    }
    size = static_cast<uint64_t>(info.st_size);
    return true;
}

}  // namespace

bool Service::allowed(const std::string& path) const {
    if (m_config.fileRoot.empty()) {
        return true;
    }
    const std::string resolved = realPath(path);
    return !resolved.empty() && isInside(resolved, realPath(m_config.fileRoot));
}

int32_t Service::onSetReceiveOption(Client& c, const SetReceiveOptionReq& req, SetReceiveOptionRes&) {
    const std::string folder = realPath(Wire::TextOf(req.directory));
    struct stat info = {};
    if (folder.empty() || !allowed(folder) || stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) ||
        access(folder.c_str(), W_OK | X_OK) != 0) {
        return RESULT_BAD_FOLDER;
    }
    App& app = *c.pApp;
    app.receiveFolder = folder;
    app.fRename = req.rename;
    app.nPercent = std::min(std::max(req.percent, 1), 100);
    report(label(c.id) + ": receives files into " + folder);
    return RESULT_OK;
}

int32_t Service::onSendFile(Client& c, const SendFileReq& req, SendFileRes& res) {
    if (req.files.empty()) {
        return RESULT_BAD_REQUEST;
    }
    const Client* target = findApp(req.app);
    if (target == nullptr) {
        return RESULT_UNKNOWN_TARGET;
    }
    if (target->pApp->receiveFolder.empty()) {
        return RESULT_NO_RECEIVE_FOLDER;
    }
    std::vector<FileCopy::Item> items;
    for (const FilePath& file : req.files) {
        FileCopy::Item item;
        item.source = realPath(Wire::TextOf(file.szPath));
        item.folder = target->pApp->receiveFolder;
        if (item.source.empty() || !allowed(item.source) || !readableFile(item.source, item.size)) {
            return RESULT_MISSING_FILE;
        }
        items.push_back(item);
    }
    std::unique_ptr<Task> task(new Task);
    task->sender = c.id;
    task->receiver = target->id;
    task->senderRecord = recordFor(*c.pApp, target->id);
    task->receiverRecord = recordFor(*target->pApp, c.id);
    task->tag = req.sendTag;
    task->pCopy.reset(new FileCopy(std::move(items), target->pApp->fRename));
    const std::string what = std::to_string(task->pCopy->count()) + " file(s), " +
                             std::to_string(task->pCopy->listTotal()) + " bytes, to " + label(target->id);
    res.nTaskID = startTask(std::move(task));
    report(label(c.id) + ": task " + std::to_string(res.nTaskID) + " sends " + what);
    return RESULT_OK;
}

int32_t Service::onTransferCtrl(Client& c, const FileTransferCtrlReq& req, FileTransferCtrlRes& res) {
    res.nTaskID = req.nTaskID;
    const auto found = m_tasks.find(req.nTaskID);
    if (found == m_tasks.end() || found->second->fCopy) {
        return RESULT_UNKNOWN_TASK;
    }
    Task& task = *found->second;
    // The sender pauses, resumes and cancels its send; the receiver cancels its receive.
    if ((req.actionID == ACTION_CANCEL_RECEIVE ? task.receiver : task.sender) != c.id) {
        return RESULT_UNKNOWN_TASK;
    }
    if (req.actionID == ACTION_PAUSE_SEND || req.actionID == ACTION_RESUME_SEND) {
        const bool pause = req.actionID == ACTION_PAUSE_SEND;
        if (task.fPaused != pause) {
            task.fPaused = pause;
            task.nNextStepMs = m_host.nowMs();
            notify(task, pause ? FILE_EVENT_PAUSED : FILE_EVENT_RESUMED, RESULT_OK);
        }
        return RESULT_OK;
    }
    task.pCopy->abandon();
    notify(task, FILE_EVENT_CANCELLED, RESULT_OK);
    report(label(c.id) + ": task " + std::to_string(task.nTaskID) + " cancelled");
    endTask(task.nTaskID);
    return RESULT_OK;
}

int32_t Service::onStopCopy(Client& c, const CopyTransferCtrlReq& req, CopyTransferCtrlRes&) {
    const auto found = m_tasks.find(req.nTaskID);
    if (found == m_tasks.end() || !found->second->fCopy || found->second->sender != c.id) {
        return RESULT_UNKNOWN_TASK;
    }
    found->second->pCopy->abandon();
    notify(*found->second, FILE_EVENT_CANCELLED, RESULT_OK);
    report(label(c.id) + ": copy task " + std::to_string(req.nTaskID) + " stopped");
    endTask(req.nTaskID);
    return RESULT_OK;
}

int32_t Service::startTask(std::unique_ptr<Task> task) {
    m_nLastTaskID = m_nLastTaskID == INT32_MAX ? 1 : m_nLastTaskID + 1;
    task->nTaskID = m_nLastTaskID;
    task->nNextStepMs = m_host.nowMs() + kFollowUpDelayMs;
    const int32_t taskID = task->nTaskID;
    m_tasks[taskID] = std::move(task);
    return taskID;
}

size_t Service::chunkBytes() const {
    if (m_config.nRateBytesPerSecond == 0) {
        return kChunkBytes;
    }
    const uint64_t perStep = m_config.nRateBytesPerSecond / kStepsPerSecond;
    return static_cast<size_t>(std::min<uint64_t>(std::max<uint64_t>(perStep, 1), kChunkBytes));
}

void Service::stepTask(Task& task, int64_t now) {
    if (m_host.backlog(task.sender) >= kBacklogLimit || m_host.backlog(task.receiver) >= kBacklogLimit) {
        task.nNextStepMs = now + kBacklogRetryMs;
        return;
    }
    const size_t chunk = chunkBytes();
    const FileCopy::Step step = task.pCopy->step(chunk);
    if (step == FileCopy::STEP_FAILED) {
        notify(task, FILE_EVENT_FAILED, task.pCopy->failure());
        report("task " + std::to_string(task.nTaskID) + " failed: " + std::to_string(task.pCopy->failure()) + " (" +
               describeServiceResult(task.pCopy->failure()) + ")");
        endTask(task.nTaskID);
        return;
    }
    notify(task, step == FileCopy::STEP_PROGRESS ? FILE_EVENT_PROGRESS : FILE_EVENT_FILE_DONE, RESULT_OK);
    if (task.pCopy->finished()) {
        notify(task, FILE_EVENT_LIST_DONE, RESULT_OK);
        report("task " + std::to_string(task.nTaskID) + " done: " + std::to_string(task.pCopy->listTotal()) + " bytes");
        endTask(task.nTaskID);
        return;
    }
    const uint64_t rate = m_config.nRateBytesPerSecond;
    task.nNextStepMs = rate == 0 ? now : now + static_cast<int64_t>(std::max<uint64_t>(chunk * 1000 / rate, 1));
}

void Service::notify(Task& task, int32_t eventType, int32_t status, ClientId only) {
    const FileCopy& copy = *task.pCopy;
    if (task.fCopy) {
        DMFileCopyRes event;
        fillHead(event, task.nTaskID, copy, eventType, status, destinationOf(copy));
        event.sendTag = task.tag;
        event.otherSide = task.otherSide;
        push(task.sender, event);
        return;
    }
    if (only == 0 || only == task.sender) {
        SendFileStatusRes sent;
        fillHead(sent, task.nTaskID, copy, eventType, status, copy.current().source);
        sent.receiver = task.receiverRecord;
        sent.sendTag = task.tag;
        push(task.sender, sent);
    }
    if (only != 0 && only != task.receiver) {
        return;
    }
    // The receiver hears of progress in steps of its receive option's percent.
    if (eventType == FILE_EVENT_PROGRESS) {
        const uint64_t size = copy.current().size;
        const int32_t percent = static_cast<int32_t>(size == 0 ? 100 : copy.done() * 100 / size);
        const auto found = m_clients.find(task.receiver);
        const int32_t step = found != m_clients.end() && found->second.pApp ? found->second.pApp->nPercent : 1;
        if (percent < task.nReportedPercent + step) {
            return;
        }
        task.nReportedPercent = percent;
    } else if (eventType == FILE_EVENT_FILE_DONE) {
        task.nReportedPercent = -1;
    }
    ReceiveFileRes received;
    fillHead(received, task.nTaskID, copy, eventType, status, destinationOf(copy));
    received.sendTag = task.tag;
    received.sender = task.senderRecord;
    push(task.receiver, received);
}

void Service::endTask(int32_t taskID) {
    m_tasks.erase(taskID);  // FileCopy removes a file left unfinished
}

// The app of client leaves: its transfers end, and the app on the other side is told.
void Service::failTasksOf(ClientId client) {
    std::vector<int32_t> ended;
    for (const auto& entry : m_tasks) {
        if (entry.second->sender == client || entry.second->receiver == client) {
            ended.push_back(entry.first);
        }
    }
    for (int32_t taskID : ended) {
        Task& task = *m_tasks[taskID];
        task.pCopy->abandon();
        const ClientId other = task.sender == client ? task.receiver : task.sender;
        if (other != client) {
            notify(task, FILE_EVENT_FAILED, RESULT_UNKNOWN_TARGET, other);
        }
        report("task " + std::to_string(taskID) + " ended: " + label(client) + " left");
        endTask(taskID);
    }
}

void Service::shutdown() {
    if (!m_tasks.empty()) {
        report("stopping " + std::to_string(m_tasks.size()) + " transfer(s)");
    }
    m_tasks.clear();
}

}  // namespace Emulator
}  // namespace PELK
