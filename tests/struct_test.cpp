#include "ActionManager/Struct.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/LogCapture.h"

using namespace PELK;

namespace {

using Bytes = std::vector<unsigned char>;
using Msg = std::unique_ptr<ReqResBase>;

// Builds expected bodies straight from the offset tables, independently of the coders under test.
struct B {
    Bytes v;
    B& i32(int64_t x) {
        for (int i = 0; i < 4; ++i) v.push_back(static_cast<unsigned char>(static_cast<uint64_t>(x) >> (8 * i)));
        return *this;
    }
    B& i64(uint64_t x) { return i32(static_cast<uint32_t>(x)).i32(static_cast<uint32_t>(x >> 32)); }
    B& u8(int x) {
        v.push_back(static_cast<unsigned char>(x));
        return *this;
    }
    B& str(const std::string& s, size_t n) {
        for (size_t i = 0; i < n; ++i) v.push_back(i < s.size() ? s[i] : 0);
        return *this;
    }
    B& zeros(size_t n) { return str("", n); }
    // Records: InteractionApp 304, DLNADevice 612, FileInfo 1844, NetworkCard 50, send tag 8 bytes.
    B& app(int k) {
        const std::string s = std::to_string(k);
        str("app" + s, 260).i32(100 + k).i32(200 + k);
        return str("10.0.0." + s, 16).str("aa:bb:cc:dd:ee:0" + s, 18).u8(1).u8(0);
    }
    B& dev(int k) {
        const std::string s = std::to_string(k);
        return str("dev" + s, 260).i32(k % 3).str("uuid-" + s, 100).str("10.1.0." + s, 16).u8(1).u8(k).zeros(230);
    }
    B& file(int k) {
        const std::string s = std::to_string(k);
        str("udn" + s, 100).str("parent" + s, 100).str("id" + s, 100);
        return str("title" + s, 260).str("type" + s, 260).str("http://h/" + s, 1024);
    }
    B& card(int k) { return str("eth" + std::to_string(k), 16).str("10.2.0." + std::to_string(k), 16).str("mac", 18); }
    B& tag(int k) { return u8(k).u8(k + 1).u8(3).u8(0).i32(1000 + k); }
    // The 308-byte head of the file events.
    B& fileHead(int32_t id) {
        i32(id).i32(9).i64(0x100000002ull).i64(0x300000004ull).i64(0x500000006ull);
        return i32(1).i32(2).i32(3).i32(4).str("report.pdf", 260);
    }
};

// A record holding exactly the image that B writes for it (record layouts are pinned by the header).
template <class R>
R Rec(const Bytes& image) {
    R r;
    memcpy(static_cast<void*>(&r), image.data(), sizeof(R));
    return r;
}
InteractionApp App(int k) { return Rec<InteractionApp>(B().app(k).v); }
DLNADevice Dev(int k) { return Rec<DLNADevice>(B().dev(k).v); }
FileInfo File(int k) { return Rec<FileInfo>(B().file(k).v); }
SendTag Tag(int k) { return Rec<SendTag>(B().tag(k).v); }

Bytes Encode(const ReqResBase& m) {
    Bytes out(m.GetSize());
    out.resize(m.GetBuffer(out.data()));
    return out;
}
// Decodes from a heap copy of exactly `bytes`, so that any read beyond it is caught by ASan.
void Decode(ReqResBase& m, const Bytes& bytes, unsigned int nBufferSize) {
    std::unique_ptr<unsigned char[]> copy(new unsigned char[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), copy.get());
    m.FromBuffer(copy.get(), nBufferSize);
}

// ---------------------------------------------------------------------------------------------
// Every class, filled field by field, against the body its offset table gives.

struct Golden {
    const char* name;
    std::function<Msg()> make;   // filled
    std::function<Msg()> fresh;  // as constructed
    Bytes body;
};

// Classes that take their action ID get the one at the head of the body.
template <class T>
std::unique_ptr<T> New([[maybe_unused]] int32_t id) {
    if constexpr (std::is_constructible<T, int32_t>::value) {
        return std::make_unique<T>(id);
    } else {
        return std::make_unique<T>();
    }
}
template <class T>
Golden G(const char* name, Bytes body, std::function<void(T&)> fill = nullptr) {
    const int32_t id = static_cast<int32_t>(body[0] | body[1] << 8 | body[2] << 16 | body[3] << 24);
    auto make = [fill, id] {
        std::unique_ptr<T> m = New<T>(id);
        if (fill) {
            fill(*m);
        }
        return Msg(std::move(m));
    };
    return {name, make, [] { return Msg(std::make_unique<T>()); }, std::move(body)};
}
// An 8-byte reply: action ID, result.
template <class T>
Golden R(const char* name, int32_t id) {
    return G<T>(name, B().i32(id).i32(-42).v, [](T& m) { m.nResult = -42; });
}
// The values of B::fileHead.
template <class T>
void FillFileHead(T& m) {
    m.nStatus = 9, m.ullCurrentSize = 0x100000002ull, m.ullTotalSize = 0x300000004ull;
    m.ullListTotalSize = 0x500000006ull, m.nEventType = 1, m.nTaskID = 2, m.nCurrentCount = 3, m.nTotalCount = 4;
    Wire::CopyText(m.strFileName, "report.pdf");
}

std::vector<Golden> Goldens() {
    return {
        G<RegisterReq>("RegisterReq", B().i32(1).i32(77).str("demo", 260).u8(1).u8(0).v,
                       [](auto& m) { m.nAppID = 77, m.SetAppName("demo"), m.fDeviceEvents = true; }),
        G<RegisterRes>("RegisterRes", B().i32(1).i32(5).i32(0).v, [](auto& m) { m.nAppID = 5, m.nResult = 0; }),
        G<UnregisterReq>("UnregisterReq", B().i32(2).i32(0x01020304).v, [](auto& m) { m.nAppID = 0x01020304; }),
        G<SearchAppReq>("SearchAppReq", B().i32(44).v),
        G<SearchAppRes>("SearchAppRes", B().i32(44).i32(2).app(1).app(2).i32(-42).v,
                        [](auto& m) { m.apps = {App(1), App(2)}, m.nResult = -42; }),
        G<RefreshAppReq>("RefreshAppReq", B().i32(49).u8(1).v, [](auto& m) { m.fRefresh = true; }),
        G<InterAppChangeRes>("InterAppChangeRes", B().i32(45).i32(0).i32(2).app(3).v,
                             [](auto& m) { m.nStatus = 0, m.nChangeType = 2, m.app = App(3); }),
        G<GetLocalNetworkDeviceReq>("GetLocalNetworkDeviceReq", B().i32(17).v),
        G<GetLocalNetworkDeviceRes>(
            "GetLocalNetworkDeviceRes",
            B().i32(17).str("host", 32).str("192.168.1.5", 16).str("192.168.1.1", 16).i32(2).card(1).card(2).i32(-42).v,
            [](auto& m) {
                Wire::CopyText(m.device.szHostName, "host");
                Wire::CopyText(m.device.szIPv4, "192.168.1.5");
                Wire::CopyText(m.device.szGateway, "192.168.1.1");
                m.device.networkCards = {Rec<NetworkCard>(B().card(1).v), Rec<NetworkCard>(B().card(2).v)};
                m.nResult = -42;
            }),
        G<SendDataReq>("SendDataReq", B().i32(18).app(1).u8(1).i32(-5).i32(5).str("hello", 5).v,
                       [](auto& m) { m.app = App(1), m.fFlag = true, m.nTimeout = -5, m.data.Set("hello", 5); }),
        G<AsynSendDataReq>("AsynSendDataReq", B().i32(53).app(2).u8(0).u8(1).i32(2).str("xy", 2).v,
                           [](auto& m) { m.app = App(2), m.fWantStatus = true, m.data.Set("xy", 2); }),
        G<SendUDPDataReq>("SendUDPDataReq", B().i32(48).app(3).u8(1).i32(3).str("abc", 3).v,
                          [](auto& m) { m.app = App(3), m.fFlag = true, m.data.Set("abc", 3); }),
        G<BroadcastReq>("BroadcastReq", B().i32(16).app(4).u8(0).i32(1).str("b", 1).v,
                        [](auto& m) { m.app = App(4), m.data.Set("b", 1); }),
        G<SendUDPHugeDataReq>("SendUDPHugeDataReq", B().i32(50).app(5).i32(4).str("1234", 4).v,
                              [](auto& m) { m.app = App(5), m.data.Set("1234", 4); }),
        G<ReceiveDataRes>("ReceiveDataRes", B().i32(20).i32(0).i32(0x8101).app(4).i32(3).str("xyz", 3).v,
                          [](auto& m) {
                              m.nStatus = 0, m.nDataType = 0x8101, m.sender = App(4), m.data.Set("xyz", 3);
                          }),
        G<SendUDPDataStatusRes>("SendUDPDataStatusRes", B().i32(52).i32(6).i32(7).str("10.9.8.7", 16).i32(8).tag(3).v,
                                [](auto& m) {
                                    m.nStatus = 6, m.nEventType = 7, m.nRemoteAppID = 8, m.sendTag = Tag(3);
                                    Wire::CopyText(m.szIPv4, "10.9.8.7");
                                }),
        G<SendTCPDataStatusRes>("SendTCPDataStatusRes", B().i32(54).i32(6).i32(7).str("10.9.8.6", 16).i32(8).tag(4).v,
                                [](auto& m) {
                                    m.nStatus = 6, m.nEventType = 7, m.nRemoteAppID = 8, m.sendTag = Tag(4);
                                    Wire::CopyText(m.szIPv4, "10.9.8.6");
                                }),
        G<SendFileReq>("SendFileReq", B().i32(51).i32(2).str("/a/one", 260).str("/b/two", 260).app(6).tag(7).i32(9).v,
                       [](auto& m) {
                           m.files = {FilePath("/a/one"), FilePath("/b/two")};
                           m.app = App(6), m.sendTag = Tag(7), m.nMode = 9;
                       }),
        G<SendFileRes>("SendFileRes", B().i32(51).i32(33).i32(0).v, [](auto& m) { m.nTaskID = 33, m.nResult = 0; }),
        G<FileTransferCtrlReq>("FileTransferCtrlReq", B().i32(11).i32(5).v, [](auto& m) { m.nTaskID = 5; }),
        G<FileTransferCtrlRes>("FileTransferCtrlRes", B().i32(12).i32(44).i32(-42).v,
                               [](auto& m) { m.nTaskID = 44, m.nResult = -42; }),
        G<SetReceiveOptionReq>("SetReceiveOptionReq",
                               B().i32(15).str("/sdcard/in", 260).u8(0).u8(0).u8(1).i32(0x0A0B0C0D).v,
                               [](auto& m) {
                                   m.SetDirectory("/sdcard/in");
                                   m.rename = false, m.fReceiveFile = true, m.percent = 0x0A0B0C0D;
                               }),
        G<SendFileStatusRes>("SendFileStatusRes", B().fileHead(14).app(5).tag(6).v,
                             [](auto& m) { FillFileHead(m), m.receiver = App(5), m.sendTag = Tag(6); }),
        G<ReceiveFileRes>("ReceiveFileRes", B().fileHead(19).tag(7).app(8).v,
                          [](auto& m) { FillFileHead(m), m.sendTag = Tag(7), m.sender = App(8); }),
        G<DMFileCopyRes>("DMFileCopyRes", B().fileHead(41).tag(8).dev(9).v,
                         [](auto& m) { FillFileHead(m), m.sendTag = Tag(8), m.otherSide = Dev(9); }),
        G<SearchDeviceReq>("SearchDeviceReq", B().i32(23).v),
        G<SearchDeviceRes>("SearchDeviceRes", B().i32(23).i32(2).dev(1).dev(2).i32(-42).v,
                           [](auto& m) { m.devices = {Dev(1), Dev(2)}, m.nResult = -42; }),
        G<DMSCtrlReq>("DMSCtrlReq", B().i32(28).v),
        G<UpdateShareFolderReq>("UpdateShareFolderReq", B().i32(30).v),
        G<RescanNetworkReq>("RescanNetworkReq", B().i32(33).i32(1).v, [](auto& m) { m.type = DLNA_DEVICE_DMR; }),
        G<CopyTransferCtrlReq>("CopyTransferCtrlReq", B().i32(29).i32(-3).v, [](auto& m) { m.nTaskID = -3; }),
        G<SetShareFolderReq>("SetShareFolderReq", B().i32(21).str("/share", 260).v,
                             [](auto& m) { m.SetFolderPath("/share"); }),
        G<SetMyDMSNameReq>("SetMyDMSNameReq", B().i32(31).str("My DMS", 260).v, [](auto& m) { m.SetName("My DMS"); }),
        G<FilePlayCtrlReq>("FilePlayCtrlReq", B().i32(37).dev(1).v, [](auto& m) { m.renderer = Dev(1); }),
        G<ContentListCacheCtrlReq>("ContentListCacheCtrlReq", B().i32(43).dev(2).v,
                                   [](auto& m) { m.server = Dev(2); }),
        G<GetFileListReq>("GetFileListReq", B().i32(26).dev(3).file(4).v,
                          [](auto& m) { m.server = Dev(3), m.folder = File(4); }),
        G<GetFileListRes>("GetFileListRes", B().i32(25).i32(2).file(1).file(2).i32(-42).v,
                          [](auto& m) { m.items = {File(1), File(2)}, m.nResult = -42; }),
        G<GetParentDirectoryInfoReq>("GetParentDirectoryInfoReq", B().i32(47).file(5).v,
                                     [](auto& m) { m.item = File(5); }),
        G<GetParentDirectoryInfoRes>("GetParentDirectoryInfoRes", B().i32(47).i32(-42).file(6).v,
                                     [](auto& m) { m.nResult = -42, m.parent = File(6); }),
        G<CopyFileReq>("CopyFileReq", B().i32(39).dev(1).dev(2).i32(2).file(1).file(2).file(9).v, [](auto& m) {
            m.source = Dev(1), m.destination = Dev(2), m.items = {File(1), File(2)}, m.destinationFolder = File(9);
        }),
        G<CopyFileRes>("CopyFileRes", B().i32(39).i32(55).i32(-42).v, [](auto& m) { m.nTaskID = 55, m.nResult = -42; }),
        G<PlaySelectedFileReq>("PlaySelectedFileReq", B().i32(35).dev(4).dev(5).i32(1).file(3).i32(11).i32(-12).v,
                               [](auto& m) {
                                   m.server = Dev(4), m.renderer = Dev(5), m.items = {File(3)};
                                   m.nOption1 = 11, m.nOption2 = -12;
                               }),
        G<DMDeviceChangeRes>("DMDeviceChangeRes", B().i32(32).i32(3).i32(2).dev(7).v,
                             [](auto& m) { m.nStatus = 3, m.nChangeType = 2, m.device = Dev(7); }),
        R<UnregisterRes>("UnregisterRes", 2), R<RefreshAppRes>("RefreshAppRes", 49), R<SendDataRes>("SendDataRes", 18),
        R<SendUDPDataRes>("SendUDPDataRes", 48), R<SendUDPHugeDataRes>("SendUDPHugeDataRes", 50),
        R<BroadcastRes>("BroadcastRes", 16), R<SetReceiveOptionRes>("SetReceiveOptionRes", 15),
        R<DMSCtrlRes>("DMSCtrlRes", 28), R<UpdateShareFolderRes>("UpdateShareFolderRes", 30),
        R<RescanNetworkRes>("RescanNetworkRes", 33), R<CopyTransferCtrlRes>("CopyTransferCtrlRes", 29),
        R<SetShareFolderRes>("SetShareFolderRes", 21), R<SetMyDMSNameRes>("SetMyDMSNameRes", 31),
        R<FilePlayCtrlRes>("FilePlayCtrlRes", 38), R<ContentListCacheCtrlRes>("ContentListCacheCtrlRes", 43),
        R<PlaySelectedFileRes>("PlaySelectedFileRes", 35),
    };
}

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
    EXPECT_EQ(3, SendTag().byEventType);
    EXPECT_STREQ("127.0.0.1", DLNADevice().IPv4);
    const ReceiveOption option;
    EXPECT_TRUE(option.directory[0] == 0 && option.rename && option.percent == 1);
    EXPECT_TRUE(option.pfnReceiveData == nullptr && option.pfnReceiveFile == nullptr);
    EXPECT_FALSE(IsEventActionID(ACTION_SERVER_DISCONNECTED));
    EXPECT_TRUE(IsEventActionID(ACTION_SEND_TCP_DATA_STATUS));
}

}  // namespace
