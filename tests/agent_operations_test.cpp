// The agent's operations as the service sees them (request bytes on the wire, result codes in
// their order), and the events that reach the app's callbacks: send status, file progress,
// received data and large payloads, copies and devices.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "ActionManager/ResultCodes.h"
#include "CommonLib/OSAL.h"
#include "support/AgentFixture.h"
#include "support/TempDir.h"

using namespace pelktest;
using namespace PELK;
using PELK::Agent::ActionAgent;
using std::string_literals::operator""s;

namespace {

InteractionApp target(int appID = 12, const char* ip = "10.0.0.9") {
    InteractionApp app;
    app.nAppID = appID;
    app.SetIPv4(ip);
    return app;
}

DLNADevice device(const char* name, DLNA_DEVICE_TYPE type) {
    DLNADevice record;
    strcpy(record.name, name);
    record.type = type;
    return record;
}

FileInfo item(const char* title) {
    FileInfo record;
    strcpy(record.objectTitle, title);
    return record;
}

// A 32-bit word as the wire carries it.
std::string le(int32_t value) { return readField(B().i32(value), 0, 4); }

// The fields a request must carry: each offset with its bytes (a text with its terminator).
using Fields = std::vector<std::pair<size_t, std::string>>;

// A data status event (52 or 54) for a send to app.
template <class Status>
Bytes dataStatus(const InteractionApp& app, int32_t result) {
    Status event;
    event.nStatus = result;
    event.nEventType = 2;
    event.nRemoteAppID = app.nAppID;
    memcpy(event.szIPv4, app.szIPv4, sizeof(event.szIPv4));
    event.sendTag.byRemoteAppID = static_cast<uint8_t>(app.nAppID);
    return Encode(event);
}

// One piece of a large payload as another app's agent sends it.
Bytes hugePiece(uint32_t listID, uint32_t sequence, const std::string& content) {
    ReceiveDataRes event;
    event.nDataType = ActionAgent::kHugeDataType;
    event.sender = target(30, "10.0.0.30");
    const std::string payload = readField(B().i32(listID).i32(sequence), 0, 8) + content;
    event.data.Set(payload.data(), static_cast<unsigned int>(payload.size()));
    return Encode(event);
}

std::string dataOf(const CallbackRecord& record) { return std::string(record.data.begin(), record.data.end()); }

// One registration, every operation's request in turn: its action ID and the fields that carry its
// arguments. Zeros after the action ID read as an empty, successful reply of every layout here.
// The operations that the bridge's call table drives with their fields are left to it.
TEST_F(AgentTest, EachOperationSendsItsActionAndLayout) {
    registerAgent();
    const InteractionApp app = target(300);
    const std::string record(reinterpret_cast<const char*>(&app), 304);
    const std::vector<std::string> paths = {"/data/a.txt", "/data/b.txt"};
    ReceiveOption option;
    strcpy(option.directory, "/sdcard/in");
    option.rename = false;
    option.percent = 25;
    option.pfnReceiveFile = CallbackRecorder::onReceiveFile;
    const DLNADevice server = device("server", DLNA_DEVICE_DMS);
    const DLNADevice renderer = device("renderer", DLNA_DEVICE_DMR);
    const std::vector<FileInfo> files = {item("one"), item("two")};
    uint32_t fileTask = 0;
    int copyTask = 0;
    const auto send = [&](int seconds) {
        return [&, seconds] { return agent->sendData("hello", 5, &app, true, seconds); };
    };
    const auto control = [](int32_t actionID, std::function<int()> call) {
        return std::make_tuple(actionID, call, Fields{{4, le(77)}});
    };
    const std::vector<std::tuple<int32_t, std::function<int()>, Fields>> cases = {
        // The target's record, the flag, the time-out, the length and the data; seconds from 1 to
        // 200 become milliseconds, other values are taken as they are.
        {ACTION_SEND_DATA, send(7), {{4, record}, {308, "\1"}, {309, le(7000)}, {313, le(5)}, {317, "hello"}}},
        {ACTION_SEND_DATA, send(200), {{309, le(200000)}}},
        {ACTION_SEND_DATA, send(201), {{309, le(201)}}},
        {ACTION_SEND_DATA, send(1), {{309, le(1000)}}},
        {ACTION_ASYN_SEND_DATA, [&] { return agent->asynSendData("b", 1, &app, false, nullptr, nullptr); },
         {{314, "b"}}},
        // The count, every path, the target, the tag (this app, the target, its kind) and the option.
        {ACTION_SEND_FILE_EX, [&] { return agent->sendFileList(&paths, &app, nullptr, nullptr, &fileTask, true, 6); },
         {{4, le(2)}, {8, "/data/a.txt\0"s}, {268, "/data/b.txt\0"s}, {528 + 260, le(300)},
          {832, {kAppID, 300 & 0xFF, 3, 0}}, {840, le(6)}}},
        // The directory, then renaming, data wanted and files wanted, then the percent.
        {ACTION_SET_RECEIVE_OPTION, [&] { return agent->setReceiveOption(&option); },
         {{4, "/sdcard/in\0"s}, {264, {0, 0, 1}}, {267, le(25)}}},
        // The int forms hand the task to the unsigned long ones.
        control(ACTION_PAUSE_SEND, [&] { return agent->pauseSend(77); }),
        control(ACTION_RESUME_SEND, [&] { return agent->resumeSend(77); }),
        control(ACTION_CANCEL_RECEIVE, [&] { return agent->cancelReceive(77); }),
        control(ACTION_CANCEL_SEND, [&] { return agent->cancelSend(77); }),
        {ACTION_PLAY_SELECTED_FILE,
         [&] { return agent->playSelectedFile(1, &renderer, &files, &server, nullptr, nullptr, 9); },
         {{4, "server\0"s}, {616, "renderer\0"s}, {1232 + 1844 + 300, "two\0"s}, {1232 + 2 * 1844, le(1) + le(9)}}},
        {ACTION_PAUSE_PLAYING_FILE, [&] { return agent->pauseCurPlayingFile(&renderer); }, {{4, "renderer\0"s}}},
        {ACTION_START_DMS, [&] { return agent->startDMS(); }, {}},
        {21, [&] { return agent->setShareFolder("/sdcard/share"); }, {{4, "/sdcard/share\0"s}}},
        {ACTION_DOWNLOAD_FILE, [&] { return agent->copyFileList(&server, &files, nullptr, &copyTask); },
         {{4, "server\0"s}}},
    };
    for (const auto& [actionID, call, fields] : cases) {
        service->answer(actionID, B().i32(actionID).zeros(1848));
        const size_t before = service->received(actionID).size();
        EXPECT_EQ(0, call()) << actionID;
        EXPECT_TRUE(service->waitForRequests(actionID, before + 1)) << actionID;  // the asynchronous send
        const Bytes request = lastRequest(actionID);
        for (const auto& [offset, bytes] : fields) {
            EXPECT_EQ(bytes, readField(request, offset, bytes.size())) << "action " << actionID << " at " << offset;
        }
    }
    // The option is kept whatever the service answers.
    answerResult(ACTION_SET_RECEIVE_OPTION, 4);
    option.percent = 30;
    EXPECT_EQ(4, agent->setReceiveOption(&option));
    ReceiveOption saved;
    ASSERT_EQ(0, agent->getReceiveOption(&saved));
    EXPECT_EQ(30, saved.percent);
    EXPECT_EQ(CallbackRecorder::onReceiveFile, saved.pfnReceiveFile);
}

// A payload above one datagram goes out as pieces of 8173 bytes, each behind its list ID and
// sequence number: 0 first, its index in between, kLastSequence last; one piece carries 0 alone.
TEST_F(AgentTest, UDPPayloadsAboveOneDatagramGoOutAsNumberedPieces) {
    registerAgent();
    answerResult(ACTION_SEND_UDP_DATA);
    answerResult(ACTION_SEND_UDP_HUGE_DATA);
    const InteractionApp app = target();
    const std::string payload(3 * 8173 + 1, 'p');
    ASSERT_EQ(0, agent->sendUDPData(payload.data(), 2039, &app, false, nullptr, nullptr));
    EXPECT_EQ(2039, readInt32(lastRequest(ACTION_SEND_UDP_DATA), 309));
    ASSERT_EQ(0, agent->sendUDPData(payload.data(), 2040, &app, true, CallbackRecorder::onData, &user));
    ASSERT_EQ(0, agent->sendUDPHugeData(payload.data(), static_cast<unsigned int>(payload.size()), &app));
    const std::vector<Bytes> pieces = service->received(ACTION_SEND_UDP_HUGE_DATA);
    ASSERT_EQ(5u, pieces.size());
    const int32_t last = static_cast<int32_t>(ActionAgent::kLastSequence);
    const std::vector<std::pair<int32_t, int32_t>> expected = {
        {2040 + 8, 0}, {8173 + 8, 0}, {8173 + 8, 1}, {8173 + 8, 2}, {1 + 8, last}};
    for (size_t i = 0; i < pieces.size(); ++i) {
        EXPECT_EQ(expected[i], std::make_pair(readInt32(pieces[i], 308), readInt32(pieces[i], 316))) << i;
        EXPECT_EQ(app.nAppID, readInt32(pieces[i], 4 + 260));
    }
    EXPECT_EQ(readInt32(pieces[1], 312), readInt32(pieces[4], 312)) << "one list ID for the payload";
    answerResult(ACTION_SEND_UDP_HUGE_DATA, 9);
    EXPECT_EQ(9, agent->sendUDPHugeData(payload.data(), 8174, &app));
    EXPECT_EQ(6u, service->received(ACTION_SEND_UDP_HUGE_DATA).size()) << "a refused piece ends the send";
}

class StatusTest : public AgentTest {};

TEST_F(StatusTest, AsynchronousSendsToOneAppShareOneCountedEntry) {
    registerAgent();
    const InteractionApp app = target();
    const auto send = [&](void* owner) {
        return agent->asynSendData("a", 1, &app, false, CallbackRecorder::onData, owner);
    };
    int otherUser = 0;
    ASSERT_EQ(0, send(&user));
    ASSERT_EQ(0, send(&otherUser));
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(service->push(dataStatus<SendTCPDataStatusRes>(app, i)));
    }
    ASSERT_TRUE(callbacks.waitFor("data", 2));
    EXPECT_FALSE(callbacks.waitFor("data", 3, 300)) << "the entry is gone after two statuses";
    for (const CallbackRecord& record : callbacks.of("data")) {
        EXPECT_EQ(&user, record.user) << "the first callback given stays";
    }
    EXPECT_EQ(1, callbacks.of("data")[1].dataEvent.nId);

