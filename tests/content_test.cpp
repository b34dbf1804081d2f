// Content: directory and file sizes, reading files and memory in pieces, copies.
#include "CommonLib/Content.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <tuple>
#include <vector>

#include "support/LogCapture.h"
#include "support/TempDir.h"

using namespace PELK::Common;

namespace {

const uint64_t kUnknown = Content::kUnknownSize;

// Reads one piece, from offset unless it is negative, and checks the bytes read and the result.
void expectPiece(Content& content, long offset, uint64_t len, const std::string& text, int result) {
    char buffer[32] = {};
    uint64_t read = 99;
    EXPECT_EQ(result, offset < 0 ? content.getData(buffer, len, &read)
                                 : content.getData(static_cast<uint64_t>(offset), buffer, len, &read)) << text;
    EXPECT_EQ(text, std::string(buffer, read < sizeof(buffer) ? static_cast<size_t>(read) : sizeof(buffer)));
}

}  // namespace

TEST(ContentTest, DirectorySizeCountsFilesAndEmptyDirectoriesOrBecomesUnknown) {
    pelktest::TempDir dir;
    for (const char* sub : {"root", "root/sub", "root/sub/deeper", "root/sub/emptyA", "root/emptyB", "bad", "bad/in"})
        ASSERT_EQ(0, mkdir(dir.file(sub).c_str(), 0700));
    dir.write("root/a.txt", "abc");
    dir.write("root/sub/b.bin", "0123456789");
    dir.write("root/sub/deeper/c", "12345");
    dir.write("bad/in/ok", "xy");
    ASSERT_EQ(0, symlink(dir.file("gone").c_str(), dir.file("bad/in/dangling").c_str()));
    const std::string root = dir.file("root");
    Content tree(root, ZT_CONTENT_DIRECTORY), empty(root + "/emptyB", ZT_CONTENT_DIRECTORY);
    EXPECT_EQ(std::make_pair(uint64_t{18}, 5), std::make_pair(tree.getSize(), tree.getCount()));  // 2 empty dirs
    EXPECT_EQ(std::make_pair(uint64_t{0}, 1), std::make_pair(empty.getSize(), empty.getCount()));

    uint64_t total = 100;  // totals accumulate; a plain file counts as itself
    unsigned long count = 2;
    EXPECT_TRUE(Content::getDirectorySize(root + "/sub", &total, &count));
    EXPECT_TRUE(Content::getDirectorySize(root + "/a.txt", &total, &count));
    EXPECT_FALSE(Content::getDirectorySize(dir.file("missing"), &total, &count));  // only a failed file check
    EXPECT_EQ(std::make_pair(uint64_t{118}, 6ul), std::make_pair(total, count));

    pelktest::LogCapture log;
    EXPECT_FALSE(Content::getDirectorySize(dir.file("bad") + "/", &total, &count));
    EXPECT_EQ(std::make_pair(kUnknown, 0ul), std::make_pair(total, count));
    EXPECT_TRUE(log.contains("stat " + dir.file("bad/in/dangling") + " failed\n"));  // no '/' added after "bad/"
    EXPECT_FALSE(Content::getDirectorySize(dir.path(), nullptr, &count));
}

// A file's size comes from the disk; other types built from a name have none.
TEST(ContentTest, FileIsSizedFromDiskAndReadInPiecesKeptOpenBetweenThemOrFromOffsets) {
    pelktest::TempDir dir;
    const std::string path = dir.write("data", "0123456789");
    Content content(path.c_str(), ZT_CONTENT_FILE), text(path, ZT_CONTENT_TEXT);
    Content missing(dir.file("none"), ZT_CONTENT_FILE);
    EXPECT_EQ(std::make_pair(uint64_t{10}, 1), std::make_pair(content.getSize(), content.getCount()));
    EXPECT_EQ(std::make_pair(kUnknown, 0), std::make_pair(missing.getSize(), missing.getCount()));
    EXPECT_EQ(std::make_pair(kUnknown, 0), std::make_pair(text.getSize(), text.getCount()));
    EXPECT_EQ("[Content][id:" + path + "]", content.toString());
    expectPiece(content, -1, 4, "0123", 0);
    unlink(path.c_str());  // new bytes under the same name: an open handle still sees the old ones
    dir.write("data", "ABCDEFGHIJ");
    expectPiece(content, -1, 4, "4567", 0);
    expectPiece(content, -1, 4, "89", Content::kShortRead);
    expectPiece(content, -1, 5, "ABCDE", 0);  // reopened after the short read
    expectPiece(content, -1, 5, "FGHIJ", 0);
    unlink(path.c_str());
    dir.write("data", "abcdefghij");
    expectPiece(content, -1, 2, "ab", 0);  // closed after its last byte
    expectPiece(content, 6, 3, "ghi", 0);
    expectPiece(content, 1, 2, "bc", 0);
    expectPiece(content, 20, 4, "", Content::kShortRead);
    EXPECT_EQ(std::string("abcdefghij"), std::string(static_cast<const char*>(content.getData()), 10));

    expectPiece(missing, -1, 8, "", 1);
    EXPECT_EQ(nullptr, missing.getData());
    EXPECT_EQ(1, missing.setData("x", 1));
}

// Data set in memory is copied and handed out from its start; a copy of the content takes its
// description (size included) but neither its data nor its count.
TEST(ContentTest, InMemoryDataIsHandedOutFromItsStartAndACopyTakesOnlyTheDescription) {
    char source[] = "hello";
    Content content("clip", ZT_CONTENT_VIDEO);
    expectPiece(content, -1, 8, "", 1);
    expectPiece(content, 2, 8, "", 1);
    ASSERT_EQ(0, content.setData(source, 5));
    source[0] = 'J';
    EXPECT_EQ(std::make_pair(uint64_t{5}, 1), std::make_pair(content.getSize(), content.getCount()));
    EXPECT_EQ(0, memcmp("hello", content.getData(), 5));
    EXPECT_EQ(1, content.setData("other", 5));
    expectPiece(content, -1, 3, "hel", 0);
    expectPiece(content, -1, 5, "hello", 0);
    expectPiece(content, -1, 9, "hello", Content::kShortRead);
    expectPiece(content, 2, 2, "he", 0);  // the offset applies to files only
    EXPECT_EQ(1, content.getData(nullptr, 4, nullptr));

    int value = 0;
    for (auto set : {&Content::setX, &Content::setY, &Content::setWidth, &Content::setHeight, &Content::setRotation})
        (content.*set)(++value);
    content.setCustomString("custom");
    content.setUserData(0x1122334455667788ULL);
    content.setCount(7);
    std::unique_ptr<Content> copy(content.getCopyContent());
    ASSERT_NE(nullptr, copy);
    EXPECT_EQ(std::make_tuple(std::string("clip"), ZT_CONTENT_VIDEO, uint64_t{5}),
              std::make_tuple(copy->getName(), copy->getType(), copy->getSize()));
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4, 5}),
              (std::vector<int>{copy->getX(), copy->getY(), copy->getWidth(), copy->getHeight(), copy->getRotation()}));
    EXPECT_EQ(std::make_tuple(std::string("custom"), uint64_t{0x1122334455667788}, 0),
              std::make_tuple(copy->getCustomString(), copy->getUserData(), copy->getCount()));
    EXPECT_EQ(nullptr, copy->getData());
    EXPECT_EQ(0, copy->setData("xyz", 3));
}
