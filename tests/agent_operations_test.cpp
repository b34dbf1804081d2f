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

namespace {

InteractionApp target(int appID = 12, const char* ip = "10.0.0.9") {
    InteractionApp app;
    app.nAppID = appID;
    app.SetIPv4(ip);
    return app;
}

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

class DataTest : public AgentTest {};

TEST_F(DataTest, SendDataCarriesTargetFlagTimeOutInMillisecondsAndData) {
    registerAgent();
    answerResult(ACTION_SEND_DATA, 0);
    const InteractionApp app = target();
    ASSERT_EQ(0, agent->sendData("hello", 5, &app, true, 7));
    const Bytes request = lastRequest(ACTION_SEND_DATA);
    EXPECT_EQ(Bytes(reinterpret_cast<const uint8_t*>(&app), reinterpret_cast<const uint8_t*>(&app) + 304),
              Bytes(request.begin() + 4, request.begin() + 308));
    EXPECT_EQ(1, request[308]);
    EXPECT_EQ(5, readInt32(request, 313));
    EXPECT_EQ("hello", readField(request, 317, 5));
    // Seconds from 1 to 200 become milliseconds; other values are taken as they are.
    for (const auto& timeouts : std::vector<std::pair<int, int>>{{200, 200000}, {201, 201}, {0, 0}, {1, 1000}}) {
        ASSERT_EQ(0, agent->sendData("hello", 5, &app, true, timeouts.first));
        EXPECT_EQ(timeouts.second, readInt32(lastRequest(ACTION_SEND_DATA), 309)) << timeouts.first;
    }
    answerResult(ACTION_SEND_DATA, 6);
    EXPECT_EQ(6, agent->sendData("x", 1, &app, false, 1)) << "the service's result";
    answerResult(ACTION_BROADCAST);
    ASSERT_EQ(0, agent->broadcast("all", 3, "255.255.255.255", true));
    const Bytes broadcast = lastRequest(ACTION_BROADCAST);
    EXPECT_EQ("255.255.255.255", readText(broadcast, 4 + 268, 16));
    EXPECT_EQ(1, broadcast[308]);
    EXPECT_EQ("all", readField(broadcast, 313, 3));
}

// A payload above one datagram goes out as pieces of 8173 bytes, each behind its list ID and
// sequence number: 0 first, its index in between, kLastSequence last; one piece carries 0 alone.
TEST_F(DataTest, UDPPayloadsAboveOneDatagramGoOutAsNumberedPieces) {
    registerAgent();
    answerResult(ACTION_SEND_UDP_DATA);
    answerResult(ACTION_SEND_UDP_HUGE_DATA);
    const InteractionApp app = target();
    const std::string payload(3 * 8173 + 1, 'p');
    ASSERT_EQ(0, agent->sendUDPData(payload.data(), 2039, &app, false, nullptr, nullptr));
    EXPECT_EQ(2039, readInt32(lastRequest(ACTION_SEND_UDP_DATA), 309));
    EXPECT_TRUE(service->received(ACTION_SEND_UDP_HUGE_DATA).empty());
    ASSERT_EQ(0, agent->sendUDPData(payload.data(), 2040, &app, true, CallbackRecorder::onData, &user));
    ASSERT_EQ(0, agent->sendUDPHugeData(payload.data(), static_cast<unsigned int>(payload.size()), &app));
    const std::vector<Bytes> pieces = service->received(ACTION_SEND_UDP_HUGE_DATA);
    ASSERT_EQ(5u, pieces.size());
    const std::vector<std::pair<int32_t, int32_t>> expected = {
        {2040 + 8, 0}, {8173 + 8, 0}, {8173 + 8, 1}, {8173 + 8, 2}, {1 + 8, static_cast<int32_t>(ActionAgent::kLastSequence)}};
    for (size_t i = 0; i < pieces.size(); ++i) {
        EXPECT_EQ(expected[i], std::make_pair(readInt32(pieces[i], 308), readInt32(pieces[i], 316))) << i;
        EXPECT_EQ(app.nAppID, readInt32(pieces[i], 4 + 260));
    }
    EXPECT_EQ(readInt32(pieces[1], 312), readInt32(pieces[4], 312)) << "one list ID for the payload";
    answerResult(ACTION_SEND_UDP_HUGE_DATA, 9);
    EXPECT_EQ(9, agent->sendUDPHugeData(payload.data(), 8174, &app));
    EXPECT_EQ(6u, service->received(ACTION_SEND_UDP_HUGE_DATA).size()) << "a refused piece ends the send";
}

TEST_F(DataTest, AsynchronousSendsToOneAppShareOneCountedEntry) {
    registerAgent();
    const InteractionApp app = target();
    int otherUser = 0;
    ASSERT_EQ(0, agent->asynSendData("a", 1, &app, false, CallbackRecorder::onData, &user));
    ASSERT_EQ(0, agent->asynSendData("b", 1, &app, false, CallbackRecorder::onData, &otherUser));
    ASSERT_TRUE(service->waitForRequests(ACTION_ASYN_SEND_DATA, 2));
    const Bytes request = lastRequest(ACTION_ASYN_SEND_DATA);
    EXPECT_EQ(1, request[309]) << "a status is wanted";
    EXPECT_EQ("b", readField(request, 314, 1));
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(service->push(dataStatus<SendTCPDataStatusRes>(app, i)));
    }
    ASSERT_TRUE(callbacks.waitFor("data", 2));
    EXPECT_FALSE(callbacks.waitFor("data", 3, 300)) << "the entry is gone after two statuses";
    for (const CallbackRecord& record : callbacks.of("data")) {
        EXPECT_EQ(&user, record.user) << "the first callback given stays";
        EXPECT_EQ(12, record.dataEvent.nRemoteAppID);
        EXPECT_STREQ("10.0.0.9", record.dataEvent.strIPAddress);
        EXPECT_EQ(2, record.dataEvent.nEventType);
    }
    EXPECT_EQ(1, callbacks.of("data")[1].dataEvent.nId);

