#include "FileCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "ServiceCodes.h"

namespace PELK {
namespace Emulator {

namespace {

std::string baseName(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// "name (n).ext" for n > 0; a leading dot does not start an extension.
std::string numbered(const std::string& name, int n) {
    if (n == 0) {
        return name;
    }
    const size_t dot = name.rfind('.');
    const std::string suffix = " (" + std::to_string(n) + ")";
    if (dot == std::string::npos || dot == 0) {
        return name + suffix;
    }
    return name.substr(0, dot) + suffix + name.substr(dot);
}

bool sameFile(int fd, const std::string& path) {
    struct stat opened = {};
    struct stat existing = {};
    return fstat(fd, &opened) == 0 && stat(path.c_str(), &existing) == 0 && opened.st_dev == existing.st_dev &&
           opened.st_ino == existing.st_ino;
}

// Attempts at a free name before the copy gives up.
constexpr int kMaxRenames = 1000;

}  // namespace

FileCopy::FileCopy(std::vector<Item> items, bool renameExisting) : m_items(std::move(items)), m_fRename(renameExisting) {
    for (const Item& item : m_items) {
        m_listTotal += item.size;
    }
}

FileCopy::~FileCopy() {
    abandon();
}

bool FileCopy::finished() const {
    return m_fFileDone && m_index + 1 == m_items.size();
}

void FileCopy::closeFiles() {
    if (m_in >= 0) {
        close(m_in);
        m_in = -1;
    }
    if (m_out >= 0) {
        close(m_out);
        m_out = -1;
    }
}

void FileCopy::abandon() {
    const bool unfinished = m_out >= 0;
    closeFiles();
    if (unfinished) {
        unlink(m_destination.c_str());
    }
    m_fAbandoned = true;
}

FileCopy::Step FileCopy::fail(int32_t result) {
    abandon();
    m_failure = result;
    return STEP_FAILED;
}

bool FileCopy::open() {
    const Item& item = m_items[m_index];
    m_in = ::open(item.source.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_in < 0) {
        m_failure = RESULT_MISSING_FILE;
        return false;
    }
    const std::string name = baseName(item.source);
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (m_fRename ? O_EXCL : O_TRUNC);
    for (int n = 0; n < kMaxRenames && m_out < 0; ++n) {
        m_destination = item.folder + '/' + numbered(name, n);
        if (!m_fRename && sameFile(m_in, m_destination)) {
            m_failure = RESULT_BAD_REQUEST;  // truncating the copy would destroy the source
            return false;
        }
        m_out = ::open(m_destination.c_str(), flags, 0644);
        if (m_out < 0 && !(m_fRename && errno == EEXIST)) {
            break;
        }
    }
    if (m_out < 0) {
        m_destination.clear();
        m_failure = RESULT_BAD_FOLDER;
        return false;
    }
    return true;
}

FileCopy::Step FileCopy::step(size_t maxBytes) {
    if (m_fAbandoned || finished()) {
        return fail(RESULT_UNKNOWN_TASK);
    }
    if (m_fFileDone) {
        ++m_index;
        m_done = 0;
        m_fFileDone = false;
        m_destination.clear();
    }
    if (m_out < 0 && !open()) {
        return fail(m_failure);
    }
    const uint64_t left = current().size - m_done;
    const size_t want = left < maxBytes ? static_cast<size_t>(left) : maxBytes;
    m_buffer.resize(want);
    ssize_t got = 0;
    do {
        got = want == 0 ? 0 : read(m_in, m_buffer.data(), want);
    } while (got < 0 && errno == EINTR);
    if (got < 0 || (got == 0 && want > 0)) {
        return fail(RESULT_MISSING_FILE);  // unreadable, or shorter than when it was asked for
    }
    for (ssize_t written = 0; written < got;) {
        const ssize_t n = write(m_out, m_buffer.data() + written, static_cast<size_t>(got - written));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return fail(RESULT_BAD_FOLDER);
        }
        written += n;
    }
    m_done += static_cast<uint64_t>(got);
    if (m_done < current().size) {
        return STEP_PROGRESS;
    }
    const bool closed = close(m_out) == 0;
    m_out = -1;
    closeFiles();
    if (!closed) {
        unlink(m_destination.c_str());
        return fail(RESULT_BAD_FOLDER);
    }
    m_fFileDone = true;
    return STEP_FILE_DONE;
}

}  // namespace Emulator
}  // namespace PELK
