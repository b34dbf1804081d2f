// The Java bridge in a real VM: OpenJDK, started with -Xcheck:jni, loads the built libPELKAgent.so
// through PELKAgentNativeLib and calls the native methods from Java (Probe.call) against the fake
// service in this process; Java listeners (Probe.listener) write down every call they receive.
// Whatever the VM prints (a CheckJNI warning or error among it) fails the test.
//
// A process can start only one VM, and the bridge keeps its first listeners for good, so each
// test needs a process of its own: ctest runs them so; by hand, pick one with --gtest_filter.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <jni.h>

#include <string>
#include <vector>

#include "jni/BridgeHost.h"
#include "support/Waits.h"

using namespace pelktest;
using namespace std::string_literals;

namespace {

// A 32-bit field as it stands in a request.
std::string le(int32_t value) { return readField(B().i32(value), 0, 4); }

constexpr const char* kDeviceClass = "com/quorvik/kolt/pelk/agent/DLNADevice";
constexpr const char* kFileInfoClass = "com/quorvik/kolt/pelk/agent/FileInfo";
constexpr const char* kOptionClass = "com/quorvik/kolt/pelk/agent/ReceiveOption";
constexpr const char* kDeviceSignature = "(Ljava/lang/String;ILjava/lang/String;Ljava/lang/String;Z)V";
constexpr const char* kFileInfoSignature =
    "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)V";

jbyteArray bytes(const std::string& s) {
    jbyteArray array = Vm::get().env->NewByteArray(static_cast<jsize>(s.size()));
    Vm::get().env->SetByteArrayRegion(array, 0, static_cast<jsize>(s.size()), reinterpret_cast<const jbyte*>(s.data()));
    return array;
}
jobject recorder() { return call("listener", {boolean(false), nullptr}); }
jobject device(const std::string& name, int type, const std::string& uuid, const std::string& ip, bool local) {
    return make(kDeviceClass, kDeviceSignature, str(name), type, str(uuid), str(ip), local ? JNI_TRUE : JNI_FALSE);
}
// A FileInfo whose texts are derived from id; a null title when title is "(null)".
jobject file(const std::string& id, const std::string& title) {
    return make(kFileInfoClass, kFileInfoSignature, str("uuid:srv"), str("0"), str(id),
                title == "(null)" ? nullptr : str(title), str("video"), str("http://10.0.0.5/" + id));
}
jobject nas() { return device("NAS", 0, "uuid:nas", "10.0.0.5", false); }
jobjectArray files(std::vector<jobject> items) { return array(kFileInfoClass, items); }
// The arguments of a data send of "hello" (length bytes of it asked for) with the flag set to app 12
// at ip (10.0.0.2 if null), ending in last (its listener or time-out), and of a file send and a
// two-file list send there with r as their listener.
std::vector<jobject> dataSend(jobject last, jstring ip = nullptr, int length = 100) {
    return {bytes("hello"), integer(length), ip != nullptr ? ip : str("10.0.0.2"), integer(12), boolean(true), last};
}
std::vector<jobject> fileSend(jobject r) {
    return {str("/data/a.txt"), str("10.0.0.2"), r, integer(12), boolean(false), integer(0)};
}
std::vector<jobject> fileListSend(jobject r) {
    return {array("java/lang/String", {str("/data/a"), str("/data/b")}), str("10.0.0.2"), r, integer(12),
            boolean(true), integer(0)};
}

// What a recorder heard: its calls in turn, one line each, and how many in all.
std::string next(jobject r) { return text(call("next", {r})); }
int count(jobject r) { return callInt("count", {r}); }

// One native call as an app makes it: what it returns (a code, or an array or record as Probe
// describes it), and the request it sends (action) with fields at their offsets, answered by
// reply when one is given. A negative action names a request that the call must not send.
struct Call {
    const char* method;
    std::vector<jobject> args;
    std::string result;
    int32_t action = 0;
    std::vector<std::pair<size_t, std::string>> fields = {};
    Bytes reply = {};
};

// The fake service, the VM, and Java values made on the test's thread.
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

