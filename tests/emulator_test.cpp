#include "Service.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include "Paths.h"
#include "ServiceCodes.h"
#include "support/MessageGoldens.h"
#include "support/TempDir.h"

using namespace PELK;
using namespace PELK::Emulator;
using pelktest::pattern;
using pelktest::readFile;
using pelktest::B;
using pelktest::Bytes;

namespace {

// Records what the service sends, per client, with a clock that the test moves.
class Host : public ServiceHost {
public:
    void deliver(ClientId client, std::vector<char> frame) override {
        const uint32_t length = Wire::DecodeFixed32(reinterpret_cast<const unsigned char*>(frame.data()));
        EXPECT_EQ(frame.size(), length + 4u);
        m_frames[client].emplace_back(frame.begin() + 4, frame.end());
    }
    size_t backlog(ClientId) const override { return 0; }
    int64_t nowMs() const override { return now; }
    void log(const std::string& line) override { logs.push_back(line); }
    void trace(const std::string& line) override { traces.push_back(line); }

    // The bodies sent to client since the last take.
    std::vector<Bytes> take(ClientId client) {
        std::vector<Bytes> bodies;
        bodies.swap(m_frames[client]);
        return bodies;
    }

    int64_t now = 1000;
    std::vector<std::string> logs;
    std::vector<std::string> traces;

private:
    std::map<ClientId, std::vector<Bytes>> m_frames;
};

// File events are written 8 bytes shorter than their GetSize(), and read as such by the agent.
template <class Msg>
Msg decoded(const Bytes& body) {
    Msg message;
    message.FromBuffer(body.data(), static_cast<unsigned int>(body.size()) + Codec::UnwrittenTail<Msg>::value);
    return message;
}

// The bodies of one action ID, decoded.
template <class Msg>
std::vector<Msg> only(const std::vector<Bytes>& bodies, int32_t actionID) {
    std::vector<Msg> found;
    for (const Bytes& body : bodies) {
        if (pelktest::actionIdOf(body) == actionID) {
            found.push_back(decoded<Msg>(body));
        }
    }
    return found;
}

// Event 20 as the receiving app sees it (ReceiveDataRes owns its block and is not copyable).
struct Received {
    int32_t kind;
    InteractionApp sender;
    std::string data;
};
std::vector<Received> receivedData(const std::vector<Bytes>& bodies) {
    std::vector<Received> found;
    for (const Bytes& body : bodies) {
        if (pelktest::actionIdOf(body) == ACTION_RECEIVE_DATA) {
            ReceiveDataRes event;
            event.FromBuffer(body.data(), static_cast<unsigned int>(body.size()));
            found.push_back({event.nDataType, event.sender, std::string(event.data.pData, event.data.nLength)});
        }
    }
    return found;
}

InteractionApp addressOf(int32_t appID) {
    InteractionApp app;
    app.nAppID = appID;
    return app;
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
        service.reset(new Service(config, host));
        std::string error;
        ASSERT_TRUE(service->start(error)) << error;
    }

    bool send(ClientId client, const ReqResBase& request) {
        const Bytes body = pelktest::Encode(request);
        return service->receive(client, reinterpret_cast<const char*>(body.data()), static_cast<uint32_t>(body.size()));
    }

    // Connects and registers; returns the app ID. Events sent so far are dropped.
    int32_t join(ClientId client, const char* name, int32_t number = 7, bool events = true) {
        service->connect(client);
        RegisterReq request;
        request.SetAppName(name);
        request.nAppID = number;
        request.fAppEvents = events;
        request.fDeviceEvents = events;
        EXPECT_TRUE(send(client, request));
        const std::vector<RegisterRes> replies = only<RegisterRes>(host.take(client), ACTION_REGISTER);
        EXPECT_EQ(1u, replies.size());
        return replies.empty() || replies[0].nResult != RESULT_OK ? -1 : replies[0].nAppID;
    }

