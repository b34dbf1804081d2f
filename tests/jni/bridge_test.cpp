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
using namespace std::string_literals;

namespace {

// The events: an app or device change, received data, a TCP send's status, and the file events
// 14, 19 and 41 (task, file name, then what follows their head).
Bytes appEvent(int change, const Bytes& app) { return B().i32(45).i32(0).i32(change).add(app); }
Bytes deviceEvent(int change, const Bytes& device) { return B().i32(32).i32(0).i32(change).add(device); }
Bytes dataEvent(int type, const Bytes& sender, const std::string& data) {
    return B().i32(20).i32(1).i32(type).add(sender).i32(static_cast<int32_t>(data.size())).str(data, data.size());
}
Bytes tcpStatus(const std::string& ip) { return B().i32(54).i32(0).i32(2).str(ip, 16).i32(12).add(sendTag(12)); }
Bytes fileEvent(int32_t action, int32_t taskID, const std::string& name, const Bytes& first, const Bytes& second) {
    return B().i32(action).i32(0).i64(5000000001).i64(5000000002).i64(5000000003).i32(2).i32(taskID).i32(1).i32(3)
        .str(name, 260).add(first).add(second);
}
const std::string kFileEvent = "fileEvent{5000000001,5000000002,5000000003,";

// A 32-bit field as it stands in a request.
std::string le(int32_t value) { return readField(B().i32(value), 0, 4); }

// ---------------------------------------------------------------------------------------------
// The fixture: the fake service, the VM, and Java values made on the test's thread.

constexpr const char* kProbe = "com/quorvik/kolt/pelk/agent/probe/Probe";
constexpr const char* kDeviceClass = "com/quorvik/kolt/pelk/agent/DLNADevice";
constexpr const char* kFileInfoClass = "com/quorvik/kolt/pelk/agent/FileInfo";
constexpr const char* kOptionClass = "com/quorvik/kolt/pelk/agent/ReceiveOption";
constexpr const char* kDeviceSignature = "(Ljava/lang/String;ILjava/lang/String;Ljava/lang/String;Z)V";
constexpr const char* kFileInfoSignature =
    "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)V";

// One native call as an app makes it: what it returns, and the request it sends (action) with
// fields at their offsets, answered by reply when one is given. A negative action names a
// request that the call must not send.
struct Call {
    const char* method;
    std::vector<jobject> args;
    int result;
    int32_t action = 0;
    std::vector<std::pair<size_t, std::string>> fields = {};
    Bytes reply = {};
};

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
    // The text of an ASCII Java string.
    std::string text(jobject javaString) {
        const std::u16string wide = text16(javaString);
        return std::string(wide.begin(), wide.end());
    }

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
        return make(kDeviceClass, kDeviceSignature, str(name), type, str(uuid), str(ip), local ? JNI_TRUE : JNI_FALSE);
    }
    // A FileInfo whose texts are derived from id; a null title when title is "(null)".
    jobject file(const std::string& id, const std::string& title) {
        return make(kFileInfoClass, kFileInfoSignature, str("uuid:srv"), str("0"), str(id),
                    title == "(null)" ? nullptr : str(title), str("video"), str("http://10.0.0.5/" + id));
    }
    jobjectArray array(const char* className, const std::vector<jobject>& elements) {
        jobjectArray a = env->NewObjectArray(static_cast<jsize>(elements.size()), env->FindClass(className), nullptr);
        for (size_t i = 0; i < elements.size(); ++i) {
            env->SetObjectArrayElement(a, static_cast<jsize>(i), elements[i]);
        }
        return a;
    }
    jobject nas() { return device("NAS", 0, "uuid:nas", "10.0.0.5", false); }
    jobjectArray files(std::vector<jobject> items) { return array(kFileInfoClass, items); }

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
    jobject described(jobject value) { return probe("describe", "(Ljava/lang/Object;)Ljava/lang/String;", value); }
    std::string describe(jobject value) { return text(described(value)); }

    // Makes each call and checks its result and request.
    void expectCalls(const std::vector<Call>& calls) {
        for (const Call& c : calls) {
            SCOPED_TRACE(c.method);
            const int32_t action = c.action < 0 ? -c.action : c.action;
            const size_t before = action != 0 ? service.received(action).size() : 0;
            if (!c.reply.empty()) {
                service.answer(action, c.reply);
            }
            EXPECT_EQ(callInt(c.method, c.args), c.result);
            if (c.action < 0) {
                EXPECT_EQ(service.received(action).size(), before) << "no request " << action;
            } else if (c.action > 0) {
                ASSERT_TRUE(service.waitForRequests(action, before + 1)) << "no request " << action;
                const Bytes sent = service.received(action).back();
                for (const auto& field : c.fields) {
                    EXPECT_EQ(readField(sent, field.first, field.second.size()), field.second) << "at " << field.first;
                }
            }
        }
    }

    // The last request with this action ID (empty when none came).
    Bytes request(int32_t actionID) {
        service.waitForRequests(actionID, 1);
        const std::vector<Bytes> requests = service.received(actionID);
        return requests.empty() ? Bytes{} : requests.back();
    }

    // What a Recorder heard: its calls in turn, one line each, and how many in all.
    jobject recorderCall(jobject r, const char* method, const char* signature, ...) {
        va_list args;
        va_start(args, signature);
        jobject result = env->CallObjectMethodV(r, env->GetMethodID(env->GetObjectClass(r), method, signature), args);
        va_end(args);
        expectNoException();
        return result;
    }
    jobject nextCall(jobject r) { return recorderCall(r, "next", "()Ljava/lang/String;"); }
    std::string next(jobject r) { return text(nextCall(r)); }
    int count(jobject r) {
        const int n = env->CallIntMethod(r, env->GetMethodID(env->GetObjectClass(r), "count", "()I"));
        expectNoException();
        return n;
    }
    bool awaitCount(jobject r, int n, long timeoutMs) {
        const jboolean reached =
            env->CallBooleanMethod(r, env->GetMethodID(env->GetObjectClass(r), "awaitCount", "(IJ)Z"), n, jlong{timeoutMs});
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
        expectCalls({{"setReceiveOption", {str("/data/in"), r}, 0, 15, {}, body(15, {0})},
                     {"sendFile", {str("/data/a"), str("10.0.0.2"), r, integer(12), boolean(false), integer(0)}, 42, 13,
                      {}, body(13, {42, 0})},
                     {"downLoad", {nas(), files({file("1", "a")}), r}, 77, 40, {}, body(40, {77, 0})}});
    }
};

