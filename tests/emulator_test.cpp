// The emulator's service core, driven directly with a host that records what each client is sent
// and a clock that the test moves: framing, registration and app events, relayed data and its
// status, file sends, the media server and renderer, the trace.
#include "Service.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <deque>
#include <map>
#include <tuple>
#include <utility>

#include "ServiceCodes.h"
#include "support/MessageGoldens.h"
#include "support/TempDir.h"

using namespace PELK;
using namespace PELK::Emulator;
using pelktest::B;
using pelktest::Bytes;
using pelktest::pattern;
using pelktest::readFile;

namespace {

class Host : public ServiceHost {
public:
    void deliver(ClientId client, std::vector<char> frame) override {
        EXPECT_EQ(frame.size(), Wire::DecodeFixed32(reinterpret_cast<const unsigned char*>(frame.data())) + 4u);
        m_frames[client].emplace_back(frame.begin() + 4, frame.end());
    }
    size_t backlog(ClientId) const override { return 0; }
    int64_t nowMs() const override { return now; }
    void log(const std::string& line) override { logs.push_back(line); }
    void trace(const std::string& line) override { traces.push_back(line); }

    // The bodies sent to client since the last take.
    std::vector<Bytes> take(ClientId client) { return std::exchange(m_frames[client], {}); }

    int64_t now = 1000;
    std::vector<std::string> logs, traces;

private:
    std::map<ClientId, std::vector<Bytes>> m_frames;
};

// The bodies of one action ID, decoded. File events are written 8 bytes shorter than their
// GetSize(), and read as such by the agent.
template <class Msg>
std::deque<Msg> only(const std::vector<Bytes>& bodies, int32_t actionID) {
    std::deque<Msg> found;  // never moves its elements, as messages that own data cannot be moved
    for (const Bytes& body : bodies) {
        if (pelktest::actionIdOf(body) == actionID) {
            found.emplace_back();
            found.back().FromBuffer(body.data(),
                                    static_cast<unsigned int>(body.size()) + Codec::UnwrittenTail<Msg>::value);
        }
    }
    return found;
}

// Event 20 as the receiving app sees it: its kind, the sender's name and the data.
std::vector<std::string> receivedData(const std::vector<Bytes>& bodies) {
    std::vector<std::string> found;
    for (const ReceiveDataRes& event : only<ReceiveDataRes>(bodies, ACTION_RECEIVE_DATA)) {
        found.push_back(std::to_string(event.nDataType) + " " + event.sender.szAppName + " " +
                        std::to_string(event.sender.nAppID) + " " + std::string(event.data.pData, event.data.nLength));
    }
    return found;
}

class EmulatorTest : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir(media.file("Music").c_str(), 0755);
        media.write("Music/track.mp3", pattern(5000, 1));
        media.write("notes.txt", "notes");
        media.write(".hidden", "not served");
        symlink("/etc", media.file("escape").c_str());
        config.mediaFolder = media.path();
        config.fTrace = true;  // every message of every test goes through the trace's formatting
        service = std::make_unique<Service>(config, host);
        std::string error;
        ASSERT_TRUE(service->start(error)) << error;
    }

    bool receive(ClientId client, const Bytes& body) {
        return service->receive(client, reinterpret_cast<const char*>(body.data()), static_cast<uint32_t>(body.size()));
    }
    bool send(ClientId client, const ReqResBase& request) { return receive(client, pelktest::Encode(request)); }

    // Connects and registers; returns the app ID. Events sent so far are dropped.
    int32_t join(ClientId client, const char* name, int32_t number = 7, bool events = true) {
        service->connect(client);
        RegisterReq request;
        request.SetAppName(name);
        request.nAppID = number;
        request.fAppEvents = request.fDeviceEvents = events;
        const RegisterRes registered = reply<RegisterRes>(client, request);
        return registered.nResult != RESULT_OK ? -1 : registered.nAppID;
    }

    // Sends request and returns its reply, the body sent back under the request's action ID;
    // the events sent with it are dropped.
    template <class Res, class Req>
    Res reply(ClientId client, const Req& request) {
        EXPECT_TRUE(send(client, request));
        return only<Res>(host.take(client), request.actionID).at(0);
    }
    template <class Res, class Req>
    int32_t result(ClientId client, const Req& request) {
        return reply<Res>(client, request).nResult;
    }

    // Moves the clock on by ms for one tick.
    void run(int64_t ms) {
        host.now += ms;
        service->tick();
    }
    // Moves the clock on until no transfer runs.
    void runTasks() {
        for (int i = 0; i < 10000 && service->taskCount() > 0; ++i) {
            run(200);
        }
    }

    pelktest::TempDir media, files;
    ServiceConfig config;
    Host host;
    std::unique_ptr<Service> service;
};