    void receiveInto(ClientId client, const std::string& folder, int32_t percent = 1) {
        SetReceiveOptionReq option;
        option.SetDirectory(folder.c_str());
        option.percent = percent;
        ASSERT_EQ(RESULT_OK, result<SetReceiveOptionRes>(client, option));
    }

    // Sends request and returns the result of its reply.
    template <class Res>
    int32_t result(ClientId client, const ReqResBase& request) {
        EXPECT_TRUE(send(client, request));
        return result<Res>(client);
    }

    // The result of the reply among what was sent to client since the last take.
    template <class Res>
    int32_t result(ClientId client) {
        for (const Bytes& body : host.take(client)) {
            if (!IsEventActionID(pelktest::actionIdOf(body))) {
                return decoded<Res>(body).nResult;
            }
        }
        ADD_FAILURE() << "no reply";
        return -1;
    }

    // Moves the clock until no transfer runs.
    void runTasks() {
        for (int i = 0; i < 10000 && service->taskCount() > 0; ++i) {
            host.now += 200;
            service->tick();
        }
        ASSERT_EQ(0u, service->taskCount());
    }

    pelktest::TempDir media;
    pelktest::TempDir files;
    ServiceConfig config;
    Host host;
    std::unique_ptr<Service> service;
};

// ---------------------------------------------------------------------------------------------
// Requests against the message classes' golden bodies

TEST_F(EmulatorTest, EveryGoldenRequestIsReadWholeAndAnsweredUnderItsOwnID) {
    join(1, "golden");
    for (const pelktest::Golden& golden : pelktest::Goldens()) {
        const std::string name = golden.name;
        if (name.compare(name.size() - 3, 3, "Req") != 0) {
            continue;
        }
        SCOPED_TRACE(name);
        const Bytes& body = golden.body;
        Bytes longer = body;
        longer.push_back(0);
        for (const Bytes& wrong : {Bytes(body.begin(), body.end() - 1), longer}) {
            service->connect(2);
            EXPECT_FALSE(service->receive(2, reinterpret_cast<const char*>(wrong.data()), static_cast<uint32_t>(wrong.size())));
            service->disconnect(2);
        }
        ASSERT_TRUE(service->receive(1, reinterpret_cast<const char*>(body.data()), static_cast<uint32_t>(body.size())));
        const std::vector<Bytes> sent = host.take(1);
        if (pelktest::actionIdOf(body) == ACTION_ASYN_SEND_DATA) {  // no reply; the status it asked for
            ASSERT_EQ(1u, sent.size());
            EXPECT_EQ(DATA_EVENT_FAILED, decoded<SendTCPDataStatusRes>(sent[0]).nEventType);
        } else {
            ASSERT_FALSE(sent.empty());
            EXPECT_EQ(pelktest::actionIdOf(body), pelktest::actionIdOf(sent[0]));
        }
    }
}

TEST_F(EmulatorTest, RequestsBeforeRegistrationAreRefusedAndOtherIDsEndTheConnection) {
    service->connect(1);
    EXPECT_EQ(RESULT_NOT_REGISTERED, result<SearchAppRes>(1, SearchAppReq()));
    // Events, the link's own 46, and IDs the protocol does not have are no requests.
    for (int32_t id : {ACTION_RECEIVE_DATA, ACTION_SERVER_DISCONNECTED, 99}) {
        const Bytes body = B().i32(id).i32(0).v;
        EXPECT_FALSE(service->receive(1, reinterpret_cast<const char*>(body.data()), 8));
    }
}

