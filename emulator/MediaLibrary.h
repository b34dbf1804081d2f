// The content of one emulated media server: a folder tree, served as FileInfo items whose
// object IDs are paths relative to the folder ("0" is the root; "Music/a.mp3" an item). IDs
// from requests are checked before use: no absolute paths, no "." or ".." steps, and nothing
// that resolves (through links) outside the folder. Hidden entries are not served.
// Used by the emulator's one thread; owns only its texts.
#ifndef PELK_EMULATOR_MEDIALIBRARY_H
#define PELK_EMULATOR_MEDIALIBRARY_H

#include <cstdint>
#include <string>
#include <vector>

#include "ActionManager/Struct.h"

namespace PELK {
namespace Emulator {

class MediaLibrary {
public:
    static const char* const kRootID;    // "0"
    static const char* const kNoParent;  // "-1", the root's parent ID

    // udn goes into every item's sourceDMSUDN.
    explicit MediaLibrary(const std::string& udn);

    // Serves folder from now on; false (nothing changes) unless it is a readable folder.
    bool setFolder(const std::string& folder);
    // The folder's resolved path; empty while none is served (an empty server).
    const std::string& folder() const { return m_folder; }
    const std::string& udn() const { return m_udn; }

    // The items of the folder objectID, folders first, then by name. Results (ServiceCodes.h):
    // OK, UNKNOWN_ITEM when objectID is no folder of this server, BAD_FOLDER when unreadable.
    int32_t list(const std::string& objectID, std::vector<FileInfo>& items) const;
    // The folder that holds objectID: OK, UNKNOWN_ITEM, or NO_PARENT for the root.
    int32_t parentOf(const std::string& objectID, FileInfo& parent) const;
    // The ID of the folder that holds objectID: OK, UNKNOWN_ITEM, or NO_PARENT for the root.
    int32_t parentID(const std::string& objectID, std::string& parent) const;
    // The regular file behind objectID, with its size: OK, UNKNOWN_ITEM, or MISSING_FILE when
    // it is a folder or cannot be read.
    int32_t fileOf(const std::string& objectID, std::string& path, uint64_t& size) const;
    // The folder behind objectID: OK or UNKNOWN_ITEM.
    int32_t folderOf(const std::string& objectID, std::string& path) const;

private:
    // The resolved path of objectID inside the folder; false when the ID is malformed, names
    // nothing, or leads outside.
    bool resolve(const std::string& objectID, std::string& path) const;
    FileInfo itemFor(const std::string& objectID, const std::string& parentID, const std::string& title,
                     const std::string& path, bool isFolder) const;

    std::string m_udn;
    std::string m_folder;
};

}  // namespace Emulator
}  // namespace PELK

#endif  // PELK_EMULATOR_MEDIALIBRARY_H
