// The VM hosted by the bridge suites, its output, the library's log and the service's records.
#include "jni/BridgeHost.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <fstream>
#include <mutex>

// The VM is not built with the sanitizers: what it keeps until its teardown (which these tests
// never reach), and what looks unsynchronised inside it, is not ours. Leaks are told apart by
// their allocating frames alone (a short allocation context), since every native method runs
// below the VM's own frames.
extern "C" const char* __asan_default_options() { return "malloc_context_size=4"; }
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libjvm.so\nleak:libjli.so\nleak:libjava.so\nleak:libzip.so\nleak:libz.so\n";
}
// The VM's calls are ignored, and with them its joins: what a Java thread did in the library is
// not seen to be over when the agent is destroyed at exit, after the VM has joined the thread.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libjvm.so\ncalled_from_lib:libjava.so\ncalled_from_lib:libjimage.so\n"
           "called_from_lib:libzip.so\ncalled_from_lib:libnio.so\ncalled_from_lib:libnet.so\n"
           "called_from_lib:libmanagement.so\ncalled_from_lib:libmanagement_ext.so\n"
           "race:PELK::Agent::ActionAgent::~ActionAgent\n";
}

namespace {

std::atomic<const char*> g_propertyFile{nullptr};

}  // namespace

// The library reads its logger's settings from a fixed device path. In this process that one
// path opens the test's own property file, which sends the library's lines to a temp file.
extern "C" FILE* fopen(const char* path, const char* mode) {
    using Open = FILE* (*)(const char*, const char*);
    static const Open next = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "fopen"));
    const char* replacement = g_propertyFile.load();
    if (path != nullptr && replacement != nullptr && strcmp(path, "/sdcard/PELK/log.properties") == 0) {
        path = replacement;
    }
    return next(path, mode);
}

namespace pelktest {

namespace {

std::mutex g_outputMutex;
std::string g_vmOutput;

jint JNICALL captureVmOutput(FILE*, const char* format, va_list args) {
    char text[2048];
    const int length = vsnprintf(text, sizeof(text), format, args);
    std::lock_guard<std::mutex> guard(g_outputMutex);
    g_vmOutput += text;
    return length;
}

}  // namespace

std::string vmOutput() {
    std::lock_guard<std::mutex> guard(g_outputMutex);
    return g_vmOutput;
}

int Vm::logLevel = 3;

Vm::Vm() : logFile(dir.file("zt.log")) {
    propertyFile = dir.write("log.properties", "loggerMode=2\nloggerLevel=" + std::to_string(logLevel) +
                                                   "\nloggerFile=" + logFile + "\n");
    g_propertyFile.store(propertyFile.c_str());
    std::string classPath = "-Djava.class.path=" PELK_AGENT_JAR ":" PELK_PROBE_JAR;
    std::string libraryPath = "-Djava.library.path=" PELK_AGENT_LIBRARY_DIR;
    JavaVMOption options[] = {{const_cast<char*>("-Xcheck:jni"), nullptr},
                              {const_cast<char*>("-XX:+UseSerialGC"), nullptr},
                              {&classPath[0], nullptr},
                              {&libraryPath[0], nullptr},
                              {const_cast<char*>("vfprintf"), reinterpret_cast<void*>(captureVmOutput)}};
    JavaVMInitArgs args{};
    args.version = JNI_VERSION_1_6;
    args.nOptions = sizeof(options) / sizeof(options[0]);
    args.options = options;
    if (JNI_CreateJavaVM(&vm, reinterpret_cast<void**>(&env), &args) != JNI_OK) {
        env = nullptr;
    }
}

Vm& Vm::get() {
    static Vm instance;
    return instance;
}

bool logged(char level, const std::string& function, const std::string& message) {
    std::ifstream file(Vm::get().logFile);
    const std::string head = std::string(1, level) + "/" + function + "(";
    for (std::string line; std::getline(file, line);) {
        const size_t colon = line.find("): ");
        if (line.compare(0, head.size(), head) == 0 && colon != std::string::npos &&
            line.substr(colon + 3) == message + " ") {
            return true;
        }
    }
    return false;
}

const std::string kNative = "Java_com_quorvik_kolt_pelk_agent_PELKAgentNativeLib_";

Bytes appRecord(const std::string& name, int id, int type, const std::string& ip, const std::string& mac, bool local) {
    return B().str(name, 260).i32(id).i32(type).str(ip, 16).str(mac, 18).u8(local).u8(0);
}

Bytes deviceRecord(const std::string& name, int type, const std::string& uuid, const std::string& ip, bool local) {
    return B().str(name, 260).i32(type).str(uuid, 100).str(ip, 16).u8(local).zeros(231);
}

Bytes fileRecord(const std::string& id, const std::string& title) {
    return B().str("uuid:srv", 100).str("0", 100).str(id, 100).str(title, 260).str("video", 260).str(
        "http://10.0.0.5/" + id, 1024);
}

B fileEventHead(int32_t action, int32_t taskID, const std::string& name) {
    B out;
    out.i32(action).i32(0).i64(5000000001).i64(5000000002).i64(5000000003);
    return out.i32(2).i32(taskID).i32(1).i32(3).str(name, 260);
}

Bytes sendTag(int remoteAppID) {
    return B().u8(kAppID).u8(static_cast<uint8_t>(remoteAppID)).u8(3).u8(0).i32(0);
}

}  // namespace pelktest
