// An app's threads all at once, in a real VM under -Xcheck:jni: 16 Java threads (Stress.java), and
// the listeners that hear them, call every native method for a minute (PELK_STRESS_SECONDS),
// registering and unregistering and replacing listeners as they go, while the fake service
// answers every request and pushes the events that it brings about, of every kind. The VM must
// print nothing, every method must be called and return a code that it documents, every event must
// reach Java whole and none be dropped, and after the last unregistration the VM's global references
// and threads must be back where they were.
#include <gtest/gtest.h>
#include <jni.h>

#include <unistd.h>

#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ActionManager/ResultCodes.h"
#include "jni/BridgeHost.h"

using namespace pelktest;
using namespace PELK;

namespace {

const Bytes kPeer = appRecord("peer", 12, 2, "10.0.0.2", "aa:bb:cc:dd:ee:ff", false);
const Bytes kServer = deviceRecord("NAS", 0, "uuid:nas", "10.0.0.5", false);
const Bytes kItem = B().file(1);

// The service's answer to each request the app makes: a file send, a file list send, a download
// and an upload start the tasks 101 to 104.
Bytes answerTo(int32_t action) {
    switch (action) {
        case 1: return body(1, {kAppID, 0});
        case 13: return body(13, {101, 0});
        case 51: return body(51, {102, 0});
        case 40: return body(40, {103, 0});
        case 39: return body(39, {104, 0});
        case 44: return listReply(44, kPeer);
        case 22: case 23: return listReply(action, kServer);
        case 24: case 25: case 26: return listReply(action, kItem);
        case 47: return B().i32(47).i32(0).add(kItem);
        default: return body(action, {0, 0});
    }
}

// Every kind of event, brought about by a request as a real service would: a refresh brings an
// app, a rescan a device, a receive option data and a file, a send its status or progress, a
// copy its progress; and how the Java listener hears it.
const struct Flow {
    int32_t request;
    Bytes event;
    std::string heard;
} kFlows[] = {
    {49, appEvent(1, kPeer), "onInterAppChange app{peer,12,2,10.0.0.2,aa:bb:cc:dd:ee:ff,false} 1"},
    {33, deviceEvent(1, kServer), "onDLNADeviceChange device{NAS,0,uuid:nas,10.0.0.5,false} 1"},
    {15, dataEvent(5, kPeer, "data"), "onReceivingData 5 \"data\" 4 app{peer,12,2,10.0.0.2,aa:bb:cc:dd:ee:ff,false}"},
    {15, fileEvent(19, 8, "in", sendTag(12), kPeer), "onReceivingFile " + kFileEvent + "8,1,3,2,in,10.0.0.2,12}"},
    {53, sendStatus(54, 0, 2, "10.0.0.2"), "onSendingData data{0,2,12,10.0.0.2}"},
    {48, sendStatus(52, 6, 1, "10.0.0.2"), "onSendingData data{6,1,12,10.0.0.2}"},
    {13, fileEvent(14, 101, "a", kPeer, sendTag(12)), "onSendingFile " + kFileEvent + "101,1,3,2,a,10.0.0.2,12}"},
    {51, fileEvent(14, 102, "b", kPeer, sendTag(12)), "onSendingFile " + kFileEvent + "102,1,3,2,b,10.0.0.2,12}"},
    {40, fileEvent(41, 103, "get", sendTag(0), kServer), "onDLNAFileCopy " + kFileEvent + "103,1,3,2,get,10.0.0.5,0}"},
    {39, fileEvent(41, 104, "put", sendTag(0), kServer), "onDLNAFileCopy " + kFileEvent + "104,1,3,2,put,10.0.0.5,0}"},
};

// What each native method may return: the codes of its family and of the link, the bridge's own
// (1001 and -1), and what this service answers (0, the task IDs above). File sends return codes
// negated; the list methods return an array or null.
constexpr ResultCode kBridgeCodes[] = {CommonResult::kMissingArgument, {-1, "a text or listener could not be taken"}};
const ResultFamily kLink = familyOf(LinkResult::kAll);
const ResultFamily kBridge = familyOf(kBridgeCodes);
const ResultFamily kMedia = familyOf(CommonResult::kAll);

const struct Documented {
    std::vector<std::string> methods;
    std::vector<ResultFamily> families;
    std::vector<std::string> more;  // results besides the families' codes
    int sign;                       // 1 codes as they are, -1 negated
} kDocumented[] = {
    {{"registerApp"}, {familyOf(RegisterResult::kAll), kLink, kBridge}, {"0"}, 1},
    {{"unRegisterApp"}, {familyOf(UnregisterResult::kAll), kLink}, {"0"}, 1},
    {{"getAppID"}, {}, {std::to_string(kAppID), "-1"}, 1},
    {{"refreshInteractionApp"}, {familyOf(RefreshAppResult::kAll), kLink}, {"0"}, 1},
    {{"sendData", "asynSendData"}, {familyOf(SendDataResult::kAll), kLink, kBridge}, {"0"}, 1},
    {{"sendUDPData"}, {familyOf(SendUDPDataResult::kAll), kLink, kBridge}, {"0"}, 1},
    {{"sendUDPDataAll", "broadcast"}, {familyOf(BroadcastResult::kAll), kLink, kBridge}, {"0"}, 1},
    // A file sent alone goes as a list of one, with that list's codes.
    {{"sendFile"}, {familyOf(SendFileResult::kAll), familyOf(SendFileListResult::kAll), kLink, kBridge}, {"101"}, -1},
    {{"sendFileList"}, {familyOf(SendFileListResult::kAll), kLink, kBridge}, {"102"}, -1},
    {{"pauseSend", "resumeSend", "cancelSend", "cancelReceive"}, {familyOf(TransferControlResult::kAll), kLink},
     {"0"}, 1},
    {{"deleteSendFileCallback"}, {}, {"0", "1", std::to_string(LinkResult::kNotRegistered)}, 1},
    {{"setReceiveOption", "setReceiveOptionX"}, {familyOf(SetReceiveOptionResult::kAll), kLink, kBridge}, {"0"}, 1},
    {{"getReceiveOption"}, {familyOf(GetReceiveOptionResult::kAll), kBridge}, {"0"}, 1},
    {{"startDMS", "stopDMS", "rescanShareFolder", "setMyDMSName", "rescanNetwork", "stopCopyTransfer",
      "getParentDirectoryInfo", "playSelectedFile", "stopCurPlayingFile", "pauseCurPlayingFile", "resumeCurPlayingFile",
      "enableContentListCache", "disableContentListCache"}, {kMedia, kLink, kBridge}, {"0"}, 1},
    {{"downLoad"}, {kMedia, kLink, kBridge}, {"103"}, 1},
    {{"upLoad"}, {kMedia, kLink, kBridge}, {"104"}, 1},
    {{"searchInteractionApp", "getInteractionAppList", "searchDMS", "searchDMR", "getRootFileList", "getFileList",
      "getParentFileList"}, {}, {"array", "null"}, 1},
};

TEST(BridgeStressTest, SixteenJavaThreadsCallEveryNativeMethodWhileEventsOfEveryKindFlow) {
    FakeService service;
    ASSERT_TRUE(service.listening());
    service.keepBodies(false);
    for (int32_t action = 1; action <= 53; ++action) {  // every request (the event IDs never come)
        service.on(action, [action](const Bytes&) {
            // An asynchronous send is answered by its status event alone.
            std::vector<Bytes> replies(action != 53 ? 1 : 0, answerTo(action));
            for (const Flow& flow : kFlows) {
                if (flow.request == action) {
                    replies.push_back(flow.event);
                }
            }
            return replies;
        });
    }
    // The library logs failures only: a minute of everything would fill the disk.
    Vm::logLevel = 1;
    ASSERT_NE(Vm::get().env, nullptr) << "the VM did not start";
    const char* asked = getenv("PELK_STRESS_SECONDS");
    const int seconds = asked != nullptr ? atoi(asked) : 60;
    // A deadlock would hold the run, and the exit after it, for good: a run that has not ended
    // two minutes after its time ends the process (SIGALRM).
    alarm(static_cast<unsigned>(seconds + 120));
    std::istringstream lines(text(call("run", {integer(16), integer(seconds)})));
    alarm(0);
    ASSERT_FALSE(HasFailure()) << "the run threw (described above)";
    std::map<std::string, std::map<std::string, long>> report;  // of lines "<kind> <what> <count>"
    for (std::string line; std::getline(lines, line);) {
        const size_t what = line.find(' ') + 1;
        const size_t count = line.rfind(' ') + 1;
        report[line.substr(0, what - 1)][line.substr(what, count - what - 1)] = std::stol(line.substr(count));
    }

    // Every result that a method may give, as the Java side writes it: "<method> <result>".
    std::set<std::string> documented;
    for (const Documented& row : kDocumented) {
        std::vector<std::string> texts = row.more;
        for (const ResultFamily& family : row.families) {
            for (size_t i = 0; i < family.count; ++i) {
                texts.push_back(std::to_string(row.sign * family.codes[i].value));
            }
        }
        for (const std::string& method : row.methods) {
            for (const std::string& text : texts) {
                documented.insert(method + " " + text);
            }
        }
    }
    std::set<std::string> called;
    for (const auto& outcome : report["call"]) {
        EXPECT_EQ(documented.count(outcome.first), 1u) << "undocumented: " << outcome.first << ", " << outcome.second
                                                       << " times";
        called.insert(outcome.first.substr(0, outcome.first.find(' ')));
    }
    EXPECT_EQ(called.size(), 41u) << "every native method called";
    EXPECT_EQ(report["last"], (std::map<std::string, long>{{"registerApp 0", 1}, {"unRegisterApp 0", 1}}))
        << "once the threads are done, the agent registers and unregisters";
    for (const Flow& flow : kFlows) {
        EXPECT_GT(report["event"][flow.heard], 0) << "never heard: " << flow.heard;
        report["event"].erase(flow.heard);
    }
    for (const auto& unexpected : report["event"]) {
        ADD_FAILURE() << "heard " << unexpected.second << " times: " << unexpected.first;
    }
    // A dropped event leaves a warning that ends in "== NULL" (a listener without the method, a
    // Java object not made).
    EXPECT_EQ(loggedLines('W', "== NULL "), std::vector<std::string>{});

    // The link's threads end after the unregistration returns, and a global reference counted
    // then may be on its way out: both are given a while to come back.
    auto& refs = report["refs"];
    EXPECT_EQ(refs["held"] - refs["start"], 14) << "seven listeners, each as its class and itself";
    EXPECT_TRUE(awaitCount("globalRefs", static_cast<int>(refs["held"])))
        << callInt("globalRefs", {}) << " against " << refs["held"];
    EXPECT_TRUE(awaitCount("liveThreads", static_cast<int>(report["threads"]["start"])))
        << callInt("liveThreads", {});
    EXPECT_EQ(vmOutput(), "") << "the VM reported the lines above";
}

}  // namespace