// ---------------------------------------------------------------------------------------------
// Framing and requests

TEST_F(EmulatorTest, EveryGoldenRequestIsReadWholeAndAnsweredUnderItsOwnID) {
    join(1, "golden");
    service->connect(2);  // never registered: the length is checked first
    for (const pelktest::Golden& golden : pelktest::Goldens()) {
        const std::string name = golden.name;
        if (name.compare(name.size() - 3, 3, "Req") != 0) {
            continue;
        }
        SCOPED_TRACE(name);
        const Bytes& body = golden.body;
        for (const Bytes& wrong : {Bytes(body.begin(), body.end() - 1), B().add(body).u8(0).v}) {
            EXPECT_FALSE(receive(2, wrong));
        }
        ASSERT_TRUE(receive(1, body));
        const std::vector<Bytes> sent = host.take(1);
        if (pelktest::actionIdOf(body) == ACTION_ASYN_SEND_DATA) {  // no reply; the status it asked for
            EXPECT_EQ(DATA_EVENT_FAILED, only<SendTCPDataStatusRes>(sent, ACTION_SEND_TCP_DATA_STATUS).at(0).nEventType);
        } else {
            EXPECT_EQ(pelktest::actionIdOf(body), pelktest::actionIdOf(sent.at(0)));
        }
    }
    // Before registration a request is refused; events, the link's own 46 and unknown IDs are
    // no requests and end the connection.
    EXPECT_EQ(RESULT_NOT_REGISTERED, result<SearchAppRes>(2, SearchAppReq()));
    for (int32_t id : {ACTION_RECEIVE_DATA, ACTION_SERVER_DISCONNECTED, 99}) {
        EXPECT_FALSE(receive(2, B().i32(id).i32(0))) << id;
    }
}

TEST(FrameReaderTest, CutsFramesAndRefusesLengthsWithoutAnActionIDOrBeyondTheLimit) {
    FrameReader reader;
    const Bytes two = B().i32(8).i32(44).i32(1).i32(4).i32(2);
    const char* body = nullptr;
    uint32_t length = 0;
    reader.append(reinterpret_cast<const char*>(two.data()), 15);
    ASSERT_EQ(FrameReader::FRAME, reader.next(body, length));
    EXPECT_EQ(B().i32(44).i32(1).v, Bytes(body, body + length));
    EXPECT_EQ(FrameReader::NEED_MORE, reader.next(body, length));
    reader.append(reinterpret_cast<const char*>(two.data()) + 15, 5);
    ASSERT_EQ(FrameReader::FRAME, reader.next(body, length));
    EXPECT_EQ(B().i32(2).v, Bytes(body, body + length));
    for (uint32_t size : {3u, Service::kMaxBody, Service::kMaxBody + 1, 0xFFFFFFFFu}) {
        FrameReader fresh;
        const Bytes frame = B().i32(size);
        fresh.append(reinterpret_cast<const char*>(frame.data()), 4);
        EXPECT_EQ(size == Service::kMaxBody ? FrameReader::NEED_MORE : FrameReader::MALFORMED, fresh.next(body, length))
            << size;
    }
}

// ---------------------------------------------------------------------------------------------
// Apps and data