TEST(FrameReaderTest, CutsFramesAndRefusesLengthsWithoutAnActionIDOrBeyondTheLimit) {
    FrameReader reader;
    const Bytes two = B().i32(8).i32(44).i32(1).i32(4).i32(2).v;
    const char* body = nullptr;
    uint32_t length = 0;
    reader.append(reinterpret_cast<const char*>(two.data()), 15);
    ASSERT_EQ(FrameReader::FRAME, reader.next(body, length));
    EXPECT_EQ(8u, length);
    EXPECT_EQ(44, static_cast<int32_t>(Wire::DecodeFixed32(reinterpret_cast<const unsigned char*>(body))));
    EXPECT_EQ(FrameReader::NEED_MORE, reader.next(body, length));
    reader.append(reinterpret_cast<const char*>(two.data()) + 15, 5);
    ASSERT_EQ(FrameReader::FRAME, reader.next(body, length));
    EXPECT_EQ(4u, length);
    for (uint32_t bad : {3u, Service::kMaxBody + 1, 0xFFFFFFFFu}) {
        FrameReader fresh;
        const Bytes frame = B().i32(bad).v;
        fresh.append(reinterpret_cast<const char*>(frame.data()), 4);
        EXPECT_EQ(FrameReader::MALFORMED, fresh.next(body, length));
    }
}

// ---------------------------------------------------------------------------------------------
// Apps

