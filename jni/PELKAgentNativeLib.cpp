// The native methods of com.quorvik.kolt.pelk.agent.PELKAgentNativeLib and the library's load and
// unload hooks: the Java bridge's entry points (see Bridge.h for its threads and ownership).
#include <jni.h>
#include <pthread.h>

#include <string>
#include <vector>

#include "ActionAgent.h"
#include "ActionAgentWrapper.h"
#include "Bridge.h"

using namespace PELK::Bridge;
using PELK::DLNADevice;
using PELK::FileInfo;
using PELK::InteractionApp;
using PELK::ReceiveOption;

namespace {

// ---------------------------------------------------------------------------------------------
// Helpers of the native methods.

ActionAgentWrapper* facade() { return ActionAgentWrapper::getInstance(); }

// A Java byte array pinned (or copied, as the VM chooses) for one facade call and released with
// mode 0 afterwards, whatever the call did.
class PinnedBytes {
public:
    PinnedBytes(JNIEnv* env, jbyteArray array) : m_env(env), m_array(array) {
        if (array == nullptr) {
            return;
        }
        m_size = static_cast<unsigned int>(env->GetArrayLength(array));
        m_bytes = env->GetByteArrayElements(array, nullptr);
        if (m_bytes == nullptr) {
            clearException(env);
        }
    }
    ~PinnedBytes() {
        if (m_bytes != nullptr) {
            m_env->ReleaseByteArrayElements(m_array, m_bytes, 0);
        }
    }
    PinnedBytes(const PinnedBytes&) = delete;
    PinnedBytes& operator=(const PinnedBytes&) = delete;