// ---------------------------------------------------------------------------------------------

TEST_F(BridgeTest, RegistrationReportsAppsAndDevicesToTheirListeners) {
    jobject apps = recorder();
    jobject devices = recorder();
    expectCalls({{"registerApp", {str("demo"), integer(3), apps, devices}, 0, 1, {{4, le(3)}, {8, "demo\0"s}, {268, "\1\1"}}}});
    EXPECT_TRUE(logged('D', "registerApp", "ActionAgentWrapper::registerApp() ------ Registe app:7 successful."));
    EXPECT_EQ(describe(call("getInteractionAppList", {})), "[]") << "no app known yet: an empty array";

    service.push(appEvent(1, appRecord("peer", 12, 2, "10.0.0.9", "aa:bb:cc:dd:ee:ff", true)));
    EXPECT_EQ(next(apps), "onInterAppChange app{peer,12,2,10.0.0.9,aa:bb:cc:dd:ee:ff,true} 1");
    service.push(deviceEvent(2, deviceRecord("Living room", 1, "uuid:tv", "10.0.0.5", false)));
    EXPECT_EQ(next(devices), "onDLNADeviceChange device{Living room,1,uuid:tv,10.0.0.5,false} 2");

    EXPECT_EQ(describe(call("getInteractionAppList", {})), "[app{peer,12,2,10.0.0.9,aa:bb:cc:dd:ee:ff,true}]");
    service.answer(44, B().i32(44).i32(1).add(appRecord("far", 30, 1, "10.0.0.30", "", false)).i32(0));
    EXPECT_EQ(describe(call("searchInteractionApp", {})), "[app{far,30,1,10.0.0.30,,false}]");
    EXPECT_TRUE(logged('I', kNative + "searchInteractionApp", "searchInteractionApp contains 1 apps!"));
    expectCalls({{"refreshInteractionApp", {boolean(true)}, 0, 49, {{4, "\1"}}, body(49, {0})},
                 {"unRegisterApp", {}, 0, 2}});
    EXPECT_EQ(describe(call("getInteractionAppList", {})), "null") << "not registered: the agent's code, no array";
}

