// The Java bridge's record converters: Java objects made from the native records, and native
// records read from Java objects (see Bridge.h).
#include <jni.h>

#include <cctype>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "Bridge.h"

namespace PELK {
namespace Bridge {

// ---------------------------------------------------------------------------------------------
// Java records from native ones.

namespace {

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

}  // namespace

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

namespace {

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

}  // namespace

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

namespace {

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

}  // namespace

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

namespace {

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
    std::string utf8;
    if (!javaText(env, text.get(), utf8)) {
        BRIDGE_LOG(ZT_LOG_WARNING, function, "GetStringUTFChars --> NULL == %s", capitalised("p", name).c_str());
        return kNullArgument;
    }
    Wire::PutText(field, size, size, utf8.c_str());
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

}  // namespace

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

namespace {

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

}  // namespace

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

}  // namespace Bridge
}  // namespace PELK
