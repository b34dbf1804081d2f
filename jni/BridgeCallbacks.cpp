// The class cache, the listener references and the native callbacks of the Java bridge (see
// Bridge.h for its threads and ownership).
#include <jni.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstring>

#include "Bridge.h"

namespace PELK {
namespace Bridge {

// ---------------------------------------------------------------------------------------------
// Global state.

std::atomic<JavaVM*> g_jvm{nullptr};
pthread_mutex_t g_refMutex = PTHREAD_MUTEX_INITIALIZER;

// Cached at load: agent threads cannot find application classes by name.
jclass g_jcDataTransferEvent = nullptr;
jclass g_jcFileTransferEvent = nullptr;
jclass g_jcInteractionApp = nullptr;
jclass g_jcDLNADevice = nullptr;

// The listeners of the native methods, each as its class and itself.
jclass g_interAppCallbackClass = nullptr;
jobject g_interAppCallbackObject = nullptr;
jclass g_dlnaDeviceCallbackClass = nullptr;
jobject g_dlnaDeviceCallbackObject = nullptr;
jclass g_sendDataCallbackClass = nullptr;
jobject g_sendDataCallbackObject = nullptr;
jclass g_sendFileCallbackClass = nullptr;
jobject g_sendFileCallbackObject = nullptr;
jclass g_sendFileListCallbackClass = nullptr;
jobject g_sendFileListCallbackObject = nullptr;
jclass g_receiveCallbackClass = nullptr;
jobject g_receiveCallbackObject = nullptr;
jclass g_copyFileCallbackClass = nullptr;
jobject g_copyFileCallbackObject = nullptr;

pthread_key_t g_attachedThreadKey;
std::atomic<bool> g_attachedThreadKeyMade{false};

namespace {

// The local references made for one listener call (at most four), deleted together.
class LocalRefs {
public:
    explicit LocalRefs(JNIEnv* env) : m_env(env) {}
    ~LocalRefs() {
        for (int i = 0; i < m_count; ++i) {
            m_env->DeleteLocalRef(m_refs[i]);
        }
    }
    LocalRefs(const LocalRefs&) = delete;
    LocalRefs& operator=(const LocalRefs&) = delete;

