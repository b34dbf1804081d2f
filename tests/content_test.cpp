#include "CommonLib/Content.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "support/LogCapture.h"
#include "support/TempDir.h"

using PELK::Common::Content;

namespace {

const uint64_t kUnknown = Content::kUnknownSize;

// Reads one piece and returns it as text; *result receives the call's result code.
std::string piece(Content& content, const uint64_t* offset, uint64_t len, int* result) {
    char buffer[32] = {};
    uint64_t read = 99;
    *result = offset != nullptr ? content.getData(*offset, buffer, len, &read) : content.getData(buffer, len, &read);
    return std::string(buffer, static_cast<size_t>(read));
}

// Puts new bytes under the same name; a handle opened before still sees the old file.
void replaceFile(const pelktest::TempDir& dir, const std::string& name, const std::string& text) {
    unlink(dir.file(name).c_str());
    dir.write(name, text);
}

}  // namespace

TEST(ContentTest, DirectorySizeCountsNestedFilesAndEmptyDirectories) {
    pelktest::TempDir dir;
    const std::string root = dir.file("root");
    for (const char* sub : {"root", "root/sub", "root/sub/deeper", "root/sub/emptyA", "root/emptyB", "lonely"}) {
        ASSERT_EQ(0, mkdir(dir.file(sub).c_str(), 0700));
    }
    dir.write("root/a.txt", "abc");
    dir.write("root/sub/b.bin", "0123456789");
    dir.write("root/sub/deeper/c", "12345");

    for (const std::string& name : {root, root + "/"}) {
        Content content(name, PELK::Common::ZT_CONTENT_DIRECTORY);
        EXPECT_EQ(18u, content.getSize()) << name;
        EXPECT_EQ(5, content.getCount()) << name;  // three files, two empty directories
    }
    Content lonely(dir.file("lonely"), PELK::Common::ZT_CONTENT_DIRECTORY);
    EXPECT_EQ(0u, lonely.getSize());
    EXPECT_EQ(1, lonely.getCount());

    // Totals accumulate; a plain file counts as itself.
    uint64_t total = 100;
    unsigned long count = 2;
    EXPECT_TRUE(Content::getDirectorySize(root + "/sub", &total, &count));
    EXPECT_EQ(115u, total);
    EXPECT_EQ(5u, count);
    EXPECT_TRUE(Content::getDirectorySize(root + "/a.txt", &total, &count));
    EXPECT_EQ(118u, total);
    EXPECT_EQ(6u, count);
}

TEST(ContentTest, DirectorySizeFailureMarksTotalsUnknown) {
    pelktest::TempDir dir;
    ASSERT_EQ(0, mkdir(dir.file("tree").c_str(), 0700));
    ASSERT_EQ(0, mkdir(dir.file("tree/inner").c_str(), 0700));
    dir.write("tree/inner/ok", "xy");
    ASSERT_EQ(0, symlink(dir.file("gone").c_str(), dir.file("tree/inner/dangling").c_str()));

    pelktest::LogCapture log;
    uint64_t total = 7;
    unsigned long count = 3;
    EXPECT_FALSE(Content::getDirectorySize(dir.file("tree"), &total, &count));
    EXPECT_EQ(kUnknown, total);
    EXPECT_EQ(0u, count);
    EXPECT_TRUE(log.contains("stat " + dir.file("tree/inner/dangling") + " failed\n"));

    Content content(dir.file("tree"), PELK::Common::ZT_CONTENT_DIRECTORY);
    EXPECT_EQ(kUnknown, content.getSize());
    EXPECT_EQ(0, content.getCount());

    // A missing top-level path is only a failed file check: the totals stay as they were.
    total = 7;
    count = 3;
    EXPECT_FALSE(Content::getDirectorySize(dir.file("missing"), &total, &count));
    EXPECT_EQ(7u, total);
    EXPECT_EQ(3u, count);
    EXPECT_FALSE(Content::getDirectorySize(dir.path(), nullptr, &count));
}

TEST(ContentTest, FileSizeFromDiskAndNameOnlyForOtherTypes) {
    pelktest::TempDir dir;
    const std::string path = dir.write("f.bin", std::string(1234, 'x'));
    pelktest::LogCapture log;

    Content file(path.c_str(), PELK::Common::ZT_CONTENT_FILE);
    EXPECT_EQ(1234u, file.getSize());
    EXPECT_EQ(1, file.getCount());
    EXPECT_EQ(path, file.getName());
    EXPECT_TRUE(log.contains("Constructing Content with name of " + path + "\n"));

    Content missing(dir.file("none"), PELK::Common::ZT_CONTENT_IMAGE_FILE);
    EXPECT_EQ(kUnknown, missing.getSize());
    EXPECT_EQ(0, missing.getCount());
    EXPECT_TRUE(log.contains("stat " + dir.file("none") + " failed\n"));

    Content memory(path, PELK::Common::ZT_CONTENT_TEXT);
    EXPECT_EQ(kUnknown, memory.getSize());
    EXPECT_EQ(0, memory.getCount());

    EXPECT_EQ("[Content][id:" + path + "]", file.toString());
    EXPECT_TRUE(log.contains("[Content][id:" + path + "]\n"));
}