TEST_F(EmulatorTest, AppEventsMarkOnlyTheRecipientsOwnRecordLocalAndGoToAppsThatAskedForThem) {
    ASSERT_EQ(1, join(1, "alice", 7));
    service->connect(2);
    RegisterReq bob;
    bob.SetAppName("bob");
    bob.nAppID = 8;
    bob.fAppEvents = true;
    ASSERT_TRUE(send(2, bob));
    auto event = [](int32_t change, const char* name, int id, int number, int local) {
        return B().i32(ACTION_INTER_APP_CHANGE).i32(1).i32(change).str(name, 260).i32(id).i32(number)
            .str("127.0.0.1", 16).str(Service::kDeviceMac, 18).u8(local).u8(0).v;
    };
    EXPECT_EQ((std::vector<Bytes>{B().i32(ACTION_REGISTER).i32(2).i32(0).v, event(APP_APPEARED, "bob", 2, 8, 1),
                                  event(APP_APPEARED, "alice", 1, 7, 0)}),
              host.take(2));
    EXPECT_EQ((std::vector<Bytes>{event(APP_APPEARED, "bob", 2, 8, 0)}), host.take(1));

    const std::vector<SearchAppRes> search = (send(1, SearchAppReq()), only<SearchAppRes>(host.take(1), ACTION_SEARCH_APP));
    ASSERT_EQ(2u, search.at(0).apps.size());
    EXPECT_EQ(1, search[0].apps[0].fLocalDevice);
    EXPECT_EQ(0, search[0].apps[1].fLocalDevice);

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

// ---------------------------------------------------------------------------------------------
// Data

TEST_F(EmulatorTest, DataReachesItsTargetWithTheSendersRecordAndUnknownTargetsAreRefused) {
    join(1, "alice");
    join(2, "bob", 8);
    host.take(1);
    SendDataReq request;
    request.app = addressOf(1);
    request.data.Set("hello", 5);
    ASSERT_TRUE(send(2, request));
    EXPECT_EQ(B().i32(ACTION_SEND_DATA).i32(0).v, host.take(2).at(0));
    const Bytes delivered = host.take(1).at(0);
    EXPECT_EQ(B().i32(ACTION_RECEIVE_DATA).i32(1).i32(DATA_KIND_TCP).v, Bytes(delivered.begin(), delivered.begin() + 12));
    const Received data = receivedData({delivered}).at(0);
    EXPECT_EQ("hello", data.data);
    EXPECT_STREQ("bob", data.sender.szAppName);
    EXPECT_EQ(2, data.sender.nAppID);

    request.app = addressOf(9);
    EXPECT_EQ(RESULT_UNKNOWN_TARGET, result<SendDataRes>(2, request));
    request.app = addressOf(1);
    request.app.SetIPv4("10.0.0.1");  // app 1 lives on this device only
    EXPECT_EQ(RESULT_UNKNOWN_TARGET, result<SendDataRes>(2, request));
    EXPECT_TRUE(host.take(1).empty());
}

// The agent finds a status callback by the target's address field (all 16 bytes for UDP) and
// the low byte of its app ID in the tag; it files a UDP callback only after the reply.
TEST_F(EmulatorTest, SendStatusEventsCarryTheTargetFieldWholeAndFollowTheReply) {
    join(1, "alice");
    join(2, "bob");
    host.take(1);
    SendUDPDataReq udp;
    udp.app = addressOf(1);
    udp.app.szIPv4[14] = 'x';  // a byte behind the terminator
    udp.fFlag = true;
    udp.data.Set("u", 1);
    ASSERT_TRUE(send(2, udp));
    EXPECT_EQ(1u, host.take(2).size());  // the reply alone
    host.now += Service::kFollowUpDelayMs;
    service->tick();
    const std::vector<SendUDPDataStatusRes> status = only<SendUDPDataStatusRes>(host.take(2), ACTION_SEND_UDP_DATA_STATUS);
    ASSERT_EQ(1u, status.size());
    EXPECT_EQ(0, memcmp(udp.app.szIPv4, status[0].szIPv4, 16));
    EXPECT_EQ(1, status[0].sendTag.byRemoteAppID);
    EXPECT_EQ(2, status[0].sendTag.byLocalAppID);
    EXPECT_EQ(DATA_EVENT_DELIVERED, status[0].nEventType);

    AsynSendDataReq tcp;
    tcp.app = addressOf(300);  // unknown; its low byte still comes back
    tcp.fWantStatus = true;
    tcp.data.Set("t", 1);
    ASSERT_TRUE(send(2, tcp));
    const std::vector<SendTCPDataStatusRes> failed = only<SendTCPDataStatusRes>(host.take(2), ACTION_SEND_TCP_DATA_STATUS);
    ASSERT_EQ(1u, failed.size());
    EXPECT_EQ(2, failed[0].nStatus);  // bob's second send with a status
    EXPECT_EQ(DATA_EVENT_FAILED, failed[0].nEventType);
    EXPECT_EQ(300 & 0xFF, failed[0].sendTag.byRemoteAppID);
}

TEST_F(EmulatorTest, LargePayloadPiecesAndBroadcastsAreRelayedAsTheirKinds) {
    join(1, "alice");
    join(2, "bob");
    join(3, "carol");
    host.take(1);
    host.take(2);
    for (int32_t sequence : {0, 1, -2}) {
        SendUDPHugeDataReq piece;
        piece.app = addressOf(1);
        const Bytes payload = B().i32(77).i32(sequence).str("part", 4).v;
        piece.data.Set(payload.data(), static_cast<unsigned int>(payload.size()));
        EXPECT_EQ(RESULT_OK, result<SendUDPHugeDataRes>(3, piece));
    }
    const std::vector<Received> pieces = receivedData(host.take(1));
    ASSERT_EQ(3u, pieces.size());
    for (size_t i = 0; i < pieces.size(); ++i) {
        EXPECT_EQ(DATA_KIND_HUGE_PIECE, pieces[i].kind);
        const Bytes payload(pieces[i].data.begin(), pieces[i].data.end());
        EXPECT_EQ(B().i32(77).i32(i == 2 ? -2 : static_cast<int32_t>(i)).str("part", 4).v, payload);
    }
    BroadcastReq broadcast;
    broadcast.app.SetIPv4("0.0.0.0");
    broadcast.data.Set("all", 3);
    ASSERT_TRUE(send(3, broadcast));
    EXPECT_EQ((std::vector<Bytes>{B().i32(ACTION_BROADCAST).i32(RESULT_OK).v}), host.take(3));  // no data to itself
    for (ClientId other : {1, 2}) {
        const std::vector<Received> got = receivedData(host.take(other));
        ASSERT_EQ(1u, got.size());
        EXPECT_EQ(DATA_KIND_BROADCAST, got[0].kind);
    }
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
        receiveInto(1, inbox, 10);
        big = files.write("big.bin", pattern(3 * Service::kChunkBytes + 100, 7));
        empty = files.write("empty.txt", "");
        host.take(1);
    }

    int32_t sendFiles(const std::vector<std::string>& paths, int32_t target = 1) {
        SendFileReq request;
        for (const std::string& path : paths) {
            request.files.emplace_back(path.c_str());
        }
        request.app = addressOf(target);
        request.sendTag.byLocalAppID = 2;
        request.sendTag.byRemoteAppID = static_cast<uint8_t>(target);
        EXPECT_TRUE(send(2, request));
        const SendFileRes reply = decoded<SendFileRes>(host.take(2).at(0));
        return reply.nResult == RESULT_OK ? reply.nTaskID : -reply.nResult;
    }

    int32_t control(ClientId client, int32_t command, int32_t taskID) {
        FileTransferCtrlReq request(command);
        request.nTaskID = taskID;
        return result<FileTransferCtrlRes>(client, request);
    }

    std::string inbox = files.file("inbox");
    std::string big;
    std::string empty;
};

