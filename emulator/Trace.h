// The protocol trace: one line per message with its name, action ID and decoded fields, as
// app developers attach it to bug reports. Texts are quoted and escaped, data blocks shown by
// length and a short preview, long lists by their first records. Pure formatting: it owns
// nothing and any thread may use it.
#ifndef PELK_EMULATOR_TRACE_H
#define PELK_EMULATOR_TRACE_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ActionManager/Struct.h"

namespace PELK {
namespace Emulator {

class Trace {
public:
    // Records of a list beyond this many are counted, not shown.
    static constexpr size_t kListPreview = 4;
    // Bytes of a data block shown.
    static constexpr size_t kDataPreview = 40;

    Trace(const char* name, int32_t actionID);
    const std::string& line() const { return m_line; }

    Trace& num(const char* name, int64_t value);
    Trace& flag(const char* name, bool value);
    // A fixed character array, read up to its terminator or its full size.
    template <size_t N>
    Trace& text(const char* name, const char (&chars)[N]) {
        return bytes(name, chars, N);
    }
    Trace& app(const char* name, const InteractionApp& app);
    Trace& device(const char* name, const DLNADevice& device);
    Trace& item(const char* name, const FileInfo& item);
    Trace& tag(const char* name, const SendTag& tag);
    Trace& data(const char* name, const MessageData& data);
    template <class R>
    Trace& list(const char* name, const std::vector<R>& records) {
        open(name);
        m_line += '[' + std::to_string(records.size()) + ']';
        for (size_t i = 0; i < records.size() && i < kListPreview; ++i) {
            m_line += i == 0 ? "" : ",";
            record(records[i]);
        }
        if (records.size() > kListPreview) {
            m_line += ",...";
        }
        return *this;
    }

private:
    Trace& bytes(const char* name, const char* chars, size_t size);
    void open(const char* name);
    void appendQuoted(const char* chars, size_t length);
    void record(const InteractionApp& app);
    void record(const DLNADevice& device);
    void record(const FileInfo& item);
    void record(const NetworkCard& card);
    void record(const FilePath& path);

    std::string m_line;
};

// text in double quotes, with quotes, backslashes and unprintable bytes escaped.
std::string quoted(const char* text, size_t length);
// A fixed character array, read up to its terminator or its full size, quoted.
template <size_t N>
std::string quoted(const char (&field)[N]) {
    return quoted(field, strnlen(field, N));
}

// One describe() per message class that the emulator reads or writes.
void describe(Trace& t, const RegisterReq& m);
void describe(Trace& t, const RegisterRes& m);
void describe(Trace& t, const UnregisterReq& m);
void describe(Trace& t, const SearchAppReq& m);
void describe(Trace& t, const SearchAppRes& m);
void describe(Trace& t, const RefreshAppReq& m);
void describe(Trace& t, const InterAppChangeRes& m);
void describe(Trace& t, const GetLocalNetworkDeviceReq& m);
void describe(Trace& t, const GetLocalNetworkDeviceRes& m);
void describe(Trace& t, const SendDataReq& m);
void describe(Trace& t, const AsynSendDataReq& m);
void describe(Trace& t, const SendUDPDataReq& m);
void describe(Trace& t, const BroadcastReq& m);
void describe(Trace& t, const SendUDPHugeDataReq& m);
void describe(Trace& t, const ReceiveDataRes& m);
void describe(Trace& t, const SendUDPDataStatusRes& m);
void describe(Trace& t, const SendTCPDataStatusRes& m);
void describe(Trace& t, const SendFileReq& m);
void describe(Trace& t, const SendFileRes& m);
void describe(Trace& t, const FileTransferCtrlReq& m);
void describe(Trace& t, const FileTransferCtrlRes& m);
void describe(Trace& t, const SetReceiveOptionReq& m);
void describe(Trace& t, const SendFileStatusRes& m);
void describe(Trace& t, const ReceiveFileRes& m);
void describe(Trace& t, const SearchDeviceReq& m);
void describe(Trace& t, const DMSCtrlReq& m);
void describe(Trace& t, const UpdateShareFolderReq& m);
void describe(Trace& t, const RescanNetworkReq& m);
void describe(Trace& t, const CopyTransferCtrlReq& m);
void describe(Trace& t, const SetShareFolderReq& m);
void describe(Trace& t, const SetMyDMSNameReq& m);
void describe(Trace& t, const FilePlayCtrlReq& m);
void describe(Trace& t, const ContentListCacheCtrlReq& m);
void describe(Trace& t, const GetFileListReq& m);
void describe(Trace& t, const GetParentDirectoryInfoReq& m);
void describe(Trace& t, const CopyFileReq& m);
void describe(Trace& t, const PlaySelectedFileReq& m);
void describe(Trace& t, const SearchDeviceRes& m);
void describe(Trace& t, const GetFileListRes& m);
void describe(Trace& t, const GetParentDirectoryInfoRes& m);
void describe(Trace& t, const CopyFileRes& m);
void describe(Trace& t, const DMDeviceChangeRes& m);
void describe(Trace& t, const DMFileCopyRes& m);

// The 8-byte replies: an action ID and a result.
template <class Res>
auto describe(Trace& t, const Res& m) -> decltype(m.nResult, void()) {
    t.num("nResult", m.nResult);
}

// "Name(actionID) field=value ..." for any message class above.
template <class Msg>
std::string traceLine(const Msg& message) {
    Trace t(Msg::kName, message.actionID);
    describe(t, message);
    return t.line();
}

}  // namespace Emulator
}  // namespace PELK

#endif  // PELK_EMULATOR_TRACE_H
