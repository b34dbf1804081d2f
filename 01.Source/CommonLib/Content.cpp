#include "CommonLib/Content.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <climits>
#include <cstring>
#include <limits>
#include <new>

#include "CommonLib/ZTLogger.h"

namespace PELK {
namespace Common {

namespace {

bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

// Null (after logging "Out of memory!") when size cannot be allocated.
unsigned char* allocateBuffer(uint64_t size) {
    unsigned char* buffer = nullptr;
    if (size <= static_cast<uint64_t>(std::numeric_limits<std::ptrdiff_t>::max())) {
        buffer = new (std::nothrow) unsigned char[static_cast<size_t>(size)];
    }
    if (buffer == nullptr) {
        ZT_LOG(ZT_LOG_ERROR, "Out of memory!");
    }
    return buffer;
}

// Sums the entries of the open directory dir, named path, and closes it.
bool sumDirectory(DIR* dir, const std::string& path, uint64_t* totalSize, unsigned long* fileCount) {
    const std::string prefix = !path.empty() && isSeparator(path.back()) ? path : path + "/";
    bool empty = true;
    struct dirent* entry;
    while ((entry = readdir(dir)) != nullptr) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        empty = false;
        const std::string child = prefix + entry->d_name;
        DIR* childDir = opendir(child.c_str());
        const bool counted = childDir != nullptr ? sumDirectory(childDir, child, totalSize, fileCount)
                                                 : Content::checkFileSize(child, totalSize, fileCount);
        if (!counted) {
            *totalSize = Content::kUnknownSize;
            *fileCount = 0;
            closedir(dir);
            return false;
        }
    }
    if (empty) {
        ++*fileCount;  // an empty directory is still an item to transfer
    }
    closedir(dir);
    return true;
}

}  // namespace

Content::Content(zTContentType type)
    : m_ullUserData(0),
      m_ullSize(kUnknownSize),
      m_pData(nullptr),
      m_type(type),
      m_nX(0),
      m_nY(0),
      m_nWidth(0),
      m_nHeight(0),
      m_nRotation(0),
      m_nCount(0),
      m_pFile(nullptr) {}

Content::Content(const std::string& name, zTContentType type, uint64_t size) : Content(type) {
    setId(name);
    m_ullSize = size;
}

Content::Content(const std::string& name, zTContentType type) : Content(type) {
    ZT_LOG(ZT_LOG_DEBUG, "Constructing Content with name of %s\n", name.c_str());
    setName(name);
}

Content::Content(const char* name, zTContentType type) : Content(std::string(name != nullptr ? name : ""), type) {}

Content::~Content() {
    closeFile();
    delete[] m_pData;
}

std::string Content::toString() const {
    ZT_LOG(ZT_LOG_DEBUG, "[Content][id:%s]\n", getNameChar());
    return "[Content][id:" + getId() + "]";
}

void Content::setName(const std::string& name) {
    closeFile();  // an open file belongs to the old name
    setId(name);
    uint64_t total = 0;
    unsigned long count = 0;
    if ((m_type & ZT_CONTENT_DIRECTORY_BIT) != 0) {
        if (getDirectorySize(name, &total, &count)) {
            m_ullSize = total;
            m_nCount = count > static_cast<unsigned long>(INT_MAX) ? INT_MAX : static_cast<int>(count);
        }
    } else if (isFileType()) {
        if (checkFileSize(name, &total, &count)) {
            m_ullSize = total;
            m_nCount = 1;
        }
    }
}

int Content::setData(const void* data, uint64_t size) {
    if (isFileType() || m_pData != nullptr || (data == nullptr && size > 0)) {
        ZT_LOG(ZT_LOG_WARNING, "cannot setData, m_type=%x, m_data=%p", static_cast<unsigned>(m_type),
               static_cast<void*>(m_pData));
        return 1;
    }
    unsigned char* buffer = allocateBuffer(size);
    if (buffer == nullptr) {
        return 1;
    }
    if (size > 0) {
        memcpy(buffer, data, static_cast<size_t>(size));
    }
    m_pData = buffer;
    m_ullSize = size;
    m_nCount = 1;
    return 0;
}

void* Content::getData() {
    // A file is read once; later calls return the same buffer so earlier pointers stay valid.
    if (!isFileType() || m_pData != nullptr) {
        return m_pData;
    }
    FILE* file = fopen(getNameChar(), "rb");
    if (file == nullptr) {
        ZT_LOG(ZT_LOG_WARNING, "Cannot open file %s", getNameChar());
        return nullptr;
    }
    unsigned char* buffer = allocateBuffer(m_ullSize);
    if (buffer != nullptr && fread(buffer, 1, static_cast<size_t>(m_ullSize), file) != m_ullSize) {
        ZT_LOG(ZT_LOG_WARNING, "Cannot read file %s", getNameChar());
        delete[] buffer;
        buffer = nullptr;
    }
    fclose(file);
    m_pData = buffer;
    return m_pData;
}

int Content::getData(void* buf, uint64_t len, uint64_t* read) {
    return readPiece(nullptr, buf, len, read);
}

int Content::getData(uint64_t offset, void* buf, uint64_t len, uint64_t* read) {
    return readPiece(&offset, buf, len, read);
}

int Content::readPiece(const uint64_t* offset, void* buf, uint64_t len, uint64_t* read) {
    if (read != nullptr) {
        *read = 0;
    }
    if (buf == nullptr && len > 0) {
        ZT_LOG(ZT_LOG_WARNING, "NULL pointer of input!");
        return 1;
    }
    if (!isFileType()) {
        if (m_pData == nullptr) {
            ZT_LOG(ZT_LOG_WARNING, "cannot getData, m_type=%x, m_data=%p", static_cast<unsigned>(m_type),
                   static_cast<void*>(m_pData));
            return 1;
        }
        // In-memory data is handed out from its start whatever the offset; kept deliberately.
        const uint64_t copied = len < m_ullSize ? len : m_ullSize;
        if (copied > 0) {
            memcpy(buf, m_pData, static_cast<size_t>(copied));
        }
        if (read != nullptr) {
            *read = copied;
        }
        return len <= m_ullSize ? 0 : kShortRead;
    }
    if (m_pFile == nullptr) {
        m_pFile = fopen(getNameChar(), "rb");
        if (m_pFile == nullptr) {
            ZT_LOG(ZT_LOG_WARNING, "Cannot open file %s", getNameChar());
            return 1;
        }
    }
    if (offset != nullptr && (*offset > static_cast<uint64_t>(std::numeric_limits<off_t>::max()) ||
                              fseeko(m_pFile, static_cast<off_t>(*offset), SEEK_SET) != 0)) {
        ZT_LOG(ZT_LOG_WARNING, "Cannot seek file %s", getNameChar());
        closeFile();
        return 1;
    }
    const size_t wanted = len > SIZE_MAX ? SIZE_MAX : static_cast<size_t>(len);
    const size_t got = fread(buf, 1, wanted, m_pFile);
    if (read != nullptr) {
        *read = got;
    }
    if (ferror(m_pFile) != 0) {
        ZT_LOG(ZT_LOG_WARNING, "Cannot read file %s", getNameChar());
        closeFile();
        return 1;
    }
    if (got < len) {
        closeFile();
        return kShortRead;
    }
    // Close as soon as the last byte has gone out, not only on the next, empty read.
    const int next = fgetc(m_pFile);
    if (next == EOF) {
        closeFile();
    } else {
        ungetc(next, m_pFile);
    }
    return 0;
}

void Content::closeFile() {
    if (m_pFile != nullptr) {
        fclose(m_pFile);
        m_pFile = nullptr;
    }
}

Content* Content::getCopyContent() const {
    Content* copy = new (std::nothrow) Content(getId(), m_type, m_ullSize);
    if (copy == nullptr) {
        ZT_LOG(ZT_LOG_FATAL, "Out of memory! Cannot copy content %s", getNameChar());
        return nullptr;
    }
    copy->m_nX = m_nX;
    copy->m_nY = m_nY;
    copy->m_nWidth = m_nWidth;
    copy->m_nHeight = m_nHeight;
    copy->m_nRotation = m_nRotation;
    copy->m_strCustom = m_strCustom;
    copy->m_ullUserData = m_ullUserData;
    return copy;
}

bool Content::checkFileSize(const std::string& path, uint64_t* totalSize, unsigned long* fileCount) {
    if (totalSize == nullptr || fileCount == nullptr) {
        ZT_LOG(ZT_LOG_WARNING, "NULL pointer of input!");
        return false;
    }
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
        ZT_LOG(ZT_LOG_DEBUG, "stat %s failed\n", path.c_str());
        return false;
    }
    *totalSize += static_cast<uint64_t>(info.st_size);
    ++*fileCount;
    return true;
}

bool Content::getDirectorySize(const std::string& path, uint64_t* totalSize, unsigned long* fileCount) {
    if (totalSize == nullptr || fileCount == nullptr) {
        ZT_LOG(ZT_LOG_WARNING, "NULL pointer of input!");
        return false;
    }
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) {
        return checkFileSize(path, totalSize, fileCount);
    }
    return sumDirectory(dir, path, totalSize, fileCount);
}

}  // namespace Common
}  // namespace PELK