TEST_F(BridgeTest, DataSendsCarryTheBytesTheAddressAndTheFlags) {
    expectCalls({{"registerApp", {str("demo"), integer(3), recorder(), nullptr}, 0, 1, {{268, std::string(1, '\0')}}}});
    const auto send = [&](const char* ip) {
        return std::vector<jobject>{bytes("u"), integer(1), str(ip), integer(12), boolean(false), nullptr};
    };
    expectCalls({
        // The length asked for is cut to the array: nothing past its end is read; 3 s are 3000 ms.
        {"sendData", {bytes("hello"), integer(100), str("10.0.0.2"), integer(12), boolean(true), integer(3)}, 4, 18,
         {{264, le(12)}, {272, "10.0.0.2\0"s}, {308, "\1"}, {309, le(3000)}, {313, le(5)}, {317, "hello"}},
         body(18, {4})},
        // A negative length is passed on as it is, for the agent to refuse; nothing is sent.
        {"sendData", {bytes("hello"), integer(-1), str("10.0.0.2"), integer(12), boolean(true), integer(3)}, 1404, -18},
        {"asynSendData", {bytes("hello"), integer(-1), str("10.0.0.2"), integer(12), boolean(true), nullptr}, 1404, -53},
        {"broadcast", {bytes("hello"), integer(-1), str("10.0.0.255"), boolean(true)}, 1905, -16},
        // The address is written over "127.0.0.1", so a shorter one keeps that text's tail; a
        // longer one is cut to fifteen characters.
        {"sendUDPData", send("1.2.3.4"), 0, 48, {{272, std::string("1.2.3.4\0" "1\0\0\0\0\0\0\0", 16)}, {308, std::string(1, '\0')}},
         body(48, {0})},
        {"sendUDPData", send("192.168.100.200:1"), 0, 48, {{272, std::string("192.168.100.200\0", 16)}}},
        {"broadcast", {bytes("b"), integer(1), str("10.0.0.255"), boolean(true)}, 0, 16, {{272, "10.0.0.255\0"s}},
         body(16, {0})},
        {"sendUDPDataAll", {bytes("all"), integer(3), boolean(false)}, 0, 16, {{272, "0.0.0.0\0"s}, {313, "all"}}},
    });
    EXPECT_TRUE(logged('D', kNative + "sendData", kNative + "sendData: buf: hello!"));
    EXPECT_TRUE(logged('D', "sendData", "ActionAgentWrapper::sendData() ------ nReturn for Send data: 4"));
}

