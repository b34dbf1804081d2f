// The facade through which the JNI entry points reach the process's ActionAgent: each method
// turns the loose values that arrive from Java (an address and an app ID, a folder and callback
// pointers) into the records that the agent wants, calls one agent operation, logs the outcome
// and returns the agent's code (sendFile and sendFileList return the task ID or the negated code).
//
// Threads: any Java thread may call any method; the agent serialises the requests. The callbacks
// handed over are called later on the agent's threads. Holds nothing but the agent's pointer
// (the agent is a singleton of its own and is not owned here).
#ifndef PELK_JNI_ACTIONAGENTWRAPPER_H
#define PELK_JNI_ACTIONAGENTWRAPPER_H

#include <string>
#include <vector>

#include "ActionAgent.h"
#include "ActionManager/Struct.h"
#include "PELKExport.h"

class PELK_EXPORT ActionAgentWrapper {
public:
    // The process's facade, made on first use (which also makes the agent); destroyed at exit.
    static ActionAgentWrapper* getInstance();
    virtual ~ActionAgentWrapper();

    // Registers with no user pointer; a null deviceCallback asks for no device events.
    int registerApp(const char* name, int appID, PELK::Agent::InterAppChangeCallback appCallback,
                    PELK::Agent::DLNADeviceChangeCallback deviceCallback);
    int unregisterApp();

    // The target app is (ip, appID); ip is cut to 15 characters, a null ip reads as empty.
    int sendData(const char* data, unsigned int len, const char* ip, int appID, bool flag, int timeOut);
    int asynSendData(const char* data, unsigned int len, const char* ip, int appID, bool flag,
                     DataTransferCallback callback, void* context);
    int sendUDPData(const char* data, unsigned int len, const char* ip, int appID, bool flag,
                    DataTransferCallback callback, void* context);
    int broadcast(const char* data, unsigned int len, const char* ip, bool flag);
    // A broadcast to "0.0.0.0".
    int sendUDPDataAll(const char* data, unsigned int len, bool flag);

    // The transfer ID on success, the negated agent code otherwise.
    int sendFile(const char* path, const char* ip, int appID, FileTransferCallback callback, void* context,
                 bool flag, int value);
    int sendFileList(const std::vector<std::string>& paths, const char* ip, int appID, FileTransferCallback callback,
                     void* context, bool flag, int value);
    int pauseSend(unsigned long id);
    // Asks the agent to pause, not to resume: deliberate, see the definition.
    int resumeSend(unsigned long id);
    int cancelSend(unsigned long id);
    int cancelReceive(unsigned long id);
    int deleteSendFileCallback(unsigned long id);

    // folder is cut to 259 characters, a null folder reads as empty.
    int setReceiveOption(const char* folder, ReceiveDataCallback dataCallback, void* dataContext,
                         FileTransferCallback fileCallback, void* fileContext, bool flag, int value);
    int setReceiveOption(const ReceiveOption* option);
    int getReceiveOption(ReceiveOption* option);
    int getLocalNetworkInfo(LocalNetworkDevice* device);

    int searchInteractionApp(std::vector<InteractionApp>* apps);
    int getInteractionAppList(std::vector<InteractionApp>* apps);

    int startDMS();
    int stopDMS();
    int setMyDMSName(const char* name);
    int setShareFolder(const char* path);
    int rescanShareFolder();
    // 0, 1 and 2 pass; any other kind asks for 2 (all devices).
    int rescanNetwork(int kind);

    int searchDMS(std::vector<DLNADevice>* devices);
    int searchDMR(std::vector<DLNADevice>* devices);
    int getFileList(const DLNADevice* server, std::vector<FileInfo>* items);
    int getFileList(const DLNADevice* server, const FileInfo* folder, std::vector<FileInfo>* items);
    int getParentFileList(const DLNADevice* server, const FileInfo* item, std::vector<FileInfo>* items);
    int getParentDirectoryInfo(const FileInfo* item, FileInfo* parent);
    // Download from server; upload from source into target's folder.
    int copyFileList(const DLNADevice* server, const std::vector<FileInfo>* files, FileTransferCallback callback,
                     int* taskId);
    int copyFileList(const DLNADevice* source, const DLNADevice* target, const std::vector<FileInfo>* files,
                     const FileInfo* targetFolder, FileTransferCallback callback, int* taskId);
    int stopCopyTransfer(int taskId);
    // Arguments go to the agent in this order, with the agent's last integer 0.
    int playSelectedFile(int index, const DLNADevice* server, const std::vector<FileInfo>* files,
                         const DLNADevice* renderer, PELK::Agent::PlayNotifyCallback callback, const void* context);
    int stopCurPlayingFile(const DLNADevice* renderer);
    int pauseCurPlayingFile(const DLNADevice* renderer);
    int resumeCurPlayingFile(const DLNADevice* renderer);
    int enableContentListCache(const DLNADevice* server);
    int disableContentListCache(const DLNADevice* server);

private:
    ActionAgentWrapper();
    ActionAgentWrapper(const ActionAgentWrapper&) = delete;
    ActionAgentWrapper& operator=(const ActionAgentWrapper&) = delete;

    PELK::Agent::ActionAgent* m_pActionAgent;
};

#endif  // PELK_JNI_ACTIONAGENTWRAPPER_H
