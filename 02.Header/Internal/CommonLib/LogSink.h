// Where Android-log lines go, and the narrow seams that let tests watch the logger without
// touching the device paths. Only tests call the setters; the shipped library never does.
#ifndef PELK_COMMONLIB_LOGSINK_H
#define PELK_COMMONLIB_LOGSINK_H

namespace PELK {
namespace Common {

// priority is the Android log priority (3 = debug), tag the log tag, text one whole line.
using AndroidLogSink = void (*)(int priority, const char* tag, const char* text);

// Writes one line to the Android log; on other hosts to standard error as "D/zT: ...".
void writeAndroidLog(int priority, const char* tag, const char* text);

// Replaces the Android-log writer; null puts the default back. Returns the previous sink.
AndroidLogSink setAndroidLogSinkForTesting(AndroidLogSink sink);

// Makes the next logger construction read this property file instead of the device's.
// The text must stay alive while it is in use; null puts the device path back.
void setPropertyFilePathForTesting(const char* path);
const char* propertyFilePath();

}  // namespace Common
}  // namespace PELK

#endif  // PELK_COMMONLIB_LOGSINK_H
