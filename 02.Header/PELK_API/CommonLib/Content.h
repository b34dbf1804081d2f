// Object, a base carrying a string identifier, and Content: one named item whose data is either
// a block held in memory or a file (or directory) on disk named by the content's name, with
// optional geometry, a count, a user value and a custom text. A Content owns its data buffer and
// the file it keeps open during a piecewise read. Not thread-safe: one thread at a time.
#ifndef PELK_COMMONLIB_CONTENT_H
#define PELK_COMMONLIB_CONTENT_H

#include <cstdint>
#include <cstdio>
#include <string>

namespace PELK {
namespace Common {

class Object {
public:
    virtual ~Object() = default;
    // Logs a one-line description at debug level and returns it.
    virtual std::string toString() const = 0;

    const std::string& getId() const { return m_strId; }
    void setId(const std::string& id) { m_strId = id; }

protected:
    Object() = default;
    Object(const Object&) = default;
    Object& operator=(const Object&) = default;

private:
    std::string m_strId;
};

// A set of bits. ZT_CONTENT_FILE_BIT: the data lives in the file named by the content's name;
// ZT_CONTENT_DIRECTORY_BIT: the name is a directory. Without either the data is held in memory.
enum zTContentType : int {
    ZT_CONTENT_MEMORY = 0x0000,
    ZT_CONTENT_TEXT = 0x0001,
    ZT_CONTENT_IMAGE = 0x0002,
    ZT_CONTENT_AUDIO = 0x0004,
    ZT_CONTENT_VIDEO = 0x0008,
    ZT_CONTENT_FILE_BIT = 0x1000,
    ZT_CONTENT_DIRECTORY_BIT = 0x4000,

    ZT_CONTENT_FILE = ZT_CONTENT_FILE_BIT,
    ZT_CONTENT_TEXT_FILE = ZT_CONTENT_FILE_BIT | ZT_CONTENT_TEXT,
    ZT_CONTENT_IMAGE_FILE = ZT_CONTENT_FILE_BIT | ZT_CONTENT_IMAGE,
    ZT_CONTENT_AUDIO_FILE = ZT_CONTENT_FILE_BIT | ZT_CONTENT_AUDIO,
    ZT_CONTENT_VIDEO_FILE = ZT_CONTENT_FILE_BIT | ZT_CONTENT_VIDEO,
    ZT_CONTENT_DIRECTORY = ZT_CONTENT_DIRECTORY_BIT,
};

class Content : public Object {
public:
    // The size that means "unknown".
    static constexpr uint64_t kUnknownSize = UINT64_MAX;

    // getData(buf, ...) results besides 0 (done) and 1 (failed): fewer bytes than asked for.
    static constexpr int kShortRead = 9;

    explicit Content(zTContentType type);
    // Takes size as given; the file system is not consulted.
    Content(const std::string& name, zTContentType type, uint64_t size);
    // These two size a file or directory type from the disk (see setName).
    Content(const std::string& name, zTContentType type);
    Content(const char* name, zTContentType type);
    ~Content() override;
    Content(const Content&) = delete;
    Content& operator=(const Content&) = delete;

    std::string toString() const override;

    // Stores the name. For a directory type sets size and count to the directory's total bytes
    // and number of items; for a file type to the file's size and 1. Unchanged when that fails.
    void setName(const std::string& name);
    std::string getName() const { return getId(); }
    // Valid until the name changes.
    const char* getNameChar() const { return getId().c_str(); }

    zTContentType getType() const { return m_type; }
    void setType(zTContentType type) { m_type = type; }
    int getX() const { return m_nX; }
    void setX(int x) { m_nX = x; }
    int getY() const { return m_nY; }
    void setY(int y) { m_nY = y; }
    int getWidth() const { return m_nWidth; }
    void setWidth(int width) { m_nWidth = width; }
    int getHeight() const { return m_nHeight; }
    void setHeight(int height) { m_nHeight = height; }
    int getRotation() const { return m_nRotation; }
    void setRotation(int rotation) { m_nRotation = rotation; }
    uint64_t getSize() const { return m_ullSize; }
    void setSize(uint64_t size) { m_ullSize = size; }
    uint64_t getUserData() const { return m_ullUserData; }
    void setUserData(uint64_t userData) { m_ullUserData = userData; }
    int getCount() const { return m_nCount; }
    void setCount(int count) { m_nCount = count; }
    std::string getCustomString() const { return m_strCustom; }
    void setCustomString(const std::string& text) { m_strCustom = text; }

    // Copies size bytes into a buffer of this content; count becomes 1. 1 for a file type, when
    // data is set already, or when out of memory.
    int setData(const void* data, uint64_t size);
    // The data buffer, owned by this content. For a file type the whole file (size bytes) is read
    // into it on the first call; null when the file cannot be read.
    void* getData();
    // Copies up to len bytes into buf and stores the number copied in *read (when given).
    // 0 when len bytes were copied, kShortRead when fewer were there, 1 on failure.
    // A file type keeps its file open between pieces and closes it after the last byte, on a
    // short read or on failure; in-memory data is always handed out from its start.
    int getData(void* buf, uint64_t len, uint64_t* read);
    // As above, reading a file type from offset.
    int getData(uint64_t offset, void* buf, uint64_t len, uint64_t* read);

    // A new content with the same name, type, size, geometry, custom string and user data, but
    // no data and count 0. The caller owns it. Exits the process when out of memory.
    Content* getCopyContent() const;

    // Adds the size of the file at path to *totalSize and 1 to *fileCount; false if stat fails.
    static bool checkFileSize(const std::string& path, uint64_t* totalSize, unsigned long* fileCount);
    // Adds the bytes and items below path (an empty directory counts as one item; a path that
    // is no directory is counted as a file). On the first failure sets *totalSize to
    // kUnknownSize and *fileCount to 0 and returns false. Symbolic links are followed.
    static bool getDirectorySize(const std::string& path, uint64_t* totalSize, unsigned long* fileCount);

private:
    bool isFileType() const { return (m_type & ZT_CONTENT_FILE_BIT) != 0; }
    int readPiece(const uint64_t* offset, void* buf, uint64_t len, uint64_t* read);
    void closeFile();

    uint64_t m_ullUserData;
    uint64_t m_ullSize;
    unsigned char* m_pData;
    zTContentType m_type;
    int m_nX;
    int m_nY;
    int m_nWidth;
    int m_nHeight;
    int m_nRotation;
    int m_nCount;
    FILE* m_pFile;
    std::string m_strCustom;
};

}  // namespace Common
}  // namespace PELK

#endif  // PELK_COMMONLIB_CONTENT_H
