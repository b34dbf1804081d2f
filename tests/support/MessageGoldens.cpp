#include "support/MessageGoldens.h"

#include <cstring>
#include <type_traits>

using namespace PELK;

namespace pelktest {

Bytes Encode(const ReqResBase& m) {
    Bytes out(m.GetSize());
    out.resize(m.GetBuffer(out.data()));
    return out;
}

namespace {

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
Golden G(Bytes body, std::function<void(T&)> fill = nullptr) {
    const int32_t id = static_cast<int32_t>(body[0] | body[1] << 8 | body[2] << 16 | body[3] << 24);
    auto make = [fill, id] {
        std::unique_ptr<T> m = New<T>(id);
        if (fill) {
            fill(*m);
        }
        return Msg(std::move(m));
    };
    return {T::kName, make, [] { return Msg(std::make_unique<T>()); }, std::move(body)};
}
// An 8-byte reply: action ID, result.
template <class T>
Golden R(int32_t id) {
    return G<T>(B().i32(id).i32(-42).v, [](T& m) { m.nResult = -42; });
}
// The values of B::fileHead.
template <class T>
void FillFileHead(T& m) {
    m.nStatus = 9, m.ullCurrentSize = 0x100000002ull, m.ullTotalSize = 0x300000004ull;
    m.ullListTotalSize = 0x500000006ull, m.nEventType = 1, m.nTaskID = 2, m.nCurrentCount = 3, m.nTotalCount = 4;
    Wire::CopyText(m.strFileName, "report.pdf");
}

}  // namespace

std::vector<Golden> Goldens() {
    return {
        G<RegisterReq>(B().i32(1).i32(77).str("demo", 260).u8(1).u8(0).v,
                       [](auto& m) { m.nAppID = 77, m.SetAppName("demo"), m.fDeviceEvents = true; }),
        G<RegisterRes>(B().i32(1).i32(5).i32(0).v, [](auto& m) { m.nAppID = 5, m.nResult = 0; }),
        G<UnregisterReq>(B().i32(2).i32(0x01020304).v, [](auto& m) { m.nAppID = 0x01020304; }),
        G<SearchAppReq>(B().i32(44).v),
        G<SearchAppRes>(B().i32(44).i32(2).app(1).app(2).i32(-42).v,
                        [](auto& m) { m.apps = {App(1), App(2)}, m.nResult = -42; }),
        G<RefreshAppReq>(B().i32(49).u8(1).v, [](auto& m) { m.fRefresh = true; }),
        G<InterAppChangeRes>(B().i32(45).i32(0).i32(2).app(3).v,
                             [](auto& m) { m.nStatus = 0, m.nChangeType = 2, m.app = App(3); }),
        G<GetLocalNetworkDeviceReq>(B().i32(17).v),
        G<GetLocalNetworkDeviceRes>(
            B().i32(17).str("host", 32).str("192.168.1.5", 16).str("192.168.1.1", 16).i32(2).card(1).card(2).i32(-42).v,
            [](auto& m) {
                Wire::CopyText(m.device.szHostName, "host");
                Wire::CopyText(m.device.szIPv4, "192.168.1.5");
                Wire::CopyText(m.device.szGateway, "192.168.1.1");
                m.device.networkCards = {Rec<NetworkCard>(B().card(1).v), Rec<NetworkCard>(B().card(2).v)};
                m.nResult = -42;
            }),
        G<SendDataReq>(B().i32(18).app(1).u8(1).i32(-5).i32(5).str("hello", 5).v,
                       [](auto& m) { m.app = App(1), m.fFlag = true, m.nTimeout = -5, m.data.Set("hello", 5); }),
        G<AsynSendDataReq>(B().i32(53).app(2).u8(0).u8(1).i32(2).str("xy", 2).v,
                           [](auto& m) { m.app = App(2), m.fWantStatus = true, m.data.Set("xy", 2); }),
        G<SendUDPDataReq>(B().i32(48).app(3).u8(1).i32(3).str("abc", 3).v,
                          [](auto& m) { m.app = App(3), m.fFlag = true, m.data.Set("abc", 3); }),
        G<BroadcastReq>(B().i32(16).app(4).u8(0).i32(1).str("b", 1).v,
                        [](auto& m) { m.app = App(4), m.data.Set("b", 1); }),
        G<SendUDPHugeDataReq>(B().i32(50).app(5).i32(4).str("1234", 4).v,
                              [](auto& m) { m.app = App(5), m.data.Set("1234", 4); }),
        G<ReceiveDataRes>(B().i32(20).i32(0).i32(0x8101).app(4).i32(3).str("xyz", 3).v, [](auto& m) {
            m.nStatus = 0, m.nDataType = 0x8101, m.sender = App(4), m.data.Set("xyz", 3);
        }),
        G<SendUDPDataStatusRes>(B().i32(52).i32(6).i32(7).str("10.9.8.7", 16).i32(8).tag(3).v, [](auto& m) {
            m.nStatus = 6, m.nEventType = 7, m.nRemoteAppID = 8, m.sendTag = Tag(3);
            Wire::CopyText(m.szIPv4, "10.9.8.7");
        }),
        G<SendTCPDataStatusRes>(B().i32(54).i32(6).i32(7).str("10.9.8.6", 16).i32(8).tag(4).v, [](auto& m) {
            m.nStatus = 6, m.nEventType = 7, m.nRemoteAppID = 8, m.sendTag = Tag(4);
            Wire::CopyText(m.szIPv4, "10.9.8.6");
        }),
        G<SendFileReq>(B().i32(51).i32(2).str("/a/one", 260).str("/b/two", 260).app(6).tag(7).i32(9).v, [](auto& m) {
            m.files = {FilePath("/a/one"), FilePath("/b/two")};
            m.app = App(6), m.sendTag = Tag(7), m.nMode = 9;
        }),
        G<SendFileRes>(B().i32(51).i32(33).i32(0).v, [](auto& m) { m.nTaskID = 33, m.nResult = 0; }),
        G<FileTransferCtrlReq>(B().i32(11).i32(5).v, [](auto& m) { m.nTaskID = 5; }),
        G<FileTransferCtrlRes>(B().i32(12).i32(44).i32(-42).v, [](auto& m) { m.nTaskID = 44, m.nResult = -42; }),
        G<SetReceiveOptionReq>(B().i32(15).str("/sdcard/in", 260).u8(0).u8(0).u8(1).i32(0x0A0B0C0D).v, [](auto& m) {
            m.SetDirectory("/sdcard/in");
            m.rename = false, m.fReceiveFile = true, m.percent = 0x0A0B0C0D;
        }),
        G<SendFileStatusRes>(B().fileHead(14).app(5).tag(6).v,
                             [](auto& m) { FillFileHead(m), m.receiver = App(5), m.sendTag = Tag(6); }),
        G<ReceiveFileRes>(B().fileHead(19).tag(7).app(8).v,
                          [](auto& m) { FillFileHead(m), m.sendTag = Tag(7), m.sender = App(8); }),
        G<DMFileCopyRes>(B().fileHead(41).tag(8).dev(9).v,
                         [](auto& m) { FillFileHead(m), m.sendTag = Tag(8), m.otherSide = Dev(9); }),
        G<SearchDeviceReq>(B().i32(23).v),
        G<SearchDeviceRes>(B().i32(23).i32(2).dev(1).dev(2).i32(-42).v,
                           [](auto& m) { m.devices = {Dev(1), Dev(2)}, m.nResult = -42; }),
        G<DMSCtrlReq>(B().i32(28).v),
        G<UpdateShareFolderReq>(B().i32(30).v),
        G<RescanNetworkReq>(B().i32(33).i32(1).v, [](auto& m) { m.type = DLNA_DEVICE_DMR; }),
        G<CopyTransferCtrlReq>(B().i32(29).i32(-3).v, [](auto& m) { m.nTaskID = -3; }),
        G<SetShareFolderReq>(B().i32(21).str("/share", 260).v, [](auto& m) { m.SetFolderPath("/share"); }),
        G<SetMyDMSNameReq>(B().i32(31).str("My DMS", 260).v, [](auto& m) { m.SetName("My DMS"); }),
        G<FilePlayCtrlReq>(B().i32(37).dev(1).v, [](auto& m) { m.renderer = Dev(1); }),
        G<ContentListCacheCtrlReq>(B().i32(43).dev(2).v, [](auto& m) { m.server = Dev(2); }),
        G<GetFileListReq>(B().i32(26).dev(3).file(4).v, [](auto& m) { m.server = Dev(3), m.folder = File(4); }),
        G<GetFileListRes>(B().i32(25).i32(2).file(1).file(2).i32(-42).v,
                          [](auto& m) { m.items = {File(1), File(2)}, m.nResult = -42; }),
        G<GetParentDirectoryInfoReq>(B().i32(47).file(5).v, [](auto& m) { m.item = File(5); }),
        G<GetParentDirectoryInfoRes>(B().i32(47).i32(-42).file(6).v,
                                     [](auto& m) { m.nResult = -42, m.parent = File(6); }),
        G<CopyFileReq>(B().i32(39).dev(1).dev(2).i32(2).file(1).file(2).file(9).v, [](auto& m) {
            m.source = Dev(1), m.destination = Dev(2), m.items = {File(1), File(2)}, m.destinationFolder = File(9);
        }),
        G<CopyFileRes>(B().i32(39).i32(55).i32(-42).v, [](auto& m) { m.nTaskID = 55, m.nResult = -42; }),
        G<PlaySelectedFileReq>(B().i32(35).dev(4).dev(5).i32(1).file(3).i32(11).i32(-12).v, [](auto& m) {
            m.server = Dev(4), m.renderer = Dev(5), m.items = {File(3)}, m.nOption1 = 11, m.nOption2 = -12;
        }),
        G<DMDeviceChangeRes>(B().i32(32).i32(3).i32(2).dev(7).v,
                             [](auto& m) { m.nStatus = 3, m.nChangeType = 2, m.device = Dev(7); }),
        R<UnregisterRes>(2), R<RefreshAppRes>(49), R<SendDataRes>(18), R<SendUDPDataRes>(48),
        R<SendUDPHugeDataRes>(50), R<BroadcastRes>(16), R<SetReceiveOptionRes>(15), R<DMSCtrlRes>(28),
        R<UpdateShareFolderRes>(30), R<RescanNetworkRes>(33), R<CopyTransferCtrlRes>(29), R<SetShareFolderRes>(21),
        R<SetMyDMSNameRes>(31), R<FilePlayCtrlRes>(38), R<ContentListCacheCtrlRes>(43), R<PlaySelectedFileRes>(35),
    };
}

}  // namespace pelktest
