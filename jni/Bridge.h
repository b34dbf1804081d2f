// The Java bridge: the native methods of com.quorvik.kolt.pelk.agent.PELKAgentNativeLib (bound by
// their standard JNI names), the conversions between the native records and their Java classes,
// the library's load and unload hooks, and the native callbacks that carry agent events to the
// Java listeners. Its rooms: PELKAgentNativeLib.cpp (the native methods, load and unload),
// BridgeRecords.cpp (the record converters), BridgeCallbacks.cpp (the class cache, the listener
// references and the callbacks) and BridgeText.cpp (texts across the boundary, over the JNI-free
// conversions of TextConversion.h). This header holds what they share.
//
// Threads: the native methods run on the Java threads that call them. The callbacks run on the
// agent's threads (the link's action callback thread, the reconnection thread); each such thread
// is attached to the VM, as a daemon, on its first event and stays attached until it ends, so a
// listener sees one Thread for every event of a connection. Each event works in a local frame of
// its own, so that nothing piles up in a thread that stays attached.
//
// Ownership: the bridge owns global references to the listeners that the native methods were
// given and to four classes cached at load. All of them are read and replaced under g_refMutex,
// and a callback works on local references taken from them, so a listener replaced or released
// meanwhile (a newer copy listener, a new registration, unload) is never used after its release.
// g_refMutex is a leaf lock: no other lock of the library is taken while it is held.
#ifndef PELK_JNI_BRIDGE_H
#define PELK_JNI_BRIDGE_H

#include <jni.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ActionManager/Struct.h"
#include "CommonLib/OSAL.h"
#include "CommonLib/ZTLogger.h"

namespace PELK {
namespace Bridge {

using PELK::Common::MutexGuard;
using PELK::Common::ZT_LOG_DEBUG;
using PELK::Common::ZT_LOG_INFO;
using PELK::Common::ZT_LOG_WARNING;

// Every line names the file that the log's readers know, whichever room of the bridge writes it.
constexpr const char* kLogFile = "jni/PELKAgentNativeLib.cpp";

// Lines naming a function other than the one they are written in (helpers that log for the
// native method that called them).
#define BRIDGE_LOG(level, function, ...)                                                                   \
    PELK::Common::ZTLogger::getDefaultLogger()->printf((level), PELK::Bridge::kLogFile, __LINE__, (function), \
                                                       __VA_ARGS__)
#define LOG_WARN(...) BRIDGE_LOG(ZT_LOG_WARNING, __func__, __VA_ARGS__)
#define LOG_INFO(...) BRIDGE_LOG(ZT_LOG_INFO, __func__, __VA_ARGS__)
#define LOG_DEBUG(...) BRIDGE_LOG(ZT_LOG_DEBUG, __func__, __VA_ARGS__)

constexpr jint kJniVersion = JNI_VERSION_1_6;
constexpr int kNullArgument = 1001;  // a null environment or required object, or a JNI failure
constexpr int kEmptyList = 1060;     // an array builder was given nothing to build
constexpr int kConversionFailed = -1;

constexpr const char* kStringSignature = "Ljava/lang/String;";
constexpr const char* kDLNADeviceClass = "com/quorvik/kolt/pelk/agent/DLNADevice";
constexpr const char* kDLNADeviceIconClass = "com/quorvik/kolt/pelk/agent/DLNADeviceIcon";
constexpr const char* kFileInfoClass = "com/quorvik/kolt/pelk/agent/FileInfo";
constexpr const char* kReceiveOptionClass = "com/quorvik/kolt/pelk/agent/ReceiveOption";

// ---------------------------------------------------------------------------------------------
// Global state (defined in BridgeCallbacks.cpp).

extern std::atomic<JavaVM*> g_jvm;
extern pthread_mutex_t g_refMutex;

// Cached at load: agent threads cannot find application classes by name.
extern jclass g_jcDataTransferEvent;
extern jclass g_jcFileTransferEvent;
extern jclass g_jcInteractionApp;
extern jclass g_jcDLNADevice;

// The listeners of the native methods, each as its class and itself.
extern jclass g_interAppCallbackClass;
extern jobject g_interAppCallbackObject;
extern jclass g_dlnaDeviceCallbackClass;
extern jobject g_dlnaDeviceCallbackObject;
extern jclass g_sendDataCallbackClass;
extern jobject g_sendDataCallbackObject;
extern jclass g_sendFileCallbackClass;
extern jobject g_sendFileCallbackObject;
extern jclass g_sendFileListCallbackClass;
extern jobject g_sendFileListCallbackObject;
extern jclass g_receiveCallbackClass;
extern jobject g_receiveCallbackObject;
extern jclass g_copyFileCallbackClass;
extern jobject g_copyFileCallbackObject;

// Holds the VM for each thread that the callbacks attached, so that the thread is detached when
// it ends. Made at load; deleted at unload, since its destructor is in this library.
extern pthread_key_t g_attachedThreadKey;
extern std::atomic<bool> g_attachedThreadKeyMade;

// ---------------------------------------------------------------------------------------------
// JNI helpers.


// A failed JNI call may leave an exception pending; it is cleared so that the failure is
// reported by code, as the native methods promise, and later JNI calls stay legal.
inline void clearException(JNIEnv* env) {
    if (env->ExceptionCheck()) {
        env->ExceptionClear();
    }
}

// Deletes a local reference when it goes out of scope.
template <class T>
class LocalRef {
public:
    LocalRef(JNIEnv* env, T ref) : m_env(env), m_ref(ref) {}
    ~LocalRef() {
        if (m_ref != nullptr) {
            m_env->DeleteLocalRef(m_ref);
        }
    }
    LocalRef(const LocalRef&) = delete;
    LocalRef& operator=(const LocalRef&) = delete;