// Each kind of listener is kept by its own rule: a data send's the first ever given, a file
// send's and a file list's the first of each, a copy's the latest.
TEST_F(BridgeTest, EachListenerIsKeptByItsRuleAndHearsOnlyItsOwnEvents) {
    registerApp(recorder(), nullptr);
    jobject first = recorder();
    jobject second = recorder();
    const auto asyn = [&](jobject r) {
        return std::vector<jobject>{bytes("x"), integer(1), str("10.0.0.2"), integer(12), boolean(false), r};
    };
    expectCalls({{"asynSendData", asyn(first), 0, 53, {{309, "\1"}}},
                 {"asynSendData", asyn(second), 0, 53},
                 {"sendUDPData", {bytes("u"), integer(1), str("10.0.0.2"), integer(12), boolean(true), second}, 0, 48,
                  {}, body(48, {0})}});
    service.push(tcpStatus("10.0.0.2"));
    service.push(B().i32(52).i32(6).i32(1).str("10.0.0.2", 16).i32(12).add(sendTag(12)));
    EXPECT_EQ(next(first), "onSendingData data{0,2,12,10.0.0.2}");
    EXPECT_EQ(next(first), "onSendingData data{6,1,12,10.0.0.2}");

    jobject single = recorder();
    jobject list = recorder();
    const auto sendFile = [&](jobject r) {
        return std::vector<jobject>{str("/data/a.txt"), str("10.0.0.2"), r, integer(12), boolean(false), integer(0)};
    };
    const auto sendList = [&](jobject r) {
        return std::vector<jobject>{array("java/lang/String", {str("/data/a"), str("/data/b")}), str("10.0.0.2"), r,
                                    integer(12), boolean(true), integer(0)};
    };
    jobject copy = recorder();
    jobject later = recorder();
    expectCalls({
        {"sendFile", sendFile(single), 42, 13, {{4, le(1)}, {8, "/data/a.txt\0"s}, {528, le(12)}, {536, "10.0.0.2\0"s}},
         body(13, {42, 0})},
        {"sendFile", sendFile(second), 42, 13},
        {"sendFileList", sendList(list), 43, 51, {{4, le(2)}, {268, "/data/b\0"s}}, body(51, {43, 0})},
        {"sendFileList", sendList(second), 43, 51},
        {"downLoad", {nas(), files({file("1", "a"), file("2", "b")}), copy}, 77, 40,
         {{4, "NAS\0"s}, {1228, le(2)}, {1232 + 1844 + 200, "2\0"s}}, body(40, {77, 0})},
    });
    EXPECT_TRUE(logged('I', kNative + "downLoad", "Success to downLoad.TaskID:[77]!"));
    probeInt("globalRefs");
    const int refs = probeInt("globalRefs");
    expectCalls({{"upLoad", {nas(), device("Phone", 0, "uuid:me", "127.0.0.1", true), files({file("1", "a")}),
                             file("9", "Inbox"), later},
                  78, 39, {{616, "Phone\0"s}, {1232 + 1844 + 200, "9\0"s}}, body(39, {78, 0})}});
    EXPECT_EQ(probeInt("globalRefs"), refs) << "the copy's first listener is released";

    const Bytes peer = appRecord("peer", 12, 0, "10.0.0.2", "", false);
    service.push(fileEvent(14, 42, "a.txt", peer, sendTag(12)));
    service.push(fileEvent(14, 43, "b", peer, sendTag(12)));
    service.push(fileEvent(41, 77, "a", sendTag(0), deviceRecord("NAS", 0, "uuid:nas", "10.0.0.5", false)));
    EXPECT_EQ(next(single), "onSendingFile " + kFileEvent + "42,1,3,2,a.txt,10.0.0.2,12}");
    EXPECT_EQ(next(list), "onSendingFile " + kFileEvent + "43,1,3,2,b,10.0.0.2,12}");
    EXPECT_EQ(next(later), "onDLNAFileCopy " + kFileEvent + "77,1,3,2,a,10.0.0.5,0}");
    for (jobject unheard : {second, copy}) {
        EXPECT_EQ(count(unheard), 0);
    }
    EXPECT_EQ(count(single), 1);
}