    const char* data() const { return reinterpret_cast<const char*>(m_bytes); }
    // The caller's length, but never past the end of the array. A negative length is passed on
    // as it is, for the agent to refuse.
    unsigned int length(jint requested) const {
        const unsigned int asked = static_cast<unsigned int>(requested);
        return m_bytes != nullptr && requested >= 0 && asked > m_size ? m_size : asked;
    }
    void log(const char* function, unsigned int length) const {
        const unsigned int shown = length < m_size ? length : m_size;
        BRIDGE_LOG(ZT_LOG_DEBUG, function, "%s: buf: %.*s!", function,
                   m_bytes != nullptr ? static_cast<int>(shown) : 0, m_bytes != nullptr ? data() : "");
    }

private:
    JNIEnv* m_env;
    jbyteArray m_array;
    jbyte* m_bytes = nullptr;
    unsigned int m_size = 0;
};

// Pins the bytes (logging them when asked), converts the address and hands both to send; -1
// when the address cannot be converted.
template <class Send>
jint sendBytes(JNIEnv* env, jbyteArray data, jint length, jstring jip, bool logBytes, const char* function, Send send) {
    const PinnedBytes bytes(env, data);
    const unsigned int len = bytes.length(length);
    if (logBytes) {
        bytes.log(function, len);
    }
    std::string ip;
    if (!jstringToString(env, jip, ip)) {
        BRIDGE_LOG(ZT_LOG_WARNING, function, "%s: jstringToString failure!", function);
        return kConversionFailed;
    }
    return send(bytes.data(), len, ip.c_str());
}

// asynSendData and sendUDPData. The first listener ever given is kept for all later sends,
// whatever listener those name; a send without a listener asks for no status.
jint sendWithListener(JNIEnv* env, jbyteArray data, jint length, jstring jip, jint appID, jboolean flag,
                      jobject listener,
                      int (ActionAgentWrapper::*send)(const char*, unsigned int, const char*, int, bool,
                                                      PELK::DataTransferCallback, void*),
                      const char* function) {
    if (env == nullptr) {
        return kNullArgument;
    }
    if (listener != nullptr &&
        holdListener(env, listener, kSendDataListener, Keep::FirstPair, kConversionFailed, function) != 0) {
        return kConversionFailed;
    }
    return sendBytes(env, data, length, jip, true, function, [&](const char* bytes, unsigned int len, const char* ip) {
        return (facade()->*send)(bytes, len, ip, appID, flag == JNI_TRUE, listener != nullptr ? OnDataSend : nullptr,
                                 nullptr);
    });
}

// The texts of a Java String[]; elements that cannot be converted are left out, and a null
// array reads as no texts.
std::vector<std::string> stringsOf(JNIEnv* env, jobjectArray array) {
    std::vector<std::string> texts;
    const jsize count = array == nullptr ? 0 : env->GetArrayLength(array);
    for (jsize i = 0; i < count; ++i) {
        LocalRef<jstring> element(env, static_cast<jstring>(env->GetObjectArrayElement(array, i)));
        std::string text;
        if (jstringToString(env, element.get(), text)) {
            texts.push_back(text);
        }
    }
    return texts;
}

// The two steps of a list reply: the facade's call and the array builder, each logged as
// "Failed to <what>[%d]!" or "Success to <what>!".
struct ListWords {
    const char* query;
    const char* build;
};

template <class Record>
jobjectArray javaArray(JNIEnv* env, int nReturn, const std::vector<Record>& records, const ListWords& words,
                       int (*build)(JNIEnv*, const std::vector<Record>&, jobjectArray&), const char* function) {
    if (nReturn != 0) {
        BRIDGE_LOG(ZT_LOG_WARNING, function, "Failed to %s[%d]!", words.query, nReturn);
        return nullptr;
    }
    BRIDGE_LOG(ZT_LOG_INFO, function, "Success to %s!", words.query);
    jobjectArray array = nullptr;
    const int code = build(env, records, array);
    if (code != 0) {
        BRIDGE_LOG(ZT_LOG_WARNING, function, "Failed to %s[%d]!", words.build, code);
        return nullptr;
    }
    BRIDGE_LOG(ZT_LOG_INFO, function, "Success to %s!", words.build);
    return array;
}

// The app lists come back as arrays even when empty.
jobjectArray appArray(JNIEnv* env, int (ActionAgentWrapper::*query)(std::vector<InteractionApp>*), const char* method,
                      const char* function) {
    if (env == nullptr) {
        return nullptr;
    }
    std::vector<InteractionApp> apps;
    const int nReturn = (facade()->*query)(&apps);
    if (nReturn != 0) {
        BRIDGE_LOG(ZT_LOG_WARNING, function, "Failed to get appList[%d]!", nReturn);
        return nullptr;
    }
    BRIDGE_LOG(ZT_LOG_INFO, function, "Success to get appList!");
    BRIDGE_LOG(ZT_LOG_INFO, function, "%s contains %d apps!", method, static_cast<int>(apps.size()));
    LocalRef<jclass> cls(env, localCopy(env, g_jcInteractionApp));
    LocalRef<jobjectArray> array(
        env, cls ? env->NewObjectArray(static_cast<jsize>(apps.size()), cls.get(), nullptr) : nullptr);
    if (!array) {
        clearException(env);
        return nullptr;
    }
    for (size_t i = 0; i < apps.size(); ++i) {
        LocalRef<jobject> app(env, makeInteractionApp(env, &apps[i]));
        if (!app) {
            return nullptr;
        }
        env->SetObjectArrayElement(array.get(), static_cast<jsize>(i), app.get());
    }
    return array.release();
}

// The renderer and cache controls: one device in, the facade's code out.
jint deviceOperation(JNIEnv* env, jobject jdevice, int (ActionAgentWrapper::*operation)(const DLNADevice*),
                     const char* method, const char* function) {
    BRIDGE_LOG(ZT_LOG_INFO, function, "enter function %s!", method);
    if (env == nullptr || jdevice == nullptr) {
        BRIDGE_LOG(ZT_LOG_WARNING, function, "%s --> (NULL == jenv) || (NULL == jdevice)!", method);
        return kNullArgument;
    }
    DLNADevice device;
    const int code = getDLNADevice(env, jdevice, device);
    if (code != 0) {
        BRIDGE_LOG(ZT_LOG_WARNING, function, "Failed to getDLNADevice[%d]!", code);
        return code;
    }
    BRIDGE_LOG(ZT_LOG_INFO, function, "Success to getDLNADevice!");
    const int nReturn = (facade()->*operation)(&device);
    if (nReturn != 0) {
        BRIDGE_LOG(ZT_LOG_WARNING, function, "Failed to %s[%d]!", method, nReturn);
    } else {
        BRIDGE_LOG(ZT_LOG_INFO, function, "Success to %s!", method);
    }
    return nReturn;
}

// A listing of a server's content: the server (and the item, when one is asked for) read from
// Java, the facade asked, the items handed back as an array; null on any failure.
template <class Ask>
jobjectArray contentList(JNIEnv* env, jobject jdevice, const jobject* jitem, const char* method, const char* nullLine,
                         Ask ask, const char* function) {
    BRIDGE_LOG(ZT_LOG_INFO, function, "enter function %s!", method);
    if (env == nullptr || jdevice == nullptr || (jitem != nullptr && *jitem == nullptr)) {
        BRIDGE_LOG(ZT_LOG_WARNING, function, "%s", nullLine);
        return nullptr;
    }
    DLNADevice server;
    FileInfo item;
    if (getDLNADevice(env, jdevice, server) != 0) {
        BRIDGE_LOG(ZT_LOG_WARNING, function, "get device from jobject failed!");
        return nullptr;
    }
    if (jitem != nullptr && getFileInfo(env, *jitem, item) != 0) {
        BRIDGE_LOG(ZT_LOG_WARNING, function, "get fileInfo from jobject failed!");
        return nullptr;
    }
    std::vector<FileInfo> items;
    const int nReturn = ask(server, item, items);
    return javaArray(env, nReturn, items, {method, "setFileList"}, setFileList, function);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Library load and unload.

extern "C" JNIEXPORT jint JNICALL JNI_OnLoad(JavaVM* vm, void*) {
    LOG_INFO("JNI_OnLoad: JNI_OnLoad!");
    if (vm == nullptr) {
        LOG_WARN("jvm == NULL");
        return -1;
    }
    g_jvm.store(vm);
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), kJniVersion) != JNI_OK) {
        return -1;
    }
    createDataTransferEvent(env);
    createFileTransferEvent(env);
    createInteractionApp(env);
    // Device change events need the device class too, and agent threads cannot look it up.
    createDLNADevice(env);
    if (!g_attachedThreadKeyMade.load() && pthread_key_create(&g_attachedThreadKey, detachAtThreadEnd) == 0) {
        g_attachedThreadKeyMade.store(true);
    }
    LOG_INFO("JNI_OnLoad: Successful!");
    return kJniVersion;
}