    T get() const { return m_ref; }
    explicit operator bool() const { return m_ref != nullptr; }
    // Hands the reference to the caller, who deletes it.
    T release() {
        T ref = m_ref;
        m_ref = nullptr;
        return ref;
    }

private:
    JNIEnv* m_env;
    T m_ref;
};

// A local reference to what a global holds now, or null.
template <class T>
T localCopy(JNIEnv* env, T const& global) {
    MutexGuard guard(&g_refMutex);
    return global == nullptr ? nullptr : static_cast<T>(env->NewLocalRef(global));
}

// Puts made into a global and releases what it held.
template <class T>
void replaceGlobal(JNIEnv* env, T& global, T made) {
    T old = nullptr;
    {
        MutexGuard guard(&g_refMutex);
        old = global;
        global = made;
    }
    if (old != nullptr) {
        env->DeleteGlobalRef(old);
    }
}

// Empties a global and releases what it held.
template <class T>
void releaseGlobal(JNIEnv* env, T& global) {
    replaceGlobal(env, global, static_cast<T>(nullptr));
}

inline jvalue intValue(jint value) {
    jvalue v;
    v.i = value;
    return v;
}

inline jvalue longValue(jlong value) {
    jvalue v;
    v.j = value;
    return v;
}

inline jvalue boolValue(bool value) {
    jvalue v;
    v.z = value ? JNI_TRUE : JNI_FALSE;
    return v;
}

inline jvalue objectValue(jobject value) {
    jvalue v;
    v.l = value;
    return v;
}

// ---------------------------------------------------------------------------------------------
// Texts (BridgeText.cpp).

// A Java string of a native text field (UTF-8, which need not be terminated within its size).
jstring newJavaText(JNIEnv* env, const char* field, size_t size);

template <size_t N>
jstring newJavaText(JNIEnv* env, const char (&field)[N]) {
    return newJavaText(env, field, N);
}

// The UTF-8 of a Java string; false (and out unchanged) for a null string or a failed read.
bool javaText(JNIEnv* env, jstring text, std::string& out);

bool jstringToString(JNIEnv* env, jstring text, std::string& out);

// ---------------------------------------------------------------------------------------------
// Record converters (BridgeRecords.cpp): 0 or a code, or a new local object or null.

jobject makeInteractionApp(JNIEnv* env, const InteractionApp* app);
jobject makeDLNADevice(JNIEnv* env, const DLNADevice* device);
jobject makeDataTransferEvent(JNIEnv* env, const data_transfer_event& event);
jobject makeFileTransferEvent(JNIEnv* env, const file_transfer_event& event);
// The array builders refuse an empty list, so the native methods return no array for it.
int setDLNADevice(JNIEnv* env, const std::vector<DLNADevice>& devices, jobjectArray& out);
int setFileList(JNIEnv* env, const std::vector<FileInfo>& items, jobjectArray& out);
int setFileInfo(JNIEnv* env, const FileInfo& info, jobject& out);
int setReceiveOptionToObject(JNIEnv* env, const ReceiveOption& option, jobject& target);
int getDLNADevice(JNIEnv* env, const jobject& jdevice, DLNADevice& device);
int getFileInfo(JNIEnv* env, const jobject& jFileInfo, FileInfo& info);
int getFileList(JNIEnv* env, const jobjectArray& jFileListArray, std::vector<FileInfo>& items);
int getReceiveOptionFromObject(JNIEnv* env, const jobject& jReceiveOption, ReceiveOption& option);

// ---------------------------------------------------------------------------------------------
// Class cache, listener references and callbacks (BridgeCallbacks.cpp).

void createDataTransferEvent(JNIEnv* env);
void createFileTransferEvent(JNIEnv* env);
void createInteractionApp(JNIEnv* env);
void createDLNADevice(JNIEnv* env);
void destroyDataTransferEvent(JNIEnv* env);
void destroyFileTransferEvent(JNIEnv* env);
void destroyInteractionApp(JNIEnv* env);
void destroyDLNADevice(JNIEnv* env);

// One listener's pair of globals and the words of its failures.
struct ListenerSlot {
    jclass& cls;
    jobject& obj;
    const char* localClassTag;
    const char* classTag;
    const char* objectTag;
};

extern const ListenerSlot kInterAppListener;
extern const ListenerSlot kDeviceListener;
extern const ListenerSlot kSendDataListener;
extern const ListenerSlot kSendFileListener;
extern const ListenerSlot kSendFileListListener;
extern const ListenerSlot kReceiveListener;
extern const ListenerSlot kCopyListener;

// Which listener a slot keeps. The rules differ by method on purpose; the apps rely on them.
enum class Keep {
    Latest,     // a new listener replaces the held one
    FirstPair,  // once class and object are held, later listeners are ignored
    FirstEach,  // class and object are each taken while that one is empty
};

// Takes global references to the listener and its class as keep says. 0, or failCode after
// logging "<tag> == NULL" for the step that failed (a null listener fails the class step).
int holdListener(JNIEnv* env, jobject listener, const ListenerSlot& slot, Keep keep, int failCode,
                 const char* function);

void detachAtThreadEnd(void* vm);

void OnInterAppChange(const InteractionApp* app, int nChangeType, void*);
void OnDeviceChange(const DLNADevice* device, int nChangeType, void*);
void OnDataSend(data_transfer_event event, void*);
void OnDataReceive(int type, const char* data, int length, void*, const InteractionApp* sender);
void OnFileReceive(file_transfer_event event, void*);
void OnFileSend(file_transfer_event event, void* context);
void OnFileCopy(file_transfer_event event, void*);
void OnFileSelectedPlaying(void*);

// The context tells which send the event belongs to: null for sendFile, 1 for sendFileList.
void* const kSendFileListContext = reinterpret_cast<void*>(uintptr_t{1});

}  // namespace Bridge
}  // namespace PELK

#endif  // PELK_JNI_BRIDGE_H