    // A status callback may send with a status callback of its own.
    std::atomic<int> inside(-1);
    ASSERT_EQ(0, agent->asynSendData("a", 1, &app, false, CallbackRecorder::onData, &user));
    callbacks.runInside("data", [&] { inside = agent->asynSendData("c", 1, &app, false, CallbackRecorder::onData, &user); });
    ASSERT_TRUE(service->push(dataStatus<SendTCPDataStatusRes>(app, 0)));
    ASSERT_TRUE(callbacks.waitFor("data", 3));
    EXPECT_EQ(0, inside.load());
    ASSERT_TRUE(service->waitForRequests(ACTION_ASYN_SEND_DATA, 4));
    ASSERT_TRUE(service->push(dataStatus<SendTCPDataStatusRes>(app, 0)));
    EXPECT_TRUE(callbacks.waitFor("data", 4)) << "the send made inside the callback is filed";
}

TEST_F(DataTest, UDPStatusIsKeyedByTheWholeAddressField) {
    registerAgent();
    answerResult(ACTION_SEND_UDP_DATA);
    InteractionApp app = target();
    app.szIPv4[12] = 'z';  // left over behind the terminator: part of the key
    ASSERT_EQ(0, agent->sendUDPData("u", 1, &app, true, CallbackRecorder::onData, &user));
    EXPECT_EQ(1, lastRequest(ACTION_SEND_UDP_DATA)[308]);
    for (const InteractionApp& to : {target(), app, app}) {
        ASSERT_TRUE(service->push(dataStatus<SendUDPDataStatusRes>(to, 0)));
    }
    ASSERT_TRUE(callbacks.waitFor("data", 1));
    EXPECT_FALSE(callbacks.waitFor("data", 2, 300)) << "one status per send";
    EXPECT_EQ(&user, callbacks.of("data")[0].user);

    // A failed or refused send withdraws its own entry, never a pending one's to the same app.
    int other = 0;
    ASSERT_EQ(0, agent->sendUDPData("u", 1, &app, true, CallbackRecorder::onData, &user));
    service->answer(ACTION_SEND_UDP_DATA, body(ACTION_SEND_UDP_DATA, {}));
    EXPECT_NE(0, agent->sendUDPData("u", 1, &app, true, CallbackRecorder::onData, &other));
    answerResult(ACTION_SEND_UDP_DATA, 5);
    EXPECT_EQ(5, agent->sendUDPData("u", 1, &app, true, CallbackRecorder::onData, &other));
    ASSERT_TRUE(service->push(dataStatus<SendUDPDataStatusRes>(app, 0)));
    ASSERT_TRUE(service->push(dataStatus<SendUDPDataStatusRes>(app, 0)));
    ASSERT_TRUE(callbacks.waitFor("data", 2));
    EXPECT_FALSE(callbacks.waitFor("data", 3, 300)) << "the failed sends filed nothing";
    EXPECT_EQ(&user, callbacks.of("data")[1].user);
}

class ReceiveTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        registerAgent();
        ReceiveOption option;
        option.pfnReceiveData = CallbackRecorder::onReceiveData;
        option.pReceiveDataUser = &user;
        option.pfnReceiveFile = CallbackRecorder::onReceiveFile;
        option.pReceiveFileUser = &user;
        ASSERT_EQ(0, agent->setReceiveOption(&option));
    }
};

// Pieces are joined in arrival order and delivered at the last; a sender keeps at most eight
// unfinished payloads, the oldest going first.
TEST_F(ReceiveTest, ALargePayloadIsDeliveredOnceJoinedInArrivalOrder) {
    EXPECT_EQ("\1\1", readField(lastRequest(ACTION_SET_RECEIVE_OPTION), 265, 2)) << "data and files wanted";
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

TEST_F(ReceiveTest, DataAndFilesFromOtherAppsReachTheReceiveCallbacks) {
    ReceiveDataRes data;
    data.nDataType = 4;
    data.sender = target(30, "10.0.0.30");
    data.data.Set("", 0);
    ASSERT_TRUE(service->push(Encode(data)));
    ReceiveFileRes file;
    file.nTaskID = 8;
    file.ullCurrentSize = 10;
    file.ullTotalSize = 20;
    file.nCurrentCount = 1;
    file.nTotalCount = 2;
    strcpy(file.strFileName, "photo.jpg");
    file.sender = target(30, "10.0.0.30");
    const Bytes wire = Encode(file);
    ASSERT_TRUE(service->push(wire));
    ASSERT_TRUE(callbacks.waitFor("receive-file", 1));
    ASSERT_EQ(1u, callbacks.of("receive-data").size());
    EXPECT_EQ(4, callbacks.of("receive-data")[0].status);
    EXPECT_TRUE(callbacks.of("receive-data")[0].data.empty());
    const CallbackRecord received = callbacks.of("receive-file")[0];
    const file_transfer_event& event = received.fileEvent;
    EXPECT_EQ((std::vector<int64_t>{8, 10, 20, 1, 2, 30}),
              (std::vector<int64_t>{event.nId, static_cast<int64_t>(event.ullCurrentSize),
                                    static_cast<int64_t>(event.ullTotalSize), event.nCurrentCount, event.nTotalCount,
                                    event.nRemoteAppID}));
    EXPECT_STREQ("photo.jpg", event.strFileName);
    EXPECT_STREQ("10.0.0.30", event.strOtherSideIP);
    EXPECT_EQ(&user, received.user);

    dispatch(Bytes(wire.begin(), wire.end() - 1));
    EXPECT_EQ(1u, callbacks.of("receive-file").size()) << "619 bytes cannot be a file event";
}

class FileTest : public AgentTest {
protected:
    void answerSendFile(int32_t actionID, int32_t taskID, int32_t result = 0) {
        service->answer(actionID, body(actionID, {taskID, result}));
    }
};

TEST_F(FileTest, SendFilesPutEveryAbsolutePathTheTargetAndTheTagOnTheWire) {
    registerAgent();
    answerSendFile(ACTION_SEND_FILE_EX, 77);
    const std::vector<std::string> paths = {"/data/a.txt", "/data/b.txt"};
    const InteractionApp app = target(300);
    uint32_t taskID = 0;
    ASSERT_EQ(0, agent->sendFileList(&paths, &app, CallbackRecorder::onFile, &user, &taskID, true, 6));
    EXPECT_EQ(77u, taskID);
    const Bytes request = lastRequest(ACTION_SEND_FILE_EX);
    EXPECT_EQ(2, readInt32(request, 4));
    EXPECT_EQ("/data/a.txt", readText(request, 8, 260));
    EXPECT_EQ("/data/b.txt", readText(request, 268, 260));
    EXPECT_EQ(300, readInt32(request, 528 + 260));
    EXPECT_EQ((Bytes{kAppID, 300 & 0xFF, 3, 0}), Bytes(request.begin() + 832, request.begin() + 836));
    EXPECT_EQ(6, readInt32(request, 840));

    // Paths are made absolute and names bounded at their last part.
    answerSendFile(ACTION_SEND_FILE, 1);
    EXPECT_EQ(0, agent->sendFile(("/d/" + std::string(225, 'f')).c_str(), &app, nullptr, nullptr, &taskID, false, 0));
    // The empty path resolves to the current directory, or to nothing once that is gone.
    EXPECT_EQ(0, agent->sendFile("", &app, nullptr, nullptr, &taskID, false, 0));
    TempDir gone;
    const std::string here = Common::OSAbstractLayer::osal_getProgramPath();
    ASSERT_EQ(0, Common::OSAbstractLayer::osal_setCurrentPath(gone.path().c_str()));
    ASSERT_EQ(0, rmdir(gone.path().c_str()));
    EXPECT_EQ(SendFileResult::kPathNotAbsolute, agent->sendFile("", &app, nullptr, nullptr, &taskID, false, 0));
    ASSERT_EQ(0, Common::OSAbstractLayer::osal_setCurrentPath(here.c_str()));
}

TEST_F(FileTest, ProgressGoesToTheSendersCallbackAndControlsCarryTheTaskID) {
    registerAgent();
    answerSendFile(ACTION_SEND_FILE, 77);
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
    EXPECT_STREQ("10.0.0.9", event.strOtherSideIP);

    const std::vector<std::pair<int32_t, std::function<int()>>> controls = {
        {ACTION_PAUSE_SEND, [&] { return agent->pauseSend(77); }},
        {ACTION_PAUSE_SEND, [&] { return agent->pauseSend(77UL); }},
        {ACTION_RESUME_SEND, [&] { return agent->resumeSend(77); }},
        {ACTION_RESUME_SEND, [&] { return agent->resumeSend(77UL); }},
        {ACTION_CANCEL_RECEIVE, [&] { return agent->cancelReceive(77); }},
        {ACTION_CANCEL_RECEIVE, [&] { return agent->cancelReceive(77UL); }},
        {ACTION_CANCEL_SEND, [&] { return agent->cancelSend(77); }},
        {ACTION_CANCEL_SEND, [&] { return agent->cancelSend(77UL); }},
    };
    for (const auto& control : controls) {
        service->answer(control.first, body(control.first, {77, 0}));
        EXPECT_EQ(0, control.second());
        EXPECT_EQ(body(control.first, {77}), lastRequest(control.first));
    }
    EXPECT_EQ(0, agent->deleteSendFileCallback(77));
    EXPECT_EQ(1, agent->deleteSendFileCallback(77));
    agent->unregisterApp();
    EXPECT_EQ(2000, agent->pauseSend(77));
    EXPECT_EQ(1100, agent->deleteSendFileCallback(77));
}

TEST_F(FileTest, ReceiveOptionsAreSentAndKept) {
    ReceiveOption option;
    registerAgent();
    strcpy(option.directory, "/sdcard/in");
    option.rename = false;
    option.percent = 25;
    option.pfnReceiveFile = CallbackRecorder::onReceiveFile;
    answerResult(ACTION_SET_RECEIVE_OPTION, 4);
    EXPECT_EQ(4, agent->setReceiveOption(&option)) << "kept whatever the result";
    const Bytes request = lastRequest(ACTION_SET_RECEIVE_OPTION);
    EXPECT_EQ("/sdcard/in", readText(request, 4, 260));
    EXPECT_EQ((Bytes{0, 0, 1}), Bytes(request.begin() + 264, request.begin() + 267));
    EXPECT_EQ(25, readInt32(request, 267));
    ReceiveOption saved;
    ASSERT_EQ(0, agent->getReceiveOption(&saved));
    EXPECT_STREQ("/sdcard/in", saved.directory);
    EXPECT_EQ(25, saved.percent);
    EXPECT_EQ(CallbackRecorder::onReceiveFile, saved.pfnReceiveFile);
}

class MediaTest : public AgentTest {
protected:
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
};

TEST_F(MediaTest, EachOperationSendsItsActionAndLayout) {
    registerAgent();
    const DLNADevice server = device("server", DLNA_DEVICE_DMS);
    const DLNADevice renderer = device("renderer", DLNA_DEVICE_DMR);
    const FileInfo folder = item("folder");
    const std::vector<FileInfo> files = {item("one"), item("two")};
    int taskID = 0;
    FileInfo parent;
    LocalNetworkDevice network;
    std::vector<InteractionApp> apps;
    // Each operation's action ID, the size of its request, and its call.
    const std::vector<std::tuple<int32_t, size_t, std::function<int()>>> cases = {
        {29, 8, [&] { return agent->stopCopyTransfer(4); }},
        {35, 1240 + 2 * 1844, [&] { return agent->playSelectedFile(1, &renderer, &files, &server, nullptr, nullptr, 9); }},
        {36, 616, [&] { return agent->stopCurPlayingFile(&renderer); }},
        {37, 616, [&] { return agent->pauseCurPlayingFile(&renderer); }},
        {38, 616, [&] { return agent->resumeCurPlayingFile(&renderer); }},
        {42, 616, [&] { return agent->enableContentListCache(&server); }},
        {43, 616, [&] { return agent->disableContentListCache(&server); }},
        {27, 4, [&] { return agent->startDMS(); }},
        {28, 4, [&] { return agent->stopDMS(); }},
        {21, 264, [&] { return agent->setShareFolder("/sdcard/share"); }},
        {30, 4, [&] { return agent->rescanShareFolder(); }},
        {31, 264, [&] { return agent->setMyDMSName("my server"); }},
        {33, 8, [&] { return agent->rescanNetwork(DLNA_DEVICE_DMR); }},
        {49, 5, [&] { return agent->refreshInteractionApp(true); }},
        {47, 1848, [&] { return agent->getParentDirectoryInfo(&folder, &parent); }},
        {39, 3076 + 2 * 1844, [&] { return agent->copyFileList(&server, &renderer, &files, &folder, nullptr, &taskID); }},
        {40, 3076 + 2 * 1844, [&] { return agent->copyFileList(&server, &files, nullptr, &taskID); }},
        {17, 4, [&] { return agent->getLocalNetworkInfo(&network); }},
        {44, 4, [&] { return agent->searchInteractionApp(&apps); }},
    };
    for (const auto& [actionID, size, call] : cases) {
        // Zeros after the action ID read as an empty, successful reply of every layout here.
        service->answer(actionID, B().i32(actionID).zeros(1848));
        EXPECT_EQ(0, call()) << actionID;
        EXPECT_EQ(size, lastRequest(actionID).size()) << actionID;
    }
    const Bytes play = lastRequest(35);
    EXPECT_EQ("server", readText(play, 4, 260));
    EXPECT_EQ("renderer", readText(play, 616, 260));
    EXPECT_EQ("two", readText(play, 1232 + 1844 + 300, 260));
    EXPECT_EQ(1, readInt32(play, 1232 + 2 * 1844));
    EXPECT_EQ(9, readInt32(play, 1236 + 2 * 1844));
    EXPECT_EQ("renderer", readText(lastRequest(36), 4, 260));
    EXPECT_EQ(4, readInt32(lastRequest(29), 4));
    EXPECT_EQ(1, readInt32(lastRequest(33), 4));
    EXPECT_EQ(1, lastRequest(49)[4]);
    EXPECT_EQ("/sdcard/share", readText(lastRequest(21), 4, 260));
    EXPECT_EQ("my server", readText(lastRequest(31), 4, 260));
    EXPECT_EQ("folder", readText(lastRequest(47), 4 + 300, 260));
    const Bytes upload = lastRequest(39);
    EXPECT_EQ("renderer", readText(upload, 616, 260));
    EXPECT_EQ("folder", readText(upload, 1232 + 2 * 1844 + 300, 260));
}

TEST_F(MediaTest, BrowsingAppendsToTheCallersLists) {
    registerAgent();
    const DLNADevice server = device("server", DLNA_DEVICE_DMS);
    const FileInfo folder = item("folder");
    SearchDeviceRes found(ACTION_SEARCH_DMS);
    found.devices = {server, device("second", DLNA_DEVICE_DMS)};
    found.nResult = 0;
    service->answer(ACTION_SEARCH_DMS, Encode(found));
    std::vector<DLNADevice> devices(1);
    ASSERT_EQ(0, agent->searchDMS(&devices));
    ASSERT_EQ(3u, devices.size());
    EXPECT_STREQ("second", devices[2].name);

    for (int32_t actionID : {ACTION_GET_ROOT_FILE_LIST, ACTION_GET_CHILD_FILE_LIST, ACTION_GET_PARENT_FILE_LIST}) {
        GetFileListRes listing(actionID);
        listing.items = {item("a"), item("b")};
        listing.nResult = 0;
        service->answer(actionID, Encode(listing));
    }
    std::vector<FileInfo> items(1);
    ASSERT_EQ(0, agent->getFileList(&server, &items));
    ASSERT_EQ(0, agent->getFileList(&server, &folder, &items));
    ASSERT_EQ(0, agent->getParentFileList(&server, &folder, &items));
    ASSERT_EQ(7u, items.size());
    EXPECT_STREQ("b", items[6].objectTitle);
    for (int32_t actionID : {ACTION_GET_CHILD_FILE_LIST, ACTION_GET_PARENT_FILE_LIST}) {
        EXPECT_EQ("folder", readText(lastRequest(actionID), 616 + 300, 260)) << actionID;
    }
    const Bytes root = lastRequest(ACTION_GET_ROOT_FILE_LIST);
    EXPECT_EQ("server", readText(root, 4, 260));
    EXPECT_EQ(Bytes(1844, 0), Bytes(root.begin() + 616, root.end())) << "the root has no folder";

    GetLocalNetworkDeviceRes network;
    strcpy(network.device.szHostName, "phone");
    strcpy(network.device.szIPv4, "10.0.0.7");
    strcpy(network.device.szGateway, "10.0.0.1");
    network.device.networkCards.resize(2);
    network.nResult = 0;
    service->answer(ACTION_GET_LOCAL_NETWORK_DEVICE, Encode(network));
    LocalNetworkDevice described;
    described.networkCards.resize(1);
    ASSERT_EQ(0, agent->getLocalNetworkInfo(&described));
    EXPECT_STREQ("phone", described.szHostName);
    EXPECT_STREQ("10.0.0.7", described.szIPv4);
    EXPECT_STREQ("10.0.0.1", described.szGateway);
    EXPECT_EQ(3u, described.networkCards.size());

    SearchAppRes appsFound;
    appsFound.apps.resize(2);
    appsFound.nResult = 0;
    service->answer(ACTION_SEARCH_APP, Encode(appsFound));
    std::vector<InteractionApp> apps(2);
    ASSERT_EQ(0, agent->searchInteractionApp(&apps));
    EXPECT_EQ(4u, apps.size());

    Bytes lying = Encode(found);
    lying[0] = ACTION_SEARCH_DMR;
    lying[4] = 3;  // claims three devices; two follow
    service->answer(ACTION_SEARCH_DMR, lying);
    devices.clear();
    EXPECT_EQ(1, agent->searchDMR(&devices)) << "a reply that cannot be read counts as a failure";
    EXPECT_TRUE(devices.empty());
}

TEST_F(MediaTest, CopyProgressAndDeviceChangesReachTheirCallbacks) {
    registerAgent(true, false);
    const DLNADevice server = device("server", DLNA_DEVICE_DMS);
    const std::vector<FileInfo> files = {item("movie")};
    service->answer(ACTION_DOWNLOAD_FILE, body(ACTION_DOWNLOAD_FILE, {55, 0}));
    int taskID = 0;
    ASSERT_EQ(0, agent->copyFileList(&server, &files, CallbackRecorder::onFile, &taskID));
    EXPECT_EQ(55, taskID);

    DMFileCopyRes progress;
    progress.nTaskID = 55;
    progress.ullCurrentSize = 100;
    progress.otherSide = server;
    Wire::CopyText(progress.otherSide.IPv4, "10.0.0.40");
    ASSERT_TRUE(service->push(Encode(progress)));
    DMDeviceChangeRes change;
    change.nChangeType = 2;
    change.device = device("gone", DLNA_DEVICE_DMR);
    ASSERT_TRUE(service->push(Encode(change)));
    ASSERT_TRUE(callbacks.waitFor("device", 1));
    ASSERT_EQ(1u, callbacks.of("file").size());
    const CallbackRecord copy = callbacks.of("file")[0];
    EXPECT_EQ(&user, copy.user) << "copies report with the registration user pointer";
    EXPECT_EQ(100u, copy.fileEvent.ullCurrentSize);
    EXPECT_STREQ("10.0.0.40", copy.fileEvent.strOtherSideIP);
    const CallbackRecord gone = callbacks.of("device")[0];
    EXPECT_EQ(2, gone.status);
    EXPECT_STREQ("gone", gone.device.name);
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
