// The Java bridge: the native methods of com.quorvik.kolt.pelk.agent.PELKAgentNativeLib (bound by
// their standard JNI names), the conversions between the native records and their Java classes,
// the library's load and unload hooks, and the native callbacks that carry agent events to the
// Java listeners.
//
// Threads: the native methods run on the Java threads that call them. The callbacks run on the
// agent's threads (the link's action callback thread, the reconnection thread); each attaches its
// thread to the VM for one event and detaches after it. An event dropped because its listener has
// no such method, or because its Java object could not be made, leaves the thread attached (the
// library has always done so); such a thread is detached when it ends.
//
// Ownership: the bridge owns global references to the listeners that the native methods were
// given and to four classes cached at load. All of them are read and replaced under g_refMutex,
// and a callback works on local references taken from them, so a listener replaced or released
// meanwhile (a newer copy listener, a new registration, unload) is never used after its release.
// g_refMutex is a leaf lock: no other lock of the library is taken while it is held.
#include <jni.h>
#include <pthread.h>

#include <atomic>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ActionAgent.h"
#include "ActionAgentWrapper.h"
#include "ActionManager/Struct.h"
#include "CommonLib/OSAL.h"
#include "CommonLib/ZTLogger.h"

namespace {

using PELK::data_transfer_event;
using PELK::DLNA_DEVICE_TYPE;
using PELK::DLNADevice;
using PELK::file_transfer_event;
using PELK::FileInfo;
using PELK::InteractionApp;
using PELK::ReceiveOption;
using PELK::Common::MutexGuard;
using PELK::Common::ZT_LOG_DEBUG;
using PELK::Common::ZT_LOG_INFO;
using PELK::Common::ZT_LOG_WARNING;

// Lines naming a function other than the one they are written in (helpers that log for the
// native method that called them).
#define BRIDGE_LOG(level, function, ...) \
    PELK::Common::ZTLogger::getDefaultLogger()->printf((level), __FILE__, __LINE__, (function), __VA_ARGS__)
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

// Holds the VM for a thread that an event left attached, so that the thread is detached when it
// ends (a thread ending attached would keep the VM from shutting down).
pthread_key_t g_leftAttachedKey;
std::atomic<bool> g_leftAttachedKeyMade{false};

// ---------------------------------------------------------------------------------------------
// JNI helpers.

// A failed JNI call may leave an exception pending; it is cleared so that the failure is
// reported by code, as the native methods promise, and later JNI calls stay legal.
void clearException(JNIEnv* env) {
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

// The modified UTF-8 characters of a Java string, released when it goes out of scope.
class UtfChars {
public:
    UtfChars(JNIEnv* env, jstring text)
        : m_env(env), m_text(text), m_chars(text == nullptr ? nullptr : env->GetStringUTFChars(text, nullptr)) {}
    ~UtfChars() {
        if (m_chars != nullptr) {
            m_env->ReleaseStringUTFChars(m_text, m_chars);
        }
    }
    UtfChars(const UtfChars&) = delete;
    UtfChars& operator=(const UtfChars&) = delete;

    const char* get() const { return m_chars; }

private:
    JNIEnv* m_env;
    jstring m_text;
    const char* m_chars;
};

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

// A local reference to what a global holds now, or null.
template <class T>
T localCopy(JNIEnv* env, T const& global) {
    MutexGuard guard(&g_refMutex);
    return global == nullptr ? nullptr : static_cast<T>(env->NewLocalRef(global));
}

bool isHeld(jobject const& global) {
    MutexGuard guard(&g_refMutex);
    return global != nullptr;
}

// Empties a global and releases what it held.
template <class T>
void releaseGlobal(JNIEnv* env, T& global) {
    T old = nullptr;
    {
        MutexGuard guard(&g_refMutex);
        old = global;
        global = nullptr;
    }
    if (old != nullptr) {
        env->DeleteGlobalRef(old);
    }
}

jvalue intValue(jint value) {
    jvalue v;
    v.i = value;
    return v;
}

jvalue longValue(jlong value) {
    jvalue v;
    v.j = value;
    return v;
}

jvalue boolValue(bool value) {
    jvalue v;
    v.z = value ? JNI_TRUE : JNI_FALSE;
    return v;
}

jvalue objectValue(jobject value) {
    jvalue v;
    v.l = value;
    return v;
}

// A Java string of a native text field, which need not be terminated within its size.
jstring newJavaText(JNIEnv* env, const char* field, size_t size) {
    const std::string text(field, strnlen(field, size));
    jstring result = env->NewStringUTF(text.c_str());
    if (result == nullptr) {
        clearException(env);
    }
    return result;
}

template <size_t N>
jstring newJavaText(JNIEnv* env, const char (&field)[N]) {
    return newJavaText(env, field, N);
}

// A copy bounded by the field's size: the rest is zeroed, and a text that fills the field
// keeps no terminator there.
void copyCut(char* field, size_t size, const char* text) {
    const size_t length = strnlen(text, size);
    memcpy(field, text, length);
    memset(field + length, 0, size - length);
}

// ---------------------------------------------------------------------------------------------
// Java records from native ones.

struct FieldSpec {
    const char* name;
    const char* signature;
    const char* tag;  // logged as "<tag> == NULL" when the lookup fails
};

template <size_t N>
bool lookupFields(JNIEnv* env, jclass cls, const FieldSpec (&specs)[N], jfieldID (&ids)[N], const char* function) {
    for (size_t i = 0; i < N; ++i) {
        ids[i] = env->GetFieldID(cls, specs[i].name, specs[i].signature);
        if (ids[i] == nullptr) {
            clearException(env);
            BRIDGE_LOG(ZT_LOG_WARNING, function, "%s == NULL", specs[i].tag);
            return false;
        }
    }
    return true;
}

template <size_t N>
void setFields(JNIEnv* env, jobject obj, const FieldSpec (&specs)[N], const jfieldID (&ids)[N],
               const jvalue (&values)[N]) {
    for (size_t i = 0; i < N; ++i) {
        switch (specs[i].signature[0]) {
            case 'I':
                env->SetIntField(obj, ids[i], values[i].i);
                break;
            case 'J':
                env->SetLongField(obj, ids[i], values[i].j);
                break;
            case 'Z':
                env->SetBooleanField(obj, ids[i], values[i].z);
                break;
            default:
                env->SetObjectField(obj, ids[i], values[i].l);
                break;
        }
    }
}

// A new object of cls made without running a constructor, its fields set; null on failure.
template <size_t N>
jobject allocWithFields(JNIEnv* env, jclass cls, const FieldSpec (&specs)[N], const jfieldID (&ids)[N],
                        const jvalue (&values)[N]) {
    jobject obj = env->AllocObject(cls);
    if (obj == nullptr || env->ExceptionCheck()) {
        clearException(env);
        return nullptr;
    }
    setFields(env, obj, specs, ids, values);
    return obj;
}

// Looks the fields up on the cached class and makes the object; on any failure logs (the
// allocation failure as allocTag) and returns null.
template <size_t N>
jobject makeObject(JNIEnv* env, jclass const& cachedClass, const FieldSpec (&specs)[N], const jvalue (&values)[N],
                   const char* allocTag, const char* function) {
    LocalRef<jclass> cls(env, localCopy(env, cachedClass));
    if (!cls) {
        BRIDGE_LOG(ZT_LOG_WARNING, function, "%s", allocTag);
        return nullptr;
    }
    jfieldID ids[N];
    if (!lookupFields(env, cls.get(), specs, ids, function)) {
        return nullptr;
    }
    jobject obj = allocWithFields(env, cls.get(), specs, ids, values);
    if (obj == nullptr) {
        BRIDGE_LOG(ZT_LOG_WARNING, function, "%s", allocTag);
    }
    return obj;
}

const FieldSpec kInteractionAppFields[] = {
    {"szAppName", kStringSignature, "fid_appName"},
    {"nAppID", "I", "fid_appID"},
    {"nType", "I", "fid_interactionType"},
    {"szIPv4", kStringSignature, "fid_IPV4Address"},
    {"szMacAddress", kStringSignature, "fid_macAddress"},
    {"fLocalDevice", "Z", "fid_localApp"},
};

jobject makeInteractionApp(JNIEnv* env, const InteractionApp* app) {
    if (app == nullptr) {
        LOG_WARN("jo_interactionApp == NULL");
        return nullptr;
    }
    LocalRef<jstring> name(env, newJavaText(env, app->szAppName));
    LocalRef<jstring> ip(env, newJavaText(env, app->szIPv4));
    LocalRef<jstring> mac(env, newJavaText(env, app->szMacAddress));
    if (!name || !ip || !mac) {
        LOG_WARN("jo_interactionApp == NULL");
        return nullptr;
    }
    const jvalue values[] = {objectValue(name.get()), intValue(app->nAppID),  intValue(app->nType),
                             objectValue(ip.get()),   objectValue(mac.get()), boolValue(app->fLocalDevice != 0)};
    return makeObject(env, g_jcInteractionApp, kInteractionAppFields, values, "jo_interactionApp == NULL", __func__);
}

const FieldSpec kDLNADeviceFields[] = {
    {"name", kStringSignature, "fid_name"},        {"UUID", kStringSignature, "fid_UUID"},  {"type", "I", "fid_type"},
    {"IPv4", kStringSignature, "fid_IPV4Address"}, {"localDevice", "Z", "fid_localDevice"},
};

// The Java texts of a device, made before its object.
struct DeviceTexts {
    LocalRef<jstring> name;
    LocalRef<jstring> uuid;
    LocalRef<jstring> ip;

    DeviceTexts(JNIEnv* env, const DLNADevice& device)
        : name(env, newJavaText(env, device.name)),
          uuid(env, newJavaText(env, device.UUID)),
          ip(env, newJavaText(env, device.IPv4)) {}
    bool made() const { return name && uuid && ip; }
};

void deviceValues(const DLNADevice& device, const DeviceTexts& texts, jvalue (&values)[5]) {
    values[0] = objectValue(texts.name.get());
    values[1] = objectValue(texts.uuid.get());
    values[2] = intValue(device.type);
    values[3] = objectValue(texts.ip.get());
    values[4] = boolValue(device.localDevice != 0);
}

jobject makeDLNADevice(JNIEnv* env, const DLNADevice* device) {
    if (device == nullptr) {
        LOG_WARN("jo_DLNADevice == NULL");
        return nullptr;
    }
    const DeviceTexts texts(env, *device);
    if (!texts.made()) {
        LOG_WARN("jo_DLNADevice == NULL");
        return nullptr;
    }
    jvalue values[5];
    deviceValues(*device, texts, values);
    return makeObject(env, g_jcDLNADevice, kDLNADeviceFields, values, "jo_DLNADevice == NULL", __func__);
}

const FieldSpec kDataTransferEventFields[] = {
    {"nId", "J", "fid_id"},
    {"nEventType", "J", "fid_eventType"},
    {"nRemoteAppID", "I", "fid_remoteAppID"},
    {"strIPAddress", kStringSignature, "fid_ipAddress"},
};

jobject makeDataTransferEvent(JNIEnv* env, const data_transfer_event& event) {
    LocalRef<jstring> ip(env, newJavaText(env, event.strIPAddress));
    if (!ip) {
        LOG_WARN("jo_dataEvent == NULL");
        return nullptr;
    }
    const jvalue values[] = {longValue(event.nId), longValue(event.nEventType), intValue(event.nRemoteAppID),
                             objectValue(ip.get())};
    return makeObject(env, g_jcDataTransferEvent, kDataTransferEventFields, values, "jo_dataEvent == NULL", __func__);
}

const FieldSpec kFileTransferEventFields[] = {
    {"ullCurrentSize", "J", "fid_currentSize"},
    {"ullTotalSize", "J", "fid_totalSize"},
    {"ullListTotalSize", "J", "fid_listTotalSize"},
    {"nId", "J", "fid_id"},
    {"nCurrentCount", "J", "fid_currentCount"},
    {"nTotalCount", "J", "fid_totalCount"},
    {"nEventType", "J", "fid_eventType"},
    {"strFileName", kStringSignature, "fid_fileName"},
    {"strOtherSideIP", kStringSignature, "fid_otherSideIP"},
    {"nRemoteAppID", "I", "fid_remoteAppID"},
};

jobject makeFileTransferEvent(JNIEnv* env, const file_transfer_event& event) {
    LocalRef<jstring> fileName(env, newJavaText(env, event.strFileName));
    LocalRef<jstring> ip(env, newJavaText(env, event.strOtherSideIP));
    if (!fileName || !ip) {
        LOG_WARN("jo_fileEvent == NULL");
        return nullptr;
    }
    const jvalue values[] = {longValue(static_cast<jlong>(event.ullCurrentSize)),
                             longValue(static_cast<jlong>(event.ullTotalSize)),
                             longValue(static_cast<jlong>(event.ullListTotalSize)),
                             longValue(event.nId),
                             longValue(event.nCurrentCount),
                             longValue(event.nTotalCount),
                             longValue(event.nEventType),
                             objectValue(fileName.get()),
                             objectValue(ip.get()),
                             intValue(event.nRemoteAppID)};
    return makeObject(env, g_jcFileTransferEvent, kFileTransferEventFields, values, "jo_fileEvent == NULL", __func__);
}

// The six texts of a FileInfo, by Java field name and native field.
struct FileInfoText {
    const char* name;
    size_t offset;
    size_t size;
};

#define PELK_FILEINFO_TEXT(field) \
    { #field, offsetof(FileInfo, field), sizeof(FileInfo::field) }
constexpr FileInfoText kFileInfoTexts[] = {
    PELK_FILEINFO_TEXT(sourceDMSUDN), PELK_FILEINFO_TEXT(objectParentID), PELK_FILEINFO_TEXT(objectID),
    PELK_FILEINFO_TEXT(objectTitle),  PELK_FILEINFO_TEXT(objectType),     PELK_FILEINFO_TEXT(objectURI),
};
#undef PELK_FILEINFO_TEXT
constexpr size_t kFileInfoTextCount = sizeof(kFileInfoTexts) / sizeof(kFileInfoTexts[0]);

const FieldSpec kFileInfoFields[] = {
    {"sourceDMSUDN", kStringSignature, "fid_sourceDMSUDN"}, {"objectParentID", kStringSignature, "fid_objectParentID"},
    {"objectID", kStringSignature, "fid_objectID"},         {"objectTitle", kStringSignature, "fid_objectTitle"},
    {"objectType", kStringSignature, "fid_objectType"},     {"objectURI", kStringSignature, "fid_objectURI"},
};
static_assert(sizeof(kFileInfoFields) / sizeof(kFileInfoFields[0]) == kFileInfoTextCount, "one field per text");

const char* fileInfoText(const FileInfo& info, const FileInfoText& text) {
    return reinterpret_cast<const char*>(&info) + text.offset;
}

char* fileInfoText(FileInfo& info, const FileInfoText& text) { return reinterpret_cast<char*>(&info) + text.offset; }

// Sets the six string fields of a Java FileInfo; false when a text cannot be made.
bool fillFileInfo(JNIEnv* env, jobject obj, const jfieldID (&ids)[kFileInfoTextCount], const FileInfo& info) {
    for (size_t i = 0; i < kFileInfoTextCount; ++i) {
        LocalRef<jstring> text(env, newJavaText(env, fileInfoText(info, kFileInfoTexts[i]), kFileInfoTexts[i].size));
        if (!text) {
            return false;
        }
        env->SetObjectField(obj, ids[i], text.get());
    }
    return true;
}

// Finds a class by name (on a Java thread, with its caller's loader); logs a miss.
jclass findClass(JNIEnv* env, const char* name, const char* tag, const char* function) {
    jclass cls = env->FindClass(name);
    if (cls == nullptr) {
        clearException(env);
        BRIDGE_LOG(ZT_LOG_WARNING, function, "FindClass(%s) --> NULL == %s", name, tag);
    }
    return cls;
}

// The device class refers to the icon class, which must be complete although the bridge never
// makes an icon: a device array is built only when it is.
bool iconClassComplete(JNIEnv* env, jclass deviceClass, const char* function) {
    LocalRef<jclass> iconClass(env, findClass(env, kDLNADeviceIconClass, "objIcon", function));
    const FieldSpec iconFields[] = {{"type", kStringSignature, "fid_iconType"},
                                    {"height", "I", "fid_iconHeight"},
                                    {"width", "I", "fid_iconWidth"},
                                    {"URL", kStringSignature, "fid_iconURL"}};
    const FieldSpec deviceIconField[] = {
        {"deviceIcon", "Lcom/quorvik/kolt/pelk/agent/DLNADeviceIcon;", "fid_deviceIcon"}};
    jfieldID iconIds[4];
    jfieldID deviceIconId[1];
    return iconClass && lookupFields(env, iconClass.get(), iconFields, iconIds, function) &&
           lookupFields(env, deviceClass, deviceIconField, deviceIconId, function);
}

// The array builders refuse an empty list, so the native methods return no array for it.
int setDLNADevice(JNIEnv* env, const std::vector<DLNADevice>& devices, jobjectArray& out) {
    if (env == nullptr) {
        LOG_WARN("enter function setDLNADevice --> NULL == jenv");
        return kNullArgument;
    }
    LocalRef<jclass> cls(env, findClass(env, kDLNADeviceClass, "objClass", __func__));
    if (!cls) {
        return kNullArgument;
    }
    LOG_INFO("DLNADeviceList contains %d devices!", static_cast<int>(devices.size()));
    if (devices.empty()) {
        return kEmptyList;
    }
    LocalRef<jobjectArray> array(env, env->NewObjectArray(static_cast<jsize>(devices.size()), cls.get(), nullptr));
    if (!array) {
        clearException(env);
        LOG_WARN("NewObjectArray --> NULL == deviceListArray");
        return kNullArgument;
    }
    jfieldID ids[5];
    if (!iconClassComplete(env, cls.get(), __func__) ||
        !lookupFields(env, cls.get(), kDLNADeviceFields, ids, __func__)) {
        return kNullArgument;
    }
    for (size_t i = 0; i < devices.size(); ++i) {
        const DeviceTexts texts(env, devices[i]);
        jvalue values[5];
        deviceValues(devices[i], texts, values);
        LocalRef<jobject> device(
            env, texts.made() ? allocWithFields(env, cls.get(), kDLNADeviceFields, ids, values) : nullptr);
        if (!device) {
            LOG_WARN("jo_DLNADevice == NULL");
            return kNullArgument;
        }
        env->SetObjectArrayElement(array.get(), static_cast<jsize>(i), device.get());
    }
    out = array.release();
    return 0;
}

int setFileList(JNIEnv* env, const std::vector<FileInfo>& items, jobjectArray& out) {
    if (env == nullptr) {
        LOG_WARN("enter function setFileList --> NULL == jenv");
        return kNullArgument;
    }
    LocalRef<jclass> cls(env, findClass(env, kFileInfoClass, "objClass", __func__));
    if (!cls) {
        return kNullArgument;
    }
    if (items.empty()) {
        LOG_INFO("File list contains %d devices!", 0);  // the word is the message's own; kept
        return kEmptyList;
    }
    LOG_INFO("File list contains %d files!", static_cast<int>(items.size()));
    LocalRef<jobjectArray> array(env, env->NewObjectArray(static_cast<jsize>(items.size()), cls.get(), nullptr));
    if (!array) {
        clearException(env);
        LOG_WARN("NewObjectArray --> NULL == jFileListArray");
        return kNullArgument;
    }
    jfieldID ids[kFileInfoTextCount];
    if (!lookupFields(env, cls.get(), kFileInfoFields, ids, __func__)) {
        return kNullArgument;
    }
    for (size_t i = 0; i < items.size(); ++i) {
        LocalRef<jobject> item(env, env->AllocObject(cls.get()));
        if (!item || env->ExceptionCheck() || !fillFileInfo(env, item.get(), ids, items[i])) {
            clearException(env);
            LOG_WARN("jo_fileInfo == NULL");
            return kNullArgument;
        }
        env->SetObjectArrayElement(array.get(), static_cast<jsize>(i), item.get());
    }
    out = array.release();
    return 0;
}

// Writes a native FileInfo into the caller's Java FileInfo, so that the caller sees it.
int setFileInfo(JNIEnv* env, const FileInfo& info, jobject& out) {
    LOG_INFO("enter function setFileInfo!");
    if (env == nullptr || out == nullptr) {
        LOG_WARN("NewObject --> NULL == jFileInfo");
        return kNullArgument;
    }
    const int udnLength = static_cast<int>(strnlen(info.sourceDMSUDN, sizeof(info.sourceDMSUDN)));
    LOG_DEBUG("-----------------------------------");
    LOG_DEBUG("setFileInfo   -->  fileInfo.sourceDMSUDN:[%.*s]", udnLength, info.sourceDMSUDN);
    LOG_DEBUG("setFileInfo   -->  NewStringUTF         :[%.*s]", udnLength, info.sourceDMSUDN);
    LOG_DEBUG("-----------------------------------");
    LocalRef<jclass> cls(env, env->GetObjectClass(out));
    jfieldID ids[kFileInfoTextCount];
    if (!lookupFields(env, cls.get(), kFileInfoFields, ids, __func__) || !fillFileInfo(env, out, ids, info)) {
        return kNullArgument;
    }
    return 0;
}

const FieldSpec kReceiveOptionFields[] = {
    {"directory", kStringSignature, "fid_directory"},
    {"rename", "Z", "fid_rename"},
    {"percent", "I", "fid_percent"},
};

int setReceiveOptionToObject(JNIEnv* env, const ReceiveOption& option, jobject& target) {
    if (env == nullptr || target == nullptr) {
        LOG_WARN("enter function setReceiveOptionToObject --> (NULL == jenv) || (NULL == jReceiveOption)");
        return kNullArgument;
    }
    LocalRef<jclass> cls(env, env->GetObjectClass(target));
    LocalRef<jstring> directory(env, newJavaText(env, option.directory));
    jfieldID ids[3];
    if (!directory || !lookupFields(env, cls.get(), kReceiveOptionFields, ids, __func__)) {
        return kNullArgument;
    }
    const jvalue values[] = {objectValue(directory.get()), boolValue(option.rename), intValue(option.percent)};
    setFields(env, target, kReceiveOptionFields, ids, values);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Native records from Java ones. Values are read through the getters, and texts are cut to the
// size of their native field.

bool jstringToString(JNIEnv* env, jstring text, std::string& out) {
    const UtfChars chars(env, text);
    if (chars.get() == nullptr) {
        clearException(env);
        LOG_WARN("GetStringUTFChars fail!");
        return false;
    }
    out.assign(chars.get());
    return true;
}

// "getName" for "name", "pName" for the UTF characters of "name".
std::string capitalised(const char* prefix, const char* name) {
    std::string result = std::string(prefix) + name;
    result[strlen(prefix)] = static_cast<char>(toupper(static_cast<unsigned char>(name[0])));
    return result;
}

jmethodID getterOf(JNIEnv* env, jclass cls, const std::string& getter, const char* signature, const char* function) {
    jmethodID mid = env->GetMethodID(cls, getter.c_str(), signature);
    if (mid == nullptr) {
        clearException(env);
        BRIDGE_LOG(ZT_LOG_WARNING, function, "GetMethodID(%s) --> NULL == mid", getter.c_str());
    }
    return mid;
}

// Reads the text getter of a value (getName for "name") into a native field of size bytes.
int readText(JNIEnv* env, jclass cls, jobject obj, const char* name, char* field, size_t size, const char* function) {
    const jmethodID mid = getterOf(env, cls, capitalised("get", name), "()Ljava/lang/String;", function);
    if (mid == nullptr) {
        return kNullArgument;
    }
    LocalRef<jstring> text(env, static_cast<jstring>(env->CallObjectMethod(obj, mid)));
    if (env->ExceptionCheck() || !text) {
        clearException(env);
        BRIDGE_LOG(ZT_LOG_WARNING, function, "CallObjectMethod --> NULL == %s", name);
        return kNullArgument;
    }
    const UtfChars chars(env, text.get());
    if (chars.get() == nullptr) {
        clearException(env);
        BRIDGE_LOG(ZT_LOG_WARNING, function, "GetStringUTFChars --> NULL == %s", capitalised("p", name).c_str());
        return kNullArgument;
    }
    copyCut(field, size, chars.get());
    return 0;
}

int readInt(JNIEnv* env, jclass cls, jobject obj, const char* getter, jint& out, const char* function) {
    const jmethodID mid = getterOf(env, cls, getter, "()I", function);
    if (mid == nullptr) {
        return kNullArgument;
    }
    out = env->CallIntMethod(obj, mid);
    if (env->ExceptionCheck()) {
        clearException(env);
        BRIDGE_LOG(ZT_LOG_WARNING, function, "CallIntMethod --> %s failed", getter);
        return kNullArgument;
    }
    return 0;
}

int readBool(JNIEnv* env, jclass cls, jobject obj, const char* getter, bool& out, const char* function) {
    const jmethodID mid = getterOf(env, cls, getter, "()Z", function);
    if (mid == nullptr) {
        return kNullArgument;
    }
    out = env->CallBooleanMethod(obj, mid) == JNI_TRUE;
    if (env->ExceptionCheck()) {
        clearException(env);
        BRIDGE_LOG(ZT_LOG_WARNING, function, "CallBooleanMethod --> %s failed", getter);
        return kNullArgument;
    }
    return 0;
}

// A copy of obj made by its class's copy constructor; the values are read from the copy.
jobject copyOf(JNIEnv* env, jclass cls, jobject obj, const char* constructor, const char* copyName,
               const char* function) {
    const jmethodID mid = env->GetMethodID(cls, "<init>", constructor);
    if (mid == nullptr) {
        clearException(env);
        BRIDGE_LOG(ZT_LOG_WARNING, function, "GetMethodID(%s) --> NULL == mid", constructor);
        return nullptr;
    }
    jobject copy = env->NewObject(cls, mid, obj);
    if (env->ExceptionCheck() || copy == nullptr) {
        clearException(env);
        if (copy != nullptr) {
            env->DeleteLocalRef(copy);
        }
        BRIDGE_LOG(ZT_LOG_WARNING, function, "NewObject --> NULL == %s", copyName);
        return nullptr;
    }
    return copy;
}

int getDLNADevice(JNIEnv* env, const jobject& jdevice, DLNADevice& device) {
    if (env == nullptr || jdevice == nullptr) {
        LOG_WARN("enter function getDLNADevice --> (NULL == jenv) || (NULL == jdevice)");
        return kNullArgument;
    }
    LocalRef<jclass> cls(env, findClass(env, kDLNADeviceClass, "objClass", __func__));
    LocalRef<jobject> copy(env, cls ? copyOf(env, cls.get(), jdevice, "(Lcom/quorvik/kolt/pelk/agent/DLNADevice;)V",
                                             "deviceObject", __func__)
                                    : nullptr);
    if (!copy) {
        return kNullArgument;
    }
    jint type = 0;
    bool local = false;
    int code = readText(env, cls.get(), copy.get(), "name", device.name, sizeof(device.name), __func__);
    code = code != 0 ? code : readInt(env, cls.get(), copy.get(), "getType", type, __func__);
    code = code != 0 ? code : readText(env, cls.get(), copy.get(), "UUID", device.UUID, sizeof(device.UUID), __func__);
    code = code != 0 ? code : readText(env, cls.get(), copy.get(), "IPv4", device.IPv4, sizeof(device.IPv4), __func__);
    code = code != 0 ? code : readBool(env, cls.get(), copy.get(), "isLocalDevice", local, __func__);
    device.type = static_cast<DLNA_DEVICE_TYPE>(type);
    device.localDevice = local ? 1 : 0;
    return code;
}

// Reads the six texts of a Java FileInfo through its getters.
int readFileInfo(JNIEnv* env, jclass cls, jobject obj, FileInfo& info, const char* function) {
    for (const FileInfoText& text : kFileInfoTexts) {
        const int code = readText(env, cls, obj, text.name, fileInfoText(info, text), text.size, function);
        if (code != 0) {
            return code;
        }
    }
    return 0;
}

int getFileInfo(JNIEnv* env, const jobject& jFileInfo, FileInfo& info) {
    if (env == nullptr || jFileInfo == nullptr) {
        LOG_WARN("enter function getFileInfo --> (NULL == jenv) || (NULL == jFileInfo)");
        return kNullArgument;
    }
    LocalRef<jclass> cls(env, findClass(env, kFileInfoClass, "objClass", __func__));
    LocalRef<jobject> copy(env, cls ? copyOf(env, cls.get(), jFileInfo, "(Lcom/quorvik/kolt/pelk/agent/FileInfo;)V",
                                             "fileInfoObject", __func__)
                                    : nullptr);
    return copy ? readFileInfo(env, cls.get(), copy.get(), info, __func__) : kNullArgument;
}

int getFileList(JNIEnv* env, const jobjectArray& jFileListArray, std::vector<FileInfo>& items) {
    if (env == nullptr || jFileListArray == nullptr) {
        LOG_WARN("enter function getFileList --> (NULL == jenv) || (NULL == jFileListArray)");
        return kNullArgument;
    }
    LocalRef<jclass> cls(env, findClass(env, kFileInfoClass, "objClass", __func__));
    if (!cls) {
        return kNullArgument;
    }
    const jsize count = env->GetArrayLength(jFileListArray);
    for (jsize i = 0; i < count; ++i) {
        LocalRef<jobject> element(env, env->GetObjectArrayElement(jFileListArray, i));
        if (!element) {
            clearException(env);
            LOG_WARN("GetObjectArrayElement failed! --> NULL == jclass_fileinfo");
            return kNullArgument;
        }
        FileInfo info;
        const int code = readFileInfo(env, cls.get(), element.get(), info, __func__);
        if (code != 0) {
            return code;
        }
        items.push_back(info);
    }
    return 0;
}

int getReceiveOptionFromObject(JNIEnv* env, const jobject& jReceiveOption, ReceiveOption& option) {
    if (env == nullptr || jReceiveOption == nullptr) {
        LOG_WARN("enter function getReceiveOptionFromObject --> (NULL == jenv) || (NULL == jReceiveOption)");
        return kNullArgument;
    }
    LocalRef<jclass> cls(env, findClass(env, kReceiveOptionClass, "objClass", __func__));
    LocalRef<jobject> copy(
        env, cls ? copyOf(env, cls.get(), jReceiveOption, "(Lcom/quorvik/kolt/pelk/agent/ReceiveOption;)V",
                          "receiveOptionObject", __func__)
                 : nullptr);
    if (!copy) {
        return kNullArgument;
    }
    // The folder keeps its terminator: the agent reads it as a text.
    int code =
        readText(env, cls.get(), copy.get(), "directory", option.directory, sizeof(option.directory) - 1, __func__);
    code = code != 0 ? code : readBool(env, cls.get(), copy.get(), "isRename", option.rename, __func__);
    code = code != 0 ? code : readInt(env, cls.get(), copy.get(), "getPercent", option.percent, __func__);
    return code;
}

// ---------------------------------------------------------------------------------------------
// Class cache.

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
    jclass old = nullptr;
    {
        MutexGuard guard(&g_refMutex);
        old = global;
        global = made;
    }
    if (old != nullptr) {
        env->DeleteGlobalRef(old);
    }
}

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

// One listener's pair of globals and the words of its failures.
struct ListenerSlot {
    jclass& cls;
    jobject& obj;
    const char* localClassTag;
    const char* classTag;
    const char* objectTag;
};

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

// Which listener a slot keeps. The rules differ by method on purpose; the apps rely on them.
enum class Keep {
    Latest,     // a new listener replaces the held one
    FirstPair,  // once class and object are held, later listeners are ignored
    FirstEach,  // class and object are each taken while that one is empty
};

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

// The NDK declares AttachCurrentThread's environment argument as JNIEnv**, the JDK as void**.
struct EnvOut {
    JNIEnv** env;
    operator JNIEnv**() const { return env; }
    operator void**() const { return reinterpret_cast<void**>(env); }
};

void detachAtThreadEnd(void* vm) { static_cast<JavaVM*>(vm)->DetachCurrentThread(); }

// The environment of the agent thread that delivers one event. A thread that this bridge
// attached (now, or for an earlier event that was dropped) is detached when the event has been
// delivered; a Java thread that calls in is left as it is.
class EventThread {
public:
    EventThread() {
        m_vm = g_jvm.load();
        if (m_vm == nullptr) {
            return;
        }
        JNIEnv* env = nullptr;
        const jint state = m_vm->GetEnv(reinterpret_cast<void**>(&env), kJniVersion);
        if (state == JNI_EDETACHED) {
            m_attachedHere = m_vm->AttachCurrentThread(EnvOut{&env}, nullptr) == JNI_OK;
            m_env = m_attachedHere ? env : nullptr;
            return;
        }
        m_env = state == JNI_OK ? env : nullptr;
        m_attachedHere =
            m_env != nullptr && g_leftAttachedKeyMade.load() && pthread_getspecific(g_leftAttachedKey) != nullptr;
    }
    EventThread(const EventThread&) = delete;
    EventThread& operator=(const EventThread&) = delete;

    JNIEnv* env() const { return m_env; }

    void delivered() {
        if (!m_attachedHere) {
            return;
        }
        if (g_leftAttachedKeyMade.load()) {
            pthread_setspecific(g_leftAttachedKey, nullptr);
        }
        m_vm->DetachCurrentThread();
    }

    // The event was dropped: the thread stays attached, until a later event or its end.
    void dropped() {
        if (m_attachedHere && g_leftAttachedKeyMade.load()) {
            pthread_setspecific(g_leftAttachedKey, m_vm);
        }
    }

private:
    JavaVM* m_vm = nullptr;
    JNIEnv* m_env = nullptr;
    bool m_attachedHere = false;
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
    LocalRef<jclass> cls(env, localCopy(env, globalClass));
    LocalRef<jobject> listener(env, localCopy(env, globalObject));
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
    if (thread.env() == nullptr) {
        return false;
    }
    if (!callListener(thread.env(), globalClass, globalObject, method, signature, make, trace, function)) {
        thread.dropped();
        return false;
    }
    thread.delivered();
    return true;
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

// The context tells which send the event belongs to: null for sendFile, 1 for sendFileList.
void* const kSendFileListContext = reinterpret_cast<void*>(uintptr_t{1});

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
        thread.dropped();
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

// Playback notifications reach no listener; the thread is attached and detached once.
void OnFileSelectedPlaying(void*) {
    EventThread thread;
    thread.delivered();
}

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
    // The caller's length, but never past the end of the array.
    unsigned int length(jint requested) const {
        const unsigned int asked = static_cast<unsigned int>(requested);
        return m_bytes != nullptr && asked > m_size ? m_size : asked;
    }
    void log(const char* function, unsigned int length) const {
        BRIDGE_LOG(ZT_LOG_DEBUG, function, "%s: buf: %.*s!", function,
                   m_bytes != nullptr ? static_cast<int>(length) : 0, m_bytes != nullptr ? data() : "");
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
    if (!g_leftAttachedKeyMade.load() && pthread_key_create(&g_leftAttachedKey, detachAtThreadEnd) == 0) {
        g_leftAttachedKeyMade.store(true);
    }
    LOG_INFO("JNI_OnLoad: Successful!");
    return kJniVersion;
}

// The app-list, device and copy listeners are left to the VM's own teardown, as they always were.
extern "C" JNIEXPORT void JNICALL JNI_OnUnload(JavaVM* vm, void*) {
    LOG_INFO("JNI_OnUnload: JNI_OnUnload");
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
