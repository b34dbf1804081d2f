// The process-wide logger. Every unit logs through ZTLogger::getDefaultLogger()->printf(...);
// what is written, and where, is set once by the property file "/sdcard/PELK/log.properties".
// Thread-safe: any thread may log; output is serialised by the configuration's mutex, and the
// first construction of both singletons is safe from several threads at once.
#ifndef PELK_COMMONLIB_ZTLOGGER_H
#define PELK_COMMONLIB_ZTLOGGER_H

#include <pthread.h>

#include <atomic>
#include <cstdio>

namespace PELK {
namespace Common {

enum ZTLoggerLevel {
    ZT_LOG_ERROR = 0,
    ZT_LOG_WARNING = 1,
    ZT_LOG_INFO = 2,
    ZT_LOG_DEBUG = 3,
    ZT_LOG_FATAL = 9,  // written as an error, then the process exits with status 1
};

enum ZTLoggerMode {
    ZT_MODE_OFF = 0,
    ZT_MODE_ANDROID = 1,
    ZT_MODE_FILE = 2,
    ZT_MODE_ANDROID_AND_FILE = 3,
};

// The logger's settings and output; created on first use, read from the property file once.
class ZTLoggerConfig {
public:
    static const char* const s_szFilter;
    static constexpr int kPathSize = 100;
    static constexpr int kMessageSize = 240;

    static ZTLoggerConfig* getInstance();
    // Deletes the configuration (closing its file); the next getInstance() reads the file again.
    static void destroyInstance();

    // Reads the property file; false when it does not exist (the defaults then stand).
    bool readPropertyFile();
    // Writes one line when the mode is not off and level <= loggerLevel. A null file selects the
    // short line format used by the print shortcuts.
    void zTLog(int level, const char* message, const char* file, int line, const char* function);
    // True when zTLog would write a line of this level (callers then skip formatting otherwise).
    bool wants(int level) {
        m_fInitialized.store(true, std::memory_order_relaxed);
        return loggerMode != ZT_MODE_OFF && level <= loggerLevel;
    }

    int getMode() const { return loggerMode; }
    int getLevel() const { return loggerLevel; }
    const char* getLogFile() const { return m_szLogFile; }
    const char* getLoggerName() const { return m_szLoggerName; }

private:
    ZTLoggerConfig();
    ~ZTLoggerConfig();
    ZTLoggerConfig(const ZTLoggerConfig&) = delete;
    ZTLoggerConfig& operator=(const ZTLoggerConfig&) = delete;

    char m_szLogFile[kPathSize];
    char m_szLoggerName[kPathSize];
    int loggerMode;
    int loggerLevel;
    FILE* m_pFile;
    pthread_mutex_t m_mutex;
    std::atomic<bool> m_fInitialized;

    static std::atomic<ZTLoggerConfig*> m_instance;
};

// The empty front object that every call site uses; all work is done by ZTLoggerConfig.
class ZTLogger {
public:
    static ZTLogger* getDefaultLogger();
    // Deletes the logger and its configuration. REQUIRES: no other thread is logging.
    static void destroyDefaultLogger();

    // Formats into 240 bytes (longer messages are cut) and logs; level 9 logs as an error and
    // then exits the process with status 1.
    void printf(int level, const char* file, int line, const char* function, const char* format, ...) const
        __attribute__((format(printf, 6, 7)));

    void printError(const char* message) const;
    void printWarning(const char* message) const;
    void printInfo(const char* message) const;
    void printDebug(const char* message) const;

private:
    ZTLogger() = default;
    static std::atomic<ZTLogger*> m_instance;
};

}  // namespace Common
}  // namespace PELK

// Call-site shorthand: the level, then a printf format and its arguments.
#define ZT_LOG(level, ...) \
    ::PELK::Common::ZTLogger::getDefaultLogger()->printf((level), __FILE__, __LINE__, __func__, __VA_ARGS__)

#endif  // PELK_COMMONLIB_ZTLOGGER_H