// A failed file send returns its code negated; resuming asks the service for a pause, on purpose.
TEST_F(BridgeTest, FileSendsReturnTheNegatedCodeAndControlsCarryTheTaskID) {
    registerApp(recorder(), nullptr);
    const auto sendFile = [&](jobject ip) {
        return std::vector<jobject>{str("/data/a.txt"), ip, recorder(), integer(12), boolean(false), integer(0)};
    };
    expectCalls({
        {"sendFile", sendFile(str("10.0.0.2")), -5, 13, {}, body(13, {0, 5})},
        {"sendFile", sendFile(nullptr), 0, -13},  // an address that cannot be converted
        {"pauseSend", {integer(42)}, 0, 9, {{4, le(42)}}, body(9, {42, 0})},
        {"resumeSend", {integer(43)}, 0, 9, {{4, le(43)}}},
        {"cancelReceive", {integer(44)}, 0, 11, {{4, le(44)}}, body(11, {44, 0})},
        {"cancelSend", {integer(45)}, 0, 12, {{4, le(45)}}, body(12, {45, 0})},
        {"deleteSendFileCallback", {integer(42)}, 1},  // no callback under that task
    });
    EXPECT_TRUE(service.received(10).empty());
    EXPECT_TRUE(logged('W', kNative + "sendFile", kNative + "sendFile: jstringToString failure!"));
    expectCalls({{"sendFile", sendFile(str("10.0.0.2")), 42, 13, {}, body(13, {42, 0})},
                 {"deleteSendFileCallback", {integer(42)}, 0}});
}

TEST_F(BridgeTest, ReceivedDataAndFilesReachTheReceiveListener) {
    registerApp(recorder(), nullptr);
    jobject in = recorder();
    expectCalls({{"setReceiveOption", {str("/data/in"), in}, 0, 15, {{4, "/data/in\0"s}, {264, "\1\1\1"}, {267, le(1)}},
                  body(15, {0})}});
    const Bytes peer = appRecord("peer", 12, 0, "10.0.0.9", "aa:bb:cc:dd:ee:ff", false);
    service.push(dataEvent(5, peer, "he\x01lo"));
    service.push(dataEvent(6, peer, ""));
    service.push(fileEvent(19, 8, "in.bin", sendTag(12), peer));
    EXPECT_EQ(next(in), "onReceivingData 5 \"he\\x01lo\" 5 app{peer,12,0,10.0.0.9,aa:bb:cc:dd:ee:ff,false}");
    EXPECT_EQ(next(in), "onReceivingData 6 \"\" 0 app{peer,12,0,10.0.0.9,aa:bb:cc:dd:ee:ff,false}");
    EXPECT_EQ(next(in), "onReceivingFile " + kFileEvent + "8,1,3,2,in.bin,10.0.0.9,12}");

    jobject target = make(kOptionClass, "()V");
    EXPECT_EQ(callInt("getReceiveOption", {target}), 0);
    EXPECT_EQ(describe(target), "option{/data/in,true,1}");
    // The Java option goes out as it is, its folder cut to the field, and with no native
    // receive callbacks: from now on nothing is reported.
    const std::string folder = "/" + std::string(300, 'f');
    expectCalls({{"setReceiveOptionX", {make(kOptionClass, "(Ljava/lang/String;ZI)V", str(folder), JNI_FALSE, 30), recorder()},
                  0, 15, {{4, folder.substr(0, 259) + '\0'}, {264, std::string(3, '\0')}, {267, le(30)}}}});
}