TEST_F(EmulatorTest, AppEventsMarkOnlyTheRecipientsOwnRecordLocalAndGoToAppsThatAskedForThem) {
    ASSERT_EQ(1, join(1, "alice", 7));
    service->connect(2);
    RegisterReq bob;
    bob.SetAppName("bob");
    bob.nAppID = 8;
    bob.fAppEvents = true;
    ASSERT_TRUE(send(2, bob));
    auto event = [](int32_t change, const char* name, int id, int number, int local) -> Bytes {
        return B().i32(ACTION_INTER_APP_CHANGE).i32(1).i32(change).str(name, 260).i32(id).i32(number)
            .str("127.0.0.1", 16).str(Service::kDeviceMac, 18).u8(local).u8(0);
    };
    EXPECT_EQ((std::vector<Bytes>{B().i32(ACTION_REGISTER).i32(2).i32(0), event(APP_APPEARED, "bob", 2, 8, 1),
                                  event(APP_APPEARED, "alice", 1, 7, 0)}),
              host.take(2));
    EXPECT_EQ((std::vector<Bytes>{event(APP_APPEARED, "bob", 2, 8, 0)}), host.take(1));
    const SearchAppRes search = reply<SearchAppRes>(1, SearchAppReq());
    ASSERT_EQ(2u, search.apps.size());
    EXPECT_EQ(std::make_pair(1, 0), std::make_pair(int{search.apps[0].fLocalDevice}, int{search.apps[1].fLocalDevice}));

    join(3, "quiet", 1, false);
    host.take(1);
    service->disconnect(2);
    EXPECT_EQ((std::vector<Bytes>{event(APP_LEFT, "bob", 2, 8, 0)}), host.take(1));
    EXPECT_TRUE(host.take(3).empty());
}

TEST_F(EmulatorTest, AppIDsFitOneByteAndAFreedOneReturnsOnlyAfterAllOthers) {
    ASSERT_EQ(1, join(1, "first"));
    ASSERT_EQ(2, join(2, "second"));
    service->disconnect(1);
    EXPECT_EQ(3, join(3, "third"));
    for (ClientId client = 4; client <= 255; ++client) {
        ASSERT_EQ(static_cast<int32_t>(client), join(client, "many", 1, false));
    }
    EXPECT_EQ(1, join(256, "reuses the freed ID"));
    EXPECT_EQ(-1, join(257, "one too many"));
}

