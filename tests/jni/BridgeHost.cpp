// The VM hosted by the bridge suites, its output, the library's log and the service's records.
#include "jni/BridgeHost.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>

#include "support/Waits.h"

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

std::vector<std::string> loggedLines(char level, const std::string& part) {
    std::ifstream file(Vm::get().logFile);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, 2, {level, '/'}) == 0 && line.find(part) != std::string::npos) {
            lines.push_back(line);
        }
    }
    return lines;
}

bool logged(char level, const std::string& function, const std::string& message) {
    const std::string head = std::string(1, level) + "/" + function + "(";
    for (const std::string& line : loggedLines(level, "): " + message + " ")) {
        if (line.compare(0, head.size(), head) == 0 && line.substr(line.find("): ") + 3) == message + " ") {
            return true;
        }
    }
    return false;
}

namespace {

JNIEnv* env() { return Vm::get().env; }

void expectNoException() {
    if (env()->ExceptionCheck()) {
        env()->ExceptionDescribe();
        env()->ExceptionClear();
        ADD_FAILURE() << "a Java exception (described above)";
    }
}

}  // namespace

jstring str(const std::string& s) { return env()->NewStringUTF(s.c_str()); }

jstring jtext(const std::u16string& s) {
    return env()->NewString(reinterpret_cast<const jchar*>(s.data()), static_cast<jsize>(s.size()));
}

std::u16string text16(jobject javaString) {
    if (javaString == nullptr) {
        return u"(no text)";
    }
    std::u16string result(static_cast<size_t>(env()->GetStringLength(static_cast<jstring>(javaString))), u'\0');
    env()->GetStringRegion(static_cast<jstring>(javaString), 0, static_cast<jsize>(result.size()),
                           reinterpret_cast<jchar*>(&result[0]));
    return result;
}

std::string text(jobject javaString) {
    const std::u16string wide = text16(javaString);
    return std::string(wide.begin(), wide.end());
}

jobject make(const char* className, const char* signature, ...) {
    jclass cls = env()->FindClass(className);
    va_list args;
    va_start(args, signature);
    jobject obj = env()->NewObjectV(cls, env()->GetMethodID(cls, "<init>", signature), args);
    va_end(args);
    expectNoException();
    return obj;
}

jobject integer(int v) { return make("java/lang/Integer", "(I)V", v); }

jobject boolean(bool v) { return make("java/lang/Boolean", "(Z)V", v ? JNI_TRUE : JNI_FALSE); }

jobjectArray array(const char* className, const std::vector<jobject>& elements) {
    jobjectArray a = env()->NewObjectArray(static_cast<jsize>(elements.size()), env()->FindClass(className), nullptr);
    for (size_t i = 0; i < elements.size(); ++i) {
        env()->SetObjectArrayElement(a, static_cast<jsize>(i), elements[i]);
    }
    return a;
}

jobject call(const char* method, const std::vector<jobject>& args) {
    jclass probe = env()->FindClass("com/quorvik/kolt/pelk/agent/probe/Probe");
    jobject result = env()->CallStaticObjectMethod(
        probe, env()->GetStaticMethodID(probe, "call", "(Ljava/lang/String;[Ljava/lang/Object;)Ljava/lang/Object;"),
        str(method), array("java/lang/Object", args));
    expectNoException();
    return result;
}

int callInt(const char* method, const std::vector<jobject>& args) {
    // The call's references go with it, however often it is made.
    if (env()->PushLocalFrame(16) != JNI_OK) {
        ADD_FAILURE() << "no room for local references";
        return INT32_MIN;
    }
    const std::string result = describe(call(method, args));
    env()->PopLocalFrame(nullptr);
    return result == "null" ? INT32_MIN : std::atoi(result.c_str());
}

std::string describe(jobject value) { return text(call("describe", {value})); }

bool awaitCount(const char* probe, int n) { return waitUntil([&] { return callInt(probe, {}) == n; }, kWaitMs, 10); }

const std::string kNative = "Java_com_quorvik_kolt_pelk_agent_PELKAgentNativeLib_";

Bytes appRecord(const std::string& name, int id, int type, const std::string& ip, const std::string& mac, bool local) {
    return B().str(name, 260).i32(id).i32(type).str(ip, 16).str(mac, 18).u8(local).u8(0);
}

Bytes deviceRecord(const std::string& name, int type, const std::string& uuid, const std::string& ip, bool local) {
    return B().str(name, 260).i32(type).str(uuid, 100).str(ip, 16).u8(local).zeros(231);
}

Bytes listReply(int32_t action, const Bytes& record) { return B().i32(action).i32(1).add(record).i32(0); }

Bytes sendTag(int remoteAppID) {
    return B().u8(kAppID).u8(static_cast<uint8_t>(remoteAppID)).u8(3).u8(0).i32(0);
}

Bytes appEvent(int change, const Bytes& app) { return B().i32(45).i32(0).i32(change).add(app); }

Bytes deviceEvent(int change, const Bytes& device) { return B().i32(32).i32(0).i32(change).add(device); }

Bytes dataEvent(int type, const Bytes& sender, const std::string& data) {
    return B().i32(20).i32(1).i32(type).add(sender).i32(static_cast<int32_t>(data.size())).str(data, data.size());
}

Bytes sendStatus(int32_t action, int32_t id, int32_t type, const std::string& ip) {
    return B().i32(action).i32(id).i32(type).str(ip, 16).i32(12).add(sendTag(12));
}

Bytes fileEvent(int32_t action, int32_t taskID, const std::string& name, const Bytes& first, const Bytes& second) {
    return B().i32(action).i32(0).i64(5000000001).i64(5000000002).i64(5000000003).i32(2).i32(taskID).i32(1).i32(3)
        .str(name, 260).add(first).add(second);
}

}  // namespace pelktest
