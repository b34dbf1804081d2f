// Turns the logger on for one test and records every Android-log line it writes.
// The logger is rebuilt from a property file in a private temp directory, so nothing is read
// from or written to the device paths. One LogCapture at a time; REQUIRES: no library thread is
// logging while a LogCapture is created or destroyed (the logger is rebuilt then).
#ifndef PELK_TESTS_LOGCAPTURE_H
#define PELK_TESTS_LOGCAPTURE_H

#include <string>
#include <vector>

#include "support/TempDir.h"

namespace pelktest {

// A property file that cannot exist: a logger built from it is quiet, as on a device without one.
extern const char* const kQuietPropertyFile;

class LogCapture {
public:
    // Rebuilds the logger from exactly this property file text; by default the Android log only
    // (mode 1) at debug level (3).
    explicit LogCapture(const std::string& properties = "loggerMode=1\nloggerLevel=3\n");
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Every line written so far: its priority, its tag and the whole line as the logger built it,
    // one space apart.
    std::vector<std::string> lines() const;
    // Number of lines containing fragment.
    size_t count(const std::string& fragment) const;
    bool contains(const std::string& fragment) const { return count(fragment) > 0; }
    void clear();

private:
    TempDir m_dir;
    std::string m_propertyPath;  // the logger keeps the pointer
};

}  // namespace pelktest

#endif  // PELK_TESTS_LOGCAPTURE_H