// The app-list, device and copy listeners are left to the VM's own teardown, as they always were.
extern "C" JNIEXPORT void JNICALL JNI_OnUnload(JavaVM* vm, void*) {
    LOG_INFO("JNI_OnUnload: JNI_OnUnload");
    // A thread ending after the library is gone must not run a destructor of it. Threads still
    // attached then stay so until the VM ends.
    if (g_attachedThreadKeyMade.exchange(false)) {
        pthread_key_delete(g_attachedThreadKey);
    }
    JNIEnv* env = nullptr;
    if (vm == nullptr || vm->GetEnv(reinterpret_cast<void**>(&env), kJniVersion) != JNI_OK) {
        return;
    }
    releaseGlobal(env, g_receiveCallbackClass);
    releaseGlobal(env, g_receiveCallbackObject);
    releaseGlobal(env, g_sendFileCallbackClass);
    releaseGlobal(env, g_sendFileCallbackObject);
    releaseGlobal(env, g_sendFileListCallbackClass);
    releaseGlobal(env, g_sendFileListCallbackObject);
    releaseGlobal(env, g_sendDataCallbackClass);
    releaseGlobal(env, g_sendDataCallbackObject);
    destroyDataTransferEvent(env);
    destroyFileTransferEvent(env);
    destroyInteractionApp(env);
    destroyDLNADevice(env);
}

// ---------------------------------------------------------------------------------------------
// Native methods of com.quorvik.kolt.pelk.agent.PELKAgentNativeLib (all static).

#define PELK_NATIVE(method) Java_com_quorvik_kolt_pelk_agent_PELKAgentNativeLib_##method

