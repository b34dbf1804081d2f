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
                     PELK::DataTransferCallback callback, void* context);
    int sendUDPData(const char* data, unsigned int len, const char* ip, int appID, bool flag,
                    PELK::DataTransferCallback callback, void* context);
    int broadcast(const char* data, unsigned int len, const char* ip, bool flag);
    // A broadcast to "0.0.0.0".
    int sendUDPDataAll(const char* data, unsigned int len, bool flag);

    // The transfer ID on success, the negated agent code otherwise.
    int sendFile(const char* path, const char* ip, int appID, PELK::FileTransferCallback callback, void* context,
                 bool flag, int value);
    int sendFileList(const std::vector<std::string>& paths, const char* ip, int appID,
                     PELK::FileTransferCallback callback, void* context, bool flag, int value);
    int pauseSend(unsigned long id);
    // Asks the agent to pause, not to resume: deliberate, see the definition.
    int resumeSend(unsigned long id);
    int cancelSend(unsigned long id);
    int cancelReceive(unsigned long id);
    int deleteSendFileCallback(unsigned long id);

    // folder is cut to 259 characters, a null folder reads as empty.
    int setReceiveOption(const char* folder, PELK::ReceiveDataCallback dataCallback, void* dataContext,
                         PELK::FileTransferCallback fileCallback, void* fileContext, bool flag, int value);
    int setReceiveOption(const PELK::ReceiveOption* option);
    int getReceiveOption(PELK::ReceiveOption* option);
    int getLocalNetworkInfo(PELK::LocalNetworkDevice* device);

    int searchInteractionApp(std::vector<PELK::InteractionApp>* apps);
    int getInteractionAppList(std::vector<PELK::InteractionApp>* apps);

    int startDMS();
    int stopDMS();
    int setMyDMSName(const char* name);
    int setShareFolder(const char* path);
    int rescanShareFolder();
    // 0, 1 and 2 pass; any other kind asks for 2 (all devices).
    int rescanNetwork(int kind);

    int searchDMS(std::vector<PELK::DLNADevice>* devices);
    int searchDMR(std::vector<PELK::DLNADevice>* devices);
    int getFileList(const PELK::DLNADevice* server, std::vector<PELK::FileInfo>* items);
    int getFileList(const PELK::DLNADevice* server, const PELK::FileInfo* folder, std::vector<PELK::FileInfo>* items);
    int getParentFileList(const PELK::DLNADevice* server, const PELK::FileInfo* item,
                          std::vector<PELK::FileInfo>* items);
    int getParentDirectoryInfo(const PELK::FileInfo* item, PELK::FileInfo* parent);
    // Download from server; upload from source into target's folder.
    int copyFileList(const PELK::DLNADevice* server, const std::vector<PELK::FileInfo>* files,
                     PELK::FileTransferCallback callback, int* taskId);
    int copyFileList(const PELK::DLNADevice* source, const PELK::DLNADevice* target,
                     const std::vector<PELK::FileInfo>* files, const PELK::FileInfo* targetFolder,
                     PELK::FileTransferCallback callback, int* taskId);
    int stopCopyTransfer(int taskId);
    // Arguments go to the agent in this order, with the agent's last integer 0.
    int playSelectedFile(int index, const PELK::DLNADevice* server, const std::vector<PELK::FileInfo>* files,
                         const PELK::DLNADevice* renderer, PELK::Agent::PlayNotifyCallback callback,
                         const void* context);
    int stopCurPlayingFile(const PELK::DLNADevice* renderer);
    int pauseCurPlayingFile(const PELK::DLNADevice* renderer);
    int resumeCurPlayingFile(const PELK::DLNADevice* renderer);
    int enableContentListCache(const PELK::DLNADevice* server);
    int disableContentListCache(const PELK::DLNADevice* server);

private:
    ActionAgentWrapper();
    ActionAgentWrapper(const ActionAgentWrapper&) = delete;
    ActionAgentWrapper& operator=(const ActionAgentWrapper&) = delete;

    PELK::Agent::ActionAgent* m_pActionAgent;
};

#endif  // PELK_JNI_ACTIONAGENTWRAPPER_H
