#include "MediaLibrary.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "Paths.h"
#include "ServiceCodes.h"

namespace PELK {
namespace Emulator {

const char* const MediaLibrary::kRootID = "0";
const char* const MediaLibrary::kNoParent = "-1";

namespace {

// Longest object ID that fits FileInfo's 100-byte field with its terminator.
constexpr size_t kMaxObjectID = sizeof(FileInfo::objectID) - 1;
constexpr size_t kMaxTitle = sizeof(FileInfo::objectTitle) - 1;

// Relative paths with plain steps only: no leading or doubled "/", no ".", "..", or hidden step.
bool wellFormed(const std::string& id) {
    if (id.empty() || id.size() > kMaxObjectID) {
        return false;
    }
    size_t start = 0;
    while (start <= id.size()) {
        const size_t end = std::min(id.find('/', start), id.size());
        if (end == start || id[start] == '.') {
            return false;
        }
        start = end + 1;
    }
    return true;
}

std::string lowerExtension(const std::string& name) {
    const size_t dot = name.rfind('.');
    std::string ext = dot == std::string::npos ? std::string() : name.substr(dot + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(tolower(c)); });
    return ext;
}

// UPnP classes, from the file name's extension.
const char* objectClass(const std::string& name, bool isFolder) {
    if (isFolder) {
        return "object.container.storageFolder";
    }
    static const char* const kAudio[] = {"mp3", "flac", "wav", "ogg", "m4a", "aac"};
    static const char* const kVideo[] = {"mp4", "mkv", "avi", "mov", "webm"};
    static const char* const kImage[] = {"jpg", "jpeg", "png", "gif", "bmp", "webp"};
    const std::string ext = lowerExtension(name);
    auto among = [&ext](const char* const* first, const char* const* last) {
        return std::find(first, last, ext) != last;
    };
    if (among(std::begin(kAudio), std::end(kAudio))) {
        return "object.item.audioItem.musicTrack";
    }
    if (among(std::begin(kVideo), std::end(kVideo))) {
        return "object.item.videoItem";
    }
    if (among(std::begin(kImage), std::end(kImage))) {
        return "object.item.imageItem.photo";
    }
    return "object.item";
}

bool isContainer(const FileInfo& item) {
    return Wire::TextOf(item.objectType).rfind("object.container", 0) == 0;
}

}  // namespace

MediaLibrary::MediaLibrary(const std::string& udn) : m_udn(udn) {}

bool MediaLibrary::setFolder(const std::string& folder) {
    const std::string resolved = realPath(folder);
    struct stat info = {};
    if (resolved.empty() || stat(resolved.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) ||
        access(resolved.c_str(), R_OK | X_OK) != 0) {
        return false;
    }
    m_folder = resolved;
    return true;
}

bool MediaLibrary::resolve(const std::string& objectID, std::string& path) const {
    if (m_folder.empty()) {
        return false;
    }
    if (objectID == kRootID) {
        path = m_folder;
        return true;
    }
    if (!wellFormed(objectID)) {
        return false;
    }
    const std::string resolved = realPath(m_folder + '/' + objectID);
    if (resolved.empty() || !isInside(resolved, m_folder)) {
        return false;
    }
    path = resolved;
    return true;
}

FileInfo MediaLibrary::itemFor(const std::string& objectID, const std::string& parentID, const std::string& title,
                               const std::string& path, bool isFolder) const {
    FileInfo item;
    Wire::FillText(item.sourceDMSUDN, m_udn.c_str());
    Wire::FillText(item.objectParentID, parentID.c_str());
    Wire::FillText(item.objectID, objectID.c_str());
    Wire::FillText(item.objectTitle, title.c_str());
    Wire::FillText(item.objectType, objectClass(title, isFolder));
    Wire::FillText(item.objectURI, ("file://" + path).c_str());
    return item;
}

int32_t MediaLibrary::list(const std::string& objectID, std::vector<FileInfo>& items) const {
    if (m_folder.empty() && objectID == kRootID) {
        return RESULT_OK;  // a server that shares no folder yet is empty
    }
    std::string path;
    struct stat info = {};
    if (!resolve(objectID, path) || stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        return RESULT_UNKNOWN_ITEM;
    }
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) {
        return RESULT_BAD_FOLDER;
    }
    std::vector<FileInfo> found;
    const std::string prefix = objectID == kRootID ? std::string() : objectID + '/';
    while (struct dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        const std::string childID = prefix + name;
        std::string childPath;
        struct stat child = {};
        // Hidden entries, names too long for the record, and links leading outside stay unserved.
        if (name[0] == '.' || name.size() > kMaxTitle || !resolve(childID, childPath) ||
            stat(childPath.c_str(), &child) != 0 || !(S_ISDIR(child.st_mode) || S_ISREG(child.st_mode))) {
            continue;
        }
        found.push_back(itemFor(childID, objectID, name, childPath, S_ISDIR(child.st_mode)));
    }
    closedir(dir);
    std::sort(found.begin(), found.end(), [](const FileInfo& a, const FileInfo& b) {
        if (isContainer(a) != isContainer(b)) {
            return isContainer(a);
        }
        return Wire::TextOf(a.objectTitle) < Wire::TextOf(b.objectTitle);
    });
    items.insert(items.end(), found.begin(), found.end());
    return RESULT_OK;
}

int32_t MediaLibrary::parentID(const std::string& objectID, std::string& parent) const {
    std::string path;
    if (!resolve(objectID, path)) {
        return RESULT_UNKNOWN_ITEM;
    }
    if (objectID == kRootID) {
        return RESULT_NO_PARENT;
    }
    const size_t slash = objectID.rfind('/');
    parent = slash == std::string::npos ? std::string(kRootID) : objectID.substr(0, slash);
    return RESULT_OK;
}

int32_t MediaLibrary::parentOf(const std::string& objectID, FileInfo& parent) const {
    std::string id;
    const int32_t result = parentID(objectID, id);
    if (result != RESULT_OK) {
        return result;
    }
    std::string grandparent = kNoParent;
    if (id != kRootID) {
        parentID(id, grandparent);
    }
    const size_t slash = id.rfind('/');
    const std::string title = id == kRootID ? std::string("Root") : id.substr(slash == std::string::npos ? 0 : slash + 1);
    std::string path;
    resolve(id, path);
    parent = itemFor(id, grandparent, title, path, true);
    return RESULT_OK;
}

int32_t MediaLibrary::fileOf(const std::string& objectID, std::string& path, uint64_t& size) const {
    struct stat info = {};
    if (!resolve(objectID, path) || stat(path.c_str(), &info) != 0) {
        return RESULT_UNKNOWN_ITEM;
    }
    if (!S_ISREG(info.st_mode) || access(path.c_str(), R_OK) != 0) {
        return RESULT_MISSING_FILE;
    }
    size = static_cast<uint64_t>(info.st_size);
    return RESULT_OK;
}

int32_t MediaLibrary::folderOf(const std::string& objectID, std::string& path) const {
    struct stat info = {};
    if (!resolve(objectID, path) || stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        return RESULT_UNKNOWN_ITEM;
    }
    return RESULT_OK;
}

}  // namespace Emulator
}  // namespace PELK
