// The message classes against the golden bodies of their offset tables: each encodes to its
// golden body and decodes it back field by field, while a body that is null, cut short or claims
// more records or bytes than it holds changes nothing.
#include "ActionManager/Struct.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/MessageGoldens.h"

using namespace PELK;
using namespace pelktest;

namespace {

// Decodes from a heap copy of exactly `bytes` (a copied vector holds no spare room), so that any
// read beyond it is caught by ASan.
void Decode(ReqResBase& m, const Bytes& bytes, unsigned int nBufferSize) {
    m.FromBuffer(Bytes(bytes).data(), nBufferSize);
}

// Where the messages that grow with a count or a length keep it: what their decoders must not trust.
const std::map<std::string, size_t> kCountAt = {
    {"SendFileReq", 4},    {"SearchAppRes", 4},         {"SearchDeviceRes", 4},       {"GetFileListRes", 4},
    {"BroadcastReq", 309}, {"SendUDPDataReq", 309},     {"SendUDPHugeDataReq", 308},  {"AsynSendDataReq", 310},
    {"SendDataReq", 313},  {"ReceiveDataRes", 316},     {"GetLocalNetworkDeviceRes", 68},
    {"CopyFileReq", 1228}, {"PlaySelectedFileReq", 1228},
};

// Both the filled object and the decoded golden body encode to the golden body, so every field
// is encoded and decoded at its offset.
TEST(StructTest, EveryMessageMatchesItsOffsetTableAndRefusesBadBodies) {
    for (const Golden& c : Goldens()) {
        SCOPED_TRACE(c.name);
        const std::string name = c.name;
        const Msg filled = c.make();
        EXPECT_EQ(c.body, Encode(*filled));
        // The file events report 8 bytes they never write; decoders want GetSize() bytes.
        const bool fileEvent = name == "SendFileStatusRes" || name == "ReceiveFileRes" || name == "DMFileCopyRes";
        const unsigned int whole = static_cast<unsigned int>(c.body.size()) + (fileEvent ? 8 : 0);
        EXPECT_EQ(whole, filled->GetSize());
        EXPECT_EQ(whole, filled->GetBuffer(nullptr));

        const Msg m = c.fresh();
        const Bytes before = Encode(*m);
        if (name.compare(name.size() - 3, 3, "Res") == 0 && before.size() <= 12) {
            EXPECT_EQ(B().i32(1).v, Bytes(before.end() - 4, before.end())) << "a reply left unread must fail";
        }
        const size_t least = m->GetSize();
        std::vector<std::pair<Bytes, unsigned int>> bad = {{c.body, least - 1}};
        for (size_t cut : {size_t(0), size_t(1), size_t(4), least / 2, least - 1, c.body.size() - 1}) {
            if (cut < whole) {
                const Bytes part(c.body.begin(), c.body.begin() + static_cast<long>(std::min(cut, c.body.size())));
                bad.emplace_back(part, static_cast<unsigned int>(part.size()));
            }
        }
        const auto countAt = kCountAt.find(name);
        if (countAt != kCountAt.end()) {
            for (int64_t claim : {int64_t(readInt32(c.body, countAt->second)) + 1, int64_t(INT_MAX), int64_t(-1),
                                  int64_t(INT_MIN)}) {
                Bytes b = c.body;
                const Bytes count = B().i32(claim).v;
                std::copy(count.begin(), count.end(), b.begin() + static_cast<long>(countAt->second));
                bad.emplace_back(b, static_cast<unsigned int>(b.size()));
            }
        }
        m->FromBuffer(nullptr, 0xFFFFFFFFu);
        for (const auto& [b, size] : bad) {
            Decode(*m, b, size);
            EXPECT_EQ(before, Encode(*m)) << "body of " << b.size() << " bytes read as " << size;
        }
        Decode(*m, c.body, whole);
        EXPECT_EQ(c.body, Encode(*m));
    }
}

TEST(StructTest, TextsAreCutToTheirFieldsAndAnEmptyListIsRead) {
    const std::string longest(259, 'p'), tooLong(300, 'p');
    RegisterReq req, back;
    req.SetAppName(tooLong.c_str());
    Decode(back, Encode(req), 270);
    InteractionApp app;
    app.SetIPv4("123.123.123.1234");
    app.SetMacAddress("01:23:45:67:89:abc");
    const std::pair<std::string, std::string> cuts[] = {{longest, req.szAppName},
                                                        {longest, back.szAppName},
                                                        {longest, FilePath(tooLong.c_str()).szPath},
                                                        {"123.123.123.123", app.szIPv4},
                                                        {"01:23:45:67:89:ab", app.szMacAddress}};
    for (const auto& [expected, cut] : cuts) EXPECT_EQ(expected, cut);

    // An empty list still carries its result.
    SearchAppRes apps;
    Decode(apps, B().i32(44).i32(0).i32(0).v, 12);
    EXPECT_EQ(0, apps.nResult);
}

}  // namespace