TEST_F(FileSendTest, FilesArriveWholeWithProgressToBothSidesEndingAtTheTotal) {
    receiveInto(1, inbox, 34);
    const int32_t task = sendFiles({big, empty});
    ASSERT_GT(task, 0);
    runTasks();
    const std::vector<Bytes> toSender = host.take(2);
    const std::vector<Bytes> toReceiver = host.take(1);
    for (const Bytes& event : toSender) {
        EXPECT_EQ(task, static_cast<int32_t>(Wire::DecodeFixed32(event.data() + 36)));
    }
    const std::vector<SendFileStatusRes> sent = only<SendFileStatusRes>(toSender, ACTION_SEND_FILE_STATUS);
    ASSERT_GE(sent.size(), 6u);  // four chunks of the big file, its end, the empty file, the list's end
    uint64_t before = 0;
    for (const SendFileStatusRes& event : sent) {
        const uint64_t done = (event.nCurrentCount == 2 ? event.ullListTotalSize : 0) + event.ullCurrentSize;
        EXPECT_GE(done, before);
        before = done;
        EXPECT_EQ(2, event.nTotalCount);
        EXPECT_STREQ("alice", event.receiver.szAppName);
    }
    EXPECT_EQ(FILE_EVENT_LIST_DONE, sent.back().nEventType);
    EXPECT_EQ(readFile(big).size(), sent.back().ullListTotalSize);
    const std::vector<ReceiveFileRes> received = only<ReceiveFileRes>(toReceiver, ACTION_RECEIVE_FILE);
    ASSERT_FALSE(received.empty());
    EXPECT_EQ(FILE_EVENT_LIST_DONE, received.back().nEventType);
    EXPECT_STREQ("bob", received.back().sender.szAppName);
    std::vector<uint64_t> progress;  // at 33 % and 99 %: steps of at least the receiver's 34 %
    for (const ReceiveFileRes& event : received) {
        if (event.nEventType == FILE_EVENT_PROGRESS) {
            progress.push_back(event.ullCurrentSize);
        }
    }
    EXPECT_EQ((std::vector<uint64_t>{Service::kChunkBytes, 3 * Service::kChunkBytes}), progress);
    EXPECT_EQ(readFile(big), readFile(inbox + "/big.bin"));
    EXPECT_EQ(0, access((inbox + "/empty.txt").c_str(), F_OK));

    ASSERT_GT(sendFiles({big}), 0);  // renamed, since the receive option asks for it
    runTasks();
    EXPECT_EQ(readFile(big), readFile(inbox + "/big (1).bin"));
}

TEST_F(FileSendTest, RefusalsNameTheirCause) {
    EXPECT_EQ(-RESULT_UNKNOWN_TARGET, sendFiles({big}, 7));
    EXPECT_EQ(-RESULT_MISSING_FILE, sendFiles({files.file("absent")}));
    EXPECT_EQ(-RESULT_MISSING_FILE, sendFiles({files.path()}));
    EXPECT_EQ(-RESULT_NO_RECEIVE_FOLDER, sendFiles({big}, 2));
    SetReceiveOptionReq option;
    option.SetDirectory(files.file("absent").c_str());
    EXPECT_EQ(RESULT_BAD_FOLDER, result<SetReceiveOptionRes>(2, option));
    EXPECT_EQ(0u, service->taskCount());
}