// Data, large payload pieces and broadcasts reach their targets as their kinds with the sender's
// record; unknown targets are refused; a send that asks for it is followed by a status event.
TEST_F(EmulatorTest, DataIsRelayedAsItsKindWithTheSendersRecordAndItsStatusFollows) {
    join(1, "alice");
    join(2, "bob");
    join(3, "carol");
    SendDataReq request;  // a plain send between two apps is the end-to-end test's
    request.app.nAppID = 1;
    request.app.SetIPv4("10.0.0.1");  // app 1 lives on this device only
    request.data.Set("hello", 5);
    EXPECT_EQ(RESULT_UNKNOWN_TARGET, result<SendDataRes>(2, request));
    EXPECT_TRUE(receivedData(host.take(1)).empty());

    SendUDPHugeDataReq piece;  // relayed whole, once it has room for its list ID and sequence number
    piece.app.nAppID = 1;
    piece.data.Set("part", 4);
    EXPECT_EQ(RESULT_BAD_REQUEST, result<SendUDPHugeDataRes>(3, piece));
    const Bytes payload = B().i32(77).i32(-2).str("part", 4);
    piece.data.Set(payload.data(), static_cast<unsigned int>(payload.size()));
    EXPECT_EQ(RESULT_OK, result<SendUDPHugeDataRes>(3, piece));
    EXPECT_EQ((std::vector<std::string>{std::to_string(DATA_KIND_HUGE_PIECE) + " carol 3 " +
                                        std::string(payload.begin(), payload.end())}),
              receivedData(host.take(1)));
    BroadcastReq broadcast;
    broadcast.app.SetIPv4("0.0.0.0");
    broadcast.data.Set("all", 3);
    ASSERT_TRUE(send(3, broadcast));
    EXPECT_EQ((std::vector<Bytes>{B().i32(ACTION_BROADCAST).i32(RESULT_OK)}), host.take(3));  // no data to itself
    for (ClientId other : {1, 2}) {
        EXPECT_EQ((std::vector<std::string>{std::to_string(DATA_KIND_BROADCAST) + " carol 3 all"}),
                  receivedData(host.take(other)));
    }

    // The agent finds a status callback by the target's address field (all 16 bytes for UDP) and
    // the low byte of its app ID in the tag; it files a UDP callback only after the reply.
    SendUDPDataReq udp;
    udp.app.nAppID = 1;
    udp.app.szIPv4[14] = 'x';  // a byte behind the terminator
    udp.fFlag = true;
    udp.data.Set("u", 1);
    ASSERT_TRUE(send(2, udp));
    EXPECT_EQ(1u, host.take(2).size());  // the reply alone
    run(Service::kFollowUpDelayMs);
    const SendUDPDataStatusRes status = only<SendUDPDataStatusRes>(host.take(2), ACTION_SEND_UDP_DATA_STATUS).at(0);
    EXPECT_EQ(0, memcmp(udp.app.szIPv4, status.szIPv4, 16));
    EXPECT_EQ(std::make_tuple(1, 2, DATA_EVENT_DELIVERED),
              std::make_tuple(int{status.sendTag.byRemoteAppID}, int{status.sendTag.byLocalAppID}, status.nEventType));

    AsynSendDataReq tcp;
    tcp.app.nAppID = 300;  // unknown; its low byte still comes back
    tcp.fWantStatus = true;
    tcp.data.Set("t", 1);
    ASSERT_TRUE(send(2, tcp));
    const SendTCPDataStatusRes failed = only<SendTCPDataStatusRes>(host.take(2), ACTION_SEND_TCP_DATA_STATUS).at(0);
    // bob's second send with a status, and the target's low byte
    EXPECT_EQ(std::make_tuple(2, DATA_EVENT_FAILED, 300 & 0xFF),
              std::make_tuple(failed.nStatus, failed.nEventType, int{failed.sendTag.byRemoteAppID}));
}

// ---------------------------------------------------------------------------------------------
// File sends

class FileSendTest : public EmulatorTest {
protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        join(1, "alice");
        join(2, "bob");
        mkdir(inbox.c_str(), 0755);
        SetReceiveOptionReq option;
        option.SetDirectory(inbox.c_str());
        option.percent = 34;
        ASSERT_EQ(RESULT_OK, result<SetReceiveOptionRes>(1, option));
        big = files.write("big.bin", pattern(3 * Service::kChunkBytes + 100, 7));
    }

    // The task ID, or the negated result of a refusal.
    int32_t sendFiles(const std::vector<std::string>& paths, int32_t target = 1) {
        SendFileReq request;
        for (const std::string& path : paths) {
            request.files.emplace_back(path.c_str());
        }
        request.app.nAppID = target;
        const SendFileRes sent = reply<SendFileRes>(2, request);
        return sent.nResult == RESULT_OK ? sent.nTaskID : -sent.nResult;
    }

    int32_t control(ClientId client, int32_t command, int32_t taskID) {
        FileTransferCtrlReq request(command);
        request.nTaskID = taskID;
        return result<FileTransferCtrlRes>(client, request);
    }

    std::string inbox = files.file("inbox");
    std::string big;
};