extern "C" {

JNIEXPORT jint JNICALL PELK_NATIVE(registerApp)(JNIEnv* env, jclass, jstring jAppName, jint appID, jobject appListener,
                                                jobject deviceListener) {
    if (env == nullptr) {
        return kNullArgument;
    }
    std::string appName;
    if (!jstringToString(env, jAppName, appName)) {
        LOG_WARN("Cannot convert appName!");
        return kConversionFailed;
    }
    if (holdListener(env, appListener, kInterAppListener, Keep::Latest, kConversionFailed, __func__) != 0) {
        return kConversionFailed;
    }
    if (deviceListener == nullptr) {
        return facade()->registerApp(appName.c_str(), appID, OnInterAppChange, nullptr);
    }
    if (holdListener(env, deviceListener, kDeviceListener, Keep::Latest, kNullArgument, __func__) != 0) {
        return kNullArgument;
    }
    return facade()->registerApp(appName.c_str(), appID, OnInterAppChange, OnDeviceChange);
}

// The listeners stay held for a later registration.
JNIEXPORT jint JNICALL PELK_NATIVE(unRegisterApp)(JNIEnv*, jclass) { return facade()->unregisterApp(); }

JNIEXPORT jint JNICALL PELK_NATIVE(getAppID)(JNIEnv*, jclass) {
    return PELK::Agent::ActionAgent::getInstance()->getAppID();
}

JNIEXPORT jobjectArray JNICALL PELK_NATIVE(searchInteractionApp)(JNIEnv* env, jclass) {
    return appArray(env, &ActionAgentWrapper::searchInteractionApp, "searchInteractionApp", __func__);
}

JNIEXPORT jobjectArray JNICALL PELK_NATIVE(getInteractionAppList)(JNIEnv* env, jclass) {
    return appArray(env, &ActionAgentWrapper::getInteractionAppList, "getInteractionAppList", __func__);
}

JNIEXPORT jint JNICALL PELK_NATIVE(refreshInteractionApp)(JNIEnv*, jclass, jboolean flag) {
    return PELK::Agent::ActionAgent::getInstance()->refreshInteractionApp(flag == JNI_TRUE);
}

JNIEXPORT jint JNICALL PELK_NATIVE(sendData)(JNIEnv* env, jclass, jbyteArray data, jint length, jstring jip, jint appID,
                                             jboolean flag, jint timeOut) {
    if (env == nullptr) {
        return kNullArgument;
    }
    return sendBytes(env, data, length, jip, true, __func__, [&](const char* bytes, unsigned int len, const char* ip) {
        return facade()->sendData(bytes, len, ip, appID, flag == JNI_TRUE, timeOut);
    });
}

JNIEXPORT jint JNICALL PELK_NATIVE(asynSendData)(JNIEnv* env, jclass, jbyteArray data, jint length, jstring jip,
                                                 jint appID, jboolean flag, jobject listener) {
    return sendWithListener(env, data, length, jip, appID, flag, listener, &ActionAgentWrapper::asynSendData, __func__);
}

JNIEXPORT jint JNICALL PELK_NATIVE(sendUDPData)(JNIEnv* env, jclass, jbyteArray data, jint length, jstring jip,
                                                jint appID, jboolean flag, jobject listener) {
    return sendWithListener(env, data, length, jip, appID, flag, listener, &ActionAgentWrapper::sendUDPData, __func__);
}

JNIEXPORT jint JNICALL PELK_NATIVE(sendUDPDataAll)(JNIEnv* env, jclass, jbyteArray data, jint length, jboolean flag) {
    if (env == nullptr) {
        return kNullArgument;
    }
    const PinnedBytes bytes(env, data);
    const unsigned int len = bytes.length(length);
    bytes.log(__func__, len);
    return facade()->sendUDPDataAll(bytes.data(), len, flag == JNI_TRUE);
}

JNIEXPORT jint JNICALL PELK_NATIVE(broadcast)(JNIEnv* env, jclass, jbyteArray data, jint length, jstring jip,
                                              jboolean flag) {
    if (env == nullptr) {
        return kNullArgument;
    }
    return sendBytes(env, data, length, jip, false, __func__, [&](const char* bytes, unsigned int len, const char* ip) {
        return facade()->broadcast(bytes, len, ip, flag == JNI_TRUE);
    });
}

// The transfer ID, or the negated code; 0 when a text cannot be converted.
JNIEXPORT jint JNICALL PELK_NATIVE(sendFile)(JNIEnv* env, jclass, jstring jpath, jstring jip, jobject listener,
                                             jint appID, jboolean flag, jint value) {
    if (env == nullptr) {
        return kNullArgument;
    }
    if (holdListener(env, listener, kSendFileListener, Keep::FirstPair, kConversionFailed, __func__) != 0) {
        return kConversionFailed;
    }
    std::string path;
    std::string ip;
    if (!jstringToString(env, jpath, path) || !jstringToString(env, jip, ip)) {
        LOG_WARN("%s: jstringToString failure!", __func__);
        return 0;
    }
    return facade()->sendFile(path.c_str(), ip.c_str(), appID, OnFileSend, nullptr, flag == JNI_TRUE, value);
}

JNIEXPORT jint JNICALL PELK_NATIVE(sendFileList)(JNIEnv* env, jclass, jobjectArray jpaths, jstring jip,
                                                 jobject listener, jint appID, jboolean flag, jint value) {
    if (env == nullptr) {
        return kNullArgument;
    }
    if (holdListener(env, listener, kSendFileListListener, Keep::FirstPair, kConversionFailed, __func__) != 0) {
        return kConversionFailed;
    }
    std::string ip;
    if (!jstringToString(env, jip, ip)) {
        LOG_WARN("%s: jstringToString failure!", __func__);
        return 0;
    }
    return facade()->sendFileList(stringsOf(env, jpaths), ip.c_str(), appID, OnFileSend, kSendFileListContext,
                                  flag == JNI_TRUE, value);
}

JNIEXPORT jint JNICALL PELK_NATIVE(pauseSend)(JNIEnv*, jclass, jint id) {
    return facade()->pauseSend(static_cast<unsigned long>(id));
}

JNIEXPORT jint JNICALL PELK_NATIVE(resumeSend)(JNIEnv*, jclass, jint id) {
    return facade()->resumeSend(static_cast<unsigned long>(id));
}

JNIEXPORT jint JNICALL PELK_NATIVE(cancelSend)(JNIEnv*, jclass, jint id) {
    return facade()->cancelSend(static_cast<unsigned long>(id));
}

JNIEXPORT jint JNICALL PELK_NATIVE(cancelReceive)(JNIEnv*, jclass, jint id) {
    return facade()->cancelReceive(static_cast<unsigned long>(id));
}

JNIEXPORT jint JNICALL PELK_NATIVE(deleteSendFileCallback)(JNIEnv*, jclass, jint id) {
    return facade()->deleteSendFileCallback(static_cast<unsigned long>(id));
}

JNIEXPORT jint JNICALL PELK_NATIVE(setReceiveOption)(JNIEnv* env, jclass, jstring jfolder, jobject listener) {
    if (env == nullptr) {
        return kNullArgument;
    }
    if (holdListener(env, listener, kReceiveListener, Keep::FirstEach, kConversionFailed, __func__) != 0) {
        return kConversionFailed;
    }
    std::string folder;
    if (!jstringToString(env, jfolder, folder)) {
        // The name of an older class, as the readers of this log know it; kept.
        LOG_WARN("Java_com_quorvik_hello_NativeLib_registerReceiver: jstringToString failure!");
        return kConversionFailed;
    }
    return facade()->setReceiveOption(folder.c_str(), OnDataReceive, nullptr, OnFileReceive, nullptr, true, 1);
}

// The option is sent without native receive callbacks: only setReceiveOption installs them.
JNIEXPORT jint JNICALL PELK_NATIVE(setReceiveOptionX)(JNIEnv* env, jclass, jobject joption, jobject listener) {
    if (env == nullptr) {
        return kNullArgument;
    }
    if (holdListener(env, listener, kReceiveListener, Keep::FirstEach, kConversionFailed, __func__) != 0) {
        return kConversionFailed;
    }
    ReceiveOption option;
    const int code = getReceiveOptionFromObject(env, joption, option);
    if (code != 0) {
        LOG_WARN("setReceiveOptionX: getReceiveOption failure!");
        return code;
    }
    return facade()->setReceiveOption(&option);
}

JNIEXPORT jint JNICALL PELK_NATIVE(getReceiveOption)(JNIEnv* env, jclass, jobject target) {
    if (env == nullptr) {
        return kNullArgument;
    }
    ReceiveOption option;
    int code = facade()->getReceiveOption(&option);
    if (code != 0) {
        LOG_WARN("getReceiveOption: getReceiveOption failure!");
        return code;
    }
    code = setReceiveOptionToObject(env, option, target);
    if (code != 0) {
        LOG_WARN("setReceiveOptionX: setReceiveOption failure!");
    }
    return code;
}

JNIEXPORT jint JNICALL PELK_NATIVE(startDMS)(JNIEnv*, jclass) {
    const int nReturn = facade()->startDMS();
    if (nReturn != 0) {
        LOG_WARN("Failed to startDMS[%d]!======", nReturn);
    } else {
        LOG_INFO("Success to startDMS!======");
    }
    return nReturn;
}

JNIEXPORT jint JNICALL PELK_NATIVE(stopDMS)(JNIEnv*, jclass) { return facade()->stopDMS(); }

JNIEXPORT jint JNICALL PELK_NATIVE(rescanShareFolder)(JNIEnv*, jclass) { return facade()->rescanShareFolder(); }

JNIEXPORT jint JNICALL PELK_NATIVE(setMyDMSName)(JNIEnv* env, jclass, jstring jname) {
    if (env == nullptr) {
        return kNullArgument;
    }
    std::string name;
    if (!jstringToString(env, jname, name)) {
        LOG_WARN("setMyDMSName: jstringToString failure!");
        return kConversionFailed;
    }
    return facade()->setMyDMSName(name.c_str());
}

JNIEXPORT jint JNICALL PELK_NATIVE(rescanNetwork)(JNIEnv*, jclass, jint kind) { return facade()->rescanNetwork(kind); }

JNIEXPORT jint JNICALL PELK_NATIVE(stopCopyTransfer)(JNIEnv*, jclass, jint taskID) {
    return facade()->stopCopyTransfer(taskID);
}

JNIEXPORT jobjectArray JNICALL PELK_NATIVE(searchDMS)(JNIEnv* env, jclass) {
    if (env == nullptr) {
        return nullptr;
    }
    std::vector<DLNADevice> devices;
    const int nReturn = facade()->searchDMS(&devices);
    return javaArray(env, nReturn, devices, {"GetDmsList", "setDmsList"}, setDLNADevice, __func__);
}

JNIEXPORT jobjectArray JNICALL PELK_NATIVE(searchDMR)(JNIEnv* env, jclass) {
    if (env == nullptr) {
        return nullptr;
    }
    std::vector<DLNADevice> devices;
    const int nReturn = facade()->searchDMR(&devices);
    return javaArray(env, nReturn, devices, {"get DMR list", "setDmrList"}, setDLNADevice, __func__);
}

JNIEXPORT jobjectArray JNICALL PELK_NATIVE(getRootFileList)(JNIEnv* env, jclass, jobject jdevice) {
    return contentList(
        env, jdevice, nullptr, "getRootFileList",
        "enter function getRootFileList! --> (NULL == jenv) || (NULL == jdevice)",
        [](const DLNADevice& server, const FileInfo&, std::vector<FileInfo>& items) {
            return facade()->getFileList(&server, &items);
        },
        __func__);
}

JNIEXPORT jobjectArray JNICALL PELK_NATIVE(getFileList)(JNIEnv* env, jclass, jobject jdevice, jobject jfileInfo) {
    return contentList(
        env, jdevice, &jfileInfo, "getFileList",
        "enter function getFileList! --> (NULL == jenv) || (NULL == jdevice) || (NULL == jfileInfo)",
        [](const DLNADevice& server, const FileInfo& folder, std::vector<FileInfo>& items) {
            return facade()->getFileList(&server, &folder, &items);
        },
        __func__);
}

JNIEXPORT jobjectArray JNICALL PELK_NATIVE(getParentFileList)(JNIEnv* env, jclass, jobject jdevice, jobject jFileInfo) {
    return contentList(
        env, jdevice, &jFileInfo, "getParentFileList",
        "enter function getParentFileList! --> (NULL == jenv) || (NULL == jdevice) || (NULL == jFileInfo)",
        [](const DLNADevice& server, const FileInfo& item, std::vector<FileInfo>& items) {
            return facade()->getParentFileList(&server, &item, &items);
        },
        __func__);
}

JNIEXPORT jint JNICALL PELK_NATIVE(getParentDirectoryInfo)(JNIEnv* env, jclass, jobject jFileInfo,
                                                           jobject jParentDirectoryInfo) {
    LOG_INFO("enter function getParentDirectoryInfo!");
    if (env == nullptr || jFileInfo == nullptr || jParentDirectoryInfo == nullptr) {
        LOG_WARN(
            "enter function getParentDirectoryInfo! --> (NULL == jenv) || (NULL == jFileInfo) || "
            "(NULL == jParentDirectoryInfo)");
        return kNullArgument;
    }
    FileInfo item;
    int code = getFileInfo(env, jFileInfo, item);
    if (code != 0) {
        LOG_WARN("get fileinfo from jobject failed:[%d]!", code);
        return code;
    }
    FileInfo parent;
    code = facade()->getParentDirectoryInfo(&item, &parent);
    if (code != 0) {
        LOG_WARN("Failed to getParentDirectoryInfo[%d]!", code);
        return code;
    }
    LOG_INFO("Success to getParentDirectoryInfo!");
    code = setFileInfo(env, parent, jParentDirectoryInfo);
    if (code != 0) {
        LOG_WARN("set fileinfo to jobject failed:[%d]!", code);
    }
    return code;
}

// The task ID on success, the agent's code otherwise (the two cannot be told apart by value).
// The latest copy listener receives the progress of every copy.
JNIEXPORT jint JNICALL PELK_NATIVE(downLoad)(JNIEnv* env, jclass, jobject jdevice, jobjectArray jFileListArray,
                                             jobject listener) {
    LOG_INFO("enter function downLoad!");
    if (env == nullptr || jdevice == nullptr || jFileListArray == nullptr || listener == nullptr) {
        LOG_WARN(
            "enter function downLoad! --> (NULL == jenv) || (NULL == jdevice) || (NULL == jFileListArray) || "
            "(NULL == jcallback)");
        return kNullArgument;
    }
    DLNADevice device;
    int code = getDLNADevice(env, jdevice, device);
    if (code != 0) {
        LOG_WARN("get DLNADevice from jobject failed!");
        return code;
    }
    std::vector<FileInfo> files;
    code = getFileList(env, jFileListArray, files);
    if (code != 0) {
        LOG_WARN("get file list from jFileListArray failed!");
        return code;
    }
    if (holdListener(env, listener, kCopyListener, Keep::Latest, kConversionFailed, __func__) != 0) {
        return kConversionFailed;
    }
    int taskID = -1;
    const int nReturn = facade()->copyFileList(&device, &files, OnFileCopy, &taskID);
    if (nReturn != 0) {
        LOG_WARN("Failed to downLoad[%d]!", nReturn);
        return nReturn;
    }
    LOG_INFO("Success to downLoad.TaskID:[%d]!", taskID);
    LOG_INFO("Success to downLoad TaskID[%ld]!", static_cast<long>(taskID));
    return taskID;
}

JNIEXPORT jint JNICALL PELK_NATIVE(upLoad)(JNIEnv* env, jclass, jobject jsrcDevice, jobject jdestDevice,
                                           jobjectArray jFileListArray, jobject jFileInfo, jobject listener) {
    LOG_INFO("enter upLoad function !");
    if (env == nullptr || jsrcDevice == nullptr || jdestDevice == nullptr || jFileListArray == nullptr ||
        jFileInfo == nullptr || listener == nullptr) {
        LOG_WARN("enter function upLoad! ");
        return kNullArgument;
    }
    DLNADevice source;
    DLNADevice target;
    std::vector<FileInfo> files;
    FileInfo folder;
    int code = getDLNADevice(env, jsrcDevice, source);
    if (code != 0) {
        LOG_WARN("get srcDevice from jobject failed!");
        return code;
    }
    code = getDLNADevice(env, jdestDevice, target);
    if (code != 0) {
        LOG_WARN("get destDevice from jobject failed!");
        return code;
    }
    code = getFileList(env, jFileListArray, files);
    if (code != 0) {
        LOG_WARN("get file list from jFileListArray failed!");
        return code;
    }
    code = getFileInfo(env, jFileInfo, folder);
    if (code != 0) {
        LOG_WARN("get file info from jFileInfo failed!");
        return code;
    }
    if (holdListener(env, listener, kCopyListener, Keep::Latest, kConversionFailed, __func__) != 0) {
        return kConversionFailed;
    }
    int taskID = -1;
    const int nReturn = facade()->copyFileList(&source, &target, &files, &folder, OnFileCopy, &taskID);
    if (nReturn != 0) {
        LOG_WARN("Failed to upLoad[%d]!", nReturn);
        return nReturn;
    }
    LOG_INFO("Success to upLoad[%d]!", nReturn);
    LOG_INFO("Success to upLoad TaskID[%ld]!", static_cast<long>(taskID));
    return taskID;
}

JNIEXPORT jint JNICALL PELK_NATIVE(playSelectedFile)(JNIEnv* env, jclass, jint index, jobject jdmsDevice,
                                                     jobjectArray jfileArr, jobject jdmrDevice) {
    if (env == nullptr || jdmsDevice == nullptr || jfileArr == nullptr || jdmrDevice == nullptr) {
        LOG_WARN("playSelectedFile --> NULL == jenv || NULL == jdmsDevice || NULL == jfileArr || NULL == jdmrDevice!");
        return kNullArgument;
    }
    DLNADevice server;
    DLNADevice renderer;
    std::vector<FileInfo> files;
    int code = getDLNADevice(env, jdmsDevice, server);
    if (code != 0) {
        LOG_WARN("Failed to get dmsDevice[%d]!", code);
        return code;
    }
    LOG_INFO("Success to get dmsDevice!");
    code = getDLNADevice(env, jdmrDevice, renderer);
    if (code != 0) {
        LOG_WARN("Failed to get dmrDevice[%d]!", code);
        return code;
    }
    LOG_INFO("Success to get dmrDevice!");
    code = getFileList(env, jfileArr, files);
    if (code != 0) {
        LOG_WARN("Failed to get file list[%d]!", code);
        return code;
    }
    LOG_INFO("Success to get file list!");
    code = facade()->playSelectedFile(index, &server, &files, &renderer, OnFileSelectedPlaying, nullptr);
    if (code != 0) {
        LOG_WARN("Failed to play selected file(s)[%d]!", code);
        return code;
    }
    LOG_INFO("Success to play selected file(s)!");
    return code;
}

JNIEXPORT jint JNICALL PELK_NATIVE(stopCurPlayingFile)(JNIEnv* env, jclass, jobject jdevice) {
    return deviceOperation(env, jdevice, &ActionAgentWrapper::stopCurPlayingFile, "stopCurPlayingFile", __func__);
}

JNIEXPORT jint JNICALL PELK_NATIVE(pauseCurPlayingFile)(JNIEnv* env, jclass, jobject jdevice) {
    return deviceOperation(env, jdevice, &ActionAgentWrapper::pauseCurPlayingFile, "pauseCurPlayingFile", __func__);
}

JNIEXPORT jint JNICALL PELK_NATIVE(resumeCurPlayingFile)(JNIEnv* env, jclass, jobject jdevice) {
    return deviceOperation(env, jdevice, &ActionAgentWrapper::resumeCurPlayingFile, "resumeCurPlayingFile", __func__);
}

JNIEXPORT jint JNICALL PELK_NATIVE(enableContentListCache)(JNIEnv* env, jclass, jobject jdevice) {
    return deviceOperation(env, jdevice, &ActionAgentWrapper::enableContentListCache, "enableContentListCache",
                           __func__);
}

JNIEXPORT jint JNICALL PELK_NATIVE(disableContentListCache)(JNIEnv* env, jclass, jobject jdevice) {
    return deviceOperation(env, jdevice, &ActionAgentWrapper::disableContentListCache, "disableContentListCache",
                           __func__);
}

}  // extern "C"
