// Logger: property parsing, modes and levels, exact line layouts, fallbacks, singleton lifecycle.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <thread>
#include <utility>

#include "CommonLib/LogSink.h"
#include "CommonLib/ZTLogger.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using namespace PELK::Common;
using namespace pelktest;

namespace {

const ZTLogger* logger() { return ZTLogger::getDefaultLogger(); }

// The "[YYYY-MM-DD hh:mm:ss.ms]" stamp at `at` in line: zero-padded fields, unpadded
// milliseconds, a local time within a second of [before, now].
std::string stampAt(const std::string& line, size_t at, time_t before) {
    const std::string stamp = line.substr(at, line.find(']', at) + 1 - at);
    bool matched = false;
    for (time_t t = before - 1, last = time(nullptr) + 1; t <= last && !matched; ++t) {
        struct tm local = {};
        char head[32];
        const size_t size = strftime(head, sizeof(head), "[%Y-%m-%d %H:%M:%S.", localtime_r(&t, &local));
        const std::string millis = stamp.substr(std::min(size, stamp.size()));
        const int value = atoi(millis.c_str());
        matched = stamp.compare(0, size, head) == 0 && millis == std::to_string(value) + "]" && value >= 0 &&
                  value < 1000;
    }
    EXPECT_TRUE(matched) << "stamp at " << at << " in " << line;
    return stamp;
}

}  // namespace

TEST(LoggerProperties, ParsesLinesByTheirRules) {
    TempDir dir;
    const std::string longName(120, 'n'), dflt = " /sdcard/PELK/zt.log", file = dir.file("zt.log");
    const std::pair<std::string, std::string> cases[] = {  // text; mode, level, name and file
        {"#loggerMode=1\n loggerLevel=3\nloggerMode 1\n\nloggerName\n", "0 0 ZTLogger" + dflt},
        {"loggerFile=" + file + "\nloggerModeX=3\nloggerLevelling=2\n", "3 2 ZTLogger " + file},
        {"loggerMode=1\nloggerLevel=2\nloggerLevel=7\nloggerLevel=-1\nloggerMode=x\nother=1\nloggerMode=0",
         "0 2 ZTLogger" + dflt},
        {"loggerName=" + longName + " second\nloggerFile=/a/b c\n", "0 0 " + longName.substr(0, 99) + " /a/b"},
        {"loggerName=abc\nloggerName=\nloggerFile=/x\nloggerFile=  \n", "0 0 ZTLogger" + dflt},
    };
    for (const auto& c : cases) {
        LogCapture capture(c.first);
        const ZTLoggerConfig* config = ZTLoggerConfig::getInstance();
        EXPECT_EQ(std::to_string(config->getMode()) + " " + std::to_string(config->getLevel()) + " " +
                      config->getLoggerName() + " " + config->getLogFile(), c.second) << c.first;
    }
}

TEST(LoggerOutput, ModeChoosesOutputsAndLevelFiltersLines) {
    for (int mode = 0; mode <= 3; ++mode) {
        const int level = (mode + 3) % 4;  // mode 0 with level 3: off means off
        SCOPED_TRACE(mode);
        TempDir dir;
        const std::string path = dir.file("zt.log");
        LogCapture capture("loggerMode=" + std::to_string(mode) + "\nloggerLevel=" + std::to_string(level) +
                           "\nloggerFile=" + path + "\n");
        for (int written = 0; written <= 3; ++written) logger()->printf(written, "f.cpp", 1, "fn", "at %d", written);
        const std::string fileText = readFile(path);
        ASSERT_EQ(capture.lines().size(), (mode & 1) != 0 ? level + 2u : 1u);  // plus the init line, in every mode
        auto head = [](int i) { return std::string(1, "EWID"[i]) + "/fn(   1): at " + std::to_string(i) + " \n"; };
        for (int i = 0; i <= 3; ++i) EXPECT_EQ(fileText.find(head(i)) != std::string::npos, mode >= 2 && i <= level);
        EXPECT_EQ(access(path.c_str(), F_OK) == 0, mode >= 2);
    }
}