TEST_F(FileSendTest, RefusalsNameTheirCauseAndFilesArriveWholeWithProgressToBothSides) {
    EXPECT_EQ((std::vector<int32_t>{-RESULT_UNKNOWN_TARGET, -RESULT_MISSING_FILE, -RESULT_MISSING_FILE,
                                    -RESULT_NO_RECEIVE_FOLDER}),
              (std::vector<int32_t>{sendFiles({big}, 7), sendFiles({files.file("absent")}), sendFiles({files.path()}),
                                    sendFiles({big}, 2)}));
    SetReceiveOptionReq option;
    option.SetDirectory(files.file("absent").c_str());
    EXPECT_EQ(RESULT_BAD_FOLDER, result<SetReceiveOptionRes>(2, option));
    EXPECT_EQ(0u, service->taskCount());

    const int32_t task = sendFiles({big, files.write("empty.txt", "")});
    ASSERT_GT(task, 0);
    runTasks();
    // Four chunks of the big file, its end, the empty file's end, the list's end; every one
    // counts the bytes of its file and its place in the list.
    using Event = std::tuple<int32_t, int32_t, uint64_t, uint64_t>;  // type, file number, its done and size
    const uint64_t k = Service::kChunkBytes, all = readFile(big).size();
    std::vector<Event> sent, received;
    for (const SendFileStatusRes& e : only<SendFileStatusRes>(host.take(2), ACTION_SEND_FILE_STATUS)) {
        EXPECT_EQ(std::make_tuple(task, 2, all), std::make_tuple(e.nTaskID, e.nTotalCount, e.ullListTotalSize));
        EXPECT_STREQ("alice", e.receiver.szAppName);
        sent.emplace_back(e.nEventType, e.nCurrentCount, e.ullCurrentSize, e.ullTotalSize);
    }
    EXPECT_EQ((std::vector<Event>{{1, 1, k, all}, {1, 1, 2 * k, all}, {1, 1, 3 * k, all}, {2, 1, all, all},
                                  {2, 2, 0, 0}, {3, 2, 0, 0}}),
              sent);
    // The receiver hears of progress in steps of at least its option's 34 %: at 33 % and 99 %.
    for (const ReceiveFileRes& e : only<ReceiveFileRes>(host.take(1), ACTION_RECEIVE_FILE)) {
        EXPECT_STREQ("bob", e.sender.szAppName);
        received.emplace_back(e.nEventType, e.nCurrentCount, e.ullCurrentSize, e.ullTotalSize);
    }
    EXPECT_EQ((std::vector<Event>{{1, 1, k, all}, {1, 1, 3 * k, all}, {2, 1, all, all}, {2, 2, 0, 0}, {3, 2, 0, 0}}),
              received);

    ASSERT_GT(sendFiles({big}), 0);  // renamed, since the receive option asks for it
    runTasks();
    EXPECT_EQ(readFile(big), readFile(inbox + "/big (1).bin"));
}

TEST_F(FileSendTest, PauseResumeAndCancelObeyTheirOwnerAndCancelRemovesThePartialFile) {
    const int32_t task = sendFiles({big});
    run(Service::kFollowUpDelayMs);  // the first chunk
    EXPECT_EQ(RESULT_UNKNOWN_TASK, control(1, ACTION_PAUSE_SEND, task));  // only the sender pauses
    EXPECT_EQ(RESULT_OK, control(2, ACTION_PAUSE_SEND, task));
    host.take(1);
    run(5000);
    EXPECT_TRUE(host.take(2).empty());
    EXPECT_EQ(RESULT_OK, control(2, ACTION_RESUME_SEND, task));
    service->tick();
    const std::deque<SendFileStatusRes> resumed = only<SendFileStatusRes>(host.take(2), ACTION_SEND_FILE_STATUS);
    ASSERT_EQ(1u, resumed.size());
    EXPECT_EQ(2 * Service::kChunkBytes, resumed[0].ullCurrentSize);  // on from where it stood
    EXPECT_EQ(FILE_EVENT_RESUMED, only<ReceiveFileRes>(host.take(1), ACTION_RECEIVE_FILE).at(0).nEventType);

    EXPECT_EQ(RESULT_UNKNOWN_TASK, control(2, ACTION_CANCEL_RECEIVE, task));  // only the receiver
    EXPECT_EQ(RESULT_OK, control(1, ACTION_CANCEL_RECEIVE, task));
    EXPECT_EQ(0u, service->taskCount());
    EXPECT_NE(0, access((inbox + "/big.bin").c_str(), F_OK));

    // An app that leaves mid-transfer fails it for the other side.
    const int32_t second = sendFiles({big});
    run(Service::kFollowUpDelayMs);
    host.take(2);
    service->disconnect(1);
    const SendFileStatusRes failed = only<SendFileStatusRes>(host.take(2), ACTION_SEND_FILE_STATUS).at(0);
    EXPECT_EQ(std::make_tuple(FILE_EVENT_FAILED, RESULT_UNKNOWN_TARGET, second),
              std::make_tuple(failed.nEventType, failed.nStatus, failed.nTaskID));
}