    // A status callback may send with a status callback of its own.
    std::atomic<int> inside(-1);
    ASSERT_EQ(0, send(&user));
    callbacks.runInside("data", [&] { inside = send(&user); });
    ASSERT_TRUE(service->push(dataStatus<SendTCPDataStatusRes>(app, 0)));
    ASSERT_TRUE(callbacks.waitFor("data", 3));
    EXPECT_EQ(0, inside.load());
    ASSERT_TRUE(service->waitForRequests(ACTION_ASYN_SEND_DATA, 4));
    ASSERT_TRUE(service->push(dataStatus<SendTCPDataStatusRes>(app, 0)));
    EXPECT_TRUE(callbacks.waitFor("data", 4)) << "the send made inside the callback is filed";
}

TEST_F(StatusTest, UDPStatusIsKeyedByTheWholeAddressField) {
    registerAgent();
    answerResult(ACTION_SEND_UDP_DATA);
    InteractionApp app = target();
    app.szIPv4[12] = 'z';  // left over behind the terminator: part of the key
    const auto send = [&](void* owner) {
        return agent->sendUDPData("u", 1, &app, true, CallbackRecorder::onData, owner);
    };
    ASSERT_EQ(0, send(&user));
    for (const InteractionApp& to : {target(), app, app}) {
        ASSERT_TRUE(service->push(dataStatus<SendUDPDataStatusRes>(to, 0)));
    }
    ASSERT_TRUE(callbacks.waitFor("data", 1));
    EXPECT_FALSE(callbacks.waitFor("data", 2, 300)) << "one status per send";
    EXPECT_EQ(&user, callbacks.of("data")[0].user);

    // A failed or refused send withdraws its own entry, never a pending one's to the same app.
    int other = 0;
    ASSERT_EQ(0, send(&user));
    service->answer(ACTION_SEND_UDP_DATA, body(ACTION_SEND_UDP_DATA, {}));
    EXPECT_NE(0, send(&other));
    answerResult(ACTION_SEND_UDP_DATA, 5);
    EXPECT_EQ(5, send(&other));
    ASSERT_TRUE(service->push(dataStatus<SendUDPDataStatusRes>(app, 0)));
    ASSERT_TRUE(service->push(dataStatus<SendUDPDataStatusRes>(app, 0)));
    ASSERT_TRUE(callbacks.waitFor("data", 2));
    EXPECT_FALSE(callbacks.waitFor("data", 3, 300)) << "the failed sends filed nothing";
    EXPECT_EQ(&user, callbacks.of("data")[1].user);
}

