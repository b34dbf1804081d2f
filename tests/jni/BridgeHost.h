// What the suites of the Java bridge share: a Java VM hosted in the test process (OpenJDK with
// -Xcheck:jni, the library's jar and the probe's on its class path), everything the VM prints,
// the library's log in a temp file, and the records of the service written from the offset
// tables. A process can start only one VM; it is started on first use and kept to the end.
// Any thread may read the VM's output and the log.
#ifndef PELK_TESTS_JNI_BRIDGEHOST_H
#define PELK_TESTS_JNI_BRIDGEHOST_H

#include <jni.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/FakeService.h"
#include "support/TempDir.h"

namespace pelktest {

struct Vm {
    TempDir dir;
    std::string propertyFile;
    std::string logFile;
    JavaVM* vm = nullptr;
    JNIEnv* env = nullptr;  // the starting thread's; null when the VM did not start

    // The process's VM, started on the first call by the calling thread.
    static Vm& get();
    // The level up to which the library logs (3, everything, unless set before the VM starts).
    static int logLevel;

private:
    Vm();
};

// Everything the VM has printed (CheckJNI's warnings and errors among it).
std::string vmOutput();

// Whether the library logged this line: "<level>/<function>(<line>): <message> ".
bool logged(char level, const std::string& function, const std::string& message);
// The library's log lines of this level that contain this text.
std::vector<std::string> loggedLines(char level, const std::string& part);

// Java values and calls, made on the thread that started the VM; a Java exception fails the test.
jstring str(const std::string& s);
jstring jtext(const std::u16string& s);  // UTF-16, so that characters outside the BMP are as in Java
std::u16string text16(jobject javaString);
std::string text(jobject javaString);  // of an ASCII string
jobject make(const char* className, const char* signature, ...);
jobject integer(int v);
jobject boolean(bool v);
jobjectArray array(const char* className, const std::vector<jobject>& elements);
// Calls the native method of this name from Java as an app would, or else the static method of
// that name of Probe or Stress.
jobject call(const char* method, const std::vector<jobject>& args);
int callInt(const char* method, const std::vector<jobject>& args);  // INT32_MIN for null
// Every value of a record, an event or an array of them, in one line (Probe.describe).
std::string describe(jobject value);

// What a wait allows: it costs only when it fails, and the machine may be loaded.
constexpr int kWaitMs = 20000;
// Waits until the probe's count ("liveThreads" or "globalRefs") is n: an attached thread is
// detached as it ends, a reference dropped a moment ago may still be counted; a leak never goes.
bool awaitCount(const char* probe, int n);

extern const std::string kNative;  // the prefix of the native methods' JNI names

constexpr int kAppID = 7;  // what the fake service assigns at registration

Bytes appRecord(const std::string& name, int id, int type, const std::string& ip, const std::string& mac, bool local);
Bytes deviceRecord(const std::string& name, int type, const std::string& uuid, const std::string& ip, bool local);
// The answer to a search or browse that found this one record.
Bytes listReply(int32_t action, const Bytes& record);
// The tag that a send carries and its status events bring back: the two apps' low bytes.
Bytes sendTag(int remoteAppID);

// The events: an app or device change, received data, a TCP or UDP send's status, and the file
// events 14, 19 and 41 (task, file name, then what follows their head), which Java shows as
// kFileEvent followed by the task, counts, type, name, address and remote app.
Bytes appEvent(int change, const Bytes& app);
Bytes deviceEvent(int change, const Bytes& device);
Bytes dataEvent(int type, const Bytes& sender, const std::string& data);
Bytes sendStatus(int32_t action, int32_t id, int32_t type, const std::string& ip);
Bytes fileEvent(int32_t action, int32_t taskID, const std::string& name, const Bytes& first, const Bytes& second);
inline const std::string kFileEvent = "fileEvent{5000000001,5000000002,5000000003,";

}  // namespace pelktest

#endif  // PELK_TESTS_JNI_BRIDGEHOST_H