TEST(ContentTest, FileIsReadInPiecesWithTheFileKeptOpenBetweenThem) {
    pelktest::TempDir dir;
    const std::string path = dir.write("data", "0123456789");
    Content content(path, PELK::Common::ZT_CONTENT_FILE);
    int result = -1;

    EXPECT_EQ("0123", piece(content, nullptr, 4, &result));
    EXPECT_EQ(0, result);
    replaceFile(dir, "data", "ABCDEFGHIJ");
    EXPECT_EQ("4567", piece(content, nullptr, 4, &result));  // still the file opened first
    EXPECT_EQ(0, result);
    EXPECT_EQ("89", piece(content, nullptr, 4, &result));
    EXPECT_EQ(Content::kShortRead, result);
    EXPECT_EQ("ABCDE", piece(content, nullptr, 5, &result));  // reopened after the short read
    EXPECT_EQ("FGHIJ", piece(content, nullptr, 5, &result));
    EXPECT_EQ(0, result);
    replaceFile(dir, "data", "abcdefghij");
    EXPECT_EQ("ab", piece(content, nullptr, 2, &result));  // closed after its last byte
}

TEST(ContentTest, FileIsReadFromOffsets) {
    pelktest::TempDir dir;
    Content content(dir.write("data", "0123456789"), PELK::Common::ZT_CONTENT_FILE);
    struct Row {
        uint64_t offset;
        uint64_t len;
        const char* expected;
        int result;
    };
    const Row rows[] = {{6, 3, "678", 0}, {1, 2, "12", 0}, {8, 5, "89", Content::kShortRead},
                        {0, 10, "0123456789", 0}, {20, 4, "", Content::kShortRead}};
    for (const Row& row : rows) {
        int result = -1;
        EXPECT_EQ(row.expected, piece(content, &row.offset, row.len, &result)) << row.offset;
        EXPECT_EQ(row.result, result) << row.offset;
    }
    EXPECT_EQ(std::string("0123456789"), std::string(static_cast<const char*>(content.getData()), 10));
}

TEST(ContentTest, UnreadableFileOrMissingDataFailsWithItsLogLine) {
    pelktest::TempDir dir;
    pelktest::LogCapture log;
    Content file(dir.file("none"), PELK::Common::ZT_CONTENT_FILE);
    char buffer[8];
    uint64_t read = 5;
    EXPECT_EQ(1, file.getData(buffer, sizeof(buffer), &read));
    EXPECT_EQ(0u, read);
    EXPECT_EQ(nullptr, file.getData());
    EXPECT_EQ(2u, log.count("Cannot open file " + dir.file("none")));
    EXPECT_EQ(1, file.setData("x", 1));

    Content empty(PELK::Common::ZT_CONTENT_TEXT);
    EXPECT_EQ(1, empty.getData(buffer, sizeof(buffer), &read));
    EXPECT_EQ(1, empty.getData(2, buffer, sizeof(buffer), &read));
    EXPECT_EQ(2u, log.count("cannot getData, m_type=1, m_data="));
    EXPECT_EQ(1, empty.getData(nullptr, 4, &read));
}

TEST(ContentTest, InMemoryDataIsCopiedAndHandedOutFromItsStart) {
    char source[] = "hello";
    Content content(PELK::Common::ZT_CONTENT_TEXT);
    EXPECT_EQ(kUnknown, content.getSize());
    ASSERT_EQ(0, content.setData(source, 5));
    source[0] = 'J';
    EXPECT_EQ(5u, content.getSize());
    EXPECT_EQ(1, content.getCount());
    EXPECT_EQ(0, memcmp("hello", content.getData(), 5));
    EXPECT_EQ(1, content.setData("other", 5));

    int result = -1;
    EXPECT_EQ("hel", piece(content, nullptr, 3, &result));
    EXPECT_EQ(0, result);
    EXPECT_EQ("hello", piece(content, nullptr, 5, &result));
    EXPECT_EQ(0, result);
    EXPECT_EQ("hello", piece(content, nullptr, 9, &result));
    EXPECT_EQ(Content::kShortRead, result);
    const uint64_t offset = 2;
    EXPECT_EQ("he", piece(content, &offset, 2, &result));  // the offset applies to files only
}

TEST(ContentTest, CopyTakesDescriptionButNotDataOrCount) {
    Content original("clip", PELK::Common::ZT_CONTENT_VIDEO);
    original.setX(1);
    original.setY(-2);
    original.setWidth(640);
    original.setHeight(480);
    original.setRotation(90);
    original.setCustomString("custom");
    original.setUserData(0x1122334455667788ULL);
    ASSERT_EQ(0, original.setData("abcd", 4));
    original.setCount(7);

    std::unique_ptr<Content> copy(original.getCopyContent());
    ASSERT_NE(nullptr, copy);
    EXPECT_EQ("clip", copy->getName());
    EXPECT_EQ(PELK::Common::ZT_CONTENT_VIDEO, copy->getType());
    EXPECT_EQ(4u, copy->getSize());
    EXPECT_EQ((std::vector<int>{1, -2, 640, 480, 90}),
              (std::vector<int>{copy->getX(), copy->getY(), copy->getWidth(), copy->getHeight(), copy->getRotation()}));
    EXPECT_EQ("custom", copy->getCustomString());
    EXPECT_EQ(0x1122334455667788ULL, copy->getUserData());
    EXPECT_EQ(0, copy->getCount());
    EXPECT_EQ(nullptr, copy->getData());
    EXPECT_EQ(0, copy->setData("xyz", 3));
}
