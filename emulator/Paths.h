// Path checks shared by the emulator's units: resolving a path through its links, and telling
// whether a resolved path lies inside a folder. Pure functions; any thread may use them.
#ifndef PELK_EMULATOR_PATHS_H
#define PELK_EMULATOR_PATHS_H

#include <climits>
#include <cstdlib>
#include <string>

namespace PELK {
namespace Emulator {

// The absolute path without links, "." or ".." steps; empty when path does not exist.
inline std::string realPath(const std::string& path) {
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) == nullptr ? std::string() : std::string(resolved);
}

// REQUIRES: both resolved (realPath).
inline bool isInside(const std::string& path, const std::string& folder) {
    if (folder.empty() || path.compare(0, folder.size(), folder) != 0) {
        return false;
    }
    return path.size() == folder.size() || folder.back() == '/' || path[folder.size()] == '/';
}

}  // namespace Emulator
}  // namespace PELK

#endif  // PELK_EMULATOR_PATHS_H
