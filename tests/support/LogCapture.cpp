#include "support/LogCapture.h"

#include <algorithm>
#include <mutex>

#include "CommonLib/LogSink.h"
#include "CommonLib/ZTLogger.h"

namespace pelktest {

const char* const kQuietPropertyFile = "/nonexistent/pelk-test/log.properties";

namespace {

std::mutex g_linesMutex;
std::vector<std::string> g_lines;

void recordLine(int priority, const char* tag, const char* text) {
    std::lock_guard<std::mutex> guard(g_linesMutex);
    g_lines.push_back(std::to_string(priority) + " " + tag + " " + text);
}

}  // namespace

LogCapture::LogCapture(const std::string& properties) : m_propertyPath(m_dir.write("log.properties", properties)) {
    PELK::Common::ZTLogger::destroyDefaultLogger();
    PELK::Common::setPropertyFilePathForTesting(m_propertyPath.c_str());
    PELK::Common::setAndroidLogSinkForTesting(recordLine);
    clear();
    PELK::Common::ZTLogger::getDefaultLogger();
}

LogCapture::~LogCapture() {
    PELK::Common::ZTLogger::destroyDefaultLogger();
    PELK::Common::setAndroidLogSinkForTesting(nullptr);
    PELK::Common::setPropertyFilePathForTesting(kQuietPropertyFile);
    clear();
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard<std::mutex> guard(g_linesMutex);
    return g_lines;
}

size_t LogCapture::count(const std::string& fragment) const {
    std::lock_guard<std::mutex> guard(g_linesMutex);
    return static_cast<size_t>(std::count_if(g_lines.begin(), g_lines.end(), [&](const std::string& line) {
        return line.find(fragment) != std::string::npos;
    }));
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> guard(g_linesMutex);
    g_lines.clear();
}

}  // namespace pelktest