    // Makes each call and checks its result and request.
    void expectCalls(const std::vector<Call>& calls) {
        for (const Call& c : calls) {
            SCOPED_TRACE(c.method);
            const int32_t action = c.action < 0 ? -c.action : c.action;
            const size_t before = action != 0 ? service.received(action).size() : 0;
            if (!c.reply.empty()) {
                service.answer(action, c.reply);
            }
            EXPECT_EQ(describe(call(c.method, c.args)), c.result);
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

    void registerApp(jobject appListener, jobject deviceListener) {
        ASSERT_EQ(callInt("registerApp", {str("demo"), integer(3), appListener, deviceListener}), 0);
        ASSERT_EQ(callInt("getAppID", {}), kAppID);
    }

    // Registers with r as every listener: of apps, devices, received data and files, the file
    // send 42 and the copy 77.
    void listenToEverything(jobject r) {
        registerApp(r, r);
        expectCalls({{"setReceiveOption", {str("/data/in"), r}, "0", 15, {}, body(15, {0})},
                     {"sendFile", fileSend(r), "42", 13, {}, body(13, {42, 0})},
                     {"downLoad", {nas(), files({file("1", "a")}), r}, "77", 40, {}, body(40, {77, 0})}});
    }
};

// ---------------------------------------------------------------------------------------------

TEST_F(BridgeTest, RegistrationReportsAppsAndDevicesToTheirListenersAndDataSendsCarryTheBytesAddressAndFlags) {
    jobject apps = recorder();
    jobject devices = recorder();
    const std::string peer = "app{peer,12,2,10.0.0.9,aa:bb:cc:dd:ee:ff,true}";
    expectCalls({{"registerApp", {str("demo"), integer(3), apps, devices}, "0", 1,
                  {{4, le(3)}, {8, "demo\0"s}, {268, "\1\1"}}},
                 {"getInteractionAppList", {}, "[]"}});  // no app known yet: an empty array
    EXPECT_TRUE(logged('D', "registerApp", "ActionAgentWrapper::registerApp() ------ Registe app:7 successful."));
    service.push(appEvent(1, appRecord("peer", 12, 2, "10.0.0.9", "aa:bb:cc:dd:ee:ff", true)));
    EXPECT_EQ(next(apps), "onInterAppChange " + peer + " 1");
    service.push(deviceEvent(2, deviceRecord("Living room", 1, "uuid:tv", "10.0.0.5", false)));
    EXPECT_EQ(next(devices), "onDLNADeviceChange device{Living room,1,uuid:tv,10.0.0.5,false} 2");
    expectCalls({
        {"getInteractionAppList", {}, "[" + peer + "]"},
        {"searchInteractionApp", {}, "[app{far,30,1,10.0.0.30,,false}]", 44, {},
         listReply(44, appRecord("far", 30, 1, "10.0.0.30", "", false))},
        {"refreshInteractionApp", {boolean(true)}, "0", 49, {{4, "\1"}}, body(49, {0})},
        // The length asked for is cut to the array: nothing past its end is read; 3 s are 3000 ms.
        {"sendData", dataSend(integer(3)), "4", 18,
         {{264, le(12)}, {272, "10.0.0.2\0"s}, {308, "\1"}, {309, le(3000)}, {313, le(5)}, {317, "hello"}},
         body(18, {4})},
        // A negative length is passed on as it is, for the agent to refuse (the data sends share
        // the reading of the length); nothing is sent.
        {"sendData", dataSend(integer(3), nullptr, -1), "1404", -18},
        // The address is written over "127.0.0.1", so a shorter one keeps that text's tail; a
        // longer one is cut to fifteen characters.
        {"sendUDPData", dataSend(nullptr, str("1.2.3.4")), "0", 48,
         {{272, std::string("1.2.3.4\0" "1\0\0\0\0\0\0\0", 16)}, {308, "\1"}}, body(48, {0})},
        {"sendUDPData", dataSend(nullptr, str("192.168.100.200:1")), "0", 48,
         {{272, std::string("192.168.100.200\0", 16)}}},
        {"broadcast", {bytes("b"), integer(1), str("10.0.0.255"), boolean(true)}, "0", 16, {{272, "10.0.0.255\0"s}},
         body(16, {0})},
        {"sendUDPDataAll", {bytes("all"), integer(3), boolean(false)}, "0", 16, {{272, "0.0.0.0\0"s}, {313, "all"}}},
        {"unRegisterApp", {}, "0", 2},
        {"getInteractionAppList", {}, "null"},  // not registered: the agent's code, no array
    });
    EXPECT_TRUE(logged('I', kNative + "searchInteractionApp", "searchInteractionApp contains 1 apps!"));
    EXPECT_TRUE(logged('D', kNative + "sendData", kNative + "sendData: buf: hello!"));
}

// Each kind of listener is kept by its own rule: a data send's the first ever given, a file
// send's and a file list's the first of each, a copy's the latest; received data and files reach
// the receive listener given with the option.
TEST_F(BridgeTest, EachListenerIsKeptByItsRuleAndHearsOnlyItsOwnEvents) {
    registerApp(recorder(), nullptr);
    jobject first = recorder();
    jobject second = recorder();
    jobject list = recorder();
    jobject copy = recorder();
    jobject later = recorder();
    expectCalls({
        {"asynSendData", dataSend(first), "0", 53, {{309, "\1"}}},
        {"asynSendData", dataSend(second), "0", 53},
        {"sendUDPData", dataSend(second), "0", 48, {}, body(48, {0})},
        {"sendFile", fileSend(first), "42", 13,
         {{4, le(1)}, {8, "/data/a.txt\0"s}, {528, le(12)}, {536, "10.0.0.2\0"s}}, body(13, {42, 0})},
        {"sendFile", fileSend(second), "42", 13},
        {"sendFileList", fileListSend(list), "43", 51, {{4, le(2)}, {268, "/data/b\0"s}}, body(51, {43, 0})},
        {"sendFileList", fileListSend(second), "43", 51},
        {"downLoad", {nas(), files({file("1", "a"), file("2", "b")}), copy}, "77", 40,
         {{4, "NAS\0"s}, {1228, le(2)}, {1232 + 1844 + 200, "2\0"s}}, body(40, {77, 0})},
    });
    EXPECT_TRUE(logged('I', kNative + "downLoad", "Success to downLoad.TaskID:[77]!"));
    const int refs = callInt("globalRefs", {});
    expectCalls({{"upLoad", {nas(), device("Phone", 0, "uuid:me", "127.0.0.1", true), files({file("1", "a")}),
                             file("9", "Inbox"), later},
                  "78", 39, {{616, "Phone\0"s}, {1232 + 1844 + 200, "9\0"s}}, body(39, {78, 0})}});
    EXPECT_TRUE(awaitCount("globalRefs", refs)) << "the copy's first listener is released";

    const Bytes peer = appRecord("peer", 12, 0, "10.0.0.2", "", false);
    service.push(sendStatus(54, 0, 2, "10.0.0.2"));
    service.push(sendStatus(52, 6, 1, "10.0.0.2"));
    service.push(fileEvent(14, 42, "a.txt", peer, sendTag(12)));
    service.push(fileEvent(14, 43, "b", peer, sendTag(12)));
    service.push(fileEvent(41, 77, "a", sendTag(0), deviceRecord("NAS", 0, "uuid:nas", "10.0.0.5", false)));
    EXPECT_EQ(next(first), "onSendingData data{0,2,12,10.0.0.2}");
    EXPECT_EQ(next(first), "onSendingData data{6,1,12,10.0.0.2}");
    EXPECT_EQ(next(first), "onSendingFile " + kFileEvent + "42,1,3,2,a.txt,10.0.0.2,12}");
    EXPECT_EQ(next(list), "onSendingFile " + kFileEvent + "43,1,3,2,b,10.0.0.2,12}");
    EXPECT_EQ(next(later), "onDLNAFileCopy " + kFileEvent + "77,1,3,2,a,10.0.0.5,0}");
    EXPECT_EQ(count(second) + count(copy), 0);
    EXPECT_EQ(count(first), 3);

    jobject in = recorder();
    jobject target = make(kOptionClass, "()V");
    const std::string folder = "/" + std::string(300, 'f');
    expectCalls({{"setReceiveOption", {str("/data/in"), in}, "0", 15,
                  {{4, "/data/in\0"s}, {264, "\1\1\1"}, {267, le(1)}}, body(15, {0})},
                 {"getReceiveOption", {target}, "0"}});
    EXPECT_EQ(describe(target), "option{/data/in,true,1}");
    const std::string from = "app{peer,12,0,10.0.0.9,aa:bb:cc:dd:ee:ff,false}";
    const Bytes sender = appRecord("peer", 12, 0, "10.0.0.9", "aa:bb:cc:dd:ee:ff", false);
    service.push(dataEvent(5, sender, "he\x01lo"));
    service.push(dataEvent(6, sender, ""));
    service.push(fileEvent(19, 8, "in.bin", sendTag(12), sender));
    EXPECT_EQ(next(in), "onReceivingData 5 \"he\x01lo\" 5 " + from);
    EXPECT_EQ(next(in), "onReceivingData 6 \"\" 0 " + from);
    EXPECT_EQ(next(in), "onReceivingFile " + kFileEvent + "8,1,3,2,in.bin,10.0.0.9,12}");

    // The Java option goes out as it is, its folder cut to the field, and with no native
    // receive callbacks: from now on nothing is reported.
    jobject given = make(kOptionClass, "(Ljava/lang/String;ZI)V", str(folder), JNI_FALSE, 30);
    expectCalls({{"setReceiveOptionX", {given, recorder()}, "0", 15,
                  {{4, folder.substr(0, 259) + '\0'}, {264, std::string(3, '\0')}, {267, le(30)}}}});
}

// Media servers and renderers are browsed and controlled; null arguments give their codes and
// never a JNI error; a failed file send returns its code negated, and resuming asks the service
// for a pause, on purpose.
TEST_F(BridgeTest, MediaCallsAndNullArgumentsGiveTheirCodesAndRequestsAndControlsCarryTheTaskID) {
    expectCalls({{"registerApp", {nullptr, integer(3), recorder(), nullptr}, "-1", -1},
                 {"registerApp", {str("demo"), integer(3), nullptr, nullptr}, "-1", -1}});
    EXPECT_TRUE(logged('W', kNative + "registerApp", "Cannot convert appName!"));
    EXPECT_TRUE(logged('W', kNative + "registerApp", "local_interAppCallbackClass == NULL"));
    // Without a device listener the agent asks for no device events.
    expectCalls({{"registerApp", {str("demo"), integer(3), recorder(), nullptr}, "0", 1, {{268, "\0"s}}}});
    // A list longer than the local reference budget of a native call: references must not pile up.
    B servers;
    servers.i32(22).i32(40);
    std::string expected;
    for (int i = 0; i < 40; ++i) {
        const std::string n = std::to_string(i);
        servers.add(deviceRecord("NAS" + n, 0, "uuid:" + n, "10.0.0.5", i == 0));
        expected += (i > 0 ? ", device{NAS" : "[device{NAS") + n + ",0,uuid:" + n + ",10.0.0.5," +
                    (i == 0 ? "true}" : "false}");
    }
    // Java texts longer than their native fields are cut to the field's size.
    jobject server = device(std::string(300, 'n'), 0, "uuid:nas", "192.168.100.200:1", true);
    jobject renderer = device("TV", 1, "uuid:tv", "10.0.0.6", false);
    jobject parent = make(kFileInfoClass, "()V");
    jobject items = files({file("1", "a")});
    jobject noUUID = make(kDeviceClass, kDeviceSignature, str("TV"), 1, nullptr, str("10.0.0.6"), JNI_FALSE);
    jobject peer = str("10.0.0.2");
    const std::string movies = "[file{udn1,parent1,id1,title1,type1,http://h/1}]";
    for (int32_t action : {27, 28, 29, 30, 31, 33, 35, 36, 37, 38, 42, 43}) {
        service.answer(action, body(action, {0}));
    }
    const std::vector<std::pair<size_t, std::string>> tv = {{4, "TV\0"s}};
    expectCalls({
        {"searchDMS", {}, expected + "]", 22, {}, servers.i32(0)},
        {"searchDMR", {}, "null", 23, {}, body(23, {0, 0})},  // no renderer gives no array
        {"getRootFileList", {server}, movies, 24,
         {{4, std::string(260, 'n')}, {268, "uuid:nas\0"s}, {368, "192.168.100.200:"}, {384, "\1"}},
         listReply(24, B().file(1))},
        {"getFileList", {server, file("1", "Movies")}, "null", 25, {{616 + 200, "1\0"s}}, body(25, {0, 0})},
        {"getParentFileList", {server, file("7", "Clip")}, movies, 26, {{616 + 300, "Clip\0"s}},
         listReply(26, B().file(1))},
        {"getParentDirectoryInfo", {file("1", "Movies"), parent}, "0", 47, {{204, "1\0"s}},
         B().i32(47).i32(0).file(2)},
        {"getParentDirectoryInfo", {file("2", "(null)"), parent}, "1001", -47},
        // The facade hands its arguments to the agent in its own order, so the Java renderer is
        // the request's first device.
        {"playSelectedFile", {integer(2), nas(), files({file("1", "a")}), renderer}, "0", 35,
         {{4, "TV\0"s}, {616, "NAS\0"s}, {1228, le(1)}, {1232 + 1844, le(2)}, {1236 + 1844, le(0)}}},
        {"stopCurPlayingFile", {renderer}, "0", 36, tv},
        {"pauseCurPlayingFile", {renderer}, "0", 37, tv},
        {"resumeCurPlayingFile", {renderer}, "0", 38, tv},
        {"enableContentListCache", {renderer}, "0", 42, tv},
        {"disableContentListCache", {renderer}, "0", 43, tv},
        {"startDMS", {}, "0", 27},
        {"stopDMS", {}, "0", 28},
        {"rescanShareFolder", {}, "0", 30},
        {"setMyDMSName", {str("Den")}, "0", 31, {{4, "Den\0"s}}},
        {"stopCopyTransfer", {integer(77)}, "0", 29, {{4, le(77)}}},
        // Unknown kinds ask for all devices.
        {"rescanNetwork", {integer(1)}, "0", 33, {{4, le(1)}}},
        {"rescanNetwork", {integer(7)}, "0", 33, {{4, le(2)}}},
        {"rescanNetwork", {integer(-1)}, "0", 33, {{4, le(2)}}},
        {"startDMS", {}, "9", 27, {}, body(27, {9})},
        {"sendData", {nullptr, integer(5), peer, integer(12), boolean(false), integer(3)}, "1402", -18},
        {"sendData", {bytes("x"), integer(1), nullptr, integer(12), boolean(false), integer(3)}, "-1", -18},
        {"sendFile", {nullptr, peer, recorder(), integer(12), boolean(false), integer(0)}, "0", -13},
        {"sendFile", {str("/data/a.txt"), nullptr, recorder(), integer(12), boolean(false), integer(0)}, "0", -13},
        {"sendFileList", {nullptr, peer, recorder(), integer(12), boolean(false), integer(0)}, "-1803", -51},
        {"setReceiveOption", {nullptr, recorder()}, "-1", -15},
        {"setReceiveOptionX", {nullptr, recorder()}, "1001", -15},
        {"getReceiveOption", {nullptr}, "1001"},
        {"setMyDMSName", {nullptr}, "-1", -31},
        {"getParentDirectoryInfo", {file("1", "a"), nullptr}, "1001", -47},
        {"enableContentListCache", {nullptr}, "1001", -42},
        {"stopCurPlayingFile", {noUUID}, "1001", -36},
        {"downLoad", {server, items, nullptr}, "1001", -40},
        {"downLoad", {server, files({nullptr}), recorder()}, "1001", -40},
        {"upLoad", {server, nullptr, items, file("9", "x"), recorder()}, "1001", -39},
        {"playSelectedFile", {integer(0), server, items, nullptr}, "1001", -35},
        {"getRootFileList", {nullptr}, "null"},
        {"getFileList", {server, nullptr}, "null"},
        {"getParentFileList", {nullptr, file("1", "a")}, "null"},
        {"sendFile", fileSend(recorder()), "-5", 13, {}, body(13, {0, 5})},
        {"pauseSend", {integer(42)}, "0", 9, {{4, le(42)}}, body(9, {42, 0})},
        {"resumeSend", {integer(43)}, "0", 9, {{4, le(43)}}},
        {"cancelReceive", {integer(44)}, "0", 11, {{4, le(44)}}, body(11, {44, 0})},
        {"cancelSend", {integer(45)}, "0", 12, {{4, le(45)}}, body(12, {45, 0})},
        {"deleteSendFileCallback", {integer(42)}, "1"},  // no callback under that task
        {"sendFile", fileSend(recorder()), "42", 13, {}, body(13, {42, 0})},
        {"deleteSendFileCallback", {integer(42)}, "0"},
    });
    EXPECT_EQ(describe(parent), "file{udn2,parent2,id2,title2,type2,http://h/2}");
    EXPECT_TRUE(logged('W', kNative + "searchDMR", "Failed to setDmrList[1060]!"));
    EXPECT_TRUE(logged('W', "getFileInfo", "CallObjectMethod --> NULL == objectTitle"));
    EXPECT_TRUE(logged('D', "stopCurPlayingFile", "ActionAgentWrapper::stopCopyTransfer()"));
    EXPECT_TRUE(logged('W', kNative + "startDMS", "Failed to startDMS[9]!======"));
    EXPECT_TRUE(logged('D', "startDMS", "ActionAgentWrapper::startDMS():nReturn for startDMS: 9"));
    EXPECT_TRUE(logged('W', kNative + "sendFile", kNative + "sendFile: jstringToString failure!"));
    EXPECT_TRUE(logged('W', kNative + "setReceiveOption",
                       "Java_com_quorvik_hello_NativeLib_registerReceiver: jstringToString failure!"));
    EXPECT_TRUE(logged('W', kNative + "enableContentListCache",
                       "enableContentListCache --> (NULL == jenv) || (NULL == jdevice)!"));
    EXPECT_TRUE(logged('W', "getDLNADevice", "CallObjectMethod --> NULL == UUID"));
}

// An event for a listener without its method is dropped. The link's callback thread is attached on
// its first event, dropped or not, and stays attached (as a daemon, so that it never holds the VM's
// shutdown up) until the link's threads end (the service-text test sees it go). Unloading the
// library releases the listeners of sends and receives and the cached classes, and later events are
// dropped without a JNI error.
TEST_F(BridgeTest, DroppedEventsAndUnloadLeaveNoReferenceAndTheCallbackThreadStaysAttachedUntilTheLinkEnds) {
    jobject r = recorder();
    ASSERT_NO_FATAL_FAILURE(listenToEverything(r));
    const int threads = callInt("liveThreads", {});
    const int daemons = callInt("daemonThreads", {});
    EXPECT_EQ(callInt("asynSendData", dataSend(make("java/lang/Object", "()V"))), 0);
    service.push(sendStatus(54, 0, 2, "10.0.0.2"));
    EXPECT_TRUE(waitUntil([] { return logged('W', "OnDataSend", "methodID == NULL"); }, kWaitMs, 10));
    EXPECT_EQ(callInt("liveThreads", {}), threads + 1) << "the dispatching thread is attached";
    EXPECT_EQ(callInt("daemonThreads", {}), daemons + 1);
    const Bytes peer = appRecord("peer", 12, 2, "10.0.0.9", "", false);
    service.push(appEvent(1, peer));
    EXPECT_EQ(next(r), "onInterAppChange app{peer,12,2,10.0.0.9,,false} 1");
    EXPECT_EQ(callInt("liveThreads", {}), threads + 1) << "a delivered event leaves it attached";
    EXPECT_EQ(callInt("unRegisterApp", {}), 0);

    // The receive callbacks go with the registration; the file list's listener is the fourth kept.
    registerApp(r, r);
    expectCalls({{"setReceiveOption", {str("/data/in"), r}, "0", 15},
                 {"sendFileList", fileListSend(r), "43", 51, {}, body(51, {43, 0})}});
    const int refs = callInt("globalRefs", {});
    void* library = dlopen(PELK_AGENT_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(library, nullptr) << "the VM loaded the library";
    const auto unload = reinterpret_cast<void (*)(JavaVM*, void*)>(dlsym(library, "JNI_OnUnload"));
    ASSERT_NE(unload, nullptr);
    unload(Vm::get().vm, nullptr);
    dlclose(library);
    // Four listener pairs and four classes; the app, device and copy listeners stay.
    EXPECT_TRUE(awaitCount("globalRefs", refs - 12)) << callInt("globalRefs", {}) << " against " << refs - 12;
    const int heard = count(r);
    service.push(dataEvent(5, peer, "x"));
    EXPECT_TRUE(waitUntil([] { return logged('W', "OnDataReceive", "methodID == NULL"); }, kWaitMs, 10));
    service.push(appEvent(1, peer));
    EXPECT_TRUE(waitUntil([] { return logged('W', "makeInteractionApp", "jo_interactionApp == NULL"); }, kWaitMs, 10));
    EXPECT_EQ(count(r), heard);
}

// Java strings leave as standard UTF-8 (never the VM's own modified form), and a text cut to its
// field loses whole characters only.
TEST_F(BridgeTest, EveryJavaTextReachesTheServiceAsUtf8CutOnACharacterBoundary) {
    for (int32_t action : {13, 15, 18, 25, 31, 51}) {
        service.answer(action, body(action, {0, 0}));
    }
    jobject r = recorder();
    // Led by "/", so that the agent takes it for an absolute path where it wants one.
    jstring t = jtext(u"/\u00e9\u4e2d\U0001F389");
    const std::string t8 = "/\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x8E\x89\0"s;  // t in UTF-8, ended
    jobject server = make(kDeviceClass, kDeviceSignature, t, 0, t, t, JNI_FALSE);
    jobject item = make(kFileInfoClass, kFileInfoSignature, t, t, t, t, t, t);
    const std::u16string emoji = u"\U0001F389";
    // One call for each place that reads Java texts: the data sends share one, and so do the
    // records' fields. Cut to its field, a text ends before the character that would not fit
    // whole; and it ends at U+0000, as any C text does.
    expectCalls({
        {"registerApp", {t, integer(3), r, nullptr}, "0", 1, {{8, t8}}},
        {"sendData", dataSend(integer(3), t), "0", 18, {{272, t8}}},
        {"sendFile", {t, t, r, integer(12), boolean(false), integer(0)}, "0", 13, {{8, t8}, {536, t8}}},
        {"sendFileList", {array("java/lang/String", {t}), t, r, integer(12), boolean(true), integer(0)}, "0", 51,
         {{8, t8}, {536, t8}}},
        {"setReceiveOption", {t, r}, "0", 15, {{4, t8}}},
        {"setMyDMSName", {t}, "0", 31, {{4, t8}}},
        {"getFileList", {server, item}, "null", 25,
         {{4, t8}, {268, t8}, {368, t8}, {616, t8}, {716, t8}, {816, t8}, {916, t8}, {1176, t8}, {1436, t8}}},
        {"sendData", dataSend(integer(3), jtext(u"1234567890123" + emoji)), "0", 18,
         {{272, std::string("1234567890123\0\0\0", 16)}}},
        {"setReceiveOption", {jtext(u"/" + std::u16string(256, u'f') + emoji), r}, "0", 15,
         {{4, "/" + std::string(256, 'f') + std::string(3, '\0')}}},
        {"setMyDMSName", {jtext(std::u16string(u"ab\0cd", 5))}, "0", 31, {{4, std::string("ab\0\0\0", 5)}}},
    });
}

// Texts from the service become Java strings through UTF-8 decoding: characters outside the BMP
// arrive whole, and bytes that are no UTF-8 (invalid, or a character cut by the service at its
// field's size) arrive as U+FFFD, in every string field of every record and event. (An app is
// made for a list as for an event.)
TEST_F(BridgeTest, EveryServiceTextReachesJavaAsAValidString) {
    const int threads = callInt("liveThreads", {});
    jobject r = recorder();
    ASSERT_NO_FATAL_FAILURE(listenToEverything(r));
    const auto describe16 = [](jobject value) { return text16(call("describe", {value})); };
    const std::u16string fileEventHead(kFileEvent.begin(), kFileEvent.end());

    // Each text as the service writes it into a field of that size, and as Java should see it: a
    // character outside the BMP, bytes that are no UTF-8 (a stray byte, an overlong form), and a
    // character cut at the field's end.
    const auto b = [](size_t n) { return "\xF0\x9F\x8E\x89\xFFx\xC0\x80" + std::string(n - 11, 'a') + "\xF0\x9F"; };
    const auto j = [](size_t n) { return u"\U0001F389\uFFFDx\uFFFD\uFFFD" + std::u16string(n - 11, u'a') + u"\uFFFD"; };
    const Bytes app = appRecord(b(260), 12, 2, b(16), b(18), true);
    const Bytes dev = deviceRecord(b(260), 1, b(100), b(16), false);
    const Bytes item = B().str(b(100), 100).str(b(100), 100).str(b(100), 100).str(b(260), 260).str(b(260), 260)
        .str(b(1024), 1024);
    const std::u16string appJava = u"app{" + j(260) + u",12,2," + j(16) + u"," + j(18) + u",true}";
    const std::u16string devJava = u"device{" + j(260) + u",1," + j(100) + u"," + j(16) + u",false}";
    const std::u16string itemJava = u"file{" + j(100) + u"," + j(100) + u"," + j(100) + u"," + j(260) + u"," +
                                    j(260) + u"," + j(1024) + u"}";

    const Bytes events[] = {appEvent(1, app), deviceEvent(2, dev), dataEvent(5, app, "x"),
                            fileEvent(19, 8, b(260), sendTag(12), app), fileEvent(14, 42, b(260), app, sendTag(12)),
                            fileEvent(41, 77, b(260), sendTag(0), dev)};
    for (const Bytes& event : events) {
        service.push(event);
    }
    const auto fileHeard = [&](const std::u16string& method, const std::u16string& task, const char16_t* tail) {
        return method + u" " + fileEventHead + task + u",1,3,2," + j(260) + u"," + j(16) + u"," + tail;
    };
    for (const std::u16string& heard :
         {u"onInterAppChange " + appJava + u" 1", u"onDLNADeviceChange " + devJava + u" 2",
          u"onReceivingData 5 \"x\" 1 " + appJava, fileHeard(u"onReceivingFile", u"8", u"12}"),
          fileHeard(u"onSendingFile", u"42", u"12}"), fileHeard(u"onDLNAFileCopy", u"77", u"0}")}) {
        EXPECT_EQ(text16(call("next", {r})), heard);
    }

    service.answer(22, listReply(22, dev));
    EXPECT_EQ(describe16(call("searchDMS", {})), u"[" + devJava + u"]");
    service.answer(24, listReply(24, item));
    EXPECT_EQ(describe16(call("getRootFileList", {nas()})), u"[" + itemJava + u"]");
    service.answer(47, B().i32(47).i32(0).add(item));
    jobject parent = make(kFileInfoClass, "()V");
    EXPECT_EQ(callInt("getParentDirectoryInfo", {file("1", "a"), parent}), 0);
    EXPECT_EQ(describe16(parent), itemJava);
    // A send status is matched to its send by the address, so only an address that the app sent
    // to comes back: one outside the BMP.
    EXPECT_EQ(callInt("asynSendData", dataSend(r, jtext(u"\U0001F389 party"))), 0);
    service.push(sendStatus(54, 0, 2, "\xF0\x9F\x8E\x89 party"));
    EXPECT_EQ(text16(call("next", {r})), u"onSendingData data{0,2,12,\U0001F389 party}");

    // An event frame or reference left behind would pile up in the attached thread until events
    // stop coming through: ten thousand more of each kind, with short texts to keep the run quick,
    // must all arrive. (Events already lost would keep the wait to its end.)
    if (HasFailure()) {
        return;
    }
    const Bytes peer = appRecord("peer", 12, 2, "10.0.0.2", "", false);
    const Bytes nas = deviceRecord("NAS", 0, "uuid:nas", "10.0.0.5", false);
    const Bytes light[] = {appEvent(1, peer), deviceEvent(1, nas), dataEvent(5, peer, "data"),
                           fileEvent(19, 8, "in", sendTag(12), peer), fileEvent(14, 42, "out", peer, sendTag(12)),
                           fileEvent(41, 77, "copy", sendTag(0), nas)};
    const int heard = count(r) + 10000 * static_cast<int>(std::size(light));
    for (int i = 0; i < 10000; ++i) {
        for (const Bytes& event : light) {
            ASSERT_TRUE(service.push(event));
        }
    }
    EXPECT_TRUE(waitUntil([&] { return count(r) >= heard; }, 300000, 10)) << count(r) << " of " << heard;
    // The link's thread is detached as it ends; the process must not end in the middle of that.
    EXPECT_EQ(callInt("unRegisterApp", {}), 0);
    EXPECT_TRUE(awaitCount("liveThreads", threads)) << callInt("liveThreads", {});
}

}  // namespace