// A received file's progress names its sender; pieces of a large payload are joined in arrival
// order and delivered at the last, and a sender keeps at most eight unfinished payloads, the
// oldest going first.
TEST_F(AgentTest, ReceivedFilesAndLargePayloadsReachTheReceiveCallbacks) {
    registerAgent();
    ReceiveOption option;
    option.pfnReceiveData = CallbackRecorder::onReceiveData;
    option.pReceiveDataUser = &user;
    option.pfnReceiveFile = CallbackRecorder::onReceiveFile;
    option.pReceiveFileUser = &user;
    ASSERT_EQ(0, agent->setReceiveOption(&option));
    ReceiveFileRes file;
    file.nTaskID = 8;
    file.sender = target(30, "10.0.0.30");
    file.sendTag.byRemoteAppID = 31;
    const Bytes wire = Encode(file);
    ASSERT_TRUE(service->push(wire));
    ASSERT_TRUE(callbacks.waitFor("receive-file", 1));
    const CallbackRecord received = callbacks.of("receive-file")[0];
    EXPECT_EQ(30, received.fileEvent.nRemoteAppID) << "the sender's, not the tag's";
    EXPECT_EQ(&user, received.user);
    dispatch(Bytes(wire.begin(), wire.end() - 1));
    EXPECT_EQ(1u, callbacks.of("receive-file").size()) << "619 bytes cannot be a file event";

    ASSERT_TRUE(service->push(hugePiece(5, 0, "abc")));
    ASSERT_TRUE(service->push(hugePiece(6, 0, "never")));  // one piece: no end mark, never delivered
    ASSERT_TRUE(service->push(hugePiece(5, 7, "de")));
    ASSERT_TRUE(service->push(hugePiece(5, 2, "f")));  // fits the room left
    // Longer than the payload so far twice over: the buffer grows to fit it whole.
    const std::string whole(ActionAgent::kBlockContentSize, 'g');
    ASSERT_TRUE(service->push(hugePiece(5, 1, whole)));
    ASSERT_TRUE(service->push(hugePiece(5, ActionAgent::kLastSequence, "!")));
    ASSERT_TRUE(callbacks.waitFor("receive-data", 1));
    const CallbackRecord delivered = callbacks.of("receive-data")[0];
    EXPECT_EQ(ActionAgent::kHugeDataType, delivered.status);
    EXPECT_EQ("abcdef" + whole + "!", dataOf(delivered));
    EXPECT_STREQ("10.0.0.30", delivered.app.szIPv4);
    EXPECT_EQ(&user, delivered.user);

    for (uint32_t list = 11; list <= 19; ++list) {
        ASSERT_TRUE(service->push(hugePiece(list, 0, "head-" + std::to_string(list))));
    }
    ASSERT_TRUE(service->push(hugePiece(19, ActionAgent::kLastSequence, "tail")));
    ASSERT_TRUE(service->push(hugePiece(11, ActionAgent::kLastSequence, "tail")));
    ASSERT_TRUE(callbacks.waitFor("receive-data", 3));
    EXPECT_FALSE(callbacks.waitFor("receive-data", 4, 300));
    const std::vector<CallbackRecord> later = callbacks.of("receive-data");
    EXPECT_EQ("head-19tail", dataOf(later[1]));
    EXPECT_EQ("tail", dataOf(later[2])) << "its head was dropped";
}