TEST_F(FileSendTest, PauseResumeAndCancelObeyTheirOwnerAndCancelRemovesThePartialFile) {
    const int32_t task = sendFiles({big});
    host.now += Service::kFollowUpDelayMs;
    service->tick();  // the first chunk
    EXPECT_EQ(RESULT_UNKNOWN_TASK, control(1, ACTION_PAUSE_SEND, task));  // only the sender pauses
    EXPECT_EQ(RESULT_UNKNOWN_TASK, control(2, ACTION_PAUSE_SEND, task + 1));
    EXPECT_EQ(RESULT_OK, control(2, ACTION_PAUSE_SEND, task));
    host.take(1);
    for (int i = 0; i < 5; ++i) {
        host.now += 1000;
        service->tick();
    }
    EXPECT_TRUE(host.take(2).empty());
    EXPECT_EQ(RESULT_OK, control(2, ACTION_RESUME_SEND, task));
    service->tick();
    const std::vector<SendFileStatusRes> resumed = only<SendFileStatusRes>(host.take(2), ACTION_SEND_FILE_STATUS);
    ASSERT_EQ(1u, resumed.size());
    EXPECT_EQ(2 * Service::kChunkBytes, resumed[0].ullCurrentSize);  // on from where it stood
    const std::vector<ReceiveFileRes> told = only<ReceiveFileRes>(host.take(1), ACTION_RECEIVE_FILE);
    ASSERT_EQ(2u, told.size());
    EXPECT_EQ(FILE_EVENT_RESUMED, told[0].nEventType);

    EXPECT_EQ(RESULT_UNKNOWN_TASK, control(2, ACTION_CANCEL_RECEIVE, task));  // only the receiver
    host.take(1);
    EXPECT_EQ(RESULT_OK, control(1, ACTION_CANCEL_RECEIVE, task));
    EXPECT_EQ(FILE_EVENT_CANCELLED, only<SendFileStatusRes>(host.take(2), ACTION_SEND_FILE_STATUS).at(0).nEventType);
    EXPECT_EQ(0u, service->taskCount());
    EXPECT_NE(0, access((inbox + "/big.bin").c_str(), F_OK));
}

TEST_F(FileSendTest, AnAppLeavingMidTransferFailsItForTheOtherSide) {
    const int32_t task = sendFiles({big});
    host.now += Service::kFollowUpDelayMs;
    service->tick();
    host.take(2);
    service->disconnect(1);
    const std::vector<SendFileStatusRes> events = only<SendFileStatusRes>(host.take(2), ACTION_SEND_FILE_STATUS);
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(FILE_EVENT_FAILED, events[0].nEventType);
    EXPECT_EQ(RESULT_UNKNOWN_TARGET, events[0].nStatus);
    EXPECT_EQ(task, events[0].nTaskID);
    EXPECT_NE(0, access((inbox + "/big.bin").c_str(), F_OK));
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
        EXPECT_TRUE(send(1, request));
        return decoded<GetFileListRes>(host.take(1).at(0));
    }

    FileInfo item(const char* objectID) {
        FileInfo info;
        Wire::CopyText(info.objectID, objectID);
        Wire::CopyText(info.sourceDMSUDN, Service::kMediaServerUDN);
        return info;
    }

    DLNADevice server;
    DLNADevice renderer;
};

