// The emulator's conventions for the values that the protocol leaves to the service: result
// codes of its replies, the data kinds of event 20, and the event types of the file, copy and
// data status events. The emulator writes them and the pelk command line reads them; both
// include this header. Constants and pure functions only: any thread may use them.
#ifndef PELK_EMULATOR_SERVICECODES_H
#define PELK_EMULATOR_SERVICECODES_H

#include <cstdint>

namespace PELK {
namespace Emulator {

// Results of the emulator's replies (0 success). They stay below 1000 so that they are never
// taken for one of the library's own codes, and 1100 (which stops the agent's reconnection) is
// never used.
enum ServiceResult : int32_t {
    RESULT_OK = 0,
    RESULT_NOT_REGISTERED = 2,      // the connection has not registered an app
    RESULT_ALREADY_REGISTERED = 3,  // the connection registered an app already
    RESULT_NO_APP_ID = 4,           // all 255 app IDs are in use
    RESULT_BAD_REQUEST = 5,         // a field is empty, out of range or inconsistent
    RESULT_UNKNOWN_TARGET = 6,      // no registered app has that address and app ID
    RESULT_MISSING_FILE = 7,        // a file to send or copy does not exist, is not a regular file or cannot be read
    RESULT_BAD_FOLDER = 8,          // a folder does not exist, is not a folder or cannot be used
    RESULT_NO_RECEIVE_FOLDER = 9,   // the receiving app has set no receive folder
    RESULT_UNKNOWN_TASK = 10,       // no running transfer or copy with that task ID belongs to the caller
    RESULT_UNKNOWN_DEVICE = 11,     // no media server or renderer with that UUID
    RESULT_UNKNOWN_ITEM = 12,       // no content item with that object ID on that server
    RESULT_NO_PARENT = 13,          // the root of a server has no parent
    RESULT_NOT_PLAYING = 14,        // the renderer has nothing to pause or resume
};

// Data kinds of event 20 (0x8101, a piece of a large UDP payload, is the protocol's own).
enum DataKind : int32_t {
    DATA_KIND_TCP = 0,
    DATA_KIND_UDP = 1,
    DATA_KIND_BROADCAST = 2,
    DATA_KIND_HUGE_PIECE = 0x8101,
};

// Event types of the file events 14, 19 and 41 (the int32 at offset 32). The events' counts
// are 1-based: nCurrentCount is the file that the event is about, nTotalCount the list's size.
enum FileEventType : int32_t {
    FILE_EVENT_PROGRESS = 1,   // ullCurrentSize of the current file advanced
    FILE_EVENT_FILE_DONE = 2,  // the current file is complete
    FILE_EVENT_LIST_DONE = 3,  // every file is complete: the transfer's last event
    FILE_EVENT_PAUSED = 4,
    FILE_EVENT_RESUMED = 5,
    FILE_EVENT_CANCELLED = 6,  // last event; the unfinished file is removed
    FILE_EVENT_FAILED = 7,     // last event; the status word (offset 4) holds the result
};

// Change types of the app event 45 (the protocol's) and of the device event 32 (alike).
enum AppChange : int32_t {
    APP_APPEARED = 1,
    APP_LEFT = 2,
};
enum DeviceChange : int32_t {
    DEVICE_APPEARED = 1,
    DEVICE_LEFT = 2,
};

// Event types of the data status events 52 and 54 (the int32 at offset 8). The word at offset 4,
// which the agent hands on as the event's ID, numbers the sending app's sends (as does the tag's
// value).
enum DataEventType : int32_t {
    DATA_EVENT_DELIVERED = 1,
    DATA_EVENT_FAILED = 2,  // no registered app has the target's address and app ID
};

// One line for a result of the emulator, or null for a value it never returns.
inline const char* describeServiceResult(int32_t result) {
    switch (result) {
        case RESULT_OK: return "success";
        case RESULT_NOT_REGISTERED: return "this connection has not registered an app";
        case RESULT_ALREADY_REGISTERED: return "this connection has registered an app already";
        case RESULT_NO_APP_ID: return "the service has no free app ID (255 apps are registered)";
        case RESULT_BAD_REQUEST: return "the request has an empty, out-of-range or inconsistent field";
        case RESULT_UNKNOWN_TARGET: return "no registered app has that address and app ID";
        case RESULT_MISSING_FILE: return "a file does not exist, is not a regular file or cannot be read";
        case RESULT_BAD_FOLDER: return "the folder does not exist, is not a folder or cannot be used";
        case RESULT_NO_RECEIVE_FOLDER: return "the receiving app has set no receive folder";
        case RESULT_UNKNOWN_TASK: return "no running transfer of yours has that task ID";
        case RESULT_UNKNOWN_DEVICE: return "no media server or renderer has that UUID";
        case RESULT_UNKNOWN_ITEM: return "the server has no item with that object ID";
        case RESULT_NO_PARENT: return "the root of a server has no parent";
        case RESULT_NOT_PLAYING: return "the renderer is not playing anything";
        default: return nullptr;
    }
}

}  // namespace Emulator
}  // namespace PELK

#endif  // PELK_EMULATOR_SERVICECODES_H