// A file send's progress reaches its sender's callback alone.
// Paths are made absolute and names bounded at their last part; the empty path resolves to the
// current directory, or to nothing once that is gone.
TEST_F(AgentTest, FileSendProgressReachesItsCallbackAndPathsAreMadeAbsolute) {
    registerAgent();
    service->answer(ACTION_SEND_FILE, body(ACTION_SEND_FILE, {77, 0}));
    const InteractionApp app = target();
    uint32_t taskID = 0;
    ASSERT_EQ(0, agent->sendFile("/data/a.txt", &app, CallbackRecorder::onFile, &user, &taskID, false, 0));
    SendFileStatusRes progress;
    progress.nTaskID = 78;
    ASSERT_TRUE(service->push(Encode(progress)));  // another task: nobody is told
    progress.nTaskID = 77;
    progress.ullCurrentSize = 5;
    progress.ullListTotalSize = 9;
    progress.nCurrentCount = 1;
    progress.nTotalCount = 3;
    progress.receiver = app;
    ASSERT_TRUE(service->push(Encode(progress)));
    ASSERT_TRUE(callbacks.waitFor("file", 1));
    EXPECT_FALSE(callbacks.waitFor("file", 2, 300));
    const CallbackRecord record = callbacks.of("file")[0];
    const file_transfer_event& event = record.fileEvent;
    EXPECT_EQ(&user, record.user);
    EXPECT_EQ((std::vector<int64_t>{77, 5, 9, 1, 3, 12}),
              (std::vector<int64_t>{event.nId, static_cast<int64_t>(event.ullCurrentSize),
                                    static_cast<int64_t>(event.ullListTotalSize), event.nCurrentCount,
                                    event.nTotalCount, event.nRemoteAppID}));

    EXPECT_EQ(0, agent->sendFile(("/d/" + std::string(225, 'f')).c_str(), &app, nullptr, nullptr, &taskID, false, 0));
    EXPECT_EQ(0, agent->sendFile("", &app, nullptr, nullptr, &taskID, false, 0));
    TempDir gone;
    const std::string here = Common::OSAbstractLayer::osal_getProgramPath();
    ASSERT_EQ(0, Common::OSAbstractLayer::osal_setCurrentPath(gone.path().c_str()));
    ASSERT_EQ(0, rmdir(gone.path().c_str()));
    EXPECT_EQ(SendFileResult::kPathNotAbsolute, agent->sendFile("", &app, nullptr, nullptr, &taskID, false, 0));
    ASSERT_EQ(0, Common::OSAbstractLayer::osal_setCurrentPath(here.c_str()));
}

