// The Java bridge in a real VM: OpenJDK, started with -Xcheck:jni, loads the built libPELKAgent.so
// through PELKAgentNativeLib and calls the native methods from Java (Probe.call) against the fake
// service in this process; Java listeners (Recorder) write down every call they receive. Whatever
// the VM prints (a CheckJNI warning or error among it) fails the test.
//
// A process can start only one VM, and the bridge keeps its first listeners for good, so each
// test needs a process of its own: ctest runs them so; by hand, pick one with --gtest_filter.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <jni.h>

#include <cstdarg>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "jni/BridgeHost.h"
#include "support/Waits.h"

using namespace pelktest;

namespace {

// ---------------------------------------------------------------------------------------------
// The fixture: the fake service, the VM, and Java values made on the test's thread.

constexpr const char* kProbe = "com/quorvik/kolt/pelk/agent/probe/Probe";
constexpr const char* kDeviceClass = "com/quorvik/kolt/pelk/agent/DLNADevice";
constexpr const char* kFileInfoClass = "com/quorvik/kolt/pelk/agent/FileInfo";

class BridgeTest : public ::testing::Test {
protected:
    FakeService service;
    JNIEnv* env = nullptr;

    void SetUp() override {
        static int testsInThisProcess = 0;
        ASSERT_EQ(++testsInThisProcess, 1) << "each test needs a VM of its own; run one test per process";
        ASSERT_TRUE(service.listening());
        ASSERT_NE(Vm::get().env, nullptr) << "the VM did not start";
        ASSERT_EQ(Vm::get().env->PushLocalFrame(4096), JNI_OK);
        env = Vm::get().env;
        service.answer(1, body(1, {kAppID, 0}));
        service.answer(2, body(2, {0}));
    }

    void TearDown() override {
        if (env == nullptr) {
            return;
        }
        if (callInt("getAppID", {}) > 0) {
            EXPECT_EQ(callInt("unRegisterApp", {}), 0);
        }
        env->PopLocalFrame(nullptr);
        EXPECT_EQ(vmOutput(), "") << "the VM reported the lines above";
    }

    void expectNoException() {
        if (env->ExceptionCheck()) {
            env->ExceptionDescribe();
            env->ExceptionClear();
            ADD_FAILURE() << "a Java exception (described above)";
        }
    }

    jstring str(const std::string& s) { return env->NewStringUTF(s.c_str()); }

    jbyteArray bytes(const std::string& s) {
        jbyteArray array = env->NewByteArray(static_cast<jsize>(s.size()));
        env->SetByteArrayRegion(array, 0, static_cast<jsize>(s.size()), reinterpret_cast<const jbyte*>(s.data()));
        return array;
    }

    jobject make(const char* className, const char* signature, ...) {
        jclass cls = env->FindClass(className);
        va_list args;
        va_start(args, signature);
        jobject obj = env->NewObjectV(cls, env->GetMethodID(cls, "<init>", signature), args);
        va_end(args);
        expectNoException();
        return obj;
    }
    jobject integer(int v) { return make("java/lang/Integer", "(I)V", v); }
    jobject boolean(bool v) { return make("java/lang/Boolean", "(Z)V", v ? JNI_TRUE : JNI_FALSE); }
    jobject recorder() { return make("com/quorvik/kolt/pelk/agent/probe/Recorder", "()V"); }
    jobject device(const std::string& name, int type, const std::string& uuid, const std::string& ip, bool local) {
        return make(kDeviceClass, "(Ljava/lang/String;ILjava/lang/String;Ljava/lang/String;Z)V", str(name), type,
                    str(uuid), str(ip), local ? JNI_TRUE : JNI_FALSE);
    }
    // A FileInfo whose texts are derived from id; a null title when title is "(null)".
    jobject file(const std::string& id, const std::string& title) {
        return make(kFileInfoClass,
                    "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;"
                    "Ljava/lang/String;)V",
                    str("uuid:srv"), str("0"), str(id), title == "(null)" ? nullptr : str(title), str("video"),
                    str("http://10.0.0.5/" + id));
    }
    jobjectArray array(const char* className, const std::vector<jobject>& elements) {
        jobjectArray a = env->NewObjectArray(static_cast<jsize>(elements.size()), env->FindClass(className), nullptr);
        for (size_t i = 0; i < elements.size(); ++i) {
            env->SetObjectArrayElement(a, static_cast<jsize>(i), elements[i]);
        }
        return a;
    }

    jobject probe(const char* method, const char* signature, ...) {
        jclass cls = env->FindClass(kProbe);
        va_list args;
        va_start(args, signature);
        jobject result = env->CallStaticObjectMethodV(cls, env->GetStaticMethodID(cls, method, signature), args);
        va_end(args);
        expectNoException();
        return result;
    }
    int probeInt(const char* method) {
        jclass cls = env->FindClass(kProbe);
        const int value = env->CallStaticIntMethod(cls, env->GetStaticMethodID(cls, method, "()I"));
        expectNoException();
        return value;
    }

    // Calls the native method from Java, as an app would.
    jobject call(const char* method, const std::vector<jobject>& args) {
        return probe("call", "(Ljava/lang/String;[Ljava/lang/Object;)Ljava/lang/Object;", str(method),
                     array("java/lang/Object", args));
    }
    int callInt(const char* method, const std::vector<jobject>& args) {
        jobject result = call(method, args);
        if (result == nullptr) {
            return INT32_MIN;
        }
        const int value = env->CallIntMethod(result, env->GetMethodID(env->GetObjectClass(result), "intValue", "()I"));
        expectNoException();
        return value;
    }

    // Java strings as UTF-16, so that characters outside the BMP are what they are in Java.
    jstring jtext(const std::u16string& s) {
        return env->NewString(reinterpret_cast<const jchar*>(s.data()), static_cast<jsize>(s.size()));
    }
    std::u16string text16(jobject javaString) {
        if (javaString == nullptr) {
            return u"(no text)";
        }
        std::u16string result(static_cast<size_t>(env->GetStringLength(static_cast<jstring>(javaString))), u'\0');
        env->GetStringRegion(static_cast<jstring>(javaString), 0, static_cast<jsize>(result.size()),
                             reinterpret_cast<jchar*>(&result[0]));
        return result;
    }

