#include "ActionManager/Struct.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/LogCapture.h"
#include "support/MessageGoldens.h"

using namespace PELK;
using namespace pelktest;

namespace {

TEST(StructTest, EveryMessageEncodesToItsOffsetTable) {
    pelktest::LogCapture log;
    const std::vector<Golden> cases = Goldens();
    for (const Golden& c : cases) {
        SCOPED_TRACE(c.name);
        const Msg m = c.make();
        EXPECT_EQ(c.body, Encode(*m));
        EXPECT_EQ(m->GetSize(), m->GetBuffer(nullptr));
        EXPECT_EQ(1u, log.count(std::string(c.name) + " -> GetBuffer : buf == NULL!"));
    }
    EXPECT_EQ(cases.size(), log.count("D/GetBuffer("));
    EXPECT_EQ(cases.size(), log.count("<Struct.h>"));
}

// Decoding the hand-built body must give the filled object's fields: both encode to that body,
// and every field is encoded.
TEST(StructTest, EveryMessageDecodesItsFields) {
    for (const Golden& c : Goldens()) {
        SCOPED_TRACE(c.name);
        const Msg m = c.fresh();
        Decode(*m, c.body, 0xFFFFFFFFu);  // the agent's way: the frame's length is trusted
        EXPECT_EQ(c.body, Encode(*m));
    }
    ReceiveDataRes data;
    Decode(data, B().i32(20).i32(1).i32(7).app(1).i32(3).str("xyz", 3).v, 323);
    ASSERT_EQ(3, data.data.nLength);
    EXPECT_EQ("xyz", std::string(data.data.pData, 3));
    EXPECT_STREQ("10.0.0.1", data.sender.szIPv4);
}

TEST(StructTest, ShortOrNullBodiesChangeNothingAndAreLogged) {
    pelktest::LogCapture log;
    for (const Golden& c : Goldens()) {
        SCOPED_TRACE(c.name);
        const Msg m = c.fresh();
        const Bytes before = Encode(*m);
        const unsigned int size = m->GetSize();
        Decode(*m, c.body, size - 1);
        m->FromBuffer(nullptr, 0xFFFFFFFFu);
        EXPECT_EQ(before, Encode(*m));
        EXPECT_EQ(1u,
                  log.count(std::string(c.name) + " : nBufferSize < this->GetSize()[" + std::to_string(size) + "]!"));
        EXPECT_EQ(1u, log.count(std::string(c.name) + " -> FromBuffer(): NULL == buf !"));
    }
    EXPECT_EQ(2 * Goldens().size(), log.count("D/FromBuffer("));
}

// ---------------------------------------------------------------------------------------------

struct SizeRow {
    const char* name;
    std::function<Msg(int n)> make;  // with n list elements or data bytes
    unsigned int base;
    unsigned int perItem;
    int countAt;  // offset of the count or length, -1 when fixed
};

template <class T>
SizeRow Fixed(const char* name, unsigned int size) {
    return {name, [](int) { return Msg(std::make_unique<T>()); }, size, 0, -1};
}
template <class T>
SizeRow Grown(const char* name, unsigned int base, unsigned int per, int countAt, void (*grow)(T&, int)) {
    return {name,
            [grow](int n) {
                auto m = std::make_unique<T>();
                grow(*m, n);
                return Msg(std::move(m));
            },
            base, per, countAt};
}
template <class T>
void GrowData(T& m, int n) {
    m.data.Set("abcdef", static_cast<unsigned int>(n));
}

std::vector<SizeRow> SizeTable() {
    return {
        Fixed<RegisterReq>("RegisterReq", 270), Fixed<RegisterRes>("RegisterRes", 12),
        Fixed<UnregisterReq>("UnregisterReq", 8), Fixed<UnregisterRes>("UnregisterRes", 8),
        Fixed<FileTransferCtrlReq>("FileTransferCtrlReq", 8), Fixed<FileTransferCtrlRes>("FileTransferCtrlRes", 12),
        Grown<SendFileReq>("SendFileReq", 324, 260, 4, [](SendFileReq& m, int n) { m.files.resize(n); }),
        Fixed<SendFileRes>("SendFileRes", 12),
        Fixed<SetReceiveOptionReq>("SetReceiveOptionReq", 271), Fixed<SetReceiveOptionRes>("SetReceiveOptionRes", 8),
        Grown<BroadcastReq>("BroadcastReq", 313, 1, 309, GrowData<BroadcastReq>),
        Fixed<BroadcastRes>("BroadcastRes", 8),
        Fixed<GetLocalNetworkDeviceReq>("GetLocalNetworkDeviceReq", 4),
        Grown<GetLocalNetworkDeviceRes>("GetLocalNetworkDeviceRes", 76, 50, 68,
                                        [](GetLocalNetworkDeviceRes& m, int n) { m.device.networkCards.resize(n); }),
        Grown<SendDataReq>("SendDataReq", 317, 1, 313, GrowData<SendDataReq>), Fixed<SendDataRes>("SendDataRes", 8),
        Fixed<SetShareFolderReq>("SetShareFolderReq", 264), Fixed<SetShareFolderRes>("SetShareFolderRes", 8),
        Fixed<SearchDeviceReq>("SearchDeviceReq", 4),
        Grown<SearchDeviceRes>("SearchDeviceRes", 12, 612, 4, [](SearchDeviceRes& m, int n) { m.devices.resize(n); }),
        Fixed<GetFileListReq>("GetFileListReq", 2460),
        Grown<GetFileListRes>("GetFileListRes", 12, 1844, 4, [](GetFileListRes& m, int n) { m.items.resize(n); }),
        Fixed<DMSCtrlReq>("DMSCtrlReq", 4), Fixed<DMSCtrlRes>("DMSCtrlRes", 8),
        Fixed<CopyTransferCtrlReq>("CopyTransferCtrlReq", 8), Fixed<CopyTransferCtrlRes>("CopyTransferCtrlRes", 8),
        Fixed<UpdateShareFolderReq>("UpdateShareFolderReq", 4), Fixed<UpdateShareFolderRes>("UpdateShareFolderRes", 8),
        Fixed<SetMyDMSNameReq>("SetMyDMSNameReq", 264), Fixed<SetMyDMSNameRes>("SetMyDMSNameRes", 8),
        Fixed<RescanNetworkReq>("RescanNetworkReq", 8), Fixed<RescanNetworkRes>("RescanNetworkRes", 8),
        Grown<PlaySelectedFileReq>("PlaySelectedFileReq", 1240, 1844, 1228,
                                   [](PlaySelectedFileReq& m, int n) { m.items.resize(n); }),
        Fixed<PlaySelectedFileRes>("PlaySelectedFileRes", 8),
        Fixed<FilePlayCtrlReq>("FilePlayCtrlReq", 616), Fixed<FilePlayCtrlRes>("FilePlayCtrlRes", 8),
        Grown<CopyFileReq>("CopyFileReq", 3076, 1844, 1228, [](CopyFileReq& m, int n) { m.items.resize(n); }),
        Fixed<CopyFileRes>("CopyFileRes", 12),
        Fixed<ContentListCacheCtrlReq>("ContentListCacheCtrlReq", 616),
        Fixed<ContentListCacheCtrlRes>("ContentListCacheCtrlRes", 8),
        Fixed<SearchAppReq>("SearchAppReq", 4),
        Grown<SearchAppRes>("SearchAppRes", 12, 304, 4, [](SearchAppRes& m, int n) { m.apps.resize(n); }),
        Fixed<GetParentDirectoryInfoReq>("GetParentDirectoryInfoReq", 1848),
        Fixed<GetParentDirectoryInfoRes>("GetParentDirectoryInfoRes", 1852),
        Grown<SendUDPDataReq>("SendUDPDataReq", 313, 1, 309, GrowData<SendUDPDataReq>),
        Fixed<SendUDPDataRes>("SendUDPDataRes", 8),
        Fixed<RefreshAppReq>("RefreshAppReq", 5), Fixed<RefreshAppRes>("RefreshAppRes", 8),
        Grown<SendUDPHugeDataReq>("SendUDPHugeDataReq", 312, 1, 308, GrowData<SendUDPHugeDataReq>),
        Fixed<SendUDPHugeDataRes>("SendUDPHugeDataRes", 8),
        Grown<AsynSendDataReq>("AsynSendDataReq", 314, 1, 310, GrowData<AsynSendDataReq>),
        Fixed<SendFileStatusRes>("SendFileStatusRes", 628), Fixed<ReceiveFileRes>("ReceiveFileRes", 628),
        Grown<ReceiveDataRes>("ReceiveDataRes", 320, 1, 316, GrowData<ReceiveDataRes>),
        Fixed<DMDeviceChangeRes>("DMDeviceChangeRes", 624), Fixed<DMFileCopyRes>("DMFileCopyRes", 936),
        Fixed<InterAppChangeRes>("InterAppChangeRes", 316),
        Fixed<SendUDPDataStatusRes>("SendUDPDataStatusRes", 40),
        Fixed<SendTCPDataStatusRes>("SendTCPDataStatusRes", 40),
    };
}

TEST(StructTest, SizesFollowTheActionTable) {
    for (const SizeRow& row : SizeTable()) {
        for (int n : {0, 3}) {
            SCOPED_TRACE(std::string(row.name) + " n=" + std::to_string(n));
            const Msg m = row.make(n);
            const unsigned int expected = row.base + (row.countAt < 0 ? 0 : row.perItem * n);
            EXPECT_EQ(expected, m->GetSize());
            // The file events write 8 bytes less than they report.
            const std::string name = row.name;
            const bool fileEvent = name == "SendFileStatusRes" || name == "ReceiveFileRes" || name == "DMFileCopyRes";
            Bytes buf(m->GetSize());
            EXPECT_EQ(fileEvent ? expected - 8 : expected, m->GetBuffer(buf.data()));
        }
    }
}

TEST(StructTest, DecodersRefuseTruncatedAndOverClaimingBodies) {
    pelktest::LogCapture log;
    for (const SizeRow& row : SizeTable()) {
        SCOPED_TRACE(row.name);
        const Bytes body = Encode(*row.make(3));
        const Msg fresh = row.make(0);
        const Bytes before = Encode(*fresh);
        const unsigned int size = fresh->GetSize();
        std::vector<Bytes> bad;
        for (size_t cut : {size_t(0), size_t(1), size_t(4), size_t(size / 2), size_t(size - 1), body.size() - 1}) {
            if (cut < size || row.countAt >= 0) {  // a whole fixed body is not bad
                bad.emplace_back(body.begin(), body.begin() + std::min(cut, body.size()));
            }
        }
        for (int64_t claim : {int64_t(4), int64_t(0x7FFFFFFF), int64_t(-1), int64_t(INT32_MIN)}) {
            if (row.countAt >= 0) {
                Bytes b = body;
                const Bytes count = B().i32(claim).v;
                std::copy(count.begin(), count.end(), b.begin() + row.countAt);
                bad.push_back(b);
            }
        }
        log.clear();
        for (const Bytes& b : bad) {
            Decode(*fresh, b, static_cast<unsigned int>(b.size()));
            EXPECT_EQ(before, Encode(*fresh)) << "body of " << b.size() << " bytes";
        }
        EXPECT_LE(5u, bad.size());
        EXPECT_EQ(bad.size(), log.count(std::string(row.name) + " : nBufferSize < this->GetSize()["));
        // The real body is taken whole when its length is trusted.
        Decode(*fresh, body, 0xFFFFFFFFu);
        EXPECT_EQ(body, Encode(*fresh));
    }
}

// ---------------------------------------------------------------------------------------------

TEST(StructTest, TextsAreCutToTheirFields) {
    const std::string name259(259, 'n');
    RegisterReq req;
    req.SetAppName(name259.c_str());
    RegisterReq back;
    Decode(back, Encode(req), 270);
    EXPECT_EQ(name259, back.szAppName);
    req.SetAppName((name259 + "XY").c_str());
    EXPECT_EQ(name259, req.szAppName);

    InteractionApp app;
    EXPECT_STREQ("127.0.0.1", app.szIPv4);
    app.SetIPv4("123.123.123.1234");
    EXPECT_STREQ("123.123.123.123", app.szIPv4);
    app.SetMacAddress("01:23:45:67:89:ab");
    EXPECT_STREQ("01:23:45:67:89:ab", app.szMacAddress);
    app.SetMacAddress("01:23:45:67:89:abc");
    EXPECT_STREQ("01:23:45:67:89:ab", app.szMacAddress);
    EXPECT_EQ(std::string(259, 'p'), FilePath(std::string(300, 'p').c_str()).szPath);
}

TEST(StructTest, ListRepliesPlaceTheResultBehindTheRecords) {
    pelktest::LogCapture log;
    SearchAppRes apps;
    Decode(apps, B().i32(44).i32(4).app(1).app(2).app(3).i32(0).v, 924);  // claims 4 records, holds 3
    EXPECT_EQ(1u, log.count("SearchAppRes : nBufferSize < this->GetSize()[1228]!"));
    Decode(apps, B().i32(44).i32(0).i32(0).v, 12);
    EXPECT_EQ(0, apps.nResult);
    EXPECT_TRUE(apps.apps.empty());
    // Records join what the caller's vector already holds (the agent trusts the frame's length).
    Decode(apps, B().i32(44).i32(2).app(1).app(2).i32(0).v, 0xFFFFFFFFu);
    Decode(apps, B().i32(44).i32(1).app(3).i32(0).v, 0xFFFFFFFFu);
    ASSERT_EQ(3u, apps.apps.size());
    EXPECT_EQ((std::vector<int32_t>{101, 102, 103}),
              (std::vector<int32_t>{apps.apps[0].nAppID, apps.apps[1].nAppID, apps.apps[2].nAppID}));
    SearchDeviceRes devices;
    devices.nResult = 7;
    EXPECT_EQ(B().i32(22).i32(0).i32(7).v, Encode(devices));
    GetFileListRes files;
    Decode(files, B().i32(24).i32(0).i32(0).v, 12);
    EXPECT_EQ(0, files.nResult);
    GetLocalNetworkDeviceRes local;
    Decode(local, B().i32(17).zeros(64).i32(0).i32(0).v, 76);
    EXPECT_EQ(0, local.nResult);
    EXPECT_TRUE(local.device.networkCards.empty());
}

TEST(StructTest, DefaultsMakeAnUnreadReplyAFailure) {
    EXPECT_EQ(1026, RegisterRes().nAppID);
    EXPECT_EQ(-1, FileTransferCtrlRes().nTaskID);
    EXPECT_EQ(-1, SendFileRes().nTaskID);
    for (const Golden& c : Goldens()) {  // every reply with a result starts at 1
        const Bytes fresh = Encode(*c.fresh());
        const std::string name = c.name;
        if (name.size() > 3 && name.compare(name.size() - 3, 3, "Res") == 0 && fresh.size() <= 12) {
            EXPECT_EQ(B().i32(1).v, Bytes(fresh.end() - 4, fresh.end())) << name;
        }
    }
    EXPECT_EQ(1, InterAppChangeRes().nStatus);
    EXPECT_EQ(1, ReceiveDataRes().nStatus);
}

}  // namespace