// Browsing appends to the caller's lists and an unreadable reply is a failure; a download's
// progress and a device change reach their callbacks with the registration's user pointer.
TEST_F(AgentTest, MediaRepliesAppendToTheCallersListsAndCopiesAndDevicesReportTheirEvents) {
    registerAgent(false);
    const DLNADevice server = device("server", DLNA_DEVICE_DMS);
    GetFileListRes listing(ACTION_GET_ROOT_FILE_LIST);
    listing.items = {item("a"), item("b")};
    listing.nResult = 0;
    service->answer(ACTION_GET_ROOT_FILE_LIST, Encode(listing));
    std::vector<FileInfo> items(1);
    ASSERT_EQ(0, agent->getFileList(&server, &items));
    ASSERT_EQ(3u, items.size());
    EXPECT_STREQ("b", items[2].objectTitle);
    const Bytes root = lastRequest(ACTION_GET_ROOT_FILE_LIST);
    EXPECT_EQ("server", readText(root, 4, 260));
    EXPECT_EQ(Bytes(1844, 0), Bytes(root.begin() + 616, root.end())) << "the root has no folder";

    GetLocalNetworkDeviceRes described;
    strcpy(described.device.szHostName, "phone");
    strcpy(described.device.szIPv4, "10.0.0.7");
    strcpy(described.device.szGateway, "10.0.0.1");
    described.device.networkCards.resize(2);
    described.nResult = 0;
    service->answer(ACTION_GET_LOCAL_NETWORK_DEVICE, Encode(described));
    LocalNetworkDevice network;
    network.networkCards.resize(1);
    ASSERT_EQ(0, agent->getLocalNetworkInfo(&network));
    EXPECT_EQ((std::vector<std::string>{"phone", "10.0.0.7", "10.0.0.1"}),
              (std::vector<std::string>{network.szHostName, network.szIPv4, network.szGateway}));
    EXPECT_EQ(3u, network.networkCards.size());

    SearchDeviceRes found(ACTION_SEARCH_DMS);
    found.devices = {server, device("second", DLNA_DEVICE_DMS)};
    found.nResult = 0;
    service->answer(ACTION_SEARCH_DMS, Encode(found));
    Bytes lying = Encode(found);
    lying[0] = ACTION_SEARCH_DMR;
    lying[4] = 3;  // claims three devices; two follow
    service->answer(ACTION_SEARCH_DMR, lying);
    std::vector<DLNADevice> devices;
    EXPECT_EQ(1, agent->searchDMR(&devices)) << "a reply that cannot be read counts as a failure";
    EXPECT_TRUE(devices.empty());

    const std::vector<FileInfo> files = {item("movie")};
    service->answer(ACTION_DOWNLOAD_FILE, body(ACTION_DOWNLOAD_FILE, {55, 0}));
    int taskID = 0;
    ASSERT_EQ(0, agent->copyFileList(&server, &files, CallbackRecorder::onFile, &taskID));
    DMFileCopyRes progress;
    progress.nTaskID = 55;
    Wire::CopyText(progress.otherSide.IPv4, "10.0.0.40");
    ASSERT_TRUE(service->push(Encode(progress)));
    DMDeviceChangeRes change;
    change.nChangeType = 2;
    ASSERT_TRUE(service->push(Encode(change)));
    ASSERT_TRUE(callbacks.waitFor("device", 1));
    ASSERT_EQ(1u, callbacks.of("file").size());
    const CallbackRecord copy = callbacks.of("file")[0];
    EXPECT_EQ(&user, copy.user) << "copies report with the registration user pointer";
    EXPECT_STREQ("10.0.0.40", copy.fileEvent.strOtherSideIP);
    const CallbackRecord gone = callbacks.of("device")[0];
    EXPECT_EQ(2, gone.status);
    EXPECT_EQ(&user, gone.user);

    // A copy whose call fails files no callback.
    service->on(ACTION_DOWNLOAD_FILE, [this](const Bytes&) {
        service->closeConnection();
        return std::vector<Bytes>{};
    });
    EXPECT_NE(0, agent->copyFileList(&server, &files, CallbackRecorder::onFile, &taskID));
    EXPECT_EQ(55, taskID);
    EXPECT_EQ(nullptr, agent->getFileCopyCallBack(56).pfnCallBack);
    EXPECT_NE(nullptr, agent->getFileCopyCallBack(55).pfnCallBack);
}