    std::string text(jobject javaString) {
        if (javaString == nullptr) {
            return "(no text)";
        }
        const char* chars = env->GetStringUTFChars(static_cast<jstring>(javaString), nullptr);
        std::string result(chars);
        env->ReleaseStringUTFChars(static_cast<jstring>(javaString), chars);
        return result;
    }
    jobject described(jobject value) { return probe("describe", "(Ljava/lang/Object;)Ljava/lang/String;", value); }
    std::string describe(jobject value) { return text(described(value)); }
    // The recorder's next call, as one line.
    jobject nextCall(jobject recorder) {
        jobject call = env->CallObjectMethod(
            recorder, env->GetMethodID(env->GetObjectClass(recorder), "next", "()Ljava/lang/String;"));
        expectNoException();
        return call;
    }
    std::string next(jobject recorder) { return text(nextCall(recorder)); }
    int count(jobject recorder) {
        const int n = env->CallIntMethod(recorder, env->GetMethodID(env->GetObjectClass(recorder), "count", "()I"));
        expectNoException();
        return n;
    }
    bool awaitCount(jobject recorder, int n, long timeoutMs) {
        const jboolean reached = env->CallBooleanMethod(
            recorder, env->GetMethodID(env->GetObjectClass(recorder), "awaitCount", "(IJ)Z"), n, jlong{timeoutMs});
        expectNoException();
        return reached == JNI_TRUE;
    }
    // Waits until the VM knows this many threads (an attached thread is detached as it ends).
    bool awaitLiveThreads(int n) {
        return pelktest::waitUntil([&] { return probeInt("liveThreads") == n; }, 5000, 10);
    }

    void registerApp(jobject appListener, jobject deviceListener) {
        ASSERT_EQ(callInt("registerApp", {str("demo"), integer(3), appListener, deviceListener}), 0);
        ASSERT_EQ(callInt("getAppID", {}), kAppID);
    }

    // Registers with r as every listener: of apps, devices, received data and files, the file
    // send 42 and the copy 77.
    void listenToEverything(jobject r) {
        registerApp(r, r);
        service.answer(15, body(15, {0}));
        service.answer(13, body(13, {42, 0}));
        service.answer(40, body(40, {77, 0}));
        ASSERT_EQ(callInt("setReceiveOption", {str("/data/in"), r}), 0);
        ASSERT_EQ(callInt("sendFile", {str("/data/a"), str("10.0.0.2"), r, integer(12), boolean(false), integer(0)}),
                  42);
        ASSERT_EQ(callInt("downLoad", {device("NAS", 0, "uuid:nas", "10.0.0.5", false),
                                       array(kFileInfoClass, {file("1", "a")}), r}),
                  77);
    }

