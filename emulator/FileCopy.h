// Copies a list of files into folders, one bounded chunk per step, so that the emulator's one
// thread can interleave many transfers with its network work and report progress after each
// chunk. Each copy is written under the source's file name in its folder; with renaming on, a
// name that exists already gets " (1)", " (2)", ... before its extension. A file left
// unfinished (cancel, failure, destruction) is removed. Owns its descriptors; one thread.
#ifndef PELK_EMULATOR_FILECOPY_H
#define PELK_EMULATOR_FILECOPY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace PELK {
namespace Emulator {

class FileCopy {
public:
    struct Item {
        std::string source;  // the file to copy
        std::string folder;  // where its copy goes
        uint64_t size = 0;   // bytes to copy, as the file had when the copy was asked for
    };

    enum Step {
        STEP_PROGRESS,   // bytes of the current file were copied
        STEP_FILE_DONE,  // the current file is complete; the next step starts the next file
        STEP_FAILED,     // the copy cannot go on; failure() says why
    };

    // REQUIRES: items is not empty.
    FileCopy(std::vector<Item> items, bool renameExisting);
    ~FileCopy();
    FileCopy(const FileCopy&) = delete;
    FileCopy& operator=(const FileCopy&) = delete;

    // Copies up to maxBytes of the current file (opening it first when needed).
    Step step(size_t maxBytes);
    // True once the last file is complete.
    bool finished() const;
    // Removes the unfinished file, if any; later steps fail.
    void abandon();

    // The file that the last step was about (0-based), its bytes done and its copy's path
    // (empty until it was opened).
    size_t index() const { return m_index; }
    const Item& current() const { return m_items[m_index]; }
    uint64_t done() const { return m_done; }
    const std::string& destination() const { return m_destination; }
    size_t count() const { return m_items.size(); }
    uint64_t listTotal() const { return m_listTotal; }
    // A result of ServiceCodes.h after STEP_FAILED.
    int32_t failure() const { return m_failure; }

private:
    bool open();
    void closeFiles();
    Step fail(int32_t result);

    std::vector<Item> m_items;
    bool m_fRename;
    uint64_t m_listTotal = 0;
    size_t m_index = 0;
    uint64_t m_done = 0;
    bool m_fFileDone = false;
    bool m_fAbandoned = false;
    int m_in = -1;
    int m_out = -1;
    std::string m_destination;
    int32_t m_failure = 0;
    std::vector<char> m_buffer;
};

}  // namespace Emulator
}  // namespace PELK

#endif  // PELK_EMULATOR_FILECOPY_H