// Every argument and registration check, in the order the agent makes them, against the named
// codes pelk explains; and every code a check can give is given by some row.
TEST_F(AgentTest, EachCheckGivesItsNamedCodeBeforeAnyRequest) {
    const InteractionApp app = target();
    InteractionApp noAddress = target();
    noAddress.szIPv4[0] = '\0';
    const std::string big(65536, 'x');
    const char* data = big.data();
    const std::vector<std::string> empty;
    const std::vector<std::string> escaping = {"/ok", "../../../../../../../../../../../../../x"};
    const std::string longName = "/d/" + std::string(226, 'f');
    const std::string longDosName = "C:\\" + std::string(226, 'f');
    const DLNADevice server;
    ReceiveOption option;
    std::vector<InteractionApp> apps;
    std::vector<DLNADevice> devices;
    std::vector<FileInfo> items;
    uint32_t task = 0;
    int copyTask = 0;
    struct Row {
        ResultCode code;
        std::function<int()> call;
    };
    // Unregistered; the null checks that come before registration come first.
    const std::vector<Row> unregistered = {
        {RegisterResult::kNameTooLong, [&] { return agent->registerApp(std::string(260, 'n').c_str(), kCallerAppID, &user, nullptr, nullptr); }},
        {RegisterResult::kNoName, [&] { return agent->registerApp(nullptr, kCallerAppID, &user, nullptr, nullptr); }},
        {RegisterResult::kEmptyName, [&] { return agent->registerApp("", kCallerAppID, &user, nullptr, nullptr); }},
        {UnregisterResult::kNotRegistered, [&] { return agent->unregisterApp(); }},
        {SendDataResult::kNotRegistered, [&] { return agent->sendData(nullptr, 0, nullptr, false, 5); }},
        {SendDataResult::kNotRegistered, [&] { return agent->asynSendData(nullptr, 0, nullptr, false, nullptr, nullptr); }},
        {SendUDPDataResult::kNotRegistered, [&] { return agent->sendUDPData(nullptr, 0, nullptr, false, nullptr, nullptr); }},
        {SendUDPHugeDataResult::kNotRegistered, [&] { return agent->sendUDPHugeData(nullptr, 0, nullptr); }},
        {BroadcastResult::kNotRegistered, [&] { return agent->broadcast(nullptr, 0, nullptr, false); }},
        {SendFileResult::kNotRegistered, [&] { return agent->sendFile("/x", &app, nullptr, nullptr, &task, false, 0); }},
        {SendFileListResult::kNotRegistered, [&] { return agent->sendFileList(&empty, &app, nullptr, nullptr, &task, false, 0); }},
        {TransferControlResult::kNotRegistered, [&] { return agent->pauseSend(1); }},
        {TransferControlResult::kNotRegistered, [&] { return agent->cancelReceive(1); }},
        {SetReceiveOptionResult::kNoOption, [&] { return agent->setReceiveOption(nullptr); }},
        {SetReceiveOptionResult::kNotRegistered, [&] { return agent->setReceiveOption(&option); }},
        {GetReceiveOptionResult::kNotRegistered, [&] { return agent->getReceiveOption(&option); }},
        {LinkResult::kNotRegistered, [&] { return agent->deleteSendFileCallback(1); }},
        {CommonResult::kMissingArgument, [&] { return agent->searchDLNADevice(nullptr, 22); }},
        {CommonResult::kNotRegistered, [&] { return agent->searchDMS(&devices); }},
        {CommonResult::kNotRegistered, [&] { return agent->stopCopyTransfer(1); }},
        {CommonResult::kNotRegistered, [&] { return agent->startDMS(); }},
        {NetworkInfoResult::kNotRegistered, [&] { return agent->getLocalNetworkInfo(nullptr); }},
        {SearchAppResult::kNotRegistered, [&] { return agent->searchInteractionApp(nullptr); }},
        {RefreshAppResult::kNotRegistered, [&] { return agent->refreshInteractionApp(false); }},
        {AppListResult::kNotRegistered, [&] { return agent->getInteractionAppList(&apps); }},
    };
    const std::vector<Row> registered = {
        {RegisterResult::kAlreadyRegistered, [&] { return agent->registerApp("again", kCallerAppID, &user, nullptr, nullptr); }},
        // The data sends: data, target, address, length, emptiness in that order.
        {SendDataResult::kNoData, [&] { return agent->sendData(nullptr, 0, nullptr, false, 5); }},
        {SendDataResult::kNoTarget, [&] { return agent->sendData(data, 10, nullptr, false, 5); }},
        {SendDataResult::kNoTarget, [&] { return agent->sendData(data, 10, &noAddress, false, 5); }},
        {SendDataResult::kTooLong, [&] { return agent->sendData(data, 65536, &app, false, 5); }},
        {SendDataResult::kEmpty, [&] { return agent->sendData(data, 0, &app, false, 5); }},
        {SendDataResult::kNoData, [&] { return agent->asynSendData(nullptr, 0, nullptr, false, nullptr, nullptr); }},
        {SendDataResult::kNoTarget, [&] { return agent->asynSendData(data, 10, &noAddress, false, nullptr, nullptr); }},
        {SendDataResult::kTooLong, [&] { return agent->asynSendData(data, 65536, &app, false, nullptr, nullptr); }},
        {SendDataResult::kEmpty, [&] { return agent->asynSendData(data, 0, &app, false, nullptr, nullptr); }},
        {SendUDPDataResult::kNoData, [&] { return agent->sendUDPData(nullptr, 0, nullptr, false, nullptr, nullptr); }},
        {SendUDPDataResult::kNoTarget, [&] { return agent->sendUDPData(data, 10, nullptr, false, nullptr, nullptr); }},
        {SendUDPDataResult::kNoTarget, [&] { return agent->sendUDPData(data, 10, &noAddress, false, nullptr, nullptr); }},
        {SendUDPDataResult::kEmpty, [&] { return agent->sendUDPData(data, 0, &app, false, nullptr, nullptr); }},
        {SendUDPHugeDataResult::kNoData, [&] { return agent->sendUDPHugeData(nullptr, 0, nullptr); }},
        // A large payload is checked for its length before its target.
        {SendUDPHugeDataResult::kEmpty, [&] { return agent->sendUDPHugeData(data, 0, nullptr); }},
        {SendUDPHugeDataResult::kNoTarget, [&] { return agent->sendUDPHugeData(data, 10, &noAddress); }},
        {BroadcastResult::kNoData, [&] { return agent->broadcast(nullptr, 1, "1.2.3.4", false); }},
        {BroadcastResult::kNoAddress, [&] { return agent->broadcast(data, 1, nullptr, false); }},
        {BroadcastResult::kAddressTooLong, [&] { return agent->broadcast(data, 1, "255.255.255.2550", false); }},
        {BroadcastResult::kTooLong, [&] { return agent->broadcast(data, 2040, "255.255.255.255", false); }},
        {SendFileResult::kNoPath, [&] { return agent->sendFile(nullptr, &app, nullptr, nullptr, &task, false, 0); }},
        {SendFileResult::kPathNotAbsolute, [&] { return agent->sendFile(".hidden", &app, nullptr, nullptr, &task, false, 0); }},
        {SendFileListResult::kNameTooLong, [&] { return agent->sendFile(longName.c_str(), &app, nullptr, nullptr, &task, false, 0); }},
        {SendFileListResult::kNameTooLong, [&] { return agent->sendFile(longDosName.c_str(), &app, nullptr, nullptr, &task, false, 0); }},
        {SendFileListResult::kNoList, [&] { return agent->sendFileList(nullptr, &app, nullptr, nullptr, &task, false, 0); }},
        {SendFileListResult::kNoTaskPlace, [&] { return agent->sendFileList(&empty, &app, nullptr, nullptr, nullptr, false, 0); }},
        {SendFileListResult::kNoTarget, [&] { return agent->sendFileList(&empty, nullptr, nullptr, nullptr, &task, false, 0); }},
        {SendFileListResult::kEmptyList, [&] { return agent->sendFileList(&empty, &app, nullptr, nullptr, &task, false, 0); }},
        {SendFileListResult::kPathNotAbsolute, [&] { return agent->sendFileList(&escaping, &app, nullptr, nullptr, &task, false, 0); }},
        {GetReceiveOptionResult::kNoPlace, [&] { return agent->getReceiveOption(nullptr); }},
        {CommonResult::kMissingArgument, [&] { return agent->getFileList(nullptr, &items); }},
        {CommonResult::kMissingArgument, [&] { return agent->getFileList(&server, nullptr, &items); }},
        {CommonResult::kMissingArgument, [&] { return agent->getParentDirectoryInfo(nullptr, nullptr); }},
        {CommonResult::kMissingArgument, [&] { return agent->copyFileList(&server, nullptr, nullptr, &copyTask); }},
        {CommonResult::kMissingArgument, [&] { return agent->playSelectedFile(0, nullptr, &items, &server, nullptr, nullptr, 0); }},
        {CommonResult::kMissingArgument, [&] { return agent->stopCurPlayingFile(nullptr); }},
        {CommonResult::kMissingArgument, [&] { return agent->setMyDMSName(nullptr); }},
        {NetworkInfoResult::kNoPlace, [&] { return agent->getLocalNetworkInfo(nullptr); }},
        {SearchAppResult::kNoList, [&] { return agent->searchInteractionApp(nullptr); }},
        {AppListResult::kNoList, [&] { return agent->getInteractionAppList(nullptr); }},
    };
    std::vector<int> given;
    for (const std::vector<Row>* rows : {&unregistered, &registered}) {
        if (rows == &registered) {
            EXPECT_EQ(0, service->connections()) << "no check before registration touches the service";
            registerAgent();
        }
        for (size_t i = 0; i < rows->size(); ++i) {
            EXPECT_EQ((*rows)[i].code.value, (*rows)[i].call()) << (*rows)[i].code.meaning << " (row " << i << ")";
            given.push_back((*rows)[i].code.value);
        }
    }
    for (int32_t action : {ACTION_SEND_DATA, ACTION_SEND_FILE, ACTION_SEND_FILE_EX, ACTION_GET_ROOT_FILE_LIST}) {
        EXPECT_TRUE(service->received(action).empty()) << action;
    }

    // Codes that only a lack of memory, a failing link or a missing service can give are shown
    // elsewhere; every other named code must be some row's.
    for (const ResultFamily& family : kResultFamilies) {
        for (size_t i = 0; i < family.count; ++i) {
            const ResultCode& code = family.codes[i];
            const bool elsewhere = std::string(code.meaning).find("memory") != std::string::npos ||
                                   (code.value > 1100 && code.value < 1200) ||
                                   code.value == RegisterResult::kServiceUnreachable;
            EXPECT_TRUE(elsewhere || std::find(given.begin(), given.end(), code.value) != given.end())
                << code.value << " (" << code.meaning << ") is given by no row";
        }
    }
}

}  // namespace