// ---------------------------------------------------------------------------------------------
// Media

class MediaTest : public EmulatorTest {
protected:
    void SetUp() override {
        EmulatorTest::SetUp();
        join(1, "alice");
        Wire::CopyText(server.UUID, Service::kMediaServerUDN);
        server.type = DLNA_DEVICE_DMS;
        Wire::CopyText(renderer.UUID, Service::kRendererUDN);
        renderer.type = DLNA_DEVICE_DMR;
    }

    GetFileListRes list(int32_t command, const char* objectID, const DLNADevice& on) {
        GetFileListReq request(command);
        request.server = on;
        Wire::CopyText(request.folder.objectID, objectID);
        return reply<GetFileListRes>(1, request);
    }

    FileInfo item(const char* objectID) {
        FileInfo info;
        Wire::CopyText(info.objectID, objectID);
        Wire::CopyText(info.sourceDMSUDN, Service::kMediaServerUDN);
        return info;
    }

    DLNADevice server, renderer;
};

// Downloads and a folder's class are left to the end-to-end tests, whose pelk browse and download
// use them; an upload goes into a folder of the server, and takes files only.
TEST_F(MediaTest, BrowsingAndUploadsStayInsideTheFolderTree) {
    const GetFileListRes root = list(ACTION_GET_ROOT_FILE_LIST, "", server);
    ASSERT_EQ(2u, root.items.size());  // no hidden file, no link leading out
    EXPECT_STREQ("0", root.items[1].objectParentID);
    EXPECT_STREQ("object.item.audioItem.musicTrack",
                 list(ACTION_GET_CHILD_FILE_LIST, "Music", server).items.at(0).objectType);
    EXPECT_EQ(1u, list(ACTION_GET_PARENT_FILE_LIST, "Music/track.mp3", server).items.size());

    for (const char* escape : {"..", "../x", "/etc", "Music/../..", "escape", ".hidden", "Music//track.mp3"}) {
        EXPECT_EQ(RESULT_UNKNOWN_ITEM, list(ACTION_GET_CHILD_FILE_LIST, escape, server).nResult) << escape;
    }
    EXPECT_EQ(RESULT_NO_PARENT, list(ACTION_GET_PARENT_FILE_LIST, "0", server).nResult);
    DLNADevice stranger;
    Wire::CopyText(stranger.UUID, "uuid:nobody");
    EXPECT_EQ(RESULT_UNKNOWN_DEVICE, list(ACTION_GET_ROOT_FILE_LIST, "", stranger).nResult);

    CopyFileReq upload;
    upload.source = upload.destination = server;
    upload.items = {item("notes.txt")};
    Wire::CopyText(upload.destinationFolder.objectID, "Music");
    ASSERT_EQ(RESULT_OK, result<CopyFileRes>(1, upload));
    runTasks();
    EXPECT_EQ("notes", readFile(media.file("Music/notes.txt")));
    upload.items = {item("Music")};  // a folder is no file to copy
    EXPECT_EQ(RESULT_MISSING_FILE, result<CopyFileRes>(1, upload));

    GetParentDirectoryInfoReq parent;
    parent.item = item("Music/track.mp3");
    const GetParentDirectoryInfoRes info = reply<GetParentDirectoryInfoRes>(1, parent);
    EXPECT_EQ("Music in 0", std::string(info.parent.objectID) + " in " + info.parent.objectParentID);
}