    jobject add(jobject ref) {
        if (ref != nullptr && m_count < kCapacity) {
            m_refs[m_count++] = ref;
        }
        return ref;
    }

private:
    static constexpr int kCapacity = 4;
    JNIEnv* m_env;
    jobject m_refs[kCapacity] = {};
    int m_count = 0;
};

bool isHeld(jobject const& global) {
    MutexGuard guard(&g_refMutex);
    return global != nullptr;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Class cache.

namespace {

void cacheClass(JNIEnv* env, const char* name, jclass& global, const char* localTag, const char* globalTag) {
    LocalRef<jclass> local(env, env->FindClass(name));
    if (!local) {
        clearException(env);
        LOG_WARN("%s == NULL", localTag);
        return;
    }
    jclass made = static_cast<jclass>(env->NewGlobalRef(local.get()));
    if (made == nullptr) {
        clearException(env);
        LOG_WARN("%s == NULL", globalTag);
        return;
    }
    replaceGlobal(env, global, made);
}

}  // namespace

void createDataTransferEvent(JNIEnv* env) {
    cacheClass(env, "com/quorvik/kolt/pelk/agent/PELKAgentNativeLib$DataTransferEvent", g_jcDataTransferEvent,
               "jcDataTransferEvent", "g_jcDataTransferEvent");
}

void createFileTransferEvent(JNIEnv* env) {
    cacheClass(env, "com/quorvik/kolt/pelk/agent/PELKAgentNativeLib$FileTransferEvent", g_jcFileTransferEvent,
               "jcFileTransferEvent", "g_jcFileTransferEvent");
}

void createInteractionApp(JNIEnv* env) {
    cacheClass(env, "com/quorvik/kolt/pelk/agent/PELKAgentNativeLib$InteractionApp", g_jcInteractionApp,
               "jcInteractionApp", "g_jcInteractionApp");
}

void createDLNADevice(JNIEnv* env) {
    cacheClass(env, kDLNADeviceClass, g_jcDLNADevice, "jcDLNADevice", "g_jcDLNADevice");
}

void destroyDataTransferEvent(JNIEnv* env) { releaseGlobal(env, g_jcDataTransferEvent); }
void destroyFileTransferEvent(JNIEnv* env) { releaseGlobal(env, g_jcFileTransferEvent); }
void destroyInteractionApp(JNIEnv* env) { releaseGlobal(env, g_jcInteractionApp); }
void destroyDLNADevice(JNIEnv* env) { releaseGlobal(env, g_jcDLNADevice); }

// ---------------------------------------------------------------------------------------------
// Listener references.

const ListenerSlot kInterAppListener{g_interAppCallbackClass, g_interAppCallbackObject, "local_interAppCallbackClass",
                                     "g_interAppCallbackClass", "g_interAppCallbackObject"};
const ListenerSlot kDeviceListener{g_dlnaDeviceCallbackClass, g_dlnaDeviceCallbackObject,
                                   "local_dlnaDeviceCallbackClass", "g_dlnaDeviceCallbackClass",
                                   "g_dlnaDeviceCallbackObject"};
const ListenerSlot kSendDataListener{g_sendDataCallbackClass, g_sendDataCallbackObject, "local_sendDataCallback",
                                     "g_sendDataCallbackClass", "g_sendDataCallbackObject"};
const ListenerSlot kSendFileListener{g_sendFileCallbackClass, g_sendFileCallbackObject, "local_sendfileCallbackClass",
                                     "g_sendFileCallbackClass", "g_sendFileCallbackObject"};
const ListenerSlot kSendFileListListener{g_sendFileListCallbackClass, g_sendFileListCallbackObject,
                                         "local_sendfileListCallbackClass", "g_sendFileListCallbackClass",
                                         "g_sendFileListCallbackObject"};
const ListenerSlot kReceiveListener{g_receiveCallbackClass, g_receiveCallbackObject, "local_receiveCallbackClass",
                                    "g_receiveCallbackClass", "g_receiveCallbackObject"};
const ListenerSlot kCopyListener{g_copyFileCallbackClass, g_copyFileCallbackObject, "local_copyFileCallbackClass",
                                 "g_copyFileCallbackClass", "g_copyFileCallbackObject"};

namespace {

// Puts class and object into the slot as keep says, in one step, so that a callback never sees
// the class of one listener with another listener; releases whatever is not kept.
void commitListener(JNIEnv* env, const ListenerSlot& slot, jclass cls, jobject obj, Keep keep) {
    jobject unused[2] = {};
    {
        MutexGuard guard(&g_refMutex);
        if (cls != nullptr) {
            const bool take = keep == Keep::Latest || slot.cls == nullptr;
            unused[0] = take ? slot.cls : cls;
            slot.cls = take ? cls : slot.cls;
        }
        if (obj != nullptr) {
            const bool take = keep == Keep::Latest || slot.obj == nullptr;
            unused[1] = take ? slot.obj : obj;
            slot.obj = take ? obj : slot.obj;
        }
    }
    for (jobject ref : unused) {
        if (ref != nullptr) {
            env->DeleteGlobalRef(ref);
        }
    }
}

}  // namespace

// Takes global references to the listener and its class as keep says. 0, or failCode after
// logging "<tag> == NULL" for the step that failed (a null listener fails the class step).
int holdListener(JNIEnv* env, jobject listener, const ListenerSlot& slot, Keep keep, int failCode,
                 const char* function) {
    bool needClass = true;
    bool needObject = true;
    if (keep != Keep::Latest) {
        MutexGuard guard(&g_refMutex);
        needClass = slot.cls == nullptr;
        needObject = keep == Keep::FirstPair ? needClass : slot.obj == nullptr;
    }
    jclass cls = nullptr;
    if (needClass) {
        LocalRef<jclass> local(env, listener == nullptr ? nullptr : env->GetObjectClass(listener));
        cls = local ? static_cast<jclass>(env->NewGlobalRef(local.get())) : nullptr;
        if (cls == nullptr) {
            clearException(env);
            BRIDGE_LOG(ZT_LOG_WARNING, function, "%s == NULL", local ? slot.classTag : slot.localClassTag);
            return failCode;
        }
    }
    jobject obj = needObject && listener != nullptr ? env->NewGlobalRef(listener) : nullptr;
    if (needObject && obj == nullptr) {
        clearException(env);
        if (cls != nullptr) {
            env->DeleteGlobalRef(cls);
        }
        BRIDGE_LOG(ZT_LOG_WARNING, function, "%s == NULL", slot.objectTag);
        return failCode;
    }
    commitListener(env, slot, cls, obj, keep);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Native callbacks.

namespace {

// The NDK declares AttachCurrentThread's environment argument as JNIEnv**, the JDK as void**.
struct EnvOut {
    JNIEnv** env;
    operator JNIEnv**() const { return env; }
    operator void**() const { return reinterpret_cast<void**>(env); }
};

}  // namespace

void detachAtThreadEnd(void* vm) { static_cast<JavaVM*>(vm)->DetachCurrentThread(); }

namespace {

// Room for the local references of one event: the listener, its class, the arguments and what
// the converters make on the way.
constexpr jint kEventLocalRefs = 16;

// The environment of the agent thread that delivers one event, with a local frame for the event.
// An agent thread is attached on its first event and stays attached, as a daemon so that it never
// holds the VM's shutdown up, until it ends (the thread key detaches it then); attaching makes a
// new java.lang.Thread, which costs more than delivering the event. Only when the key could not
// be made is the thread detached after each event. A Java thread that calls in is left as it is.
class EventThread {
public:
    EventThread() {
        JavaVM* vm = g_jvm.load();
        JNIEnv* env = nullptr;
        const jint state = vm == nullptr ? JNI_ERR : vm->GetEnv(reinterpret_cast<void**>(&env), kJniVersion);
        if (state == JNI_EDETACHED) {
            if (vm->AttachCurrentThreadAsDaemon(EnvOut{&env}, nullptr) != JNI_OK) {
                return;
            }
            const bool keyed =
                g_attachedThreadKeyMade.load() && pthread_setspecific(g_attachedThreadKey, vm) == 0;
            m_detachAfterEvent = keyed ? nullptr : vm;
        } else if (state != JNI_OK) {
            return;
        }
        m_env = env;
        // Without a frame the event's references are still deleted one by one.
        m_framePushed = env->PushLocalFrame(kEventLocalRefs) == JNI_OK;
        if (!m_framePushed) {
            clearException(env);
        }
    }
    ~EventThread() {
        if (m_framePushed) {
            m_env->PopLocalFrame(nullptr);
        }
        if (m_detachAfterEvent != nullptr) {
            m_detachAfterEvent->DetachCurrentThread();
        }
    }
    EventThread(const EventThread&) = delete;
    EventThread& operator=(const EventThread&) = delete;

    JNIEnv* env() const { return m_env; }

private:
    JNIEnv* m_env = nullptr;
    bool m_framePushed = false;
    JavaVM* m_detachAfterEvent = nullptr;
};

// Steps of a delivery that OnFileSend reports; the others report none.
struct NoTrace {
    void operator()(const char*) const {}
};

// Finds the listener's method on its class, builds the arguments (make logs its own failure),
// calls the method and releases every local reference made. False when the event was dropped.
template <class Make, class Trace>
bool callListener(JNIEnv* env, jclass const& globalClass, jobject const& globalObject, const char* method,
                  const char* signature, Make make, Trace trace, const char* function) {
    // Class and listener are taken in one step: a listener replaced in between (a new copy
    // listener, a new registration) would be paired with the class of the one before.
    jclass heldClass = nullptr;
    jobject heldObject = nullptr;
    {
        MutexGuard guard(&g_refMutex);
        heldClass = globalClass == nullptr ? nullptr : static_cast<jclass>(env->NewLocalRef(globalClass));
        heldObject = globalObject == nullptr ? nullptr : env->NewLocalRef(globalObject);
    }
    LocalRef<jclass> cls(env, heldClass);
    LocalRef<jobject> listener(env, heldObject);
    trace("before GetMethodID");
    const jmethodID mid = cls && listener && env->IsInstanceOf(listener.get(), cls.get())
                              ? env->GetMethodID(cls.get(), method, signature)
                              : nullptr;
    trace("after GetMethodID");
    if (mid == nullptr) {
        clearException(env);
        BRIDGE_LOG(ZT_LOG_WARNING, function, "methodID == NULL");
        return false;
    }
    LocalRefs made(env);
    jvalue args[4];
    if (!make(env, args, made)) {
        return false;
    }
    trace("before object CallVoidMethodA");
    env->CallVoidMethodA(listener.get(), mid, args);
    trace("after object CallVoidMethodA");
    if (env->ExceptionCheck()) {
        // The listener's own exception: shown as the VM shows an uncaught one, then dropped.
        env->ExceptionDescribe();
        env->ExceptionClear();
    }
    return true;
}

// One event on the calling agent thread; false when it was dropped.
template <class Make, class Trace = NoTrace>
bool deliver(jclass const& globalClass, jobject const& globalObject, const char* method, const char* signature,
             Make make, const char* function, Trace trace = Trace()) {
    EventThread thread;
    return thread.env() != nullptr &&
           callListener(thread.env(), globalClass, globalObject, method, signature, make, trace, function);
}

// An argument list of one object, made by makeEvent; logs failTag when it cannot be made.
template <class MakeEvent>
auto oneObject(MakeEvent makeEvent, const char* failTag, const char* function) {
    return [=](JNIEnv* env, jvalue* args, LocalRefs& made) {
        jobject obj = made.add(makeEvent(env));
        if (obj == nullptr) {
            BRIDGE_LOG(ZT_LOG_WARNING, function, "%s", failTag);
            return false;
        }
        args[0] = objectValue(obj);
        return true;
    };
}

constexpr const char* kFileEventSignature = "(Lcom/quorvik/kolt/pelk/agent/PELKAgentNativeLib$FileTransferEvent;)V";

// A text field for %.*s: the field need not be terminated.
template <size_t N>
int textLength(const char (&field)[N]) {
    return static_cast<int>(strnlen(field, N));
}

// What a global holds now, for log lines only.
const void* heldValue(jobject const& global) {
    MutexGuard guard(&g_refMutex);
    return global;
}

int heldValueAsInt(jobject const& global) { return static_cast<int>(reinterpret_cast<intptr_t>(heldValue(global))); }

// An argument list of an object made by makeObject and an int; logs failTag when the object
// cannot be made.
template <class MakeObject>
auto objectAndInt(MakeObject makeObject, int value, const char* failTag, const char* function) {
    return [=](JNIEnv* env, jvalue* args, LocalRefs& made) {
        jobject obj = made.add(makeObject(env));
        if (obj == nullptr) {
            BRIDGE_LOG(ZT_LOG_WARNING, function, "%s", failTag);
            return false;
        }
        args[0] = objectValue(obj);
        args[1] = intValue(value);
        return true;
    };
}

}  // namespace

void OnInterAppChange(const InteractionApp* app, int nChangeType, void*) {
    LOG_INFO("OnInterAppChange: g_interAppCallbackObject = %p, nChangeType=%d", heldValue(g_interAppCallbackObject),
             nChangeType);
    deliver(g_interAppCallbackClass, g_interAppCallbackObject, "onInterAppChange",
            "(Lcom/quorvik/kolt/pelk/agent/PELKAgentNativeLib$InteractionApp;I)V",
            objectAndInt([=](JNIEnv* env) { return makeInteractionApp(env, app); }, nChangeType,
                         "jo_interactionApp == NULL", __func__),
            __func__);
}

// The one callback that looks at its listener first: without one the event ends here, before
// the thread is attached.
void OnDeviceChange(const DLNADevice* device, int nChangeType, void*) {
    if (device == nullptr) {
        LOG_WARN("enter function OnDeviceChange --> NULL == pDevice");
        return;
    }
    if (!isHeld(g_dlnaDeviceCallbackObject)) {
        return;
    }
    LOG_INFO("NativeLib OnDeviceChange:ChangeType:[%d],DeviceName:[%.*s],Type:[%d],IPv4:[%.*s],UUID:[%.*s]",
             nChangeType, textLength(device->name), device->name, static_cast<int>(device->type),
             textLength(device->IPv4), device->IPv4, textLength(device->UUID), device->UUID);
    LOG_INFO("On DLNA Device Change: g_dlnaDeviceCallbackObject = %d", heldValueAsInt(g_dlnaDeviceCallbackObject));
    // makeDLNADevice logs its own failure.
    deliver(g_dlnaDeviceCallbackClass, g_dlnaDeviceCallbackObject, "onDLNADeviceChange",
            "(Lcom/quorvik/kolt/pelk/agent/DLNADevice;I)V",
            objectAndInt([=](JNIEnv* env) { return makeDLNADevice(env, device); }, nChangeType, "jo_DLNADevice == NULL",
                         __func__),
            __func__);
}

void OnDataSend(data_transfer_event event, void*) {
    LOG_INFO("NativeLib OnDataSend to %.*s:%d(type=%d), Result:%ld", textLength(event.strIPAddress), event.strIPAddress,
             event.nRemoteAppID, static_cast<int>(event.nEventType), static_cast<long>(event.nId));
    deliver(g_sendDataCallbackClass, g_sendDataCallbackObject, "onSendingData",
            "(Lcom/quorvik/kolt/pelk/agent/PELKAgentNativeLib$DataTransferEvent;)V",
            oneObject([&](JNIEnv* env) { return makeDataTransferEvent(env, event); }, "jo_dataEvent == NULL", __func__),
            __func__);
}

void OnDataReceive(int type, const char* data, int length, void*, const InteractionApp* sender) {
    const int size = data != nullptr && length > 0 ? length : 0;
    const InteractionApp unknown;
    const InteractionApp& from = sender != nullptr ? *sender : unknown;
    LOG_INFO("OnDataReceive: %.*s, %.*s, from %.*s (%s), %d", textLength(from.szAppName), from.szAppName,
             textLength(from.szMacAddress), from.szMacAddress, textLength(from.szIPv4), from.szIPv4,
             from.fLocalDevice != 0 ? "local" : "remote", size);
    LOG_DEBUG("OnDataReceive: ==============buf [%.*s]", size, size > 0 ? data : "");
    LOG_INFO("OnDataReceive: g_receiveCallbackObject = %d", heldValueAsInt(g_receiveCallbackObject));
    const char* function = __func__;
    deliver(
        g_receiveCallbackClass, g_receiveCallbackObject, "onReceivingData",
        "(I[BILcom/quorvik/kolt/pelk/agent/PELKAgentNativeLib$InteractionApp;)V",
        [=](JNIEnv* env, jvalue* args, LocalRefs& made) {
            jbyteArray bytes = static_cast<jbyteArray>(made.add(env->NewByteArray(size)));
            jobject app = bytes == nullptr ? nullptr : made.add(makeInteractionApp(env, sender));
            if (app == nullptr) {
                clearException(env);
                BRIDGE_LOG(ZT_LOG_WARNING, function, "jo_interactionApp == NULL");
                return false;
            }
            if (size > 0) {
                env->SetByteArrayRegion(bytes, 0, size, reinterpret_cast<const jbyte*>(data));
            }
            args[0] = intValue(type);
            args[1] = objectValue(bytes);
            args[2] = intValue(size);
            args[3] = objectValue(app);
            return true;
        },
        function);
}

void OnFileReceive(file_transfer_event event, void*) {
    LOG_INFO("NativeLib OnFileReceive from %.*s:%d(type=%d):%lld/%lld", textLength(event.strOtherSideIP),
             event.strOtherSideIP, event.nRemoteAppID, static_cast<int>(event.nEventType),
             static_cast<long long>(event.ullCurrentSize), static_cast<long long>(event.ullTotalSize));
    deliver(g_receiveCallbackClass, g_receiveCallbackObject, "onReceivingFile", kFileEventSignature,
            oneObject([&](JNIEnv* env) { return makeFileTransferEvent(env, event); }, "jo_fileEvent == NULL", __func__),
            __func__);
}

void OnFileSend(file_transfer_event event, void* context) {
    const int ipLength = textLength(event.strOtherSideIP);
    const int type = static_cast<int>(event.nEventType);
    const long long done = static_cast<long long>(event.ullCurrentSize);
    const long long total = static_cast<long long>(event.ullTotalSize);
    LOG_INFO("NativeLib OnFileSend to %.*s:%d(type=%d):%lld/%lld", ipLength, event.strOtherSideIP, event.nRemoteAppID,
             type, done, total);
    if (context != nullptr && context != kSendFileListContext) {
        EventThread thread;
        LOG_WARN("methodID == NULL");
        return;
    }
    const bool list = context == kSendFileListContext;
    const char* function = __func__;
    const bool delivered = deliver(
        list ? g_sendFileListCallbackClass : g_sendFileCallbackClass,
        list ? g_sendFileListCallbackObject : g_sendFileCallbackObject, "onSendingFile", kFileEventSignature,
        oneObject([&](JNIEnv* env) { return makeFileTransferEvent(env, event); }, "jo_fileEvent == NULL", function),
        function, [&](const char* step) {
            BRIDGE_LOG(ZT_LOG_INFO, function, "OnFileSend to %.*s:%d(type=%d):%lld/%lld, %s", ipLength,
                       event.strOtherSideIP, event.nRemoteAppID, type, done, total, step);
        });
    if (delivered) {
        LOG_INFO("Finish OnFileSend to %.*s:%d(type=%d):%lld/%lld", ipLength, event.strOtherSideIP, event.nRemoteAppID,
                 type, done, total);
    }
}

void OnFileCopy(file_transfer_event event, void*) {
    LOG_INFO("NativeLib OnFileCopy to %.*s:%d(type=%d):%lld/%lld", textLength(event.strOtherSideIP),
             event.strOtherSideIP, event.nRemoteAppID, static_cast<int>(event.nEventType),
             static_cast<long long>(event.ullCurrentSize), static_cast<long long>(event.ullTotalSize));
    deliver(g_copyFileCallbackClass, g_copyFileCallbackObject, "onDLNAFileCopy", kFileEventSignature,
            oneObject([&](JNIEnv* env) { return makeFileTransferEvent(env, event); }, "jo_fileEvent == NULL", __func__),
            __func__);
}

// Playback notifications reach no listener; the thread is attached as for any event.
void OnFileSelectedPlaying(void*) { EventThread thread; }

}  // namespace Bridge
}  // namespace PELK