TEST_F(MediaTest, BrowsingWalksTheFolderTreeAndNeverLeavesIt) {
    const GetFileListRes root = list(ACTION_GET_ROOT_FILE_LIST, "", server);
    ASSERT_EQ(RESULT_OK, root.nResult);
    ASSERT_EQ(2u, root.items.size());  // no hidden file, no link leading out
    EXPECT_STREQ("Music", root.items[0].objectID);
    EXPECT_STREQ("object.container.storageFolder", root.items[0].objectType);
    EXPECT_STREQ("notes.txt", root.items[1].objectTitle);
    EXPECT_STREQ("0", root.items[1].objectParentID);

    const GetFileListRes music = list(ACTION_GET_CHILD_FILE_LIST, "Music", server);
    ASSERT_EQ(1u, music.items.size());
    EXPECT_STREQ("Music/track.mp3", music.items[0].objectID);
    EXPECT_STREQ("object.item.audioItem.musicTrack", music.items[0].objectType);
    EXPECT_EQ(1u, list(ACTION_GET_PARENT_FILE_LIST, "Music/track.mp3", server).items.size());
    EXPECT_EQ(2u, list(ACTION_GET_PARENT_FILE_LIST, "Music", server).items.size());

    for (const char* escape : {"..", "../x", "/etc", "Music/../..", "escape", ".hidden", "Music//track.mp3"}) {
        SCOPED_TRACE(escape);
        EXPECT_EQ(RESULT_UNKNOWN_ITEM, list(ACTION_GET_CHILD_FILE_LIST, escape, server).nResult);
    }
    EXPECT_EQ(RESULT_NO_PARENT, list(ACTION_GET_PARENT_FILE_LIST, "0", server).nResult);
    DLNADevice stranger;
    Wire::CopyText(stranger.UUID, "uuid:nobody");
    EXPECT_EQ(RESULT_UNKNOWN_DEVICE, list(ACTION_GET_ROOT_FILE_LIST, "", stranger).nResult);

    GetParentDirectoryInfoReq parent;
    parent.item = item("Music/track.mp3");
    ASSERT_TRUE(send(1, parent));
    const GetParentDirectoryInfoRes info = decoded<GetParentDirectoryInfoRes>(host.take(1).at(0));
    EXPECT_EQ(RESULT_OK, info.nResult);
    EXPECT_STREQ("Music", info.parent.objectID);
    EXPECT_STREQ("0", info.parent.objectParentID);
}

TEST_F(MediaTest, DownloadsGoToTheReceiveFolderAndUploadsIntoAServerFolder) {
    const std::string inbox = files.path();
    receiveInto(1, inbox);
    CopyFileReq download;
    download.actionID = ACTION_DOWNLOAD_FILE;
    download.source = server;
    download.items = {item("Music/track.mp3"), item("notes.txt")};
    ASSERT_TRUE(send(1, download));
    const CopyFileRes reply = decoded<CopyFileRes>(host.take(1).at(0));
    ASSERT_EQ(RESULT_OK, reply.nResult);
    EXPECT_EQ(ACTION_DOWNLOAD_FILE, reply.actionID);
    runTasks();
    const std::vector<DMFileCopyRes> progress = only<DMFileCopyRes>(host.take(1), ACTION_DM_FILE_COPY);
    ASSERT_FALSE(progress.empty());
    EXPECT_EQ(FILE_EVENT_LIST_DONE, progress.back().nEventType);
    EXPECT_EQ(reply.nTaskID, progress.back().nTaskID);
    EXPECT_STREQ(Service::kMediaServerUDN, progress.back().otherSide.UUID);
    EXPECT_EQ(readFile(media.file("Music/track.mp3")), readFile(inbox + "/track.mp3"));

    CopyFileReq upload;
    upload.source = server;
    upload.destination = server;
    upload.items = {item("notes.txt")};
    Wire::CopyText(upload.destinationFolder.objectID, "Music");
    ASSERT_TRUE(send(1, upload));
    ASSERT_EQ(RESULT_OK, decoded<CopyFileRes>(host.take(1).at(0)).nResult);
    runTasks();
    EXPECT_EQ("notes", readFile(media.file("Music/notes.txt")));

    upload.items = {item("Music")};  // a folder is no file to copy
    EXPECT_EQ(RESULT_MISSING_FILE, result<CopyFileRes>(1, upload));
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

    auto control = [&](int32_t command, const DLNADevice& device) {
        FilePlayCtrlReq request(command);
        request.renderer = device;
        return result<FilePlayCtrlRes>(1, request);
    };
    EXPECT_EQ(RESULT_NOT_PLAYING, control(ACTION_RESUME_PLAYING_FILE, renderer));
    EXPECT_EQ(RESULT_OK, control(ACTION_PAUSE_PLAYING_FILE, renderer));
    EXPECT_EQ(RESULT_OK, control(ACTION_STOP_PLAYING_FILE, renderer));
    EXPECT_EQ(RESULT_NOT_PLAYING, control(ACTION_PAUSE_PLAYING_FILE, renderer));
    EXPECT_EQ(RESULT_UNKNOWN_DEVICE, control(ACTION_STOP_PLAYING_FILE, server));
}

