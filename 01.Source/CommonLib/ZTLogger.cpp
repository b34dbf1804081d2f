#include "CommonLib/ZTLogger.h"

#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "CommonLib/LogSink.h"

#ifdef ANDROID
#include <android/log.h>
#endif

namespace PELK {
namespace Common {

namespace {

const char* const kDevicePropertyFile = "/sdcard/PELK/log.properties";
const char* const kDefaultLogFile = "/sdcard/PELK/zt.log";
const char* const kDefaultLoggerName = "ZTLogger";
const char* const kAndroidTag = "zT";
const int kAndroidDebugPriority = 3;
const int kAndroidTabs = 10;
const int kFileTabs = 32;

const char* const levelMsgs[4] = {"E", "W", "I", "D"};

std::atomic<AndroidLogSink> g_androidLogSink{nullptr};
std::atomic<const char*> g_propertyFilePath{nullptr};
// Guards first construction of both singletons; never held while logging.
std::mutex g_creationMutex;

const char* levelText(int level) {
    if (level >= 0 && level < 4) {
        return levelMsgs[level];
    }
    return levelMsgs[ZT_LOG_ERROR];
}

void systemLine(const char* text) {
    writeAndroidLog(kAndroidDebugPriority, kAndroidTag, text);
}

const char* baseName(const char* file) {
    const char* cut = strrchr(file, '\\');
    if (cut == nullptr) {
        cut = strrchr(file, '/');
    }
    return cut == nullptr ? file : cut + 1;
}

// Copies at most 99 characters of the first word after '=', or the default when there is none.
void readWord(const char* value, char (&target)[ZTLoggerConfig::kPathSize], const char* fallback) {
    if (sscanf(value, "%99s", target) != 1) {
        strncpy(target, fallback, sizeof(target) - 1);
        target[sizeof(target) - 1] = '\0';
    }
}

void readLevel(const char* value, int& target) {
    int parsed = 0;
    // Compared unsigned, so negative values are ignored along with those above 3.
    if (sscanf(value, "%d", &parsed) == 1 && static_cast<unsigned>(parsed) <= 3u) {
        target = parsed;
    }
}

}  // namespace

void writeAndroidLog(int priority, const char* tag, const char* text) {
    AndroidLogSink sink = g_androidLogSink.load(std::memory_order_acquire);
    if (sink != nullptr) {
        sink(priority, tag, text);
        return;
    }
#ifdef ANDROID
    __android_log_print(priority, tag, "%s", text);
#else
    static const char kPriorityLetters[] = "??VDIWEF";
    char letter = (priority >= 0 && priority < 8) ? kPriorityLetters[priority] : '?';
    fprintf(stderr, "%c/%s: %s", letter, tag, text);
#endif
}

AndroidLogSink setAndroidLogSinkForTesting(AndroidLogSink sink) {
    return g_androidLogSink.exchange(sink, std::memory_order_acq_rel);
}

void setPropertyFilePathForTesting(const char* path) {
    g_propertyFilePath.store(path, std::memory_order_release);
}

const char* propertyFilePath() {
    const char* path = g_propertyFilePath.load(std::memory_order_acquire);
    return path != nullptr ? path : kDevicePropertyFile;
}

// ---------------------------------------------------------------------------------------------
// ZTLoggerConfig

const char* const ZTLoggerConfig::s_szFilter = "pelk_src";
std::atomic<ZTLoggerConfig*> ZTLoggerConfig::m_instance{nullptr};

ZTLoggerConfig::ZTLoggerConfig()
    : m_szLogFile(), m_szLoggerName(), loggerMode(ZT_MODE_OFF), loggerLevel(0), m_pFile(nullptr),
      m_mutex(), m_fInitialized(false) {
    systemLine("[SYSTEM]: Init for Logger.\n");
    strncpy(m_szLoggerName, kDefaultLoggerName, sizeof(m_szLoggerName) - 1);
    strncpy(m_szLogFile, kDefaultLogFile, sizeof(m_szLogFile) - 1);
    readPropertyFile();
    if (loggerMode == ZT_MODE_FILE || loggerMode == ZT_MODE_ANDROID_AND_FILE) {
        m_pFile = fopen(m_szLogFile, "w");
        if (m_pFile == nullptr) {
            char line[kPathSize + 64];
            snprintf(line, sizeof(line), "[SYSTEM]: Cannot open file:%s for writting!\n", m_szLogFile);
            systemLine(line);
            loggerMode = ZT_MODE_ANDROID;
        }
    }
    pthread_mutex_init(&m_mutex, nullptr);
}

ZTLoggerConfig::~ZTLoggerConfig() {
    pthread_mutex_destroy(&m_mutex);
    if (m_pFile != nullptr) {
        fclose(m_pFile);
        m_pFile = nullptr;
    }
    systemLine("ZTLogger destroyed.\n");
}

ZTLoggerConfig* ZTLoggerConfig::getInstance() {
    ZTLoggerConfig* config = m_instance.load(std::memory_order_acquire);
    if (config == nullptr) {
        std::lock_guard<std::mutex> guard(g_creationMutex);
        config = m_instance.load(std::memory_order_relaxed);
        if (config == nullptr) {
            config = new (std::nothrow) ZTLoggerConfig();
            m_instance.store(config, std::memory_order_release);
        }
    }
    return config;
}

void ZTLoggerConfig::destroyInstance() {
    std::lock_guard<std::mutex> guard(g_creationMutex);
    delete m_instance.exchange(nullptr, std::memory_order_acq_rel);
}

bool ZTLoggerConfig::readPropertyFile() {
    FILE* properties = fopen(propertyFilePath(), "r");
    if (properties == nullptr) {
        return false;
    }
    char line[kMessageSize];
    while (fgets(line, sizeof(line), properties) != nullptr) {
        if (line[0] == '\0' || line[0] == '#' || line[0] == ' ') {
            continue;
        }
        const char* equals = strchr(line, '=');
        if (equals == nullptr) {
            continue;
        }
        const char* value = equals + 1;
        // Keys are prefix matches: "loggerModeX=3" sets the mode.
        if (strncmp(line, "loggerMode", 10) == 0) {
            readLevel(value, loggerMode);
        } else if (strncmp(line, "loggerFile", 10) == 0) {
            readWord(value, m_szLogFile, kDefaultLogFile);
        } else if (strncmp(line, "loggerName", 10) == 0) {
            readWord(value, m_szLoggerName, kDefaultLoggerName);
        } else if (strncmp(line, "loggerLevel", 11) == 0) {
            readLevel(value, loggerLevel);
        }
    }
    fclose(properties);
    return true;
}

void ZTLoggerConfig::zTLog(int level, const char* message, const char* file, int line, const char* function) {
    if (!wants(level)) {
        return;
    }
    if (pthread_mutex_lock(&m_mutex) != 0) {
        fprintf(stderr, "[SYSTEM]: Cannot lock mutex!\n");
    }
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    time_t seconds = now.tv_sec;
    int millis = static_cast<int>(now.tv_nsec / 1000000);
    struct tm local = {};
    if (localtime_r(&seconds, &local) == nullptr) {
        fprintf(stderr, "[SYSTEM]: localtime not supported.\n");
        pthread_mutex_unlock(&m_mutex);
        return;
    }
    if (message == nullptr) {
        message = "";
    }
    const char* text = levelText(level);
    const int year = local.tm_year + 1900, month = local.tm_mon + 1;

    // Room for the longest line: 240-byte message, 99-character name, 32 tabs, paths.
    char androidLine[2048];
    char fileLine[2048];
    if (file == nullptr) {
        snprintf(androidLine, sizeof(androidLine), "[%04d-%02d-%02d %02d:%02d:%02d.%d][%s][%s][%s]\n", year, month,
                 local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, millis, m_szLoggerName, text, message);
        memcpy(fileLine, androidLine, sizeof(fileLine));
    } else {
        char head[1024];
        snprintf(head, sizeof(head), "%s/%s(%4d): %s \n", text, function != nullptr ? function : "", line, message);
        char tail[512];
        snprintf(tail, sizeof(tail), "[%s][%04d-%02d-%02d %02d:%02d:%02d.%d]<%s>\n", m_szLoggerName, year, month,
                 local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, millis, baseName(file));
        snprintf(androidLine, sizeof(androidLine), "%s%.*s%s", head, kAndroidTabs,
                 "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t", tail);
        snprintf(fileLine, sizeof(fileLine), "%s%.*s%s", head, kFileTabs,
                 "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t", tail);
    }

    if (loggerMode == ZT_MODE_ANDROID || loggerMode == ZT_MODE_ANDROID_AND_FILE) {
        writeAndroidLog(kAndroidDebugPriority, kAndroidTag, androidLine);
        fflush(stdout);
    }
    if ((loggerMode == ZT_MODE_FILE || loggerMode == ZT_MODE_ANDROID_AND_FILE) && m_pFile != nullptr) {
        fputs(fileLine, m_pFile);
        fflush(m_pFile);
    }
    pthread_mutex_unlock(&m_mutex);
}

// ---------------------------------------------------------------------------------------------
// ZTLogger

std::atomic<ZTLogger*> ZTLogger::m_instance{nullptr};

ZTLogger* ZTLogger::getDefaultLogger() {
    ZTLogger* logger = m_instance.load(std::memory_order_acquire);
    if (logger == nullptr) {
        std::lock_guard<std::mutex> guard(g_creationMutex);
        logger = m_instance.load(std::memory_order_relaxed);
        if (logger == nullptr) {
            static ZTLogger fallback;  // used only if the heap is exhausted
            logger = new (std::nothrow) ZTLogger();
            m_instance.store(logger != nullptr ? logger : &fallback, std::memory_order_release);
            logger = m_instance.load(std::memory_order_relaxed);
        }
    }
    return logger;
}

void ZTLogger::destroyDefaultLogger() {
    {
        std::lock_guard<std::mutex> guard(g_creationMutex);
        ZTLogger* logger = m_instance.exchange(nullptr, std::memory_order_acq_rel);
        if (logger != nullptr) {
            systemLine("[SYSTEM]: Destroy Logger.\n");
            delete logger;
        }
    }
    ZTLoggerConfig::destroyInstance();
}

void ZTLogger::printf(int level, const char* file, int line, const char* function, const char* format, ...) const {
    ZTLoggerConfig* config = ZTLoggerConfig::getInstance();
    const int written = (level == ZT_LOG_FATAL) ? ZT_LOG_ERROR : level;
    // Formatting costs more than the rest of most calls, so a line nobody writes is not built.
    if (config != nullptr && config->wants(written)) {
        char message[ZTLoggerConfig::kMessageSize];
        message[0] = '\0';
        if (format != nullptr) {
            va_list args;
            va_start(args, format);
            vsnprintf(message, sizeof(message), format, args);
            va_end(args);
        }
        config->zTLog(written, message, file, line, function);
    }
    if (level == ZT_LOG_FATAL) {
        exit(1);
    }
}

void ZTLogger::printError(const char* message) const {
    if (ZTLoggerConfig* config = ZTLoggerConfig::getInstance()) config->zTLog(ZT_LOG_ERROR, message, nullptr, 0, nullptr);
}
void ZTLogger::printWarning(const char* message) const {
    if (ZTLoggerConfig* config = ZTLoggerConfig::getInstance()) config->zTLog(ZT_LOG_WARNING, message, nullptr, 0, nullptr);
}
void ZTLogger::printInfo(const char* message) const {
    if (ZTLoggerConfig* config = ZTLoggerConfig::getInstance()) config->zTLog(ZT_LOG_INFO, message, nullptr, 0, nullptr);
}
void ZTLogger::printDebug(const char* message) const {
    if (ZTLoggerConfig* config = ZTLoggerConfig::getInstance()) config->zTLog(ZT_LOG_DEBUG, message, nullptr, 0, nullptr);
}

}  // namespace Common
}  // namespace PELK