TEST_F(BridgeTest, MediaServersAndTheirContentComeBackAsJavaRecords) {
    registerApp(recorder(), nullptr);
    // A list longer than the local reference budget of a native call: references must not pile up.
    B servers;
    servers.i32(22).i32(40);
    std::string expected;
    for (int i = 0; i < 40; ++i) {
        const std::string n = std::to_string(i);
        servers.add(deviceRecord("NAS" + n, 0, "uuid:" + n, "10.0.0.5", i == 0));
        expected += (i > 0 ? ", " : "[") + ("device{NAS" + n + ",0,uuid:" + n + ",10.0.0.5,") + (i == 0 ? "true}" : "false}");
    }
    service.answer(22, servers.i32(0));
    EXPECT_EQ(describe(call("searchDMS", {})), expected + "]");
    service.answer(23, body(23, {0, 0}));
    EXPECT_EQ(describe(call("searchDMR", {})), "null") << "no renderer gives no array";
    EXPECT_TRUE(logged('W', kNative + "searchDMR", "Failed to setDmrList[1060]!"));

    // Java texts longer than their native fields are cut to the field's size.
    jobject server = device(std::string(300, 'n'), 0, "uuid:nas", "192.168.100.200:1", true);
    const std::string movies = "[file{uuid:srv,0,1,Movies,video,http://10.0.0.5/1}]";
    service.answer(24, B().i32(24).i32(1).add(fileRecord("1", "Movies")).i32(0));
    EXPECT_EQ(describe(call("getRootFileList", {server})), movies);
    service.answer(25, body(25, {0, 0}));
    EXPECT_EQ(describe(call("getFileList", {server, file("1", "Movies")})), "null");
    service.answer(26, B().i32(26).i32(1).add(fileRecord("1", "Movies")).i32(0));
    EXPECT_EQ(describe(call("getParentFileList", {server, file("7", "Clip")})), movies);
    service.answer(47, B().i32(47).i32(0).add(fileRecord("0", "Root")));
    jobject parent = make(kFileInfoClass, "()V");
    expectCalls({{"getParentDirectoryInfo", {file("1", "Movies"), parent}, 0, 47, {{204, "1\0"s}}},
                 {"getParentDirectoryInfo", {file("2", "(null)"), parent}, 1001, -47}});
    EXPECT_EQ(describe(parent), "file{uuid:srv,0,0,Root,video,http://10.0.0.5/0}");
    EXPECT_TRUE(logged('W', "getFileInfo", "CallObjectMethod --> NULL == objectTitle"));
    const std::vector<std::pair<int32_t, std::vector<std::pair<size_t, std::string>>>> sent = {
        {24, {{4, std::string(260, 'n')}, {268, "uuid:nas\0"s}, {368, "192.168.100.200:"}, {384, "\1"}}},
        {25, {{616 + 200, "1\0"s}}},
        {26, {{616 + 300, "Clip\0"s}}},
    };
    for (const auto& fields : sent) {
        for (const auto& field : fields.second) {
            EXPECT_EQ(readField(request(fields.first), field.first, field.second.size()), field.second) << field.first;
        }
    }
}

TEST_F(BridgeTest, PlaybackAndServerControlsReachTheService) {
    registerApp(recorder(), nullptr);
    jobject renderer = device("TV", 1, "uuid:tv", "10.0.0.6", false);
    for (int32_t action : {27, 28, 29, 30, 31, 33, 35, 36, 37, 38, 42, 43}) {
        service.answer(action, body(action, {0}));
    }
    const std::vector<std::pair<size_t, std::string>> tv = {{4, "TV\0"s}};
    expectCalls({
        // The facade hands its arguments to the agent in its own order, so the Java renderer is
        // the request's first device.
        {"playSelectedFile", {integer(2), nas(), files({file("1", "a")}), renderer}, 0, 35,
         {{4, "TV\0"s}, {616, "NAS\0"s}, {1228, le(1)}, {1232 + 1844, le(2)}, {1236 + 1844, le(0)}}},
        {"stopCurPlayingFile", {renderer}, 0, 36, tv},
        {"pauseCurPlayingFile", {renderer}, 0, 37, tv},
        {"resumeCurPlayingFile", {renderer}, 0, 38, tv},
        {"enableContentListCache", {renderer}, 0, 42, tv},
        {"disableContentListCache", {renderer}, 0, 43, tv},
        {"startDMS", {}, 0, 27},
        {"stopDMS", {}, 0, 28},
        {"rescanShareFolder", {}, 0, 30},
        {"setMyDMSName", {str("Den")}, 0, 31, {{4, "Den\0"s}}},
        {"stopCopyTransfer", {integer(77)}, 0, 29, {{4, le(77)}}},
        // Unknown kinds ask for all devices.
        {"rescanNetwork", {integer(1)}, 0, 33, {{4, le(1)}}},
        {"rescanNetwork", {integer(7)}, 0, 33, {{4, le(2)}}},
        {"rescanNetwork", {integer(-1)}, 0, 33, {{4, le(2)}}},
        {"startDMS", {}, 9, 27, {}, body(27, {9})},
    });
    EXPECT_TRUE(logged('D', "stopCurPlayingFile", "ActionAgentWrapper::stopCopyTransfer()"));
    EXPECT_TRUE(logged('W', kNative + "startDMS", "Failed to startDMS[9]!======"));
    EXPECT_TRUE(logged('D', "startDMS", "ActionAgentWrapper::startDMS():nReturn for startDMS: 9"));
}

