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

extern const std::string kNative;  // the prefix of the native methods' JNI names

constexpr int kAppID = 7;  // what the fake service assigns at registration

Bytes appRecord(const std::string& name, int id, int type, const std::string& ip, const std::string& mac, bool local);
Bytes deviceRecord(const std::string& name, int type, const std::string& uuid, const std::string& ip, bool local);
Bytes fileRecord(const std::string& id, const std::string& title);
// The head of the file events 14, 19 and 41.
B fileEventHead(int32_t action, int32_t taskID, const std::string& name);
// The tag that a send carries and its status events bring back: the two apps' low bytes.
Bytes sendTag(int remoteAppID);

}  // namespace pelktest

#endif  // PELK_TESTS_JNI_BRIDGEHOST_H