    // The last request with this action ID (empty when none came).
    Bytes request(int32_t actionID) {
        service.waitForRequests(actionID, 1);
        const std::vector<Bytes> requests = service.received(actionID);
        return requests.empty() ? Bytes{} : requests.back();
    }
};

// ---------------------------------------------------------------------------------------------

TEST_F(BridgeTest, RegistrationReportsAppsAndDevicesToTheirListeners) {
    jobject apps = recorder();
    jobject devices = recorder();
    registerApp(apps, devices);
    const Bytes reg = request(1);
    EXPECT_EQ(readInt32(reg, 4), 3);
    EXPECT_EQ(readText(reg, 8, 260), "demo");
    EXPECT_EQ(readField(reg, 268, 2), "\1\1") << "device and app events wanted";
    EXPECT_TRUE(logged('D', "registerApp", "ActionAgentWrapper::registerApp() ------ Registe app:7 successful."));
    EXPECT_EQ(describe(call("getInteractionAppList", {})), "[]") << "no app known yet: an empty array";

    service.push(B().i32(45).i32(0).i32(1).add(appRecord("peer", 12, 2, "10.0.0.9", "aa:bb:cc:dd:ee:ff", true)));
    EXPECT_EQ(next(apps), "onInterAppChange app{peer,12,2,10.0.0.9,aa:bb:cc:dd:ee:ff,true} 1");
    service.push(B().i32(32).i32(0).i32(2).add(deviceRecord("Living room", 1, "uuid:tv", "10.0.0.5", false)));
    EXPECT_EQ(next(devices), "onDLNADeviceChange device{Living room,1,uuid:tv,10.0.0.5,false} 2");

    EXPECT_EQ(describe(call("getInteractionAppList", {})), "[app{peer,12,2,10.0.0.9,aa:bb:cc:dd:ee:ff,true}]");
    service.answer(44, B().i32(44).i32(1).add(appRecord("far", 30, 1, "10.0.0.30", "", false)).i32(0));
    EXPECT_EQ(describe(call("searchInteractionApp", {})), "[app{far,30,1,10.0.0.30,,false}]");
    EXPECT_TRUE(logged('I', kNative + "searchInteractionApp", "searchInteractionApp contains 1 apps!"));
    service.answer(49, body(49, {0}));
    EXPECT_EQ(callInt("refreshInteractionApp", {boolean(true)}), 0);
    EXPECT_EQ(readField(request(49), 4, 1), "\1");

    EXPECT_EQ(callInt("unRegisterApp", {}), 0);
    EXPECT_EQ(describe(call("getInteractionAppList", {})), "null") << "not registered: the agent's code, no array";
}

TEST_F(BridgeTest, DataSendsCarryTheBytesTheAddressAndTheFlags) {
    registerApp(recorder(), nullptr);
    EXPECT_EQ(readField(request(1), 268, 1), std::string(1, '\0')) << "no device listener, no device events";
    service.answer(18, body(18, {4}));
    // The length asked for is cut to the array: nothing past its end is read.
    EXPECT_EQ(
        callInt("sendData", {bytes("hello"), integer(100), str("10.0.0.2"), integer(12), boolean(true), integer(3)}),
        4);
    const Bytes tcp = request(18);
    EXPECT_EQ(readInt32(tcp, 4 + 260), 12);
    EXPECT_EQ(readText(tcp, 4 + 268, 16), "10.0.0.2");
    EXPECT_EQ(readField(tcp, 308, 1), "\1");
    EXPECT_EQ(readInt32(tcp, 309), 3000) << "3 s";
    EXPECT_EQ(readInt32(tcp, 313), 5);
    EXPECT_EQ(readField(tcp, 317, 5), "hello");
    EXPECT_TRUE(logged('D', kNative + "sendData", kNative + "sendData: buf: hello!"));
    // A negative length is passed on as it is, for the agent to refuse; nothing is sent.
    const std::pair<const char*, std::vector<jobject>> negative[] = {
        {"sendData", {bytes("hello"), integer(-1), str("10.0.0.2"), integer(12), boolean(true), integer(3)}},
        {"asynSendData", {bytes("hello"), integer(-1), str("10.0.0.2"), integer(12), boolean(true), nullptr}},
        {"broadcast", {bytes("hello"), integer(-1), str("10.0.0.255"), boolean(true)}},
    };
    for (const auto& c : negative) {
        EXPECT_EQ(callInt(c.first, c.second), std::string(c.first) == "broadcast" ? 1905 : 1404) << c.first;
    }
    EXPECT_EQ(service.received(18).size() + service.received(53).size() + service.received(16).size(), 1u);
    EXPECT_TRUE(logged('D', "sendData", "ActionAgentWrapper::sendData() ------ nReturn for Send data: 4"));

    // The address is written over "127.0.0.1", so a shorter one keeps that text's tail.
    service.answer(48, body(48, {0}));
    EXPECT_EQ(callInt("sendUDPData", {bytes("u"), integer(1), str("1.2.3.4"), integer(12), boolean(false), nullptr}),
              0);
    const Bytes udp = request(48);
    EXPECT_EQ(readField(udp, 4 + 268, 16), std::string("1.2.3.4\0"
                                                     "1\0\0\0\0\0\0\0",
                                                     16));
    EXPECT_EQ(readField(udp, 308, 1), std::string(1, '\0'));

    service.answer(16, body(16, {0}));
    EXPECT_EQ(callInt("broadcast", {bytes("b"), integer(1), str("10.0.0.255"), boolean(true)}), 0);
    EXPECT_EQ(readText(request(16), 4 + 268, 16), "10.0.0.255");
    EXPECT_EQ(callInt("sendUDPDataAll", {bytes("all"), integer(3), boolean(false)}), 0);
    const Bytes all = request(16);
    EXPECT_EQ(readText(all, 4 + 268, 16), "0.0.0.0");
    EXPECT_EQ(readField(all, 313, 3), "all");
}

TEST_F(BridgeTest, AsynchronousSendsReportToTheFirstListenerEverGiven) {
    registerApp(recorder(), nullptr);
    jobject first = recorder();
    jobject second = recorder();
    EXPECT_EQ(callInt("asynSendData", {bytes("one"), integer(3), str("10.0.0.2"), integer(12), boolean(false), first}),
              0);
    EXPECT_EQ(callInt("asynSendData", {bytes("two"), integer(3), str("10.0.0.2"), integer(12), boolean(false), second}),
              0);
    EXPECT_EQ(readField(request(53), 309, 1), "\1") << "a status is wanted";
    const Bytes status = B().i32(54).i32(0).i32(2).str("10.0.0.2", 16).i32(12).add(sendTag(12));
    service.push(status);
    service.push(status);
    EXPECT_EQ(next(first), "onSendingData data{0,2,12,10.0.0.2}");
    EXPECT_EQ(next(first), "onSendingData data{0,2,12,10.0.0.2}");

    service.answer(48, body(48, {0}));
    EXPECT_EQ(callInt("sendUDPData", {bytes("u"), integer(1), str("10.0.0.2"), integer(12), boolean(true), second}), 0);
    service.push(B().i32(52).i32(6).i32(1).str("10.0.0.2", 16).i32(12).add(sendTag(12)));
    EXPECT_EQ(next(first), "onSendingData data{6,1,12,10.0.0.2}");
    EXPECT_EQ(count(second), 0);
}

TEST_F(BridgeTest, FileSendsReturnTheTaskIdOrTheNegatedCodeAndReportProgress) {
    registerApp(recorder(), nullptr);
    jobject single = recorder();
    jobject list = recorder();
    service.answer(13, body(13, {42, 0}));
    EXPECT_EQ(
        callInt("sendFile", {str("/data/a.txt"), str("10.0.0.2"), single, integer(12), boolean(false), integer(0)}),
        42);
    const Bytes one = request(13);
    EXPECT_EQ(readInt32(one, 4), 1);
    EXPECT_EQ(readText(one, 8, 260), "/data/a.txt");
    EXPECT_EQ(readInt32(one, 268 + 260), 12);
    EXPECT_EQ(readText(one, 268 + 268, 16), "10.0.0.2");

    service.answer(51, body(51, {43, 0}));
    EXPECT_EQ(callInt("sendFileList", {array("java/lang/String", {str("/data/a"), str("/data/b")}), str("10.0.0.2"),
                                       list, integer(12), boolean(true), integer(0)}),
              43);
    EXPECT_EQ(readText(request(51), 8 + 260, 260), "/data/b");

    service.push(fileEventHead(14, 42, "a.txt").add(appRecord("peer", 12, 0, "10.0.0.2", "", false)).add(sendTag(12)));
    EXPECT_EQ(next(single), "onSendingFile fileEvent{5000000001,5000000002,5000000003,42,1,3,2,a.txt,10.0.0.2,12}");
    service.push(fileEventHead(14, 43, "b").add(appRecord("peer", 12, 0, "10.0.0.2", "", false)).add(sendTag(12)));
    EXPECT_EQ(next(list), "onSendingFile fileEvent{5000000001,5000000002,5000000003,43,1,3,2,b,10.0.0.2,12}");
    EXPECT_EQ(count(single), 1);

    service.answer(13, body(13, {0, 5}));
    EXPECT_EQ(
        callInt("sendFile", {str("/data/a.txt"), str("10.0.0.2"), single, integer(12), boolean(false), integer(0)}),
        -5);
    EXPECT_EQ(callInt("sendFile", {str("/data/a.txt"), nullptr, single, integer(12), boolean(false), integer(0)}), 0)
        << "an address that cannot be converted";
    EXPECT_TRUE(logged('W', kNative + "sendFile", kNative + "sendFile: jstringToString failure!"));

    // Resuming asks the service for a pause, on purpose.
    for (int32_t action : {9, 11, 12}) {
        service.answer(action, body(action, {42, 0}));
    }
    for (const char* method : {"pauseSend", "resumeSend", "cancelReceive", "cancelSend"}) {
        EXPECT_EQ(callInt(method, {integer(42)}), 0) << method;
    }
    EXPECT_EQ(service.received(9).size(), 2u);
    EXPECT_TRUE(service.received(10).empty());
    EXPECT_EQ(readInt32(request(11), 4), 42);
    EXPECT_EQ(readInt32(request(12), 4), 42);
    EXPECT_EQ(callInt("deleteSendFileCallback", {integer(42)}), 0);
    EXPECT_EQ(callInt("deleteSendFileCallback", {integer(42)}), 1) << "already gone";
}

TEST_F(BridgeTest, ReceivedDataAndFilesReachTheReceiveListener) {
    registerApp(recorder(), nullptr);
    jobject in = recorder();
    service.answer(15, body(15, {0}));
    EXPECT_EQ(callInt("setReceiveOption", {str("/data/in"), in}), 0);
    const Bytes option = request(15);
    EXPECT_EQ(readText(option, 4, 260), "/data/in");
    EXPECT_EQ(readField(option, 264, 3), "\1\1\1") << "rename, data and files wanted";
    EXPECT_EQ(readInt32(option, 267), 1);

    const Bytes peer = appRecord("peer", 12, 0, "10.0.0.9", "aa:bb:cc:dd:ee:ff", false);
    service.push(B().i32(20).i32(1).i32(5).add(peer).i32(5).str("he\x01lo", 5));
    EXPECT_EQ(next(in), "onReceivingData 5 \"he\\x01lo\" 5 app{peer,12,0,10.0.0.9,aa:bb:cc:dd:ee:ff,false}");
    service.push(B().i32(20).i32(1).i32(6).add(peer).i32(0));
    EXPECT_EQ(next(in), "onReceivingData 6 \"\" 0 app{peer,12,0,10.0.0.9,aa:bb:cc:dd:ee:ff,false}");
    service.push(fileEventHead(19, 8, "in.bin").add(sendTag(12)).add(peer));
    EXPECT_EQ(next(in), "onReceivingFile fileEvent{5000000001,5000000002,5000000003,8,1,3,2,in.bin,10.0.0.9,12}");

    const char* optionClass = "com/quorvik/kolt/pelk/agent/ReceiveOption";
    jobject target = make(optionClass, "()V");
    EXPECT_EQ(callInt("getReceiveOption", {target}), 0);
    EXPECT_EQ(describe(target), "option{/data/in,true,1}");

    // The Java option goes out as it is, its folder cut to the field, and with no native
    // receive callbacks: from now on nothing is reported.
    const std::string folder = "/" + std::string(300, 'f');
    EXPECT_EQ(callInt("setReceiveOptionX",
                      {make(optionClass, "(Ljava/lang/String;ZI)V", str(folder), JNI_FALSE, 30), recorder()}),
              0);
    const Bytes optionX = request(15);
    EXPECT_EQ(readText(optionX, 4, 260), folder.substr(0, 259));
    EXPECT_EQ(readField(optionX, 264, 3), std::string(3, '\0'));
    EXPECT_EQ(readInt32(optionX, 267), 30);
}

TEST_F(BridgeTest, MediaServersAndTheirContentComeBackAsJavaRecords) {
    registerApp(recorder(), nullptr);
    // A list longer than the local reference budget of a native call: references must not pile up.
    B servers;
    servers.i32(22).i32(40);
    std::string expected;
    for (int i = 0; i < 40; ++i) {
        servers.add(deviceRecord("NAS" + std::to_string(i), 0, "uuid:" + std::to_string(i), "10.0.0.5", i == 0));
        expected += (i > 0 ? ", device{NAS" : "[device{NAS") + std::to_string(i) + ",0,uuid:" + std::to_string(i) +
                    ",10.0.0.5," + (i == 0 ? "true}" : "false}");
    }
    service.answer(22, servers.i32(0));
    EXPECT_EQ(describe(call("searchDMS", {})), expected + "]");
    service.answer(23, body(23, {0, 0}));
    EXPECT_EQ(describe(call("searchDMR", {})), "null") << "no renderer gives no array";
    EXPECT_TRUE(logged('W', kNative + "searchDMR", "Failed to setDmrList[1060]!"));

    // Java texts longer than their native fields are cut to the field's size.
    jobject server = device(std::string(300, 'n'), 0, "uuid:nas", "192.168.100.200:1", true);
    service.answer(24, B().i32(24).i32(1).add(fileRecord("1", "Movies")).i32(0));
    EXPECT_EQ(describe(call("getRootFileList", {server})), "[file{uuid:srv,0,1,Movies,video,http://10.0.0.5/1}]");
    const Bytes root = request(24);
    EXPECT_EQ(readField(root, 4, 260), std::string(260, 'n'));
    EXPECT_EQ(readText(root, 268, 100), "uuid:nas");
    EXPECT_EQ(readField(root, 368, 16), "192.168.100.200:");
    EXPECT_EQ(readField(root, 384, 1), "\1");

    service.answer(25, body(25, {0, 0}));
    EXPECT_EQ(describe(call("getFileList", {server, file("1", "Movies")})), "null");
    EXPECT_EQ(readText(request(25), 616 + 200, 100), "1");
    service.answer(26, B().i32(26).i32(1).add(fileRecord("1", "Movies")).i32(0));
    EXPECT_EQ(describe(call("getParentFileList", {server, file("7", "Clip")})),
              "[file{uuid:srv,0,1,Movies,video,http://10.0.0.5/1}]");
    EXPECT_EQ(readText(request(26), 616 + 300, 260), "Clip");

    service.answer(47, B().i32(47).i32(0).add(fileRecord("0", "Root")));
    jobject parent = make(kFileInfoClass, "()V");
    EXPECT_EQ(callInt("getParentDirectoryInfo", {file("1", "Movies"), parent}), 0);
    EXPECT_EQ(describe(parent), "file{uuid:srv,0,0,Root,video,http://10.0.0.5/0}");
    EXPECT_EQ(readText(request(47), 4 + 200, 100), "1");
    EXPECT_EQ(callInt("getParentDirectoryInfo", {file("2", "(null)"), parent}), 1001);
    EXPECT_TRUE(logged('W', "getFileInfo", "CallObjectMethod --> NULL == objectTitle"));
}

TEST_F(BridgeTest, CopiesReportToTheLatestListenerAndReleaseTheOneBefore) {
    registerApp(recorder(), nullptr);
    jobject first = recorder();
    jobject second = recorder();
    jobject server = device("NAS", 0, "uuid:nas", "10.0.0.5", false);
    jobject files = array(kFileInfoClass, {file("1", "a"), file("2", "b")});
    service.answer(40, body(40, {77, 0}));
    EXPECT_EQ(callInt("downLoad", {server, files, first}), 77);
    const Bytes down = request(40);
    EXPECT_EQ(readText(down, 4, 260), "NAS");
    EXPECT_EQ(readInt32(down, 1228), 2);
    EXPECT_EQ(readText(down, 1232 + 1844 + 200, 100), "2");
    EXPECT_TRUE(logged('I', kNative + "downLoad", "Success to downLoad.TaskID:[77]!"));

    probeInt("globalRefs");
    const int refs = probeInt("globalRefs");
    service.answer(39, body(39, {78, 0}));
    EXPECT_EQ(callInt("upLoad",
                      {server, device("Phone", 0, "uuid:me", "127.0.0.1", true), files, file("9", "Inbox"), second}),
              78);
    EXPECT_EQ(probeInt("globalRefs"), refs) << "the first listener's references are released";
    const Bytes up = request(39);
    EXPECT_EQ(readText(up, 616, 260), "Phone");
    EXPECT_EQ(readText(up, 1232 + 2 * 1844 + 200, 100), "9");

    service.push(fileEventHead(41, 77, "a").add(sendTag(0)).add(deviceRecord("NAS", 0, "uuid:nas", "10.0.0.5", false)));
    EXPECT_EQ(next(second), "onDLNAFileCopy fileEvent{5000000001,5000000002,5000000003,77,1,3,2,a,10.0.0.5,0}");
    EXPECT_EQ(count(first), 0);
}

TEST_F(BridgeTest, PlaybackAndServerControlsReachTheService) {
    registerApp(recorder(), nullptr);
    jobject server = device("NAS", 0, "uuid:nas", "10.0.0.5", false);
    jobject renderer = device("TV", 1, "uuid:tv", "10.0.0.6", false);
    service.answer(35, body(35, {0}));
    EXPECT_EQ(callInt("playSelectedFile", {integer(2), server, array(kFileInfoClass, {file("1", "a")}), renderer}), 0);
    // The facade hands its arguments to the agent in its own order, so the Java renderer is the
    // request's first device.
    const Bytes play = request(35);
    EXPECT_EQ(readText(play, 4, 260), "TV");
    EXPECT_EQ(readText(play, 616, 260), "NAS");
    EXPECT_EQ(readInt32(play, 1228), 1);
    EXPECT_EQ(readInt32(play, 1232 + 1844), 2);
    EXPECT_EQ(readInt32(play, 1236 + 1844), 0);

    const std::pair<const char*, int32_t> deviceControls[] = {{"stopCurPlayingFile", 36},
                                                              {"pauseCurPlayingFile", 37},
                                                              {"resumeCurPlayingFile", 38},
                                                              {"enableContentListCache", 42},
                                                              {"disableContentListCache", 43}};
    for (const auto& control : deviceControls) {
        service.answer(control.second, body(control.second, {0}));
        EXPECT_EQ(callInt(control.first, {renderer}), 0) << control.first;
        EXPECT_EQ(readText(request(control.second), 4, 260), "TV") << control.first;
    }
    EXPECT_TRUE(logged('D', "stopCurPlayingFile", "ActionAgentWrapper::stopCopyTransfer()"));

    for (int32_t action : {27, 28, 29, 30, 31, 33}) {
        service.answer(action, body(action, {0}));
    }
    EXPECT_EQ(callInt("startDMS", {}), 0);
    EXPECT_EQ(callInt("stopDMS", {}), 0);
    EXPECT_EQ(callInt("rescanShareFolder", {}), 0);
    EXPECT_EQ(callInt("setMyDMSName", {str("Den")}), 0);
    EXPECT_EQ(readText(request(31), 4, 260), "Den");
    EXPECT_EQ(callInt("stopCopyTransfer", {integer(77)}), 0);
    EXPECT_EQ(readInt32(request(29), 4), 77);
    for (int kind : {1, 7, -1}) {
        EXPECT_EQ(callInt("rescanNetwork", {integer(kind)}), 0);
    }
    std::vector<int32_t> kinds;
    for (const Bytes& rescan : service.received(33)) {
        kinds.push_back(readInt32(rescan, 4));
    }
    EXPECT_EQ(kinds, (std::vector<int32_t>{1, 2, 2})) << "unknown kinds ask for all devices";
    EXPECT_EQ(service.received(27).size() + service.received(28).size() + service.received(30).size(), 3u);

    service.answer(27, body(27, {9}));
    EXPECT_EQ(callInt("startDMS", {}), 9);
    EXPECT_TRUE(logged('W', kNative + "startDMS", "Failed to startDMS[9]!======"));
    EXPECT_TRUE(logged('D', "startDMS", "ActionAgentWrapper::startDMS():nReturn for startDMS: 9"));
}

TEST_F(BridgeTest, NullArgumentsGiveTheirCodesAndNeverAJniError) {
    EXPECT_EQ(callInt("registerApp", {nullptr, integer(3), recorder(), nullptr}), -1);
    EXPECT_TRUE(logged('W', kNative + "registerApp", "Cannot convert appName!"));
    EXPECT_EQ(callInt("registerApp", {str("demo"), integer(3), nullptr, nullptr}), -1);
    EXPECT_TRUE(logged('W', kNative + "registerApp", "local_interAppCallbackClass == NULL"));
    registerApp(recorder(), nullptr);

    EXPECT_EQ(callInt("sendData", {nullptr, integer(5), str("10.0.0.2"), integer(12), boolean(false), integer(3)}),
              1402)
        << "no bytes: the agent's own code";
    EXPECT_EQ(callInt("sendData", {bytes("x"), integer(1), nullptr, integer(12), boolean(false), integer(3)}), -1);
    EXPECT_EQ(callInt("sendFile", {nullptr, str("10.0.0.2"), recorder(), integer(12), boolean(false), integer(0)}), 0);
    EXPECT_EQ(callInt("sendFileList", {nullptr, str("10.0.0.2"), recorder(), integer(12), boolean(false), integer(0)}),
              -1803)
        << "no paths";
    EXPECT_EQ(callInt("setReceiveOption", {nullptr, recorder()}), -1);
    EXPECT_TRUE(logged('W', kNative + "setReceiveOption",
                       "Java_com_quorvik_hello_NativeLib_registerReceiver: jstringToString failure!"));
    EXPECT_EQ(callInt("setReceiveOptionX", {nullptr, recorder()}), 1001);
    EXPECT_EQ(callInt("getReceiveOption", {nullptr}), 1001);
    EXPECT_EQ(callInt("setMyDMSName", {nullptr}), -1);

    jobject server = device("NAS", 0, "uuid:nas", "10.0.0.5", false);
    jobject files = array(kFileInfoClass, {file("1", "a")});
    EXPECT_EQ(describe(call("getRootFileList", {nullptr})), "null");
    EXPECT_EQ(describe(call("getFileList", {server, nullptr})), "null");
    EXPECT_EQ(describe(call("getParentFileList", {nullptr, file("1", "a")})), "null");
    EXPECT_EQ(callInt("getParentDirectoryInfo", {file("1", "a"), nullptr}), 1001);
    EXPECT_EQ(callInt("enableContentListCache", {nullptr}), 1001);
    EXPECT_TRUE(logged('W', kNative + "enableContentListCache",
                       "enableContentListCache --> (NULL == jenv) || (NULL == jdevice)!"));
    jobject noUUID = make(kDeviceClass, "(Ljava/lang/String;ILjava/lang/String;Ljava/lang/String;Z)V", str("TV"), 1,
                          nullptr, str("10.0.0.6"), JNI_FALSE);
    EXPECT_EQ(callInt("stopCurPlayingFile", {noUUID}), 1001);
    EXPECT_TRUE(logged('W', "getDLNADevice", "CallObjectMethod --> NULL == UUID"));
    EXPECT_EQ(callInt("downLoad", {server, files, nullptr}), 1001);
    EXPECT_EQ(callInt("downLoad", {server, array(kFileInfoClass, {nullptr}), recorder()}), 1001) << "a null element";
    EXPECT_EQ(callInt("upLoad", {server, nullptr, files, file("9", "x"), recorder()}), 1001);
    EXPECT_EQ(callInt("playSelectedFile", {integer(0), server, files, nullptr}), 1001);
    EXPECT_TRUE(service.received(39).empty() && service.received(40).empty() && service.received(35).empty() &&
                service.received(36).empty());
}

// The link's callback thread is attached on its first event, dropped or not, and stays attached
// (as a daemon, so that it never holds the VM's shutdown up) until the link's threads end.
TEST_F(BridgeTest, AListenerWithoutTheMethodLosesTheEventAndTheLinksThreadStaysAttachedUntilItEnds) {
    jobject apps = recorder();
    registerApp(apps, nullptr);
    const int threads = probeInt("liveThreads");
    const int daemons = probeInt("daemonThreads");
    EXPECT_EQ(callInt("asynSendData", {bytes("x"), integer(1), str("10.0.0.2"), integer(12), boolean(false),
                                       make("java/lang/Object", "()V")}),
              0);
    service.push(B().i32(54).i32(0).i32(2).str("10.0.0.2", 16).i32(12).add(sendTag(12)));
    EXPECT_TRUE(pelktest::waitUntil([] { return logged('W', "OnDataSend", "methodID == NULL"); }, 5000, 10));
    EXPECT_EQ(probeInt("liveThreads"), threads + 1) << "the dispatching thread is attached";
    EXPECT_EQ(probeInt("daemonThreads"), daemons + 1);

    service.push(B().i32(45).i32(0).i32(1).add(appRecord("peer", 12, 2, "10.0.0.9", "", false)));
    EXPECT_EQ(next(apps), "onInterAppChange app{peer,12,2,10.0.0.9,,false} 1");
    EXPECT_EQ(probeInt("liveThreads"), threads + 1) << "a delivered event leaves it attached";
    EXPECT_EQ(callInt("unRegisterApp", {}), 0);
    EXPECT_TRUE(awaitLiveThreads(threads)) << "the ending thread is detached";
}

TEST_F(BridgeTest, TenThousandEventsOfEachKindLeaveNoReferencesOrThreadsBehind) {
    jobject r = recorder();
    ASSERT_NO_FATAL_FAILURE(listenToEverything(r));
    const Bytes peer = appRecord("peer", 12, 2, "10.0.0.2", "aa:bb:cc:dd:ee:ff", false);
    const Bytes nas = deviceRecord("NAS", 0, "uuid:nas", "10.0.0.5", false);
    const std::vector<Bytes> events = {
        B().i32(45).i32(0).i32(1).add(peer),
        B().i32(32).i32(0).i32(1).add(nas),
        B().i32(20).i32(1).i32(5).add(peer).i32(4).str("data", 4),
        fileEventHead(19, 8, "in").add(sendTag(12)).add(peer),
        fileEventHead(14, 42, "out").add(peer).add(sendTag(12)),
        fileEventHead(41, 77, "copy").add(sendTag(0)).add(nas),
        B().i32(54).i32(0).i32(2).str("10.0.0.2", 16).i32(12).add(sendTag(12)),
    };
    const int kinds = static_cast<int>(events.size());
    const auto round = [&](int times) {
        for (int i = 0; i < times; ++i) {
            ASSERT_EQ(env->PushLocalFrame(16), JNI_OK);
            ASSERT_EQ(
                callInt("asynSendData", {bytes("x"), integer(1), str("10.0.0.2"), integer(12), boolean(false), r}), 0);
            env->PopLocalFrame(nullptr);
            for (const Bytes& event : events) {
                ASSERT_TRUE(service.push(event));
            }
        }
    };
    const int threads = probeInt("liveThreads");
    round(1);
    ASSERT_TRUE(awaitCount(r, kinds, 5000));
    ASSERT_EQ(probeInt("liveThreads"), threads + 1) << "the link's callback thread, attached";
    probeInt("globalRefs");
    const int refs = probeInt("globalRefs");

    // A local reference left behind by any event would pile up in the attached thread, and the
    // VM (checking JNI) reports a thread's local references beyond its capacity.
    round(10000);
    EXPECT_TRUE(awaitCount(r, kinds * 10001, 300000)) << count(r) << " calls";
    EXPECT_EQ(probeInt("liveThreads"), threads + 1) << "one attached thread for every event";
    EXPECT_EQ(probeInt("globalRefs"), refs);
    EXPECT_EQ(callInt("unRegisterApp", {}), 0);
    EXPECT_TRUE(awaitLiveThreads(threads)) << "detached when the link's threads end";
}

TEST_F(BridgeTest, UnloadReleasesTheSendAndReceiveListenersAndTheCachedClasses) {
    jobject r = recorder();
    registerApp(r, r);
    service.answer(15, body(15, {0}));
    service.answer(13, body(13, {42, 0}));
    ASSERT_EQ(callInt("setReceiveOption", {str("/data/in"), r}), 0);
    ASSERT_EQ(callInt("asynSendData", {bytes("x"), integer(1), str("10.0.0.2"), integer(12), boolean(false), r}), 0);
    ASSERT_EQ(callInt("sendFile", {str("/data/a"), str("10.0.0.2"), r, integer(12), boolean(false), integer(0)}), 42);
    ASSERT_EQ(callInt("sendFileList", {array("java/lang/String", {str("/data/a")}), str("10.0.0.2"), r, integer(12),
                                       boolean(false), integer(0)}),
              42);
    probeInt("globalRefs");
    const int refs = probeInt("globalRefs");

    void* library = dlopen(PELK_AGENT_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(library, nullptr) << "the VM loaded the library";
    using Unload = void (*)(JavaVM*, void*);
    const Unload unload = reinterpret_cast<Unload>(dlsym(library, "JNI_OnUnload"));
    ASSERT_NE(unload, nullptr);
    unload(Vm::get().vm, nullptr);
    dlclose(library);
    // Four listener pairs and four classes; the app, device and copy listeners stay.
    EXPECT_EQ(probeInt("globalRefs"), refs - 12);

    // Events after unload find neither listener nor class: dropped, without a JNI error.
    service.push(B().i32(20).i32(1).i32(5).add(appRecord("peer", 12, 0, "10.0.0.9", "", false)).i32(1).str("x", 1));
    EXPECT_TRUE(pelktest::waitUntil([] { return logged('W', "OnDataReceive", "methodID == NULL"); }, 5000, 10));
    service.push(B().i32(45).i32(0).i32(1).add(appRecord("peer", 12, 0, "10.0.0.9", "", false)));
    EXPECT_TRUE(
        pelktest::waitUntil([] { return logged('W', "makeInteractionApp", "jo_interactionApp == NULL"); }, 5000, 10));
    EXPECT_EQ(count(r), 0);
}

// Java strings leave as standard UTF-8 (never the VM's own modified form), and a text cut to its
// field loses whole characters only.
TEST_F(BridgeTest, EveryJavaTextReachesTheServiceAsUtf8CutOnACharacterBoundary) {
    // Led by "/", so that the agent takes it for an absolute path where it wants one.
    const std::u16string accentedCjkEmoji = u"/\u00e9\u4e2d\U0001F389";
    const std::string utf8 = "/\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x8E\x89";
    for (int32_t action : {13, 15, 16, 18, 24, 25, 31, 48, 51, 53}) {
        service.answer(action, body(action, {0, 0}));
    }
    jobject r = recorder();
    const char* optionClass = "com/quorvik/kolt/pelk/agent/ReceiveOption";
    const auto ip = [&](jstring t) { return std::vector<jobject>{bytes("x"), integer(1), t, integer(12), boolean(false)}; };
    const auto plus = [](std::vector<jobject> head, std::vector<jobject> tail) {
        head.insert(head.end(), tail.begin(), tail.end());
        return head;
    };
    const auto deviceOf = [&](jstring name, jstring uuid, jstring address) {
        return make(kDeviceClass, "(Ljava/lang/String;ILjava/lang/String;Ljava/lang/String;Z)V", name, 0, uuid,
                    address, JNI_FALSE);
    };
    const auto fileOf = [&](jstring t) {
        return make(kFileInfoClass,
                    "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;"
                    "Ljava/lang/String;)V",
                    t, t, t, t, t, t);
    };
    const struct {
        const char* method;
        std::function<std::vector<jobject>(jstring)> args;
        int32_t action;
        std::vector<size_t> offsets;  // where the text stands in the request
    } paths[] = {
        {"registerApp", [&](jstring t) { return std::vector<jobject>{t, integer(3), r, nullptr}; }, 1, {8}},
        {"sendData", [&](jstring t) { return plus(ip(t), {integer(3)}); }, 18, {272}},
        {"asynSendData", [&](jstring t) { return plus(ip(t), {nullptr}); }, 53, {272}},
        {"sendUDPData", [&](jstring t) { return plus(ip(t), {nullptr}); }, 48, {272}},
        {"broadcast", [&](jstring t) { return std::vector<jobject>{bytes("x"), integer(1), t, boolean(true)}; }, 16,
         {272}},
        {"sendFile", [&](jstring t) { return std::vector<jobject>{t, t, r, integer(12), boolean(false), integer(0)}; },
         13, {8, 536}},
        {"sendFileList",
         [&](jstring t) {
             return std::vector<jobject>{array("java/lang/String", {t}), t, r, integer(12), boolean(true), integer(0)};
         },
         51, {8, 536}},
        {"setReceiveOption", [&](jstring t) { return std::vector<jobject>{t, r}; }, 15, {4}},
        {"setReceiveOptionX",
         [&](jstring t) { return std::vector<jobject>{make(optionClass, "(Ljava/lang/String;ZI)V", t, JNI_FALSE, 1), r}; },
         15, {4}},
        {"setMyDMSName", [&](jstring t) { return std::vector<jobject>{t}; }, 31, {4}},
        {"getRootFileList", [&](jstring t) { return std::vector<jobject>{deviceOf(t, t, t)}; }, 24, {4, 268, 368}},
        {"getFileList", [&](jstring t) { return std::vector<jobject>{deviceOf(t, t, t), fileOf(t)}; }, 25,
         {616, 716, 816, 916, 1176, 1436}},
    };
    for (const auto& path : paths) {
        SCOPED_TRACE(path.method);
        call(path.method, path.args(jtext(accentedCjkEmoji)));
        const Bytes sent = request(path.action);
        for (size_t offset : path.offsets) {
            EXPECT_EQ(readField(sent, offset, utf8.size() + 1), utf8 + '\0') << "at " << offset;
        }
    }

    // Cut to the field: before the character that would not fit whole.
    const std::u16string emoji = u"\U0001F389";
    call("sendData", plus(ip(jtext(u"1234567890123" + emoji)), {integer(3)}));
    EXPECT_EQ(readField(request(18), 272, 16), std::string("1234567890123\0\0\0", 16));
    call("setReceiveOption", {jtext(u"/" + std::u16string(256, u'f') + emoji), r});
    EXPECT_EQ(readField(request(15), 4, 260), "/" + std::string(256, 'f') + std::string(3, '\0'));
    call("getRootFileList", {deviceOf(jtext(std::u16string(258, u'n') + emoji), str("uuid:nas"),
                                      jtext(u"192.168.100.20\u4e2d"))});
    const Bytes root = request(24);
    EXPECT_EQ(readField(root, 4, 260), std::string(258, 'n') + std::string(2, '\0'));
    EXPECT_EQ(readField(root, 368, 16), std::string("192.168.100.20\0\0", 16));
    // A lone surrogate is U+FFFD; a text ends at U+0000, as any C text does.
    call("setMyDMSName", {jtext(u"a\xD800" u"b")});
    EXPECT_EQ(readText(request(31), 4, 260), "a\xEF\xBF\xBD" "b");
    call("setMyDMSName", {jtext(std::u16string(u"ab\0cd", 5))});
    EXPECT_EQ(readField(request(31), 4, 5), std::string("ab\0\0\0", 5));
}

// Texts from the service become Java strings through UTF-8 decoding: characters outside the BMP
// arrive whole, and bytes that are no UTF-8 (invalid, or a character cut by the service at its
// field's size) arrive as U+FFFD, in every string field of every record and event.
TEST_F(BridgeTest, EveryServiceTextReachesJavaAsAValidString) {
    jobject r = recorder();
    ASSERT_NO_FATAL_FAILURE(listenToEverything(r));

    // Each text as the service writes it into a field of that size, and as Java should see it.
    const struct {
        const char* name;
        std::function<std::string(size_t)> bytes;
        std::function<std::u16string(size_t)> java;
    } texts[] = {
        {"supplementary", [](size_t) { return std::string("\xF0\x9F\x8E\x89 party"); },
         [](size_t) { return std::u16string(u"\U0001F389 party"); }},
        {"invalid", [](size_t) { return std::string("\xFF" "x\xC0\x80y\xE4\xB8"); },
         [](size_t) { return std::u16string(u"\uFFFDx\uFFFD\uFFFDy\uFFFD"); }},
        {"cut", [](size_t n) { return std::string(n - 3, 'a') + "\xF0\x9F"; },
         [](size_t n) { return std::u16string(n - 3, u'a') + u"\uFFFD"; }},
    };
    for (const auto& t : texts) {
        SCOPED_TRACE(t.name);
        const auto b = t.bytes;
        const auto j = t.java;
        const Bytes app = appRecord(b(260), 12, 2, b(16), b(18), true);
        const Bytes dev = deviceRecord(b(260), 1, b(100), b(16), false);
        const std::u16string appJava = u"app{" + j(260) + u",12,2," + j(16) + u"," + j(18) + u",true}";
        const std::u16string fileEvent = u"fileEvent{5000000001,5000000002,5000000003,";
        const std::u16string item = u"file{" + j(100) + u"," + j(100) + u"," + j(100) + u"," + j(260) + u"," + j(260) +
                                    u"," + j(1024) + u"}";

        service.push(B().i32(45).i32(0).i32(1).add(app));
        EXPECT_EQ(text16(nextCall(r)), u"onInterAppChange " + appJava + u" 1");
        service.push(B().i32(32).i32(0).i32(2).add(dev));
        EXPECT_EQ(text16(nextCall(r)),
                  u"onDLNADeviceChange device{" + j(260) + u",1," + j(100) + u"," + j(16) + u",false} 2");
        service.push(B().i32(20).i32(1).i32(5).add(app).i32(1).str("x", 1));
        EXPECT_EQ(text16(nextCall(r)), u"onReceivingData 5 \"x\" 1 " + appJava);
        service.push(fileEventHead(19, 8, b(260)).add(sendTag(12)).add(app));
        EXPECT_EQ(text16(nextCall(r)), u"onReceivingFile " + fileEvent + u"8,1,3,2," + j(260) + u"," + j(16) + u",12}");
        service.push(fileEventHead(14, 42, b(260)).add(app).add(sendTag(12)));
        EXPECT_EQ(text16(nextCall(r)), u"onSendingFile " + fileEvent + u"42,1,3,2," + j(260) + u"," + j(16) + u",12}");
        service.push(fileEventHead(41, 77, b(260)).add(sendTag(0)).add(dev));
        EXPECT_EQ(text16(nextCall(r)), u"onDLNAFileCopy " + fileEvent + u"77,1,3,2," + j(260) + u"," + j(16) + u",0}");

        service.answer(44, B().i32(44).i32(1).add(app).i32(0));
        EXPECT_EQ(text16(described(call("searchInteractionApp", {}))),
                  u"[" + appJava + u"]");
        service.answer(22, B().i32(22).i32(1).add(dev).i32(0));
        EXPECT_EQ(text16(described(call("searchDMS", {}))),
                  u"[device{" + j(260) + u",1," + j(100) + u"," + j(16) + u",false}]");
        const Bytes fileBytes = B().str(b(100), 100).str(b(100), 100).str(b(100), 100).str(b(260), 260).str(
            b(260), 260).str(b(1024), 1024);
        service.answer(24, B().i32(24).i32(1).add(fileBytes).i32(0));
        EXPECT_EQ(text16(described(call("getRootFileList", {device("NAS", 0, "uuid:nas", "10.0.0.5", false)}))),
                  u"[" + item + u"]");
        service.answer(47, B().i32(47).i32(0).add(fileBytes));
        jobject parent = make(kFileInfoClass, "()V");
        EXPECT_EQ(callInt("getParentDirectoryInfo", {file("1", "a"), parent}), 0);
        EXPECT_EQ(text16(described(parent)), item);
    }
    // A send status is matched to its send by the address, so only an address that the app sent
    // to comes back: one outside the BMP.
    const std::string address = "\xF0\x9F\x8E\x89 party";
    EXPECT_EQ(callInt("asynSendData", {bytes("x"), integer(1), jtext(u"\U0001F389 party"), integer(12), boolean(false), r}),
              0);
    service.push(B().i32(54).i32(0).i32(2).str(address, 16).i32(12).add(sendTag(12)));
    EXPECT_EQ(text16(nextCall(r)), u"onSendingData data{0,2,12,\U0001F389 party}");
}

}  // namespace