TEST_F(MediaTest, AnAppsOwnServerIsADeviceForOthersWhileItRuns) {
    join(2, "bob");
    host.take(1);
    SetShareFolderReq share;
    share.SetFolderPath(media.file("Music").c_str());
    EXPECT_EQ(RESULT_OK, result<SetShareFolderRes>(2, share));
    EXPECT_EQ(RESULT_OK, result<DMSCtrlRes>(2, DMSCtrlReq(ACTION_START_DMS)));
    const std::vector<DMDeviceChangeRes> appeared = only<DMDeviceChangeRes>(host.take(1), ACTION_DM_DEVICE_CHANGE);
    ASSERT_EQ(1u, appeared.size());
    EXPECT_EQ(DEVICE_APPEARED, appeared[0].nChangeType);
    EXPECT_STREQ("bob media", appeared[0].device.name);

    ASSERT_TRUE(send(1, SearchDeviceReq(ACTION_SEARCH_DMS)));
    const SearchDeviceRes servers = decoded<SearchDeviceRes>(host.take(1).at(0));
    ASSERT_EQ(2u, servers.devices.size());
    EXPECT_EQ(1u, list(ACTION_GET_ROOT_FILE_LIST, "", servers.devices[1]).items.size());

    RescanNetworkReq rescan;
    rescan.type = DLNA_DEVICE_ALL;
    ASSERT_TRUE(send(1, rescan));
    EXPECT_EQ(3u, only<DMDeviceChangeRes>(host.take(1), ACTION_DM_DEVICE_CHANGE).size());

    service->disconnect(2);
    const std::vector<DMDeviceChangeRes> left = only<DMDeviceChangeRes>(host.take(1), ACTION_DM_DEVICE_CHANGE);
    ASSERT_EQ(1u, left.size());
    EXPECT_EQ(DEVICE_LEFT, left[0].nChangeType);
}

// ---------------------------------------------------------------------------------------------
// Trace

TEST(EmulatorTraceTest, OneLinePerMessageInWireOrderWithNamedFields) {
    Host host;
    ServiceConfig config;
    config.fTrace = true;
    Service service(config, host);
    service.connect(1);
    RegisterReq request;
    request.SetAppName("al\"ice\n");
    request.fAppEvents = true;
    const Bytes body = pelktest::Encode(request);
    ASSERT_TRUE(service.receive(1, reinterpret_cast<const char*>(body.data()), static_cast<uint32_t>(body.size())));
    ASSERT_EQ(3u, host.traces.size());
    EXPECT_EQ("<- c1 RegisterReq(1) nAppID=0 szAppName=\"al\\\"ice\\x0a\" fDeviceEvents=0 fAppEvents=1", host.traces[0]);
    EXPECT_EQ("-> c1 \"al\\\"ice\\x0a\"/1 RegisterRes(1) nAppID=1 nResult=0", host.traces[1]);
    EXPECT_NE(std::string::npos, host.traces[2].find("InterAppChangeRes(45)"));
}

}  // namespace
