// The agent's own result codes, one table per operation family. The numbers are the apps' contract
// and never change; code returns them by name, pelk explains them from the same rows, and the
// suites walk the rows, so a number and its meaning cannot drift apart. Header only: pelk reads it
// without linking the library's internals.
#ifndef PELK_ACTIONMANAGER_RESULTCODES_H
#define PELK_ACTIONMANAGER_RESULTCODES_H

#include <cstddef>

namespace PELK {

struct ResultCode {
    int value;
    const char* meaning;

    // Operations return plain ints; a named code stands wherever its number would.
    constexpr operator int() const { return value; }
};

// Results shared by the media operations and the helpers every family uses.
namespace CommonResult {
constexpr ResultCode kMissingArgument{1001, "a required argument is missing"};
constexpr ResultCode kNotRegistered{1002, "the app is not registered with the service"};
constexpr ResultCode kOutOfMemory{1008, "out of memory"};
constexpr ResultCode kAll[] = {kMissingArgument, kNotRegistered, kOutOfMemory};
}  // namespace CommonResult

// The link to the service: every request's own failures.
namespace LinkResult {
constexpr ResultCode kNotRegistered{1100, "the app is not registered with the service"};
constexpr ResultCode kOutOfMemory{1101, "out of memory for the service's reply"};
constexpr ResultCode kBadCall{1102, "the request could not be made or its reply not taken"};
constexpr ResultCode kLockFailed{1103, "the link to the service is busy and could not be locked"};
constexpr ResultCode kSocketLockFailed{1104, "the link's socket could not be locked"};
constexpr ResultCode kSendFailed{1105, "the request could not be sent to the service"};
constexpr ResultCode kTimeout{1106, "the service did not answer in time"};
constexpr ResultCode kDisconnected{1107, "the connection to the service was lost"};
constexpr ResultCode kAll[] = {kNotRegistered, kOutOfMemory, kBadCall,  kLockFailed,
                               kSocketLockFailed, kSendFailed, kTimeout, kDisconnected};
}  // namespace LinkResult

namespace RegisterResult {
constexpr ResultCode kAlreadyRegistered{1200, "the app is registered already"};
constexpr ResultCode kOutOfMemory{1201, "out of memory while registering"};
constexpr ResultCode kNoName{1202, "no app name was given"};
constexpr ResultCode kEmptyName{1203, "the app name is empty"};
constexpr ResultCode kNameTooLong{1204, "the app name is longer than 259 characters"};
constexpr ResultCode kServiceUnreachable{
    1206, "the service at 127.0.0.1:20014 cannot be reached; is pelk-emulator running?"};
constexpr ResultCode kAll[] = {kAlreadyRegistered, kOutOfMemory, kNoName, kEmptyName, kNameTooLong,
                               kServiceUnreachable};
}  // namespace RegisterResult

namespace UnregisterResult {
constexpr ResultCode kNotRegistered{1300, "the app is not registered"};
constexpr ResultCode kOutOfMemory{1301, "out of memory while unregistering"};
constexpr ResultCode kAll[] = {kNotRegistered, kOutOfMemory};
}  // namespace UnregisterResult

// sendData and asynSendData.
namespace SendDataResult {
constexpr ResultCode kNotRegistered{1400, "the app is not registered"};
constexpr ResultCode kOutOfMemory{1401, "out of memory for the data"};
constexpr ResultCode kNoData{1402, "no data was given"};
constexpr ResultCode kNoTarget{1403, "no target app, or its address is empty"};
constexpr ResultCode kTooLong{1404, "the data is longer than 65535 bytes"};
constexpr ResultCode kEmpty{1405, "the data is empty"};
constexpr ResultCode kAll[] = {kNotRegistered, kOutOfMemory, kNoData, kNoTarget, kTooLong, kEmpty};
}  // namespace SendDataResult

namespace SendUDPDataResult {
constexpr ResultCode kNotRegistered{1500, "the app is not registered"};
constexpr ResultCode kOutOfMemory{1501, "out of memory for the UDP data"};
constexpr ResultCode kNoData{1502, "no UDP data was given"};
constexpr ResultCode kNoTarget{1503, "no target app, or its address is empty"};
constexpr ResultCode kEmpty{1504, "the UDP data is empty"};
constexpr ResultCode kAll[] = {kNotRegistered, kOutOfMemory, kNoData, kNoTarget, kEmpty};
}  // namespace SendUDPDataResult

namespace SendUDPHugeDataResult {
constexpr ResultCode kNotRegistered{1600, "the app is not registered"};
constexpr ResultCode kOutOfMemory{1601, "out of memory for the large payload"};
constexpr ResultCode kNoData{1602, "no payload was given"};
constexpr ResultCode kNoTarget{1603, "no target app, or its address is empty"};
constexpr ResultCode kEmpty{1604, "the payload is empty"};
constexpr ResultCode kAll[] = {kNotRegistered, kOutOfMemory, kNoData, kNoTarget, kEmpty};
}  // namespace SendUDPHugeDataResult

namespace SendFileResult {
constexpr ResultCode kNotRegistered{1700, "the app is not registered"};
constexpr ResultCode kNoPath{1702, "no file path was given"};
constexpr ResultCode kPathNotAbsolute{1703, "the file path cannot be made absolute"};
constexpr ResultCode kAll[] = {kNotRegistered, kNoPath, kPathNotAbsolute};
}  // namespace SendFileResult

namespace SendFileListResult {
constexpr ResultCode kNotRegistered{1800, "the app is not registered"};
constexpr ResultCode kOutOfMemory{1801, "out of memory for the file list"};
constexpr ResultCode kNoList{1802, "no file list was given"};
constexpr ResultCode kEmptyList{1803, "the file list is empty"};
constexpr ResultCode kNoTaskPlace{1804, "no place for the task ID was given"};
constexpr ResultCode kNoTarget{1805, "no target app was given"};
constexpr ResultCode kPathNotAbsolute{1806, "a file path cannot be made absolute"};
constexpr ResultCode kNameTooLong{1807, "a file name is 226 characters or longer"};
constexpr ResultCode kAll[] = {kNotRegistered, kOutOfMemory, kNoList,          kEmptyList,
                               kNoTaskPlace,   kNoTarget,    kPathNotAbsolute, kNameTooLong};
}  // namespace SendFileListResult

namespace BroadcastResult {
constexpr ResultCode kNotRegistered{1900, "the app is not registered"};
constexpr ResultCode kOutOfMemory{1901, "out of memory for the broadcast"};
constexpr ResultCode kNoData{1902, "no broadcast data was given"};
constexpr ResultCode kNoAddress{1903, "no broadcast address was given"};
constexpr ResultCode kAddressTooLong{1904, "the broadcast address is longer than 15 characters"};
constexpr ResultCode kTooLong{1905, "the broadcast data is longer than 2039 bytes"};
constexpr ResultCode kAll[] = {kNotRegistered, kOutOfMemory, kNoData, kNoAddress, kAddressTooLong, kTooLong};
}  // namespace BroadcastResult

// pauseSend, resumeSend, cancelSend and cancelReceive.
namespace TransferControlResult {
constexpr ResultCode kNotRegistered{2000, "the app is not registered"};
constexpr ResultCode kOutOfMemory{2001, "out of memory for the transfer command"};
constexpr ResultCode kAll[] = {kNotRegistered, kOutOfMemory};
}  // namespace TransferControlResult

namespace SetReceiveOptionResult {
constexpr ResultCode kNotRegistered{2100, "the app is not registered"};
constexpr ResultCode kOutOfMemory{2101, "out of memory for the receive option"};
constexpr ResultCode kNoOption{2102, "no receive option was given"};
constexpr ResultCode kAll[] = {kNotRegistered, kOutOfMemory, kNoOption};
}  // namespace SetReceiveOptionResult

namespace GetReceiveOptionResult {
constexpr ResultCode kNotRegistered{2200, "the app is not registered"};
constexpr ResultCode kNoPlace{2202, "no place for the receive option was given"};
constexpr ResultCode kAll[] = {kNotRegistered, kNoPlace};
}  // namespace GetReceiveOptionResult

namespace SearchAppResult {
constexpr ResultCode kNotRegistered{2300, "the app is not registered"};
constexpr ResultCode kOutOfMemory{2301, "out of memory for the app search"};
constexpr ResultCode kNoList{2302, "no list for the apps was given"};
constexpr ResultCode kAll[] = {kNotRegistered, kOutOfMemory, kNoList};
}  // namespace SearchAppResult

namespace RefreshAppResult {
constexpr ResultCode kNotRegistered{2400, "the app is not registered"};
constexpr ResultCode kOutOfMemory{2401, "out of memory for the app refresh"};
constexpr ResultCode kAll[] = {kNotRegistered, kOutOfMemory};
}  // namespace RefreshAppResult

namespace NetworkInfoResult {
constexpr ResultCode kNotRegistered{2500, "the app is not registered"};
constexpr ResultCode kOutOfMemory{2501, "out of memory for the network description"};
constexpr ResultCode kNoPlace{2502, "no place for the network description was given"};
constexpr ResultCode kAll[] = {kNotRegistered, kOutOfMemory, kNoPlace};
}  // namespace NetworkInfoResult

namespace AppListResult {
constexpr ResultCode kNotRegistered{2700, "the app is not registered"};
constexpr ResultCode kNoList{2701, "no list for the apps was given"};
constexpr ResultCode kAll[] = {kNotRegistered, kNoList};
}  // namespace AppListResult

// Every family's rows, for whoever must look a number up.
struct ResultFamily {
    const ResultCode* codes;
    size_t count;
};

template <size_t N>
constexpr ResultFamily familyOf(const ResultCode (&codes)[N]) {
    return ResultFamily{codes, N};
}

constexpr ResultFamily kResultFamilies[] = {
    familyOf(CommonResult::kAll),          familyOf(LinkResult::kAll),
    familyOf(RegisterResult::kAll),        familyOf(UnregisterResult::kAll),
    familyOf(SendDataResult::kAll),        familyOf(SendUDPDataResult::kAll),
    familyOf(SendUDPHugeDataResult::kAll), familyOf(SendFileResult::kAll),
    familyOf(SendFileListResult::kAll),    familyOf(BroadcastResult::kAll),
    familyOf(TransferControlResult::kAll), familyOf(SetReceiveOptionResult::kAll),
    familyOf(GetReceiveOptionResult::kAll), familyOf(SearchAppResult::kAll),
    familyOf(RefreshAppResult::kAll),      familyOf(NetworkInfoResult::kAll),
    familyOf(AppListResult::kAll),
};

// The meaning of one of the agent's own codes, or null for any other value (the service's).
inline const char* describeResult(int code) {
    for (const ResultFamily& family : kResultFamilies) {
        for (size_t i = 0; i < family.count; ++i) {
            if (family.codes[i].value == code) {
                return family.codes[i].meaning;
            }
        }
    }
    return nullptr;
}

}  // namespace PELK

#endif  // PELK_ACTIONMANAGER_RESULTCODES_H