TEST(LoggerFormat, LinesFollowTheLayoutWithBaseNameAndCutMessage) {
    TempDir dir;
    const std::string path = dir.file("zt.log");
    LogCapture capture("loggerMode=3\nloggerLevel=3\nloggerFile=" + path + "\nloggerName=UnitName\n");
    const time_t before = time(nullptr);
    logger()->printf(ZT_LOG_WARNING, "C:\\src\\y/main.cpp", 7, "fmtCheck", "hello %d", 42);  // shows y/main.cpp
    std::vector<std::string> lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    // Priority and tag (the lifecycle and fatal tests check them) are left out of the Android line.
    for (const auto& form : {std::make_pair(lines[1].substr(5), 10), std::make_pair(readFile(path), 32)}) {
        const std::string prefix = "W/fmtCheck(   7): hello 42 \n" + std::string(form.second, '\t') + "[UnitName]";
        EXPECT_EQ(form.first, prefix + stampAt(form.first, prefix.size(), before) + "<y/main.cpp>\n");
    }
    using Print = std::pair<void (ZTLogger::*)(const char*) const, std::string>;
    for (const Print& print : {Print{&ZTLogger::printError, "E"}, Print{&ZTLogger::printWarning, "W"},
                               Print{&ZTLogger::printInfo, "I"}, Print{&ZTLogger::printDebug, "D"}}) {
        capture.clear();
        (logger()->*print.first)("short");
        const std::string line = capture.lines().at(0).substr(5), fileText = readFile(path);
        EXPECT_EQ(line, stampAt(line, 0, before) + "[UnitName][" + print.second + "][short]\n");
        EXPECT_EQ(fileText.substr(fileText.size() - line.size()), line);
    }
    logger()->printf(ZT_LOG_ERROR, "/src/a.cpp", 12345, "fn", "%s", std::string(300, 'x').c_str());
    const std::string line = capture.lines().back();  // the message cut to 239 characters
    EXPECT_EQ(line.rfind("3 zT E/fn(12345): " + std::string(239, 'x') + " \n\t", 0), 0u);
    EXPECT_EQ(line.substr(line.size() - 8), "<a.cpp>\n");
}

TEST(LoggerLifecycle, QuietWithoutPropertiesThenTruncatesItsFileOrFallsBack) {
    {
        LogCapture quiet;
        setPropertyFilePathForTesting(kQuietPropertyFile);  // as on a device without one
        ZTLogger::destroyDefaultLogger();
        quiet.clear();
        ZT_LOG(ZT_LOG_ERROR, "not written");
        logger()->printError("nor this");
        ZTLogger::destroyDefaultLogger();
        EXPECT_EQ(quiet.lines(), (std::vector<std::string>{"3 zT [SYSTEM]: Init for Logger.\n",
                                                           "3 zT [SYSTEM]: Destroy Logger.\n",
                                                           "3 zT ZTLogger destroyed.\n"}));
    }

    // A file that cannot be opened falls back to the Android log; one that can is written afresh.
    TempDir dir;
    const std::string path = dir.write("zt.log", "old\n"), missing = dir.file("missing/zt.log");
    for (int mode : {2, 3}) {
        LogCapture capture("loggerMode=" + std::to_string(mode) + "\nloggerFile=" + missing + "\n");
        ZT_LOG(ZT_LOG_ERROR, "still here");
        EXPECT_EQ(ZTLoggerConfig::getInstance()->getMode(), 1);
        ASSERT_EQ(capture.lines().size(), 3u);
        EXPECT_EQ(capture.lines()[1], "3 zT [SYSTEM]: Cannot open file:" + missing + " for writting!\n");
        EXPECT_NE(capture.lines()[2].find("): still here \n"), std::string::npos);
    }
    LogCapture capture("loggerMode=2\nloggerFile=" + path + "\n");
    ZT_LOG(ZT_LOG_ERROR, "new");  // the first line builds the configuration, which opens the file
    EXPECT_EQ(readFile(path).find("old"), std::string::npos);
}

TEST(LoggerDeathTest, FatalIsWrittenAsErrorThenExitsWithOne) {
    EXPECT_EXIT(logger()->printf(ZT_LOG_FATAL, "f.cpp", 1, "quiet", "gone"), ::testing::ExitedWithCode(1), "");
    LogCapture capture("loggerMode=1\nloggerLevel=0\n");
    EXPECT_EXIT({
        setAndroidLogSinkForTesting(nullptr);
        logger()->printf(ZT_LOG_FATAL, "f.cpp", 12, "dying", "code %d", 5);
    }, ::testing::ExitedWithCode(1), "D/zT: E/dying\\(  12\\): code 5 ");
}

TEST(LoggerConcurrency, FirstCallsFromManyThreadsBuildOneLogger) {
    LogCapture capture;
    for (int round = 0; round < 10; ++round) {
        ZTLogger::destroyDefaultLogger();
        capture.clear();
        std::atomic<bool> go{false};
        std::vector<const ZTLogger*> seen(8, nullptr);
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) threads.emplace_back([&go, &seen, i] {
            while (!go.load()) std::this_thread::yield();
            seen[i] = ZTLogger::getDefaultLogger();
            ZT_LOG(ZT_LOG_DEBUG, "thread %d", i);
        });
        go.store(true);
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(capture.count("[SYSTEM]: Init for Logger.\n"), 1u);
        EXPECT_EQ(capture.count("): thread "), 8u);
        EXPECT_EQ(std::count(seen.begin(), seen.end(), seen[0]), 8);
    }
}