TEST_F(BridgeTest, NullArgumentsGiveTheirCodesAndNeverAJniError) {
    expectCalls({{"registerApp", {nullptr, integer(3), recorder(), nullptr}, -1, -1},
                 {"registerApp", {str("demo"), integer(3), nullptr, nullptr}, -1, -1}});
    EXPECT_TRUE(logged('W', kNative + "registerApp", "Cannot convert appName!"));
    EXPECT_TRUE(logged('W', kNative + "registerApp", "local_interAppCallbackClass == NULL"));
    registerApp(recorder(), nullptr);
    jobject server = nas();
    jobject items = files({file("1", "a")});
    jobject noUUID = make(kDeviceClass, kDeviceSignature, str("TV"), 1, nullptr, str("10.0.0.6"), JNI_FALSE);
    expectCalls({
        {"sendData", {nullptr, integer(5), str("10.0.0.2"), integer(12), boolean(false), integer(3)}, 1402, -18},
        {"sendData", {bytes("x"), integer(1), nullptr, integer(12), boolean(false), integer(3)}, -1, -18},
        {"sendFile", {nullptr, str("10.0.0.2"), recorder(), integer(12), boolean(false), integer(0)}, 0, -13},
        {"sendFileList", {nullptr, str("10.0.0.2"), recorder(), integer(12), boolean(false), integer(0)}, -1803, -51},
        {"setReceiveOption", {nullptr, recorder()}, -1, -15},
        {"setReceiveOptionX", {nullptr, recorder()}, 1001, -15},
        {"getReceiveOption", {nullptr}, 1001},
        {"setMyDMSName", {nullptr}, -1, -31},
        {"getParentDirectoryInfo", {file("1", "a"), nullptr}, 1001, -47},
        {"enableContentListCache", {nullptr}, 1001, -42},
        {"stopCurPlayingFile", {noUUID}, 1001, -36},
        {"downLoad", {server, items, nullptr}, 1001, -40},
        {"downLoad", {server, files({nullptr}), recorder()}, 1001, -40},
        {"upLoad", {server, nullptr, items, file("9", "x"), recorder()}, 1001, -39},
        {"playSelectedFile", {integer(0), server, items, nullptr}, 1001, -35},
    });
    EXPECT_TRUE(logged('W', kNative + "setReceiveOption",
                       "Java_com_quorvik_hello_NativeLib_registerReceiver: jstringToString failure!"));
    EXPECT_TRUE(logged('W', kNative + "enableContentListCache",
                       "enableContentListCache --> (NULL == jenv) || (NULL == jdevice)!"));
    EXPECT_TRUE(logged('W', "getDLNADevice", "CallObjectMethod --> NULL == UUID"));
    EXPECT_EQ(describe(call("getRootFileList", {nullptr})), "null");
    EXPECT_EQ(describe(call("getFileList", {server, nullptr})), "null");
    EXPECT_EQ(describe(call("getParentFileList", {nullptr, file("1", "a")})), "null");
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
    service.push(tcpStatus("10.0.0.2"));
    EXPECT_TRUE(pelktest::waitUntil([] { return logged('W', "OnDataSend", "methodID == NULL"); }, 5000, 10));
    EXPECT_EQ(probeInt("liveThreads"), threads + 1) << "the dispatching thread is attached";
    EXPECT_EQ(probeInt("daemonThreads"), daemons + 1);

    service.push(appEvent(1, appRecord("peer", 12, 2, "10.0.0.9", "", false)));
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
        appEvent(1, peer),
        deviceEvent(1, nas),
        dataEvent(5, peer, "data"),
        fileEvent(19, 8, "in", sendTag(12), peer),
        fileEvent(14, 42, "out", peer, sendTag(12)),
        fileEvent(41, 77, "copy", sendTag(0), nas),
        tcpStatus("10.0.0.2"),
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
    expectCalls({{"setReceiveOption", {str("/data/in"), r}, 0, 15, {}, body(15, {0})},
                 {"asynSendData", {bytes("x"), integer(1), str("10.0.0.2"), integer(12), boolean(false), r}, 0, 53},
                 {"sendFile", {str("/data/a"), str("10.0.0.2"), r, integer(12), boolean(false), integer(0)}, 42, 13, {},
                  body(13, {42, 0})},
                 {"sendFileList", {array("java/lang/String", {str("/data/a")}), str("10.0.0.2"), r, integer(12),
                                   boolean(false), integer(0)},
                  42, 13}});
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
    service.push(dataEvent(5, appRecord("peer", 12, 0, "10.0.0.9", "", false), "x"));
    EXPECT_TRUE(pelktest::waitUntil([] { return logged('W', "OnDataReceive", "methodID == NULL"); }, 5000, 10));
    service.push(appEvent(1, appRecord("peer", 12, 0, "10.0.0.9", "", false)));
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
    const auto ip = [&](jstring t) { return std::vector<jobject>{bytes("x"), integer(1), t, integer(12), boolean(false)}; };
    const auto plus = [](std::vector<jobject> head, std::vector<jobject> tail) {
        head.insert(head.end(), tail.begin(), tail.end());
        return head;
    };
    const auto deviceOf = [&](jstring name, jstring uuid, jstring address) {
        return make(kDeviceClass, kDeviceSignature, name, 0, uuid, address, JNI_FALSE);
    };
    const auto fileOf = [&](jstring t) { return make(kFileInfoClass, kFileInfoSignature, t, t, t, t, t, t); };
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
         [&](jstring t) { return std::vector<jobject>{make(kOptionClass, "(Ljava/lang/String;ZI)V", t, JNI_FALSE, 1), r}; },
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
        const std::u16string eventHead = u"fileEvent{5000000001,5000000002,5000000003,";
        const std::u16string item = u"file{" + j(100) + u"," + j(100) + u"," + j(100) + u"," + j(260) + u"," + j(260) +
                                    u"," + j(1024) + u"}";

        service.push(appEvent(1, app));
        EXPECT_EQ(text16(nextCall(r)), u"onInterAppChange " + appJava + u" 1");
        service.push(deviceEvent(2, dev));
        EXPECT_EQ(text16(nextCall(r)),
                  u"onDLNADeviceChange device{" + j(260) + u",1," + j(100) + u"," + j(16) + u",false} 2");
        service.push(dataEvent(5, app, "x"));
        EXPECT_EQ(text16(nextCall(r)), u"onReceivingData 5 \"x\" 1 " + appJava);
        service.push(fileEvent(19, 8, b(260), sendTag(12), app));
        EXPECT_EQ(text16(nextCall(r)), u"onReceivingFile " + eventHead + u"8,1,3,2," + j(260) + u"," + j(16) + u",12}");
        service.push(fileEvent(14, 42, b(260), app, sendTag(12)));
        EXPECT_EQ(text16(nextCall(r)), u"onSendingFile " + eventHead + u"42,1,3,2," + j(260) + u"," + j(16) + u",12}");
        service.push(fileEvent(41, 77, b(260), sendTag(0), dev));
        EXPECT_EQ(text16(nextCall(r)), u"onDLNAFileCopy " + eventHead + u"77,1,3,2," + j(260) + u"," + j(16) + u",0}");

        service.answer(44, B().i32(44).i32(1).add(app).i32(0));
        EXPECT_EQ(text16(described(call("searchInteractionApp", {}))), u"[" + appJava + u"]");
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
    service.push(tcpStatus(address));
    EXPECT_EQ(text16(nextCall(r)), u"onSendingData data{0,2,12,\U0001F389 party}");
}

}  // namespace
