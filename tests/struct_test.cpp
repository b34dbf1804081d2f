#include "ActionManager/Struct.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/MessageGoldens.h"

using namespace PELK;
using namespace pelktest;

namespace {

TEST(StructTest, EveryMessageEncodesToItsOffsetTable) {
    for (const Golden& c : Goldens()) {
        SCOPED_TRACE(c.name);
        const Msg m = c.make();
        EXPECT_EQ(c.body, Encode(*m));
        // Decoders refuse bodies shorter than GetSize(); the file events report 8 bytes they never write.
        const std::string name = c.name;
        const bool fileEvent = name == "SendFileStatusRes" || name == "ReceiveFileRes" || name == "DMFileCopyRes";
        EXPECT_EQ(c.body.size() + (fileEvent ? 8 : 0), m->GetSize());
        EXPECT_EQ(m->GetSize(), m->GetBuffer(nullptr));
    }
}

// Decoding the hand-built body must give the filled object's fields: both encode to that body,
// and every field is encoded. A body short of GetSize(), or none, changes nothing, and a reply
// left unread says it failed (result 1).
TEST(StructTest, EveryMessageDecodesItsFieldsAndIgnoresShortOrNullBodies) {
    for (const Golden& c : Goldens()) {
        SCOPED_TRACE(c.name);
        const Msg m = c.fresh();
        const Bytes before = Encode(*m);
        const std::string name = c.name;
        if (name.compare(name.size() - 3, 3, "Res") == 0 && before.size() <= 12) {
            EXPECT_EQ(B().i32(1).v, Bytes(before.end() - 4, before.end()));
        }
        Decode(*m, c.body, m->GetSize() - 1);
        m->FromBuffer(nullptr, 0xFFFFFFFFu);
        EXPECT_EQ(before, Encode(*m));
        Decode(*m, c.body, 0xFFFFFFFFu);  // the agent's way: the frame's length is trusted
        EXPECT_EQ(c.body, Encode(*m));
    }
    ReceiveDataRes data;
    Decode(data, B().i32(20).i32(1).i32(7).app(1).i32(3).str("xyz", 3).v, 323);
    ASSERT_EQ(3, data.data.nLength);
    EXPECT_EQ("xyz", std::string(data.data.pData, 3));
    EXPECT_STREQ("10.0.0.1", data.sender.szIPv4);
}

// ---------------------------------------------------------------------------------------------

// The messages whose size grows with a count or a length: what their decoders must not trust.
struct GrownRow {
    const char* name;
    std::function<Msg(int n)> make;  // with n list elements or data bytes
    int countAt;                     // offset of the count or length
};

template <class T>
GrownRow Grown(const char* name, int countAt, void (*grow)(T&, int)) {
    return {name,
            [grow](int n) {
                auto m = std::make_unique<T>();
                grow(*m, n);
                return Msg(std::move(m));
            },
            countAt};
}
template <class T>
void GrowData(T& m, int n) {
    m.data.Set("abcdef", static_cast<unsigned int>(n));
}

std::vector<GrownRow> GrownTable() {
    return {
        Grown<SendFileReq>("SendFileReq", 4, [](SendFileReq& m, int n) { m.files.resize(n); }),
        Grown<BroadcastReq>("BroadcastReq", 309, GrowData<BroadcastReq>),
        Grown<GetLocalNetworkDeviceRes>("GetLocalNetworkDeviceRes", 68,
                                        [](GetLocalNetworkDeviceRes& m, int n) { m.device.networkCards.resize(n); }),
        Grown<SendDataReq>("SendDataReq", 313, GrowData<SendDataReq>),
        Grown<SearchDeviceRes>("SearchDeviceRes", 4, [](SearchDeviceRes& m, int n) { m.devices.resize(n); }),
        Grown<GetFileListRes>("GetFileListRes", 4, [](GetFileListRes& m, int n) { m.items.resize(n); }),
        Grown<PlaySelectedFileReq>("PlaySelectedFileReq", 1228,
                                   [](PlaySelectedFileReq& m, int n) { m.items.resize(n); }),
        Grown<CopyFileReq>("CopyFileReq", 1228, [](CopyFileReq& m, int n) { m.items.resize(n); }),
        Grown<SearchAppRes>("SearchAppRes", 4, [](SearchAppRes& m, int n) { m.apps.resize(n); }),
        Grown<SendUDPDataReq>("SendUDPDataReq", 309, GrowData<SendUDPDataReq>),
        Grown<SendUDPHugeDataReq>("SendUDPHugeDataReq", 308, GrowData<SendUDPHugeDataReq>),
        Grown<AsynSendDataReq>("AsynSendDataReq", 310, GrowData<AsynSendDataReq>),
        Grown<ReceiveDataRes>("ReceiveDataRes", 316, GrowData<ReceiveDataRes>),
    };
}

TEST(StructTest, DecodersRefuseTruncatedAndOverClaimingBodies) {
    for (const GrownRow& row : GrownTable()) {
        SCOPED_TRACE(row.name);
        const Bytes body = Encode(*row.make(3));
        const Msg fresh = row.make(0);
        const Bytes before = Encode(*fresh);
        const unsigned int size = fresh->GetSize();
        std::vector<Bytes> bad;
        for (size_t cut : {size_t(0), size_t(1), size_t(4), size_t(size / 2), size_t(size - 1), body.size() - 1}) {
            bad.emplace_back(body.begin(), body.begin() + std::min(cut, body.size()));
        }
        for (int64_t claim : {int64_t(4), int64_t(0x7FFFFFFF), int64_t(-1), int64_t(INT32_MIN)}) {
            Bytes b = body;
            const Bytes count = B().i32(claim).v;
            std::copy(count.begin(), count.end(), b.begin() + row.countAt);
            bad.push_back(b);
        }
        for (const Bytes& b : bad) {
            Decode(*fresh, b, static_cast<unsigned int>(b.size()));
            EXPECT_EQ(before, Encode(*fresh)) << "body of " << b.size() << " bytes";
        }
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
    SearchAppRes apps;
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

}  // namespace
