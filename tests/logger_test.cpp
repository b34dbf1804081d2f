// Logger: property-file parsing, modes and levels, the exact line layouts, fallbacks and the
// lifecycle of the two singletons.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "CommonLib/LogSink.h"
#include "CommonLib/ZTLogger.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using namespace PELK::Common;
using pelktest::LogCapture;
using pelktest::TempDir;

namespace {

// LogCapture drops the priority and tag; this sink keeps them as "<priority> <tag> <text>".
std::mutex g_seenMutex;
std::vector<std::string> g_seen;

void recordWithTag(int priority, const char* tag, const char* text) {
    std::lock_guard<std::mutex> guard(g_seenMutex);
    g_seen.push_back(std::to_string(priority) + " " + tag + " " + text);
}

std::vector<std::string> takeSeen() {
    std::lock_guard<std::mutex> guard(g_seenMutex);
    std::vector<std::string> seen;
    seen.swap(g_seen);
    return seen;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

bool fileExists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

const ZTLogger* logger() {
    return ZTLogger::getDefaultLogger();
}

// The "[YYYY-MM-DD hh:mm:ss.ms]" stamp that starts at `at` in `line`. It must carry exactly the
// padding of the line layout (milliseconds unpadded) and a local time between before and after.
std::string expectStamp(const std::string& line, size_t at, time_t before, time_t after) {
    const std::string stamp = line.substr(at, line.find(']', at) + 1 - at);
    struct tm local = {};
    int millis = -1;
    if (sscanf(stamp.c_str(), "[%d-%d-%d %d:%d:%d.%d]", &local.tm_year, &local.tm_mon, &local.tm_mday,
               &local.tm_hour, &local.tm_min, &local.tm_sec, &millis) != 7) {
        ADD_FAILURE() << "no stamp at " << at << " in " << line;
        return stamp;
    }
    char canonical[64];
    snprintf(canonical, sizeof(canonical), "[%04d-%02d-%02d %02d:%02d:%02d.%d]", local.tm_year, local.tm_mon,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, millis);
    EXPECT_EQ(stamp, canonical);
    EXPECT_LT(millis, 1000);
    local.tm_year -= 1900;
    local.tm_mon -= 1;
    local.tm_isdst = -1;
    const time_t when = mktime(&local);
    EXPECT_GE(when, before - 1);
    EXPECT_LE(when, after + 1);
    return stamp;
}

}  // namespace

TEST(LoggerProperties, ParsesLinesByTheirRules) {
    TempDir dir;
    const std::string fileLine = "loggerFile=" + dir.file("zt.log") + "\n";
    const std::string longName(120, 'n');
    struct Case {
        std::string text;
        int mode, level;
        std::string name, file;
    };
    const Case cases[] = {
        {"", 0, 0, "ZTLogger", "/sdcard/PELK/zt.log"},
        {"#loggerMode=1\n loggerLevel=3\nloggerMode 1\n\nloggerName\n", 0, 0, "ZTLogger", "/sdcard/PELK/zt.log"},
        {fileLine + "loggerModeX=3\nloggerLevelling=2\n", 3, 2, "ZTLogger", dir.file("zt.log")},
        {"loggerLevel=2\nloggerLevel=7\nloggerLevel=-1\nloggerMode=x\nother=1\n", 0, 2, "ZTLogger",
         "/sdcard/PELK/zt.log"},
        {"loggerMode=1\nloggerLevel=1\nloggerMode=0\nloggerLevel=3", 0, 3, "ZTLogger", "/sdcard/PELK/zt.log"},
        {"loggerName=first second\nloggerFile=/a/b c\n", 0, 0, "first", "/a/b"},
        {"loggerName=" + longName + "\n", 0, 0, longName.substr(0, 99), "/sdcard/PELK/zt.log"},
        {"loggerName=abc\nloggerName=\nloggerFile=/x\nloggerFile=  \n", 0, 0, "ZTLogger", "/sdcard/PELK/zt.log"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        LogCapture capture = LogCapture::withProperties(c.text);
        const ZTLoggerConfig* config = ZTLoggerConfig::getInstance();
        EXPECT_EQ(config->getMode(), c.mode);
        EXPECT_EQ(config->getLevel(), c.level);
        EXPECT_EQ(config->getLoggerName(), c.name);
        EXPECT_EQ(config->getLogFile(), c.file);
    }
}

TEST(LoggerOutput, ModeChoosesAndroidLogFileBothOrNothing) {
    for (int mode = 0; mode <= 3; ++mode) {
        SCOPED_TRACE(mode);
        TempDir dir;
        const std::string path = dir.file("zt.log");
        LogCapture capture(mode, 3, "loggerFile=" + path + "\n");
        ZT_LOG(ZT_LOG_DEBUG, "mode %d line", mode);
        const std::string text = "mode " + std::to_string(mode) + " line";
        EXPECT_EQ(capture.count(text), (mode & 1) != 0 ? 1u : 0u);
        EXPECT_EQ(fileExists(path), mode >= 2);
        EXPECT_EQ(readFile(path).find(text) != std::string::npos, mode >= 2);
    }
}

TEST(LoggerOutput, LevelFiltersAndEveryLineIsDebugPriorityWithTagZt) {
    for (int level = 0; level <= 3; ++level) {
        SCOPED_TRACE(level);
        LogCapture capture(1, level);
        PELK::Common::setAndroidLogSinkForTesting(recordWithTag);
        takeSeen();
        for (int written = 0; written <= 3; ++written) {
            logger()->printf(written, "f.cpp", 1, "fn", "at %d", written);
        }
        const std::vector<std::string> seen = takeSeen();
        ASSERT_EQ(seen.size(), static_cast<size_t>(level) + 2);
        EXPECT_EQ(seen[0], "3 zT [SYSTEM]: Init for Logger.\n");
        for (int i = 0; i <= level; ++i) {
            const std::string expected = std::string("3 zT ") + "EWID"[i] + "/fn(   1): at " + std::to_string(i) + " \n";
            EXPECT_EQ(seen[i + 1].substr(0, expected.size()), expected);
        }
    }
}

TEST(LoggerFormat, LongAndShortLinesFollowTheLayout) {
    TempDir dir;
    const std::string path = dir.file("zt.log");
    LogCapture capture(3, 3, "loggerFile=" + path + "\nloggerName=UnitName\n");
    const time_t before = time(nullptr);
    logger()->printf(ZT_LOG_WARNING, "/home/src/main.cpp", 7, "fmtCheck", "hello %d", 42);
    const time_t after = time(nullptr);

    const std::string head = "W/fmtCheck(   7): hello 42 \n";
    std::vector<std::string> lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    const std::string fileText = readFile(path);
    for (const auto& form : {std::make_pair(lines[1], 10), std::make_pair(fileText, 32)}) {
        const std::string prefix = head + std::string(form.second, '\t') + "[UnitName]";
        const std::string stamp = expectStamp(form.first, prefix.size(), before, after);
        EXPECT_EQ(form.first, prefix + stamp + "<main.cpp>\n");
    }

    capture.clear();
    logger()->printError("e1");
    logger()->printWarning("w2");
    logger()->printInfo("i3");
    logger()->printDebug("d4");
    const char* const expected[] = {"[UnitName][E][e1]\n", "[UnitName][W][w2]\n", "[UnitName][I][i3]\n",
                                    "[UnitName][D][d4]\n"};
    lines = capture.lines();
    ASSERT_EQ(lines.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(lines[i], expectStamp(lines[i], 0, before, time(nullptr)) + expected[i]);
    }
    const std::string withShort = readFile(path);
    EXPECT_EQ(withShort.substr(withShort.size() - lines[3].size()), lines[3]);
}

TEST(LoggerFormat, ShowsFileNameAfterLastSeparatorAndCutsLongMessages) {
    LogCapture capture(1, 3);
    const struct {
        const char* path;
        const char* shown;
    } cases[] = {
        {"C:\\work\\src\\a.cpp", "<a.cpp>\n"}, {"x\\y/z.cpp", "<y/z.cpp>\n"}, {"/usr/src/b.cpp", "<b.cpp>\n"},
        {"c.cpp", "<c.cpp>\n"},                {"dir/", "<>\n"},
    };
    for (const auto& c : cases) {
        logger()->printf(ZT_LOG_INFO, c.path, 12345, "fn", "m");
        const std::string line = capture.lines().back();
        EXPECT_EQ(line.substr(0, 16), "I/fn(12345): m \n") << c.path;
        EXPECT_EQ(line.substr(line.size() - strlen(c.shown)), c.shown) << c.path;
    }
    const std::string longText(300, 'x');
    logger()->printf(ZT_LOG_ERROR, "a.cpp", 12, "fn", "%s", longText.c_str());
    const std::string expected = "E/fn(  12): " + std::string(239, 'x') + " \n\t";
    EXPECT_EQ(capture.lines().back().substr(0, expected.size()), expected);
}

TEST(LoggerLifecycle, SystemLinesReachAndroidLogEvenWithoutPropertyFile) {
    PELK::Common::AndroidLogSink previous = PELK::Common::setAndroidLogSinkForTesting(recordWithTag);
    ZTLogger::destroyDefaultLogger();
    PELK::Common::setPropertyFilePathForTesting(pelktest::kQuietPropertyFile);
    takeSeen();
    ZT_LOG(ZT_LOG_ERROR, "not written");
    logger()->printError("nor this");
    ZTLogger::destroyDefaultLogger();
    PELK::Common::setAndroidLogSinkForTesting(previous);
    const std::vector<std::string> expected = {"3 zT [SYSTEM]: Init for Logger.\n", "3 zT [SYSTEM]: Destroy Logger.\n",
                                               "3 zT ZTLogger destroyed.\n"};
    EXPECT_EQ(takeSeen(), expected);
}

TEST(LoggerLifecycle, UnopenableLogFileFallsBackToAndroidLog) {
    for (int mode : {2, 3}) {
        TempDir dir;
        const std::string path = dir.file("missing/zt.log");
        LogCapture capture(mode, 3, "loggerFile=" + path + "\n");
        ZT_LOG(ZT_LOG_ERROR, "still here");
        EXPECT_EQ(ZTLoggerConfig::getInstance()->getMode(), 1);
        const std::vector<std::string> lines = capture.lines();
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_EQ(lines[1], "[SYSTEM]: Cannot open file:" + path + " for writting!\n");
        EXPECT_NE(lines[2].find("): still here \n"), std::string::npos);
    }
}

TEST(LoggerLifecycle, RecreationRereadsPropertiesAndTruncatesTheFile) {
    TempDir dir;
    const std::string path = dir.file("zt.log");
    const std::string common = "loggerMode=3\nloggerLevel=3\nloggerFile=" + path + "\n";
    LogCapture capture = LogCapture::withProperties(common + "loggerName=First\n");
    ZT_LOG(ZT_LOG_INFO, "one");
    capture.dir().write("log.properties", common + "loggerName=Second\n");
    capture.clear();
    ZTLogger::destroyDefaultLogger();
    const std::vector<std::string> destroyLines = {"[SYSTEM]: Destroy Logger.\n", "ZTLogger destroyed.\n"};
    EXPECT_EQ(capture.lines(), destroyLines);
    ZT_LOG(ZT_LOG_INFO, "two");
    EXPECT_EQ(capture.count("[Second]"), 1u);
    const std::string fileText = readFile(path);
    EXPECT_EQ(fileText.find("one"), std::string::npos);
    EXPECT_NE(fileText.find("[Second]"), std::string::npos);
}

TEST(LoggerDeathTest, FatalIsWrittenAsErrorThenExitsWithOne) {
    {
        LogCapture capture(1, 0);
        EXPECT_EXIT(
            {
                PELK::Common::setAndroidLogSinkForTesting(nullptr);
                logger()->printf(ZT_LOG_FATAL, "f.cpp", 12, "dying", "code %d", 5);
            },
            ::testing::ExitedWithCode(1), "D/zT: E/dying\\(  12\\): code 5 ");
    }
    EXPECT_EXIT(logger()->printf(ZT_LOG_FATAL, "f.cpp", 1, "quiet", "gone"), ::testing::ExitedWithCode(1), "");
}

TEST(LoggerConcurrency, FirstCallsFromManyThreadsBuildOneLogger) {
    LogCapture capture(1, 3);
    const int kThreads = 8;
    for (int round = 0; round < 10; ++round) {
        ZTLogger::destroyDefaultLogger();
        capture.clear();
        std::atomic<bool> go{false};
        std::vector<const ZTLogger*> seen(kThreads, nullptr);
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&go, &seen, i] {
                while (!go.load()) {
                    std::this_thread::yield();
                }
                seen[i] = ZTLogger::getDefaultLogger();
                ZT_LOG(ZT_LOG_DEBUG, "thread %d", i);
            });
        }
        go.store(true);
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(capture.count("[SYSTEM]: Init for Logger.\n"), 1u);
        EXPECT_EQ(capture.count("): thread "), static_cast<size_t>(kThreads));
        for (const ZTLogger* one : seen) {
            EXPECT_EQ(one, seen[0]);
        }
    }
}