TEST_F(MediaTest, PlaybackFindsTheRendererInEitherPositionAndReportsWrongStates) {
    PlaySelectedFileReq play;
    play.server = renderer;  // swapped, as app code may pass them
    play.renderer = server;
    play.items = {item("notes.txt"), item("Music/track.mp3")};
    play.nOption1 = 1;
    EXPECT_EQ(RESULT_OK, result<PlaySelectedFileRes>(1, play));
    EXPECT_NE(std::string::npos, host.logs.back().find("\"track.mp3\"")) << host.logs.back();
    play.nOption1 = 2;
    EXPECT_EQ(RESULT_BAD_REQUEST, result<PlaySelectedFileRes>(1, play));

    const std::pair<int32_t, int32_t> steps[] = {
        {ACTION_RESUME_PLAYING_FILE, RESULT_NOT_PLAYING}, {ACTION_PAUSE_PLAYING_FILE, RESULT_OK},
        {ACTION_PAUSE_PLAYING_FILE, RESULT_NOT_PLAYING},  {ACTION_RESUME_PLAYING_FILE, RESULT_OK},
        {ACTION_STOP_PLAYING_FILE, RESULT_OK},            {ACTION_RESUME_PLAYING_FILE, RESULT_NOT_PLAYING},
        {ACTION_PAUSE_PLAYING_FILE, RESULT_NOT_PLAYING},
    };
    for (const auto& step : steps) {
        FilePlayCtrlReq request(step.first);
        request.renderer = renderer;
        EXPECT_EQ(step.second, result<FilePlayCtrlRes>(1, request)) << step.first;
    }
}

TEST_F(MediaTest, AnAppsOwnServerIsADeviceForOthersWhileItRuns) {
    join(2, "bob");
    host.take(1);
    SetShareFolderReq share;
    share.SetFolderPath(media.file("Music").c_str());
    EXPECT_EQ(RESULT_OK, result<SetShareFolderRes>(2, share));
    EXPECT_EQ(RESULT_OK, result<DMSCtrlRes>(2, DMSCtrlReq(ACTION_START_DMS)));
    const std::deque<DMDeviceChangeRes> appeared = only<DMDeviceChangeRes>(host.take(1), ACTION_DM_DEVICE_CHANGE);
    ASSERT_EQ(1u, appeared.size());
    EXPECT_EQ(DEVICE_APPEARED, appeared[0].nChangeType);
    EXPECT_STREQ("bob media", appeared[0].device.name);

    const SearchDeviceRes servers = reply<SearchDeviceRes>(1, SearchDeviceReq(ACTION_SEARCH_DMS));
    ASSERT_EQ(2u, servers.devices.size());
    EXPECT_EQ(1u, list(ACTION_GET_ROOT_FILE_LIST, "", servers.devices[1]).items.size());

    RescanNetworkReq rescan;
    rescan.type = DLNA_DEVICE_ALL;
    ASSERT_TRUE(send(1, rescan));
    EXPECT_EQ(3u, only<DMDeviceChangeRes>(host.take(1), ACTION_DM_DEVICE_CHANGE).size());

    service->disconnect(2);
    const std::deque<DMDeviceChangeRes> left = only<DMDeviceChangeRes>(host.take(1), ACTION_DM_DEVICE_CHANGE);
    ASSERT_EQ(1u, left.size());
    EXPECT_EQ(DEVICE_LEFT, left[0].nChangeType);
}

TEST_F(EmulatorTest, TheTraceHasOneLinePerMessageInWireOrderWithNamedFields) {
    service->connect(1);
    RegisterReq request;
    request.SetAppName("al\"ice\n");
    request.fAppEvents = true;
    ASSERT_TRUE(send(1, request));
    ASSERT_EQ(3u, host.traces.size());
    EXPECT_EQ("<- c1 RegisterReq(1) nAppID=0 szAppName=\"al\\\"ice\\x0a\" fDeviceEvents=0 fAppEvents=1", host.traces[0]);
    EXPECT_EQ("-> c1 \"al\\\"ice\\x0a\"/1 RegisterRes(1) nAppID=1 nResult=0", host.traces[1]);
    EXPECT_NE(std::string::npos, host.traces[2].find("InterAppChangeRes(45)"));
}

}  // namespace
